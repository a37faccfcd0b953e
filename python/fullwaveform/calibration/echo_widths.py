"""How the widths of echoes are distributed: a normal scatter plus a one-sided widening."""

from __future__ import annotations

import math
from dataclasses import dataclass

import numpy as np
from scipy.optimize import minimize
from scipy.special import log_ndtr, ndtr

from fullwaveform.data.arrays import FloatArray

_MIN_SPREAD = 0.01  # samples squared
# Of the widening to the spread. Below it the lower half of the distribution shows only one of them,
# and slopes are everywhere.
_MIN_RATIO = 0.5
_OUTLIER_SHARE = 0.01  # of the narrow echoes
_RMS_PER_MEDIAN_DISTANCE = 1.4826  # of a normal distribution


@dataclass(frozen=True)
class WidthDistribution:
    """Distribution of the variances v that are added to a pulse, samples squared.

    v is the sum of a normal variable and an exponential one: sloping and rough surfaces widen an
    echo, nothing narrows it (exponentially modified Gaussian).
    """

    narrowest: float  # mean of the normal variable: v of flat surfaces
    spread: float  # its standard deviation
    widening: float  # mean of the exponential variable


def width_distribution(variance: FloatArray, error: FloatArray) -> WidthDistribution:
    """The distribution of variances (n,) that were measured with standard deviations `error` (n,).

    By maximum likelihood. Of the variances above the median only their number counts: merged echoes
    and unusual surfaces are among them, while the shape of the lower half shows where the flat
    surfaces are and how much their pulses scatter. n must be above 0.
    """
    median = float(np.median(variance))
    deviation = _RMS_PER_MEDIAN_DISTANCE * float(np.median(np.abs(variance - median)))
    scale = max(deviation, _MIN_SPREAD)
    is_narrow = variance <= median
    narrow, wide_error = variance[is_narrow], error[~is_narrow]
    range_of_narrow = max(median - float(narrow.min()), scale)

    def cost(parameters: FloatArray) -> float:
        mean, spread, widening = _unpacked(parameters, scale)
        density = np.exp(_log_density(narrow - mean, np.hypot(spread, error[is_narrow]), widening))
        mixture = (1.0 - _OUTLIER_SHARE) * density + _OUTLIER_SHARE / range_of_narrow
        above = _share_above(median - mean, np.hypot(spread, wide_error), widening)
        # Exact sums, so that the order of the echoes does not matter.
        terms = np.concatenate([np.log(mixture), np.log(np.maximum(above, 1e-300))])
        return -math.fsum(terms.tolist())

    start = (median / scale - 1.0, math.log(0.5), 0.0)
    best = minimize(cost, start, method="Nelder-Mead", options={"xatol": 1e-3, "fatol": 1e-3})
    return WidthDistribution(*_unpacked(best.x, scale))


def _unpacked(parameters: FloatArray, scale: float) -> tuple[float, float, float]:
    """Mean, spread and widening from their values relative to a scale, two of them logarithms."""
    mean, spread, widening = (float(value) for value in parameters)
    limited = [min(max(value, -20.0), 20.0) for value in (spread, widening)]
    deviation = max(scale * math.exp(limited[0]), _MIN_SPREAD)
    return scale * mean, deviation, max(scale * math.exp(limited[1]), _MIN_RATIO * deviation)


def _log_density(value: FloatArray, spread: FloatArray, widening: float) -> FloatArray:
    """Logarithm of the density of the exponentially modified Gaussian of mean 0."""
    ratio = spread / widening
    exponent = 0.5 * ratio**2 - value / widening
    return np.asarray(exponent + log_ndtr(value / spread - ratio) - math.log(widening))


def _share_above(value: float, spread: FloatArray, widening: float) -> FloatArray:
    """Share of the exponentially modified Gaussian of mean 0 that lies above a value."""
    density = np.exp(_log_density(np.full(len(spread), value), spread, widening))
    return np.asarray(ndtr(-value / spread) + widening * density)
