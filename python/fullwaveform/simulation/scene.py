"""A flight line over sloping ground with houses and trees: its shots and their echoes."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from fullwaveform.data.arrays import FloatArray, IntArray, UInt8Array
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
    """Geometry of the shots, ascending by time."""

    gps_time: FloatArray  # s, ascending and distinct
    origin: FloatArray  # (n, 3), m: the scanner
    direction: FloatArray  # (n, 3), unit vector along the flight of light
    waveform_start: FloatArray  # m of range from the scanner to the first sample
    scan_angle: FloatArray  # degrees, positive to the right
    scan_direction_flag: UInt8Array  # 1 while sweeping from left to right
    edge_of_flight_line: UInt8Array  # 1 for the last shot of a sweep

    def __len__(self) -> int:
        return len(self.gps_time)


@dataclass(frozen=True, slots=True)
class Echoes:
    """Echoes by shot, nearest first."""

    shot: IntArray  # row of the shot
    position: FloatArray  # samples
    amplitude: FloatArray  # counts above the baseline of the low-power channel, before clipping
    width: FloatArray  # samples, standard deviation
    classification: UInt8Array  # ASPRS class

    def __len__(self) -> int:
        return len(self.shot)


def build_scene(settings: ScanSettings, rng: np.random.Generator) -> tuple[Shots, Echoes]:
    """The shots of one flight line and their echoes.

    `settings.empty_fraction` of the shots have no echo; their waveforms are recorded at the range
    of the echoes that they would have.
    """
    angle, direction_flag, edge = _sweep(settings)
    time = np.arange(settings.shots) / settings.pulse_rate
    beams = Beams(settings.speed * time, np.tan(np.radians(angle)), settings.flying_height)
    targets = reflect(beams, angle, rng)
    empty, saturated, paired = _special_shots(settings, rng)
    targets = _with_close_pairs(targets, paired, settings, rng)
    first = np.nanmin(targets.range, axis=1)
    lead = settings.lead_in + rng.random(settings.shots)
    waveform_start = first - lead * settings.range_per_sample
    echoes = _echoes(targets, waveform_start, empty, saturated, settings, rng)
    origin, direction = _in_map_frame(beams, settings)
    shots = Shots(
        gps_time=settings.start_time + time,
        origin=origin,
        direction=direction,
        waveform_start=waveform_start,
        scan_angle=angle,
        scan_direction_flag=direction_flag,
        edge_of_flight_line=edge,
    )
    return shots, echoes


def position_in_space(
    shots: Shots, shot: IntArray, position: FloatArray, step: float
) -> FloatArray:
    """Points (m, 3) at fractional sample positions of the given shots; `step` is m per sample."""
    distance = shots.waveform_start[shot] + position * step
    return np.asarray(shots.origin[shot] + distance[:, np.newaxis] * shots.direction[shot])


def _sweep(
    settings: ScanSettings,
) -> tuple[FloatArray, UInt8Array, UInt8Array]:
    """Scan angle in degrees, direction flag and edge flag of an oscillating mirror."""
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
    settings: ScanSettings, rng: np.random.Generator
) -> tuple[IntArray, IntArray, IntArray]:
    """Shots without echoes, with a saturated echo, and with a close pair."""
    order = rng.permutation(settings.shots)
    shares = (settings.empty_fraction, settings.saturated_fraction, settings.close_pair_fraction)
    ends = np.floor(np.cumsum(shares) * settings.shots + 0.5).astype(np.int64)
    empty, saturated, paired, _ = np.split(order, ends)
    return empty, saturated, paired


def _with_close_pairs(
    targets: Targets, paired: IntArray, settings: ScanSettings, rng: np.random.Generator
) -> Targets:
    """The targets with a second one close above the first of the given shots.

    A shrub above the ground, a twig above a crown, a chimney above a roof; it takes 40 % of the
    light.
    """
    rows = len(targets.range)
    nearest = np.nanargmin(targets.range, axis=1)
    first = np.take_along_axis(targets.range, nearest[:, np.newaxis], axis=1)[:, 0]
    below = np.take_along_axis(targets.classification, nearest[:, np.newaxis], axis=1)[:, 0]
    above = np.full(rows, np.nan)
    separation = rng.uniform(1.2, 2.0, len(paired)) * settings.pulse_width
    above[paired] = first[paired] - separation * settings.range_per_sample
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
    waveform_start: FloatArray,
    empty: IntArray,
    saturated: IntArray,
    settings: ScanSettings,
    rng: np.random.Generator,
) -> Echoes:
    """The targets inside the waveforms, sorted by shot and position."""
    position = (targets.range - waveform_start[:, np.newaxis]) / settings.range_per_sample
    position[empty] = np.nan
    kept = position <= settings.last_position  # false for NaN
    amplitude = _amplitudes(targets, settings, rng)
    width = settings.pulse_width * _broadening(targets.classification, rng)
    last = np.argmax(np.where(kept, position, -np.inf), axis=1)[saturated]
    beyond = rng.uniform(1.3, max(1.4, 0.6 * settings.gain_ratio), len(saturated))
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


def _amplitudes(targets: Targets, settings: ScanSettings, rng: np.random.Generator) -> FloatArray:
    """Counts of the low-power channel: reflectance, share of light, and inverse square of range."""
    reflectance = np.where(targets.classification == BUILDING, 0.42, 0.30)
    spread = np.exp(rng.normal(0.0, 0.35, reflectance.shape))
    attenuation = (settings.flying_height / targets.range) ** 2
    counts = settings.maximum * reflectance * spread * targets.share * attenuation
    return np.clip(counts, 0.008 * settings.maximum, 0.7 * settings.maximum)


def _broadening(classification: UInt8Array, rng: np.random.Generator) -> FloatArray:
    """Width of the echoes as a multiple of the pulse width; foliage broadens them."""
    leafy = np.where(classification == HIGH_VEGETATION, 0.25, 0.05)
    spread = np.where(classification == BUILDING, 0.0, leafy)
    return np.asarray(1.0 + spread * rng.random(classification.shape))
