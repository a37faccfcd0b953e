"""Correlation of the noise of samples that are a few sampling intervals apart."""

from __future__ import annotations

import math
from dataclasses import dataclass

import numpy as np

from fullwaveform.data.arrays import BoolArray, FloatArray

_LAGS = 4  # samples; further apart, the correlations of receivers are small
_MIN_PAIRS = 1000  # of samples; fewer do not show a correlation
# Of a waveform, on average. The mean of fewer takes more than half of the variance off that is
# common to samples within four of each other.
_MIN_SAMPLES = 2 * (2 * _LAGS + 1)
_MIN_CORRELATION = 0.03  # smaller ones change no uncertainty by more than 10 %
_MIN_ERRORS = 4.0  # standard errors of a correlation that counts
_MIN_SQUARE = 0.25  # counts squared; weaker noise is hidden by the rounding to counts
_MIN_POWER = 0.02  # of the spectrum of the noise, over that of white noise
_FREQUENCIES = np.linspace(0.0, math.pi, 65)  # radians per sample


@dataclass(frozen=True, slots=True)
class LagProducts:
    """Sums over pairs of quiet samples of waveforms, one row per waveform."""

    products: FloatArray  # (n, 5), of the distances from the baseline, counts squared
    pairs: FloatArray  # (n, 5), number of pairs 0 to 4 samples apart


def lag_products(values: FloatArray, baseline: FloatArray, quiet: BoolArray) -> LagProducts:
    """Products of the quiet samples (n, count) of waveforms, whose mean is the baseline (n,)."""
    distance = (values - baseline[:, np.newaxis]) * quiet
    products, pairs = np.zeros((len(values), _LAGS + 1)), np.zeros((len(values), _LAGS + 1))
    for lag in range(min(_LAGS + 1, values.shape[1])):
        end = values.shape[1] - lag
        products[:, lag] = np.einsum("ij,ij->i", distance[:, :end], distance[:, lag:])
        pairs[:, lag] = np.count_nonzero(quiet[:, :end] & quiet[:, lag:], axis=1)
    return LagProducts(products, pairs)


def noise_correlation(products: FloatArray, pairs: FloatArray) -> tuple[float, ...]:
    """Correlations of samples 1, 2, ... apart, at most 4; empty for white noise.

    Also empty if there are too few samples to tell, in all or per waveform.

    Parameters
    ----------
    products, pairs : (n, 5), as `LagProducts`, of all waveforms whose noise counts
    """
    # Exact sums, so that the order of the waveforms does not matter.
    number = np.array([math.fsum(column) for column in pairs.T])
    if number.min() < _MIN_PAIRS or number[0] < _MIN_SAMPLES * len(pairs):
        return ()
    mean = np.array([math.fsum(column) for column in products.T]) / number
    # The mean of n samples varies, too; it takes its own variance off all products.
    per_sample = len(pairs) / number[0]
    total = mean[0] + 2.0 * mean[1:].sum()
    covariance = mean + per_sample * total / (1.0 - (2 * _LAGS + 1) * per_sample)
    if not covariance[0] > _MIN_SQUARE:
        return ()
    correlation = covariance[1:] / covariance[0]
    limit = np.maximum(_MIN_CORRELATION, _MIN_ERRORS / np.sqrt(number[1:]))
    correlation[np.abs(correlation) < limit] = 0.0
    used = np.flatnonzero(correlation)
    if len(used) == 0:
        return ()
    return tuple(_with_power(correlation[: used[-1] + 1]).tolist())


def _with_power(correlation: FloatArray) -> FloatArray:
    """The correlations, smaller if they are those of no noise: its power is positive everywhere."""
    lags = np.arange(1, len(correlation) + 1)
    power = 1.0 + 2.0 * np.cos(np.outer(_FREQUENCIES, lags)) @ correlation
    least = float(power.min())
    if least >= _MIN_POWER:
        return correlation
    return np.asarray(correlation * (1.0 - _MIN_POWER) / (1.0 - least))
