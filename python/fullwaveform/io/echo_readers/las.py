"""Discrete returns and echoes of LAS and LAZ files."""

from __future__ import annotations

from collections.abc import Collection, Iterator
from functools import partial
from pathlib import Path

import laspy
import numpy as np

from fullwaveform.data.arrays import BoolArray, FloatArray, RecordArray
from fullwaveform.data.echo_records import EchoFile, Rows, unknown_records
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.echo_readers.quantities import fill_quantities
from fullwaveform.io.echo_readers.shot_numbers import fill_shots
from fullwaveform.io.las.compression import (
    check_scanner_channels,
    decoder_errors,
    decompressors,
    scanner_channels,
)
from fullwaveform.io.las.points import WAVEFORM_POINT_FORMATS, open_las
from fullwaveform.io.limits import SURVEY_CHUNK
from fullwaveform.io.run_record import read_run_records

_ECHO_DIMENSION = "echo_type"  # of extracted echoes, which may have packets as well
_SOFTWARE = "fullwaveform"  # that writes the amplitude in counts as the intensity


def las_echo_file(path: Path) -> EchoFile:
    """A LAS or LAZ file: of a scan its discrete returns, of other files all points.

    Raises OSError if the file cannot be opened, WaveformFileError if it is not valid or if it is a
    scan whose points have no waveform packets. Its blocks raise WaveformFileError if a pulse of a
    scan has no direction.
    """
    with _opened(path) as reader:
        names = set(reader.header.point_format.extra_dimension_names)
        has_packets = reader.header.point_format.id in WAVEFORM_POINT_FORMATS
        recorded = read_run_records(reader.header.vlrs) or {}
    has_returns = has_packets and _ECHO_DIMENSION not in names
    settings = {key: str(value) for key, value in recorded.items()}
    return EchoFile(
        path,
        has_returns,
        partial(_blocks, path, has_packets, has_returns),
        partial(_rows, path),
        settings,
    )


def _opened(path: Path) -> laspy.LasReader:
    with path.open("rb"):  # a clear error for a missing file or a folder
        pass
    with decoder_errors(f"{path}: not a readable LAS file"):
        reader = laspy.open(path.open("rb"), read_evlrs=False, laz_backend=decompressors())
    if reader.header.point_format.id in WAVEFORM_POINT_FORMATS:
        reader.close()
        reader, _ = open_las(path)
    return reader


def _blocks(path: Path, has_packets: bool, has_returns: bool) -> Iterator[RecordArray]:
    known = 0
    for first, points, header in _chunks(path):
        records = _records(points, header, first)
        if has_packets:
            records["channel"] = points.wavepacket_index if has_returns else 0
            records["flight"] = _flight(points)
        if has_returns:
            records = records[_is_return(points)]
            if np.isnan(records["flight"]).any():
                raise WaveformFileError(f"{path}: a pulse has no direction")
            known += len(records)
        yield records
    if has_returns and not known:
        raise WaveformFileError(f"{path}: no discrete return has a waveform packet")


def _rows(path: Path, wanted: Collection[str]) -> Iterator[Rows]:
    for _, points, header in _chunks(path):
        names = {"x", "y", "z", *header.point_format.dimension_names}.intersection(wanted)
        yield {name: np.asarray(points[name]) for name in names}


def _chunks(
    path: Path,
) -> Iterator[tuple[int, laspy.ScaleAwarePointRecord, laspy.LasHeader]]:
    """Number of the first point, the points, and the header of the file, for runs of points."""
    channels = set[int]()
    with _opened(path) as reader:
        header = reader.header
        has_packets = header.point_format.id in WAVEFORM_POINT_FORMATS
        for first in range(0, header.point_count, SURVEY_CHUNK):
            expected = min(SURVEY_CHUNK, header.point_count - first)
            with decoder_errors(f"{path}: cannot read points from number {first}"):
                points = reader.read_points(expected)
            if len(points) != expected:
                raise WaveformFileError(
                    f"{path}: truncated: header declares {header.point_count} points, found "
                    f"{first + len(points)}"
                )
            if has_packets and header.are_points_compressed:
                channels |= scanner_channels(points.array)
                check_scanner_channels(channels, path)
            yield first, points, header


def _records(
    points: laspy.ScaleAwarePointRecord, header: laspy.LasHeader, first: int
) -> RecordArray:
    records = unknown_records(len(points), first)
    names = set(header.point_format.dimension_names)
    if "gps_time" in names:
        records["gps_time"] = points.gps_time
    for axis, name in enumerate("xyz"):
        records["xyz"][:, axis] = points[name]
    fill_quantities(records, names, points.__getitem__)
    fill_shots(records, names, points.__getitem__)
    if str(header.generating_software).startswith(_SOFTWARE) and "amplitude" not in names:
        records["amplitude"] = records["intensity"]
    return records


def _is_return(points: laspy.ScaleAwarePointRecord) -> BoolArray:
    """Points with a packet; those withheld stand for waveforms without a return."""
    is_return: BoolArray = (points.wavepacket_index != 0) & ~np.array(points.withheld, np.bool_)
    return is_return


def _flight(points: laspy.ScaleAwarePointRecord) -> FloatArray:
    """Unit vectors along the flight of light; the stored ones point to the scanner."""
    to_scanner = np.stack([np.asarray(points[name]) for name in ("x_t", "y_t", "z_t")], axis=1)
    to_scanner = to_scanner.astype(np.float64)
    length = np.linalg.norm(to_scanner, axis=1, keepdims=True)
    known = np.isfinite(length) & (length > 0) & (points.wavepacket_index != 0)[:, np.newaxis]
    flight: FloatArray = np.divide(
        -to_scanner, length, out=np.full_like(to_scanner, np.nan), where=known
    )
    return flight
