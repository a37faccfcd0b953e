"""Tables as lines of comma-separated values."""

from __future__ import annotations

from collections.abc import Sequence

import numpy as np

from fullwaveform import _core
from fullwaveform.data.arrays import AnyArray
from fullwaveform.data.columns import Column, Table


def csv_lines(table: Table, columns: Sequence[Column]) -> bytes:
    """A line for each row with the described columns.

    Numbers have the fewest digits that read back to the same value, in decimal notation from 1e-6
    to below 1e10; NaN is ``nan``. Texts are in quotes.
    """
    return _core.csv_lines([_values(table[column.name], column) for column in columns])


def _values(values: AnyArray, column: Column) -> AnyArray:
    if column.dtype is not np.str_:
        return np.ascontiguousarray(values, dtype=column.dtype)
    quoted = ['"' + text.replace('"', '""') + '"' for text in values.tolist()]
    encoded = np.array([text.encode() for text in quoted], dtype=np.bytes_)
    return encoded.view(np.uint8).reshape(len(encoded), encoded.itemsize)
