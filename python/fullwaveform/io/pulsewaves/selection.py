"""Selection of the segments of a PulseWaves file, and their division into blocks."""

from __future__ import annotations

from collections.abc import Iterator
from dataclasses import dataclass

import numpy as np

from fullwaveform.data.arrays import IntArray
from fullwaveform.data.blocks import ReadTally
from fullwaveform.io.block_range import last_cut
from fullwaveform.io.limits import BLOCK_SAMPLES, MAX_SAMPLES, too_long
from fullwaveform.io.pulsewaves.descriptors import OUTGOING, RETURNING, SamplingTable
from fullwaveform.io.pulsewaves.pulses import PulseData, PulseSurvey
from fullwaveform.io.pulsewaves.waves import SEGMENT, Segments, WaveSource

DAMAGED_CHUNK = "pulse in a damaged chunk"
NO_DIRECTION = "anchor and target of the pulse are the same"


@dataclass(frozen=True, slots=True)
class Selection:
    """The segments of the pulses of a file."""

    pulses: PulseData
    waves: WaveSource
    surveyed: PulseSurvey
    table: SamplingTable  # of the descriptors that pulses refer to
    max_samples: int  # of a readable waveform

    def blocks(
        self, limit: int, tally: ReadTally, first: int = 0, counted: int = 0
    ) -> Iterator[tuple[Segments, int]]:
        """Yield the readable returning segments in the order of the file, in whole pulses.

        A block has at most `limit` segments, unless a single pulse has more. Each comes with the
        pulse with which the next one starts. To start with a later block, `first` is its pulse, and
        the pulses before `counted` are not counted again.
        """
        pending, end = self.readable(first, counted, ReadTally()), counted
        while True:
            while (cut := _last_cut(pending, limit)) < len(pending):
                block, pending = pending[:cut], pending[cut:]
                yield block, int(pending["pulse"][0])
            if end == len(self.pulses):
                break
            start, end = end, min(end + limit, len(self.pulses))
            tally.points += end - start
            pending = np.concatenate([pending, self.readable(start, end, tally)])
        if len(pending) > 0:
            yield pending, len(self.pulses)

    def readable(self, start: int, end: int, tally: ReadTally) -> Segments:
        """The readable segments of some pulses; all others are counted."""
        numbers = np.arange(start, end)
        damaged = self.pulses.source.damaged(numbers)
        _reject(tally, DAMAGED_CHUNK, numbers[damaged])
        numbers = numbers[~damaged]
        pulses = self.pulses.take(numbers)
        located, unreadable = self.waves.locate(self.table, self.pulses, numbers, pulses)
        readable = np.ones(len(numbers), dtype=bool)
        for reason, rows in unreadable.items():
            _reject(tally, reason, numbers[rows])
            readable &= ~rows
        segments = located[self.table.kinds[located["sampling"]] == RETURNING]
        short = located["pulse"][self.table.is_short[located["sampling"]]]
        tally.points_short += _distinct(short)
        with_waveform = _distinct(segments["pulse"])
        tally.points_without_waveform += int(np.count_nonzero(readable)) - with_waveform
        aimed = (pulses["target"] != pulses["anchor"]).any(axis=1)
        aimed = aimed[np.searchsorted(numbers, segments["pulse"])]
        fits = segments["count"] <= self.max_samples
        _reject(tally, NO_DIRECTION, segments["pulse"][~aimed])
        _reject(tally, too_long(self.max_samples), segments["pulse"][aimed & ~fits])
        kept: Segments = segments[aimed & fits]
        return kept

    def outgoing(self, numbers: IntArray) -> Segments:
        """The first outgoing segment of each pulse; without samples if it has none.

        The running numbers (n,) of the pulses ascend.
        """
        pulses = self.pulses.take(numbers)
        first_segments = np.zeros(len(numbers), dtype=SEGMENT)
        part, _ = self.waves.locate(self.table, self.pulses, numbers, pulses)
        is_outgoing = self.table.kinds[part["sampling"]] == OUTGOING
        part = part[is_outgoing & (part["count"] <= MAX_SAMPLES)]
        pulse, first = np.unique(part["pulse"], return_index=True)
        first_segments[np.searchsorted(numbers, pulse)] = part[first]
        return first_segments


def _reject(tally: ReadTally, reason: str, pulses: IntArray) -> None:
    tally.reject(reason, len(pulses), (f"pulse {pulse}" for pulse in pulses))


def _distinct(ascending: IntArray) -> int:
    """Number of different values."""
    return int(np.count_nonzero(np.diff(ascending))) + (len(ascending) > 0)


def _last_cut(pending: Segments, limit: int) -> int:
    """Rows of the next block: whole pulses within the limits, at least one pulse."""
    rows = np.arange(1, len(pending) + 1)
    padded = rows * np.maximum.accumulate(pending["count"])
    fitting = int(np.count_nonzero((rows <= limit) & (padded <= BLOCK_SAMPLES)))
    return last_cut(pending["pulse"], fitting)
