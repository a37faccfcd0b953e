"""A flight line over sloping ground with houses and trees: shots, and where they are reflected."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
import numpy.typing as npt

from fullwaveform.data.arrays import FloatArray, IntArray
from fullwaveform.simulation.landscape import (
    BUILDING,
    GROUND,
    HIGH_VEGETATION,
    LOW_VEGETATION,
    Beams,
    Targets,
    reflect,
)
from fullwaveform.simulation.settings import ScanSettings


@dataclass(frozen=True, slots=True)
class Shots:
    """Geometry of the shots, one entry each, in the order of time."""

    gps_time: FloatArray  # s, ascending and distinct
    origin: FloatArray  # (n, 3), m: the scanner
    direction: FloatArray  # (n, 3), unit vector along the flight of light
    record_start: FloatArray  # m of range from the scanner to the first sample
    scan_angle: FloatArray  # degrees, positive to the right
    scan_direction_flag: npt.NDArray[np.uint8]  # 1 while sweeping from left to right
    edge_of_flight_line: npt.NDArray[np.uint8]  # 1 for the last shot of a sweep

    def __len__(self) -> int:
        return len(self.gps_time)


@dataclass(frozen=True, slots=True)
class Echoes:
    """Reflections, one entry each; those of a shot stand together, nearest first."""

    shot: IntArray  # row of the shot
    position: FloatArray  # samples after the record's first sample
    amplitude: FloatArray  # counts of the low-power channel above its baseline, unclipped
    width: FloatArray  # samples, standard deviation
    classification: npt.NDArray[np.uint8]  # ASPRS class

    def __len__(self) -> int:
        return len(self.shot)


def build_scene(settings: ScanSettings, chance: np.random.Generator) -> tuple[Shots, Echoes]:
    """The shots of one flight line and their echoes.

    `settings.empty_fraction` of the shots have no echo; the record of such a shot lies where an
    echo would have come from.
    """
    angle, direction_flag, edge = _sweep(settings)
    time = np.arange(settings.shots) / settings.pulse_rate
    beams = Beams(settings.speed * time, np.tan(np.radians(angle)), settings.flying_height)
    targets = reflect(beams, angle, chance)
    empty, saturated, paired = _special_shots(settings, chance)
    targets = _with_close_pairs(targets, paired, settings, chance)
    first = np.nanmin(targets.range, axis=1)
    lead = settings.lead_in + chance.random(settings.shots)
    record_start = first - lead * settings.range_per_sample
    echoes = _echoes(targets, record_start, empty, saturated, settings, chance)
    origin, direction = _in_map_frame(beams, settings)
    shots = Shots(
        gps_time=settings.start_time + time,
        origin=origin,
        direction=direction,
        record_start=record_start,
        scan_angle=angle,
        scan_direction_flag=direction_flag,
        edge_of_flight_line=edge,
    )
    return shots, echoes


def position_in_space(
    shots: Shots, shot: IntArray, position: FloatArray, step: float
) -> FloatArray:
    """Points (m, 3) at fractional sample positions of the given shots; `step` is m per sample."""
    distance = shots.record_start[shot] + position * step
    return np.asarray(shots.origin[shot] + distance[:, np.newaxis] * shots.direction[shot])


def _sweep(
    settings: ScanSettings,
) -> tuple[FloatArray, npt.NDArray[np.uint8], npt.NDArray[np.uint8]]:
    """Scan angle in degrees, direction flag and edge flag of a mirror swinging to and fro."""
    phase = np.arange(settings.shots + 1) * (settings.line_rate / settings.pulse_rate)
    line = np.floor(phase).astype(np.int64)
    rightwards = line % 2 == 0
    swing = 2.0 * (phase - line) - 1.0
    angle = settings.half_scan_angle * np.where(rightwards, swing, -swing)
    edge = np.diff(line) > 0
    return angle[:-1], rightwards[:-1].astype(np.uint8), edge.astype(np.uint8)


def _in_map_frame(beams: Beams, settings: ScanSettings) -> tuple[FloatArray, FloatArray]:
    """Origins and unit directions as east, north, up."""
    heading = np.radians(settings.heading)
    forward = np.array([np.sin(heading), np.cos(heading), 0.0])
    right = np.array([np.cos(heading), -np.sin(heading), 0.0])
    start = np.array([settings.easting, settings.northing, settings.ground_height + beams.height])
    origin = start + beams.along[:, np.newaxis] * forward
    downwards = beams.slope[:, np.newaxis] * right - np.array([0.0, 0.0, 1.0])
    return origin, downwards / np.linalg.norm(downwards, axis=1, keepdims=True)


def _special_shots(
    settings: ScanSettings, chance: np.random.Generator
) -> tuple[IntArray, IntArray, IntArray]:
    """Rows of the empty shots, of those with a saturated echo and of those with a close pair."""
    order = chance.permutation(settings.shots)
    shares = (settings.empty_fraction, settings.saturated_fraction, settings.close_pair_fraction)
    ends = np.floor(np.cumsum(shares) * settings.shots + 0.5).astype(np.int64)
    empty, saturated, paired, _ = np.split(order, ends)
    return empty, saturated, paired


def _with_close_pairs(
    targets: Targets, paired: IntArray, settings: ScanSettings, chance: np.random.Generator
) -> Targets:
    """The targets with a second one closely above the first of the given shots.

    A shrub above the ground, a twig above a crown, a chimney above a roof; it takes 40 % of the
    light.
    """
    rows = len(targets.range)
    nearest = np.nanargmin(targets.range, axis=1)
    first = np.take_along_axis(targets.range, nearest[:, np.newaxis], axis=1)[:, 0]
    below = np.take_along_axis(targets.classification, nearest[:, np.newaxis], axis=1)[:, 0]
    above = np.full(rows, np.nan)
    apart = chance.uniform(1.2, 2.0, len(paired)) * settings.pulse_width
    above[paired] = first[paired] - apart * settings.range_per_sample
    share = targets.share.copy()
    share[paired] *= 0.6
    classes = np.where(below == GROUND, LOW_VEGETATION, below).astype(np.uint8)
    return Targets(
        np.column_stack([targets.range, above]),
        np.column_stack([share, np.full(rows, 0.4)]),
        np.column_stack([targets.classification, classes]),
    )


def _echoes(
    targets: Targets,
    record_start: FloatArray,
    empty: IntArray,
    saturated: IntArray,
    settings: ScanSettings,
    chance: np.random.Generator,
) -> Echoes:
    """The targets inside their record as one flat list, by shot and position."""
    position = (targets.range - record_start[:, np.newaxis]) / settings.range_per_sample
    position[empty] = np.nan
    kept = position <= settings.last_position  # false for NaN
    amplitude = _amplitudes(targets, settings, chance)
    width = settings.pulse_width * _broadening(targets.classification, chance)
    last = np.argmax(np.where(kept, position, -np.inf), axis=1)[saturated]
    beyond = chance.uniform(1.3, max(1.4, 0.6 * settings.gain_ratio), len(saturated))
    amplitude[saturated, last] = beyond * settings.maximum
    shot, column = np.nonzero(kept)
    order = np.lexsort((position[shot, column], shot))
    shot, column = shot[order], column[order]
    return Echoes(
        shot=shot.astype(np.int64),
        position=position[shot, column],
        amplitude=amplitude[shot, column],
        width=width[shot, column],
        classification=targets.classification[shot, column],
    )


def _amplitudes(
    targets: Targets, settings: ScanSettings, chance: np.random.Generator
) -> FloatArray:
    """Counts of the low-power channel: brightness times share of light times the law of range."""
    brightness = np.where(targets.classification == BUILDING, 0.42, 0.30)
    spread = np.exp(chance.normal(0.0, 0.35, brightness.shape))
    fading = (settings.flying_height / targets.range) ** 2
    counts = settings.maximum * brightness * spread * targets.share * fading
    return np.clip(counts, 0.008 * settings.maximum, 0.7 * settings.maximum)


def _broadening(classification: npt.NDArray[np.uint8], chance: np.random.Generator) -> FloatArray:
    """Width of the echoes over that of the pulse: leaves at several depths spread the light."""
    leafy = np.where(classification == HIGH_VEGETATION, 0.25, 0.05)
    spread = np.where(classification == BUILDING, 0.0, leafy)
    return np.asarray(1.0 + spread * chance.random(classification.shape))
