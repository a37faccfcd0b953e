"""The file with the statistics of blocks of which most waveforms were rejected."""

from __future__ import annotations

from pathlib import Path

from fullwaveform.io.atomic import protecting_input


def warning_path(folder: Path, source: Path) -> Path:
    """Where the statistics of an input file are written."""
    return folder / f"{source.stem}_Warning.txt"


def append_statistics(path: Path, text: str) -> None:
    """Append to the file; a diagnostic file that cannot be written does not end the run.

    Nor is anything appended to an input that has its name.
    """
    if protecting_input(path) is not None:
        return
    try:
        with path.open("a", encoding="ascii", newline="") as file:
            file.write(text)
    except OSError:
        return
