"""Base class of the writers of echoes in all formats."""

from __future__ import annotations

from abc import abstractmethod
from typing import ClassVar

from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.data.echo_columns import EchoTable
from fullwaveform.io.atomic import OutputFile
from fullwaveform.io.file_writer import FileWriter


class EchoWriter(FileWriter):
    """A file of echoes; `count` does not include rows of waveforms without echoes."""

    #: Whether the file can have rows of waveforms without echoes.
    takes_empty: ClassVar[bool] = True
    #: Whether the file holds the waveforms of the echoes, too.
    holds_waveforms: ClassVar[bool] = False

    def write(self, echoes: EchoTable, waveforms: WaveformBlock | None = None) -> None:
        """Append the echoes; ValueError outside the ``with`` statement.

        `waveforms` is the block in which they were found, for files that hold waveforms.
        """
        stream = self._open_stream()
        self._append(echoes, stream)
        stream.check()

    @abstractmethod
    def _append(self, echoes: EchoTable, stream: OutputFile) -> None:
        """Write the echoes to the open file and count them."""

    def notes(self) -> tuple[str, ...]:
        """What the file does not hold exactly, one message each."""
        return ()
