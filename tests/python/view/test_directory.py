"""The shot of any waveform, without what precedes it in the file."""

from __future__ import annotations

import os
from pathlib import Path
from typing import Any

import numpy as np
import pytest

from fullwaveform.analysis.waveform_selection import Selector, find_shot
from fullwaveform.io.opening import open_waveforms
from fullwaveform.simulation import ScanSettings, simulate_scan, write_recording, write_scan
from fullwaveform.view import directory as module
from fullwaveform.view.directory import BLOCK, WaveformDirectory

from ..support.las_scenes import Point, Scene, four_shots, shuffled

SHOTS = 1300  # more than two blocks of 500 waveforms of either channel


@pytest.fixture(scope="module")
def folder(tmp_path_factory: pytest.TempPathFactory) -> Path:
    folder = tmp_path_factory.mktemp("scans")
    scan = simulate_scan(ScanSettings(shots=SHOTS))
    write_scan(scan, folder / "scan.las")
    for name in ("scan.pls", "scan.h5"):
        write_recording(scan, folder / name, overwrite=True)
    count = SHOTS
    np.savez(
        folder / "scan.npz",
        samples=np.arange(count * 4, dtype=np.uint16).reshape(count, 4),
        sampling_interval=1e-9,
    )
    return folder


def counted_searches(monkeypatch: pytest.MonkeyPatch) -> list[Any]:
    """The calls of the search that visits all points before a shot."""
    calls: list[Any] = []

    def search(*given: Any) -> Any:
        calls.append(given)
        return find_shot(*given)

    monkeypatch.setattr(module, "find_shot", search)
    return calls


@pytest.mark.parametrize("name", ["scan.las", "scan.pls", "scan.h5", "scan.npz"])
def test_shot_is_that_of_a_search(name: str, folder: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    searches = counted_searches(monkeypatch)
    with (
        open_waveforms(folder / name, waveforms_per_block=BLOCK) as reader,
        open_waveforms(folder / name) as other,
    ):
        waveforms = WaveformDirectory.of(reader, {})
        for number in (0, 1, 498, 499, 500, 501, 777, 1001, len(waveforms) - 1):
            found = waveforms.shot(number).block
            expected = find_shot(other, Selector.WAVEFORM, number)
            assert found.waveform_numbers.tolist() == expected.block.waveform_numbers.tolist()
            assert found.counts.tolist() == expected.block.counts.tolist()
            width = int(found.counts.max())
            assert (found.samples[:, :width] == expected.block.samples[:, :width]).all()
            assert (found.attributes.gps_time == expected.block.attributes.gps_time).all() or (
                np.isnan(found.attributes.gps_time).all()
            )
            shot = waveforms.shot_number(number)
            by_shot = find_shot(other, Selector.SHOT, shot)
            assert by_shot.block.waveform_numbers.tolist() == found.waveform_numbers.tolist()
        waveforms.close()
    assert searches == []


def test_shots_of_several_waveforms_are_neighbours(folder: Path) -> None:
    with open_waveforms(folder / "scan.las", waveforms_per_block=BLOCK) as reader:
        waveforms = WaveformDirectory.of(reader, {})
        assert len(waveforms) == 2 * SHOTS
        assert (waveforms.next_shot(500, 1), waveforms.next_shot(501, 1)) == (502, 502)
        assert (waveforms.next_shot(500, -1), waveforms.next_shot(1, -1)) == (498, None)
        assert waveforms.next_shot(2 * SHOTS - 2, 1) is None
        waveforms.close()


def test_shots_without_times_are_searched(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    searches = counted_searches(monkeypatch)
    packets = [(1, [number, 50, 50, 50]) for number in range(6)]
    points = [Point(number, gps_time=7.0) for number in range(6)]
    path = Scene([(1, 8, 4, 1000)], packets, points).write(tmp_path / "scan.las")
    with open_waveforms(path, waveforms_per_block=2) as reader:
        waveforms = WaveformDirectory.of(reader, {})
        assert waveforms.shot(4).block.samples[:, 0].tolist() == [4]
        assert waveforms.next_shot(4, 1) == 5
        waveforms.close()
    assert len(searches) == 1


def test_points_in_another_order_than_time_are_found(tmp_path: Path) -> None:
    path = shuffled(four_shots().write(tmp_path / "a.las"), tmp_path / "b.las", [2, 0, 3, 1])
    with open_waveforms(path, waveforms_per_block=1) as reader:
        waveforms = WaveformDirectory.of(reader, {})
        found = [waveforms.shot(number).block.samples[0, 0] for number in range(4)]
        assert found == [1, 5, 9, 13]
        waveforms.close()


def test_first_waveform_at_a_time(tmp_path: Path) -> None:
    path = four_shots().write(tmp_path / "scan.las")
    with open_waveforms(path, waveforms_per_block=2) as reader:
        waveforms = WaveformDirectory.of(reader, {})
        numbers = waveforms.numbers_at(np.array([103.0, 100.0, 100.5, np.nan]))
        assert numbers.tolist() == [3, 0, -1, -1]
        waveforms.close()


@pytest.mark.parametrize("number", [-1, 4, 10**12])
def test_unknown_number_is_refused(tmp_path: Path, number: int) -> None:
    path = four_shots().write(tmp_path / "scan.las")
    with open_waveforms(path) as reader:
        waveforms = WaveformDirectory.of(reader, {})
        with pytest.raises(
            ValueError, match=f"no waveform {number}; waveforms are numbered 0 to 3"
        ):
            waveforms.shot(number)
        waveforms.close()


def test_changed_and_removed_files_are_reported(tmp_path: Path) -> None:
    path = four_shots().write(tmp_path / "scan.las")
    with open_waveforms(path) as reader:
        waveforms = WaveformDirectory.of(reader, {})
        os.utime(path, ns=(0, 0))
        with pytest.raises(OSError, match="was changed since the viewer was started"):
            waveforms.shot(0)
        path.unlink()
        with pytest.raises(FileNotFoundError, match="was removed or renamed since"):
            waveforms.shot(0)
        waveforms.close()


def test_directory_is_made_once_for_each_state_of_a_file(tmp_path: Path, cache: Path) -> None:
    path = four_shots().write(tmp_path / "scan.las")

    def made() -> list[str]:
        with open_waveforms(path) as reader:
            waveforms = WaveformDirectory.of(reader, {})
            name = os.path.basename(  # noqa: PTH119
                module.cached_name("waveforms", path, waveforms.identity)
            )
            waveforms.close()
        kept = name.rpartition("-")[0]
        return sorted(one.name for one in (cache / "fullwaveform" / "view").glob(f"{kept}-*"))

    first = made()
    assert made() == first
    assert len(first) == 1
    os.utime(path, ns=(0, 0))
    assert len(made()) == 1
    assert made() != first
