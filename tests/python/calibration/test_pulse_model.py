"""Pulse models of constructed scanners, and files from which none can be made."""

from __future__ import annotations

import json
import math
from collections.abc import Sequence
from dataclasses import replace
from itertools import pairwise

import numpy as np
import pytest

from fullwaveform.calibration.calibration import Calibration
from fullwaveform.calibration.levels import measure_levels
from fullwaveform.calibration.pulse_choice import PulseChoice, checked_pulse_choice
from fullwaveform.calibration.pulse_model import MeasuredPulse, measure_pulse_models
from fullwaveform.core.pulse_fit import PulseModel, fit_pulses
from fullwaveform.core.pulse_models import at_interval, full_width
from fullwaveform.data.blocks import OutgoingPulses, WaveformBlock
from fullwaveform.data.columns import take_rows

from ..support.waveform_blocks import block
from .pulse_scenes import BASELINE, NOISE_RMS, SAMPLES, Values, echoes, pulse, ringing

# 1,000 echoes of 300 to 3,000 counts with 1.2 counts of noise: 0.15 % of a usual amplitude per
# sample, some 500 samples between two knots of the spline, so 0.01 % of noise; the rest is what the
# spline cannot follow, and the width of the narrowest echoes, known to 0.01 samples squared.
PULSE_TOLERANCE = 2e-3
NAME = "scan.las"


def measured(
    blocks: Sequence[WaveformBlock], choice: PulseChoice = "auto"
) -> tuple[MeasuredPulse, ...]:
    return measure_pulse_models(blocks, measure_levels(blocks), NAME, choice)


def model_of(*blocks: WaveformBlock) -> PulseModel:
    (only,) = measured(blocks)
    return only.entry.model


def lags(model: PulseModel) -> Values:
    return model.first_lag + model.lag_step * np.arange(len(model.pulse), dtype=np.float64)


def outgoing_pulses(count: int, interval: float = 1e-9) -> OutgoingPulses:
    rng = np.random.default_rng(7)
    lag = np.arange(60.0) - rng.uniform(19.5, 20.5, (count, 1))
    values = 10.0 + 800.0 * ringing(lag) + rng.normal(0.0, 0.5, lag.shape)
    return OutgoingPulses(
        np.rint(values).astype(np.uint16),
        np.full(count, 60, np.uint16),
        np.full(count, interval),
        np.zeros(count),
    )


def test_pulse_with_its_ringing() -> None:
    model = model_of(block(echoes(1000)))

    lag = lags(model)
    assert np.abs(np.array(model.pulse) - pulse(lag)).max() < PULSE_TOLERANCE
    # Beyond its ends the pulse is less than 0.1 %.
    assert ringing(lag[:1])[0] < 1e-3
    assert ringing(lag[-1:])[0] < 1e-3
    assert lag[0] > -9.0
    assert lag[-1] < 30.0


def test_levels_and_noise() -> None:
    model = model_of(block(echoes(1000)))

    assert model.baseline == pytest.approx(BASELINE, abs=0.05)
    assert model.baseline_spread < 0.4
    # The rounding to counts adds 1/12 to the variance.
    assert model.noise_rms == pytest.approx(math.sqrt(NOISE_RMS**2 + 1.0 / 12.0), rel=0.02)
    assert model.noise_correlation == pytest.approx(1.0, abs=0.04)
    assert model.scatter < 5e-4
    assert model.sampling_interval == 1e-9


def test_slopes_do_not_widen_the_pulse() -> None:
    model = model_of(block(echoes(1000, widening=0.4)))

    assert np.abs(np.array(model.pulse) - pulse(lags(model))).max() < 3.0 * PULSE_TOLERANCE
    assert model.widening == pytest.approx(0.4, rel=0.25)
    assert model.variance_spread < 0.1


def test_scatter_of_the_pulses() -> None:
    model = model_of(block(echoes(1000, scatter=0.01)))

    assert model.scatter == pytest.approx(0.01, rel=0.15)


def test_two_receivers_with_different_noise() -> None:
    quiet, loud = echoes(400, seed=1, noise_rms=0.8), echoes(400, seed=2, noise_rms=4.0)

    first, second = measured([block(quiet, descriptors=1), block(loud, flags=0, descriptors=2)])

    assert (second.entry.channel_flag, second.entry.descriptor) == (1, 1)
    assert second.entry.model.noise_rms == pytest.approx(math.hypot(0.8, 0.29), rel=0.04)
    assert (first.entry.channel_flag, first.entry.descriptor) == (0, 2)
    assert first.entry.model.noise_rms == pytest.approx(4.0, rel=0.04)


def test_receiver_with_few_echoes_has_the_pulse_of_another_and_its_own_noise() -> None:
    many, few = echoes(400, seed=1), echoes(40, seed=2, noise_rms=5.0)

    first, second = measured([block(many, descriptors=1), block(few, descriptors=2)])

    assert second.entry.model.pulse == first.entry.model.pulse
    assert second.entry.pulses == first.entry.pulses
    assert second.entry.model.noise_rms == pytest.approx(5.0, rel=0.1)


def test_most_frequent_sampling_interval() -> None:
    usual, other = echoes(400, seed=1), echoes(150, seed=2)
    samples = np.concatenate([usual, other])
    intervals = np.repeat([1e-9, 2e-9], [400, 150])

    model = model_of(block(samples, intervals=intervals))

    # Only the levels are those of all waveforms.
    np.testing.assert_allclose(model.pulse, model_of(block(usual)).pulse, rtol=0.0, atol=1e-5)
    assert model.sampling_interval == 1e-9


def test_division_into_blocks() -> None:
    whole = block(echoes(300))
    parts = [take_rows(whole, np.arange(first, stop)) for first, stop in pairwise((0, 7, 120, 300))]

    assert model_of(*parts) == model_of(whole)


def test_clipped_echoes_are_left_out() -> None:
    samples = echoes(400, amplitudes=(300.0, 6000.0))

    (found,) = measured([block(np.minimum(samples, 2500))])

    assert np.nanmax(found.pulses.values) < 2500
    model = found.entry.model
    assert np.abs(np.array(model.pulse) - pulse(lags(model))).max() < 2.0 * PULSE_TOLERANCE


def test_neighbouring_echoes_are_left_out() -> None:
    samples = echoes(400)
    samples[::2] = np.maximum(samples[::2], np.roll(samples[::2], 15, axis=1))

    (found,) = measured([block(samples)])

    assert found.pulses.rejected["another echo nearby"] == 200
    assert found.entry.pulses == pytest.approx(200, abs=5)


def test_outgoing_pulses_at_another_interval() -> None:
    scene = block(echoes(400), outgoing=outgoing_pulses(400, 0.5e-9))

    (found,) = measured([scene], "outgoing")

    model = found.entry.model
    assert found.entry.origin == "outgoing"
    assert found.entry.pulses == 400
    assert model.sampling_interval == 1e-9
    # Two samples of the outgoing pulses are one of the waveforms.
    assert np.abs(np.array(model.pulse) - pulse(2.0 * lags(model))).max() < PULSE_TOLERANCE
    assert model.noise_rms == pytest.approx(math.sqrt(NOISE_RMS**2 + 1.0 / 12.0), rel=0.02)


def test_too_few_echoes_without_and_with_outgoing_pulses() -> None:
    samples = echoes(99)

    with pytest.raises(ValueError, match=r"scan\.las: 9[78] isolated echoes.*--mode decomposition"):
        measured([block(samples)])
    with pytest.raises(ValueError, match=r"too few usable outgoing pulses.*--pulse returned"):
        measured([block(samples)], "outgoing")
    with_outgoing = block(
        np.concatenate([samples, np.full((21, SAMPLES), 21)]), outgoing=outgoing_pulses(120)
    )
    with pytest.raises(ValueError, match="isolated echoes"):
        measured([with_outgoing], "returned")
    assert measured([with_outgoing])[0].entry.origin == "outgoing"


def test_narrow_pulse() -> None:
    rng = np.random.default_rng(5)
    lag = np.arange(SAMPLES) - rng.uniform(30.0, 40.0, (300, 1))
    samples = 20.0 + 1000.0 * np.exp(-0.5 * (lag / 0.7) ** 2) + rng.normal(0.0, 1.0, lag.shape)

    with pytest.raises(ValueError, match=r"1\.\d+ samples wide.*needs 2;.*--mode decomposition"):
        measured([block(np.rint(samples))])


def test_broad_pulse_fits_its_own_waveforms() -> None:
    rng = np.random.default_rng(6)
    lag = np.arange(120.0) - rng.uniform(45.0, 55.0, (400, 1))
    signal = 10.0 + 180.0 * np.exp(-0.5 * (lag / 5.7) ** 2)
    samples = np.rint(signal + rng.normal(0.0, 0.6, lag.shape)).astype(np.uint16)

    table = fit_pulses(samples, np.full(400, 120, np.uint16), model_of(block(samples)))

    # Noise of the mean pulse at high frequencies would be amplified where a pulse is narrowed.
    assert table.waveforms["echo_count"].tolist() == [1] * 400
    assert np.median(table.waveforms["reduced_chi_square"]) == pytest.approx(1.0, abs=0.15)
    assert np.median(table.echoes["fwhm"]) == pytest.approx(5.7 * 2.3548, rel=0.01)


def test_pulses_of_different_shapes() -> None:
    samples = echoes(800, scatter=0.04)

    with pytest.raises(ValueError, match=r"differ .* by \d\.\d% rms; .* allows 2%"):
        measured([block(samples)])


@pytest.mark.parametrize(
    "samples",
    [
        np.zeros((200, SAMPLES)),
        np.full((200, SAMPLES), 65_535),
        np.rint(np.random.default_rng(1).normal(100.0, 3.0, (200, SAMPLES))),
        np.minimum(echoes(200), 60),
        echoes(1),
        np.full((200, 2), 20),
        np.full((1, 1), 20),
    ],
    ids=["zeros", "largest", "noise", "all clipped", "one waveform", "two samples", "one sample"],
)
@pytest.mark.parametrize("choice", ["auto", "returned", "outgoing"])
def test_without_usable_echoes(samples: Values, choice: PulseChoice) -> None:
    with pytest.raises(ValueError, match=r"scan\.las"):
        measured([block(samples)], choice)


def test_empty_waveforms() -> None:
    with pytest.raises(ValueError, match=r"scan\.las: no waveforms"):
        measured([block(np.zeros((50, SAMPLES)), counts=0)])
    with pytest.raises(ValueError, match=r"scan\.las: no waveforms"):
        measured([])


def test_empty_waveforms_among_others() -> None:
    samples = echoes(300)
    counts = np.where(np.arange(300) % 3 == 0, 0, SAMPLES)

    assert model_of(block(samples, counts=counts)) == model_of(block(samples[counts > 0]))


def test_models_of_receivers_that_were_not_measured() -> None:
    models = measured([block(echoes(400), descriptors=1), block(echoes(150, seed=2), flags=0)])
    calibration = Calibration(pulse_models=tuple(each.entry for each in models))
    low = next(each.entry.model for each in models if each.entry.channel_flag == 1)
    high = next(each.entry.model for each in models if each.entry.channel_flag == 0)

    assert calibration.pulse_model_of(1, 1) == low
    assert calibration.pulse_model_of(1, 9) == low
    assert calibration.pulse_model_of(0, 9) == high
    assert calibration.pulse_model_of(7, 0) == low
    with pytest.raises(ValueError, match=r"no pulse model.*--mode decomposition"):
        Calibration().pulse_model_of(1, 1)


def test_model_for_another_interval() -> None:
    model = replace(model_of(block(echoes(200))), variance_spread=0.1, widening=0.3)

    doubled = at_interval(model, 0.5e-9)

    assert full_width(doubled) == pytest.approx(2.0 * full_width(model))
    assert (doubled.variance_spread, doubled.widening) == pytest.approx((0.4, 1.2))
    assert (doubled.noise_rms, doubled.scatter) == (model.noise_rms, model.scatter)
    assert at_interval(model, 1e-9) is model


def test_choice() -> None:
    assert checked_pulse_choice("outgoing") == "outgoing"
    with pytest.raises(ValueError, match="invalid pulse 'both'; expected 'auto', 'returned' or"):
        checked_pulse_choice("both")


def test_calibration_as_json() -> None:
    pydantic = pytest.importorskip("pydantic")
    adapter = pydantic.TypeAdapter(Calibration)
    models = measured([block(echoes(200))])
    calibration = Calibration(pulse_models=tuple(each.entry for each in models))

    text = adapter.dump_json(calibration).decode()

    assert adapter.validate_json(text) == calibration
    broken = json.loads(text)
    broken["pulse_models"][0]["model"]["noise_rms"] = -1.0
    with pytest.raises(ValueError, match="invalid noise rms -1"):
        adapter.validate_json(json.dumps(broken))
