"""Scan containers and NumPy archives, converted from other formats, and changes to them."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import fields
from pathlib import Path
from typing import Any

import h5py
import numpy as np

from fullwaveform.core.scanner import Scanner
from fullwaveform.data.blocks import PulseGeometry, ShotAttributes, WaveformBlock
from fullwaveform.io.container.writer import ScanContainerWriter
from fullwaveform.io.opening import open_waveforms

PLAIN_KEYS = {
    "samples": "samples",
    "counts": "counts",
    "shot_times": "shot_times",
    "sbl_times": "sbl_times",
    "channel_flags": "channel_flags",
    "sampling_interval": "sampling_intervals",
    "channel": "descriptors",
}


def same(one: object, other: object) -> bool:
    """Whether two blocks, or parts of them, are equal in type and value, NaN too."""
    if isinstance(one, np.ndarray):
        assert isinstance(other, np.ndarray)
        nan = one.dtype.kind == "f"
        return one.dtype == other.dtype and np.array_equal(one, other, equal_nan=nan)
    if one is None or other is None:
        return one is other
    if isinstance(one, float):
        return one == other
    return all(
        same(getattr(one, part.name), getattr(other, part.name))
        for part in fields(one)  # type: ignore[arg-type]
    )


def as_container(
    source: Path, target: Path, scanner: Scanner | None = None, **options: Any
) -> Path:
    """The waveforms of a file as a scan container."""
    with open_waveforms(source, **options) as reader:
        writer = ScanContainerWriter(target, reader.header, scanner)
        writer.overwrite = True
        reader.with_outgoing = True
        with writer:
            for block in reader.blocks():
                writer.write(block)
    return target


def arrays_of(block: WaveformBlock) -> dict[str, np.ndarray]:
    """A block under the keys of a NumPy archive."""
    arrays = {key: getattr(block, name) for key, name in PLAIN_KEYS.items()}
    for kind, part in ((PulseGeometry, block.geometry), (ShotAttributes, block.attributes)):
        arrays |= {column.name: getattr(part, column.name) for column in fields(kind)}
    return arrays


def as_npz(source: Path, target: Path, **options: Any) -> Path:
    """The waveforms of a file, which are one block, as a NumPy archive."""
    with open_waveforms(source, **options) as reader:
        (block,) = reader.blocks()
    np.savez_compressed(target, **arrays_of(block))
    return target


def changed(path: Path, change: Callable[[h5py.File], object]) -> Path:
    """The container after `change` was applied."""
    with h5py.File(path, "r+") as file:
        change(file)
    return path


def without(name: str) -> Callable[[h5py.File], object]:
    """Deletes a dataset or group."""

    def change(file: h5py.File) -> None:
        del file[name]

    return change


def new_dataset(name: str, values: Any, **options: Any) -> Callable[[h5py.File], object]:
    """Replaces a dataset."""

    def change(file: h5py.File) -> None:
        del file[name]
        file.create_dataset(name, data=values, **options)

    return change


def new_attribute(where: str, name: str, value: Any) -> Callable[[h5py.File], object]:
    """Sets an attribute."""

    def change(file: h5py.File) -> None:
        file[where].attrs[name] = value

    return change
