"""Counts of values in equal classes, for the statistics of the page."""

from __future__ import annotations

from collections.abc import Sequence
from typing import Any

import numpy as np

from fullwaveform.data.arrays import AnyArray

_CLASSES = 48
_SAMPLE = 500_000  # values, of which percentiles of more are taken
_SEED = 1  # equal values have equal percentiles
_CHUNK = 1 << 18  # values that are counted at a time


def described_histogram(column: AnyArray, *, is_category: bool = False) -> dict[str, Any] | None:
    """Edges (k + 1,) and counts (k,) of the known values; None without any.

    The first and last of the classes of a quantity include what is beyond the 0.5th and 99.5th
    percentile; a category has one class for each number up to the largest.
    """
    known = column[np.isfinite(column)]
    if len(known) == 0:
        return None
    if is_category:
        edges = (np.arange(int(known.max()) + 2) - 0.5).tolist()
    else:
        edges = np.linspace(*_ends(known), _CLASSES + 1).tolist()
    return {"edges": edges, "counts": class_counts(known, edges).tolist()}


def class_numbers(column: AnyArray, edges: Sequence[float]) -> AnyArray:
    """Number of the class of each value (n,), uint16; that of an unknown value follows the last.

    Values below the first edge are in the first class, those above the last one in the last. The
    page computes the same with the same numbers of 32 bits, so that both select the same echoes.
    """
    last = len(edges) - 2
    per_unit = np.float32((last + 1) / (edges[-1] - edges[0]))
    with np.errstate(over="ignore", invalid="ignore"):
        at = (column.astype(np.float32, copy=False) - np.float32(edges[0])) * per_unit
        numbers: AnyArray = np.fmin(np.fmax(at, 0.0, out=at), last, out=at).astype(np.uint16)
    if column.dtype.kind == "f":
        numbers[~np.isfinite(column)] = last + 1
    return numbers


def class_counts(column: AnyArray, edges: Sequence[float]) -> AnyArray:
    """Number of values in each class (k,); unknown ones are in none."""
    counts = np.zeros(len(edges), np.int64)
    for first in range(0, len(column), _CHUNK):
        numbers = class_numbers(column[first : first + _CHUNK], edges)
        counts += np.bincount(numbers, minlength=len(edges))
    without_unknown: AnyArray = counts[:-1]
    return without_unknown


def percentiles(known: AnyArray, percentages: tuple[float, ...]) -> list[float]:
    """Percentiles of finite values (n,), of a sample if they are many."""
    if len(known) > _SAMPLE:
        # At random: steps of equal length would meet only some echoes of each shot.
        known = known[np.random.default_rng(_SEED).integers(0, len(known), _SAMPLE)]
    return [float(value) for value in np.percentile(known, percentages)]


def _ends(known: AnyArray) -> tuple[float, float]:
    """Ends of the classes, as numbers of 32 bits."""
    low, high = (float(np.float32(value)) for value in percentiles(known, (0.5, 99.5)))
    if not high > low:
        around = max(0.5, abs(low) * 1e-6)  # more than a step of the numbers
        low, high = float(np.float32(low - around)), float(np.float32(low + around))
    return low, high
