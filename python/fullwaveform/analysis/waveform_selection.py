"""Select one shot of a file by the number of a waveform, the number of the shot, or its time."""

from __future__ import annotations

from dataclasses import dataclass
from enum import Enum

import numpy as np

from fullwaveform.data.arrays import FloatArray, IntArray
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.base import WaveformReader
from fullwaveform.io.block_range import PendingBlock

TIME_TOLERANCE = 1e-6  # s


class Selector(Enum):
    """Quantity by which a shot is selected."""

    WAVEFORM = "waveform"  # number of a waveform in the file, from 0
    SHOT = "shot"  # number of the shot in the file, from 0
    TIME = "time"  # GPS time of the shot, s


@dataclass(frozen=True, slots=True)
class SelectedShot:
    """A shot, and which of its waveforms are selected."""

    block: WaveformBlock  # all waveforms of the shot, in their order
    rows: IntArray  # (k,), rows of the block that are selected, ascending


def find_shot(reader: WaveformReader, selector: Selector, value: float) -> SelectedShot:
    """Read the samples of one shot; of the others only what identifies them.

    Parameters
    ----------
    selector
        `WAVEFORM` selects one waveform. `SHOT` selects all waveforms of a shot; shots are numbered
        in the order of their first waveform. `TIME` selects all waveforms of the shot whose GPS
        time is within a microsecond, the nearest one in a block.
    value
        The number, or the time in s.

    Raises ValueError if there is no such shot, with the range of numbers or the nearest time, and
    WaveformFileError if its samples are unreadable.
    """
    waveforms = shots = 0
    nearest = np.nan
    for numbers, block in reader.unread_blocks():
        if selector is Selector.WAVEFORM:
            if waveforms <= value < waveforms + block.waveforms:
                return _shot_of(reader, numbers, block, int(value) - waveforms, only_row=True)
        elif selector is Selector.SHOT:
            first = _first_rows(block.shots()[0])
            if shots <= value < shots + len(first):
                return _shot_of(reader, numbers, block, int(first[int(value) - shots]))
            shots += len(first)
        else:
            row, nearest = _nearest(block.shots()[1], value, nearest)
            if row is not None:
                return _shot_of(reader, numbers, block, row)
        waveforms += block.waveforms
    if selector is Selector.TIME:
        known = f"nearest shot: {nearest!r} s" if np.isfinite(nearest) else "no shot has a time"
        raise ValueError(f"{reader.path}: no shot at {value!r} s; {known}")
    kind, count = selector.value, waveforms if selector is Selector.WAVEFORM else shots
    known = f"{kind}s are numbered 0 to {count - 1}" if count else f"the file has no {kind}s"
    raise ValueError(f"{reader.path}: no {kind} {value:g}; {known}")


def _first_rows(shots: FloatArray) -> IntArray:
    """First row of each shot of the block, ascending."""
    return np.sort(np.unique(shots, return_index=True)[1])


def _nearest(times: FloatArray, time: float, nearest: float) -> tuple[int | None, float]:
    """Row of the shot at this time, if any, and the nearest time so far, s."""
    if not np.isfinite(times).any():
        return None, nearest
    row = int(np.nanargmin(np.where(np.isfinite(times), np.abs(times - time), np.nan)))
    found = float(times[row])
    if not abs(nearest - time) <= abs(found - time):  # also true while `nearest` is NaN
        nearest = found
    return (row if abs(found - time) <= TIME_TOLERANCE else None), nearest


def _shot_of(
    reader: WaveformReader,
    numbers: IntArray,
    block: PendingBlock,
    row: int,
    *,
    only_row: bool = False,
) -> SelectedShot:
    shots, _ = block.shots()
    rows = np.flatnonzero(shots == shots[row])  # consecutive
    part = slice(int(rows[0]), int(rows[-1]) + 1)
    selected = np.flatnonzero(rows == row) if only_row else np.arange(len(rows))
    shot = block.read(part, numbers[part])
    if len(shot) < len(rows):
        raise WaveformFileError(f"{reader.path}: waveform {numbers[row]} has unreadable samples")
    return SelectedShot(shot, selected)
