"""Echoes as an HDF5 file."""

from __future__ import annotations

import os
from collections.abc import Iterator, Mapping
from contextlib import contextmanager
from pathlib import Path

import h5py
import numpy as np
import pyarrow as pa

from fullwaveform.data.echo_columns import table_columns
from fullwaveform.io.atomic import FileKind, OutputFile
from fullwaveform.io.echo_writers.row_groups import GroupedEchoWriter
from fullwaveform.io.run_record import RUN_METADATA_KEY, run_metadata_text

#: Rows of a chunk of every dataset; 512 kB of doubles.
ROWS_PER_CHUNK = 2**16
_TEXT = np.dtype("S16")  # of fixed length, which every reader of HDF5 takes


def _is_echo_table(path: Path) -> bool:
    with h5py.File(path) as file:
        return "echo_number" in file


class Hdf5EchoWriter(GroupedEchoWriter):
    """Writes echoes to an HDF5 file.

    One dataset per column with the attributes ``unit`` and ``description``, chunked and compressed.
    `metadata` says how the echoes were made; it is stored as JSON in the attribute ``fullwaveform``
    of the file. Equal echoes give equal bytes, however they are divided into tables.
    """

    kind = FileKind("an HDF5 file of echoes", _is_echo_table)
    _file: h5py.File

    def __init__(
        self,
        path: str | os.PathLike[str],
        metadata: Mapping[str, str] | None = None,
        *,
        shot_columns: tuple[str, ...] = (),
    ) -> None:
        super().__init__(path, ROWS_PER_CHUNK)
        self._metadata = metadata
        self._shot_columns = shot_columns

    @contextmanager
    def _content(self, stream: OutputFile) -> Iterator[None]:
        with h5py.File(stream, "w") as self._file:
            _create_datasets(self._file, self._shot_columns)
            if self._metadata is not None:
                self._file.attrs[RUN_METADATA_KEY] = run_metadata_text(self._metadata)
            yield
            self._write_groups(self._groups.rest())

    def _write_groups(self, groups: Iterator[pa.Table]) -> None:
        for group in groups:
            for name in group.column_names:
                dataset = self._file[name]
                first = len(dataset)
                dataset.resize(first + len(group), axis=0)
                dataset[first:] = group[name].to_numpy().astype(dataset.dtype, copy=False)


def _create_datasets(file: h5py.File, shot_columns: tuple[str, ...]) -> None:
    for column in table_columns(shot_columns):
        dataset = file.create_dataset(
            column.name,
            shape=(0,),
            maxshape=(None,),
            dtype=_TEXT if column.dtype is np.str_ else column.dtype,
            chunks=(ROWS_PER_CHUNK,),
            compression="gzip",
            compression_opts=4,
            shuffle=True,
            track_times=False,
        )
        dataset.attrs["unit"] = column.unit
        dataset.attrs["description"] = column.description
