"""Opening a file of waveforms of any format."""

from __future__ import annotations

import os
from collections.abc import Mapping, Sequence
from importlib import import_module
from pathlib import Path
from typing import Any

from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.base import WaveformReader
from fullwaveform.io.limits import DEFAULT_MAX_SAMPLES, checked_max_samples
from fullwaveform.io.remote import location
from fullwaveform.io.signatures import (
    HDF5_SIGNATURE,
    LAS_SIGNATURE,
    NPY_SIGNATURE,
    PULSE_SIGNATURE,
    WAVES_SIGNATURE,
    ZIP_SIGNATURE,
)

# Signature -> module and class, imported on demand: loading h5py takes longer than reading many a
# file.
_READERS = {
    LAS_SIGNATURE: ("las.reader", "LasWaveformReader"),
    PULSE_SIGNATURE: ("pulsewaves.reader", "PulseWavesReader"),
    ZIP_SIGNATURE: ("npz.reader", "NpzReader"),
    NPY_SIGNATURE: ("npz.reader", "NpzReader"),
}
_MAX_SIGNATURE = 16  # bytes
_FIXED_SYSTEM = "{} has coordinates in a fixed system; --crs (crs) is only for GEDI and LVIS files"


def open_waveforms(
    path: str | os.PathLike[str] | Sequence[str | os.PathLike[str]],
    *,
    waveforms_per_block: int = 20_000,
    channel_flags: Mapping[int, int] | int = 1,
    sampling_interval: float | None = None,
    skip_unreadable: bool = True,
    max_samples: int = DEFAULT_MAX_SAMPLES,
    keep_degraded: bool = False,
    crs: str | None = None,
) -> WaveformReader:
    """Open a file of waveforms, whose format follows from its first bytes, not from its name.

    Parameters
    ----------
    path
        Path or URL of a LAS or LAZ file with waveforms, the pulse file (``.pls`` or ``.plz``) of
        PulseWaves, a scan container, a GEDI L1B or LVIS L1B file, a NumPy archive (``.npz``) or
        array (``.npy``) of samples. A list of several: the parts of a PulseWaves flight line, which
        are read one after the other as one file.
    waveforms_per_block, channel_flags
        As in `WaveformReader`.
    sampling_interval
        s per sample, for a NumPy archive that does not store it.
    skip_unreadable
        Whether unreadable waveforms are skipped and counted in the reader's tally; else the first
        one raises WaveformFileError while the blocks are read.
    max_samples
        Waveforms with more samples are unreadable; 1 to 65535.
    keep_degraded
        Whether shots of a GEDI file are read that it marks as degraded or without a return; other
        formats have no such marks.
    crs
        Code of a coordinate reference system, as EPSG:32610, to which the degrees of GEDI and LVIS
        files are transformed; None keeps them.

    Raises
    ------
    OSError
        If a file cannot be opened.
    WaveformFileError
        If it has none of these formats or is not valid in its format.
    ValueError
        For invalid arguments, such as a sampling interval for a file that stores its own.
    """
    max_samples = checked_max_samples(max_samples)
    reader = _opened(
        path, waveforms_per_block, channel_flags, sampling_interval, keep_degraded, crs
    )
    reader.skip_unreadable = skip_unreadable
    reader.max_samples = max_samples
    return reader


def _opened(
    path: str | os.PathLike[str] | Sequence[str | os.PathLike[str]],
    waveforms_per_block: int,
    channel_flags: Mapping[int, int] | int,
    sampling_interval: float | None,
    keep_degraded: bool,
    crs: str | None,
) -> WaveformReader:
    paths = list(map(location, [path] if isinstance(path, str | os.PathLike) else path))
    if len(paths) != 1:
        _check_parts(paths)
    first = paths[0]
    start = _first_bytes(first)
    if crs is not None and not start.startswith(HDF5_SIGNATURE):
        raise ValueError(_FIXED_SYSTEM.format(first))
    reader = _reader_class(start, first)
    options: dict[str, Any] = {}
    if start.startswith((ZIP_SIGNATURE, NPY_SIGNATURE)):
        options = {"sampling_interval": sampling_interval}
    elif sampling_interval is not None:
        raise ValueError(
            f"{first} stores its sampling interval; --interval (sampling_interval) is only for an "
            ".npy or an .npz without it"
        )
    if reader.is_geographic:
        options = {"keep_degraded": keep_degraded, "crs": crs}
    elif crs is not None:
        raise ValueError(_FIXED_SYSTEM.format(first))
    opened: WaveformReader = reader(
        first if len(paths) == 1 else paths,
        waveforms_per_block=waveforms_per_block,
        channel_flags=channel_flags,
        **options,
    )
    return opened


def _check_parts(paths: Sequence[Path]) -> None:
    if not paths:
        raise ValueError("no path given; expected a file or the parts of a flight line")
    for path in paths:
        if not _first_bytes(path).startswith(PULSE_SIGNATURE):
            raise WaveformFileError(
                f"{path} is not a PulseWaves pulse file; only the parts of a PulseWaves flight "
                "line can be read as one"
            )


def _first_bytes(path: Path) -> bytes:
    if not path.is_file() and path.exists() and not path.is_dir():
        raise WaveformFileError(f"{path} is a device or a pipe; expected a regular file")
    with path.open("rb") as stream:
        return stream.read(_MAX_SIGNATURE)


def _reader_class(start: bytes, path: Path) -> Any:
    for signature, (module, name) in _READERS.items():
        if start.startswith(signature):
            return getattr(import_module(f"fullwaveform.io.{module}"), name)
    if start.startswith(HDF5_SIGNATURE):
        return import_module("fullwaveform.io.hdf5.opening").hdf5_reader_class(path)
    if start.startswith(WAVES_SIGNATURE):
        raise WaveformFileError(
            f"{path} holds the samples of a PulseWaves file; open its pulse file "
            f"{path.with_suffix('.pls').name} or {path.with_suffix('.plz').name} instead"
        )
    found = f"starts with {start!r}" if start else "empty"
    raise WaveformFileError(
        f"{path} is not a waveform file ({found}); supported formats: LAS and LAZ, PulseWaves "
        "(.pls, .plz), GEDI and LVIS L1B and scan containers (HDF5), NumPy archives and arrays "
        "(.npz, .npy)"
    )
