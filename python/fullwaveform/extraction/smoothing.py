"""Smoothing of waveforms whose echoes are much broader than a sample."""

from __future__ import annotations

from dataclasses import replace

import numpy as np

from fullwaveform.data.blocks import WaveformBlock

#: Longest standard deviation, s; a millisecond would be the whole waveform.
MAX_SMOOTHING = 1e-6


def checked_smoothing(seconds: float) -> float:
    """The standard deviation in s; ValueError if it is invalid."""
    if not 0.0 <= seconds <= MAX_SMOOTHING:  # also false for NaN
        raise ValueError(f"smoothing {seconds!r} must be 0 to {MAX_SMOOTHING:g} s")
    return float(seconds)


def smoothed(block: WaveformBlock, seconds: float) -> WaveformBlock:
    """The block with samples convolved with a Gaussian, rounded to whole counts.

    With the standard deviation of the outgoing pulse the convolution is its matched filter, of all
    filters the one with the best signal-to-noise ratio of the maxima in white noise (G. L. Turin,
    An introduction to matched filters, IRE Trans. Inf. Theory 6, 1960). First and last sample
    continue beyond the ends. A waveform does not depend on the others of its block.

    Parameters
    ----------
    seconds : standard deviation of the Gaussian, s; 0 leaves the block as it is
    """
    if seconds == 0.0 or len(block) == 0:
        return block
    from scipy.ndimage import gaussian_filter1d  # takes longer to load than most runs of a command

    samples = block.samples.copy()
    kinds = np.column_stack([block.counts, block.sampling_intervals])
    for count, interval in np.unique(kinds[block.counts > 0], axis=0):
        rows = np.flatnonzero((kinds == (count, interval)).all(axis=1))
        valid = samples[rows, : int(count)].astype(np.float64)
        even = gaussian_filter1d(valid, seconds / interval, axis=1, mode="nearest")
        samples[rows, : int(count)] = np.rint(even)
    return replace(block, samples=samples)
