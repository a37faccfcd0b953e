"""Baseline and noise rms of waveforms: hand-calculated values, and noise of known rms."""

from __future__ import annotations

import numpy as np
import pytest

from fullwaveform.analysis.baseline import baseline_and_noise_rms

PER_DISTANCE = 1.2533141  # root of pi / 2


def of(samples: list[int]) -> tuple[float, float]:
    baseline, noise = baseline_and_noise_rms([samples])
    return float(baseline[0]), float(noise[0])


def test_baseline_is_estimated_around_the_narrowest_quarter() -> None:
    # Two of eight samples: 11 and 11. One below by 1, two on it: 1 / (1 + 2/2) of distance, so
    # that 10 to 12 lie within three deviations of 1.2533 / 2.
    baseline, noise = of([10, 11, 12, 11, 100, 100, 13, 14])
    assert baseline == 11.0
    assert noise == pytest.approx(PER_DISTANCE / 2.0)


def test_lowest_of_equally_narrow_quarters_is_used() -> None:
    # 3 and 5, not 5 and 7 nor 7 and 9: start 4, one below by 1, deviation 1.2533, reach 3.76.
    # Then 3, 5, 7 give 5, one below by 2, one on it.
    baseline, noise = of([5, 9, 7, 100, 3])
    assert baseline == 5.0
    assert noise == pytest.approx(PER_DISTANCE * 2.0 / 1.5)


def test_constant_waveforms_have_no_noise() -> None:
    assert of([20] * 5) == (20.0, 0.0)
    assert of([7]) == (7.0, 0.0)
    assert of([65535] * 9) == (65535.0, 0.0)


def test_neighbouring_counts_are_included_without_spread() -> None:
    # 50 50 50 51: one count of reach.
    assert of([50, 51, 50, 50])[0] == 50.25


def test_rows_are_estimated_independently() -> None:
    rows = np.array([[20] * 5, [5, 9, 7, 100, 3]], np.uint16)
    baseline, noise = baseline_and_noise_rms(rows)
    assert [tuple(pair) for pair in zip(baseline, noise, strict=True)] == [
        of(row.tolist()) for row in rows
    ]


# Share of each waveform that is echo.
@pytest.mark.parametrize("filled", [0.0, 0.1, 0.4, 0.65])
@pytest.mark.parametrize("deviation", [1.5, 6.0])
def test_noise_rms_is_recovered_under_echoes(filled: float, deviation: float) -> None:
    rng = np.random.default_rng(4)
    samples = rng.normal(200.0, deviation, (400, 300))
    end = 10 + round(300 * filled)
    samples[:, 10:end] += rng.uniform(300.0, 3000.0, (400, end - 10))
    baseline, noise = baseline_and_noise_rms(np.rint(samples).astype(np.uint16))
    assert np.median(baseline) == pytest.approx(200.0, abs=0.15 * deviation)
    assert np.median(noise) == pytest.approx(deviation, rel=0.1)
    assert np.std(baseline) < 0.3 * deviation
