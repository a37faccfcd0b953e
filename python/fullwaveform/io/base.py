"""What readers of all formats share, and writers: arguments, counts, opening and closing."""

from __future__ import annotations

import copy
import json
import os
from abc import ABC, abstractmethod
from collections.abc import Callable, Iterator, Mapping
from contextlib import AbstractContextManager, contextmanager
from pathlib import Path
from types import TracebackType
from typing import Any, ClassVar, Self

import laspy
import numpy as np
import numpy.typing as npt

from fullwaveform.core.scanner import Scanner
from fullwaveform.data.blocks import ReadTally, WaveformBlock
from fullwaveform.data.echo_columns import EchoTable
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.atomic import OutputFile, atomic_open
from fullwaveform.io.block_range import BlockRange, PendingBlock
from fullwaveform.io.interruption import raise_if_requested


class WaveformReader(ABC):
    """A file of waveforms that is read in passes; to be used in a ``with`` statement.

    Parameters that the readers of all formats take:

    path
        The file.
    waveforms_per_block
        Most waveforms of a block, unless a single shot has more. Blocks of very long waveforms
        hold fewer, so that their samples take 128 MiB at most.
    channel_flags
        Flag of the channel (1 low power, 0 the other), one for all waveforms or by the number of
        what a format tells channels apart by; numbers that are not named have 1.

    All readers raise OSError if a file cannot be opened, WaveformFileError if a file does not hold
    what its format promises, and ValueError for arguments that make no sense.
    """

    #: Whether waveforms that cannot be used are left out and counted, or end the pass.
    skip_unreadable: bool = True
    #: Told a sentence about each waveform that cannot be used when `blocks` visits it, also before
    #: a range: where in the file it stands, and why.
    on_unreadable: Callable[[str], None] | None = None

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
        self._notes: tuple[str, ...] = ()  # of the file, for the tally of every pass
        self._pass = BlockRange()
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
    @abstractmethod
    def header(self) -> laspy.LasHeader | None:
        """LAS header for files of its echoes; None if the waveforms are not georeferenced."""

    @property
    def tally(self) -> ReadTally:
        """What was met so far in the current pass."""
        return self._pass.tally

    @property
    @abstractmethod
    def point_count(self) -> int:
        """Points or pulses of the file; its waveforms where it has neither."""

    @property
    def points_done(self) -> int:
        """Points or pulses visited so far in the current pass, those before its range too."""
        return self._pass.met.points

    @property
    def channel_numbers(self) -> frozenset[int] | None:
        """Numbers of descriptors or channels in the file, by which `channel_flags` are given.

        None if the file itself says the flag of each waveform.
        """
        return None

    def scanner_attributes(self) -> dict[str, Any] | None:
        """The scanner's attributes by the names of the host's grids; None if the file has none."""
        return None

    def scanner(self) -> Scanner | None:
        """The description of the scanner that the file carries; None if it carries none."""
        return None

    def blocks(self, first: int = 0, stop: int | None = None) -> Iterator[WaveformBlock]:
        """Yield the waveforms in blocks of whole shots, each waveform once.

        With a range only the blocks of the running numbers `first` <= number < `stop`, the same as
        in a pass over all; what lies before them is visited but not gathered. Waveforms that cannot
        be used are counted in `tally`, which starts anew with each call and counts what belongs to
        the range: the tallies of ranges that cover the file add up to that of a pass over all.

        Raises
        ------
        WaveformFileError
            If the file turns out not to hold what it promises; at the end of a pass over all
            blocks, if there are waveforms but none of them is readable; and, unless
            `skip_unreadable` is set, at the first block before which one was not.
        ValueError
            If the file is closed, or the range is none.
        """
        self._check_that_it_is_open()
        current = self._pass = BlockRange(first, stop, self._notes, self.on_unreadable)
        for block in current.gathered(self._pending_blocks(current.met)):
            self._check_that_all_were_readable(current.tally)
            raise_if_requested()
            yield block
        if current.is_whole:
            self._check_that_some_were_readable(current.met)
        self._check_that_all_were_readable(current.tally)

    def block_count(self) -> int:
        """Blocks of a pass, found by visiting all points; no samples are gathered.

        Neither a pass under way nor its tally changes. Raises as `blocks`.
        """
        self._check_that_it_is_open()
        return sum(1 for _ in self._pending_blocks(ReadTally()))

    @abstractmethod
    def _pending_blocks(self, met: ReadTally) -> Iterator[PendingBlock]:
        """Visit all points, count what is met in `met`, except waveforms, and cut the blocks."""

    def _begin_anew(self, notes: list[str]) -> None:
        """Keep what opening the file had to say for the tally of every pass."""
        self._notes = tuple(notes)
        self._pass = BlockRange(notes=self._notes)

    def _note_on_unused_flags(self) -> list[str]:
        """For a file that itself says the flag of each waveform."""
        if (self._flags == 1).all():
            return []
        return ["The file says the channel of each waveform; the channels given were not used."]

    def _check_that_it_is_open(self) -> None:
        if self._closed:
            raise ValueError(f"{self._path} is closed")

    def _check_that_some_were_readable(self, met: ReadTally) -> None:
        if met.waveforms == 0 and met.rejected:
            raise WaveformFileError(f"{self._path}: no waveform is readable ({_reasons(met)})")

    def _check_that_all_were_readable(self, met: ReadTally) -> None:
        if met.rejected and not self.skip_unreadable:
            raise WaveformFileError(
                f"{self._path}: not every waveform is readable ({_reasons(met)}); skip_unreadable "
                "(--skip-unreadable) leaves such waveforms out and counts them"
            )


def _reasons(met: ReadTally) -> str:
    return ", ".join(f"{count} times: {why}" for why, count in met.rejected.items())


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


#: Where the files that can carry it say how their echoes were made.
RUN_METADATA_KEY = "fullwaveform"


def run_metadata_text(metadata: Mapping[str, str]) -> str:
    """Say in JSON how echoes were made; equal entries give equal text."""
    return json.dumps(dict(metadata), sort_keys=True)


class FileWriter(ABC):
    """A file that is written piece by piece; to be used in a ``with`` statement.

    The file gets its name when the statement ends without an error. Raises OSError if it cannot be
    written.
    """

    def __init__(self, path: str | os.PathLike[str]) -> None:
        self.path = Path(path)
        self.count = 0  # what was written
        self._stream: OutputFile | None = None  # None while the file is not open
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

    @contextmanager
    def _open(self) -> Iterator[None]:
        with atomic_open(self.path) as self._stream:
            try:
                with self._content(self._stream):
                    yield
            finally:
                self._stream = None

    @abstractmethod
    def _content(self, stream: OutputFile) -> AbstractContextManager[None]:
        """Write what precedes the pieces on entry, what follows them on exit."""

    def _open_stream(self) -> OutputFile:
        """The open file; ValueError outside the ``with`` statement."""
        if self._stream is None:
            raise ValueError(f"{self.path} is not open for writing")
        return self._stream


class EchoWriter(FileWriter):
    """A file of echoes; `count` does not include rows of waveforms without echoes."""

    #: Whether the file can have rows of waveforms without echoes.
    takes_empty: ClassVar[bool] = True

    def write(self, echoes: EchoTable) -> None:
        """Append the echoes; ValueError outside the ``with`` statement."""
        stream = self._open_stream()
        self._append(echoes, stream)
        stream.check()

    @abstractmethod
    def _append(self, echoes: EchoTable, stream: OutputFile) -> None:
        """Write the echoes to the open file and count them."""

    def notes(self) -> tuple[str, ...]:
        """What the file does not hold exactly, one message each."""
        return ()
