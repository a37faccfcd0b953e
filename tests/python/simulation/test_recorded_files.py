"""Simulated scans with outgoing pulses: what the files hold, and how well echoes are placed."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import numpy.typing as npt
import pytest

import fullwaveform as fw
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.io.opening import open_waveforms
from fullwaveform.simulation import (
    ScanSettings,
    SimulatedScan,
    read_truth,
    simulate_scan,
    write_recording,
)

ENDINGS = pytest.mark.parametrize("ending", [".h5", ".pls"])
CHANNELS = {1: 1, 2: 0}  # of the PulseWaves file; ignored by the container


@pytest.fixture(scope="module")
def scan() -> SimulatedScan:
    return simulate_scan(ScanSettings(shots=1500))


@pytest.fixture(scope="module")
def folder(scan: SimulatedScan, tmp_path_factory: pytest.TempPathFactory) -> Path:
    folder = tmp_path_factory.mktemp("recorded")
    for ending in (".h5", ".pls"):
        (folder / ending[1:]).mkdir()
        write_recording(scan, folder / ending[1:] / f"scan{ending}")
    return folder


def file_of(folder: Path, ending: str) -> Path:
    return folder / ending[1:] / f"scan{ending}"


def only_block(folder: Path, ending: str) -> WaveformBlock:
    with open_waveforms(file_of(folder, ending), channel_flags=CHANNELS) as reader:
        reader.with_outgoing = True
        (block,) = reader.blocks()
    return block


@ENDINGS
def test_samples_channels_and_times(scan: SimulatedScan, folder: Path, ending: str) -> None:
    block = only_block(folder, ending)
    assert np.array_equal(block.samples.reshape(scan.samples.shape), scan.samples)
    assert block.channel_flags.tolist() == [1, 0] * 1500
    assert block.descriptors.tolist() == [1, 2] * 1500
    assert block.shot_times == pytest.approx(np.repeat(scan.shots.gps_time, 2), abs=1e-7)
    assert len(np.unique(block.shot_times)) == 1500


@ENDINGS
def test_ranges_count_in_whole_samples(scan: SimulatedScan, folder: Path, ending: str) -> None:
    block = only_block(folder, ending)
    start = block.sbl_times / scan.settings.sampling_interval
    assert np.abs(start - np.rint(start)).max() < 1e-6
    true = np.repeat(scan.shots.waveform_start, 2) / scan.settings.range_per_sample
    late = start - true
    assert (np.abs(late) <= 0.5 + 1e-6).all()
    assert np.std(late) == pytest.approx(np.sqrt(1.0 / 12.0), rel=0.05)  # uniform
    # The file places the first sample too far by the phase.
    origin = np.repeat(scan.shots.origin, 2, axis=0)
    anchor = np.linalg.norm(block.geometry.anchor - origin, axis=1)
    assert anchor == pytest.approx(start * scan.settings.range_per_sample, abs=2e-3)


@ENDINGS
def test_outgoing_pulses_show_the_phase(scan: SimulatedScan, folder: Path, ending: str) -> None:
    block = only_block(folder, ending)
    assert block.outgoing is not None
    start = np.rint(block.sbl_times / scan.settings.sampling_interval)
    true = np.repeat(scan.shots.waveform_start, 2) / scan.settings.range_per_sample
    height = block.outgoing.samples - 12.0
    x = np.arange(height.shape[1]) + block.outgoing.durations[:, np.newaxis] / 1e-9
    near = np.abs(x) < 6.0
    centroid = (x * height * near).sum(axis=1) / (height * near).sum(axis=1)
    assert np.abs(centroid - (start - true)).max() < 0.03


def isolated_errors(scan: SimulatedScan, path: Path, **options: object) -> npt.NDArray[np.float64]:
    """Distances in m of the echoes from the true ones: isolated, SNR of at least 100."""
    result = fw.extract(path, mode=1, threshold=30, channel_flags=CHANNELS, **options)  # type: ignore[arg-type]
    echoes, truth = result.peaks, scan.truth
    strong = truth.amplitude_low_power >= 100.0 * scan.settings.noise_rms
    chosen = strong & ~truth.saturated & (truth.neighbour_distance_samples > 12.0)
    errors = []
    for row in np.flatnonzero(chosen):
        of_shot = np.flatnonzero(echoes["waveform_number"] // 2 == truth.shot[row])
        away = np.abs(echoes["position"][of_shot] - truth.position_samples[row])
        found = of_shot[np.argmin(away)]
        assert away.min() < 1.0
        place = np.array([echoes[name][found] for name in "xyz"])
        errors.append(np.linalg.norm(place - truth.xyz[row]))
    assert len(errors) > 1000
    return np.array(errors)


@ENDINGS
def test_isolated_echoes_are_placed_within_a_centimetre(
    scan: SimulatedScan, folder: Path, ending: str
) -> None:
    path = file_of(folder, ending)
    assert np.quantile(isolated_errors(scan, path), 0.95) < 0.01
    # A uniform phase of one sample, 15 cm of range: 95 % are within 7.1 cm.
    without = isolated_errors(scan, path, outgoing_phase="off")
    assert np.quantile(without, 0.95) == pytest.approx(0.071, abs=0.003)


@ENDINGS
def test_places_do_not_depend_on_blocks_and_threads(folder: Path, ending: str) -> None:
    results = []
    for block, workers in ((20_000, 1), (333, 2), (7, 1)):
        with open_waveforms(
            file_of(folder, ending), channel_flags=CHANNELS, waveforms_per_block=block
        ) as reader:
            results.append(fw.extract(reader, threshold=30, workers=workers).peaks)
    for name in ("x", "y", "z", "time", "position"):
        for other in results[1:]:
            assert np.array_equal(results[0][name], other[name])


def test_truth_and_existing_files(scan: SimulatedScan, tmp_path: Path) -> None:
    files = write_recording(scan, tmp_path / "scan.pls")
    assert [file.name for file in files] == ["scan.pls", "scan.wvs", "scan_truth.csv"]
    truth = read_truth(files[2])
    assert np.array_equal(truth.position_samples, scan.truth.position_samples)
    before = files[1].read_bytes()
    with pytest.raises(FileExistsError):
        write_recording(scan, tmp_path / "scan.pls")
    write_recording(scan, tmp_path / "scan.pls", overwrite=True)
    assert files[1].read_bytes() == before
    files[1].write_bytes(b"PulseWavesWaves" + bytes(100))
    with pytest.raises(FileExistsError, match="is not the waveforms of a simulated PulseWaves"):
        write_recording(scan, tmp_path / "scan.pls", overwrite=True)
    with pytest.raises(ValueError, match=r"invalid name 'scan.las'; it must end in .h5"):
        write_recording(scan, tmp_path / "scan.las")
