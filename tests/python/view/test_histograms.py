"""Classes of values and the numbers of values in them."""

from __future__ import annotations

import numpy as np
import pytest

from fullwaveform.view.histograms import class_counts, class_numbers, described_histogram


def test_values_are_in_the_class_between_its_edges() -> None:
    values = np.array([0.0, 0.9, 1.0, 2.5, 3.999], np.float32)
    assert class_numbers(values, [0.0, 1.0, 2.0, 3.0, 4.0]).tolist() == [0, 0, 1, 2, 3]


def test_values_beyond_the_edges_are_in_the_outer_classes() -> None:
    values = np.array([-1e30, -1.0, 4.0, 4.1, 3e38], np.float32)
    assert class_numbers(values, [0.0, 1.0, 2.0, 3.0, 4.0]).tolist() == [0, 0, 3, 3, 3]


def test_unknown_values_are_in_no_class() -> None:
    values = np.array([np.nan, 0.5, np.inf, -np.inf], np.float32)
    assert class_numbers(values, [0.0, 1.0, 2.0]).tolist() == [2, 0, 2, 2]
    assert class_counts(values, [0.0, 1.0, 2.0]).tolist() == [1, 0]


def test_categories_have_a_class_each() -> None:
    values = np.array([0, 3, 3, 255], np.uint8)
    described = described_histogram(values, is_category=True)
    assert described is not None
    assert described["edges"] == [number - 0.5 for number in range(257)]
    assert {n: c for n, c in enumerate(described["counts"]) if c} == {0: 1, 3: 2, 255: 1}


@pytest.mark.parametrize("value", [0.0, 4.7, -1e9, 3e30])
def test_equal_values_are_in_one_class(value: float) -> None:
    described = described_histogram(np.full(5, value, np.float32))
    assert described is not None
    assert sorted(described["counts"])[-2:] == [0, 5]


def test_counts_of_many_values_are_those_of_numpy() -> None:
    """On edges at multiples of a power of two, whose classes NumPy finds exactly."""
    values = np.random.default_rng(1).integers(0, 1024, 600_000).astype(np.float32)
    edges = np.arange(0.0, 1025.0, 32.0)
    expected, _ = np.histogram(values, edges)
    assert class_counts(values, edges.tolist()).tolist() == expected.tolist()


def test_ends_do_not_depend_on_the_order_of_the_values() -> None:
    """As of shots with two echoes each, a strong and a weak one."""
    described = described_histogram(np.tile(np.array([100.0, 40.0], np.float32), 500_000))
    assert described is not None
    assert (described["edges"][0], described["edges"][-1]) == (40.0, 100.0)
    assert (described["counts"][0], described["counts"][-1]) == (500_000, 500_000)


def test_no_known_values_have_no_histogram() -> None:
    assert described_histogram(np.full(3, np.nan, np.float32)) is None
    assert described_histogram(np.zeros(0, np.float32)) is None
