"""Pulses fitted with a common curve that each of them widens a little."""

from __future__ import annotations

from collections import Counter
from dataclasses import dataclass, replace

import numpy as np
from scipy.interpolate import BSpline

from fullwaveform.calibration.averaging import (
    ALIGNMENT_SPLINE,
    Alignment,
    common_extent,
    first_alignment,
    fitted_curve,
    normalised,
    robust_deviation,
    robust_weights,
)
from fullwaveform.calibration.curve import Curve
from fullwaveform.calibration.echo_widths import WidthDistribution, width_distribution
from fullwaveform.calibration.pulses import OUTLIER, Pulses, screened
from fullwaveform.calibration.widened_pulse import WidenedPulse
from fullwaveform.data.arrays import BoolArray, FloatArray

_EXTENT_SHARE = 0.1  # of the pulses; the curve ends where fewer have samples
_MAX_PULSES = 1500  # more of them do not improve the curve
_ROUNDS, _FINAL_ROUNDS = 6, 2
_STEPS_PER_ROUND = 4
_FINAL_SPLINE = (2, 3)  # knots per sample and degree
_MAX_SHIFT, _MAX_WIDENING = 0.5, 0.5  # per step, samples and samples squared
_OUTLIER_DEVIATIONS = 6.0
_OUTLIER_SHARE = 0.02  # of the amplitude; no echo with a smaller rms residual is an outlier
_CORE = 0.1  # share of the maximum; samples of the pulse above it show its scatter
_FITTED_IN_CORE = 3  # position, amplitude and width; the baseline comes from the other samples
_MAX_RATIO = 6.0  # of the mean square of an echo to that of the usual ones
_SCATTER_ROUNDS = 8


@dataclass(frozen=True)
class AlignedPulses:
    """Pulses as a common curve: amplitude * curve(sample - position; variance) + baseline.

    pulse : its curve has maximum 1 at lag 0 and level 0 before the rise; that of a flat surface
    values : (n, width) counts, NaN outside of the waveform
    alignment : position (samples), amplitude and baseline (counts) of each pulse
    variance : (n,) samples squared, by which each pulse is wider than the curve
    error : (n,) standard deviation of the variance
    widths : distribution of the variances
    scatter : rms residual of samples of the core, without that of the noise, over the amplitude
    rejected : reason -> number of pulses that were left out
    """

    pulse: WidenedPulse
    values: FloatArray
    alignment: Alignment
    variance: FloatArray
    error: FloatArray
    widths: WidthDistribution
    scatter: float
    rejected: Counter[str]

    def __len__(self) -> int:
        return len(self.values)

    def lags(self) -> FloatArray:
        """Lag of each sample, (n, width) samples."""
        columns = np.arange(self.values.shape[1])
        return np.asarray(columns - self.alignment.position[:, np.newaxis])

    def residuals(self) -> FloatArray:
        """Samples minus fit, (n, width) counts; NaN outside of waveform or curve."""
        value = self.pulse.at(self.lags(), self.variance)[0]
        amplitude, baseline = self.alignment.amplitude, self.alignment.baseline
        return np.asarray(self.values - baseline[:, np.newaxis] - amplitude[:, np.newaxis] * value)


def align(pulses: Pulses, noise_rms: float) -> AlignedPulses:
    """Fit pulses of different positions, amplitudes, baselines and widths with a common curve.

    Curve and pulses are fitted in turn by robust least squares. The curve is the pulse of the
    narrowest echoes, up to their scatter.

    Parameters
    ----------
    pulses : isolated echoes
    noise_rms : counts

    Raises ValueError if no pulse is usable.
    """
    usable = screened(pulses, _MAX_PULSES)
    if len(usable) == 0:
        raise ValueError(f"{pulses.origin}: no usable pulse")
    values = usable.values
    alignment = first_alignment(values)
    width = float(values.shape[1])
    extent = common_extent(values, alignment, _EXTENT_SHARE, (width, width))
    alignment, curve = fitted_curve(values, alignment, None, extent, ALIGNMENT_SPLINE)
    aligned = AlignedPulses(
        WidenedPulse(curve),
        values,
        alignment,
        np.zeros(len(values)),
        np.ones(len(values)),
        WidthDistribution(0.0, 1.0, 1.0),
        0.0,
        usable.rejected,
    )
    for number in range(_ROUNDS):
        for _ in range(_STEPS_PER_ROUND):
            aligned = _moved(aligned, noise_rms)
        aligned = _without_outliers(aligned)
        is_final = number >= _ROUNDS - _FINAL_ROUNDS
        # The distribution is that of variances above the curve, so its own mean must not move last.
        aligned = _described(aligned, noise_rms, 0.0 if is_final else None)
        aligned = _recentred(aligned, _FINAL_SPLINE if is_final else ALIGNMENT_SPLINE)
    return _described(_moved(_centred(aligned), noise_rms), noise_rms, 0.0)


def _centred(aligned: AlignedPulses) -> AlignedPulses:
    """The pulses with their curve shifted and scaled to maximum 1 at lag 0."""
    old, alignment = aligned.pulse.curve, aligned.alignment
    lag, height = old.summit()
    spline = BSpline(old.spline.t - lag, old.spline.c / height, old.spline.k)
    return replace(
        aligned,
        pulse=WidenedPulse(Curve(spline, old.before + lag, old.after - lag)),
        alignment=replace(
            alignment,
            position=alignment.position + lag,
            amplitude=alignment.amplitude * height,
        ),
    )


def _moved(aligned: AlignedPulses, noise_rms: float) -> AlignedPulses:
    """One Gauss-Newton step of position, amplitude, baseline and variance of every pulse."""
    alignment, values = aligned.alignment, aligned.values
    pulse = aligned.pulse
    shape, slope, widening = pulse.at(aligned.lags(), aligned.variance)
    valid = np.isfinite(values) & np.isfinite(shape)
    columns = np.stack([shape, np.ones_like(shape), -slope, widening], axis=2)
    columns = np.where(valid[:, :, np.newaxis], columns, 0.0)
    right = np.einsum("nwk,nw->nk", columns, np.where(valid, values, 0.0))
    normal = np.einsum("nwk,nwl->nkl", columns, columns)
    # The pseudo-inverse, since few samples of a row may not determine all four.
    inverse = np.linalg.pinv(normal, hermitian=True)
    solution = np.einsum("nkl,nl->nk", inverse, right)
    amplitude = alignment.amplitude
    move = np.clip(solution[:, 2] / amplitude, -_MAX_SHIFT, _MAX_SHIFT)
    # The widened pulse is linear in the variance only nearby; the amplitude follows from its shape.
    widen = np.clip(solution[:, 3] / amplitude, -_MAX_WIDENING, _MAX_WIDENING)
    deviation = np.hypot(noise_rms, aligned.scatter * solution[:, 0])
    return replace(
        aligned,
        alignment=Alignment(alignment.position + move, solution[:, 0], solution[:, 1]),
        variance=np.clip(aligned.variance + widen, pulse.min_variance, pulse.max_variance),
        error=np.sqrt(np.maximum(inverse[:, 3, 3], 0.0)) * deviation / np.abs(solution[:, 0]),
    )


def _without_outliers(aligned: AlignedPulses) -> AlignedPulses:
    """Reject the pulses with much larger residuals than the others, for their amplitude."""
    amplitude = aligned.alignment.amplitude
    mean_square = np.nanmean(aligned.residuals() ** 2, axis=1)
    size = np.sqrt(mean_square / (np.median(mean_square) + (_OUTLIER_SHARE * amplitude) ** 2))
    middle = np.median(size)
    limit = middle + max(_OUTLIER_DEVIATIONS * robust_deviation(size - middle), 1.0)
    keep = (size <= limit) & (amplitude > 0.0)
    if keep.all() or not keep.any():
        return aligned
    return _of(aligned, keep)


def _of(aligned: AlignedPulses, keep: BoolArray) -> AlignedPulses:
    outliers = Counter({OUTLIER: int(np.count_nonzero(~keep))})
    return replace(
        aligned,
        values=aligned.values[keep],
        alignment=aligned.alignment.of(keep),
        variance=aligned.variance[keep],
        error=aligned.error[keep],
        rejected=aligned.rejected + outliers,
    )


def _described(aligned: AlignedPulses, noise_rms: float, narrowest: float | None) -> AlignedPulses:
    """The pulses with the scatter and the distribution of widths that they show."""
    pulse = aligned.pulse
    inside = (aligned.variance > pulse.min_variance) & (aligned.variance < pulse.max_variance)
    if not inside.any():  # pulses of another shape than the curve can have
        return replace(aligned, scatter=_scatter(aligned, noise_rms))
    widths = width_distribution(aligned.variance[inside], aligned.error[inside], narrowest)
    return replace(aligned, widths=widths, scatter=_scatter(aligned, noise_rms))


def _scatter(aligned: AlignedPulses, noise_rms: float) -> float:
    """Rms residual relative to the amplitude, from the increase of the residual with it.

    The noise that is left in the core is estimated as well, since part of it goes into the fit.
    """
    core = aligned.pulse.at(aligned.lags(), aligned.variance)[0] > _CORE
    core &= np.isfinite(aligned.values)
    squares = np.where(core, aligned.residuals() ** 2, 0.0).sum(axis=1)
    square = squares / np.maximum(core.sum(axis=1) - _FITTED_IN_CORE, 1)
    strength = aligned.alignment.amplitude**2
    noise, scatter = float(np.median(square)), 0.0
    for _ in range(_SCATTER_ROUNDS):
        expected = noise + scatter * strength + 1e-12
        ratio = square / expected
        usual = ratio <= _MAX_RATIO * np.median(ratio)
        weight = np.where(usual, expected**-2.0, 0.0)
        noise, scatter = _line(strength, square, weight, noise_rms**2)
    return float(np.sqrt(scatter))


def _line(x: FloatArray, y: FloatArray, weight: FloatArray, highest: float) -> tuple[float, float]:
    """Offset, 0 to `highest`, and slope, at least 0, of a weighted straight line."""
    total = weight.sum()
    mean_x, mean_y = (weight * x).sum() / total, (weight * y).sum() / total
    spread = (weight * (x - mean_x) ** 2).sum()
    slope = (weight * (x - mean_x) * y).sum() / spread if spread > 0.0 else 0.0
    offset = min(max(mean_y - max(slope, 0.0) * mean_x, 0.0), highest)
    slope = max((weight * x * (y - offset)).sum() / (weight * x**2).sum(), 0.0)
    return float(offset), float(slope)


def _recentred(aligned: AlignedPulses, kind: tuple[int, int]) -> AlignedPulses:
    """The pulses with a new curve, that of the narrowest ones."""
    pulse = aligned.pulse
    variance = aligned.variance - aligned.widths.narrowest
    variance = np.clip(variance, pulse.min_variance, pulse.max_variance)
    x, y = aligned.alignment.applied(aligned.values)
    y = y - (pulse.at(x, variance)[0] - pulse.at(x, np.zeros(len(variance)))[0])
    weights = robust_weights(x, y, aligned.alignment, pulse.curve)
    extent = (pulse.curve.before, pulse.curve.after)
    fitted = Curve.through(x, y, weights, extent, kind)
    alignment, curve = normalised(aligned.alignment, fitted)
    return replace(aligned, pulse=WidenedPulse(curve), alignment=alignment, variance=variance)
