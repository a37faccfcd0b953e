"""Recorded pulses from which a system wave can be averaged, and which of them are fit for it."""

from __future__ import annotations

from collections import Counter
from dataclasses import dataclass, field

import numpy as np
import numpy.typing as npt

from fullwaveform.data.arrays import FloatArray

FLAT_TOP = "flat top, the digitiser's limit"
AT_THE_EDGE = "strongest sample at the edge of the record"
TOO_WEAK = "no pulse above the noise"
UNLIKE = "unlike the others"
LEFT_OUT = "more than needed, every so many left out"

_FLAT_SAMPLES = 3  # side by side at the largest value of all pulses
_EDGE_SAMPLES = 2
_LEAST_COUNTS = 8.0  # of the strongest sample above the baseline; below, rounding shapes the pulse
_LEAST_SAMPLES = 8


@dataclass(frozen=True)
class Pulses:
    """Pulses as recorded, one in each row.

    values : (n, width) counts, NaN where a row has no sample
    sampling_interval : s
    origin : where they come from, a phrase for people
    rejected : reason -> pulses that were met but are not among the rows
    """

    values: FloatArray
    sampling_interval: float
    origin: str
    rejected: Counter[str] = field(default_factory=Counter)

    def __post_init__(self) -> None:
        if self.values.ndim != 2:
            raise ValueError(
                f"pulses have 2 dimensions (pulse, sample), not {self.values.ndim}: {self.origin}"
            )
        interval = self.sampling_interval
        if not (np.isfinite(interval) and interval > 0.0):
            raise ValueError(
                f"the sampling interval of {self.origin} is {interval} s; it must be above 0"
            )

    def __len__(self) -> int:
        return len(self.values)

    def without(self, wrong: npt.NDArray[np.bool_], reason: str) -> Pulses:
        """The pulses that are not wrong; the others are counted under the reason."""
        if not wrong.any():
            return self
        rejected = self.rejected + Counter({reason: int(np.count_nonzero(wrong))})
        return Pulses(self.values[~wrong], self.sampling_interval, self.origin, rejected)


def pulses_of_rows(
    samples: npt.ArrayLike, counts: npt.ArrayLike | None, sampling_interval: float, origin: str
) -> Pulses:
    """Pulses from rows of samples.

    Parameters
    ----------
    samples : (n, width) or, for a single pulse, (width,)
    counts : (n,) valid samples of each row; None: all
    sampling_interval : s

    Raises ValueError when shapes do not fit together or a count exceeds the row length.
    """
    values = np.atleast_2d(np.asarray(samples, dtype=np.float64))
    if counts is not None:
        valid = np.atleast_1d(np.asarray(counts))
        if valid.shape != values.shape[:1]:
            raise ValueError(
                f"{origin}: {valid.size} counts do not fit the {len(values)} rows of samples"
            )
        if np.any((valid < 0) | (valid > values.shape[1])):
            raise ValueError(
                f"{origin}: a count is not between 0 and the row length {values.shape[1]}"
            )
        values = np.where(np.arange(values.shape[1]) < valid[:, np.newaxis], values, np.nan)
    return Pulses(values, float(sampling_interval), origin)


def screened(pulses: Pulses, most: int) -> Pulses:
    """The pulses that can be averaged, at most so many, evenly spread over the recording.

    Left out and counted: pulses without 8 samples or 8 counts above their lower half, with the
    strongest sample in the first or last two, or with three samples side by side at the largest
    value that any pulse has.
    """
    values = pulses.values
    usable = np.count_nonzero(np.isfinite(values), axis=1) >= _LEAST_SAMPLES
    pulses = pulses.without(~usable, TOO_WEAK)
    if len(pulses) == 0:
        return pulses
    height = np.nanmax(pulses.values, axis=1) - baseline_of(pulses.values)
    pulses = pulses.without(height < _LEAST_COUNTS, TOO_WEAK)
    pulses = pulses.without(_at_the_edge(pulses.values), AT_THE_EDGE)
    pulses = pulses.without(_has_flat_top(pulses.values), FLAT_TOP)
    if len(pulses) <= most:
        return pulses
    keep = np.zeros(len(pulses), dtype=bool)
    keep[np.linspace(0, len(pulses) - 1, most).astype(np.int64)] = True
    return pulses.without(~keep, LEFT_OUT)


def baseline_of(values: FloatArray) -> FloatArray:
    """A first idea of the level between pulses: median of the lower half of each row, counts."""
    return np.asarray(np.nanpercentile(values, 25.0, axis=1))


def _strongest(values: FloatArray) -> npt.NDArray[np.int64]:
    return np.nanargmax(values, axis=1) if len(values) else np.empty(0, dtype=np.int64)


def _at_the_edge(values: FloatArray) -> npt.NDArray[np.bool_]:
    top = _strongest(values)
    width = values.shape[1]
    last = width - 1 - np.argmax(np.isfinite(values)[:, ::-1], axis=1)
    first = np.argmax(np.isfinite(values), axis=1)
    return np.asarray((top < first + _EDGE_SAMPLES) | (top > last - _EDGE_SAMPLES))


def _has_flat_top(values: FloatArray) -> npt.NDArray[np.bool_]:
    if len(values) == 0:
        return np.zeros(0, dtype=bool)
    at_top = values == np.nanmax(values)
    runs = np.lib.stride_tricks.sliding_window_view(at_top, _FLAT_SAMPLES, axis=1)
    return np.asarray(np.any(np.all(runs, axis=2), axis=1))
