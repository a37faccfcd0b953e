"""What the header of a file says about its origin."""

from __future__ import annotations

from collections.abc import Mapping
from dataclasses import dataclass
from pathlib import Path
from typing import Any

import laspy

from fullwaveform.io.las.compression import decoder_errors
from fullwaveform.io.las.points import WAVEFORM_POINT_FORMATS
from fullwaveform.io.reference_system import has_records, reference_system
from fullwaveform.io.run_record import read_run_records

_NOT_UNDERSTOOD = "not understood"
_POINT_FORMAT = 104  # byte of the header of a LAS file
_COMPRESSED = 0b1000_0000  # bit of it

Triple = tuple[float, float, float]


@dataclass(frozen=True, slots=True)
class FileOrigin:
    """Origin of a file with coordinates; texts are empty where the header has none."""

    software: str
    system: str
    date: str  # ISO 8601
    lower: Triple  # of the coordinates; both 0 where the header has none
    upper: Triple
    reference_system: str | None  # name, with code if it has one; None if the file has none
    run: Mapping[str, Any] | None  # settings of the extraction that wrote the file


def origin_of(header: laspy.LasHeader | None) -> FileOrigin | None:
    """The origin; None without a header."""
    if header is None:
        return None
    date = header.creation_date
    return FileOrigin(
        software=_text(header.generating_software),
        system=_text(header.system_identifier),
        date="" if date is None else date.isoformat(),
        lower=_triple(header.mins),
        upper=_triple(header.maxs),
        reference_system=_name_of_system(header),
        run=read_run_records(header.vlrs),
    )


@dataclass(frozen=True, slots=True)
class PointFile:
    """A LAS file without waveforms, such as one of echoes."""

    format: str
    points: int
    origin: FileOrigin


def point_file(path: Path) -> PointFile | None:
    """What is in a LAS file without waveforms; None for all other files.

    Raises OSError and WaveformFileError if it cannot be read.
    """
    with path.open("rb") as stream:
        start = stream.read(_POINT_FORMAT + 1)
    if not start.startswith(b"LASF") or len(start) <= _POINT_FORMAT:
        return None
    if start[_POINT_FORMAT] & ~_COMPRESSED in WAVEFORM_POINT_FORMATS:
        return None
    with decoder_errors(f"{path} is not a valid LAS file"), laspy.open(path.open("rb")) as reader:
        header, origin = reader.header, origin_of(reader.header)
    assert origin is not None
    kind = "LAZ" if header.are_points_compressed else "LAS"
    return PointFile(
        f"{kind} {header.version}, point format {header.point_format.id}, no waveforms",
        int(header.point_count),
        origin,
    )


def _name_of_system(header: laspy.LasHeader) -> str | None:
    if not has_records(header):
        return None
    system = reference_system(header)
    if system is None:
        return _NOT_UNDERSTOOD
    code = system.to_epsg()
    return str(system.name) if code is None else f"{system.name} (EPSG:{code})"


def _text(value: str | bytes) -> str:
    text = value.decode("ascii", "replace") if isinstance(value, bytes) else value
    return text.rstrip("\0 ")


def _triple(values: Any) -> Triple:
    x, y, z = (float(value) for value in values)
    return x, y, z
