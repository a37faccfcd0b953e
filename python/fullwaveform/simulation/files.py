"""Files of a simulated scan: LAS points, waveform packets, and true echoes."""

from __future__ import annotations

import struct
from collections.abc import Callable, Mapping
from contextlib import ExitStack
from datetime import UTC, datetime, timedelta
from pathlib import Path
from typing import NamedTuple

import laspy
import numpy as np
from laspy.vlrs.known import WktCoordinateSystemVlr

from fullwaveform.data.arrays import FloatArray
from fullwaveform.io.atomic import FileKind, atomic_path
from fullwaveform.io.las.origin import SIMULATED, SOFTWARE, is_written_here
from fullwaveform.simulation.points import NO_PACKET, DiscretePoints, discrete_points
from fullwaveform.simulation.settings import ScanSettings
from fullwaveform.simulation.truth import is_truth, write_truth
from fullwaveform.simulation.waveforms import SimulatedScan

RECORD_HEADER = struct.Struct("<H16sHQ32s")  # of an extended record; 60 bytes
_PACKET_RECORD = 65_535  # record ID of waveform packets
_DESCRIPTOR = struct.Struct("<BBIIdd")
_FIRST_DESCRIPTOR = 100  # record of descriptor index 1
_PACKETS_OF = b"Simulated waveforms"  # description of the packet record
_VOLTS_PER_COUNT = 1e-3  # of the less sensitive channel
_SCALE = 0.001  # m
_SCAN_ANGLE_STEP = 0.006  # degrees, of the later point formats
_EPSG = 25_833
_WKT = (
    'PROJCS["ETRS89 / UTM zone 33N",GEOGCS["ETRS89",'
    'DATUM["European_Terrestrial_Reference_System_1989",'
    'SPHEROID["GRS 1980",6378137,298.257222101,AUTHORITY["EPSG","7019"]],'
    'AUTHORITY["EPSG","6258"]],PRIMEM["Greenwich",0,AUTHORITY["EPSG","8901"]],'
    'UNIT["degree",0.0174532925199433,AUTHORITY["EPSG","9122"]],AUTHORITY["EPSG","4258"]],'
    'PROJECTION["Transverse_Mercator"],PARAMETER["latitude_of_origin",0],'
    'PARAMETER["central_meridian",15],PARAMETER["scale_factor",0.9996],'
    'PARAMETER["false_easting",500000],PARAMETER["false_northing",0],'
    'UNIT["metre",1,AUTHORITY["EPSG","9001"]],AXIS["Easting",EAST],AXIS["Northing",NORTH],'
    'AUTHORITY["EPSG","25833"]]'
)


class _Kind(NamedTuple):
    version: str
    max_returns: int


_KINDS = {9: _Kind("1.4", 15), 4: _Kind("1.3", 5)}


class ScanFiles(NamedTuple):
    """Paths of the files of a scan."""

    las: Path
    wdp: Path
    truth: Path


def _has_packets_header(path: Path) -> bool:
    with path.open("rb") as file:
        _, user, record, _, text = RECORD_HEADER.unpack(file.read(RECORD_HEADER.size))
    is_packet_record = user.startswith(b"LASF_Spec") and record == _PACKET_RECORD
    return bool(is_packet_record and text.startswith(_PACKETS_OF))


TRUTH_KIND = FileKind("the true echoes of a simulated scan", is_truth)
#: What the files are, in the order of `ScanFiles`.
FILE_KINDS = (
    FileKind("a simulated scan", lambda path: is_written_here(path, SIMULATED)),
    FileKind("the waveforms of a simulated scan", _has_packets_header),
    TRUTH_KIND,
)


def scan_files(path_las: Path) -> ScanFiles:
    """The files of the scan with the given name; ValueError if it does not end in `.las`."""
    if path_las.suffix.lower() != ".las":
        raise ValueError(f"invalid name {path_las.name!r}; it must end in .las")
    return ScanFiles(path_las, path_las.with_suffix(".wdp"), truth_path(path_las))


def write_scan(
    scan: SimulatedScan, path_las: Path | str, *, point_format: int = 9, overwrite: bool = False
) -> ScanFiles:
    """Write `<stem>.las`, `<stem>.wdp` and `<stem>_truth.csv`.

    An existing file is replaced if `overwrite` is set and it is of a simulated scan.
    Point format 9 writes LAS 1.4, point format 4 LAS 1.3. Descriptor 1 is the low-power channel,
    descriptor 2 the high-power channel. The files appear when all are complete, the points last.

    Raises ValueError for another point format or a name that does not end in `.las`, OSError if a
    file cannot be written, FileExistsError for existing files.
    """
    files = scan_files(Path(path_las))
    if point_format not in _KINDS:
        raise ValueError(f"invalid point format {point_format}; expected 4 or 9")
    writers: dict[Path, Callable[[Path], None]] = {
        files.wdp: lambda part: _write_packets(scan, part),
        files.truth: lambda part: write_truth(scan.truth, part),
        files.las: lambda part: _write_points(scan, part, point_format),
    }
    write_all_or_nothing(writers, dict(zip(files, FILE_KINDS, strict=True)), overwrite)
    return files


def truth_path(scan: Path) -> Path:
    """Where the true echoes of a scan are written."""
    return scan.with_name(f"{scan.stem}_truth.csv")


def write_all_or_nothing(
    writers: Mapping[Path, Callable[[Path], None]],
    kinds: Mapping[Path, FileKind],
    overwrite: bool,
) -> None:
    """Write all files under temporary names, then rename them in the order of the writers."""
    with ExitStack() as stack:
        parts = {}
        for path in reversed(list(writers)):  # the file entered first is renamed last
            output = atomic_path(path, kinds[path], overwrite=overwrite)
            parts[path] = stack.enter_context(output)
        for path, write in writers.items():
            write(parts[path])


def _write_packets(scan: SimulatedScan, path: Path) -> None:
    """Header of the packet record, then the packets by shot, the low-power channel first."""
    samples = scan.samples.astype(f"<u{scan.settings.bits // 8}")
    with path.open("wb") as file:
        file.write(RECORD_HEADER.pack(0, b"LASF_Spec", _PACKET_RECORD, samples.nbytes, _PACKETS_OF))
        file.write(samples.data)


def _write_points(scan: SimulatedScan, path: Path, point_format: int) -> None:
    kind = _KINDS[point_format]
    points = discrete_points(scan, kind.max_returns)
    las = laspy.LasData(las_header(scan.settings, point_format))
    las.points = laspy.ScaleAwarePointRecord.zeros(len(points), header=las.header)
    las.x, las.y, las.z = points.xyz.T
    for name in ("gps_time", "intensity", "return_number", "number_of_returns"):
        las[name] = getattr(points, name)
    las.classification = points.classification
    las.withheld = points.withheld
    las.scan_direction_flag = scan.shots.scan_direction_flag[points.shot]
    las.edge_of_flight_line = scan.shots.edge_of_flight_line[points.shot]
    las.point_source_id[:] = 1
    angle = scan.shots.scan_angle[points.shot]
    if point_format == 4:
        las.scan_angle_rank = np.rint(angle).astype(np.int8)
    else:
        las.scan_angle = np.rint(angle / _SCAN_ANGLE_STEP).astype(np.int16)
        las.scanner_channel = np.maximum(points.channel, 0)
    _refer_to_packets(las, points, scan)
    with path.open("wb+") as file:
        las.write(file, do_compress=False)


def _refer_to_packets(las: laspy.LasData, points: DiscretePoints, scan: SimulatedScan) -> None:
    """Descriptor, offset and line in space of each point's packet; zeros if it has none."""
    settings = scan.settings
    has = points.channel != NO_PACKET
    size = settings.samples * settings.bits // 8
    packet = 2 * points.shot + points.channel
    las.wavepacket_index = np.where(has, points.channel + 1, 0)
    las.wavepacket_offset = np.where(has, RECORD_HEADER.size + packet * size, 0)
    las.wavepacket_size = np.where(has, size, 0)
    las.return_point_wave_location = np.where(has, points.position * settings.interval_ps, 0.0)
    # Later light comes from a larger range, and the stored vector points to the scanner.
    metres_per_ps = settings.range_per_sample / settings.interval_ps
    towards_scanner = -metres_per_ps * scan.shots.direction[points.shot]
    las.x_t, las.y_t, las.z_t = np.where(has[:, np.newaxis], towards_scanner, 0.0).T


def las_header(settings: ScanSettings, point_format: int = 9) -> laspy.LasHeader:
    """LAS header with the coordinate system and the descriptors of both channels."""
    header = laspy.LasHeader(version=_KINDS[point_format].version, point_format=point_format)
    header.scales = np.full(3, _SCALE)
    header.offsets = _whole_kilometres(settings)
    header.system_identifier = SIMULATED
    header.generating_software = SOFTWARE
    # Date of the flight, so that equal scans are equal files.
    seconds = settings.start_time + 1e9
    header.creation_date = (datetime(1980, 1, 6, tzinfo=UTC) + timedelta(seconds=seconds)).date()
    header.global_encoding.gps_time_type = laspy.header.GpsTimeType.STANDARD
    header.global_encoding.waveform_data_packets_external = True
    if point_format == 4:
        header.vlrs.append(_geo_keys())
    else:
        header.global_encoding.wkt = True
        header.vlrs.append(WktCoordinateSystemVlr(_WKT))
    for channel, sensitivity in enumerate((settings.gain_ratio, 1.0)):
        header.vlrs.append(_descriptor(settings, channel, _VOLTS_PER_COUNT / sensitivity))
    return header


def _whole_kilometres(settings: ScanSettings) -> FloatArray:
    """Coordinate offsets in whole kilometres, which keep 32-bit coordinates small."""
    return np.array(
        [1000.0 * np.floor(v / 1000.0) for v in (settings.easting, settings.northing)] + [0.0]
    )


def _descriptor(settings: ScanSettings, channel: int, volts_per_count: float) -> laspy.VLR:
    """Descriptor of a channel; the baseline is 0 volts."""
    data = _DESCRIPTOR.pack(
        settings.bits,
        0,
        settings.samples,
        settings.interval_ps,
        volts_per_count,
        -settings.baseline * volts_per_count,
    )
    name = ("Low-power channel", "High-power channel")[channel]
    return laspy.VLR("LASF_Spec", _FIRST_DESCRIPTOR + channel, name, data)


def _geo_keys() -> laspy.VLR:
    """Coordinate system in LAS versions before 1.4: projected, EPSG code, metres."""
    keys = ((1, 1, 0, 3), (1024, 0, 1, 1), (3072, 0, 1, _EPSG), (3076, 0, 1, 9001))
    data = np.array(keys, dtype="<u2").tobytes()
    return laspy.VLR("LASF_Projection", 34_735, "GeoTIFF GeoKeyDirectoryTag", data)
