"""The exceptions of the files and of the command line."""

from __future__ import annotations


class WaveformFileError(ValueError):
    """A file does not hold what its format promises; the message names file, value and rule."""
