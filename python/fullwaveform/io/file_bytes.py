"""Pieces of a file of any size, read in few large steps and never mapped.

A mapped file that another process cuts short ends the program at the next access; one that is read
says so.
"""

from __future__ import annotations

import os
from pathlib import Path

import numpy as np
import numpy.typing as npt
from numpy.lib.stride_tricks import sliding_window_view

from fullwaveform.data.arrays import IntArray
from fullwaveform.data.errors import WaveformFileError

_AT_A_TIME = 1 << 24  # bytes read at once, unless a single piece is longer
_GAP = 1 << 14  # bytes; what lies so close together is read in one step


class FileBytes:
    """The bytes `start` to `end` of a file, the whole file by default; places count from `start`.

    Raises OSError if the file cannot be opened. To be closed.
    """

    def __init__(self, path: Path, start: int = 0, end: int | None = None) -> None:
        self.path = path
        self._file = path.open("rb", buffering=0)
        self._start = start
        self.size = (os.fstat(self._file.fileno()).st_size if end is None else end) - start

    def close(self) -> None:
        """Close the file; may be called twice."""
        self._file.close()

    def rows(self, places: IntArray, width: int) -> npt.NDArray[np.uint8]:
        """Read `width` bytes at each of the places (n,), which lie inside; in any order.

        Returns
        -------
        (n, width), contiguous

        Raises
        ------
        WaveformFileError
            If the file has become shorter since it was opened.
        """
        rows = np.empty((len(places), width), dtype=np.uint8)
        order = np.argsort(places, kind="stable")
        sorted_places = places[order]
        gaps = np.flatnonzero(np.diff(sorted_places) > width + _GAP) + 1
        first = 0
        while first < len(order) and width > 0:
            begin = int(sorted_places[first])
            next_gap = np.searchsorted(gaps, first, side="right")
            stop = int(gaps[next_gap]) if next_gap < len(gaps) else len(order)
            reach = begin + max(_AT_A_TIME, width) - width
            stop = min(stop, int(np.searchsorted(sorted_places, reach, side="right")))
            piece = self._read(begin, int(sorted_places[stop - 1]) + width)
            inside = sorted_places[first:stop] - begin
            rows[order[first:stop]] = sliding_window_view(piece, width)[inside]
            first = stop
        return rows

    def _read(self, begin: int, end: int) -> npt.NDArray[np.uint8]:
        piece = np.empty(end - begin, dtype=np.uint8)
        done = 0
        while done < len(piece):
            place = self._start + begin + done
            count = os.preadv(self._file.fileno(), [piece[done:].data], place)
            if count == 0:
                raise WaveformFileError(
                    f"{self.path} became shorter while it was read: nothing is left at byte {place}"
                )
            done += count
        return piece
