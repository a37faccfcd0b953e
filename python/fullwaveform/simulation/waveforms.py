"""Digitised samples of simulated echoes in both channels, and the true echoes."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from fullwaveform.data.arrays import BoolArray, FloatArray, IntArray, UInt16Array
from fullwaveform.simulation.scene import (
    Echoes,
    Shots,
    build_scene,
    position_in_space,
)
from fullwaveform.simulation.settings import ScanSettings
from fullwaveform.simulation.truth import TruthTable

OVERLAP_WIDTHS = 4.0  # standard deviations; more distant echoes do not change each other's maximum
_MAX_DISTANCE_WIDTHS = 9.0  # standard deviations; exp(-9**2 / 2) is 3e-18 of the maximum


@dataclass(frozen=True, slots=True)
class SimulatedScan:
    """Waveforms of a simulated flight line and their true echoes."""

    settings: ScanSettings
    shots: Shots
    samples: UInt16Array  # (shots, 2, samples), counts; [:, 0] is the low-power channel
    truth: TruthTable


def simulate_scan(settings: ScanSettings) -> SimulatedScan:
    """Simulate a flight line; equal settings give equal scans."""
    for_scene, for_noise = np.random.SeedSequence(settings.seed).spawn(2)
    shots, echoes = build_scene(settings, np.random.default_rng(for_scene))
    signal = receive(echoes, len(shots), settings)
    samples = digitise(signal, settings, np.random.default_rng(for_noise))
    return SimulatedScan(settings, shots, samples, _truth(shots, echoes, signal, settings))


def receive(echoes: Echoes, shots: int, settings: ScanSettings) -> FloatArray:
    """Signal with baseline, without noise and clipping, (shots, 2, samples) in counts."""
    low_power = sum_of_gaussians(echoes, (shots, settings.samples))
    return settings.baseline + np.stack([low_power, low_power / settings.gain_ratio], axis=1)


def digitise(signal: FloatArray, settings: ScanSettings, rng: np.random.Generator) -> UInt16Array:
    """Samples of a signal: with white noise, rounded, clipped at 0 and the maximum."""
    noisy = signal + rng.normal(0.0, settings.noise_rms, signal.shape)
    return np.clip(np.rint(noisy), 0, settings.maximum).astype(np.uint16)


def sum_of_gaussians(echoes: Echoes, shape: tuple[int, int]) -> FloatArray:
    """Sum of the echoes as Gaussians, (shots, samples) in counts of the low-power channel.

    Each echo is evaluated within nine of its standard deviations, inside the waveform.
    """
    if len(echoes) == 0:
        return np.zeros(shape)
    distance = int(np.ceil(_MAX_DISTANCE_WIDTHS * echoes.width.max()))
    nearest = np.rint(echoes.position).astype(np.int64)
    sample = nearest[:, np.newaxis] + np.arange(-distance, distance + 1)
    off = (sample - echoes.position[:, np.newaxis]) / echoes.width[:, np.newaxis]
    value = echoes.amplitude[:, np.newaxis] * np.exp(-0.5 * off**2)
    inside = (sample >= 0) & (sample < shape[1])
    cell = echoes.shot[:, np.newaxis] * shape[1] + sample
    total = np.bincount(cell[inside], weights=value[inside], minlength=shape[0] * shape[1])
    return np.asarray(total.reshape(shape))


def neighbour_distance(shot: IntArray, position: FloatArray) -> FloatArray:
    """Samples to the nearest other echo of the shot, infinite if there is none.

    The echoes must be sorted by shot and position.
    """
    gap = np.where(np.diff(shot) == 0, np.diff(position), np.inf)
    padded = np.concatenate([[np.inf], gap, [np.inf]])
    nearest: FloatArray = np.minimum(padded[:-1], padded[1:])
    return nearest[: len(shot)]


def is_saturated(echoes: Echoes, signal: FloatArray, settings: ScanSettings) -> BoolArray:
    """Whether the low-power channel is clipped within one width of the echo."""
    clipped = signal[:, 0, :] >= settings.maximum
    before = np.pad(np.cumsum(clipped, axis=1), ((0, 0), (1, 0)))  # clipped samples before each
    first = np.ceil(echoes.position - echoes.width).astype(np.int64)
    last = np.floor(echoes.position + echoes.width).astype(np.int64)
    first, last = np.clip(first, 0, None), np.clip(last, None, settings.samples - 1)
    return np.asarray(before[echoes.shot, last + 1] > before[echoes.shot, first])


def _truth(shots: Shots, echoes: Echoes, signal: FloatArray, settings: ScanSettings) -> TruthTable:
    """The true echoes, numbered from 1 along the flight of light."""
    first_of_shot = np.searchsorted(echoes.shot, echoes.shot, side="left")
    distance = neighbour_distance(echoes.shot, echoes.position)
    points = position_in_space(shots, echoes.shot, echoes.position, settings.range_per_sample)
    return TruthTable(
        shot=echoes.shot,
        gps_time=shots.gps_time[echoes.shot],
        echo_number=np.arange(len(echoes)) - first_of_shot + 1,
        time_in_record_ns=echoes.position * settings.sampling_interval * 1e9,
        position_samples=echoes.position,
        x=points[:, 0],
        y=points[:, 1],
        z=points[:, 2],
        amplitude_low_power=echoes.amplitude,
        amplitude_high_power=echoes.amplitude / settings.gain_ratio,
        sigma_samples=echoes.width,
        neighbour_distance_samples=distance,
        overlapping=distance < OVERLAP_WIDTHS * echoes.width,
        saturated=is_saturated(echoes, signal, settings),
        classification=echoes.classification,
    )
