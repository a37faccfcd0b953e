"""Echoes as comma-separated values."""

from __future__ import annotations

import os
from collections.abc import Iterator
from contextlib import contextmanager

import numpy as np
import pyarrow as pa
import pyarrow.csv

from fullwaveform.data.blocks import EchoTable
from fullwaveform.data.echo_columns import ECHO_SCHEMA, echo_table_to_arrow
from fullwaveform.io.atomic import OutputFile, atomic_open
from fullwaveform.io.base import EchoWriter


class CsvEchoWriter(EchoWriter):
    """Writes echoes to a CSV file, table by table; to be used in a ``with`` statement.

    One header line, one line per echo, numbers as the shortest text that reads back to the same
    value, ``nan`` where there is none. The file takes its name when the block ends without an
    error. Raises OSError if it cannot be written.
    """

    def __init__(self, path: str | os.PathLike[str]) -> None:
        super().__init__(path)
        self._stream: OutputFile | None = None
        self._writer: pa.csv.CSVWriter | None = None

    def write(self, echoes: EchoTable) -> None:
        """Append the echoes; ValueError outside the ``with`` statement."""
        if self._stream is None or self._writer is None:
            raise ValueError(f"{self.path} is not open for writing")
        self._writer.write_table(echo_table_to_arrow(echoes))
        self._stream.check()
        self.count += int(np.count_nonzero(echoes.echo_number))

    @contextmanager
    def _open(self) -> Iterator[None]:
        # The header line is written here because pyarrow would put its names in quotes.
        options = pa.csv.WriteOptions(include_header=False)
        with atomic_open(self.path) as self._stream:
            self._stream.write((",".join(ECHO_SCHEMA.names) + "\n").encode("ascii"))
            try:
                with pa.csv.CSVWriter(
                    self._stream, ECHO_SCHEMA, write_options=options
                ) as self._writer:
                    yield
            finally:
                self._stream = self._writer = None
