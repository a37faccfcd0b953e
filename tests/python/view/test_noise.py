"""Noise of all waveforms, and echoes selected by it."""

from __future__ import annotations

from collections.abc import Iterator
from pathlib import Path

import numpy as np
import pytest

from fullwaveform.calibration.waveform_levels import waveform_levels
from fullwaveform.io.opening import open_waveforms
from fullwaveform.simulation import ScanSettings, simulate_scan, write_recording, write_scan
from fullwaveform.view.directory import WaveformDirectory
from fullwaveform.view.echo_index import NOISE, EchoIndex
from fullwaveform.view.noise import WaveformNoise
from fullwaveform.view.selection import Selection, selected_rows
from fullwaveform.view.statistics import described_selection

from . import page_scenes

#: Counts above and below the baseline of alternate samples of each waveform: its noise rms.
NOISE_RMS = (0, 1, 3, 3, 6)


def alternating(rms: int) -> np.ndarray:
    return 10 + rms * np.where(np.arange(64) % 2, 1, -1)


@pytest.fixture
def scan(tmp_path: Path) -> Path:
    samples = [alternating(rms) for rms in NOISE_RMS]
    return page_scenes.write_waveforms(tmp_path / "scan.las", samples)


@pytest.fixture
def waveforms(scan: Path) -> Iterator[WaveformDirectory]:
    with open_waveforms(scan, waveforms_per_block=2) as reader:
        directory = WaveformDirectory.of(reader, {})
        directory.reader = reader  # type: ignore[attr-defined]
        yield directory
        directory.close()


@pytest.fixture
def noise(waveforms: WaveformDirectory) -> WaveformNoise:
    return WaveformNoise(waveforms.reader, waveforms)  # type: ignore[attr-defined]


@pytest.fixture
def index(
    waveforms: WaveformDirectory, noise: WaveformNoise, tmp_path: Path
) -> Iterator[EchoIndex]:
    """Two echoes of waveform 4, one of each other, and one of an unknown waveform."""
    path = tmp_path / "echoes.csv"
    lines = [f"{10 * row},0,100,{number}" for row, number in enumerate((4, 3, 2, 1, 0, 4, 9))]
    path.write_text("\n".join(["x,y,z,waveform_number", *lines]) + "\n", encoding="ascii")
    echoes = EchoIndex.of(path, waveforms)
    echoes.noise = noise
    yield echoes
    echoes.close()


def bars(noise: WaveformNoise, *values: float) -> Selection:
    numbers = np.searchsorted(noise.edges, values, "right") - 1
    last = len(noise.edges) - 2
    return Selection(None, {NOISE: frozenset(np.clip(numbers, 0, last).tolist())})


def test_noise_of_all_waveforms_is_measured_in_blocks(noise: WaveformNoise) -> None:
    assert not noise.is_measured
    assert noise.values().tolist() == list(NOISE_RMS)
    assert noise.is_measured


def test_echoes_have_the_noise_of_their_waveforms(index: EchoIndex) -> None:
    row = index.read("row")
    expected = np.array([6, 3, 3, 1, 0, 6, np.nan], np.float32)
    np.testing.assert_array_equal(index.read(NOISE), expected[row])
    points = index.points([0], with_noise=True)
    np.testing.assert_array_equal(np.frombuffer(points[-4 * 7 :], "<f4"), expected[row])
    assert points[: -4 * 7] == index.points([0])


def test_bars_select_the_echoes_of_noisy_waveforms(index: EchoIndex, noise: WaveformNoise) -> None:
    def rows(*values: float) -> list[int]:
        return np.flatnonzero(selected_rows(index, bars(noise, *values))).tolist()

    assert rows(3.0) == [1, 2]
    assert rows(6.0, 1.0) == [0, 3, 5]
    assert rows(2.0) == []


def test_selection_counts_waveforms_by_their_noise(
    index: EchoIndex, waveforms: WaveformDirectory, noise: WaveformNoise
) -> None:
    found = described_selection(index, waveforms, Selection(), 1)
    assert found["noise"] is None, "it is measured only if it is asked for"
    assert not noise.is_measured
    found = described_selection(index, waveforms, bars(noise, 3.0, 6.0), 1)
    assert found["echoes"] == 4
    counts = dict(enumerate(found["noise"]))
    assert sum(counts.values()) == 3
    assert [count for count in counts.values() if count] == [2, 1]
    assert counts == {**counts, 24: 2, 47: 1}  # of 48 classes from about 0 to 6


def test_histogram_of_all_waveforms_takes_the_place_of_the_sample(
    waveforms: WaveformDirectory, monkeypatch: pytest.MonkeyPatch
) -> None:
    """Of a sample of the waveforms 1 and 2."""
    monkeypatch.setattr("fullwaveform.io.base.spread_windows", lambda total: [slice(1, 3)])
    noise = WaveformNoise(waveforms.reader, waveforms)  # type: ignore[attr-defined]
    assert noise.histogram is not None
    assert noise.edges[0] == pytest.approx(1.0, abs=0.02)
    assert noise.edges[-1] == pytest.approx(3.0, abs=0.02)
    assert [count for count in noise.histogram["counts"] if count] == [1, 1]
    edges = noise.edges
    noise.values()
    assert noise.edges == edges
    assert (noise.histogram["counts"][0], noise.histogram["counts"][-1]) == (2, 3)


def test_file_that_was_removed_is_reported(scan: Path, noise: WaveformNoise) -> None:
    scan.unlink()
    with pytest.raises(FileNotFoundError, match="was removed or renamed since the viewer"):
        noise.values()


@pytest.mark.parametrize("name", ["scan.las", "scan.h5"])
def test_noise_is_that_of_the_waveform_of_the_panel(name: str, tmp_path: Path) -> None:
    """Of both channels, and with a look at other waveforms in the meantime."""
    simulated = simulate_scan(ScanSettings(shots=30))
    if name == "scan.las":
        write_scan(simulated, tmp_path / name)
    else:
        write_recording(simulated, tmp_path / name, overwrite=True)
    with open_waveforms(tmp_path / name, waveforms_per_block=20) as reader:
        directory = WaveformDirectory.of(reader, {})
        noise = WaveformNoise(reader, directory)
        between = noise._blocks

        def blocks() -> Iterator[object]:
            for number, block in enumerate(between()):
                directory.shot(len(directory) - 1 - number)
                yield block

        noise._blocks = blocks  # type: ignore[method-assign, assignment]
        values = noise.values()
        assert len(values) == len(directory)
        for number in range(len(directory)):
            block = directory.shot(number).block
            (row,) = np.flatnonzero(block.waveform_numbers == number)
            samples = block.samples[row : row + 1, : block.counts[row]]
            expected = np.sqrt(waveform_levels(samples).mean_square)[0]
            assert values[number] == pytest.approx(expected, rel=1e-6)
        directory.close()
