"""Samples of echoes with hand-calculated sums: exp(-k**2 / 8) for a width of 2 samples."""

from __future__ import annotations

import numpy as np
import pytest

from fullwaveform.simulation import Echoes, ScanSettings, simulate_scan
from fullwaveform.simulation.waveforms import digitise, is_saturated, neighbour_distance, receive

QUIET = ScanSettings(samples=64, baseline=10.0, noise_rms=0.0)


def echoes(*rows: tuple[int, float, float], width: float = 2.0) -> Echoes:
    """Echoes from (shot, position, amplitude)."""
    shot, position, amplitude = (np.array(column) for column in zip(*rows, strict=True))
    return Echoes(
        shot=shot.astype(np.int64),
        position=position.astype(np.float64),
        amplitude=amplitude.astype(np.float64),
        width=np.full(len(rows), width),
        classification=np.full(len(rows), 2, dtype=np.uint8),
    )


def waveforms(scene: Echoes, shots: int = 1) -> np.ndarray:
    return digitise(receive(scene, shots, QUIET), QUIET, np.random.default_rng(0))


def test_single_echo_is_a_gaussian_in_both_channels() -> None:
    samples = waveforms(echoes((0, 30.0, 1000.0)))
    right_low = [1010, 892, 617, 335, 145, 54, 21, 12, 10]
    right_high = [135, 120, 86, 51, 27, 15, 11, 10, 10]
    assert samples.dtype == np.uint16
    assert samples.shape == (1, 2, 64)
    assert samples[0, 0, 30:39].tolist() == right_low
    assert samples[0, 0, 22:31].tolist() == right_low[::-1]
    assert samples[0, 1, 30:39].tolist() == right_high
    assert set(samples[0, 0, :22].tolist()) == {10}
    assert set(samples[0, 0, 39:].tolist()) == {10}


def test_overlapping_echoes_add_up() -> None:
    samples = waveforms(echoes((0, 30.0, 1000.0), (0, 34.0, 1000.0)))
    # 1000 + 135.3 + 10 at either echo, 2 * 606.5 + 10 halfway between them.
    assert samples[0, 0, [30, 32, 34]].tolist() == [1145, 1223, 1145]


def test_strong_echo_has_a_flat_top_in_the_low_power_channel_only() -> None:
    samples = waveforms(echoes((0, 30.0, 8000.0)))
    assert samples[0, 0, 27:34].tolist() == [2607, 4000, 4000, 4000, 4000, 4000, 2607]
    assert samples[0, 1, 30] == 1010


def test_echo_at_the_edge_stays_in_its_waveform() -> None:
    samples = waveforms(echoes((0, 63.0, 1000.0), (2, 0.0, 500.0)), shots=3)
    assert samples[0, 0, 61:].tolist() == [617, 892, 1010]
    assert set(samples[1].ravel().tolist()) == {10}
    assert samples[2, 0, :3].tolist() == [510, 451, 313]
    assert samples[0, 0, 0] == 10


def test_waveform_without_echo_is_the_baseline() -> None:
    none = echoes((0, 1.0, 1.0))
    none = Echoes(none.shot[:0], none.position[:0], none.amplitude[:0], none.width[:0],
                  none.classification[:0])  # fmt: skip
    assert set(waveforms(none, shots=2).ravel().tolist()) == {10}


def test_low_baseline_is_clipped_at_zero() -> None:
    settings = ScanSettings(samples=64, baseline=0.0, noise_rms=1.5)
    samples = digitise(np.zeros((50, 2, 64)), settings, np.random.default_rng(3))
    assert samples.min() == 0
    assert samples.max() < 12


def test_noise_has_the_given_rms() -> None:
    samples = digitise(np.full((200, 2, 160), 12.0), ScanSettings(), np.random.default_rng(3))
    # 64 000 samples; rounding adds a twelfth of a count squared to the variance of 2.25.
    assert samples.mean() == pytest.approx(12.0, abs=0.03)
    assert samples.std() == pytest.approx(1.5275, abs=0.02)


def test_neighbour_distance_is_within_the_shot() -> None:
    shot = np.array([0, 0, 0, 1, 2, 2])
    position = np.array([20.0, 23.0, 30.0, 31.0, 32.0, 40.5])
    expected = [3.0, 3.0, 7.0, np.inf, 8.5, 8.5]
    assert neighbour_distance(shot, position).tolist() == expected
    assert len(neighbour_distance(shot[:0], position[:0])) == 0


def test_saturation_flag_looks_within_one_width() -> None:
    scene = echoes((0, 30.0, 8000.0), (0, 33.0, 50.0), (0, 36.0, 50.0), (1, 30.0, 3980.0))
    flags = is_saturated(scene, receive(scene, 2, QUIET), QUIET)
    # The flat top ends at sample 32: one width before 33, four samples before 36.
    assert flags.tolist() == [True, True, False, False]


def test_empty_shots_hold_only_noise() -> None:
    scan = simulate_scan(ScanSettings())
    empty = np.setdiff1d(np.arange(2000), scan.truth.shot)
    assert len(empty) == 100
    noise = scan.samples[empty].astype(np.float64)
    assert np.abs(noise - 12.0).max() <= 8.5  # 32 000 samples: beyond 5.6 sigma once in 1000 runs
    assert noise.mean() == pytest.approx(12.0, abs=0.05)


def test_clipped_waveforms_are_those_of_saturated_echoes() -> None:
    scan = simulate_scan(ScanSettings(noise_rms=0.0))
    clipped = np.flatnonzero((scan.samples[:, 0] == 4000).any(axis=1))
    assert clipped.tolist() == np.unique(scan.truth.shot[scan.truth.saturated]).tolist()
    assert len(clipped) >= 80
    assert scan.samples.max() == 4000
    assert scan.samples[:, 1].max() < 4000


def test_isolated_echo_is_at_its_true_position() -> None:
    scan = simulate_scan(ScanSettings(noise_rms=0.0, saturated_fraction=0.0))
    truth = scan.truth
    alone = np.flatnonzero(np.isinf(truth.neighbour_distance_samples))
    assert len(alone) > 900
    peak = scan.samples[truth.shot[alone], 0].argmax(axis=1)
    # A broad weak echo may reach one rounded value in two samples.
    assert np.abs(peak - truth.position_samples[alone]).max() < 1.0
    height = scan.samples[truth.shot[alone], 0].max(axis=1) - 12.0
    ratio = height / truth.amplitude_low_power[alone]
    # Half a sample off the top: exp(-0.5**2 / (2 * 1.6**2)) = 0.952, and rounding.
    assert ratio.min() > 0.93
    assert ratio.max() < 1.02


def test_equal_settings_give_equal_scans() -> None:
    one, two = simulate_scan(ScanSettings(shots=300)), simulate_scan(ScanSettings(shots=300))
    np.testing.assert_array_equal(one.samples, two.samples)
    np.testing.assert_array_equal(one.truth.xyz, two.truth.xyz)
    other = simulate_scan(ScanSettings(shots=300, seed=2))
    assert not np.array_equal(one.samples, other.samples)


def test_noise_does_not_change_the_scene() -> None:
    loud = simulate_scan(ScanSettings(shots=300, noise_rms=9.0))
    calm = simulate_scan(ScanSettings(shots=300))
    np.testing.assert_array_equal(loud.truth.position_samples, calm.truth.position_samples)
