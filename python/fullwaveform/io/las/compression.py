"""Compressed LAS files (LAZ): what is checked before the points of a file are trusted."""

from __future__ import annotations

import struct
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import BinaryIO

import laspy
import numpy as np
import numpy.typing as npt

from fullwaveform.data.errors import WaveformFileError

_PLACE = struct.Struct("<q")
_CHUNK_TABLE = struct.Struct("<II")  # version, number of chunks
_SCANNER_CHANNEL_BITS = 0b11_0000  # of the classification flags, formats 6 to 10


def decompressors() -> list[laspy.LazBackend]:
    """The installed decompressors, the preferred one first.

    The parallel one is left out: it reserves as much memory as a damaged table of chunks asks for,
    which ends the process.
    """
    available = laspy.LazBackend.detect_available()
    return [one for one in available if one != laspy.LazBackend.LazrsParallel]


def check_compression(header: laspy.LasHeader, path: Path) -> None:
    """Make sure that there is a decompressor, and a table of chunks that it may be given.

    Raises
    ------
    WaveformFileError
        If there is none, or the table lies outside the file or lists more chunks than points.
    """
    if not decompressors():
        raise WaveformFileError(
            f"{path} is compressed (LAZ) and no decompressor is installed; install one with: "
            "pip install lazrs"
        )
    size, start = path.stat().st_size, header.offset_to_point_data
    with path.open("rb") as stream:
        place = _place_at(stream, start)
        if place == -1:  # written in one go: the place stands at the very end
            place = _place_at(stream, max(size - _PLACE.size, 0))
        if place is None or not start < place <= size - _CHUNK_TABLE.size:
            raise WaveformFileError(
                f"{path} is cut off or damaged: the table of its compressed chunks should stand "
                f"at byte {place if place is not None else start}, the file has {size} bytes"
            )
        stream.seek(place)
        _, chunks = _CHUNK_TABLE.unpack(stream.read(_CHUNK_TABLE.size))
    if chunks > header.point_count:  # decompressors reserve memory for as many
        raise WaveformFileError(
            f"{path} is damaged: it lists {chunks} compressed chunks for {header.point_count} "
            "points"
        )


def check_scanner_channels(channels: set[int], path: Path) -> None:
    """Refuse compressed points of several scanner channels.

    The decompressors at hand (lazrs up to 0.8.2) take the packet fields of formats 9 and 10 from
    the wrong point wherever the channel changes, and say nothing.
    """
    if len(channels) > 1:
        raise WaveformFileError(
            f"{path}: the points are compressed and of scanner channels "
            f"{', '.join(map(str, sorted(channels)))}; waveform fields of more than one channel "
            "cannot be decompressed reliably, decompress the file with the program that wrote it"
        )


def scanner_channels(points: npt.NDArray[np.void]) -> set[int]:
    """The scanner channels of points of formats 6 to 10; formats below have none."""
    if "classification_flags" not in (points.dtype.names or ()):
        return set()
    bits = np.unique(points["classification_flags"] & _SCANNER_CHANNEL_BITS)
    return {int(value) >> 4 for value in bits}


@contextmanager
def decoder_trouble_told(beginning: str) -> Iterator[None]:
    """Turn whatever laspy and the decompressors behind it raise into a `WaveformFileError`."""
    try:
        yield
    except OSError:
        raise
    except Exception as error:
        raise WaveformFileError(f"{beginning}: {error}") from error
    except BaseException as error:
        if type(error).__name__ != "PanicException":  # of decompressors written in Rust
            raise
        raise WaveformFileError(f"{beginning}: {error}") from error


def _place_at(stream: BinaryIO, position: int) -> int | None:
    stream.seek(position)
    content = stream.read(_PLACE.size)
    return int(_PLACE.unpack(content)[0]) if len(content) == _PLACE.size else None
