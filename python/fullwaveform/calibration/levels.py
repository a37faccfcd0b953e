"""Baseline, noise rms and detection threshold of each receiver of a file."""

from __future__ import annotations

import math
from collections.abc import Iterable
from dataclasses import dataclass

import numpy as np

from fullwaveform.calibration.waveform_levels import (
    MIN_SAMPLES,
    WaveformLevels,
    waveform_levels,
)
from fullwaveform.core.constants import MAX_COUNT
from fullwaveform.data.arrays import UInt16Array
from fullwaveform.data.blocks import WaveformBlock

_THRESHOLD_FACTOR = 5.0  # noise rms above the baseline
_QUANTISATION = 1.0 / 12.0  # mean square of the rounding to counts
_MIN_WEIGHT = 4.0  # samples below the baseline, of a waveform whose noise counts
_MAX_RATIO = 4.0  # to the median of the mean squares; a larger one holds signal
_RMS_PER_MEDIAN_DISTANCE = 1.4826  # of a normal distribution


@dataclass(frozen=True)
class ChannelLevels:
    """Levels of the waveforms of one channel flag and descriptor."""

    channel_flag: int
    descriptor: int  # as in `WaveformBlock`
    waveforms: int  # that were measured
    baseline: float  # counts, median of the waveforms
    baseline_spread: float  # counts, standard deviation of the waveforms' baselines
    noise_rms: float  # counts, around the baseline of each waveform

    @property
    def threshold(self) -> int:
        """Counts: 5 noise rms above the baseline, the spread of the baselines included."""
        squares = max(self.noise_rms**2, _QUANTISATION) + self.baseline_spread**2
        level = self.baseline + _THRESHOLD_FACTOR * math.sqrt(squares)
        return min(math.ceil(level), MAX_COUNT)


def measure_levels(blocks: Iterable[WaveformBlock]) -> tuple[ChannelLevels, ...]:
    """The levels of each channel flag and descriptor that the waveforms of the blocks have."""
    found: dict[tuple[int, int], list[WaveformLevels]] = {}
    for block in blocks:
        receivers = np.column_stack([block.channel_flags, block.descriptors, block.counts])
        for flag, descriptor, count in np.unique(receivers, axis=0).tolist():
            if count >= MIN_SAMPLES:
                rows = (receivers == (flag, descriptor, count)).all(axis=1)
                samples: UInt16Array = block.samples[rows, :count]
                found.setdefault((flag, descriptor), []).append(waveform_levels(samples))
    return tuple(
        _channel_levels(flag, descriptor, parts)
        for (flag, descriptor), parts in sorted(found.items())
    )


def _channel_levels(flag: int, descriptor: int, parts: list[WaveformLevels]) -> ChannelLevels:
    levels = WaveformLevels(
        np.concatenate([part.baseline for part in parts]),
        np.concatenate([part.squares for part in parts]),
        np.concatenate([part.weight for part in parts]),
    )
    baseline = float(np.median(levels.baseline))
    distance = float(np.median(np.abs(levels.baseline - baseline)))
    return ChannelLevels(
        channel_flag=flag,
        descriptor=descriptor,
        waveforms=len(levels.baseline),
        baseline=baseline,
        baseline_spread=_RMS_PER_MEDIAN_DISTANCE * distance,
        noise_rms=_noise_rms(levels),
    )


def _noise_rms(levels: WaveformLevels) -> float:
    """Noise rms of all waveforms together, without those that signal makes noisier."""
    measured = levels.weight >= _MIN_WEIGHT
    if not measured.any():
        measured = levels.weight > 0.0
    squares, weight = levels.squares[measured], levels.weight[measured]
    if len(weight) == 0:
        return 0.0
    ratio = squares / weight
    usual = ratio <= _MAX_RATIO * max(float(np.median(ratio)), _QUANTISATION)
    return math.sqrt(float(squares[usual].sum() / weight[usual].sum()))
