"""From echoes to digitised samples, in both channels, together with the truth about them."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
import numpy.typing as npt

from fullwaveform.data.arrays import BoolArray, FloatArray, IntArray
from fullwaveform.simulation.scene import (
    Echoes,
    Shots,
    build_scene,
    position_in_space,
)
from fullwaveform.simulation.settings import ScanSettings
from fullwaveform.simulation.truth import TruthTable

OVERLAP_WIDTHS = 4.0  # standard deviations; two echoes further apart leave each other's top alone
_REACH_WIDTHS = 9.0  # standard deviations; exp(-9**2 / 2) is 3e-18 of the top


@dataclass(frozen=True, slots=True)
class SimulatedScan:
    """Waveforms of a simulated flight line and the echoes they were made of."""

    settings: ScanSettings
    shots: Shots
    samples: npt.NDArray[np.uint16]  # (shots, 2, samples), counts; [:, 0] is the low-power channel
    truth: TruthTable


def simulate_scan(settings: ScanSettings) -> SimulatedScan:
    """A flight line as the scanner would record it; equal settings give equal scans."""
    for_scene, for_noise = np.random.SeedSequence(settings.seed).spawn(2)
    shots, echoes = build_scene(settings, np.random.default_rng(for_scene))
    signal = receive(echoes, len(shots), settings)
    samples = digitise(signal, settings, np.random.default_rng(for_noise))
    return SimulatedScan(settings, shots, samples, _truth(shots, echoes, signal, settings))


def receive(echoes: Echoes, shots: int, settings: ScanSettings) -> FloatArray:
    """Signal without noise and limit, (shots, 2, samples) in counts, baseline included."""
    low_power = sum_of_gaussians(echoes, (shots, settings.samples))
    return settings.baseline + np.stack([low_power, low_power / settings.gain_ratio], axis=1)


def digitise(
    signal: FloatArray, settings: ScanSettings, chance: np.random.Generator
) -> npt.NDArray[np.uint16]:
    """Samples of a signal: with white noise, rounded to counts, clipped at 0 and the maximum."""
    noisy = signal + chance.normal(0.0, settings.noise_rms, signal.shape)
    return np.clip(np.rint(noisy), 0, settings.maximum).astype(np.uint16)


def sum_of_gaussians(echoes: Echoes, shape: tuple[int, int]) -> FloatArray:
    """Sum of the echoes as Gaussians, (shots, samples) in counts of the low-power channel.

    Each echo is evaluated within nine of its standard deviations and inside its record.
    """
    if len(echoes) == 0:
        return np.zeros(shape)
    reach = int(np.ceil(_REACH_WIDTHS * echoes.width.max()))
    nearest = np.rint(echoes.position).astype(np.int64)
    sample = nearest[:, np.newaxis] + np.arange(-reach, reach + 1)
    off = (sample - echoes.position[:, np.newaxis]) / echoes.width[:, np.newaxis]
    value = echoes.amplitude[:, np.newaxis] * np.exp(-0.5 * off**2)
    inside = (sample >= 0) & (sample < shape[1])
    cell = echoes.shot[:, np.newaxis] * shape[1] + sample
    total = np.bincount(cell[inside], weights=value[inside], minlength=shape[0] * shape[1])
    return np.asarray(total.reshape(shape))


def neighbour_distance(shot: IntArray, position: FloatArray) -> FloatArray:
    """Samples to the nearest other echo of the shot, infinite where it is alone.

    The echoes are ordered by shot and position.
    """
    gap = np.where(np.diff(shot) == 0, np.diff(position), np.inf)
    padded = np.concatenate([[np.inf], gap, [np.inf]])
    nearest: FloatArray = np.minimum(padded[:-1], padded[1:])
    return nearest[: len(shot)]


def is_saturated(echoes: Echoes, signal: FloatArray, settings: ScanSettings) -> BoolArray:
    """Whether the low-power channel reaches its limit within one width of the echo's position."""
    clipped = signal[:, 0, :] >= settings.maximum
    before = np.pad(np.cumsum(clipped, axis=1), ((0, 0), (1, 0)))  # clipped samples before each
    first = np.ceil(echoes.position - echoes.width).astype(np.int64)
    last = np.floor(echoes.position + echoes.width).astype(np.int64)
    first, last = np.clip(first, 0, None), np.clip(last, None, settings.samples - 1)
    return np.asarray(before[echoes.shot, last + 1] > before[echoes.shot, first])


def _truth(shots: Shots, echoes: Echoes, signal: FloatArray, settings: ScanSettings) -> TruthTable:
    """The table of truth; echoes are numbered from 1 along the flight of light."""
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
        amplitude_low_power_counts=echoes.amplitude,
        amplitude_high_counts=echoes.amplitude / settings.gain_ratio,
        width_samples=echoes.width,
        neighbour_distance_samples=distance,
        overlapping=distance < OVERLAP_WIDTHS * echoes.width,
        saturated=is_saturated(echoes, signal, settings),
        classification=echoes.classification,
    )
