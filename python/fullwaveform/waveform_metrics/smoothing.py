"""Smoothing of waveforms with a compact bell-shaped kernel."""

from __future__ import annotations

import math
from functools import lru_cache

import numpy as np
from scipy.ndimage import correlate1d

from fullwaveform.data.arrays import Float32Array, FloatArray

# Variance of the raised cosine (1 + cos(pi x)) / 2 over -1 to 1.
_COSINE_VARIANCE = 1.0 / 3.0 - 2.0 / math.pi**2


@lru_cache(maxsize=64)
def smoothing_kernel(deviation: float) -> FloatArray:
    """Weights (2 h + 1,) of neighbouring samples, with the given standard deviation in samples.

    The kernel is a raised cosine convolved with itself: close to a Gaussian, and exactly 0 beyond
    3.9 standard deviations. A deviation of less than 0.3 samples gives the single weight 1.
    """
    half_width = deviation / math.sqrt(2.0 * _COSINE_VARIANCE)
    reach = math.ceil(half_width) - 1
    if reach < 1:
        return np.ones(1)
    x = np.arange(-reach, reach + 1) / half_width
    cosine = 0.5 + 0.5 * np.cos(np.pi * x)
    kernel = np.convolve(cosine, cosine)
    return np.asarray(kernel / kernel.sum())


def smoothed(values: Float32Array, deviation: float) -> Float32Array:
    """Rows (n, width) smoothed by the kernel; beyond their ends values count as 0."""
    kernel = smoothing_kernel(deviation)
    if len(kernel) == 1:
        return values
    result: Float32Array = correlate1d(values, kernel, axis=1, mode="constant", cval=0.0)
    return result
