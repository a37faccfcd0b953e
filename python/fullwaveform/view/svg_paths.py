"""Compact SVG paths of many points, at the resolution at which they are seen."""

from __future__ import annotations

import numpy as np

from fullwaveform.data.arrays import FloatArray, IntArray

_FAR = 9999.0  # beyond the edges of all pictures


def curve_path(x: FloatArray, y: FloatArray, step: int) -> str:
    """A line through points (n,) with ascending x, broken where y is NaN.

    Points in one column of width `step` become the first, lowest, highest and last of them, which
    look the same.
    """
    is_gap = ~np.isfinite(y)
    run = np.cumsum(is_gap)[~is_gap]  # points on either side of a gap stay apart
    x, y = x[~is_gap], y[~is_gap]
    kept = _ends_of_columns(np.floor(x / step).astype(np.int64) + (run << 32), y)
    return _lines(np.rint(x[kept]).astype(np.int64), np.rint(y[kept]).astype(np.int64), run[kept])


def bars_path(x: FloatArray, low: FloatArray, high: FloatArray, step: int) -> str:
    """Vertical bars (n,) from low to high; those in one column of width `step` become one."""
    known = np.isfinite(low) & np.isfinite(high)
    x, low, high = x[known], low[known], high[known]
    columns, begins = np.unique(np.floor(x / step).astype(np.int64), return_index=True)
    if not len(columns):
        return ""
    lowest, highest = np.minimum.reduceat(low, begins), np.maximum.reduceat(high, begins)
    return _separate_bars(np.rint(x[begins]), np.rint(lowest), np.rint(highest))


def dots_path(x: FloatArray, y: FloatArray) -> str:
    """Dots (n,), for lines with round ends."""
    known = np.isfinite(x) & np.isfinite(y)
    columns, rows = np.rint(_near(x[known])), np.rint(_near(y[known]))
    return _separate_bars(columns, rows, rows)


def flat_bars_path(first: FloatArray, last: FloatArray, y: FloatArray) -> str:
    """Horizontal bars (n,) from first to last at height y."""
    known = np.isfinite(first) & np.isfinite(last) & np.isfinite(y)
    columns = zip(_near(first[known]), _near(last[known]), _near(y[known]), strict=True)
    return "".join(f"M{x1:.0f} {at:.0f}H{x2:.0f}" for x1, x2, at in columns)


def upright_bars_path(x: FloatArray, first: FloatArray, last: FloatArray) -> str:
    """Vertical bars (n,) at x from first to last, each for itself."""
    known = np.isfinite(x) & np.isfinite(first) & np.isfinite(last)
    columns = zip(_near(x[known]), _near(first[known]), _near(last[known]), strict=True)
    return "".join(f"M{at:.0f} {y1:.0f}V{y2:.0f}" for at, y1, y2 in columns)


def _near(places: FloatArray) -> FloatArray:
    """Places that are far outside any picture moved nearer, so that their numbers stay short."""
    return np.clip(places, -_FAR, _FAR)


def _separate_bars(x: FloatArray, low: FloatArray, high: FloatArray) -> str:
    """Bars by steps from the end of one to the start of the next, in whole numbers."""
    parts, at_x, at_y = [], 0, 0
    for new_x, start, end in zip(
        x.astype(int).tolist(), low.astype(int).tolist(), high.astype(int).tolist(), strict=True
    ):
        parts.append(f"m{_pair(new_x - at_x, start - at_y)}v{end - start}")
        at_x, at_y = new_x, end
    return "".join(parts)


def _lines(x: IntArray, y: IntArray, run: IntArray) -> str:
    parts: list[str] = []
    at = (0, 0)
    former: int | None = None
    for new_x, new_y, number in zip(x.tolist(), y.tolist(), run.tolist(), strict=True):
        step = (new_x - at[0], new_y - at[1])
        if number != former:
            parts.append(f"m{_pair(*step)}l")
        elif step != (0, 0):
            separator = "" if parts[-1].endswith("l") or step[0] < 0 else " "
            parts.append(f"{separator}{_pair(*step)}")
        former, at = number, (new_x, new_y)
    return "".join(parts)


def _pair(x: int, y: int) -> str:
    return f"{x}{'' if y < 0 else ' '}{y}"


def _ends_of_columns(columns: IntArray, values: FloatArray) -> IntArray:
    """Ascending indices of the first, lowest, highest and last value of each run of columns."""
    if not len(columns):
        return np.empty(0, np.int64)
    begins = np.flatnonzero(np.concatenate([[True], columns[1:] != columns[:-1]]))
    ends = np.concatenate([begins[1:], [len(columns)]]) - 1
    number = np.repeat(np.arange(len(begins)), ends - begins + 1)
    order = np.lexsort((values, number))
    return np.unique(np.concatenate([begins, ends, order[begins], order[ends]]))
