"""Scans that the commands work on, never changed by a test."""

from __future__ import annotations

from collections.abc import Iterator
from pathlib import Path

import pytest

from fullwaveform.simulation import ScanSettings, simulate_scan, write_scan

from ..support.child_processes import end_what_was_left


@pytest.fixture(autouse=True)
def nothing_runs_on() -> Iterator[None]:
    """Whatever becomes of a test, its processes end with it."""
    yield
    end_what_was_left()


@pytest.fixture(scope="session")
def scan(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """400 shots of two channels with a point each, at least: 800 waveforms."""
    folder = tmp_path_factory.mktemp("faults")
    return write_scan(simulate_scan(ScanSettings(shots=400)), folder / "scan.las").las
