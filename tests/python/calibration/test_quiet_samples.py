"""Noise of constructed quiet samples, with a correlation that is known by calculation."""

from __future__ import annotations

import math

import numpy as np
import numpy.typing as npt
import pytest

from fullwaveform.calibration.quiet_samples import (
    Noise,
    QuietMargins,
    leading_level,
    measure_noise,
    quiet_stretches,
)

# A Gaussian of variance 4 samples squared at whole samples. Of its neighbours one sample apart the
# sum of products is exp(-1/16) of the sum of squares, for two samples exp(-4/16).
PULSE = np.exp(-(np.arange(-6.0, 7.0) ** 2) / 8.0)
BY_ONE = math.exp(-1.0 / 16.0)
RMS = 3.0  # counts
STRETCHES, LENGTH = 2000, 64
# 2,000 stretches of 64 samples hold some 20,000 independent values of the filter (1/200 of the
# standard deviation); the mean of a stretch takes off up to 5 samples in 64 of slow noise.
TOLERANCE = 0.05
Values = npt.NDArray[np.float64]


def white(seed: int) -> Values:
    return np.random.default_rng(seed).normal(0.0, 1.0, (STRETCHES, LENGTH + 2))


def noise_of(values: Values) -> Noise:
    return measure_noise(100.0 + RMS * values[:, :LENGTH], PULSE)


def test_white_noise() -> None:
    noise = noise_of(white(1))

    assert noise.rms == pytest.approx(RMS, rel=0.01)
    assert noise.correlation == pytest.approx(1.0, abs=0.02)


def test_mean_of_two_neighbours() -> None:
    # Correlation 1/2 at one sample: the variance of the filter grows to 1 + 2 / 2 * exp(-1/16).
    steps = white(2)

    noise = noise_of((steps[:, 1:] + steps[:, :-1]) / math.sqrt(2.0))

    assert noise.rms == pytest.approx(RMS, rel=0.02)
    assert noise.correlation == pytest.approx(math.sqrt(1.0 + BY_ONE), rel=TOLERANCE)


def test_difference_of_two_neighbours() -> None:
    # Correlation -1/2: the variance of the filter falls to 1 - exp(-1/16) = 0.06, below the range.
    steps = white(3)

    noise = noise_of((steps[:, 1:] - steps[:, :-1]) / math.sqrt(2.0))

    assert noise.rms == pytest.approx(RMS, rel=0.02)
    assert noise.correlation == 0.5


def test_weakly_negative_correlation() -> None:
    # e[i] - e[i+1] / 2 has the variance 5/4 and the correlation -2/5 at one sample.
    steps = white(4)

    noise = noise_of((steps[:, 1:] - 0.5 * steps[:, :-1]) / math.sqrt(1.25))

    assert noise.correlation == pytest.approx(math.sqrt(1.0 - 0.8 * BY_ONE), rel=TOLERANCE)


def test_some_stretches_hold_a_spike() -> None:
    values = white(5)
    values[::20, 30] += 40.0

    assert noise_of(values).correlation == pytest.approx(1.0, abs=0.1)


def test_constant_samples_have_the_noise_of_rounding() -> None:
    noise = measure_noise(np.full((100, 20), 7.0), PULSE)

    assert noise == Noise(pytest.approx(math.sqrt(1.0 / 12.0)), 1.0)


def test_pulse_longer_than_the_stretches() -> None:
    noise = measure_noise(100.0 + RMS * white(6)[:, :8], PULSE)

    assert noise.correlation == pytest.approx(1.0, abs=0.03)


def waveforms_with_an_echo(first: int, length: int = 40, count: int = 50) -> npt.NDArray[np.uint16]:
    samples = np.full((count, length), 10, np.uint16)
    samples[:, :first] = 11
    samples[:, first : first + 3] = 90
    return samples


def test_samples_before_the_echo() -> None:
    samples = waveforms_with_an_echo(first=20)

    quiet = quiet_stretches(samples, np.full(50, 40, np.uint16), 30, QuietMargins(4, 12))

    assert quiet.shape == (50, 16)
    assert (quiet == 11).all()


def test_samples_after_the_echo_if_there_are_more() -> None:
    samples = waveforms_with_an_echo(first=6)
    samples[:, 9:21] = 14  # the tail of the pulse

    quiet = quiet_stretches(samples, np.full(50, 40, np.uint16), 30, QuietMargins(4, 12))

    assert quiet.shape == (50, 19)  # 40 samples less 9 up to the echo and 12 of its tail
    assert (quiet == 10).all()


def test_whole_waveforms_without_echoes() -> None:
    samples = np.full((50, 40), 10, np.uint16)

    quiet = quiet_stretches(samples, np.full(50, 30, np.uint16), 30, QuietMargins(4, 12))

    assert quiet.shape == (50, 30)


def test_too_few_or_too_short_stretches() -> None:
    few = np.full((9, 40), 10, np.uint16)
    short = waveforms_with_an_echo(first=7, length=12)

    for samples in (few, short, few[:0]):
        counts = np.full(len(samples), samples.shape[1], np.uint16)
        assert len(quiet_stretches(samples, counts, 30, QuietMargins(4, 12))) == 0


def test_level_before_the_echoes() -> None:
    samples = waveforms_with_an_echo(first=20)
    samples[::2, :16] += 2
    counts = np.full(50, 40, np.uint16)

    level, spread = leading_level(samples, counts, 30, 4) or (0.0, 0.0)

    assert level == 12.0  # median of 25 waveforms at 13 counts and 25 at 11
    assert spread == pytest.approx(1.4826)


def test_too_few_samples_before_the_echoes() -> None:
    counts = np.full(50, 40, np.uint16)

    assert leading_level(waveforms_with_an_echo(first=7), counts, 30, 4) is None
    assert leading_level(waveforms_with_an_echo(first=20)[:9], counts[:9], 30, 4) is None
    assert leading_level(np.zeros((0, 40), np.uint16), counts[:0], 30, 4) is None
