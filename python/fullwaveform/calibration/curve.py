"""Spline through the samples of aligned pulses."""

from __future__ import annotations

from dataclasses import dataclass
from typing import TYPE_CHECKING

import numpy as np

from fullwaveform.data.arrays import FloatArray

if TYPE_CHECKING:
    from scipy.interpolate import BSpline

# Weight of the third differences of the coefficients: negligible compared with data, but it makes
# the curve smooth where there are no samples.
_SMOOTHNESS = 1e-6
# The rise starts where the curve was last below these shares of the maximum, in two passes; values
# more than a sample before it are baseline.
_RISE_SHARES = (0.1, 0.03)
_MIN_QUIET = 2.0  # samples
_STEPS_FOR_WIDTH = 32  # per sample
# A Gaussian over this share of its width at half maximum to either side of its maximum differs from
# a polynomial of degree 4 by 1.4e-4 at most.
_SUMMIT_SHARE, _SUMMIT_VALUES = 0.3, 101
_NEWTON_STEPS = 20


@dataclass(frozen=True)
class Curve:
    """A spline over equal knots between `-before` and `after`."""

    spline: BSpline
    before: float
    after: float

    @classmethod
    def through(
        cls,
        x: FloatArray,
        y: FloatArray,
        weight: FloatArray,
        extent: tuple[float, float],
        kind: tuple[int, int],
    ) -> Curve:
        """Penalised least-squares fit to samples; NaN and samples outside are ignored."""
        # On demand: SciPy takes longer to load than most commands run, and few measure a curve.
        from scipy.interpolate import BSpline

        (before, after), (per_sample, degree) = extent, kind
        inside = np.isfinite(y) & (x >= -before) & (x <= after)
        weights = weight[inside]
        pieces = int(np.ceil((before + after) * per_sample))
        step = (before + after) / pieces
        knots = -before + step * np.arange(-degree, pieces + degree + 1)
        knots[degree], knots[-degree - 1] = -before, after
        matrix = BSpline.design_matrix(x[inside], knots, degree)
        normal = (matrix.T @ matrix.multiply(weights[:, np.newaxis])).toarray()
        right = matrix.T @ (weights * y[inside])
        difference = np.diff(np.eye(len(normal)), n=3, axis=0)
        normal += _SMOOTHNESS * np.trace(normal) / len(normal) * difference.T @ difference
        return cls(BSpline(knots, _solved(normal, right, degree), degree), before, after)

    def __call__(self, x: FloatArray, derivative: int = 0) -> FloatArray:
        """Values or derivatives; NaN outside."""
        inside = (x >= -self.before) & (x <= self.after)
        safe = np.where(inside, x, 0.0)
        return np.where(inside, self.spline(safe, nu=derivative), np.nan)

    def fwhm(self) -> float:
        """Full width at half maximum, for a maximum of 1; up to an end that is not below half."""
        lag = self.grid(_STEPS_FOR_WIDTH)
        value = self(lag)
        top = int(np.argmax(value))
        before, after = np.flatnonzero(value[:top] < 0.5), np.flatnonzero(value[top:] < 0.5)
        left = _half(lag, value, before[-1]) if len(before) else lag[0]
        right = _half(lag, value, top + after[0] - 1) if len(after) else lag[-1]
        return float(right - left)

    def summit(self) -> tuple[float, float]:
        """Lag and height of the maximum near lag 0, for a maximum of about 1.

        By a polynomial of degree 4 over the upper part of the curve: noise moves the maximum of the
        spline itself by more than it moves echoes that are fitted with it.
        """
        from numpy.polynomial import Polynomial  # on demand, as above

        reach = _SUMMIT_SHARE * self.fwhm()
        lag = np.linspace(-reach, reach, _SUMMIT_VALUES)
        polynomial = Polynomial.fit(lag, self(lag), 4)
        slope, bend = polynomial.deriv(1), polynomial.deriv(2)
        at = 0.0
        for _ in range(_NEWTON_STEPS):
            at -= float(np.clip(slope(at) / bend(at), -0.1 * reach, 0.1 * reach))
        return at, float(polynomial(at))

    def grid(self, steps: int) -> FloatArray:
        """Multiples of a step from the maximum, inside the curve."""
        first, last = np.ceil(-self.before * steps), np.floor(self.after * steps)
        return np.asarray(np.arange(first, last + 1) / steps)


def _half(lag: FloatArray, value: FloatArray, index: int) -> float:
    """Lag at which the value is 0.5, between two neighbours."""
    share = (0.5 - value[index]) / (value[index + 1] - value[index])
    return float(lag[index] + share * (lag[index + 1] - lag[index]))


def _solved(normal: FloatArray, right: FloatArray, degree: int) -> FloatArray:
    """Solution of the normal equations, whose matrix has `degree` diagonals on each side."""
    from scipy.linalg import solveh_banded

    size = len(normal)
    banded = np.zeros((degree + 1, size))
    for off in range(degree + 1):
        banded[off, : size - off] = np.diagonal(normal, -off)
    return np.asarray(solveh_banded(banded, right, lower=True))


def quiet_level(position: FloatArray, value: FloatArray) -> float:
    """Median before the rise; the 10 % quantile if the waveform begins too late."""
    top = int(np.argmax(value))
    level = float(np.percentile(value, 10.0))
    for share in _RISE_SHARES:
        below = np.flatnonzero(value[:top] <= level + share * (value[top] - level))
        rise = position[below[-1]] if len(below) else position[0]
        ahead = position <= rise - 1.0
        if rise - 1.0 - position[0] >= _MIN_QUIET:
            level = float(np.median(value[ahead]))
    return level


def vertex(x: FloatArray, y: FloatArray, top: int) -> tuple[float, float]:
    """Position and height of the vertex of the parabola through the largest value."""
    top = min(max(top, 1), len(y) - 2)
    left, middle, right = y[top - 1 : top + 2]
    bend = left - 2.0 * middle + right
    if bend >= 0.0:
        return float(x[top]), float(middle)
    off = 0.5 * (left - right) / bend
    step = x[1] - x[0]
    return float(x[top] + off * step), float(middle - 0.25 * (left - right) * off)
