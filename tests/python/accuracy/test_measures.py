"""Which found echoes count, and what is said about their errors."""

from __future__ import annotations

import math

import numpy as np
import pytest
from accuracy.bound import Bound
from accuracy.measures import Errors, error_measures, found_as_two, pair_measures, single_measures
from accuracy.methods import Found
from accuracy.pulses import Pulse
from accuracy.scenes import Truth

PULSE = Pulse.gaussian("", 4.0)  # so that found echoes may be 2 samples off
UNIT = Bound(*(np.ones((1, 2)) for _ in range(3)))


def found(*echoes: tuple[int, float]) -> Found:
    row, position = (np.array(column) for column in zip(*echoes, strict=True))
    return Found.sorted(row, position, *(np.ones(len(row)) for _ in range(5)))


def test_sorted_by_waveform_and_position() -> None:
    echoes = found((1, 5.0), (0, 9.0), (1, 4.0))
    assert echoes.row.tolist() == [0, 1, 1]
    assert echoes.position.tolist() == [9.0, 4.0, 5.0]


def test_nearest_echo_within_half_the_width_is_detected_the_others_are_extra() -> None:
    truth = Truth(np.full((4, 1), 30.0), np.ones((4, 1)), np.zeros((4, 1)))
    echoes = found(
        *[(0, 30.5), (0, 29.8)],  # the nearer one is paired
        (1, 32.0),  # just near enough
        (2, 32.01),  # too far
    )  # nothing in the last waveform
    measures = single_measures(echoes, truth, PULSE, UNIT)
    assert measures["detected"] == 50.0
    assert measures["extra"] == 50.0
    assert measures["bias"] == pytest.approx(1000.0 * (-0.2 + 2.0) / 2.0)
    assert measures["rms"] == pytest.approx(math.sqrt((0.04 + 4.0) / 2.0))


def test_pairs_need_exactly_two_echoes_near_the_truth_in_order() -> None:
    position = np.tile([30.0, 33.0], (6, 1))
    echoes = found(
        *[(0, 30.1), (0, 33.4)],
        *[(1, 30.0), (1, 33.0), (1, 50.0)],  # a third
        (2, 31.5),  # merged
        *[(3, 30.0), (3, 35.1)],  # the second is too far
        *[(5, 28.0), (5, 35.0)],  # both just near enough
    )
    assert found_as_two(echoes, 6, position, 2.0).tolist() == [0, 5]


def test_errors_of_pairs_are_those_of_the_waveforms_with_two() -> None:
    truth = Truth(np.tile([30.0, 33.0], (3, 1)), np.full((3, 2), 2.0), np.zeros((3, 2)))
    echoes = found((0, 30.3), (0, 33.4), (1, 31.0), (2, 30.1), (2, 33.0))
    measures = pair_measures(echoes, truth, PULSE, UNIT)
    assert measures["two"] == pytest.approx(200.0 / 3.0)
    assert measures["mean_echoes"] == pytest.approx(5.0 / 3.0)
    assert measures["first_rms"] == pytest.approx(math.sqrt((0.09 + 0.01) / 2.0))
    assert measures["second_bias"] == pytest.approx(200.0)
    # All stated deviations are 1.
    assert measures["pull"] == pytest.approx(math.sqrt((0.09 + 0.01 + 0.16) / 4.0))


def test_pull_and_coverage_use_the_stated_deviations() -> None:
    error = np.array([0.5, -1.5, 3.0, 7.0])
    sigma = np.array([1.0, 1.0, 1.0, np.nan])  # an echo without a stated deviation
    errors = Errors(error, 2.0 * error, error, sigma, 3.0 * sigma, 4.0 * sigma)
    bound = Bound(np.full((1, 1), 0.5), np.full((1, 1), 4.0), np.ones((1, 1)))
    measures = error_measures(errors, bound, 0, np.full(4, 100.0))
    assert measures["pull"] == pytest.approx(math.sqrt((0.25 + 2.25 + 9.0) / 3.0))
    assert measures["pull_height"] == pytest.approx(measures["pull"] * 2.0 / 3.0)
    assert measures["pull_fwhm"] == pytest.approx(measures["pull"] / 4.0)
    assert measures["within68"] == pytest.approx(1 / 3)
    assert measures["within95"] == pytest.approx(2 / 3)
    rms = math.sqrt((0.25 + 2.25 + 9.0 + 49.0) / 4.0)
    assert measures["rms"] == pytest.approx(rms / 0.5)
    assert measures["rms_height"] == pytest.approx(2.0 * rms / 4.0)
    assert measures["bias_height"] == pytest.approx(100.0 * 2.0 * 9.0 / 4.0 / 100.0)


def test_without_echoes_shares_are_zero_and_errors_unknown() -> None:
    truth = Truth(np.full((2, 1), 30.0), np.ones((2, 1)), np.zeros((2, 1)))
    none = Found.sorted(np.empty(0, np.int64), *(np.empty(0) for _ in range(6)))
    measures = single_measures(none, truth, PULSE, UNIT)
    assert measures["detected"] == measures["extra"] == 0.0
    assert math.isnan(measures["rms"])
    assert math.isnan(measures["pull"])
