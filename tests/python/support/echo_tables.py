"""Small tables of echoes for the tests of the writers."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import fields
from pathlib import Path

import numpy as np
import pyarrow as pa

from fullwaveform.data.blocks import ShotAttributes
from fullwaveform.data.echo_columns import EchoTable
from fullwaveform.io.echo_writers.opening import open_echo_file


def echo_table(
    shots: Sequence[int],
    *,
    xyz: np.ndarray | None = None,
    attributes: ShotAttributes | None = None,
    **columns: np.ndarray,
) -> EchoTable:
    """Shots with the given numbers of echoes, one second apart, with other columns as named.

    Echo k of the table (from 0) lies at (k, 2 k, -k) and has an amplitude of 10 + k counts.
    """
    count = sum(shots)
    rows = np.arange(count)
    numbers = np.concatenate([np.arange(1, n + 1) for n in shots] or [rows])
    if xyz is None:
        xyz = np.column_stack([rows, 2 * rows, -rows]).astype(np.float64)
    values = {
        **dict(zip("xyz", xyz.T, strict=True)),
        "gps_time": np.repeat(100.0 + np.arange(len(shots)), shots),
        "echo_number": numbers.astype(np.int64),
        "echo_count": np.repeat(np.asarray(shots, dtype=np.int64), shots),
        "amplitude": (10 + rows).astype(np.float32),
        "amplitude_db": np.full(count, 12.5, np.float32),
        "amplitude_library_db": np.full(count, 13.5, np.float32),
        "sigma_ns": np.full(count, 1.75),
        "fwhm_ns": np.full(count, 4.125),
        "sigma_samples": np.full(count, 0.875),
        "position": rows + 0.25,
        "position_library": rows + 0.5,
        "sigma_position_ns": np.full(count, 0.0625, np.float32),
        "sigma_amplitude": np.full(count, 1.5, np.float32),
        "sigma_width_ns": np.full(count, 0.125, np.float32),
        "sigma_range": np.full(count, 0.0078125, np.float32),
        "significance": np.full(count, 12.5, np.float32),
        "fit_flags": np.full(count, 5, np.uint8),
        "reduced_chi_square": np.full(count, 1.25, np.float32),
        "echo_type": np.full(count, 3, np.uint8),
        "quality": np.full(count, 4, np.uint8),
        "reflectance": np.full(count, -2.5, np.float32),
        "time": rows * 1e-9,
        "waveform_number": rows.astype(np.int64),
        "channel_flag": np.ones(count, np.uint8),
        "descriptor": np.full(count, 2, np.uint8),
        "classification": np.full(count, 5, np.uint8),
        "original_return_number": np.full(count, 3, np.uint8),
    }
    shot = attributes or shot_attributes(count)
    values |= {f.name: getattr(shot, f.name) for f in fields(shot) if f.name != "gps_time"}
    return EchoTable({**values, **columns})


def shot_attributes(count: int, **columns: object) -> ShotAttributes:
    """Attributes of `count` echoes, zero except for the columns named."""
    values: dict[str, object] = {
        "gps_time": np.zeros(count),
        "scan_angle": np.zeros(count, np.float32),
        "scan_direction_flag": np.zeros(count, np.uint8),
        "edge_of_flight_line": np.zeros(count, np.uint8),
        "user_data": np.zeros(count, np.uint8),
        "point_source_id": np.zeros(count, np.uint16),
    }
    return ShotAttributes(**{**values, **columns})  # type: ignore[arg-type]


def rows(table: EchoTable, begin: int, end: int) -> EchoTable:
    """The rows begin to end - 1."""
    return table.take(np.arange(begin, end))


def written(path: Path, *tables: EchoTable, metadata: dict[str, str] | None = None) -> Path:
    """The path, in an empty folder, to which the tables were written."""
    with open_echo_file(path, None, metadata) as writer:
        for table in tables:
            writer.write(table)
        assert writer.count == sum(np.count_nonzero(table["echo_number"]) for table in tables)
        assert not path.exists()
    assert [file.name for file in path.parent.iterdir()] == [path.name]
    return path


def assert_same_rows(found: pa.Table, expected: pa.Table) -> None:
    """Equal names, types, order and values, including NaN."""
    assert found.schema.equals(expected.schema, check_metadata=True)
    assert found.num_rows == expected.num_rows > 0
    for name in expected.schema.names:
        np.testing.assert_array_equal(found[name].to_numpy(), expected[name].to_numpy(), name)
