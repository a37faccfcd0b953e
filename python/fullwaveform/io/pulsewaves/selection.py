"""Selection of the segments of a PulseWaves file, and their division into blocks."""

from __future__ import annotations

from collections.abc import Iterator
from dataclasses import dataclass

import numpy as np

from fullwaveform.data.arrays import IntArray
from fullwaveform.data.blocks import ReadTally
from fullwaveform.io.block_range import last_cut
from fullwaveform.io.limits import BLOCK_SAMPLES, MAX_SAMPLES, OUTSIDE
from fullwaveform.io.pulsewaves.descriptors import OUTGOING, RETURNING, SamplingTable
from fullwaveform.io.pulsewaves.pulses import PulseData, PulseSurvey
from fullwaveform.io.pulsewaves.samples import SEGMENT, Segments, WaveData, locate_segments

TOO_LONG = f"waveform of more than {MAX_SAMPLES} samples"
NO_DIRECTION = "anchor and target of the pulse are the same"


@dataclass(frozen=True, slots=True)
class Selection:
    """The segments of the pulses of a file."""

    pulses: PulseData
    waves: WaveData
    surveyed: PulseSurvey
    table: SamplingTable  # of the descriptors that pulses refer to

    def blocks(self, limit: int, tally: ReadTally) -> Iterator[Segments]:
        """Yield the readable returning segments in the order of the file, in whole pulses.

        A block has at most `limit` segments, unless a single pulse has more.
        """
        pending = np.empty(0, dtype=SEGMENT)
        for start in range(0, len(self.pulses), limit):
            end = min(start + limit, len(self.pulses))
            tally.points += end - start
            pending = np.concatenate([pending, self.readable(start, end, tally)])
            while (cut := _last_cut(pending, limit)) < len(pending):
                yield pending[:cut]
                pending = pending[cut:]
        if len(pending) > 0:
            yield pending

    def readable(self, start: int, end: int, tally: ReadTally) -> Segments:
        """The readable segments of some pulses; all others are counted."""
        pulses = self.pulses[start:end]
        parts = [np.empty(0, dtype=SEGMENT)]
        for descriptor, code in zip(
            self.table.descriptors, self.table.first_codes[:-1], strict=True
        ):
            rows = np.flatnonzero(pulses["descriptor"] == descriptor.index)
            part, inside = locate_segments(
                self.waves, descriptor, int(code), start + rows, pulses["offset"][rows]
            )
            parts.append(part[self.table.kinds[part["sampling"]] == RETURNING])
            _reject(tally, OUTSIDE, start + rows[~inside])
            with_waveform = len(np.unique(parts[-1]["pulse"]))
            tally.points_without_waveform += int(np.count_nonzero(inside)) - with_waveform
        segments = np.concatenate(parts)
        segments = segments[np.argsort(segments["pulse"], kind="stable")]
        aimed = (pulses["target"] != pulses["anchor"]).any(axis=1)[segments["pulse"] - start]
        short = segments["count"] <= MAX_SAMPLES
        _reject(tally, NO_DIRECTION, segments["pulse"][~aimed])
        _reject(tally, TOO_LONG, segments["pulse"][aimed & ~short])
        readable: Segments = segments[aimed & short]
        return readable

    def outgoing(self, numbers: IntArray) -> Segments:
        """The first outgoing segment of each pulse; without samples if it has none.

        The running numbers (n,) of the pulses ascend.
        """
        pulses = self.pulses.take(numbers)
        first_segments = np.zeros(len(numbers), dtype=SEGMENT)
        for descriptor, code in zip(
            self.table.descriptors, self.table.first_codes[:-1], strict=True
        ):
            rows = np.flatnonzero(pulses["descriptor"] == descriptor.index)
            part, _ = locate_segments(
                self.waves, descriptor, int(code), numbers[rows], pulses["offset"][rows]
            )
            is_outgoing = self.table.kinds[part["sampling"]] == OUTGOING
            part = part[is_outgoing & (part["count"] <= MAX_SAMPLES)]
            pulse, first = np.unique(part["pulse"], return_index=True)
            first_segments[np.searchsorted(numbers, pulse)] = part[first]
        return first_segments


def _reject(tally: ReadTally, reason: str, pulses: IntArray) -> None:
    tally.reject(reason, len(pulses), (f"pulse {pulse}" for pulse in pulses))


def _last_cut(pending: Segments, limit: int) -> int:
    """Rows of the next block: whole pulses within the limits, at least one pulse."""
    rows = np.arange(1, len(pending) + 1)
    padded = rows * np.maximum.accumulate(pending["count"])
    fitting = int(np.count_nonzero((rows <= limit) & (padded <= BLOCK_SAMPLES)))
    return last_cut(pending["pulse"], fitting)
