"""Text reports of the waveforms of a block, compared with hand-calculated lines."""

from __future__ import annotations

import re

import numpy as np
import pytest

from fullwaveform import Driver, RowState
from fullwaveform.core.scanner import AfterPulse

from ..support.sample_triples import TRIPLE_STD, scanner, triples

# Triples at 10 and 30, and a row without signal. With samples every 0.25 s and an SBL time of
# -2.5 s, the echoes come at 0 and 5 s; at 8 m/s the second one is 20 m away.
SAMPLES = np.array([triples({10: 80, 30: 40}), triples({})])


def driver() -> Driver:
    described = scanner(
        AfterPulse(offset=5, width=2),
        WaveformSampleInterval=0.25,
        ampl_unit=0.125,
        **{"Scanner Group Velocity": 8.0},
    )
    return Driver(0, described)


def reports(*, extent: bool = False) -> tuple[list[int], list[str | None]]:
    states, texts = driver().reports(
        SAMPLES, shot_times=[7.5, 7.5], sbl_times=[-2.5, 0.0], threshold=10, extent=extent
    )
    return states.tolist(), texts


ANALYSIS = """\
bin_shift: 0 [-]
Length: 60 [-]
Noise: 10 [db]
MaxAmplitude: 80 [-]
MaxAmplitudeDB: 20 [db]
IdxOfMaxAmplitude: 10 [-]
TimeOfMaxAmplitude: 0 [m]
GlobalStart: 8 GlobalEnd: 32 [-]
LengthCropped: 24 [-]
IsLowPower: yes
shot_time: 7.5 [s]
sbl_time: -2.5e+09 [ns]
damping: 0 [-]
IsOnline: Online
AfterPulse: 0 from: 13 to: 100017
StartEnd: 0 from: 8 to: 12
StartEnd: 1 from: 28 to: 32
Peaks:\x20
"""
ECHO = re.compile(
    r"\t\t\ta=(\S+) idx=(\S+) time=(\S+)\[m\] std=(\S+) "
    "type=Fitting gauss curve with three points Qual=GOOD Refl=0\n"
)


def test_report_has_every_value_of_its_waveform() -> None:
    states, (text, missing) = reports()
    assert states == [RowState.KEPT, RowState.SIGNAL_TOO_LOW]
    assert missing is None
    assert text is not None
    assert text.startswith(ANALYSIS)
    assert text.endswith("\n#######################")
    # 10 and 5 units are 20 and 13.9794 dB; 5 s are 749270640 m one way.
    echoes = [[float(value) for value in found] for found in ECHO.findall(text)]
    assert echoes == [
        pytest.approx([20.0, 10.0, 0.0, TRIPLE_STD], rel=1e-6),
        pytest.approx([13.9794, 30.0, 749270640.0, TRIPLE_STD], rel=1e-6),
    ]
    assert len(text) == len(ANALYSIS) + sum(len(m[0]) for m in ECHO.finditer(text)) + 23


def test_extent_report_is_one_line() -> None:
    assert reports(extent=True)[1] == ["#2 E:20 S:0 S-E:20 LengthMaxPos: 0 T:Online", None]
