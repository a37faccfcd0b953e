"""A file of named arrays, of which parts are read without the whole."""

from __future__ import annotations

import json
import os
import struct
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path
from types import TracebackType
from typing import Any, BinaryIO, Self

import numpy as np

from fullwaveform.data.arrays import AnyArray
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.atomic import ANY_FILE, atomic_path

_MAGIC = b"FWSECT2\n"
_START = struct.Struct("<8sQ")  # magic, and the byte at which the description starts


class SectionWriter:
    """Writes arrays one after the other, and what describes them at the end."""

    def __init__(self, stream: BinaryIO) -> None:
        self._stream = stream
        self._sections: dict[str, tuple[str, int, int]] = {}
        stream.write(_START.pack(_MAGIC, 0))

    def add(self, name: str, array: AnyArray) -> None:
        """Append an array of one dimension."""
        start = self._stream.tell()
        array = np.ascontiguousarray(array)
        self._stream.write(array.data)
        self._sections[name] = (array.dtype.str, len(array), start)

    def finish(self, described: dict[str, Any]) -> None:
        """Write the description, which makes the file valid."""
        start = self._stream.tell()
        text = json.dumps({"sections": self._sections, "described": described})
        self._stream.write(text.encode())
        self._stream.seek(0)
        self._stream.write(_START.pack(_MAGIC, start))


@contextmanager
def new_section_file(path: Path) -> Iterator[SectionWriter]:
    """A writer of a file that appears under its name, or replaces it, when it is complete."""
    with atomic_path(path, ANY_FILE, overwrite=True) as temporary, temporary.open("wb") as stream:
        yield SectionWriter(stream)


class SectionFile:
    """A file of arrays, open for reading; may be read by several threads at a time.

    Raises OSError if it cannot be opened and WaveformFileError if it is not a complete one.
    """

    def __init__(self, path: Path) -> None:
        self._path = path
        self._file = os.open(path, os.O_RDONLY | getattr(os, "O_CLOEXEC", 0))
        try:
            self._sections, self.described = self._contents()
        except BaseException:
            self.close()
            raise

    def __enter__(self) -> Self:
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        trace: TracebackType | None,
    ) -> None:
        self.close()

    def close(self) -> None:
        """Close the file; may be called twice."""
        if self._file >= 0:
            os.close(self._file)
            self._file = -1

    def count(self, name: str) -> int:
        """Entries of an array."""
        return self._sections[name][1]

    def read(self, name: str, first: int = 0, stop: int | None = None) -> AnyArray:
        """The entries `first` <= number < `stop` of an array; fewer at its end."""
        kind, count, start = self._sections[name]
        dtype = np.dtype(kind)
        stop = count if stop is None else min(stop, count)
        size = max(stop - first, 0) * dtype.itemsize
        content = os.pread(self._file, size, start + first * dtype.itemsize)
        if len(content) != size:
            raise WaveformFileError(f"{self._path} is truncated; remove it to have it made anew")
        return np.frombuffer(content, dtype)

    def _contents(self) -> tuple[dict[str, tuple[str, int, int]], dict[str, Any]]:
        start = os.pread(self._file, _START.size, 0)
        magic, described_at = _START.unpack(start) if len(start) == _START.size else (b"", 0)
        if magic != _MAGIC or described_at == 0:
            raise WaveformFileError(f"{self._path} is not an index of the viewer")
        size = os.fstat(self._file).st_size - described_at
        try:
            contents = json.loads(os.pread(self._file, max(size, 0), described_at))
        except ValueError as error:
            raise WaveformFileError(f"{self._path} is not an index of the viewer") from error
        return contents["sections"], contents["described"]
