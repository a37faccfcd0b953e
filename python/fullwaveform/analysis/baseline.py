"""Baseline and noise rms of waveforms of which echoes fill a part, or most."""

from __future__ import annotations

import numpy as np
import numpy.typing as npt

from fullwaveform.data.arrays import BoolArray, FloatArray

# Standard deviation of a normal distribution divided by its mean absolute deviation.
_RMS_PER_MEAN_DISTANCE = float(np.sqrt(np.pi / 2.0))
_QUIET_SHARE = 4  # a quarter of the samples
_MAX_DISTANCE = 3.0  # standard deviations
_MIN_DISTANCE = 1.0  # counts


def baseline_and_noise_rms(samples: npt.ArrayLike) -> tuple[FloatArray, FloatArray]:
    """Baseline and noise rms of each waveform, in counts.

    The estimate starts at the middle of the narrowest range of values with a quarter of the
    samples (the lowest such range), which has no echoes. The baseline is the mean of all samples
    within three standard deviations of this value, but at least one count. The noise rms is the
    root of pi/2 times the mean distance of the samples below the baseline, where there are no
    echoes; a sample on the baseline counts half, as if counts were spread over their interval.

    Parameters
    ----------
    samples
        (n, count) counts, count at least 1.
    """
    ordered = np.sort(np.asarray(samples), axis=1).astype(np.float64)
    start = _middle_of_narrowest(ordered)
    every_sample = np.ones(ordered.shape, dtype=np.bool_)
    limit = np.maximum(_MAX_DISTANCE * _deviation(ordered, start, every_sample), _MIN_DISTANCE)
    near = np.abs(ordered - start[:, np.newaxis]) <= limit[:, np.newaxis]
    baseline = (ordered * near).sum(axis=1) / near.sum(axis=1)
    return baseline, _deviation(ordered, baseline, near)


def _middle_of_narrowest(ordered: FloatArray) -> FloatArray:
    """Median of the narrowest quarter of each row of ascending values."""
    count = ordered.shape[1]
    quarter = -(-count // _QUIET_SHARE)
    width = ordered[:, quarter - 1 :] - ordered[:, : count - quarter + 1]
    first, row = np.argmin(width, axis=1), np.arange(len(ordered))
    middle = ordered[row, first + (quarter - 1) // 2] + ordered[row, first + quarter // 2]
    return np.asarray(middle / 2.0)


def _deviation(values: FloatArray, level: FloatArray, chosen: BoolArray) -> FloatArray:
    """Standard deviation from the chosen values up to the level of their row."""
    distance = level[:, np.newaxis] - values
    total = (np.maximum(distance, 0.0) * chosen).sum(axis=1)
    # A count represents an interval of one count; this share of it lies below the level.
    weight = (np.clip(distance + 0.5, 0.0, 1.0) * chosen).sum(axis=1)
    return np.asarray(_RMS_PER_MEAN_DISTANCE * total / np.where(weight > 0.0, weight, 1.0))
