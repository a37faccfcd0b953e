from __future__ import annotations

import numpy as np

from fullwaveform.data.summaries import distinct, distinct_with_counts, median


def test_median_of_odd_and_even_counts() -> None:
    assert median(np.array([5.0, 1.0, 2.0])) == 2.0
    assert median(np.array([5.0, 1.0, 2.0, 4.0])) == 3.0
    assert median(np.array([7.0])) == 7.0


def test_median_of_each_column() -> None:
    values = np.array([[1.0, 30.0], [3.0, 10.0], [2.0, 20.0]])
    np.testing.assert_array_equal(median(values), [2.0, 20.0])


def test_distinct_values_are_ascending() -> None:
    assert distinct(np.array([3, 1, 3, 2])) == [1, 2, 3]
    assert distinct(np.array([4, 4], dtype=np.uint8)) == [4]
    assert distinct(np.empty(0)) == []


def test_counts_of_distinct_values() -> None:
    assert distinct_with_counts(np.array([9, 2, 9], dtype=np.uint16)) == [(2, 1), (9, 2)]
    assert distinct_with_counts(np.array([1.5, -2.0, 1.5])) == [(-2.0, 1), (1.5, 2)]
    assert distinct_with_counts(np.full(3, 7, dtype=np.uint8)) == [(7, 3)]
    assert distinct_with_counts(np.empty(0, dtype=np.uint8)) == []
