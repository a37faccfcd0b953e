"""Echoes of the driver, refined: positions, heights above the baseline, widths, unknown as NaN."""

from __future__ import annotations

from collections.abc import Iterable, Mapping

import numpy as np

from fullwaveform.calibration.waveform_levels import MIN_SAMPLES, waveform_levels
from fullwaveform.core.constants import DECOMPOSED_TYPES, EchoType
from fullwaveform.core.refinement import refine_decomposed, refine_deconvolved
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.arrays import AnyArray, FloatArray, IntArray, UInt16Array
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.extraction.smoothing import at_maxima


def refined_peaks(
    peaks: Mapping[str, AnyArray],
    threshold: FloatArray,
    samples: UInt16Array,
    counts: UInt16Array,
    baseline: FloatArray,
    scanner: Scanner,
    *,
    at_modes: bool = False,
) -> dict[str, AnyArray]:
    """The columns of `Result.peaks` (m,), all finite, with better values, and three more.

    ``idx`` and ``time`` of deconvolved echoes and ``std`` of decomposed ones are fitted to the
    samples above the baseline; decomposed echoes of smoothed samples are moved to the maxima of
    these before (`at_modes`). ``height`` is the height above the baseline in counts, in every
    mode, ``library_idx`` and ``library_std`` are position and width without refinement. ``std`` of
    deconvolved echoes, which have no width, and ``reflectance`` of all but on-board echoes are NaN.

    Parameters
    ----------
    peaks : of the driver for these samples
    threshold : (n,) counts
    samples, counts : (n, width) and (n,)
    baseline : (n,) counts
    scanner : with its sampling interval
    at_modes : whether the samples are smoothed, and decomposed echoes lie at their maxima
    """
    rows, kind = peaks["row"], peaks["type"]
    height = peaks["amplitudeCounts"].astype(np.float64) - baseline[rows]
    decomposed = found_by(DECOMPOSED_TYPES, kind)
    deconvolved = np.flatnonzero(kind == EchoType.RICHARDSON_LUCY)
    refined = {
        **peaks,
        "height": height,
        "library_idx": peaks["idx"],
        "library_std": peaks["std"],
        "reflectance": np.where(
            kind == EchoType.ONLINE_OWP, peaks["reflectance"], np.float32(np.nan)
        ),
    }
    if len(decomposed) == len(deconvolved) == 0:
        return refined
    position, sigma = peaks["idx"].copy(), peaks["std"].copy()
    if len(decomposed):
        # The decomposition fits what remains after subtracting the threshold.
        height[decomposed] += threshold[rows[decomposed]]
        if at_modes:
            where = rows[decomposed], position[decomposed]
            position[decomposed] = at_maxima(samples, *where, np.abs(sigma[decomposed]))
        height[decomposed], sigma[decomposed] = refine_decomposed(
            samples,
            counts,
            baseline,
            rows[decomposed],
            position[decomposed],
            height[decomposed],
            sigma[decomposed],
        )
    if len(deconvolved):
        position[deconvolved], height[deconvolved] = refine_deconvolved(
            samples, counts, baseline, rows[deconvolved], position[deconvolved], scanner
        )
    interval = scanner.sampling_interval or np.nan
    return {
        **refined,
        "idx": position,
        "time": peaks["time"] + (position - peaks["idx"]) * interval,
        "std": np.where(kind == EchoType.RICHARDSON_LUCY, np.nan, sigma),
    }


def found_by(types: Iterable[EchoType], kind: AnyArray) -> IntArray:
    """Indices of the echoes whose type, of (m,), is one of the given ones."""
    return np.flatnonzero(np.logical_or.reduce([kind == one for one in types]))


def with_own_baselines(block: WaveformBlock, baseline: FloatArray, rows: IntArray) -> FloatArray:
    """The baselines (n,) in counts; of the given rows, NaN becomes the waveform's own baseline."""
    missing = rows[np.isnan(baseline[rows])]
    if len(missing) == 0:
        return baseline
    unknown = np.unique(missing)
    filled = baseline.copy()
    for count in np.unique(block.counts[unknown]).tolist():
        alike = unknown[block.counts[unknown] == count]
        has_level = count >= MIN_SAMPLES
        filled[alike] = waveform_levels(block.samples[alike, :count]).baseline if has_level else 0.0
    return filled
