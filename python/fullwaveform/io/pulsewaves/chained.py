"""Pulses and samples of several PulseWaves files, numbered on from file to file.

What a file keeps of its decoded content is dropped when another file is read, so that memory does
not grow with the number of files.
"""

from __future__ import annotations

from collections.abc import Sequence, Set
from itertools import pairwise

import numpy as np

from fullwaveform.data.arrays import BoolArray, IntArray, UInt8Array, UInt16Array
from fullwaveform.io.pulsewaves.descriptors import PulseDescriptor, SamplingTable
from fullwaveform.io.pulsewaves.pulses import PulseSource
from fullwaveform.io.pulsewaves.waves import SEGMENT, PulseSpans, Segments, WaveSource


class ChainedPulses(PulseSource):
    """The pulses of several files; `first_pulses` (files + 1,) are their first numbers."""

    has_appended = False  # those of the files have been read

    def __init__(
        self, sources: Sequence[PulseSource], first_pulses: IntArray, notes: tuple[str, ...]
    ) -> None:
        self._sources = tuple(sources)
        self._first_pulses = first_pulses
        self.count = int(first_pulses[-1])
        self.missing = sum(source.missing for source in sources)
        self.end = sources[-1].end
        self.notes = notes

    def close(self) -> None:
        """Close the files; may be called twice."""
        for source in self._sources:
            source.close()

    def forget(self) -> None:
        """See `PulseSource`."""
        _forget_others(self._sources, frozenset())

    def records(self, numbers: IntArray) -> UInt8Array:
        """See `PulseSource`."""
        found = [
            (rows, self._sources[file].records(numbers[rows] - self._first_pulses[file]))
            for file, rows in self._by_file(numbers)
        ]
        records = np.empty((len(numbers), found[0][1].shape[1]), dtype=np.uint8)
        for rows, part in found:
            records[rows] = part
        return records

    def damaged(self, numbers: IntArray) -> BoolArray:
        """See `PulseSource`."""
        damaged = np.zeros(len(numbers), dtype=bool)
        for file, rows in self._by_file(numbers):
            within = numbers[rows] - self._first_pulses[file]
            damaged[rows] = self._sources[file].damaged(within)
        return damaged

    def files(self) -> list[tuple[int, int]]:
        """See `PulseSource`."""
        return list(pairwise(self._first_pulses.tolist()))

    def gaps(self) -> list[tuple[int, int]]:
        """See `PulseSource`."""
        starts = self._first_pulses[:-1].tolist()
        return [
            (start + number, count)
            for start, source in zip(starts, self._sources, strict=True)
            for number, count in source.gaps()
        ]

    def _by_file(self, numbers: IntArray) -> list[tuple[int, IntArray]]:
        files = _rows_by_file(numbers, self._first_pulses)
        _forget_others(self._sources, {file for file, _ in files})
        return files


class ChainedWaves(WaveSource):
    """The samples of several files, of the pulses of `ChainedPulses`."""

    def __init__(self, sources: Sequence[WaveSource], first_pulses: IntArray) -> None:
        self._sources = tuple(sources)
        self._first_pulses = first_pulses

    def close(self) -> None:
        """Close the files; may be called twice."""
        for source in self._sources:
            source.close()

    def forget(self) -> None:
        """See `WaveSource`."""
        _forget_others(self._sources, frozenset())

    def of_descriptor(
        self, descriptor: PulseDescriptor, first_code: int, spans: PulseSpans
    ) -> tuple[Segments, dict[str, BoolArray]]:
        """See `WaveSource`."""
        found = [np.empty(0, dtype=SEGMENT)]
        unreadable: dict[str, BoolArray] = {}
        for file, rows in self._by_file(spans.numbers):
            segments, faults = self._sources[file].of_descriptor(
                descriptor, first_code, spans.of(rows)
            )
            found.append(segments)
            for reason, faulty in faults.items():
                places = unreadable.setdefault(reason, np.zeros(len(spans), dtype=bool))
                places[rows[faulty]] = True
        return np.concatenate(found), unreadable

    def read(self, segments: Segments, table: SamplingTable) -> UInt16Array:
        """See `WaveSource`."""
        width = int(segments["count"].max(initial=0))
        samples = np.zeros((len(segments), width), dtype=np.uint16)
        for file, rows in self._by_file(segments["pulse"]):
            part = self._sources[file].read(segments[rows], table)
            samples[rows, : part.shape[1]] = part
        return samples

    def _by_file(self, numbers: IntArray) -> list[tuple[int, IntArray]]:
        files = _rows_by_file(numbers, self._first_pulses)
        _forget_others(self._sources, {file for file, _ in files})
        return files


def _rows_by_file(numbers: IntArray, first_pulses: IntArray) -> list[tuple[int, IntArray]]:
    """The files of the pulses (n,), each with the rows of its pulses; the first one without any."""
    files = np.searchsorted(first_pulses, numbers, side="right") - 1
    found = [(int(file), np.flatnonzero(files == file)) for file in np.unique(files)]
    return found or [(0, np.empty(0, dtype=np.int64))]


def _forget_others(sources: Sequence[PulseSource | WaveSource], used: Set[int]) -> None:
    for file, source in enumerate(sources):
        if file not in used:
            source.forget()
