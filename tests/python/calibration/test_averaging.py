"""Averages of pulses whose shape is known."""

from __future__ import annotations

import numpy as np
import pytest

from fullwaveform.calibration.averaging import average, pulse_of_curve
from fullwaveform.calibration.pulses import (
    AT_THE_EDGE,
    FLAT_TOP,
    OUTLIER,
    SUBSAMPLED,
    TOO_WEAK,
    pulses_of_rows,
    screened,
)

from ..system_wave.scenes import FloatArray, pulses, recorded, sampled, shape

# Shares of the maximum. Without noise: what a spline with one knot per sample cannot follow.
EXACT = 5e-4
# 400 pulses of 80 to 200 counts with 0.7 counts of noise and rounding: 0.5 % per sample, 40 samples
# between two knots, so 0.1 % rms; the largest of 600 values is some four times that.
NOISY_RMS, NOISY_LARGEST = 1.2e-3, 5e-3


def difference(rows: FloatArray) -> FloatArray:
    found = average(pulses(rows))
    return found.value - shape(found.position)


def test_shape_is_recovered_without_noise() -> None:
    positions = 20.0 + (np.arange(97) * 0.618) % 1.0
    assert np.abs(difference(sampled(positions, np.linspace(50, 250, 97)))).max() < EXACT


def test_shape_is_recovered_with_noise_and_rounding() -> None:
    rows, _ = recorded(400, 0.7)
    off = difference(rows)
    assert np.sqrt(np.mean(off**2)) < NOISY_RMS
    assert np.abs(off).max() < NOISY_LARGEST


def test_shape_is_recovered_from_clustered_phases() -> None:
    rng = np.random.default_rng(5)
    positions = 20.0 + rng.normal(0.3, 0.1, 400)
    rows = sampled(positions) + rng.normal(0.0, 0.5, (400, 60))
    assert np.abs(difference(rows)).max() < 2e-2


def test_pulses_of_other_shapes_are_rejected() -> None:
    rows, _ = recorded(200, 0.7)
    rows[7] += sampled(np.array([27.0]), 90.0, 0.0)[0]
    rows[11, 5:50] += np.linspace(0.0, 60.0, 45)
    found = average(pulses(rows))
    assert found.rejected == {OUTLIER: 2}
    assert found.used == 198
    assert np.abs(found.value - shape(found.position)).max() < NOISY_LARGEST * np.sqrt(2)


def test_single_outlying_samples_have_little_weight() -> None:
    rows, _ = recorded(400, 0.7)
    rng = np.random.default_rng(8)
    rows[rng.random(rows.shape) < 0.005] += 12.0
    assert np.abs(difference(rows)).max() < 1.5 * NOISY_LARGEST


def test_scatter_is_the_relative_noise_rms() -> None:
    rows, _ = recorded(400, 0.7)
    # 0.7 counts and rounding (1 / sqrt(12)) make 0.757; heights of 80 to 200, median 140.
    assert average(pulses(rows)).scatter == pytest.approx(0.757 / 140.0, rel=0.15)


def test_average_of_one_pulse_passes_through_its_samples() -> None:
    found = average(pulses(sampled(np.array([20.0]))))
    at_samples = found.at(np.arange(-10.0, 20.0))
    np.testing.assert_allclose(at_samples, shape(np.arange(-10.0, 20.0)), atol=2e-3)
    assert np.isnan(found.at(60.0))


def test_rows_of_different_lengths_are_averaged() -> None:
    rows, _ = recorded(300, 0.0)
    counts = np.where(np.arange(300) % 3 == 0, 45, 60)
    rows[np.arange(60) >= counts[:, np.newaxis]] = 9999.0  # after the count, never read
    found = average(pulses_of_rows(rows, counts, 1e-9, "rows"))
    assert found.used == 300
    assert np.abs(found.value - shape(found.position)).max() < NOISY_LARGEST


def test_pulses_rejected_before_averaging() -> None:
    rows = sampled(np.array([20.1, 20.3, 20.5, 0.2, 20.2, 20.0]))
    rows[1] = 3.0
    rows[2, 19:22] = 160.0
    rows[4, 5:] = np.nan
    left = screened(pulses(rows), 10)
    assert len(left) == 2
    assert left.rejected == {TOO_WEAK: 2, FLAT_TOP: 1, AT_THE_EDGE: 1}


def test_equal_samples_below_the_limit_are_not_clipped() -> None:
    rows = sampled(np.array([20.1, 20.3]), np.array([150.0, 60.0]))
    rows[1, 19:22] = 63.0
    assert len(screened(pulses(rows), 10)) == 2


def test_surplus_pulses_are_subsampled_evenly() -> None:
    positions = np.linspace(19.5, 20.5, 100)
    left = screened(pulses(sampled(positions)), 25)
    assert (len(left), left.rejected) == (25, {SUBSAMPLED: 75})
    assert np.array_equal(left.values[[0, -1]], sampled(positions)[[0, -1]])


def test_pulses_without_a_usable_one_are_refused() -> None:
    with pytest.raises(ValueError, match=r"constructed pulses: no usable pulse \(2: no pulse"):
        average(pulses(np.full((2, 40), 3.0)))


def test_invalid_counts_are_refused() -> None:
    with pytest.raises(ValueError, match="3 counts for 2 rows"):
        pulses_of_rows(np.ones((2, 9)), [1, 2, 3], 1e-9, "rows")
    with pytest.raises(ValueError, match="invalid count; expected 0 to the row length 9"):
        pulses_of_rows(np.ones((2, 9)), [1, 10], 1e-9, "rows")


@pytest.mark.parametrize("interval", [0.0, -1e-9, np.nan])
def test_invalid_interval_is_refused(interval: float) -> None:
    with pytest.raises(ValueError, match="must be above 0"):
        pulses_of_rows(np.ones((2, 9)), None, interval, "rows")


def test_curve_of_any_spacing_gives_the_pulse() -> None:
    time = np.cumsum(np.tile([0.1, 0.3, 0.2], 66))
    found = pulse_of_curve(time * 1e-9, 7.0 + 3.0 * shape(time - 12.34), 1e-9, "curve")
    assert np.abs(found.value - shape(found.position)).max() < 1e-3
    assert found.position[0] == pytest.approx(-12.2)  # first tenth after 0.1 - 12.34


@pytest.mark.parametrize(
    ("time", "amplitude", "rule"),
    [
        (np.arange(5.0), np.ones(5), "at least 8 times"),
        (np.zeros(9), np.arange(9.0), "times must ascend"),
        (np.arange(9.0), np.full(9, np.nan), "finite"),
        (np.arange(14.0), np.ones(14), "do not rise"),
    ],
)
def test_invalid_curves_are_refused(time: FloatArray, amplitude: FloatArray, rule: str) -> None:
    with pytest.raises(ValueError, match=rule):
        pulse_of_curve(time, amplitude, 1.0, "curve")
