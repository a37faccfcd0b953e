"""Counts of values in equal classes, for the statistics of the page."""

from __future__ import annotations

from typing import Any

import numpy as np

from fullwaveform.data.arrays import AnyArray

_CLASSES = 48
_SAMPLE = 500_000  # values, of which percentiles of more are taken


def described_histogram(column: AnyArray, *, is_category: bool = False) -> dict[str, Any] | None:
    """Edges (k + 1,) and counts (k,) of the known values; None without any.

    The first and last of the classes of a quantity include what is beyond the 0.5th and 99.5th
    percentile; a category has one class for each number up to the largest.
    """
    known = column[np.isfinite(column)]
    if len(known) == 0:
        return None
    if is_category:
        counts = np.bincount(known.astype(np.int64))
        return {"edges": (np.arange(len(counts) + 1) - 0.5).tolist(), "counts": counts.tolist()}
    low, high = percentiles(known, (0.5, 99.5))
    if not high > low:
        low, high = low - 0.5, low + 0.5
    # Of the type of the values, so that clipped ones are not beyond the edges.
    edges = np.linspace(low, high, _CLASSES + 1).astype(known.dtype)
    counts, _ = np.histogram(np.clip(known, edges[0], edges[-1]), edges)
    return {"edges": edges.tolist(), "counts": counts.tolist()}


def percentiles(known: AnyArray, percentages: tuple[float, ...]) -> list[float]:
    """Percentiles of finite values (n,), of a sample if they are many."""
    sample = known[:: max(1, len(known) // _SAMPLE)]
    return [float(value) for value in np.percentile(sample, percentages)]
