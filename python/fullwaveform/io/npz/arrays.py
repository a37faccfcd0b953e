"""Arrays of NumPy archives, checked before memory is taken for them."""

from __future__ import annotations

import zipfile
from pathlib import Path
from typing import IO, Any

import numpy.typing as npt
from numpy.lib import format as npy

from fullwaveform.data.errors import WaveformFileError

Arrays = dict[str, npt.NDArray[Any]]


def load_arrays(path: Path, wanted: frozenset[str], memory_limit: int) -> Arrays:
    """The wanted arrays of an archive, those that are there, whole.

    Raises
    ------
    OSError
        If the file cannot be opened.
    WaveformFileError
        If it is no archive of plain arrays, or the arrays take more than `memory_limit` bytes.
    """
    with path.open("rb") as stream:
        try:
            with zipfile.ZipFile(stream) as archive:
                members = {
                    name.removesuffix(".npy"): name
                    for name in archive.namelist()
                    if name.endswith(".npy") and name.removesuffix(".npy") in wanted
                }
                _check_sizes(archive, members, path, memory_limit)
                return {key: _array(archive, name, key, path) for key, name in members.items()}
        except WaveformFileError:
            raise
        except Exception as error:  # zipfile, zlib and NumPy's parser have errors of their own
            raise WaveformFileError(
                f"{path} is not a whole .npz with plain arrays: {error}"
            ) from error


def _check_sizes(
    archive: zipfile.ZipFile, members: dict[str, str], path: Path, memory_limit: int
) -> None:
    """Compare what each header announces with what the archive holds, and all with the limit."""
    total = 0
    for key, name in members.items():
        with archive.open(name) as stream:
            announced = _announced_bytes(stream, key, path)
            held = archive.getinfo(name).file_size - stream.tell()
        if announced != held:
            raise WaveformFileError(
                f"{path}: array {key} should have {announced} bytes, the archive holds {held}"
            )
        total += announced
    if total > memory_limit:
        raise WaveformFileError(
            f"{path}: its arrays take {total / 1e9:.3g} GB, at most {memory_limit / 1e9:.3g} GB "
            "are read whole; divide the file, or make it a scan container, which is read block "
            "by block"
        )


def _announced_bytes(stream: IO[bytes], key: str, path: Path) -> int:
    version = npy.read_magic(stream)
    read_header = npy.read_array_header_1_0 if version == (1, 0) else npy.read_array_header_2_0
    shape, _, dtype = read_header(stream)
    if dtype.hasobject:
        raise WaveformFileError(f"{path}: array {key} holds Python objects, must hold numbers")
    size = dtype.itemsize
    for extent in shape:  # plain numbers: a product of 64 bits may wrap
        size *= int(extent)
    return size


def _array(archive: zipfile.ZipFile, name: str, key: str, path: Path) -> npt.NDArray[Any]:
    with archive.open(name) as stream:
        array: npt.NDArray[Any] = npy.read_array(stream, allow_pickle=False)
    if array.dtype.kind not in "biuf":
        raise WaveformFileError(f"{path}: array {key} holds {array.dtype}, must hold numbers")
    return array
