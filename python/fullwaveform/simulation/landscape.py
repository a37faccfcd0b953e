"""Ground, houses and trees of a simulated scan, and the reflections of beams on them."""

from __future__ import annotations

from typing import NamedTuple

import numpy as np

from fullwaveform.data.arrays import BoolArray, FloatArray, UInt8Array

GROUND, LOW_VEGETATION, HIGH_VEGETATION, BUILDING = 2, 3, 5, 6  # ASPRS classes

_WOODS = ((-88.0, -14.0), (78.0, 172.0))  # m to the right of the flight line
_TREE_SPACING = 8.0  # m
_TREE_TABLE = 32  # trees per side of the repeated pattern
_TALLEST_TREE = 16.5  # m
_LAYER = 0.6  # m, height of a layer of a crown, which reflects or not
_MAX_CROWN_ECHOES = 4
_HOUSE_PERIOD, _HOUSE_HALF_LENGTH = 60.0, 15.0  # m along the flight line, one house at 0


class Beams(NamedTuple):
    """Shots in the frame of the flight line: along, to the right, up from the origin's ground."""

    along: FloatArray  # m, of the scanner
    slope: FloatArray  # m to the right per m downwards
    height: float  # m, of the scanner


class Targets(NamedTuple):
    """Reflections, (shots, candidates); the range is NaN if there is none."""

    range: FloatArray  # m from the scanner
    share: FloatArray  # of the light
    classification: UInt8Array


def reflect(beams: Beams, angle: FloatArray, rng: np.random.Generator) -> Targets:
    """Up to four reflections in a crown and one on the ground or a roof.

    Each reflection in a crown takes 10 to 45 % of the remaining light, and ground or roof the rest;
    one in eight shots that hit a crown does not reach the ground.
    """
    ground = _surface_height(beams, with_roofs=False)
    surface = _surface_height(beams, with_roofs=True)
    on_roof = surface > ground + 2.0
    crown = _crown_heights(beams, ground, rng)
    crown[on_roof] = np.nan
    taken = np.where(np.isnan(crown), 0.0, rng.uniform(0.10, 0.45, crown.shape))
    left = np.cumprod(1.0 - taken, axis=1)
    before = np.column_stack([np.ones(len(ground)), left[:, :-1]])
    lost = ~np.isnan(crown[:, 0]) & (rng.random(len(ground)) < 0.125)
    surface = np.where(lost, np.nan, np.where(on_roof, surface, ground))
    heights = np.column_stack([crown, surface])
    classes = np.full(heights.shape, HIGH_VEGETATION, dtype=np.uint8)
    classes[:, -1] = np.where(on_roof, BUILDING, GROUND)
    slant = (beams.height - heights) / np.cos(np.radians(angle))[:, np.newaxis]
    return Targets(slant, np.column_stack([before * taken, left[:, -1]]), classes)


def _terrain(along: FloatArray, right: FloatArray) -> FloatArray:
    """Height of the ground: a slope with gentle waves, 0 at the origin."""
    waves = 3.0 * np.sin(right / 34.0) + 1.2 * np.sin(along / 23.0 + right / 51.0)
    return np.asarray(0.04 * right + waves)


def _roof(along: FloatArray, right: FloatArray) -> FloatArray:
    """Height of a roof above the ground, 0 outside houses: one gable roof, one flat roof."""
    along_house = np.remainder(along + _HOUSE_PERIOD / 2, _HOUSE_PERIOD) - _HOUSE_PERIOD / 2
    within = np.abs(along_house) < _HOUSE_HALF_LENGTH
    gable = np.where(np.abs(right + 112.0) < 9.0, 11.0 - 0.5 * np.abs(right + 112.0), 0.0)
    flat = np.where(np.abs(right - 48.0) < 8.0, 9.0, 0.0)
    return np.where(within, gable + flat, 0.0)


def _down_to(beams: Beams, height: FloatArray) -> FloatArray:
    """Distance to the right of the flight line at which the beams pass the given height."""
    return np.asarray(beams.slope * (beams.height - height))


def _surface_height(beams: Beams, with_roofs: bool) -> FloatArray:
    """Height at which the beams hit ground or roofs, by fixed-point iteration.

    At the edge of a roof the iteration may alternate between roof and ground; either is acceptable.
    """
    height = np.zeros_like(beams.slope)
    for _ in range(12):
        right = _down_to(beams, height)
        height = _terrain(beams.along, right)
        if with_roofs:
            height = height + _roof(beams.along, right)
    return height


def _in_crown(
    along: FloatArray, right: FloatArray, above_ground: FloatArray, rng: np.random.Generator
) -> BoolArray:
    """Whether points are in the crown of a tree; trees are on a jittered grid in the woods."""
    table = (_TREE_TABLE, _TREE_TABLE)
    tall = rng.uniform(9.0, _TALLEST_TREE, table)
    radius = rng.uniform(3.0, 4.4, table)
    jitter = rng.uniform(-1.0, 1.0, (2, *table))
    row, column = np.rint(along / _TREE_SPACING), np.rint(right / _TREE_SPACING)
    tree = (row.astype(np.int64) % _TREE_TABLE, column.astype(np.int64) % _TREE_TABLE)
    off_along = along - row * _TREE_SPACING - jitter[0][tree]
    off_right = right - column * _TREE_SPACING - jitter[1][tree]
    off = (off_along**2 + off_right**2) / radius[tree] ** 2
    woods = np.zeros(right.shape, dtype=np.bool_)
    for left_side, right_side in _WOODS:
        woods |= (right > left_side) & (right < right_side)
    top = tall[tree] * (1.0 - 0.5 * off)
    return np.asarray(
        woods & (off < 1.0) & (above_ground > 0.3 * tall[tree]) & (above_ground < top)
    )


def _crown_heights(beams: Beams, ground: FloatArray, rng: np.random.Generator) -> FloatArray:
    """Heights of reflections in crowns, (shots, 4), from the top; NaN if there are fewer."""
    layers = np.arange(_TALLEST_TREE, 0.0, -_LAYER) - _LAYER / 2
    shape = (len(ground), len(layers))
    above_ground = layers + rng.uniform(-_LAYER / 2, _LAYER / 2, shape)
    height = ground[:, np.newaxis] + above_ground
    right = beams.slope[:, np.newaxis] * (beams.height - height)
    along = np.broadcast_to(beams.along[:, np.newaxis], shape)
    hit = _in_crown(along, right, above_ground, rng) & (rng.random(shape) < 0.28)
    # The stable sort moves hits to the front in their order.
    topmost = np.argsort(~hit, axis=1, kind="stable")[:, :_MAX_CROWN_ECHOES]
    chosen = np.take_along_axis(np.where(hit, height, np.nan), topmost, axis=1)
    return np.asarray(chosen)
