"""Positions, heights and widths of echoes, fitted again to the samples above the baseline."""

from __future__ import annotations

import numpy as np

from fullwaveform import _core
from fullwaveform.core.messages import forward_messages
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.arrays import AnyArray, FloatArray, IntArray, UInt16Array


def refine_deconvolved(
    samples: UInt16Array,
    counts: UInt16Array,
    baseline: FloatArray,
    rows: IntArray,
    positions: FloatArray,
    scanner: Scanner,
) -> tuple[FloatArray, FloatArray]:
    """Positions (m,) in samples and heights (m,) above the baseline in counts.

    Fits the system wave of the scanner to the samples, all echoes of a waveform together. Positions
    change by one sample at most and keep the offset of the deconvolution; where the fit would go
    further they do not change. Heights are those of the waveform, less its other echoes.

    Parameters
    ----------
    samples : (n, width) counts, rows contiguous
    counts : (n,) valid samples of each row
    baseline : (n,) counts
    rows : (m,) row of each echo, all echoes of these rows, in any order
    positions : (m,) finite, samples, as the driver gives them
    scanner : with sampling interval and system wave
    """
    order = np.argsort(rows, kind="stable")
    refined, heights = _core.refine_echoes(
        samples,
        np.ascontiguousarray(counts),
        _doubles(baseline),
        rows[order],
        _doubles(positions[order]),
        scanner.device(),
    )
    forward_messages()
    return _in_place(order, refined), _in_place(order, heights)


def refine_decomposed(
    samples: UInt16Array,
    counts: UInt16Array,
    baseline: FloatArray,
    rows: IntArray,
    positions: FloatArray,
    heights: FloatArray,
    sigmas: FloatArray,
) -> tuple[FloatArray, FloatArray]:
    """Heights (m,) above the baseline in counts and standard deviations (m,) in samples.

    Fits Gaussians at the given positions to the samples, which unlike those of the decomposition
    include what lies below the threshold. Parameters as for `refine_deconvolved`; `heights` above
    the baseline and `sigmas` are start values.
    """
    order = np.argsort(rows, kind="stable")
    fitted, widths = _core.refine_gaussians(
        samples,
        np.ascontiguousarray(counts),
        _doubles(baseline),
        rows[order],
        *(_doubles(column[order]) for column in (positions, heights, sigmas)),
    )
    return _in_place(order, fitted), _in_place(order, widths)


def _doubles(values: AnyArray) -> FloatArray:
    return np.ascontiguousarray(values, dtype=np.float64)


def _in_place(order: IntArray, values: FloatArray) -> FloatArray:
    """The values of ordered rows at the places of the rows."""
    placed = np.empty_like(values)
    placed[order] = values
    return placed
