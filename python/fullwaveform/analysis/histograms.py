"""Medians and histograms of integers, from how often each value occurs."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from fullwaveform.data.arrays import IntArray


@dataclass(frozen=True, slots=True)
class Histogram:
    """Number of values in bins: `counts[i]` values from `edges[i]` to below `edges[i+1]`."""

    edges: IntArray  # (n + 1,), ascending; empty without values
    counts: IntArray  # (n,)

    def __len__(self) -> int:
        return len(self.counts)


def count_quantile(counts: IntArray, share: float) -> int:
    """Smallest value that at least the share (0 to 1) of all values does not exceed.

    `counts` (n,): how often 0, 1, ..., n - 1 occur; not all 0.
    """
    below = np.cumsum(counts)
    return int(np.searchsorted(below, max(share * below[-1], 1)))


def count_median(counts: IntArray) -> float:
    """Median of the values; `counts` as for `count_quantile`."""
    below = np.cumsum(counts)
    middle = [(below[-1] - 1) // 2 + 1, below[-1] // 2 + 1]
    return float(np.searchsorted(below, middle).mean())


def value_histogram(counts: IntArray, bins: int) -> Histogram:
    """Histogram with at most `bins` bins from the smallest to the largest value.

    One bin per value if there are few enough; otherwise bin edges have equal ratios, and
    differ by at least one. Empty without values.
    """
    present = np.flatnonzero(counts)
    if len(present) == 0:
        return Histogram(np.empty(0, np.int64), np.empty(0, np.int64))
    first, end = int(present[0]), int(present[-1]) + 1
    if end - first <= bins:
        edges = np.arange(first, end + 1)
    else:
        # Shifted by 1, since 0 has no logarithm.
        ratios = np.geomspace(first + 1, end + 1, bins + 1)
        edges = np.unique(np.rint(ratios).astype(np.int64) - 1)
    total = np.concatenate(([0], np.cumsum(counts)))
    return Histogram(edges, np.diff(total[edges]))
