"""Waveforms spread over a file: which points, in every format, and what does not change them."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest

from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.io.opening import open_waveforms
from fullwaveform.io.spread import spread_windows
from fullwaveform.simulation import ScanSettings, simulate_scan, write_scan

from ..support.las_scenes import compressed, data_folder
from ..support.row_scenes import as_container, as_npz, same

CHANNELS = {1: 1, 2: 0}
PULSES = data_folder() / "pulsewaves" / "topo_1ns.pls"

needs_pulses = pytest.mark.skipif(
    not PULSES.exists(), reason=f"no {PULSES.name} in the folder of real data"
)


def test_all_points_of_a_small_file() -> None:
    assert spread_windows(0) == []
    assert spread_windows(64) == [slice(0, 64)]
    assert spread_windows(4096) == [slice(0, 4096)]


def test_equal_distances_in_a_large_file() -> None:
    # 63 steps of 1,000 points and the last run.
    runs = spread_windows(63_064)
    assert runs[:2] == [slice(0, 64), slice(1000, 1064)]
    assert (len(runs), runs[-1]) == (64, slice(63_000, 63_064))


def test_runs_never_overlap() -> None:
    for total in range(4097, 4500):
        runs = spread_windows(total)
        ends, starts = [run.stop for run in runs[:-1]], [run.start for run in runs[1:]]
        assert all(end <= start for end, start in zip(ends, starts, strict=True))
        assert runs[-1].stop == total


@pytest.fixture(scope="module")
def scans(tmp_path_factory: pytest.TempPathFactory) -> dict[str, Path]:
    """A simulated scan of two channels, more than 4,096 points, in four formats."""
    folder = tmp_path_factory.mktemp("scans")
    scan = simulate_scan(ScanSettings(shots=2100, seed=3))
    las = write_scan(scan, folder / "scan.las", point_format=4).las
    options = {"channel_flags": CHANNELS}
    return {
        "LAS": las,
        "LAZ": compressed(las, folder / "packed.laz"),
        "container": as_container(las, folder / "scan.h5", **options),
        "npz": as_npz(las, folder / "scan.npz", **options),
    }


def spread(path: Path, per_block: int) -> list[WaveformBlock]:
    with open_waveforms(path, waveforms_per_block=per_block, channel_flags=CHANNELS) as reader:
        return list(reader.spread_blocks())


@pytest.mark.parametrize("kind", ["LAS", "LAZ", "container", "npz"])
def test_block_size_does_not_change_them(scans: dict[str, Path], kind: str) -> None:
    one, other = spread(scans[kind], 7), spread(scans[kind], 20_000)
    assert len(one) == len(other) == 64
    assert all(map(same, one, other))


@pytest.mark.parametrize("kind", ["LAS", "LAZ", "container", "npz"])
def test_iteration_in_progress_goes_on(scans: dict[str, Path], kind: str) -> None:
    with open_waveforms(scans[kind], waveforms_per_block=500, channel_flags=CHANNELS) as reader:
        expected = list(reader.blocks())
        found = []
        for block in reader.blocks():
            found.append(block)
            if len(found) in (1, 3):
                list(reader.spread_blocks())
        tally = reader.tally
    assert tally.waveforms == sum(map(len, expected))
    assert all(map(same, found, expected))


def rows_of(block: WaveformBlock) -> list[tuple[float, int, int, bytes]]:
    columns = (block.shot_times, block.descriptors, block.channel_flags, block.samples)
    return [
        (float(time), int(descriptor), int(flag), samples.tobytes())
        for time, descriptor, flag, samples in zip(*columns, strict=True)
    ]


@pytest.mark.parametrize("kind", ["LAS", "container"])
def test_waveforms_are_those_of_the_file(scans: dict[str, Path], kind: str) -> None:
    with open_waveforms(scans[kind], channel_flags=CHANNELS) as reader:
        rows = [row for block in reader.blocks() for row in rows_of(block)]
        some = [row for block in reader.spread_blocks() for row in rows_of(block)]
    assert {(descriptor, flag) for _, descriptor, flag, _ in some} == {(1, 1), (2, 0)}
    assert set(some) < set(rows)
    assert len(some) > 1000


@needs_pulses
def test_runs_of_real_pulses() -> None:
    one, other = spread(PULSES, 100), spread(PULSES, 20_000)
    assert [len(block) for block in one] == [64] * 64
    assert all(map(same, one, other))
    # Run 40 of 64 of 16,486 pulses; one pulse of the file has two waveforms.
    first = 40 * 16_422 // 63
    assert one[40].waveform_numbers.tolist() == list(range(first, first + 64))
    with open_waveforms(PULSES) as reader:
        (whole,) = reader.blocks()
    (rows,) = np.nonzero(np.isin(whole.shot_times, one[40].shot_times))
    assert np.array_equal(one[40].samples, whole.samples[rows, : one[40].samples.shape[1]])
