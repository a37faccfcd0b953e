"""Echoes as lines of text, in the library's own form."""

from __future__ import annotations

import os
from collections.abc import Iterator
from contextlib import contextmanager

from fullwaveform import _core
from fullwaveform.data.blocks import EchoTable
from fullwaveform.data.empty_waveforms import without_empty_waveforms
from fullwaveform.io.atomic import OutputFile, atomic_open
from fullwaveform.io.base import EchoWriter


class AsciiEchoWriter(EchoWriter):
    """Writes the library's ASCII export of echoes; to be used in a ``with`` statement.

    A line per echo, no header: number of the waveform, amplitude in dB, position and standard
    deviation in samples, GPS time of the shot in seconds, one blank between them. The file takes
    its name when the block ends without an error. Raises OSError if it cannot be written.
    """

    takes_empty = False  # a waveform without echoes has no line

    def __init__(self, path: str | os.PathLike[str]) -> None:
        super().__init__(path)
        self._stream: OutputFile | None = None

    def write(self, echoes: EchoTable) -> None:
        """Append the echoes, not the waveforms without; ValueError outside the statement."""
        if self._stream is None:
            raise ValueError(f"{self.path} is not open for writing")
        echoes = without_empty_waveforms(echoes)
        self._stream.write(
            _core.ascii_lines(
                echoes.waveform_number,
                echoes.amplitude_db,
                echoes.position,
                echoes.width_samples,
                echoes.gps_time,
            )
        )
        self._stream.check()
        self.count += len(echoes)

    @contextmanager
    def _open(self) -> Iterator[None]:
        with atomic_open(self.path) as self._stream:
            try:
                yield
            finally:
                self._stream = None
