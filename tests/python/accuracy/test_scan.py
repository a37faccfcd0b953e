"""What is said of the simulated scan."""

from __future__ import annotations

import numpy as np
import pytest
from accuracy.methods import Found
from accuracy.scan import overlapping_limit, scan_measures

from fullwaveform.simulation import ScanSettings, SimulatedScan, simulate_scan


@pytest.fixture(scope="module")
def scan() -> SimulatedScan:
    return simulate_scan(ScanSettings(shots=300))


def perfect(scan: SimulatedScan) -> tuple[np.ndarray, ...]:
    """Columns of echoes at the true places, with stated deviations of 0.01 samples."""
    truth = scan.truth
    ones = np.ones(len(truth))
    return truth.shot, truth.position_samples, ones, ones, 0.01 * ones, ones, ones


def test_true_echoes_are_all_found(scan: SimulatedScan) -> None:
    measures = scan_measures(Found.sorted(*perfect(scan)), scan)
    for name in ("detected", "near", "overlapping", "saturated", "right"):
        assert measures[name] == 100.0
    assert measures["extra"] == measures["pull"] == 0.0


def test_errors_count_by_class_and_only_where_the_number_is_right(scan: SimulatedScan) -> None:
    truth = scan.truth
    row, position, *others = perfect(scan)
    moved = position + np.where(truth.overlapping, 0.2, 0.02)  # 20 and 2 stated deviations
    first_shot = row == row[0]
    more = tuple(
        np.concatenate([column, column[first_shot] + shift])
        for column, shift in zip((row, moved, *others), (0, 9.0, 0, 0, 0, 0, 0), strict=True)
    )
    measures = scan_measures(Found.sorted(*more), scan)
    assert measures["overlapping"] == 0.0
    assert measures["near"] == pytest.approx(100.0 * np.mean(~truth.overlapping))
    assert measures["extra"] == pytest.approx(100.0 * first_shot.sum() / len(truth))
    assert measures["right"] == pytest.approx(100.0 * (1.0 - 1.0 / len(np.unique(row))))
    assert measures["pull_overlapping"] == pytest.approx(20.0)
    counted = ~first_shot
    share = np.mean(truth.overlapping[counted])
    assert measures["pull"] == pytest.approx(np.sqrt(400.0 * share + 4.0 * (1.0 - share)))


def test_bound_of_overlapping_echoes_depends_on_what_is_known_of_widths(
    scan: SimulatedScan,
) -> None:
    known, unknown = (overlapping_limit(scan, width, width) for width in (1e-4, 50.0))
    assert 60.0 < unknown < 85.0 < 95.0 < known <= 100.0
