"""A short version of the soak test; the long one is run by hand, see tests/soak/README.md."""

from __future__ import annotations

import os
import subprocess
import sys
from pathlib import Path

import pytest

import fullwaveform

SOAK = Path(__file__).resolve().parents[1] / "soak" / "soak.py"
PACKAGE = str(Path(fullwaveform.__file__).resolve().parents[1])


@pytest.mark.skipif(not Path("/proc/self/status").exists(), reason="memory is read from /proc")
def test_results_are_complete_and_memory_does_not_grow(tmp_path: Path) -> None:
    call = ["--waveforms", "150000", "--shots", "500", "--block", "500", "--modes", "0", "3"]
    # In a short run the heap reaches its size late.
    call += ["--max-growth", "1.25"]
    call += ["--driver-rounds", "6", "--interval", "0.02"]
    done = subprocess.run(
        [sys.executable, str(SOAK), *call, "--folder", str(tmp_path)],
        env={**os.environ, "PYTHONPATH": PACKAGE},
        capture_output=True,
        text=True,
        check=False,
    )
    assert done.returncode == 0, done.stdout + done.stderr
    assert done.stdout.count(" 150,000 waveforms, ") == 2
    assert done.stdout.endswith("\nall checks passed\n")
