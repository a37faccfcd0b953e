"""One shot out of a file: found by the number of a waveform, its own number, or its time."""

from __future__ import annotations

from dataclasses import dataclass
from enum import Enum

import numpy as np
import numpy.typing as npt

from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.data.columns import take_rows
from fullwaveform.io.base import WaveformReader

SAME_TIME = 1e-6  # s, within which a time names a shot


class By(Enum):
    """What a shot is found by; the value completes a sentence."""

    WAVEFORM = "waveform"  # its running number in the file, from 0
    SHOT = "shot"  # its running number in the file, from 0
    TIME = "time"  # GPS time of the shot, s


@dataclass(frozen=True, slots=True)
class ChosenShot:
    """A shot of a file, and which of its waveforms were meant."""

    block: WaveformBlock  # all waveforms of the shot, in their order
    rows: npt.NDArray[np.int64]  # (k,), rows of the block that were meant, ascending


def find_shot(reader: WaveformReader, by: By, wanted: float) -> ChosenShot:
    """Go through the blocks up to the shot; one block is in memory at a time.

    Parameters
    ----------
    reader
        Open.
    by
        `WAVEFORM`: the shot of that waveform, of which it alone is meant. `SHOT`: the waveforms of
        the shot with that number; shots are counted in the order of their first waveform. `TIME`:
        the same for the shot whose GPS time lies within a microsecond, the nearest one if several
        do in its block.
    wanted
        The number, or the time in s.

    Raises
    ------
    ValueError
        The file has no such shot; the sentence says what there is.
    """
    waveforms = shots = 0
    nearest = np.nan
    for block in reader.blocks():
        first = _first_rows(block)
        if by is By.WAVEFORM:
            found = np.flatnonzero(block.waveform_numbers == wanted)
            if len(found):
                return _shot_of(block, int(found[0]), alone=True)
        elif by is By.SHOT and shots <= wanted < shots + len(first):
            return _shot_of(block, int(first[int(wanted) - shots]))
        elif by is By.TIME:
            row, nearest = _nearest(block.attributes.gps_time, wanted, nearest)
            if row is not None:
                return _shot_of(block, row)
        waveforms += len(block)
        shots += len(first)
    if by is By.TIME:
        known = f"the nearest is at {nearest!r} s" if np.isfinite(nearest) else "no shot has a time"
        raise ValueError(f"{reader.path} has no shot at {wanted!r} s; {known}")
    count = waveforms if by is By.WAVEFORM else shots
    raise ValueError(f"{reader.path} has no {by.value} {wanted:g}; {_known(by.value, count)}")


def _known(kind: str, count: int) -> str:
    return f"its {count:,} {kind}s are numbered 0 to {count - 1}" if count else "it has none"


def _first_rows(block: WaveformBlock) -> npt.NDArray[np.int64]:
    """First row of each shot of the block, ascending."""
    return np.sort(np.unique(block.shot_times, return_index=True)[1])


def _nearest(
    times: npt.NDArray[np.float64], wanted: float, nearest: float
) -> tuple[int | None, float]:
    """Row of the shot at the wanted time, if there is one, and the nearest time so far, s."""
    if not np.isfinite(times).any():
        return None, nearest
    row = int(np.nanargmin(np.where(np.isfinite(times), np.abs(times - wanted), np.nan)))
    here = float(times[row])
    if not abs(nearest - wanted) <= abs(here - wanted):  # true for none so far
        nearest = here
    return (row if abs(here - wanted) <= SAME_TIME else None), nearest


def _shot_of(block: WaveformBlock, row: int, *, alone: bool = False) -> ChosenShot:
    rows = np.flatnonzero(block.shot_times == block.shot_times[row])
    meant = np.flatnonzero(rows == row) if alone else np.arange(len(rows))
    return ChosenShot(take_rows(block, rows), meant)
