"""Smoothing of samples before the extraction."""

from __future__ import annotations

import math

import numpy as np
import pytest

from fullwaveform import extract
from fullwaveform.data.blocks import PulseGeometry, ShotAttributes, WaveformBlock
from fullwaveform.extraction.smoothing import checked_smoothing, smoothed


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
    found = smoothed(block_of([spike()], [interval]), seconds).samples[0]
    # A Gaussian of area 60,000 in samples; its sum over whole samples equals its area to 1e-8.
    expected = [
        60_000 / (sigma * math.sqrt(2 * math.pi)) * math.exp(-0.5 * ((i - 20) / sigma) ** 2)
        for i in range(41)
    ]
    # The convolution is cut at four standard deviations, 6e-5 of the area beyond.
    assert np.abs(found - np.array(expected)).max() < 3.0
    assert abs(int(found.sum()) - 60_000) <= 20


def test_level_stays_up_to_both_ends() -> None:
    found = smoothed(block_of([[230] * 12, [7] * 5], [1e-9, 1e-9]), 3e-9)
    assert found.samples[0].tolist() == [230] * 12
    assert found.samples[1].tolist() == [7] * 5 + [0] * 7


def test_waveform_does_not_depend_on_the_others() -> None:
    rows = [spike(30), spike(41), spike(41, 10), spike(30, 3)]
    intervals = [1e-9, 1e-9, 2e-9, 1e-9]
    whole = smoothed(block_of(rows, intervals), 2e-9)
    for number, (row, interval) in enumerate(zip(rows, intervals, strict=True)):
        alone = smoothed(block_of([row], [interval]), 2e-9).samples[0]
        assert np.array_equal(whole.samples[number, : len(row)], alone)


def test_no_smoothing_leaves_the_block() -> None:
    block = block_of([spike()], [1e-9])
    assert smoothed(block, 0.0) is block


@pytest.mark.parametrize("seconds", [-1e-9, 2e-6, float("nan"), float("inf")])
def test_invalid_values_are_refused(seconds: float) -> None:
    with pytest.raises(ValueError, match=r"smoothing .* must be 0 to 1e-06 s"):
        checked_smoothing(seconds)


def test_noise_on_a_broad_echo_makes_no_echoes_of_its_own() -> None:
    time = np.arange(200)
    echo = 230.0 + 300.0 * np.exp(-0.5 * ((time - 100.0) / 12.0) ** 2)
    noise = np.random.default_rng(2).normal(0.0, 3.0, (20, 200))
    rows = np.rint(echo + noise).astype(int).tolist()
    block = block_of(rows, [1e-9] * 20)
    assert len(extract(block, threshold=250)) > 20
    found = extract(block, threshold=250, smoothing=6.5e-9)
    assert found.peaks["waveform_number"].tolist() == list(range(20))
    assert np.abs(found.peaks["position"] - 100.0).max() < 1.0
