"""Files of tables of any kind, whose columns are described."""

from __future__ import annotations

import os
from abc import abstractmethod
from collections.abc import Mapping, Sequence
from typing import Any

from fullwaveform.data.columns import Column, Table
from fullwaveform.io.file_writer import FileWriter


class TableFile(FileWriter):
    """A file with the described columns of tables, one row below the other.

    Parameters
    ----------
    path
        The file.
    columns
        The columns of the tables that are written.
    metadata
        How the table was made; None: not stored.
    system
        Coordinate reference system of the table, an object of pyproj, for formats that name it.
    """

    def __init__(
        self,
        path: str | os.PathLike[str],
        columns: Sequence[Column],
        metadata: Mapping[str, str] | None,
        system: Any | None = None,
    ) -> None:
        super().__init__(path)
        self._columns = columns
        self._metadata = metadata
        self._system = system

    def write_table(self, table: Table) -> None:
        """Append and count the rows; ValueError outside the ``with`` statement."""
        stream = self._open_stream()
        self._add_rows(table)
        self.count += len(table)
        stream.check()

    @abstractmethod
    def _add_rows(self, table: Table) -> None:
        """Write the rows to the open file."""
