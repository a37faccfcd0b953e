"""Selection of one shot of a file with several blocks, by number and by time."""

from __future__ import annotations

from pathlib import Path
from typing import Any

import numpy as np
import pytest

from fullwaveform.analysis.waveform_selection import SelectedShot, Selector, find_shot
from fullwaveform.io.container.writer import ScanContainerWriter
from fullwaveform.io.las.waveform_packets import PacketData
from fullwaveform.io.opening import open_waveforms

from ..support.las_scenes import Point, Scene

TIMES = [100.0, 200.0, 200.0, 300.0, 300.000003]  # s, of the packets; two of them are one shot


@pytest.fixture
def scan(tmp_path: Path) -> Path:
    """Five waveforms of four shots; the first sample of each is its number."""
    packets = [(1, [number, 50, 50, 50]) for number in range(5)]
    points = [Point(number, gps_time=time) for number, time in enumerate(TIMES)]
    return Scene([(1, 8, 4, 1000)], packets, points).write(tmp_path / "scan.las")


def find(
    path: Path, selector: Selector, value: float, waveforms_per_block: int = 2
) -> SelectedShot:
    with open_waveforms(path, waveforms_per_block=waveforms_per_block) as reader:
        return find_shot(reader, selector, value)


def first_samples(shot: SelectedShot) -> tuple[list[int], list[int]]:
    """First sample of all waveforms of the shot, and of the selected ones."""
    column = shot.block.samples[:, 0]
    return column.tolist(), column[shot.rows].tolist()


@pytest.mark.parametrize("size", [1, 2, 100])
def test_waveform_number_selects_one_waveform_of_its_shot(scan: Path, size: int) -> None:
    assert first_samples(find(scan, Selector.WAVEFORM, 2, size)) == ([1, 2], [2])
    assert first_samples(find(scan, Selector.WAVEFORM, 4, size)) == ([4], [4])


@pytest.mark.parametrize("size", [1, 2, 100])
def test_shot_number_selects_all_its_waveforms(scan: Path, size: int) -> None:
    shots = [first_samples(find(scan, Selector.SHOT, number, size)) for number in range(4)]
    assert shots == [([0], [0]), ([1, 2], [1, 2]), ([3], [3]), ([4], [4])]


def test_time_is_matched_to_the_microsecond(scan: Path) -> None:
    assert first_samples(find(scan, Selector.TIME, 200.0)) == ([1, 2], [1, 2])
    assert first_samples(find(scan, Selector.TIME, 299.9999995)) == ([3], [3])
    assert first_samples(find(scan, Selector.TIME, 300.000002)) == ([4], [4])
    for size in (1, 100):
        with pytest.raises(ValueError, match=r"no shot at 300\.0000015 s; nearest shot: 300\."):
            find(scan, Selector.TIME, 300.0000015, size)


def test_error_has_the_nearest_time(scan: Path) -> None:
    with pytest.raises(ValueError, match=r"scan\.las: no shot at 140\.0 s; nearest shot: 100\.0 s"):
        find(scan, Selector.TIME, 140.0)
    with pytest.raises(ValueError, match=r"nearest shot: 300\.000003 s"):
        find(scan, Selector.TIME, 1e6)


def test_numbers_beyond_the_last(scan: Path) -> None:
    with pytest.raises(ValueError, match="no waveform 5; waveforms are numbered 0 to 4"):
        find(scan, Selector.WAVEFORM, 5)
    with pytest.raises(ValueError, match="no shot 4; shots are numbered 0 to 3"):
        find(scan, Selector.SHOT, 4)


def test_file_without_waveforms(tmp_path: Path) -> None:
    path = Scene([(1, 8, 4, 1000)], [], [Point(None)]).write(tmp_path / "empty.las")
    with pytest.raises(ValueError, match="no shot 0; the file has no shots"):
        find(path, Selector.SHOT, 0)
    with pytest.raises(ValueError, match="no shot has a time"):
        find(path, Selector.TIME, 1.0)


def test_only_the_packets_of_the_shot_are_read(scan: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    read: list[int] = []
    original = PacketData.read

    def counting(packets: PacketData, offsets: np.ndarray, *rest: Any) -> Any:
        read.extend(offsets.tolist())
        return original(packets, offsets, *rest)

    monkeypatch.setattr(PacketData, "read", counting)
    find(scan, Selector.WAVEFORM, 3, 100)
    find(scan, Selector.SHOT, 1, 100)
    find(scan, Selector.TIME, 100.0, 100)
    # PacketData of four bytes follow a header of 60 bytes.
    assert read == [60 + 4 * number for number in (3, 1, 2, 0)]


@pytest.mark.parametrize("suffix", ["h5", "npz", "las"])
@pytest.mark.parametrize("size", [2, 100])
def test_the_shot_is_that_of_its_block(scan: Path, tmp_path: Path, suffix: str, size: int) -> None:
    path = scan
    if suffix == "h5":
        path = tmp_path / "scan.h5"
        with open_waveforms(scan) as reader, ScanContainerWriter(path, reader.header) as writer:
            for block in reader.blocks():
                writer.write(block)
    elif suffix == "npz":
        path = tmp_path / "scan.npz"
        with open_waveforms(scan) as reader:
            (block,) = reader.blocks()
        np.savez(
            path,
            samples=block.samples,
            sampling_interval=1e-9,
            shot_time=block.shot_times,
        )
    for number, first in ((1, [1, 2]), (3, [4])):
        assert first_samples(find(path, Selector.SHOT, number, size)) == (first, first)


def test_all_columns_of_the_shot_are_selected(scan: Path) -> None:
    block = find(scan, Selector.SHOT, 1).block
    assert block.waveform_numbers.tolist() == [1, 2]
    assert block.attributes.gps_time.tolist() == [200.0, 200.0]
    assert block.geometry.anchor.shape == (2, 3)
    np.testing.assert_array_equal(block.sampling_intervals, [1e-9, 1e-9])
