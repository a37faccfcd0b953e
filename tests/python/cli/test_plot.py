"""``fullwaveform plot``: selection, content of the plot, invalid calls."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest

from fullwaveform.io.container.writer import ScanContainerWriter
from fullwaveform.io.opening import open_waveforms

from ..core import test_modes
from ..support.command_line import assert_error, assert_usage, names, run
from ..support.hdf5_scenes import EPOCH, GediScene, Shot, bump
from ..support.las_scenes import Point, Scene

# The Gaussian through 50, 100, 50 has an amplitude of 100; the other waveform stays below 10.
ECHO = [0] * 20 + [50, 100, 50] + [0] * 17
FLAT = [3] * 40


@pytest.fixture
def scan(tmp_path: Path) -> Path:
    """Three waveforms of two shots; the second shot has two channels, one without an echo."""
    packets = [(1, ECHO), (1, ECHO[5:] + [0] * 5), (2, FLAT)]
    points = [Point(0, gps_time=1.5), Point(1, gps_time=2.0), Point(2, gps_time=2.0)]
    scene = Scene([(1, 8, 40, 2000), (2, 8, 40, 2000)], packets, points)
    return scene.write(tmp_path / "scan.las")


def svg(scan: Path, *options: str) -> str:
    """SVG text of the plot of the scan at a threshold of 10 counts."""
    path = scan.with_name("picture.svg")
    result = run("plot", scan, "-o", path, "--threshold", "10", *options)
    assert result.exit_code == 0, result.output
    assert f"result: {path}" in result.stdout
    return path.read_text(encoding="utf-8")


def test_plot_of_one_waveform(scan: Path) -> None:
    picture = svg(scan, "--waveform", "1")
    assert "waveform 1, low-power channel, GPS time 2.000000 s" in picture
    assert ">16.00</text>" in picture  # its echo, five samples before that of the other channel
    assert "waveform 2" not in picture


def test_plot_of_all_channels_of_a_shot(scan: Path) -> None:
    picture = svg(scan, "--shot", "1", "--channel", "2=high")
    assert "waveform 1, low-power channel" in picture
    assert "waveform 2, high-power channel" in picture
    assert "three-point, no echoes" in picture
    assert "signal not above the threshold" in picture


def test_shot_is_selected_by_time(scan: Path) -> None:
    assert "waveform 0, low-power" in svg(scan, "--time", "1.5000005")
    result = run("plot", scan, "-o", scan.with_name("a.svg"), "--time", "1.6")
    assert_error(result, "no shot at 1.6 s; nearest shot: 1.5 s")


def test_several_modes_in_one_plot(scan: Path) -> None:
    picture = svg(scan, "--waveform", "0", "--mode", "0", "--mode", "decomposition", "--mode", "0")
    assert picture.count("three-point, 1 echo<") == 1
    assert picture.count("decomposition, ") == 1


def test_smoothing_of_the_format_is_named(scan: Path, tmp_path: Path) -> None:
    shots = [Shot(bump(), number=1), Shot(bump(), number=2)]
    gedi = GediScene({"BEAM0001": shots}).write(tmp_path / "gedi.h5")
    text = "; echoes of samples smoothed with 6.5 ns"
    assert text in svg(gedi, "--waveform", "0")
    assert "smoothed" not in svg(scan, "--waveform", "0", "--overwrite")
    given = svg(gedi, "--waveform", "0", "--overwrite", "--smoothing", "4")
    assert "; echoes of samples smoothed with 4 ns" in given
    assert "smoothed" not in svg(gedi, "--waveform", "0", "--overwrite", "--smoothing", "0")


def test_degraded_shots_are_numbered_only_if_kept(tmp_path: Path) -> None:
    shots = [Shot(bump(), 1.0, 1, degrade=1), Shot(bump(), 2.0, 2)]
    gedi = GediScene({"BEAM0001": shots}).write(tmp_path / "gedi.h5")
    time = str(EPOCH - 1e9 + 1.0)  # adjusted standard GPS time
    call = ["plot", gedi, "-o", tmp_path / "a.svg", "--time", time]
    assert_error(run(*call), "no shot at")
    result = run(*call, "--keep-degraded")
    assert result.exit_code == 0, result.output
    assert result.stdout.startswith("waveform 0, three-point: 1 echo")


def test_summary_lists_echoes_per_waveform(scan: Path) -> None:
    result = run("plot", scan, "-o", scan.with_name("a.png"), "--shot", "1", "--threshold", "10")
    assert result.stdout.splitlines()[:2] == [
        "waveform 1, three-point: 1 echo",
        "waveform 2, three-point: signal not above the threshold",
    ]


def test_description_in_the_file_is_used(tmp_path: Path) -> None:
    path, samples = tmp_path / "a.npz", test_modes.scene(np.array([[30.0]]), np.array([[600.0]]))
    np.savez(path, samples=samples)
    with (
        open_waveforms(path, sampling_interval=1e-9) as reader,
        ScanContainerWriter(tmp_path / "a.h5", reader.header, test_modes.scanner()) as writer,
    ):
        for block in reader.blocks():
            writer.write(block)
    call = ["-o", tmp_path / "a.png", "--waveform", "0", "--mode", "deconvolution"]
    assert run("plot", tmp_path / "a.h5", *call, "--after-pulse", "off").exit_code == 0
    result = run("plot", path, *call, "--interval", "1", "--overwrite")
    assert_error(result, "needs the scanner's system wave")


@pytest.mark.parametrize(
    ("options", "message"),
    [
        (["--waveform", "1", "--shot", "0"], "got --waveform and --shot"),
        (["--shot", "1", "--time", "1.5"], "got --shot and --time"),
        (["--waveform", "1", "--shot", "0", "--time", "1"], "got --waveform and --shot and --time"),
        ([], "expected one of --waveform, --shot and --time, got none"),
        (["--waveform", "-1"], "Invalid value for '--waveform'"),
        (["--time", "nan"], "'nan' must be a finite number, in s"),
        (["--waveform", "0", "--mode", "5"], "'5' must be three-point"),
        (["--waveform", "0", "--threshold", "much"], "'much' must be 'estimate' or"),
        (["--waveform", "0", "--smoothing", "-1"], "Invalid value for '--smoothing'"),
        (
            ["--waveform", "0", "--mode", "pulse-fit", "--smoothing", "4"],
            "Invalid value for --smoothing: does not apply to mode pulse-fit",
        ),
        (["--waveform", "0", "--interval", "0"], "'0' must be a finite number above 0, in ns"),
    ],
)
def test_invalid_options(scan: Path, options: list[str], message: str) -> None:
    before = names(scan.parent)
    assert_usage(run("plot", scan, "-o", scan.with_name("a.png"), *options), message)
    assert names(scan.parent) == before


def test_invalid_outputs(scan: Path) -> None:
    assert_usage(run("plot", scan, "--waveform", "0"), "Missing option")
    call = ["plot", scan, "--waveform", "0", "-o"]
    assert_usage(run(*call, scan.with_name("a.txt")), "must end in .png or .pdf or .svg")
    same = scan.with_name("scan.png")
    same.symlink_to(scan)
    assert_usage(run(*call, same), "is the input file")
    assert_error(run(*call, scan.parent / "no" / "a.png"), "does not exist")


def test_error_leaves_no_plot(scan: Path) -> None:
    before = names(scan.parent)
    out = scan.with_name("a.png")
    assert_error(run("plot", scan, "-o", out, "--waveform", "3"), "numbered 0 to 2")
    assert_error(run("plot", scan, "-o", out, "--shot", "2"), "numbered 0 to 1")
    assert_error(run("plot", scan.with_name("no.las"), "-o", out, "--shot", "2"), "No such file")
    assert names(scan.parent) == before


def test_invalid_scanner_description(scan: Path) -> None:
    path = scan.with_name("scanner.toml")
    path.write_text("a = [", encoding="ascii")
    call = ["--waveform", "0", "--scanner", path]
    assert_error(run("plot", scan, "-o", scan.with_name("a.png"), *call), "is not a TOML file")
