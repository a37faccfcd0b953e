"""A column that is added to the description appears in every kind of table and file."""

from __future__ import annotations

import csv
from pathlib import Path

import h5py
import laspy
import numpy as np
import pyarrow.parquet as pq
import pytest

import fullwaveform
from fullwaveform.data import echo_columns
from fullwaveform.data.echo_columns import EchoColumn, LasDimension

from ...extraction.test_extraction import Packet, block_of, triples

# The compiled module computes it, but no table has it.
ADDED = EchoColumn(
    "row",
    np.float64,
    "1",
    "Row of the block",
    las=LasDimension(np.float32, "Row of the waveform"),
)
EXPECTED = [1.0, 1.0]


@pytest.fixture
def result(monkeypatch: pytest.MonkeyPatch) -> fullwaveform.Extraction:
    """A waveform without echoes and one with two, extracted with the added column."""
    monkeypatch.setattr(echo_columns, "ECHO_COLUMNS", (*echo_columns.ECHO_COLUMNS, ADDED))
    packets = [Packet(triples({}), shot=2.0), Packet(triples({10: 80, 30: 90}), shot=1.0)]
    return fullwaveform.extract(block_of(packets), threshold=10, keep_empty=True)


def test_added_column_is_in_the_table(result: fullwaveform.Extraction) -> None:
    assert list(result.peaks)[-1] == "row"
    np.testing.assert_array_equal(result.peaks["row"], [*EXPECTED, 0.0])
    table = result.to_arrow()
    assert table["row"].to_numpy()[:2].tolist() == EXPECTED
    assert table.schema.field("row").metadata == {
        b"unit": b"1",
        b"description": b"Row of the block",
    }


@pytest.mark.parametrize("ending", [".las", ".laz"])
def test_added_column_is_in_the_points(
    result: fullwaveform.Extraction, tmp_path: Path, ending: str
) -> None:
    assert result.write(tmp_path / f"e{ending}") == 2
    points = laspy.read(tmp_path / f"e{ending}")
    dimension = points.point_format.dimension_by_name("row")
    assert (dimension.dtype, dimension.description) == (np.float32, "Row of the waveform")
    assert points["row"].tolist() == EXPECTED


def test_added_column_is_in_every_table_format(
    result: fullwaveform.Extraction, tmp_path: Path
) -> None:
    for ending in (".csv", ".parquet", ".h5"):
        assert result.write(tmp_path / f"e{ending}") == 2
    parquet = pq.read_table(tmp_path / "e.parquet")
    assert parquet["row"].to_numpy()[:2].tolist() == EXPECTED
    assert parquet.schema.field("row").metadata[b"unit"] == b"1"
    with h5py.File(tmp_path / "e.h5") as file:
        assert file["row"][:2].tolist() == EXPECTED
        assert file["row"].attrs["unit"] == "1"
    with (tmp_path / "e.csv").open(newline="") as stream:
        assert [row["row"] for row in csv.DictReader(stream)] == ["1", "1", "0"]
