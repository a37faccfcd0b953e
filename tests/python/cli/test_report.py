"""``fullwaveform report``: the library's reports of selected waveforms."""

from __future__ import annotations

import os
import re
from pathlib import Path

import pytest

from ..support.command_line import assert_error, assert_usage, names, run
from ..support.las_scenes import Point, Scene

SAMPLES = 64
LEVEL = ("--threshold", "20")
RULE = "#" * 23


def waveform(*tops: int, height: int = 80) -> list[int]:
    """Zeros with a triple of half, full and half height at each of the positions."""
    samples = [0] * SAMPLES
    for top in tops:
        samples[top - 1 : top + 2] = [height // 2, height, height // 2]
    return samples


@pytest.fixture
def scan(tmp_path: Path) -> Path:
    """Waveforms 0 to 4; 2 and 3 are both channels of one shot, 1 stays below the threshold."""
    packets = [
        (1, waveform(31)),
        (1, waveform(20, height=10)),
        (1, waveform(20, 40)),
        (2, waveform(20, height=60)),
        (1, waveform(25, 35, 45)),
    ]
    times = (100.0, 101.0, 102.5, 102.5, 104.0)
    points = [Point(number, gps_time=time) for number, time in enumerate(times)]
    descriptors = [(1, 8, SAMPLES, 2000), (2, 8, SAMPLES, 1000)]
    return Scene(descriptors, packets, points).write(tmp_path / "scan.las")


def reports(text: str) -> list[list[str]]:
    """The lines of each report."""
    assert text.endswith(f"{RULE}\n")
    return [part.strip("\n").split("\n") for part in text.split(RULE)[:-1]]


def test_report_of_one_waveform(scan: Path) -> None:
    result = run("report", scan, "--waveform", "0", *LEVEL)
    assert (result.exit_code, result.stderr) == (0, "")
    (lines,) = reports(result.stdout)
    for line in (
        "Length: 64 [-]",
        "Noise: 20 [db]",
        "MaxAmplitude: 80 [-]",
        "IdxOfMaxAmplitude: 31 [-]",
        "IsLowPower: yes",
        "shot_time: 100 [s]",
        "Peaks: ",
    ):
        assert line in lines
    peak = re.fullmatch(r"\t{3}a=(\S+) idx=(\S+) time=(\S+)\[m\] std=(\S+) type=(.*)", lines[-1])
    assert peak is not None
    decibel, position, distance, width = map(float, peak.groups()[:4])
    # 20 log10(80) dB; 31 samples of 2 ns, one way; the Gaussian through half, full and half height.
    assert decibel == pytest.approx(38.0618, abs=1e-4)
    assert position == pytest.approx(31.0, abs=1e-6)
    assert distance == pytest.approx(31 * 2e-9 * 149854128.0, abs=1e-6)
    assert width == pytest.approx(0.8493218, abs=1e-6)
    assert peak.group(5) == "Fitting gauss curve with three points Qual=GOOD Refl=0"


def test_reports_are_in_file_order(scan: Path) -> None:
    result = run("report", scan, *LEVEL, "--waveform", "4", "--waveform", "0", "--waveform", "4")
    found = reports(result.stdout)
    assert [lines.count("shot_time: 100 [s]") for lines in found] == [1, 0]
    assert [sum(line.startswith("\t") for line in lines) for lines in found] == [1, 3]


def test_all_waveforms_of_a_shot_by_its_time(scan: Path) -> None:
    result = run("report", scan, "--time", "102.5", *LEVEL)
    found = reports(result.stdout)
    assert [lines[3] for lines in found] == ["MaxAmplitude: 80 [-]", "MaxAmplitude: 60 [-]"]
    assert run("report", scan, "--time", "102.5", "--waveform", "3", *LEVEL).stdout == result.stdout
    assert len(reports(run("report", scan, "--time", "102.5", "--waveform", "0").stdout)) == 3
    # Shots are selected by times rounded to a microsecond, not more.
    assert run("report", scan, "--time", "102.5000009", *LEVEL).stdout == result.stdout
    assert "no shot at 102.500002 s" in run("report", scan, "--time", "102.500002").stderr


def test_channels_are_merged_as_in_the_extraction(tmp_path: Path) -> None:
    # The echo at sample 20 is in both channels: that of the low-power channel is kept.
    packets = [(1, waveform(20)), (2, waveform(20, 40, height=60)), (1, waveform(9))]
    points = [Point(0), Point(1), Point(2, gps_time=2.0)]
    descriptors = [(1, 8, SAMPLES, 1000), (2, 8, SAMPLES, 1000)]
    scan = Scene(descriptors, packets, points).write(tmp_path / "scan.las")
    call = ["report", scan, *LEVEL, "--channel", "2=high"]
    low, high = reports(run(*call, "--time", "1").stdout)
    assert [line.split()[1] for line in low if line.startswith("\t")] == ["idx=20"]
    assert [line.split()[1] for line in high if line.startswith("\t")] == ["idx=40"]
    assert reports(run(*call, "--waveform", "1").stdout) == [high]


def test_extent_prints_one_line_per_waveform(scan: Path) -> None:
    result = run("report", scan, "--waveform", "4", "--waveform", "0", "--extent", *LEVEL)
    first, last = result.stdout.splitlines()
    metre = r"([\d.e-]+)"
    pattern = rf"#(\d) E:{metre} S:{metre} S-E:{metre} LengthMaxPos: {metre} T:Online"
    for line, expected in ((first, (1, 31, 31, 0, 31)), (last, (3, 45, 25, 20, 25))):
        match = re.fullmatch(pattern, line)
        assert match is not None
        count, *samples = expected
        assert int(match.group(1)) == count
        distances = [n * 2e-9 * 149854128.0 for n in samples]
        assert [float(text) for text in match.groups()[1:]] == pytest.approx(distances, abs=1e-6)


def test_scanner_report_has_the_interval_of_the_file(scan: Path) -> None:
    result = run("report", scan, "--scanner-report", "--after-pulse", "5,2")
    lines = result.stdout.splitlines()
    assert len(lines) == 20
    assert lines[0] == "t_ref: 0 [ns]"
    assert lines[2].startswith("sampling_time: 2 [ns]")
    assert "AfterPulse: offset: 5 width: 2 [-]" in lines
    assert lines[-1] == "no refl_tableC"
    both = run("report", scan, "--scanner-report", "--waveform", "3", *LEVEL).stdout.splitlines()
    assert both[2].startswith("sampling_time: 1 [ns]")
    assert both[20].startswith("bin_shift")
    assert both[-1] == RULE


def test_report_to_a_file(scan: Path) -> None:
    shown = run("report", scan, "--waveform", "0", *LEVEL)
    target = scan.with_name("report.txt")
    result = run("report", scan, "--waveform", "0", *LEVEL, "-o", target)
    assert (result.exit_code, result.stdout) == (0, f"result: {target}\n")
    assert target.read_text() == shown.stdout
    assert names(scan.parent) == ["report.txt", "scan.las", "scan.wdp"]
    nowhere = scan.with_name("nowhere") / "report.txt"
    assert_error(
        run("report", scan, "--waveform", "0", "-o", nowhere),
        f"cannot write {nowhere}: the folder {nowhere.parent} does not exist",
    )


def test_waveform_below_the_threshold_has_no_report(scan: Path) -> None:
    result = run("report", scan, "--waveform", "1", "--waveform", "0", *LEVEL)
    assert result.exit_code == 0
    assert len(reports(result.stdout)) == 1
    assert result.stderr == "note: waveform 1: signal not above the threshold\n"
    target = scan.with_name("report.txt")
    assert_error(
        run("report", scan, "--waveform", "1", *LEVEL, "-o", target),
        "scan.las: no report; waveform 1: signal not above the threshold",
    )
    assert not target.exists()


def test_missing_waveforms_and_times(scan: Path) -> None:
    assert_error(
        run("report", scan, "--waveform", "0", "--waveform", "7", "--waveform", "5"),
        f"{scan}: no waveform 5; waveforms are numbered 0 to 4",
    )
    assert_error(
        run("report", scan, "--time", "102.7"),
        f"{scan}: no shot at 102.7 s; nearest shot: 102.5 s",
    )
    for time, nearest in ((-1e9, 100.0), (1e9, 104.0), (100.6, 101.0)):
        found = run("report", scan, "--time", str(time))
        assert_error(found, f"nearest shot: {nearest} s")
    assert_error(run("report", scan.with_name("no.las"), "--waveform", "0"), "no.las")


@pytest.mark.parametrize(
    ("options", "message"),
    [
        ([], "expected --waveform, --time or --scanner-report"),
        (["--extent", "--scanner-report"], "needs --waveform or --time"),
        (["--waveform", "-1"], "--waveform"),
        (["--time", "nan"], "'nan' must be a finite number, in s"),
        (["--waveform", "0", "--mode", "5"], "'5' must be three-point"),
        (["--waveform", "0", "--mode", "4"], "no place for the pulse fit; use plot or extract"),
        (["--waveform", "0", "--threshold", "much"], "'much' must be 'estimate' or an integer"),
    ],
)
def test_invalid_calls(scan: Path, options: list[str], message: str) -> None:
    assert_usage(run("report", scan, *options), message)


def test_input_is_never_overwritten(scan: Path) -> None:
    os.link(scan, link := scan.with_name("link.las"))
    for output in (scan, link):
        assert_usage(
            run("report", scan, "--waveform", "0", "-o", output), f"{output} is the input file"
        )


def test_mode_without_the_system_wave_it_needs(scan: Path) -> None:
    result = run("report", scan, "--waveform", "0", "--mode", "deconvolution")
    assert_error(result, "needs the scanner's system wave")


def test_high_baseline_is_taken_off(tmp_path: Path) -> None:
    """A baseline of 200 counts without noise: 198 are taken off, 5 of 0.29 counts rms are left."""
    samples = [200] * SAMPLES
    samples[30:33] = [225, 250, 225]
    packets = [(1, samples)]
    scene = Scene([(1, 8, SAMPLES, 2000)], packets, [Point(0, gps_time=100.0)])
    result = run("report", scene.write(tmp_path / "scan.las"), "--waveform", "0")
    assert result.exit_code == 0
    assert result.stderr == "note: waveform 0: without 198 counts of its baseline\n"
    (lines,) = reports(result.stdout)
    assert "MaxAmplitude: 52 [-]" in lines
    assert "Noise: 4 [db]" in lines  # 200 + 1.44 - 198, rounded up
