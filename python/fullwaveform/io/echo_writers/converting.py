"""A table of echoes of one format from a table of another one."""

from __future__ import annotations

import json
from collections.abc import Mapping
from pathlib import Path

import numpy as np

from fullwaveform.data.arrays import AnyArray, BoolArray
from fullwaveform.data.echo_columns import SHOT_COLUMNS, EchoTable, table_columns
from fullwaveform.data.echo_records import EchoFile
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.echo_readers.opening import open_echoes
from fullwaveform.io.echo_writers.csv import CsvEchoWriter
from fullwaveform.io.echo_writers.csv_metadata import metadata_path
from fullwaveform.io.echo_writers.echo_writer import EchoWriter
from fullwaveform.io.echo_writers.parquet import ParquetEchoWriter
from fullwaveform.io.interruption import raise_if_requested
from fullwaveform.io.run_record import RUN_METADATA_KEY

_ALL = {column.name: column.dtype for column in table_columns(tuple(c.name for c in SHOT_COLUMNS))}
_NEEDED = {column.name for column in table_columns()}
#: Endings of tables that have all columns of each other.
TABLE_ENDINGS = (".csv", ".parquet", ".h5", ".hdf5")
#: Endings of the tables that `convert_rows` writes.
CONVERTED_ENDINGS = (".csv", ".parquet")


def has_all_columns(source: Path) -> bool:
    """Whether a file is a table with the columns and types that echoes of the command have."""
    if source.suffix.lower() not in TABLE_ENDINGS:
        return False
    return _shot_columns(open_echoes(source)) is not None


def convert_rows(source: Path, rows: BoolArray, output: Path) -> None:
    """Write the chosen rows of a table of echoes as one of another format.

    It has the bytes that extracting the rows alone to this format would have given; a CSV file has
    no metadata next to it. Rows beyond the end of `rows` are not chosen.

    Raises
    ------
    ValueError
        The output is none of `CONVERTED_ENDINGS`.
    WaveformFileError
        The source is damaged, lacks columns, or names an invalid coordinate system.
    OSError
        The source cannot be read or the output not written.
    """
    file = open_echoes(source)
    shot_columns = _shot_columns(file)
    if shot_columns is None:
        raise WaveformFileError(f"{source} lacks columns that extracted echoes have")
    first = 0
    with _writer(source, output, _metadata(file), shot_columns) as writer:
        for columns in file.rows(_ALL):
            raise_if_requested()
            count = len(columns["x"])
            chosen = np.flatnonzero(rows[first : first + count])
            first += count
            table = {name: _typed(column[chosen], name) for name, column in columns.items()}
            writer.write(EchoTable(table))


def _shot_columns(file: EchoFile) -> tuple[str, ...] | None:
    """Those of `SHOT_COLUMNS` that a file has; None if it lacks others, or rows."""
    found = next(iter(file.rows(_ALL)), None)
    if found is None or not found.keys() >= _NEEDED:
        return None
    return tuple(column.name for column in SHOT_COLUMNS if column.name in found)


def _writer(
    source: Path,
    output: Path,
    metadata: Mapping[str, str] | None,
    shot_columns: tuple[str, ...],
) -> EchoWriter:
    ending = output.suffix.lower()
    if ending == ".csv":
        return CsvEchoWriter(output, shot_columns=shot_columns)
    if ending == ".parquet":
        import pyproj  # on demand: it takes long to load

        text = (metadata or {}).get("crs")
        try:
            system = None if text is None else pyproj.CRS.from_wkt(text)
        except pyproj.exceptions.CRSError as error:
            raise WaveformFileError(
                f"{source} has an invalid coordinate system in its metadata, {str(text)[:40]!r}; "
                "save the echoes as csv"
            ) from error
        return ParquetEchoWriter(output, metadata, system, shot_columns=shot_columns)
    raise ValueError(f"{output} must end in {' or '.join(CONVERTED_ENDINGS)}")


def _metadata(file: EchoFile) -> Mapping[str, str] | None:
    """How the echoes were made, if that is known."""
    if file.settings:
        return file.settings
    try:
        notes = json.loads(metadata_path(file.path).read_bytes())["notes"]
        return {str(key): str(value) for key, value in notes[0][RUN_METADATA_KEY].items()}
    except (OSError, ValueError, LookupError, AttributeError, TypeError):
        return None


def _typed(values: AnyArray, name: str) -> AnyArray:
    """Values of a column in its type; texts are those of CSV or HDF5 files."""
    dtype = _ALL[name]
    if dtype is np.str_:
        texts = [one.decode() if isinstance(one, bytes) else str(one) for one in values]
        return np.array(texts, np.str_)
    if values.dtype.kind in "OSU":
        values = values.astype(np.str_)
    return values.astype(dtype)
