"""Mode 2 compared with a second implementation in NumPy, on random waveforms."""

from __future__ import annotations

import numpy as np
import numpy.typing as npt

from fullwaveform import Driver

from ..system_wave import richardson_lucy as plain
from .test_modes import BASELINE, INTERVAL, SYSTEM_WAVE, WIDTH, scanner, scene

WAVEFORMS = 1500
THRESHOLD = BASELINE + 5  # counts

# If a maximum is within rounding of an integer, the order of a sum decides whether it is truncated
# to that integer or the one below, and so which of two neighbours is the maximum.
MAX_ROUNDING_CASES = 0.01  # of the waveforms


def random_waveforms() -> tuple[npt.NDArray[np.uint16], npt.NDArray[np.int64]]:
    """Samples and lengths of waveforms with four pulses of random amplitude, and noise."""
    rng = np.random.default_rng(3)
    starts = rng.uniform(5, 75, (WAVEFORMS, 4))
    amplitudes = rng.uniform(0, 1, (WAVEFORMS, 4)) ** 2 * 900
    noisy = scene(starts, amplitudes) + rng.normal(0, 2, (WAVEFORMS, WIDTH))
    samples = np.clip(np.rint(noisy), 0, 4095).astype(np.uint16)
    return samples, rng.integers(40, WIDTH + 1, WAVEFORMS)


def plain_echoes(
    waveform: npt.NDArray[np.uint16], kernel: plain.FloatArray
) -> list[tuple[float, float]]:
    """Echoes that the driver keeps: inside the range of the signal, with a valid amplitude."""
    samples = waveform.astype(np.float64)
    signal_range = plain.signal_range(samples, THRESHOLD)
    if signal_range is None or samples[1:-1].max() <= THRESHOLD:
        return []
    return [
        (position, amplitude)
        for position, amplitude in plain.echoes(samples, THRESHOLD, kernel)
        if signal_range[0] <= position <= signal_range[1] and THRESHOLD <= amplitude <= 4096
    ]


def test_deconvolution_agrees_with_numpy() -> None:
    samples, counts = random_waveforms()
    kernel = plain.system_wave(
        np.array(SYSTEM_WAVE["a_real"]) + 1j * np.array(SYSTEM_WAVE["a_imag"]),
        np.array(SYSTEM_WAVE["b_real"]) + 1j * np.array(SYSTEM_WAVE["b_imag"]),
        INTERVAL,
    )
    driver = Driver(2, scanner(), longest_waveform=WIDTH)
    peaks = driver.apply(samples, counts, threshold=THRESHOLD).peaks
    different = 0
    for row in range(WAVEFORMS):
        own = peaks["row"] == row
        found = np.stack([peaks["idx"][own], peaks["amplitudeCounts"][own]], axis=1)
        expected = np.array(plain_echoes(samples[row, : counts[row]], kernel)).reshape(-1, 2)
        different += found.shape != expected.shape or bool(
            np.any(np.abs(found - expected) > [1e-6, 1.0])
        )
    assert peaks.rows > WAVEFORMS
    assert different <= MAX_ROUNDING_CASES * WAVEFORMS
