"""Sums of exponentials: certified data sets, damped oscillations, orders, invalid values."""

from __future__ import annotations

import numpy as np
import pytest

from fullwaveform.system_wave.exponentials import (
    ExponentialSum,
    fit_exponentials,
    matrix_pencil,
)

from .scenes import nist

# Fit and certified values are least-squares solutions. They differ by rounding: that of the data to
# 14 digits times the condition of the problem (Lanczos1), or that of the certified values to 11.
CERTIFIED = [("Lanczos1", 1e-9), ("Lanczos2", 1e-8), ("Lanczos3", 1e-7)]


@pytest.mark.parametrize(("name", "tolerance"), CERTIFIED)
def test_fit_has_the_certified_exponents_and_coefficients(name: str, tolerance: float) -> None:
    data, certified = nist(name)
    found = fit_exponentials(data[:, 0], 0.05, 3).sum
    by_decay = np.argsort(-found.exponents.real)
    coefficients, exponents = found.coefficients[by_decay], found.exponents[by_decay]
    np.testing.assert_allclose(exponents, -certified[1::2, 0], rtol=tolerance)
    np.testing.assert_allclose(coefficients, certified[::2, 0], rtol=tolerance)


@pytest.mark.parametrize(("name", "tolerance"), CERTIFIED)
def test_fit_has_the_certified_residuals(name: str, tolerance: float) -> None:
    data, certified = nist(name)
    fit = fit_exponentials(data[:, 0], 0.05, 3)
    a, b = certified[::2, 0], certified[1::2, 0]
    of_certified = data[:, 0] - np.exp(-np.outer(data[:, 1], b)) @ a
    certified_rms = np.sqrt(np.mean(of_certified**2)) / 2.5134  # the largest value
    assert fit.misfit.rms <= certified_rms * (1.0 + 1e-3) + 1e-15


def test_pencil_alone_is_within_the_certified_deviations_of_rounded_data() -> None:
    for name in ("Lanczos2", "Lanczos3"):
        data, certified = nist(name)
        found = np.sort(-matrix_pencil(data[:, 0], 0.05, 3).real)
        assert np.all(np.abs(found - certified[1::2, 0]) < 2.0 * certified[1::2, 1])


def damped(time: np.ndarray) -> np.ndarray:
    """A skewed kernel with ringing: an oscillation with three different decays."""
    return (
        np.exp(-0.4 * time) * np.sin(0.9 * time)
        + 0.3 * np.exp(-0.1 * time)
        - 0.3 * np.exp(-0.7 * time)
    )


def test_damped_oscillation_with_two_decays_is_recovered() -> None:
    found = fit_exponentials(damped(np.arange(111) / 10), 0.1, 4).sum
    expected = np.array([-0.7, -0.4 - 0.9j, -0.4 + 0.9j, -0.1])
    order = np.lexsort((found.exponents.imag, found.exponents.real))
    np.testing.assert_allclose(found.exponents[order], expected, atol=1e-8)
    # sin = (e^{i x} - e^{-i x}) / 2i
    coefficients = np.array([-0.3, 0.5j, -0.5j, 0.3])
    np.testing.assert_allclose(found.coefficients[order], coefficients, atol=1e-8)
    between = np.linspace(0.0, 11.0, 777)
    np.testing.assert_allclose(found(between), damped(between), atol=1e-9)


def test_growing_exponentials_are_recovered() -> None:
    time = np.arange(56) / 5
    found = fit_exponentials(np.exp(0.2 * time) * np.cos(1.1 * time), 0.2, 2).sum
    np.testing.assert_allclose(np.sort(found.exponents.imag), [-1.1, 1.1], atol=1e-9)
    np.testing.assert_allclose(found.exponents.real, 0.2, atol=1e-9)


def test_exponents_are_conjugate_pairs_and_the_sum_is_real() -> None:
    found = fit_exponentials(damped(np.arange(111) / 10), 0.1, 4).sum
    for table in (found.coefficients, found.exponents):
        np.testing.assert_array_equal(np.sort_complex(table), np.sort_complex(table.conj()))
    assert abs(np.imag(np.exp(3.0 * found.exponents) @ found.coefficients)) < 1e-12


def test_smallest_sufficient_order_is_chosen() -> None:
    fit = fit_exponentials(damped(np.arange(111) / 10), 0.1)
    assert fit.sum.order == 4
    rms = {misfit.order: misfit.rms for misfit in fit.tried}
    assert rms[3] > 1e-3 > rms[4]


def test_order_is_not_increased_to_fit_noise() -> None:
    rng = np.random.default_rng(3)
    time = np.arange(111) / 10
    values = np.exp(-0.3 * time) + rng.normal(0.0, 0.02, 111)
    fit = fit_exponentials(values, 0.1)
    assert fit.sum.order == 1
    assert fit.sum.exponents[0].real == pytest.approx(-0.3, abs=0.02)
    assert len(fit.tried) > 3


def test_scaled_in_time_has_the_same_values() -> None:
    scaled = ExponentialSum(np.array([2.0 + 0j]), np.array([-0.5 + 0j])).scaled_in_time(1e-9)
    assert scaled(4e-9) == pytest.approx(2.0 * np.exp(-2.0), rel=1e-14)


@pytest.mark.parametrize("values", [[], np.zeros(9), [1.0, np.nan, 2.0, 3.0], np.ones((3, 3))])
def test_invalid_values_are_refused(values: np.ndarray) -> None:
    with pytest.raises(ValueError, match="finite, and not all 0"):
        fit_exponentials(values, 0.1)


@pytest.mark.parametrize("order", [0, 12])
def test_order_above_the_number_of_values_is_refused(order: int) -> None:
    with pytest.raises(ValueError, match=f"invalid order {order}; expected 1 to 11"):
        fit_exponentials(np.exp(-np.arange(24.0)), 1.0, order)


def test_alternating_values_are_refused() -> None:
    with pytest.raises(ValueError, match="order 1"):
        fit_exponentials((-1.0) ** np.arange(24), 1.0, 1)
