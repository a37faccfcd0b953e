"""Samples without light, and the noise that a matched filter sees in them."""

from __future__ import annotations

import math
from dataclasses import dataclass

import numpy as np

from fullwaveform.data.arrays import FloatArray, UInt16Array

MIN_LENGTH = 5  # samples of a stretch
_MIN_STRETCHES = 10
_MIN_LEADING, _MAX_LEADING = 4, 16  # samples before an echo, for the baseline
_MIN_SAMPLES = 300  # of all stretches; fewer do not show a correlation
_USEFUL_STRETCHES = 500  # more of them allow longer ones instead
_MAX_LENGTH = 128  # samples
_MAX_DEVIATION = 2.0  # times the median; a stretch with a larger one holds a weak echo
_CLIP = 4.0  # robust standard deviations
_RMS_PER_MEDIAN_DISTANCE = 1.4826  # of a normal distribution
_MIN_RMS = 0.2  # counts; the digitiser hides the correlation of weaker noise
# Of the correlation. Receivers have 0.6 to 1.7, those that smooth the signal over a pulse more.
_RANGE = (0.5, 5.0)
_QUANTISATION_RMS = math.sqrt(1.0 / 12.0)  # counts, of values that are rounded to counts


@dataclass(frozen=True)
class Noise:
    """Noise of a receiver."""

    rms: float  # counts, of a single sample
    correlation: float  # of the noise behind a matched filter, over that of white noise


@dataclass(frozen=True)
class QuietMargins:
    """Distances of quiet samples from those above the threshold, samples."""

    before: int  # the rise of the pulse
    after: int  # its tail with the ringing


def leading_level(
    samples: UInt16Array, counts: UInt16Array, threshold: int, margin: int
) -> tuple[float, float] | None:
    """Median and robust standard deviation of the means of the samples before the first echoes.

    Of each waveform as many samples as three quarters of the waveforms have, at most 16; None if
    these are fewer than 4, or if fewer than 10 waveforms have them.
    """
    valid = np.arange(samples.shape[1]) < counts[:, np.newaxis]
    above = valid & (samples > threshold)
    first = np.where(above.any(axis=1), np.argmax(above, axis=1) - margin, counts)
    length = int(np.quantile(first, 0.25)) if len(first) else 0
    length = min(length, _MAX_LEADING)
    rows = np.flatnonzero(first >= length)
    if length < _MIN_LEADING or len(rows) < _MIN_STRETCHES:
        return None
    means = samples[rows, :length].mean(axis=1)
    level = float(np.median(means))
    return level, _RMS_PER_MEDIAN_DISTANCE * float(np.median(np.abs(means - level)))


def quiet_stretches(
    samples: UInt16Array, counts: UInt16Array, threshold: int, margins: QuietMargins
) -> FloatArray:
    """Stretches of equal length from waveforms of one receiver, (n, length) counts.

    Of each waveform the stretch before its first echo, or the one after its last, whichever is
    longer. The length is the one that 500 waveforms have, a quarter of them if there are fewer, at
    least 10, and at most 128 samples. No rows if fewer stretches have 5 samples.
    """
    valid = np.arange(samples.shape[1]) < counts[:, np.newaxis]
    above = valid & (samples > threshold)
    is_empty = ~above.any(axis=1)
    first = np.where(is_empty, counts, np.argmax(above, axis=1) - margins.before)
    last = samples.shape[1] - 1 - np.argmax(above[:, ::-1], axis=1)
    rest = np.where(is_empty, 0, counts - (last + 1 + margins.after))
    start = np.where(rest > first, last + 1 + margins.after, 0)
    available = np.maximum(first, rest)
    wanted = max(min(_USEFUL_STRETCHES, len(available) // 4), _MIN_STRETCHES)
    if len(available) < wanted:
        return np.empty((0, MIN_LENGTH))
    length = min(int(np.sort(available)[-wanted]), _MAX_LENGTH)
    if length < MIN_LENGTH:
        return np.empty((0, MIN_LENGTH))
    rows = np.flatnonzero(available >= length)
    columns = start[rows, np.newaxis] + np.arange(length)
    return samples[rows[:, np.newaxis], columns].astype(np.float64)


def _without_echoes(stretches: FloatArray) -> FloatArray:
    deviation = stretches.std(axis=1, ddof=1)
    usual = deviation <= max(_MAX_DEVIATION * float(np.median(deviation)), 1.0)
    return np.asarray(stretches[usual])


def measure_noise(stretches: FloatArray, pulse: FloatArray) -> Noise:
    """Noise of quiet stretches.

    The correlation is the clipped standard deviation of the matched filter at every place of every
    stretch over its expectation for white noise. The mean of each stretch counts as its baseline,
    for the rms and for the filter. Stretches that scatter twice as much as usual are left out.

    Parameters
    ----------
    stretches : (n, length) counts, n at least 1
    pulse : (m,) at whole samples, its core; only its middle is used if the stretches are shorter
    """
    length = stretches.shape[1]
    usual = _without_echoes(stretches)
    quiet = usual - usual.mean(axis=1, keepdims=True)
    rms = math.sqrt(float((quiet**2).sum()) / (quiet.size - len(quiet)))
    if rms < _MIN_RMS or quiet.size < _MIN_SAMPLES:
        return Noise(max(rms, _QUANTISATION_RMS), 1.0)
    taps = _middle(pulse, length)
    filtered = np.lib.stride_tricks.sliding_window_view(quiet, len(taps), axis=1) @ taps
    white = rms * math.sqrt(float((taps**2).sum() - taps.sum() ** 2 / length))
    centre = float(np.median(filtered))
    limit = _CLIP * _RMS_PER_MEDIAN_DISTANCE * float(np.median(np.abs(filtered - centre)))
    correlation = float(filtered[np.abs(filtered - centre) <= limit].std()) / white
    return Noise(max(rms, _QUANTISATION_RMS), float(np.clip(correlation, _RANGE[0], _RANGE[1])))


def _middle(pulse: FloatArray, length: int) -> FloatArray:
    """The samples of the pulse around its maximum, at most half as many as a stretch has."""
    longest = max(length // 2, 3)
    first = max(int(np.argmax(pulse)) - longest // 2, 0)
    return pulse[first : first + longest] if len(pulse) > longest else pulse
