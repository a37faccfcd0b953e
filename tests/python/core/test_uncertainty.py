"""Uncertainties of Gaussians against matrices of NumPy and derivatives by finite differences."""

from __future__ import annotations

from dataclasses import replace

import numpy as np
import pytest

from fullwaveform.core.uncertainty import FittedRows
from fullwaveform.data.arrays import AnyArray, FloatArray

LENGTH = 90
FWHM_PER_SIGMA = 2.3548200450309493


def fitted_rows(covariance: list[float], baseline_deviation: float, length: int) -> FittedRows:
    return FittedRows(
        samples=np.full((1, length), 1000, np.uint16),
        counts=np.array([length], np.uint16),
        threshold=np.array([-np.inf]),
        noise=np.zeros(1, np.int64),
        limit=np.array([np.inf]),
        covariance=np.array([covariance]),
        baseline_deviation=np.array([baseline_deviation]),
        removed=np.zeros(1, np.int64),
        scale=np.ones(1, np.int64),
    )


def found(
    gaussians: FloatArray, covariance: list[float], baseline_deviation: float, length: int = LENGTH
) -> FloatArray:
    """(3, m) of position, height and full width of Gaussians (m, 3), each on 12 sigma."""
    position, height, sigma = gaussians.T
    rows = fitted_rows(covariance, baseline_deviation, length)
    zero = np.zeros(len(gaussians), np.int64)
    return np.array(rows.of_decomposed(zero, position, height, sigma, sigma, 12.0 * sigma))


def expected(
    gaussians: FloatArray, covariance: list[float], baseline_deviation: float, length: int = LENGTH
) -> FloatArray:
    """The same from the pseudoinverse of the derivatives of all samples."""
    index = np.arange(length)

    def model(parameters: FloatArray) -> FloatArray:
        position, height, sigma = parameters.reshape(-1, 3).T[:, :, np.newaxis]
        return np.sum(height * np.exp(-0.5 * ((index - position) / sigma) ** 2), axis=0)

    values = gaussians.ravel()
    step = 1e-5 * np.diag(np.maximum(np.abs(values), 1.0))
    jacobian = np.array([(model(values + s) - model(values - s)) / (2.0 * s.sum()) for s in step]).T
    estimators = np.linalg.inv(jacobian.T @ jacobian) @ jacobian.T
    noise = sum(
        value * (np.eye(length, k=lag) + (np.eye(length, k=-lag) if lag else 0.0))
        for lag, value in enumerate(covariance)
    )
    deviations = []
    for k, (position, _, _) in enumerate(gaussians):
        # The parabola through five samples by least squares, at the echo.
        first = int(np.clip(round(position), 2, length - 3)) - 2
        powers = np.vander(np.arange(first, first + 5) - position, 3, increasing=True)
        smoothing = np.zeros(length)
        smoothing[first : first + 5] = np.linalg.pinv(powers)[0]
        residual = np.eye(length) - jacobian @ estimators
        height = estimators[3 * k + 1] + smoothing @ residual
        of_echo = np.array([estimators[3 * k], height, FWHM_PER_SIGMA * estimators[3 * k + 2]])
        variance = np.einsum("ki,ij,kj->k", of_echo, noise, of_echo)
        deviations.append(np.sqrt(variance + (baseline_deviation * of_echo.sum(axis=1)) ** 2))
    return np.array(deviations).T


@pytest.mark.parametrize("covariance", [[16.0], [16.0, -8.0], [16.0, 8.0, 2.0, -1.0, 0.5]])
@pytest.mark.parametrize(
    "gaussians",
    [
        [[40.3, 200.0, 1.6]],
        [[43.5, 80.0, 2.0], [40.3, 200.0, 1.6]],
        [
            [45.0, 300.0, 2.0],
            [20.2, 100.0, 1.5],
            [27.0, 50.0, 1.6],
            [23.0, 200.0, 1.7],
            [48.0, 20.0, 3.0],
        ],
    ],
)
def test_uncertainties_are_those_of_the_pseudoinverse(
    gaussians: list[list[float]], covariance: list[float]
) -> None:
    echoes = np.array(gaussians)
    np.testing.assert_allclose(
        found(echoes, covariance, 2.0), expected(echoes, covariance, 2.0), rtol=1e-6
    )


def test_without_baseline_error_and_smoothing_they_are_cramer_rao_bounds() -> None:
    """The Fisher information is integrated on a fine grid, of two Gaussians that overlap."""
    echoes = np.array([[40.3, 200.0, 2.0], [45.1, 120.0, 2.4]])
    x = np.linspace(0.0, 90.0, 90_001)
    derivatives = []
    for position, height, sigma in echoes:
        away = (x - position) / sigma
        shape = np.exp(-0.5 * away**2)
        derivatives += [height * shape * away / sigma, shape, height * shape * away**2 / sigma]
    information = np.array(derivatives) @ np.array(derivatives).T * 0.001 / 16.0
    bounds = np.sqrt(np.diag(np.linalg.inv(information))).reshape(2, 3)
    position, _, width = found(echoes, [16.0], 0.0)
    np.testing.assert_allclose(position, bounds[:, 0], rtol=1e-4)
    np.testing.assert_allclose(width, FWHM_PER_SIGMA * bounds[:, 2], rtol=1e-4)


def test_many_echoes_that_overlap_one_after_the_other() -> None:
    random = np.random.default_rng(1)
    echoes = np.column_stack(
        [
            np.cumsum(random.uniform(4.0, 8.0, 60)),
            random.uniform(50.0, 300.0, 60),
            random.uniform(1.2, 2.0, 60),
        ]
    )
    for covariance in ([16.0], [16.0, 8.0, 2.0, -1.0]):
        np.testing.assert_allclose(
            found(echoes, covariance, 2.0, 420), expected(echoes, covariance, 2.0, 420), rtol=1e-4
        )


def test_rows_are_independent_and_may_be_in_any_order() -> None:
    rows = FittedRows(
        samples=np.full((3, LENGTH), 1000, np.uint16),
        counts=np.array([90, 60, 90], np.uint16),
        threshold=np.full(3, -np.inf),
        noise=np.array([1, 2, 0]),
        limit=np.full(3, np.inf),
        covariance=np.array([[np.nan, np.nan], [16.0, 8.0], [9.0, 0.0]]),
        baseline_deviation=np.array([1.0, 2.0, np.nan]),
        removed=np.zeros(3, np.int64),
        scale=np.ones(3, np.int64),
    )
    row = np.array([1, 0, 1, 2, 0])
    echoes = np.array([[20.3, 100, 2], [40.3, 200, 1.6], [24.0, 50, 2], [5, 5, 2], [43.5, 80, 2]])
    together = np.array(rows.of_decomposed(row, *echoes.T, echoes[:, 2], 12.0 * echoes[:, 2]))
    first = found(echoes[[1, 4]], [16.0, 8.0], 2.0)
    second = found(echoes[[0, 2]], [9.0], np.nan, 60)
    np.testing.assert_array_equal(together[:, [1, 4]], first)
    np.testing.assert_allclose(together[:, [0, 2]], second, rtol=1e-12)
    assert np.isnan(together[:, 3]).all()


@pytest.mark.parametrize(
    ("name", "values", "message"),
    [
        ("noise", np.array([1]), "row 0 has noise 1"),
        ("noise", np.array([-1]), "row 0 has noise -1"),
        ("counts", np.array([91], np.uint16), "91 samples"),
        ("limit", np.array([1.0, 2.0]), "differ in length"),
        ("scale", np.ones(2, np.int64), "an array of 2 rows; expected 1"),
        ("covariance", np.ones((1, 6)), "6 lags; expected 1 to 5"),
    ],
)
def test_arrays_that_do_not_fit_each_other_are_refused(
    name: str, values: AnyArray, message: str
) -> None:
    rows = replace(fitted_rows([16.0], 2.0, LENGTH), **{name: values})
    with pytest.raises(ValueError, match=message):
        rows.compiled()


def test_noise_counts_in_the_samples_of_the_driver() -> None:
    # Samples of which 100 counts were removed, and the rest multiplied by 4.
    one = fitted_rows([16.0], 2.0, LENGTH)
    scaled = replace(one, removed=np.array([100]), scale=np.array([4]))
    row, echo = np.zeros(1, np.int64), np.array([[40.0], [200.0], [2.0], [2.0], [24.0]])
    position, height, width = one.of_decomposed(row, *echo)
    echo[1] *= 4.0
    found = scaled.of_decomposed(row, *echo)
    np.testing.assert_allclose(found, [position, 4.0 * height, width], rtol=1e-12)
