"""The methods under test: from waveforms to echoes, as users of the package call them."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass, replace
from functools import cache

import numpy as np
import numpy.typing as npt

import fullwaveform as fw
from accuracy.pulses import LAG_STEP, Floats, Pulse
from accuracy.scenes import INTERVAL, Scene
from fullwaveform.core.pulse_fit import PulseFitSettings, PulseModel, fit_pulses
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.blocks import PulseGeometry, ShotAttributes, WaveformBlock
from fullwaveform.system_wave import (
    fit_system_wave,
    offset_of_simulated_echoes,
    pulse_of_curve,
    with_system_wave,
)

Ints = npt.NDArray[np.int64]
Samples = npt.NDArray[np.uint16]

NANOSECONDS = 1e9
PULSE_FIT = "pulse fit"
#: Methods of the driver, by name.
MODES = {"three-point": 0, "decomposition": 1, "deconvolution": 2, "hybrid": 3}
METHODS = (*MODES, PULSE_FIT)
DECONVOLVING = ("deconvolution", "hybrid")


@dataclass(frozen=True)
class Found:
    """Echoes of many waveforms, sorted by row and position; deviations are NaN where unknown."""

    row: Ints
    position: Floats  # samples
    height: Floats  # counts above the baseline
    fwhm: Floats  # samples
    sigma_position: Floats
    sigma_height: Floats
    sigma_fwhm: Floats

    def __len__(self) -> int:
        return len(self.row)

    @classmethod
    def sorted(cls, row: Ints, *columns: Floats) -> Found:
        """The columns in the order of rows and positions."""
        order = np.lexsort((columns[0], row))
        return cls(row[order], *(np.asarray(column, np.float64)[order] for column in columns))


def find(method: str, scene: Scene, settings: PulseFitSettings | None = None) -> Found:
    """The echoes of a scene; the pulse fit gets its true pulse, noise and baseline as model."""
    if method == PULSE_FIT:
        settings = settings or PulseFitSettings(digitiser_limit=scene.receiver.limit)
        return find_with_model(scene.samples, model_of(scene), settings)
    scanner = scanner_of(scene.pulse) if method in DECONVOLVING else Scanner.default(INTERVAL)
    return find_with_mode(method, scene.samples, scanner)


def find_with_model(samples: Samples, model: PulseModel, settings: PulseFitSettings) -> Found:
    """The echoes of the pulse fit."""
    echoes = fit_pulses(samples, None, model, settings).echoes
    names = (
        "position",
        "amplitude",
        "fwhm",
        "sigma_position",
        "sigma_amplitude",
        "sigma_fwhm",
    )
    return Found.sorted(echoes["row"].astype(np.int64), *(echoes[name] for name in names))


def find_with_mode(method: str, samples: Samples, scanner: Scanner) -> Found:
    """The echoes of a method of the driver, with the threshold that `extract` measures."""
    block = block_of(samples)
    extraction = fw.extract(block, mode=MODES[method], scanner=scanner, workers=1)
    return of_extraction(extraction, extraction.peaks["waveform_number"].astype(np.int64))


def of_extraction(extraction: fw.Extraction, row: Ints) -> Found:
    """The echoes of an extraction of waveforms of one sampling interval; `row` of each."""
    peaks = extraction.peaks
    per_sample = extraction.waveforms["sampling_interval"][0] * NANOSECONDS
    return Found.sorted(
        row,
        peaks["position"],
        peaks["amplitude"],
        peaks["fwhm_ns"] / per_sample,
        peaks["sigma_position_ns"] / per_sample,
        peaks["sigma_amplitude"],
        peaks["sigma_width_ns"] / per_sample,
    )


def model_of(scene: Scene) -> PulseModel:
    """What the scene was made of."""
    receiver, priors = scene.receiver, scene.receiver.priors
    return PulseModel(
        pulse=tuple(scene.pulse.table()),
        first_lag=scene.pulse.first_lag,
        lag_step=LAG_STEP,
        baseline=receiver.baseline,
        baseline_spread=0.0,  # the prior of the fit is then 0.3 noise rms wide, as the scenes are
        noise_rms=receiver.sample_rms,
        noise_correlation=scene.noise_correlation,
        scatter=0.0,
        variance_spread=priors.variance_spread,
        widening=priors.widening,
        sampling_interval=INTERVAL,
    )


@cache
def scanner_of(pulse: Pulse) -> Scanner:
    """A scanner whose system wave is fitted to the pulse, with its offset."""
    values = pulse.table()
    time = (pulse.first_lag + LAG_STEP * np.arange(len(values))) * INTERVAL
    curve = pulse_of_curve(time, values, INTERVAL, pulse.name)
    wave = fit_system_wave(curve).in_seconds()
    scanner = with_system_wave(Scanner.default(), wave, INTERVAL)
    offset = offset_of_simulated_echoes(scanner, curve)
    return replace(
        scanner, deconvolution_offset=offset.position, deconvolution_offset_hybrid=offset.hybrid
    )


def block_of(samples: Samples) -> WaveformBlock:
    """Waveforms of a shot each, without a place in space."""
    rows, width = samples.shape
    flat = np.zeros(rows, np.uint8)
    return WaveformBlock(
        samples=samples,
        counts=np.full(rows, width, np.uint16),
        shot_times=np.arange(rows, dtype=np.float64),
        sbl_times=np.zeros(rows),
        channel_flags=np.ones(rows, np.uint8),
        sampling_intervals=np.full(rows, INTERVAL),
        geometry=PulseGeometry(
            np.full((rows, 3), np.nan), np.zeros(rows), np.full((rows, 3), np.nan)
        ),
        attributes=ShotAttributes(
            np.zeros(rows), np.zeros(rows, np.float32), flat, flat, flat, np.zeros(rows, np.uint16)
        ),
        waveform_numbers=np.arange(rows),
    )


def checked_methods(names: Sequence[str]) -> tuple[str, ...]:
    """The methods of these names, in the order of the tables; ValueError for an unknown one."""
    unknown = sorted(set(names) - set(METHODS))
    if unknown:
        raise ValueError(f"unknown method {unknown[0]!r}; expected one of {', '.join(METHODS)}")
    return tuple(method for method in METHODS if method in names)
