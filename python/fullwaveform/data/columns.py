"""Tables of columns of equal length, and the description of a column."""

from __future__ import annotations

from collections.abc import Iterator, Mapping, Sequence
from dataclasses import dataclass, fields
from html import escape
from typing import TYPE_CHECKING, Any, Self, TypeVar, cast

import numpy as np

from fullwaveform.data.arrays import AnyArray, IntArray

if TYPE_CHECKING:
    import pyarrow as pa

_Rows = TypeVar("_Rows")


class Columns(Mapping[str, AnyArray]):
    """A table as NumPy columns of equal length, by name."""

    def __init__(self, columns: Mapping[str, Any]) -> None:
        self._columns: dict[str, AnyArray] = dict(columns)

    def __getitem__(self, name: str) -> AnyArray:
        return self._columns[name]

    def __iter__(self) -> Iterator[str]:
        return iter(self._columns)

    def __len__(self) -> int:
        """Number of columns, as for any mapping; `rows` is the length of the table."""
        return len(self._columns)

    def __repr__(self) -> str:
        return f"Columns({self.rows} rows: {', '.join(self._columns)})"

    def _repr_html_(self) -> str:
        """The first rows, for notebooks."""
        return html_table(self)

    @property
    def rows(self) -> int:
        """Length of the columns."""
        return len(next(iter(self._columns.values())))

    def to_arrow(self) -> pa.Table:
        """The same table for pyarrow."""
        import pyarrow as pa  # on demand: most runs write no Arrow table

        return pa.table(self._columns)


def html_table(columns: Columns, rows: int = 10) -> str:
    """The first rows of a table as HTML, and the number of all."""
    shown = min(rows, columns.rows)
    heads = "".join(f"<th>{escape(name)}</th>" for name in columns)
    lines = [
        "".join(f"<td>{escape(_cell(column[row]))}</td>" for column in columns.values())
        for row in range(shown)
    ]
    body = "".join(f"<tr>{line}</tr>" for line in lines)
    return (
        f"<table><thead><tr>{heads}</tr></thead><tbody>{body}</tbody></table>"
        f"<p>{shown:,} of {columns.rows:,} rows</p>"
    )


def _cell(value: Any) -> str:
    return f"{value:.6g}" if isinstance(value, float | np.floating) else str(value)


@dataclass(frozen=True, slots=True)
class Column:
    """Description of a column of a table."""

    name: str
    dtype: type[np.generic]
    unit: str  # "1" for a dimensionless quantity
    description: str


class Table:
    """Columns of equal length, each also an attribute: ``table["x"]`` is ``table.x``."""

    def __init__(self, columns: Mapping[str, AnyArray]) -> None:
        self.columns = Columns(columns)

    def __getitem__(self, name: str) -> AnyArray:
        return self.columns[name]

    def __getattr__(self, name: str) -> AnyArray:
        if name == "columns" or name not in self.columns:  # no columns yet: being unpickled
            raise AttributeError(f"{type(self).__name__} has no column {name!r}")
        return self.columns[name]

    def __len__(self) -> int:
        return self.columns.rows

    def take(self, rows: IntArray) -> Self:
        """The given rows, in their order."""
        return type(self)({name: column[rows] for name, column in self.columns.items()})

    @classmethod
    def join(cls, tables: Sequence[Self]) -> Self:
        """The rows of all tables, in their order; at least one table."""
        if len(tables) == 1:
            return tables[0]
        return cls(
            {name: np.concatenate([table[name] for table in tables]) for name in tables[0].columns}
        )

    def to_arrow(self, columns: Sequence[Column]) -> pa.Table:
        """The described columns as a table of pyarrow, with `arrow_schema` as its schema."""
        import pyarrow as pa

        schema = arrow_schema(columns)
        arrays = [pa.array(self[field.name], field.type) for field in schema]
        return pa.Table.from_arrays(arrays, schema=schema)


def arrow_schema(columns: Sequence[Column]) -> pa.Schema:
    """Names and types of the columns, with unit and description in the metadata of each field."""
    import pyarrow as pa

    return pa.schema(
        [
            pa.field(
                column.name,
                pa.from_numpy_dtype(column.dtype),
                metadata={"unit": column.unit, "description": column.description},
            )
            for column in columns
        ]
    )


def take_rows(columns: _Rows, rows: IntArray) -> _Rows:
    """The given rows of a dataclass of columns; its fields may be such dataclasses, too.

    None stays None, and a number is that of all rows. A class whose columns are not one entry per
    row has its own method `of_rows`.
    """
    part: Any = columns
    if part is None or isinstance(part, float):
        return columns
    if hasattr(part, "of_rows"):
        return cast(_Rows, part.of_rows(rows))
    if isinstance(part, np.ndarray):
        return cast(_Rows, part[rows])
    taken = (take_rows(getattr(part, field.name), rows) for field in fields(part))
    return cast(_Rows, type(part)(*taken))
