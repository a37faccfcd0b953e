"""Tables as NumPy columns, and the checks of the columns that come in."""

from __future__ import annotations

from collections.abc import Iterator, Mapping
from typing import Any

import numpy as np
import numpy.typing as npt
import pyarrow as pa


class Columns(Mapping[str, npt.NDArray[Any]]):
    """A table as NumPy columns of equal length, by name."""

    def __init__(self, columns: Mapping[str, Any]) -> None:
        self._columns: dict[str, npt.NDArray[Any]] = dict(columns)

    def __getitem__(self, name: str) -> npt.NDArray[Any]:
        return self._columns[name]

    def __iter__(self) -> Iterator[str]:
        return iter(self._columns)

    def __len__(self) -> int:
        """Number of columns, as of any mapping; `rows` tells the length of the table."""
        return len(self._columns)

    def __repr__(self) -> str:
        return f"Columns({self.rows} rows: {', '.join(self._columns)})"

    @property
    def rows(self) -> int:
        """Length of the columns."""
        return len(next(iter(self._columns.values())))

    def to_arrow(self) -> pa.Table:
        """The same table for pyarrow."""
        return pa.table(self._columns)


def checked_column(values: npt.ArrayLike, name: str, rows: int) -> npt.NDArray[Any]:
    """One value per row, as an array; ValueError otherwise."""
    array = np.asarray(values)
    if array.ndim != 1:
        raise ValueError(f"{name} must have 1 dimension, not {array.ndim}")
    if len(array) != rows:
        raise ValueError(f"{name} has {len(array)} values, but there are {rows} rows")
    return array


def checked_integers(
    values: npt.ArrayLike, name: str, rows: int, largest: int, rule: str
) -> npt.NDArray[Any]:
    """Integers from 0 to the largest, one per row; ValueError with the rule otherwise."""
    array = checked_column(values, name, rows)
    if not (np.issubdtype(array.dtype, np.integer) or (rows == 0 and array.size == 0)):
        raise ValueError(f"{name} must be integers, not {array.dtype}")
    wrong = np.flatnonzero((array < 0) | (array > largest))
    if wrong.size:
        row = int(wrong[0])
        raise ValueError(f"{name}: {array[row]} of waveform {row} {rule}")
    return array


def checked_counts(values: npt.ArrayLike, rows: int, width: int) -> npt.NDArray[np.uint16]:
    """Valid samples of rows of the given width."""
    rule = f"is not between 0 and the row length {width}"
    counts = checked_integers(values, "counts", rows, width, rule)
    return np.ascontiguousarray(counts, dtype=np.uint16)


def checked_flags(values: npt.ArrayLike, rows: int) -> npt.NDArray[np.uint8]:
    """Channel flags, 0 to 255 or Boolean."""
    rule = "is not between 0 and 255"
    flags = np.asarray(values)
    flags = flags.view(np.uint8) if flags.dtype == np.bool_ else flags
    flags = checked_integers(flags, "channel_flags", rows, 255, rule)
    return np.ascontiguousarray(flags, dtype=np.uint8)


def checked_times(values: npt.ArrayLike, name: str, rows: int) -> npt.NDArray[np.float64]:
    """Times in seconds, none of them NaN, integers only where a double holds each of them."""
    array = checked_column(values, name, rows)
    if not (np.issubdtype(array.dtype, np.floating) or np.issubdtype(array.dtype, np.integer)):
        raise ValueError(f"{name} must be numbers, not {array.dtype}")
    if np.issubdtype(array.dtype, np.integer) and not _fits_a_double(array):
        raise ValueError(
            f"{name}: integers beyond 2**53 would fall together; give seconds as float"
        )
    times = np.ascontiguousarray(array, dtype=np.float64)
    if (nan := np.flatnonzero(np.isnan(times))).size:
        raise ValueError(f"{name}: the time of waveform {int(nan[0])} is not a number")
    return times


def _fits_a_double(integers: npt.NDArray[Any]) -> bool:
    exact = 2**53
    return not integers.size or (-exact <= int(integers.min()) and int(integers.max()) <= exact)
