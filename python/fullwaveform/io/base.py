"""Base class of the readers of all formats."""

from __future__ import annotations

import copy
import os
from abc import ABC, abstractmethod
from collections.abc import Callable, Iterator, Mapping
from pathlib import Path
from types import TracebackType
from typing import Any, ClassVar, Self

import laspy
import numpy as np

from fullwaveform.core.scanner import Scanner
from fullwaveform.data.arrays import IntArray, UInt8Array
from fullwaveform.data.blocks import ReadTally, WaveformBlock
from fullwaveform.data.counting import counted
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.block_range import START_OF_FILE, BlockRange, BlockStart, PendingBlock
from fullwaveform.io.interruption import raise_if_requested
from fullwaveform.io.limits import DEFAULT_MAX_SAMPLES
from fullwaveform.io.remote import location
from fullwaveform.io.spread import spread_windows


class WaveformReader(ABC):
    """A file of waveforms; to be used in a ``with`` statement.

    Parameters of the readers of all formats:

    path
        The file.
    waveforms_per_block
        Maximum number of waveforms in a block, unless a single shot has more. Blocks of very long
        waveforms hold fewer, so that their samples take 8 MiB at most.
    channel_flags
        Channel flag (1 low power, 0 high power), one for all waveforms or by the number with which
        the format identifies channels; numbers that are not listed have 1.

    All readers raise OSError if a file cannot be opened, WaveformFileError if it is not valid in
    its format, and ValueError for invalid arguments.
    """

    #: Whether the coordinates are degrees that can be transformed, and shots can be left out: the
    #: constructor takes `crs` and `keep_degraded`.
    is_geographic: ClassVar[bool] = False
    #: Whether unreadable waveforms are skipped and counted, or raise WaveformFileError.
    skip_unreadable: bool = True
    #: Waveforms with more samples are unreadable.
    max_samples: int = DEFAULT_MAX_SAMPLES
    #: Whether blocks have the outgoing pulses, in a file with `has_outgoing`.
    with_outgoing: bool = False
    #: Called with place and reason of each unreadable waveform, also before a range of blocks.
    on_unreadable: Callable[[str], None] | None = None

    def __init__(
        self,
        path: str | os.PathLike[str],
        waveforms_per_block: int,
        channel_flags: Mapping[int, int] | int,
    ) -> None:
        if waveforms_per_block < 1:
            raise ValueError(f"waveforms_per_block {waveforms_per_block} must be at least 1")
        self._path = location(path)
        self._waveforms_per_block = waveforms_per_block
        self._flags = flag_table(channel_flags)
        self._notes: tuple[str, ...] = ()  # on the file, for every tally
        self._range = BlockRange()
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
        """Close the file; may be called twice."""
        self._closed = True

    @property
    def path(self) -> Path:
        """The file, or the first one of several that are read as one."""
        return self._path

    @property
    def paths(self) -> tuple[Path, ...]:
        """The file, or the files that are read as one."""
        return (self._path,)

    @property
    @abstractmethod
    def header(self) -> laspy.LasHeader | None:
        """LAS header for files of its echoes; None if the waveforms are not georeferenced."""

    @property
    def tally(self) -> ReadTally:
        """What the current iteration has read so far."""
        return self._range.tally

    @property
    @abstractmethod
    def point_count(self) -> int:
        """Points or pulses of the file; waveforms where it has neither."""

    @property
    def points_done(self) -> int:
        """Points or pulses visited so far in the current iteration, also before its range."""
        return self._range.total.points

    @property
    def waveforms_done(self) -> int:
        """Waveforms that were read so far in the current iteration, also before its range."""
        return self._range.total.waveforms

    @property
    def channel_numbers(self) -> frozenset[int] | None:
        """Numbers of descriptors or channels to which `channel_flags` refer.

        None if the file stores the flag of each waveform.
        """
        return None

    @property
    def channel_numbers_in_use(self) -> frozenset[int] | None:
        """Those of `channel_numbers` that waveforms of the file have; may read all points."""
        return self.channel_numbers

    @property
    def receiver_names(self) -> dict[int, str]:
        """Name of each receiver in the terms of the format, by `WaveformBlock.descriptors`.

        Without those to which the format refers as descriptors.
        """
        return {}

    @property
    def beams(self) -> dict[str, int]:
        """Shots of each beam, by its name, skipped ones included; empty without beams."""
        return {}

    @property
    def has_outgoing(self) -> bool:
        """Whether the file has a place for the outgoing pulse of each shot."""
        return False

    @property
    def times_from_outgoing(self) -> bool:
        """Whether echoes and outgoing pulses have a common reference time, to be corrected by it.

        False for files whose coordinates are those of the pulses already.
        """
        return self.has_outgoing

    @property
    def shot_columns(self) -> tuple[str, ...]:
        """Names of the columns of shots that echoes of the file have, see `SHOT_COLUMNS`."""
        return ()

    @property
    def _reads_outgoing(self) -> bool:
        return self.with_outgoing and self.has_outgoing

    def scanner_attributes(self) -> dict[str, Any] | None:
        """Attributes of the scanner as named in the host's grids; None if the file has none."""
        return None

    def scanner(self) -> Scanner | None:
        """The scanner description in the file; None if it has none."""
        return None

    def blocks(
        self, first: int = 0, stop: int | None = None, start: BlockStart = START_OF_FILE
    ) -> Iterator[WaveformBlock]:
        """Yield the waveforms in blocks of whole shots, each waveform once.

        `first` and `stop` select the blocks `first` <= number < `stop`; the points before them are
        visited without reading samples, but those before `start`, one of `block_starts`, are not.
        Each call starts a new `tally`, which counts what belongs to the range: the tallies of
        ranges that cover the file add up to that of the whole file.

        Raises
        ------
        WaveformFileError
            If the file is not valid; at the end of the whole file, if it has waveforms but none is
            readable; and, unless `skip_unreadable` is set, at the first block that follows an
            unreadable waveform.
        ValueError
            If the file is closed, or the range or its start invalid.
        """
        self._check_open()
        current = self._range = BlockRange(first, stop, self._notes, self.on_unreadable, start)
        for block in current.read(self._pending_blocks_from(start, current.total)):
            self._check_all_readable(current.tally)
            raise_if_requested()
            if len(block) > 0:  # else all of its waveforms turned out to be unreadable
                yield block
        if current.is_whole:
            self._check_some_readable(current.total)
        self._check_all_readable(current.tally)

    def block_count(self) -> int:
        """Number of blocks, found by visiting all points without reading samples.

        An iteration in progress and its tally are not affected. Raises as `blocks`.
        """
        return len(self.block_starts())

    def block_starts(self) -> list[BlockStart]:
        """Where each block starts, found by visiting all points without reading samples.

        An iteration in progress and its tally are not affected. Raises as `blocks`.
        """
        self._check_open()
        starts, tally, waveforms = [START_OF_FILE], ReadTally(), 0
        for block in self._pending_blocks(tally):
            waveforms += block.waveforms
            following = BlockStart(len(starts), waveforms, tally.points, block.next_place)
            starts.append(following if block.next_place else START_OF_FILE)
        return starts[:-1]

    def unread_blocks(self) -> Iterator[tuple[IntArray, PendingBlock]]:
        """Yield the blocks before their samples are read, with the numbers of their waveforms.

        An iteration in progress and its tally are not affected. Raises as `blocks`, but does not
        check whether waveforms were unreadable.
        """
        for numbers, block, _ in self.visited_blocks():
            yield numbers, block

    def visited_blocks(self) -> Iterator[tuple[IntArray, PendingBlock, int]]:
        """As `unread_blocks`, with the points visited so far: no point of the block follows them.

        A block may leave some of them to the next one, but none of those visited before these.
        """
        self._check_open()
        first, tally = 0, ReadTally()
        for block in self._pending_blocks(tally):
            raise_if_requested()
            yield first + np.arange(block.waveforms, dtype=np.int64), block, tally.points
            first += block.waveforms

    def blocks_between(self, first: int, stop: int) -> Iterator[WaveformBlock]:
        """Yield the waveforms of the points or pulses `first` <= number < `stop`.

        Unreadable waveforms are left out and not counted, and `waveform_numbers` count from the
        number of the first point. Raises as `spread_blocks`.
        """
        self._check_open()
        for part in self._parts(slice(first, stop)):
            block = self._window(part)
            if block is not None:
                yield block

    def spread_blocks(self) -> Iterator[WaveformBlock]:
        """Yield waveforms spread over the file, to measure what holds for all of it.

        The blocks are runs of consecutive points or pulses, see `spread_windows`. They are the same
        for any `waveforms_per_block`, and reading them takes a bounded time. A run may begin or end
        inside a shot. Unreadable waveforms are left out and not counted; `waveform_numbers` count
        from the number of the first point. An iteration in progress and its tally are not affected.

        Raises
        ------
        WaveformFileError
            If the file is not valid.
        ValueError
            If the file is closed.
        """
        self._check_open()
        for window in spread_windows(self.point_count):
            yield from self.blocks_between(window.start, window.stop)

    def _parts(self, points: slice) -> list[slice]:
        """The parts of a run of points that may share a block."""
        return [points]

    @abstractmethod
    def _window(self, points: slice) -> WaveformBlock | None:
        """The readable waveforms of a run of points or pulses; None without any."""

    @abstractmethod
    def _pending_blocks(self, tally: ReadTally) -> Iterator[PendingBlock]:
        """Visit all points, count everything except waveforms in `tally`, and cut the blocks."""

    def _pending_blocks_from(self, start: BlockStart, tally: ReadTally) -> Iterator[PendingBlock]:
        """As `_pending_blocks`, from the place of `start` on if the reader's blocks have places."""
        return self._pending_blocks(tally)

    def _set_notes(self, notes: list[str]) -> None:
        """Notes on the file that every tally starts with."""
        self._notes = tuple(notes)
        self._range = BlockRange(notes=self._notes)

    def _note_on_unused_flags(self) -> list[str]:
        """For a file that stores the flag of each waveform."""
        if (self._flags == 1).all():
            return []
        return ["The file stores the channel of each waveform; the given channels were ignored."]

    def _check_open(self) -> None:
        if self._closed:
            raise ValueError(f"{self._path} is closed")

    def _check_some_readable(self, tally: ReadTally) -> None:
        if tally.waveforms == 0 and tally.rejected:
            raise WaveformFileError(f"{self._path}: no readable waveform ({_reasons(tally)})")
        if tally.waveforms == 0 and tally.left_out:
            listed = _listed(tally.left_out)
            raise WaveformFileError(
                f"{self._path}: no waveform left ({listed}); use --keep-degraded "
                "(keep_degraded=True) to keep these"
            )

    def _check_all_readable(self, tally: ReadTally) -> None:
        if tally.rejected and not self.skip_unreadable:
            count = tally.rejected.total()
            raise WaveformFileError(
                f"{self._path}: {counted(count, 'unreadable waveform')} "
                f"({_reasons(tally)}); use --skip-unreadable (skip_unreadable=True) to skip"
            )


def _reasons(tally: ReadTally) -> str:
    return _listed(tally.rejected)


def _listed(counts: Mapping[str, int]) -> str:
    return ", ".join(f"{count} x {reason}" for reason, count in counts.items())


def flag_table(channel_flags: Mapping[int, int] | int) -> UInt8Array:
    """Channel flag by the number of a descriptor or channel, 0 to 255; 1 for those not listed."""
    table = np.ones(256, dtype=np.uint8)
    if isinstance(channel_flags, int):
        named = dict.fromkeys(range(256), channel_flags)
    else:
        named = dict(channel_flags)
        if hasattr(channel_flags, "__missing__"):  # a default for numbers not listed
            defaults = copy.copy(channel_flags)
            named |= {number: defaults[number] for number in range(256)}
    for number, flag in named.items():
        if not 0 <= flag <= 255 or not 0 <= number <= 255:
            raise ValueError(
                f"invalid channel flag {flag} of channel {number}; both must be 0 to 255"
            )
        table[number] = flag
    return table
