"""Reading the parts of a run."""

from __future__ import annotations

import os
from collections.abc import Iterator
from pathlib import Path

import pyarrow as pa
import pyarrow.parquet

from fullwaveform.cluster.folder import JobFolder
from fullwaveform.io.echo_writers.geoparquet import GEOMETRY
from fullwaveform.io.remote import location, path_or_stream


def part_paths(folder: str | os.PathLike[str]) -> list[Path]:
    """The parts of a finished run without skipped ones, by input and block.

    Raises
    ------
    OSError
        The folder has no manifest, or a part is missing.
    ValueError
        The manifest is invalid, or the run is not finished.
    """
    folder = location(folder)
    manifest = JobFolder(folder).read_manifest()
    if unfinished := len(manifest.unfinished()):
        raise ValueError(
            f"{folder}: {unfinished} of {len(manifest.parts)} parts are not finished; continue the "
            "run with --resume, or complete it with fullwaveform run and join"
        )
    paths = [folder / part.file for part in manifest.parts if part.outcome is not None]
    for path in paths:
        if not path.is_file():
            raise FileNotFoundError(f"part {path} of the manifest is missing")
    return paths


def read_parts(folder: str | os.PathLike[str]) -> Iterator[pa.Table]:
    """Yield the echoes of a finished run, one table per part, in order.

    Concatenated they equal the table that ``fullwaveform extract`` writes, row for row; without
    its column of points, which only inputs with a reference system have.

    Raises
    ------
    OSError
        The folder has no manifest, or a part is missing.
    ValueError
        The manifest is invalid, the run is not finished, or its parts are not Parquet files.
    """
    for path in part_paths(folder):
        if path.suffix != ".parquet":
            raise ValueError(
                f"{path} is not a Parquet file; list the parts with part_paths and read them with "
                "a library for their format"
            )
        # As a file, not as a data set, which would take columns from its name.
        file = pyarrow.parquet.ParquetFile(path_or_stream(path))
        yield file.read([name for name in file.schema_arrow.names if name != GEOMETRY])
