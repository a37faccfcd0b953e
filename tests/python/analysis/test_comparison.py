"""Comparison of extracted echoes and discrete returns of two vertical pulses."""

from __future__ import annotations

from pathlib import Path

import laspy
import numpy as np
import pytest
from typer.testing import CliRunner

from fullwaveform import WaveformFileError
from fullwaveform.analysis.comparison import compare_with_returns
from fullwaveform.cli.app import app
from fullwaveform.plotting.histogram import draw_histogram

UP = 0.000149854  # m per ps; the direction vectors point back to the scanner


def write_points(
    path: Path, point_format: int, times: list[float], heights: list[float], **columns: object
) -> Path:
    header = laspy.LasHeader(point_format=point_format, version="1.4")
    header.scales = np.full(3, 0.001)
    las = laspy.LasData(header)
    las.x = np.full(len(times), 5.0)
    las.y = np.full(len(times), 6.0)
    las.z = np.array(heights)
    las.gps_time = np.array(times)
    for name, values in columns.items():
        las[name] = np.asarray(values)
    las.write(path)
    return path


@pytest.fixture
def scan(tmp_path: Path) -> Path:
    """Shot 1 hits 30 m and 20 m, shot 2 hits 10 m and holds a point without a packet."""
    return write_points(
        tmp_path / "scan.las",
        9,
        [1.0, 1.0, 2.0, 2.0],
        [30.0, 20.0, 10.0, 9.0],
        wavepacket_index=[1, 1, 1, 0],
        z_t=np.full(4, UP, np.float32),
        intensity=[7, 8, 9, 1],
    )


def test_pairs_have_the_constructed_distance(scan: Path, tmp_path: Path) -> None:
    # 0.2 m further (lower) than the first return, 0.1 m nearer than the second, one far from both.
    echoes = write_points(tmp_path / "echoes.las", 6, [1.0, 1.0, 2.0], [29.8, 20.1, 4.0])
    comparison = compare_with_returns(scan, echoes, tolerance=1.0)
    assert comparison.returns["amplitude"].tolist() == [7.0, 8.0, 9.0]
    np.testing.assert_allclose(comparison.matching.difference, [0.2, -0.1], atol=1e-6)
    assert comparison.matching.unmatched_found.tolist() == [2]
    assert comparison.matching.unmatched_ref.tolist() == [2]


def test_return_of_both_channels_counts_once(tmp_path: Path) -> None:
    scan = write_points(
        tmp_path / "scan.las",
        9,
        [1.0, 1.0, 1.0, 2.0],
        [30.0, 20.0, 29.9, 10.0],
        wavepacket_index=[1, 1, 2, 2],
        z_t=np.full(4, UP, np.float32),
    )
    echoes = write_points(tmp_path / "echoes.las", 6, [1.0, 1.0, 2.0], [30.0, 20.0, 10.0])
    comparison = compare_with_returns(scan, echoes, tolerance=1.0)
    assert comparison.duplicate_returns == 1
    assert comparison.returns.rows == 3
    assert len(comparison.matching) == 3
    done = CliRunner().invoke(app, ["compare", str(scan), str(echoes)])
    assert "│ duplicates  │" in done.output


def test_tolerance_limits_the_matched_distance(scan: Path, tmp_path: Path) -> None:
    echoes = write_points(tmp_path / "echoes.las", 6, [1.0, 1.0], [29.8, 20.1])
    assert len(compare_with_returns(scan, echoes, tolerance=0.15).matching) == 1


def test_echoes_of_another_scan_are_refused(scan: Path, tmp_path: Path) -> None:
    echoes = write_points(tmp_path / "echoes.las", 6, [7.0], [29.8])
    with pytest.raises(WaveformFileError, match=r"echoes\.las and .* have no GPS time in common"):
        compare_with_returns(scan, echoes, tolerance=1.0)


def test_scan_without_times_is_refused(tmp_path: Path) -> None:
    scan = write_points(
        tmp_path / "scan.las",
        9,
        [0.0, 0.0],
        [1.0, 2.0],
        wavepacket_index=[1, 1],
        z_t=np.full(2, UP, np.float32),
    )
    with pytest.raises(WaveformFileError, match="same GPS time"):
        compare_with_returns(scan, scan, tolerance=1.0)


def test_pulse_without_direction_is_refused(tmp_path: Path) -> None:
    scan = write_points(tmp_path / "scan.las", 9, [0.0, 1.0], [1.0, 2.0], wavepacket_index=[1, 1])
    with pytest.raises(WaveformFileError, match="a pulse has no direction"):
        compare_with_returns(scan, scan, tolerance=1.0)


def test_command_prints_counts_and_writes_the_plot(scan: Path, tmp_path: Path) -> None:
    echoes = write_points(tmp_path / "echoes.las", 6, [1.0, 1.0, 2.0], [29.8, 20.1, 4.0])
    plot = tmp_path / "differences.pdf"
    done = CliRunner().invoke(app, ["compare", str(scan), str(echoes), "--plot", str(plot)])
    assert done.exit_code == 0, done.output
    for label, count in (("returns", 3), ("extracted", 3), ("matched", 2), ("missed", 1)):
        (line,) = [row for row in done.output.splitlines() if row.startswith(f"│ {label} ")]
        assert f" {count} " in line
    assert "+0.050 m" in done.output  # the median of 0.2 and -0.1
    assert plot.read_bytes().startswith(b"%PDF")


@pytest.mark.parametrize(
    ("arguments", "code", "words"),
    [
        (["--tolerance", "0"], 2, "above 0"),
        (["--plot", "histogram.txt"], 2, "must end in"),
        ([], 1, "no-such.las"),
    ],
)
def test_command_reports_invalid_inputs(
    scan: Path, tmp_path: Path, arguments: list[str], code: int, words: str
) -> None:
    echoes = tmp_path / "no-such.las"
    done = CliRunner().invoke(app, ["compare", str(scan), str(echoes), *arguments])
    assert done.exit_code == code
    # The frame of the message may break its lines.
    assert words in " ".join(done.output.replace("│", " ").split())


def test_histogram_without_values_is_drawn(tmp_path: Path) -> None:
    path = tmp_path / "empty.png"
    draw_histogram(path, [np.nan], title="no values", label="m")
    assert path.read_bytes().startswith(b"\x89PNG")


def test_histogram_of_equal_values_is_drawn(tmp_path: Path) -> None:
    path = tmp_path / "equal.svg"
    draw_histogram(path, [1.0, 1.0], title="equal", label="m")
    assert "<svg" in path.read_text(encoding="utf-8")
