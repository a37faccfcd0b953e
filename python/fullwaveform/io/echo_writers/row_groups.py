"""Rows in groups of a fixed size, independent of the tables in which they arrive."""

from __future__ import annotations

import os
from abc import abstractmethod
from collections.abc import Iterator, Mapping, Sequence
from typing import Any

import pyarrow as pa

from fullwaveform.data.columns import Column, Table
from fullwaveform.io.echo_writers.table_file import TableFile


class RowGroups:
    """Collects tables and returns their rows in groups of a fixed number.

    The groups depend on the rows and their order, not on how they were divided into tables.
    """

    def __init__(self, rows: int) -> None:
        self._size = rows
        self._tables: list[pa.Table] = []
        self._waiting = 0

    def add(self, table: pa.Table) -> Iterator[pa.Table]:
        """Take a table and yield the groups that are full, each column in one piece."""
        self._tables.append(table)
        self._waiting += table.num_rows
        if self._waiting < self._size:
            return
        collected = pa.concat_tables(self._tables)
        full = self._waiting // self._size * self._size
        self._tables, self._waiting = [collected.slice(full)], self._waiting - full
        for first in range(0, full, self._size):
            yield collected.slice(first, self._size).combine_chunks()

    def rest(self) -> Iterator[pa.Table]:
        """Yield the rows that did not fill a group, if any."""
        if self._waiting:
            yield pa.concat_tables(self._tables).combine_chunks()
        self._tables, self._waiting = [], 0


class GroupedTableFile(TableFile):
    """A table written in groups of a fixed number of rows, so that equal rows give equal files."""

    @property
    @abstractmethod
    def _rows_per_group(self) -> int:
        """Rows of all groups but the last."""

    def __init__(
        self,
        path: str | os.PathLike[str],
        columns: Sequence[Column],
        metadata: Mapping[str, str] | None,
        system: Any | None = None,
    ) -> None:
        super().__init__(path, columns, metadata, system)
        self._groups = RowGroups(self._rows_per_group)

    def _add_rows(self, table: Table) -> None:
        self._write_groups(self._groups.add(table.to_arrow(self._columns)))

    def write_rows(self, rows: pa.Table) -> None:
        """Append rows that are not counted, of a table with the columns of the file."""
        stream = self._open_stream()
        self._write_groups(self._groups.add(rows))
        stream.check()

    @abstractmethod
    def _write_groups(self, groups: Iterator[pa.Table]) -> None:
        """Write the groups to the open file."""
