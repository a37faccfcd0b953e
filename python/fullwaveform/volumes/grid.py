"""The voxels of a volume: where they lie, and how they are numbered."""

from __future__ import annotations

import math
from dataclasses import dataclass

import numpy as np

from fullwaveform.data.arrays import FloatArray, IntArray

MAX_VOXELS = 10_000_000_000  # of a volume
MAX_ALONG_AXIS = 1_000_000
MAX_CROSSED = 100_000  # along one record
_LARGEST_NUMBER = 2.0**52  # of a voxel along an axis; doubles then still tell neighbours apart
#: Voxels of a tile: layers, rows, columns.
TILE = (32, 64, 64)
TILE_VOXELS = math.prod(TILE)
_AXES = "xyz"


def checked_size(size: float) -> float:
    """The edge of a voxel; ValueError if it is not a finite number above 0."""
    if isinstance(size, bool) or not (math.isfinite(size) and size > 0.0):
        raise ValueError(f"invalid voxel size {size!r}; expected a finite number above 0")
    return float(size)


def crossings(begins: FloatArray, ends: FloatArray) -> FloatArray:
    """Largest number (n,) of voxels that lines between places (n, 3), in voxels, cross."""
    return np.asarray(np.abs(np.floor(ends) - np.floor(begins)).sum(axis=1) + 1.0)


class Extent:
    """Range of voxel numbers along x, y and z that records cover, and the longest record."""

    def __init__(self) -> None:
        self._first = np.full(3, np.inf)
        self._last = np.full(3, -np.inf)
        self._longest = 0.0

    def include(self, begins: FloatArray, ends: FloatArray) -> None:
        """Extend by records that begin and end at these places (n, 3), in voxels."""
        if len(begins) == 0:
            return
        self._first = np.minimum(self._first, np.floor(np.minimum(begins, ends)).min(axis=0))
        self._last = np.maximum(self._last, np.floor(np.maximum(begins, ends)).max(axis=0))
        with np.errstate(invalid="ignore"):  # of infinite numbers, which `grid` refuses
            self._longest = max(self._longest, float(crossings(begins, ends).max()))

    def grid(self, size: float) -> VoxelGrid:
        """The voxels that the records cover; ValueError if they are too many."""
        counts = [
            last - first + 1.0
            for first, last in zip(self._first.tolist(), self._last.tolist(), strict=True)
        ]
        total = math.prod(counts)
        largest = max(*np.abs(self._first).tolist(), *np.abs(self._last).tolist())
        covered = " x ".join(f"{count:.12g}" for count in counts)
        ranges = ", ".join(
            f"{axis} {first * size:.12g} to {(last + 1.0) * size:.12g}"
            for axis, first, last in zip(_AXES, self._first, self._last, strict=True)
        )
        fits = total <= MAX_VOXELS and max(counts) <= MAX_ALONG_AXIS  # False for NaN
        if not (fits and largest <= _LARGEST_NUMBER):
            raise ValueError(
                f"voxels of size {size:g} would be {covered} = {total:.3g} ({ranges}); at most "
                f"{MAX_VOXELS:,}, and {MAX_ALONG_AXIS:,} along an axis, are allowed: use a larger "
                "size"
            )
        if self._longest > MAX_CROSSED:
            raise ValueError(
                f"a record crosses {self._longest:,.0f} voxels of size {size:g}; at most "
                f"{MAX_CROSSED:,} are allowed: use a larger size"
            )
        west, _, bottom = (int(first) for first in self._first)
        columns, rows, layers = (int(count) for count in counts)
        return VoxelGrid(size, west, int(self._last[1]), bottom, (layers, rows, columns))


@dataclass(frozen=True, slots=True)
class VoxelGrid:
    """Cubes whose faces are at multiples of their size.

    Layers are counted upwards, rows from north to south, columns from west to east. A voxel has the
    points on its lower, southern and western faces. A key is the number of a voxel within its tile
    plus `TILE_VOXELS` times the number of the tile.
    """

    size: float  # coordinate units
    west: int  # number of the first column along x: its western face is at west * size
    north: int  # number of the first row along y: its southern face is at north * size
    bottom: int  # number of the first layer along z
    shape: tuple[int, int, int]  # layers, rows, columns

    @property
    def tiles(self) -> tuple[int, int, int]:
        """Tiles along layers, rows and columns."""
        layers, rows, columns = (
            -(-count // edge) for count, edge in zip(self.shape, TILE, strict=True)
        )
        return layers, rows, columns

    @property
    def corner(self) -> tuple[float, float, float]:
        """Coordinates of the lowest, northern, western corner."""
        return self.west * self.size, (self.north + 1) * self.size, self.bottom * self.size

    def centres(self) -> tuple[FloatArray, FloatArray, FloatArray]:
        """Heights of the layers, northings of the rows and eastings of the columns."""
        layers, rows, columns = (np.arange(count, dtype=np.float64) for count in self.shape)
        return (
            (self.bottom + layers + 0.5) * self.size,
            (self.north - rows + 0.5) * self.size,
            (self.west + columns + 0.5) * self.size,
        )

    def keys(self, numbers: IntArray) -> IntArray:
        """Keys (n,) of the voxels with these numbers (n, 3) along x, y and z."""
        places = (
            numbers[:, 2] - self.bottom,
            self.north - numbers[:, 1],
            numbers[:, 0] - self.west,
        )
        tile, inside = np.zeros(len(numbers), np.int64), np.zeros(len(numbers), np.int64)
        for place, edge, count in zip(places, TILE, self.tiles, strict=True):
            tile = tile * count + place // edge
            inside = inside * edge + place % edge
        return tile * TILE_VOXELS + inside

    def window(self, tile: int) -> tuple[slice, slice, slice]:
        """Layers, rows and columns of a tile, those inside the volume."""
        places = np.unravel_index(tile, self.tiles)
        layers, rows, columns = (
            slice(int(place) * edge, min((int(place) + 1) * edge, count))
            for place, edge, count in zip(places, TILE, self.shape, strict=True)
        )
        return layers, rows, columns
