"""What readers of all formats share, and writers: arguments, counts, opening and closing."""

from __future__ import annotations

import copy
import os
from abc import ABC, abstractmethod
from collections.abc import Mapping
from contextlib import AbstractContextManager
from pathlib import Path
from types import TracebackType
from typing import Self

import numpy as np
import numpy.typing as npt

from fullwaveform.formats.blocks import EchoTable, ReadTally


class FileReader:
    """A file of waveforms that is read in passes; to be used in a ``with`` statement."""

    def __init__(
        self,
        path: str | os.PathLike[str],
        waveforms_per_block: int,
        channel_flags: Mapping[int, int] | int,
    ) -> None:
        if waveforms_per_block < 1:
            raise ValueError(f"waveforms_per_block is {waveforms_per_block}; it must be at least 1")
        self._path = Path(path)
        self._waveforms_per_block = waveforms_per_block
        self._flags = flag_table(channel_flags)
        self._tally = ReadTally()
        self._closed = False

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
        """Close the file; may be called twice. Nothing can be read any more."""
        self._closed = True

    @property
    def path(self) -> Path:
        """The file."""
        return self._path

    @property
    def tally(self) -> ReadTally:
        """What was met so far in the current pass."""
        return self._tally

    @property
    def points_done(self) -> int:
        """Points or pulses visited so far in the current pass."""
        return self._tally.points


def flag_table(channel_flags: Mapping[int, int] | int) -> npt.NDArray[np.uint8]:
    """Channel flag by the number of a descriptor or channel, 0 to 255; 1 for those not named."""
    table = np.ones(256, dtype=np.uint8)
    if isinstance(channel_flags, int):
        named = dict.fromkeys(range(256), channel_flags)
    else:
        named = dict(channel_flags)
        if hasattr(channel_flags, "__missing__"):  # a default for those that are not named
            defaults = copy.copy(channel_flags)
            named |= {number: defaults[number] for number in range(256)}
    for number, flag in named.items():
        if not 0 <= flag <= 255 or not 0 <= number <= 255:
            raise ValueError(f"channel flag {flag} of channel {number}; both must be 0 to 255")
        table[number] = flag
    return table


class EchoWriter(ABC):
    """A file of echoes that is written table by table; to be used in a ``with`` statement.

    The file takes its name when the block ends without an error.
    """

    def __init__(self, path: str | os.PathLike[str]) -> None:
        self.path = Path(path)
        self.count = 0  # echoes written
        self._context: AbstractContextManager[None] | None = None

    def __enter__(self) -> Self:
        self._context = self._open()
        self._context.__enter__()
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        trace: TracebackType | None,
    ) -> None:
        if self._context is not None:
            context, self._context = self._context, None
            context.__exit__(kind, error, trace)

    @abstractmethod
    def write(self, echoes: EchoTable) -> None:
        """Append the echoes; ValueError outside the ``with`` statement."""

    @abstractmethod
    def _open(self) -> AbstractContextManager[None]:
        """What holds the file open."""
