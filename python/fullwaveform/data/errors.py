"""The exceptions of the files and of the command line."""

from __future__ import annotations


class WaveformFileError(ValueError):
    """A file does not hold what its format promises; the message names file, value and rule."""


def describe(error: Exception) -> str:
    """The message of a file, data or memory error."""
    if isinstance(error, OSError):
        where = f"{error.filename}: " if error.filename and error.strerror else ""
        return f"{where}{error.strerror or error}"
    if isinstance(error, MemoryError):
        return "not enough memory for one block of waveforms; reduce --block"
    return str(error)


def naming(path: object, message: str) -> str:
    """The message with the path in front, unless it names it already."""
    return message if str(path) in message else f"{path}: {message}"
