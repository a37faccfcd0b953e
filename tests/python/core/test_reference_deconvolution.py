"""Mode 2 against the published iteration written down plainly, over random records."""

from __future__ import annotations

import numpy as np
import numpy.typing as npt

from fullwaveform import Driver

from ..system_wave import richardson_lucy as plain
from .test_modes import BASELINE, INTERVAL, SYSTEM_WAVE, WIDTH, scanner, scene

RECORDS = 1500
NOISE = BASELINE + 5  # counts

# Where a maximum falls within rounding of a whole count, the order of a sum decides whether it is
# truncated to that count or the one below, and with it which of two neighbours is the maximum.
DECIDED_BY_ROUNDING = 0.01  # of the records


def records() -> tuple[npt.NDArray[np.uint16], npt.NDArray[np.int64]]:
    """Four pulses of random height in noise, cut to random lengths."""
    chance = np.random.default_rng(3)
    begins = chance.uniform(5, 75, (RECORDS, 4))
    heights = chance.uniform(0, 1, (RECORDS, 4)) ** 2 * 900
    noisy = scene(begins, heights) + chance.normal(0, 2, (RECORDS, WIDTH))
    samples = np.clip(np.rint(noisy), 0, 4095).astype(np.uint16)
    return samples, chance.integers(40, WIDTH + 1, RECORDS)


def plain_echoes(
    record: npt.NDArray[np.uint16], kernel: plain.FloatArray
) -> list[tuple[float, float]]:
    """Echoes that the driver would keep: inside the range of the signal, of possible amplitude."""
    samples = record.astype(np.float64)
    stretch = plain.signal_range(samples, NOISE)
    if stretch is None or samples[1:-1].max() <= NOISE:
        return []
    return [
        (position, amplitude)
        for position, amplitude in plain.echoes(samples, NOISE, kernel)
        if stretch[0] <= position <= stretch[1] and NOISE <= amplitude <= 4096
    ]


def test_deconvolution_agrees_with_the_plain_iteration() -> None:
    samples, counts = records()
    kernel = plain.system_wave(
        np.array(SYSTEM_WAVE["a_real"]) + 1j * np.array(SYSTEM_WAVE["a_imag"]),
        np.array(SYSTEM_WAVE["b_real"]) + 1j * np.array(SYSTEM_WAVE["b_imag"]),
        INTERVAL,
    )
    driver = Driver(2, scanner(), longest_waveform=WIDTH)
    peaks = driver.apply(samples, counts, threshold=NOISE).peaks
    different = 0
    for row in range(RECORDS):
        mine = peaks["row"] == row
        found = np.stack([peaks["idx"][mine], peaks["amplitudeCounts"][mine]], axis=1)
        expected = np.array(plain_echoes(samples[row, : counts[row]], kernel)).reshape(-1, 2)
        different += found.shape != expected.shape or bool(
            np.any(np.abs(found - expected) > [1e-6, 1.0])
        )
    assert peaks.rows > RECORDS
    assert different <= DECIDED_BY_ROUNDING * RECORDS
