"""Arrays of NumPy archives, checked before memory is allocated for them."""

from __future__ import annotations

import zipfile
from pathlib import Path
from typing import IO

from numpy.lib import format as npy

from fullwaveform.data.arrays import AnyArray
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.signatures import NPY_SIGNATURE

Arrays = dict[str, AnyArray]


def load_arrays(path: Path, keys: frozenset[str], memory_limit: int) -> Arrays:
    """Load those of the arrays with the given keys that an archive has.

    Raises
    ------
    OSError
        If the file cannot be opened.
    WaveformFileError
        If it is not a valid archive of numbers, or the arrays take more than `memory_limit` bytes.
    """
    with path.open("rb") as stream:
        try:
            with zipfile.ZipFile(stream) as archive:
                members = {
                    name.removesuffix(".npy"): name
                    for name in archive.namelist()
                    if name.endswith(".npy") and name.removesuffix(".npy") in keys
                }
                _check_sizes(archive, members, path, memory_limit)
                return {key: _array(archive, name, key, path) for key, name in members.items()}
        except WaveformFileError:
            raise
        except Exception as error:  # zipfile, zlib and NumPy's parser raise many types
            raise WaveformFileError(
                f"{path}: corrupt .npz or unsupported array type: {error}"
            ) from error


def is_single_array(path: Path) -> bool:
    """Whether the file is a single array (.npy) and no archive."""
    with path.open("rb") as stream:
        return stream.read(len(NPY_SIGNATURE)) == NPY_SIGNATURE


def load_samples(path: Path, memory_limit: int) -> Arrays:
    """The array of a .npy file as the samples of an archive; raises as `load_arrays`."""
    with path.open("rb") as stream:
        try:
            declared = _declared_bytes(stream, "samples", path)
            _check_stored(declared, path.stat().st_size - stream.tell(), "samples", path)
            _check_limit(declared, path, memory_limit)
            stream.seek(0)
            array: AnyArray = npy.read_array(stream, allow_pickle=False)
        except WaveformFileError:
            raise
        except Exception as error:  # NumPy's parser raises many types
            raise WaveformFileError(
                f"{path}: corrupt .npy or unsupported array type: {error}"
            ) from error
    return {"samples": array}


def has_array(path: Path, key: str) -> bool:
    """Whether an archive that was loaded before has an array of this key."""
    with path.open("rb") as stream, zipfile.ZipFile(stream) as archive:
        return f"{key}.npy" in archive.namelist()


def _check_sizes(
    archive: zipfile.ZipFile, members: dict[str, str], path: Path, memory_limit: int
) -> None:
    """Compare the declared size of each array with the archive, and the sum with the limit."""
    total = 0
    for key, name in members.items():
        with archive.open(name) as stream:
            declared = _declared_bytes(stream, key, path)
            stored = archive.getinfo(name).file_size - stream.tell()
        _check_stored(declared, stored, key, path)
        total += declared
    _check_limit(total, path, memory_limit)


def _check_stored(declared: int, stored: int, key: str, path: Path) -> None:
    if declared != stored:
        raise WaveformFileError(
            f"{path}: truncated: array {key} declares {declared} bytes, found {stored}"
        )


def _check_limit(total: int, path: Path, memory_limit: int) -> None:
    if total > memory_limit:
        raise WaveformFileError(
            f"{path}: arrays of {total / 1e9:.3g} GB exceed the limit of {memory_limit / 1e9:.3g} "
            "GB; split the file, or write a scan container, which is read block by block"
        )


def _declared_bytes(stream: IO[bytes], key: str, path: Path) -> int:
    version = npy.read_magic(stream)
    read_header = npy.read_array_header_1_0 if version == (1, 0) else npy.read_array_header_2_0
    shape, _, dtype = read_header(stream)
    if dtype.hasobject:
        raise WaveformFileError(f"{path}: array {key} has Python objects; must be numbers")
    if min(shape, default=0) < 0:
        raise WaveformFileError(f"{path}: array {key} has invalid shape {shape}")
    size = dtype.itemsize
    for extent in shape:  # Python integers, because a 64-bit product could overflow
        size *= int(extent)
    return size


def _array(archive: zipfile.ZipFile, name: str, key: str, path: Path) -> AnyArray:
    with archive.open(name) as stream:
        array: AnyArray = npy.read_array(stream, allow_pickle=False)
    if array.dtype.kind not in "biuf":
        raise WaveformFileError(f"{path}: array {key} has type {array.dtype}; must be numbers")
    return array
