"""A scan that tests read and do not change."""

from __future__ import annotations

from collections.abc import Iterator
from pathlib import Path

import pytest

from fullwaveform.simulation import ScanSettings, simulate_scan, write_scan

from ..support.child_processes import kill_started


@pytest.fixture(autouse=True)
def no_process_left() -> Iterator[None]:
    """Processes end with their test, also after a failure."""
    yield
    kill_started()


@pytest.fixture(scope="session")
def scan(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """400 shots of two channels: 800 waveforms."""
    folder = tmp_path_factory.mktemp("faults")
    return write_scan(simulate_scan(ScanSettings(shots=400)), folder / "scan.las").las
