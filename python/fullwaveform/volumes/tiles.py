"""The tiles of a volume while it is made: a few in memory, the others in a temporary file."""

from __future__ import annotations

import tempfile
from collections import OrderedDict
from collections.abc import Iterator
from pathlib import Path
from types import TracebackType
from typing import Self

import numpy as np

from fullwaveform.data.arrays import AnyArray, IntArray
from fullwaveform.volumes.grid import TILE_VOXELS
from fullwaveform.volumes.kernels import SampleSums
from fullwaveform.volumes.quantities import VOXEL, empty_voxels

_TILES_IN_MEMORY = 100  # 262 MB
_TILE_BYTES = TILE_VOXELS * VOXEL.itemsize


class TileStore:
    """Sums of the voxels of the tiles that waveforms reach; to be used in a ``with`` statement.

    Tiles that were not used for the longest time are moved to a file without a name in `folder`,
    which the system removes whatever happens. Memory and file are bounded by the number of tiles
    in memory and of those reached.
    """

    def __init__(self, folder: Path, in_memory: int = _TILES_IN_MEMORY) -> None:
        self._folder = folder
        self._in_memory = in_memory
        self._loaded: OrderedDict[int, AnyArray] = OrderedDict()
        self._place: dict[int, int] = {}  # of a tile in the file, in tiles

    def __enter__(self) -> Self:
        self._file = tempfile.TemporaryFile(dir=self._folder, buffering=0)
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        trace: TracebackType | None,
    ) -> None:
        self._loaded.clear()
        self._file.close()

    def add_samples(self, sums: SampleSums) -> None:
        """Add sums of samples."""
        for tile, part, inside in _by_tile(sums.keys):
            voxels = self._tile(tile)
            voxels["sum"][inside] += sums.total[part]
            voxels["samples"][inside] += sums.samples[part].astype(np.uint32)
            largest = voxels["max"][inside]
            voxels["max"][inside] = np.maximum(largest, sums.largest[part].astype(np.int32))

    def add_pulses(self, keys: IntArray, counts: IntArray) -> None:
        """Add numbers of pulses; `keys` ascending, each once."""
        for tile, part, inside in _by_tile(keys):
            self._tile(tile)["pulses"][inside] += counts[part].astype(np.uint32)

    def tiles(self) -> Iterator[tuple[int, AnyArray]]:
        """Number and voxels of each tile that was reached, ascending."""
        for tile in sorted({*self._place, *self._loaded}):
            yield tile, self._tile(tile)

    def _tile(self, tile: int) -> AnyArray:
        if tile in self._loaded:
            self._loaded.move_to_end(tile)
            return self._loaded[tile]
        voxels = self._read(tile) if tile in self._place else empty_voxels(TILE_VOXELS)
        self._loaded[tile] = voxels
        if len(self._loaded) > self._in_memory:
            self._write(*self._loaded.popitem(last=False))
        return voxels

    def _read(self, tile: int) -> AnyArray:
        self._file.seek(self._place[tile] * _TILE_BYTES)
        data = bytearray(_TILE_BYTES)
        left = memoryview(data)
        while len(left) > 0:
            left = left[self._file.readinto(left) :]
        return np.frombuffer(data, VOXEL)

    def _write(self, tile: int, voxels: AnyArray) -> None:
        self._file.seek(self._place.setdefault(tile, len(self._place)) * _TILE_BYTES)
        left = voxels.view(np.uint8).data
        while len(left) > 0:
            left = left[self._file.write(left) :]


def _by_tile(keys: IntArray) -> Iterator[tuple[int, slice, IntArray]]:
    """Each tile of ascending keys: its number, its part of the keys, places in the tile."""
    tiles = keys // TILE_VOXELS
    starts = np.flatnonzero(np.diff(tiles, prepend=-1)).tolist()
    for begin, end in zip(starts, [*starts[1:], len(keys)], strict=True):
        tile = int(tiles[begin])
        yield tile, slice(begin, end), keys[begin:end] - tile * TILE_VOXELS
