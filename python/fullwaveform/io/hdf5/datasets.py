"""Checks of the datasets of HDF5 files before anything of them is read, and slices of them."""

from __future__ import annotations

from pathlib import Path

import h5py
import numpy as np

from fullwaveform.data.errors import WaveformFileError

_MAX_ROWS_PER_BYTE = 100  # gzip shrinks equal values a thousandfold; a row has fifteen columns
_MAX_CHUNK = 1 << 28  # bytes; HDF5 holds whole chunks in memory
_MAX_TEXT = 64  # bytes
_NUMBERS = "iuf"


def check_rows(rows: int, path: Path) -> None:
    """WaveformFileError if a file cannot hold as many waveforms as it declares."""
    size = path.stat().st_size
    if rows > _MAX_ROWS_PER_BYTE * size:
        raise WaveformFileError(
            f"{path} declares {rows} waveforms, more than fit into a file of {size} bytes"
        )


def check_chunks(dataset: h5py.Dataset, name: str, path: Path) -> None:
    """WaveformFileError if a chunk of the dataset would take too much memory."""
    if dataset.chunks and int(np.prod(dataset.chunks)) * dataset.dtype.itemsize > _MAX_CHUNK:
        raise WaveformFileError(
            f"{path}: chunks of dataset {name} have shape {dataset.chunks}; a chunk must not "
            f"exceed {_MAX_CHUNK >> 20} MiB"
        )


def check_text(dataset: h5py.Dataset, path: Path) -> None:
    """WaveformFileError unless the dataset has short texts of fixed length."""
    if dataset.dtype.kind != "S" or dataset.dtype.itemsize > _MAX_TEXT:
        raise WaveformFileError(
            f"{path}: dataset {dataset.name} has type {_type_name(dataset)}; must be texts of "
            f"fixed length, at most {_MAX_TEXT} bytes"
        )


def numeric_dataset(
    parent: h5py.Group, name: str, path: Path, shape: tuple[int | None, ...] = (None,)
) -> h5py.Dataset:
    """A dataset of numbers, whose values have not been read.

    Data of variable length are refused without being read: HDF5 keeps them on a heap, and can hang
    if the heap is damaged. So are data outside the file.

    Parameters
    ----------
    parent : group that contains it
    name : within the group
    path : of the file
    shape : None for a dimension of any size

    Raises
    ------
    WaveformFileError
        If it is missing or has another type, another shape or chunks that are too large.
    """
    full = f"{parent.name.rstrip('/')}/{name}".lstrip("/")
    dataset = parent.get(name)
    if not isinstance(dataset, h5py.Dataset):
        raise WaveformFileError(f"{path}: missing dataset {full}")
    if dataset.dtype.kind not in _NUMBERS or dataset.dtype.itemsize > 8:
        raise WaveformFileError(
            f"{path}: dataset {full} has type {_type_name(dataset)}; must be numbers"
        )
    if dataset.is_virtual or dataset.external:
        raise WaveformFileError(f"{path}: the data of dataset {full} are in another file")
    found = dataset.shape or ()
    fits = len(found) == len(shape) and all(
        wanted is None or size == wanted for size, wanted in zip(found, shape, strict=True)
    )
    if not fits:
        wanted = ", ".join("any" if size is None else str(size) for size in shape)
        raise WaveformFileError(
            f"{path}: dataset {full} has shape {dataset.shape}; expected ({wanted})"
        )
    check_chunks(dataset, full, path)
    return dataset


def _type_name(dataset: h5py.Dataset) -> str:
    return "variable length" if dataset.dtype.kind == "O" else str(dataset.dtype)
