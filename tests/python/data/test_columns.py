"""Tables of columns: rows, joins, attributes, and their Arrow schema."""

from __future__ import annotations

import pickle
from dataclasses import dataclass

import numpy as np
import pytest

from fullwaveform.data.columns import Column, Table, take_rows

COLUMNS = (
    Column("a", np.int64, "1", "Number"),
    Column("b", np.float32, "s", "Time"),
)


def table(*numbers: int) -> Table:
    a = np.array(numbers, np.int64)
    return Table({"a": a, "b": (a / 2).astype(np.float32), "c": a + 10})


def test_columns_are_items_and_attributes() -> None:
    three = table(4, 5, 6)
    assert len(three) == 3
    assert three.c is three["c"]
    with pytest.raises(AttributeError, match="Table has no column 'd'"):
        _ = three.d
    assert pickle.loads(pickle.dumps(three)).b.tolist() == [2.0, 2.5, 3.0]


def test_rows_in_the_given_order() -> None:
    taken = table(4, 5, 6).take(np.array([2, 0]))
    assert (taken.a.tolist(), taken.c.tolist()) == ([6, 4], [16, 14])


def test_joined_tables_keep_their_order() -> None:
    joined = Table.join([table(4), table(), table(6, 5)])
    assert joined.a.tolist() == [4, 6, 5]
    assert joined.b.dtype == np.float32
    one = table(4)
    assert Table.join([one]) is one


def test_arrow_table_has_the_described_columns() -> None:
    arrow = table(4, 5).to_arrow(COLUMNS)
    assert arrow.column_names == ["a", "b"]
    assert [str(kind) for kind in arrow.schema.types] == ["int64", "float"]
    assert arrow.schema.field("b").metadata == {b"unit": b"s", b"description": b"Time"}
    assert arrow["b"].to_pylist() == [2.0, 2.5]


@dataclass(frozen=True)
class Inner:
    values: np.ndarray


@dataclass(frozen=True)
class Outer:
    numbers: np.ndarray
    inner: Inner


def test_rows_of_nested_dataclasses() -> None:
    outer = Outer(np.array([1, 2, 3]), Inner(np.array([[1, 1], [2, 2], [3, 3]])))
    taken = take_rows(outer, np.array([2, 1]))
    assert isinstance(taken.inner, Inner)
    assert taken.numbers.tolist() == [3, 2]
    assert taken.inner.values.tolist() == [[3, 3], [2, 2]]
