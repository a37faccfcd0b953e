"""Scanner descriptions with system wave: round trip, and subtraction of the position offset."""

from __future__ import annotations

from dataclasses import replace
from pathlib import Path

import numpy as np
import pytest

from fullwaveform import Mode, Scanner
from fullwaveform.calibration.isolated import Waveforms
from fullwaveform.core.scanner import AfterPulse
from fullwaveform.data.blocks import FloatArray, PulseGeometry, ShotAttributes, WaveformBlock
from fullwaveform.extraction.extractor import ExtractionSettings, Extractor
from fullwaveform.system_wave import (
    DeconvolutionOffset,
    ExponentialSum,
    average,
    fit_system_wave,
    measure_offset,
    write_description,
)
from fullwaveform.system_wave.description import description_text, with_system_wave

from .scenes import INTERVAL, echo_samples, pulses, recorded

WAVE = ExponentialSum(
    np.array([0.1 + 1 / 3 * 1j, 0.1 - 1 / 3 * 1j]), np.array([-1e9 / 7 + 3e8j, -1e9 / 7 - 3e8j])
)
OFFSET = DeconvolutionOffset(-1.9 - 1e-15, 0.087, 1234, -1.95)


def test_description_round_trip(tmp_path: Path) -> None:
    path = tmp_path / "scanner.toml"
    base = with_system_wave(Scanner.default(), WAVE, INTERVAL)
    write_description(path, base, OFFSET, ("Made by a test\nin two lines.",))
    read = Scanner.from_toml(path)
    assert read.has_system_wave
    assert read.attributes == base.attributes
    assert read.attributes["b_real"] == [-1e9 / 7, -1e9 / 7]
    assert read.attributes["a_imag"] == [1 / 3, -1 / 3]
    assert read.sampling_interval == INTERVAL
    assert read.deconvolution_offset == OFFSET.position
    assert path.read_text(encoding="utf-8").startswith("# Made by a test in two lines.\n")
    assert [entry.name for entry in tmp_path.iterdir()] == ["scanner.toml"]


def test_attributes_of_the_base_are_kept(tmp_path: Path) -> None:
    path = tmp_path / "scanner.toml"
    attributes = {**Scanner.default().attributes, "Scanner Type": "other", "ampl_unit": 0.01}
    base = Scanner.from_attributes(attributes, after_pulse=AfterPulse(5, 2))
    write_description(path, with_system_wave(base, WAVE, INTERVAL), None)
    read = Scanner.from_toml(path)
    assert read.attributes["Scanner Type"] == "other"
    assert read.attributes["ampl_unit"] == 0.01
    assert read.after_pulse == AfterPulse(5, 2)
    assert read.deconvolution_offset == 0.0


def test_disabled_after_pulse_filter_is_not_written() -> None:
    assert "after_pulse" not in description_text(Scanner.default(), None)


def test_new_system_wave_removes_the_old_offset(tmp_path: Path) -> None:
    path = tmp_path / "scanner.toml"
    write_description(path, with_system_wave(Scanner.default(), WAVE, INTERVAL), OFFSET)
    again = with_system_wave(Scanner.from_toml(path), WAVE, INTERVAL)
    assert again.deconvolution_offset == 0.0


@pytest.mark.parametrize(
    "table",
    [
        "deconvolution = 3",
        "[deconvolution]",
        '[deconvolution]\nposition_offset = "1"',
        "[deconvolution]\nposition_offset = 1\nother = 2",
    ],
)
def test_invalid_offset_tables_are_refused(tmp_path: Path, table: str) -> None:
    path = tmp_path / "scanner.toml"
    path.write_text(description_text(Scanner.default(), None) + table, encoding="utf-8")
    with pytest.raises(ValueError, match="table deconvolution must have position_offset"):
        Scanner.from_toml(path)


@pytest.mark.parametrize(
    "table", ["position_offset = -1.5", "position_offset = 0\nposition_offset_hybrid = 0.5"]
)
def test_offset_without_its_interval_is_refused(tmp_path: Path, table: str) -> None:
    path = tmp_path / "scanner.toml"
    text = description_text(Scanner.default(), None) + "[deconvolution]\n"
    path.write_text(text + table, encoding="utf-8")
    with pytest.raises(ValueError, match="position_offset is in samples; add Waveform"):
        Scanner.from_toml(path)
    path.write_text(text + "position_offset = 0", encoding="utf-8")
    assert Scanner.from_toml(path).deconvolution_offset == 0.0


@pytest.mark.parametrize(("more", "in_hybrid"), [("", -1.5), ("position_offset_hybrid = 0.5", 0.5)])
def test_hybrid_offset_defaults_to_the_deconvolution_offset(
    described: Scanner, tmp_path: Path, more: str, in_hybrid: float
) -> None:
    path = tmp_path / "scanner.toml"
    text = description_text(described, None)
    path.write_text(f"{text}[deconvolution]\nposition_offset = -1.5\n{more}", encoding="utf-8")
    plain = Scanner(described.attributes, described.after_pulse)
    for mode, expected in ((Mode.DECONVOLUTION, -1.5), (Mode.HYBRID, in_hybrid)):
        moved = Extractor(ExtractionSettings(Scanner.from_toml(path), mode, threshold=12))
        unmoved = Extractor(ExtractionSettings(plain, mode, threshold=12))
        difference = position(unmoved, block(20)) - position(moved, block(20))
        np.testing.assert_allclose(difference, expected, atol=1e-12)


def position(extractor: Extractor, waveforms: WaveformBlock) -> FloatArray:
    return extractor.extract(waveforms).echoes.position


def block(count: int, interval: float = INTERVAL) -> WaveformBlock:
    """Waveforms whose sample at t ps is at x = -t."""
    samples = echo_samples(count)
    zeros, small = np.zeros(count), np.zeros(count, np.uint8)
    return WaveformBlock(
        samples=samples,
        counts=np.full(count, samples.shape[1], np.uint16),
        shot_times=np.arange(count, dtype=np.float64),
        sbl_times=zeros,
        channel_flags=small + 1,
        sampling_intervals=np.full(count, interval),
        geometry=PulseGeometry(
            anchor=np.zeros((count, 3)),
            location=zeros,
            direction=np.tile([1.0, 0.0, 0.0], (count, 1)),
        ),
        attributes=ShotAttributes(
            zeros, zeros.astype(np.float32), small, small, small, small.astype(np.uint16)
        ),
        waveform_numbers=np.arange(count),
    )


@pytest.fixture(scope="module")
def described(tmp_path_factory: pytest.TempPathFactory) -> Scanner:
    """A scanner whose description was estimated from one recording and written."""
    path = tmp_path_factory.mktemp("described") / "scanner.toml"
    wave = fit_system_wave(average(pulses(recorded(400, 0.3)[0])))
    scanner = with_system_wave(Scanner.default(), wave.in_seconds(), INTERVAL)
    samples = echo_samples(300, seed=11)
    echoes = Waveforms(samples, np.full(300, samples.shape[1], np.uint16), INTERVAL)
    write_description(path, scanner, measure_offset(scanner, [echoes], 12))
    return Scanner.from_toml(path)


def first_echoes(
    scanner: Scanner, mode: Mode, channel_flag: int = 1
) -> tuple[np.ndarray, np.ndarray, np.ndarray]:
    """Position, time and x of the strongest echo of each waveform."""
    waveforms = replace(block(200), channel_flags=np.full(200, channel_flag, np.uint8))
    table = Extractor(ExtractionSettings(scanner, mode, threshold=12)).extract(waveforms).echoes
    order = np.lexsort((-table.amplitude, table.waveform_number))
    rows, first = np.unique(table.waveform_number[order], return_index=True)
    assert len(rows) == 200
    chosen = order[first]
    return table.position[chosen], table.time[chosen], table.xyz[chosen, 0]


@pytest.mark.parametrize(
    ("mode", "other"),
    # The hybrid deconvolves the low-power channel and decomposes the other one.
    [(Mode.DECONVOLUTION, (Mode.THREE_POINT, 1)), (Mode.HYBRID, (Mode.HYBRID, 0))],
)
def test_modes_agree_in_the_median(described: Scanner, mode: Mode, other: tuple[Mode, int]) -> None:
    position, time, x = first_echoes(described, mode)
    expected, expected_time, expected_x = first_echoes(described, *other)
    assert abs(np.median(position - expected)) < 0.05
    assert abs(np.median(time - expected_time)) < 0.05 * INTERVAL
    assert abs(np.median(x - expected_x)) < 0.05 * 1000.0  # ps per sample


def test_only_deconvolved_echoes_are_moved(described: Scanner) -> None:
    plain = Scanner(described.attributes, described.after_pulse)
    for mode in (Mode.THREE_POINT, Mode.DECOMPOSITION):
        for with_offset, without in zip(
            first_echoes(described, mode), first_echoes(plain, mode), strict=True
        ):
            np.testing.assert_array_equal(with_offset, without)
    moved, _, _ = first_echoes(described, Mode.DECONVOLUTION)
    unmoved, _, _ = first_echoes(plain, Mode.DECONVOLUTION)
    np.testing.assert_allclose(unmoved - moved, described.deconvolution_offset, atol=1e-12)
    assert abs(described.deconvolution_offset) > 0.5


def test_another_sampling_interval_is_refused(described: Scanner) -> None:
    extractor = Extractor(ExtractionSettings(described, Mode.DECONVOLUTION, threshold=12))
    with pytest.raises(ValueError, match="interval of 1 ns, but the waveforms have 2 ns"):
        extractor.extract(block(5, 2 * INTERVAL))
    Extractor(ExtractionSettings(described, threshold=12)).extract(block(5, 2 * INTERVAL))
