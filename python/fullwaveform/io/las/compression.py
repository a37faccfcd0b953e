"""Compressed LAS files (LAZ): checks before the points are decompressed."""

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
from fullwaveform.io.remote import remote_failures_first

_POSITION = struct.Struct("<q")
_VERSION = struct.Struct("<4xBB")  # of the compression, after compressor and coder
_LOSING_VERSION = (2, 2)
_CHUNK_TABLE = struct.Struct("<II")  # version, number of chunks
_SCANNER_CHANNEL_BITS = 0b11_0000  # of the classification flags, formats 6 to 10


def decompressors() -> list[laspy.LazBackend]:
    """The installed decompressors, the preferred one first.

    The parallel one is excluded: it allocates as much memory as a corrupt chunk table declares,
    which ends the process.
    """
    available = laspy.LazBackend.detect_available()
    return [one for one in available if one != laspy.LazBackend.LazrsParallel]


def check_compression(header: laspy.LasHeader, path: Path) -> None:
    """Check that a decompressor is installed and that the chunk table is plausible.

    Raises
    ------
    WaveformFileError
        If not: no decompressor, table outside the file, or more chunks than points.
    """
    if not decompressors():
        raise WaveformFileError(
            f"{path} is compressed (LAZ) and no decompressor is installed; run pip install lazrs"
        )
    size, start = path.stat().st_size, header.offset_to_point_data
    with path.open("rb") as stream:
        position = _position_at(stream, start)
        if position == -1:  # written as a stream: the position is at the end of the file
            position = _position_at(stream, max(size - _POSITION.size, 0))
        if position is None or not start < position <= size - _CHUNK_TABLE.size:
            raise WaveformFileError(
                f"{path}: truncated or corrupt: chunk table expected at byte "
                f"{start if position is None else position}, file has {size} bytes"
            )
        stream.seek(position)
        _, chunks = _CHUNK_TABLE.unpack(stream.read(_CHUNK_TABLE.size))
    if chunks > header.point_count:  # decompressors allocate memory for each
        raise WaveformFileError(
            f"{path}: corrupt: {chunks} compressed chunks for {header.point_count} points"
        )


def loses_packet_fields(header: laspy.LasHeader) -> bool:
    """Whether the points were written by a compressor that loses packet fields.

    lazrs up to 0.8.2 writes the packet fields of formats 9 and 10 wrongly where the scanner channel
    changes; every decompressor then reads wrong values. It names version 2.2 of the compression.
    Other programs that compress these formats name 3.0 or later.
    """
    records = header.vlrs.get("LasZipVlr")
    return any(_VERSION.unpack_from(one.record_data) == _LOSING_VERSION for one in records)


def check_scanner_channels(channels: set[int], path: Path) -> None:
    """Refuse points of several scanner channels whose packet fields were lost."""
    if len(channels) > 1:
        raise WaveformFileError(
            f"{path}: compressed points of scanner channels "
            f"{', '.join(map(str, sorted(channels)))}; the program that compressed them, lazrs, "
            "lost the waveform fields of several channels; compress the original points with "
            "another program, or leave them uncompressed"
        )


def scanner_channels(points: npt.NDArray[np.void]) -> set[int]:
    """The scanner channels of points; formats below 6 have none."""
    if "classification_flags" not in (points.dtype.names or ()):
        return set()
    bits = np.unique(points["classification_flags"] & _SCANNER_CHANNEL_BITS)
    return {int(value) >> 4 for value in bits}


@contextmanager
def decoder_errors(context: str) -> Iterator[None]:
    """Replace any error of laspy and its decompressors by a WaveformFileError."""
    try:
        with remote_failures_first():
            yield
    except OSError:
        raise
    except Exception as error:
        raise WaveformFileError(f"{context}: {error}") from error
    except BaseException as error:
        if type(error).__name__ != "PanicException":  # raised by decompressors written in Rust
            raise
        raise WaveformFileError(f"{context}: {error}") from error


def _position_at(stream: BinaryIO, offset: int) -> int | None:
    stream.seek(offset)
    content = stream.read(_POSITION.size)
    return int(_POSITION.unpack(content)[0]) if len(content) == _POSITION.size else None
