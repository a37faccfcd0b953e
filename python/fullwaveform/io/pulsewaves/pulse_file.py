"""Opening a PulseWaves file: its pulses and their samples, each compressed or not."""

from __future__ import annotations

from contextlib import ExitStack
from dataclasses import dataclass
from pathlib import Path

from fullwaveform.io.pulsewaves.compressed_pulses import CompressedPulses, read_pulse_compression
from fullwaveform.io.pulsewaves.compressed_waves import CompressedWaves
from fullwaveform.io.pulsewaves.descriptors import PulseDescriptor, read_descriptors
from fullwaveform.io.pulsewaves.header import (
    PulseWavesHeader,
    VariableRecord,
    read_appended_records,
    read_header,
    read_records,
)
from fullwaveform.io.pulsewaves.plain_waves import PlainWaves
from fullwaveform.io.pulsewaves.pulses import PlainPulses, PulseData
from fullwaveform.io.pulsewaves.waves import COMPRESSED, WaveSource, find_waves, read_compression


@dataclass(frozen=True, slots=True)
class PulseFile:
    """An open pulse file with its samples, or the parts of a flight line; must be closed."""

    path: Path
    pulses: PulseData
    waves: WaveSource
    descriptors: dict[int, PulseDescriptor]  # by index
    records: list[VariableRecord]

    @property
    def header(self) -> PulseWavesHeader:
        """Header of the file."""
        return self.pulses.header

    def close(self) -> None:
        """Close the files; may be called twice."""
        self.pulses.close()
        self.waves.close()


def open_pulse_file(path: Path) -> PulseFile:
    """Open a pulse file and its samples, compressed or not.

    Raises
    ------
    OSError
        If a file cannot be opened.
    WaveformFileError
        If one is not valid.
    """
    header = read_header(path)
    records = read_records(header, path)
    compression = read_pulse_compression(header, records, path)
    with ExitStack() as opened:
        source = (
            PlainPulses(header, path)
            if compression is None
            else CompressedPulses(header, compression, path)
        )
        opened.callback(source.close)
        if source.has_appended:
            records += read_appended_records(header, source.end, path)
        descriptors = read_descriptors(records, path)
        pulses = PulseData(header, source)
        waves = _opened_waves(path, compressed=compression is not None)
        opened.pop_all()
    return PulseFile(path, pulses, waves, descriptors, records)


def _opened_waves(path: Path, *, compressed: bool) -> WaveSource:
    """The samples of a pulse file; either file can be compressed without the other."""
    waves = find_waves(path, compressed=compressed)
    return CompressedWaves(waves) if read_compression(waves) == COMPRESSED else PlainWaves(waves)
