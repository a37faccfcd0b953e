"""Tables of pulses as Parquet files."""

from __future__ import annotations

import os
from collections.abc import Iterator, Sequence
from contextlib import contextmanager
from pathlib import Path

import pyarrow as pa
import pyarrow.parquet

from fullwaveform.data.columns import Column, Table, arrow_schema
from fullwaveform.io.atomic import FileKind, OutputFile
from fullwaveform.io.echo_writers.row_groups import RowGroups
from fullwaveform.io.file_writer import FileWriter
from fullwaveform.io.remote import path_or_stream

_ROWS_PER_GROUP = 2**17


def _is_pulse_table(path: Path) -> bool:
    return "outgoing_amplitude" in pa.parquet.ParquetFile(path_or_stream(path)).schema_arrow.names


class PulseWriter(FileWriter):
    """Writes a table of pulses to a Parquet file.

    The metadata of each column has its unit and description. Equal rows give equal bytes, however
    they are divided into tables. `count` is the number of rows written.
    """

    kind = FileKind("a Parquet file of pulses", _is_pulse_table)
    _writer: pa.parquet.ParquetWriter

    def __init__(self, path: str | os.PathLike[str], columns: Sequence[Column]) -> None:
        super().__init__(path)
        self._columns = columns
        self._groups = RowGroups(_ROWS_PER_GROUP)

    def write(self, table: Table) -> None:
        """Append the rows; ValueError outside the ``with`` statement."""
        stream = self._open_stream()
        self._write_groups(self._groups.add(table.to_arrow(self._columns)))
        self.count += len(table)
        stream.check()

    @contextmanager
    def _content(self, stream: OutputFile) -> Iterator[None]:
        schema = arrow_schema(self._columns)
        with pa.parquet.ParquetWriter(stream, schema, compression="zstd") as self._writer:
            yield
            self._write_groups(self._groups.rest())

    def _write_groups(self, groups: Iterator[pa.Table]) -> None:
        for group in groups:
            self._writer.write_table(group, len(group))
