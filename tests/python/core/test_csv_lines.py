"""Lines of comma-separated values, compared with the texts of pyarrow."""

from __future__ import annotations

import io

import numpy as np
import pyarrow as pa
import pyarrow.csv
import pytest

from fullwaveform.core.csv_lines import csv_lines
from fullwaveform.data.arrays import AnyArray
from fullwaveform.data.columns import Column, Table

LIMITS = [0.0, 1.0, 1.5, 16777216.0, 16777218.0, 1e9, 9999999999.0, 1e10, 1e22, 1e-5, 1e-6, 1.5e-7]


def lines_of(*columns: AnyArray) -> list[str]:
    described = [Column(str(k), values.dtype.type, "1", "") for k, values in enumerate(columns)]
    table = Table({str(k): values for k, values in enumerate(columns)})
    return b"".join(csv_lines(table, described)).decode().split("\n")


def text_of_arrow(*columns: AnyArray) -> list[str]:
    stream = io.BytesIO()
    table = pa.table({str(k): pa.array(values) for k, values in enumerate(columns)})
    pa.csv.write_csv(table, stream, pa.csv.WriteOptions(include_header=False))
    return stream.getvalue().decode().split("\n")


@pytest.mark.parametrize(("kind", "bits"), [(np.float64, np.uint64), (np.float32, np.uint32)])
def test_floating_point_numbers(kind: type[np.floating], bits: type[np.unsignedinteger]) -> None:
    random = np.random.default_rng(5)
    # Any pattern of bits, magnitudes around those of echoes, and the limits of the notations.
    patterns = random.integers(0, np.iinfo(bits).max, 5000, dtype=bits).view(kind)
    usual = (random.uniform(-1, 1, 5000) * 10.0 ** random.integers(-12, 14, 5000)).astype(kind)
    limits = np.array([*LIMITS, *np.nextafter(LIMITS, 0.0), 5e-324, np.inf, np.nan]).astype(kind)
    values = np.concatenate([patterns, usual, limits, -limits])
    assert lines_of(values) == text_of_arrow(values)


def test_whole_numbers_and_texts_in_one_line() -> None:
    columns = (
        np.array([-(2**63), 2**63 - 1, 0]),
        np.array([0, 2**64 - 1, 7], np.uint64),
        np.array([0, 65535, 7], np.uint16),
        np.array([0, 255, 7], np.uint8),
        np.array(["BEAM0001", 'a "b", c', ""]),
        np.array([0.5, 0.5, -0.0]),
    )
    assert lines_of(*columns) == text_of_arrow(*columns)


def test_equal_neighbours_are_not_confused() -> None:
    other_nan = np.array([0x7FF8000000000001], np.uint64).view(np.float64)[0]
    values = np.array([0.0, -0.0, -0.0, np.nan, other_nan, -other_nan, 1.0])
    assert lines_of(values) == ["0", "-0", "-0", "nan", "nan", "nan", "1", ""]


def test_table_without_rows_has_no_lines() -> None:
    assert lines_of(np.array([], np.float64), np.array([], np.str_)) == [""]


def test_type_without_a_text_is_an_error() -> None:
    with pytest.raises(ValueError, match="column of a type that has no text"):
        lines_of(np.array([1 + 2j]))


def test_columns_of_different_lengths_are_an_error() -> None:
    with pytest.raises(ValueError, match="columns of different lengths"):
        lines_of(np.zeros(2), np.zeros(3))
