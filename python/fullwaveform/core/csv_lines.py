"""Tables as lines of comma-separated values."""

from __future__ import annotations

from collections.abc import Iterator, Sequence

import numpy as np

from fullwaveform import _core
from fullwaveform.data.arrays import AnyArray
from fullwaveform.data.columns import Column, Table

_ROWS_AT_ONCE = 2048  # their text stays in the cache


def csv_lines(table: Table, columns: Sequence[Column]) -> Iterator[bytes]:
    """A line for each row with the described columns; yields many lines at a time.

    Numbers have the fewest digits that read back to the same value, in decimal notation from 1e-6
    to below 1e10; NaN is ``nan``. Texts are in quotes.
    """
    values = [_values(table[column.name], column) for column in columns]
    for first in range(0, len(table), _ROWS_AT_ONCE):
        yield _core.csv_lines(values, first, _ROWS_AT_ONCE)


def _values(values: AnyArray, column: Column) -> AnyArray:
    if column.dtype is not np.str_:
        return np.ascontiguousarray(values, dtype=column.dtype)
    quoted = ['"' + text.replace('"', '""') + '"' for text in values.tolist()]
    encoded = np.array([text.encode() for text in quoted], dtype=np.bytes_)
    return encoded.view(np.uint8).reshape(len(encoded), encoded.itemsize)
