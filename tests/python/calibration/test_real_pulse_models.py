"""Pulse models of real scanners, if their waveforms are available."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest

from fullwaveform.calibration.calibration import measure
from fullwaveform.calibration.pulse_choice import PulseChoice
from fullwaveform.core.pulse_models import ReceiverModel, full_width
from fullwaveform.io.opening import open_waveforms

from ..support.las_scenes import data_folder

FOLDER = data_folder()
STRIP = FOLDER / "pulsewaves" / "topo_1ns.pls"
SATURATED = FOLDER / "pulsewaves" / "saturated_1ns.pls"
COARSE = FOLDER / "las" / "topo_2ns.las"
FOREST = FOLDER / "arrays" / "forest_12bit.npz"


def only_model(path: Path, choice: PulseChoice = "auto") -> ReceiverModel:
    if not path.exists():
        pytest.skip(f"no {path.name} in the folder of real data")
    with open_waveforms(path) as reader:
        (model,) = measure(reader, "off", choice).pulse_models
    return model


def test_pulse_with_ringing() -> None:
    entry = only_model(STRIP)

    model = entry.model
    lag = model.first_lag + model.lag_step * np.arange(len(model.pulse))
    after = (lag > 8.5) & (lag < 14.0)
    assert entry.pulses > 1000
    # A bump of about 5 % follows each outgoing pulse 10 to 11 ns later.
    assert 10.0 < lag[after][np.argmax(np.array(model.pulse)[after])] < 11.5
    assert 0.03 < np.array(model.pulse)[after].max() < 0.06
    assert 3.9 < full_width(model) < 4.3
    assert 1.5 < model.baseline < 2.5
    assert 0.6 < model.noise_rms < 0.9
    assert 1.4 < model.noise_correlation < 1.8
    assert model.scatter < 0.005


def test_waveforms_of_two_nanoseconds() -> None:
    entry = only_model(COARSE)

    assert entry.model.sampling_interval == 2e-9
    assert 4.8 < full_width(entry.model) < 5.5
    assert 0.6 < entry.model.noise_rms < 0.8
    assert entry.model.scatter < 0.02


def test_saturated_waveforms() -> None:
    entry = only_model(SATURATED)

    assert entry.pulses > 800
    assert 13.0 < full_width(entry.model) < 14.5


def test_canopy_has_no_common_pulse_but_outgoing_ones() -> None:
    with pytest.raises(ValueError, match="differ from the mean pulse"):
        only_model(FOREST)

    entry = only_model(FOREST, "outgoing")

    assert entry.origin == "outgoing"
    assert 14.0 < full_width(entry.model) < 16.0
