"""The constructed waveforms are what the document says."""

from __future__ import annotations

import math

import numpy as np
import pytest
from accuracy.pulses import Pulse
from accuracy.ringing import benchmark_waveforms
from accuracy.scenes import (
    TWELVE_BIT,
    drawn_variance,
    generator,
    isolated_scene,
    noise_scene,
    pair_scene,
)
from accuracy.sequential import sequential_fit

PULSE = Pulse.gaussian("", 4.0)


def test_equal_names_give_equal_waveforms() -> None:
    one, other = (isolated_scene(PULSE, TWELVE_BIT, 50.0, 20) for _ in range(2))
    np.testing.assert_array_equal(one.samples, other.samples)
    different = isolated_scene(PULSE, TWELVE_BIT, 51.0, 20)
    assert np.any(one.samples != different.samples)


def test_samples_are_baseline_pulse_and_noise() -> None:
    scene = isolated_scene(PULSE, TWELVE_BIT, 500.0, 400)
    # Rounding to counts adds 1/12 to the variance of 4 of the noise.
    rms = math.sqrt(4.0 + 1.0 / 12.0)
    quiet = scene.samples[:, :15].astype(float)
    assert quiet.mean() == pytest.approx(40.0, abs=0.1)
    assert quiet.std(axis=1, ddof=1).mean() == pytest.approx(rms, rel=0.02)
    assert quiet.mean(axis=1).std() == pytest.approx(math.hypot(0.3 * rms, rms / 15**0.5), rel=0.1)
    # The sum of a Gaussian is its height times its width; widening keeps the area per amplitude.
    sigma = np.sqrt((4.0 / math.sqrt(8.0 * math.log(2.0))) ** 2 + scene.truth.variance[:, 0])
    area = 500.0 * rms * sigma * math.sqrt(2.0 * math.pi)
    total = scene.samples.sum(axis=1) - 80.0 * 40.0
    assert np.mean(total - area) == pytest.approx(0.0, abs=8.0)
    centre = (scene.samples - 40.0) @ np.arange(80) / total
    np.testing.assert_allclose(centre, scene.truth.position[:, 0], atol=0.7)


def test_widths_have_mean_and_spread_of_the_prior() -> None:
    variance = drawn_variance(TWELVE_BIT.priors, (100_000, 1), generator("widths"))
    assert variance.mean() == pytest.approx(0.05, abs=0.001)
    assert variance.std() == pytest.approx(0.05 * math.sqrt(2.0), rel=0.01)
    wide = pair_scene(PULSE, TWELVE_BIT, 2.0, (9.0, 9.0), 20_000, widening=3.0)
    assert wide.truth.variance.mean() == pytest.approx(0.15, abs=0.005)
    assert wide.priors.widening == pytest.approx(0.15)


def test_second_echo_of_a_pair_is_later_by_widths() -> None:
    scene = pair_scene(PULSE, TWELVE_BIT, 0.75, (100.0, 25.0), 10)
    np.testing.assert_allclose(np.diff(scene.truth.position, axis=1), 3.0, rtol=1e-3)
    np.testing.assert_allclose(scene.truth.height[:, 0] / scene.truth.height[:, 1], 4.0)


def test_white_noise_is_not_correlated() -> None:
    assert noise_scene("", PULSE, TWELVE_BIT, 1, 0.0).noise_correlation == pytest.approx(1.0)


@pytest.mark.parametrize("mixing", [0.2, -0.2])
def test_correlation_is_the_noise_behind_a_filter_with_the_pulse(mixing: float) -> None:
    scene = noise_scene("correlated", PULSE, TWELVE_BIT, 4000, mixing)
    values = scene.samples - 40.0
    values -= values.mean(axis=1, keepdims=True)
    assert values.std() == pytest.approx(math.sqrt(4.0 + 1.0 / 12.0), rel=0.02)
    sigma = 4.0 / math.sqrt(8.0 * math.log(2.0))
    taps = np.exp(-0.5 * (np.arange(-8, 9) / sigma) ** 2)
    filtered = np.array([np.convolve(row, taps, "valid") for row in values])
    white = values.std() * math.sqrt(np.sum(taps**2))
    # The mean that was taken off is a fifteenth of the variance behind the filter.
    assert filtered.std() / white == pytest.approx(scene.noise_correlation, rel=0.06)


def test_bound_of_a_clipped_echo_is_larger() -> None:
    within = isolated_scene(PULSE, TWELVE_BIT, 1900.0, 300).bound()
    beyond = isolated_scene(PULSE, TWELVE_BIT, 2300.0, 300).bound()
    assert beyond.height[0, 0] > 1.5 * within.height[0, 0]
    # The samples at the maximum say little about the position.
    ratio = 2300.0 * beyond.position[0, 0] / (1900.0 * within.position[0, 0])
    assert 1.02 < ratio < 1.2


def test_sequential_fit_finds_separate_gaussians() -> None:
    x = np.arange(80.0)
    light = 200.0 * np.exp(-0.5 * ((x - 20.3) / 2.0) ** 2)
    light += 60.0 * np.exp(-0.5 * ((x - 50.8) / 1.5) ** 2)
    echoes = sequential_fit(np.rint(10.0 + light)[np.newaxis].astype(np.uint16), 10.0, 0.5, 1.8)
    np.testing.assert_allclose(echoes.position, [20.3, 50.8], atol=0.02)
    np.testing.assert_allclose(echoes.height, [200.0, 60.0], rtol=0.02)
    np.testing.assert_allclose(echoes.fwhm, 2.3548 * np.array([2.0, 1.5]), rtol=0.02)


def test_benchmark_waveforms_have_the_maxima_of_their_echoes() -> None:
    samples, position = benchmark_waveforms(1, 200)
    strong = samples.max(axis=1) > 200
    top = np.argmax(samples, axis=1)
    assert np.max(np.abs(top - position[:, 0])[strong]) < 1.0
