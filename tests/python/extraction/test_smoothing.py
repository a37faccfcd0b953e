"""Smoothing of samples before the extraction."""

from __future__ import annotations

import math
from dataclasses import replace

import numpy as np
import pytest

from fullwaveform import extract
from fullwaveform.data.blocks import PulseGeometry, ShotAttributes, WaveformBlock
from fullwaveform.extraction.smoothing import at_maxima, checked_smoothing, smoothed


def block_of(rows: list[list[int]], intervals: list[float]) -> WaveformBlock:
    total, width = len(rows), max(map(len, rows))
    samples = np.zeros((total, width), np.uint16)
    for row, values in zip(samples, rows, strict=True):
        row[: len(values)] = values
    zeros = np.zeros(total)
    flags = np.zeros(total, np.uint8)
    return WaveformBlock(
        samples=samples,
        counts=np.array([len(values) for values in rows], np.uint16),
        shot_times=np.arange(total, dtype=np.float64),
        sbl_times=zeros,
        channel_flags=flags,
        sampling_intervals=np.array(intervals),
        geometry=PulseGeometry(np.zeros((total, 3)), zeros, np.ones((total, 3))),
        attributes=ShotAttributes(
            zeros, zeros.astype(np.float32), flags, flags, flags, flags.astype(np.uint16)
        ),
        waveform_numbers=np.arange(total),
    )


def spike(length: int = 41, at: int = 20, height: int = 60_000) -> list[int]:
    return [height if i == at else 0 for i in range(length)]


@pytest.mark.parametrize(("seconds", "interval", "sigma"), [(2e-9, 1e-9, 2.0), (6e-9, 2e-9, 3.0)])
def test_spike_becomes_a_gaussian_of_the_given_width(
    seconds: float, interval: float, sigma: float
) -> None:
    found = smoothed(block_of([spike()], [interval]), seconds)[0]
    # A Gaussian of area 60,000 in samples; its sum over whole samples equals its area to 1e-8.
    expected = [
        60_000 / (sigma * math.sqrt(2 * math.pi)) * math.exp(-0.5 * ((i - 20) / sigma) ** 2)
        for i in range(41)
    ]
    # The convolution is cut at four standard deviations, 6e-5 of the area beyond.
    assert np.abs(found - np.array(expected)).max() < 3.0
    assert abs(float(found.sum()) - 60_000.0) <= 0.1


def test_level_stays_up_to_both_ends() -> None:
    found = smoothed(block_of([[230] * 12, [7] * 5], [1e-9, 1e-9]), 3e-9)
    assert found[0].tolist() == [230] * 12
    assert found[1].tolist() == [7] * 5 + [0] * 7


def test_waveform_does_not_depend_on_the_others() -> None:
    rows = [spike(30), spike(41), spike(41, 10), spike(30, 3)]
    intervals = [1e-9, 1e-9, 2e-9, 1e-9]
    whole = smoothed(block_of(rows, intervals), 2e-9)
    for number, (row, interval) in enumerate(zip(rows, intervals, strict=True)):
        alone = smoothed(block_of([row], [interval]), 2e-9)[0]
        assert np.array_equal(whole[number, : len(row)], alone)


def test_samples_after_the_end_do_not_count() -> None:
    block = block_of([spike(41), spike(30, 28)], [1e-9, 1e-9])
    block.samples[1, 30:] = 500
    alone = smoothed(block_of([spike(30, 28)], [1e-9]), 2e-9)[0]
    assert np.array_equal(smoothed(block, 2e-9)[1], [*alone, *[0.0] * 11])


@pytest.mark.parametrize("seconds", [-1e-9, 2e-6, float("nan"), float("inf")])
def test_invalid_values_are_refused(seconds: float) -> None:
    with pytest.raises(ValueError, match=r"smoothing .* must be 0 to 1e-06 s"):
        checked_smoothing(seconds)


def two_surfaces() -> list[float]:
    """A ground echo at 100 and a lower one at 84, which merge into one maximum."""
    time = np.arange(200)
    ground = 300.0 * np.exp(-0.5 * ((time - 100.0) / 8.0) ** 2)
    shrub = 150.0 * np.exp(-0.5 * ((time - 84.0) / 8.0) ** 2)
    return (230.0 + ground + shrub).tolist()


def noisy(samples: list[float], rms: float) -> WaveformBlock:
    noise = np.random.default_rng(2).normal(0.0, rms, (20, len(samples)))
    return block_of(np.rint(samples + noise).astype(int).tolist(), [1e-9] * 20)


def test_noise_on_a_broad_echo_makes_no_echoes_of_its_own() -> None:
    time = np.arange(200)
    block = noisy((230.0 + 300.0 * np.exp(-0.5 * ((time - 100.0) / 12.0) ** 2)).tolist(), 3.0)
    assert len(extract(block, threshold=250)) > 20
    found = extract(block, threshold=250, smoothing=6.5e-9)
    assert found.peaks["waveform_number"].tolist() == list(range(20))
    assert np.abs(found.peaks["position"] - 100.0).max() < 0.8


@pytest.mark.parametrize("smoothing", [4e-9, 6.5e-9])
def test_decomposed_echoes_lie_at_the_maxima_of_the_smoothed_waveform(smoothing: float) -> None:
    """The sum of the two has its maximum at 97.9 or 96.9, its centre at 94.7."""
    found = extract(noisy(two_surfaces(), 1.0), mode=1, threshold=250, smoothing=smoothing).peaks
    assert found["waveform_number"].tolist() == list(range(20))
    # Smoothed, the Gaussians have the standard deviations sqrt(8^2 + smoothing^2).
    sigma = math.hypot(8.0, smoothing * 1e9)
    time = np.linspace(80.0, 110.0, 30_001)
    total = 300.0 * np.exp(-0.5 * ((time - 100.0) / sigma) ** 2)
    total += 150.0 * np.exp(-0.5 * ((time - 84.0) / sigma) ** 2)
    assert np.abs(found["position"] - time[np.argmax(total)]).max() < 0.5


def test_low_maxima_of_smoothed_waveforms_are_found() -> None:
    """Two maxima 30 samples apart, between which the sum falls by 5 counts, in steps below one."""
    time = np.arange(200)
    first = 100.0 * np.exp(-0.5 * ((time - 85.0) / 13.0) ** 2)
    second = 100.0 * np.exp(-0.5 * ((time - 115.0) / 13.0) ** 2)
    block = noisy((230.0 + first + second).tolist(), 0.0)
    found = extract(block, threshold=250, smoothing=2e-9).peaks
    assert len(found["position"]) == 40
    # Smoothed to sqrt(13^2 + 2^2) each, the maxima of the sum lie at 88.71 and 111.29.
    assert np.abs(found["position"].reshape(20, 2) - [88.71, 111.29]).max() < 0.1


def test_maximum_moves_the_nearest_echo_within_its_reach() -> None:
    samples = np.array([[0, 4, 9, 8, 0, 0, 5, 0], [0, 0, 0, 0, 0, 0, 0, 0]], np.uint16)
    rows = np.array([0, 0, 0, 0, 1])
    positions = np.array([2.6, 3.4, 5.4, 7.5, 3.0])
    found = at_maxima(samples, rows, positions, np.array([1.0, 2.0, 2.0, 9.0, 9.0]))
    # Parabola through 4, 9, 8: 2 + 0.5 (8 - 4) / (18 - 4 - 8). The second echo is farther than
    # the first, the fourth farther than the third, and the last row has no maximum.
    assert found.tolist() == [2.0 + 1.0 / 3.0, 3.4, 6.0, 7.5, 3.0]
    assert at_maxima(samples, rows[:1], positions[:1], np.array([0.5])).tolist() == [2.6]


def test_smoothing_of_the_format_is_the_default() -> None:
    block = noisy(two_surfaces(), 3.0)
    of_format = replace(block, smoothing=6.5e-9)
    chosen = extract(block, threshold=250, smoothing=6.5e-9).peaks
    assert np.array_equal(extract(of_format, threshold=250).peaks["position"], chosen["position"])
    without = extract(of_format, threshold=250, smoothing=0.0).peaks
    assert len(without["position"]) > len(chosen["position"]) == 20
