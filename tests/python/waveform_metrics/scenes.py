"""Blocks of waveforms whose metrics are known."""

from __future__ import annotations

from dataclasses import replace

import numpy as np
import numpy.typing as npt

from fullwaveform.data.blocks import PulseGeometry, RecordedNoise, WaveformBlock

from ..support.waveform_blocks import block

BASELINE = 100
#: Metres between the heights of two samples of 1 ns.
STEP = 0.15


def noisy(
    samples: npt.ArrayLike, counts: npt.ArrayLike | None = None, rms: float = 1.0
) -> WaveformBlock:
    """Waveforms on a baseline of 100 counts, whose first samples are 200 m high at (10, 20)."""
    plain = block(np.asarray(samples), counts=counts)
    rows = len(plain)
    geometry = PulseGeometry(
        np.tile([10.0, 20.0, 200.0], (rows, 1)),
        np.zeros(rows),
        np.tile([0.0, 0.0, STEP / 1000.0], (rows, 1)),
    )
    noise = RecordedNoise(np.full(rows, float(BASELINE)), np.full(rows, rms))
    return replace(plain, geometry=geometry, noise=noise)


def gaussians(width: int, *parts: tuple[float, float, float]) -> npt.NDArray[np.float64]:
    """Counts (1, width) of a sum of Gaussians (amplitude, place, standard deviation)."""
    x = np.arange(width)
    signal = sum(a * np.exp(-0.5 * ((x - place) / sigma) ** 2) for a, place, sigma in parts)
    return np.rint(BASELINE + np.asarray(signal))[np.newaxis, :]
