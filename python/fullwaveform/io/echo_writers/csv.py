"""Echoes as comma-separated values."""

from __future__ import annotations

import os
from collections.abc import Iterator, Mapping
from contextlib import contextmanager
from pathlib import Path

import numpy as np

from fullwaveform.core.csv_lines import csv_lines
from fullwaveform.data.columns import Table
from fullwaveform.data.echo_columns import EchoTable, table_columns
from fullwaveform.io.atomic import FileKind, OutputFile, atomic_open
from fullwaveform.io.echo_writers.csv_metadata import METADATA_KIND, metadata_path, metadata_text
from fullwaveform.io.echo_writers.echo_writer import EchoWriter
from fullwaveform.io.echo_writers.table_file import TableFile

# Columns by which a table of echoes is recognised, whatever others the version that wrote it has.
_ECHO_COLUMNS = {"x", "y", "z", "gps_time", "echo_number", "echo_count"}


def _is_echo_table(path: Path) -> bool:
    with path.open(encoding="ascii") as file:
        return set(file.readline(4096).rstrip("\n").split(",")) >= _ECHO_COLUMNS


class CsvTableFile(TableFile):
    """A table in a CSV file.

    One header line, one line per row; numbers as the shortest text that reads back to the same
    value, ``nan`` for NaN. With `metadata`, which says how the table was made, they are written
    with unit and meaning of the columns to a second file, whose name ends in ``-metadata.json``.
    """

    kind: FileKind

    @classmethod
    def outputs(cls, path: Path) -> dict[Path, FileKind]:
        """The table and its metadata."""
        return {path: cls.kind, metadata_path(path): METADATA_KIND}

    def _add_rows(self, table: Table) -> None:
        stream = self._open_stream()
        for lines in csv_lines(table, self._columns):
            stream.write(lines)

    @contextmanager
    def _content(self, stream: OutputFile) -> Iterator[None]:
        stream.write((",".join(column.name for column in self._columns) + "\n").encode("ascii"))
        if self._metadata is None:
            yield
            return
        output = atomic_open(metadata_path(self.path), METADATA_KIND, overwrite=self.overwrite)
        with output as description:
            description.write(metadata_text(self.path, self._metadata, self._columns).encode())
            yield
            stream.check()  # no metadata without their table


class CsvEchoWriter(CsvTableFile, EchoWriter):
    """Writes echoes to a CSV file, as `CsvTableFile`."""

    kind = FileKind("a CSV file of echoes", _is_echo_table)

    def __init__(
        self,
        path: str | os.PathLike[str],
        metadata: Mapping[str, str] | None = None,
        *,
        shot_columns: tuple[str, ...] = (),
    ) -> None:
        super().__init__(path, table_columns(shot_columns), metadata)

    def _append(self, echoes: EchoTable, stream: OutputFile) -> None:
        self._add_rows(echoes)
        self.count += int(np.count_nonzero(echoes["echo_number"]))
