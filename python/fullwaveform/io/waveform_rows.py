"""Files whose waveforms are rows of arrays: one pass for all of them."""

from __future__ import annotations

from abc import abstractmethod
from collections.abc import Iterator
from dataclasses import dataclass, fields
from functools import partial
from typing import Any, Protocol

import numpy as np
import numpy.typing as npt

from fullwaveform.data.arrays import IntArray
from fullwaveform.data.blocks import PulseGeometry, ReadTally, ShotAttributes, WaveformBlock
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.base import WaveformReader
from fullwaveform.io.block_range import PendingBlock, last_cut
from fullwaveform.io.las.reader import NO_TIME

NO_SAMPLES = "waveform without samples"

_BLOCK_SAMPLES = 1 << 26  # samples of a block, padding included: 128 MiB
_SURVEY_CHUNK = 1 << 17  # rows
_LONGEST_GAP = 8  # rows that are read without being wanted, between two that are


class Rows(Protocol):
    """An array in memory or in a file, of which slices can be taken."""

    def __getitem__(self, wanted: slice) -> npt.NDArray[Any]: ...


@dataclass(frozen=True, slots=True)
class WaveformRows:
    """The columns of a file; units and shapes as in `WaveformBlock`, n rows each."""

    samples: Rows  # (n, width)
    counts: Rows
    shot_times: Rows
    sbl_times: Rows
    channel_flags: Rows
    sampling_intervals: Rows
    anchor: Rows  # (n, 3)
    location: Rows
    direction: Rows  # (n, 3)
    gps_time: Rows
    scan_angle: Rows
    scan_direction_flag: Rows
    edge_of_flight_line: Rows
    user_data: Rows
    point_source_id: Rows


class RowReader(WaveformReader):
    """Reads a file whose waveforms are rows; those of one shot stand together.

    Rows without a shot time or without samples are counted as rejected. In a pass
    WaveformFileError is raised if a count exceeds the length of the rows, a sampling interval is
    not above 0, or the waveforms of a shot do not stand together.
    """

    @property
    @abstractmethod
    def _shape(self) -> tuple[int, int]:
        """Rows, samples of a row."""

    @abstractmethod
    def _rows(self) -> WaveformRows:
        """The columns."""

    @property
    def point_count(self) -> int:
        """Waveforms of the file."""
        return self._shape[0]

    def _pending_blocks(self, met: ReadTally) -> Iterator[PendingBlock]:
        columns, (total, width) = self._rows(), self._shape
        self._check(columns)
        limit = max(1, min(self._waveforms_per_block, _BLOCK_SAMPLES // max(width, 1)))
        rows, times = np.empty(0, dtype=np.int64), np.empty(0)
        for start in range(0, total, limit):
            chunk = slice(start, min(start + limit, total))
            chosen = self._choose(columns, chunk, met)
            rows = np.concatenate([rows, start + np.flatnonzero(chosen)])
            times = np.concatenate([times, self._read(columns.shot_times, chunk)[chosen]])
            while (cut := last_cut(times, limit)) < len(rows):
                yield PendingBlock(cut, partial(self._block, columns, rows[:cut]))
                rows, times = rows[cut:], times[cut:]
        if len(rows) > 0:
            yield PendingBlock(len(rows), partial(self._block, columns, rows))

    def _choose(self, columns: WaveformRows, chunk: slice, met: ReadTally) -> npt.NDArray[np.bool_]:
        met.points += chunk.stop - chunk.start
        timed = np.isfinite(self._read(columns.shot_times, chunk))
        sampled = self._read(columns.counts, chunk) > 0
        for reason, rejected in ((NO_TIME, ~timed), (NO_SAMPLES, timed & ~sampled)):
            rows = chunk.start + np.flatnonzero(rejected)
            met.reject(reason, len(rows), (f"row {row}" for row in rows))
        chosen: npt.NDArray[np.bool_] = timed & sampled
        return chosen

    def _block(self, columns: WaveformRows, rows: IntArray, numbers: IntArray) -> WaveformBlock:
        # Many rejected rows may lie between two others; they are not read.
        pieces = np.split(rows, np.flatnonzero(np.diff(rows) > _LONGEST_GAP) + 1)

        def column(name: str) -> npt.NDArray[Any]:
            return np.concatenate([self._taken(getattr(columns, name), piece) for piece in pieces])

        counts = column("counts").astype(np.uint16)
        return WaveformBlock(
            samples=_trimmed(column("samples"), counts),
            counts=counts,
            shot_times=column("shot_times"),
            sbl_times=column("sbl_times"),
            channel_flags=column("channel_flags"),
            sampling_intervals=column("sampling_intervals"),
            geometry=PulseGeometry(*(column(field.name) for field in fields(PulseGeometry))),
            attributes=ShotAttributes(*(column(field.name) for field in fields(ShotAttributes))),
            waveform_numbers=numbers,
        )

    def _check(self, columns: WaveformRows) -> None:
        total, width = self._shape
        ascending, last = True, -np.inf
        for start in range(0, total, _SURVEY_CHUNK):
            chunk = slice(start, min(start + _SURVEY_CHUNK, total))
            self._check_values(columns, chunk, width)
            times = self._read(columns.shot_times, chunk)
            times = times[np.isfinite(times)]
            if len(times) > 0:
                ascending = ascending and bool(times[0] >= last and (np.diff(times) >= 0).all())
                last = times[-1]
        if not ascending:
            self._check_that_shots_stand_together(columns)

    def _check_values(self, columns: WaveformRows, chunk: slice, width: int) -> None:
        counts = self._read(columns.counts, chunk)
        if len(wrong := np.flatnonzero(counts > width)) > 0:
            raise WaveformFileError(
                f"{self._path}: count {counts[wrong[0]]} of waveform {chunk.start + wrong[0]} "
                f"exceeds the row length {width}"
            )
        intervals = self._read(columns.sampling_intervals, chunk)
        if len(wrong := np.flatnonzero(~(np.isfinite(intervals) & (intervals > 0)))) > 0:
            raise WaveformFileError(
                f"{self._path}: sampling interval {intervals[wrong[0]]} of waveform "
                f"{chunk.start + wrong[0]} must be a number of seconds above 0"
            )

    def _check_that_shots_stand_together(self, columns: WaveformRows) -> None:
        # Eight bytes per waveform, and as much again while they are sorted.
        times = self._read(columns.shot_times, slice(0, self._shape[0]))
        times = times[np.isfinite(times)]
        firsts = times[np.concatenate([[True], times[1:] != times[:-1]])]
        shots, pieces = np.unique(firsts, return_counts=True)
        if len(shots) < len(firsts):
            raise WaveformFileError(
                f"{self._path}: the waveforms of the shot at {shots[np.argmax(pieces > 1)]} s do "
                "not stand together; sort the waveforms by shot"
            )

    def _taken(self, column: Rows, rows: IntArray) -> npt.NDArray[Any]:
        """The given rows of a column, which lie close together."""
        values = self._read(column, slice(int(rows[0]), int(rows[-1]) + 1))
        taken: npt.NDArray[Any] = values[rows - rows[0]]
        return taken

    def _read(self, column: Rows, rows: slice) -> npt.NDArray[Any]:
        """A piece of a column."""
        return column[rows]


def _trimmed(
    samples: npt.NDArray[np.uint16], counts: npt.NDArray[np.uint16]
) -> npt.NDArray[np.uint16]:
    """The samples up to the longest row, zero behind the end of shorter ones."""
    longest = int(counts.max(initial=0))
    trimmed = np.ascontiguousarray(samples[:, :longest])
    if counts.min(initial=longest) < longest:
        trimmed[np.arange(longest) >= counts[:, np.newaxis]] = 0
    return trimmed
