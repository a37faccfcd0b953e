"""Files with one waveform per shot, whose columns are HDF5 datasets of one or several beams."""

from __future__ import annotations

import os
from abc import abstractmethod
from collections.abc import Iterator, Mapping
from pathlib import Path

import h5py
import laspy
import numpy as np

from fullwaveform.data.arrays import (
    Float32Array,
    FloatArray,
    IntArray,
    UInt16Array,
)
from fullwaveform.data.blocks import (
    OutgoingPulses,
    ReadTally,
    ShotAttributes,
    WaveformBlock,
)
from fullwaveform.io.base import WaveformReader
from fullwaveform.io.block_range import PendingBlock
from fullwaveform.io.container.values import damaged_file_errors
from fullwaveform.io.hdf5.places import Places
from fullwaveform.io.hdf5.shot_table import ShotTable, rows_in_parts
from fullwaveform.io.limits import (
    BLOCK_SAMPLES,
    NO_TIME,
    OUTSIDE,
    SURVEY_CHUNK,
    numbered_shots,
    too_long,
)
from fullwaveform.io.remote import path_or_stream

TOO_SHORT = "waveform of fewer than 2 samples"
NO_COUNTS = "samples that are not numbers or not from 0 to 65,535 counts"
_MIN_SAMPLES = 2  # a direction needs two places
_CHUNK_CACHE = 1 << 23  # bytes for each dataset: GEDI has the column of a beam in one chunk


class ShotReader(WaveformReader):
    """Reads a file with one waveform per shot, beam by beam; no block holds two beams.

    Parameters
    ----------
    path
        The file.
    waveforms_per_block
        As in `WaveformReader`.
    channel_flags
        Ignored: the only channel counts as high power, flag 0. A note in the tally says so if flags
        other than 1 are given.
    keep_degraded
        Whether shots are read that the file itself marks as degraded or without a return.
    crs
        Code of a coordinate reference system to which the coordinates are transformed; None for
        degrees and metres.

    A shot is identified by its place in the file: two beams can fire at the same time. Raises as
    `WaveformReader`; ValueError also for a system that PROJ does not know.
    """

    is_geographic = True
    _system_identifier = ""  # of the LAS header
    _smoothing = 0.0  # s, as in `WaveformBlock`
    _time_type = laspy.header.GpsTimeType.STANDARD

    def __init__(
        self,
        path: str | os.PathLike[str],
        *,
        waveforms_per_block: int = 20_000,
        channel_flags: Mapping[int, int] | int = 1,
        keep_degraded: bool = False,
        crs: str | None = None,
    ) -> None:
        super().__init__(path, waveforms_per_block, channel_flags)
        self._places = Places(crs)
        self._keep_degraded = keep_degraded
        self._header: laspy.LasHeader | None = None
        self._file = _opened(self._path)
        try:
            with damaged_file_errors(self._path, "file structure"):
                self._tables = self._open_tables(self._file)
            self._current = -1  # the only table with open datasets
        except BaseException:
            self._file.close()
            raise
        self._firsts = np.cumsum([0, *(table.count for table in self._tables)])
        self._set_notes([*self._format_notes(), *self._note_on_unused_flags()])

    @abstractmethod
    def _open_tables(self, file: h5py.File) -> list[ShotTable]:
        """The beams of the file; WaveformFileError if it is not valid."""

    @abstractmethod
    def _format_notes(self) -> list[str]:
        """What the reader changes, for the summary."""

    def close(self) -> None:
        """Close the file; may be called twice."""
        super().close()
        self._tables = []
        self._file.close()

    def _table(self, number: int) -> ShotTable:
        """A beam, whose datasets replace those of the one used before in memory."""
        if number != self._current:
            if self._current >= 0:
                self._tables[self._current].release()
            self._current = number
        return self._tables[number]

    @property
    def receiver_names(self) -> dict[int, str]:
        """Names of the beams; of the instrument in a file without beams."""
        return {table.number: table.name or self._system_identifier for table in self._tables}

    @property
    def beams(self) -> dict[str, int]:
        """Shots of each beam, by its name, skipped ones included; empty without beams."""
        return {table.name: table.count for table in self._tables if table.name}

    @property
    def point_count(self) -> int:
        """Shots of the file."""
        return int(self._firsts[-1])

    @property
    def has_outgoing(self) -> bool:
        """Whether the file has the outgoing pulses: always."""
        return True

    @property
    def times_from_outgoing(self) -> bool:
        """False: the place of the first sample holds the time of the outgoing pulse."""
        return False

    @property
    def shot_columns(self) -> tuple[str, ...]:
        """Names of the columns of shots that echoes of the file have."""
        return ("beam", "shot_number") if self.beams else ("shot_number",)

    @property
    def header(self) -> laspy.LasHeader:
        """LAS header with the reference system and the box of the first and last samples."""
        if self._header is None:
            self._check_open()
            with damaged_file_errors(self._path, "coordinates"):
                header = self._places.header(*self._box())
            header.system_identifier = self._system_identifier
            header.generating_software = ""
            header.global_encoding.gps_time_type = self._time_type
            self._header = header
        return self._header

    def _box(self) -> tuple[FloatArray, FloatArray]:
        lower, upper = np.full(3, np.inf), np.full(3, -np.inf)
        for number in range(len(self._tables)):
            table = self._table(number)
            for part in _slices(slice(0, table.count), SURVEY_CHUNK):
                kept = np.ones(part.stop - part.start, np.bool_)
                for marked in () if self._keep_degraded else table.left_out(part).values():
                    kept &= ~marked
                for degrees in table.ends(np.arange(part.start, part.stop)):
                    places = self._places.of(degrees[kept])
                    places = places[np.isfinite(places).all(axis=1)]
                    lower = np.minimum(lower, places.min(axis=0, initial=np.inf))
                    upper = np.maximum(upper, places.max(axis=0, initial=-np.inf))
        return lower, upper

    def _parts(self, points: slice) -> list[slice]:
        """The runs of shots of one beam."""
        bounds = zip(self._firsts[:-1].tolist(), self._firsts[1:].tolist(), strict=True)
        cut = (slice(max(first, points.start), min(stop, points.stop)) for first, stop in bounds)
        return [part for part in cut if part.start < part.stop]

    def _window(self, points: slice) -> WaveformBlock | None:
        number = int(np.searchsorted(self._firsts, points.start, side="right")) - 1
        first = int(self._firsts[number])
        part = slice(points.start - first, points.stop - first)
        shots = self._kept(number, part, ReadTally())
        if len(shots) == 0:
            return None
        block = self._block(number, shots, first + shots, ReadTally())
        return block if len(block) > 0 else None

    def _pending_blocks(self, tally: ReadTally) -> Iterator[PendingBlock]:
        for number, count in enumerate(table.count for table in self._tables):
            for part in _slices(slice(0, count), self._waveforms_per_block):
                tally.points += part.stop - part.start
                shots = self._kept(number, part, tally)
                counts = self._table(number).counts(part)[shots - part.start]
                while len(shots) > 0:
                    cut = _fitting(counts)
                    yield self._pending(number, shots[:cut], tally)
                    shots, counts = shots[cut:], counts[cut:]

    def _pending(self, number: int, shots: IntArray, tally: ReadTally) -> PendingBlock:
        def read(part: slice, numbers: IntArray) -> WaveformBlock:
            return self._block(number, shots[part], numbers, tally)

        def identifiers() -> tuple[FloatArray, FloatArray]:
            times = rows_in_parts(self._table(number).gps_times, shots)
            return numbered_shots(self._firsts[number] + shots), times

        return PendingBlock(len(shots), read, identifiers)

    def _kept(self, number: int, part: slice, tally: ReadTally) -> IntArray:
        """The shots of a run that can be read and are asked for; the others are counted."""
        table = self._table(number)
        with damaged_file_errors(self._path, _run(table, part.start, part.stop - 1)):
            counts, times = table.counts(part), table.gps_times(part)
            inside, left_out = table.is_inside(part), table.left_out(part)
        kept = np.ones(part.stop - part.start, np.bool_)
        for reason, marked in left_out.items():
            if not self._keep_degraded and (skipped := int(np.count_nonzero(kept & marked))):
                tally.left_out[reason] += skipped
                kept &= ~marked
        for reason, wrong in (
            (NO_TIME, ~np.isfinite(times)),
            (TOO_SHORT, counts < _MIN_SAMPLES),
            (too_long(self.max_samples), counts > self.max_samples),
            (OUTSIDE, ~inside),
        ):
            self._reject(tally, reason, table, part.start + np.flatnonzero(kept & wrong))
            kept &= ~wrong
        shots: IntArray = part.start + np.flatnonzero(kept)
        return shots

    def _reject(self, tally: ReadTally, reason: str, table: ShotTable, shots: IntArray) -> None:
        beam = f"{table.name} " if table.name else ""
        tally.reject(reason, len(shots), (f"{beam}row {shot}" for shot in shots))

    def _block(
        self, number: int, shots: IntArray, numbers: IntArray, tally: ReadTally
    ) -> WaveformBlock:
        """The shots whose samples are counts; the others are taken off the tally and rejected."""
        table = self._table(number)
        with damaged_file_errors(self._path, _run(table, shots[0], shots[-1])):
            samples, usable = table.waves(shots)
            if not usable.all():
                tally.waveforms -= int(np.count_nonzero(~usable))
                self._reject(tally, NO_COUNTS, table, shots[~usable])
                shots, numbers, samples = shots[usable], numbers[usable], samples[usable]
            return self._usable_block(number, shots, numbers, samples)

    def _usable_block(
        self, number: int, shots: IntArray, numbers: IntArray, samples: UInt16Array
    ) -> WaveformBlock:
        table, total = self._table(number), len(shots)
        counts = rows_in_parts(table.counts, shots)
        origins = table.origins(shots)
        return WaveformBlock(
            samples=np.ascontiguousarray(samples[:, : int(counts.max(initial=0))]),
            counts=counts.astype(np.uint16),
            shot_times=numbered_shots(self._firsts[number] + shots),
            sbl_times=np.zeros(total),
            channel_flags=np.zeros(total, np.uint8),
            sampling_intervals=np.full(total, table.sampling_interval),
            geometry=self._places.geometry(
                *table.ends(shots), (counts - 1) * table.sampling_interval
            ),
            attributes=_attributes(rows_in_parts(table.gps_times, shots), table.scan_angles(shots)),
            waveform_numbers=numbers,
            descriptors=np.full(total, table.number, np.uint8),
            outgoing=_outgoing(table, shots) if self._reads_outgoing else None,
            beams=np.full(total, table.name) if table.name else None,
            shot_numbers=table.shot_numbers(shots),
            origins=None if origins is None else self._places.of(origins),
            noise=table.noise(shots),
            smoothing=self._smoothing,
        )


def _run(table: ShotTable, first: int, last: int) -> str:
    beam = f" of {table.name}" if table.name else ""
    return f"shots {first} to {last}{beam}"


def _outgoing(table: ShotTable, shots: IntArray) -> OutgoingPulses:
    samples, counts = table.outgoing(shots)
    interval = np.full(len(shots), table.sampling_interval)
    return OutgoingPulses(samples, counts.astype(np.uint16), interval, np.zeros(len(shots)))


def _attributes(times: FloatArray, angles: Float32Array) -> ShotAttributes:
    zeros = np.zeros(len(times), np.uint8)
    return ShotAttributes(times, angles, zeros, zeros, zeros, zeros.astype(np.uint16))


def _fitting(counts: IntArray) -> int:
    """Number of waveforms, at least one, whose rows take no more than a block may."""
    padded = np.arange(1, len(counts) + 1) * np.maximum.accumulate(counts)
    return max(int(np.count_nonzero(padded <= BLOCK_SAMPLES)), 1)


def _slices(whole: slice, size: int) -> Iterator[slice]:
    for start in range(whole.start, whole.stop, size):
        yield slice(start, min(start + size, whole.stop))


def _opened(path: Path) -> h5py.File:
    with path.open("rb"):  # a clear error for a missing file or a folder
        pass
    with damaged_file_errors(path, "HDF5 structure"):
        return h5py.File(path_or_stream(path), "r", rdcc_nbytes=_CHUNK_CACHE)
