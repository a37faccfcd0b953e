"""Positions of outgoing pulses of known position, and their mean."""

from __future__ import annotations

import numpy as np
import numpy.typing as npt
import pytest

from fullwaveform.calibration.outgoing_template import OutgoingTemplate, mean_outgoing_pulse

Values = npt.NDArray[np.float64]
Counts = npt.NDArray[np.uint16]
WIDTH = 48
NOISE = 1.5  # counts
SIGMA, TAIL = 1.6, 3.0  # samples


def shape(x: Values) -> Values:
    """A pulse with a tail, whose maximum is at 0."""
    late = np.exp(-0.5 * ((x - 3.0) / TAIL) ** 2)
    return np.exp(-0.5 * (x / SIGMA) ** 2) + 0.2 * late


MAXIMUM = float(np.arange(-1.0, 1.0, 1e-4)[np.argmax(shape(np.arange(-1.0, 1.0, 1e-4)))])


def recorded(position: Values, height: float = 1500.0, noise: float = NOISE) -> Counts:
    """Pulses with their maxima at the given positions, on a baseline of 12 counts."""
    x = np.arange(WIDTH) - position[:, np.newaxis] + MAXIMUM
    signal = 12.0 + height / shape(np.array([MAXIMUM])) * shape(x)
    noisy = signal + np.random.default_rng(7).normal(0.0, noise, signal.shape)
    return np.rint(np.maximum(noisy, 0.0)).astype(np.uint16)


def lengths(samples: Counts) -> Counts:
    return np.full(len(samples), samples.shape[1], np.uint16)


def template_of(samples: Counts) -> OutgoingTemplate:
    template = mean_outgoing_pulse(samples, lengths(samples), 1e-9)
    assert template is not None
    return template


POSITION = 18.0 + np.random.default_rng(3).uniform(-2.0, 2.0, 1200)
SAMPLES = recorded(POSITION)
TEMPLATE = template_of(SAMPLES)


def test_positions_reach_the_cramer_rao_bound() -> None:
    """The bound for white noise: noise rms / sqrt(sum of the squared slopes)."""
    x = np.arange(WIDTH) - 18.0
    slope = np.diff(1500.0 * shape(np.array([x - 0.005, x + 0.005])), axis=0)[0] / 0.01
    bound = np.sqrt(NOISE**2 + 1.0 / 12.0) / np.sqrt(np.sum(slope**2))
    error = TEMPLATE.positions(SAMPLES, lengths(SAMPLES)) - POSITION
    assert np.std(error) < 1.5 * bound
    assert abs(np.mean(error)) < 0.01  # samples


def test_positions_are_twice_as_precise_as_those_of_a_parabola() -> None:
    top = np.argmax(SAMPLES, axis=1)
    rows = np.arange(len(SAMPLES))
    left, middle, right = (SAMPLES[rows, top + step].astype(float) for step in (-1, 0, 1))
    parabola = top + 0.5 * (left - right) / (left - 2.0 * middle + right)
    error = TEMPLATE.positions(SAMPLES, lengths(SAMPLES)) - POSITION
    assert np.std(error) < 0.5 * np.std(parabola - POSITION)


@pytest.mark.parametrize("rows", [[3], [5, 900], list(range(20, 333))])
def test_a_position_does_not_depend_on_other_pulses(rows: list[int]) -> None:
    found = TEMPLATE.positions(SAMPLES, lengths(SAMPLES))
    padded = np.pad(SAMPLES[rows], ((0, 0), (0, 29)))
    some = TEMPLATE.positions(padded, np.full(len(rows), WIDTH, np.uint16))
    assert np.array_equal(some, found[rows])


def test_weaker_pulses_are_fitted_by_the_same_template() -> None:
    weak = recorded(POSITION, height=150.0, noise=0.5)
    error = TEMPLATE.positions(weak, lengths(weak)) - POSITION
    assert np.std(error) < 0.02


def test_missing_cut_and_flat_pulses_have_no_position() -> None:
    samples = recorded(np.array([18.0, 1.0, WIDTH - 2.0, 18.0, 18.0]))
    samples[3] = 12
    counts = np.array([0, WIDTH, WIDTH, WIDTH, WIDTH], np.uint16)
    found = TEMPLATE.positions(samples, counts)
    assert np.isnan(found).tolist() == [True, True, True, True, False]
    assert np.isnan(TEMPLATE.positions(samples[:, :5], counts)).all()


def test_position_counts_from_the_maximum_of_the_mean() -> None:
    middle = np.arange(-20, 21) / 20.0
    exact = recorded(18.0 + middle, height=40000.0, noise=0.0)
    found = TEMPLATE.positions(exact, lengths(exact))
    assert np.abs(found - 18.0 - middle).max() < 0.01


def test_too_few_pulses_have_no_mean() -> None:
    assert mean_outgoing_pulse(SAMPLES[:19], lengths(SAMPLES[:19]), 1e-9) is None
    assert mean_outgoing_pulse(np.zeros((0, 0), np.uint16), np.zeros(0, np.uint16), 1e-9) is None
    flat = np.full((50, 30), 7, np.uint16)
    assert mean_outgoing_pulse(flat, lengths(flat), 1e-9) is None
