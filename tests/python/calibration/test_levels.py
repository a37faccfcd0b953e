"""Levels of constructed waveforms: known baseline and noise, with and without echoes."""

from __future__ import annotations

import math
from collections.abc import Callable

import numpy as np
import numpy.typing as npt
import pytest

from fullwaveform.calibration.levels import ChannelLevels, measure_levels
from fullwaveform.calibration.waveform_levels import waveform_levels
from fullwaveform.data.blocks import PulseGeometry, ShotAttributes, WaveformBlock

WAVEFORMS, SAMPLES = 600, 120
Values = npt.NDArray[np.float64]


def block(
    samples: npt.ArrayLike, flags: npt.ArrayLike = 1, descriptors: npt.ArrayLike = 0
) -> WaveformBlock:
    counts = np.asarray(samples)
    rows, width = counts.shape
    nothing, byte = np.zeros(rows), np.zeros(rows, np.uint8)
    return WaveformBlock(
        samples=counts.astype(np.uint16),
        counts=np.full(rows, width, np.uint16),
        shot_times=np.arange(rows, dtype=float),
        sbl_times=nothing,
        channel_flags=np.broadcast_to(np.asarray(flags, np.uint8), (rows,)),
        sampling_intervals=np.full(rows, 1e-9),
        geometry=PulseGeometry(np.zeros((rows, 3)), nothing, np.zeros((rows, 3))),
        attributes=ShotAttributes(
            nothing, nothing.astype(np.float32), byte, byte, byte, byte.astype(np.uint16)
        ),
        waveform_numbers=np.arange(rows),
        descriptors=np.broadcast_to(np.asarray(descriptors, np.uint8), (rows,)),
    )


def only_level(samples: npt.ArrayLike) -> ChannelLevels:
    (level,) = measure_levels([block(samples)])
    return level


def white(rng: np.random.Generator) -> Values:
    return rng.normal(0.0, 1.0, (WAVEFORMS, SAMPLES))


def correlated(rng: np.random.Generator) -> Values:
    """First-order autoregressive noise of rms 1; neighbours are correlated by 0.7."""
    steps = rng.normal(0.0, math.sqrt(1.0 - 0.49), (WAVEFORMS, SAMPLES + 50))
    noise = np.zeros_like(steps)
    for i in range(1, noise.shape[1]):
        noise[:, i] = 0.7 * noise[:, i - 1] + steps[:, i]
    return noise[:, 50:]


def echoes(rng: np.random.Generator) -> Values:
    """Two echoes of 20 to 200 noise rms in each waveform, of four samples standard deviation."""
    time = np.arange(SAMPLES)
    signal = np.zeros((WAVEFORMS, SAMPLES))
    for _ in range(2):
        place, height = rng.uniform(20, 100, (WAVEFORMS, 1)), rng.uniform(20, 200, (WAVEFORMS, 1))
        signal += height * np.exp(-0.5 * ((time - place) / 4.0) ** 2)
    return signal


@pytest.mark.parametrize("with_echoes", [False, True])
# No sample of any of them is below 0.
@pytest.mark.parametrize(
    ("baseline", "rms"), [(13.4, 0.7), (13.4, 2.0), (211.0, 0.7), (211.0, 9.0)]
)
@pytest.mark.parametrize("noise", [white, correlated])
def test_baseline_and_noise_rms(
    noise: Callable[[np.random.Generator], Values], baseline: float, rms: float, with_echoes: bool
) -> None:
    rng = np.random.default_rng(5)
    samples = baseline + rms * noise(rng)
    if with_echoes:
        samples = samples + rms * echoes(rng)
    level = only_level(np.rint(samples))
    assert level.waveforms == WAVEFORMS
    # The rounding to counts adds a twelfth of a count squared.
    expected = math.sqrt(rms**2 + 1.0 / 12.0)
    assert level.baseline == pytest.approx(baseline, abs=0.35 * rms)
    assert level.noise_rms == pytest.approx(expected, rel=0.1)


@pytest.mark.parametrize("half", [1.0, 3.0, 10.0])
def test_pattern_of_even_and_odd_samples_is_noise(half: float) -> None:
    # Even samples lie at 50 + half, odd ones at 50 - half; the echoes are far above.
    rng = np.random.default_rng(6)
    pattern = np.where(np.arange(SAMPLES) % 2 == 0, half, -half)
    samples = 50.0 + pattern + 0.8 * white(rng) + 5.0 * echoes(rng)
    level = only_level(np.rint(samples))
    assert level.baseline == pytest.approx(50.0, abs=0.5)
    expected = math.sqrt(half**2 + 0.8**2 + 1.0 / 12.0)
    assert level.noise_rms == pytest.approx(expected, rel=0.1)


def test_noise_of_less_than_a_count() -> None:
    # One of fifty samples is a count below 14, one a count above: variance 2/50.
    rng = np.random.default_rng(7)
    samples = 14 + rng.choice([-1, 0, 1], (WAVEFORMS, SAMPLES), p=[0.02, 0.96, 0.02])
    level = only_level(samples)
    assert level.baseline == pytest.approx(14.0, abs=0.02)
    assert level.noise_rms == pytest.approx(0.2, rel=0.08)
    # The threshold takes the rounding to counts into account, 5 / sqrt(12) = 1.44.
    assert level.threshold == 16


def test_constant_waveforms() -> None:
    level = only_level(np.full((3, 40), 7))
    assert (level.baseline, level.baseline_spread, level.noise_rms) == (7.0, 0.0, 0.0)
    assert level.threshold == 9


def test_threshold_by_hand() -> None:
    # 20.2 + 5 * sqrt(4 + 2.25) = 32.7
    assert ChannelLevels(1, 0, 10, 20.2, 1.5, 2.0).threshold == 33
    assert ChannelLevels(1, 0, 10, 65_534.0, 1.5, 2.0).threshold == 65_535


def test_different_baselines_are_no_noise_but_raise_the_threshold() -> None:
    rng = np.random.default_rng(8)
    own = np.linspace(90.0, 110.0, WAVEFORMS)[:, np.newaxis]
    level = only_level(np.rint(own + white(rng)))
    assert level.baseline == pytest.approx(100.0, abs=0.5)
    assert level.noise_rms == pytest.approx(math.sqrt(1.0 + 1.0 / 12.0), rel=0.05)
    # Half of them are within 5 of the middle: 1.4826 * 5.
    assert level.baseline_spread == pytest.approx(7.413, rel=0.05)


def test_noisy_minority_does_not_count() -> None:
    rng = np.random.default_rng(9)
    noise = white(rng)
    noise[::5] *= 8.0
    assert only_level(np.rint(100.0 + noise)).noise_rms == pytest.approx(1.04, rel=0.05)


def test_each_channel_and_descriptor_has_its_levels() -> None:
    rng = np.random.default_rng(10)
    offset = np.tile([10.0, 30.0, 60.0], WAVEFORMS // 3)[:, np.newaxis]
    flags, descriptors = np.tile([1, 0, 0], WAVEFORMS // 3), np.tile([4, 4, 2], WAVEFORMS // 3)
    samples = np.rint(offset + white(rng)).astype(np.uint16)
    levels = measure_levels([block(samples, flags, descriptors)])
    found = [(level.channel_flag, level.descriptor, round(level.baseline)) for level in levels]
    assert found == [(0, 2, 60), (0, 4, 30), (1, 4, 10)]
    assert [level.waveforms for level in levels] == [WAVEFORMS // 3] * 3


def test_division_into_blocks_does_not_matter() -> None:
    rng = np.random.default_rng(11)
    samples = np.rint(30.0 + white(rng) + echoes(rng))
    halves = [block(samples[:200]), block(samples[200:])]
    assert measure_levels(halves) == measure_levels([block(samples)])


def test_no_waveforms() -> None:
    assert measure_levels([]) == ()
    assert measure_levels([block(np.zeros((0, 5)))]) == ()
    assert measure_levels([block(np.zeros((4, 1)))]) == ()


def test_shortest_waveforms() -> None:
    # The only mean of neighbours is 11; 10 lies one below it.
    levels = waveform_levels([[10, 12]])
    assert (levels.baseline[0], levels.squares[0], levels.weight[0]) == (11.0, 1.0, 1.0)


def moving_average(share: float, rng: np.random.Generator) -> Values:
    """Noise of rms 8, whose neighbours have the correlation share / (1 + share^2)."""
    white = rng.normal(0.0, 1.0, (WAVEFORMS, SAMPLES + 1))
    return 8.0 * (white[:, 1:] + share * white[:, :-1]) / math.sqrt(1.0 + share**2)


@pytest.mark.parametrize("share", [0.5, -0.5, 1.0])
def test_correlation_of_neighbouring_samples(share: float) -> None:
    noise = moving_average(share, np.random.default_rng(5))
    (first, *others) = only_level(np.rint(200.0 + noise)).noise_correlation
    assert first == pytest.approx(share / (1.0 + share**2), abs=0.02)
    assert np.abs(others).max(initial=0.0) < 0.05


def test_correlation_reaches_over_four_samples() -> None:
    noise = correlated(np.random.default_rng(6))
    found = only_level(np.rint(200.0 + 8.0 * noise)).noise_correlation
    # Of first order, less what the search for quiet samples takes off slow changes.
    np.testing.assert_allclose(found, [0.7, 0.49, 0.343, 0.24], atol=0.06)


def test_white_noise_has_no_correlation() -> None:
    for rms in (0.3, 1.0, 8.0):
        noise = rms * white(np.random.default_rng(7))
        assert only_level(np.rint(200.0 + noise)).noise_correlation == ()


def test_a_weak_correlation_counts_as_none() -> None:
    # It is found as 0.021: above four standard errors, 0.015, but below 0.03.
    noise = moving_average(0.025, np.random.default_rng(11))
    assert only_level(np.rint(200.0 + noise)).noise_correlation == ()


def test_few_samples_show_no_correlation() -> None:
    noise = moving_average(1.0, np.random.default_rng(8))
    assert only_level(np.rint(200.0 + noise[:8])).noise_correlation == ()


def test_correlations_are_those_of_a_positive_power() -> None:
    # Alternating samples: the correlation of -1 of neighbours is that of no noise of short range.
    noise = 8.0 * np.where(np.arange(SAMPLES) % 2, 1.0, -1.0)
    random = np.random.default_rng(9)
    found = only_level(np.rint(200.0 + noise + random.normal(0.0, 2.0, (WAVEFORMS, SAMPLES))))
    frequency = np.linspace(0.0, math.pi, 50)
    lags = np.arange(1, len(found.noise_correlation) + 1)
    power = 1.0 + 2.0 * np.cos(np.outer(frequency, lags)) @ np.array(found.noise_correlation)
    assert len(found.noise_correlation) == 4
    assert power.min() > 0.0
