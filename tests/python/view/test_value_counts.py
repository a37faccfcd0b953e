"""Histograms of values that are counted block by block."""

from __future__ import annotations

import numpy as np
import pytest

from fullwaveform.view.value_counts import Histogram, ValueCounts, whole_number_histogram


def counted(*blocks: np.ndarray) -> Histogram:
    counts = ValueCounts()
    for block in blocks:
        counts.add(block)
    return counts.histogram()


@pytest.mark.parametrize("sign", [1.0, -1.0])
def test_classes_count_what_lies_between_their_edges(sign: float) -> None:
    values = sign * np.random.default_rng(1).exponential(50.0, 10_000).astype(np.float32)
    found = counted(values)
    assert len(found.counts) == 48
    # NumPy counts the values between the same edges; those outside belong to the end classes.
    expected, _ = np.histogram(values, [-np.inf, *found.edges[1:-1], np.inf])
    np.testing.assert_array_equal(found.counts, expected)
    assert np.diff(found.edges) == pytest.approx(np.diff(found.edges).mean(), rel=0.15)
    assert found.edges[[0, -1]] == pytest.approx(np.percentile(values, [0.5, 99.5]), rel=0.02)
    assert found.quantiles == pytest.approx(np.percentile(values, [5, 50, 95]), rel=0.01)


def test_order_and_blocks_do_not_matter() -> None:
    values = np.random.default_rng(2).normal(3.0, 2.0, 1000)
    whole, parts = counted(values), counted(*np.split(values[::-1], 10))
    np.testing.assert_array_equal(whole.edges, parts.edges)
    np.testing.assert_array_equal(whole.counts, parts.counts)
    assert whole.quantiles == parts.quantiles


def test_unknown_values_are_not_counted() -> None:
    found = counted(np.array([1.0, np.nan, 2.0, np.inf, -np.inf, 1e39, -1e300]))
    assert found.total == 2
    assert found.edges[[0, -1]] == pytest.approx([1.0, 2.0], rel=1e-3)
    empty = counted(np.array([np.nan]), np.empty(0))
    assert (empty.total, len(empty.edges), empty.quantiles) == (0, 0, ())


@pytest.mark.parametrize("value", [0.0, 7.25, -7.25, 1e-30, 65535.0])
def test_equal_values_have_classes_around_them(value: float) -> None:
    found = counted(np.full(5, value))
    assert found.total == 5
    assert found.edges[0] <= value <= found.edges[-1]
    assert found.quantiles == pytest.approx((value,) * 3, rel=1e-3, abs=1e-30)


def test_whole_numbers_have_a_class_each() -> None:
    found = whole_number_histogram(np.array([1, 4, 0, 5]))
    assert found.edges.tolist() == [-0.5, 0.5, 1.5, 2.5, 3.5]
    assert found.counts.tolist() == [1, 4, 0, 5]
    assert found.quantiles == (0.0, 1.0, 3.0)
    assert whole_number_histogram(np.zeros(0, np.int64)).total == 0


def test_many_whole_numbers_share_classes() -> None:
    counts = np.ones(100, np.int64)
    found = whole_number_histogram(counts)
    assert found.edges.tolist() == (np.arange(0, 103, 3) - 0.5).tolist()
    assert found.counts.tolist() == [3] * 33 + [1]
    assert len(whole_number_histogram(counts[:48]).counts) == 48
