"""Echoes as comma-separated values."""

from __future__ import annotations

from collections.abc import Iterator
from contextlib import contextmanager

import numpy as np
import pyarrow as pa
import pyarrow.csv

from fullwaveform.data.echo_columns import EchoTable, echo_schema, echo_table_to_arrow
from fullwaveform.io.atomic import OutputFile
from fullwaveform.io.base import EchoWriter


class CsvEchoWriter(EchoWriter):
    """Writes echoes to a CSV file.

    One header line, one line per echo; numbers as the shortest text that reads back to the same
    value, ``nan`` for NaN.
    """

    _writer: pa.csv.CSVWriter

    def _append(self, echoes: EchoTable, stream: OutputFile) -> None:
        self._writer.write_table(echo_table_to_arrow(echoes))
        self.count += int(np.count_nonzero(echoes["echo_number"]))

    @contextmanager
    def _content(self, stream: OutputFile) -> Iterator[None]:
        schema = echo_schema()
        # The header line is written here because pyarrow would put its names in quotes.
        stream.write((",".join(schema.names) + "\n").encode("ascii"))
        options = pa.csv.WriteOptions(include_header=False)
        with pa.csv.CSVWriter(stream, schema, write_options=options) as self._writer:
            yield
