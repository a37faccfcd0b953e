"""Baseline, noise rms and detection threshold of each receiver of a file."""

from __future__ import annotations

import math
from collections.abc import Callable, Iterable, Iterator, Mapping, Sequence
from dataclasses import dataclass, replace

import numpy as np

from fullwaveform.calibration.clipping import TopSamples, digitiser_limit, top_samples
from fullwaveform.calibration.noise_correlation import LagProducts, noise_correlation
from fullwaveform.calibration.waveform_levels import (
    MIN_SAMPLES,
    WaveformLevels,
    levels_and_products,
)
from fullwaveform.core.constants import MAX_COUNT
from fullwaveform.data.arrays import BoolArray, FloatArray, UInt16Array
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.data.summaries import distinct, median

#: Called with the levels of waveforms that were measured.
LevelsObserver = Callable[[WaveformLevels], None]

_THRESHOLD_FACTOR = 5.0  # noise rms above the baseline
#: Counts, of values that are rounded to counts.
QUANTISATION_RMS = math.sqrt(1.0 / 12.0)
_MIN_WEIGHT = 4.0  # samples below the baseline, of a waveform whose noise counts
_MAX_RATIO = 4.0  # to the median of the mean squares; a larger one holds signal
_SAMPLES_AT_ONCE = 1 << 20  # that are collected
_SAMPLES_IN_CACHE = 1 << 16  # that are measured at a time; they are converted to eight bytes each
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
    digitiser_limit: int | None = None  # counts; None: no waveform was clipped
    noise_correlation: tuple[float, ...] = ()  # of samples 1, 2, ... apart; empty: white noise

    @property
    def effective_rms(self) -> float:
        """Noise rms, counts; not less than that of the rounding to counts."""
        return max(self.noise_rms, QUANTISATION_RMS)

    @property
    def margin(self) -> float:
        """Counts from the baseline of a waveform to its threshold: 5 noise rms."""
        return _THRESHOLD_FACTOR * self.effective_rms

    @property
    def threshold(self) -> int:
        """Counts, for all waveforms: 5 noise rms with the spread of the baselines above these."""
        spread = math.hypot(self.effective_rms, self.baseline_spread)
        return min(math.ceil(self.baseline + _THRESHOLD_FACTOR * spread), MAX_COUNT)

    def threshold_above(self, baseline: float) -> int:
        """Counts, for a waveform of this baseline."""
        return min(math.ceil(baseline + self.margin), MAX_COUNT)


def measure_levels(
    blocks: Iterable[WaveformBlock], observe: LevelsObserver | None = None
) -> tuple[ChannelLevels, ...]:
    """The levels of each channel flag and descriptor that the waveforms of the blocks have.

    `observe` is called with the levels of the single waveforms, in parts.
    """
    found: dict[tuple[int, int], list[tuple[WaveformLevels, LagProducts]]] = {}
    tops: dict[tuple[int, int], list[TopSamples]] = {}
    for receiver, samples in samples_by_receiver(blocks):
        tops.setdefault(receiver, []).append(top_samples(samples))
        step = max(_SAMPLES_IN_CACHE // samples.shape[1], 1)
        found.setdefault(receiver, []).extend(
            levels_and_products(samples[first : first + step])
            for first in range(0, len(samples), step)
        )
    if observe is not None:
        for parts in found.values():
            for levels, _ in parts:
                observe(levels)
    return tuple(
        replace(
            _channel_levels(flag, descriptor, parts),
            digitiser_limit=digitiser_limit(tops[flag, descriptor]),
        )
        for (flag, descriptor), parts in sorted(found.items())
    )


def samples_by_receiver(
    blocks: Iterable[WaveformBlock],
) -> Iterator[tuple[tuple[int, int], UInt16Array]]:
    """Channel flag and descriptor, and samples (n, count) of their waveforms of equal length.

    Those of small blocks are put together: a call of NumPy takes longer than a few waveforms.
    """
    waiting: dict[tuple[int, int, int], list[UInt16Array]] = {}
    size = 0
    for block in blocks:
        # One number for each combination, because rows are compared slowly.
        receivers = block.channel_flags.astype(np.int64) << 8 | block.descriptors
        receivers = receivers << 16 | block.counts
        for number in distinct(receivers):
            flag, descriptor, count = number >> 24, number >> 16 & 0xFF, number & 0xFFFF
            if count >= MIN_SAMPLES:
                rows = receivers == number
                samples = block.samples[rows, :count]
                waiting.setdefault((flag, descriptor, count), []).append(samples)
                size += samples.size
        if size >= _SAMPLES_AT_ONCE:
            yield from _joined(waiting)
            waiting, size = {}, 0
    yield from _joined(waiting)


def _joined(
    parts: Mapping[tuple[int, int, int], Sequence[UInt16Array]],
) -> Iterator[tuple[tuple[int, int], UInt16Array]]:
    for (flag, descriptor, _), samples in parts.items():
        yield (flag, descriptor), np.concatenate(samples)


def _channel_levels(
    flag: int, descriptor: int, parts: list[tuple[WaveformLevels, LagProducts]]
) -> ChannelLevels:
    baselines = np.concatenate([levels.baseline for levels, _ in parts])
    squares = np.concatenate([levels.squares for levels, _ in parts])
    weight = np.concatenate([levels.weight for levels, _ in parts])
    products = np.concatenate([lags.products for _, lags in parts])
    pairs = np.concatenate([lags.pairs for _, lags in parts])
    usual = _of_noise(squares, weight)
    # Exact sums, so that the order of the waveforms does not matter.
    total = math.fsum(weight[usual])
    baseline = float(median(baselines))
    distance = float(median(np.abs(baselines - baseline)))
    return ChannelLevels(
        channel_flag=flag,
        descriptor=descriptor,
        waveforms=len(baselines),
        baseline=baseline,
        baseline_spread=_RMS_PER_MEDIAN_DISTANCE * distance,
        noise_rms=math.sqrt(math.fsum(squares[usual]) / total) if total > 0.0 else 0.0,
        noise_correlation=noise_correlation(products[usual], pairs[usual]),
    )


def _of_noise(squares: FloatArray, weight: FloatArray) -> BoolArray:
    """Which waveforms show the noise: not those that signal makes noisier."""
    measured = weight >= _MIN_WEIGHT
    if not measured.any():
        measured = weight > 0.0
    if not measured.any():
        return measured
    ratio = np.full(len(weight), np.inf)
    ratio[measured] = squares[measured] / weight[measured]
    middle = float(median(ratio[measured]))
    return ratio <= _MAX_RATIO * max(middle, QUANTISATION_RMS**2)
