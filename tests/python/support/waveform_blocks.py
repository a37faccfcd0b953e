"""Blocks of waveforms from rows of samples."""

from __future__ import annotations

import numpy as np
import numpy.typing as npt

from fullwaveform.data.blocks import OutgoingPulses, PulseGeometry, ShotAttributes, WaveformBlock


def block(
    samples: npt.ArrayLike,
    flags: npt.ArrayLike = 1,
    descriptors: npt.ArrayLike = 0,
    intervals: npt.ArrayLike = 1e-9,
    counts: npt.ArrayLike | None = None,
    outgoing: OutgoingPulses | None = None,
) -> WaveformBlock:
    """One waveform per row and shot."""
    values = np.asarray(samples)
    rows, width = values.shape
    nothing, byte = np.zeros(rows), np.zeros(rows, np.uint8)
    return WaveformBlock(
        samples=values.astype(np.uint16),
        counts=np.broadcast_to(
            np.asarray(width if counts is None else counts, np.uint16), (rows,)
        ).copy(),
        shot_times=np.arange(rows, dtype=float),
        sbl_times=nothing,
        channel_flags=np.broadcast_to(np.asarray(flags, np.uint8), (rows,)),
        sampling_intervals=np.broadcast_to(np.asarray(intervals, float), (rows,)).copy(),
        geometry=PulseGeometry(np.zeros((rows, 3)), nothing, np.zeros((rows, 3))),
        attributes=ShotAttributes(
            nothing, nothing.astype(np.float32), byte, byte, byte, byte.astype(np.uint16)
        ),
        waveform_numbers=np.arange(rows),
        descriptors=np.broadcast_to(np.asarray(descriptors, np.uint8), (rows,)),
        outgoing=outgoing,
    )
