"""A sequential fit for comparison: one Gaussian at a time, to what the others leave."""

from __future__ import annotations

import numpy as np

from accuracy.methods import Found, Ints, Samples
from accuracy.pulses import Floats

_MAX_ECHOES = 10
_MIN_SHARE = 0.1  # of the highest echo of the waveform; smaller ones are what a misfit leaves
_MIN_SCORE = 5.0  # noise rms
_STEPS = 12
_REACH = 3  # samples on either side of the maximum that are fitted
_FWHM_PER_SIGMA = float(np.sqrt(8.0 * np.log(2.0)))


def sequential_fit(samples: Samples, baseline: float, noise_rms: float, sigma: float) -> Found:
    """Echoes of all waveforms: Gaussians of free position, height and width.

    In each round, a Gaussian is fitted around the largest value of every waveform and subtracted,
    until no value exceeds 5 noise rms and a tenth of the highest echo. `sigma` is the standard
    deviation from which the fits start, samples.
    """
    left = samples.astype(np.float64) - baseline
    highest = np.zeros(len(left))
    active = np.arange(len(left))
    parts = []
    for _ in range(_MAX_ECHOES):
        height = left[active].max(axis=1)
        highest[active] = np.maximum(highest[active], height)
        active = active[height > np.maximum(_MIN_SCORE * noise_rms, _MIN_SHARE * highest[active])]
        if len(active) == 0:
            break
        echo = _fitted(left[active], sigma)
        left[active] -= _gaussian(np.arange(samples.shape[1], dtype=np.float64), echo)
        parts.append((active, echo))
    rows: Ints = np.concatenate([part[0] for part in parts])
    height, position, width = np.concatenate([part[1] for part in parts]).T
    unknown = np.full(len(rows), np.nan)
    return Found.sorted(rows, position, height, width * _FWHM_PER_SIGMA, unknown, unknown, unknown)


def _gaussian(x: Floats, echo: Floats) -> Floats:
    height, position, sigma = echo.T[:, :, np.newaxis]
    return np.asarray(height * np.exp(-0.5 * ((x - position) / sigma) ** 2))


def _fitted(values: Floats, sigma: float) -> Floats:
    """Height, position and standard deviation (n, 3) of the Gaussian around each maximum."""
    width = values.shape[1]
    top = np.clip(np.argmax(values, axis=1), _REACH, width - 1 - _REACH)
    x = top[:, np.newaxis] + np.arange(-_REACH, _REACH + 1)
    y = np.take_along_axis(values, x, axis=1)
    echo = np.column_stack([y.max(axis=1), top, np.full(len(values), sigma)])
    for _ in range(_STEPS):
        off = (x - echo[:, 1:2]) / echo[:, 2:]
        shape = np.exp(-0.5 * off**2)
        scale = echo[:, :1] / echo[:, 2:]
        slopes = np.stack([shape, scale * shape * off, scale * shape * off**2], axis=2)
        normal = slopes.transpose(0, 2, 1) @ slopes + 1e-9 * np.eye(3)
        right = slopes.transpose(0, 2, 1) @ (y - echo[:, :1] * shape)[:, :, np.newaxis]
        echo += np.clip(
            np.linalg.solve(normal, right)[:, :, 0], -0.5 * echo[:, :1], 0.5 * echo[:, :1]
        )
        echo[:, 1] = np.clip(echo[:, 1], top - 2.0, top + 2.0)
        echo[:, 2] = np.clip(echo[:, 2], 0.5 * sigma, 3.0 * sigma)
    return echo
