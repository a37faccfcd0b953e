"""Extraction of whole simulated scans: comparison with the truth, blocks, memory."""

from __future__ import annotations

import shutil
import subprocess
import sys
from pathlib import Path

import laspy
import numpy as np
import pytest
from typer.testing import CliRunner

from fullwaveform.analysis.matching import match_echoes
from fullwaveform.cli.app import app
from fullwaveform.simulation import (
    ScanSettings,
    TruthTable,
    read_truth,
    simulate_scan,
    write_scan,
)

METRES_PER_SAMPLE = 0.149854128  # of range; 1 ns of two-way travel time in air
GRID = 0.001  # m, of the coordinates of both files
# VmHWM is that of the program itself; getrusage would include the calling process.
PEAK_MEMORY = """
import sys
from pathlib import Path
from fullwaveform.cli.app import app

app(sys.argv[1:], standalone_mode=False)
status = Path("/proc/self/status").read_text(encoding="ascii").splitlines()
print(*(line.split()[1] for line in status if line.startswith("VmHWM")))
"""


def extract(scan: Path, output: Path, *options: str) -> laspy.LasData:
    call = ["extract", str(scan), "-o", str(output), "--threshold", "20", "--quiet", *options]
    result = CliRunner().invoke(app, call)
    assert result.exit_code == 0, result.output
    return laspy.read(output)


def isolated_echoes(truth: TruthTable, settings: ScanSettings) -> np.ndarray:
    """Rows of echoes that must be found within a tenth of a sample of their true position.

    An echo that is six widths or more from any other one is not deformed by it. The noise of the
    three samples at its top is 1.5 counts rms, 1.53 with rounding. The position is the difference
    of the outer logarithms divided by twice their curvature: its error is sqrt(2) * 1.53 /
    amplitude divided by 2 / width**2, which is 0.014 samples rms for amplitudes from 300 counts and
    widths to 2 samples. The baseline of 12 counts is below a 25th of the amplitude and shifts the
    position by less than 0.003 samples. So 0.1 is more than six times the error.
    """
    alone = truth.neighbour_distance_samples > 6.0 * truth.sigma_samples
    strong = truth.amplitude_low_power >= 300.0
    assert truth.sigma_samples.max() <= 2.0
    assert settings.noise_rms <= 1.5
    assert settings.baseline <= 12.0
    rows: np.ndarray = np.flatnonzero(alone & strong & ~truth.saturated)
    return rows


@pytest.fixture(scope="module", params=[0.0, 1.5], ids=["noise-free", "noisy"])
def scene(
    request: pytest.FixtureRequest, tmp_path_factory: pytest.TempPathFactory
) -> tuple[laspy.LasData, TruthTable, ScanSettings]:
    """Echoes of a two-channel scan of 2000 shots, and the truth."""
    folder = tmp_path_factory.mktemp("scan")
    settings = ScanSettings(noise_rms=request.param, seed=11)
    files = write_scan(simulate_scan(settings), folder / "scan.las")
    echoes = extract(files.las, folder / "echoes.las", "--channel", "2=high")
    return echoes, read_truth(files.truth), settings


def test_every_isolated_echo_is_found_at_its_position(
    scene: tuple[laspy.LasData, TruthTable, ScanSettings],
) -> None:
    echoes, truth, settings = scene
    rows = isolated_echoes(truth, settings)
    assert len(rows) > 700
    position = truth.position_samples[rows]
    found = match_echoes(
        echoes["gps_time"], echoes["position"], truth.gps_time[rows], position, 0.1
    )
    assert len(found.unmatched_ref) == 0
    true_position = np.column_stack([truth.x, truth.y, truth.z])[rows][found.ref_index]
    off = np.linalg.norm(echoes.xyz[found.found_index] - true_position, axis=1)
    # Anchors and echoes are each rounded by half a grid step in three directions.
    assert off.max() < 0.1 * METRES_PER_SAMPLE + 2 * np.sqrt(3) * GRID / 2


def test_noise_free_echoes_are_accurate_to_rounding_and_baseline(tmp_path: Path) -> None:
    """Rounded to whole counts the error is sqrt(2) * 0.29 / 300 over 2 / 2**2, and at worst three
    times that: 0.009 samples; and below 0.003 from the baseline.
    """
    settings = ScanSettings(noise_rms=0.0, seed=12, shots=1000)
    files = write_scan(simulate_scan(settings), tmp_path / "scan.las")
    echoes, truth = extract(files.las, tmp_path / "e.las"), read_truth(files.truth)
    rows = isolated_echoes(truth, settings)
    # By default all channels are low power: the copy of the other channel is kept as well.
    found = match_echoes(
        echoes["gps_time"],
        echoes["position"],
        truth.gps_time[rows],
        truth.position_samples[rows],
        0.012,
    )
    assert len(rows) > 300
    assert len(found.unmatched_ref) == 0


def test_echoes_of_a_shot_are_numbered_and_timed(
    scene: tuple[laspy.LasData, TruthTable, ScanSettings],
) -> None:
    echoes, truth, _ = scene
    time, number = np.asarray(echoes["gps_time"]), np.asarray(echoes["return_number"])
    assert np.isin(time, truth.gps_time).all()
    shots, shot, count = np.unique(time, return_inverse=True, return_counts=True)
    assert len(shots) > 1800
    np.testing.assert_array_equal(np.asarray(echoes["number_of_returns"]), count[shot])
    first = np.concatenate(([0], np.cumsum(count)[:-1]))
    order = np.lexsort((number, time))
    np.testing.assert_array_equal(order, np.arange(len(time)))
    np.testing.assert_array_equal(number, np.arange(len(time)) - first[shot] + 1)
    # Along the flight of light, which is downwards in this scan.
    same_shot = np.diff(shot) == 0
    assert np.count_nonzero(same_shot) > 200
    assert (np.diff(np.asarray(echoes.z))[same_shot] < 0).all()
    assert (np.diff(np.asarray(echoes["position"]))[same_shot] > 0).all()


def test_coordinate_system_and_grid_are_those_of_the_scan(
    scene: tuple[laspy.LasData, TruthTable, ScanSettings],
) -> None:
    header = scene[0].header
    assert header.scales.tolist() == [GRID] * 3
    assert header.offsets.tolist() == [500_000.0, 5_300_000.0, 0.0]
    wkt = [record for record in header.vlrs if record.record_id == 2112]
    assert len(wkt) == 1
    assert '"EPSG","25833"' in wkt[0].string
    assert header.global_encoding.gps_time_type == laspy.header.GpsTimeType.STANDARD


def test_block_size_does_not_change_the_output(tmp_path: Path) -> None:
    scan = write_scan(simulate_scan(ScanSettings(shots=400)), tmp_path / "scan.las").las
    whole = extract(scan, tmp_path / "whole.las", "--channel", "2=high")
    assert len(whole) > 300
    for block in ("1", "7", "400"):
        parts = extract(scan, tmp_path / f"{block}.las", "--channel", "2=high", "--block", block)
        assert parts.points.array.tobytes() == whole.points.array.tobytes()


def repeated(scan: Path, times: int, target: Path) -> Path:
    """The scan repeated: points and packets, with ascending times and offsets."""
    with laspy.open(scan) as reader:
        header, points = reader.header, reader.read_points(-1).array
    packets = scan.with_suffix(".wdp").read_bytes()
    duration = points["gps_time"][-1] - points["gps_time"][0] + 1.0
    with laspy.open(target, mode="w", header=header) as writer:
        for part in range(times):
            copy = points.copy()
            copy["gps_time"] += part * duration
            copy["wavepacket_offset"][copy["wavepacket_index"] > 0] += part * (len(packets) - 60)
            writer.write_points(laspy.PackedPointRecord(copy, header.point_format))
    with target.with_suffix(".wdp").open("wb") as stream:
        stream.write(packets[:60])
        for _ in range(times):
            stream.write(packets[60:])
    return target


# MB, of 48 MB of packets. Parquet and HDF5 files collect and encode the rows of a group, at most
# 2^17 and 2^16; the long scan has 35,000 rows, of 7 MB.
MAX_GROWTH = {".csv": 9.0, ".laz": 9.0, ".parquet": 30.0, ".h5": 20.0}


def peak_memory(scan: Path, block: int, ending: str) -> float:
    """Peak memory of the whole run in MB, including the program itself."""
    call = ["extract", str(scan), "-o", str(scan.with_suffix(ending)), "--threshold", "20", "-q"]
    call += ["--workers", "2", "--overwrite"]
    done = subprocess.run(
        [sys.executable, "-c", PEAK_MEMORY, *call, "--block", str(block)],
        check=True,
        capture_output=True,
        text=True,
        timeout=300,
    )
    return int(done.stdout) / 1024


@pytest.mark.slow
@pytest.mark.skipif(not Path("/proc/self/status").exists(), reason="memory is read from /proc")
def test_memory_does_not_grow_with_the_file(tmp_path: Path) -> None:
    settings = ScanSettings(shots=1000, samples=1200)
    scan = write_scan(simulate_scan(settings), tmp_path / "scan.las").las
    # 10 MB of packets. Of a scan of up to 4,096 points all are measured at once, which takes more.
    short = repeated(scan, 2, tmp_path / "short.las")
    long = repeated(scan, 10, tmp_path / "long.las")  # 48 MB
    for ending, growth in MAX_GROWTH.items():
        small = peak_memory(short, 200, ending)
        assert peak_memory(long, 200, ending) < small + growth
    # A run that kept the samples would exceed every bound.
    more = long.with_suffix(".wdp").stat().st_size - short.with_suffix(".wdp").stat().st_size
    assert more / (1 << 20) > max(MAX_GROWTH.values())
    assert long.with_suffix(".csv").read_bytes().count(b"\n") > 10_000
    shutil.rmtree(tmp_path)
