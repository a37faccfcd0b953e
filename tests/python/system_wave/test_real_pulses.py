"""System waves of real scanners, if their waveforms are available."""

from __future__ import annotations

from collections.abc import Mapping
from functools import cache
from pathlib import Path
from typing import Any

import numpy as np
import pytest

from fullwaveform import Mode, Scanner
from fullwaveform.calibration.isolated import StrongEchoes, Waveforms, echoes_of, strongest_echoes
from fullwaveform.core.refinement import refine_deconvolved
from fullwaveform.data.arrays import AnyArray
from fullwaveform.system_wave import AveragePulse, SystemWave, fit_system_wave, measure_offset
from fullwaveform.system_wave.description import with_system_wave
from fullwaveform.system_wave.offset import position_differences
from fullwaveform.system_wave.sources import Input, Source

from ..support.las_scenes import data_folder

FOLDER = data_folder()
STRIP = FOLDER / "pulsewaves" / "topo_1ns.pls"
FOREST = FOLDER / "arrays" / "forest_12bit.npz"

needs_strip = pytest.mark.skipif(
    not STRIP.exists(), reason=f"no {STRIP.name} in the folder of real data"
)
COARSE = FOLDER / "arrays" / "topo_2ns.npz"

needs_coarse = pytest.mark.skipif(
    not COARSE.exists(), reason=f"no {COARSE.name} in the folder of real data"
)
needs_forest = pytest.mark.skipif(
    not FOREST.exists(), reason=f"no {FOREST.name} in the folder of real data"
)


@cache
def averaged(path: Path, source: Source | None, array: str | None, threshold: int) -> AveragePulse:
    return Input(path, source, array, threshold=threshold).averaged_pulse(Scanner.default())


def strip_wave() -> SystemWave:
    return fit_system_wave(averaged(STRIP, None, None, 8))


def width_at_half(pulse: AveragePulse) -> float:
    return float(np.ptp(pulse.position[pulse.value >= 0.5]))


@needs_strip
def test_average_of_outgoing_pulses_shows_ringing() -> None:
    pulse = averaged(STRIP, None, None, 8)
    assert pulse.used == 4000
    # Rounding and 0.7 counts of noise on pulses of about 185 counts.
    assert pulse.scatter == pytest.approx(0.76 / 185, rel=0.15)
    after = (pulse.position > 7.0) & (pulse.position < 15.0)
    bump = pulse.position[after][np.argmax(pulse.value[after])]
    assert 10.0 < bump < 11.5
    assert 0.03 < pulse.value[after].max() < 0.06
    assert 3.8 < width_at_half(pulse) < 4.6


@needs_strip
def test_average_of_echoes_agrees_with_the_outgoing_pulse() -> None:
    """Hard targets reflect the pulse unchanged, except for the bandwidth of the other receiver."""
    sent, returned = averaged(STRIP, None, None, 8), averaged(STRIP, Source.ECHOES, None, 8)
    assert width_at_half(returned) == pytest.approx(width_at_half(sent), rel=0.15)
    position = np.arange(-5.0, 6.1, 0.1)
    assert np.abs(returned.at(position) - sent.at(position)).max() < 0.08


@needs_strip
def test_exponentials_fit_the_outgoing_pulse() -> None:
    wave = strip_wave()
    assert wave.is_contained
    assert 5 <= wave.fit.sum.order <= 7
    assert wave.fit.misfit.rms < 1e-3
    assert wave.fit.misfit.largest < 4e-3


def refined(
    peaks: Mapping[str, AnyArray], waveforms: Waveforms, scanner: Scanner
) -> dict[str, AnyArray]:
    """Deconvolved echoes with the positions of an extraction, to which the offset applies."""
    positions, _ = refine_deconvolved(
        waveforms.samples,
        waveforms.counts,
        waveforms.baseline(),
        peaks["row"],
        peaks["idx"],
        scanner,
    )
    return {**peaks, "idx": positions}


@needs_strip
def test_modes_agree_after_the_offset() -> None:
    """Measured on every other waveform, applied to the remaining ones."""
    wave = strip_wave()
    scanner = with_system_wave(Scanner.default(), wave.in_seconds(), 1e-9)
    parts = [part for part in Input(STRIP).waveforms() if len(part.samples) > 1000]
    even, odd = ([of_rows(part, first) for part in parts] for first in (0, 1))
    offset = measure_offset(scanner, even, 8)
    assert offset is not None
    assert offset.echoes > 5000
    assert offset.spread < 0.15
    (rest,) = odd
    fitted = strongest_echoes(echoes_of(rest, scanner, 8, Mode.THREE_POINT), rest.baseline())
    deconvolved = median_from(
        fitted, refined(echoes_of(rest, scanner, 8, Mode.DECONVOLUTION), rest, scanner)
    )
    assert abs(deconvolved - offset.position) < 0.05
    # The hybrid deconvolves the low-power channel (flag 1) and decomposes the other.
    branches = [echoes_of(rest, scanner, 8, Mode.HYBRID, flag) for flag in (1, 0)]
    assert [set(branch["type"].tolist()) for branch in branches] == [{5}, {3}]
    branches[0] = refined(branches[0], rest, scanner)
    low_power, normal = (median_from(fitted, branch) for branch in branches)
    assert abs(low_power - offset.hybrid - normal) < 0.05


@needs_coarse
def test_hybrid_agrees_where_fit_and_decomposition_differ() -> None:
    """Every other waveform is of the low-power channel."""
    pulse = averaged(COARSE, Source.ECHOES, None, 8)
    wave = fit_system_wave(pulse).in_seconds()
    scanner = with_system_wave(Scanner.default(), wave, pulse.sampling_interval)
    parts = list(Input(COARSE).waveforms())
    offset = measure_offset(scanner, parts, 8)
    assert offset is not None
    assert abs(offset.hybrid - offset.position) > 0.1
    medians = []
    for first, flag in ((0, 0), (1, 1)):
        differences = []
        for part in (of_rows(part, first) for part in parts):
            fitted = strongest_echoes(
                echoes_of(part, scanner, 8, Mode.THREE_POINT), part.baseline()
            )
            peaks = echoes_of(part, scanner, 8, Mode.HYBRID, flag)
            assert set(peaks["type"].tolist()) <= {5 if flag else 3}
            peaks = refined(peaks, part, scanner) if flag else dict(peaks)
            differences.append(position_differences(fitted, peaks))
        medians.append(np.median(np.concatenate(differences)) - (offset.hybrid if flag else 0.0))
    assert abs(medians[1] - medians[0]) < 0.05


def median_from(fitted: StrongEchoes, peaks: Mapping[str, Any]) -> float:
    """Median distance of echoes from the fitted ones, samples."""
    return float(np.median(position_differences(fitted, peaks)))


def of_rows(waveforms: Waveforms, first: int) -> Waveforms:
    """Every other row."""
    return Waveforms(
        np.ascontiguousarray(waveforms.samples[first::2]),
        waveforms.counts[first::2],
        waveforms.sampling_interval,
    )


@needs_forest
@pytest.mark.parametrize("array", ["out_samples", "impulse_samples"])
def test_long_pulse_is_not_contained_in_the_window(array: str) -> None:
    pulse = averaged(FOREST, None, array, 240)
    assert 14.0 < width_at_half(pulse) < 16.0
    wave = fit_system_wave(pulse)
    assert not wave.is_contained
    assert 0.7 < wave.contained < 0.8
    assert wave.fit.misfit.rms < 1e-3
    scanner = with_system_wave(Scanner.default(), wave.in_seconds(), 1e-9)
    offset = measure_offset(scanner, Input(FOREST).waveforms(), 240)
    assert offset is not None
    assert offset.echoes > 300
    # A maximum 15 samples wide is flat: fitted positions scatter by most of a sample.
    assert offset.spread < 1.0
