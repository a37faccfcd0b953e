"""Thresholds, baselines and sample scale of ``fullwaveform extract``."""

from __future__ import annotations

import csv
import re
from pathlib import Path

import numpy as np
import numpy.typing as npt
import pytest

from fullwaveform.simulation import ScanSettings, simulate_scan, write_scan

from ..support.command_line import run, words


@pytest.fixture
def scan(tmp_path: Path) -> Path:
    """Two channels, descriptors 1 and 2; baseline 12 and noise rms 1.5."""
    return write_scan(simulate_scan(ScanSettings(shots=200, seed=3)), tmp_path / "scan.las").las


def summary_of(scan: Path, output: Path, *options: str) -> str:
    result = run("extract", scan, "-o", output, *options)
    assert result.exit_code == 0, result.output
    return words(result.stdout)


def amplitudes(path: Path) -> npt.NDArray[np.float64]:
    with path.open(encoding="ascii", newline="") as stream:
        return np.array([float(row["amplitude"]) for row in csv.DictReader(stream)])


def test_summary_prints_the_measured_thresholds(scan: Path) -> None:
    output = scan.with_name("echoes.csv")
    text = summary_of(scan, output, "--channel", "2=high")
    # Baseline 12 and noise rms 1.5 of the simulated scan: 12 + 5 * 1.5 = 19.5.
    for receiver in ("low power, descriptor 1", "high power, descriptor 2"):
        assert re.search(
            rf"threshold 20 counts {receiver}: baseline 1[12]\.\d+, noise rms 1\.\d+", text
        )
    given = summary_of(scan, output, "--threshold", "33", "--overwrite")
    assert "threshold 33 counts as given" in given


def test_summary_counts_estimates_of_few_samples(scan: Path) -> None:
    text = summary_of(scan, scan.with_name("e.csv"), "--threshold", "estimate")
    assert re.search(
        r"threshold estimate of the library: [\d,]+ waveforms with 0, [\d,]+ with 180", text
    )


def test_baseline_is_taken_off_on_request(scan: Path) -> None:
    kept, removed = scan.with_name("kept.csv"), scan.with_name("removed.csv")
    assert "baseline removed" not in summary_of(scan, kept)
    text = summary_of(scan, removed, "--baseline", "remove")
    # 12 counts less 5 * 1.5, rounded up.
    assert "baseline removed 400 waveforms" in text
    heights = [amplitudes(path) for path in (kept, removed)]
    np.testing.assert_allclose(heights[0], heights[1], rtol=0.02)


@pytest.mark.parametrize("options", [(), ("--baseline", "remove"), ("--sample-scale", "4")])
def test_default_does_not_depend_on_blocks_and_threads(
    scan: Path, options: tuple[str, ...]
) -> None:
    paths = [scan.with_name(f"{number}.csv") for number in range(3)]
    summary_of(scan, paths[0], *options)
    summary_of(scan, paths[1], *options, "--block", "7")
    summary_of(scan, paths[2], *options, "--block", "50", "--workers", "2")
    assert len({path.read_bytes() for path in paths}) == 1


@pytest.mark.parametrize(
    ("option", "value"), [("--baseline", "off"), ("--sample-scale", "0"), ("--sample-scale", "257")]
)
def test_invalid_preparation(scan: Path, option: str, value: str) -> None:
    result = run("extract", scan, "-o", scan.with_name("e.csv"), option, value)
    assert result.exit_code == 2
    assert option in result.output
