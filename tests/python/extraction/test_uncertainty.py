"""The stated uncertainties of echoes are their scatter around the truth, in every mode."""

from __future__ import annotations

from dataclasses import dataclass, replace
from functools import cache

import numpy as np
import pytest

from fullwaveform import Mode
from fullwaveform.calibration.calibration import Calibration
from fullwaveform.calibration.levels import measure_levels
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.data.columns import take_rows
from fullwaveform.data.echo_columns import EchoTable
from fullwaveform.extraction.extractor import ExtractionSettings, Extractor

from .test_extraction import Packet, block_of
from .test_refine import BASELINE, LENGTH, NOISE_RMS, SIGMA, THRESHOLD, scanner

COLUMNS = ("sigma_position_ns", "sigma_amplitude", "sigma_width_ns", "sigma_range")


@dataclass(frozen=True)
class Scene:
    """Waveforms with an echo each, and where these are."""

    block: WaveformBlock
    position: np.ndarray
    settings: ExtractionSettings

    def echoes(self) -> tuple[EchoTable, np.ndarray]:
        """The echoes of waveforms in which there is only one, and their true positions."""
        echoes = Extractor(self.settings).extract(self.block).echoes
        _, first, count = np.unique(echoes.waveform_number, return_index=True, return_counts=True)
        echoes = echoes.take(first[count == 1])
        return echoes, self.position[echoes.waveform_number - 70]


@cache
def scene(mode: Mode, snr: float, count: int = 3000, correlation: float = 0.0) -> Scene:
    random = np.random.default_rng(int(snr))
    position = 40.0 + random.uniform(-0.5, 0.5, count)
    off = (np.arange(LENGTH) - position[:, np.newaxis]) / SIGMA
    white = random.normal(0.0, NOISE_RMS, (count, LENGTH + 1))
    # A moving average of two has the correlation a / (1 + a^2) of neighbours.
    share = 0.0 if correlation == 0.0 else (1 - np.sqrt(1 - 4 * correlation**2)) / 2 / correlation
    noise = (white[:, 1:] + share * white[:, :-1]) / np.sqrt(1.0 + share**2)
    rows = np.rint(BASELINE + snr * NOISE_RMS * np.exp(-0.5 * off**2) + noise).clip(0)
    packets = [Packet(row, shot=float(k)) for k, row in enumerate(rows.astype(np.uint16))]
    block = block_of(packets)
    calibration = Calibration(measure_levels([block]))
    return Scene(
        block, position, ExtractionSettings(scanner(), mode, THRESHOLD, calibration=calibration)
    )


def pull(error: np.ndarray, sigma: np.ndarray) -> float:
    """Root of the mean square of the errors over their uncertainties."""
    assert np.isfinite(sigma).all()
    return float(np.sqrt(np.mean((error / sigma) ** 2)))


def covered(error: np.ndarray, sigma: np.ndarray) -> float:
    """Share of the errors below their uncertainties; 68.3 % of a normal distribution."""
    return float(np.mean(np.abs(error) < sigma))


@pytest.mark.parametrize("mode", list(Mode)[:4])
@pytest.mark.parametrize("snr", [30.0, 100.0, 300.0])
def test_errors_are_as_large_as_stated(mode: Mode, snr: float) -> None:
    echoes, truth = scene(mode, snr).echoes()
    assert len(echoes) > 2900
    position = echoes.position - truth
    amplitude = echoes.amplitude - snr * NOISE_RMS
    # The position is a quotient: where the noise flattens the three samples, errors are larger.
    largest = 1.09 if mode is Mode.THREE_POINT else 1.06
    for error, sigma in (
        (position, echoes.sigma_position_ns),
        (amplitude, echoes.sigma_amplitude),
    ):
        assert 0.95 < pull(error, sigma) < largest
        assert 0.65 < covered(error, sigma) < 0.71


@pytest.mark.parametrize("snr", [20.0, 30.0, 100.0, 300.0])
def test_errors_of_widths_are_as_large_as_stated(snr: float) -> None:
    echoes, _ = scene(Mode.DECOMPOSITION, snr).echoes()
    error = echoes.fwhm_ns - 2.3548200 * SIGMA
    assert 0.95 < pull(error, echoes.sigma_width_ns) < 1.06
    assert 0.65 < covered(error, echoes.sigma_width_ns) < 0.71


def test_weak_echoes_of_the_three_point_fit_are_not_too_sure() -> None:
    # In noise, the curvature of three samples is a matter of chance: from it, the pull is 1.6.
    echoes, truth = scene(Mode.THREE_POINT, 10.0).echoes()
    assert 0.85 < pull(echoes.position - truth, echoes.sigma_position_ns) < 1.06


def test_widths_of_deconvolved_echoes_have_no_uncertainty() -> None:
    echoes, _ = scene(Mode.DECONVOLUTION, 100.0).echoes()
    assert np.isnan(echoes.sigma_width_ns).all()


def test_range_follows_from_the_position() -> None:
    echoes, _ = scene(Mode.DECOMPOSITION, 100.0).echoes()
    # Light in air goes 0.149854 m there and back in a nanosecond; the samples are 1 ns apart.
    np.testing.assert_allclose(
        echoes.sigma_range, 0.149854128 * echoes.sigma_position_ns, rtol=1e-6
    )


@pytest.mark.parametrize("mode", list(Mode)[:4])
def test_uncertainties_can_be_left_out(mode: Mode) -> None:
    case = scene(mode, 100.0)
    block = take_rows(case.block, np.arange(50))
    plain = Extractor(case.settings).extract(block).echoes
    without = Extractor(replace(case.settings, uncertainty=False)).extract(block).echoes
    for name, column in plain.columns.items():
        if name in COLUMNS:
            assert np.isnan(without[name]).all()
        else:
            np.testing.assert_array_equal(without[name], column)


@pytest.mark.parametrize("mode", list(Mode)[:4])
def test_uncertainties_do_not_depend_on_the_block(mode: Mode) -> None:
    case = scene(mode, 30.0)
    extractor = Extractor(case.settings)
    whole = extractor.extract(take_rows(case.block, np.arange(60))).echoes
    parts = [extractor.extract(take_rows(case.block, np.arange(k, k + 7))) for k in range(0, 60, 7)]
    for name in COLUMNS:
        split = np.concatenate([part.echoes[name] for part in parts])[: len(whole)]
        np.testing.assert_array_equal(whole[name], split)


@pytest.mark.parametrize("mode", list(Mode)[:4])
def test_scaled_samples_are_as_sure(mode: Mode) -> None:
    """A factor of the samples changes thresholds and rounding, not what is known of an echo."""
    case = scene(mode, 100.0)
    block = take_rows(case.block, np.arange(200))
    plain = Extractor(replace(case.settings, sample_scale=1)).extract(block).echoes
    scaled = Extractor(replace(case.settings, sample_scale=2)).extract(block).echoes
    for name in ("sigma_position_ns", "sigma_amplitude"):
        np.testing.assert_allclose(np.median(scaled[name]), np.median(plain[name]), rtol=0.02)


@pytest.mark.parametrize("mode", list(Mode)[:4])
def test_a_high_baseline_is_taken_off_without_harm(mode: Mode) -> None:
    case = scene(mode, 100.0)
    high = replace(case.block, samples=case.block.samples + np.uint16(300))
    calibration = Calibration(measure_levels([high]))
    settings = replace(case.settings, threshold=None, calibration=calibration)
    echoes = Extractor(settings).extract(high).echoes
    plain, _ = case.echoes()
    for name in ("sigma_position_ns", "sigma_amplitude"):
        np.testing.assert_allclose(np.median(echoes[name]), np.median(plain[name]), rtol=0.05)


@pytest.mark.parametrize("mode", list(Mode)[:4])
def test_without_measured_noise_that_of_the_waveform_counts(mode: Mode) -> None:
    case = scene(mode, 100.0)
    block = take_rows(case.block, np.arange(300))
    measured = Extractor(case.settings).extract(block).echoes
    own = Extractor(replace(case.settings, calibration=Calibration())).extract(block).echoes
    for name in ("sigma_position_ns", "sigma_amplitude"):
        np.testing.assert_allclose(np.median(own[name]), np.median(measured[name]), rtol=0.05)
        assert np.std(own[name]) > 1.1 * np.std(measured[name])


@pytest.mark.parametrize("correlation", [-0.4, 0.4])
@pytest.mark.parametrize("mode", list(Mode)[:3])
def test_correlated_noise_moves_echoes_as_stated(mode: Mode, correlation: float) -> None:
    case = scene(mode, 100.0, 2000, correlation)
    (level,) = case.settings.calibration.levels
    assert level.noise_correlation == pytest.approx((correlation,), abs=0.02)
    echoes, truth = case.echoes()
    for error, sigma in (
        (echoes.position - truth, echoes.sigma_position_ns),
        (echoes.amplitude - 400.0, echoes.sigma_amplitude),
    ):
        assert 0.95 < pull(error, sigma) < 1.12
    if mode is Mode.THREE_POINT:
        return  # Its position depends on samples that are two apart.
    white = replace(level, noise_correlation=())
    settings = replace(case.settings, calibration=Calibration((white,)))
    plain, _ = Scene(case.block, case.position, settings).echoes()
    ratio = np.median(echoes.sigma_position_ns / plain.sigma_position_ns)
    assert ratio > 1.1 if correlation > 0.0 else ratio < 0.9


@pytest.mark.parametrize("mode", list(Mode)[:3])
def test_clipped_echoes_have_no_uncertain_height(mode: Mode) -> None:
    case = scene(mode, 100.0)
    clipped = replace(case.block, samples=np.minimum(case.block.samples, 332).astype(np.uint16))
    calibration = Calibration(measure_levels([clipped]))
    assert calibration.levels[0].digitiser_limit == 332
    settings = replace(case.settings, calibration=calibration)
    echoes = Extractor(settings).extract(clipped).echoes
    assert len(echoes) > 1000
    assert np.isnan(echoes.sigma_amplitude).all()
    assert np.isnan(echoes.sigma_width_ns).all()
    assert np.isnan(echoes.sigma_position_ns).all() == (mode is Mode.THREE_POINT)
