"""Echoes as comma-separated values."""

from __future__ import annotations

import os
from collections.abc import Iterator
from contextlib import contextmanager

import pyarrow as pa
import pyarrow.csv

from fullwaveform.formats.atomic import replace_when_whole
from fullwaveform.formats.blocks import EchoTable
from fullwaveform.formats.file_ends import EchoWriter

# Column of the file -> column of EchoTable, behind the three coordinates.
_COLUMNS = {
    "gps_time": ("gps_time", pa.float64()),
    "echo_number": ("echo_number", pa.int64()),
    "echo_count": ("echo_count", pa.int64()),
    "amplitude_counts": ("amplitude_counts", pa.float32()),
    "amplitude_db": ("amplitude_db", pa.float32()),
    "width_ns": ("width_ns", pa.float64()),
    "position": ("position", pa.float64()),
    "echo_type": ("type", pa.uint8()),
    "quality": ("quality", pa.uint8()),
    "reflectance": ("reflectance", pa.float32()),
    "time": ("time", pa.float64()),
    "waveform_number": ("waveform_number", pa.int64()),
    "channel_flag": ("channel_flag", pa.uint8()),
}
_SCHEMA = pa.schema(
    [(axis, pa.float64()) for axis in "xyz"]
    + [(name, kind) for name, (_, kind) in _COLUMNS.items()]
)


class CsvEchoWriter(EchoWriter):
    """Writes echoes to a CSV file, table by table; to be used in a ``with`` statement.

    One header line, one line per echo, numbers as the shortest text that reads back to the same
    value, ``nan`` where there is none. The file takes its name when the block ends without an
    error. Raises OSError if it cannot be written.
    """

    def __init__(self, path: str | os.PathLike[str]) -> None:
        super().__init__(path)
        self._writer: pa.csv.CSVWriter | None = None

    def write(self, echoes: EchoTable) -> None:
        """Append the echoes; ValueError outside the ``with`` statement."""
        if self._writer is None:
            raise ValueError(f"{self.path} is not open for writing")
        columns = [echoes.xyz[:, axis] for axis in range(3)]
        columns += [getattr(echoes, name) for name, _ in _COLUMNS.values()]
        arrays = [
            pa.array(column, field.type) for column, field in zip(columns, _SCHEMA, strict=True)
        ]
        self._writer.write_table(pa.Table.from_arrays(arrays, schema=_SCHEMA))
        self.count += len(echoes)

    @contextmanager
    def _open(self) -> Iterator[None]:
        # The header line is written here because pyarrow would put its names in quotes.
        options = pa.csv.WriteOptions(include_header=False)
        with replace_when_whole(self.path) as temporary, temporary.open("wb") as stream:
            stream.write((",".join(_SCHEMA.names) + "\n").encode("ascii"))
            try:
                with pa.csv.CSVWriter(stream, _SCHEMA, write_options=options) as self._writer:
                    yield
            finally:
                self._writer = None
