"""Waveforms with known echoes, and their extraction by every method, for pages and figures.

An echo is a Gaussian of 1.6 samples standard deviation, 3.8 samples wide at half its height, on a
baseline of 12 counts, with white noise, rounded to counts and clipped at the digitiser's limit.
"""

from __future__ import annotations

from dataclasses import dataclass
from functools import cache

import numpy as np
import numpy.typing as npt

from fullwaveform import Driver, Mode, Scanner
from fullwaveform.core.constants import EchoType
from fullwaveform.system_wave import (
    average,
    fit_system_wave,
    offset_of_simulated_echoes,
    pulses_of_rows,
    with_system_wave,
)

FloatArray = npt.NDArray[np.float64]

INTERVAL = 1e-9  # s
PULSE_WIDTH = 1.6  # samples, standard deviation
BASELINE = 12.0  # counts
LIMIT = 4000  # counts, where the digitiser clips


@dataclass(frozen=True)
class Echoes:
    """Echoes of many waveforms, one entry each."""

    row: npt.NDArray[np.int64]
    position: FloatArray  # samples
    amplitude: FloatArray  # counts, as the method gives it
    width: FloatArray  # samples


def clean(positions: npt.ArrayLike, amplitudes: npt.ArrayLike, length: int = 90) -> FloatArray:
    """Signal of (n, k) echoes above the baseline, (n, length) in counts, not rounded."""
    off = np.arange(length) - np.asarray(positions, dtype=np.float64)[:, :, np.newaxis]
    height = np.asarray(amplitudes, dtype=np.float64)[:, :, np.newaxis]
    return np.asarray(np.sum(height * np.exp(-0.5 * (off / PULSE_WIDTH) ** 2), axis=1))


def recorded(signal: FloatArray, noise_rms: float, seed: int = 1) -> npt.NDArray[np.uint16]:
    """The signal as digitised."""
    noise = np.random.default_rng(seed).normal(0.0, noise_rms, signal.shape)
    return np.clip(np.rint(BASELINE + signal + noise), 0, LIMIT).astype(np.uint16)


@cache
def scanner() -> tuple[Scanner, float]:
    """A scanner whose system wave is estimated from 400 recorded pulses, and its offset in samples.

    The same as `fullwaveform system-wave` does with a file of these pulses.
    """
    phase = np.random.default_rng(7).uniform(-0.5, 0.5, (400, 1))
    rows = recorded(clean(25.0 + phase, np.full((400, 1), 2000.0), 60), 1.5, seed=8)
    pulse = average(pulses_of_rows(rows, None, INTERVAL, "pulses of the pages"))
    wave = fit_system_wave(pulse)
    complete = with_system_wave(Scanner.default(), wave.in_seconds(), INTERVAL)
    return complete, offset_of_simulated_echoes(complete, pulse).position


def extracted(mode: Mode, samples: npt.NDArray[np.uint16], level: int, channel: int = 1) -> Echoes:
    """The finite echoes of waveforms (n, length) above a threshold in counts."""
    description, offset = scanner()
    driver = Driver(mode, description, longest_waveform=samples.shape[1])
    flags = np.full(len(samples), channel, np.uint8)
    peaks = driver.apply(samples, channel_flags=flags, threshold=level).peaks
    # Deconvolved echoes are moved as `extract` moves them.
    position = peaks["idx"] - np.where(peaks["type"] == EchoType.RICHARDSON_LUCY, offset, 0.0)
    finite = np.isfinite(position) & np.isfinite(peaks["std"])
    finite &= np.isfinite(peaks["amplitudeCounts"])
    columns = (peaks["row"], position, peaks["amplitudeCounts"], peaks["std"])
    row, position, amplitude, width = (column[finite] for column in columns)
    return Echoes(row.astype(np.int64), position, amplitude.astype(np.float64), width)
