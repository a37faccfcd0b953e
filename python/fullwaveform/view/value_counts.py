"""Histograms of any number of values, counted block by block in bounded memory."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from fullwaveform.data.arrays import AnyArray, FloatArray, IntArray

_CLASSES = 48
_TAILS = (0.005, 0.995)  # shares of the values below the first and the last class
_QUANTILES = (0.05, 0.5, 0.95)
_DROPPED_BITS = 13  # of the 23 of a mantissa; steps of 0.1 %
_MIDDLE = 1 << (31 - _DROPPED_BITS)  # number of the step that begins at 0
_ALL_BUT_SIGN = np.int32(0x7FFFFFFF)


@dataclass(frozen=True, slots=True)
class Histogram:
    """Counts of values in classes; those beyond the edges are in the first and last class.

    edges : (k + 1,), ascending; empty without values
    counts : (k,)
    quantiles : 5 %, 50 % and 95 % of the values, within 0.1 %; empty without values
    """

    edges: FloatArray
    counts: IntArray
    quantiles: tuple[float, ...]

    @property
    def total(self) -> int:
        """Number of values."""
        return int(self.counts.sum())


_EMPTY = Histogram(np.empty(0), np.empty(0, np.int64), ())


class ValueCounts:
    """Counts values in narrow steps, of which any later histogram is made.

    The steps are those of a float of 10 bits of mantissa, so that no range has to be known before.
    The result depends neither on the order of the values nor on their division into blocks.
    """

    def __init__(self) -> None:
        self._steps = np.zeros(2 * _MIDDLE, np.int64)

    def add(self, values: AnyArray) -> None:
        """Count the values that are finite numbers of 32 bits."""
        with np.errstate(over="ignore"):
            rounded = values.astype(np.float32)
        known = rounded[np.isfinite(rounded)]
        present, counts = np.unique(_step_of(known), return_counts=True)
        self._steps[present] += counts

    def histogram(self) -> Histogram:
        """Equal classes, except that their edges are on edges of steps."""
        below = np.cumsum(self._steps)
        total = int(below[-1])
        if total == 0:
            return _EMPTY
        low, high = _ranks(below, _TAILS)
        ends = _start_of(np.array([low, high + 1]))
        if low == high:  # all values are about equal
            ends = ends + np.array([-0.5, 0.5])
        steps = np.unique(_step_of(np.linspace(ends[0], ends[1], _CLASSES + 1).astype(np.float32)))
        counts = np.diff(np.concatenate([[0], below[steps[1:-1] - 1], [total]]))
        middles = _ranks(below, _QUANTILES)
        quantiles = (_start_of(middles) + _start_of(middles + 1)) / 2.0
        return Histogram(_start_of(steps), counts, tuple(quantiles.tolist()))


def whole_number_histogram(counts: IntArray) -> Histogram:
    """Of whole numbers, one or equally many in each class; `counts` (n,) of 0, 1, ..., n - 1."""
    below = np.cumsum(counts)
    if len(counts) == 0 or below[-1] == 0:
        return _EMPTY
    width = -(-len(counts) // _CLASSES)
    starts = np.arange(0, len(counts), width)
    edges = np.append(starts, starts[-1] + width) - 0.5
    quantiles = _ranks(below, _QUANTILES).astype(np.float64)
    return Histogram(edges, np.add.reduceat(counts, starts), tuple(quantiles.tolist()))


def _ranks(below: IntArray, shares: tuple[float, ...]) -> IntArray:
    """First entry of the sums `below` that reaches each share of all."""
    return np.asarray(np.searchsorted(below, np.maximum(np.array(shares) * below[-1], 0.5)))


def _step_of(values: AnyArray) -> IntArray:
    """Number of the step in which each value (n,) of float32 lies; ascending with the values."""
    bits = (values + np.float32(0.0)).view(np.int32)  # the sum of -0 and 0 is 0
    ordered = np.where(bits < 0, ~(bits & _ALL_BUT_SIGN), bits)
    return (ordered >> _DROPPED_BITS).astype(np.int64) + _MIDDLE


def _start_of(steps: IntArray) -> FloatArray:
    """The smallest value of each step."""
    ordered = (steps - _MIDDLE) << _DROPPED_BITS
    magnitude = np.where(ordered < 0, ~ordered, ordered).astype(np.int32).view(np.float32)
    return np.where(ordered < 0, -magnitude, magnitude).astype(np.float64)
