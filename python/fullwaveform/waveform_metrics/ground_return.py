"""The return of the ground: the broadened outgoing pulse, fitted to the end of the signal."""

from __future__ import annotations

import math
from dataclasses import dataclass
from functools import lru_cache

import numpy as np

from fullwaveform.data.arrays import Float32Array, FloatArray, IntArray
from fullwaveform.waveform_metrics.pulse_shape import maximum_places, pulse_shape
from fullwaveform.waveform_metrics.signal_bounds import PER_SAMPLE

# Times the standard deviation of the smoothing kernel, which is about that of the pulse:
_FRONT = 2.08  # the fitted samples begin this far above the ground
_TAIL = 10.4  # and end this far below it
_LEAD = 0.695  # largest distance of the centre of the Gaussian above the ground
_REACH = 17.4  # the return is subtracted up to here above the ground
# Samples by which the subtracted return lies above the fitted one: in L2B places of the return
# count from 1, and those of samples from 0.
_ADVANCE = 1
_WIDTHS = np.geomspace(0.5, 5.6, 33)  # of the return's Gaussian part
_DECAY_STEP = 0.03  # ratio of neighbouring decays, minus 1


@dataclass(frozen=True, slots=True)
class GroundReturns:
    """Ground returns of waveforms, one entry per waveform."""

    energy: FloatArray  # counts, sum over the samples
    width: FloatArray  # samples, standard deviation of the Gaussian part
    values: Float32Array  # (n, m) counts: the return down to the ground, as it is subtracted
    last: IntArray  # sample at the last of these values; the first may lie before the record


def ground_returns(
    values: Float32Array, ground: IntArray, decay: FloatArray, scale: float
) -> GroundReturns:
    """Fit the returns of the ground.

    Parameters
    ----------
    values
        (n, width) counts above the baseline, not smoothed.
    ground
        (n,) places of the ground, quarters of a sample.
    decay
        (n,) samples: time constant of the tail of the pulse, 0 for a Gaussian.
    scale
        Samples: standard deviation of the smoothing kernel, which sets the reach of the fit.

    For each width of a grid the energy follows by linear least squares; the width with the smallest
    residual is refined by a parabola through its neighbours.
    """
    window = _Window.of(scale)
    nearest = (ground + PER_SAMPLE // 2) // PER_SAMPLE
    phase = ground - PER_SAMPLE * nearest
    cut = _windows(values, nearest, window)
    step = np.rint(np.log(np.maximum(decay, 1e-9)) / _DECAY_STEP).astype(np.int64)
    step = np.where(decay > 0.0, step, np.iinfo(np.int64).min)
    energy, width = np.zeros(len(values)), np.zeros(len(values))
    model = np.zeros((len(values), window.reach + 1), np.float32)
    groups, group = np.unique(np.column_stack([step, phase]), axis=0, return_inverse=True)
    order = np.argsort(group.ravel(), kind="stable")
    ends = np.cumsum(np.bincount(group.ravel(), minlength=len(groups)))
    for (number, quarters), start, stop in zip(
        groups.tolist(), [0, *ends[:-1].tolist()], ends.tolist(), strict=True
    ):
        rows = order[start:stop]
        rate = 0.0 if number == np.iinfo(np.int64).min else math.exp(number * _DECAY_STEP)
        energy[rows], width[rows], model[rows] = _fitted(
            cut[rows], window, rate, quarters / PER_SAMPLE
        )
    return GroundReturns(energy, width, model, nearest)


@dataclass(frozen=True, slots=True)
class _Window:
    """Numbers of samples around the one nearest to the ground."""

    scale: float
    front: int
    tail: int
    lead: int
    reach: int

    @classmethod
    def of(cls, scale: float) -> _Window:
        return cls(
            scale,
            front=max(round(_FRONT * scale), 1),
            tail=max(round(_TAIL * scale), 2),
            lead=round(_LEAD * scale),
            reach=max(round(_REACH * scale), 2),
        )


def _windows(values: Float32Array, nearest: IntArray, window: _Window) -> Float32Array:
    """The samples (n, front + tail + 1) around the ground, 0 outside the record."""
    index = nearest[:, np.newaxis] + np.arange(-window.front, window.tail + 1)
    inside = (index >= 0) & (index < values.shape[1])
    rows = np.arange(len(values))[:, np.newaxis]
    cut: Float32Array = values[rows, np.clip(index, 0, values.shape[1] - 1)]
    cut[~inside] = 0.0
    return cut


def _fitted(
    cut: Float32Array, window: _Window, decay: float, phase: float
) -> tuple[FloatArray, FloatArray, Float32Array]:
    """Energy, width and upper part of the returns with one decay and phase of the ground."""
    widths, shapes = _shapes(window, decay, phase)
    inner = shapes[:, window.reach - window.front :]
    norms = np.einsum("kw,kw->k", inner, inner, dtype=np.float64)
    # One product at a time: its sum does not depend on the number of rows.
    products = np.stack([np.einsum("nw,w->n", cut, shape) for shape in inner], axis=1)
    gain = np.maximum(products.astype(np.float64), 0.0) ** 2 / norms
    rows = np.arange(len(cut))
    best = np.clip(np.argmax(gain, axis=1), 1, len(widths) - 2)
    left, middle, right = (gain[rows, best + step] for step in (-1, 0, 1))
    curvature = 2.0 * middle - left - right
    offset = 0.5 * (right - left) / np.where(curvature > 0.0, curvature, 1.0)
    offset = np.where(curvature > 0.0, np.clip(offset, -1.0, 1.0), np.sign(right - left))
    lower = best + np.floor(offset).astype(np.int64)
    lower = np.minimum(lower, len(widths) - 2)
    share = (best + offset - lower).astype(np.float32)[:, np.newaxis]
    shape = shapes[lower] * (1 - share) + shapes[lower + 1] * share
    fitted = shape[:, window.reach - window.front :]
    square = np.einsum("nw,nw->n", fitted, fitted, dtype=np.float64)
    energy = np.maximum(np.einsum("nw,nw->n", cut, fitted, dtype=np.float64), 0.0) / square
    width = widths[lower] * (widths[1] / widths[0]) ** share[:, 0]
    upper = (
        shape[:, _ADVANCE : window.reach + 1 + _ADVANCE] * energy.astype(np.float32)[:, np.newaxis]
    )
    return energy, width, upper


@lru_cache(maxsize=256)
def _shapes(window: _Window, decay: float, phase: float) -> tuple[FloatArray, Float32Array]:
    """Widths (k,) in samples, and the shapes (k, reach + tail + 1) of returns of energy 1."""
    x = np.arange(-window.reach, window.tail + 1, dtype=np.float64)
    widths = _WIDTHS * window.scale
    # The mode that is the ground is that of the smoothed waveform.
    late = maximum_places(np.hypot(widths, window.scale), decay)
    centres = phase - np.minimum(late, _LEAD * window.scale)
    shapes = [
        pulse_shape(x - centre, width, decay)
        for width, centre in zip(widths.tolist(), centres.tolist(), strict=True)
    ]
    return widths, np.array(shapes, np.float32)
