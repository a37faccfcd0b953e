"""Baseline and noise rms of each waveform, as recorded in the file or measured."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from fullwaveform.calibration.calibration import Calibration
from fullwaveform.calibration.levels import ChannelLevels
from fullwaveform.core.constants import MAX_COUNT
from fullwaveform.data.arrays import BoolArray, FloatArray, UInt16Array
from fullwaveform.data.blocks import WaveformBlock

_MAX_DISTANCE = 3.0  # noise rms of a quiet sample from the baseline
_MIN_DISTANCE = 1.0  # counts
_ROUNDS = 3


@dataclass(frozen=True, slots=True)
class NoiseLevels:
    """Levels of waveforms, one entry per waveform; NaN where unknown."""

    baseline: FloatArray  # counts
    rms: FloatArray  # counts
    recorded: BoolArray  # whether both are those of the file


def noise_levels(block: WaveformBlock, calibration: Calibration) -> NoiseLevels:
    """Levels of the waveforms of a block.

    What the file does not record is measured: the noise rms of the receiver, in the calibration,
    and as baseline the mean of the samples within three noise rms of that of the receiver.
    """
    baseline, rms = np.full(len(block), np.nan), np.full(len(block), np.nan)
    if block.noise is not None:
        baseline[:], rms[:] = block.noise.mean, block.noise.rms
    # Values that no sample can have are damaged; comparisons with NaN are false.
    baseline[~((baseline >= 0.0) & (baseline <= MAX_COUNT))] = np.nan
    valid_rms = (rms > 0.0) & (rms <= MAX_COUNT)
    recorded = np.isfinite(baseline) & valid_rms
    receivers = np.column_stack([block.channel_flags, block.descriptors])
    missing = ~recorded
    for flag, descriptor in np.unique(receivers[missing], axis=0).tolist():
        level = calibration.levels_of(flag, descriptor)
        if level is None:
            continue
        rows = np.flatnonzero(missing & (receivers == (flag, descriptor)).all(axis=1))
        rms[rows] = np.where(valid_rms[rows], rms[rows], level.effective_rms)
        own = np.isfinite(baseline[rows])
        measured = _own_baselines(block.samples[rows], block.counts[rows], level)
        baseline[rows] = np.where(own, baseline[rows], measured)
    return NoiseLevels(baseline, rms, recorded)


def _own_baselines(samples: UInt16Array, counts: UInt16Array, level: ChannelLevels) -> FloatArray:
    valid = np.arange(samples.shape[1]) < counts[:, np.newaxis]
    values = samples.astype(np.float32)
    baseline = np.full(len(samples), level.baseline)
    spread = float(np.hypot(level.effective_rms, level.baseline_spread))
    for deviation in (spread, *[level.effective_rms] * (_ROUNDS - 1)):
        limit = np.float32(max(_MAX_DISTANCE * deviation, _MIN_DISTANCE))
        near = np.abs(values - baseline[:, np.newaxis].astype(np.float32)) <= limit
        near &= valid
        number = np.count_nonzero(near, axis=1)
        # Sums of whole numbers in double precision are exact in any order.
        total = np.einsum("ij,ij->i", samples, near, dtype=np.float64)
        baseline = np.where(number > 0, total / np.maximum(number, 1), baseline)
    return baseline
