"""Echoes of any number as a raster of heights, seen from above."""

from __future__ import annotations

import numpy as np

from fullwaveform.data.arrays import AnyArray, FloatArray, IntArray
from fullwaveform.view.echo_values import have_places

_MAX_CELLS = 1 << 20
_REACH = 1 << 31  # cells of the first size from the first echo, beyond which echoes are left out
_WAITING = 1 << 20  # echoes that wait before they are sorted into cells
_ROW_BITS = 32


class EchoRaster:
    """The height of the highest echo in each square cell that has one.

    The cells double their size whenever there are more than a million, so that memory is bounded
    whatever area the echoes cover. The result does not depend on the division into blocks: the
    cells lie on a grid around the first echo, and only those of all echoes decide on their size.

    size : of the first cells, coordinate units, a power of two
    """

    def __init__(self, size: float) -> None:
        self.size = self._first_size = size
        self._origin: FloatArray | None = None
        self._keys, self._heights = np.empty(0, np.int64), np.empty(0)
        self._waiting: list[tuple[IntArray, FloatArray]] = []
        self._waiting_count = 0
        self.placed = 0  # echoes
        self.without_place = 0  # echoes whose coordinates are unknown or too far from the first one

    def add(self, x: AnyArray, y: AnyArray, z: AnyArray) -> None:
        """Enter echoes (m,), coordinate units; NaN where unknown."""
        known = have_places(x, y, z)
        if self._origin is None and known.any():
            first = int(np.argmax(known))
            self._origin = np.floor([float(x[first]), float(y[first])])
        if self._origin is None:
            self.without_place += len(x)
            return
        # As multiples of the first size: powers of two scale exactly, so that cells nest.
        columns = (x - self._origin[0]) / self._first_size
        rows = (y - self._origin[1]) / self._first_size
        with np.errstate(invalid="ignore"):
            known &= (np.abs(columns) < _REACH - 1) & (np.abs(rows) < _REACH - 1)
        self.placed += int(np.count_nonzero(known))
        self.without_place += int(np.count_nonzero(~known))
        ratio = self.size / self._first_size
        keys = _keys(np.floor(columns[known] / ratio), np.floor(rows[known] / ratio))
        self._waiting.append((keys, z[known].astype(np.float64)))
        self._waiting_count += len(keys)
        if self._waiting_count >= _WAITING:
            self._sort()

    def cells(self) -> tuple[FloatArray, FloatArray, FloatArray]:
        """Middles x and y (n,) of the cells, and the heights of their highest echoes."""
        self._sort()
        columns, rows = _columns_and_rows(self._keys)
        origin = np.zeros(2) if self._origin is None else self._origin
        x = origin[0] + (columns + 0.5) * self.size
        y = origin[1] + (rows + 0.5) * self.size
        return x, y, self._heights

    def _sort(self) -> None:
        """Sort the waiting echoes into cells."""
        all_keys = [self._keys, *(keys for keys, _ in self._waiting)]
        heights = [self._heights, *(heights for _, heights in self._waiting)]
        self._waiting, self._waiting_count = [], 0
        self._merge(np.concatenate(all_keys), np.concatenate(heights))
        while len(self._keys) > _MAX_CELLS:
            columns, rows = _columns_and_rows(self._keys)
            self.size *= 2.0
            self._merge(_keys(columns >> 1, rows >> 1), self._heights)

    def _merge(self, keys: IntArray, heights: FloatArray) -> None:
        order = np.argsort(keys, kind="stable")
        ordered = keys[order]
        starts = np.flatnonzero(np.concatenate([[True], ordered[1:] != ordered[:-1]])[: len(keys)])
        self._keys = ordered[starts]
        found = np.maximum.reduceat(heights[order], starts) if len(starts) else heights
        self._heights = found


def _keys(columns: AnyArray, rows: AnyArray) -> IntArray:
    """One number for each cell."""
    return (columns.astype(np.int64) << _ROW_BITS) | (rows.astype(np.int64) + _REACH)


def _columns_and_rows(keys: IntArray) -> tuple[IntArray, IntArray]:
    return keys >> _ROW_BITS, (keys & ((1 << _ROW_BITS) - 1)) - _REACH
