"""Echoes as an HDF5 file."""

from __future__ import annotations

import os
from collections.abc import Iterator, Mapping
from contextlib import contextmanager

import h5py
import numpy as np
import pyarrow as pa

from fullwaveform.formats.atomic import OutputFile, open_when_whole
from fullwaveform.formats.blocks import EchoTable
from fullwaveform.formats.echo_columns import ECHO_COLUMNS, echo_table_to_arrow
from fullwaveform.formats.file_ends import RUN_METADATA_KEY, EchoWriter, run_metadata_text
from fullwaveform.formats.row_groups import RowGroups

#: Rows of a chunk of every dataset; 512 kB of doubles.
ROWS_PER_CHUNK = 2**16


class Hdf5EchoWriter(EchoWriter):
    """Writes echoes to an HDF5 file, table by table; to be used in a ``with`` statement.

    One dataset per column of `echo_columns.ECHO_COLUMNS`, with the attributes ``unit`` and
    ``description``; chunked and compressed. `metadata` says how the echoes were made and stands
    as JSON in the attribute ``fullwaveform`` of the file. Equal echoes give equal bytes, in
    however many tables they come. The file takes its name when the block ends without an error.
    Raises OSError if it cannot be written.
    """

    def __init__(
        self, path: str | os.PathLike[str], metadata: Mapping[str, str] | None = None
    ) -> None:
        super().__init__(path)
        self._metadata = metadata
        self._chunks = RowGroups(ROWS_PER_CHUNK)
        self._stream: OutputFile | None = None
        self._file: h5py.File | None = None

    def write(self, echoes: EchoTable) -> None:
        """Append the echoes; ValueError outside the ``with`` statement."""
        if self._stream is None:
            raise ValueError(f"{self.path} is not open for writing")
        self._append(self._chunks.add(echo_table_to_arrow(echoes)))
        self._stream.check()
        self.count += int(np.count_nonzero(echoes.echo_number))

    @contextmanager
    def _open(self) -> Iterator[None]:
        with open_when_whole(self.path) as self._stream:
            try:
                with h5py.File(self._stream, "w") as self._file:
                    _create_datasets(self._file)
                    if self._metadata is not None:
                        self._file.attrs[RUN_METADATA_KEY] = run_metadata_text(self._metadata)
                    yield
                    self._append(self._chunks.rest())
            finally:
                self._stream = self._file = None

    def _append(self, chunks: Iterator[pa.Table]) -> None:
        if self._file is not None:
            for chunk in chunks:
                for name in chunk.column_names:
                    dataset = self._file[name]
                    first = len(dataset)
                    dataset.resize(first + len(chunk), axis=0)
                    dataset[first:] = chunk[name].to_numpy()


def _create_datasets(file: h5py.File) -> None:
    for column in ECHO_COLUMNS:
        dataset = file.create_dataset(
            column.name,
            shape=(0,),
            maxshape=(None,),
            dtype=column.type.to_pandas_dtype(),
            chunks=(ROWS_PER_CHUNK,),
            compression="gzip",
            compression_opts=4,
            shuffle=True,
            track_times=False,
        )
        dataset.attrs["unit"] = column.unit
        dataset.attrs["description"] = column.description
