"""Echoes as a Parquet file."""

from __future__ import annotations

import os
from collections.abc import Iterator, Mapping
from contextlib import contextmanager

import pyarrow as pa
import pyarrow.parquet

from fullwaveform.data.echo_columns import ECHO_SCHEMA
from fullwaveform.io.atomic import atomic_open
from fullwaveform.io.base import RUN_METADATA_KEY, run_metadata_text
from fullwaveform.io.echo_writers.row_groups import GroupedEchoWriter

#: Rows of all row groups but the last, about 10 MB of echoes.
ROWS_PER_GROUP = 2**17


class ParquetEchoWriter(GroupedEchoWriter):
    """Writes echoes to a Parquet file, table by table; to be used in a ``with`` statement.

    The columns are those of `echo_columns.ECHO_COLUMNS`, unit and description in the metadata of
    each. `metadata` says how the echoes were made and stands as JSON under the key
    ``fullwaveform`` of the file. Equal echoes give equal bytes, in however many tables they come.
    The file takes its name when the block ends without an error. Raises OSError if it cannot be
    written.
    """

    def __init__(
        self, path: str | os.PathLike[str], metadata: Mapping[str, str] | None = None
    ) -> None:
        super().__init__(path, ROWS_PER_GROUP)
        self._schema = ECHO_SCHEMA
        if metadata is not None:
            self._schema = ECHO_SCHEMA.with_metadata(
                {RUN_METADATA_KEY: run_metadata_text(metadata)}
            )
        self._writer: pa.parquet.ParquetWriter | None = None

    @contextmanager
    def _open(self) -> Iterator[None]:
        with atomic_open(self.path) as self._stream:
            try:
                with pa.parquet.ParquetWriter(
                    self._stream, self._schema, compression="zstd"
                ) as self._writer:
                    yield
                    self._append(self._groups.rest())
            finally:
                self._stream = self._writer = None

    def _append(self, groups: Iterator[pa.Table]) -> None:
        if self._writer is not None:
            for group in groups:
                self._writer.write_table(
                    group.replace_schema_metadata(self._schema.metadata), len(group)
                )
