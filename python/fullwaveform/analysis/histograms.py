"""Medians and histograms of whole numbers of which only it is known how often each occurs."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from fullwaveform.data.arrays import IntArray


@dataclass(frozen=True, slots=True)
class Histogram:
    """Whole numbers by bins: `counts[i]` of them are at least `edges[i]` and below `edges[i+1]`."""

    edges: IntArray  # (n + 1,), ascending; empty without numbers
    counts: IntArray  # (n,)

    def __len__(self) -> int:
        return len(self.counts)


def count_quantile(counts: IntArray, share: float) -> int:
    """Smallest number that at least the share (0 to 1) of all numbers does not exceed.

    Parameters
    ----------
    counts
        (n,) how often 0, 1, ..., n - 1 occur; not all 0.
    """
    below = np.cumsum(counts)
    return int(np.searchsorted(below, max(share * below[-1], 1)))


def count_median(counts: IntArray) -> float:
    """Median of the numbers; arguments as for `count_quantile`."""
    below = np.cumsum(counts)
    middle = [(below[-1] - 1) // 2 + 1, below[-1] // 2 + 1]
    return float(np.searchsorted(below, middle).mean())


def value_histogram(counts: IntArray, bins: int) -> Histogram:
    """At most so many bins from the smallest number to the largest, empty without numbers.

    Numbers get a bin each where there are few enough; otherwise bins widen in steps of equal
    ratio, and the smallest ones hold one number.
    """
    present = np.flatnonzero(counts)
    if len(present) == 0:
        return Histogram(np.empty(0, np.int64), np.empty(0, np.int64))
    first, behind = int(present[0]), int(present[-1]) + 1
    if behind - first <= bins:
        edges = np.arange(first, behind + 1)
    else:
        # 0 has no logarithm: scale what is one higher.
        ratios = np.geomspace(first + 1, behind + 1, bins + 1)
        edges = np.unique(np.rint(ratios).astype(np.int64) - 1)
    total = np.concatenate(([0], np.cumsum(counts)))
    return Histogram(edges, np.diff(total[edges]))
