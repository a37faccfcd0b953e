"""Offset between positions of deconvolved and of Gauss-fitted echoes.

The deconvolution locates an echo at the start of its kernel, so its position depends on where the
pulse lies in the window of the system wave. For isolated strong echoes the difference between their
refined positions and the three-point fit is constant.
"""

from __future__ import annotations

from collections.abc import Iterable, Mapping
from dataclasses import dataclass, replace

import numpy as np

from fullwaveform.calibration.averaging import AveragePulse
from fullwaveform.calibration.isolated import StrongEchoes, Waveforms, echoes_of, strongest_echoes
from fullwaveform.core.driver import Mode, Threshold
from fullwaveform.core.refinement import refine_deconvolved
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.arrays import AnyArray, FloatArray

#: Minimum number of echoes for the median.
MIN_ECHOES = 20
_MAX_ECHOES = 20_000
_MAX_DIFFERENCE = 10.0  # samples; the window of the system wave is 11 samples long

# Echoes simulated from the averaged pulse, for files without isolated echoes; their positions cover
# all phases of a sample.
_SIMULATED_ECHOES, _SIMULATED_BASELINE, _SIMULATED_HEIGHT = 500, 20.0, 2000.0
_SIMULATED_THRESHOLD = 30  # counts


@dataclass(frozen=True)
class DeconvolutionOffset:
    """Deconvolved minus Gauss-fitted position of isolated echoes.

    position : median, samples
    spread : robust standard deviation about it, samples
    echoes : number of echoes
    hybrid : median difference to the decomposition, the other method of the hybrid, samples
    made : whether the echoes were simulated from the averaged pulse
    """

    position: float
    spread: float
    echoes: int
    hybrid: float
    simulated: bool = False


def measure_offset(
    scanner: Scanner, parts: Iterable[Waveforms], threshold: Threshold | None
) -> DeconvolutionOffset | None:
    """The offset of the isolated echoes of waveforms; None if there are fewer than 20.

    `scanner` must have a system wave. Raises ValueError if it is incomplete.
    """
    differences: list[FloatArray] = []
    decomposed: list[FloatArray] = []
    for waveforms in parts:
        baseline = waveforms.baseline()
        reference = strongest_echoes(
            echoes_of(waveforms, scanner, threshold, Mode.THREE_POINT), baseline
        )
        deconvolved = _refined(
            echoes_of(waveforms, scanner, threshold, Mode.DECONVOLUTION),
            waveforms,
            baseline,
            scanner.at_interval(waveforms.sampling_interval),
        )
        differences.append(position_differences(reference, deconvolved))
        # As the hybrid decomposes the high-power channel, in one loop.
        fitted = echoes_of(waveforms, scanner, threshold, Mode.DECOMPOSITION, channel_flag=0)
        decomposed.append(position_differences(reference, fitted))
        if sum(map(len, differences)) >= _MAX_ECHOES:
            break
    together = np.concatenate(differences) if differences else np.empty(0)
    if len(together) < MIN_ECHOES:
        return None
    other = np.concatenate(decomposed)
    return summary_of(together, float(np.median(other)) if len(other) else 0.0)


def _refined(
    peaks: Mapping[str, AnyArray], waveforms: Waveforms, baseline: FloatArray, scanner: Scanner
) -> dict[str, AnyArray]:
    """The deconvolved echoes with the positions that an extraction gives them."""
    positions, _ = refine_deconvolved(
        waveforms.samples, waveforms.counts, baseline, peaks["row"], peaks["idx"], scanner
    )
    return {**peaks, "idx": positions}


def offset_of_simulated_echoes(scanner: Scanner, pulse: AveragePulse) -> DeconvolutionOffset:
    """The offset of echoes simulated from the pulse at evenly spread phases, without noise."""
    found = measure_offset(scanner, [simulated_waveforms(pulse)], _SIMULATED_THRESHOLD)
    if found is None:
        raise ValueError(
            f"{pulse.origin}: deconvolution does not find the pulse; the part of it in the window "
            "of the system wave is not a pulse"
        )
    return replace(found, simulated=True)


def simulated_waveforms(pulse: AveragePulse) -> Waveforms:
    """Waveforms of one echo each, the pulse at evenly spread phases."""
    lead = int(np.ceil(-pulse.position[0])) + 4
    width = lead + int(np.ceil(pulse.position[-1])) + 6
    place = lead + np.arange(_SIMULATED_ECHOES) / _SIMULATED_ECHOES
    value = np.nan_to_num(pulse.at(np.arange(width) - place[:, np.newaxis]))
    samples = np.rint(np.maximum(_SIMULATED_BASELINE + _SIMULATED_HEIGHT * value, 0.0)).astype(
        np.uint16
    )
    counts = np.full(_SIMULATED_ECHOES, width, dtype=np.uint16)
    return Waveforms(samples, counts, pulse.sampling_interval)


def position_differences(
    reference: StrongEchoes, deconvolved: Mapping[str, AnyArray]
) -> FloatArray:
    """Position of the strongest deconvolved echo near each isolated echo, minus its position.

    Echoes are matched within their row; echoes without a match are skipped.
    """
    isolated = reference.isolated
    rows, position = reference.row[isolated], reference.position[isolated]
    row, found = deconvolved["row"], deconvolved["idx"]
    if len(rows) == 0 or len(row) == 0:
        return np.empty(0)
    place = np.minimum(np.searchsorted(rows, row), len(rows) - 1)
    difference = found - position[place]
    matches = (rows[place] == row) & (np.abs(difference) <= _MAX_DIFFERENCE)
    order = np.lexsort((-deconvolved["amplitudeCounts"], np.where(matches, place, len(rows))))
    order = order[matches[order]]
    _, first = np.unique(place[order], return_index=True)
    return np.asarray(difference[order][first], dtype=np.float64)


def summary_of(differences: FloatArray, decomposed: float = 0.0) -> DeconvolutionOffset:
    """Median and robust spread of differences in samples, at least one.

    `decomposed` is the median difference of the decomposition to the three-point fit.
    """
    middle = float(np.median(differences))
    spread = float(1.4826 * np.median(np.abs(differences - middle)))
    return DeconvolutionOffset(middle, spread, len(differences), middle - decomposed)
