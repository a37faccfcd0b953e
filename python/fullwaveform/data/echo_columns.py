"""The columns that echoes have in every kind of table: names, types, units, meaning."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass
from typing import Any

import numpy.typing as npt
import pyarrow as pa

from fullwaveform.data.blocks import EchoTable


@dataclass(frozen=True, slots=True)
class EchoColumn:
    """One column of a table of echoes."""

    name: str
    type: pa.DataType
    unit: str  # "1" for what has none
    description: str
    values: Callable[[EchoTable], npt.NDArray[Any]]  # (m,)


_COORDINATE = "coordinate unit of the input"

ECHO_COLUMNS = (
    EchoColumn("x", pa.float64(), _COORDINATE, "Easting of the echo", lambda e: e.xyz[:, 0]),
    EchoColumn("y", pa.float64(), _COORDINATE, "Northing of the echo", lambda e: e.xyz[:, 1]),
    EchoColumn("z", pa.float64(), _COORDINATE, "Height of the echo", lambda e: e.xyz[:, 2]),
    EchoColumn(
        "gps_time", pa.float64(), "s", "Time of the shot, as the input has it", lambda e: e.gps_time
    ),
    EchoColumn(
        "echo_number",
        pa.int64(),
        "1",
        "Number of the echo within its shot, 1 nearest to the scanner; 0 in the row of a waveform "
        "without echoes",
        lambda e: e.echo_number,
    ),
    EchoColumn("echo_count", pa.int64(), "1", "Echoes of the shot", lambda e: e.echo_count),
    EchoColumn(
        "amplitude_counts",
        pa.float32(),
        "counts",
        "Amplitude in digitiser counts",
        lambda e: e.amplitude_counts,
    ),
    EchoColumn(
        "amplitude_db",
        pa.float32(),
        "dB",
        "Amplitude above the scanner's amplitude unit",
        lambda e: e.amplitude_db,
    ),
    EchoColumn(
        "width_ns", pa.float64(), "ns", "Standard deviation of the echo", lambda e: e.width_ns
    ),
    EchoColumn(
        "position",
        pa.float64(),
        "samples",
        "Fractional sample index in the waveform, 0 at its first sample",
        lambda e: e.position,
    ),
    EchoColumn(
        "echo_type",
        pa.uint8(),
        "1",
        "How the echo was found: 2 three-point fit, 3 and 4 first and second loop of the "
        "decomposition, 5 deconvolution, 6 on board; 0 no echo",
        lambda e: e.type,
    ),
    EchoColumn(
        "quality",
        pa.uint8(),
        "1",
        "0 good; after-pulses (1) and echoes out of range (2) are left out",
        lambda e: e.quality,
    ),
    EchoColumn("reflectance", pa.float32(), "dB", "Relative reflectance", lambda e: e.reflectance),
    EchoColumn(
        "time",
        pa.float64(),
        "s",
        "Time of the echo, from the first sample of the record or, where the file has one, from "
        "the pulse's own reference",
        lambda e: e.time,
    ),
    EchoColumn(
        "waveform_number",
        pa.int64(),
        "1",
        "Running number of the waveform in the input, from 0",
        lambda e: e.waveform_number,
    ),
    EchoColumn(
        "channel_flag",
        pa.uint8(),
        "1",
        "Channel of the waveform: 1 low power, 0 the other",
        lambda e: e.channel_flag,
    ),
)

#: Names and types of the columns, with unit and description in the metadata of each.
ECHO_SCHEMA = pa.schema(
    [
        pa.field(
            column.name,
            column.type,
            metadata={"unit": column.unit, "description": column.description},
        )
        for column in ECHO_COLUMNS
    ]
)


def echo_table_to_arrow(echoes: EchoTable) -> pa.Table:
    """The echoes as a table of pyarrow, a row each, NaN where a value is none.

    Every field carries its ``unit`` and ``description`` as metadata.
    """
    arrays = [pa.array(column.values(echoes), column.type) for column in ECHO_COLUMNS]
    return pa.Table.from_arrays(arrays, schema=ECHO_SCHEMA)
