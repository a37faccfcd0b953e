"""Files of real scanners, if available: with the command line and as arrays."""

from __future__ import annotations

import csv
from pathlib import Path

import laspy
import numpy as np
import numpy.typing as npt
import pytest
from typer.testing import CliRunner

from fullwaveform import Driver, Scanner
from fullwaveform.analysis.matching import match_echoes
from fullwaveform.cli.app import app
from fullwaveform.core.scanner import DEFAULT_ATTRIBUTES, NO_AFTER_PULSE

from .support.las_scenes import data_folder

FOLDER = data_folder()
STRIP = FOLDER / "las" / "topo_2ns.las"
FOREST = FOLDER / "arrays" / "forest_12bit.npz"
INTERVAL_PS = 2000.0  # of the strip

Columns = dict[str, npt.NDArray[np.float64]]

needs_strip = pytest.mark.skipif(
    not STRIP.exists(), reason=f"no {STRIP.name} in the folder of real data"
)
needs_forest = pytest.mark.skipif(
    not FOREST.exists(), reason=f"no {FOREST.name} in the folder of real data"
)


def extract(output: Path) -> str:
    call = ["extract", str(STRIP), "-o", str(output), "--mode", "0", "--threshold", "20"]
    result = CliRunner().invoke(app, call, env={"COLUMNS": "200"})
    assert result.exit_code == 0, result.output
    return result.stdout


@pytest.fixture(scope="module")
def strip(tmp_path_factory: pytest.TempPathFactory) -> tuple[Columns, str]:
    """Echoes of the strip with unrounded coordinates, and the summary."""
    path = tmp_path_factory.mktemp("strip") / "echoes.csv"
    summary = extract(path)
    with path.open(encoding="ascii", newline="") as stream:
        rows = list(csv.reader(stream))
    return dict(zip(rows[0], np.array(rows[1:], float).T, strict=True)), summary


def returns_of_echoes(
    source: laspy.LasData, echoes: Columns
) -> tuple[npt.NDArray[np.int64], npt.NDArray[np.int64]]:
    """All pairs of an echo and a discrete return of its pulse."""
    order = np.argsort(source.gps_time, kind="stable")
    times = np.asarray(source.gps_time)[order]
    first = np.searchsorted(times, echoes["gps_time"], side="left")
    count = np.searchsorted(times, echoes["gps_time"], side="right") - first
    echo = np.repeat(np.arange(len(count)), count)
    rank = np.arange(len(echo)) - np.repeat(np.cumsum(count) - count, count)
    return echo, order[first[echo] + rank]


@needs_strip
def test_nearly_every_waveform_of_the_strip_has_an_echo(strip: tuple[Columns, str]) -> None:
    echoes, summary = strip
    source = laspy.read(STRIP)
    assert len(source) == 2250
    assert len(np.unique(source.gps_time)) == 1778
    with_echoes = np.unique(echoes["gps_time"])
    assert np.isin(with_echoes, source.gps_time).all()
    assert len(with_echoes) >= 0.95 * 1778
    values = [line.split("│")[1:3] for line in summary.splitlines() if line.count("│") == 4]
    numbers = {label.strip(): value.strip() for label, value in values}
    assert numbers["points read"] == "2,250"
    assert numbers["points sharing a waveform"] == "472"
    assert numbers["waveforms"] == "1,778"
    assert numbers["with echoes"] == f"{len(with_echoes):,}"
    assert numbers["echoes written"] == f"{len(echoes['x']):,}"


@needs_strip
def test_echoes_lie_on_the_lines_of_their_pulses(strip: tuple[Columns, str]) -> None:
    echoes, _ = strip
    source = laspy.read(STRIP)
    echo, point = returns_of_echoes(source, echoes)
    assert len(echo) > len(echoes["x"])  # several returns share a pulse
    place = np.column_stack([echoes[axis] for axis in "xyz"])[echo]
    anchor = np.asarray(source.xyz)[point]
    line = np.column_stack([source.x_t, source.y_t, source.z_t]).astype(np.float64)[point]
    unit = line / np.linalg.norm(line, axis=1, keepdims=True)
    # Coordinates of the returns are rounded to millimetres.
    assert np.linalg.norm(np.cross(place - anchor, unit), axis=1).max() < 0.002
    # And along the line: where the return's own location says that the echo's sample lies.
    location = np.asarray(source["return_point_wave_location"], np.float64)[point]
    expected = anchor + (location - echoes["position"][echo] * INTERVAL_PS)[:, None] * line
    assert np.linalg.norm(place - expected, axis=1).max() < 0.002


@needs_strip
def test_echoes_of_the_strip_agree_with_the_discrete_returns(strip: tuple[Columns, str]) -> None:
    """The scanner's electronics trigger on the leading edge, half a sample earlier."""
    echoes, _ = strip
    source = laspy.read(STRIP)
    samples = np.asarray(source["return_point_wave_location"], np.float64) / INTERVAL_PS
    pairs = match_echoes(echoes["gps_time"], echoes["position"], source.gps_time, samples, 2.0)
    assert len(pairs) > 0.85 * len(source)
    assert 0.3 < np.median(pairs.difference) < 0.8


@needs_strip
def test_echoes_of_the_strip_as_points(strip: tuple[Columns, str], tmp_path: Path) -> None:
    echoes, _ = strip
    extract(tmp_path / "echoes.las")
    points = laspy.read(tmp_path / "echoes.las")
    assert str(points.header.version) == "1.3"
    assert points.header.point_format.id == 1
    np.testing.assert_array_equal(points.gps_time, echoes["gps_time"])
    np.testing.assert_array_equal(points["return_number"], echoes["echo_number"])
    np.testing.assert_array_equal(points["number_of_returns"], echoes["echo_count"])
    for axis in "xyz":
        np.testing.assert_allclose(points[axis], echoes[axis], rtol=0, atol=0.000501)
    _, shot, count = np.unique(points.gps_time, return_inverse=True, return_counts=True)
    np.testing.assert_array_equal(points["number_of_returns"], count[shot])
    # The threshold of 20 counts is at least 5 above the baseline of any of the waveforms.
    assert (echoes["amplitude"] >= 5).all()
    assert (echoes["sigma_ns"] > 0).all()


@needs_forest
def test_unknown_scanner_type_rejects_the_strongest_echoes_of_the_forest() -> None:
    forest = np.load(FOREST)
    samples, counts = forest["samples"], forest["count"]
    inner = (np.arange(samples.shape[1]) > 0) & (np.arange(samples.shape[1]) < counts[:, None] - 1)
    seen = np.where(inner, samples, 0)
    strong, top = seen.max(axis=1) >= 800, seen.argmax(axis=1)
    assert np.count_nonzero(strong) == 20
    interval = float(forest["sampling_interval_s"])
    attributes = {**DEFAULT_ATTRIBUTES, "WaveformSampleInterval": interval}

    def peaks(scanner: Scanner) -> list[tuple[int, float]]:
        found = Driver(0, scanner).apply(samples, counts, threshold=230).peaks
        return list(zip(found["row"].tolist(), found["idx"].tolist(), strict=True))

    everything = peaks(Scanner.from_attributes(attributes, after_pulse=NO_AFTER_PULSE))
    assert {row for row, _ in everything} == set(range(len(samples)))
    # An echo is within half a sample of its largest one; the one at the maximum is removed, and
    # all after it.
    kept = [(row, idx) for row, idx in everything if not strong[row] or idx < top[row] - 0.5]
    lost = len(everything) - len(kept)
    assert lost >= 20
    assert peaks(Scanner.from_attributes(attributes)) == kept
    # Described by a file or not at all, the same scanner loses none.
    assert peaks(Scanner.default(interval)) == everything
