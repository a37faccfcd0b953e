"""Samples and thresholds as the driver takes them: baseline taken off, samples scaled."""

from __future__ import annotations

import math
from collections.abc import Iterable
from dataclasses import dataclass, replace
from typing import Literal, cast, get_args

import numpy as np

from fullwaveform.calibration.calibration import Calibration
from fullwaveform.calibration.levels import ChannelLevels
from fullwaveform.core.constants import MAX_COUNT
from fullwaveform.core.driver import DECONVOLVING_MODES, Mode, Thresholds
from fullwaveform.data.arrays import (
    AnyArray,
    BoolArray,
    Float32Array,
    FloatArray,
    IntArray,
    UInt16Array,
)
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.extraction.smoothing import smoothed

#: What becomes of the baseline; "auto" removes it where it is high against the noise.
Baseline = Literal["keep", "remove", "auto"]
#: Factor of the samples; "auto" chooses one for each waveform in the modes that deconvolve.
SampleScale = int | Literal["auto"]

#: Largest factor of samples that can be given.
MAX_SCALE = 256

ESTIMATE = -1  # threshold of a waveform for which the library estimates one

# The decomposition keeps heights of 10 noise rms above a baseline that is taken off to 5, and of
# 10 noise rms and the baseline above one that is kept: from here on 5/3 times as much.
_HIGH_BASELINE = 15.0  # noise rms
# The library's estimate takes samples of up to 10 counts for no signal.
_MAX_LEFT = 12  # counts
_MAX_DISTANCE = 3.0  # standard deviations of a sample from the baseline of its waveform
_MIN_DISTANCE = 1.0  # counts
_ROUNDS = 3
#: Largest factor that "auto" chooses.
MAX_AUTO_SCALE = 16
_SCALES = (2, 4, 8, MAX_AUTO_SCALE)
# Of a scaled sample; waveforms from here on have after-pulses.
_MAX_SCALED = 800  # counts
# The same where there are none: echoes, which can exceed their samples, are valid up to 4,096.
_MAX_SCALED_ECHO = 3500  # counts


@dataclass(frozen=True)
class Preparation:
    """How the waveforms of a run are prepared.

    threshold : None for the one measured of each receiver, counts of the input for all waveforms or
        for each by its number in the input (-1 for an estimate), or "estimate"
    """

    mode: Mode
    threshold: Thresholds | None
    baseline: Baseline
    sample_scale: SampleScale
    calibration: Calibration
    smoothing: float | None = None  # s, standard deviation; None: that of the format
    has_after_pulses: bool = False  # whether the library searches for them

    def smoothing_of(self, block: WaveformBlock) -> float:
        """Standard deviation in s; 0: none."""
        if self.mode is Mode.PULSE_FIT:  # a smoothed pulse is not the one that it fits
            return 0.0
        return block.smoothing if self.smoothing is None else self.smoothing

    def removes_baseline(self, level: ChannelLevels) -> bool:
        """Whether the baseline of the waveforms of a receiver is taken off."""
        if self.baseline == "auto":
            # The library's estimate is made for samples as they were recorded.
            estimates = isinstance(self.threshold, str)
            return not estimates and level.baseline > _HIGH_BASELINE * level.effective_rms
        return self.baseline == "remove"

    def threshold_of(self, level: ChannelLevels) -> int:
        """Measured threshold of a receiver in counts of the input, with its usual baseline."""
        if self.removes_baseline(level):
            return level.threshold_above(level.baseline)
        return level.threshold

    @property
    def max_scaled(self) -> int:
        """Counts below which scaled samples stay."""
        is_limited = self.has_after_pulses or self.mode in DECONVOLVING_MODES
        return _MAX_SCALED if is_limited else _MAX_SCALED_ECHO

    @property
    def scales(self) -> bool:
        """Whether samples as they were recorded may be scaled."""
        if self.sample_scale == "auto":
            return self.mode in DECONVOLVING_MODES
        return self.sample_scale > 1


@dataclass(frozen=True, slots=True)
class Receivers:
    """The receivers of a block that were measured."""

    levels: tuple[ChannelLevels, ...]
    of_rows: IntArray  # (n,), index of the levels of each waveform; their number without levels

    def values_of(self, measured: Iterable[float]) -> FloatArray:
        """The value of the receiver of each waveform (n,), given one per levels; NaN without."""
        return np.array([*measured, np.nan])[self.of_rows]


@dataclass(frozen=True, slots=True)
class PreparedBlock:
    """A block for the driver, and what leads back to the counts of the input."""

    block: WaveformBlock
    thresholds: IntArray  # (n,), counts of the prepared samples, or `ESTIMATE`
    #: (n,), counts of the prepared samples above which amplitudes count; NaN if unknown.
    baseline: FloatArray
    removed: IntArray  # (n,), counts of the input that were taken off before the scaling
    scale: IntArray  # (n,), factor of what was left
    receivers: Receivers
    is_smoothed: bool = False

    def input_threshold(self, row: int) -> int | None:
        """Threshold of a waveform in counts of the input; None for the library's estimate."""
        threshold = int(self.thresholds[row])
        if threshold == ESTIMATE:
            return None
        return threshold // int(self.scale[row]) + int(self.removed[row])


def checked_baseline(baseline: str) -> Baseline:
    """The choice of a caller; ValueError if it is invalid."""
    if baseline not in get_args(Baseline):
        raise ValueError(f"baseline {baseline!r} must be one of {', '.join(get_args(Baseline))}")
    return cast(Baseline, baseline)


def checked_sample_scale(scale: SampleScale) -> SampleScale:
    """The factor of a caller; ValueError if it is invalid."""
    if isinstance(scale, str) and scale == "auto":
        return "auto"
    is_integer = isinstance(scale, int | np.integer) and not isinstance(scale, bool)
    if not is_integer or not 1 <= int(scale) <= MAX_SCALE:
        raise ValueError(
            f"sample_scale {scale!r} must be 'auto' or an integer from 1 to {MAX_SCALE}"
        )
    return int(scale)


def prepare(block: WaveformBlock, preparation: Preparation) -> PreparedBlock:
    """Smooth the samples, take off baselines and scale them, each waveform for itself.

    What is taken off is a whole number of counts that leaves five noise rms, at most 12 counts;
    samples below it become 0. Smoothed samples are scaled up, but not beyond the counts at which
    the library rejects an echo: it needs differences of two counts at a maximum, and neighbouring
    samples of a broad echo differ by a fraction of a count. The result of a waveform does not
    depend on the others of its block.

    Raises
    ------
    ValueError
        If the threshold is an array without a value for a waveform of the block.
    """
    rows = len(block)
    if preparation.mode is Mode.PULSE_FIT:  # fits the baseline, and has no threshold
        none = np.zeros(rows, np.int64)
        unknown, scale = np.full(rows, np.nan), np.ones(rows, np.int64)
        return PreparedBlock(block, none, unknown, none, scale, Receivers((), none))
    seconds = preparation.smoothing_of(block)
    is_smoothed = seconds > 0.0 and rows > 0
    values: UInt16Array | Float32Array = block.samples
    if is_smoothed:
        values = smoothed(block, seconds)
        block = replace(block, samples=np.rint(values).astype(np.uint16))
    given = _given_thresholds(block, preparation.threshold)
    receivers = receivers_of(block, preparation.calibration)
    baseline = receivers.values_of(level.baseline for level in receivers.levels)
    measured = receivers.values_of(level.threshold for level in receivers.levels)  # counts of input
    removed = np.zeros(rows, np.int64)
    for number, level in enumerate(receivers.levels):
        if preparation.removes_baseline(level):
            chosen = receivers.of_rows == number
            own = _own_baselines(block.samples[chosen], block.counts[chosen], level)
            floor = np.where(given[chosen] == ESTIMATE, _MAX_LEFT, math.ceil(level.margin))
            baseline[chosen] = own
            removed[chosen] = np.maximum(np.rint(own) - np.minimum(floor, _MAX_LEFT), 0.0)
            measured[chosen] = own + level.margin
    prepared = block
    if removed.any():
        values = _without(values, removed)
        prepared = replace(block, samples=_whole(values))
    scale = _scales(values, preparation, is_smoothed)
    if (scale != 1).any():
        prepared = replace(block, samples=_whole(values * scale[:, np.newaxis]))
    wanted = measured if preparation.threshold is None else given.astype(np.float64)
    known = np.isfinite(wanted) & (wanted != ESTIMATE)
    in_driver = np.ceil((np.where(known, wanted, 0.0) - removed) * scale)
    thresholds = np.where(known, np.clip(in_driver, 0, MAX_COUNT), ESTIMATE).astype(np.int64)
    left = np.asarray((baseline - removed) * scale, np.float64)
    return PreparedBlock(prepared, thresholds, left, removed, scale, receivers, is_smoothed)


def receivers_of(block: WaveformBlock, calibration: Calibration) -> Receivers:
    """The receivers in the block that have levels, and which of them recorded each waveform."""
    # As one number each: rows of pairs take ten times as long to sort.
    receivers = block.channel_flags.astype(np.uint16) << 8 | block.descriptors
    levels: list[ChannelLevels] = []
    # Counted, because sorting takes longer than all else here.
    present = np.bincount(receivers)
    numbers = np.full(len(present), -1, np.int64)
    for receiver in np.flatnonzero(present).tolist():
        level = calibration.levels_of(receiver >> 8, receiver & 0xFF)
        if level is not None:
            numbers[receiver] = len(levels)
            levels.append(level)
    numbers[numbers < 0] = len(levels)
    return Receivers(tuple(levels), numbers[receivers])


def by_receiver(
    block: WaveformBlock, calibration: Calibration
) -> list[tuple[ChannelLevels, BoolArray]]:
    """The levels of each receiver in the block, and which waveforms it recorded (n,)."""
    receivers = receivers_of(block, calibration)
    return [(level, receivers.of_rows == number) for number, level in enumerate(receivers.levels)]


def _given_thresholds(block: WaveformBlock, threshold: Thresholds | None) -> IntArray:
    """Threshold (n,) given for each waveform, counts of the input; `ESTIMATE` for an estimate."""
    if threshold is None or isinstance(threshold, str):
        missing = 0 if threshold is None else ESTIMATE
        return np.full(len(block), missing, np.int64)
    values = np.asarray(threshold)
    if values.ndim == 0:
        return np.full(len(block), int(values), np.int64)
    numbers = block.waveform_numbers
    outside = (numbers < 0) | (numbers >= len(values))
    if outside.any():
        raise ValueError(
            f"threshold has {len(values)} values; waveform {numbers[np.argmax(outside)]} has none "
            "(one value per waveform of the input)"
        )
    return values[numbers].astype(np.int64)


def _own_baselines(samples: UInt16Array, counts: AnyArray, level: ChannelLevels) -> FloatArray:
    """Baseline of each waveform: mean of its samples near that of its receiver."""
    valid = np.arange(samples.shape[1]) < counts[:, np.newaxis]
    values = samples.astype(np.float32)
    baseline = np.full(len(samples), level.baseline)
    spread = np.hypot(level.effective_rms, level.baseline_spread)
    for deviation in (spread, *[level.effective_rms] * (_ROUNDS - 1)):
        limit = max(_MAX_DISTANCE * deviation, _MIN_DISTANCE)
        near = np.abs(values - baseline[:, np.newaxis].astype(np.float32)) <= limit
        near &= valid
        number = near.sum(axis=1)
        # Sums of whole numbers in double precision are exact in any order.
        total = np.einsum("ij,ij->i", samples, near, dtype=np.float64)
        baseline = np.where(number > 0, total / np.maximum(number, 1), baseline)
    return baseline


def _without(values: UInt16Array | Float32Array, removed: IntArray) -> UInt16Array | Float32Array:
    """The values less the counts (n,) of their row, 0 where these are more."""
    less = removed[:, np.newaxis].astype(values.dtype)
    lowered: UInt16Array | Float32Array = np.maximum(values, less) - less
    return lowered


def _whole(values: AnyArray) -> UInt16Array:
    """The values, at most `MAX_COUNT`, rounded to counts."""
    rounded = np.rint(values) if values.dtype.kind == "f" else values
    return rounded.astype(np.uint16, copy=False)


def _scales(
    values: UInt16Array | Float32Array, preparation: Preparation, is_smoothed: bool
) -> IntArray:
    """Factor (n,) of the samples of each waveform."""
    scale = np.ones(len(values), np.int64)
    if not (is_smoothed or preparation.scales) or values.shape[1] == 0:
        return scale
    largest = np.maximum(_whole(values.max(axis=1)).astype(np.int64), 1)
    if preparation.sample_scale != "auto":
        scale[:] = np.minimum(preparation.sample_scale, MAX_COUNT // largest)
        return scale
    for factor in _SCALES:
        scale[largest * factor < preparation.max_scaled] = factor
    return scale
