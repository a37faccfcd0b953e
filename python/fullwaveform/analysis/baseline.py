"""Baseline and noise of records that are partly, or mostly, filled by echoes."""

from __future__ import annotations

import numpy as np
import numpy.typing as npt

from fullwaveform.data.arrays import FloatArray

# Standard deviation of a normal distribution over its mean distance from the middle.
_DEVIATION_PER_DISTANCE = float(np.sqrt(np.pi / 2.0))
_SHARE = 4  # a quarter of the samples
_REACH = 3.0  # standard deviations
_LEAST_REACH = 1.0  # counts


def background(samples: npt.ArrayLike) -> tuple[FloatArray, FloatArray]:
    """Baseline and noise (standard deviation) of each record, in counts.

    The start is the middle of the narrowest range of values that holds a quarter of the samples,
    the lowest of several; there the record is without echoes. The baseline is the mean of all
    samples within three standard deviations of it, at least one count. The standard deviation is
    the root of pi/2 times the mean distance of those below the baseline, where echoes do not
    reach; a sample on it counts half, as if whole counts were spread over their steps.

    Parameters
    ----------
    samples
        (n, count) counts, count at least 1.

    Returns
    -------
    Two arrays (n,).
    """
    ordered = np.sort(np.asarray(samples), axis=1).astype(np.float64)
    start = _middle_of_narrowest(ordered)
    everything = np.ones(ordered.shape, dtype=np.bool_)
    reach = np.maximum(_REACH * _deviation(ordered, start, everything), _LEAST_REACH)
    near = np.abs(ordered - start[:, np.newaxis]) <= reach[:, np.newaxis]
    baseline = (ordered * near).sum(axis=1) / near.sum(axis=1)
    return baseline, _deviation(ordered, baseline, near)


def _middle_of_narrowest(ordered: FloatArray) -> FloatArray:
    """Median of the narrowest quarter of each row of ascending values."""
    count = ordered.shape[1]
    held = -(-count // _SHARE)
    width = ordered[:, held - 1 :] - ordered[:, : count - held + 1]
    first, row = np.argmin(width, axis=1), np.arange(len(ordered))
    middle = ordered[row, first + (held - 1) // 2] + ordered[row, first + held // 2]
    return np.asarray(middle / 2.0)


def _deviation(values: FloatArray, level: FloatArray, chosen: npt.NDArray[np.bool_]) -> FloatArray:
    """Standard deviation from the chosen values that are not above the level of their row."""
    distance = level[:, np.newaxis] - values
    total = (np.maximum(distance, 0.0) * chosen).sum(axis=1)
    # A whole count stands for all within half a count of it; so much of that lies below the level.
    weight = (np.clip(distance + 0.5, 0.0, 1.0) * chosen).sum(axis=1)
    return np.asarray(_DEVIATION_PER_DISTANCE * total / np.where(weight > 0.0, weight, 1.0))
