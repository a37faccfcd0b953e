"""Pulses of a known shape, sampled at any phase."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import numpy.typing as npt

from fullwaveform.system_wave import Pulses, pulses_of_rows

FloatArray = npt.NDArray[np.float64]

INTERVAL = 1e-9  # s
MAXIMUM_AT = 5.0  # samples from the start of the shape to its maximum


def shape(position: npt.ArrayLike) -> FloatArray:
    """A skewed pulse, maximum 1 at 0, with a bump of 5 % ten samples after it.

    (1 + x / 5)^p exp(-p x / 5) has its maximum at 0 for every p; p = 6 makes it 4.9 samples wide
    at half its height, and steeper before the maximum than after it.
    """
    x = np.asarray(position, dtype=np.float64)
    rising = np.maximum(1.0 + x / MAXIMUM_AT, 0.0)
    pulse = rising**6 * np.exp(-6.0 * x / MAXIMUM_AT)
    return np.asarray(pulse + 0.05 * np.exp(-0.5 * ((x - 15.0) / 1.5) ** 2))


def sampled(
    positions: FloatArray,
    amplitude: npt.ArrayLike = 150.0,
    baseline: npt.ArrayLike = 3.0,
    width: int = 60,
) -> FloatArray:
    """One row per pulse, counts without rounding."""
    x = np.arange(width) - positions[:, np.newaxis]
    height, level = np.atleast_1d(amplitude), np.atleast_1d(baseline)
    return np.asarray(level[:, np.newaxis] + height[:, np.newaxis] * shape(x))


def recorded(count: int, noise: float, seed: int = 1) -> tuple[FloatArray, FloatArray]:
    """Rows in integer counts at random phases, heights and baselines, and their positions."""
    rng = np.random.default_rng(seed)
    positions = 20.0 + rng.uniform(-0.5, 0.5, count)
    rows = sampled(positions, rng.uniform(80.0, 200.0, count), rng.uniform(2.0, 4.0, count))
    return np.rint(rows + rng.normal(0.0, noise, rows.shape)), positions


def pulses(rows: FloatArray) -> Pulses:
    """The rows as pulses."""
    return pulses_of_rows(rows, None, INTERVAL, "constructed pulses")


def echo_samples(count: int, seed: int = 2) -> npt.NDArray[np.uint16]:
    """Waveforms with one echo each."""
    rows, _ = recorded(count, 0.5, seed)
    return np.maximum(rows, 0.0).astype(np.uint16)


def nist(name: str) -> tuple[FloatArray, FloatArray]:
    """Data (y and x) and certified values (with standard deviations) of a reference set."""
    path = Path(__file__).resolve().parents[2] / "truth" / "nist" / f"{name}.dat"
    lines = path.read_text(encoding="ascii").splitlines()
    data = np.array([line.split() for line in lines[60:84]], dtype=np.float64)
    table = [line.partition("=")[2].split() for line in lines[40:46]]
    return data, np.array(table, dtype=np.float64)[:, 2:]
