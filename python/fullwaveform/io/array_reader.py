"""Files that store waveforms as arrays with one row per waveform."""

from __future__ import annotations

from abc import abstractmethod
from collections.abc import Iterator
from dataclasses import dataclass, fields
from itertools import pairwise
from typing import Protocol

import numpy as np

from fullwaveform.data.arrays import AnyArray, BoolArray, FloatArray, IntArray, UInt16Array
from fullwaveform.data.blocks import (
    OutgoingPulses,
    PulseGeometry,
    ReadTally,
    RecordedNoise,
    ShotAttributes,
    WaveformBlock,
)
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.base import WaveformReader
from fullwaveform.io.block_range import PendingBlock, last_cut
from fullwaveform.io.limits import BLOCK_SAMPLES, NO_SAMPLES, NO_TIME, SURVEY_CHUNK, too_long
from fullwaveform.io.spread import spread_windows

_MAX_GAP = 8  # rejected rows that are read along with those around them


class SliceableArray(Protocol):
    """An array in memory or in a file of which slices can be read."""

    def __getitem__(self, rows: slice) -> AnyArray: ...


@dataclass(frozen=True, slots=True)
class WaveformArrays:
    """The arrays of a file; units and shapes as in `WaveformBlock`, n rows each."""

    samples: SliceableArray  # (n, width)
    counts: SliceableArray
    shot_times: SliceableArray
    sbl_times: SliceableArray
    channel_flags: SliceableArray
    sampling_intervals: SliceableArray
    anchor: SliceableArray  # (n, 3)
    location: SliceableArray
    direction: SliceableArray  # (n, 3)
    gps_time: SliceableArray
    scan_angle: SliceableArray
    scan_direction_flag: SliceableArray
    edge_of_flight_line: SliceableArray
    user_data: SliceableArray
    point_source_id: SliceableArray
    descriptors: SliceableArray
    beams: SliceableArray | None = None
    shot_numbers: SliceableArray | None = None
    origins: SliceableArray | None = None  # (n, 3)
    noise_mean: SliceableArray | None = None
    noise_rms: SliceableArray | None = None  # if there is a mean


@dataclass(frozen=True, slots=True)
class OutgoingArrays:
    """The outgoing pulses of a file; units and shapes as in `OutgoingPulses`, n rows each."""

    samples: SliceableArray  # (n, width)
    counts: SliceableArray
    sampling_intervals: SliceableArray
    durations: SliceableArray


class ArrayReader(WaveformReader):
    """Reads a file of arrays in which the waveforms of a shot are consecutive.

    Waveforms without shot time or samples are counted as rejected. `blocks` raises
    WaveformFileError if a count exceeds the row length, a sampling interval is not positive, or the
    waveforms of a shot are not consecutive.
    """

    # Set by the constructors of the formats.
    _shape: tuple[int, int]  # waveforms, samples per row
    _columns: WaveformArrays
    _smoothing = 0.0  # s, as in `WaveformBlock`

    @property
    def point_count(self) -> int:
        """Waveforms of the file."""
        return self._shape[0]

    @property
    def receiver_names(self) -> dict[int, str]:
        """Names of the beams, if waveforms spread over the file have one for each number."""
        beams = self._columns.beams
        if beams is None:
            return {}
        found: set[tuple[int, str]] = set()
        for rows in spread_windows(self.point_count):
            numbers = self._read(self._columns.descriptors, rows).tolist()
            found.update(zip(numbers, _texts(self._read(beams, rows)).tolist(), strict=True))
        names = dict(sorted(found))
        return names if len(names) == len(found) else {}

    @property
    def shot_columns(self) -> tuple[str, ...]:
        """Names of the columns of shots that the file has."""
        known = {"beam": self._columns.beams, "shot_number": self._columns.shot_numbers}
        return tuple(name for name, column in known.items() if column is not None)

    def _pending_blocks(self, tally: ReadTally) -> Iterator[PendingBlock]:
        self._check()
        for part in self._parts(slice(0, self._shape[0])):
            yield from self._pending_blocks_of(part, tally)

    def _parts(self, points: slice) -> list[slice]:
        """The runs of rows of one beam."""
        beams, ends = self._columns.beams, []
        if beams is not None:
            for start in range(points.start, points.stop, SURVEY_CHUNK):
                # One row more, to compare the last with the next.
                stop = min(start + SURVEY_CHUNK + 1, points.stop)
                names = self._read(beams, slice(start, stop))
                ends += (start + 1 + np.flatnonzero(names[1:] != names[:-1])).tolist()
        starts = [points.start, *ends, points.stop]
        return [slice(*bounds) for bounds in pairwise(starts) if bounds[0] < bounds[1]]

    def _pending_blocks_of(self, part: slice, tally: ReadTally) -> Iterator[PendingBlock]:
        limit = max(1, min(self._waveforms_per_block, BLOCK_SAMPLES // max(self._shape[1], 1)))
        rows, times = np.empty(0, dtype=np.int64), np.empty(0)
        for start in range(part.start, part.stop, limit):
            chunk = slice(start, min(start + limit, part.stop))
            usable = self._usable(chunk, tally)
            rows = np.concatenate([rows, start + np.flatnonzero(usable)])
            times = np.concatenate([times, self._read(self._columns.shot_times, chunk)[usable]])
            while (cut := last_cut(times, limit)) < len(rows):
                yield self._pending(rows[:cut], times[:cut])
                rows, times = rows[cut:], times[cut:]
        if len(rows) > 0:
            yield self._pending(rows, times)

    def _pending(self, rows: IntArray, times: FloatArray) -> PendingBlock:
        def read(part: slice, numbers: IntArray) -> WaveformBlock:
            return self._block(rows[part], numbers)

        def shots() -> tuple[FloatArray, FloatArray]:
            return times, self._rows_in_parts(self._columns.gps_time, rows)

        return PendingBlock(len(rows), read, shots)

    def _window(self, points: slice) -> WaveformBlock | None:
        self._check_values(points)
        rows = points.start + np.flatnonzero(self._usable(points, ReadTally()))
        return self._block(rows, rows) if len(rows) > 0 else None

    def _usable(self, chunk: slice, tally: ReadTally) -> BoolArray:
        tally.points += chunk.stop - chunk.start
        timed = np.isfinite(self._read(self._columns.shot_times, chunk))
        counts = self._read(self._columns.counts, chunk)
        sampled, short = counts > 0, counts <= self.max_samples
        for reason, rejected in (
            (NO_TIME, ~timed),
            (NO_SAMPLES, timed & ~sampled),
            (too_long(self.max_samples), timed & ~short),
        ):
            rows = chunk.start + np.flatnonzero(rejected)
            tally.reject(reason, len(rows), (f"row {row}" for row in rows))
        usable: BoolArray = timed & sampled & short
        return usable

    def _block(self, rows: IntArray, numbers: IntArray) -> WaveformBlock:
        def column(name: str) -> AnyArray:
            return self._rows_in_parts(getattr(self._columns, name), rows)

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
            descriptors=column("descriptors"),
            outgoing=self._outgoing(rows) if self._reads_outgoing else None,
            beams=None if self._columns.beams is None else _texts(column("beams")),
            shot_numbers=None if self._columns.shot_numbers is None else column("shot_numbers"),
            origins=None if self._columns.origins is None else column("origins"),
            noise=self._noise(rows),
            smoothing=self._smoothing,
        )

    def _noise(self, rows: IntArray) -> RecordedNoise | None:
        mean, rms = self._columns.noise_mean, self._columns.noise_rms
        if mean is None or rms is None:
            return None
        return RecordedNoise(self._rows_in_parts(mean, rows), self._rows_in_parts(rms, rows))

    @abstractmethod
    def _outgoing_arrays(self) -> OutgoingArrays:
        """The outgoing pulses, of a file with `has_outgoing`."""

    def _outgoing(self, rows: IntArray) -> OutgoingPulses:
        arrays = self._outgoing_arrays()
        columns = (getattr(arrays, field.name) for field in fields(OutgoingPulses))
        samples, counts, intervals, durations = (self._rows_in_parts(one, rows) for one in columns)
        if len(wrong := np.flatnonzero(counts > samples.shape[1])) > 0:
            raise WaveformFileError(
                f"{self._path}: count {counts[wrong[0]]} of the outgoing pulse of waveform "
                f"{rows[wrong[0]]} exceeds the row length {samples.shape[1]}"
            )
        usable = np.isfinite(intervals) & (intervals > 0.0)
        if len(wrong := np.flatnonzero(~usable & (counts > 0))) > 0:
            raise WaveformFileError(
                f"{self._path}: invalid sampling interval {intervals[wrong[0]]} s of the outgoing "
                f"pulse of waveform {rows[wrong[0]]}; must be positive"
            )
        counts = counts.astype(np.uint16)
        durations = np.where(np.isfinite(durations), durations, 0.0)
        return OutgoingPulses(_trimmed(samples, counts), counts, intervals, durations)

    def _check(self) -> None:
        ascending, last = True, -np.inf
        for start in range(0, self._shape[0], SURVEY_CHUNK):
            chunk = slice(start, min(start + SURVEY_CHUNK, self._shape[0]))
            self._check_values(chunk)
            times = self._read(self._columns.shot_times, chunk)
            times = times[np.isfinite(times)]
            if len(times) > 0:
                ascending = ascending and bool(times[0] >= last and (np.diff(times) >= 0).all())
                last = times[-1]
        if not ascending:
            self._check_shots_consecutive()

    def _check_values(self, chunk: slice) -> None:
        counts, width = self._read(self._columns.counts, chunk), self._shape[1]
        if len(wrong := np.flatnonzero(counts > width)) > 0:
            raise WaveformFileError(
                f"{self._path}: count {counts[wrong[0]]} of waveform {chunk.start + wrong[0]} "
                f"exceeds the row length {width}"
            )
        intervals = self._read(self._columns.sampling_intervals, chunk)
        if len(wrong := np.flatnonzero(~(np.isfinite(intervals) & (intervals > 0)))) > 0:
            raise WaveformFileError(
                f"{self._path}: invalid sampling interval {intervals[wrong[0]]} s of waveform "
                f"{chunk.start + wrong[0]}; must be positive"
            )

    def _check_shots_consecutive(self) -> None:
        # Eight bytes per waveform, and as much again while they are sorted.
        times = self._read(self._columns.shot_times, slice(0, self._shape[0]))
        times = times[np.isfinite(times)]
        firsts = times[np.concatenate([[True], times[1:] != times[:-1]])]
        shots, runs = np.unique(firsts, return_counts=True)
        if len(shots) < len(firsts):
            raise WaveformFileError(
                f"{self._path}: the waveforms of the shot at {shots[np.argmax(runs > 1)]} s are "
                "not consecutive; sort the waveforms by shot"
            )

    def _rows_in_parts(self, array: SliceableArray, rows: IntArray) -> AnyArray:
        """The given ascending rows of an array."""
        # Many rejected rows may lie between two others; they are not read.
        parts = np.split(rows, np.flatnonzero(np.diff(rows) > _MAX_GAP) + 1)
        read = [self._rows_of(array, part) for part in parts]
        return read[0] if len(read) == 1 else np.concatenate(read)

    def _rows_of(self, array: SliceableArray, rows: IntArray) -> AnyArray:
        """The given rows of an array, which lie close together."""
        values = self._read(array, slice(int(rows[0]), int(rows[-1]) + 1))
        if len(values) == len(rows):
            return values
        selected: AnyArray = values[rows - rows[0]]
        return selected

    def _read(self, array: SliceableArray, rows: slice) -> AnyArray:
        """A slice of an array."""
        return array[rows]


def _texts(names: AnyArray) -> AnyArray:
    """Texts of fixed length without the padding of the file."""
    longest = int(np.char.str_len(names).max(initial=1))
    texts: AnyArray = names.astype(f"U{longest}")
    return texts


def _trimmed(samples: UInt16Array, counts: UInt16Array) -> UInt16Array:
    """The samples up to the longest waveform, zero after the end of shorter ones."""
    longest = int(counts.max(initial=0))
    is_padded = counts.min(initial=longest) < longest
    if longest == samples.shape[1] and not is_padded:
        return samples
    trimmed = np.ascontiguousarray(samples[:, :longest])
    if is_padded:
        if np.shares_memory(trimmed, samples):
            trimmed = trimmed.copy()
        trimmed[np.arange(longest) >= counts[:, np.newaxis]] = 0
    return trimmed
