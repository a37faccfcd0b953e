"""Correlation of constructed noise, known by calculation."""

from __future__ import annotations

import numpy as np
import pytest

from fullwaveform.calibration.noise_correlation import lag_products, noise_correlation
from fullwaveform.data.arrays import FloatArray


def moving_average(waveforms: int, samples: int, weight: float) -> FloatArray:
    """Noise e[i] + weight e[i+1] of rms 3 or more; neighbours have weight / (1 + weight^2)."""
    white = np.random.default_rng(5).normal(0.0, 3.0, (waveforms, samples + 1))
    return np.asarray(white[:, :-1] + weight * white[:, 1:])


def correlation_of(values: FloatArray) -> tuple[float, ...]:
    quiet = np.ones(values.shape, np.bool_)
    products = lag_products(values, values.mean(axis=1), quiet)
    return noise_correlation(products.products, products.pairs)


@pytest.mark.parametrize("samples", [20, 40, 200])
def test_neighbours_are_correlated(samples: int) -> None:
    # Taking off the mean of 20 samples alone would lower 0.4 by 0.1.
    values = moving_average(200_000 // samples, samples, 0.5)
    assert correlation_of(values) == pytest.approx((0.4,), abs=0.02)


def test_negative_correlation() -> None:
    assert correlation_of(moving_average(4000, 50, -0.5)) == pytest.approx((-0.4,), abs=0.02)


def test_white_noise_has_none() -> None:
    assert correlation_of(moving_average(4000, 50, 0.0)) == ()


@pytest.mark.parametrize("samples", [5, 9, 17])
def test_short_waveforms_do_not_show_it(samples: int) -> None:
    assert correlation_of(moving_average(100_000 // samples, samples, 0.5)) == ()


def test_few_waveforms_do_not_show_it() -> None:
    assert correlation_of(moving_average(20, 50, 0.5)) == ()
