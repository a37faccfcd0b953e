"""Comparison of files that number their shots, of which two can have the same time."""

from __future__ import annotations

from pathlib import Path

import laspy
import numpy as np
import numpy.typing as npt
import pyarrow as pa
import pyarrow.parquet as pq
import pytest

from fullwaveform.analysis.comparison import Comparison, MatchedBy, compare_echoes

from ..support.table_files import write_table

NUMBERS = [19640500500108370, 19641100500108370, 2**64 - 1, 3]
BEAMS = ["BEAM0101", "BEAM1011", "BEAM1011", "BEAM0101"]
TIMES = [5.0, 5.0, 6.0, 7.0]


def write(
    path: Path,
    heights: list[float],
    numbers: list[int],
    beams: list[str] | None = None,
    times: list[float] | None = None,
) -> Path:
    """A table of echoes, one per shot, in a column of the ground."""
    if path.suffix == ".las":
        return write_las(path, heights, numbers, beams or [], times or [])
    columns: dict[str, npt.ArrayLike] = {
        "x": [5.0] * len(heights),
        "y": [6.0] * len(heights),
        "z": heights,
        "shot_number": np.array(numbers, np.uint64),
    }
    if times is not None:
        columns["gps_time"] = times
    if beams is not None:
        columns["beam"] = np.array(beams, "S16" if path.suffix == ".h5" else None)
    return write_table(path, columns)


def write_las(
    path: Path, heights: list[float], numbers: list[int], beams: list[str], times: list[float]
) -> Path:
    header = laspy.LasHeader(point_format=6, version="1.4")
    header.scales = np.full(3, 0.001)
    header.add_extra_dims(
        [laspy.ExtraBytesParams("beam", "uint8"), laspy.ExtraBytesParams("shot_number", "uint64")]
    )
    las = laspy.LasData(header)
    las.x, las.y = np.full(len(heights), 5.0), np.full(len(heights), 6.0)
    las.z, las.gps_time = np.array(heights), np.array(times)
    las["beam"] = np.array([int(name[4:], 2) for name in beams], np.uint8)
    las["shot_number"] = np.array(numbers, np.uint64)
    las.write(path)
    return path


def differences(comparison: Comparison) -> list[float]:
    return sorted(np.round(comparison.drawn, 6).tolist())


@pytest.mark.parametrize("ending", [".parquet", ".h5", ".csv", ".npz", ".las"])
def test_shots_of_two_beams_at_one_time_are_two_shots(tmp_path: Path, ending: str) -> None:
    reference = write(tmp_path / "a.parquet", [30.0, 20.0, 10.0, 9.0], NUMBERS, BEAMS, TIMES)
    # The first two exchanged: by time alone both had a partner. Rows in another order.
    order = [3, 1, 0, 2]
    heights = [[20.1, 30.1, 10.25, 9.5][i] for i in order]
    numbers, beams = [NUMBERS[i] for i in order], [BEAMS[i] for i in order]
    found = write(tmp_path / f"b{ending}", heights, numbers, beams, [TIMES[i] for i in order])
    result = compare_echoes(reference, found)
    assert result.matched_by is MatchedBy.NUMBER
    assert differences(result) == [-0.5, -0.25]
    assert (result.missed, result.extra) == (2, 2)
    assert (result.reference_shots, result.found_shots, result.shared_shots) == (4, 4, 4)


def test_equal_numbers_of_two_beams_are_two_shots(tmp_path: Path) -> None:
    reference = write(tmp_path / "a.parquet", [30.0, 20.0], [1, 1], BEAMS[:2], [5.0, 5.0])
    found = write(tmp_path / "b.parquet", [30.1, 30.2], [1, 1], BEAMS[:2], [5.0, 5.0])
    result = compare_echoes(reference, found)
    assert (result.matched, result.missed, result.extra, result.shared_shots) == (1, 1, 1, 2)
    assert differences(result) == [-0.1]


def test_tables_without_times_are_compared_by_number(tmp_path: Path) -> None:
    reference = write(tmp_path / "a.parquet", [30.0, 20.0, 7.0], [8, 7, 6])
    found = write(tmp_path / "b.csv", [19.5, 30.25], [7, 8])
    result = compare_echoes(reference, found)
    assert (result.matched_by, result.shared_shots) == (MatchedBy.NUMBER, 2)
    assert differences(result) == [-0.25, 0.5]
    assert (result.missed, result.extra) == (1, 0)


@pytest.mark.parametrize("numbers", [[100, 101], None])
def test_without_common_numbers_times_decide(tmp_path: Path, numbers: list[int] | None) -> None:
    reference = write(tmp_path / "a.parquet", [30.0, 20.0], [1, 2], times=[5.0, 6.0])
    found = write(tmp_path / "b.parquet", [30.1, 20.1], numbers or [0, 0], times=[5.0, 6.0])
    if numbers is None:
        table = pq.read_table(found).drop_columns("shot_number")
        pq.write_table(table.append_column("shot_number", pa.array([None, "x"])), found)
    assert compare_echoes(reference, found).matched_by is MatchedBy.SHOT
