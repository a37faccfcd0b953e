"""One shot out of a file of several blocks, by number and by time."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest

from fullwaveform.analysis.waveform_selection import By, ChosenShot, find_shot
from fullwaveform.io.opening import open_waveforms

from ..support.las_scenes import Point, Scene

TIMES = [100.0, 200.0, 200.0, 300.0, 300.000003]  # s, of the packets; two of them are one shot


@pytest.fixture
def scan(tmp_path: Path) -> Path:
    """Five waveforms of four shots; the first sample of each is its number."""
    packets = [(1, [number, 50, 50, 50]) for number in range(5)]
    points = [Point(number, gps_time=time) for number, time in enumerate(TIMES)]
    return Scene([(1, 8, 4, 1000)], packets, points).write(tmp_path / "scan.las")


def find(path: Path, by: By, wanted: float, waveforms_per_block: int = 2) -> ChosenShot:
    with open_waveforms(path, waveforms_per_block=waveforms_per_block) as reader:
        return find_shot(reader, by, wanted)


def first_samples(shot: ChosenShot) -> tuple[list[int], list[int]]:
    """First sample of all waveforms of the shot, and of those that were meant."""
    column = shot.block.samples[:, 0]
    return column.tolist(), column[shot.rows].tolist()


@pytest.mark.parametrize("size", [1, 2, 100])
def test_by_waveform_brings_its_shot_and_means_it_alone(scan: Path, size: int) -> None:
    assert first_samples(find(scan, By.WAVEFORM, 2, size)) == ([1, 2], [2])
    assert first_samples(find(scan, By.WAVEFORM, 4, size)) == ([4], [4])


@pytest.mark.parametrize("size", [1, 2, 100])
def test_by_shot_means_all_its_waveforms(scan: Path, size: int) -> None:
    shots = [first_samples(find(scan, By.SHOT, number, size)) for number in range(4)]
    assert shots == [([0], [0]), ([1, 2], [1, 2]), ([3], [3]), ([4], [4])]


def test_by_time_is_exact_to_the_microsecond(scan: Path) -> None:
    assert first_samples(find(scan, By.TIME, 200.0)) == ([1, 2], [1, 2])
    assert first_samples(find(scan, By.TIME, 299.9999995)) == ([3], [3])
    assert first_samples(find(scan, By.TIME, 300.000002)) == ([4], [4])
    for size in (1, 100):
        with pytest.raises(ValueError, match=r"no shot at 300\.0000015 s; the nearest is at 300\."):
            find(scan, By.TIME, 300.0000015, size)


def test_nearest_time_is_told(scan: Path) -> None:
    with pytest.raises(ValueError, match=r"scan\.las has no shot at 140\.0 s; .* at 100\.0 s"):
        find(scan, By.TIME, 140.0)
    with pytest.raises(ValueError, match=r"the nearest is at 300\.000003 s"):
        find(scan, By.TIME, 1e6)


def test_numbers_beyond_the_last(scan: Path) -> None:
    with pytest.raises(ValueError, match="no waveform 5; its 5 waveforms are numbered 0 to 4"):
        find(scan, By.WAVEFORM, 5)
    with pytest.raises(ValueError, match="no shot 4; its 4 shots are numbered 0 to 3"):
        find(scan, By.SHOT, 4)


def test_file_without_waveforms(tmp_path: Path) -> None:
    path = Scene([(1, 8, 4, 1000)], [], [Point(None)]).write(tmp_path / "empty.las")
    with pytest.raises(ValueError, match="no shot 0; it has none"):
        find(path, By.SHOT, 0)
    with pytest.raises(ValueError, match="no shot has a time"):
        find(path, By.TIME, 1.0)


def test_no_block_is_read_behind_the_one_with_the_shot(scan: Path) -> None:
    with open_waveforms(scan, waveforms_per_block=1) as reader:
        find_shot(reader, By.WAVEFORM, 0)
        assert reader.tally.waveforms == 1


def test_everything_of_the_shot_comes_along(scan: Path) -> None:
    block = find(scan, By.SHOT, 1).block
    assert block.waveform_numbers.tolist() == [1, 2]
    assert block.attributes.gps_time.tolist() == [200.0, 200.0]
    assert block.geometry.anchor.shape == (2, 3)
    np.testing.assert_array_equal(block.sampling_intervals, [1e-9, 1e-9])
