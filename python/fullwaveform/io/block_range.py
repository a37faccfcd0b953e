"""A range of the blocks of a file of waveforms."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from dataclasses import dataclass

import numpy as np

from fullwaveform.data.arrays import FloatArray, IntArray
from fullwaveform.data.blocks import ReadTally, ReportingTally, WaveformBlock


@dataclass(frozen=True)
class BlockStart:
    """Where to start to reach a block without visiting what precedes it.

    By default the start of the file. Valid for the same file, settings of the reader and waveforms
    per block.
    """

    block: int = 0
    waveforms: int = 0  # of the blocks before, also those found to be unreadable
    points: int = 0  # counted before the block
    place: tuple[int, ...] = ()  # of the reader; empty if it can only start at the file's start


START_OF_FILE = BlockStart()


@dataclass(frozen=True, slots=True)
class PendingBlock:
    """A block of whole shots whose samples have not been read yet."""

    waveforms: int
    #: Reads some of its rows, whole shots; takes the running numbers of their waveforms. Waveforms
    #: whose samples turn out to be unreadable are missing from the result; their numbers are not
    #: used again.
    read: Callable[[slice, IntArray], WaveformBlock]
    #: Identifier of the shot of each waveform, and its GPS time.
    shots: Callable[[], tuple[FloatArray, FloatArray]]
    #: The `BlockStart.place` of the next block.
    next_place: tuple[int, ...] = ()


class BlockRange:
    """Reads the blocks `first` <= number < `stop` and counts what belongs to them.

    Everything counted between the end of the previous block and its own end belongs to a block.
    What follows the last block of the file belongs to the range that holds this block; in a file
    without blocks, to the range that starts with 0. So the tallies of ranges that cover a file add
    up to the tally of the whole file.

    A `stop` of None means the end of the file. `report` is called with a message for each skipped
    waveform. Reading starts at `start`, at or before the first block. Raises ValueError for an
    invalid range.
    """

    def __init__(
        self,
        first: int = 0,
        stop: int | None = None,
        notes: tuple[str, ...] = (),
        report: Callable[[str], None] | None = None,
        start: BlockStart = START_OF_FILE,
    ) -> None:
        if first < 0 or (stop is not None and stop < first):
            raise ValueError(f"invalid block range {first} to {stop}; must be 0 <= first <= stop")
        if start.block > first:
            raise ValueError(f"invalid start at block {start.block}; must be at most {first}")
        self._first, self._stop, self._start = first, stop, start.block
        #: Counts since the start of the file.
        self.total = ReportingTally(report, list(notes)) if report else ReadTally(notes=list(notes))
        self.total.points, self.total.waveforms = start.points, start.waveforms
        self._numbered = start.waveforms  # of the blocks so far, also those found to be unreadable
        self._before = self.total.copy()  # counts of the blocks before the range
        self._end: ReadTally | None = None  # counts at the end of a range that ends before the file

    @property
    def tally(self) -> ReadTally:
        """What was read so far and belongs to the range."""
        return (self._end or self.total).since(self._before)

    @property
    def is_whole(self) -> bool:
        """Whether the range covers the file, however many blocks that has."""
        return self._first == 0 and self._stop is None

    def read(self, blocks: Iterator[PendingBlock]) -> Iterator[WaveformBlock]:
        """Yield the blocks of the range; `blocks` counts into `total` while it is iterated."""
        if self._stop == self._first:
            return
        # Whether the last block so far belongs to the range.
        inside = self._first == self._start
        for number, block in enumerate(blocks, start=self._start):
            if number == self._stop:
                return
            inside = number >= self._first
            numbers = self._numbered + np.arange(block.waveforms, dtype=np.int64)
            self._numbered += block.waveforms
            self.total.waveforms += block.waveforms
            if not inside:
                self._before = self.total.copy()
                continue
            yield block.read(slice(0, block.waveforms), numbers)
            if self._stop is not None and number + 1 == self._stop:
                self._end = self.total.copy()
        self._end = None
        if not inside:
            self._before = self.total.copy()


def last_cut(shots: FloatArray | IntArray, limit: int) -> int:
    """Rows of the next block: whole shots, at most `limit` rows, at least one shot.

    `shots` (n,) identifies the shot of each row; the rows of a shot are consecutive and complete.
    """
    if len(shots) <= limit:
        return len(shots)
    starts = np.flatnonzero(shots[1:] != shots[:-1]) + 1
    before = int(np.searchsorted(starts, limit, side="right"))
    if before > 0:
        return int(starts[before - 1])
    return int(starts[0]) if len(starts) > 0 else len(shots)
