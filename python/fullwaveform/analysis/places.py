"""Where the first and last samples of waveforms lie in space."""

from __future__ import annotations

import numpy as np

from fullwaveform.data.arrays import FloatArray
from fullwaveform.data.blocks import WaveformBlock

_PICOSECONDS = 1e12  # per s


def ends_of(block: WaveformBlock) -> tuple[FloatArray, FloatArray]:
    """Places (n, 3) of first and last samples, in coordinate units; NaN where they are unknown."""
    geometry = block.geometry
    lasting = (block.counts.astype(np.float64) - 1.0) * block.sampling_intervals * _PICOSECONDS
    with np.errstate(over="ignore", invalid="ignore"):  # directions of damaged files
        first = geometry.anchor + geometry.location[:, np.newaxis] * geometry.direction
        return first, first - lasting[:, np.newaxis] * geometry.direction
