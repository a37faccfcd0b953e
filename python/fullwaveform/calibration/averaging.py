"""Average of many pulses, aligned to fractions of a sample, on a fine grid.

Pulses are sampled at different phases, so together they show the pulse between the samples. Every
pulse is modelled as an amplitude times a common shifted curve plus a baseline. The curve is a
spline; curve and shifts are fitted in turn by least squares.

While shifts are fitted, the spline has one knot per sample. With more knots, shifts and curve are
not determined: an error of the shifts that depends on the phase could be compensated by a ripple of
the curve with a period of one sample. A pulse that the digitiser resolves has no such ripple.
"""

from __future__ import annotations

from collections import Counter
from dataclasses import dataclass

import numpy as np
import numpy.typing as npt
from scipy.interpolate import BSpline, CubicSpline

from fullwaveform.calibration.curve import Curve, quiet_level, vertex
from fullwaveform.calibration.pulses import OUTLIER, Pulses, baseline_of, screened
from fullwaveform.core.constants import SYSTEM_WAVE_SAMPLES
from fullwaveform.data.arrays import BoolArray, FloatArray

#: Values of the averaged pulse per sample.
STEPS_PER_SAMPLE = 10
#: More pulses do not improve the average.
MAX_PULSES = 4000

_ITERATIONS = 8
_MAX_EXTENT = (24.0, 48.0)  # samples before and after the maximum
ALIGNMENT_SPLINE, _FINAL_SPLINE = (1, 5), (4, 3)  # knots per sample and degree
_HUBER = 2.0  # standard deviations from which a sample loses weight
_OUTLIER_DEVIATIONS = 6.0
_MAX_SHIFT = 0.5  # samples per iteration
_MIN_SAMPLES = 8  # of a curve
_MAX_AMPLITUDE = 1e100  # of a curve; its third power is still finite
_MIN_INTERVALS = float(SYSTEM_WAVE_SAMPLES)  # of a curve


@dataclass(frozen=True)
class AveragePulse:
    """The averaged pulse, with maximum 1 at position 0 and level 0 before the rise.

    position : (m,) samples from the maximum, in equal steps
    value : (m,)
    scatter : rms residual of samples, as a share of the maximum of their pulse
    used : number of averaged pulses
    rejected : reason -> number of rejected pulses
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
        """The interpolated pulse; NaN outside."""
        curve = CubicSpline(self.position, self.value, extrapolate=False)
        return np.asarray(curve(position), dtype=np.float64)


@dataclass(frozen=True)
class Alignment:
    """Position and height of the maximum, and baseline, of each pulse; (n,) each."""

    position: FloatArray
    amplitude: FloatArray
    baseline: FloatArray

    def applied(self, values: FloatArray) -> tuple[FloatArray, FloatArray]:
        """Positions from the maximum and normalised values of all samples, (n, width) each."""
        x = np.arange(values.shape[1]) - self.position[:, np.newaxis]
        return x, (values - self.baseline[:, np.newaxis]) / self.amplitude[:, np.newaxis]

    def of(self, rows: BoolArray) -> Alignment:
        """The alignment of the given rows."""
        return Alignment(self.position[rows], self.amplitude[rows], self.baseline[rows])


def average(pulses: Pulses, *, max_pulses: int = MAX_PULSES) -> AveragePulse:
    """The average of the pulses. Raises ValueError with the reasons if no pulse is usable."""
    usable = screened(pulses, max_pulses)
    if len(usable) == 0:
        reasons = ", ".join(f"{count}: {reason}" for reason, count in usable.rejected.items())
        raise ValueError(f"{pulses.origin}: no usable pulse ({reasons or 'no pulses'})")
    alignment = first_alignment(usable.values)
    extent = common_extent(usable.values, alignment)
    curve = None
    for iteration in range(_ITERATIONS):
        alignment, curve = fitted_curve(usable.values, alignment, curve, extent, ALIGNMENT_SPLINE)
        alignment = _moved(usable.values, alignment, curve)
        if iteration >= 2:
            usable, alignment = _without_outliers(usable, alignment, curve)
    alignment, curve = fitted_curve(usable.values, alignment, curve, extent, _FINAL_SPLINE)
    return _result(usable, alignment, curve)


def pulse_of_curve(
    time: npt.ArrayLike, amplitude: npt.ArrayLike, sampling_interval: float, origin: str
) -> AveragePulse:
    """A pulse from a curve, shifted and scaled to the level and maximum of `AveragePulse`.

    Parameters
    ----------
    time : (n,) s, ascending, any spacing
    amplitude : (n,) any unit
    sampling_interval : s, of the waveforms to deconvolve

    Raises ValueError if the times do not ascend or span fewer than 12 sampling intervals, if values
    are not finite or exceed 1e100, or if there is no pulse.
    """
    t, y = np.asarray(time, dtype=np.float64), np.asarray(amplitude, dtype=np.float64)
    if t.ndim != 1 or t.shape != y.shape or len(t) < _MIN_SAMPLES:
        raise ValueError(f"{origin}: a pulse needs at least {_MIN_SAMPLES} times with amplitudes")
    if not (np.isfinite(t).all() and np.isfinite(y).all() and np.all(np.diff(t) > 0.0)):
        raise ValueError(f"{origin}: times must ascend, and all values must be finite")
    if np.abs(y).max() > _MAX_AMPLITUDE:
        raise ValueError(f"{origin}: amplitude {np.abs(y).max():.4g} exceeds {_MAX_AMPLITUDE:.0e}")
    x = t / sampling_interval
    if x[-1] - x[0] < _MIN_INTERVALS:
        raise ValueError(
            f"{origin}: the curve spans {(t[-1] - t[0]) * 1e9:.4g} ns, less than "
            f"{_MIN_INTERVALS:.0f} sampling intervals of {sampling_interval * 1e9:.4g} ns; times "
            "and interval must both be in ns"
        )
    curve = CubicSpline(x, y)
    fine = np.linspace(x[0], x[-1], int(np.ceil((x[-1] - x[0]) * 100)) + 1)
    value = np.asarray(curve(fine), dtype=np.float64)
    top, height = vertex(fine, value, int(np.argmax(value)))
    level = quiet_level(fine, value)
    if not height > level:
        raise ValueError(f"{origin}: no pulse; the amplitudes do not rise above {level}")
    steps = np.ceil((x[0] - top) * STEPS_PER_SAMPLE), np.floor((x[-1] - top) * STEPS_PER_SAMPLE)
    position = np.arange(steps[0], steps[1] + 1) / STEPS_PER_SAMPLE
    shape = (np.asarray(curve(position + top)) - level) / (height - level)
    return AveragePulse(position, shape, 0.0, 1, Counter(), float(sampling_interval), origin)


def first_alignment(values: FloatArray) -> Alignment:
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
    return Alignment(top + move, centre - base, base)


def common_extent(
    values: FloatArray,
    alignment: Alignment,
    share: float = 0.5,
    largest: tuple[float, float] = _MAX_EXTENT,
) -> tuple[float, float]:
    """Samples before and after the maximum that at least a share of the pulses have."""
    valid = np.isfinite(values)
    first = np.argmax(valid, axis=1)
    last = values.shape[1] - 1 - np.argmax(valid[:, ::-1], axis=1)
    before = float(np.quantile(alignment.position - first, 1.0 - share))
    after = float(np.quantile(last - alignment.position, 1.0 - share))
    return min(before, largest[0]), min(after, largest[1])


def _moved(values: FloatArray, alignment: Alignment, curve: Curve) -> Alignment:
    """One Gauss-Newton step of amplitude, baseline and position of every pulse."""
    x = np.arange(values.shape[1]) - alignment.position[:, np.newaxis]
    shape, slope = curve(x), curve(x, 1)
    valid = np.isfinite(values) & np.isfinite(shape)
    columns = np.stack([shape, np.ones_like(shape), -slope], axis=2)
    columns = np.where(valid[:, :, None], columns, 0.0)
    right = np.einsum("nwk,nw->nk", columns, np.where(valid, values, 0.0))
    normal = np.einsum("nwk,nwl->nkl", columns, columns)
    # The pseudo-inverse, since few samples of a row may not determine all three.
    solution = np.einsum("nkl,nl->nk", np.linalg.pinv(normal, hermitian=True), right)
    move = np.clip(solution[:, 2] / alignment.amplitude, -_MAX_SHIFT, _MAX_SHIFT)
    return Alignment(alignment.position + move, solution[:, 0], solution[:, 1])


def fitted_curve(
    values: FloatArray,
    alignment: Alignment,
    previous: Curve | None,
    extent: tuple[float, float],
    kind: tuple[int, int],
) -> tuple[Alignment, Curve]:
    """Curve through all pulses, with maximum 1 at position 0, and the alignment to it."""
    x, y = alignment.applied(values)
    weights = np.ones_like(y) if previous is None else robust_weights(x, y, alignment, previous)
    return normalised(alignment, Curve.through(x, y, weights, extent, kind))


def _residual(x: FloatArray, y: FloatArray, curve: Curve) -> FloatArray:
    return np.asarray(y - curve(x))


def robust_deviation(values: FloatArray) -> float:
    """Robust standard deviation of values around 0."""
    return float(1.4826 * np.nanmedian(np.abs(values)))


def robust_weights(x: FloatArray, y: FloatArray, alignment: Alignment, curve: Curve) -> FloatArray:
    """Huber weights of the samples; the noise in counts is the same for all pulses."""
    counts = _residual(x, y, curve) * alignment.amplitude[:, np.newaxis]
    deviation = max(robust_deviation(counts), 1e-12)
    far = np.abs(np.nan_to_num(counts)) / (_HUBER * deviation)
    strength = (alignment.amplitude / np.median(alignment.amplitude)) ** 2
    return np.asarray(strength[:, np.newaxis] / np.maximum(far, 1.0))


def _without_outliers(
    pulses: Pulses, alignment: Alignment, curve: Curve
) -> tuple[Pulses, Alignment]:
    """Reject the pulses with much larger residuals than the others."""
    x, y = alignment.applied(pulses.values)
    rms = np.sqrt(np.nanmean(_residual(x, y, curve) ** 2, axis=1))
    middle = np.median(rms)
    limit = middle + _OUTLIER_DEVIATIONS * robust_deviation(rms - middle) + 1e-9
    outlier = ~(rms <= limit) | ~(alignment.amplitude > 0.0)
    if outlier.all():
        return pulses, alignment
    return pulses.without(outlier, OUTLIER), alignment.of(~outlier)


def normalised(alignment: Alignment, curve: Curve) -> tuple[Alignment, Curve]:
    """Scale and shift the curve to maximum 1 at position 0 and level 0, and adapt the alignment."""
    fine = curve.grid(100)
    value = curve(fine)
    near = np.abs(fine) <= 3.0
    top = int(np.flatnonzero(near)[np.argmax(value[near])])
    level = quiet_level(fine, value)
    shift, height = vertex(fine, value, top)
    height -= level
    aligned = Alignment(
        alignment.position + shift,
        alignment.amplitude * height,
        alignment.baseline + alignment.amplitude * level,
    )
    old = curve.spline
    spline = BSpline(old.t - shift, (old.c - level) / height, old.k)
    return aligned, Curve(spline, curve.before + shift, curve.after - shift)


def _result(pulses: Pulses, alignment: Alignment, curve: Curve) -> AveragePulse:
    grid = curve.grid(STEPS_PER_SAMPLE)
    x, y = alignment.applied(pulses.values)
    return AveragePulse(
        position=grid,
        value=curve(grid),
        scatter=robust_deviation(_residual(x, y, curve)),
        used=len(pulses),
        rejected=pulses.rejected,
        sampling_interval=pulses.sampling_interval,
        origin=pulses.origin,
    )
