"""Files of echoes, their kind by the ending of their name."""

from __future__ import annotations

import os
from pathlib import Path

import laspy

from fullwaveform.formats.csv_writer import CsvEchoWriter
from fullwaveform.formats.file_ends import EchoWriter
from fullwaveform.formats.las_writer import LasEchoWriter

_KINDS: dict[str, type[EchoWriter]] = {
    ".las": LasEchoWriter,
    ".csv": CsvEchoWriter,
}
#: Endings of the files of echoes that can be written.
ECHO_ENDINGS = tuple(_KINDS)


def open_echo_file(path: str | os.PathLike[str], header: laspy.LasHeader | None) -> EchoWriter:
    """A writer for the path, by its ending; to be used in a ``with`` statement.

    `header` is that of the file the echoes come from: a LAS file of echoes follows it.

    Raises
    ------
    ValueError
        If no kind of file has the ending.
    """
    kind = _kind(Path(path))
    return kind(path, header) if issubclass(kind, LasEchoWriter) else kind(path)


def check_takes_empty(path: Path, keep_empty: bool) -> None:
    """ValueError if the ending is of no known kind, or of one without waveforms without echoes."""
    kind = _kind(path)
    if keep_empty and not kind.takes_empty:
        tables = ", ".join(ending for ending, one in _KINDS.items() if one.takes_empty)
        raise ValueError(
            f"{path} cannot hold waveforms without echoes: its points must have a place; use a "
            f"table ({tables}) with --keep-empty"
        )


def _kind(path: Path) -> type[EchoWriter]:
    kind = _KINDS.get(path.suffix.lower())
    if kind is None:
        raise ValueError(f"{path} must end in {' or '.join(_KINDS)}")
    return kind
