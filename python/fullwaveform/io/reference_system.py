"""The coordinate reference system in the records of a LAS header."""

from __future__ import annotations

from collections.abc import Iterable
from typing import Any

import laspy
from laspy.vlrs.known import vlr_factory

PROJECTION_USER = "LASF_Projection"
WKT_RECORD = 2112
_GEOTIFF_RECORDS = (34735, 34736, 34737)  # keys, doubles, texts
_RECORDS = (*_GEOTIFF_RECORDS, 2111, WKT_RECORD)
_WKT_VERSION = "WKT1_GDAL"  # that of the LAS format


def projection_records(records: Iterable[laspy.VLR] | None) -> list[laspy.VLR]:
    """Those of the records that describe the coordinate reference system."""
    return [
        record
        for record in records or []
        if record.user_id == PROJECTION_USER and record.record_id in _RECORDS
    ]


def reference_system(header: laspy.LasHeader | None) -> Any | None:
    """The coordinate reference system as an object of pyproj; None if unknown or not understood."""
    if header is None:
        return None
    known = laspy.LasHeader(version="1.4", point_format=6)
    records = [*projection_records(header.vlrs), *projection_records(header.evlrs)]
    if not records:
        return None
    known.vlrs.extend(vlr_factory(plain(record)) for record in records)
    try:
        return known.parse_crs(prefer_wkt=header.global_encoding.wkt)
    except Exception:  # pyproj raises errors of its own for what it does not understand
        return None


def has_records(header: laspy.LasHeader) -> bool:
    """Whether the header describes a coordinate reference system."""
    return bool(projection_records(header.vlrs) or projection_records(header.evlrs))


def has_wkt(records: Iterable[laspy.VLR]) -> bool:
    """Whether one of the records is the text of a coordinate reference system."""
    return any(record.record_id == WKT_RECORD for record in records)


def has_geotiff(records: Iterable[laspy.VLR]) -> bool:
    """Whether one of the records has GeoTIFF keys."""
    return any(record.record_id in _GEOTIFF_RECORDS for record in records)


def wkt_in_place_of_geotiff(header: laspy.LasHeader) -> laspy.VLR | None:
    """The record with the text of the system that GeoTIFF keys describe; None if not understood."""
    system = reference_system(header)
    if system is None:
        return None
    text = system.to_wkt(_WKT_VERSION).encode() + b"\0"
    return laspy.VLR(PROJECTION_USER, WKT_RECORD, "OGC coordinate system WKT", text)


def plain(record: laspy.VLR) -> laspy.VLR:
    """The record as bytes."""
    return laspy.VLR(
        record.user_id, record.record_id, record.description, record.record_data_bytes()
    )
