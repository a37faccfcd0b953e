"""Table of the simulated scan: sloping ground, houses and trees, two channels, clipped echoes."""

from __future__ import annotations

from collections.abc import Iterator
from functools import cache, partial

import numpy as np

import fullwaveform as fw
from accuracy.measures import TOLERANCE, match
from accuracy.methods import DECONVOLVING, MODES, Found, of_extraction, scanner_of
from accuracy.plan import Plan, Row, Task
from accuracy.pulses import Floats, Pulse
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.data.columns import take_rows
from fullwaveform.simulation import ScanSettings, SimulatedScan, simulate_scan
from fullwaveform.simulation.recording import record, recorded_block

NEAR = 0.15  # samples of 1 ns
BOTH, LOW_POWER = "both", "low power"
_SEED = 11
_FWHM_PER_SIGMA = float(np.sqrt(8.0 * np.log(2.0)))
_SHOTS_AT_ONCE = 2000


def scan_tasks(plan: Plan) -> list[Task]:
    """A task per method and choice of channels."""
    return [
        partial(_scan, plan.shots, method, channels)
        for channels in (BOTH, LOW_POWER)
        for method in plan.methods
        if method in MODES
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


def scan_measures(found: Found, scan: SimulatedScan) -> Row:
    """Shares of the true echoes, and extra echoes.

    detected : % of the true echoes that are paired
    near, overlapping, saturated : % of all, of the overlapping, and of the clipped true echoes with
        a partner within 0.15 samples
    extra : found echoes without partner, % of the true echoes
    pull, within68, within95 : of all pairs; pull_overlapping : of the overlapping echoes
    """
    truth = scan.truth
    pairs = match(found, truth.shot, truth.position_samples, TOLERANCE * _scan_pulse().fwhm)
    near = np.zeros(len(truth), dtype=bool)
    near[pairs.ref_index] = np.abs(pairs.difference) <= NEAR
    ratio = pairs.difference / found.sigma_position[pairs.found_index]
    overlapping = truth.overlapping[pairs.ref_index]
    return {
        "true_echoes": len(truth),
        "detected": 100.0 * len(pairs) / len(truth),
        "near": _percent(near),
        "overlapping": _percent(near[truth.overlapping]),
        "saturated": _percent(near[truth.saturated]),
        "extra": 100.0 * len(pairs.unmatched_found) / len(truth),
        "pull": _rms(ratio),
        "pull_overlapping": _rms(ratio[overlapping]),
        "within68": _share(ratio, 1.0),
        "within95": _share(ratio, 1.96),
    }


def _percent(chosen: np.ndarray) -> float:
    return 100.0 * float(np.mean(chosen)) if len(chosen) else float("nan")


def _rms(ratio: Floats) -> float:
    known = ratio[np.isfinite(ratio)]
    return float(np.sqrt(np.mean(known**2))) if len(known) else float("nan")


def _share(ratio: Floats, limit: float) -> float:
    known = ratio[np.isfinite(ratio)]
    return float(np.mean(np.abs(known) <= limit)) if len(known) else float("nan")
