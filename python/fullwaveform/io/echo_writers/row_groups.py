"""Rows in groups of a fixed size, independent of the tables in which they arrive."""

from __future__ import annotations

import os
from abc import abstractmethod
from collections.abc import Iterator

import numpy as np
import pyarrow as pa

from fullwaveform.data.echo_columns import EchoTable, echo_table_to_arrow
from fullwaveform.io.atomic import OutputFile
from fullwaveform.io.base import EchoWriter


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


class GroupedEchoWriter(EchoWriter):
    """Writes echoes in groups of `rows` rows, so that equal echoes give equal files."""

    def __init__(self, path: str | os.PathLike[str], rows: int) -> None:
        super().__init__(path)
        self._groups = RowGroups(rows)

    def _append(self, echoes: EchoTable, stream: OutputFile) -> None:
        self._write_groups(self._groups.add(echo_table_to_arrow(echoes)))
        self.count += int(np.count_nonzero(echoes["echo_number"]))

    @abstractmethod
    def _write_groups(self, groups: Iterator[pa.Table]) -> None:
        """Write the groups to the open file."""
