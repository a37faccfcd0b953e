"""The library's text reports of single waveforms."""

from __future__ import annotations

import math
from collections.abc import Iterator
from typing import Any

import numpy as np

from fullwaveform import _core
from fullwaveform.core.driver import LONGEST_DECONVOLUTION, Driver, Mode, Result
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.extraction.waveform_table import WaveformState

# Columns of `Result.waveforms` that the library's record of a waveform has under the same names.
_FIELDS = (
    "isLowPower",
    "shotTime",
    "sblTime",
    "damping",
    "idxOfMaxAmplitude",
    "maxAmplitude",
    "binShift",
    "length",
    "noise",
    "maxAmplitudeDB",
    "timeOfMaxAmplitude",
    "online",
    "globalStart",
    "globalEnd",
    "lengthCropped",
)
_PEAK_FIELDS = (
    "amplitude",
    "idx",
    "time",
    "type",
    "quality",
    "std",
    "classification",
    "reflectance",
)


def waveform_report(result: Result, waveform: int) -> str:
    """Every value of a waveform with its label and unit, a line each, and a line per echo.

    Parameters
    ----------
    result
        Of a driver.
    waveform
        Row of ``result.waveforms``.

    Returns
    -------
    Text whose last line, of hash signs, has no end.

    Raises
    ------
    IndexError
        If the result has no such waveform.
    """
    return _record(result, waveform).print()


def extent_report(result: Result, waveform: int, speed: float) -> str:
    """Number and extent of the echoes of a waveform in one line, without its end.

    Arguments as for `waveform_report`; `speed` (m/s) turns times into one-way distances.
    """
    return _record(result, waveform).printLengthAtMaxAmplitude(speed)


def block_reports(
    block: WaveformBlock,
    rows: Any,
    scanner: Scanner,
    mode: Mode,
    noise: int,
    *,
    extent: bool = False,
) -> Iterator[tuple[int, str | None, str]]:
    """The reports of some waveforms of a block.

    The other waveforms of their shots are extracted as well, since channels are merged.

    Parameters
    ----------
    block
        The waveforms, whole shots of them.
    rows
        (k,) rows of the block, ascending.
    scanner, mode, noise
        As for `Driver`; the sampling interval is that of the block.
    extent
        One line on the extent of the echoes in place of the whole report.

    Yields
    ------
    Running number of the waveform in the file, its report (None if the driver did not keep it)
    and what became of it in words; sampling interval by interval.
    """
    for interval in np.unique(block.sampling_intervals[rows]):
        here = block.sampling_intervals == interval
        shots = np.unique(block.shot_times[rows])
        taken = np.flatnonzero(here & np.isin(block.shot_times, shots))
        described = scanner.at_interval(float(interval))
        result = _extracted(block, taken, described, mode, noise)
        speed = described.device().group_velocity
        kept = {int(row): place for place, row in enumerate(result.waveforms["row"])}
        for row in np.flatnonzero(np.isin(taken, rows)):
            place = kept.get(int(row))
            number = int(block.waveform_numbers[taken[row]])
            state = WaveformState(result.row_states[row]).phrase
            if place is None:
                yield number, None, state
            elif extent:
                yield number, extent_report(result, place, speed), state
            else:
                yield number, waveform_report(result, place), state


def _extracted(block: WaveformBlock, rows: Any, scanner: Scanner, mode: Mode, noise: int) -> Result:
    longest = min(int(block.counts[rows].max(initial=0)), LONGEST_DECONVOLUTION)
    return Driver(mode, scanner, longest_waveform=longest).apply(
        block.samples[rows],
        block.counts[rows],
        block.shot_times[rows],
        block.sbl_times[rows],
        block.channel_flags[rows],
        noise=noise,
    )


def _record(result: Result, waveform: int) -> _core.WavePoints:
    """The library's record of a waveform, from the columns of a result."""
    if not 0 <= waveform < result.waveforms.rows:
        raise IndexError(f"waveform {waveform} is none of the result's {result.waveforms.rows}")
    record = _core.WavePoints()
    for name in _FIELDS:
        setattr(record, name, result.waveforms[name][waveform].item())
    start, end = (result.waveforms[f"afterPulse{side}"][waveform].item() for side in ("From", "To"))
    if not math.isnan(start):
        record.add_after_pulse(start, end)
    for row in np.flatnonzero(result.segments["waveform"] == waveform):
        record.add_segment(*(result.segments[name][row].item() for name in ("start", "end")))
    for row in np.flatnonzero(result.peaks["waveform"] == waveform):
        record.add_peak(*(result.peaks[name][row].item() for name in _PEAK_FIELDS))
    return record
