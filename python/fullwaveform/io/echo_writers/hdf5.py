"""Echoes as an HDF5 file."""

from __future__ import annotations

import os
from collections.abc import Iterator, Mapping, Sequence
from contextlib import contextmanager
from pathlib import Path

import h5py
import numpy as np
import pyarrow as pa
from isal import isal_zlib

from fullwaveform.data.arrays import AnyArray
from fullwaveform.data.columns import Column
from fullwaveform.data.echo_columns import EchoTable, table_columns
from fullwaveform.io.atomic import FileKind, OutputFile
from fullwaveform.io.echo_writers.echo_writer import EchoWriter
from fullwaveform.io.echo_writers.row_groups import GroupedTableFile
from fullwaveform.io.remote import path_or_stream
from fullwaveform.io.run_record import RUN_METADATA_KEY, run_metadata_text

#: Rows of a chunk of every dataset; 512 kB of doubles.
ROWS_PER_CHUNK = 2**16
_DEFLATE_LEVEL = 1  # 3 % larger than level 4
_TEXT = np.dtype("S16")  # of fixed length, which every reader of HDF5 takes


def _is_echo_table(path: Path) -> bool:
    with h5py.File(path_or_stream(path)) as file:
        return "echo_number" in file


class Hdf5TableFile(GroupedTableFile):
    """A table in an HDF5 file.

    One dataset per column with the attributes ``unit`` and ``description``, chunked and compressed.
    `metadata` says how the table was made; it is stored as JSON in the attribute ``fullwaveform``
    of the file. Equal rows give equal bytes, however they are divided into tables; on processors of
    different kinds the compressed bytes of equal values may differ.
    """

    _datasets: dict[str, h5py.Dataset]  # opening one takes as long as compressing a chunk

    @property
    def _rows_per_group(self) -> int:
        return ROWS_PER_CHUNK

    @contextmanager
    def _content(self, stream: OutputFile) -> Iterator[None]:
        with h5py.File(stream, "w") as file:
            self._datasets = _created_datasets(file, self._columns)
            if self._metadata is not None:
                file.attrs[RUN_METADATA_KEY] = run_metadata_text(self._metadata)
            yield
            self._write_groups(self._groups.rest())

    def _write_groups(self, groups: Iterator[pa.Table]) -> None:
        for group in groups:
            for name in group.column_names:
                dataset = self._datasets[name]
                first = len(dataset)
                dataset.resize(first + len(group), axis=0)
                values = group[name].to_numpy().astype(dataset.dtype, copy=False)
                # As the filters of HDF5 would, which take five times as long.
                dataset.id.write_direct_chunk((first,), filtered_chunk(values))


def filtered_chunk(values: AnyArray) -> bytes:
    """A chunk that begins with the values, as the filters shuffle and gzip of HDF5 leave it."""
    chunk = np.zeros(ROWS_PER_CHUNK, values.dtype)
    chunk[: len(values)] = values
    bytes_of_rows = chunk.view(np.uint8).reshape(ROWS_PER_CHUNK, -1)
    return isal_zlib.compress(np.ascontiguousarray(bytes_of_rows.T), _DEFLATE_LEVEL)


class Hdf5EchoWriter(Hdf5TableFile, EchoWriter):
    """Writes echoes to an HDF5 file, as `Hdf5TableFile`."""

    kind = FileKind("an HDF5 file of echoes", _is_echo_table)

    def __init__(
        self,
        path: str | os.PathLike[str],
        metadata: Mapping[str, str] | None = None,
        *,
        shot_columns: tuple[str, ...] = (),
    ) -> None:
        super().__init__(path, table_columns(shot_columns), metadata)

    def _append(self, echoes: EchoTable, stream: OutputFile) -> None:
        self._add_rows(echoes)
        self.count += int(np.count_nonzero(echoes["echo_number"]))


def _created_datasets(file: h5py.File, columns: Sequence[Column]) -> dict[str, h5py.Dataset]:
    """A dataset for each column, by its name."""
    datasets = {}
    for column in columns:
        dataset = file.create_dataset(
            column.name,
            shape=(0,),
            maxshape=(None,),
            dtype=_TEXT if column.dtype is np.str_ else column.dtype,
            chunks=(ROWS_PER_CHUNK,),
            compression="gzip",
            compression_opts=_DEFLATE_LEVEL,
            shuffle=True,
            track_times=False,
        )
        dataset.attrs["unit"] = column.unit
        dataset.attrs["description"] = column.description
        datasets[column.name] = dataset
    return datasets
