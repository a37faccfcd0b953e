"""Rows in portions of one size, however they come."""

from __future__ import annotations

import os
from abc import abstractmethod
from collections.abc import Iterator

import numpy as np
import pyarrow as pa

from fullwaveform.data.blocks import EchoTable
from fullwaveform.data.echo_columns import echo_table_to_arrow
from fullwaveform.io.atomic import OutputFile
from fullwaveform.io.base import EchoWriter


class RowGroups:
    """Gathers tables and hands their rows on in groups of a fixed number.

    What is handed on depends on the rows and their order, not on the tables they come in.
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
        gathered = pa.concat_tables(self._tables)
        full = self._waiting // self._size * self._size
        self._tables, self._waiting = [gathered.slice(full)], self._waiting - full
        for first in range(0, full, self._size):
            yield gathered.slice(first, self._size).combine_chunks()

    def rest(self) -> Iterator[pa.Table]:
        """Yield the rows that did not fill a group, if there are any."""
        if self._waiting:
            yield pa.concat_tables(self._tables).combine_chunks()
        self._tables, self._waiting = [], 0


class GroupedEchoWriter(EchoWriter):
    """Writes echoes in groups of `rows` rows: equal echoes give equal files, however they come."""

    def __init__(self, path: str | os.PathLike[str], rows: int) -> None:
        super().__init__(path)
        self._groups = RowGroups(rows)
        self._stream: OutputFile | None = None  # while the file is open

    def write(self, echoes: EchoTable) -> None:
        """Append the echoes; ValueError outside the ``with`` statement."""
        if self._stream is None:
            raise ValueError(f"{self.path} is not open for writing")
        self._append(self._groups.add(echo_table_to_arrow(echoes)))
        self._stream.check()
        self.count += int(np.count_nonzero(echoes.echo_number))

    @abstractmethod
    def _append(self, groups: Iterator[pa.Table]) -> None:
        """Write the groups to the open file."""
