"""Points of LAS files with waveforms: opening, survey, and whole shots in order of time."""

from __future__ import annotations

import struct
from collections.abc import Iterable, Iterator, Sequence
from contextlib import ExitStack
from pathlib import Path

import laspy
import numpy as np
from laspy.vlrs.vlrlist import VLRList

from fullwaveform.core.las_points import PointLayout, Survey, survey_of
from fullwaveform.data.arrays import RecordArray
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.coordinates import check_coordinates
from fullwaveform.io.file_bytes import FileBytes
from fullwaveform.io.las.compression import (
    check_compression,
    check_scanner_channels,
    decoder_errors,
    decompressors,
    loses_packet_fields,
    scanner_channels,
)
from fullwaveform.io.las.waveform_packets import (
    PACKET_RECORD_ID,
    RECORD_HEADER_SIZE,
    read_record_header,
)
from fullwaveform.io.limits import SURVEY_CHUNK
from fullwaveform.io.remote import is_remote

WAVEFORM_POINT_FORMATS = (4, 5, 9, 10)
_VERSIONS = ((1, 3), (1, 4), (1, 5))
_COMPRESSED = 0b1000_0000  # bit of the point format
SCAN_ANGLE_UNIT = 0.006  # degrees per count of the scan angle in point formats 6 to 10

_FIRST_SEARCH = 64  # points
_LOCAL_CHUNK = 1 << 13  # points that stay in the cache while they are visited
_MIN_HEADER = 227  # bytes, LAS 1.0 to 1.2
_RECORD_HEADER_SIZE = 54  # bytes of an ordinary variable record's header
_LENGTH_IN_RECORD_HEADER = 20  # byte

Points = RecordArray  # fields as named by laspy


def open_las(path: Path) -> tuple[laspy.LasReader, dict[int, int]]:
    """Open a LAS file with waveform points.

    Returns
    -------
    laspy's reader, whose header has the extended records except the packets (which may exceed
    memory), and the start of each extended record by record id.

    Raises
    ------
    OSError
        If the file cannot be opened.
    WaveformFileError
        If it is not a complete LAS file with waveform points.
    """
    _check_header_extent(path)
    with decoder_errors(f"{path} is not a valid LAS file"):
        reader = laspy.open(path.open("rb"), read_evlrs=False, laz_backend=decompressors())
    try:
        _check_header(reader.header, path)
        records, starts = _read_extended_records(reader.header, path)
        reader.header.evlrs = records
    except BaseException:
        reader.close()
        raise
    return reader, starts


def _check_header_extent(path: Path) -> None:
    """Reject truncated headers, which laspy would complete with zeros."""
    size = path.stat().st_size
    with path.open("rb") as stream:
        start = stream.read(_MIN_HEADER)
    if start[:4] != b"LASF":
        raise WaveformFileError(f"{path} is not a LAS file; it must start with LASF")
    if len(start) < _MIN_HEADER:
        raise WaveformFileError(f"{path}: truncated in the header after {size} bytes")
    _check_kind(start, path)
    header_size, points_start, records = struct.unpack_from("<HII", start, 94)
    if points_start > size:
        raise WaveformFileError(
            f"{path}: truncated: points start at byte {points_start}, file has {size} bytes"
        )
    if header_size + records * _RECORD_HEADER_SIZE > points_start:
        raise WaveformFileError(
            f"{path}: {records} variable records do not fit between the header of {header_size} "
            f"bytes and the points at byte {points_start}"
        )
    _check_record_extent(path, header_size, points_start, records)


def _check_kind(start: bytes, path: Path) -> None:
    version, point_format = (start[24], start[25]), start[104] & ~_COMPRESSED
    if version not in _VERSIONS:
        raise WaveformFileError(
            f"{path}: unsupported LAS version {version[0]}.{version[1]}; must be 1.3, 1.4 or 1.5"
        )
    if point_format not in WAVEFORM_POINT_FORMATS:
        raise WaveformFileError(
            f"{path}: point format {point_format} has no waveforms; must be 4, 5, 9 or 10"
        )


def _check_record_extent(path: Path, start: int, end: int, records: int) -> None:
    """Reject records that extend into the points, which laspy would shorten."""
    with path.open("rb") as stream:
        for number in range(1, records + 1):
            stream.seek(start + _LENGTH_IN_RECORD_HEADER)
            (length,) = struct.unpack("<H", stream.read(2))
            start += _RECORD_HEADER_SIZE + length
            if start > end:
                raise WaveformFileError(
                    f"{path}: variable record {number} of {records} has {length} bytes and extends "
                    f"beyond byte {end}, where the points start"
                )


def _check_header(header: laspy.LasHeader, path: Path) -> None:
    check_coordinates(header.scales, header.offsets, path)
    if header.are_points_compressed:
        check_compression(header, path)
        return
    found = (path.stat().st_size - header.offset_to_point_data) // header.point_format.size
    if found < header.point_count:
        raise WaveformFileError(
            f"{path}: truncated: header declares {header.point_count} points, found {found}"
        )


def _read_extended_records(
    header: laspy.LasHeader, path: Path
) -> tuple[VLRList | None, dict[int, int]]:
    if header.version.minor < 4:
        return None, {}
    size = path.stat().st_size
    records = VLRList()
    starts: dict[int, int] = {}
    position = header.start_of_first_evlr
    with path.open("rb") as stream:
        for number in range(header.number_of_evlrs):
            if position + RECORD_HEADER_SIZE > size:
                raise WaveformFileError(
                    f"{path}: truncated: extended record {number + 1} of "
                    f"{header.number_of_evlrs} starts at byte {position}, file has {size} bytes"
                )
            stream.seek(position)
            user, record_id, length = read_record_header(stream)
            end = position + RECORD_HEADER_SIZE + length
            if user == b"LASF_Spec":
                starts.setdefault(record_id, position)
            if (user, record_id) != (b"LASF_Spec", PACKET_RECORD_ID):
                if end > size:
                    raise WaveformFileError(
                        f"{path}: truncated: extended record {record_id} ends at byte {end}, "
                        f"file has {size} bytes"
                    )
                stream.seek(position)
                records.extend(VLRList.read_from(stream, 1, extended=True))
            position = end
    return records, starts


class PointFile:
    """The points of an open LAS file; must be closed. Raises as `open_las`."""

    def __init__(self, path: Path) -> None:
        self.path = path
        self._reader, self.record_starts = open_las(path)  # of each extended record, by record id
        header = self.header
        self.layout = PointLayout(header.point_format.id, header.point_format.size)
        self.scales = np.array(header.scales, dtype=np.float64)
        self.offsets = np.array(header.offsets, dtype=np.float64)
        self.dtype = header.point_format.dtype()
        self.count = int(header.point_count)
        self._bytes: FileBytes | None = None  # of points that are not compressed
        try:
            if not header.are_points_compressed:
                self._bytes = FileBytes(path, header.offset_to_point_data)
        except BaseException:
            self.close()
            raise

    @property
    def header(self) -> laspy.LasHeader:
        """Header of the file; its extended records do not include the waveform packets."""
        return self._reader.header

    def close(self) -> None:
        """Close the file; may be called twice."""
        self._reader.close()
        if self._bytes is not None:
            self._bytes.close()

    def read(self, start: int, stop: int) -> Points:
        """The points `start` <= number < `stop`; WaveformFileError if they cannot be read."""
        if self._bytes is not None:
            size = self.layout.size
            return self._bytes.part(start * size, stop * size).view(self.dtype)
        with decoder_errors(f"{self.path}: cannot read points from number {start}"):
            if start == 0 or self._reader.points_read != start:  # another iteration is in progress
                self._reader.seek(start)
            points: Points = self._reader.read_points(stop - start).array
        if len(points) != stop - start:
            raise WaveformFileError(
                f"{self.path}: truncated: header declares {self.count} points, found "
                f"{start + len(points)}"
            )
        return points

    def survey(self) -> Survey:
        """Read all points once, chunk by chunk."""
        is_local = self._bytes is not None and not is_remote(self.path)
        chunks = self.in_file_order(_LOCAL_CHUNK if is_local else SURVEY_CHUNK)
        if self.header.are_points_compressed and loses_packet_fields(self.header):
            chunks = _of_one_scanner_channel(chunks, self.path)
        return survey_of(chunks, self.layout)

    def in_file_order(self, chunk: int) -> Iterator[Points]:
        """All points, in parts of `chunk` points."""
        for start in range(0, self.count, chunk):
            yield self.read(start, min(start + chunk, self.count))

    def in_order_of_time(self, chunk: int) -> Iterator[Points]:
        """All points, those of equal time in the order of the file, in parts of `chunk` points."""
        # 8 bytes per point for the index, as much for the times while it is built; NaN is last.
        times = []
        with ExitStack() as opened:
            copy, data = None, self._bytes
            if data is None:  # single points can be read from an uncompressed copy only
                from tempfile import NamedTemporaryFile

                copy = opened.enter_context(NamedTemporaryFile(prefix="fullwaveform-"))
            for points in self.in_file_order(SURVEY_CHUNK):
                times.append(points["gps_time"].copy())
                if copy is not None:
                    copy.write(points.tobytes())
            if copy is not None:
                copy.flush()
                data = FileBytes(Path(copy.name))
                opened.callback(data.close)
            assert data is not None
            order = np.argsort(np.concatenate(times), kind="stable")
            for start in range(0, len(order), chunk):
                offsets = order[start : start + chunk] * self.layout.size
                yield data.rows(offsets, self.layout.size).view(self.dtype)[:, 0]


def _of_one_scanner_channel(chunks: Iterable[Points], path: Path) -> Iterator[Points]:
    """The chunks; an error if their points have several scanner channels."""
    channels: set[int] = set()
    for points in chunks:
        check_scanner_channels(channels := channels | scanner_channels(points), path)
        yield points


def joined(parts: Sequence[Points]) -> Points:
    """The points of all parts, at least one part."""
    if len(parts) == 1:
        return parts[0]
    # As bytes, because NumPy copies records field by field.
    return np.concatenate([part.view(np.uint8) for part in parts]).view(parts[0].dtype)


def whole_shots(file: PointFile, surveyed: Survey, chunk: int) -> Iterator[Points]:
    """Yield all points in order of time, cut between shots, in parts of about `chunk` points.

    Points with the same GPS time are one shot and keep their order. Without times consecutive
    points with the same packet are one shot.

    Raises
    ------
    WaveformFileError
        If the points are truncated.
    OSError
        If compressed points are not in order of time, and the temporary folder has no space for
        them without compression.
    """
    chunks = file.in_file_order if surveyed.ascending else file.in_order_of_time
    key = "wavepacket_offset" if surveyed.without_times else "gps_time"
    carried: list[Points] = []  # of the last shot, which may continue in the next chunk
    for points in chunks(chunk):
        if carried and points[key][0] != carried[-1][key][-1]:
            yield joined(carried)
            carried = []
        start = _start_of_last_shot(points[key])
        if start > 0:
            yield joined([*carried, points[:start]])
            carried = []
        carried.append(points[start:])
    if carried:
        yield joined(carried)


def _start_of_last_shot(shots: RecordArray) -> int:
    """Where the run of values starts that equal the last one; searched for near the end first."""
    length = min(_FIRST_SEARCH, len(shots))
    while True:
        # NaN, which is unequal to itself, counts as a shot of its own.
        changes = np.flatnonzero(shots[len(shots) - length :] != shots[-1])
        if len(changes) > 0:
            return min(len(shots) - length + int(changes[-1]) + 1, len(shots) - 1)
        if length == len(shots):
            return 0
        length = min(8 * length, len(shots))
