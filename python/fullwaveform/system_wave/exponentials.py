"""Sums of complex exponentials, fitted to equidistant values.

The exponents come from a matrix pencil (Hua and Sarkar, "Matrix pencil method for estimating
parameters of exponentially damped/undamped sinusoids in noise", IEEE Trans. Acoust., Speech,
Signal Process. 38, 1990, doi:10.1109/29.56027), the coefficients from a linear least-squares solve,
and Levenberg-Marquardt refines both together.
"""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
import numpy.typing as npt
from scipy.optimize import least_squares

from fullwaveform.data.arrays import ComplexArray, FloatArray

#: Largest order to try; higher ones describe the noise of the average.
MAX_ORDER = 12
#: Misfit that is sufficient, as a share of the largest value.
GOOD_MISFIT = 1e-3
# Misfit of a higher order that justifies it, as a share of that of the lower order.
_WORTHWHILE = 0.8
# Larger terms cancel each other with too much loss of precision.
_MAX_TERM = 1e6
# Exponents this close to the real axis, as a share of 1 / step, are taken as real.
_REAL = 1e-9


@dataclass(frozen=True)
class ExponentialSum:
    """w(t) = Re(Σ a_k exp(b_k t)); exponents come in conjugate pairs, so the sum is real.

    coefficients, exponents : (k,) complex, the latter in 1 / unit of t
    """

    coefficients: ComplexArray
    exponents: ComplexArray

    @property
    def order(self) -> int:
        """Number of exponents."""
        return len(self.exponents)

    def __call__(self, time: npt.ArrayLike) -> FloatArray:
        """The sum at the given times, in their shape."""
        t = np.asarray(time, dtype=np.float64)
        terms = np.exp(t[..., np.newaxis] * self.exponents)
        return np.asarray((terms @ self.coefficients).real, dtype=np.float64)

    def scaled_in_time(self, unit: float) -> ExponentialSum:
        """The same sum in another unit of time; the old unit is `unit` new ones."""
        return ExponentialSum(self.coefficients, self.exponents / unit)


@dataclass(frozen=True)
class OrderMisfit:
    """Misfit of an order, as shares of the largest value."""

    order: int
    rms: float
    largest: float


@dataclass(frozen=True)
class ExponentialFit:
    """A sum, its misfit, and the misfits of all tried orders, ascending."""

    sum: ExponentialSum
    misfit: OrderMisfit
    tried: tuple[OrderMisfit, ...]


def fit_exponentials(
    values: npt.ArrayLike,
    step: float,
    order: int | None = None,
    *,
    good_misfit: float = GOOD_MISFIT,
) -> ExponentialFit:
    """Fit a sum of `order` exponentials to `values` at multiples of a step from t = 0.

    Parameters
    ----------
    values : (n,) real and finite, not all 0
    step : time from one value to the next, in the unit of the result
    order : number of exponents, a conjugate pair counts twice; None: the smallest order with an
        rms misfit of at most `good_misfit`, or the last one that reduces it by a fifth
    good_misfit : share of the largest value

    Raises ValueError if no sum of this order fits.
    """
    y = np.asarray(values, dtype=np.float64)
    if y.ndim != 1 or not np.isfinite(y).all() or not np.any(y):
        raise ValueError("values for exponentials must be one-dimensional, finite, and not all 0")
    most = len(y) // 2 - 1
    if order is not None and not 1 <= order <= most:
        raise ValueError(f"invalid order {order}; expected 1 to {most} for {len(y)} values")
    orders = range(1, min(MAX_ORDER, most) + 1) if order is None else (order,)
    fits = {m: fit for m in orders if (fit := _fit_of_order(y, step, m)) is not None}
    if not fits:
        orders_text = "any order" if order is None else f"order {order}"
        raise ValueError(
            f"no sum of exponentials of {orders_text} fits: exponents coincide, or terms cancel"
        )
    tried = tuple(_misfit(y, step, fit) for fit in fits.values())
    chosen = _chosen(tried, good_misfit)
    return ExponentialFit(fits[chosen.order], chosen, tried)


def matrix_pencil(values: FloatArray, step: float, order: int) -> ComplexArray:
    """The `order` exponents of a sum of exponentials, from its values.

    The signal space of the values' Hankel matrix is shifted by one step; the eigenvalues of that
    shift are exp(b step). They come in conjugate pairs. Without noise they are exact up
    to rounding errors times the condition number.
    """
    rows = len(values) - len(values) // 2
    hankel = np.lib.stride_tricks.sliding_window_view(values, len(values) - rows + 1)
    space = np.linalg.svd(hankel, full_matrices=False)[2][:order].T
    shift = np.linalg.lstsq(space[:-1], space[1:], rcond=None)[0]
    roots = np.linalg.eigvals(shift).astype(np.complex128)
    with np.errstate(divide="ignore", invalid="ignore"):
        return np.asarray(np.log(roots) / step, dtype=np.complex128)


def _fit_of_order(values: FloatArray, step: float, order: int) -> ExponentialSum | None:
    """The refined sum of an order; None if terms are not valid."""
    exponents = matrix_pencil(values, step, order)
    if not np.isfinite(exponents).all():
        return None
    # A root on the negative axis alternates in sign: it has no conjugate and no values in between.
    if np.any(np.abs(exponents.imag) > 0.999 * np.pi / step):
        return None
    time = np.asarray(step * np.arange(len(values)), dtype=np.float64)
    basis = _RealBasis.of(exponents, step)
    start = basis.solved(time, values)
    refined = start.refined(time, values)
    best = min((start, refined), key=lambda each: each.squared_misfit(time, values))
    result = best.sum()
    return result if result.order == order and _is_valid(result, time[-1]) else None


def _is_valid(found: ExponentialSum, end: float) -> bool:
    largest = np.abs(found.coefficients) * np.exp(np.maximum(found.exponents.real, 0.0) * end)
    return bool(np.isfinite(largest).all() and largest.max() <= _MAX_TERM)


def _misfit(values: FloatArray, step: float, found: ExponentialSum) -> OrderMisfit:
    residual = found(step * np.arange(len(values))) - values
    peak = np.abs(values).max()
    return OrderMisfit(
        found.order,
        float(np.sqrt(np.mean(residual**2)) / peak),
        float(np.abs(residual).max() / peak),
    )


def _chosen(tried: tuple[OrderMisfit, ...], good_misfit: float) -> OrderMisfit:
    """The first one with a sufficient misfit, or the last one that is worthwhile."""
    for misfit in tried:
        if misfit.rms <= good_misfit:
            return misfit
    best = tried[0]
    for misfit in tried[1:]:
        if misfit.rms < _WORTHWHILE * best.rms:
            best = misfit
    return best


@dataclass(frozen=True)
class _RealBasis:
    """A sum in real parameters: c exp(α t), and exp(α t) (p cos ω t + q sin ω t) for each pair.

    real : (r, 2) c and α; pairs : (s, 4) p, q, α and ω
    """

    real: FloatArray
    pairs: FloatArray

    @classmethod
    def of(cls, exponents: ComplexArray, step: float) -> _RealBasis:
        """Basis of the exponents, with coefficients 0."""
        upper = exponents[exponents.imag > _REAL / step]
        real = exponents[np.abs(exponents.imag) <= _REAL / step]
        zeros_real, zeros_pair = np.zeros(len(real)), np.zeros(len(upper))
        return cls(
            np.column_stack([zeros_real, real.real]),
            np.column_stack([zeros_pair, zeros_pair, upper.real, upper.imag]),
        )

    @classmethod
    def _unpacked(cls, parameters: FloatArray, reals: int) -> _RealBasis:
        return cls(parameters[: 2 * reals].reshape(-1, 2), parameters[2 * reals :].reshape(-1, 4))

    def _packed(self) -> FloatArray:
        return np.concatenate([self.real.ravel(), self.pairs.ravel()])

    def _terms(self, time: FloatArray) -> tuple[FloatArray, FloatArray, FloatArray]:
        """exp(α t) of the real exponents, exp(α t) cos ω t and exp(α t) sin ω t of the pairs."""
        t = time[:, np.newaxis]
        decay, angle = np.exp(t * self.pairs[:, 2]), t * self.pairs[:, 3]
        return np.exp(t * self.real[:, 1]), decay * np.cos(angle), decay * np.sin(angle)

    def values(self, time: FloatArray) -> FloatArray:
        """The sum at the given times."""
        single, cosine, sine = self._terms(time)
        return np.asarray(
            single @ self.real[:, 0] + cosine @ self.pairs[:, 0] + sine @ self.pairs[:, 1]
        )

    def jacobian(self, time: FloatArray) -> FloatArray:
        """Derivatives of `values` by the parameters, in packed order."""
        single, cosine, sine = self._terms(time)
        t = time[:, np.newaxis]
        p, q = self.pairs[:, 0], self.pairs[:, 1]
        of_real = np.stack([single, t * single * self.real[:, 0]], axis=-1)
        along, across = p * cosine + q * sine, q * cosine - p * sine
        of_pairs = np.stack([cosine, sine, t * along, t * across], axis=-1)
        count = len(time)
        return np.hstack([of_real.reshape(count, -1), of_pairs.reshape(count, -1)])

    def squared_misfit(self, time: FloatArray, values: FloatArray) -> float:
        """Sum of the squared residuals; infinite if it is not finite."""
        with np.errstate(over="ignore", invalid="ignore"):
            squared = float(np.sum((self.values(time) - values) ** 2))
        return squared if np.isfinite(squared) else float("inf")

    def solved(self, time: FloatArray, values: FloatArray) -> _RealBasis:
        """The same exponents with least-squares coefficients."""
        single, cosine, sine = self._terms(time)
        terms = np.hstack([single, cosine, sine])
        # Normalised columns, so that growing terms do not hide decaying ones from the rank test.
        length = np.linalg.norm(terms, axis=0)
        found = np.linalg.lstsq(terms / length, values, rcond=None)[0] / length
        c, p, q = np.split(found, [single.shape[1], single.shape[1] + cosine.shape[1]])
        return _RealBasis(
            np.column_stack([c, self.real[:, 1]]),
            np.column_stack([p, q, self.pairs[:, 2], self.pairs[:, 3]]),
        )

    def refined(self, time: FloatArray, values: FloatArray) -> _RealBasis:
        """Least-squares coefficients and exponents, starting from these; these if that fails."""
        reals = len(self.real)
        if len(values) < self._packed().size:
            return self

        def residual(parameters: FloatArray) -> FloatArray:
            return self._unpacked(parameters, reals).values(time) - values

        def derivative(parameters: FloatArray) -> FloatArray:
            return self._unpacked(parameters, reals).jacobian(time)

        try:
            with np.errstate(over="ignore", invalid="ignore"):
                found = least_squares(
                    residual,
                    self._packed(),
                    derivative,
                    method="lm",
                    x_scale="jac",
                    ftol=1e-15,
                    xtol=1e-15,
                    gtol=1e-15,
                    max_nfev=2000,
                )
        except (ValueError, np.linalg.LinAlgError):
            return self
        return self._unpacked(np.asarray(found.x, dtype=np.float64), reals)

    def sum(self) -> ExponentialSum:
        """The sum with both members of each pair, the slowest decay first."""
        p, q, alpha, omega = self.pairs.T
        upper, half = alpha + 1j * omega, (p - 1j * q) / 2
        exponents = np.concatenate([self.real[:, 1] + 0j, upper, upper.conj()])
        coefficients = np.concatenate([self.real[:, 0] + 0j, half, half.conj()])
        order = np.lexsort((exponents.imag, np.abs(exponents.imag), -exponents.real))
        return ExponentialSum(coefficients[order], exponents[order])
