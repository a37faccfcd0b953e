"""Levels of detail of points seen from above.

A node of the tree is a square and has a random sample of the points in it; its four quarters have
the points that are left, in the same way. So a node and all nodes above it show the same places
with a density that grows with the level, and every point is in one node.
"""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from fullwaveform.data.arrays import AnyArray, FloatArray, IntArray

#: Points of a node, unless all of its square are fewer.
NODE_POINTS = 8192
_DEEPEST = 15  # level, 2 bits of the code of a place each
_SEED = 20240501  # equal files have equal trees


@dataclass(frozen=True, slots=True)
class Quadtree:
    """The nodes, and the points in their order.

    Nodes follow each other level by level from the root on; their squares have the edge
    ``size / 2**level``.
    """

    low: tuple[float, float]  # corner of the root
    size: float  # edge of the root
    level: AnyArray  # (k,), uint8
    column: AnyArray  # (k,), uint32, number of the square from the corner of the root
    row: AnyArray  # (k,), uint32
    count: AnyArray  # (k,), uint32, points
    order: AnyArray  # (n,), uint32, points of node after node


def quadtree(x: FloatArray, y: FloatArray) -> Quadtree:
    """The tree of points (n,); all coordinates must be finite."""
    if len(x) == 0:
        none = np.zeros(0, np.uint32)
        return Quadtree((0.0, 0.0), 1.0, none.astype(np.uint8), none, none, none, none)
    low = float(x.min()), float(y.min())
    size = max(float(x.max()) - low[0], float(y.max()) - low[1]) * (1.0 + 1e-6) or 1.0
    code = _codes(x, y, low, size)
    order = np.argsort(code, kind="stable").astype(np.uint32)
    code = code[order]
    random = np.random.default_rng(_SEED)
    levels: list[IntArray] = []
    taken: list[AnyArray] = []
    first, stop = np.array([0]), np.array([len(order)])
    for level in range(_DEEPEST + 1):
        chosen, counts = _chosen(first, stop, len(order), random, level == _DEEPEST)
        squares = code[first] >> np.uint32(2 * (_DEEPEST - level))
        levels.append(np.column_stack([np.full(len(first), level), squares, counts]))
        taken.append(order[chosen])
        order, code = order[~chosen], code[~chosen]
        if len(order) == 0:
            break
        first, stop = _runs(code >> np.uint32(2 * (_DEEPEST - level - 1)))
    nodes = np.concatenate(levels)
    column, row = _column_and_row(nodes[:, 1].astype(np.uint32))
    return Quadtree(
        low,
        size,
        nodes[:, 0].astype(np.uint8),
        column,
        row,
        nodes[:, 2].astype(np.uint32),
        np.concatenate(taken),
    )


def _codes(x: FloatArray, y: FloatArray, low: tuple[float, float], size: float) -> AnyArray:
    """Place of each point on the curve that visits quarter after quarter, uint32."""
    cells = (1 << _DEEPEST) / size
    codes: AnyArray = _spread((x - low[0]) * cells)
    codes |= _spread((y - low[1]) * cells) << np.uint32(1)
    return codes


def _spread(values: FloatArray) -> AnyArray:
    """The 15 bits of each number, at every second place."""
    bits: AnyArray = np.minimum(values, (1 << _DEEPEST) - 1).astype(np.uint32)
    for shift, mask in ((8, 0x00FF00FF), (4, 0x0F0F0F0F), (2, 0x33333333), (1, 0x55555555)):
        bits = (bits | (bits << np.uint32(shift))) & np.uint32(mask)
    return bits


def _column_and_row(code: AnyArray) -> tuple[AnyArray, AnyArray]:
    return _gathered(code), _gathered(code >> np.uint32(1))


def _gathered(code: AnyArray) -> AnyArray:
    """Every second bit of each number."""
    bits = code & np.uint32(0x55555555)
    for shift, mask in ((1, 0x33333333), (2, 0x0F0F0F0F), (4, 0x00FF00FF), (8, 0x0000FFFF)):
        bits = (bits | (bits >> np.uint32(shift))) & np.uint32(mask)
    return bits


def _chosen(
    first: IntArray, stop: IntArray, total: int, random: np.random.Generator, all_of_them: bool
) -> tuple[AnyArray, IntArray]:
    """Which points (n,) the nodes of the given runs take, and how many each."""
    chosen = np.zeros(total, np.bool_)
    counts = np.zeros(len(first), np.int64)
    for node, (start, end) in enumerate(zip(first.tolist(), stop.tolist(), strict=True)):
        if all_of_them or end - start <= NODE_POINTS:
            chosen[start:end] = True
            counts[node] = end - start
        else:
            chosen[start + random.choice(end - start, NODE_POINTS, replace=False)] = True
            counts[node] = NODE_POINTS
    return chosen, counts


def _runs(keys: AnyArray) -> tuple[IntArray, IntArray]:
    """Start and end of each run of equal keys."""
    changes = np.flatnonzero(keys[1:] != keys[:-1]) + 1
    return np.concatenate([[0], changes]), np.concatenate([changes, [len(keys)]])
