"""Comparison of echoes with the discrete returns of two vertical pulses."""

from __future__ import annotations

import json
import subprocess
import sys
from pathlib import Path

import laspy
import numpy as np
import pyarrow as pa
import pyarrow.csv
import pyarrow.parquet as pq
import pytest
from typer.testing import CliRunner

from fullwaveform import WaveformFileError
from fullwaveform.analysis.comparison import (
    CompareSettings,
    Comparison,
    MatchedBy,
    compare_echoes,
)
from fullwaveform.cli.app import app
from fullwaveform.plotting.histogram import draw_histogram

from ..support.table_files import write_table

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


def compared(reference: Path, echoes: Path, tolerance: float = 1.0, **options: float) -> Comparison:
    return compare_echoes(reference, echoes, CompareSettings(tolerance, **options))


def differences(comparison: Comparison) -> list[float]:
    return sorted(np.round(comparison.drawn, 6).tolist())


def test_pairs_have_the_constructed_distance(scan: Path, tmp_path: Path) -> None:
    # 0.2 m further (lower) than the first return, 0.1 m nearer than the second, one far from both.
    echoes = write_points(tmp_path / "echoes.las", 6, [1.0, 1.0, 2.0], [29.8, 20.1, 4.0])
    comparison = compared(scan, echoes)
    assert comparison.matched_by is MatchedBy.SHOT
    assert (comparison.reference_count, comparison.found_count) == (3, 3)
    assert differences(comparison) == [-0.1, 0.2]
    assert (comparison.missed, comparison.extra) == (1, 1)
    assert (comparison.reference_shots, comparison.found_shots) == (2, 2)
    assert comparison.shared_shots == 2


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
    comparison = compared(scan, echoes)
    assert comparison.duplicates == 1
    assert comparison.reference_count == 3
    assert comparison.matched == 3
    done = CliRunner().invoke(app, ["compare", str(scan), str(echoes)])
    assert "│ duplicates   │" in done.output


def test_tolerance_limits_the_matched_distance(scan: Path, tmp_path: Path) -> None:
    echoes = write_points(tmp_path / "echoes.las", 6, [1.0, 1.0], [29.8, 20.1])
    assert compared(scan, echoes, 0.15).matched == 1


def test_echoes_of_another_scan_are_refused(scan: Path, tmp_path: Path) -> None:
    echoes = write_points(tmp_path / "echoes.las", 6, [7.0], [45.0])
    with pytest.raises(WaveformFileError, match=r"echoes\.las and .* have no echo in common"):
        compared(scan, echoes)


def test_scan_without_times_is_matched_by_place(tmp_path: Path) -> None:
    scan = write_points(
        tmp_path / "scan.las",
        9,
        [0.0, 0.0],
        [1.0, 2.5],
        wavepacket_index=[1, 1],
        z_t=np.full(2, UP, np.float32),
    )
    echoes = write_points(tmp_path / "echoes.las", 6, [0.0, 0.0], [2.4, 9.0])
    comparison = compared(scan, echoes)
    assert comparison.matched_by is MatchedBy.PLACE
    assert differences(comparison) == [0.1]
    assert comparison.reference_shots is None


def test_pulse_without_direction_is_refused(tmp_path: Path) -> None:
    scan = write_points(tmp_path / "scan.las", 9, [0.0, 1.0], [1.0, 2.0], wavepacket_index=[1, 1])
    with pytest.raises(WaveformFileError, match="a pulse has no direction"):
        compared(scan, scan)


def test_scan_without_packets_is_refused(tmp_path: Path) -> None:
    scan = write_points(tmp_path / "scan.las", 9, [0.0, 1.0], [1.0, 2.0])
    with pytest.raises(WaveformFileError, match="no discrete return has a waveform packet"):
        compared(scan, scan)


def test_rounded_times_are_matched_within_the_time_tolerance(scan: Path, tmp_path: Path) -> None:
    echoes = write_points(tmp_path / "e.las", 6, [1.0 + 4e-7, 2.0 - 4e-7, 3.0], [29.8, 10.3, 5.0])
    comparison = compared(scan, echoes)
    assert comparison.matched_by is MatchedBy.TIME
    assert differences(comparison) == [-0.3, 0.2]
    assert (comparison.found_shots, comparison.shared_shots) == (3, 2)
    # Too narrow a tolerance leaves the places: the last echo is too far from any return.
    assert compared(scan, echoes, time_tolerance=1e-7).matched_by is MatchedBy.PLACE


def test_equal_times_exclude_shots_at_neighbouring_times(tmp_path: Path) -> None:
    """A scanner of 2 MHz: the shot at 2 has no return, its neighbour half a microsecond later."""
    times = [1.0, 1.5, 2.0 + 5e-7, 3.0]
    scan = write_points(
        tmp_path / "scan.las",
        9,
        times,
        [30.0, 30.0, 30.0, 30.0],
        wavepacket_index=np.ones(4),
        z_t=np.full(4, UP, np.float32),
    )
    echoes = write_points(tmp_path / "e.las", 6, [1.0, 1.5, 2.0, 3.0], [30.0, 30.0, 30.0, 30.0])
    comparison = compared(scan, echoes)
    assert comparison.matched_by is MatchedBy.SHOT
    assert (comparison.shared_shots, comparison.matched, comparison.extra) == (3, 3, 1)


@pytest.mark.parametrize("kind", ["csv", "parquet", "h5", "npz"])
def test_tables_are_compared_like_las_files(scan: Path, tmp_path: Path, kind: str) -> None:
    columns = {
        "x": [5.0, 5.0, 5.0, np.nan],
        "y": [6.0, 6.0, 6.0, np.nan],
        "z": [29.8, 20.1, 4.0, np.nan],
        "gps_time": [1.0, 1.0, 2.0, 2.0],
        "echo_number": [1, 2, 1, 0],  # the last row is a waveform without echoes
        "amplitude": [14.0, 16.0, 3.0, np.nan],
    }
    comparison = compared(scan, write_table(tmp_path / f"echoes.{kind}", columns))
    assert differences(comparison) == [-0.1, 0.2]
    assert (comparison.found_count, comparison.missed, comparison.extra) == (3, 1, 1)
    assert comparison.quantities["intensity"].median == 2.0  # 14 of 7 and 16 of 8


def test_amplitude_and_width_of_two_tables_are_compared(tmp_path: Path) -> None:
    place = {"x": [0.0, 0.0], "y": [0.0, 0.0], "z": [5.0, 9.0], "gps_time": [1.0, 2.0]}
    reference = write_table(
        tmp_path / "a.csv", {**place, "amplitude": [100.0, 50.0], "fwhm_ns": [4.0, 0.0]}
    )
    # The full width at half maximum is 2.3548 standard deviations.
    echoes = write_table(
        tmp_path / "b.parquet", {**place, "amplitude": [103.0, 51.0], "sigma_ns": [2.0, 2.0]}
    )
    comparison = compared(reference, echoes)
    assert comparison.quantities["amplitude"].median == 2.0
    assert comparison.quantities["amplitude"].within[50] == 1.0
    assert comparison.quantities["fwhm_ns"].pairs == 1  # a width of 0 is unknown
    assert comparison.quantities["fwhm_ns"].median == pytest.approx(0.7096, abs=1e-4)
    assert "intensity" not in comparison.quantities


def test_ranges_without_directions_are_along_the_echoes(tmp_path: Path) -> None:
    # A pulse that descends by 3 m per 4 m: the later echo lies 0.5 m further along it.
    reference = write_table(
        tmp_path / "a.csv",
        {"x": [0.0, 4.0, 9.0], "y": [0.0] * 3, "z": [3.0, 0.0, 0.0], "gps_time": [1.0, 1.0, 2.0]},
    )
    echoes = write_table(
        tmp_path / "b.csv",
        {"x": [0.4, 4.0], "y": [0.0, 0.0], "z": [2.7, 0.0], "gps_time": [1.0, 1.0]},
    )
    comparison = compared(reference, echoes)
    assert differences(comparison) == [0.0, 0.5]
    assert comparison.without_flight == 1
    done = CliRunner().invoke(app, ["compare", str(reference), str(echoes)])
    assert "the direction of 1 shots is not recorded" in " ".join(done.output.split())


def test_by_place_the_beam_decides(tmp_path: Path) -> None:
    """The nearest echo lies across the beam, its partner along it."""
    slanted = {"x_t": [3e-5], "y_t": [0.0], "z_t": [4e-5]}
    scan = write_points(tmp_path / "scan.las", 9, [1.0], [30.0], wavepacket_index=[1], **slanted)
    # The pulse flies along (-0.6, 0, -0.8) from (5, 6, 30): 0.5 m further, and 0.2 m across.
    echoes = write_table(
        tmp_path / "echoes.csv", {"x": [4.7, 5.16], "y": [6.0, 6.0], "z": [29.6, 29.88]}
    )
    comparison = compared(scan, echoes)
    assert comparison.matched_by is MatchedBy.PLACE
    assert differences(comparison) == [0.5]


def test_order_of_the_rows_does_not_matter(scan: Path, tmp_path: Path, parts_of_two: None) -> None:
    times, heights = [3.0, 1.0, 2.0, 1.0, 5.0], [7.0, 29.8, 10.4, 20.1, 3.0]
    shuffled = compared(scan, write_points(tmp_path / "shuffled.las", 6, times, heights))
    order = np.argsort(times, kind="stable")
    echoes = write_points(
        tmp_path / "sorted.las",
        6,
        np.array(times)[order].tolist(),
        np.array(heights)[order].tolist(),
    )
    assert differences(shuffled) == differences(compared(scan, echoes)) == [-0.4, -0.1, 0.2]
    assert shuffled.extra == 2


def test_echoes_without_time_or_place_are_extra(scan: Path, tmp_path: Path) -> None:
    nan = np.nan
    echoes = write_table(
        tmp_path / "echoes.csv",
        {
            "x": [5.0, 5.0, nan],
            "y": [6.0, 6.0, 6.0],
            "z": [29.8, 20.0, 20.0],
            "gps_time": [1.0, nan, 1.0],
        },
    )
    comparison = compared(scan, echoes)
    assert (comparison.matched, comparison.extra) == (1, 2)


def test_details_list_missed_and_extra_echoes(scan: Path, tmp_path: Path) -> None:
    echoes = write_points(tmp_path / "echoes.las", 6, [1.0, 1.0, 2.0], [29.8, 20.1, 4.0])
    details = tmp_path / "details.csv"
    arguments = ["compare", str(scan), str(echoes), "--details", str(details)]
    done = CliRunner().invoke(app, arguments)
    assert done.exit_code == 0, done.output
    assert details.read_text().splitlines() == [
        "kind,row,gps_time,x,y,z,amplitude,amplitude_db,fwhm_ns,intensity",
        "missed,2,2,5,6,10,nan,nan,nan,9",
        "extra,2,2,5,6,4,nan,nan,nan,0",
    ]
    parquet = tmp_path / "details.parquet"
    compare_echoes(scan, echoes, details=parquet)
    assert pq.read_table(parquet).column("kind").to_pylist() == ["missed", "extra"]


def test_failed_comparison_leaves_no_details(scan: Path, tmp_path: Path) -> None:
    echoes = write_points(tmp_path / "echoes.las", 6, [7.0], [45.0])
    details = tmp_path / "details.csv"
    with pytest.raises(WaveformFileError):
        compare_echoes(scan, echoes, details=details)
    assert sorted(path.name for path in tmp_path.iterdir()) == ["echoes.las", "scan.las"]


def test_json_has_all_figures(scan: Path, tmp_path: Path) -> None:
    echoes = write_points(tmp_path / "echoes.las", 6, [1.0, 1.0, 2.0], [29.8, 20.1, 4.0])
    done = CliRunner().invoke(app, ["compare", str(scan), str(echoes), "--json"])
    printed = json.loads(done.stdout)
    assert printed["matched_by"] == "shot"
    assert {name: printed[name] for name in ("matched", "missed", "extra", "shared_shots")} == {
        "matched": 2,
        "missed": 1,
        "extra": 1,
        "shared_shots": 2,
    }
    assert printed["distance"]["median"] == pytest.approx(0.05, abs=1e-6)
    assert printed["distance"]["distance_from_median"]["50"] == pytest.approx(0.15, abs=1e-6)


_PEAK = """
import resource, sys
from pathlib import Path
from fullwaveform.analysis.comparison import compare_echoes
compare_echoes(Path(sys.argv[1]), Path(sys.argv[2]))  # loads the libraries
before = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
print(compare_echoes(Path(sys.argv[3]), Path(sys.argv[4])).matched)
print(resource.getrusage(resource.RUSAGE_SELF).ru_maxrss - before)
"""


@pytest.mark.parametrize("timed", [True, False])
def test_memory_does_not_grow_with_the_files(tmp_path: Path, timed: bool) -> None:
    """A million echoes take 105 MB as records; a fifth of them already fills all buffers."""
    for name, count in (("small", 200_000), ("large", 1_000_000)):
        for shift, side in ((0.0, "a"), (0.2, "b")):
            number = np.arange(count, dtype=np.float64)
            columns = {"x": number, "y": np.zeros(count), "z": np.full(count, shift)}
            if timed:
                columns["gps_time"] = number * 1e-5
            pq.write_table(
                pa.table(columns), tmp_path / f"{name}-{side}.parquet", row_group_size=1 << 17
            )
    names = [
        str(tmp_path / f"{name}-{side}.parquet") for name in ("small", "large") for side in "ab"
    ]
    done = subprocess.run(
        [sys.executable, "-c", _PEAK, *names], check=True, capture_output=True, text=True
    )
    matched, grown = map(int, done.stdout.split())
    assert matched == 1_000_000
    assert grown < 50_000  # KiB; the records of both files take 200,000


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
