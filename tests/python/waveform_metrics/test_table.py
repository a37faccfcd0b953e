"""Tables of metrics of blocks with known ground and canopy."""

from __future__ import annotations

import numpy as np
import pytest
from scipy.stats import norm

import fullwaveform
from fullwaveform import MetricsSettings
from fullwaveform.data.blocks import RecordedNoise, WaveformBlock
from fullwaveform.data.columns import take_rows
from fullwaveform.waveform_metrics.columns import MetricsFlag
from fullwaveform.waveform_metrics.table import MetricsRun, MetricsTable

from ..support.waveform_blocks import block
from .scenes import STEP, gaussians, noisy

PLAIN = MetricsSettings(smoothing=0.0)


def table(waveforms: WaveformBlock, settings: MetricsSettings = PLAIN) -> MetricsTable:
    return MetricsTable.of(waveforms, MetricsRun(settings))


def test_heights_of_a_gaussian_return_of_the_ground() -> None:
    found = table(noisy(gaussians(160, (400.0, 80.0, 6.0))))
    # 400 exp(-x^2 / 72) falls to 6 at 17.39 and to 3 at 18.77 samples; a quarter of the energy lies
    # beyond 0.6745 standard deviations.
    # Places are quarters of a sample, cut off; a sum over places runs half of one ahead.
    quarter = 0.375 * STEP
    for name, samples in (("rh_0", -17.39), ("rh_25", -4.05), ("rh_50", 0.0), ("rh_75", 4.05)):
        assert found[name][0] == pytest.approx(samples * STEP, abs=quarter), name
    assert found.rh_100[0] == pytest.approx(18.77 * STEP, abs=quarter)
    assert (found.x[0], found.y[0]) == (10.0, 20.0)
    assert found.ground_z[0] == pytest.approx(200.0 - 80.0 * STEP)
    assert found.top_z[0] - found.ground_z[0] == pytest.approx(float(found.rh_100[0]), abs=1e-4)
    assert found.energy[0] == pytest.approx(400.0 * 6.0 * np.sqrt(2.0 * np.pi), rel=0.01)
    assert found.variance[0] == pytest.approx((6.0 * STEP) ** 2, rel=0.03)
    assert found.centroid[0] == pytest.approx(0.0, abs=0.01)
    assert found.mode_count[0] == 1
    assert found.amplitude[0] == 400.0
    assert found.flags[0] == MetricsFlag.SYMMETRIC_GROUND


def test_cover_and_profiles_of_ground_and_canopy() -> None:
    # The canopy is 60 samples, 9 m, above the ground and has a third of its energy.
    settings = MetricsSettings(smoothing=4.0)
    found = table(noisy(gaussians(200, (300.0, 140.0, 4.0), (100.0, 80.0, 4.0))), settings)
    cover = 100.0 / (100.0 + 1.5 * 300.0)
    assert found.ground_energy[0] == pytest.approx(300.0 * 4.0 * np.sqrt(2.0 * np.pi), rel=0.01)
    assert found.canopy_energy[0] == pytest.approx(100.0 * 4.0 * np.sqrt(2.0 * np.pi), rel=0.02)
    assert found.ground_width[0] == pytest.approx(4.0, rel=0.02)
    assert found.cover[0] == pytest.approx(cover, rel=0.02)
    assert found.gap[0] == pytest.approx(1.0 - cover, rel=0.01)
    assert found.pai[0] == pytest.approx(-2.0 * np.log(1.0 - cover), rel=0.02)
    share = norm.sf(10.0, 9.0, 4.0 * STEP)
    assert found.gap_5m[0] == pytest.approx(1.0 - cover, rel=0.01)
    assert found.gap_10m[0] == pytest.approx(1.0 - cover * share, rel=0.002)
    assert found.pai_10m[0] == pytest.approx(-2.0 * np.log(1.0 - cover * share), rel=0.1)
    assert found.gap_15m[0] == 1.0
    heights = np.arange(20.0)
    area = -2.0 * np.log(1.0 - cover * norm.sf(heights, 9.0, 4.0 * STEP))
    density = -np.gradient(area)
    share_of = density[density > 0.0] / density[density > 0.0].sum()
    assert found.fhd[0] == pytest.approx(-(share_of * np.log(share_of)).sum(), abs=0.05)
    assert found.mode_count[0] == 2


def test_skewness_is_positive_with_a_canopy_above_the_ground() -> None:
    found = table(noisy(gaussians(200, (300.0, 140.0, 4.0), (100.0, 80.0, 4.0))), PLAIN)
    # Shares 3/4 and 1/4, 9 m apart, each with a variance of 0.36 m2.
    third, second = 9.0**3 * 3.0 / 32.0, 9.0**2 * 3.0 / 16.0 + 0.36
    assert found.skewness[0] == pytest.approx(third / second**1.5, rel=0.02)


def test_low_canopy_does_not_widen_the_return_of_the_ground() -> None:
    # 18 samples above the ground; the fit begins 2.08 x 4 above it.
    waveforms = noisy(gaussians(200, (300.0, 140.0, 4.0), (250.0, 122.0, 4.0)))
    found = table(waveforms, MetricsSettings(smoothing=4.0))
    assert found.ground_energy[0] == pytest.approx(300.0 * 4.0 * np.sqrt(2.0 * np.pi), rel=0.03)
    assert found.ground_width[0] == pytest.approx(4.0, rel=0.05)


def test_reflectance_projection_and_clumping_scale_as_their_formulas() -> None:
    waveforms = noisy(gaussians(200, (300.0, 140.0, 4.0), (100.0, 80.0, 4.0)))
    found = table(waveforms, MetricsSettings(4.0, reflectance_ratio=3.0))
    assert found.cover[0] == pytest.approx(1.0 / 10.0, rel=0.02)
    dense = table(waveforms, MetricsSettings(4.0, projection=0.25, clumping=0.5))
    usual = table(waveforms, MetricsSettings(4.0))
    assert dense.pai[0] == pytest.approx(4.0 * usual.pai[0], rel=1e-5)


def test_front_slope_is_the_rise_to_the_highest_mode() -> None:
    # From 3 counts, rounded, at place 19.x to 60 counts at sample 30.
    samples = np.full((1, 60), 100.0)
    samples[0, 20:40] += [3, 9, 15, 21, 27, 33, 39, 45, 51, 57, 60, 57, 50, 40, 30, 20, 12, 8, 4, 0]
    found = table(noisy(samples))
    # 3 is not above 3; between samples 20 and 21 the first quarter has 4.5 counts.
    assert found.front_slope[0] == pytest.approx(60.0 / ((30.0 - 20.25) * STEP))


def test_waveforms_without_a_signal_are_flagged_and_nan() -> None:
    flat = np.full((4, 50), 100)
    flat[1] = 0
    flat[2] = 105
    flat[3, 20:22] = 103
    found = table(noisy(flat), MetricsSettings())
    assert (found.flags & MetricsFlag.NO_SIGNAL != 0).all()
    for name in ("rh_0", "rh_100", "cover", "pai", "fhd", "energy", "ground_z", "variance"):
        assert np.isnan(found[name]).all(), name


def test_record_that_is_full_of_signal_is_flagged() -> None:
    found = table(noisy(np.full((1, 50), 65_535)), MetricsSettings())
    assert found.flags[0] & MetricsFlag.CUT_OFF


@pytest.mark.parametrize("width", [0, 1, 2])
def test_very_short_waveforms_have_no_signal(width: int) -> None:
    found = table(noisy(np.full((3, width), 200)), MetricsSettings())
    assert len(found) == 3
    assert (found.flags & MetricsFlag.NO_SIGNAL != 0).all()


def test_waveforms_that_nothing_is_known_of_have_no_signal() -> None:
    found = table(block(np.array([[0, 5, 0], [7, 7, 7]]), counts=[0, 1]))
    assert (found.flags & MetricsFlag.NO_SIGNAL != 0).all()


def test_distances_replace_heights_without_a_place_in_space() -> None:
    samples = gaussians(160, (400.0, 80.0, 6.0))
    found = fullwaveform.metrics(block(np.repeat(samples, 3, axis=0)), PLAIN).columns
    assert (found["flags"] & MetricsFlag.NO_HEIGHT != 0).all()
    assert (found["flags"] & MetricsFlag.NOISE_MEASURED != 0).all()
    assert np.isnan(found["ground_z"]).all()
    assert found["rh_75"][0] == pytest.approx(4.05 * 0.14986, abs=0.375 * 0.14986)
    assert found["noise_mean"][0] == pytest.approx(100.0, abs=0.1)


@pytest.mark.parametrize("mean", [np.nan, np.inf, -1.0, 1e300])
def test_recorded_noise_that_cannot_be_is_replaced_by_measured(mean: float) -> None:
    waveforms = noisy(np.repeat(gaussians(160, (400.0, 80.0, 6.0)), 3, axis=0))
    object.__setattr__(waveforms, "noise", RecordedNoise(np.full(3, mean), np.full(3, 1.0)))
    found = fullwaveform.metrics(waveforms, PLAIN).columns
    assert (found["flags"] & MetricsFlag.NOISE_MEASURED != 0).all()
    assert found["noise_mean"][0] == pytest.approx(100.0, abs=0.1)


def test_signal_at_the_end_of_the_record_is_flagged() -> None:
    found = table(noisy(gaussians(85, (400.0, 80.0, 6.0))))
    assert found.flags[0] & MetricsFlag.CUT_OFF


def scene(rows: int = 60) -> WaveformBlock:
    """Random canopies over random grounds in records of unequal length."""
    random = np.random.default_rng(7)
    parts = [
        gaussians(
            300,
            (random.uniform(50, 500), random.uniform(150, 200), random.uniform(4, 9)),
            (random.uniform(0, 200), random.uniform(60, 140), random.uniform(4, 20)),
        )
        for _ in range(rows)
    ]
    noise = random.normal(0.0, 1.5, (rows, 300))
    counts = random.integers(210, 301, rows)
    samples = np.rint(np.concatenate(parts) + noise)
    samples[np.arange(300) >= counts[:, np.newaxis]] = 0
    return noisy(samples, counts=counts, rms=1.5)


def test_metrics_of_a_waveform_do_not_depend_on_the_others() -> None:
    waveforms = scene()
    whole = table(waveforms, MetricsSettings())
    for rows in np.array_split(np.arange(len(waveforms)), 7):
        part = take_rows(waveforms, rows)
        width = int(part.counts.max())
        object.__setattr__(part, "samples", np.ascontiguousarray(part.samples[:, :width]))
        found = table(part, MetricsSettings())
        for name in whole.columns:
            np.testing.assert_array_equal(found[name], whole[name][rows], err_msg=name)


def test_workers_do_not_change_the_metrics() -> None:
    blocks = [take_rows(scene(), rows) for rows in np.array_split(np.arange(60), 7)]
    one, two, five = (fullwaveform.metrics(blocks, workers=n).to_arrow() for n in (1, 2, 5))
    for name in one.column_names:
        for other in (two, five):
            assert one[name].to_numpy().tobytes() == other[name].to_numpy().tobytes(), name


@pytest.mark.parametrize(
    ("name", "value", "rule"),
    [
        ("smoothing", -1.0, "not negative"),
        ("front_threshold", float("nan"), "finite"),
        ("back_threshold", "6", "finite"),
        ("reflectance_ratio", 0.0, "above 0"),
        ("projection", True, "finite"),
        ("profile_step", 0.01, "levels"),
    ],
)
def test_invalid_settings_are_refused(name: str, value: object, rule: str) -> None:
    with pytest.raises(ValueError, match=f"^{name} .*{rule}"):
        MetricsSettings(**{name: value})  # type: ignore[arg-type]


def test_smoothing_of_too_many_samples_is_refused() -> None:
    with pytest.raises(ValueError, match=r"101\.0 ns is 101 samples of 1 ns; at most 100"):
        table(noisy(gaussians(50, (100.0, 25.0, 4.0))), MetricsSettings(smoothing=101.0))


def test_sources_that_are_no_waveforms_are_refused() -> None:
    with pytest.raises(ValueError, match="the source is an array"):
        fullwaveform.metrics(np.zeros((2, 5), np.uint16))  # type: ignore[arg-type]
    with pytest.raises(ValueError, match="the source has no waveforms"):
        fullwaveform.metrics([])
    with pytest.raises(ValueError, match="invalid workers 0"):
        fullwaveform.metrics(scene(3), workers=0)
