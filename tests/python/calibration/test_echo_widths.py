"""Distributions of widths that were drawn with known parameters."""

from __future__ import annotations

import numpy as np
import pytest

from fullwaveform.calibration.echo_widths import width_distribution

COUNT = 2000


def test_normal_scatter_with_slopes() -> None:
    rng = np.random.default_rng(1)
    error = np.full(COUNT, 0.03)
    variance = 0.3 + rng.normal(0.0, 0.08, COUNT) + rng.exponential(0.25, COUNT)

    found = width_distribution(variance + rng.normal(0.0, error), error)

    # Half of 2,000 echoes; the mean of the normal part trades with the widening.
    assert found.narrowest == pytest.approx(0.3, abs=0.03)
    assert found.spread == pytest.approx(0.08, abs=0.02)
    assert found.widening == pytest.approx(0.25, abs=0.05)


def test_errors_are_not_part_of_the_spread() -> None:
    rng = np.random.default_rng(2)
    error = rng.uniform(0.01, 0.2, COUNT)
    variance = rng.exponential(0.5, COUNT) + rng.normal(0.0, error)

    found = width_distribution(variance, error)

    assert found.narrowest == pytest.approx(0.0, abs=0.03)
    assert found.spread < 0.05
    assert found.widening == pytest.approx(0.5, rel=0.15)


def test_equal_widenings_up_to_a_limit() -> None:
    # No exponential distribution: the narrowest must be where the widths begin all the same.
    rng = np.random.default_rng(3)

    found = width_distribution(rng.uniform(0.0, 0.26, COUNT), np.full(COUNT, 0.005))

    assert found.narrowest == pytest.approx(0.0, abs=0.01)
    assert found.spread < 0.02
    assert found.widening == pytest.approx(0.13 / np.log(2.0), rel=0.1)


def test_a_third_of_merged_echoes() -> None:
    rng = np.random.default_rng(4)
    variance = rng.normal(0.0, 0.05, COUNT) + rng.exponential(0.1, COUNT)
    merged = np.where(np.arange(COUNT) % 10 < 3, rng.uniform(1.0, 8.0, COUNT), variance)

    found = width_distribution(merged, np.full(COUNT, 0.02))

    assert found.narrowest == pytest.approx(0.0, abs=0.04)
    assert found.spread == pytest.approx(0.05, abs=0.03)


def test_order_of_the_echoes() -> None:
    rng = np.random.default_rng(5)
    variance, error = rng.exponential(0.3, 300), rng.uniform(0.01, 0.1, 300)
    order = rng.permutation(300)

    assert width_distribution(variance[order], error[order]) == width_distribution(variance, error)


@pytest.mark.parametrize("count", [1, 2, 3])
def test_few_or_equal_widths(count: int) -> None:
    found = width_distribution(np.full(count, 0.7), np.full(count, 0.1))

    assert np.isfinite([found.narrowest, found.spread, found.widening]).all()
    assert found.spread > 0.0
    assert found.widening > 0.0
