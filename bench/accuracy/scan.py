"""Table of the simulated scan: sloping ground, houses and trees, two channels, clipped echoes."""

from __future__ import annotations

import math
from collections.abc import Iterator
from functools import cache, partial

import numpy as np
from scipy.special import erf

import fullwaveform as fw
from accuracy.bound import QUANTISATION_VARIANCE, Priors, cramer_rao
from accuracy.measures import TOLERANCE, match
from accuracy.methods import DECONVOLVING, Found, of_extraction, scanner_of
from accuracy.plan import Plan, Row, Task
from accuracy.pulses import Floats, Pulse
from fullwaveform.calibration.levels import measure_levels
from fullwaveform.calibration.pulse_model import measure_pulse_models
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.data.columns import take_rows
from fullwaveform.simulation import ScanSettings, SimulatedScan, simulate_scan
from fullwaveform.simulation.recording import record, recorded_block

NEAR = 0.15  # samples of 1 ns
LIMIT, LIMIT_WITHOUT_PRIOR = "bound", "bound without prior of the widths"
LIMIT_WITHOUT_EDGE = "bound, normal prior of the widths"
_UNKNOWN_WIDTHS = (50.0, 50.0)  # samples squared
BOTH, LOW_POWER = "both", "low power"
_SEED = 11
_FWHM_PER_SIGMA = float(np.sqrt(8.0 * np.log(2.0)))
_SHOTS_AT_ONCE = 2000
_TREE = 5  # class of the echoes of trees


def scan_tasks(plan: Plan) -> list[Task]:
    """A task per method and choice of channels."""
    return [
        *(
            partial(_scan, plan.shots, method, channels)
            for channels in (BOTH, LOW_POWER)
            for method in plan.methods
        ),
        partial(_limits, plan.shots),
    ]


@cache
def _simulated(shots: int) -> SimulatedScan:
    return simulate_scan(ScanSettings(shots=shots, seed=_SEED))


@cache
def _scan_pulse() -> Pulse:
    return Pulse.gaussian("scan", ScanSettings().pulse_width * _FWHM_PER_SIGMA)


def _blocks(scan: SimulatedScan, channels: str) -> Iterator[WaveformBlock]:
    recording = record(scan)
    shots = len(scan.samples)
    for first in range(0, shots, _SHOTS_AT_ONCE):
        block = recorded_block(scan, recording, first, min(first + _SHOTS_AT_ONCE, shots))
        if channels == LOW_POWER:
            block = take_rows(block, np.flatnonzero(block.channel_flags == 1))
        yield block


def _scan(shots: int, method: str, channels: str) -> list[Row]:
    scan = _simulated(shots)
    scanner = scanner_of(_scan_pulse()) if method in DECONVOLVING else Scanner.default()
    blocks = _blocks(scan, channels)
    extraction = fw.extract(blocks, mode=method.replace(" ", "-"), scanner=scanner, workers=1)
    shot = extraction.peaks["waveform_number"].astype(np.int64) // 2
    found = of_extraction(extraction, shot)
    return [{"channels": channels, "method": method, **scan_measures(found, scan)}]


def _limits(shots: int) -> list[Row]:
    """What the bound allows of overlapping echoes, by what is known of their widths."""
    scan = _simulated(shots)
    blocks = list(_blocks(scan, LOW_POWER))
    (measured,) = measure_pulse_models(blocks, measure_levels(blocks), "simulated scan")
    model = measured.entry.model
    # As the pulse fit expects several echoes: three times as wide as single ones, and smoother.
    several = (math.hypot(model.variance_spread, 0.4 * model.widening), 3.0 * model.widening)
    of_trees = float(np.std(_variance(scan)[scan.truth.classification == _TREE]))
    known = {
        LIMIT: several,
        # The information of a prior with a steep edge counts the edge, which few echoes are near.
        LIMIT_WITHOUT_EDGE: (of_trees, 0.01 * of_trees),
        LIMIT_WITHOUT_PRIOR: _UNKNOWN_WIDTHS,
    }
    return [
        {"channels": LOW_POWER, "method": name, "overlapping": overlapping_limit(scan, *widths)}
        for name, widths in known.items()
    ]


def _variance(scan: SimulatedScan) -> Floats:
    """Widening of the true echoes, samples squared."""
    return np.asarray(scan.truth.sigma_samples**2 - scan.settings.pulse_width**2)


def overlapping_limit(scan: SimulatedScan, spread: float, widening: float) -> float:
    """% of overlapping echoes within 0.15 samples if errors are as large as the bound.

    The number of echoes is known; spread and mean of the prior of the widths are given.
    """
    truth, settings = scan.truth, scan.settings
    noise_variance = settings.noise_rms**2 + QUANTISATION_VARIANCE
    priors = Priors(0.3 * settings.noise_rms, spread, widening)
    deviation = np.full(len(truth), np.nan)
    _, start, count = np.unique(truth.shot, return_index=True, return_counts=True)
    for echoes in np.unique(count):
        index = start[count == echoes][:, np.newaxis] + np.arange(echoes)
        deviation[index] = cramer_rao(
            _scan_pulse(),
            truth.position_samples[index],
            truth.amplitude_low_power[index],
            _variance(scan)[index],
            noise_variance=noise_variance,
            priors=priors,
            used=np.ones((len(index), settings.samples)),
        ).position
    chosen = truth.overlapping & ~truth.saturated
    return 100.0 * float(np.mean(erf(NEAR / np.sqrt(2.0) / deviation[chosen])))


def scan_measures(found: Found, scan: SimulatedScan) -> Row:
    """Shares of the true echoes, and extra echoes.

    detected : % of the true echoes that are paired
    near, overlapping, saturated : % of all, of the overlapping, and of the clipped true echoes with
        a partner within 0.15 samples
    extra : found echoes without partner, % of the true echoes
    pull, pull_overlapping, within68, within95 : of all pairs, or those of overlapping echoes, in
        shots whose number of found echoes is the true one
    right : % of the shots with true echoes with this number
    """
    truth = scan.truth
    pairs = match(found, truth.shot, truth.position_samples, TOLERANCE * _scan_pulse().fwhm)
    near = np.zeros(len(truth), dtype=bool)
    near[pairs.ref_index] = np.abs(pairs.difference) <= NEAR
    shots = len(scan.samples)
    number = np.bincount(truth.shot, minlength=shots)
    is_right = np.bincount(found.row, minlength=shots) == number
    chosen = is_right[truth.shot[pairs.ref_index]]
    ratio = pairs.difference / found.sigma_position[pairs.found_index]
    overlapping = truth.overlapping[pairs.ref_index]
    return {
        "true_echoes": len(truth),
        "detected": 100.0 * len(pairs) / len(truth),
        "near": _percent(near),
        "overlapping": _percent(near[truth.overlapping]),
        "saturated": _percent(near[truth.saturated]),
        "extra": 100.0 * len(pairs.unmatched_found) / len(truth),
        "right": _percent(is_right[number > 0]),
        "pull": _rms(ratio[chosen]),
        "pull_overlapping": _rms(ratio[chosen & overlapping]),
        "within68": _share(ratio[chosen], 1.0),
        "within95": _share(ratio[chosen], 1.96),
    }


def _percent(chosen: np.ndarray) -> float:
    return 100.0 * float(np.mean(chosen)) if len(chosen) else float("nan")


def _rms(ratio: Floats) -> float:
    known = ratio[np.isfinite(ratio)]
    return float(np.sqrt(np.mean(known**2))) if len(known) else float("nan")


def _share(ratio: Floats, limit: float) -> float:
    known = ratio[np.isfinite(ratio)]
    return float(np.mean(np.abs(known) <= limit)) if len(known) else float("nan")
