"""Opening a file of waveforms, whatever its format."""

from __future__ import annotations

import os
from collections.abc import Mapping
from importlib import import_module
from pathlib import Path
from typing import Any

from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.base import WaveformReader
from fullwaveform.io.container.layout import HDF5_SIGNATURE
from fullwaveform.io.las.reader import LasWaveformReader
from fullwaveform.io.npz.reader import ZIP_SIGNATURE, NpzReader
from fullwaveform.io.pulsewaves.header import PULSE_SIGNATURE
from fullwaveform.io.pulsewaves.reader import PulseWavesReader
from fullwaveform.io.pulsewaves.samples import WAVES_SIGNATURE

_LAS_SIGNATURE = b"LASF"
_LONGEST_SIGNATURE = 16  # bytes


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
    opened: WaveformReader = reader(
        path, waveforms_per_block=waveforms_per_block, channel_flags=channel_flags
    )
    return opened


def _reader_for(start: bytes, path: Path) -> Any:
    if start.startswith(_LAS_SIGNATURE):
        return LasWaveformReader
    if start.startswith(PULSE_SIGNATURE):
        return PulseWavesReader
    if start.startswith(HDF5_SIGNATURE):
        # Loaded when it is wanted: h5py takes longer to load than many a file to read.
        return import_module("fullwaveform.io.container.reader").ScanContainerReader
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
