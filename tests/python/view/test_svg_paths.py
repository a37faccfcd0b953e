"""Paths of SVG, read back as points."""

from __future__ import annotations

import re

import numpy as np

from fullwaveform.view.svg_paths import bars_path, curve_path, dots_path, flat_bars_path

NUMBER = r"-?\d+"


def strokes(path: str) -> list[list[tuple[int, int]]]:
    """The points of each stroke of a path of m, l and v."""
    assert re.fullmatch(rf"([mlv ]|{NUMBER})*", path)
    found: list[list[tuple[int, int]]] = []
    x = y = 0
    for command, text in re.findall(rf"([mlv])((?:\s*{NUMBER})*)", path):
        numbers = [int(one) for one in re.findall(NUMBER, text)]
        steps = [(0, numbers[0])] if command == "v" else zip(*[iter(numbers)] * 2, strict=True)
        for dx, dy in steps:
            x, y = x + dx, y + dy
            if command == "m":
                found.append([])
            found[-1].append((x, y))
    return found


def test_curve_goes_through_its_points() -> None:
    x, y = np.array([0.0, 10.2, 19.9, 30.0]), np.array([5.0, -3.0, 40.4, 40.6])
    assert strokes(curve_path(x, y, 2)) == [[(0, 5), (10, -3), (20, 40), (30, 41)]]


def test_curve_is_broken_at_gaps() -> None:
    nan = np.nan
    x, y = np.arange(7.0) * 10, np.array([nan, 1.0, 2.0, nan, nan, 3.0, 4.0])
    assert strokes(curve_path(x, y, 2)) == [[(10, 1), (20, 2)], [(50, 3), (60, 4)]]
    assert curve_path(x, np.full(7, nan), 2) == ""
    assert curve_path(np.empty(0), np.empty(0), 2) == ""


def test_dense_curve_keeps_its_extremes() -> None:
    """A thousand points per column: two columns with first, lowest, highest and last each."""
    x = np.linspace(0.0, 3.999, 2000)
    y = 100.0 * np.sin(x * 40.0)
    y[700] = 500.0
    y[1700] = -500.0
    (points,) = strokes(curve_path(x, y, 2))
    heights = [point[1] for point in points]
    assert len(points) <= 8
    assert max(heights[:4]) == 500
    assert min(heights[4:]) == -500
    assert (points[0], points[-1]) == ((0, 0), (4, round(float(y[-1]))))


def test_bars_in_a_column_become_one() -> None:
    x = np.array([0.0, 1.0, 5.0])
    path = bars_path(x, np.array([10.0, 4.0, 7.0]), np.array([12.0, 6.0, 9.0]), 2)
    assert strokes(path) == [[(0, 4), (0, 12)], [(5, 7), (5, 9)]]
    assert bars_path(x, np.full(3, np.nan), x, 2) == ""


def test_dots_and_flat_bars() -> None:
    path = dots_path(np.array([1.0, np.nan, 4.0]), np.array([2.0, 3.0, -5.0]))
    assert strokes(path) == [[(1, 2), (1, 2)], [(4, -5), (4, -5)]]
    one = np.array([1.0, np.nan])
    assert flat_bars_path(one, np.array([7.0, 8.0]), np.array([3.0, 3.0])) == "M1 3H7"
    # Numbers far outside the picture stay short.
    assert flat_bars_path(-one * 1e300, one * 1e300, one) == "M-9999 1H9999"
