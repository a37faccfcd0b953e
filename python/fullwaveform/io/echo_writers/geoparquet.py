"""The column of points and the metadata by which programs read a Parquet file as a map layer.

GeoParquet 1.1 with its native encoding of points, https://geoparquet.org/releases/v1.1.0/.
"""

from __future__ import annotations

import json
from typing import Any

import numpy as np
import pyarrow as pa

GEOMETRY = "geometry"
_POINT = pa.struct([(axis, pa.float64()) for axis in "xyz"])


def with_geometry(schema: pa.Schema, system: Any) -> pa.Schema:
    """The schema with the column of points and the metadata, in a system as an object of pyproj."""
    described = {
        "version": "1.1.0",
        "primary_column": GEOMETRY,
        "columns": {
            GEOMETRY: {
                "encoding": "point",
                "geometry_types": ["Point Z"],
                "crs": system.to_json_dict(),
            }
        },
    }
    metadata = {**(schema.metadata or {}), b"geo": json.dumps(described, sort_keys=True).encode()}
    return schema.append(pa.field(GEOMETRY, _POINT)).with_metadata(metadata)


def with_points(table: pa.Table, axes: tuple[str, str, str]) -> pa.Table:
    """The table with the column of points; null where a coordinate is unknown."""
    xyz = [table[axis].combine_chunks() for axis in axes]
    unknown = np.zeros(len(table), dtype=bool)
    for axis in xyz:
        unknown |= ~np.isfinite(axis.to_numpy())
    points = pa.StructArray.from_arrays(xyz, fields=list(_POINT), mask=pa.array(unknown))
    return table.append_column(pa.field(GEOMETRY, _POINT), points)
