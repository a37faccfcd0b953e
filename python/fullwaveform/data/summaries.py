"""Medians and distinct values of columns.

`numpy.median` and `numpy.unique` load masked arrays, which takes longer than a small file takes.
"""

from __future__ import annotations

from typing import Any

import numpy as np

from fullwaveform.data.arrays import AnyArray, FloatArray


def median(values: FloatArray) -> FloatArray:
    """Median along the first axis, of at least one value; without NaN."""
    ordered, count = np.sort(values, axis=0), len(values)
    middle: FloatArray = (ordered[(count - 1) // 2] + ordered[count // 2]) / 2.0
    return middle


def distinct(values: AnyArray) -> list[Any]:
    """The different values of a column, ascending."""
    return [value for value, _ in distinct_with_counts(values)]


def distinct_with_counts(values: AnyArray) -> list[tuple[Any, int]]:
    """The different values of a column, ascending, and how often each occurs."""
    if len(values) > 0 and (values == values[0]).all():  # as in most blocks
        return [(values[0].item(), len(values))]
    if values.dtype.kind == "u" and values.itemsize <= 2:
        numbers = np.bincount(values)
        return [(value, int(numbers[value])) for value in np.flatnonzero(numbers).tolist()]
    found, counts = np.unique(values, return_counts=True)
    return list(zip(found.tolist(), counts.tolist(), strict=True))
