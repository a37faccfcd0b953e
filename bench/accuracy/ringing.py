"""Table of the benchmark's pulse, which is strongly skewed and rings."""

from __future__ import annotations

from functools import cache, partial

import numpy as np

from accuracy.bound import QUANTISATION_VARIANCE, Priors
from accuracy.measures import TOLERANCE, match
from accuracy.methods import PULSE_FIT, Found, Samples, find_with_mode, find_with_model, scanner_of
from accuracy.plan import Plan, Row, Task
from accuracy.pulses import LAG_STEP, Floats, Pulse, ringing_delay, ringing_pulse
from accuracy.scenes import INTERVAL, WIDTH, generator
from accuracy.sequential import sequential_fit
from fullwaveform.core.pulse_fit import PulseFitSettings, PulseModel

SEQUENTIAL = "one Gaussian at a time"
NEAR = 0.15  # samples of 1 ns
_ECHOES = (1, 2, 3)  # per waveform
_BASELINE, _NOISE = 10.0, 4.0  # counts; the noise is evenly distributed over this range
_MARGIN = 14.0  # length of a pulse, samples
_LOWEST, _RANGE = (
    40.0,
    37.5,
)  # counts, heights are between the first and its product with the second
_NOISE_RMS = float(np.sqrt(_NOISE**2 / 12.0 + QUANTISATION_VARIANCE))
# The pulse starts with a bend: what it has above 0.9 cycles per sample is not in a table, at most
# 0.0015 of its maximum.
_SCATTER = 0.001
_PRIORS = Priors(0.3 * _NOISE_RMS, variance_spread=0.02, widening=0.0)


@cache
def benchmark_pulse() -> Pulse:
    """The pulse of the C++ benchmarks."""
    return ringing_pulse("ringing")


def benchmark_waveforms(echoes: int, rows: int) -> tuple[Samples, Floats]:
    """Waveforms like those of the C++ benchmarks, and the positions (rows, echoes) of their maxima.

    The echoes have a part of the waveform each, in which they begin anywhere.
    """
    rng = generator(f"ringing {echoes}")
    part = (WIDTH - _MARGIN) / echoes
    start = 1.0 + part * (np.arange(echoes) + rng.random((rows, echoes)))
    height = _LOWEST * _RANGE ** rng.random((rows, echoes))
    values = _BASELINE + _NOISE * (rng.random((rows, WIDTH)) - 0.5)
    for k in range(echoes):
        t = np.maximum(np.arange(WIDTH) - start[:, k : k + 1], 0.0)
        values += height[:, k : k + 1] * 1.9 * np.exp(-0.25 * t) * (1.0 - np.cos(0.5 * t))
    return np.rint(values).astype(np.uint16), start + ringing_delay()


def ringing_tasks(plan: Plan) -> list[Task]:
    """A task per number of echoes."""
    return [partial(_ringing, plan, echoes) for echoes in _ECHOES]


def _ringing(plan: Plan, echoes: int) -> list[Row]:
    samples, position = benchmark_waveforms(echoes, plan.ringing)
    # The sequential fit is compared with the decomposition and the pulse fit.
    methods = [*plan.methods, SEQUENTIAL]
    return [
        {"echoes": echoes, "method": method, **_measures(_found(method, samples), position)}
        for method in methods
    ]


def _found(method: str, samples: Samples) -> Found:
    pulse = benchmark_pulse()
    if method == SEQUENTIAL:
        return sequential_fit(samples, _BASELINE, _NOISE_RMS, pulse.fwhm / 2.355)
    if method == PULSE_FIT:
        return find_with_model(samples, _model(pulse), PulseFitSettings())
    return find_with_mode(method, samples, scanner_of(pulse))


def _model(pulse: Pulse) -> PulseModel:
    return PulseModel(
        pulse=tuple(pulse.table()),
        first_lag=pulse.first_lag,
        lag_step=LAG_STEP,
        baseline=_BASELINE,
        baseline_spread=0.0,
        noise_rms=_NOISE_RMS,
        noise_correlation=1.0,
        scatter=_SCATTER,
        variance_spread=_PRIORS.variance_spread,
        widening=_PRIORS.widening,
        sampling_interval=INTERVAL,
    )


def _measures(found: Found, position: Floats) -> Row:
    """Share of the echoes near the true one, and echoes that belong to none.

    The median difference is taken off, because a Gaussian does not peak where a skewed pulse does.
    """
    rows, echoes = position.shape
    row = np.repeat(np.arange(rows), echoes)
    pairs = match(found, row, position.ravel(), TOLERANCE * benchmark_pulse().fwhm)
    offset = float(np.median(pairs.difference)) if len(pairs) else float("nan")
    near = np.abs(pairs.difference - offset) <= NEAR
    return {
        "near": 100.0 * float(np.count_nonzero(near)) / (rows * echoes),
        "detected": 100.0 * len(pairs) / (rows * echoes),
        "surplus": 100.0 * len(pairs.unmatched_found) / (rows * echoes),
        "offset": offset,
    }
