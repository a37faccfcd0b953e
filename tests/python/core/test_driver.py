"""Echoes, analysis values, shots and channels, with hand-calculated expected values."""

from __future__ import annotations

import logging
from pathlib import Path
from typing import Any

import numpy as np
import pytest

from fullwaveform import Driver, Mode, RowState, Scanner, _core
from fullwaveform.core.constants import EchoType
from fullwaveform.core.messages import forward_messages
from fullwaveform.core.scanner import NO_AFTER_PULSE, AfterPulse

from ..support.sample_triples import INTERVAL, TRIPLE_STD, driver, scanner, triples

WORKED = np.array([[5, 50, 60, 5, 5]], np.uint16)


def test_triples_give_the_gaussians_through_them() -> None:
    result = driver().apply(np.array([triples({10: 80, 30: 40})]), threshold=10)
    peaks = result.peaks
    assert peaks["idx"].tolist() == [10.0, 30.0]
    np.testing.assert_allclose(peaks["amplitudeCounts"], [80.0, 40.0], rtol=1e-6)
    np.testing.assert_allclose(peaks["std"], TRIPLE_STD, rtol=1e-6)
    # 20 log10(80) and 20 log10(40) dB above one count
    np.testing.assert_allclose(peaks["amplitude"], [38.0618, 32.0412], atol=1e-4)
    assert peaks["type"].tolist() == [2, 2]
    assert peaks["quality"].tolist() == [0, 0]
    assert peaks["classification"].tolist() == [0, 0]
    assert peaks["reflectance"].tolist() == [0.0, 0.0]
    assert peaks["time"].tolist() == [10 * INTERVAL, 30 * INTERVAL]
    assert result.segments["start"].tolist() == [8, 28]
    assert result.segments["end"].tolist() == [12, 32]


def test_maximum_between_two_equal_samples() -> None:
    # ln 40, ln 80, ln 80: c1 = 3/2 ln 2, c2 = -1/2 ln 2, so the maximum is 1.5 samples after the
    # first one and is 40 * 2**(9/8) high.
    samples = np.zeros((1, 30), np.uint16)
    samples[0, 14:18] = 40, 80, 80, 40
    peaks = driver().apply(samples, threshold=10).peaks
    np.testing.assert_allclose(peaks["idx"], [15.5], rtol=1e-6)
    np.testing.assert_allclose(peaks["amplitudeCounts"], [87.24062], rtol=1e-6)
    np.testing.assert_allclose(peaks["std"], [1.2011224], rtol=1e-6)  # sqrt(1 / ln 2)


def test_analysis_values_of_a_short_waveform() -> None:
    """Waveform 5, 50, 60, 5, 5 with a threshold of 10."""
    made = driver(after_pulse=AfterPulse(offset=5, width=2), t_ref=INTERVAL * 8)
    result = made.apply(
        WORKED, shot_times=[7.5], sbl_times=[INTERVAL * 40], channel_flags=[0], threshold=10
    )
    waveform = {name: column.tolist() for name, column in result.waveforms.items()}
    assert waveform.pop("maxAmplitudeDB") == [pytest.approx(35.5630, abs=1e-4)]  # 20 log10(60)
    assert waveform == {
        "row": [0],
        "isLowPower": [False],
        "shotTime": [7.5],
        "sblTime": [INTERVAL * 40],
        "damping": [0.0],
        "idxOfMaxAmplitude": [2],
        "maxAmplitude": [60],
        "binShift": [0.0],
        "length": [5],
        "noise": [10],
        "timeOfMaxAmplitude": [INTERVAL * 34],  # 2 + (40 - 8)
        "online": [True],
        "globalStart": [0],
        "globalEnd": [3],
        "lengthCropped": [3],
        "afterPulseFrom": [5.0],  # 2 + 5 - 2
        "afterPulseTo": [100009.0],  # 2 + 5 + 2, and everything later
        "segmentCount": [1],
        "peakCount": [1],
    }
    assert {name: column.tolist() for name, column in result.segments.items()} == {
        "waveform": [0],
        "start": [0],
        "end": [3],
    }
    peaks = result.peaks
    # Logarithms 3.912023, 4.094345, 1.609438: c2 = -1.333614, c1 = 1.515936.
    np.testing.assert_allclose(peaks["idx"], [1.568356], atol=1e-6)
    np.testing.assert_allclose(peaks["amplitudeCounts"], [76.9241], atol=1e-3)
    np.testing.assert_allclose(peaks["std"], [0.612308], atol=1e-6)
    np.testing.assert_allclose(peaks["time"] / INTERVAL, [33.568356], atol=1e-6)
    assert (peaks["row"].tolist(), peaks["waveform"].tolist()) == ([0], [0])


def test_columns_have_the_declared_types() -> None:
    result = driver().apply(WORKED, threshold=10)
    assert result.waveforms["isLowPower"].dtype == np.bool_
    assert result.waveforms["online"].dtype == np.bool_
    assert result.waveforms["noise"].dtype == np.uint16
    assert result.peaks["amplitude"].dtype == np.float32
    assert result.peaks["idx"].dtype == np.float64
    assert result.row_states.dtype == np.uint8
    assert result.peaks.to_arrow().column_names == list(result.peaks)
    assert (result.peaks.rows, len(result.peaks)) == (1, 11)


def test_after_pulse_window_wraps_at_32_bits() -> None:
    switched_off = driver().apply(WORKED, threshold=10).waveforms
    # 2 - 2**31 as an unsigned 32-bit number
    assert switched_off["afterPulseFrom"].tolist() == [2147483650.0]
    assert switched_off["afterPulseTo"].tolist() == [2147583650.0]  # 2 + 2**31 + 100000


@pytest.mark.parametrize(
    ("unit", "decibel"),
    [
        (1.25, 20.0),  # 8 counts are 10 units
        (0.125, 0.0),  # 1 unit
        (0.12501, 0.0),  # 1.00008 units, below 1.0001
        (0.1251, 0.0069458),  # 1.0008 units
        (0.01, 0.0),
    ],
)
def test_decibels_of_echo_and_waveform(unit: float, decibel: float) -> None:
    result = driver(ampl_unit=unit).apply(np.array([triples({10: 8})]), threshold=2)
    np.testing.assert_allclose(result.peaks["amplitude"], [decibel], rtol=1e-3, atol=1e-7)
    np.testing.assert_allclose(result.waveforms["maxAmplitudeDB"], [decibel], rtol=1e-3, atol=1e-7)


def test_shots_are_sorted_and_their_waveforms_keep_input_order() -> None:
    samples = np.array([triples({10 + row: 40 + 2 * row}) for row in range(5)])
    result = driver().apply(samples, shot_times=[9.0, -1.0, 4.0, 9.0, 4.0], threshold=10)
    assert result.waveforms["row"].tolist() == [1, 2, 4, 0, 3]
    assert result.waveforms["shotTime"].tolist() == [-1.0, 4.0, 4.0, 9.0, 9.0]
    assert result.peaks["row"].tolist() == [1, 2, 4, 0, 3]
    assert result.peaks["waveform"].tolist() == [0, 1, 2, 3, 4]
    assert result.peaks["idx"].tolist() == [11.0, 12.0, 14.0, 10.0, 13.0]


def test_row_states_of_kept_and_rejected_waveforms() -> None:
    samples = np.array(
        [
            triples({10: 80}),
            triples({}),
            triples({10: 80}),  # the first one again, at another shot
            triples({10: 80}),  # the first one again
            triples({20: 10}),  # not above the threshold
        ]
    )
    result = driver().apply(samples, shot_times=[1.0, 1.0, 2.0, 1.0, 1.0], threshold=10)
    assert result.row_states.tolist() == [
        RowState.KEPT,
        RowState.SIGNAL_TOO_LOW,
        RowState.KEPT,
        RowState.DUPLICATE,
        RowState.SIGNAL_TOO_LOW,
    ]
    assert result.waveforms["row"].tolist() == [0, 2]
    assert result.statistics == {
        "mergedIntoOtherChannel": 0,
        "tooLongToDeconvolve": 0,
        "tooComplex": 0,
        "numberOfWaves": 5,
        "signalTooLow": 2,
        "duplicates": 1,
        "countNaNs": 0,
        "splitCounts": (2, 3, 0, 0, 0, 0, 0, 0, 0, 0),
        "suspicious": False,  # 2 of 5 are below a half
    }


def test_duplicates_are_compared_at_every_third_sample() -> None:
    # The triples are at 9 to 11 and 12 to 14: indices 9 and 12 hold equal values.
    samples = np.array([triples({10: 80}), triples({13: 80}), triples({14: 80})])
    result = driver().apply(samples, shot_times=[1.0, 1.0, 1.0], threshold=10)
    # Sums 40, 40 and 40: index 15 is the last sample of the third triple.
    assert result.row_states.tolist() == [0, RowState.DUPLICATE, RowState.DUPLICATE]
    shifted = np.array([triples({10: 80}), triples({12: 80})])  # 40 and 80
    assert driver().apply(shifted, shot_times=[1.0, 1.0], threshold=10).row_states.tolist() == [
        0,
        0,
    ]


def test_channels_of_a_shot_are_merged() -> None:
    """Of an echo in both channels the low-power copy is kept unless it is saturated."""
    high = triples({8: 80, 20: 250, 30: 500, 50: 60})
    low = triples({10: 640, 23: 2000, 31: 4000, 40: 3200})
    made = Driver(0, scanner())
    result = made.apply(
        np.array([high, low]), shot_times=[1.0, 1.0], channel_flags=[0, 1], threshold=10
    )
    kept = list(zip(result.peaks["row"].tolist(), result.peaks["idx"].tolist(), strict=True))
    # 8 is removed in favour of 10; 20 and 23 differ by three intervals, not less; 31 is above 3000
    # counts and removed in favour of 30; 40 has no counterpart.
    assert kept == [(0, 20.0), (0, 30.0), (0, 50.0), (1, 10.0), (1, 23.0), (1, 40.0)]
    np.testing.assert_allclose(
        result.peaks["amplitudeCounts"], [250, 500, 60, 640, 2000, 3200], rtol=1e-5
    )
    np.testing.assert_allclose(result.peaks["amplitude"][0], 47.9588, atol=1e-3)  # 20 log10(250)
    assert result.statistics["mergedIntoOtherChannel"] == 0


def test_nonzero_channel_flags_are_one_channel() -> None:
    samples = np.array([triples({10: 80}), triples({11: 90})])
    times = [1.0, 1.0]
    merged = driver().apply(samples, shot_times=times, channel_flags=[0, 7], threshold=10)
    assert merged.peaks["row"].tolist() == [1]
    assert merged.waveforms["peakCount"].tolist() == [0, 1]
    assert merged.statistics["mergedIntoOtherChannel"] == 1
    assert merged.row_states.tolist() == [RowState.MERGED_INTO_OTHER_CHANNEL, RowState.KEPT]
    assert merged.waveforms["isLowPower"].tolist() == [False, False]  # 7 is not 1
    alike = driver().apply(samples, shot_times=times, channel_flags=[1, 7], threshold=10)
    assert alike.peaks["row"].tolist() == [0, 1]
    other_shots = driver().apply(samples, channel_flags=[0, 7], threshold=10)
    assert other_shots.peaks["row"].tolist() == [0, 1]


def test_defaults_are_full_rows_one_shot_per_row_and_low_power() -> None:
    samples = np.array([triples({10: 80}), triples({10: 80})])
    waveforms = driver().apply(samples, threshold=10).waveforms
    assert waveforms["length"].tolist() == [60, 60]
    assert waveforms["shotTime"].tolist() == [0.0, 1.0]
    assert waveforms["sblTime"].tolist() == [0.0, 0.0]
    assert waveforms["isLowPower"].tolist() == [True, True]


@pytest.mark.parametrize("options", [{}, {"threshold": "estimate"}], ids=["default", "estimate"])
def test_threshold_is_estimated(options: dict[str, Any]) -> None:
    # 38 samples of 20 and a triple on 20: 40 collected, the first four on a line, so the estimate
    # is the value of rank 2, 20.
    samples = np.full((1, 40), 20, np.uint16)
    samples[0, 20:23] = 40, 80, 40
    waveforms = driver().apply(samples, **options).waveforms
    assert waveforms["noise"].tolist() == [20]
    assert _core.estimate_noise(samples[0]) == 20


def test_unknown_scanner_type_marks_echoes_of_strong_waveforms() -> None:
    samples = np.array([triples({10: 60, 20: 800, 30: 90}), triples({10: 60, 20: 798, 30: 90})])
    untouched = Driver(0, scanner(after_pulse=None)).apply(samples, threshold=10)
    # 20 and all later echoes are marked if the strongest sample reaches 800.
    assert untouched.peaks["row"].tolist() == [0, 1, 1, 1]
    assert untouched.peaks["idx"].tolist() == [10.0, 10.0, 20.0, 30.0]
    switched_off = Driver(0, scanner(after_pulse=NO_AFTER_PULSE)).apply(samples, threshold=10)
    assert switched_off.peaks["row"].tolist() == [0, 0, 0, 1, 1, 1]


def test_mode_names_and_invalid_modes() -> None:
    assert Driver(Mode.THREE_POINT, scanner()).mode is Mode.THREE_POINT
    assert Mode.THREE_POINT.title == "Fitting gauss curve (linear)"
    assert Mode.HYBRID.title == "FWF_Hybrid"
    assert Driver(0, scanner()).message == ""
    for mode in (5, -1, True):
        with pytest.raises(ValueError, match=f"^invalid mode {mode}; expected 0, 1, 2 or 3$"):
            Driver(mode, scanner())
    for fit in (4, Mode.PULSE_FIT, "pulse-fit"):
        with pytest.raises(ValueError, match="is not a method of the driver; use"):
            Driver(fit, scanner())


def test_pulse_fit_has_a_title_and_a_type_of_echo_of_its_own() -> None:
    assert Mode.PULSE_FIT.title == "Pulse fit"
    assert (EchoType(8), EchoType(8).description) == (EchoType.PULSE_FIT, "pulse fit")
    for one in _core.EchoType:
        assert EchoType(int(one)).name == one.name
        assert EchoType(int(one)).description == one.description


def test_driver_without_sampling_interval_is_refused() -> None:
    with pytest.raises(ValueError, match="sampling interval None"):
        Driver(0, Scanner.default())


@pytest.mark.parametrize("longest", [-1, 65536, 1.5, True])
def test_invalid_longest_waveform_is_refused(longest: int) -> None:
    with pytest.raises(ValueError, match="longest_waveform"):
        Driver(0, scanner(), longest_waveform=longest)


def test_library_messages_are_logged(caplog: pytest.LogCaptureFixture) -> None:
    library = _core.PeakDetectionFamily(0, scanner().device(), "/dev/null", "x", 400)
    one = np.zeros(1)
    flag = np.ones(1, np.uint8)
    with caplog.at_level(logging.WARNING, logger="fullwaveform"):
        library.apply(
            WORKED, np.array([9], np.uint16), one, one, flag, np.full(1, 10, np.int32), ""
        )
        assert forward_messages() == [
            "PeakDetectionFamily::apply: clipped sample counts: 1 (row length 5)"
        ]
        assert forward_messages() == []
    (message,) = [record.getMessage() for record in caplog.records]
    assert message == "PeakDetectionFamily::apply: clipped sample counts: 1 (row length 5)"


RECORD = (
    "NumberOfWaves: 4Splitted FWFs: 0 count: 3\n"
    "Splitted FWFs: 1 count: 1\n"
    + "".join(f"Splitted FWFs: {pieces} count: 0\n" for pieces in range(2, 10))
    + "SignalTooLow: 3 -> 75[%] \n"
    "Duplicates: 0 -> 0[%] \n"
    "CountNaNs: 0 -> 0[%] \n"
)


def test_suspicious_blocks_are_appended_to_a_report(tmp_path: Path) -> None:
    samples = np.array([triples({10: 80}), triples({}), triples({}), triples({})])
    made = Driver(0, scanner(), report_directory=tmp_path, input_file="flights/line.07.las")
    assert made.apply(samples, threshold=10).statistics["suspicious"]
    (report,) = tmp_path.iterdir()
    assert report.name == "line.07_Warning.txt"
    assert report.read_text(encoding="utf-8") == RECORD
    made.apply(samples, threshold=10)
    assert report.read_text(encoding="utf-8") == RECORD + RECORD


def test_good_block_or_missing_directory_writes_no_report(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.chdir(tmp_path)
    low = np.array([triples({}), triples({})])
    assert Driver(0, scanner()).apply(low, threshold=10).statistics["suspicious"]
    good = Driver(0, scanner(), report_directory=tmp_path)
    # One of three is below a half.
    good.apply(np.array([triples({10: 80}), triples({12: 80}), triples({})]), threshold=10)
    assert list(tmp_path.iterdir()) == []
    good.apply(low, threshold=10)
    assert [path.name for path in tmp_path.iterdir()] == ["waveforms_Warning.txt"]
