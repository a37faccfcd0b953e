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

ADDED = EchoColumn(
    "mirrored",
    np.float64,
    "samples",
    "Position mirrored at sample 100",
    lambda e: 100.0 - e.peaks["idx"],
    las=LasDimension(np.float32, "Mirrored position"),
)
EXPECTED = [90.0, 70.0]  # of echoes at samples 10 and 30


@pytest.fixture
def result(monkeypatch: pytest.MonkeyPatch) -> fullwaveform.Extraction:
    """Two echoes and a waveform without echoes, extracted with the added column."""
    monkeypatch.setattr(echo_columns, "ECHO_COLUMNS", (*echo_columns.ECHO_COLUMNS, ADDED))
    packets = [Packet(triples({10: 80, 30: 90}), shot=1.0), Packet(triples({}), shot=2.0)]
    return fullwaveform.extract(block_of(packets), threshold=10, keep_empty=True)


def test_added_column_is_in_the_table(result: fullwaveform.Extraction) -> None:
    assert list(result.peaks)[-1] == "mirrored"
    np.testing.assert_array_equal(result.peaks["mirrored"], [*EXPECTED, np.nan])
    table = result.to_arrow()
    assert table["mirrored"].to_numpy()[:2].tolist() == EXPECTED
    assert table.schema.field("mirrored").metadata == {
        b"unit": b"samples",
        b"description": b"Position mirrored at sample 100",
    }


@pytest.mark.parametrize("ending", [".las", ".laz"])
def test_added_column_is_in_the_points(
    result: fullwaveform.Extraction, tmp_path: Path, ending: str
) -> None:
    assert result.write(tmp_path / f"e{ending}") == 2
    points = laspy.read(tmp_path / f"e{ending}")
    dimension = points.point_format.dimension_by_name("mirrored")
    assert (dimension.dtype, dimension.description) == (np.float32, "Mirrored position")
    assert points["mirrored"].tolist() == EXPECTED


def test_added_column_is_in_every_table_format(
    result: fullwaveform.Extraction, tmp_path: Path
) -> None:
    for ending in (".csv", ".parquet", ".h5"):
        assert result.write(tmp_path / f"e{ending}") == 2
    parquet = pq.read_table(tmp_path / "e.parquet")
    assert parquet["mirrored"].to_numpy()[:2].tolist() == EXPECTED
    assert parquet.schema.field("mirrored").metadata[b"unit"] == b"samples"
    with h5py.File(tmp_path / "e.h5") as file:
        assert file["mirrored"][:2].tolist() == EXPECTED
        assert file["mirrored"].attrs["unit"] == "samples"
    with (tmp_path / "e.csv").open(newline="") as stream:
        assert [row["mirrored"] for row in csv.DictReader(stream)] == ["90", "70", "nan"]
