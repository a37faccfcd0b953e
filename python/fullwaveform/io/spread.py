"""Runs of points that are spread over a file."""

from __future__ import annotations

_RUNS = 64
_POINTS_PER_RUN = 64


def spread_windows(total: int) -> list[slice]:
    """Runs of points, in order: all of a small file, else 64 runs of 64 at equal distances.

    The first run starts with the first of the `total` points, the last one ends with the last.
    """
    if total <= _RUNS * _POINTS_PER_RUN:
        return [slice(0, total)] if total > 0 else []
    last = total - _POINTS_PER_RUN
    starts = [run * last // (_RUNS - 1) for run in range(_RUNS)]
    return [slice(start, start + _POINTS_PER_RUN) for start in starts]
