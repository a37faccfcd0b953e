"""One pass over a PulseWaves file: which segments are used, and how they are cut into blocks."""

from __future__ import annotations

from collections.abc import Iterator
from dataclasses import dataclass

import numpy as np

from fullwaveform.data.arrays import BoolArray, IntArray
from fullwaveform.data.blocks import ReadTally
from fullwaveform.io.block_range import last_cut
from fullwaveform.io.las.reader import OUTSIDE
from fullwaveform.io.las.waveform_packets import MAX_SAMPLES
from fullwaveform.io.pulsewaves.descriptors import SamplingTable
from fullwaveform.io.pulsewaves.pulses import PulseData, PulseSurvey
from fullwaveform.io.pulsewaves.samples import SEGMENT, Segments, WaveData, locate_segments

TOO_LONG = f"waveform of more than {MAX_SAMPLES} samples"
NO_DIRECTION = "anchor and target of the pulse are the same"

_BLOCK_SAMPLES = 1 << 26  # samples of a block, padding included: 128 MiB


@dataclass(frozen=True, slots=True)
class Selection:
    """What one pass over the file works with."""

    pulses: PulseData
    waves: WaveData
    found: PulseSurvey
    table: SamplingTable  # of the descriptors that pulses name
    wanted: BoolArray  # by code of the sampling

    def blocks(self, limit: int, tally: ReadTally) -> Iterator[Segments]:
        """Yield the usable segments in the order of the file, cut into blocks of whole pulses.

        A block has `limit` segments at most, unless a single pulse has more.
        """
        pending = np.empty(0, dtype=SEGMENT)
        for start in range(0, len(self.pulses), limit):
            end = min(start + limit, len(self.pulses))
            tally.points += end - start
            pending = np.concatenate([pending, self._choose(start, end, tally)])
            while (cut := _last_cut(pending, limit)) < len(pending):
                yield pending[:cut]
                pending = pending[cut:]
        if len(pending) > 0:
            yield pending

    def _choose(self, start: int, end: int, tally: ReadTally) -> Segments:
        """Choose the usable segments of some pulses, with everything else counted."""
        pulses = self.pulses[start:end]
        parts = [np.empty(0, dtype=SEGMENT)]
        for descriptor, code in zip(
            self.table.descriptors, self.table.first_codes[:-1], strict=True
        ):
            rows = np.flatnonzero(pulses["descriptor"] == descriptor.index)
            part, inside = locate_segments(
                self.waves, descriptor, int(code), start + rows, pulses["offset"][rows]
            )
            parts.append(part[self.wanted[part["sampling"]]])
            _reject(tally, OUTSIDE, start + rows[~inside])
            with_waveform = len(np.unique(parts[-1]["pulse"]))
            tally.points_without_waveform += int(np.count_nonzero(inside)) - with_waveform
        segments = np.concatenate(parts)
        segments = segments[np.argsort(segments["pulse"], kind="stable")]
        aimed = (pulses["target"] != pulses["anchor"]).any(axis=1)[segments["pulse"] - start]
        short = segments["count"] <= MAX_SAMPLES
        _reject(tally, NO_DIRECTION, segments["pulse"][~aimed])
        _reject(tally, TOO_LONG, segments["pulse"][aimed & ~short])
        chosen: Segments = segments[aimed & short]
        return chosen


def _reject(tally: ReadTally, reason: str, pulses: IntArray) -> None:
    tally.reject(reason, len(pulses), (f"pulse {pulse}" for pulse in pulses))


def _last_cut(pending: Segments, limit: int) -> int:
    """Count the rows of the next block: whole pulses, at most a block of them, at least one."""
    rows = np.arange(1, len(pending) + 1)
    padded = rows * np.maximum.accumulate(pending["count"])
    fitting = int(np.count_nonzero((rows <= limit) & (padded <= _BLOCK_SAMPLES)))
    return last_cut(pending["pulse"], fitting)
