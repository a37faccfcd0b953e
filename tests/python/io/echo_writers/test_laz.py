"""Echoes as compressed points, and properties of LAS and LAZ files alike."""

from __future__ import annotations

from itertools import pairwise
from pathlib import Path

import laspy
import numpy as np
import pytest

from fullwaveform.io.echo_writers.opening import open_echo_file

from ...support.echo_tables import echo_table, rows, written


def test_laz_is_compressed_and_holds_the_same_points_as_las(tmp_path: Path) -> None:
    table = echo_table([3] * 4000)
    (tmp_path / "las").mkdir()
    (tmp_path / "laz").mkdir()
    plain = written(tmp_path / "las" / "e.las", table)
    packed = written(tmp_path / "laz" / "e.LAZ", table)
    assert packed.stat().st_size < plain.stat().st_size / 4
    las, laz = laspy.read(plain), laspy.read(packed)
    assert laz.header.are_points_compressed
    assert list(laz.point_format.dimension_names) == list(las.point_format.dimension_names)
    for name in las.point_format.dimension_names:
        np.testing.assert_array_equal(np.array(laz[name]), np.array(las[name]), name)
    np.testing.assert_allclose(laz.x, np.arange(12000.0), atol=1e-9)


def test_laz_without_a_compressor_is_refused(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(laspy.LazBackend, "detect_available", lambda: ())
    with pytest.raises(ValueError, match=r"cannot write .*e\.laz: .*; run pip install lazrs"):
        open_echo_file(tmp_path / "e.laz", None)
    written(tmp_path / "e.las", echo_table([1]))


def test_laz_keeps_records_after_the_points(tmp_path: Path) -> None:
    header = laspy.LasHeader(version="1.4", point_format=9)
    wkt = b'LOCAL_CS["somewhere",UNIT["metre",1]]\0'
    header.evlrs = laspy.vlrs.vlrlist.VLRList([laspy.VLR("LASF_Projection", 2112, "", wkt)])
    with open_echo_file(tmp_path / "e.laz", header) as writer:
        writer.write(echo_table([2]))
    las = laspy.read(tmp_path / "e.laz")
    assert [record.record_data_bytes() for record in las.header.evlrs] == [wkt]
    assert las.intensity.tolist() == [10, 11]


@pytest.mark.parametrize("ending", [".las", ".laz"])
@pytest.mark.parametrize(("version", "point_format"), [("1.3", 4), ("1.4", 9)])
def test_bytes_of_points_do_not_depend_on_the_division_into_tables(
    tmp_path: Path, ending: str, version: str, point_format: int
) -> None:
    header = laspy.LasHeader(version=version, point_format=point_format)
    table = echo_table([1] * 60_000)  # longer than a chunk of compressed points
    contents = []
    for cut in ([0, 60_000], [0, 1, 7, 7, 49_000, 60_000]):
        with open_echo_file(tmp_path / f"e{ending}", header, overwrite=True) as writer:
            for begin, end in pairwise(cut):
                writer.write(rows(table, begin, end))
        contents.append((tmp_path / f"e{ending}").read_bytes())
    assert contents[0] == contents[1]


def test_ranges_of_extra_dimensions_are_not_stored(tmp_path: Path) -> None:
    las = laspy.read(written(tmp_path / "e.las", echo_table([3])))
    (record,) = las.header.vlrs.get("ExtraBytesVlr")
    stated = [(one.min, one.max) for one in record.extra_bytes_structs]
    assert stated == [(None, None)] * 20


def test_notes_on_skipped_points_and_limited_numbers(tmp_path: Path) -> None:
    xyz = np.zeros((9, 3))
    xyz[4] = np.nan
    header = laspy.LasHeader(version="1.3", point_format=4)
    with open_echo_file(tmp_path / "e.las", header) as writer:
        writer.write(echo_table([9], xyz=xyz))
    skipped, saturated = writer.notes()
    assert skipped.startswith("1 of 9 echoes skipped: coordinates not finite or out of range")
    assert saturated.startswith("1 shot has more echoes than the largest return number")
