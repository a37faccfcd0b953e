"""Levels of detail of points seen from above."""

from __future__ import annotations

import numpy as np
import pytest

from fullwaveform.view.quadtree import NODE_POINTS, Quadtree, Square, quadtree

RANDOM = np.random.default_rng(1)


def tree_of(x: np.ndarray, y: np.ndarray) -> Quadtree:
    square = Square.around(x, y)
    return quadtree(square, square.places(x, y))


def nodes_with_points(x: np.ndarray, y: np.ndarray) -> list[tuple[int, int, int, np.ndarray]]:
    """Level, column and row of each node, and its points."""
    tree = tree_of(x, y)
    parts = np.split(tree.order, np.cumsum(tree.count)[:-1])
    squares = zip(tree.level.tolist(), tree.column.tolist(), tree.row.tolist(), strict=True)
    return [(*square, part) for square, part in zip(squares, parts, strict=True)]


def test_few_points_are_one_node() -> None:
    tree = tree_of(np.array([1.0, 3.0, 2.0]), np.array([5.0, 5.5, 5.0]))
    assert tree.level.tolist() == [0]
    assert tree.count.tolist() == [3]
    assert sorted(tree.order.tolist()) == [0, 1, 2]
    assert tree.square.low == (1.0, 5.0)
    assert tree.square.size == pytest.approx(2.0, rel=1e-5)


def test_no_points_are_no_nodes() -> None:
    tree = tree_of(np.empty(0), np.empty(0))
    assert len(tree.level) == len(tree.order) == 0


def test_every_point_is_in_one_node_and_in_its_square() -> None:
    x, y = RANDOM.uniform(-50.0, 150.0, 100_000), RANDOM.normal(7.0, 20.0, 100_000)
    nodes = nodes_with_points(x, y)
    points = np.concatenate([part for *_, part in nodes])
    assert (np.sort(points) == np.arange(100_000)).all()
    size = max(np.ptp(x), np.ptp(y))
    for level, column, row, part in nodes:
        edge = size / 2**level
        assert len(part) <= NODE_POINTS
        # A cell of the finest level, because places are rounded to cells.
        slack = 2 * size / 2**15
        assert x[part].min() >= x.min() + column * edge - slack
        assert x[part].max() <= x.min() + (column + 1) * edge + slack
        assert y[part].min() >= y.min() + row * edge - slack
        assert y[part].max() <= y.min() + (row + 1) * edge + slack


def test_root_is_a_sample_of_all_places() -> None:
    """A quarter of the area with 70 % of the points has 70 % of the root."""
    dense = RANDOM.uniform(0.0, 50.0, (70_000, 2))
    rest = RANDOM.uniform(0.0, 100.0, (200_000, 2))
    rest = rest[(rest > 50.0).any(axis=1)][:30_000]
    x, y = np.concatenate([dense, rest]).T
    *_, root = nodes_with_points(x, y)[0]
    assert len(root) == NODE_POINTS
    # 8,192 draws have a standard deviation of 0.5 %.
    assert np.mean(root < 70_000) == pytest.approx(0.7, abs=0.025)


def test_points_at_one_place_end_at_the_deepest_level() -> None:
    count = 3 * NODE_POINTS
    tree = tree_of(np.zeros(count), np.zeros(count))
    assert tree.count.sum() == count


def test_equal_points_give_equal_trees() -> None:
    x, y = RANDOM.uniform(0.0, 1.0, (2, 50_000))
    assert (tree_of(x, y).order == tree_of(x, y).order).all()
