"""One pulse out of many: aligned to a fraction of a sample, averaged on a fine grid.

Pulses are sampled at different phases, so together they show the pulse between the samples. Every
pulse is an amplitude times one common curve, shifted, on a baseline of its own; the curve is a
spline, and curve and shifts are found in turns by least squares.

While the shifts are sought the spline has one knot per sample. Shifts and curve are otherwise not
determined: shifts that err by a function of the phase go unnoticed when the curve is bent back by
the same function, again and again with a period of one sample. A pulse that the digitiser resolves
has no such waves, and a spline with so few knots cannot have them.
"""

from __future__ import annotations

from collections import Counter
from dataclasses import dataclass

import numpy as np
import numpy.typing as npt
from scipy.interpolate import BSpline, CubicSpline

from fullwaveform.data.arrays import FloatArray
from fullwaveform.system_wave.curve import Curve, quiet_level, vertex
from fullwaveform.system_wave.pulses import UNLIKE, Pulses, baseline_of, screened

#: Values of the averaged pulse per sample.
STEPS_PER_SAMPLE = 10
#: Pulses beyond this number would only cost time.
MOST_PULSES = 4000

_TURNS = 8
_MOST_BEFORE, _MOST_AFTER = 24.0, 48.0  # samples about the maximum
_ALIGNING, _DRAWING = (1, 5), (4, 3)  # knots per sample and degree of the spline
_HUBER = 2.0  # standard deviations from which a sample loses weight
_UNLIKE_DEVIATIONS = 6.0
_LARGEST_MOVE = 0.5  # samples per turn
_LEAST_SAMPLES = 8  # of a curve
_LARGEST_AMPLITUDE = 1e100  # of a curve; its third power is still a number
_LEAST_INTERVALS = 12.0  # that a curve spans: the deconvolution looks at twelve samples


@dataclass(frozen=True)
class AveragePulse:
    """The averaged pulse; its maximum is 1 at position 0, its level ahead of the rise is 0.

    position : (m,) samples from the maximum, in equal steps
    value : (m,)
    scatter : rms of single samples about the curve, as a share of their pulse's maximum
    used : pulses it was made of
    rejected : reason -> pulses left out
    sampling_interval : s
    """

    position: FloatArray
    value: FloatArray
    scatter: float
    used: int
    rejected: Counter[str]
    sampling_interval: float
    origin: str

    def at(self, position: npt.ArrayLike) -> FloatArray:
        """The pulse between its values; NaN outside."""
        curve = CubicSpline(self.position, self.value, extrapolate=False)
        return np.asarray(curve(position), dtype=np.float64)


@dataclass(frozen=True)
class _Alignment:
    """Where each pulse has its maximum, how high it is, and its baseline; (n,) each."""

    position: FloatArray
    amplitude: FloatArray
    baseline: FloatArray

    def applied(self, values: FloatArray) -> tuple[FloatArray, FloatArray]:
        """Positions from the maximum and normalised values of all samples, (n, width) each."""
        x = np.arange(values.shape[1]) - self.position[:, np.newaxis]
        return x, (values - self.baseline[:, np.newaxis]) / self.amplitude[:, np.newaxis]

    def of(self, rows: npt.NDArray[np.bool_]) -> _Alignment:
        """The alignment of the given rows."""
        return _Alignment(self.position[rows], self.amplitude[rows], self.baseline[rows])


def average(pulses: Pulses, *, most: int = MOST_PULSES) -> AveragePulse:
    """The average of the pulses.

    Raises ValueError when not one of them can be used; the sentence says why.
    """
    usable = screened(pulses, most)
    if len(usable) == 0:
        reasons = ", ".join(f"{count}: {reason}" for reason, count in usable.rejected.items())
        raise ValueError(f"{pulses.origin}: no pulse can be used ({reasons or 'there is none'})")
    alignment = _first_alignment(usable.values)
    extent = _extent(usable.values, alignment)
    curve = None
    for turn in range(_TURNS):
        alignment, curve = _fitted(usable.values, alignment, curve, extent, _ALIGNING)
        alignment = _moved(usable.values, alignment, curve)
        if turn >= 2:
            usable, alignment = _without_strangers(usable, alignment, curve)
    alignment, curve = _fitted(usable.values, alignment, curve, extent, _DRAWING)
    return _result(usable, alignment, curve)


def pulse_of_curve(
    time: npt.ArrayLike, amplitude: npt.ArrayLike, sampling_interval: float, origin: str
) -> AveragePulse:
    """A pulse given as a curve, with its level ahead of the rise taken off and its maximum at 0.

    Parameters
    ----------
    time : (n,) s, ascending, any spacing
    amplitude : (n,) any unit
    sampling_interval : s, of the records that the pulse is for

    Raises ValueError when the times do not ascend or span fewer than 12 sampling intervals, values
    are not finite or beyond 1e100, or there is no pulse.
    """
    t, y = np.asarray(time, dtype=np.float64), np.asarray(amplitude, dtype=np.float64)
    if t.ndim != 1 or t.shape != y.shape or len(t) < _LEAST_SAMPLES:
        raise ValueError(f"{origin}: a pulse needs at least {_LEAST_SAMPLES} times with amplitudes")
    if not (np.isfinite(t).all() and np.isfinite(y).all() and np.all(np.diff(t) > 0.0)):
        raise ValueError(f"{origin}: times must ascend, and all values be finite")
    if np.abs(y).max() > _LARGEST_AMPLITUDE:
        raise ValueError(
            f"{origin}: an amplitude of {np.abs(y).max():.4g} is beyond {_LARGEST_AMPLITUDE:.0e}"
        )
    x = t / sampling_interval
    if x[-1] - x[0] < _LEAST_INTERVALS:
        raise ValueError(
            f"{origin}: the curve spans {(t[-1] - t[0]) * 1e9:.4g} ns, less than "
            f"{_LEAST_INTERVALS:.0f} sampling intervals of {sampling_interval * 1e9:.4g} ns; times "
            "and interval must both be in ns"
        )
    curve = CubicSpline(x, y)
    fine = np.linspace(x[0], x[-1], int(np.ceil((x[-1] - x[0]) * 100)) + 1)
    value = np.asarray(curve(fine), dtype=np.float64)
    top, height = vertex(fine, value, int(np.argmax(value)))
    level = quiet_level(fine, value)
    if not height > level:
        raise ValueError(f"{origin}: the amplitudes do not rise above {level}")
    steps = np.ceil((x[0] - top) * STEPS_PER_SAMPLE), np.floor((x[-1] - top) * STEPS_PER_SAMPLE)
    position = np.arange(steps[0], steps[1] + 1) / STEPS_PER_SAMPLE
    shape = (np.asarray(curve(position + top)) - level) / (height - level)
    return AveragePulse(position, shape, 0.0, 1, Counter(), float(sampling_interval), origin)


def _first_alignment(values: FloatArray) -> _Alignment:
    """Positions from a parabola through the logarithms of the three highest samples."""
    base = baseline_of(values)
    rows, top = np.arange(len(values)), np.nanargmax(values, axis=1)
    near = values[rows[:, np.newaxis], top[:, np.newaxis] + np.arange(-1, 2)]
    centre = values[rows, top]
    left, middle, right = np.log(np.maximum(near - base[:, np.newaxis], 0.5)).T
    bend = left - 2.0 * middle + right
    with np.errstate(divide="ignore", invalid="ignore"):
        move = np.where(bend < 0.0, 0.5 * (left - right) / bend, 0.0)
    move = np.clip(np.nan_to_num(move), -0.5, 0.5)
    return _Alignment(top + move, centre - base, base)


def _extent(values: FloatArray, alignment: _Alignment) -> tuple[float, float]:
    """Samples before and behind the maximum that at least half of the pulses have."""
    there = np.isfinite(values)
    first = np.argmax(there, axis=1)
    last = values.shape[1] - 1 - np.argmax(there[:, ::-1], axis=1)
    before = float(np.median(alignment.position - first))
    after = float(np.median(last - alignment.position))
    return min(before, _MOST_BEFORE), min(after, _MOST_AFTER)


def _moved(values: FloatArray, alignment: _Alignment, curve: Curve) -> _Alignment:
    """One Gauss-Newton step of amplitude, baseline and position of every pulse."""
    x = np.arange(values.shape[1]) - alignment.position[:, np.newaxis]
    shape, slope = curve(x), curve(x, 1)
    there = np.isfinite(values) & np.isfinite(shape)
    columns = np.stack([shape, np.ones_like(shape), -slope], axis=2)
    columns = np.where(there[:, :, None], columns, 0.0)
    right = np.einsum("nwk,nw->nk", columns, np.where(there, values, 0.0))
    normal = np.einsum("nwk,nwl->nkl", columns, columns)
    # The pseudo-inverse leaves a row alone whose few samples do not determine all three.
    solution = np.einsum("nkl,nl->nk", np.linalg.pinv(normal, hermitian=True), right)
    move = np.clip(solution[:, 2] / alignment.amplitude, -_LARGEST_MOVE, _LARGEST_MOVE)
    return _Alignment(alignment.position + move, solution[:, 0], solution[:, 1])


def _fitted(
    values: FloatArray,
    alignment: _Alignment,
    previous: Curve | None,
    extent: tuple[float, float],
    kind: tuple[int, int],
) -> tuple[_Alignment, Curve]:
    """The curve through all pulses, its maximum 1 at position 0, and the alignment to it."""
    x, y = alignment.applied(values)
    weights = np.ones_like(y) if previous is None else _weights(x, y, alignment, previous)
    return _normalised(alignment, Curve.through(x, y, weights, extent, kind))


def _residual(x: FloatArray, y: FloatArray, curve: Curve) -> FloatArray:
    return np.asarray(y - curve(x))


def _deviation(values: FloatArray) -> float:
    """Robust standard deviation of values about 0."""
    return float(1.4826 * np.nanmedian(np.abs(values)))


def _weights(x: FloatArray, y: FloatArray, alignment: _Alignment, curve: Curve) -> FloatArray:
    """Weights of the samples: by the noise, which is the same counts everywhere, after Huber."""
    counts = _residual(x, y, curve) * alignment.amplitude[:, np.newaxis]
    deviation = max(_deviation(counts), 1e-12)
    far = np.abs(np.nan_to_num(counts)) / (_HUBER * deviation)
    strength = (alignment.amplitude / np.median(alignment.amplitude)) ** 2
    return np.asarray(strength[:, np.newaxis] / np.maximum(far, 1.0))


def _without_strangers(
    pulses: Pulses, alignment: _Alignment, curve: Curve
) -> tuple[Pulses, _Alignment]:
    """Leaves out the pulses whose residuals stand out from those of the others."""
    x, y = alignment.applied(pulses.values)
    rms = np.sqrt(np.nanmean(_residual(x, y, curve) ** 2, axis=1))
    middle = np.median(rms)
    limit = middle + _UNLIKE_DEVIATIONS * _deviation(rms - middle) + 1e-9
    wrong = ~(rms <= limit) | ~(alignment.amplitude > 0.0)
    if wrong.all():
        return pulses, alignment
    return pulses.without(wrong, UNLIKE), alignment.of(~wrong)


def _normalised(alignment: _Alignment, curve: Curve) -> tuple[_Alignment, Curve]:
    """Puts the curve's maximum to 1 at position 0 and its quiet part to 0; the pulses follow."""
    fine = curve.grid(100)
    value = curve(fine)
    near = np.abs(fine) <= 3.0
    top = int(np.flatnonzero(near)[np.argmax(value[near])])
    level = quiet_level(fine, value)
    shift, height = vertex(fine, value, top)
    height -= level
    aligned = _Alignment(
        alignment.position + shift,
        alignment.amplitude * height,
        alignment.baseline + alignment.amplitude * level,
    )
    old = curve.spline
    spline = BSpline(old.t - shift, (old.c - level) / height, old.k)
    return aligned, Curve(spline, curve.before + shift, curve.after - shift)


def _result(pulses: Pulses, alignment: _Alignment, curve: Curve) -> AveragePulse:
    grid = curve.grid(STEPS_PER_SAMPLE)
    x, y = alignment.applied(pulses.values)
    return AveragePulse(
        position=grid,
        value=curve(grid),
        scatter=_deviation(_residual(x, y, curve)),
        used=len(pulses),
        rejected=pulses.rejected,
        sampling_interval=pulses.sampling_interval,
        origin=pulses.origin,
    )
