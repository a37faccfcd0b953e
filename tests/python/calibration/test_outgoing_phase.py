"""The decision on the phase of outgoing pulses, on shots whose true ranges are known."""

from __future__ import annotations

from dataclasses import replace

import numpy as np
import numpy.typing as npt
import pytest

from fullwaveform.calibration.calibration import Calibration
from fullwaveform.calibration.outgoing_phase import OutgoingPhase, measure_outgoing_phase
from fullwaveform.core.driver import Mode
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.blocks import (
    OutgoingPulses,
    PulseGeometry,
    ShotAttributes,
    WaveformBlock,
)
from fullwaveform.data.columns import take_rows
from fullwaveform.extraction.extractor import ExtractionSettings, Extractor

SHOTS, SAMPLES, SENT = 400, 60, 40
INTERVAL = 1e-9
METRES_PER_SAMPLE = 299_792_458.0 / 2.0 * INTERVAL
Values = npt.NDArray[np.float64]


def pulses(position: Values, width: int, height: float = 900.0) -> npt.NDArray[np.uint16]:
    x = np.arange(width) - position[:, np.newaxis]
    noise = np.random.default_rng(5).normal(0.0, 1.0, x.shape)
    signal = 10.0 + height * np.exp(-0.5 * (x / 1.7) ** 2)
    return np.rint(np.maximum(signal + noise, 0.0)).astype(np.uint16)


def scan(sent: Values, held: Values, shots: int = SHOTS) -> WaveformBlock:
    """A slope that is seen by consecutive shots.

    sent : (shots,) samples, time of the outgoing pulse in its recording
    held : (shots,) samples of this time that the durations already hold
    """
    true = 1000.0 + 0.37 * np.arange(shots)  # samples after the outgoing pulse
    seen = true + sent - held
    start = np.floor(seen) - 25.0
    rows, byte = np.zeros(shots), np.zeros(shots, np.uint8)
    direction = np.tile([0.0, 0.0, METRES_PER_SAMPLE / 1000.0], (shots, 1))
    anchor = np.zeros((shots, 3))
    anchor[:, 2] = -start * METRES_PER_SAMPLE
    return WaveformBlock(
        samples=pulses(seen - start, SAMPLES),
        counts=np.full(shots, SAMPLES, np.uint16),
        shot_times=np.arange(shots, dtype=float),
        sbl_times=start * INTERVAL,
        channel_flags=np.ones(shots, np.uint8),
        sampling_intervals=np.full(shots, INTERVAL),
        geometry=PulseGeometry(anchor, rows, direction),
        attributes=ShotAttributes(
            rows, rows.astype(np.float32), byte, byte, byte, byte.astype(np.uint16)
        ),
        waveform_numbers=np.arange(shots),
        outgoing=OutgoingPulses(
            pulses(sent, SENT, 2000.0),
            np.full(shots, SENT, np.uint16),
            np.full(shots, INTERVAL),
            np.zeros(shots),
        ),
    )


RANDOM = np.random.default_rng(2).uniform(0.0, 1.0, SHOTS)


def thresholds(block: WaveformBlock) -> npt.NDArray[np.int64]:
    return np.full(len(block), 100)


def decided(block: WaveformBlock, choice: str = "auto") -> OutgoingPhase:
    return measure_outgoing_phase([block], thresholds, choice)  # type: ignore[arg-type]


def errors(block: WaveformBlock, phase: OutgoingPhase) -> Values:
    """Differences of the ranges from the true slope in m, less their median."""
    settings = ExtractionSettings(Scanner.default(), Mode.DECOMPOSITION, 100)
    settings = replace(settings, calibration=Calibration(outgoing_phase=phase))
    echoes = Extractor(settings).extract(block).echoes
    assert len(echoes) == len(block)
    error = -echoes.xyz[:, 2] - (1000.0 + 0.37 * np.arange(len(block))) * METRES_PER_SAMPLE
    return np.asarray(error - np.median(error))


def test_phase_between_whole_samples_is_taken_off() -> None:
    sent = 16.0 + RANDOM - 0.5
    block = scan(sent, np.full(SHOTS, 16.0))
    phase = decided(block)
    assert (phase.form, phase.reference, phase.pairs) == ("phase", 0.0, SHOTS - 2)
    # A uniform phase of one sample has a standard deviation of 0.29 samples.
    assert phase.scatter_without == pytest.approx(0.29 * METRES_PER_SAMPLE, rel=0.25)
    assert phase.scatter_with is not None
    assert phase.scatter_with < 0.005
    assert np.abs(errors(block, phase)).max() < 0.01
    assert np.abs(errors(block, OutgoingPhase("none"))).max() > 0.06


def test_whole_samples_that_the_durations_hold_stay() -> None:
    sent = 14.0 + 4.0 * RANDOM
    block = scan(sent, np.rint(sent))
    phase = decided(block)
    assert (phase.form, phase.reference) == ("phase", 0.0)
    assert np.abs(errors(block, phase)).max() < 0.01


def test_whole_samples_that_change_at_another_phase() -> None:
    """The durations count from a point of the pulse 0.3 samples before its maximum."""
    sent = 14.0 + 4.0 * RANDOM
    block = scan(sent, np.rint(sent - 0.3))
    phase = decided(block)
    assert phase.form == "phase"
    assert phase.reference == pytest.approx(0.3, abs=0.051)
    assert np.quantile(np.abs(errors(block, phase)), 0.9) < 0.01


def test_durations_that_hold_nothing_take_the_whole_time() -> None:
    sent = 12.0 + 8.0 * RANDOM
    block = scan(sent, np.full(SHOTS, 16.0))
    phase = decided(block)
    assert phase.form == "whole time"
    assert phase.reference == pytest.approx(16.0, abs=0.5)  # the mean range does not change
    assert np.abs(errors(block, phase)).max() < 0.01


def test_durations_that_hold_the_phase_are_left_alone() -> None:
    sent = 14.0 + 4.0 * RANDOM
    phase = decided(scan(sent, sent))
    assert phase.form == "none"
    assert phase.scatter_without is not None
    assert phase.scatter_with is not None
    assert phase.scatter_without < 0.005 < phase.scatter_with
    assert not phase.is_applied
    forced = decided(scan(sent, sent), "on")
    assert forced.is_applied


def test_few_neighbours_are_not_enough_for_a_decision() -> None:
    few = scan(16.0 + RANDOM[:201], np.full(201, 16.0), 201)
    assert decided(few).pairs == 199
    assert decided(few).form == "none"
    assert decided(few).reason() == "199 neighbouring single-echo ranges; at least 200 needed"
    assert decided(few, "on").form == "phase"
    more = scan(16.0 + RANDOM[:202], np.full(202, 16.0), 202)
    assert decided(more).form == "phase"


def test_channels_that_are_not_told_apart_do_not_count_twice() -> None:
    """Both receivers of a shot see its echo, and their ranges differ by 3 samples."""
    low = scan(16.0 + RANDOM - 0.5, np.full(SHOTS, 16.0))
    assert low.outgoing is not None
    rows = np.repeat(np.arange(SHOTS), 2)
    both = take_rows(low, rows)
    second = np.tile([False, True], SHOTS)
    both = replace(
        both,
        sbl_times=both.sbl_times + 3.0 * INTERVAL * second,
        descriptors=(1 + second).astype(np.uint8),
        outgoing=take_rows(low.outgoing, rows),
    )
    phase = decided(both)
    assert (phase.form, phase.pairs) == ("phase", SHOTS - 2)
    assert phase.scatter_with is not None
    assert phase.scatter_with < 0.005


def test_shots_without_an_outgoing_pulse_keep_their_place() -> None:
    block = scan(16.0 + RANDOM - 0.5, np.full(SHOTS, 16.0))
    assert block.outgoing is not None
    counts = block.outgoing.counts.copy()
    counts[[3, 7]] = 0
    gaps = replace(block, outgoing=replace(block.outgoing, counts=counts))
    phase = decided(gaps)
    settings = ExtractionSettings(Scanner.default(), Mode.DECOMPOSITION, 100)
    plain = Extractor(settings).extract(gaps)
    moved = Extractor(replace(settings, calibration=Calibration(outgoing_phase=phase))).extract(
        gaps
    )
    assert moved.tally.without_phase == 2
    assert plain.tally.without_phase == 0
    still = (moved.echoes.xyz == plain.echoes.xyz).all(axis=1)
    assert np.flatnonzero(still).tolist() == [3, 7]


def test_positions_stay_and_times_move() -> None:
    block = scan(16.0 + RANDOM - 0.5, np.full(SHOTS, 16.0))
    phase = decided(block)
    settings = ExtractionSettings(Scanner.default(), Mode.DECOMPOSITION, 100)
    plain = Extractor(settings).extract(block).echoes
    moved = (
        Extractor(replace(settings, calibration=Calibration(outgoing_phase=phase)))
        .extract(block)
        .echoes
    )
    assert np.array_equal(moved.position, plain.position)
    late = plain["time"] - moved["time"]
    assert late == pytest.approx(phase.corrections(block) * INTERVAL, abs=1e-16)
    assert late == pytest.approx((RANDOM - 0.5) * INTERVAL, abs=1e-11)


def test_no_usable_outgoing_pulses() -> None:
    block = scan(16.0 + RANDOM, np.full(SHOTS, 16.0))
    assert block.outgoing is not None
    empty = replace(block, outgoing=replace(block.outgoing, counts=np.zeros(SHOTS, np.uint16)))
    assert decided(empty) == OutgoingPhase("none")
    assert decided(empty).reason() == "too few usable outgoing pulses"
    with pytest.raises(ValueError, match="too few usable outgoing pulses to take their phase off"):
        decided(empty, "on")
    with pytest.raises(ValueError, match="has no outgoing pulses; set with_outgoing"):
        decided(block).corrections(replace(block, outgoing=None))
