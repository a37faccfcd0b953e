"""What files say of the settings with which their echoes were made."""

from __future__ import annotations

from dataclasses import replace
from pathlib import Path

import numpy as np
import pytest

from fullwaveform import Scanner, __version__
from fullwaveform.calibration.calibration import Calibration
from fullwaveform.calibration.levels import ChannelLevels
from fullwaveform.core.driver import Mode
from fullwaveform.extraction.extractor import ExtractionSettings
from fullwaveform.extraction.run_metadata import run_metadata

# 5 noise rms above the baseline: 3 + 5 x 1 and 3 + 5 x 2 counts.
LOW = ChannelLevels(1, 4, waveforms=10, baseline=3.0, baseline_spread=0.0, noise_rms=1.0)
HIGH = ChannelLevels(0, 5, waveforms=10, baseline=3.0, baseline_spread=0.0, noise_rms=2.0)


@pytest.mark.parametrize(
    ("threshold", "levels", "expected"),
    [
        (17, (), "17"),
        ("estimate", (LOW,), "estimate"),
        (np.array([1, 2]), (), "given for each waveform"),
        (None, (), "estimate"),
        (None, (LOW,), "8 (measured)"),
        (None, (LOW, LOW), "8 (measured)"),
        (
            None,
            (HIGH, LOW),
            "13 (measured, high power, descriptor 5), 8 (measured, low power, descriptor 4)",
        ),
    ],
)
def test_threshold_is_that_of_the_run(
    threshold: object, levels: tuple[ChannelLevels, ...], expected: str
) -> None:
    settings = ExtractionSettings(
        Scanner.default(),
        threshold=threshold,  # type: ignore[arg-type]
        baseline="keep",
        calibration=Calibration(levels),
    )
    assert run_metadata(settings)["threshold"] == expected


def test_thresholds_of_beams_have_their_names() -> None:
    levels = (replace(LOW, channel_flag=0), HIGH)
    names = {4: "BEAM0100", 5: "BEAM0101"}
    settings = ExtractionSettings(
        Scanner.default(), baseline="keep", calibration=Calibration(levels, receiver_names=names)
    )
    assert run_metadata(settings)["threshold"] == "8 (measured, BEAM0100), 13 (measured, BEAM0101)"


def test_version_mode_and_name_of_the_input() -> None:
    found = run_metadata(
        ExtractionSettings(Scanner.default(), Mode.DECOMPOSITION), [Path("/folder/scan.las")]
    )
    assert found["input"] == "scan.las"
    assert found["version"] == __version__
    assert found["mode"] == Mode.DECOMPOSITION.title
    assert all(isinstance(text, str) for text in found.values())
