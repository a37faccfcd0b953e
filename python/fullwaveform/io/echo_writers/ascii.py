"""Echoes as lines of text, in the format of the library's ASCII export."""

from __future__ import annotations

from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

from fullwaveform.core.ascii_export import ascii_lines
from fullwaveform.data.echo_columns import EchoTable
from fullwaveform.data.empty_waveforms import without_empty_waveforms
from fullwaveform.io.atomic import FileKind, OutputFile
from fullwaveform.io.echo_writers.echo_writer import EchoWriter


def _is_export(path: Path) -> bool:
    with path.open(encoding="ascii") as file:
        number, *values = file.readline(4096).split(" ")
    return number.isdigit() and len([float(value) for value in values]) == 4


class AsciiEchoWriter(EchoWriter):
    """Writes the library's ASCII export of echoes.

    A line per echo, no header: number of the waveform, amplitude in dB, position and standard
    deviation in samples, GPS time of the shot in seconds, separated by single spaces. Rows of
    waveforms without echoes are omitted.
    """

    kind = FileKind("an ASCII export of echoes", _is_export)
    takes_empty = False

    def _append(self, echoes: EchoTable, stream: OutputFile) -> None:
        echoes = without_empty_waveforms(echoes)
        stream.write(ascii_lines(echoes))
        self.count += len(echoes)

    @contextmanager
    def _content(self, stream: OutputFile) -> Iterator[None]:
        yield
