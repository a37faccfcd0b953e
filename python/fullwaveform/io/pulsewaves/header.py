"""Header and variable records of PulseWaves files, and the LAS header that echoes of them follow.

The records stand behind the header; appended ones stand at the end of the file, each header behind
its data, so that they are read backwards.
"""

from __future__ import annotations

import math
import struct
import uuid
from collections.abc import Sequence
from dataclasses import dataclass
from pathlib import Path
from typing import BinaryIO

import laspy
import numpy as np
from laspy.header import GpsTimeType

from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.coordinates import check_coordinates

PULSE_SIGNATURE = b"PulseWavesPulse"
SMALLEST_PULSE = 48  # bytes; what follows in larger ones are attributes of their own
SPECIFICATION_USER = "PulseWaves_Spec"
PROJECTION_USER = "PulseWaves_Proj"

_HEADER = struct.Struct("<16sII16s64s64sHHBBHqqIIIIqIidd2q3d3d6d")
_RECORD = struct.Struct("<16sIIq64s")
_END_OF_APPENDED = 0xFFFFFFFF  # record id; the first in the file, the last that is met backwards
_SECONDS_OF_WEEK = 604_800
_ADJUSTMENT = 1e9  # s, from standard GPS time to what LAS calls adjusted standard
_WKT_RECORD = 2112

Triple = tuple[float, float, float]


@dataclass(frozen=True, slots=True)
class PulseWavesHeader:
    """What the header of a ``.pls`` file says; every value has been checked against the file."""

    source_id: int
    guid: bytes
    version: tuple[int, int]
    header_size: int  # bytes
    pulses_start: int  # byte of the file
    pulse_count: int
    attributes: int  # not 0: pulses carry more than their standard fields
    pulse_size: int  # bytes
    record_count: int
    appended_count: int  # negative: as many as there are
    time_scale: float  # s per count
    time_offset: float  # s
    time_range: tuple[int, int]  # counts; not always set
    scales: Triple
    offsets: Triple

    @property
    def pulses_end(self) -> int:
        """The byte behind the last pulse."""
        return self.pulses_start + self.pulse_count * self.pulse_size

    @property
    def seconds(self) -> list[float]:
        """First and last time of the file, s."""
        return [count * self.time_scale + self.time_offset for count in self.time_range]

    @property
    def time_adjustment(self) -> float:
        """What LAS takes off the times, s: times from 1e9 s on are standard GPS time."""
        return _ADJUSTMENT if min(self.seconds) >= _ADJUSTMENT else 0.0


@dataclass(frozen=True, slots=True)
class VariableRecord:
    """A variable record, appended or not."""

    user: str
    record_id: int
    description: str
    data: bytes


def read_header(path: Path) -> PulseWavesHeader:
    """Read and check the header of a ``.pls`` file.

    Raises
    ------
    OSError
        If the file cannot be read.
    WaveformFileError
        If it is not a whole, uncompressed PulseWaves file of version 0.
    """
    with path.open("rb") as stream:
        start = stream.read(_HEADER.size)
    if not start.startswith(PULSE_SIGNATURE):
        raise WaveformFileError(
            f"{path} is not a file of pulses: it does not start with {PULSE_SIGNATURE.decode()}"
        )
    if len(start) < _HEADER.size:
        raise WaveformFileError(
            f"{path} is cut off in its header: it has {len(start)} bytes, the header {_HEADER.size}"
        )
    fields = _HEADER.unpack(start)
    _check_kind(fields, path)
    header = PulseWavesHeader(
        source_id=fields[2],
        guid=fields[3],
        version=(fields[8], fields[9]),
        header_size=fields[10],
        pulses_start=fields[11],
        pulse_count=fields[12],
        attributes=fields[14],
        pulse_size=fields[15],
        record_count=fields[18],
        appended_count=fields[19],
        time_scale=fields[20],
        time_offset=fields[21],
        time_range=(fields[22], fields[23]),
        scales=fields[24:27],
        offsets=fields[27:30],
    )
    _check_extent(header, path)
    _check_scales(header, path)
    return header


def read_records(header: PulseWavesHeader, path: Path) -> list[VariableRecord]:
    """Read the variable records behind the header, then the appended ones, the last one first.

    Raises
    ------
    WaveformFileError
        If a record is cut short or does not fit the place where records are.
    """
    with path.open("rb") as stream:
        records = _records_behind_header(header, stream, path)
        return records + _appended_records(header, stream, path)


def las_header(header: PulseWavesHeader, records: Sequence[VariableRecord]) -> laspy.LasHeader:
    """Make a LAS 1.4 header of point format 9 with the scales, offsets and reference system.

    The file does not say from when its times count. Times within one week are announced as GPS
    week time, all others as the time that LAS calls adjusted standard; standard
    GPS times are adjusted when pulses are read.
    """
    las = laspy.LasHeader(version="1.4", point_format=9)
    las.scales, las.offsets = np.array(header.scales), np.array(header.offsets)
    las.uuid = uuid.UUID(bytes_le=header.guid)
    las.file_source_id = header.source_id if header.source_id <= 0xFFFF else 0
    in_week = all(0 <= second <= _SECONDS_OF_WEEK for second in header.seconds)
    las.global_encoding.gps_time_type = GpsTimeType.WEEK_TIME if in_week else GpsTimeType.STANDARD
    projections = [record for record in records if record.user == PROJECTION_USER]
    las.vlrs.extend(
        laspy.VLR("LASF_Projection", record.record_id, record.description, record.data)
        for record in projections
    )
    # Keys of GeoTIFF are of no use to a reader who was told to look for well-known text.
    las.global_encoding.wkt = not projections or any(
        record.record_id == _WKT_RECORD for record in projections
    )
    return las


def _check_kind(fields: tuple[int, ...], path: Path) -> None:
    major, minor, header_size = fields[8:11]
    pulse_format, pulse_size, compression = fields[13], fields[15], fields[16]
    if major != 0:
        raise WaveformFileError(f"{path} has version {major}.{minor}; versions 0.x can be read")
    if header_size < _HEADER.size:
        raise WaveformFileError(
            f"{path}: the header says it has {header_size} bytes; {_HEADER.size} are the least"
        )
    if compression != 0:
        raise WaveformFileError(
            f"{path}: the pulses are compressed, type {compression}; only type 0, none, can be read"
        )
    if pulse_format != 0:
        raise WaveformFileError(f"{path} has pulse format {pulse_format}; format 0 can be read")
    if pulse_size < SMALLEST_PULSE:
        raise WaveformFileError(
            f"{path}: a pulse has {pulse_size} bytes; {SMALLEST_PULSE} are the least"
        )


def _check_extent(header: PulseWavesHeader, path: Path) -> None:
    size = path.stat().st_size
    if not header.header_size <= header.pulses_start <= size:
        raise WaveformFileError(
            f"{path}: the pulses should start at byte {header.pulses_start}; that is not between "
            f"the header of {header.header_size} bytes and the end of the file at byte {size}"
        )
    if header.header_size + header.record_count * _RECORD.size > header.pulses_start:
        raise WaveformFileError(
            f"{path}: {header.record_count} variable records do not fit between the header of "
            f"{header.header_size} bytes and the pulses at byte {header.pulses_start}"
        )
    if header.pulse_count < 0:
        raise WaveformFileError(
            f"{path}: the header announces {header.pulse_count} pulses; fewer than 0 cannot be"
        )
    if header.pulses_end > size:
        there = (size - header.pulses_start) // header.pulse_size
        raise WaveformFileError(
            f"{path} is cut off: the header announces {header.pulse_count} pulses, {there} are "
            "there"
        )


def _check_scales(header: PulseWavesHeader, path: Path) -> None:
    check_coordinates(header.scales, header.offsets, path)
    if not math.isfinite(header.time_scale) or not math.isfinite(header.time_offset):
        raise WaveformFileError(
            f"{path}: scale {header.time_scale} and offset {header.time_offset} of the times must "
            "be finite"
        )


def _records_behind_header(
    header: PulseWavesHeader, stream: BinaryIO, path: Path
) -> list[VariableRecord]:
    records = []
    position = header.header_size
    for number in range(1, header.record_count + 1):
        name = f"{path}: variable record {number} of {header.record_count}"
        if position + _RECORD.size > header.pulses_start:
            raise WaveformFileError(
                f"{name} starts at byte {position} and is cut short by the pulses, which start at "
                f"byte {header.pulses_start}"
            )
        stream.seek(position)
        head = stream.read(_RECORD.size)
        length = _length_of(head)
        end = position + _RECORD.size + length
        if length < 0 or end > header.pulses_start:
            raise WaveformFileError(
                f"{name} has a length of {length} bytes; it must end before the pulses, which "
                f"start at byte {header.pulses_start}"
            )
        records.append(_record(head, stream.read(length)))
        position = end
    return records


def _appended_records(
    header: PulseWavesHeader, stream: BinaryIO, path: Path
) -> list[VariableRecord]:
    records: list[VariableRecord] = []
    position = path.stat().st_size
    while len(records) != header.appended_count:
        name = f"{path}: appended record {len(records) + 1} from the end"
        if position - _RECORD.size < header.pulses_end:
            raise WaveformFileError(
                f"{name} is cut short by the pulses, which end at byte {header.pulses_end}; the "
                f"header announces {header.appended_count} records"
            )
        stream.seek(position - _RECORD.size)
        head = stream.read(_RECORD.size)
        if _RECORD.unpack(head)[1] == _END_OF_APPENDED:
            if header.appended_count < 0:
                break
            raise WaveformFileError(
                f"{name} is the end of the list; the header announces {header.appended_count}"
            )
        length = _length_of(head)
        start = position - _RECORD.size - length
        if length < 0 or start < header.pulses_end:
            raise WaveformFileError(
                f"{name} has a length of {length} bytes; it must start behind the pulses, which "
                f"end at byte {header.pulses_end}"
            )
        stream.seek(start)
        records.append(_record(head, stream.read(length)))
        position = start
    return records


def _length_of(head: bytes) -> int:
    length: int = _RECORD.unpack(head)[3]
    return length


def _record(head: bytes, data: bytes) -> VariableRecord:
    user, record_id, _, _, description = _RECORD.unpack(head)
    return VariableRecord(_text(user), record_id, _text(description), data)


def _text(field: bytes) -> str:
    return field.split(b"\0")[0].decode("ascii", errors="replace")
