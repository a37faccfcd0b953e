"""Echoes written to files of every format, read back by independent libraries."""

from __future__ import annotations

import csv
import json
import time
from itertools import pairwise
from pathlib import Path

import h5py
import laspy
import numpy as np
import pyarrow as pa
import pyarrow.parquet as pq
import pytest

from fullwaveform.data.echo_columns import EchoTable, echo_table_to_arrow, table_columns
from fullwaveform.io.echo_writers import hdf5 as hdf5_writer
from fullwaveform.io.echo_writers import parquet as parquet_writer
from fullwaveform.io.echo_writers.opening import ECHO_ENDINGS, open_echo_file

from ...support.echo_tables import echo_table, rows, written

NAN = float("nan")
# Two echoes of one shot and a row of a waveform without echoes.
EXPECTED: dict[str, list[float]] = {
    "x": [433978.209, 1.0, NAN],
    "y": [5103979.436, 2.0, NAN],
    "z": [-1e-9, 3.0, NAN],
    "gps_time": [383661.97316074, 383661.97316074, 383662.5],
    "echo_number": [1, 2, 0],
    "echo_count": [2, 2, 0],
    "amplitude": [10.5, 200.0, NAN],
    "amplitude_db": [12.5, 0.25, NAN],
    "amplitude_library_db": [13.5, 0.5, NAN],
    "sigma_ns": [1.75, 0.1, NAN],
    "fwhm_ns": [4.125, 0.25, NAN],
    "position": [17.125, 52.3, NAN],
    "position_library": [17.2, 52.4, NAN],
    "sigma_position_ns": [0.0625, 0.5, NAN],
    "sigma_amplitude": [1.5, NAN, NAN],
    "sigma_width_ns": [0.25, NAN, NAN],
    "sigma_range": [0.0078125, 0.125, NAN],
    "significance": [12.5, NAN, NAN],
    "fit_flags": [5, 0, 0],
    "reduced_chi_square": [1.25, 0.75, NAN],
    "echo_type": [2, 5, 0],
    "quality": [0, 1, 0],
    "reflectance": [NAN, -2.5, NAN],
    "time": [1.25e-07, 2.0, NAN],
    "waveform_number": [7, 2**40, 9],
    "channel_flag": [1, 0, 255],
    "descriptor": [0, 2, 255],
    "classification": [2, 0, 0],
    "original_return_number": [1, 0, 0],
}
TYPES = {
    **dict.fromkeys(EXPECTED, "float64"),
    **dict.fromkeys(("echo_number", "echo_count", "waveform_number"), "int64"),
    **dict.fromkeys(
        ("amplitude", "amplitude_db", "amplitude_library_db", "reflectance"), "float32"
    ),
    **dict.fromkeys(
        ("sigma_position_ns", "sigma_amplitude", "sigma_width_ns", "sigma_range"), "float32"
    ),
    **dict.fromkeys(("significance", "reduced_chi_square"), "float32"),
    **dict.fromkeys(("fit_flags", "echo_type", "quality", "channel_flag", "descriptor"), "uint8"),
    **dict.fromkeys(("classification", "original_return_number"), "uint8"),
}
METADATA = {"version": "0.1.0", "mode": "three-point"}


def by_hand() -> EchoTable:
    columns = {name: np.array(values, TYPES[name]) for name, values in EXPECTED.items()}
    xyz = np.column_stack([columns.pop(axis) for axis in "xyz"])
    return echo_table([2, 1], xyz=xyz, **columns)


def assert_expected(columns: dict[str, np.ndarray]) -> None:
    assert list(columns) == list(EXPECTED)
    for name, values in columns.items():
        assert values.dtype == TYPES[name], name
        np.testing.assert_array_equal(values, np.array(EXPECTED[name], TYPES[name]), name)


def test_parquet_holds_every_value(tmp_path: Path) -> None:
    table = pq.read_table(written(tmp_path / "e.parquet", by_hand()))
    assert table.schema.field("waveform_number").type == pa.int64()
    assert all(column.null_count == 0 for column in table.columns)
    assert_expected({name: table[name].to_numpy() for name in table.column_names})


@pytest.mark.parametrize("ending", [".h5", ".hdf5"])
def test_hdf5_holds_every_value(tmp_path: Path, ending: str) -> None:
    with h5py.File(written(tmp_path / f"e{ending}", by_hand())) as file:
        assert set(file) == set(EXPECTED)
        assert_expected({name: file[name][:] for name in EXPECTED})
        assert all(file[name].chunks and file[name].compression == "gzip" for name in file)


def test_csv_holds_every_value(tmp_path: Path) -> None:
    with written(tmp_path / "e.csv", by_hand()).open(newline="") as stream:
        lines = list(csv.DictReader(stream))
    columns = {name: [float(line[name]) for line in lines] for name in lines[0]}
    assert_expected({name: np.array(v).astype(TYPES[name]) for name, v in columns.items()})


def test_ascii_export_has_a_line_per_echo(tmp_path: Path) -> None:
    table = echo_table(
        [2],
        waveform_number=np.array([17, 18]),
        amplitude_library_db=np.array([812.0, 0.1], np.float32),
        position=np.array([57.25, 1e-9]),
        sigma_samples=np.array([1.9, NAN]),
        gps_time=np.array([0.5, 383661.97316074]),
    )
    path = written(tmp_path / "e.txt", table, echo_table([]))
    assert path.read_bytes() == b"17 812 57.25 1.9 0.5\n18 0.1 1e-09 nan 383661.97316074\n"


def test_units_and_descriptions_are_stored(tmp_path: Path) -> None:
    table = pq.read_table(written(tmp_path / "e.parquet", by_hand()))
    arrow = echo_table_to_arrow(by_hand())
    (tmp_path / "e.parquet").unlink()
    with h5py.File(written(tmp_path / "e.h5", by_hand())) as file:
        attributes = {name: dict(file[name].attrs) for name in file}
    for column in table_columns():
        expected = {"unit": column.unit, "description": column.description}
        assert attributes[column.name] == expected
        for schema in (table.schema, arrow.schema):
            stored = schema.field(column.name).metadata
            assert {key: stored[key.encode()].decode() for key in expected} == expected
    assert attributes["sigma_ns"]["unit"] == "ns"
    assert attributes["position"]["unit"] == "samples"
    assert attributes["time"]["unit"] == "s"


def test_run_metadata_is_stored_if_given(tmp_path: Path) -> None:
    path = written(tmp_path / "e.parquet", by_hand(), metadata=METADATA)
    assert json.loads(pq.read_schema(path).metadata[b"fullwaveform"]) == METADATA
    path.unlink()
    assert b"fullwaveform" not in (
        pq.read_schema(written(tmp_path / "e.parquet", by_hand())).metadata or {}
    )
    (tmp_path / "e.parquet").unlink()
    with h5py.File(written(tmp_path / "e.h5", by_hand(), metadata=METADATA)) as file:
        assert json.loads(file.attrs["fullwaveform"]) == METADATA
    (tmp_path / "e.h5").unlink()
    written(tmp_path / "e.txt", echo_table([2]), metadata=METADATA)  # a format without metadata


@pytest.fixture
def small_groups(monkeypatch: pytest.MonkeyPatch) -> int:
    monkeypatch.setattr(parquet_writer, "ROWS_PER_GROUP", 100)
    monkeypatch.setattr(hdf5_writer, "ROWS_PER_CHUNK", 100)
    return 100


@pytest.mark.parametrize("ending", [".csv", ".parquet", ".h5", ".txt"])
def test_bytes_do_not_depend_on_the_division_into_tables(
    tmp_path: Path, ending: str, small_groups: int
) -> None:
    random = np.random.default_rng(5)
    table = echo_table([1] * 1050, xyz=random.normal(size=(1050, 3)))
    cuts = ([0, 1050], [0, 1, 1, 100, 101, 350, 1050], [*range(0, 1050, 7), 1050])
    contents = []
    for number, cut in enumerate(cuts):
        (folder := tmp_path / str(number)).mkdir()
        parts = [rows(table, *ends) for ends in pairwise(cut)]
        contents.append(written(folder / f"e{ending}", *parts).read_bytes())
    assert contents[0] == contents[1] == contents[2]


@pytest.mark.parametrize("ending", [".parquet", ".h5"])
def test_bytes_do_not_depend_on_the_time_of_writing(tmp_path: Path, ending: str) -> None:
    contents = []
    for number in range(2):
        (folder := tmp_path / str(number)).mkdir()
        contents.append(written(folder / f"e{ending}", by_hand(), metadata=METADATA).read_bytes())
        end = int(time.time())
        while number == 0 and int(time.time()) == end:  # times in such files are whole seconds
            time.sleep(0.01)
    assert contents[0] == contents[1]


def test_many_small_tables_make_groups_of_one_size(tmp_path: Path, small_groups: int) -> None:
    path = written(tmp_path / "e.parquet", *[echo_table([1])] * 250)
    groups = pq.ParquetFile(path).metadata
    sizes = [groups.row_group(i).num_rows for i in range(groups.num_row_groups)]
    assert sizes == [small_groups, small_groups, 50]


@pytest.mark.parametrize("tables", [[], [echo_table([])]])
def test_empty_files_have_all_columns(tmp_path: Path, tables: list[EchoTable]) -> None:
    table = pq.read_table(written(tmp_path / "e.parquet", *tables))
    assert (table.num_rows, table.column_names) == (0, list(EXPECTED))
    (tmp_path / "e.parquet").unlink()
    with h5py.File(written(tmp_path / "e.h5", *tables)) as file:
        assert {file[name].shape for name in EXPECTED} == {(0,)}
    (tmp_path / "e.h5").unlink()
    assert written(tmp_path / "e.txt", *tables).read_bytes() == b""


def test_ending_selects_the_format(tmp_path: Path) -> None:
    assert set(ECHO_ENDINGS) == {".las", ".laz", ".csv", ".parquet", ".h5", ".hdf5", ".txt"}
    for name in ("e.dat", "e", ".las", "las"):
        with pytest.raises(ValueError, match=r"must end in \.las, .* or \.txt"):
            open_echo_file(tmp_path / name, None)
    empty = {e: open_echo_file(tmp_path / f"e{e.upper()}", None).takes_empty for e in ECHO_ENDINGS}
    assert [ending for ending, takes in empty.items() if not takes] == [".las", ".laz", ".txt"]


@pytest.mark.parametrize("ending", ECHO_ENDINGS)
def test_write_outside_the_with_statement_is_refused(tmp_path: Path, ending: str) -> None:
    writer = open_echo_file(tmp_path / f"e{ending}", None)
    with pytest.raises(ValueError, match="not open for writing"):
        writer.write(echo_table([1]))
    with writer:
        writer.write(echo_table([1]))
    with pytest.raises(ValueError, match="not open for writing"):
        writer.write(echo_table([1]))
    assert writer.notes() == ()


def test_only_tables_have_rows_of_waveforms_without_echoes(tmp_path: Path) -> None:
    table = echo_table([3], echo_number=np.array([1, 0, 2]), waveform_number=np.array([7, 8, 9]))
    for ending in ECHO_ENDINGS:
        with open_echo_file(tmp_path / f"e{ending}", None) as writer:
            writer.write(table)
        assert writer.count == 2, ending
        assert writer.notes() == (), ending
    assert laspy.read(tmp_path / "e.laz").intensity.tolist() == [10, 12]
    assert [line[0] for line in (tmp_path / "e.txt").read_text().splitlines()] == ["7", "9"]
    for ending in (".parquet", ".csv", ".h5"):
        assert "8" in waveform_numbers(tmp_path / f"e{ending}"), ending


def waveform_numbers(path: Path) -> list[str]:
    if path.suffix == ".parquet":
        return [str(number) for number in pq.read_table(path)["waveform_number"].to_pylist()]
    if path.suffix == ".h5":
        with h5py.File(path) as file:
            return [str(number) for number in file["waveform_number"][:]]
    with path.open(newline="") as stream:
        return [line["waveform_number"] for line in csv.DictReader(stream)]
