"""Waveforms of a scanner whose pulse is known, with isolated echoes."""

from __future__ import annotations

import numpy as np
import numpy.typing as npt

Values = npt.NDArray[np.float64]

SAMPLES = 100
SIGMA = 1.8  # samples
BASELINE, NOISE_RMS = 21.3, 1.2  # counts


def ringing(lag: Values, variance: npt.ArrayLike = 0.0) -> Values:
    """A Gaussian, and 6 % of it, twice as wide, nine samples later; convolved with Gaussians."""
    added = np.asarray(variance)
    total = np.zeros(np.broadcast_shapes(lag.shape, added.shape))
    for share, place, width in ((1.0, 0.0, SIGMA), (0.06, 9.0, 2.0 * SIGMA)):
        square = width**2 + added
        total += share * width / np.sqrt(square) * np.exp(-((lag - place) ** 2) / (2.0 * square))
    return total


def pulse(lag: Values) -> Values:
    """The ringing pulse with maximum 1 at lag 0; its second part moves the maximum a little."""
    fine = np.linspace(-0.05, 0.05, 100_001)
    top = fine[np.argmax(ringing(fine))]
    return np.asarray(ringing(lag + top) / ringing(np.array(top)))


def echoes(
    count: int,
    *,
    seed: int = 1,
    widening: float = 0.0,
    scatter: float = 0.0,
    noise_rms: float = NOISE_RMS,
    amplitudes: tuple[float, float] = (300.0, 3000.0),
) -> npt.NDArray[np.uint16]:
    """Rows with one echo each, at any phase, of any amplitude, rounded to counts.

    `widening` is the mean of the variances that are added, exponentially distributed; `scatter` the
    rms of independent errors of the samples of a pulse, as a share of its amplitude.
    """
    rng = np.random.default_rng(seed)
    position = rng.uniform(30.0, 45.0, (count, 1))
    amplitude = np.exp(rng.uniform(*np.log(amplitudes), (count, 1)))
    variance = widening * rng.exponential(1.0, (count, 1))
    lag = np.arange(SAMPLES) - position
    shape = ringing(lag, variance)
    shape += scatter * rng.normal(0.0, 1.0, lag.shape) * (shape > 0.01)
    level = BASELINE + rng.normal(0.0, noise_rms, lag.shape) if noise_rms else BASELINE
    return np.clip(np.rint(level + amplitude * shape), 0, 65_535).astype(np.uint16)
