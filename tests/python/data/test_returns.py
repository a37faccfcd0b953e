"""Discrete returns of a block."""

from __future__ import annotations

import numpy as np
import pytest

from fullwaveform.data.returns import DiscreteReturns


@pytest.fixture
def returns() -> DiscreteReturns:
    """Two returns of row 0, none of row 1, one of row 2."""
    return DiscreteReturns(
        rows=np.array([0, 0, 2]),
        times=np.array([10.0, 20.0, 30.0]),
        return_number=np.array([1, 2, 1], np.uint8),
        return_count=np.array([2, 2, 1], np.uint8),
        intensity=np.array([7, 8, 9], np.uint16),
        classification=np.array([3, 4, 5], np.uint8),
        extra=np.array([(0.5,), (1.5,), (2.5,)], dtype=[("Deviation", np.float32)]),
    )


def test_of_rows_numbers_the_rows_in_the_given_order(returns: DiscreteReturns) -> None:
    taken = returns.of_rows(np.array([2, 1, 0]))
    assert taken.rows.tolist() == [0, 2, 2]
    assert taken.times.tolist() == [30.0, 10.0, 20.0]
    assert taken.classification.tolist() == [5, 3, 4]
    assert taken.extra is not None
    assert taken.extra["Deviation"].tolist() == [2.5, 0.5, 1.5]


def test_of_rows_without_returns_is_empty(returns: DiscreteReturns) -> None:
    taken = returns.of_rows(np.array([1]))
    assert len(taken) == 0
    assert taken.extra is not None
    assert taken.extra.dtype.names == ("Deviation",)
