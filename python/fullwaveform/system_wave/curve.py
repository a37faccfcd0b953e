"""The curve that an averaged pulse follows between its samples."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
from scipy.interpolate import BSpline
from scipy.linalg import solveh_banded

from fullwaveform.data.arrays import FloatArray

# Third differences of the spline's coefficients weigh next to nothing beside data, but decide where
# no pulse was sampled: there the curve is as smooth as it can be.
_SMOOTHNESS = 1e-6
# The rise is where these shares of the maximum are left for the last time, found one after the
# other; what lies ahead of it by more than a sample is baseline.
_RISE_SHARES = (0.1, 0.03)
_SHORTEST_QUIET = 2.0  # samples


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
        """The curve of penalised least squares through samples; NaN and outside are passed over."""
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

    def grid(self, steps: int) -> FloatArray:
        """Whole steps from the maximum that lie on the curve."""
        first, last = np.ceil(-self.before * steps), np.floor(self.after * steps)
        return np.asarray(np.arange(first, last + 1) / steps)


def _solved(normal: FloatArray, right: FloatArray, degree: int) -> FloatArray:
    """Solution of the spline's normal equations: a matrix with `degree` diagonals to a side."""
    size = len(normal)
    banded = np.zeros((degree + 1, size))
    for off in range(degree + 1):
        banded[off, : size - off] = np.diagonal(normal, -off)
    return np.asarray(solveh_banded(banded, right, lower=True))


def quiet_level(position: FloatArray, value: FloatArray) -> float:
    """Median of what lies ahead of the rise; the lowest tenth where the record begins too late."""
    top = int(np.argmax(value))
    level = float(np.percentile(value, 10.0))
    for share in _RISE_SHARES:
        below = np.flatnonzero(value[:top] <= level + share * (value[top] - level))
        rise = position[below[-1]] if len(below) else position[0]
        ahead = position <= rise - 1.0
        if rise - 1.0 - position[0] >= _SHORTEST_QUIET:
            level = float(np.median(value[ahead]))
    return level


def vertex(x: FloatArray, y: FloatArray, top: int) -> tuple[float, float]:
    """Place and height of the parabola through the highest value and its neighbours."""
    top = min(max(top, 1), len(y) - 2)
    left, middle, right = y[top - 1 : top + 2]
    bend = left - 2.0 * middle + right
    if bend >= 0.0:
        return float(x[top]), float(middle)
    off = 0.5 * (left - right) / bend
    step = x[1] - x[0]
    return float(x[top] + off * step), float(middle - 0.25 * (left - right) * off)
