"""Echoes as a Parquet file."""

from __future__ import annotations

import os
from collections.abc import Iterator, Mapping
from contextlib import contextmanager
from typing import Any, ClassVar

import numpy as np
import pyarrow as pa
import pyarrow.parquet

from fullwaveform.data.columns import arrow_schema
from fullwaveform.data.echo_columns import EchoTable, table_columns
from fullwaveform.io.atomic import FileKind, OutputFile
from fullwaveform.io.echo_writers.echo_writer import EchoWriter
from fullwaveform.io.echo_writers.geoparquet import with_geometry, with_points
from fullwaveform.io.echo_writers.row_groups import GroupedTableFile
from fullwaveform.io.remote import path_or_stream
from fullwaveform.io.run_record import RUN_METADATA_KEY, run_metadata_text

#: Rows of all row groups but the last, about 25 MB of echoes.
ROWS_PER_GROUP = 2**17
_RUNNING_NUMBERS = ("waveform_number", "shot_number")


def parquet_writer(stream: OutputFile, schema: pa.Schema) -> pa.parquet.ParquetWriter:
    """Writes tables with the schema to the stream, compressed as all Parquet files here."""
    # Values of floating-point columns and running numbers hardly repeat: a dictionary takes three
    # times as long and makes larger files.
    repeating = [
        field.name
        for field in schema
        if not pa.types.is_floating(field.type) and field.name not in _RUNNING_NUMBERS
    ]
    return pa.parquet.ParquetWriter(stream, schema, compression="zstd", use_dictionary=repeating)


class ParquetTableFile(GroupedTableFile):
    """A table in a Parquet file.

    The metadata of each column has its unit and description, that of the file `metadata`, which
    says how the table was made, as JSON under the key ``fullwaveform``. With the coordinate
    reference system, an object of pyproj, the file is a GeoParquet file with a column of points.
    Equal rows give equal bytes, however they are divided into tables.
    """

    #: Columns with the coordinates of the points.
    axes: ClassVar[tuple[str, str, str]] = ("x", "y", "z")
    _writer: pa.parquet.ParquetWriter

    @property
    def _rows_per_group(self) -> int:
        return ROWS_PER_GROUP

    @property
    def _schema(self) -> pa.Schema:
        schema = arrow_schema(self._columns)
        if self._metadata is not None:
            schema = schema.with_metadata({RUN_METADATA_KEY: run_metadata_text(self._metadata)})
        return schema if self._system is None else with_geometry(schema, self._system)

    @contextmanager
    def _content(self, stream: OutputFile) -> Iterator[None]:
        with parquet_writer(stream, self._schema) as self._writer:
            yield
            self._write_groups(self._groups.rest())

    def _write_groups(self, groups: Iterator[pa.Table]) -> None:
        for group in groups:
            group = group if self._system is None else with_points(group, self.axes)
            metadata = self._writer.schema.metadata
            self._writer.write_table(group.replace_schema_metadata(metadata), len(group))


class ParquetEchoWriter(ParquetTableFile, EchoWriter):
    """Writes echoes to a Parquet file, as `ParquetTableFile`."""

    kind = FileKind(
        "a Parquet file of echoes",
        lambda path: (
            "echo_number" in pa.parquet.ParquetFile(path_or_stream(path)).schema_arrow.names
        ),
    )

    def __init__(
        self,
        path: str | os.PathLike[str],
        metadata: Mapping[str, str] | None = None,
        system: Any | None = None,
        *,
        shot_columns: tuple[str, ...] = (),
    ) -> None:
        super().__init__(path, table_columns(shot_columns), metadata, system)

    def _append(self, echoes: EchoTable, stream: OutputFile) -> None:
        self._add_rows(echoes)
        self.count += int(np.count_nonzero(echoes["echo_number"]))
