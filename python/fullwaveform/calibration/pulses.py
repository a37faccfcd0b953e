"""Recorded pulses for the average, and the rejection of unusable ones."""

from __future__ import annotations

from collections import Counter
from dataclasses import dataclass, field

import numpy as np
import numpy.typing as npt

from fullwaveform.data.arrays import BoolArray, FloatArray, IntArray

FLAT_TOP = "clipped (flat top)"
AT_THE_EDGE = "largest sample at the edge of the waveform"
TOO_WEAK = "no pulse above the noise"
OUTLIER = "outlier"
SUBSAMPLED = "not needed (subsampled)"

_FLAT_SAMPLES = 3  # consecutive ones with the largest value of all pulses
_EDGE_SAMPLES = 2
_MIN_COUNTS = 8.0  # of the largest sample above the baseline; rounding distorts weaker pulses
_MIN_SAMPLES = 8


@dataclass(frozen=True)
class Pulses:
    """Recorded pulses, one per row.

    values : (n, width) counts, NaN after the last sample of a row
    sampling_interval : s
    origin : source of the pulses, for messages
    rejected : reason -> number of rejected pulses
    """

    values: FloatArray
    sampling_interval: float
    origin: str
    rejected: Counter[str] = field(default_factory=Counter)

    def __post_init__(self) -> None:
        if self.values.ndim != 2:
            raise ValueError(
                f"{self.origin}: pulses must have 2 dimensions, not {self.values.ndim}"
            )
        interval = self.sampling_interval
        if not (np.isfinite(interval) and interval > 0.0):
            raise ValueError(
                f"{self.origin}: invalid sampling interval {interval} s; it must be above 0"
            )

    def __len__(self) -> int:
        return len(self.values)

    def without(self, rejected: BoolArray, reason: str) -> Pulses:
        """The other pulses; the rejected ones are counted under the reason."""
        if not rejected.any():
            return self
        counts = self.rejected + Counter({reason: int(np.count_nonzero(rejected))})
        return Pulses(self.values[~rejected], self.sampling_interval, self.origin, counts)


def pulses_of_rows(
    samples: npt.ArrayLike, counts: npt.ArrayLike | None, sampling_interval: float, origin: str
) -> Pulses:
    """Pulses from rows of samples.

    Parameters
    ----------
    samples : (n, width) or, for a single pulse, (width,)
    counts : (n,) valid samples of each row; None: all
    sampling_interval : s

    Raises ValueError if shapes do not match or a count exceeds the row length.
    """
    values = np.atleast_2d(np.asarray(samples, dtype=np.float64))
    if counts is not None:
        valid = np.atleast_1d(np.asarray(counts))
        if valid.shape != values.shape[:1]:
            raise ValueError(f"{origin}: {valid.size} counts for {len(values)} rows of samples")
        if np.any((valid < 0) | (valid > values.shape[1])):
            raise ValueError(
                f"{origin}: invalid count; expected 0 to the row length {values.shape[1]}"
            )
        values = np.where(np.arange(values.shape[1]) < valid[:, np.newaxis], values, np.nan)
    return Pulses(values, float(sampling_interval), origin)


def screened(pulses: Pulses, max_pulses: int) -> Pulses:
    """The pulses that can be averaged, at most `max_pulses`, evenly spread over the recording.

    Rejected and counted: pulses of fewer than 8 samples or less than 8 counts above the baseline,
    with the largest sample among the first or last two, or with three consecutive samples at the
    largest value of all pulses.
    """
    values = pulses.values
    usable = np.count_nonzero(np.isfinite(values), axis=1) >= _MIN_SAMPLES
    pulses = pulses.without(~usable, TOO_WEAK)
    if len(pulses) == 0:
        return pulses
    height = np.nanmax(pulses.values, axis=1) - baseline_of(pulses.values)
    pulses = pulses.without(height < _MIN_COUNTS, TOO_WEAK)
    pulses = pulses.without(_at_the_edge(pulses.values), AT_THE_EDGE)
    pulses = pulses.without(_has_flat_top(pulses.values), FLAT_TOP)
    if len(pulses) <= max_pulses:
        return pulses
    keep = np.zeros(len(pulses), dtype=bool)
    keep[np.linspace(0, len(pulses) - 1, max_pulses).astype(np.int64)] = True
    return pulses.without(~keep, SUBSAMPLED)


def baseline_of(values: FloatArray) -> FloatArray:
    """Approximate baseline: median of the lower half of each row, counts."""
    # Without NaN the faster function gives the same.
    percentile = np.nanpercentile if np.isnan(values).any() else np.percentile
    return np.asarray(percentile(values, 25.0, axis=1))


def _largest_sample(values: FloatArray) -> IntArray:
    return np.nanargmax(values, axis=1) if len(values) else np.empty(0, dtype=np.int64)


def _at_the_edge(values: FloatArray) -> BoolArray:
    top = _largest_sample(values)
    width = values.shape[1]
    last = width - 1 - np.argmax(np.isfinite(values)[:, ::-1], axis=1)
    first = np.argmax(np.isfinite(values), axis=1)
    return np.asarray((top < first + _EDGE_SAMPLES) | (top > last - _EDGE_SAMPLES))


def _has_flat_top(values: FloatArray) -> BoolArray:
    if len(values) == 0:
        return np.zeros(0, dtype=bool)
    at_top = values == np.nanmax(values)
    runs = np.lib.stride_tricks.sliding_window_view(at_top, _FLAT_SAMPLES, axis=1)
    return np.asarray(np.any(np.all(runs, axis=2), axis=1))
