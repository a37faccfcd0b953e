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
_CHUNK = 1 << 20  # points of which intermediate results are in memory


@dataclass(frozen=True, slots=True)
class Square:
    """The square of the root."""

    low: tuple[float, float]  # corner
    size: float  # edge

    @classmethod
    def around(cls, x: FloatArray, y: FloatArray) -> Square:
        """The square of points (n,); all coordinates must be finite."""
        if len(x) == 0:
            return cls((0.0, 0.0), 1.0)
        low = float(x.min()), float(y.min())
        size = max(float(x.max()) - low[0], float(y.max()) - low[1]) * (1.0 + 1e-6)
        return cls(low, size or 1.0)

    def places(self, x: FloatArray, y: FloatArray) -> AnyArray:
        """Each point (n,) as an integer: place in the upper 32 bits, number in the lower ones.

        The place is that on the curve that visits quarter after quarter.
        """
        cells = (1 << _DEEPEST) / self.size
        found = np.arange(len(x), dtype="<u8")
        codes = _codes(found)
        for first in range(0, len(x), _CHUNK):
            part = slice(first, first + _CHUNK)
            codes[part] = _spread((x[part] - self.low[0]) * cells)
            codes[part] |= _spread((y[part] - self.low[1]) * cells) << np.uint32(1)
        return found


@dataclass(frozen=True, slots=True)
class Quadtree:
    """The nodes, and the points in their order.

    Nodes follow each other level by level from the root on; their squares have the edge
    ``square.size / 2**level``.
    """

    square: Square
    level: AnyArray  # (k,), uint8
    column: AnyArray  # (k,), uint32, number of the square from the corner of the root
    row: AnyArray  # (k,), uint32
    count: AnyArray  # (k,), uint32, points
    order: AnyArray  # (n,), uint32, points of node after node


def quadtree(square: Square, places: AnyArray) -> Quadtree:
    """The tree of points with these `places` in the square; overwrites `places`."""
    places.sort()
    order = np.empty(len(places), np.uint32)
    done = 0
    random = np.random.default_rng(_SEED)
    levels: list[IntArray] = [np.empty((0, 3), np.int64)]
    for level in range(_DEEPEST + 1):
        if len(places) == 0:
            break
        squares, first, stop = _runs(_codes(places) >> np.uint32(2 * (_DEEPEST - level)))
        chosen, counts = _chosen(first, stop, len(places), random, level == _DEEPEST)
        levels.append(np.column_stack([np.full(len(first), level), squares, counts]))
        following = done + int(counts.sum())
        order[done:following] = _numbers(places)[chosen]
        done = following
        places = _left(places, chosen)
    nodes = np.concatenate(levels)
    column, row = _column_and_row(nodes[:, 1].astype(np.uint32))
    level_of_node, count = nodes[:, 0].astype(np.uint8), nodes[:, 2].astype(np.uint32)
    return Quadtree(square, level_of_node, column, row, count, order)


def _numbers(places: AnyArray) -> AnyArray:
    halves: AnyArray = places.view("<u4")[0::2]
    return halves


def _codes(places: AnyArray) -> AnyArray:
    halves: AnyArray = places.view("<u4")[1::2]
    return halves


def _left(places: AnyArray, chosen: AnyArray) -> AnyArray:
    """The places that are not chosen, moved to the start of the array, which saves another one."""
    end = 0
    for first in range(0, len(places), _CHUNK):
        part = slice(first, first + _CHUNK)
        left = places[part][~chosen[part]]
        places[end : end + len(left)] = left
        end += len(left)
    kept: AnyArray = places[:end]
    return kept


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


def _runs(keys: AnyArray) -> tuple[AnyArray, IntArray, IntArray]:
    """Key, start and end of each run of equal keys."""
    changes = np.flatnonzero(keys[1:] != keys[:-1]) + 1
    first = np.concatenate([[0], changes])
    return keys[first], first, np.concatenate([changes, [len(keys)]])
