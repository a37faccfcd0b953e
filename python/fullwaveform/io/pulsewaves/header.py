"""Header and variable records of PulseWaves files, and the LAS header for their echoes.

The records follow the header; appended records are at the end of the file, each with its header
after its data, so they are read backwards.
"""

from __future__ import annotations

import math
import struct
import uuid
from collections.abc import Sequence
from dataclasses import dataclass
from datetime import MAXYEAR, MINYEAR, date, timedelta
from pathlib import Path
from typing import BinaryIO

import laspy
import numpy as np
from laspy.header import GpsTimeType

from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.coordinates import check_coordinates
from fullwaveform.io.reference_system import PROJECTION_USER, WKT_RECORD
from fullwaveform.io.signatures import PULSE_SIGNATURE

MIN_PULSE_SIZE = 48  # bytes; larger pulses have additional attributes
PULSEWAVES_USER_ID = "PulseWaves_Spec"
PROJECTION_USER_ID = "PulseWaves_Proj"

_HEADER = struct.Struct("<16sII16s64s64sHHBBHqqIIIIqIidd2q3d3d6d")
_RECORD = struct.Struct("<16sIIq64s")
_END_OF_APPENDED = 0xFFFFFFFF  # record id; the first in the file, the last when read backwards
_SECONDS_OF_WEEK = 604_800
_ADJUSTMENT = 1e9  # s, from standard to adjusted standard GPS time of LAS
_LATEST_TIME = 2e9  # s of standard GPS time: in May 2043

Triple = tuple[float, float, float]


@dataclass(frozen=True, slots=True)
class PulseWavesHeader:
    """Header of a ``.pls`` file; every value has been checked against the file."""

    source_id: int
    system: str
    software: str
    day_and_year: tuple[int, int]  # day of the year from 1
    guid: bytes
    version: tuple[int, int]
    header_size: int  # bytes
    pulses_start: int  # byte of the file
    pulse_count: int
    attributes: int  # not 0: pulses have more than the standard fields
    pulse_size: int  # bytes
    record_count: int
    appended_count: int  # negative: unknown
    time_scale: float  # s per count
    time_offset: float  # s
    time_range: tuple[int, int]  # counts; not always set
    scales: Triple
    offsets: Triple
    lower: Triple  # of the coordinates
    upper: Triple

    @property
    def seconds(self) -> list[float]:
        """First and last time of the file, s."""
        return [count * self.time_scale + self.time_offset for count in self.time_range]

    @property
    def has_wrong_time_offset(self) -> bool:
        """Whether the times are standard GPS times already before the offset is added.

        Some writers state an offset for times that contain it.
        """
        stored = [count * self.time_scale for count in self.time_range]
        is_standard = self.time_offset > 0 and min(stored) >= _ADJUSTMENT
        return is_standard and min(self.seconds) >= _LATEST_TIME

    @property
    def time_adjustment(self) -> float:
        """What LAS subtracts from the times, s: from 1e9 s on they are standard GPS time."""
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
        If it is not a PulseWaves file of version 0.
    """
    with path.open("rb") as stream:
        start = stream.read(_HEADER.size)
    if not start.startswith(PULSE_SIGNATURE):
        raise WaveformFileError(
            f"{path} is not a PulseWaves pulse file; must start with {PULSE_SIGNATURE.decode()}"
        )
    if len(start) < _HEADER.size:
        raise WaveformFileError(
            f"{path}: truncated in the header: {len(start)} bytes, the header has {_HEADER.size}"
        )
    fields = _HEADER.unpack(start)
    _check_kind(fields, path)
    header = PulseWavesHeader(
        source_id=fields[2],
        system=_text(fields[4]),
        software=_text(fields[5]),
        day_and_year=(fields[6], fields[7]),
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
        lower=fields[30:36:2],
        upper=fields[31:36:2],
    )
    _check_extent(header, path)
    _check_scales(header, path)
    return header


def read_records(header: PulseWavesHeader, path: Path) -> list[VariableRecord]:
    """Read the variable records after the header.

    Raises
    ------
    WaveformFileError
        If a record is truncated or reaches into the pulses.
    """
    with path.open("rb") as stream:
        return _records_after_header(header, stream, path)


def read_appended_records(
    header: PulseWavesHeader, pulses_end: int, path: Path
) -> list[VariableRecord]:
    """Read the appended records, the last one first, which follow the byte `pulses_end`.

    Raises
    ------
    WaveformFileError
        If a record is truncated or reaches into the pulses.
    """
    with path.open("rb") as stream:
        return _appended_records(header, pulses_end, stream, path)


def las_header(header: PulseWavesHeader, records: Sequence[VariableRecord]) -> laspy.LasHeader:
    """LAS 1.4 header of point format 9 with the scales, offsets and reference system.

    The file does not define the origin of its times. Times within one week are declared as GPS week
    time, all others as adjusted standard GPS time; standard GPS times are adjusted when pulses are
    read.
    """
    las = laspy.LasHeader(version="1.4", point_format=9)
    las.scales, las.offsets = np.array(header.scales), np.array(header.offsets)
    las.mins, las.maxs = np.array(header.lower), np.array(header.upper)
    las.system_identifier, las.generating_software = header.system, header.software
    las.creation_date = _date(*header.day_and_year)
    las.uuid = uuid.UUID(bytes_le=header.guid)
    las.file_source_id = header.source_id if header.source_id <= 0xFFFF else 0
    in_week = all(0 <= second <= _SECONDS_OF_WEEK for second in header.seconds)
    las.global_encoding.gps_time_type = GpsTimeType.WEEK_TIME if in_week else GpsTimeType.STANDARD
    projections = [record for record in records if record.user == PROJECTION_USER_ID]
    las.vlrs.extend(
        laspy.VLR(PROJECTION_USER, record.record_id, record.description, record.data)
        for record in projections
    )
    # With the WKT flag a reader would ignore GeoTIFF keys.
    las.global_encoding.wkt = not projections or any(
        record.record_id == WKT_RECORD for record in projections
    )
    return las


def _date(day: int, year: int) -> date | None:
    """None for a day that the year does not have, such as 0 where no date is known."""
    if not (1 <= day <= 366 and MINYEAR < year < MAXYEAR):
        return None
    found = date(year, 1, 1) + timedelta(days=day - 1)
    return found if found.year == year else None


def _check_kind(fields: tuple[int, ...], path: Path) -> None:
    major, minor, header_size = fields[8:11]
    pulse_format, pulse_size, compression = fields[13], fields[15], fields[16]
    if major != 0:
        raise WaveformFileError(f"{path}: unsupported version {major}.{minor}; must be 0.x")
    if header_size < _HEADER.size:
        raise WaveformFileError(
            f"{path}: invalid header size {header_size} bytes; must be at least {_HEADER.size}"
        )
    if compression != 0:
        raise WaveformFileError(
            f"{path}: unsupported compression type {compression} of the pulses; must be 0 (none)"
        )
    if pulse_format != 0:
        raise WaveformFileError(f"{path}: unsupported pulse format {pulse_format}; must be 0")
    if pulse_size < MIN_PULSE_SIZE:
        raise WaveformFileError(
            f"{path}: invalid pulse size {pulse_size} bytes; must be at least {MIN_PULSE_SIZE}"
        )


def _check_extent(header: PulseWavesHeader, path: Path) -> None:
    size = path.stat().st_size
    if not header.header_size <= header.pulses_start <= size:
        raise WaveformFileError(
            f"{path}: invalid start of the pulses at byte {header.pulses_start}; must be "
            f"from the end of the header at byte {header.header_size} to that of the file at {size}"
        )
    if header.header_size + header.record_count * _RECORD.size > header.pulses_start:
        raise WaveformFileError(
            f"{path}: {header.record_count} variable records do not fit between the header of "
            f"{header.header_size} bytes and the pulses at byte {header.pulses_start}"
        )
    if header.pulse_count < 0:
        raise WaveformFileError(
            f"{path}: invalid number of pulses {header.pulse_count}; must not be negative"
        )


def _check_scales(header: PulseWavesHeader, path: Path) -> None:
    check_coordinates(header.scales, header.offsets, path)
    if not math.isfinite(header.time_scale) or not math.isfinite(header.time_offset):
        raise WaveformFileError(
            f"{path}: invalid scale {header.time_scale} or offset {header.time_offset} of the "
            "times; must be finite"
        )


def _records_after_header(
    header: PulseWavesHeader, stream: BinaryIO, path: Path
) -> list[VariableRecord]:
    records = []
    position = header.header_size
    for number in range(1, header.record_count + 1):
        name = f"{path}: variable record {number} of {header.record_count}"
        if position + _RECORD.size > header.pulses_start:
            raise WaveformFileError(
                f"{name}: truncated: starts at byte {position}, pulses start at byte "
                f"{header.pulses_start}"
            )
        stream.seek(position)
        head = stream.read(_RECORD.size)
        length = _length_of(head)
        end = position + _RECORD.size + length
        if length < 0 or end > header.pulses_start:
            raise WaveformFileError(
                f"{name}: invalid length {length} bytes; must end before the pulses at byte "
                f"{header.pulses_start}"
            )
        records.append(_record(head, stream.read(length)))
        position = end
    return records


def _appended_records(
    header: PulseWavesHeader, pulses_end: int, stream: BinaryIO, path: Path
) -> list[VariableRecord]:
    records: list[VariableRecord] = []
    position = path.stat().st_size
    while len(records) != header.appended_count:
        name = f"{path}: appended record {len(records) + 1} from the end"
        if position - _RECORD.size < pulses_end:
            raise WaveformFileError(
                f"{name}: truncated: pulses end at byte {pulses_end}; header declares "
                f"{header.appended_count} records"
            )
        stream.seek(position - _RECORD.size)
        head = stream.read(_RECORD.size)
        if _RECORD.unpack(head)[1] == _END_OF_APPENDED:
            if header.appended_count < 0:
                break
            raise WaveformFileError(
                f"{name} ends the list; header declares {header.appended_count} records"
            )
        length = _length_of(head)
        start = position - _RECORD.size - length
        if length < 0 or start < pulses_end:
            raise WaveformFileError(
                f"{name}: invalid length {length} bytes; must start after the pulses at byte "
                f"{pulses_end}"
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
