"""Files of selected echoes: the rows that the command wrote, and nothing else."""

from __future__ import annotations

import json
import os
from pathlib import Path

import laspy
import numpy as np
import pyarrow as pa
import pyarrow.parquet as pq
import pytest
from laspy.vlrs import VLR
from laspy.vlrs.vlrlist import VLRList

from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.echo_writers.csv_metadata import metadata_path
from fullwaveform.io.echo_writers.restricting import write_rows_of
from fullwaveform.io.run_record import RUN_METADATA_KEY
from fullwaveform.view.cache import cache_folder
from fullwaveform.view.directory import WaveformDirectory
from fullwaveform.view.echo_index import EchoIndex
from fullwaveform.view.export import SelectionExport
from fullwaveform.view.selection import Selection

from ..support.command_line import run
from . import scenes
from .scenes import EAST, EAST_ROWS


def extracted(scan: Path, output: Path) -> Path:
    call = run("extract", scan, "-o", output, "--threshold", "20")
    assert call.exit_code == 0, call.output
    return output


def saved(
    path: Path, waveforms: WaveformDirectory, selection: Selection, kind: str, folder: Path
) -> Path:
    echoes = EchoIndex.of(path, waveforms)
    size, parts = SelectionExport(path, echoes).content(selection, kind)
    output = folder / f"saved.{kind}"
    output.write_bytes(b"".join(parts))
    assert output.stat().st_size == size
    echoes.close()
    assert not list(cache_folder().glob("selection-*"))
    return output


def test_csv_has_the_lines_of_the_command(
    scan: Path, waveforms: WaveformDirectory, tmp_path: Path
) -> None:
    path = extracted(scan, tmp_path / "echoes.csv")
    lines = path.read_bytes().splitlines(keepends=True)
    output = saved(path, waveforms, EAST, "csv", tmp_path)
    assert output.read_bytes() == b"".join([lines[0], *(lines[1 + row] for row in EAST_ROWS)])


def test_parquet_has_the_rows_of_the_command(
    scan: Path, waveforms: WaveformDirectory, tmp_path: Path
) -> None:
    path = extracted(scan, tmp_path / "echoes.parquet")
    found = pq.read_table(saved(path, waveforms, EAST, "parquet", tmp_path))
    whole = pq.read_table(path)
    assert found.schema.equals(whole.schema, check_metadata=True)
    for name in whole.column_names:
        expected = whole[name].to_numpy()[EAST_ROWS]
        np.testing.assert_array_equal(found[name].to_numpy(), expected, err_msg=name)


@pytest.mark.parametrize("source", ["parquet", "h5"])
def test_tables_become_the_lines_of_the_command(
    scan: Path, waveforms: WaveformDirectory, tmp_path: Path, source: str
) -> None:
    lines = extracted(scan, tmp_path / "echoes.csv").read_bytes().splitlines(keepends=True)
    path = extracted(scan, tmp_path / f"echoes.{source}")
    output = saved(path, waveforms, EAST, "csv", tmp_path)
    assert output.read_bytes() == b"".join([lines[0], *(lines[1 + row] for row in EAST_ROWS)])


@pytest.mark.parametrize("source", ["csv", "h5"])
def test_tables_become_the_parquet_file_of_the_command(
    scan: Path, waveforms: WaveformDirectory, tmp_path: Path, source: str
) -> None:
    expected = extracted(scan, tmp_path / "echoes.parquet").read_bytes()
    path = extracted(scan, tmp_path / f"echoes.{source}")
    output = saved(path, waveforms, Selection(), "parquet", tmp_path)
    assert output.read_bytes() == expected


@pytest.mark.parametrize(("source", "kind"), [("las", "las"), ("las", "laz"), ("laz", "las")])
def test_las_has_the_points_and_records_of_the_command(
    scan: Path, waveforms: WaveformDirectory, tmp_path: Path, source: str, kind: str
) -> None:
    path = extracted(scan, tmp_path / f"echoes.{source}")
    found = laspy.read(saved(path, waveforms, EAST, kind, tmp_path))
    whole = laspy.read(path)
    assert found.points.array.tobytes() == whole.points.array[EAST_ROWS].tobytes()
    assert found.header.are_points_compressed == (kind == "laz")
    assert found.header.maxs.tolist() == pytest.approx([90.0, 90.0, 127.0], abs=1e-3)
    records = [(record.user_id, record.record_id) for record in whole.header.vlrs]
    assert [(one.user_id, one.record_id) for one in found.header.vlrs] == records
    for name in ("version", "point_format", "uuid", "system_identifier", "creation_date"):
        assert getattr(found.header, name) == getattr(whole.header, name)


@pytest.mark.parametrize("kind", ["csv", "parquet", "las", "laz"])
def test_selections_of_nothing_and_of_all(
    scan: Path, waveforms: WaveformDirectory, tmp_path: Path, kind: str
) -> None:
    path = extracted(scan, tmp_path / f"echoes.{kind}")
    everywhere = saved(path, waveforms, Selection(), kind, tmp_path)
    nowhere = Selection((1e6, 0.0, 1e6, 0.0))
    assert everywhere.read_bytes() == path.read_bytes()
    empty = saved(path, waveforms, nowhere, kind, tmp_path)
    if kind == "csv":
        assert empty.read_bytes() == path.read_bytes().splitlines(keepends=True)[0]
    elif kind == "parquet":
        assert pq.read_table(empty).num_rows == 0
    else:
        assert laspy.read(empty).header.point_count == 0


def test_rows_of_many_groups_are_in_order(tmp_path: Path) -> None:
    """Written with row groups of another size than those of the command."""
    source, output = tmp_path / "a.parquet", tmp_path / "b.parquet"
    count = 300_000
    names = ("x", "y", "z", "echo_number")
    columns = {name: np.arange(count) * (1.0 + at) for at, name in enumerate(names)}
    pq.write_table(pa.table(columns), source, row_group_size=70_001)
    chosen = np.random.default_rng(1).random(count) < 0.6
    write_rows_of(source, chosen, output)
    found = pq.read_table(output)
    for name in names:
        np.testing.assert_array_equal(found[name].to_numpy(), columns[name][chosen])
    groups = pq.ParquetFile(output).metadata
    assert groups.row_group(0).num_rows == 131072


def test_lines_without_values_are_not_counted(tmp_path: Path) -> None:
    source, output = tmp_path / "a.csv", tmp_path / "b.csv"
    source.write_bytes(b"x,y,z\r\n1,1,1\r\n\r\n2,2,2\r\n\n3,3,3")
    write_rows_of(source, np.array([False, True, True]), output)
    assert output.read_bytes() == b"x,y,z\r\n2,2,2\r\n3,3,3"


@pytest.mark.parametrize("lines", ['"a\nb"', 'x,y,z,name\n1,1,1,"a\n\nb"'])
def test_line_breaks_inside_quotes_are_refused(tmp_path: Path, lines: str) -> None:
    """Lines would not be rows."""
    source, output = tmp_path / "a.csv", tmp_path / "b.csv"
    source.write_text(f"{lines}\n2,2,2,c\n", encoding="ascii")
    with pytest.raises(WaveformFileError, match=r"a\.csv has a line break inside quotes; save the"):
        write_rows_of(source, np.array([True]), output)
    assert not output.exists()


def test_extended_records_are_kept(tmp_path: Path) -> None:
    source, output = tmp_path / "a.las", tmp_path / "b.las"
    whole = laspy.create(point_format=6, file_version="1.4")
    whole.x = whole.y = whole.z = np.array([1.0, 2.0])
    whole.evlrs = VLRList([VLR("someone", 77, "of a project", b"flight 12")])
    whole.write(source)
    write_rows_of(source, np.array([False, True]), output)
    found = laspy.read(output)
    assert np.asarray(found.x).tolist() == [2.0]
    (record,) = found.evlrs
    assert (record.user_id, record.record_id) == ("someone", 77)
    assert (record.description, record.record_data) == ("of a project", b"flight 12")


def test_invalid_coordinate_system_is_reported(
    scan: Path, waveforms: WaveformDirectory, tmp_path: Path
) -> None:
    """As of metadata that were edited."""
    path = extracted(scan, tmp_path / "echoes.csv")
    metadata = json.loads(metadata_path(path).read_bytes())
    metadata["notes"][0][RUN_METADATA_KEY]["crs"] = "somewhere"
    metadata_path(path).write_text(json.dumps(metadata), encoding="utf-8")
    echoes = EchoIndex.of(path, waveforms)
    with pytest.raises(
        WaveformFileError, match="invalid coordinate system in its metadata, 'somew"
    ):
        SelectionExport(path, echoes).content(EAST, "parquet")
    assert not list(cache_folder().glob("selection-*"))
    echoes.close()


def test_missing_rows_are_reported(tmp_path: Path) -> None:
    source = tmp_path / "a.csv"
    source.write_bytes(b"x,y,z\n1,1,1\n")
    with pytest.raises(WaveformFileError, match=r"a\.csv: found 1 of 2 rows"):
        write_rows_of(source, np.array([True, True]), tmp_path / "b.csv")


def test_changed_file_is_refused(waveforms: WaveformDirectory, tmp_path: Path) -> None:
    path = scenes.write_echoes(tmp_path / "echoes.csv")
    echoes = EchoIndex.of(path, waveforms)
    with path.open("a", encoding="ascii") as stream:
        stream.write("\n")
    export = SelectionExport(path, echoes)
    with pytest.raises(OSError, match="was changed since the viewer was started"):
        export.content(EAST, "csv")
    path.unlink()
    with pytest.raises(FileNotFoundError, match="was removed or renamed since the viewer was star"):
        export.content(EAST, "csv")
    echoes.close()


def test_folders_of_killed_viewers_are_removed(
    scan: Path, waveforms: WaveformDirectory, tmp_path: Path
) -> None:
    path = extracted(scan, tmp_path / "echoes.csv")
    left, current = (cache_folder() / f"selection-{name}" for name in ("left", "current"))
    for folder in (left, current):
        folder.mkdir()
        (folder / "selection.csv").write_bytes(b"x")
    os.utime(left, (0, 0))
    echoes = EchoIndex.of(path, waveforms)
    _, parts = SelectionExport(path, echoes).content(EAST, "csv")
    assert b"".join(parts)
    assert (left.exists(), current.exists()) == (False, True)
    (current / "selection.csv").unlink()
    current.rmdir()
    echoes.close()


def test_formats_are_those_that_hold_all_values(
    scan: Path, waveforms: WaveformDirectory, tmp_path: Path
) -> None:
    path = scenes.write_echoes(tmp_path / "echoes.csv")
    echoes = EchoIndex.of(path, waveforms)
    export = SelectionExport(path, echoes)
    with pytest.raises(ValueError, match=r"echoes\.csv cannot be saved as 'las'.*values: csv$"):
        export.content(EAST, "las")
    echoes.close()
    for ending, formats in (("csv", ("csv", "parquet")), ("h5", ("csv", "parquet"))):
        path = extracted(scan, tmp_path / f"all.{ending}")
        echoes = EchoIndex.of(path, waveforms)
        assert SelectionExport(path, echoes).formats == formats
        echoes.close()
    returns = EchoIndex.of(scan, waveforms)  # of a scan, which has waveforms
    assert SelectionExport(scan, returns).formats == ("zip",)
    returns.close()


def test_las_file_of_a_table_is_made_when_asked_for(
    scan: Path, waveforms: WaveformDirectory, tmp_path: Path
) -> None:
    table = extracted(scan, tmp_path / "echoes.parquet")
    calls = []

    def as_las(with_waveforms: bool) -> Path:
        assert not with_waveforms
        calls.append(1)
        return extracted(scan, tmp_path / f"echoes{len(calls)}.las")

    echoes = EchoIndex.of(table, waveforms)
    export = SelectionExport(table, echoes, as_las)
    assert export.formats == ("csv", "parquet", "las", "laz", "zip")
    assert calls == []
    _, parts = export.content(EAST, "las")
    output = tmp_path / "saved.las"
    output.write_bytes(b"".join(parts))
    whole = laspy.read(tmp_path / "echoes1.las")
    assert laspy.read(output).points.array.tobytes() == whole.points.array[EAST_ROWS].tobytes()
    echoes.close()


def test_las_file_without_some_echoes_is_refused(
    scan: Path, waveforms: WaveformDirectory, tmp_path: Path
) -> None:
    """As of echoes beyond the 32 bits of its coordinates; rows and points would not agree."""
    table, other = extracted(scan, tmp_path / "a.parquet"), extracted(scan, tmp_path / "a.las")
    fewer = tmp_path / "fewer.las"
    write_rows_of(other, np.array([True] * 6 + [False]), fewer)
    echoes = EchoIndex.of(table, waveforms)
    export = SelectionExport(table, echoes, lambda with_waveforms: fewer)
    with pytest.raises(WaveformFileError, match="LAS files can hold 6 of 7 echoes only"):
        export.content(EAST, "las")
    echoes.close()
