"""Geometry of the flight line, compared with hand-calculated values."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest

from fullwaveform.simulation import ScanSettings, simulate_scan

PLAIN: dict[str, Any] = {
    "shots": 400,
    "empty_fraction": 0.0,
    "saturated_fraction": 0.0,
    "close_pair_fraction": 0.0,
}


def test_vertical_beam_hits_the_ground_below() -> None:
    scan = simulate_scan(ScanSettings(**PLAIN, half_scan_angle=0.0, heading=90.0, speed=80.0))
    assert scan.shots.origin[0].tolist() == [500_000.0, 5_300_000.0, 1020.0]
    np.testing.assert_allclose(scan.truth.xyz[0], [500_000.0, 5_300_000.0, 420.0], atol=1e-6)
    # 400 shots at 100 kHz: the last is fired 3.99 ms after the first, 0.3192 m further east.
    np.testing.assert_allclose(scan.truth.x[-1], 500_000.3192, atol=1e-6)
    np.testing.assert_allclose(scan.truth.y, 5_300_000.0, atol=1e-6)


def test_first_echo_follows_the_lead_in() -> None:
    scan = simulate_scan(ScanSettings(**PLAIN, half_scan_angle=0.0))
    lead = scan.truth.position_samples[0]
    assert 20.0 <= lead < 21.0
    # One ns of two-way travel is 0.149854128 m of range.
    assert scan.shots.waveform_start[0] == pytest.approx(600.0 - lead * 0.149854128, abs=1e-6)


def test_sweep_starts_on_the_left_and_reverses() -> None:
    scan = simulate_scan(ScanSettings(shots=2000, heading=0.0))
    angle = scan.shots.scan_angle
    assert angle[0] == -18.0
    assert angle[500] == pytest.approx(0.0, abs=1e-9)
    assert angle[1000] == 18.0
    assert angle[1500] == pytest.approx(0.0, abs=1e-9)
    # Northwards flight: left is west.
    assert scan.shots.direction[0, 0] == pytest.approx(-np.sin(np.radians(18.0)))
    assert scan.shots.direction[0, 2] == pytest.approx(-np.cos(np.radians(18.0)))
    assert scan.shots.scan_direction_flag[[0, 999, 1000, 1999]].tolist() == [1, 1, 0, 0]
    assert np.flatnonzero(scan.shots.edge_of_flight_line).tolist() == [999, 1999]


def test_times_ascend_by_the_pulse_period() -> None:
    time = simulate_scan(ScanSettings(shots=1000, pulse_rate=200_000.0)).shots.gps_time
    assert time[0] == 3.0e8
    assert (np.diff(time) > 0).all()
    assert time[999] - time[0] == pytest.approx(0.004995, abs=1e-7)


def test_echoes_lie_on_their_beams() -> None:
    scan = simulate_scan(ScanSettings())
    truth, shots = scan.truth, scan.shots
    away = truth.xyz - shots.origin[truth.shot]
    distance = np.linalg.norm(away, axis=1)
    np.testing.assert_allclose(
        away / distance[:, np.newaxis], shots.direction[truth.shot], atol=1e-9
    )
    two_way = 2.0 * (distance - shots.waveform_start[truth.shot]) / 299_708_256.0
    np.testing.assert_allclose(two_way * 1e9, truth.time_in_record_ns, atol=1e-5)
    np.testing.assert_allclose(np.linalg.norm(shots.direction, axis=1), 1.0, atol=1e-12)


def test_time_and_position_follow_the_sampling_interval() -> None:
    truth = simulate_scan(ScanSettings(sampling_interval=2e-9, shots=50)).truth
    np.testing.assert_allclose(truth.time_in_record_ns, 2.0 * truth.position_samples, rtol=1e-12)


def test_ground_is_gentle_and_roofs_are_above_it() -> None:
    truth = simulate_scan(ScanSettings()).truth
    ground, roof = truth.classification == 2, truth.classification == 6
    # The waves of the ground add at most 4.2 m to a slope of 4 % over 200 m on either side.
    assert np.abs(truth.z[ground] - 420.0).max() < 12.5
    assert roof.sum() > 100
    nearest = np.abs(truth.x[roof, np.newaxis] - truth.x[ground]).argmin(axis=1)
    assert (truth.z[roof] - truth.z[ground][nearest]).min() > 4.0


def test_shares_of_special_shots_are_exact() -> None:
    settings = ScanSettings(empty_fraction=0.1, saturated_fraction=0.03, close_pair_fraction=0.2)
    truth = simulate_scan(settings).truth
    assert len(np.unique(truth.shot)) == 1800
    assert len(np.unique(truth.shot[truth.amplitude_low_power > 4000.0])) == 60
    near = (truth.neighbour_distance_samples >= 1.2 * 1.6 - 1e-9) & (
        truth.neighbour_distance_samples <= 2.0 * 1.6 + 1e-9
    )
    first = truth.echo_number == 1
    assert (near & first).sum() >= 400


def test_vegetation_gives_several_echoes() -> None:
    truth = simulate_scan(ScanSettings(close_pair_fraction=0.0)).truth
    leafy = np.unique(truth.shot[truth.classification == 5])
    count = np.bincount(truth.shot)[leafy]
    assert len(leafy) > 400
    assert count.max() == 5
    assert np.mean(count >= 2) > 0.9
    assert truth.overlapping.mean() > 0.1


def test_numbers_and_order_within_the_shots() -> None:
    truth = simulate_scan(ScanSettings()).truth
    same = np.diff(truth.shot) == 0
    assert (np.diff(truth.shot) >= 0).all()
    assert (np.diff(truth.position_samples)[same] > 0).all()
    assert (np.diff(truth.echo_number)[same] == 1).all()
    assert (truth.echo_number[1:][~same] == 1).all()
    assert truth.position_samples.max() <= 151.0
    np.testing.assert_allclose(
        truth.amplitude_low_power / truth.amplitude_high_power, 8.0, rtol=1e-12
    )


def test_short_waveform_keeps_only_echoes_that_fit() -> None:
    truth = simulate_scan(ScanSettings(samples=48)).truth
    assert truth.position_samples.max() <= 39.0
    assert len(np.unique(truth.shot)) == 1900


def test_all_shots_may_be_empty() -> None:
    settings = ScanSettings(
        shots=20, empty_fraction=1.0, saturated_fraction=0.0, close_pair_fraction=0.0
    )
    scan = simulate_scan(settings)
    assert len(scan.truth) == 0
    assert scan.samples.max() < 25


@pytest.mark.parametrize(
    ("name", "value"),
    [
        ("shots", 0),
        ("seed", -1),
        ("samples", 70_000),
        ("samples", 30),
        ("sampling_interval", 1.0005e-12),
        ("sampling_interval", 0.0),
        ("pulse_width", 0.0),
        ("bits", 12),
        ("maximum", 70_000),
        ("maximum", 12),
        ("noise_rms", -1.0),
        ("gain_ratio", 1.0),
        ("lead_in", 3.0),
        ("empty_fraction", 1.1),
        ("half_scan_angle", 60.0),
        ("start_time", 2e9),
        ("points_without_packet", -1),
    ],
)
def test_invalid_setting_is_named(name: str, value: Any) -> None:
    with pytest.raises(ValueError, match=name):
        ScanSettings(**{name: value})


def test_fractions_above_1_in_total_are_refused() -> None:
    with pytest.raises(ValueError, match="sum of the fractions"):
        ScanSettings(empty_fraction=0.6, saturated_fraction=0.5)
