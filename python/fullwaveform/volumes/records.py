"""The waveforms of a block as lines of samples above the baseline."""

from __future__ import annotations

from collections import Counter
from collections.abc import Iterator
from dataclasses import dataclass, fields

import numpy as np

from fullwaveform.calibration.waveform_levels import MIN_SAMPLES, waveform_levels
from fullwaveform.data.arrays import AnyArray, BoolArray, FloatArray, IntArray
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.volumes.quantities import STEPS_PER_COUNT

_PICOSECONDS = 1e12
_SAMPLES_AT_ONCE = 1 << 18
_TOO_SHORT = "waveform with fewer than 2 samples, of which no baseline follows"
_NO_PLACE = "waveform without a place in space"
_OTHER_CHANNEL = "waveform of the other channel"


@dataclass(frozen=True, slots=True)
class Records:
    """Waveforms with samples and a place, one entry each; those of a shot are consecutive."""

    rows: IntArray  # (n,), of the block
    shots: IntArray  # (n,), ascending
    first: FloatArray  # (n, 3), place of the first sample, coordinate units
    step: FloatArray  # (n, 3), from sample to sample
    counts: IntArray  # (n,), samples

    def __len__(self) -> int:
        return len(self.rows)

    def places(self, samples: IntArray | int) -> FloatArray:
        """Places (n, 3) of samples (n,); rounding keeps their order along each axis."""
        return self.first + np.reshape(samples, (-1, 1)) * self.step

    def ends(self) -> FloatArray:
        """Places (n, 3) of the last samples."""
        return self.places(self.counts - 1)

    def chosen(self, which: AnyArray | slice) -> Records:
        """The entries of an index or a mask."""
        return Records(*(getattr(self, field.name)[which] for field in fields(self)))

    def parts(self, sizes: IntArray, limit: int) -> Iterator[Records]:
        """The records in parts of sizes (n,) up to about `limit`; shots are not divided."""
        starts = np.flatnonzero(np.diff(self.shots, prepend=-1))
        part = (np.cumsum(sizes) - sizes)[starts] // limit
        cuts = starts[np.flatnonzero(np.diff(part, prepend=-1))].tolist()
        for begin, end in zip(cuts, [*cuts[1:], len(self)], strict=True):
            yield self.chosen(slice(begin, end))


def records_of(block: WaveformBlock, channel: int | None) -> tuple[Records, Counter[str]]:
    """The records of a block, and how many of its waveforms were left out for which reason.

    `channel` is the flag of the waveforms to use; None uses all.
    """
    geometry, counts = block.geometry, block.counts.astype(np.int64)
    interval = (block.sampling_intervals * _PICOSECONDS)[:, np.newaxis]
    with np.errstate(over="ignore", invalid="ignore"):
        first = geometry.anchor + geometry.location[:, np.newaxis] * geometry.direction
        step = -interval * geometry.direction
        has_place = np.isfinite(first + counts[:, np.newaxis] * step).all(axis=1)
    wanted = np.ones(len(block), np.bool_) if channel is None else block.channel_flags == channel
    left_out: Counter[str] = Counter()
    used: BoolArray = np.ones(len(block), np.bool_)
    for condition, reason in (
        (wanted, _OTHER_CHANNEL),
        (counts >= MIN_SAMPLES, _TOO_SHORT),
        (has_place, _NO_PLACE),
    ):
        left_out[reason] += int((used & ~condition).sum())
        used &= condition
    _, shot = np.unique(block.shot_times, return_inverse=True)
    rows = np.flatnonzero(used)
    rows = rows[np.argsort(shot[rows], kind="stable")]
    return Records(rows, shot[rows], first[rows], step[rows], counts[rows]), +left_out


def heights(block: WaveformBlock, records: Records) -> Iterator[tuple[Records, IntArray]]:
    """Samples above the baseline of their waveform, for parts of the records of equal length.

    The baseline is that of `waveform_levels`, rounded to 1 / 256 count; noise below it is negative.
    Yields records, and (n, count) heights in 1 / 256 count.
    """
    for count in np.unique(records.counts).tolist():
        alike = records.chosen(records.counts == count)
        at_once = max(_SAMPLES_AT_ONCE // count, 1)
        for begin in range(0, len(alike), at_once):
            part = alike.chosen(slice(begin, begin + at_once))
            samples = block.samples[part.rows, :count]
            baseline = np.rint(waveform_levels(samples).baseline * STEPS_PER_COUNT)
            steps = samples.astype(np.int64) * STEPS_PER_COUNT
            yield part, steps - baseline.astype(np.int64)[:, np.newaxis]
