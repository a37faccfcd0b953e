"""Energy of a waveform and the moments of its distribution along the pulse."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from fullwaveform.data.arrays import BoolArray, Float32Array, FloatArray, IntArray


@dataclass(frozen=True, slots=True)
class Moments:
    """Moments of waveforms, one entry per waveform; NaN without energy."""

    energy: FloatArray  # counts, sum over the samples
    centroid: FloatArray  # samples after the first
    variance: FloatArray  # samples squared
    skewness: FloatArray  # 1, positive with a tail towards later samples
    kurtosis: FloatArray  # 1; 3 for a Gaussian


def moments(values: Float32Array, first: IntArray, last: IntArray) -> Moments:
    """Moments of the samples (n, width), counts above the baseline, from `first` to `last`.

    Samples below the baseline count for the energy, not for the other moments.
    """
    start, stop = int(first.min(initial=0)), int(last.max(initial=0)) + 1
    index = np.arange(start, start + values[:, start:stop].shape[1], dtype=np.float64)
    weights = values[:, start:stop].astype(np.float64)
    weights *= _between(index, first, last)
    energy = _sum(weights)
    np.maximum(weights, 0.0, out=weights)
    total = _sum(weights)
    total = np.where(total > 0.0, total, np.nan)
    centroid = _sum(weights * index) / total
    distance = index - np.nan_to_num(centroid)[:, np.newaxis]
    weights *= distance
    central = []
    for _ in range(3):
        weights *= distance
        central.append(_sum(weights) / total)
    variance = central[0]
    spread = np.where(variance > 0.0, variance, np.nan)
    return Moments(
        np.where(np.isfinite(total), energy, np.nan),
        centroid,
        variance,
        central[1] / spread**1.5,
        central[2] / spread**2,
    )


def _between(index: FloatArray, first: IntArray, last: IntArray) -> BoolArray:
    inside: BoolArray = (index >= first[:, np.newaxis]) & (index <= last[:, np.newaxis])
    return inside


def _sum(values: FloatArray) -> FloatArray:
    """Sums (n,) of rows, added one by one: zeros at their ends leave the last bit as it is."""
    sums: FloatArray = np.cumsum(values, axis=1)[:, -1]
    return sums
