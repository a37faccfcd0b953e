"""Echoes as points of a LAS file."""

from __future__ import annotations

import os
from collections.abc import Iterator, Mapping
from contextlib import contextmanager
from pathlib import Path

import laspy
import numpy as np
import numpy.typing as npt

from fullwaveform.data.arrays import FloatArray
from fullwaveform.data.counting import counted
from fullwaveform.data.echo_columns import EXTRA_BYTES, EchoTable, las_dimensions
from fullwaveform.data.empty_waveforms import without_empty_waveforms
from fullwaveform.data.summaries import median
from fullwaveform.io.atomic import FileKind, OutputFile
from fullwaveform.io.echo_writers.echo_writer import EchoWriter
from fullwaveform.io.echo_writers.las_header import (
    carried_names,
    echo_header,
    extended_records,
)
from fullwaveform.io.las.origin import EXTRACTED, is_written_here
from fullwaveform.io.las.points import SCAN_ANGLE_UNIT

_INT32, _UINT16 = np.iinfo(np.int32), np.iinfo(np.uint16)


class LasEchoWriter(EchoWriter):
    """Writes echoes to a LAS file.

    Point formats below 6 become format 1, the others format 6, with the extra dimensions that
    `las_dimensions` describes. A name ending in ``.laz`` is compressed; ValueError if no compressor
    is installed.

    Parameters
    ----------
    path
        The file.
    source
        Header of the file from which the echoes were extracted: version, scales, offsets, meaning
        of the GPS time and coordinate reference system are taken from it. None: LAS 1.4, format 6,
        millimetres, offsets near the first echoes.
    run
        How the echoes were made, stored as a variable record.
    carry
        Whether the points have class and extra dimensions of the discrete returns of the source.
    shot_columns
        Names of the columns of shots that the source has, see `las_dimensions`.

    A shot must be written in one call. Echoes whose coordinates cannot be stored are omitted and
    counted, rows of waveforms without echoes omitted.
    """

    kind = FileKind("a LAS file of echoes", lambda path: is_written_here(path, EXTRACTED))
    takes_empty = False

    def __init__(
        self,
        path: str | os.PathLike[str],
        source: laspy.LasHeader | None,
        run: Mapping[str, str] | None = None,
        *,
        carry: bool = True,
        shot_columns: tuple[str, ...] = (),
    ) -> None:
        super().__init__(path)
        self._compressor = _compressor(self.path) if self._is_compressed else None
        self.not_representable = 0  # echoes omitted: coordinate not finite, or beyond 32 bits
        self.saturated_return_numbers = 0  # shots with more echoes than a return number can count
        self._source = source
        self._header = echo_header(
            source,
            run,
            carry=carry,
            with_packets=self.holds_waveforms,
            shot_columns=shot_columns,
        )
        self._dimensions = las_dimensions(shot_columns)
        self._carried = carried_names(source) if carry else {}
        self._return_limit = 7 if self._header.point_format.id < 6 else 15
        self._writer: laspy.LasWriter | None = None

    def _append(self, echoes: EchoTable, stream: OutputFile) -> None:
        echoes = without_empty_waveforms(echoes)
        if len(echoes) == 0:
            return
        writer = self._writer_for(echoes, stream)
        self.saturated_return_numbers += _shots_beyond(echoes, self._return_limit)
        grid, kept = grid_coordinates(echoes.xyz, self._header)
        self.not_representable += len(echoes) - len(kept)
        if len(kept) < len(echoes):
            echoes = echoes.take(kept)
        record = laspy.ScaleAwarePointRecord.zeros(len(echoes), header=self._header)
        record["X"], record["Y"], record["Z"] = grid.T
        _fill_standard_fields(record, echoes, self._return_limit)
        for name, dimension in self._dimensions.items():
            record.array[name] = dimension.of(echoes[name])  # converted where it is stored
        if EXTRA_BYTES in echoes.columns:
            for name, carried in self._carried.items():
                record.array[carried] = echoes[EXTRA_BYTES][name]
        self._fill_packets(record, echoes)
        writer.write_points(record)
        self.count += len(echoes)

    def _fill_packets(self, record: laspy.ScaleAwarePointRecord, echoes: EchoTable) -> None:
        """Set the packet fields of the points of the echoes, if the format has them."""

    @property
    def padded(self) -> int:
        """Number of waveforms with samples added, because a LAS file holds few lengths."""
        return 0

    def notes(self) -> tuple[str, ...]:
        """What the file does not hold exactly, one message each."""
        return las_notes(self.count, self.not_representable, self.saturated_return_numbers)

    @contextmanager
    def _content(self, stream: OutputFile) -> Iterator[None]:
        try:
            yield
            writer = self._writer or self._start(stream)
            if records := extended_records(self._header, self._source):
                writer.write_evlrs(laspy.vlrs.vlrlist.VLRList(records))
            writer.close()
        finally:
            self._writer = None

    def _writer_for(self, echoes: EchoTable, stream: OutputFile) -> laspy.LasWriter:
        if self._writer is None:
            if self._source is None:
                self._header.offsets = _offsets_near(echoes.xyz)
            self._writer = self._start(stream)
        return self._writer

    @property
    def _is_compressed(self) -> bool:
        return self.path.suffix.lower() == ".laz"

    def _start(self, stream: OutputFile) -> laspy.LasWriter:
        return laspy.open(
            stream,
            mode="w",
            header=self._header,
            do_compress=self._is_compressed,
            laz_backend=self._compressor,
            closefd=False,
        )


def las_notes(written: int, not_representable: int, saturated: int) -> tuple[str, ...]:
    """What LAS files do not hold exactly, one message each."""
    notes = []
    if not_representable:
        total = counted(written + not_representable, "echo", "echoes")
        notes.append(
            f"{not_representable:,} of {total} skipped: coordinates not finite or out of range for "
            "the scale and offset of the file"
        )
    if saturated:
        verb = "has" if saturated == 1 else "have"
        notes.append(
            f"{counted(saturated, 'shot')} {verb} more echoes than the largest return number; the "
            "numbers are limited to it"
        )
    return tuple(notes)


def _compressor(path: Path) -> laspy.LazBackend:
    available = laspy.LazBackend.detect_available()
    if not available:
        raise ValueError(
            f"cannot write {path}: no LAZ compressor installed; run pip install lazrs or write .las"
        )
    return available[0]


def grid_coordinates(
    xyz: FloatArray, header: laspy.LasHeader
) -> tuple[npt.NDArray[np.int32], npt.NDArray[np.int64]]:
    """Coordinates (m, 3) as 32-bit multiples of the header's scales, and the rows that have them.

    Rows that are not finite or exceed 32 bits are missing from the result.
    """
    steps = np.rint((xyz - header.offsets) / header.scales)
    # Comparisons with NaN are false, so this also rejects NaN.
    inside = (steps >= _INT32.min) & (steps <= _INT32.max)
    kept = np.flatnonzero(inside[:, 0] & inside[:, 1] & inside[:, 2])
    if len(kept) < len(steps):
        steps = steps[kept]
    return steps.astype(np.int32), kept


def _offsets_near(xyz: FloatArray) -> FloatArray:
    # Whole kilometres: the offsets stay readable and millimetres reach 2147 km around them.
    finite = xyz[np.isfinite(xyz).all(axis=1)]
    if len(finite) == 0:
        return np.zeros(3)
    middle: FloatArray = np.floor(median(finite) / 1000.0) * 1000.0
    return middle


def _shots_beyond(echoes: EchoTable, limit: int) -> int:
    beyond = np.maximum(echoes.echo_number, echoes.echo_count) > limit
    if not beyond.any():
        return 0
    # The echoes of a shot are consecutive with increasing numbers and equal times.
    starts = np.ones(len(echoes), dtype=bool)
    starts[1:] = (np.diff(echoes.echo_number) <= 0) | (np.diff(echoes.gps_time) != 0)
    shots = np.cumsum(starts)
    return len(np.unique(shots[beyond]))


def _rounded(values: npt.NDArray[np.floating], low: int, high: int) -> npt.NDArray[np.int64]:
    whole: npt.NDArray[np.floating] = np.clip(np.rint(values), low, high)
    whole[np.isnan(whole)] = 0.0
    return whole.astype(np.int64)


def _fill_standard_fields(
    record: laspy.ScaleAwarePointRecord,
    echoes: EchoTable,
    return_limit: int,
) -> None:
    record["intensity"] = _rounded(echoes["amplitude"], 0, _UINT16.max)
    record["gps_time"] = echoes["gps_time"]
    record["classification"] = echoes["classification"]
    record["return_number"] = np.minimum(echoes["echo_number"], return_limit)
    record["number_of_returns"] = np.minimum(echoes["echo_count"], return_limit)
    record["scan_direction_flag"] = echoes["scan_direction_flag"]
    record["edge_of_flight_line"] = echoes["edge_of_flight_line"]
    record["user_data"] = echoes["user_data"]
    record["point_source_id"] = echoes["point_source_id"]
    angle = echoes["scan_angle"].astype(np.float64)
    if record.point_format.id < 6:
        record["scan_angle_rank"] = _rounded(angle, -90, 90)
    else:
        record["scan_angle"] = _rounded(angle / SCAN_ANGLE_UNIT, -30000, 30000)
