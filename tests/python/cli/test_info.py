"""``fullwaveform info``: table, histograms, JSON, and invalid calls."""

from __future__ import annotations

import io
import json
import os
from pathlib import Path

import numpy as np
import pytest
from rich.console import Console

from fullwaveform.analysis.inspection import inspect_waveforms
from fullwaveform.cli.info import _show
from fullwaveform.io.opening import open_waveforms

from ..support.command_line import assert_error, assert_usage, run, words
from ..support.las_scenes import Point, Scene

# Baseline 11.1875, as derived in analysis/test_inspection.py.
FLAT_TOP = [10, 11, 12, 11, 100, 100, 13, 14]


@pytest.fixture
def scan(tmp_path: Path) -> Path:
    """Two shots: one waveform of two points, one of the other channel without an echo."""
    packets = [(1, FLAT_TOP), (2, [10] * 8)]
    points = [Point(0, gps_time=1.5), Point(0, gps_time=1.5), Point(1, gps_time=2.0), Point(None)]
    scene = Scene([(1, 8, 8, 2000), (2, 8, 8, 2000)], packets, points)
    return scene.write(tmp_path / "scan.las")


def test_table(scan: Path) -> None:
    result = run("info", scan, "--channel", "2=high")
    assert result.exit_code == 0, result.output
    text = words(result.stdout)
    for line in (
        "scan.las: LAS 1.3, point format 4",
        "points 4",
        "points without waveform 1",
        "points sharing a waveform 1",
        "waveforms 2",
        "shots 2",
        "channels high (1 waveform), low (1 waveform)",
        "samples per waveform 8",
        "sampling interval 2 ns",
        "GPS time 1.500000 to 2.000000 s (0.5 s)",
        "baseline 10.59 counts (90 % of the waveforms 10 to 11.19)",
        # 10 + 5 / sqrt(12) = 11.4
        "threshold 12 counts in extract (high power, descriptor 2: baseline 10, noise rms 0)",
        "sample values 10 to 100 counts, 7 bits",
        "saturation 50.00% of the waveforms have a plateau at 100",
    ):
        assert line in text


def lines_of(scan: Path, encoding: str, width: int = 100) -> list[str]:
    """Output on a terminal of the given encoding; fails on characters outside of it."""
    stream = io.TextIOWrapper(io.BytesIO(), encoding=encoding, errors="strict")
    with open_waveforms(scan) as reader:
        _show([scan], inspect_waveforms(reader), Console(file=stream, width=width))
    stream.flush()
    return stream.buffer.getvalue().decode(encoding).splitlines()  # type: ignore[attr-defined]


@pytest.mark.parametrize(("encoding", "sign"), [("utf-8", "█"), ("ascii", "#")])
def test_bar_lengths_are_proportional_to_counts(scan: Path, encoding: str, sign: str) -> None:
    lines = lines_of(scan, encoding)
    start = lines.index("samples by value, counts")
    bars = {line.split()[0]: line.count(sign) for line in lines[start + 1 : lines.index("", start)]}
    # Nine samples of 10 counts, the fullest bin, and three of 11 or 12.
    assert bars["10"] == 40
    assert bars["11"] == 13
    assert lines[start + 1].split()[1] == "9"


def test_ascii_terminal_gets_ascii_only(scan: Path) -> None:
    assert all(line.isascii() for line in lines_of(scan, "ascii"))
    assert any(line.startswith("+--") for line in lines_of(scan, "ascii"))


def test_bar_lengths_stay_proportional_on_a_narrow_terminal(scan: Path) -> None:
    lines = lines_of(scan, "ascii", width=30)
    start = lines.index("samples by value, counts")
    bars = [line.count("#") for line in lines[start + 1 : lines.index("", start)]]
    assert max(map(len, lines)) <= 30
    assert bars[0] == max(bars) > 8
    assert bars[1] == round(max(bars) * 3 / 9)


def test_json(scan: Path) -> None:
    result = run("info", scan, "--channel", "2=high", "--json")
    assert result.exit_code == 0, result.output
    found = json.loads(result.stdout)
    assert found["file"] == str(scan)
    assert (found["waveforms"], found["shots"], found["samples"]) == (2, 2, 16)
    assert found["channels"] == [{"flag": 0, "waveforms": 1}, {"flag": 1, "waveforms": 1}]
    assert found["sampling_intervals"] == [{"seconds": 2e-9, "waveforms": 2}]
    assert found["shots_by_waveforms"] == [{"waveforms": 1, "shots": 2}]
    assert found["baseline"] == {"median": 10.59375, "low": 10.0, "high": 11.1875}
    assert set(found["noise_rms"]) == {"median", "low", "high"}
    assert "noise" not in found
    high, low = found["thresholds"]
    assert (high["channel_flag"], high["descriptor"], high["threshold"]) == (0, 2, 12)
    assert (high["baseline"], high["noise_rms"], low["channel_flag"]) == (10.0, 0.0, 1)
    assert found["saturated_share"] == 0.5
    histogram = found["value_histogram"]
    assert len(histogram["edges"]) == len(histogram["counts"]) + 1
    assert histogram["edges"][0] == 10
    assert histogram["edges"][-1] == 101
    assert sum(histogram["counts"]) == 16
    assert sum(found["maximum_histogram"]["counts"]) == 2


def test_file_without_waveforms(tmp_path: Path) -> None:
    scene = Scene([(1, 8, 8, 2000)], [], [Point(None)])
    path = scene.write(tmp_path / "empty.las")
    result = run("info", path)
    assert result.exit_code == 0, result.output
    assert "waveforms 0" in words(result.stdout)
    found = json.loads(run("info", path, "--json").stdout)
    assert (found["waveforms"], found["baseline"], found["largest_value"]) == (0, None, None)


def test_skipped_waveforms_are_listed_with_the_reason(tmp_path: Path) -> None:
    packets = [(1, FLAT_TOP), (1, FLAT_TOP)]
    scene = Scene([(1, 8, 8, 2000)], packets, [Point(0), Point(1, gps_time=2.0)])
    path = scene.write(tmp_path / "scan.las")
    os.truncate(path.with_suffix(".wdp"), 60 + 8 + 3)
    text = run("info", path).stdout
    assert "\n1 skipped: " in text


def test_archive_without_sampling_interval(tmp_path: Path) -> None:
    path = tmp_path / "plain.npz"
    np.savez(path, samples=np.full((2, 9), 5, np.uint16))
    text = words(run("info", path, "--interval", "0.5").stdout)
    assert "sampling interval 0.5 ns" in text
    assert_usage(run("info", path, "--interval", "0"), "'0' must be a finite number above 0, in ns")


def test_invalid_files(tmp_path: Path) -> None:
    assert_error(run("info", tmp_path / "no.las"), "no.las", "No such file")
    (tmp_path / "text.las").write_text("hello", encoding="ascii")
    assert_error(run("info", tmp_path / "text.las"), "is not a waveform file")
