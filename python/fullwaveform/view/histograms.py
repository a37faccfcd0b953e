"""Counts of values in equal classes, for the statistics of the page."""

from __future__ import annotations

from typing import Any

import numpy as np

from fullwaveform.data.arrays import AnyArray

_CLASSES = 48


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
    low, high = np.percentile(known, (0.5, 99.5)).tolist()
    if not high > low:
        low, high = low - 0.5, low + 0.5
    edges = np.linspace(low, high, _CLASSES + 1)
    counts, _ = np.histogram(np.clip(known, low, high), edges)
    return {"edges": edges.tolist(), "counts": counts.tolist()}
