"""How sure the values of echoes are: their standard deviations by the noise of the samples."""

from __future__ import annotations

from collections.abc import Mapping

import numpy as np

from fullwaveform.calibration.levels import QUANTISATION_RMS
from fullwaveform.calibration.waveform_levels import MIN_SAMPLES, waveform_levels
from fullwaveform.core.constants import DECOMPOSED_TYPES, EchoType
from fullwaveform.core.scanner import Scanner
from fullwaveform.core.uncertainty import MAX_NOISE_LAG, FittedRows, Uncertainties
from fullwaveform.data.arrays import AnyArray, FloatArray, IntArray
from fullwaveform.data.summaries import distinct
from fullwaveform.extraction.prepare import Preparation, PreparedBlock
from fullwaveform.extraction.refine import found_by

_FITTED_SIGMAS = 3.0  # of the library, on either side of a decomposed echo
_MIN_WEIGHT = 4.0  # samples below the baseline, of a waveform whose own noise is measured


def with_uncertainties(
    peaks: Mapping[str, AnyArray],
    rows: IntArray,
    waveforms: FittedRows,
    scanner: Scanner,
    intervals: FloatArray,
) -> dict[str, AnyArray]:
    """The columns of refined peaks (m,), and the uncertainties of fitted and deconvolved ones.

    These are ``sigma_position`` and ``sigma_fwhm`` in samples and ``sigma_height`` in counts of the
    prepared samples, NaN where the samples do not determine the value. Those of three-point echoes
    are computed with the table, see `FoundEchoes.fitted`.

    Parameters
    ----------
    peaks : of `refined_peaks`, all echoes of their rows
    rows : (m,) row of each echo among the waveforms
    waveforms : of `fitted_rows`
    scanner : with a system wave if there are deconvolved echoes
    intervals : (n,) s, sampling intervals of the waveforms
    """
    kind = peaks["type"]
    decomposed = found_by(DECOMPOSED_TYPES, kind)
    deconvolved = np.flatnonzero(kind == EchoType.RICHARDSON_LUCY)
    if len(decomposed) == len(deconvolved) == 0:
        return dict(peaks)
    found = {
        name: np.full(len(rows), np.nan)
        for name in ("sigma_position", "sigma_height", "sigma_fwhm")
    }

    def enter(chosen: IntArray, uncertainties: Uncertainties) -> None:
        for column, values in zip(found.values(), uncertainties, strict=True):
            column[chosen] = values

    position, height, std = (peaks[name] for name in ("idx", "height", "std"))
    if len(decomposed):
        own = np.abs(peaks["library_std"])
        values = (position, height, std, own, _FITTED_SIGMAS * own)
        gaussians = (column[decomposed] for column in values)
        enter(decomposed, waveforms.of_decomposed(rows[decomposed], *gaussians))
    for interval in distinct(intervals[rows[deconvolved]]) if len(deconvolved) else ():
        chosen = deconvolved[intervals[rows[deconvolved]] == interval]
        waves = (rows[chosen], position[chosen], height[chosen])
        enter(chosen, waveforms.of_deconvolved(*waves, scanner.at_interval(interval)))
    return {**peaks, **found}


def fitted_rows(
    prepared: PreparedBlock, preparation: Preparation, threshold: FloatArray, rows: IntArray
) -> FittedRows:
    """The prepared waveforms and their noise, for echoes in the given rows.

    The noise is that of the receiver; where it was not measured, that of the waveform itself, from
    its samples below the baseline.

    Parameters
    ----------
    threshold : (n,) counts of the prepared samples
    rows : of the block, with echoes; of other waveforms the noise may be unknown (NaN)
    """
    block = prepared.block
    # The same number of columns in all blocks of a file, so that they have the same digits.
    correlations = [level.noise_correlation for level in preparation.calibration.levels]
    lags = min(max(map(len, correlations), default=0), MAX_NOISE_LAG)
    # One kind of noise per receiver, and one for those that were not measured.
    levels = prepared.receivers.levels
    covariance = np.full((len(levels) + 1, lags + 1), np.nan)
    limit = np.full(len(levels) + 1, np.inf)
    deviation = np.full(len(levels) + 1, np.nan)
    for number, level in enumerate(levels):
        correlation = (1.0, *level.noise_correlation, *[0.0] * lags)[: lags + 1]
        covariance[number] = level.effective_rms**2 * np.array(correlation)
        if level.digitiser_limit is not None:
            limit[number] = level.digitiser_limit
        if not preparation.removes_baseline(level):
            deviation[number] = level.baseline_spread
    noise = prepared.receivers.of_rows
    unmeasured = rows[noise[rows] == len(levels)]
    if len(unmeasured):
        known, own = _own_noise(prepared, np.unique(unmeasured))
        noise = noise.copy()
        noise[known] = len(covariance) + np.arange(len(known))
        covariance = np.pad(covariance, ((0, len(known)), (0, 0)))
        covariance[len(levels) + 1 :, 0] = own
        limit = np.pad(limit, (0, len(known)), constant_values=np.inf)
        deviation = np.pad(deviation, (0, len(known)), constant_values=np.nan)
    return FittedRows(
        samples=block.samples,
        counts=block.counts,
        threshold=threshold,
        noise=noise,
        limit=limit,
        covariance=covariance,
        baseline_deviation=deviation,
        removed=prepared.removed,
        scale=prepared.scale,
    )


def _own_noise(prepared: PreparedBlock, rows: IntArray) -> tuple[IntArray, FloatArray]:
    """Those of the rows whose own noise is known, and its variance, counts of the input squared."""
    block = prepared.block
    known, variances = [rows[:0]], [np.zeros(0)]
    for count in distinct(block.counts[rows]):
        if count >= MIN_SAMPLES:
            alike = rows[block.counts[rows] == count]
            scale = prepared.scale[alike, np.newaxis]
            levels = waveform_levels(block.samples[alike, :count] / scale)
            has_noise = levels.weight >= _MIN_WEIGHT
            known.append(alike[has_noise])
            variances.append(np.maximum(levels.mean_square[has_noise], QUANTISATION_RMS**2))
    return np.concatenate(known), np.concatenate(variances)
