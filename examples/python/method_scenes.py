"""Waveforms with known echoes, and their extraction by every method, for pages and figures.

An echo is a Gaussian of 1.6 samples standard deviation, 3.8 samples wide at half its height, on a
baseline of 12 counts, with white noise, rounded to counts and clipped at the digitiser's limit.
"""

from __future__ import annotations

from collections.abc import Mapping
from dataclasses import dataclass
from functools import cache
from typing import Any

import numpy as np
import numpy.typing as npt

from fullwaveform import Driver, Mode, Scanner
from fullwaveform.core.constants import EchoType
from fullwaveform.extraction.refine import refined_peaks
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
    amplitude: FloatArray  # counts
    width: FloatArray  # samples, NaN for deconvolved echoes


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
    """The finite echoes of waveforms (n, length) above a threshold in counts, as in a table."""
    found = _finite_peaks(mode, samples, level, channel)
    peaks = refined_peaks(
        found,
        np.full(len(samples), float(level)),
        samples,
        np.full(len(samples), samples.shape[1], np.uint16),
        np.full(len(samples), BASELINE),
        scanner()[0],
    )
    return Echoes(peaks["row"], _position(peaks), peaks["height"], peaks["std"])


def of_library(mode: Mode, samples: npt.NDArray[np.uint16], level: int) -> Echoes:
    """The same echoes with the amplitudes and widths of the library's methods, not refined."""
    peaks = _finite_peaks(mode, samples, level, 1)
    amplitude = peaks["amplitudeCounts"].astype(np.float64)
    return Echoes(peaks["row"], _position(peaks), amplitude, peaks["std"])


def _finite_peaks(
    mode: Mode, samples: npt.NDArray[np.uint16], level: int, channel: int
) -> dict[str, npt.NDArray[Any]]:
    driver = Driver(mode, scanner()[0], longest_waveform=samples.shape[1])
    flags = np.full(len(samples), channel, np.uint8)
    peaks = driver.apply(samples, channel_flags=flags, threshold=level).peaks
    finite = np.isfinite(peaks["idx"]) & np.isfinite(peaks["std"])
    finite &= np.isfinite(peaks["amplitudeCounts"])
    return {name: column[finite] for name, column in peaks.items()}


def _position(peaks: Mapping[str, npt.NDArray[Any]]) -> FloatArray:
    """Deconvolved echoes are moved as `extract` moves them."""
    is_deconvolved = peaks["type"] == EchoType.RICHARDSON_LUCY
    return np.asarray(peaks["idx"] - np.where(is_deconvolved, scanner()[1], 0.0))
