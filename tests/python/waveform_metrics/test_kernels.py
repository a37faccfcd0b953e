"""The parts of the metrics on waveforms small enough for calculation by hand."""

from __future__ import annotations

import numpy as np
import pytest
from scipy.integrate import quad
from scipy.stats import exponnorm

from fullwaveform.data.blocks import OutgoingPulses
from fullwaveform.waveform_metrics.energy_heights import energy_places
from fullwaveform.waveform_metrics.ground_return import ground_returns
from fullwaveform.waveform_metrics.moments import moments
from fullwaveform.waveform_metrics.outgoing_decay import outgoing_decays
from fullwaveform.waveform_metrics.pulse_shape import maximum_places, pulse_shape
from fullwaveform.waveform_metrics.signal_bounds import SignalBounds, signal_bounds
from fullwaveform.waveform_metrics.smoothing import smoothed, smoothing_kernel


def bounds_of(row: list[float], front: float, back: float) -> SignalBounds:
    return signal_bounds(np.array([row], np.float32), np.array([front]), np.array([back]))


@pytest.mark.parametrize("deviation", [1.0, 2.5, 5.76])
def test_kernel_keeps_the_sum_and_has_the_deviation(deviation: float) -> None:
    kernel = smoothing_kernel(deviation)
    x = np.arange(len(kernel)) - len(kernel) // 2
    assert kernel.sum() == pytest.approx(1.0)
    assert (kernel * x).sum() == pytest.approx(0.0, abs=1e-12)
    assert np.sqrt((kernel * x**2).sum()) == pytest.approx(deviation, rel=0.01)


def test_smoothing_of_zero_changes_nothing() -> None:
    values = np.array([[1.0, 5.0, 2.0]], np.float32)
    assert np.array_equal(smoothed(values, 0.0), values)


def test_bounds_lie_at_the_last_quarter_of_a_sample_above_the_thresholds() -> None:
    # Upwards from sample 3 the values are 6, 5, 4, 3: two quarters are above 3. Downwards from
    # sample 5 they are 6, 5: none is above 5.
    found = bounds_of([0, 0, 2, 6, 8, 6, 2, 0, 0], 3.0, 5.0)
    assert found.found.tolist() == [True]
    assert (found.top[0], found.bottom[0]) == (4 * 3 - 2, 4 * 5)
    assert (found.ground[0], found.first_mode[0], found.mode_count[0]) == (16, 16, 1)


def test_mode_is_the_vertex_of_a_parabola_in_quarters() -> None:
    # Through 6, 8, 7 it lies (7 - 6) / (2 (16 - 13)) = 1/6 sample after the middle: 4.17 -> 17/4.
    assert bounds_of([0, 0, 2, 6, 8, 7, 2, 0], 3.0, 5.0).ground.tolist() == [17]


def test_ground_is_the_lowest_of_the_modes() -> None:
    found = bounds_of([0, 6, 9, 6, 1, 6, 7, 6, 0], 3.0, 5.0)
    assert (found.first_mode[0], found.ground[0], found.mode_count[0]) == (8, 24, 2)


@pytest.mark.parametrize("row", [[0, 0, 0, 0], [5, 5, 5, 5], [0, 2, 0, 0], [9], [9, 1]])
def test_waveform_without_a_mode_has_no_signal(row: list[float]) -> None:
    assert bounds_of(row, 3.0, 6.0).found.tolist() == [False]


def test_energy_of_a_box_grows_evenly_from_the_bottom() -> None:
    # Places 8 to 16; the eight above the bottom hold 4 each, 32 in all.
    one = np.array([1])
    box = np.array([[0, 0, 4, 4, 4, 0, 0]], np.float32)
    bounds = SignalBounds(np.array([True]), 8 * one, 16 * one, 12 * one, 12 * one, one)
    places = energy_places(box, bounds)[0]
    # 30 % are 9.6: two places hold 8, three 12.
    assert places[[0, 12, 13, 25, 30, 50, 100]].tolist() == [16, 16, 15, 14, 14, 12, 8]


def test_moments_of_a_box() -> None:
    # A discrete uniform distribution of n = 10: variance (n^2 - 1) / 12, kurtosis
    # 3 - 6 (n^2 + 1) / (5 (n^2 - 1)).
    values = np.zeros((1, 30), np.float32)
    values[0, 5:15] = 50.0
    values[0, 20] = 1e6  # after the signal
    found = moments(values, np.array([4]), np.array([16]))
    assert found.energy[0] == pytest.approx(500.0)
    assert found.centroid[0] == pytest.approx(9.5)
    assert found.variance[0] == pytest.approx(8.25)
    assert found.skewness[0] == pytest.approx(0.0, abs=1e-12)
    assert found.kurtosis[0] == pytest.approx(3.0 - 6.0 * 101.0 / (5.0 * 99.0))


def test_skewness_is_positive_with_a_tail_towards_later_samples() -> None:
    # Weights 3, 1 at 0, 1: p = 1/4, skewness (1 - 2p) / sqrt(p (1 - p)).
    found = moments(np.array([[3.0, 1.0]], np.float32), np.array([0]), np.array([1]))
    assert found.skewness[0] == pytest.approx(0.5 / np.sqrt(3.0 / 16.0))


def test_samples_below_the_baseline_count_for_the_energy_only() -> None:
    found = moments(np.array([[4.0, -2.0, 4.0]], np.float32), np.array([0]), np.array([2]))
    assert (found.energy[0], found.centroid[0], found.variance[0]) == (6.0, 1.0, 1.0)


def test_no_energy_has_no_moments() -> None:
    found = moments(np.full((1, 4), -1.0, np.float32), np.array([0]), np.array([3]))
    assert np.isnan([found.energy[0], found.centroid[0], found.variance[0]]).all()


@pytest.mark.parametrize(("width", "decay"), [(1.5, 0.2), (6.0, 6.5), (4.0, 20.0)])
def test_shape_is_the_exponentially_modified_gaussian(width: float, decay: float) -> None:
    x = np.linspace(-6.0 * width, 10.0 * (width + decay), 200)
    expected = exponnorm.pdf(x, decay / width, scale=width)
    np.testing.assert_allclose(pulse_shape(x, width, decay), expected, rtol=1e-9, atol=1e-14)
    assert quad(lambda t: float(pulse_shape(np.array([t]), width, decay)[0]), -50, 400)[
        0
    ] == pytest.approx(1.0, abs=1e-6)
    fine = np.linspace(-width, 3.0 * (width + decay), 200_001)
    at = fine[np.argmax(exponnorm.pdf(fine, decay / width, scale=width))]
    assert maximum_places(np.array([width]), decay)[0] == pytest.approx(at, abs=1e-3)


def test_decays_of_outgoing_pulses_are_found() -> None:
    decays = np.array([3.0, 5.0, 6.5, 8.0])
    x = np.arange(128)
    shapes = [exponnorm.pdf(x, d / 5.4, loc=57.3, scale=5.4) for d in decays]
    samples = np.rint(245 + 14_500 * np.array(shapes)).astype(np.uint16)
    samples = np.vstack([samples, np.full((2, 128), 245, np.uint16)])
    counts = np.array([128, 128, 128, 128, 128, 0], np.uint16)
    found = outgoing_decays(OutgoingPulses(samples, counts, np.full(6, 2e-9), np.zeros(6)))
    np.testing.assert_allclose(found[:4], 2e-9 * decays, rtol=0.03)
    assert np.isnan(found[4:]).all()


@pytest.mark.parametrize("lead", [4.5, 2.0, -2.0])
def test_return_of_the_ground_is_found_above_and_below_it(lead: float) -> None:
    x = np.arange(200)
    sent = exponnorm.pdf(x, 6.0 / 8.0, loc=100.0 - lead, scale=8.0)
    values = (9000.0 * sent)[np.newaxis].astype(np.float32)
    found = ground_returns(values, np.array([400]), np.array([6.0]), 5.76)
    assert found.energy[0] == pytest.approx(9000.0, rel=0.01)
    assert found.width[0] == pytest.approx(8.0, rel=0.015)
