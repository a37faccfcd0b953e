"""Places below which given shares of the energy of a waveform were returned."""

from __future__ import annotations

import numpy as np

from fullwaveform.data.arrays import Float32Array, FloatArray, IntArray
from fullwaveform.waveform_metrics.signal_bounds import PER_SAMPLE, SignalBounds

PERCENTS = np.arange(101)


def energy_places(smooth: Float32Array, bounds: SignalBounds) -> IntArray:
    """Places (n, 101) at which 0 to 100 % of the energy, counted from the bottom, are reached.

    The energy at a place is the sum of the interpolated values (n, width) from the place next to
    the bottom of the signal up to it. The place of a percentage is the last one, upwards, with no
    more than that share of the whole. Where no signal was found the places have no meaning.
    """
    first = int(bounds.top.min(initial=0)) // PER_SAMPLE
    stop = int(bounds.bottom.max(initial=0)) // PER_SAMPLE + 2
    values = interpolated(smooth[:, first:stop])
    place = PER_SAMPLE * first + np.arange(values.shape[1])
    inside = place >= bounds.top[:, np.newaxis]
    inside &= place <= bounds.bottom[:, np.newaxis]
    # From the bottom upwards; the bottom itself does not count.
    counted = values * inside
    rows = np.arange(len(values))
    counted[rows, bounds.bottom - PER_SAMPLE * first] = 0.0
    energy = np.cumsum(counted[:, ::-1], axis=1, dtype=np.float64)
    np.maximum.accumulate(energy, axis=1, out=energy)
    total = energy[:, -1:]
    energy *= 100.0 / np.where(total > 0.0, total, 1.0)
    np.ceil(energy, out=energy)
    np.clip(energy, 0.0, 100.0, out=energy)
    # One class of the histogram for each percentage, one for places outside the signal.
    classes = len(PERCENTS) + 1
    energy[~inside[:, ::-1]] = len(PERCENTS)
    energy += classes * rows[:, np.newaxis]
    reached = energy.astype(np.int64)
    histogram = np.bincount(reached.ravel(), minlength=classes * len(values))
    steps = np.cumsum(histogram.reshape(len(values), classes)[:, :-1], axis=1) - 1
    found: IntArray = bounds.bottom[:, np.newaxis] - np.maximum(steps, 0)
    return found


def interpolated(values: Float32Array) -> FloatArray:
    """Values (n, 4 width - 3) at quarters of samples, linear between those given."""
    rows, width = values.shape
    result = np.empty((rows, PER_SAMPLE * (width - 1) + 1), np.float32)
    result[:, ::PER_SAMPLE] = values
    rise = values[:, 1:] - values[:, :-1]
    for quarter in range(1, PER_SAMPLE):
        result[:, quarter::PER_SAMPLE] = values[:, :-1] + rise * np.float32(quarter / PER_SAMPLE)
    return result
