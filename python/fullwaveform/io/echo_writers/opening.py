"""Files of echoes, their kind by the ending of their name."""

from __future__ import annotations

import os
from collections.abc import Mapping
from importlib import import_module
from pathlib import Path
from typing import Any

import laspy

from fullwaveform.io.base import EchoWriter

# Ending -> module and class. A writer is imported when it is wanted: each brings a library of its
# own.
_KINDS = {
    ".las": ("las", "LasEchoWriter"),
    ".laz": ("las", "LasEchoWriter"),
    ".csv": ("csv", "CsvEchoWriter"),
    ".parquet": ("parquet", "ParquetEchoWriter"),
    ".h5": ("hdf5", "Hdf5EchoWriter"),
    ".hdf5": ("hdf5", "Hdf5EchoWriter"),
    ".txt": ("ascii", "AsciiEchoWriter"),
}
_WITH_HEADER = (".las", ".laz")
_WITH_METADATA = (".parquet", ".h5", ".hdf5")
#: Endings of the files of echoes that can be written.
ECHO_ENDINGS = tuple(_KINDS)


def open_echo_file(
    path: str | os.PathLike[str],
    header: laspy.LasHeader | None,
    metadata: Mapping[str, str] | None = None,
) -> EchoWriter:
    """A writer for the path, by its ending; to be used in a ``with`` statement.

    Parameters
    ----------
    path
        Ends in one of `ECHO_ENDINGS`, in small or capital letters.
    header
        Of the file the echoes come from: LAS files of echoes follow it. None where there is none.
    metadata
        How the echoes were made, for the files that can carry it (Parquet and HDF5).

    Raises
    ------
    ValueError
        If no kind of file has the ending, or what it takes to write it is not installed.
    """
    ending = Path(path).suffix.lower()
    kind = _kind(Path(path))
    if ending in _WITH_HEADER:
        writer: EchoWriter = kind(path, header)
    else:
        writer = kind(path, metadata) if ending in _WITH_METADATA else kind(path)
    return writer


def check_takes_empty(path: Path, keep_empty: bool) -> None:
    """ValueError if the ending is of no known kind, or of one without waveforms without echoes."""
    if not _kind(path).takes_empty and keep_empty:
        tables = ", ".join(ending for ending in _KINDS if _kind(Path(f"_{ending}")).takes_empty)
        raise ValueError(
            f"{path} cannot hold waveforms without echoes: each of its entries is an echo; use a "
            f"table ({tables}) with --keep-empty"
        )


def _kind(path: Path) -> Any:
    """Class of the writer, whose arguments depend on it."""
    ending = path.suffix.lower()
    if ending not in _KINDS:
        raise ValueError(f"{path} must end in {', '.join(ECHO_ENDINGS[:-1])} or {ECHO_ENDINGS[-1]}")
    module, name = _KINDS[ending]
    return getattr(import_module(f"fullwaveform.io.echo_writers.{module}"), name)
