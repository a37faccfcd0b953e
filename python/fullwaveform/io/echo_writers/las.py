"""Echoes as points of a LAS file."""

from __future__ import annotations

import os
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

import laspy
import numpy as np
import numpy.typing as npt

from fullwaveform.data.arrays import FloatArray
from fullwaveform.data.blocks import EchoTable
from fullwaveform.data.empty_waveforms import without_empty_waveforms
from fullwaveform.io.atomic import OutputFile, atomic_open
from fullwaveform.io.base import EchoWriter
from fullwaveform.io.las.points import SCAN_ANGLE_UNIT

_CRS_RECORDS = (34735, 34736, 34737, 2111, 2112)  # GeoTIFF keys, doubles, strings; WKT
_GPS_TIME_OFFSET_BIT = 0b100_0000  # from LAS 1.5 on
_INT32 = np.iinfo(np.int32)
_EXTRA_BYTES = {  # dimension of the file -> column of EchoTable, type, description (32 at most)
    "amplitude_db": ("amplitude_db", np.float32, "Echo amplitude, dB"),
    "width_ns": ("width_ns", np.float32, "Echo standard deviation, ns"),
    "position": ("position", np.float64, "Fractional sample index"),
    "echo_type": ("type", np.uint8, "How the echo was found"),
    "quality": ("quality", np.uint8, "Quality of the echo"),
    "reflectance": ("reflectance", np.float32, "Reflectance"),
}


class LasEchoWriter(EchoWriter):
    """Writes echoes to a LAS file, table by table; to be used in a ``with`` statement.

    `source` is the header of the file the echoes come from: version, scales, offsets, meaning of
    the GPS time and coordinate reference system follow it. Point formats below 6 become format 1,
    the others format 6, both with the extra dimensions amplitude_db, width_ns, position,
    echo_type, quality and reflectance. Without a source: LAS 1.4, format 6, millimetres, offsets
    near the first echoes. A name ending in ``.laz`` is compressed.

    The file takes its name when the block ends without an error. Raises OSError if it cannot be
    written, ValueError if it is to be compressed and no compressor is installed.
    """

    takes_empty = False

    def __init__(self, path: str | os.PathLike[str], source: laspy.LasHeader | None) -> None:
        super().__init__(path)
        self._compressor = _compressor(self.path) if self._is_compressed else None
        self.not_representable = 0  # echoes left out: no finite coordinate, or beyond 32 bits
        self.saturated_return_numbers = 0  # shots with more echoes than the return number can say
        self._source = source
        self._header = echo_header(source)
        self._return_limit = 7 if self._header.point_format.id < 6 else 15
        self._stream: OutputFile | None = None
        self._writer: laspy.LasWriter | None = None

    def write(self, echoes: EchoTable) -> None:
        """Append the echoes; a shot must not be spread over two calls.

        Echoes whose coordinates cannot be stored are left out and counted, waveforms without
        echoes left out. ValueError outside the
        ``with`` statement.
        """
        if self._stream is None:
            raise ValueError(f"{self.path} is not open for writing")
        echoes = without_empty_waveforms(echoes)
        if len(echoes) == 0:
            return
        writer = self._writer_for(echoes)
        self.saturated_return_numbers += _shots_beyond(echoes, self._return_limit)
        grid, kept = grid_coordinates(echoes.xyz, self._header)
        record = laspy.ScaleAwarePointRecord.zeros(len(kept), header=self._header)
        record["X"], record["Y"], record["Z"] = grid.T
        _fill_standard_fields(record, echoes, kept, self._return_limit)
        for name, (column, kind, _) in _EXTRA_BYTES.items():
            record[name] = getattr(echoes, column)[kept].astype(kind)
        writer.write_points(record)
        self._stream.check()
        self.count += len(kept)
        self.not_representable += len(echoes) - len(kept)

    def notes(self) -> tuple[str, ...]:
        """What could not be written as it is, a sentence each."""
        return las_notes(self.count, self.not_representable, self.saturated_return_numbers)

    @contextmanager
    def _open(self) -> Iterator[None]:
        with atomic_open(self.path) as self._stream:
            try:
                yield
                writer = self._writer or self._start()
                records = _crs_records(self._source.evlrs if self._source is not None else None)
                if records and self._header.version.minor >= 4:
                    writer.write_evlrs(laspy.vlrs.vlrlist.VLRList(records))
                writer.close()
            finally:
                self._stream = self._writer = None

    def _writer_for(self, echoes: EchoTable) -> laspy.LasWriter:
        if self._writer is None:
            if self._source is None:
                self._header.offsets = _offsets_near(echoes.xyz)
            self._writer = self._start()
        return self._writer

    @property
    def _is_compressed(self) -> bool:
        return self.path.suffix.lower() == ".laz"

    def _start(self) -> laspy.LasWriter:
        return laspy.open(
            self._stream,
            mode="w",
            header=self._header,
            do_compress=self._is_compressed,
            laz_backend=self._compressor,
            closefd=False,
        )


def las_notes(written: int, not_representable: int, saturated: int) -> tuple[str, ...]:
    """What a LAS file, or several together, could not hold as it is, a sentence each."""
    notes = []
    if not_representable:
        notes.append(
            f"{not_representable:,} of {written + not_representable:,} echoes left out: their "
            "coordinates are not finite, or do not fit the file's scale and offset"
        )
    if saturated:
        notes.append(
            f"{saturated:,} shots have more echoes than a return number can say; the numbers stop "
            "at the largest"
        )
    return tuple(notes)


def _compressor(path: Path) -> laspy.LazBackend:
    available = laspy.LazBackend.detect_available()
    if not available:
        raise ValueError(
            f"{path} cannot be compressed: no compressor for .laz is installed; install one with "
            "pip install lazrs, or write .las"
        )
    return available[0]


def echo_header(source: laspy.LasHeader | None) -> laspy.LasHeader:
    """Make the header for echoes extracted from the file of the given header.

    Waveform descriptors and the bits that announce waveforms are left behind: the new points have
    no packets.
    """
    if source is None:
        header = laspy.LasHeader(version="1.4", point_format=6)
        header.scales = np.full(3, 0.001)
        header.global_encoding.wkt = True  # formats 6 to 10 know no other reference system
    else:
        header = laspy.LasHeader(
            version=source.version, point_format=1 if source.point_format.id < 6 else 6
        )
        header.scales, header.offsets = np.array(source.scales), np.array(source.offsets)
        header.file_source_id, header.uuid = source.file_source_id, source.uuid
        header.global_encoding.gps_time_type = source.global_encoding.gps_time_type
        header.global_encoding.wkt = source.global_encoding.wkt
        if header.version.minor >= 5:
            header.global_encoding.value |= source.global_encoding.value & _GPS_TIME_OFFSET_BIT
            header.gps_time_offset = source.gps_time_offset
        header.vlrs.extend(_crs_records(source.vlrs))
    header.system_identifier = "EXTRACTION"
    header.generating_software = "fullwaveform"
    header.add_extra_dims(
        [
            laspy.ExtraBytesParams(name, kind, description)
            for name, (_, kind, description) in _EXTRA_BYTES.items()
        ]
    )
    _leave_ranges_unstated(header)
    return header


def _leave_ranges_unstated(header: laspy.LasHeader) -> None:
    # laspy looks at the first point of each write only to find the range of an extra dimension.
    for dimension in header.vlrs.get("ExtraBytesVlr")[0].extra_bytes_structs:
        dimension.options &= ~(dimension.MIN_BIT_MASK | dimension.MAX_BIT_MASK)


def grid_coordinates(
    xyz: FloatArray, header: laspy.LasHeader
) -> tuple[npt.NDArray[np.int32], npt.NDArray[np.int64]]:
    """Express coordinates (m, 3) in steps of the header's scales, and name the rows that have them.

    Rows that are not finite or lie beyond 32 bits are missing from the result; none is wrapped.
    """
    steps = np.rint((xyz - header.offsets) / header.scales)
    # A comparison with NaN is false, so that this also finds the rows that are not numbers.
    fits = ((steps >= _INT32.min) & (steps <= _INT32.max)).all(axis=1)
    kept = np.flatnonzero(fits)
    return steps[kept].astype(np.int32), kept


def _crs_records(records: list[laspy.VLR] | None) -> list[laspy.VLR]:
    return [
        record
        for record in records or []
        if record.user_id == "LASF_Projection" and record.record_id in _CRS_RECORDS
    ]


def _offsets_near(xyz: FloatArray) -> FloatArray:
    # Whole kilometres: the offsets stay readable and millimetres reach 2147 km around them.
    finite = xyz[np.isfinite(xyz).all(axis=1)]
    if len(finite) == 0:
        return np.zeros(3)
    middle: FloatArray = np.floor(np.median(finite, axis=0) / 1000.0) * 1000.0
    return middle


def _shots_beyond(echoes: EchoTable, limit: int) -> int:
    beyond = np.maximum(echoes.echo_number, echoes.echo_count) > limit
    # The echoes of a shot stand together with rising numbers, all at the same time.
    starts = np.ones(len(echoes), dtype=bool)
    starts[1:] = (np.diff(echoes.echo_number) <= 0) | (np.diff(echoes.gps_time) != 0)
    shots = np.cumsum(starts)
    return len(np.unique(shots[beyond]))


def _rounded(values: npt.NDArray[np.floating], low: int, high: int) -> npt.NDArray[np.int64]:
    whole: npt.NDArray[np.int64] = np.clip(
        np.rint(np.nan_to_num(values, nan=0.0)), low, high
    ).astype(np.int64)
    return whole


def _fill_standard_fields(
    record: laspy.ScaleAwarePointRecord,
    echoes: EchoTable,
    kept: npt.NDArray[np.int64],
    return_limit: int,
) -> None:
    attributes = echoes.attributes
    record["intensity"] = _rounded(echoes.amplitude_counts[kept], 0, 65535)
    record["gps_time"] = echoes.gps_time[kept]
    record["return_number"] = np.minimum(echoes.echo_number[kept], return_limit)
    record["number_of_returns"] = np.minimum(echoes.echo_count[kept], return_limit)
    record["scan_direction_flag"] = attributes.scan_direction_flag[kept]
    record["edge_of_flight_line"] = attributes.edge_of_flight_line[kept]
    record["user_data"] = attributes.user_data[kept]
    record["point_source_id"] = attributes.point_source_id[kept]
    angle = attributes.scan_angle[kept].astype(np.float64)
    if record.point_format.id < 6:
        record["scan_angle_rank"] = _rounded(angle, -90, 90)
    else:
        record["scan_angle"] = _rounded(angle / SCAN_ANGLE_UNIT, -30000, 30000)
