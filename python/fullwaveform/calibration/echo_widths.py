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
_MAX_LOGARITHM = 20.0
# Quantile 2/3 less the median, of distributions of standard deviation and mean 1.
_SIXTH_OF_NORMAL, _SIXTH_OF_EXPONENTIAL = 0.4307, math.log(1.5)
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

    def density(self, variance: FloatArray) -> FloatArray:
        """Density at variances (n,), per sample squared."""
        spread = np.full(len(variance), self.spread)
        return np.exp(_log_density(variance - self.narrowest, spread, self.widening))


def width_distribution(
    variance: FloatArray, error: FloatArray, narrowest: float | None = None
) -> WidthDistribution:
    """The distribution of variances (n,) that were measured with standard deviations `error` (n,).

    `narrowest` is estimated unless it is given. By maximum likelihood. Of the variances above the
    median only their number counts: merged echoes and unusual surfaces are among them, while the
    shape of the lower half shows where the flat surfaces are and how much their pulses scatter. The
    widening is at least that of the sixth above the median. n must be above 0.
    """
    median = float(np.median(variance))
    deviation = _RMS_PER_MEDIAN_DISTANCE * float(np.median(np.abs(variance - median)))
    scale = max(deviation, _MIN_SPREAD)
    is_narrow = variance <= median
    narrow, wide_error = variance[is_narrow], error[~is_narrow]
    range_of_narrow = max(median - float(narrow.min()), scale)

    def unpacked(parameters: FloatArray) -> tuple[float, float, float]:
        """From logarithms of the positive ones, and relative to the scale."""
        logarithms = np.clip(parameters[:2], -_MAX_LOGARITHM, _MAX_LOGARITHM)
        spread, widening = (scale * np.exp(logarithms)).tolist()
        spread = max(spread, _MIN_SPREAD)
        mean = scale * float(parameters[2]) if narrowest is None else narrowest
        return mean, spread, max(widening, _MIN_RATIO * spread)

    def cost(parameters: FloatArray) -> float:
        mean, spread, widening = unpacked(parameters)
        density = np.exp(_log_density(narrow - mean, np.hypot(spread, error[is_narrow]), widening))
        mixture = (1.0 - _OUTLIER_SHARE) * density + _OUTLIER_SHARE / range_of_narrow
        above = _share_above(median - mean, np.hypot(spread, wide_error), widening)
        # Exact sums, so that the order of the echoes does not matter.
        terms = np.concatenate([np.log(mixture), np.log(np.maximum(above, 1e-300))])
        return -math.fsum(terms.tolist())

    start = [math.log(0.5), 0.0] + ([median / scale - 1.0] if narrowest is None else [])
    best = minimize(cost, start, method="Nelder-Mead", options={"xatol": 1e-3, "fatol": 1e-3})
    mean, spread, widening = unpacked(best.x)
    sixth = float(np.quantile(variance, 2.0 / 3.0)) - median
    of_normal = _SIXTH_OF_NORMAL * math.hypot(spread, float(np.median(error)))
    above = math.sqrt(max(sixth**2 - of_normal**2, 0.0)) / _SIXTH_OF_EXPONENTIAL
    return WidthDistribution(mean, spread, max(widening, above))


def _log_density(value: FloatArray, spread: FloatArray, widening: float) -> FloatArray:
    """Logarithm of the density of the exponentially modified Gaussian of mean 0."""
    ratio = spread / widening
    exponent = 0.5 * ratio**2 - value / widening
    return np.asarray(exponent + log_ndtr(value / spread - ratio) - math.log(widening))


def _share_above(value: float, spread: FloatArray, widening: float) -> FloatArray:
    """Share of the exponentially modified Gaussian of mean 0 that lies above a value."""
    density = np.exp(_log_density(np.full(len(spread), value), spread, widening))
    return np.asarray(ndtr(-value / spread) + widening * density)
