"""How well found echoes agree with the true ones."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from accuracy.bound import Bound
from accuracy.methods import Found, Ints
from accuracy.pulses import Floats, Pulse
from accuracy.scenes import Truth
from fullwaveform.analysis.matching import Matching, match_echoes

#: A found echo belongs to a true one if they are nearest to each other and their distance is at
#: most this share of the full width at half maximum of the pulse.
TOLERANCE = 0.5
#: Deviations within which 68 % and 95 % of normally distributed errors lie.
WITHIN = {"within68": 1.0, "within95": 1.96}
Measures = dict[str, float]
_OF_PAIRS = ("bias", "rms", "rms_height", "pull")


def match(found: Found, row: Ints, position: Floats, tolerance: float) -> Matching:
    """Pairs of found and true echoes, one to one, nearest pairs first."""
    return match_echoes(found.row, found.position, row, position, tolerance)


@dataclass(frozen=True)
class Errors:
    """Found minus true value of paired echoes (m,), and stated standard deviations."""

    position: Floats  # samples
    height: Floats  # counts
    fwhm: Floats  # samples
    sigma_position: Floats
    sigma_height: Floats
    sigma_fwhm: Floats

    @classmethod
    def of(cls, found: Found, rows: Ints, position: Floats, height: Floats, fwhm: Floats) -> Errors:
        """Of the found echoes `rows` (m,) whose true values are given (m,)."""
        return cls(
            found.position[rows] - position,
            found.height[rows] - height,
            found.fwhm[rows] - fwhm,
            found.sigma_position[rows],
            found.sigma_height[rows],
            found.sigma_fwhm[rows],
        )


def single_measures(found: Found, truth: Truth, pulse: Pulse, bound: Bound) -> Measures:
    """Of waveforms with at most one true echo each.

    detected : % of the true echoes that are paired
    extra : other found echoes per 100 waveforms
    and those of `error_measures`
    """
    rows = len(truth.position)
    row = np.arange(rows)
    pairs = match(found, row, truth.position[:, 0], TOLERANCE * pulse.fwhm)
    true = pairs.ref_index
    height = truth.height[true, 0]
    errors = Errors.of(
        found,
        pairs.found_index,
        truth.position[true, 0],
        height,
        pulse.fwhm_at(truth.variance[true, 0]),
    )
    return {
        "detected": 100.0 * len(pairs) / rows,
        "extra": 100.0 * len(pairs.unmatched_found) / rows,
        **error_measures(errors, bound, 0, height),
    }


def error_measures(errors: Errors, bound: Bound, echo: int, height: Floats) -> Measures:
    """Bias and spread of paired echoes, and whether their stated deviations hold.

    bias : mean error of the position, 0.001 samples
    bias_height : mean error of the height, % of it
    rms, rms_height, rms_fwhm : root mean square of the error over the bound
    pull, pull_height, pull_fwhm : root mean square of the error over its stated deviation
    within68, within95 : share of the positions within 1 and 1.96 stated deviations
    """
    stated = np.isfinite(errors.sigma_position) & (errors.sigma_position > 0.0)
    ratio = np.abs(errors.position[stated]) / errors.sigma_position[stated]
    return {
        "bias": 1000.0 * _mean(errors.position),
        "bias_height": 100.0 * _mean(errors.height / height),
        "rms": _rms(errors.position) / float(bound.position[0, echo]),
        "rms_height": _rms(errors.height) / float(bound.height[0, echo]),
        "rms_fwhm": _rms(errors.fwhm) / float(bound.fwhm[0, echo]),
        "pull": _pull(errors.position, errors.sigma_position),
        "pull_height": _pull(errors.height, errors.sigma_height),
        "pull_fwhm": _pull(errors.fwhm, errors.sigma_fwhm),
        **{name: _mean((ratio <= limit).astype(np.float64)) for name, limit in WITHIN.items()},
    }


def found_as_two(found: Found, rows: int, position: Floats, tolerance: float) -> Ints:
    """Waveforms with exactly two echoes of which each is near a true one, in their order.

    position : (rows, 2) true positions
    tolerance : samples
    """
    two = np.flatnonzero(np.bincount(found.row, minlength=rows) == 2)
    first = np.searchsorted(found.row, two)
    seen = np.stack([found.position[first], found.position[first + 1]], axis=1)
    return np.asarray(two[np.all(np.abs(seen - position[two]) <= tolerance, axis=1)])


def pair_measures(found: Found, truth: Truth, pulse: Pulse, bound: Bound) -> Measures:
    """Of waveforms with two echoes.

    two : % with exactly two echoes, each within the tolerance of the true one
    mean_echoes : found per waveform
    pull : of the positions of both
    and some of `error_measures` for the first and the second echo of the waveforms with two
    """
    rows = len(truth.position)
    two = found_as_two(found, rows, truth.position, TOLERANCE * pulse.fwhm)
    measures = {"two": 100.0 * len(two) / rows, "mean_echoes": len(found) / rows}
    first = np.searchsorted(found.row, two)
    for echo, name in enumerate(("first", "second")):
        height = truth.height[two, echo]
        errors = Errors.of(
            found,
            first + echo,
            truth.position[two, echo],
            height,
            pulse.fwhm_at(truth.variance[two, echo]),
        )
        of_echo = error_measures(errors, bound, echo, height)
        measures |= {f"{name}_{key}": of_echo[key] for key in _OF_PAIRS}
    pulls = [measures["first_pull"], measures["second_pull"]]
    measures["pull"] = float(np.sqrt(np.mean(np.square(pulls))))
    return measures


def _mean(values: Floats) -> float:
    return float(np.mean(values)) if len(values) else float("nan")


def _rms(values: Floats) -> float:
    return float(np.sqrt(np.mean(values**2))) if len(values) else float("nan")


def _pull(errors: Floats, sigma: Floats) -> float:
    stated = np.isfinite(sigma) & (sigma > 0.0)
    return _rms(errors[stated] / sigma[stated])
