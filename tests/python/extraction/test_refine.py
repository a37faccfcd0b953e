"""Positions, heights and widths of echoes with known truth, in every mode."""

from __future__ import annotations

from dataclasses import dataclass, replace
from functools import cache

import numpy as np
import numpy.typing as npt
import pytest

from fullwaveform import Mode, Scanner
from fullwaveform.calibration.isolated import Waveforms
from fullwaveform.core.constants import UP_SAMPLING
from fullwaveform.data.columns import take_rows
from fullwaveform.data.echo_columns import EchoTable
from fullwaveform.extraction.extractor import ExtractionSettings, Extractor
from fullwaveform.extraction.refine import with_own_baselines
from fullwaveform.system_wave import (
    average,
    fit_system_wave,
    measure_offset,
    pulses_of_rows,
    with_system_wave,
)

from .test_extraction import Packet, block_of

SIGMA = 1.6  # samples, of an echo
BASELINE = 12.0  # counts
NOISE_RMS = 4.0  # counts
THRESHOLD = 32  # baseline and five times the noise
INTERVAL = 1e-9  # s
LENGTH = 90  # samples

FloatArray = npt.NDArray[np.float64]


def waveforms(position: FloatArray, height: float, seed: int) -> npt.NDArray[np.uint16]:
    """A Gaussian echo each, on the baseline, with white noise, rounded to counts."""
    off = (np.arange(LENGTH) - position[:, np.newaxis]) / SIGMA
    noise = np.random.default_rng(seed).normal(0.0, NOISE_RMS, off.shape)
    return np.rint(BASELINE + height * np.exp(-0.5 * off**2) + noise).clip(0).astype(np.uint16)


@cache
def scanner() -> Scanner:
    """With the system wave and position offset estimated from 400 strong echoes."""
    phase = np.random.default_rng(7).uniform(-0.5, 0.5, 400)
    rows = waveforms(40.0 + phase, 3000.0, seed=8)
    pulse = average(pulses_of_rows(rows, None, INTERVAL, "pulses"))
    complete = with_system_wave(Scanner.default(), fit_system_wave(pulse).in_seconds(), INTERVAL)
    counts = np.full(len(rows), LENGTH, np.uint16)
    offset = measure_offset(complete, [Waveforms(rows, counts, INTERVAL)], THRESHOLD)
    assert offset is not None
    return replace(complete, deconvolution_offset=offset.position)


@dataclass(frozen=True)
class Outcome:
    """The strongest echo of each waveform and its true position."""

    echoes: EchoTable
    truth: FloatArray


@cache
def extracted(mode: Mode, snr: float, count: int = 1000) -> Outcome:
    truth = 40.0 + np.random.default_rng(5).uniform(-0.5, 0.5, count)
    rows = waveforms(truth, snr * NOISE_RMS, seed=9)
    packets = [Packet(row, shot=float(k)) for k, row in enumerate(rows)]
    settings = ExtractionSettings(scanner(), mode, THRESHOLD)
    echoes = Extractor(settings).extract(block_of(packets)).echoes
    order = np.lexsort((-echoes.amplitude, echoes.waveform_number))
    _, first = np.unique(echoes.waveform_number[order], return_index=True)
    strongest = echoes.take(order[first])
    return Outcome(strongest, truth[strongest.waveform_number - 70])


# The limits that the method pages state.
@pytest.mark.parametrize(
    ("mode", "largest"),
    [
        (Mode.THREE_POINT, 0.01),
        (Mode.DECOMPOSITION, 0.01),
        (Mode.DECONVOLUTION, 0.05),
        (Mode.HYBRID, 0.05),
    ],
)
def test_amplitude_is_the_height_above_the_baseline(mode: Mode, largest: float) -> None:
    echoes = extracted(mode, 50.0).echoes
    assert len(echoes) > 990
    assert abs(np.median(echoes.amplitude) / 200.0 - 1.0) < largest


def test_width_of_decomposed_echoes_is_that_above_the_baseline() -> None:
    for snr in (20.0, 50.0):
        echoes = extracted(Mode.DECOMPOSITION, snr).echoes
        assert np.median(echoes.sigma_ns) == pytest.approx(SIGMA, rel=0.02)


def position_bound(snr: float) -> float:
    """Cramer-Rao bound of the position of a Gaussian in white noise, samples.

    The mean square slope of the samples of a Gaussian of height 1 sums to sqrt(pi) / (2 sigma).
    """
    return float(np.sqrt(2.0 * SIGMA / np.sqrt(np.pi)) / snr)


@pytest.mark.parametrize("snr", [20.0, 50.0, 100.0, 200.0, 500.0])
def test_deconvolved_positions_reach_the_bound(snr: float) -> None:
    outcome = extracted(Mode.DECONVOLUTION, snr)
    error = outcome.echoes.position - outcome.truth
    assert len(error) > 990
    assert np.sqrt(np.mean(error**2)) < 1.5 * position_bound(snr)


def test_library_positions_remain_on_their_grid() -> None:
    echoes = extracted(Mode.DECONVOLUTION, 100.0).echoes
    step = UP_SAMPLING * (echoes.position_library + 2.5)
    np.testing.assert_allclose(step, np.rint(step), atol=1e-9)
    assert np.abs(echoes.position_library - echoes.position).max() > 0.05
    others = extracted(Mode.THREE_POINT, 100.0).echoes
    np.testing.assert_array_equal(others.position_library, others.position)


def test_time_and_place_follow_the_refined_position() -> None:
    echoes = extracted(Mode.DECONVOLUTION, 100.0).echoes
    np.testing.assert_allclose(echoes.time, echoes.position * INTERVAL, rtol=1e-9)
    # The light falls 0.15 m per ns from 300 m.
    np.testing.assert_allclose(echoes.xyz[:, 2], 300.0 - 0.15 * echoes.position, rtol=1e-9)


@pytest.mark.parametrize("mode", [Mode.DECOMPOSITION, Mode.DECONVOLUTION])
def test_echoes_do_not_depend_on_the_other_waveforms_of_their_block(mode: Mode) -> None:
    truth = 40.0 + np.random.default_rng(5).uniform(-0.5, 0.5, 40)
    rows = waveforms(truth, 200.0, seed=9)
    block = block_of([Packet(row, shot=float(k)) for k, row in enumerate(rows)])
    settings = ExtractionSettings(scanner(), mode, THRESHOLD)
    together = Extractor(settings).extract(block).echoes
    single = [
        Extractor(settings).extract(take_rows(block, np.array([row]))).echoes for row in range(40)
    ]
    for name, column in EchoTable.join(single).columns.items():
        np.testing.assert_array_equal(column, together[name], name)


def test_unknown_baseline_is_that_of_the_waveform() -> None:
    rows = [np.full(60, level, np.uint16) for level in (30, 40, 50, 60)]
    block = block_of([Packet(row, shot=float(k)) for k, row in enumerate(rows)])
    known = np.array([35.5, np.nan, np.nan, np.nan])
    # Only rows that are asked for are measured.
    filled = with_own_baselines(block, known, np.array([3, 0, 1, 1]))
    np.testing.assert_array_equal(filled, [35.5, 40.0, np.nan, 60.0])


def test_waveform_without_a_level_has_the_baseline_zero() -> None:
    block = block_of([Packet(np.array([9], np.uint16))])
    assert with_own_baselines(block, np.array([np.nan]), np.array([0])).tolist() == [0.0]
