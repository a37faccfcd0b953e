"""Reading the parts of a job."""

from __future__ import annotations

import os
from collections.abc import Iterator
from pathlib import Path

import pyarrow as pa
import pyarrow.parquet

from fullwaveform.cluster.manifest_file import read_manifest


def part_paths(folder: str | os.PathLike[str]) -> list[Path]:
    """The parts of a finished job, in the order of its inputs and their blocks.

    Raises
    ------
    OSError
        The folder has no manifest, or a part is missing.
    ValueError
        The manifest is none, or the job is not finished.
    """
    folder = Path(folder)
    manifest = read_manifest(folder)
    if unfinished := len(manifest.unfinished()):
        raise ValueError(
            f"{folder}: {unfinished} of {len(manifest.parts)} parts are not finished; continue the "
            "run with --resume"
        )
    paths = [folder / part.file for part in manifest.parts]
    for path in paths:
        if not path.is_file():
            raise FileNotFoundError(f"{path}, a part that the manifest names, is missing")
    return paths


def read_parts(folder: str | os.PathLike[str]) -> Iterator[pa.Table]:
    """Yield the echoes of a finished job, a table for each part, in order.

    One behind the other they are the table that a single machine writes, row for row.

    Raises
    ------
    OSError
        The folder has no manifest, or a part is missing.
    ValueError
        The manifest is none, the job is not finished, or its parts are no Parquet files.
    """
    for path in part_paths(folder):
        if path.suffix != ".parquet":
            raise ValueError(f"{path} is no Parquet file; read such parts with their own library")
        # A file, not the folder of a data set: names must not be taken for columns.
        yield pyarrow.parquet.ParquetFile(path).read()
