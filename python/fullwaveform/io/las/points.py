"""Points of LAS files with waveforms: opening, survey, and whole shots in order of time."""

from __future__ import annotations

import struct
from collections.abc import Iterable, Iterator
from contextlib import ExitStack
from dataclasses import dataclass
from pathlib import Path
from tempfile import NamedTemporaryFile

import laspy
import numpy as np
from laspy.vlrs.vlrlist import VLRList

from fullwaveform.data.arrays import BoolArray, FloatArray, RecordArray, UInt8Array
from fullwaveform.data.blocks import PulseGeometry, ShotAttributes
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

WAVEFORM_POINT_FORMATS = (4, 5, 9, 10)
_VERSIONS = ((1, 3), (1, 4), (1, 5))
_COMPRESSED = 0b1000_0000  # bit of the point format
SCAN_ANGLE_UNIT = 0.006  # degrees per count of the scan angle in point formats 6 to 10

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


@dataclass(frozen=True, slots=True)
class Survey:
    """What is known of the points before the first block."""

    ascending: bool  # GPS times never decrease and none is NaN
    without_times: bool  # all points have the same GPS time but several packets
    descriptors: tuple[int, ...]  # that points refer to, without 0
    same_shots: frozenset[tuple[int, int]]  # pairs of descriptors with packets of the same shot


def survey(reader: laspy.LasReader, path: Path) -> Survey:
    """Read all points once, chunk by chunk."""
    chunks = _in_file_order(reader, path, SURVEY_CHUNK)
    if reader.header.are_points_compressed and loses_packet_fields(reader.header):
        return survey_of(_of_one_scanner_channel(chunks, path))
    return survey_of(chunks)


def _of_one_scanner_channel(chunks: Iterable[Points], path: Path) -> Iterator[Points]:
    """The chunks; an error if their points have several scanner channels."""
    channels: set[int] = set()
    for points in chunks:
        check_scanner_channels(channels := channels | scanner_channels(points), path)
        yield points


def survey_of(chunks: Iterable[Points]) -> Survey:
    """The survey of chunks of points in the order of the file."""
    used = np.zeros(256, dtype=bool)
    pairs: set[tuple[int, int]] = set()
    ascending, last_time = True, -np.inf
    times: tuple[float, float] = (np.inf, -np.inf)
    offsets: tuple[int, int] = (2**64, -1)
    for points in chunks:
        gps_time, index = points["gps_time"], points["wavepacket_index"]
        used[index] = True
        pairs |= _pairs_of_shots(gps_time, index)
        # Written so that any NaN makes it false.
        ascending = ascending and bool(gps_time[0] >= last_time and (np.diff(gps_time) >= 0).all())
        last_time = gps_time[-1]
        times = min(times[0], float(gps_time.min())), max(times[1], float(gps_time.max()))
        packets = points["wavepacket_offset"][index > 0]
        if len(packets) > 0:
            offsets = min(offsets[0], int(packets.min())), max(offsets[1], int(packets.max()))
    without_times = ascending and times[0] == times[1] and offsets[0] < offsets[1]
    descriptors = tuple(int(i) for i in np.flatnonzero(used) if i > 0)
    same_shots = frozenset[tuple[int, int]]() if without_times else frozenset(pairs)
    return Survey(ascending, without_times, descriptors, same_shots)


def _pairs_of_shots(gps_time: FloatArray, index: UInt8Array) -> set[tuple[int, int]]:
    """Descriptors, the smaller first, of consecutive points with equal time."""
    both = (gps_time[1:] == gps_time[:-1]) & (index[1:] > 0) & (index[:-1] > 0)
    differ = both & (index[1:] != index[:-1])
    found = np.sort(np.column_stack([index[1:], index[:-1]])[differ], axis=1)
    return {(int(one), int(other)) for one, other in np.unique(found, axis=0)}


def whole_shots(
    reader: laspy.LasReader, path: Path, surveyed: Survey, chunk: int
) -> Iterator[Points]:
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
    chunks = _in_file_order if surveyed.ascending else _in_order_of_time
    key = "wavepacket_offset" if surveyed.without_times else "gps_time"
    carried: list[Points] = []  # of the last shot, which may continue in the next chunk
    for points in chunks(reader, path, chunk):
        if carried and points[key][0] != carried[-1][key][-1]:
            yield np.concatenate(carried)
            carried = []
        # NaN, which is unequal to itself, counts as a shot of its own.
        changes = np.flatnonzero(points[key] != points[key][-1])
        start = min(int(changes[-1]) + 1, len(points) - 1) if len(changes) else 0
        if start > 0:
            yield np.concatenate([*carried, points[:start]])
            carried = []
        carried.append(points[start:])
    if carried:
        yield np.concatenate(carried)


def _in_file_order(reader: laspy.LasReader, path: Path, chunk: int) -> Iterator[Points]:
    total = reader.header.point_count
    for start in range(0, total, chunk):
        yield points_in_range(reader, path, start, min(start + chunk, total))


def points_in_range(reader: laspy.LasReader, path: Path, start: int, stop: int) -> Points:
    """The points `start` <= number < `stop`; WaveformFileError if they are truncated."""
    with decoder_errors(f"{path}: cannot read points from number {start}"):
        if start == 0 or reader.points_read != start:  # another iteration may be in progress
            reader.seek(start)
        points: Points = reader.read_points(stop - start).array
    if len(points) != stop - start:
        raise WaveformFileError(
            f"{path}: truncated: header declares {reader.header.point_count} points, found "
            f"{start + len(points)}"
        )
    return points


def _in_order_of_time(reader: laspy.LasReader, path: Path, chunk: int) -> Iterator[Points]:
    header = reader.header
    layout = header.point_format.dtype()
    # 8 bytes per point for the index, as much for the times while it is built; NaN is last.
    times = []
    with ExitStack() as opened:
        copy = None
        if header.are_points_compressed:  # single points can be read from a copy only
            copy = opened.enter_context(NamedTemporaryFile(prefix="fullwaveform-"))
        for points in _in_file_order(reader, path, SURVEY_CHUNK):
            times.append(points["gps_time"].copy())
            if copy is not None:
                copy.write(points.tobytes())
        if copy is None:
            data = FileBytes(path, header.offset_to_point_data)
        else:
            copy.flush()
            data = FileBytes(Path(copy.name))
        opened.callback(data.close)
        order = np.argsort(np.concatenate(times), kind="stable")
        for start in range(0, len(order), chunk):
            offsets = order[start : start + chunk] * layout.itemsize
            yield data.rows(offsets, layout.itemsize).view(layout)[:, 0]


def is_georeferenced(points: Points) -> BoolArray:
    """Whether direction and return location of each point (n,) are finite."""
    finite: BoolArray = np.isfinite(points["return_point_wave_location"])
    for axis in ("x_t", "y_t", "z_t"):
        finite &= np.isfinite(points[axis])
    return finite


def coordinates(record: laspy.ScaleAwarePointRecord) -> FloatArray:
    """Coordinates of the points (n, 3), in the units of the file."""
    xyz: FloatArray = np.column_stack([record["x"], record["y"], record["z"]]).astype(np.float64)
    return xyz


def pulse_geometry(record: laspy.ScaleAwarePointRecord) -> PulseGeometry:
    """Geometry of the waveforms of the points."""
    direction: FloatArray = np.column_stack([record["x_t"], record["y_t"], record["z_t"]])
    return PulseGeometry(
        anchor=coordinates(record),
        location=record["return_point_wave_location"].astype(np.float64),
        direction=direction.astype(np.float64),
    )


def shot_attributes(record: laspy.ScaleAwarePointRecord) -> ShotAttributes:
    """What echoes inherit from the points; scan angle in degrees for every format."""
    if record.point_format.id < 6:
        angle = record["scan_angle_rank"].astype(np.float32)
    else:
        angle = (record["scan_angle"] * SCAN_ANGLE_UNIT).astype(np.float32)
    return ShotAttributes(
        gps_time=record["gps_time"].astype(np.float64),
        scan_angle=angle,
        scan_direction_flag=np.array(record["scan_direction_flag"], dtype=np.uint8),
        edge_of_flight_line=np.array(record["edge_of_flight_line"], dtype=np.uint8),
        user_data=np.array(record["user_data"]),
        point_source_id=np.array(record["point_source_id"]),
    )
