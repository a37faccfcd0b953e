"""Directory of the waveforms of a file: reads the shot of any waveform without what precedes it."""

from __future__ import annotations

from dataclasses import replace
from threading import RLock
from typing import Any

import numpy as np

from fullwaveform.analysis.waveform_selection import SelectedShot, Selector, find_shot
from fullwaveform.data.arrays import AnyArray, FloatArray, IntArray
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.data.columns import take_rows
from fullwaveform.io.base import WaveformReader
from fullwaveform.view.cache import cached_name, cached_sections, check_unchanged, identity
from fullwaveform.view.sections import SectionFile, SectionWriter

#: Waveforms per block of readers for which a directory is made: what a look at one of them reads.
BLOCK = 500
_NEIGHBOURS = 512  # waveforms to either side in which the others of a shot are searched


class WaveformDirectory:
    """Where the waveforms of a file are, by their numbers.

    A block of waveforms lies in a run of points or pulses, of which the directory knows the ends;
    in it the shot is found by its identifier.
    """

    def __init__(
        self, reader: WaveformReader, sections: SectionFile, identified: dict[str, Any]
    ) -> None:
        self._reader, self._sections = reader, sections
        self.identity = identified  # changes with the numbers of the waveforms
        self._starts = sections.read("block_waveforms")
        self._points = sections.read("block_points")  # visited when the block was complete
        self._runs = np.unique(self._points)
        self.lock = RLock()  # the reader serves one thread at a time

    @classmethod
    def of(cls, reader: WaveformReader, settings: dict[str, Any]) -> WaveformDirectory:
        """The directory of the file of a reader with at most `BLOCK` waveforms per block.

        It is made once, by a visit of all points; `settings` are those of the reader that decide
        which waveforms it has.
        """
        identified = identity(reader.path, block=BLOCK, **settings)
        name = cached_name("waveforms", reader.path, identified)
        sections = cached_sections(name, lambda writer: _build(reader, writer))
        return cls(reader, sections, identified)

    def close(self) -> None:
        """Close the directory, not the reader."""
        self._sections.close()

    def __len__(self) -> int:
        """Number of waveforms."""
        return self._sections.count("shots")

    def shot(self, number: int) -> SelectedShot:
        """All waveforms of the shot of a waveform.

        Raises
        ------
        ValueError
            There is no such waveform.
        OSError
            The file was removed or changed since it was opened.
        WaveformFileError
            The samples are unreadable.
        """
        self.check_number(number)
        check_unchanged(self._reader.path, self.identity)
        numbers = self._waveforms_of_shot(number)
        with self.lock:
            block = self._read(numbers)
            if block is not None:
                return SelectedShot(block, np.arange(len(block)))
            # Shots without times of their own, or points in another order than the file's.
            found = find_shot(self._reader, Selector.WAVEFORM, number)
        return SelectedShot(found.block, np.arange(len(found.block)))

    def check_number(self, number: int) -> None:
        """ValueError if there is no waveform with this number."""
        if not 0 <= number < len(self):
            known = f"waveforms are numbered 0 to {len(self) - 1}" if len(self) else "it has none"
            raise ValueError(f"{self._reader.path}: no waveform {number}; {known}")

    def shot_number(self, number: int) -> int:
        """Number of the shot of a waveform in the file, as for `find_shot`."""
        return int(self._sections.read("shot_numbers", number, number + 1)[0])

    def shot_numbers(self, first: int = 0, stop: int | None = None) -> AnyArray:
        """Numbers (n,) of the shots of the waveforms `first` <= number < `stop`, ascending."""
        return self._sections.read("shot_numbers", first, stop)

    def next_shot(self, number: int, step: int) -> int | None:
        """First waveform of the following (`step` 1) or preceding (-1) shot; None at the end."""
        numbers = self._waveforms_of_shot(number)
        beyond = int(numbers[-1]) + 1 if step > 0 else int(numbers[0]) - 1
        if not 0 <= beyond < len(self):
            return None
        return int(self._waveforms_of_shot(beyond)[0])

    def numbers_at(self, times: FloatArray) -> IntArray:
        """First waveform (m,) of the shot with each GPS time (m,), s; -1 without one."""
        known = self._sections.read("times")
        order = np.argsort(known, kind="stable")
        at = np.searchsorted(known, times, sorter=order)
        numbers = order[np.minimum(at, len(order) - 1)] if len(order) else np.zeros(0, np.int64)
        return np.where(known[numbers] == times, numbers, -1) if len(order) else at * 0 - 1

    def _waveforms_of_shot(self, number: int) -> IntArray:
        """Numbers of the waveforms of the shot of a waveform, consecutive."""
        first = max(number - _NEIGHBOURS, 0)
        shots = self._sections.read("shot_numbers", first, number + _NEIGHBOURS)
        return first + np.flatnonzero(shots == shots[number - first])

    def _read(self, numbers: IntArray) -> WaveformBlock | None:
        """The waveforms of a shot from its run of points; None if it cannot be identified there."""
        shot = float(self._sections.read("shots", int(numbers[0]), int(numbers[0]) + 1)[0])
        at = int(np.searchsorted(self._starts, numbers[0], side="right")) - 1
        # Its points were among the last that were visited, or left from those visited before.
        last = int(np.searchsorted(self._runs, self._points[at + 1]))
        first, stop = self._runs[max(last - 2, 0)], self._runs[last]
        for block in self._reader.blocks_between(int(first), int(stop)):
            rows = np.flatnonzero(block.shot_times == shot)
            if len(rows) == len(numbers):
                return replace(take_rows(block, rows), waveform_numbers=numbers)
        return None


def _build(reader: WaveformReader, writer: SectionWriter) -> None:
    """Write number, identifier and time of the shot of each waveform, and the ends of the blocks.

    The waveforms of a shot are consecutive and in one block.
    """
    shots, times, starts, points = [], [], [0], [0]
    firsts = []
    for numbers, block, visited in reader.visited_blocks():
        of_block = block.shots()
        shots.append(of_block[0])
        times.append(of_block[1])
        firsts.append(np.concatenate([[True], of_block[0][1:] != of_block[0][:-1]]))
        starts.append(int(numbers[0]) + len(numbers))
        points.append(visited)
    none = [np.empty(0)]
    writer.add("shots", np.concatenate([*none, *shots]))
    is_first = np.concatenate([np.empty(0, np.bool_), *firsts])
    writer.add("shot_numbers", (np.cumsum(is_first) - 1).astype(np.uint32))
    writer.add("times", np.concatenate([*none, *times]))
    writer.add("block_waveforms", np.array(starts, np.int64))
    writer.add("block_points", np.array(points, np.int64))
    writer.finish({})
