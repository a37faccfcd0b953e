"""How far deconvolved echoes lie from where a Gauss fit sees them.

The deconvolution finds an echo where its kernel would have to begin, so what it calls the position
depends on where the pulse lies in the window of the system wave. On strong echoes that stand alone
the difference to the three-point Gauss fit is the same everywhere, up to the step of a fifth of a
sample in which deconvolved positions come.
"""

from __future__ import annotations

from collections.abc import Iterable, Mapping
from dataclasses import dataclass, replace
from typing import Any

import numpy as np

from fullwaveform.core.driver import Mode, Threshold
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.arrays import FloatArray
from fullwaveform.system_wave.averaging import AveragePulse
from fullwaveform.system_wave.isolated import Records, StrongEchoes, echoes_of, strongest_echoes

#: Fewer echoes than this say little about a median.
LEAST_ECHOES = 20
_ENOUGH = 20_000
_REACH = 10.0  # samples; the window of the system wave is 11 samples long

# Echoes made of the pulse itself, where a file has none: positions over ten phases of a step.
_MADE_ECHOES, _MADE_BASELINE, _MADE_HEIGHT = 500, 20.0, 2000.0
_MADE_THRESHOLD = 30  # counts


@dataclass(frozen=True)
class DeconvolutionOffset:
    """Deconvolved minus Gauss-fitted position of echoes that stand alone.

    position : median, samples
    spread : robust standard deviation about it, samples
    echoes : how many
    hybrid : the same median against the decomposition, the other branch of the hybrid, samples
    made : whether the echoes were computed from the averaged pulse instead of recorded
    """

    position: float
    spread: float
    echoes: int
    hybrid: float
    made: bool = False


def measure_offset(
    scanner: Scanner, parts: Iterable[Records], threshold: Threshold
) -> DeconvolutionOffset | None:
    """The offset on the echoes of records; None when fewer than 20 of them stand alone.

    `scanner` must hold a system wave; `threshold` in counts or "estimate".
    Raises ValueError when the scanner is not complete.
    """
    differences: list[FloatArray] = []
    decomposed: list[FloatArray] = []
    for records in parts:
        reference = strongest_echoes(
            echoes_of(records, scanner, threshold, Mode.THREE_POINT), records.baseline()
        )
        sharpened = echoes_of(records, scanner, threshold, Mode.DECONVOLUTION)
        differences.append(position_differences(reference, sharpened))
        # The hybrid decomposes the normal channel, in one loop.
        fitted = echoes_of(records, scanner, threshold, Mode.DECOMPOSITION, channel_flag=0)
        decomposed.append(position_differences(reference, fitted))
        if sum(map(len, differences)) >= _ENOUGH:
            break
    together = np.concatenate(differences) if differences else np.empty(0)
    if len(together) < LEAST_ECHOES:
        return None
    other = np.concatenate(decomposed)
    return summary_of(together, float(np.median(other)) if len(other) else 0.0)


def offset_of_made_echoes(scanner: Scanner, pulse: AveragePulse) -> DeconvolutionOffset:
    """The offset on echoes computed from the pulse, at evenly spread phases and without noise."""
    found = measure_offset(scanner, [made_records(pulse)], _MADE_THRESHOLD)
    if found is None:
        raise ValueError(
            f"{pulse.origin}: the pulse cannot be found again after deconvolution; the part of it "
            "inside the window of the system wave is not like a pulse"
        )
    return replace(found, made=True)


def made_records(pulse: AveragePulse) -> Records:
    """Waveforms of one echo each, the pulse itself at evenly spread phases."""
    lead = int(np.ceil(-pulse.position[0])) + 4
    width = lead + int(np.ceil(pulse.position[-1])) + 6
    place = lead + np.arange(_MADE_ECHOES) / _MADE_ECHOES
    value = np.nan_to_num(pulse.at(np.arange(width) - place[:, np.newaxis]))
    samples = np.rint(np.maximum(_MADE_BASELINE + _MADE_HEIGHT * value, 0.0)).astype(np.uint16)
    counts = np.full(_MADE_ECHOES, width, dtype=np.uint16)
    return Records(samples, counts, pulse.sampling_interval)


def position_differences(
    reference: StrongEchoes, sharpened: Mapping[str, np.ndarray[Any, Any]]
) -> FloatArray:
    """Position of the strongest sharpened echo within reach of each lone echo, minus its own.

    Echoes are matched within their row; those without a counterpart give nothing.
    """
    lone = reference.alone
    rows, position = reference.row[lone], reference.position[lone]
    row, found = sharpened["row"], sharpened["idx"]
    if len(rows) == 0 or len(row) == 0:
        return np.empty(0)
    place = np.minimum(np.searchsorted(rows, row), len(rows) - 1)
    difference = found - position[place]
    matches = (rows[place] == row) & (np.abs(difference) <= _REACH)
    order = np.lexsort((-sharpened["amplitudeCounts"], np.where(matches, place, len(rows))))
    order = order[matches[order]]
    _, first = np.unique(place[order], return_index=True)
    return np.asarray(difference[order][first], dtype=np.float64)


def summary_of(differences: FloatArray, decomposed: float = 0.0) -> DeconvolutionOffset:
    """Median and robust spread of differences in samples; not empty.

    `decomposed` is the median by which the decomposition differs from the Gauss fit.
    """
    middle = float(np.median(differences))
    spread = float(1.4826 * np.median(np.abs(differences - middle)))
    return DeconvolutionOffset(middle, spread, len(differences), middle - decomposed)
