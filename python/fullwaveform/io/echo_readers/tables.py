"""Echoes of tables: Parquet, HDF5, CSV and NumPy archives with one array per column."""

from __future__ import annotations

import csv
import json
import zipfile
from collections.abc import Callable, Collection, Iterator, Mapping
from contextlib import ExitStack, contextmanager
from functools import partial
from importlib import import_module
from pathlib import Path
from typing import IO, Any

import numpy as np
import pyarrow as pa
import pyarrow.csv
import pyarrow.parquet
from numpy.lib import format as npy

from fullwaveform.data.arrays import RecordArray
from fullwaveform.data.echo_records import EchoFile, Rows, unknown_records
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.echo_readers.quantities import QUANTITY_COLUMNS, fill_quantities
from fullwaveform.io.echo_readers.shot_numbers import SHOT_COLUMNS, fill_shots
from fullwaveform.io.limits import SURVEY_CHUNK
from fullwaveform.io.remote import RemoteError, path_or_stream, remote_failures_first
from fullwaveform.io.run_record import RUN_METADATA_KEY

_COLUMNS = frozenset({"x", "y", "z", "gps_time", "echo_number"}) | QUANTITY_COLUMNS | SHOT_COLUMNS
_CSV_BYTES = 1 << 24  # per block; a line has 100 to 400 bytes
_NAMES_BYTES = 1 << 16  # the first line of a CSV file, at most


def parquet_echo_file(path: Path) -> EchoFile:
    """Echoes of a Parquet file; see `open_echoes`."""
    with _errors(path, "Parquet"), pa.parquet.ParquetFile(path_or_stream(path)) as file:
        found = _checked(file.schema_arrow.names, path)
        metadata = file.schema_arrow.metadata or {}
        settings = _settings(metadata.get(RUN_METADATA_KEY.encode()))

    def rows(wanted: Collection[str]) -> Iterator[Rows]:
        names = _wanted(found, wanted)
        with _errors(path, "Parquet"), pa.parquet.ParquetFile(path_or_stream(path)) as file:
            # One row group after the other: pyarrow keeps all of those that it is asked for.
            for group in range(file.num_row_groups):
                batches = file.iter_batches(SURVEY_CHUNK, row_groups=[group], columns=list(names))
                yield from map(_arrow_rows, batches)

    return EchoFile(path, False, partial(_records, rows, path), rows, settings)


def csv_echo_file(path: Path) -> EchoFile:
    """Echoes of a CSV file whose first line names the columns; see `open_echoes`."""
    with path.open("rb") as stream:
        line = stream.readline(_NAMES_BYTES).decode("utf-8-sig", "replace")
    # pyarrow gets the names without the spaces that may surround them in the first line.
    listed = [name.strip() for name in next(csv.reader([line]), [])]
    found = _checked(listed, path)

    def rows(wanted: Collection[str]) -> Iterator[Rows]:
        names = _wanted(found, wanted)
        with _errors(path, "CSV"):
            reader = pa.csv.open_csv(
                path_or_stream(path),
                read_options=pa.csv.ReadOptions(
                    block_size=_CSV_BYTES, column_names=listed, skip_rows=1
                ),
                convert_options=pa.csv.ConvertOptions(
                    include_columns=list(names),
                    column_types={
                        name: pa.string() if name in SHOT_COLUMNS else pa.float64()
                        for name in names
                    },
                ),
            )
            with reader:
                yield from map(_arrow_rows, reader)

    return EchoFile(path, False, partial(_records, rows, path), rows)


def hdf5_echo_file(path: Path) -> EchoFile:
    """Echoes of an HDF5 file with one dataset per column; see `open_echoes`."""
    # Imported on demand: loading h5py takes longer than reading many a file.
    h5py = import_module("h5py")
    with _errors(path, "HDF5"), h5py.File(path_or_stream(path), "r") as file:
        if "waveforms" in file:
            raise WaveformFileError(
                f"{path} holds waveforms without discrete returns; extract its echoes first"
            )
        # Texts of variable length are not read: HDF5 can hang if they are damaged.
        readable = [
            name for name in file if name not in SHOT_COLUMNS or file[name].dtype.kind != "O"
        ]
        found = _checked(readable, path)
        settings = _settings(file.attrs.get(RUN_METADATA_KEY))

    def rows(wanted: Collection[str]) -> Iterator[Rows]:
        names = _wanted(found, wanted)
        with _errors(path, "HDF5"), h5py.File(path_or_stream(path), "r") as file:
            total = _common_length({name: file[name].shape for name in names}, path)
            for first in range(0, total, SURVEY_CHUNK):
                yield {name: file[name][first : first + SURVEY_CHUNK] for name in names}

    return EchoFile(path, False, partial(_records, rows, path), rows, settings)


def npz_echo_file(path: Path) -> EchoFile:
    """Echoes of a NumPy archive with one array per column; see `open_echoes`."""
    with _errors(path, "NumPy archive"), zipfile.ZipFile(path_or_stream(path)) as archive:
        members = {name.removesuffix(".npy"): name for name in archive.namelist()}
        if "samples" in members and "x" not in members:
            raise WaveformFileError(
                f"{path} holds waveforms without discrete returns; extract its echoes first"
            )
        # The beam of an archive would be a text.
        found = _checked([name for name in members if name != "beam"], path)

    def rows(wanted: Collection[str]) -> Iterator[Rows]:
        names = _wanted(found, wanted)
        with ExitStack() as opened:
            opened.enter_context(_errors(path, "NumPy archive"))
            archive = opened.enter_context(zipfile.ZipFile(path_or_stream(path)))
            streams = {name: opened.enter_context(archive.open(members[name])) for name in names}
            layouts = {name: _layout(stream, name, path) for name, stream in streams.items()}
            total = _common_length({name: shape for name, (shape, _) in layouts.items()}, path)
            for first in range(0, total, SURVEY_CHUNK):
                count = min(SURVEY_CHUNK, total - first)
                yield {
                    name: np.frombuffer(
                        stream.read(count * layouts[name][1].itemsize), layouts[name][1], count
                    )
                    for name, stream in streams.items()
                }

    return EchoFile(path, False, partial(_records, rows, path), rows)


def _layout(stream: IO[bytes], name: str, path: Path) -> tuple[tuple[int, ...], np.dtype[Any]]:
    """Shape and type of an array of numbers; the stream is then at its first value."""
    read = {(1, 0): npy.read_array_header_1_0, (2, 0): npy.read_array_header_2_0}
    shape, _, dtype = read[npy.read_magic(stream)](stream)
    if dtype.kind not in "iuf":
        raise WaveformFileError(f"{path}: column {name} has type {dtype}; expected numbers")
    return shape, dtype


def _common_length(shapes: Mapping[str, tuple[int, ...]], path: Path) -> int:
    first = next(iter(shapes.values()))
    for name, shape in shapes.items():
        if len(shape) != 1 or shape != first:
            raise WaveformFileError(
                f"{path}: column {name} has shape {shape}; columns must be one-dimensional and of "
                f"equal length, {next(iter(shapes))} has shape {first}"
            )
    return first[0]


def _checked(found: list[str], path: Path) -> tuple[str, ...]:
    """The distinct columns of a file; WaveformFileError if the places of the echoes are missing."""
    if missing := [axis for axis in "xyz" if axis not in found]:
        listed = ", ".join(found[:8]) or "none"
        raise WaveformFileError(
            f"{path}: no column {', '.join(missing)}; a table of echoes needs x, y, z and, to be "
            f"matched by shot, gps_time; found: {listed[:200]}"
        )
    return tuple(dict.fromkeys(found))


def _wanted(found: tuple[str, ...], wanted: Collection[str]) -> tuple[str, ...]:
    return tuple(name for name in found if name in wanted)


def _settings(text: Any) -> dict[str, str]:
    """The settings of the extraction that a file was written with; empty if it has none."""
    try:
        settings = json.loads(text) if isinstance(text, str | bytes) else {}
    except ValueError:
        return {}
    return {str(key): str(value) for key, value in settings.items()}


def _arrow_rows(batch: pa.RecordBatch) -> Rows:
    columns = zip(batch.schema.names, batch.columns, strict=True)
    return {name: column.to_numpy(zero_copy_only=False) for name, column in columns}


def _records(
    rows: Callable[[Collection[str]], Iterator[Rows]], path: Path
) -> Iterator[RecordArray]:
    first = 0
    for columns in rows(_COLUMNS):
        count = len(columns["x"])
        records = unknown_records(count, first)
        with _errors(path, "table"):
            records["xyz"] = np.column_stack([columns[axis] for axis in "xyz"])
            if "gps_time" in columns:
                records["gps_time"] = columns["gps_time"]
            fill_quantities(records, columns.keys(), columns.__getitem__)
            fill_shots(records, columns.keys(), columns.__getitem__)
        first += count
        # Rows of waveforms without echoes have the number 0.
        echoes = columns["echo_number"] != 0 if "echo_number" in columns else slice(None)
        yield records[echoes]


@contextmanager
def _errors(path: Path, kind: str) -> Iterator[None]:
    """Replace the errors of the libraries by a WaveformFileError."""
    try:
        with remote_failures_first():
            yield
    except (WaveformFileError, MemoryError, GeneratorExit, RemoteError):
        raise
    except Exception as error:  # pyarrow, h5py, zipfile and NumPy raise many types
        if isinstance(error, OSError) and error.errno is not None:
            raise
        reason = " ".join(str(error).split())
        raise WaveformFileError(f"{path}: not a readable {kind} file: {reason}") from error
