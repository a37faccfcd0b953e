"""Headers of LAS files of echoes."""

from __future__ import annotations

from collections.abc import Mapping

import laspy
import numpy as np

from fullwaveform.data.echo_columns import las_dimensions
from fullwaveform.io.las.origin import EXTRACTED, SOFTWARE
from fullwaveform.io.reference_system import (
    has_geotiff,
    has_wkt,
    plain,
    projection_records,
    wkt_in_place_of_geotiff,
)
from fullwaveform.io.run_record import run_records

_GPS_TIME_OFFSET_BIT = 0b100_0000  # from LAS 1.5 on
_MAX_NAME = 32  # characters, of an extra dimension
_MAX_ELEMENTS = 3  # of a described extra dimension


def echo_header(
    source: laspy.LasHeader | None,
    run: Mapping[str, str] | None = None,
    *,
    carry: bool = True,
    with_packets: bool = False,
    shot_columns: tuple[str, ...] = (),
) -> laspy.LasHeader:
    """Header for echoes extracted from a file with the given header.

    Waveform descriptors of the source are omitted.

    Parameters
    ----------
    source
        None for files without coordinate units: LAS 1.4, format 6, millimetres.
    run
        How the echoes were made.
    carry
        Whether the points have the extra dimensions of the source, too.
    with_packets
        Whether the points have waveform packets, in a file of their own.
    shot_columns
        Names of the columns of shots that the source has, see `las_dimensions`.
    """
    old, new = (4, 9) if with_packets else (1, 6)
    if source is None:
        header = laspy.LasHeader(version="1.4", point_format=new)
        header.scales = np.full(3, 0.001)
        header.global_encoding.wkt = True  # required in formats 6 to 10
    else:
        header = laspy.LasHeader(
            version=source.version, point_format=old if source.point_format.id < 6 else new
        )
        header.scales, header.offsets = np.array(source.scales), np.array(source.offsets)
        header.file_source_id, header.uuid = source.file_source_id, source.uuid
        header.global_encoding.gps_time_type = source.global_encoding.gps_time_type
        if header.version.minor >= 5:
            header.global_encoding.value |= source.global_encoding.value & _GPS_TIME_OFFSET_BIT
            header.gps_time_offset = source.gps_time_offset
        _copy_reference_system(header, source)
    header.global_encoding.waveform_data_packets_external = with_packets
    header.system_identifier = EXTRACTED
    header.generating_software = SOFTWARE
    header.vlrs.extend(run_records(run) if run else [])
    header.add_extra_dims(
        [
            laspy.ExtraBytesParams(name, dimension.dtype, dimension.description)
            for name, dimension in las_dimensions(shot_columns).items()
        ]
    )
    if source is not None and carry:
        header.add_extra_dims(_carried(source))
    _clear_extra_byte_ranges(header)
    return header


def extended_records(header: laspy.LasHeader, source: laspy.LasHeader | None) -> list[laspy.VLR]:
    """The records that follow the points of a file with this header."""
    if source is None or header.version.minor < 4:
        return []
    return [plain(record) for record in projection_records(source.evlrs)]


def carried_names(source: laspy.LasHeader | None) -> dict[str, str]:
    """Name of each extra dimension of the source that echoes take over -> its name in their file.

    Dimensions that are not described, or larger than a description allows, are missing.
    """
    if source is None:
        return {}
    names = {}
    taken = {*las_dimensions(), *laspy.PointFormat(9).dimension_names}
    for dimension in source.point_format.extra_dimensions:
        if dimension.num_elements > _MAX_ELEMENTS:
            continue
        name = dimension.name if dimension.name not in taken else f"original_{dimension.name}"
        names[dimension.name] = name.encode()[:_MAX_NAME].decode(errors="ignore")
        taken.add(names[dimension.name])
    return names


def _copy_reference_system(header: laspy.LasHeader, source: laspy.LasHeader) -> None:
    """Copy the records, as text in formats that require it, and set the flag that says so."""
    records = [plain(record) for record in projection_records(source.vlrs)]
    after = extended_records(header, source)
    requires_wkt = header.point_format.id >= 6
    if requires_wkt and records and not has_wkt([*records, *after]):
        converted = wkt_in_place_of_geotiff(source)
        records = records if converted is None else [converted]
    header.vlrs.extend(records)
    written = [*records, *after]
    if has_wkt(written):
        declared = requires_wkt or source.global_encoding.wkt or not has_geotiff(written)
        header.global_encoding.wkt = header.version.minor >= 4 and declared
    else:
        # A reader that sees the flag ignores GeoTIFF keys.
        header.global_encoding.wkt = requires_wkt and not written


def _carried(source: laspy.LasHeader) -> list[laspy.ExtraBytesParams]:
    names = carried_names(source)
    return [
        laspy.ExtraBytesParams(
            names[dimension.name],
            dimension.dtype,
            dimension.description,
            offsets=dimension.offsets,
            scales=dimension.scales,
            no_data=dimension.no_data,
        )
        for dimension in source.point_format.extra_dimensions
        if dimension.name in names
    ]


def _clear_extra_byte_ranges(header: laspy.LasHeader) -> None:
    # laspy would derive the ranges from the first point of each write only.
    for dimension in header.vlrs.get("ExtraBytesVlr")[0].extra_bytes_structs:
        dimension.options &= ~(dimension.MIN_BIT_MASK | dimension.MAX_BIT_MASK)
