"""File of the echoes that have no partner in another file."""

from __future__ import annotations

import os
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

import numpy as np
import pyarrow as pa
import pyarrow.csv
import pyarrow.parquet

from fullwaveform.data.arrays import RecordArray
from fullwaveform.data.echo_records import QUANTITIES
from fullwaveform.io.atomic import FileKind, OutputFile
from fullwaveform.io.file_writer import FileWriter
from fullwaveform.io.remote import path_or_stream

#: Name endings of the files.
DETAILS_ENDINGS = (".csv", ".parquet")
MISSED, EXTRA = "missed", "extra"
_SCHEMA = pa.schema(
    [
        ("kind", pa.string()),
        ("row", pa.int64()),
        ("gps_time", pa.float64()),
        *((axis, pa.float64()) for axis in "xyz"),
        *((name, pa.float64()) for name in QUANTITIES),
    ]
)


def _is_csv(path: Path) -> bool:
    with path.open(encoding="ascii") as file:
        return file.readline(4096).startswith(",".join(_SCHEMA.names[:6]))


def details_kind(path: Path) -> FileKind:
    """What `UnmatchedWriter` writes to the path."""
    if path.suffix.lower() == ".parquet":
        return FileKind(
            "a Parquet file of unmatched echoes",
            lambda found: (
                pa.parquet.ParquetFile(path_or_stream(found)).schema_arrow.names[:2]
                == ["kind", "row"]
            ),
        )
    return FileKind("a CSV file of unmatched echoes", _is_csv)


class UnmatchedWriter(FileWriter):
    """Writes missed and extra echoes to a CSV or Parquet file.

    One row per echo: ``kind`` ("missed" or "extra"), ``row`` of the echo in its own file from 0,
    time, place and quantities, NaN where unknown. Raises ValueError for another name ending.
    """

    _writer: pa.csv.CSVWriter | pa.parquet.ParquetWriter

    def __init__(self, path: str | os.PathLike[str]) -> None:
        super().__init__(path)
        self.kind = details_kind(self.path)
        if self.path.suffix.lower() not in DETAILS_ENDINGS:
            raise ValueError(f"{path} must end in {' or '.join(DETAILS_ENDINGS)}")

    def write(self, records: RecordArray, kind: str) -> None:
        """Append echoes of one kind; ValueError outside the ``with`` statement."""
        stream = self._open_stream()
        columns = {
            "kind": np.full(len(records), kind),
            "row": records["row"],
            "gps_time": records["gps_time"],
            **{axis: records["xyz"][:, number] for number, axis in enumerate("xyz")},
            **{name: records[name] for name in QUANTITIES},
        }
        arrays = [pa.array(np.ascontiguousarray(columns[name])) for name in _SCHEMA.names]
        self._writer.write_table(pa.Table.from_arrays(arrays, schema=_SCHEMA))
        self.count += len(records)
        stream.check()

    @contextmanager
    def _content(self, stream: OutputFile) -> Iterator[None]:
        if self.path.suffix.lower() == ".parquet":
            with pa.parquet.ParquetWriter(stream, _SCHEMA, compression="zstd") as self._writer:
                yield
            return
        stream.write((",".join(_SCHEMA.names) + "\n").encode("ascii"))
        options = pa.csv.WriteOptions(include_header=False, quoting_style="none")
        with pa.csv.CSVWriter(stream, _SCHEMA, write_options=options) as self._writer:
            yield
