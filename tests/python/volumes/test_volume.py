"""Sums per voxel of scenes with known lines, and of a simulated scan."""

from __future__ import annotations

from dataclasses import replace
from pathlib import Path

import numpy as np
import pytest
import zarr

import fullwaveform as fw
from fullwaveform.calibration.waveform_levels import waveform_levels
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.simulation import ScanSettings, simulate_scan, write_scan
from fullwaveform.volumes.grid import TILE_VOXELS
from fullwaveform.volumes.kernels import SampleSums
from fullwaveform.volumes.tiles import TileStore
from fullwaveform.volumes.volume import VolumeSettings, VolumeSummary, write_volume

from .scenes import Scan, flat, lines, three_lines


def volume_of(
    tmp_path: Path, *blocks: WaveformBlock, size: float = 1.0, channel: str | None = None
) -> tuple[zarr.Group, VolumeSummary]:
    path = tmp_path / "volume.zarr"
    settings = VolumeSettings(size, channel)
    summary = write_volume(Scan(list(blocks)), path, settings, overwrite=True)  # type: ignore[arg-type]
    return zarr.open_group(path, mode="r"), summary


def test_samples_of_three_lines(tmp_path: Path) -> None:
    """Columns x = 2 to 8, rows y = 7, 6, 5, layers z = 0 to 5."""
    volume, summary = volume_of(tmp_path, three_lines())
    assert summary.shape == volume["sum"].shape == (6, 3, 7)
    expected = np.zeros((6, 3, 7))
    expected[3, 0, 0] = 20 + 100  # z = 3.65 and 3.4
    expected[0, 0, 0] = 10  # z = 0.65
    expected[4, 0, 0] = 5  # the first sample to the east
    expected[5, 2, 2] = 50  # z = 5.4
    assert (volume["sum"][:] == expected).all()
    samples = np.zeros((6, 3, 7), int)
    samples[:, 0, 0] += 4
    samples[4, 0] += [2, 4, 4, 4, 4, 4, 2]  # x = 2.6 to 8.35
    samples[:, 2, 2] += 4
    assert (volume["samples"][:] == samples).all()
    largest = np.where(samples > 0, 0.0, np.nan)
    largest[3, 0, 0], largest[0, 0, 0], largest[4, 0, 0], largest[5, 2, 2] = 100, 10, 5, 50
    np.testing.assert_array_equal(volume["max"][:], largest)
    mean = np.where(samples > 0, 0.0, np.nan)
    mean[3, 0, 0], mean[0, 0, 0], mean[4, 0, 0], mean[5, 2, 2] = 30, 2.5, np.float32(5 / 6), 12.5
    np.testing.assert_array_equal(volume["mean"][:], mean)


def test_pulses_of_three_lines(tmp_path: Path) -> None:
    volume, summary = volume_of(tmp_path, three_lines())
    pulses = np.zeros((6, 3, 7), int)
    pulses[:, 0, 0] += 1
    pulses[4, 0] += 1
    pulses[:, 2, 2] += 1
    assert (volume["pulses"][:] == pulses).all()
    assert (summary.waveforms, summary.pulses, summary.samples) == (3, 3, 72)


def test_places_of_the_voxels(tmp_path: Path) -> None:
    volume, _ = volume_of(tmp_path, three_lines())
    assert volume["x"][:].tolist() == [2.5, 3.5, 4.5, 5.5, 6.5, 7.5, 8.5]
    assert volume["y"][:].tolist() == [7.5, 6.5, 5.5]
    assert volume["z"][:].tolist() == [0.5, 1.5, 2.5, 3.5, 4.5, 5.5]
    assert volume["sum"].metadata.dimension_names == ("z", "y", "x")


def test_noise_below_the_baseline_is_negative(tmp_path: Path) -> None:
    """Baseline of 10: of two samples of 9 and 11, or 8 and 12, the sum is 0."""
    wave = lines([[10, 9, 11, 10] * 6], [(0.5, 0.5, 6.4)], [(0.0, 0.0, -0.25)])
    volume, summary = volume_of(tmp_path, wave, size=8.0)
    assert summary.total == volume["sum"][0, 0, 0] == 0.0
    assert volume["max"][0, 0, 0] == 1.0


def test_two_waveforms_of_a_pulse_count_once(tmp_path: Path) -> None:
    """The record of the second begins 1.5 m lower and ends lower."""
    wave = lines(
        [flat(), flat(), flat()],
        [(0.5, 0.5, 9.9), (0.5, 0.5, 8.4), (0.5, 0.5, 9.9)],
        [(0.0, 0.0, -0.25)] * 3,
        flags=[1, 0, 1],
    )
    wave = replace(wave, shot_times=np.array([7.0, 7.0, 8.0]))
    volume, summary = volume_of(tmp_path, wave)
    assert volume["pulses"][:, 0, 0].tolist() == [1, 1, 2, 2, 2, 2, 2, 2]
    assert (summary.pulses, summary.waveforms) == (2, 3)
    volume, summary = volume_of(tmp_path, wave, channel="high")
    assert volume["pulses"][:, 0, 0].tolist() == [1] * 7
    assert summary.left_out == {"waveform of the other channel": 2}


def test_waveforms_without_place_or_baseline_are_left_out(tmp_path: Path) -> None:
    wave = lines(
        [flat(), flat(s3=50), [10], []],
        [(0.5, 0.5, np.nan), (0.5, 0.5, 5.9), (9.0, 9.0, 9.0), (9.0, 9.0, 9.0)],
        [(0.0, 0.0, -0.25)] * 4,
    )
    volume, summary = volume_of(tmp_path, wave)
    assert volume["sum"].shape == (6, 1, 1)
    assert volume["sum"][:].sum() == 40.0
    assert summary.left_out == {
        "waveform without a place in space": 1,
        "waveform with fewer than 2 samples, of which no baseline follows": 2,
    }


def test_only_waveforms_without_a_place(tmp_path: Path) -> None:
    wave = lines([flat()], [(0.5, np.inf, 0.5)], [(0.0, 0.0, -0.25)])
    with pytest.raises(
        ValueError, match=r"no waveform for a volume \(1 x waveform without a place"
    ):
        volume_of(tmp_path, wave)
    assert list(tmp_path.iterdir()) == []


@pytest.mark.parametrize(
    ("far", "size", "message"),
    [
        (
            1e9,
            1.0,
            r"voxels of size 1 would be 1000000001 x 1 x 6 = 6e\+09 \(x 0 to 1000000001, y 0",
        ),
        (1e300, 1.0, "at most 10,000,000,000, and 1,000,000 along an axis, are allowed"),
        (2.0, 1e-6, "use a larger size"),
        (0.5, 5e-5, "a record crosses 115,00. voxels of size 5e-05; at most 100,000"),
        (0.5, 1e-320, "use a larger size"),
    ],
)
def test_too_many_voxels(tmp_path: Path, far: float, size: float, message: str) -> None:
    wave = lines(
        [flat(), flat()], [(0.5, 0.5, 5.9), (far, 0.5, 5.9)], [(0.0, 0.0, -0.25), (0.0, 0.0, -0.25)]
    )
    with pytest.raises(ValueError, match=message):
        volume_of(tmp_path, wave, size=size)
    assert list(tmp_path.iterdir()) == []


def test_distant_pulses_take_little_space(tmp_path: Path) -> None:
    """5 x 5 km x 24 m of voxels of 0.5 m: 4.8e9 of 32 bytes, of which four tiles are stored."""
    wave = lines(
        [flat(96), flat(96)], [(0.1, 0.1, 24.1), (5000.1, 5000.1, 24.1)], [(0.0, 0.0, -0.25)] * 2
    )
    volume, _ = volume_of(tmp_path, wave, size=0.5)
    assert volume["sum"].shape == (49, 10_001, 10_001)
    files = [path for path in (tmp_path / "volume.zarr").rglob("*") if path.is_file()]
    stored = [path for path in files if "samples" in path.parts and "c" in path.parts]
    assert len(stored) == 4  # two tiles on each other at two places
    assert sum(path.stat().st_size for path in files) < 1_000_000


@pytest.fixture(scope="module")
def scan(tmp_path_factory: pytest.TempPathFactory) -> Path:
    path = tmp_path_factory.mktemp("scan") / "scan.las"
    write_scan(simulate_scan(ScanSettings(shots=400)), path)
    return path


def test_energy_of_a_scan_is_conserved(scan: Path, tmp_path: Path) -> None:
    expected = samples = 0
    with fw.open(scan) as reader:
        for block in reader.blocks():
            assert (block.counts == block.samples.shape[1]).all()
            baseline = np.rint(waveform_levels(block.samples).baseline * 256.0).astype(int)
            expected += int(block.samples.sum(dtype=int)) * 256
            expected -= int(baseline.sum()) * block.samples.shape[1]
            samples += block.samples.size
    summary = fw.voxels(scan, tmp_path / "a.zarr", size=0.7)
    volume = zarr.open_group(tmp_path / "a.zarr", mode="r")
    steps = volume["sum"][:] * 256.0
    assert (steps == np.rint(steps)).all()
    assert int(steps.sum()) == expected == round(summary.total * 256)
    assert int(volume["samples"][:].sum()) == samples == summary.samples == 800 * 160


def content(folder: Path) -> dict[str, bytes]:
    return {
        str(path.relative_to(folder)): path.read_bytes()
        for path in folder.rglob("*")
        if path.is_file()
    }


def test_bytes_do_not_depend_on_the_block_size(scan: Path, tmp_path: Path) -> None:
    found = []
    for waveforms in (1, 37, 20_000):
        path = tmp_path / f"{waveforms}.zarr"
        with fw.open(scan, waveforms_per_block=waveforms, channel_flags={1: 1, 2: 0}) as reader:
            write_volume(reader, path, VolumeSettings(0.7))
        found.append(content(path))
    assert found[0] == found[1] == found[2]


def test_tiles_out_of_memory_keep_their_sums(tmp_path: Path) -> None:
    random = np.random.default_rng(3)
    expected = np.zeros((2, 5 * TILE_VOXELS), int)
    with TileStore(tmp_path, in_memory=2) as store:
        for _ in range(20):
            keys = np.unique(random.integers(0, 5 * TILE_VOXELS, 40))
            total = random.integers(-9, 99, len(keys))
            store.add_samples(SampleSums(keys, total, total, np.ones(len(keys), int)))
            store.add_pulses(keys, total + 9)
            expected[0, keys] += total
            expected[1, keys] += total + 9
        tiles = dict(store.tiles())
        assert list(tiles) == [0, 1, 2, 3, 4]
        joined = np.concatenate(list(tiles.values()))
    assert (joined["sum"] == expected[0]).all()
    assert (joined["pulses"] == expected[1]).all()
    assert list(tmp_path.iterdir()) == []
