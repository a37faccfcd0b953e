"""Smoothing of waveforms whose echoes are much broader than a sample."""

from __future__ import annotations

import numpy as np

from fullwaveform.data.arrays import Float32Array, FloatArray, IntArray, UInt16Array
from fullwaveform.data.blocks import MAX_SMOOTHING, WaveformBlock


def checked_smoothing(seconds: float | None) -> float | None:
    """The standard deviation in s, None for that of the format; ValueError if it is invalid."""
    if seconds is None:
        return None
    if not 0.0 <= seconds <= MAX_SMOOTHING:  # also false for NaN
        raise ValueError(f"smoothing {seconds!r} must be 0 to {MAX_SMOOTHING:g} s")
    return float(seconds)


def smoothed(block: WaveformBlock, seconds: float) -> Float32Array:
    """The samples (n, width) of a block convolved with a Gaussian; 0 after the last valid one.

    With the standard deviation of the outgoing pulse the convolution is its matched filter, of all
    filters the one with the best signal-to-noise ratio of the maxima in white noise (G. L. Turin,
    An introduction to matched filters, IRE Trans. Inf. Theory 6, 1960). First and last sample
    continue beyond the ends. A waveform does not depend on the others of its block.

    Parameters
    ----------
    seconds : standard deviation of the Gaussian, s
    """
    from scipy.ndimage import gaussian_filter1d  # takes longer to load than most runs of a command

    width = block.samples.shape[1]
    last = np.maximum(block.counts.astype(np.int64) - 1, 0)[:, np.newaxis]
    after = np.arange(width) > last
    samples = np.where(after, np.take_along_axis(block.samples, last, axis=1), block.samples)
    result = np.empty(samples.shape, np.float32)
    for interval in np.unique(block.sampling_intervals).tolist():
        rows = block.sampling_intervals == interval
        result[rows] = gaussian_filter1d(
            samples[rows], seconds / interval, axis=1, mode="nearest", output=np.float32
        )
    result[after] = 0.0
    return result


def at_maxima(
    samples: UInt16Array, rows: IntArray, positions: FloatArray, reach: FloatArray
) -> FloatArray:
    """Positions (m,) of echoes, moved to the nearest maximum of their smoothed waveform.

    A Gaussian fitted to a skewed echo has its centre at the middle of the echo; the maximum is the
    range at which most light was reflected. A maximum takes the nearest echo only.

    Parameters
    ----------
    samples : (n, width), smoothed
    rows : (m,) row of each echo
    positions, reach : (m,) samples; echoes without a maximum within their reach do not move
    """
    width = samples.shape[1]
    moved = positions.copy()
    if width < 3 or len(rows) == 0:
        return moved
    is_maximum = np.zeros(samples.shape, np.bool_)
    inner = samples[:, 1:-1]
    is_maximum[:, 1:-1] = (inner > samples[:, :-2]) & (inner >= samples[:, 2:])
    maxima = np.flatnonzero(is_maximum)  # row by row
    if len(maxima) == 0:
        return moved
    place = rows * width + np.clip(positions, 0.0, width - 1.0)
    after = np.searchsorted(maxima, place)
    sides = np.stack([np.maximum(after - 1, 0), np.minimum(after, len(maxima) - 1)])
    distance = np.where(maxima[sides] // width == rows, np.abs(maxima[sides] - place), np.inf)
    side, echo = np.argmin(distance, axis=0), np.arange(len(rows))
    nearest, distance = maxima[sides[side, echo]], distance[side, echo]
    order = np.lexsort((distance, nearest))
    chosen = order[np.diff(nearest[order], prepend=-1) != 0]
    chosen = chosen[distance[chosen] <= reach[chosen]]
    row, index = np.divmod(nearest[chosen], width)
    left, middle, right = (samples[row, index + step].astype(np.float64) for step in (-1, 0, 1))
    # Of the parabola through the maximum and its neighbours; above the left one, so it is curved.
    moved[chosen] = index + 0.5 * (right - left) / (2.0 * middle - left - right)
    return moved
