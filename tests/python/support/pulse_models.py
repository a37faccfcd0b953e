"""A known pulse model, and waveforms made with its pulse."""

from __future__ import annotations

from collections.abc import Sequence

import numpy as np
import numpy.typing as npt

from fullwaveform.core.pulse_fit import PulseModel

INTERVAL = 1e-9  # s
BASELINE = 20.0  # counts
NOISE_RMS = 1.0  # counts
FWHM = 4.0  # samples
SIGMA = FWHM / 2.354820045  # samples
STEP = 1.0 / 16.0


def gaussian_model(interval: float = INTERVAL) -> PulseModel:
    """The model of a Gaussian pulse of 4 samples at half maximum."""
    lags = np.arange(-12.0, 12.0 + STEP, STEP)
    return PulseModel(
        pulse=tuple(np.exp(-0.5 * (lags / SIGMA) ** 2).tolist()),
        first_lag=-12.0,
        lag_step=STEP,
        baseline=BASELINE,
        baseline_spread=0.5,
        noise_rms=NOISE_RMS,
        noise_correlation=1.0,
        scatter=0.0,
        variance_spread=0.05,
        widening=0.05,
        sampling_interval=interval,
    )


def waveform(
    length: int, echoes: Sequence[tuple[float, float]], limit: float = 65_535.0
) -> npt.NDArray[np.uint16]:
    """Samples of echoes (position, amplitude) on the baseline, without noise, in whole counts."""
    x = np.arange(length)
    values = np.full(length, BASELINE)
    for position, amplitude in echoes:
        values += amplitude * np.exp(-0.5 * ((x - position) / SIGMA) ** 2)
    samples: npt.NDArray[np.uint16] = np.rint(np.minimum(values, limit)).astype(np.uint16)
    return samples
