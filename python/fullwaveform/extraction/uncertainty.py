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
from fullwaveform.extraction.prepare import Preparation, PreparedBlock, by_receiver
from fullwaveform.extraction.refine import found_by

_FITTED_SIGMAS = 3.0  # of the library, on either side of a decomposed echo
_MIN_WEIGHT = 4.0  # samples below the baseline, of a waveform whose own noise is measured


def with_uncertainties(
    peaks: Mapping[str, AnyArray],
    rows: IntArray,
    waveforms: FittedRows,
    scanner: Scanner,
) -> dict[str, AnyArray]:
    """The columns of refined peaks (m,), and their uncertainties.

    These are ``sigma_position`` and ``sigma_fwhm`` in samples and ``sigma_height`` in counts of the
    prepared samples, NaN where the samples do not determine the value.

    Parameters
    ----------
    peaks : of `refined_peaks`, all echoes of their rows
    rows : (m,) row of each echo among the waveforms
    waveforms : of `fitted_rows`
    scanner : with its sampling interval
    """
    kind = peaks["type"]
    found = {
        name: np.full(len(rows), np.nan)
        for name in ("sigma_position", "sigma_height", "sigma_fwhm")
    }

    def enter(chosen: IntArray, uncertainties: Uncertainties) -> None:
        for column, values in zip(found.values(), uncertainties, strict=True):
            column[chosen] = values

    position, height, std = (peaks[name] for name in ("idx", "height", "std"))
    chosen = np.flatnonzero(kind == EchoType.GAUSS_3POINTS)
    if len(chosen):
        enter(chosen, waveforms.of_three_point(rows[chosen], position[chosen], std[chosen]))
    chosen = found_by(DECOMPOSED_TYPES, kind)
    if len(chosen):
        own = np.abs(peaks["library_std"])
        values = (position, height, std, own, _FITTED_SIGMAS * own)
        gaussians = (column[chosen] for column in values)
        enter(chosen, waveforms.of_decomposed(rows[chosen], *gaussians))
    chosen = np.flatnonzero(kind == EchoType.RICHARDSON_LUCY)
    if len(chosen):
        waves = (rows[chosen], position[chosen], height[chosen])
        enter(chosen, waveforms.of_deconvolved(*waves, scanner))
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
    block, scale = prepared.block, prepared.scale
    # The same number of columns in all blocks of a file, so that they have the same digits.
    correlations = [level.noise_correlation for level in preparation.calibration.levels]
    lags = min(max(map(len, correlations), default=0), MAX_NOISE_LAG)
    # One row per receiver, the last one for those that were not measured.
    receivers = by_receiver(block, preparation.calibration)
    receiver = np.full(len(block), len(receivers))
    covariances = np.full((len(receivers) + 1, lags + 1), np.nan)
    limits = np.full(len(receivers) + 1, np.inf)
    deviations = np.full(len(receivers) + 1, np.nan)
    for number, (level, chosen) in enumerate(receivers):
        receiver[chosen] = number
        correlation = (1.0, *level.noise_correlation, *[0.0] * lags)[: lags + 1]
        covariances[number] = level.effective_rms**2 * np.array(correlation)
        if level.digitiser_limit is not None:
            limits[number] = level.digitiser_limit
        if not preparation.removes_baseline(level):
            deviations[number] = level.baseline_spread
    covariance, limit = covariances[receiver], limits[receiver]
    missing = rows[np.isnan(covariance[rows, 0])]
    own = np.unique(missing) if len(missing) > 0 else missing
    for count in distinct(block.counts[own]):
        if count >= MIN_SAMPLES:
            alike = own[block.counts[own] == count]
            levels = waveform_levels(block.samples[alike, :count] / scale[alike, np.newaxis])
            known = levels.weight >= _MIN_WEIGHT
            covariance[alike[known], 0] = np.maximum(levels.mean_square[known], QUANTISATION_RMS**2)
            covariance[alike[known], 1:] = 0.0
    return FittedRows(
        samples=block.samples,
        counts=block.counts,
        threshold=threshold,
        limit=np.asarray((limit - prepared.removed) * scale, np.float64),
        covariance=covariance * (scale**2)[:, np.newaxis],
        baseline_deviation=deviations[receiver] * scale,
    )
