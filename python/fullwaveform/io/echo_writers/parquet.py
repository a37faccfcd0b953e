"""Echoes as a Parquet file."""

from __future__ import annotations

import os
from collections.abc import Iterator, Mapping
from contextlib import contextmanager
from typing import Any

import pyarrow as pa
import pyarrow.parquet

from fullwaveform.data.echo_columns import echo_schema
from fullwaveform.io.atomic import FileKind, OutputFile
from fullwaveform.io.echo_writers.geoparquet import with_geometry, with_points
from fullwaveform.io.echo_writers.row_groups import GroupedEchoWriter
from fullwaveform.io.run_record import RUN_METADATA_KEY, run_metadata_text

#: Rows of all row groups but the last, about 10 MB of echoes.
ROWS_PER_GROUP = 2**17


class ParquetEchoWriter(GroupedEchoWriter):
    """Writes echoes to a Parquet file.

    The metadata of each column has its unit and description, that of the file `metadata`, which
    says how the echoes were made, as JSON under the key ``fullwaveform``. With the coordinate
    reference system, an object of pyproj, the file is a GeoParquet file with a column of points.
    Equal echoes give equal bytes, however they are divided into tables.
    """

    kind = FileKind(
        "a Parquet file of echoes",
        lambda path: "echo_number" in pa.parquet.ParquetFile(path).schema_arrow.names,
    )
    _writer: pa.parquet.ParquetWriter

    def __init__(
        self,
        path: str | os.PathLike[str],
        metadata: Mapping[str, str] | None = None,
        system: Any | None = None,
        *,
        shot_columns: tuple[str, ...] = (),
    ) -> None:
        super().__init__(path, ROWS_PER_GROUP)
        self._schema = echo_schema(shot_columns)
        if metadata is not None:
            self._schema = self._schema.with_metadata(
                {RUN_METADATA_KEY: run_metadata_text(metadata)}
            )
        self._is_layer = system is not None
        if self._is_layer:
            self._schema = with_geometry(self._schema, system)

    @contextmanager
    def _content(self, stream: OutputFile) -> Iterator[None]:
        with pa.parquet.ParquetWriter(stream, self._schema, compression="zstd") as self._writer:
            yield
            self._write_groups(self._groups.rest())

    def _write_groups(self, groups: Iterator[pa.Table]) -> None:
        for group in groups:
            group = with_points(group) if self._is_layer else group
            self._writer.write_table(
                group.replace_schema_metadata(self._schema.metadata), len(group)
            )
