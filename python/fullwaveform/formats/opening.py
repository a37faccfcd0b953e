"""Opening a file of waveforms, whatever its format."""

from __future__ import annotations

import os
from collections.abc import Iterator, Mapping
from pathlib import Path
from types import TracebackType
from typing import Protocol, Self

import laspy

from fullwaveform.errors import WaveformFileError
from fullwaveform.formats.blocks import ReadTally, WaveformBlock
from fullwaveform.formats.las_reader import LasWaveformReader
from fullwaveform.formats.pulsewaves_header import PULSE_SIGNATURE
from fullwaveform.formats.pulsewaves_reader import PulseWavesReader
from fullwaveform.formats.pulsewaves_waves import WAVES_SIGNATURE

_LAS_SIGNATURE = b"LASF"
_LONGEST_SIGNATURE = 16  # bytes


class WaveformReader(Protocol):
    """What the readers of all formats have in common; to be used in a ``with`` statement."""

    @property
    def path(self) -> Path:
        """The file."""
        ...

    @property
    def header(self) -> laspy.LasHeader:
        """The LAS header that files made of its echoes follow."""
        ...

    @property
    def tally(self) -> ReadTally:
        """What was met so far in the current pass."""
        ...

    @property
    def point_count(self) -> int:
        """Points or pulses of the file."""
        ...

    @property
    def points_done(self) -> int:
        """Points or pulses visited so far in the current pass."""
        ...

    def blocks(self, first: int = 0, stop: int | None = None) -> Iterator[WaveformBlock]:
        """Yield the waveforms in blocks of whole shots, all or those of a range of numbers."""
        ...

    def block_count(self) -> int:
        """Blocks of a pass."""
        ...

    def close(self) -> None:
        """Close the file; may be called twice."""
        ...

    def __enter__(self) -> Self: ...

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        trace: TracebackType | None,
    ) -> None: ...


def open_waveforms(
    path: str | os.PathLike[str],
    *,
    waveforms_per_block: int = 20_000,
    channel_flags: Mapping[int, int] | int = 1,
) -> LasWaveformReader | PulseWavesReader:
    """Open a file of waveforms by what its first bytes say; its name does not matter.

    Parameters
    ----------
    path
        A LAS file with waveforms or the file of pulses (``.pls``) of PulseWaves.
    waveforms_per_block, channel_flags
        As the readers take them.

    Raises
    ------
    OSError
        If a file cannot be opened.
    WaveformFileError
        If it is of neither format, or does not hold what its format promises.
    ValueError
        For arguments that make no sense.
    """
    with Path(path).open("rb") as stream:
        start = stream.read(_LONGEST_SIGNATURE)
    if start.startswith(_LAS_SIGNATURE):
        return LasWaveformReader(
            path, waveforms_per_block=waveforms_per_block, channel_flags=channel_flags
        )
    if start.startswith(PULSE_SIGNATURE):
        return PulseWavesReader(
            path, waveforms_per_block=waveforms_per_block, channel_flags=channel_flags
        )
    if start.startswith(WAVES_SIGNATURE):
        raise WaveformFileError(
            f"{path} holds the samples of a PulseWaves file; open the file of pulses beside it, "
            f"{Path(path).with_suffix('.pls').name}"
        )
    raise WaveformFileError(
        f"{path} is neither a LAS file nor a PulseWaves file: it starts with {start!r}, not with "
        f"{_LAS_SIGNATURE.decode()} or {PULSE_SIGNATURE.decode()}"
    )
