"""Where the signal of a smoothed waveform begins and ends, and its modes.

Places are counted in quarters of a sample, between which samples are interpolated linearly.
"""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from fullwaveform.data.arrays import BoolArray, Float32Array, FloatArray, IntArray

#: Places per sample.
PER_SAMPLE = 4


@dataclass(frozen=True, slots=True)
class SignalBounds:
    """Signals of waveforms, one entry per waveform; places in quarters of a sample."""

    found: BoolArray  # whether there is a signal; the other values are 0 where it is not
    top: IntArray  # first place above the front threshold
    bottom: IntArray  # last place above the back threshold
    first_mode: IntArray  # place of the highest mode
    ground: IntArray  # place of the lowest mode
    mode_count: IntArray


def signal_bounds(smooth: Float32Array, front: FloatArray, back: FloatArray) -> SignalBounds:
    """Bounds and modes of smoothed waveforms.

    Parameters
    ----------
    smooth
        (n, width) counts above the baseline.
    front, back
        (n,) counts: thresholds of the top of the signal, and of its end and its modes.

    A mode is a local maximum above the back threshold; its place is that of the vertex of the
    parabola through the largest sample and its neighbours. A signal needs a mode.
    """
    rows, width = smooth.shape
    if width < 3:
        zero = np.zeros(rows, np.int64)
        return SignalBounds(np.zeros(rows, np.bool_), zero, zero, zero, zero, zero)
    above = smooth > back[:, np.newaxis].astype(np.float32)
    is_mode = np.zeros_like(above)
    is_mode[:, 1:-1] = (smooth[:, 1:-1] > smooth[:, :-2]) & (smooth[:, 1:-1] >= smooth[:, 2:])
    is_mode &= above
    in_front = smooth > front[:, np.newaxis].astype(np.float32)
    first = np.argmax(in_front, axis=1)
    top = PER_SAMPLE * first - _steps_above(smooth, first, -1, front)
    last = width - 1 - np.argmax(above[:, ::-1], axis=1)
    bottom = PER_SAMPLE * last + _steps_above(smooth, last, 1, back)
    number = np.count_nonzero(is_mode, axis=1)
    found = (number > 0) & in_front.any(axis=1) & (bottom > top)
    ground = _vertex(smooth, width - 1 - np.argmax(is_mode[:, ::-1], axis=1))
    highest = _vertex(smooth, np.argmax(is_mode, axis=1))
    values = (top, bottom, highest, ground, number)
    return SignalBounds(found, *(np.where(found, value, 0) for value in values))


def _steps_above(smooth: Float32Array, at: IntArray, step: int, level: FloatArray) -> IntArray:
    """Places between a sample above the level and its neighbour that are above it, too."""
    rows = np.arange(len(smooth))
    neighbour = np.clip(at + step, 0, smooth.shape[1] - 1)
    inside = smooth[rows, at].astype(np.float64)
    rise = smooth[rows, neighbour] - inside
    steps = np.zeros(len(smooth), np.int64)
    for quarter in range(1, PER_SAMPLE):
        steps += (inside + rise * (quarter / PER_SAMPLE) > level) & (neighbour != at)
    return steps


def _vertex(smooth: Float32Array, at: IntArray) -> IntArray:
    """Place of the vertex of the parabola through a maximum (n,) and its neighbours."""
    rows, inner = np.arange(len(smooth)), np.clip(at, 1, smooth.shape[1] - 2)
    left, middle, right = (smooth[rows, inner + step].astype(np.float64) for step in (-1, 0, 1))
    curvature = 2.0 * middle - left - right
    offset = 0.5 * (right - left) / np.where(curvature > 0.0, curvature, 1.0)
    place: IntArray = np.rint(PER_SAMPLE * (inner + np.clip(offset, -1.0, 1.0))).astype(np.int64)
    return place
