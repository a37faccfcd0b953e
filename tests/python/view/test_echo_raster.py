"""Echoes as cells of heights, whatever their number and area."""

from __future__ import annotations

import numpy as np
import pytest

from fullwaveform.view import echo_raster
from fullwaveform.view.echo_raster import EchoRaster
from fullwaveform.view.survey import _FIRST_CELL_DEGREES


def test_cells_have_their_highest_echo() -> None:
    raster = EchoRaster(1.0)
    raster.add(np.array([10.2, 10.8, 12.5]), np.array([5.5, 5.1, 4.9]), np.array([1.0, 3.0, 2.0]))
    raster.add(np.array([10.5]), np.array([5.5]), np.array([2.5]))
    x, y, heights = raster.cells()
    assert sorted(zip(x, y, heights, strict=True)) == [(10.5, 5.5, 3.0), (12.5, 4.5, 2.0)]
    assert (raster.placed, raster.without_place) == (4, 0)


def test_unusable_places_are_counted() -> None:
    raster = EchoRaster(1.0)
    x = np.array([1e30, np.nan, 0.0, np.inf, 1e30, 1.0])
    raster.add(x, np.zeros(6), np.array([0.0, 0.0, 1.0, 1.0, 1.0, np.nan]))
    assert (raster.placed, raster.without_place) == (1, 5)
    assert len(raster.cells()[0]) == 1
    empty = EchoRaster(1.0)
    empty.add(np.full(3, np.nan), np.zeros(3), np.zeros(3))
    assert (empty.placed, empty.without_place, len(empty.cells()[0])) == (0, 3, 0)


def test_echoes_after_one_beyond_the_earth_are_placed() -> None:
    """Of the first one no other would be within reach."""
    raster = EchoRaster(2.0**-7)
    raster.add(np.array([1e14, 5.0, 6.0]), np.array([5.0, 5.0, -2e9]), np.zeros(3))
    assert (raster.placed, raster.without_place) == (1, 2)
    assert [axis.tolist() for axis in raster.cells()] == [[5.00390625], [5.00390625], [0.0]]


def test_longitudes_around_the_earth_are_placed() -> None:
    raster = EchoRaster(_FIRST_CELL_DEGREES)
    raster.add(np.array([-179.9, 179.9]), np.array([-10.0, 10.0]), np.zeros(2))
    assert (raster.placed, raster.without_place) == (2, 0)


def test_cells_grow_until_they_are_few(monkeypatch: pytest.MonkeyPatch) -> None:
    """A grid of 16 by 16 m: 256 cells of 1 m are 64 of 2 m, and 16 of 4 m."""
    monkeypatch.setattr(echo_raster, "_MAX_CELLS", 20)
    raster = EchoRaster(1.0)
    x, y = (axis.ravel() for axis in np.mgrid[0:16, 0:16] + 0.5)
    raster.add(x, y, x + 100 * y)
    columns, rows, heights = raster.cells()
    assert raster.size == 4.0
    assert sorted(zip(columns, rows, strict=True)) == [
        (column, row) for column in (2.0, 6.0, 10.0, 14.0) for row in (2.0, 6.0, 10.0, 14.0)
    ]
    np.testing.assert_allclose(heights, (columns + 1.5) + 100 * (rows + 1.5))


def test_blocks_do_not_matter(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(echo_raster, "_MAX_CELLS", 50)
    random = np.random.default_rng(4)
    x, y = random.normal(0.0, [[1.0], [30.0]], (2, 2000)) * 10.0
    z = random.normal(100.0, 5.0, 2000)
    found = []
    for size, waiting in ((2000, 1 << 20), (7, 1), (300, 500)):
        monkeypatch.setattr(echo_raster, "_WAITING", waiting)
        raster = EchoRaster(2.0**-7)
        for first in range(0, 2000, size):
            part = slice(first, first + size)
            raster.add(x[part], y[part], z[part])
        found.append((raster.cells(), raster.size))
    for cells, size in found[1:]:
        np.testing.assert_array_equal(cells, found[0][0])
        assert size == found[0][1]


def test_a_single_far_echo_does_not_coarsen_the_others() -> None:
    raster = EchoRaster(2.0**-7)
    raster.add(np.array([0.0, 1.0, 1e6]), np.array([0.0, 1.0, 1e6]), np.zeros(3))
    assert len(raster.cells()[0]) == 3
    assert raster.size == 2.0**-7
