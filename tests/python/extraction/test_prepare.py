"""Samples and thresholds for the driver, worked out by hand."""

from __future__ import annotations

from dataclasses import replace
from typing import Any

import numpy as np
import pytest

from fullwaveform.calibration.calibration import Calibration
from fullwaveform.calibration.levels import ChannelLevels
from fullwaveform.core.driver import Mode
from fullwaveform.core.echo_table import FoundEchoes, echo_table
from fullwaveform.core.scanner import Scanner
from fullwaveform.extraction.prepare import (
    ESTIMATE,
    Preparation,
    checked_baseline,
    checked_sample_scale,
    prepare,
)

from ..calibration.test_levels import block

# Low channel: 5 noise rms are 10 counts, which is high against 15 * 2 = 30.
HIGH = ChannelLevels(1, 0, 100, baseline=100.0, baseline_spread=1.5, noise_rms=2.0)
LOW = replace(HIGH, baseline=20.0)


def preparation(level: ChannelLevels | None = None, **options: Any) -> Preparation:
    levels = () if level is None else (level,)
    settings: dict[str, Any] = {
        "mode": Mode.DECOMPOSITION,
        "threshold": None,
        "baseline": "auto",
        "sample_scale": "auto",
        "calibration": Calibration(levels),
    }
    return Preparation(**{**settings, **options})


def test_high_baseline_is_taken_off_each_waveform() -> None:
    # Baselines 100 and 104 of samples within 3 * 2.5 of 100, then within 6 of that.
    samples = [[99, 101, 100, 100, 400], [104, 103, 105, 104, 90]]
    prepared = prepare(block(samples), preparation(HIGH))
    assert prepared.removed.tolist() == [90, 94]
    assert prepared.block.samples.tolist() == [[9, 11, 10, 10, 310], [10, 9, 11, 10, 0]]
    assert prepared.baseline.tolist() == [10.0, 10.0]
    assert prepared.thresholds.tolist() == [20, 20]
    assert prepared.input_threshold(1) == 114


def test_low_baseline_is_kept() -> None:
    unchanged = block([[20, 21, 19, 20, 90]])
    prepared = prepare(unchanged, preparation(LOW))
    assert prepared.block is unchanged
    assert (prepared.baseline[0], prepared.removed[0]) == (20.0, 0)
    # 20 + 5 * sqrt(4 + 2.25) = 32.5
    assert prepared.thresholds.tolist() == [33]


def test_baseline_is_kept_or_removed_as_asked() -> None:
    samples = block([[20, 21, 19, 20, 90]])
    removed = prepare(samples, preparation(LOW, baseline="remove"))
    assert (removed.removed[0], removed.thresholds[0]) == (10, 20)
    kept = prepare(block([[100] * 5]), preparation(HIGH, baseline="keep"))
    # 100 + 5 * sqrt(4 + 2.25) = 112.5
    assert (kept.removed[0], kept.thresholds[0]) == (0, 113)


def test_at_most_twelve_counts_are_left() -> None:
    noisy = replace(HIGH, baseline=200.0, noise_rms=4.0)
    prepared = prepare(block([[200, 200, 200, 900]]), preparation(noisy))
    assert prepared.removed.tolist() == [188]
    assert prepared.thresholds.tolist() == [32]


def test_no_sample_wraps() -> None:
    prepared = prepare(block([[0, 65535, 100, 100, 100]]), preparation(HIGH))
    assert prepared.block.samples.tolist() == [[0, 65445, 10, 10, 10]]


def test_given_threshold_refers_to_the_input() -> None:
    prepared = prepare(block([[100] * 5, [103] * 5]), preparation(HIGH, threshold=130))
    assert prepared.removed.tolist() == [90, 93]
    assert prepared.thresholds.tolist() == [40, 37]
    below = prepare(block([[100] * 5]), preparation(HIGH, threshold=50))
    assert below.thresholds.tolist() == [0]


def test_thresholds_by_number_of_the_waveform() -> None:
    some = replace(block([[20] * 5] * 3), waveform_numbers=np.array([4, 0, 2]))
    given = np.array([30, 31, ESTIMATE, 33, 34])
    prepared = prepare(some, preparation(LOW, threshold=given))
    assert prepared.thresholds.tolist() == [34, 30, ESTIMATE]
    with pytest.raises(ValueError, match="threshold has 3 values; waveform 4 has none"):
        prepare(some, preparation(LOW, threshold=given[:3]))


def test_estimates_are_of_samples_as_recorded() -> None:
    prepared = prepare(block([[100] * 5]), preparation(HIGH, threshold="estimate"))
    assert (prepared.thresholds[0], prepared.removed[0]) == (ESTIMATE, 0)
    # Samples above 10 counts are left if the baseline is to be removed.
    asked = preparation(HIGH, threshold="estimate", baseline="remove")
    assert prepare(block([[100] * 5]), asked).removed.tolist() == [88]


def test_nothing_measured() -> None:
    prepared = prepare(block([[100] * 5]), preparation())
    assert prepared.thresholds.tolist() == [ESTIMATE]
    assert np.isnan(prepared.baseline[0])


def test_receivers_have_their_own_levels() -> None:
    levels = (replace(LOW, channel_flag=0), replace(HIGH, descriptor=7))
    samples = block([[100] * 5, [20] * 5, [100] * 5], [1, 0, 1], [7, 0, 3])
    prepared = prepare(samples, preparation(calibration=Calibration(levels)))
    # Descriptor 3 was not measured; it has the levels of its channel.
    assert prepared.removed.tolist() == [90, 0, 90]
    assert prepared.thresholds.tolist() == [20, 33, 20]


def test_samples_after_the_end_of_a_waveform_do_not_matter() -> None:
    samples = block([[100, 100, 100, 0, 0], [100, 100, 100, 100, 100]])
    shorter = replace(samples, counts=np.array([3, 5], np.uint16))
    prepared = prepare(shorter, preparation(HIGH))
    assert prepared.block.samples.tolist() == [[10, 10, 10, 0, 0], [10] * 5]


def test_weak_waveforms_are_scaled_for_deconvolution() -> None:
    # The largest factor of 16, 8, 4, 2 that leaves the maximum below 800.
    samples = block([[20, 49, 20], [20, 50, 20], [20, 99, 20], [20, 399, 20], [20, 400, 20]])
    prepared = prepare(samples, preparation(LOW, mode=Mode.DECONVOLUTION))
    assert prepared.scale.tolist() == [16, 8, 8, 2, 1]
    assert prepared.block.samples[:2].tolist() == [[320, 784, 320], [160, 400, 160]]
    assert prepared.thresholds.tolist() == [528, 264, 264, 66, 33]
    assert prepared.baseline.tolist() == [320.0, 160.0, 160.0, 40.0, 20.0]
    assert [prepared.input_threshold(row) for row in range(5)] == [33] * 5
    assert prepare(samples, preparation(LOW)).scale.tolist() == [1] * 5


def test_given_scale_is_for_every_mode_and_does_not_wrap() -> None:
    prepared = prepare(block([[20, 49], [20, 40_000]]), preparation(LOW, sample_scale=3))
    assert prepared.scale.tolist() == [3, 1]


def test_amplitudes_are_scaled_back() -> None:
    samples = block([[20, 49, 20], [20, 400, 20]])
    found = FoundEchoes(
        rows=np.array([0, 1, 0]),
        peaks={
            "idx": np.array([0.0, 1.0, 2.0]),
            "amplitude": np.array([50.103, 50.103, 0.0], np.float32),  # 20 log10(320)
            "height": np.array([300.0, 300.0, 0.5]),
            "sigma_height": np.array([4.0, 4.0, 8.0]),
        },
        scale=prepare(samples, preparation(LOW, mode=Mode.DECONVOLUTION)).scale,
        phase=np.zeros(2),
    )
    table, counts = echo_table(samples, found, Scanner.default())
    assert counts.tolist() == [2, 1]
    assert table.waveform_number.tolist() == [0, 0, 1]
    assert table.amplitude.tolist() == [18.75, 0.03125, 300.0]
    assert table.sigma_amplitude.tolist() == [0.25, 0.5, 4.0]
    # 20 log10(20); 0 dB below the amplitude unit.
    assert table.amplitude_library_db.tolist() == pytest.approx([26.0206, 0.0, 50.103], abs=1e-4)


@pytest.mark.parametrize("value", ["off", "", None, 3])
def test_invalid_baseline(value: Any) -> None:
    with pytest.raises(ValueError, match="must be one of keep, remove, auto"):
        checked_baseline(value)


@pytest.mark.parametrize("value", [0, 257, -1, 2.0, True, "4"])
def test_invalid_sample_scale(value: Any) -> None:
    with pytest.raises(ValueError, match="must be 'auto' or an integer from 1 to 256"):
        checked_sample_scale(value)
