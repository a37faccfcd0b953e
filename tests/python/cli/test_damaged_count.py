"""A damaged count in a PulseWaves file, whose waveform runs into the following pulses."""

from __future__ import annotations

import csv
import json
import struct
from dataclasses import replace
from pathlib import Path

import pytest
import tomli_w

from fullwaveform import Mode
from fullwaveform.core.pulse_models import ReceiverModel, model_table

from ..support import pulsewaves_scenes
from ..support.command_line import assert_error, names, run
from ..support.pulse_models import gaussian_model

PULSES = 500
SAMPLES = 60  # of a waveform: 0x003C; with its upper byte damaged 0x5B3C, which is 23,356
ECHO_AT = 30
DAMAGED = 3  # number of the pulse
OVERLAPPING = "samples run into those of the next pulse"

DESCRIPTION = """\
"Scanner Group Velocity" = 299708256.0
"Scanner Serial Number" = "S1"
"Scanner Build Number" = "B1"
"Scanner Type" = "Some scanner"
"Wavelength[nm]" = 1064.0
UnambiguousRange = 1000.0
reflectance_calculation_delta = 0.1
reflectance_calculation_table = []
ampl_unit = 0.01
a_real = [1.0, -0.5, -0.5]
a_imag = [0.0, 0.0, 0.0]
b_real = [-2.5e8, -2.5e8, -2.5e8]
b_imag = [0.0, 5e8, -5e8]
"""


@pytest.fixture
def damaged(tmp_path: Path) -> Path:
    """Pulses with a Gaussian of 100 counts and a sigma of 2 samples each, one per ns."""
    waveform = [5] * SAMPLES
    waveform[ECHO_AT - 4 : ECHO_AT + 5] = [19, 37, 66, 93, 105, 93, 66, 37, 19]
    pulses = [
        pulsewaves_scenes.Pulse([[(0, waveform)]], time=1_000_000 * number)
        for number in range(PULSES)
    ]
    sampling = pulsewaves_scenes.Sampling(count_bits=16)
    scene = pulsewaves_scenes.Scene([pulsewaves_scenes.Descriptor(1, [sampling])], pulses)
    path = scene.write(tmp_path / "scan.pls")
    waves = path.with_suffix(".wvs")
    content = bytearray(waves.read_bytes())
    count_at = 60 + DAMAGED * (2 + SAMPLES)
    assert struct.unpack_from("<H", content, count_at) == (SAMPLES,)
    content[count_at + 1] = 0x5B
    assert struct.unpack_from("<H", content, count_at) == (23_356,)
    waves.write_bytes(content)
    return path


@pytest.mark.parametrize("max_samples", ["8192", "65535"])
@pytest.mark.parametrize("mode", Mode)
def test_damaged_waveform_is_refused_or_skipped(
    damaged: Path, tmp_path: Path, mode: Mode, max_samples: str
) -> None:
    output, scanner = tmp_path / "echoes.csv", tmp_path / "scanner.toml"
    model = ReceiverModel(1, 0, "returned", 100, replace(gaussian_model(), baseline=5.0))
    scanner.write_text(
        DESCRIPTION + tomli_w.dumps({"pulse_model": [model_table(model)]}), encoding="ascii"
    )
    call = ["extract", damaged, "-o", output, "--mode", str(mode.value), "--scanner", scanner]
    call += ["--max-samples", max_samples]
    call += [] if mode is Mode.PULSE_FIT else ["--threshold", "10"]
    before = names(tmp_path)
    assert_error(run(*call), f"1 unreadable waveform (1 x {OVERLAPPING})", "--skip-unreadable")
    assert names(tmp_path) == before
    skipped = run(*call, "--skip-unreadable", "--json")
    assert skipped.exit_code == 0, skipped.output
    summary = json.loads(skipped.stdout)
    assert summary["unreadable"] == {OVERLAPPING: 1}
    assert summary["waveforms_with_echoes"] == PULSES - 1
    with output.open(encoding="ascii", newline="") as table:
        times = {float(row["gps_time"]) for row in csv.DictReader(table)}
    assert times == {float(number) for number in range(PULSES) if number != DAMAGED}
