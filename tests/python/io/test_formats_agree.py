"""One scan in every format: the same blocks, and the same echoes."""

from __future__ import annotations

from dataclasses import replace
from pathlib import Path

import numpy as np
import pytest

import fullwaveform
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.data.columns import Columns, take_rows
from fullwaveform.io.base import WaveformReader
from fullwaveform.io.opening import open_waveforms
from fullwaveform.simulation import ScanSettings, simulate_scan, write_scan

from ..support.compressed_scenes import Compression, write_compressed
from ..support.hdf5_scenes import as_gedi, as_lvis
from ..support.las_scenes import compressed
from ..support.pulsewaves_scenes import of_waveforms, places
from ..support.row_scenes import arrays_of, as_container, as_npz, same

CHANNELS = {1: 1, 2: 0}
PER_BLOCK = 70


@pytest.fixture(scope="module")
def scans(tmp_path_factory: pytest.TempPathFactory) -> dict[str, Path]:
    """A simulated scan of two channels, as LAS and converted to every other format."""
    folder = tmp_path_factory.mktemp("scans")
    scan = simulate_scan(ScanSettings(shots=200, seed=3))
    # Point format 4, because lazrs cannot compress several scanner channels.
    las = write_scan(scan, folder / "scan.las", point_format=4).las
    options = {"channel_flags": CHANNELS}
    return {
        "LAS": las,
        "LAZ": compressed(las, folder / "packed.laz"),
        "container": as_container(las, folder / "scan.h5", waveforms_per_block=33, **options),
        "npz": as_npz(las, folder / "scan.npz", **options),
    }


@pytest.fixture(scope="module")
def single_scans(tmp_path_factory: pytest.TempPathFactory) -> dict[str, Path]:
    """The low-power channel of a scan, one waveform per shot, in the formats that have only such.

    Its times are exact in every format.
    """
    folder = tmp_path_factory.mktemp("single")
    scan = simulate_scan(ScanSettings(shots=200, seed=4))
    las = write_scan(scan, folder / "both.las", point_format=4).las
    with open_waveforms(las, channel_flags=CHANNELS) as reader:
        (both,) = reader.blocks()
    block = take_rows(replace(both, returns=None), np.flatnonzero(both.channel_flags == 1))
    times = 198_800_018.0 + np.arange(len(block)) / 256.0
    block = replace(block, attributes=replace(block.attributes, gps_time=times), shot_times=times)
    np.savez(folder / "scan.npz", **arrays_of(block))
    halves = [take_rows(block, half) for half in np.array_split(np.arange(len(block)), 2)]
    gedi = as_gedi(halves, folder / "gedi.h5", ["BEAM0001", "BEAM1000"])
    return {
        "npz": folder / "scan.npz",
        "GEDI": gedi,
        "LVIS": as_lvis(halves, folder / "lvis.h5"),
        "PulseWaves": of_waveforms(block).write(folder / "scan.pls"),
        "compressed PulseWaves": write_compressed(
            of_waveforms(block), folder / "packed.plz", Compression(sizes=30)
        ),
        "GEDI as container": as_container(gedi, folder / "scan.h5", waveforms_per_block=33),
    }


ONE_PER_SHOT = ["GEDI", "LVIS", "GEDI as container", "PulseWaves", "compressed PulseWaves"]


@pytest.mark.parametrize("kind", ONE_PER_SHOT)
@pytest.mark.parametrize("size", [1, 33, 1000])
def test_formats_of_one_waveform_per_shot_give_equal_samples_and_times(
    single_scans: dict[str, Path], kind: str, size: int
) -> None:
    with open_waveforms(single_scans["npz"]) as reader:
        (expected,) = reader.blocks()
    with open_waveforms(single_scans[kind], waveforms_per_block=size) as reader:
        found = list(reader.blocks())
        assert reader.block_count() == len(found)
        again = [next(reader.blocks(number, number + 1)) for number in range(len(found))]
    assert all(map(same, found, again))
    assert max(map(len, found)) <= size
    for name in ("samples", "counts", "sampling_intervals", "waveform_numbers"):
        column = np.concatenate([getattr(block, name) for block in found])
        assert np.array_equal(column, getattr(expected, name)), name
    times = np.concatenate([block.attributes.gps_time for block in found])
    assert np.array_equal(times, expected.attributes.gps_time)
    if "GEDI" in kind:
        assert all(len(np.unique(block.beams)) == 1 for block in found)


@pytest.mark.parametrize("kind", ["PulseWaves", "compressed PulseWaves"])
def test_positions_of_samples_agree_within_the_resolution(
    single_scans: dict[str, Path], kind: str
) -> None:
    (expected,) = blocks_of(single_scans["npz"], per_block=1000)
    (found,) = blocks_of(single_scans[kind], per_block=1000)
    assert expected.geometry is not None
    assert found.geometry is not None
    for sample in (0, 40):
        difference = places(found.geometry, 1e3 * sample) - places(expected.geometry, 1e3 * sample)
        # Half a millimetre for the anchor; the target, 1000 samples away, adds a 25th of one.
        assert np.abs(difference).max() < 0.00055


def echoes(path: Path, workers: int) -> Columns:
    with open_waveforms(path, waveforms_per_block=33, channel_flags=CHANNELS) as reader:
        return fullwaveform.extract(reader, threshold=20, workers=workers).peaks


@pytest.mark.parametrize("kind", ONE_PER_SHOT)
def test_echoes_agree_for_any_number_of_workers(single_scans: dict[str, Path], kind: str) -> None:
    # The beams of GEDI have levels of their own.
    expected = echoes(single_scans["GEDI" if "GEDI" in kind else "npz"], 1)
    one, *others = (echoes(single_scans[kind], workers) for workers in (1, 2, 5))
    assert len(one["amplitude"]) > 100
    for name in ("waveform_number", "echo_number", "echo_count", "position", "amplitude"):
        assert np.array_equal(one[name], expected[name]), name
    for other in others:
        assert list(other) == list(one)
        for name in one:
            np.testing.assert_array_equal(other[name], one[name], err_msg=name)


def test_container_of_a_gedi_file_has_its_blocks(single_scans: dict[str, Path]) -> None:
    gedi, container = blocks_of(single_scans["GEDI"]), blocks_of(single_scans["GEDI as container"])
    assert len(gedi) == len(container) == 4
    assert all(map(same, gedi, container))


def blocks_of(path: Path, per_block: int = PER_BLOCK) -> list[WaveformBlock]:
    reader: WaveformReader
    with open_waveforms(path, waveforms_per_block=per_block, channel_flags=CHANNELS) as reader:
        return list(reader.blocks())


def as_stored(block: WaveformBlock, kind: str) -> WaveformBlock:
    """A block of the LAS file as other formats have it: only LAS has discrete returns."""
    return block if kind in ("LAS", "LAZ") else replace(block, returns=None)


@pytest.mark.parametrize("kind", ["LAZ", "container", "npz"])
def test_all_formats_give_the_same_blocks(scans: dict[str, Path], kind: str) -> None:
    expected, found = blocks_of(scans["LAS"]), blocks_of(scans[kind])
    assert len(expected) == len(found) > 3
    assert {0, 1} == {flag for block in found for flag in block.channel_flags.tolist()}
    for one, other in zip(expected, found, strict=True):
        assert same(as_stored(one, kind), other)


@pytest.mark.parametrize("kind", ["LAS", "LAZ", "container", "npz"])
def test_no_format_splits_a_shot(scans: dict[str, Path], kind: str) -> None:
    shots = [set(block.shot_times.tolist()) for block in blocks_of(scans[kind])]
    assert sum(map(len, shots)) == len(set().union(*shots))
    numbers = np.concatenate([block.waveform_numbers for block in blocks_of(scans[kind])])
    assert np.array_equal(numbers, np.arange(len(numbers)))


@pytest.mark.parametrize("kind", ["LAS", "LAZ", "container", "npz"])
def test_ranges_of_all_formats_give_the_same_blocks(scans: dict[str, Path], kind: str) -> None:
    expected = blocks_of(scans["LAS"])
    with open_waveforms(
        scans[kind], waveforms_per_block=PER_BLOCK, channel_flags=CHANNELS
    ) as reader:
        assert reader.block_count() == len(expected)
        found = [next(reader.blocks(number, number + 1)) for number in range(len(expected))]
    assert all(
        same(as_stored(one, kind), other) for one, other in zip(expected, found, strict=True)
    )
