"""Opening a file of echoes, whose format follows from its ending."""

from __future__ import annotations

import os
from collections.abc import Mapping
from importlib import import_module
from pathlib import Path
from typing import Any

import laspy

from fullwaveform.io.atomic import FileKind
from fullwaveform.io.echo_writers.echo_writer import EchoWriter
from fullwaveform.io.reference_system import reference_system
from fullwaveform.io.remote import location

# Ending -> module and class. Writers are imported on demand, because each loads another library.
_WRITERS = {
    ".las": ("las", "LasEchoWriter"),
    ".laz": ("las", "LasEchoWriter"),
    ".csv": ("csv", "CsvEchoWriter"),
    ".parquet": ("parquet", "ParquetEchoWriter"),
    ".h5": ("hdf5", "Hdf5EchoWriter"),
    ".hdf5": ("hdf5", "Hdf5EchoWriter"),
    ".txt": ("ascii", "AsciiEchoWriter"),
}
_WITH_PACKETS = ("las_packets", "LasPacketEchoWriter")
_WITH_HEADER = (".las", ".laz")
_LAYERS = (".parquet",)  # which mapping programs read
_WITH_METADATA = (*_LAYERS, ".csv", ".h5", ".hdf5")
#: Endings of the files of echoes that can be written.
ECHO_ENDINGS = tuple(_WRITERS)


def open_echo_file(
    path: str | os.PathLike[str],
    header: laspy.LasHeader | None,
    metadata: Mapping[str, str] | None = None,
    *,
    carry: bool = True,
    with_waveforms: bool = False,
    shot_columns: tuple[str, ...] = (),
    overwrite: bool = False,
) -> EchoWriter:
    """A writer for the path, selected by its ending; to be used in a ``with`` statement.

    Parameters
    ----------
    path
        Ends in one of `ECHO_ENDINGS`, in lower or upper case.
    header
        LAS header of the input, if it has one; used for LAS files of echoes.
    metadata
        How the echoes were made, for formats that store it: all but the ASCII export. Tables also
        get the coordinate reference system of the header, as WKT.
    carry
        Whether LAS points have class and extra dimensions of the discrete returns of the input.
    with_waveforms
        Whether LAS points have the packets of their waveforms.
    shot_columns
        Names of the columns of shots that the input has, `WaveformReader.shot_columns`; the ASCII
        export has none.
    overwrite
        Whether an existing file of echoes of the same format is replaced.

    Raises
    ------
    ValueError
        If no format has the ending, a library for it is not installed, or the format cannot hold
        waveforms.
    """
    path = location(path)
    ending = path.suffix.lower()
    writer_class = _writer_class(path, with_waveforms)
    arguments: tuple[Any, ...] = (path,)
    options: dict[str, Any] = {"carry": carry} if ending in _WITH_HEADER else {}
    if ending in (*_WITH_HEADER, *_WITH_METADATA):
        options["shot_columns"] = shot_columns
    if ending in _WITH_HEADER:
        arguments = (path, header, metadata)
    elif ending in _WITH_METADATA:
        system = reference_system(header)
        if metadata is not None and system is not None:
            metadata = {**metadata, "crs": system.to_wkt()}
        arguments = (path, metadata, system) if ending in _LAYERS else (path, metadata)
    writer: EchoWriter = writer_class(*arguments, **options)
    writer.overwrite = overwrite
    return writer


def echo_outputs(path: Path, with_waveforms: bool = False) -> dict[Path, FileKind]:
    """The files that are written for echoes, as `FileWriter.outputs`.

    Raises ValueError as `open_echo_file`.
    """
    outputs: dict[Path, FileKind] = _writer_class(path, with_waveforms).outputs(path)
    return outputs


def check_takes_empty(path: Path, keep_empty: bool) -> None:
    """ValueError for an unknown ending, or if the format has no rows for empty waveforms."""
    if not _writer_class(path).takes_empty and keep_empty:
        tables = ", ".join(
            ending for ending in _WRITERS if _writer_class(Path(f"_{ending}")).takes_empty
        )
        raise ValueError(
            f"{path} cannot hold waveforms without echoes; write a table ({tables}) with "
            "--keep-empty"
        )


def _writer_class(path: Path, with_waveforms: bool = False) -> Any:
    """Class of the writer; its arguments depend on the format."""
    ending = path.suffix.lower()
    if ending not in _WRITERS:
        raise ValueError(f"{path} must end in {', '.join(ECHO_ENDINGS[:-1])} or {ECHO_ENDINGS[-1]}")
    if with_waveforms and ending not in _WITH_HEADER:
        raise ValueError(
            f"{path} cannot hold waveforms; write {' or '.join(_WITH_HEADER)} with --with-waveforms"
        )
    module, name = _WITH_PACKETS if with_waveforms else _WRITERS[ending]
    return getattr(import_module(f"fullwaveform.io.echo_writers.{module}"), name)
