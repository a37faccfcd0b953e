"""The return of the ground: the broadened outgoing pulse, fitted to the end of the signal."""

from __future__ import annotations

import math
from dataclasses import dataclass
from functools import lru_cache

import numpy as np

from fullwaveform.data.arrays import Float32Array, FloatArray, IntArray
from fullwaveform.waveform_metrics.pulse_shape import pulse_shape
from fullwaveform.waveform_metrics.signal_bounds import PER_SAMPLE

# Times the standard deviation of the smoothing kernel, which is about that of the pulse:
_FRONT = 1.39  # the fitted samples begin this far above the ground
_TAIL = 10.4  # and end this far below it
# The centre of the Gaussian lies within 4 ns of the ground in L2B, where places of the return count
# from 1, and those of samples from 0.
_LEAD = 0.868  # largest distance of the centre above the ground: 5 ns
_LAG = 0.521  # largest distance below it: 3 ns
_REACH = 17.4  # the return is subtracted up to here above the ground
_CENTRES = 7
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

    For each width and centre of a grid the energy follows by linear least squares; the place of the
    smallest residual is refined by parabolas, along the widths and then along the centres.
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
    reach: int

    @classmethod
    def of(cls, scale: float) -> _Window:
        return cls(
            scale,
            front=max(round(_FRONT * scale), 1),
            tail=max(round(_TAIL * scale), 2),
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
    inner = shapes[:, :, window.reach - window.front :]
    norms = np.einsum("ckw,ckw->ck", inner, inner, dtype=np.float64)
    # One row at a time: its sums do not depend on the number of rows.
    columns = np.ascontiguousarray(inner.reshape(-1, inner.shape[2]).T)
    products = np.matmul(cut[:, np.newaxis, :], columns).reshape(len(cut), *norms.shape)
    gain = np.maximum(products.astype(np.float64), 0.0) ** 2 / norms
    width_at, gain = _peak(gain)
    centre_at, _ = _peak(gain)
    rows = np.arange(len(cut))
    centre = np.minimum(centre_at.astype(np.int64), _CENTRES - 2)
    right = centre_at - centre
    place = width_at[rows, centre] * (1.0 - right) + width_at[rows, centre + 1] * right
    lower = np.minimum(place.astype(np.int64), len(widths) - 2)
    share = place - lower
    weights = [(1.0 - right) * (1.0 - share), (1.0 - right) * share, right * (1.0 - share)]
    corners = [(centre, lower), (centre, lower + 1), (centre + 1, lower), (centre + 1, lower + 1)]
    shape = np.zeros((len(cut), shapes.shape[2]), np.float32)
    for weight, corner in zip([*weights, right * share], corners, strict=True):
        shape += shapes[corner] * weight.astype(np.float32)[:, np.newaxis]
    fitted = shape[:, window.reach - window.front :]
    square = np.einsum("nw,nw->n", fitted, fitted, dtype=np.float64)
    energy = np.maximum(np.einsum("nw,nw->n", cut, fitted, dtype=np.float64), 0.0) / square
    width = widths[lower] * (widths[1] / widths[0]) ** share
    upper = shape[:, : window.reach + 1] * energy.astype(np.float32)[:, np.newaxis]
    return energy, width, upper


def _peak(values: FloatArray) -> tuple[FloatArray, FloatArray]:
    """Place and height of the maximum along the last axis, by a parabola through three values."""
    best = np.clip(np.argmax(values, axis=-1), 1, values.shape[-1] - 2)
    left, middle, right = (
        np.take_along_axis(values, (best + step)[..., np.newaxis], axis=-1)[..., 0]
        for step in (-1, 0, 1)
    )
    curvature = 2.0 * middle - left - right
    slope = 0.5 * (right - left)
    offset = slope / np.where(curvature > 0.0, curvature, 1.0)
    offset = np.where(curvature > 0.0, np.clip(offset, -1.0, 1.0), np.sign(right - left))
    return best + offset, middle + slope * offset - 0.5 * curvature * offset**2


@lru_cache(maxsize=256)
def _shapes(window: _Window, decay: float, phase: float) -> tuple[FloatArray, Float32Array]:
    """Widths (k,) in samples, and shapes (centres, k, reach + tail + 1) of returns of energy 1."""
    x = np.arange(-window.reach, window.tail + 1, dtype=np.float64) - phase
    widths = _WIDTHS * window.scale
    centres = np.linspace(-_LEAD, _LAG, _CENTRES) * window.scale
    places = x - centres[:, np.newaxis]
    shapes = [pulse_shape(places, width, decay) for width in widths.tolist()]
    return widths, np.stack(shapes, axis=1).astype(np.float32)
