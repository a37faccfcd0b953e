"""Parts of a file of any size, read in few large steps without memory mapping.

If another process truncates a mapped file, the next access ends the program; a read reports it.
"""

from __future__ import annotations

import os
from collections.abc import Callable
from pathlib import Path
from typing import IO

import numpy as np

from fullwaveform.core.byte_rows import copy_rows
from fullwaveform.data.arrays import IntArray, UInt8Array
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.remote import RemotePath

_READ_SIZE = 1 << 24  # bytes read at once, unless a single item is longer
_MAX_GAP = 1 << 14  # bytes between two items that are still read in one step
_MAX_REMOTE_GAP = 1 << 17  # a request takes as long as these bytes


class FileBytes:
    """The bytes `start` to `end` of a file, by default the whole file; offsets count from `start`.

    Raises OSError if the file cannot be opened. Must be closed.
    """

    def __init__(self, path: Path, start: int = 0, end: int | None = None) -> None:
        self.path = path
        self._file = path.open("rb", buffering=0)
        self._start = start
        self._read_into, self._max_gap = _at_once(path, self._file)
        self.size = (self._file.seek(0, os.SEEK_END) if end is None else end) - start

    def close(self) -> None:
        """Close the file; may be called twice."""
        self._file.close()

    def rows(self, offsets: IntArray, width: int) -> UInt8Array:
        """Read `width` bytes at each of the offsets (n,), inside the range and in any order.

        Returns
        -------
        (n, width), contiguous

        Raises
        ------
        WaveformFileError
            If the file has been truncated since it was opened.
        """
        if width > 0 and len(offsets) > 0 and (np.diff(offsets) == width).all():
            begin = int(offsets[0])
            return self.part(begin, begin + len(offsets) * width).reshape(-1, width)
        rows = np.empty((len(offsets), width), dtype=np.uint8)
        order = np.argsort(offsets, kind="stable")
        ascending = offsets[order]
        gaps = np.flatnonzero(np.diff(ascending) > width + self._max_gap) + 1
        first = 0
        while first < len(order) and width > 0:
            begin = int(ascending[first])
            next_gap = np.searchsorted(gaps, first, side="right")
            stop = int(gaps[next_gap]) if next_gap < len(gaps) else len(order)
            last_begin = begin + max(_READ_SIZE, width) - width
            stop = min(stop, int(np.searchsorted(ascending, last_begin, side="right")))
            part = self.part(begin, int(ascending[stop - 1]) + width)
            copy_rows(part, ascending[first:stop] - begin, order[first:stop], rows)
            first = stop
        return rows

    def part(self, begin: int, end: int) -> UInt8Array:
        """The bytes `begin` to `end`, inside the range; raises as `rows`."""
        part = np.empty(end - begin, dtype=np.uint8)
        done = 0
        while done < len(part):
            position = self._start + begin + done
            count = self._read_into(part[done:].data, position)
            if count == 0:
                raise WaveformFileError(
                    f"{self.path} was truncated while it was read: no data at byte {position}"
                )
            done += count
        return part


def _at_once(path: Path, file: IO[bytes]) -> tuple[Callable[[memoryview, int], int], int]:
    """Reads into a buffer from a position, and the gap that is read rather than skipped."""
    if isinstance(path, RemotePath):
        return path.source.read_into, _MAX_REMOTE_GAP
    descriptor = file.fileno()
    return lambda buffer, position: os.preadv(descriptor, [buffer], position), _MAX_GAP
