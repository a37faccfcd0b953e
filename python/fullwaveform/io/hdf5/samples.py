"""Rows of samples as counts, from samples in any type of number."""

from __future__ import annotations

import numpy as np
import numpy.typing as npt

from fullwaveform.core.constants import MAX_COUNT
from fullwaveform.data.arrays import BoolArray, IntArray, UInt16Array

_SAMPLES_AT_ONCE = 1 << 22
_MAX_GAP = 1 << 14  # samples of other waveforms that are read along

Sliceable = npt.ArrayLike


def rows_of_counts(
    values: npt.NDArray[np.number], counts: IntArray
) -> tuple[UInt16Array, BoolArray]:
    """Waveforms that follow one another as rows of whole counts.

    Parameters
    ----------
    values : (counts.sum(),) samples, rounded to whole counts
    counts : (n,) samples of each waveform, at least 1

    Returns
    -------
    Rows (n, width), zero after the last sample, and which rows (n,) can be used: all samples are
    numbers from 0 to 65,535. The others are zero.
    """
    whole = np.rint(values) if values.dtype.kind == "f" else values
    # Comparisons with NaN are false, so this also rejects NaN.
    valid = (whole >= 0) & (whole <= MAX_COUNT)
    starts = np.cumsum(counts) - counts
    usable = np.logical_and.reduceat(valid, starts) if len(counts) else np.ones(0, np.bool_)
    rows = np.zeros((len(counts), int(counts.max(initial=0))), np.uint16)
    rows[np.arange(rows.shape[1]) < counts[:, np.newaxis]] = np.where(valid, whole, 0)
    rows[~usable] = 0
    return rows, usable


def gathered(
    dataset: npt.NDArray[np.number], starts: IntArray, counts: IntArray
) -> tuple[UInt16Array, BoolArray]:
    """Waveforms from a dataset that holds all of them one after the other.

    Parameters
    ----------
    dataset : of one dimension, of which slices are read
    starts, counts : (n,) first sample and number of samples of each waveform, inside the dataset

    Returns as `rows_of_counts`.
    """
    found = np.zeros((len(counts), int(counts.max(initial=0))), np.uint16)
    usable = np.ones(len(counts), np.bool_)
    for first, stop in _runs(starts, counts):
        part = slice(first, stop)
        begin = int(starts[first])
        values = dataset[begin : int(starts[stop - 1] + counts[stop - 1])]
        place = np.repeat(
            starts[part] - begin - np.cumsum(counts[part]) + counts[part], counts[part]
        )
        place += np.arange(len(place))
        rows, usable[part] = rows_of_counts(values[place], counts[part])
        found[part, : rows.shape[1]] = rows
    return found, usable


def _runs(starts: IntArray, counts: IntArray) -> list[tuple[int, int]]:
    """Runs of waveforms that are close together in the dataset, of limited length."""
    runs, first = [], 0
    ends = starts + counts
    for row in range(1, len(starts) + 1):
        if row < len(starts):
            gap = starts[row] - ends[row - 1]
            near = 0 <= gap <= _MAX_GAP and ends[row] - starts[first] <= _SAMPLES_AT_ONCE
            if near:
                continue
        runs.append((first, row))
        first = row
    return runs
