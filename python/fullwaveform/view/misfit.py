"""How far the samples of waveforms are from the curves of their echoes."""

from __future__ import annotations

import numpy as np

from fullwaveform.analysis.waveform_views import GAUSSIAN_REACH
from fullwaveform.data.arrays import FloatArray, IntArray, UInt16Array

_AT_ONCE = 1 << 19  # samples at a time; near echoes, a sample counts once per echo

#: Row, position and standard deviation in samples, amplitude in counts, of echoes (m,).
FittedEchoes = tuple[IntArray, FloatArray, FloatArray, FloatArray]


def rms_of_residuals(
    samples: UInt16Array,
    counts: UInt16Array,
    baseline: FloatArray,
    echoes: FittedEchoes,
    *,
    adds_up: bool,
) -> FloatArray:
    """Root mean square (n,) of samples minus curve near the echoes, counts; NaN without echoes.

    Near are samples within four standard deviations of an echo. The curve is the baseline with the
    sum of the Gaussians on it or, unless they add up, with the highest one at each sample. Echoes
    without a width or height are ignored.

    Parameters
    ----------
    samples, counts : (n, width) counts and (n,) valid samples
    baseline : (n,) counts
    """
    rows, _, widths, _ = echoes
    usable = np.isfinite(echoes[1:]).all(axis=0) & (widths > 0.0)
    order = np.flatnonzero(usable)[np.argsort(rows[usable], kind="stable")]
    ordered = tuple(column[order] for column in echoes)
    found = np.full(len(samples), np.nan)
    step = max(_AT_ONCE // max(samples.shape[1], 1), 1)
    for first in range(0, len(samples), step):
        part = slice(first, first + step)
        begin, end = np.searchsorted(ordered[0], [first, first + step])
        near = (ordered[0][begin:end] - first, *(column[begin:end] for column in ordered[1:]))
        curve = _curve(samples[part].shape, counts[part], near, adds_up=adds_up)  # type: ignore[arg-type]
        rest = samples[part] - baseline[part, np.newaxis] - curve
        number = np.isfinite(rest).sum(axis=1)
        chosen = number > 0
        squares = np.nansum(rest[chosen] ** 2, axis=1)
        found[first + np.flatnonzero(chosen)] = np.sqrt(squares / number[chosen])
    return found


def _curve(
    shape: tuple[int, int], counts: UInt16Array, echoes: FittedEchoes, *, adds_up: bool
) -> FloatArray:
    """Height (n, width) of the curve above the baseline, NaN where no echo is near."""
    rows, positions, widths, amplitudes = echoes
    last = counts[rows].astype(np.float64) - 1.0
    first = np.clip(np.ceil(positions - GAUSSIAN_REACH * widths), 0.0, last + 1.0).astype(np.int64)
    stop = np.clip(np.floor(positions + GAUSSIAN_REACH * widths), -1.0, last).astype(np.int64) + 1
    lengths = np.maximum(stop - first, 0)
    curve = np.full(shape[0] * shape[1], np.nan)
    for start, end in _parts(lengths):
        part = lengths[start:end]
        echo = np.repeat(np.arange(start, end), part)
        within = np.arange(len(echo)) - np.repeat(np.cumsum(part) - part, part)
        at = first[echo] + within
        place = rows[echo] * shape[1] + at
        height = amplitudes[echo] * np.exp(-0.5 * ((at - positions[echo]) / widths[echo]) ** 2)
        curve[place[np.isnan(curve[place])]] = 0.0
        (np.add if adds_up else np.maximum).at(curve, place, height)
    return curve.reshape(shape)


def _parts(lengths: IntArray) -> list[tuple[int, int]]:
    """Runs of echoes with a bounded number of samples near them, or a single echo each."""
    below = np.cumsum(lengths)
    parts, start = [], 0
    while start < len(lengths):
        before = int(below[start - 1]) if start else 0
        stop = max(int(np.searchsorted(below, before + _AT_ONCE, side="right")), start + 1)
        parts.append((start, stop))
        start = stop
    return parts
