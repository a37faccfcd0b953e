"""The discrete return to which each echo corresponds, whose class it takes over."""

from __future__ import annotations

import numpy as np

from fullwaveform.core.driver import system_wave
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.arrays import AnyArray, BoolArray, FloatArray, IntArray
from fullwaveform.data.blocks import PulseGeometry, WaveformBlock
from fullwaveform.data.echo_columns import FWHM_PER_SIGMA, RETURN_INDEX
from fullwaveform.data.returns import DiscreteReturns

_PICOSECONDS = 1e12


def with_returns(
    block: WaveformBlock, rows: IntArray, peaks: dict[str, AnyArray], scanner: Scanner
) -> dict[str, AnyArray]:
    """The peaks (m,) with RETURN_INDEX, if the block has discrete returns.

    An echo and a return correspond if they are at most half the width of the echo apart, at half
    its maximum, or one sample. Deconvolved echoes have the width of the system wave.
    """
    if block.returns is None:
        return peaks
    intervals = block.sampling_intervals[rows]
    distinct, which = np.unique(intervals, return_inverse=True)
    pulse = np.array([half_width_of_system_wave(scanner, one) for one in distinct.tolist()])
    reach = reach_of_echoes(peaks["std"], intervals, pulse[which])
    times = peaks["idx"] * intervals * _PICOSECONDS
    return {**peaks, RETURN_INDEX: nearest_returns(block, block.returns, rows, times, reach)}


def nearest_returns(
    block: WaveformBlock,
    returns: DiscreteReturns,
    rows: IntArray,
    times: FloatArray,
    reach: FloatArray,
) -> IntArray:
    """Index of the return of the same shot that is nearest along the pulse, -1 if none is in reach.

    Returns of other waveforms of the shot count, too: a scanner lists those of one channel only. Of
    two equally near ones the earlier one is chosen.

    Parameters
    ----------
    block
        The waveforms.
    returns
        Those of the block.
    rows, times
        (m,), waveform of each echo, and ps after its first sample.
    reach
        (m,), largest distance in ps.
    """
    _, first, shots = np.unique(block.shot_times, return_index=True, return_inverse=True)
    begin = _begin_of_waveforms(block.geometry, first[shots])
    shot = np.concatenate([shots[returns.rows], shots[rows]])
    time = np.concatenate([begin[returns.rows] + returns.times, begin[rows] + times])
    is_echo = np.arange(len(shot)) >= len(returns)
    # Stable: a return at the time of an echo precedes it.
    order = np.lexsort((is_echo, time, shot))
    before = _last_return(order, is_echo)
    after = _last_return(order[::-1], is_echo)[::-1]
    gap_before, gap_after = (_gap(order, other, shot, time) for other in (before, after))
    nearest = np.where(gap_before <= gap_after, before, after)
    gap = np.minimum(gap_before, gap_after)
    found = np.full(len(shot), -1, dtype=np.int64)
    limit = np.concatenate([np.zeros(len(returns)), reach])[order]
    found[order] = np.where(gap <= limit, nearest, -1)
    return found[len(returns) :]


def _begin_of_waveforms(geometry: PulseGeometry, first: IntArray) -> FloatArray:
    """Time of each first sample along the pulse, ps after that of the shot's first waveform.

    `first` (n,) is the first waveform of each one's shot. 0 without a direction.
    """
    begin = geometry.anchor + geometry.location[:, np.newaxis] * geometry.direction
    direction = geometry.direction[first]
    squared = np.einsum("ij,ij->i", direction, direction)
    along = np.einsum("ij,ij->i", begin - begin[first], direction)
    after: FloatArray = np.divide(-along, squared, out=np.zeros(len(first)), where=squared > 0)
    return after


def _last_return(order: IntArray, is_echo: BoolArray) -> IntArray:
    """The last return before each entry of an order, -1 without one."""
    place = np.where(is_echo[order], -1, np.arange(len(order)))
    last: IntArray = np.maximum.accumulate(place)
    return np.where(last >= 0, order[last], -1)


def _gap(order: IntArray, other: IntArray, shot: IntArray, time: FloatArray) -> FloatArray:
    same = (other >= 0) & (shot[other] == shot[order])
    return np.where(same, np.abs(time[other] - time[order]), np.inf)


def reach_of_echoes(widths: FloatArray, intervals: FloatArray, pulse: FloatArray) -> FloatArray:
    """Half the width of each echo at half its maximum, ps, at least one sample.

    Parameters
    ----------
    widths
        (m,), standard deviations in samples; NaN or 0 where unknown.
    intervals
        (m,), s per sample.
    pulse
        (m,), half width of the system wave in s, for echoes of unknown width; 0 if unknown.
    """
    known = widths > 0  # false for NaN
    half = np.where(known, FWHM_PER_SIGMA / 2.0 * np.where(known, widths, 0.0) * intervals, pulse)
    return np.maximum(half, intervals) * _PICOSECONDS


def half_width_of_system_wave(scanner: Scanner, interval: float) -> float:
    """Half the width at half the maximum, s; 0 without a system wave."""
    if not scanner.has_system_wave:
        return 0.0
    time, value = system_wave(scanner, interval)
    top = int(np.argmax(value))
    low = np.flatnonzero(value < value[top] / 2.0)
    begin, end = low[low < top].max(initial=0), low[low > top].min(initial=len(time) - 1)
    return float(time[end] - time[begin]) / 2.0
