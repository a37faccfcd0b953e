"""A pass over a file of waveforms, or over a range of its blocks."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from dataclasses import dataclass

import numpy as np
import numpy.typing as npt

from fullwaveform.data.blocks import ReadTally, ReportingTally, WaveformBlock


@dataclass(frozen=True, slots=True)
class PendingBlock:
    """A block of whole shots whose samples have not been gathered yet."""

    waveforms: int
    gather: Callable[[npt.NDArray[np.int64]], WaveformBlock]  # takes the waveforms' numbers


class BlockRange:
    """A pass that gathers the blocks `first` <= number < `stop` and counts what belongs to them.

    A block's share is what was met between the end of the block before it and its own end. What is
    met behind the last block of the file belongs to the range that holds this block; of a file
    without blocks, to the range that begins with 0. So the tallies of ranges that cover a file add
    up to that of a pass over all of it.

    `stop` of None stands for the end of the file; `each` is told of every waveform that cannot be
    used, when it is visited. Raises ValueError for a range that makes no
    sense.
    """

    def __init__(
        self,
        first: int = 0,
        stop: int | None = None,
        notes: tuple[str, ...] = (),
        each: Callable[[str], None] | None = None,
    ) -> None:
        if first < 0 or (stop is not None and stop < first):
            raise ValueError(
                f"blocks from {first} to {stop} are no range; first must be at least 0, stop at "
                "least first"
            )
        self._first, self._stop = first, stop
        # From the beginning of the file on.
        self.met = (
            ReadTally(notes=list(notes)) if each is None else ReportingTally(each, list(notes))
        )
        self._before = ReadTally()  # what belongs to the blocks before the range
        self._until: ReadTally | None = None  # where the range ended before the file did

    @property
    def tally(self) -> ReadTally:
        """What was met so far that belongs to the range."""
        return (self._until or self.met).since(self._before)

    @property
    def is_whole(self) -> bool:
        """Whether all blocks of the file belong to it, whatever their number."""
        return self._first == 0 and self._stop is None

    def gathered(self, blocks: Iterator[PendingBlock]) -> Iterator[WaveformBlock]:
        """Yield the blocks of the range, whose iteration counts into `met`."""
        if self._stop == self._first:
            return
        is_last_inside = self._first == 0  # whether the last block so far belongs to the range
        for number, block in enumerate(blocks):
            if number == self._stop:
                return
            is_last_inside = number >= self._first
            numbers = self.met.waveforms + np.arange(block.waveforms, dtype=np.int64)
            self.met.waveforms += block.waveforms
            if not is_last_inside:
                self._before = self.met.copy()
                continue
            yield block.gather(numbers)
            if self._stop is not None and number + 1 == self._stop:
                self._until = self.met.copy()
        self._until = None
        if not is_last_inside:
            self._before = self.met.copy()


def last_cut(shots: npt.NDArray[np.float64] | npt.NDArray[np.int64], fitting: int) -> int:
    """Rows of the next block: whole shots, at most `fitting` rows, at least one shot.

    `shots` (n,) tells the shot of each row; those of one shot stand together and are all there.
    """
    if len(shots) <= fitting:
        return len(shots)
    starts = np.flatnonzero(shots[1:] != shots[:-1]) + 1
    before = int(np.searchsorted(starts, fitting, side="right"))
    if before > 0:
        return int(starts[before - 1])
    return int(starts[0]) if len(starts) > 0 else len(shots)
