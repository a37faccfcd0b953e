"""Opening a file of waveforms, whatever its format."""

from __future__ import annotations

import os
from collections.abc import Callable, Iterator, Mapping
from importlib import import_module
from pathlib import Path
from types import TracebackType
from typing import Any, Protocol, Self

import laspy

from fullwaveform.core.scanner import Scanner
from fullwaveform.data.blocks import ReadTally, WaveformBlock
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.container.layout import HDF5_SIGNATURE
from fullwaveform.io.las.reader import LasWaveformReader
from fullwaveform.io.npz.reader import ZIP_SIGNATURE, NpzReader
from fullwaveform.io.pulsewaves.header import PULSE_SIGNATURE
from fullwaveform.io.pulsewaves.reader import PulseWavesReader
from fullwaveform.io.pulsewaves.samples import WAVES_SIGNATURE

_LAS_SIGNATURE = b"LASF"
_LONGEST_SIGNATURE = 16  # bytes


class WaveformReader(Protocol):
    """What the readers of all formats have in common; to be used in a ``with`` statement."""

    skip_unreadable: bool
    tell_unreadable: Callable[[str], None] | None

    @property
    def path(self) -> Path:
        """The file."""
        ...

    @property
    def header(self) -> laspy.LasHeader | None:
        """The LAS header that files made of its echoes follow; None without a place in space."""
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

    @property
    def channel_numbers(self) -> frozenset[int] | None:
        """Numbers of the file by which `channel_flags` are given; None if it says the flags."""
        ...

    def scanner_attributes(self) -> dict[str, Any] | None:
        """The scanner's attributes by the names of the host's grids; None if the file has none."""
        ...

    def scanner(self) -> Scanner | None:
        """The description of the scanner that the file carries; None if it carries none."""
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


class _Reader(WaveformReader, Protocol):
    def __init__(
        self,
        path: str | os.PathLike[str],
        *,
        waveforms_per_block: int,
        channel_flags: Mapping[int, int] | int,
    ) -> None: ...


def open_waveforms(
    path: str | os.PathLike[str],
    *,
    waveforms_per_block: int = 20_000,
    channel_flags: Mapping[int, int] | int = 1,
    sampling_interval: float | None = None,
    skip_unreadable: bool = True,
) -> WaveformReader:
    """Open a file of waveforms by what its first bytes say; its name does not matter.

    Parameters
    ----------
    path
        A LAS or LAZ file with waveforms, the file of pulses (``.pls``) of PulseWaves, a scan
        container or a NumPy archive (``.npz``).
    waveforms_per_block, channel_flags
        As the readers take them.
    sampling_interval
        s per sample, for a NumPy archive, which may not say it.
    skip_unreadable
        Whether waveforms that cannot be used are left out and counted in the reader's tally; else
        the first one ends the pass with a WaveformFileError.

    Raises
    ------
    OSError
        If a file cannot be opened.
    WaveformFileError
        If it is of none of these formats, or does not hold what its format promises.
    ValueError
        For arguments that make no sense, as a sampling interval for a file that says its own.
    """
    reader = _opened(path, waveforms_per_block, channel_flags, sampling_interval)
    reader.skip_unreadable = skip_unreadable
    return reader


def _opened(
    path: str | os.PathLike[str],
    waveforms_per_block: int,
    channel_flags: Mapping[int, int] | int,
    sampling_interval: float | None,
) -> WaveformReader:
    if not Path(path).is_file() and Path(path).exists() and not Path(path).is_dir():
        raise WaveformFileError(f"{path} is a device or a pipe, not a file that can be read twice")
    with Path(path).open("rb") as stream:
        start = stream.read(_LONGEST_SIGNATURE)
    if start.startswith(ZIP_SIGNATURE):
        return NpzReader(
            path,
            waveforms_per_block=waveforms_per_block,
            channel_flags=channel_flags,
            sampling_interval=sampling_interval,
        )
    reader = _reader_for(start, Path(path))
    if sampling_interval is not None:
        raise ValueError(f"{path} says its sampling interval itself; only an .npz is given one")
    return reader(path, waveforms_per_block=waveforms_per_block, channel_flags=channel_flags)


def _reader_for(start: bytes, path: Path) -> type[_Reader]:
    if start.startswith(_LAS_SIGNATURE):
        return LasWaveformReader
    if start.startswith(PULSE_SIGNATURE):
        return PulseWavesReader
    if start.startswith(HDF5_SIGNATURE):
        # Loaded when it is wanted: h5py takes longer to load than many a file to read.
        return import_module("fullwaveform.io.container.reader").ScanContainerReader  # type: ignore[no-any-return]
    if start.startswith(WAVES_SIGNATURE):
        raise WaveformFileError(
            f"{path} holds the samples of a PulseWaves file; open the file of pulses beside it, "
            f"{path.with_suffix('.pls').name}"
        )
    found = f"starts with {start!r}" if start else "is empty"
    raise WaveformFileError(
        f"{path} is no file of waveforms: it {found}; formats that can be read are LAS and LAZ, "
        "PulseWaves (.pls), scan containers (HDF5) and NumPy archives (.npz)"
    )
