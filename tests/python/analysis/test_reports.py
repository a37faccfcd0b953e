"""Text reports of waveforms from the columns of a result, every line worked out by hand."""

from __future__ import annotations

import numpy as np
import pytest

from fullwaveform import Columns, Result
from fullwaveform.analysis.reports import extent_report, waveform_report

NAN = float("nan")


def columns(**values: list[float]) -> Columns:
    kinds = {name: np.float64 if any(isinstance(v, float) for v in column) else np.int64
             for name, column in values.items()}  # fmt: skip
    singles = {"damping", "maxAmplitudeDB", "amplitude", "reflectance"}
    return Columns(
        {
            name: np.array(column, np.float32 if name in singles else kinds[name])
            for name, column in values.items()
        }
    )


def result() -> Result:
    """Waveform 0 without segments and echoes, waveform 1 with two of each."""
    waveforms = columns(
        row=[0, 1],
        shotTime=[0.0, 383661.97316074],
        sblTime=[0.0, 0.5],
        damping=[0.0, 0.1],
        idxOfMaxAmplitude=[0, 31],
        maxAmplitude=[0, 65535],
        binShift=[0.0, 2.5],
        length=[0, 64],
        noise=[0, 20],
        maxAmplitudeDB=[0.0, 60.1],
        timeOfMaxAmplitude=[0.0, 0.5],
        globalStart=[0, 30],
        globalEnd=[0, 57],
        lengthCropped=[0, 27],
        afterPulseFrom=[NAN, 12.0],
        afterPulseTo=[NAN, 100019.0],
    )
    flags = {"isLowPower": np.array([False, True]), "online": np.array([True, False])}
    segments = columns(waveform=[1, 1], start=[30, 50], end=[33, 57])
    peaks = columns(
        waveform=[1, 1],
        row=[1, 1],
        amplitude=[60.1, 0.25],
        idx=[31.125, 52.3],
        time=[0.0, 1.0],
        quality=[0, 1],
        type=[2, 5],
        std=[0.85, 1.9],
        classification=[0, 0],
        reflectance=[-2.5, 0.1],
    )
    states = np.zeros(2, np.uint8)
    return Result(Columns({**waveforms, **flags}), segments, peaks, states, {}, "")


# Half a second is 299708256 / 2 m of light's whole way, a second 149854128 m one way.
REPORT = (
    "bin_shift: 2.5 [-]\n"
    "Length: 64 [-]\n"
    "Noise: 20 [db]\n"
    "MaxAmplitude: 65535 [-]\n"
    "MaxAmplitudeDB: 60.1 [db]\n"
    "IdxOfMaxAmplitude: 31 [-]\n"
    "TimeOfMaxAmplitude: 149854128 [m]\n"
    "GlobalStart: 30 GlobalEnd: 57 [-]\n"
    "LengthCropped: 27 [-]\n"
    "IsLowPower: yes\n"
    "shot_time: 383661.97316074 [s]\n"
    "sbl_time: 5e+08 [ns]\n"
    "damping: 0.1 [-]\n"
    "IsOnline: FWF\n"
    "AfterPulse: 0 from: 12 to: 100019\n"
    "StartEnd: 0 from: 30 to: 33\n"
    "StartEnd: 1 from: 50 to: 57\n"
    "Peaks: \n"
    "\t\t\ta=60.1 idx=31.125 time=0[m] std=0.85 type=Fitting gauss curve with three points "
    "Qual=GOOD Refl=-2.5\n"
    "\t\t\ta=0.25 idx=52.3 time=149854128[m] std=1.9 type=Richardson-Lucy deconvolution "
    "Qual=AFTERPULS Refl=0.1\n"
    "#######################"
)
EMPTY = (
    "bin_shift: 0 [-]\n"
    "Length: 0 [-]\n"
    "Noise: 0 [db]\n"
    "MaxAmplitude: 0 [-]\n"
    "MaxAmplitudeDB: 0 [db]\n"
    "IdxOfMaxAmplitude: 0 [-]\n"
    "TimeOfMaxAmplitude: 0 [m]\n"
    "GlobalStart: 0 GlobalEnd: 0 [-]\n"
    "LengthCropped: 0 [-]\n"
    "IsLowPower: no\n"
    "shot_time: 0 [s]\n"
    "sbl_time: 0 [ns]\n"
    "damping: 0 [-]\n"
    "IsOnline: Online\n"
    "Peaks: \n"
    "#######################"
)


def test_report_has_every_value_of_its_waveform() -> None:
    assert waveform_report(result(), 1) == REPORT
    assert waveform_report(result(), 0) == EMPTY


def test_extent_in_one_line() -> None:
    assert extent_report(result(), 0, 3.0) == "empty"
    # At 4 m/s there and back: last echo 1 s, first 0 s, strongest sample 0.5 s.
    assert extent_report(result(), 1, 4.0) == "#2 E:2 S:0 S-E:2 LengthMaxPos: 1 T:FWF"


def test_a_waveform_that_is_not_there() -> None:
    for waveform in (-1, 2):
        with pytest.raises(IndexError, match=f"waveform {waveform} is none of the result's 2"):
            waveform_report(result(), waveform)
