"""Baseline of each waveform, and how its quiet samples scatter around it."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
import numpy.typing as npt

from fullwaveform.calibration.noise_correlation import LagProducts, lag_products
from fullwaveform.data.arrays import BoolArray, FloatArray

MIN_SAMPLES = 2  # of a waveform with a level
_QUIET_SHARE = 8  # at least an eighth of the samples holds no signal
_MAX_DISTANCE = 3.0  # standard deviations of a quiet sample from the baseline
_MIN_DISTANCE = 1.0  # counts; for values on few steps of the digitiser
_MARGIN = 3  # samples on either side of a signal that may hold its edges
_MIN_QUIET = 8  # samples; of a waveform with fewer, the margins count as quiet
_ROUNDS = 4


@dataclass(frozen=True, slots=True)
class WaveformLevels:
    """Levels of waveforms, one entry per waveform.

    The mean square of the noise is the quotient of `squares` and `weight`; sums of both over
    waveforms give that of all of them.
    """

    baseline: FloatArray  # (n,), counts
    squares: FloatArray  # (n,), sum over the quiet samples below the baseline, counts squared
    weight: FloatArray  # (n,), number of these samples

    @property
    def mean_square(self) -> FloatArray:
        """(n,), counts squared; 0 without a sample below the baseline."""
        return self.squares / np.maximum(self.weight, _SMALLEST_WEIGHT)


_SMALLEST_WEIGHT = 0.5  # sample


def waveform_levels(samples: npt.ArrayLike) -> WaveformLevels:
    """Levels of waveforms of equal length, from samples without signal.

    Means of neighbouring samples take the place of the samples wherever these are compared with a
    level: a digitiser of two interleaved halves has a pattern of even and odd samples, which the
    means do not have. The search starts at the middle of the narrowest range of values that holds
    an eighth of the means, among the lower half of them, where flat tops of echoes are not. Quiet
    are the samples within three standard deviations of the level, at least one count, and at least
    three samples from any other; the baseline is their mean. The noise is that of the samples
    themselves, with their pattern, below the baseline, where no echo adds to it: a sample on the
    baseline counts half, because counts stand for an interval of one count.

    Parameters
    ----------
    samples
        (n, count) counts, count at least 2.
    """
    values = np.asarray(samples, dtype=np.float64)
    baseline, quiet = _quiet_samples(values)
    return WaveformLevels(baseline, *_scatter_below(values, baseline, quiet))


def levels_and_products(samples: npt.ArrayLike) -> tuple[WaveformLevels, LagProducts]:
    """As `waveform_levels`, and the products that show how the noise is correlated."""
    values = np.asarray(samples, dtype=np.float64)
    baseline, quiet = _quiet_samples(values)
    levels = WaveformLevels(baseline, *_scatter_below(values, baseline, quiet))
    return levels, lag_products(values, baseline, quiet)


def _quiet_samples(values: FloatArray) -> tuple[FloatArray, BoolArray]:
    """Baseline (n,) of each waveform, and which of its samples hold no signal (n, count)."""
    means = (values[:, 1:] + values[:, :-1]) / 2.0
    baseline = _middle_of_narrowest(means)
    quiet = np.ones(means.shape, dtype=np.bool_)
    for _ in range(_ROUNDS):
        squares, weight = _scatter_below(means, baseline, quiet)
        deviation = np.sqrt(squares / np.maximum(weight, _SMALLEST_WEIGHT))
        limit = np.maximum(_MAX_DISTANCE * deviation, _MIN_DISTANCE)
        quiet = _quiet(np.abs(means - baseline[:, np.newaxis]) <= limit[:, np.newaxis])
        baseline = (means * quiet).sum(axis=1) / quiet.sum(axis=1)
    quiet_samples = np.ones(values.shape, dtype=np.bool_)
    quiet_samples[:, 1:] &= quiet
    quiet_samples[:, :-1] &= quiet
    return baseline, quiet_samples


def _middle_of_narrowest(means: FloatArray) -> FloatArray:
    """Middle of the narrowest range with an eighth of the values of a row, in its lower half."""
    share = -(-means.shape[1] // _QUIET_SHARE)
    lower = max(-(-means.shape[1] // 2), share)
    ordered = np.sort(means, axis=1)[:, :lower]
    width = ordered[:, share - 1 :] - ordered[:, : lower - share + 1]
    first, row = np.argmin(width, axis=1), np.arange(len(ordered))
    middle = ordered[row, first + (share - 1) // 2] + ordered[row, first + share // 2]
    return np.asarray(middle / 2.0)


def _quiet(near: BoolArray) -> BoolArray:
    """Those of the near values that have a distance from all others; all, if these are few."""
    quiet = near.copy()
    for step in range(1, min(_MARGIN, near.shape[1] - 1) + 1):
        quiet[:, step:] &= near[:, :-step]
        quiet[:, :-step] &= near[:, step:]
    few = quiet.sum(axis=1) < _MIN_QUIET
    quiet[few] = near[few]
    return quiet


def _scatter_below(
    values: FloatArray, level: FloatArray, chosen: BoolArray
) -> tuple[FloatArray, FloatArray]:
    """Sum of squared distances of the chosen values below the level of their row, and weight."""
    distance = level[:, np.newaxis] - values
    squares = (np.maximum(distance, 0.0) ** 2 * chosen).sum(axis=1)
    return squares, (np.clip(distance + 0.5, 0.0, 1.0) * chosen).sum(axis=1)
