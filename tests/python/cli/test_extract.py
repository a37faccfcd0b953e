"""``fullwaveform extract``: outputs, exit codes and messages."""

from __future__ import annotations

import csv
import os
import shutil
from pathlib import Path

import laspy
import numpy as np
import pytest
from typer.testing import Result

import fullwaveform
from fullwaveform.simulation import ScanSettings, simulate_scan, write_scan

from ..support.command_line import assert_error, assert_usage, names, run

SHOTS = 300
EXTRA = ["amplitude", "amplitude_db", "amplitude_library_db", "sigma_ns", "fwhm_ns", "position"]
EXTRA += ["sigma_position_ns", "sigma_amplitude", "sigma_width_ns", "sigma_range"]
EXTRA += ["significance", "fit_flags", "reduced_chi_square"]
EXTRA += ["echo_type", "quality", "reflectance"]
EXTRA += ["waveform_number", "channel_flag", "descriptor", "original_return_number"]
TOML = """
"Scanner Group Velocity" = 299708256.0
"Scanner Serial Number" = "1"
"Scanner Type" = "none that is known"
"Wavelength[nm]" = 1064
UnambiguousRange = 1000.0
reflectance_calculation_delta = 0.1
ampl_unit = 0.1
reflectance_calculation_table = []
"""


@pytest.fixture(scope="module")
def original(tmp_path_factory: pytest.TempPathFactory) -> Path:
    path = tmp_path_factory.mktemp("original") / "scan.las"
    return write_scan(simulate_scan(ScanSettings(shots=SHOTS)), path).las


@pytest.fixture
def scan(original: Path, tmp_path: Path) -> Path:
    """A scan in its own folder, without its truth."""
    for suffix in (".las", ".wdp"):
        shutil.copy(original.with_suffix(suffix), tmp_path)
    return tmp_path / original.name


def extract(scan: Path, output: Path, *options: str | Path) -> Result:
    """A run that must succeed."""
    result = run("extract", scan, "-o", output, *options)
    assert result.exit_code == 0, result.output
    return result


def table(result: Result) -> dict[str, list[tuple[str, str]]]:
    """The summary: label -> values with their remarks."""
    lines = [line.split("│") for line in result.stdout.splitlines() if line.count("│") == 4]
    rows: dict[str, list[tuple[str, str]]] = {}
    for _, label, value, remark, _ in lines:
        rows.setdefault(label.strip(), []).append((value.strip(), remark.strip()))
    return rows


def csv_columns(path: Path) -> dict[str, np.ndarray]:
    with path.open(encoding="ascii", newline="") as stream:
        rows = list(csv.reader(stream))
    return dict(zip(rows[0], np.array(rows[1:], float).T, strict=True))


def test_las_to_las_and_csv_hold_the_same_echoes(scan: Path) -> None:
    las_path, csv_path = scan.with_name("echoes.las"), scan.with_name("echoes.csv")
    extract(scan, las_path, "--threshold", "20")
    extract(scan, csv_path, "--threshold", "20")
    las, text = laspy.read(las_path), csv_columns(csv_path)
    assert str(las.header.version) == "1.4"
    assert las.header.point_format.id == 6
    assert list(las.header.point_format.extra_dimension_names) == EXTRA
    assert len(las) == len(text["x"]) > SHOTS
    for axis in "xyz":
        # Millimetres, rounded: at most half of one.
        np.testing.assert_allclose(las[axis], text[axis], rtol=0, atol=0.000501)
    np.testing.assert_array_equal(las["gps_time"], text["gps_time"])
    np.testing.assert_array_equal(las["position"], text["position"])
    np.testing.assert_array_equal(las["return_number"], text["echo_number"])
    np.testing.assert_array_equal(las["number_of_returns"], text["echo_count"])
    np.testing.assert_array_equal(las["intensity"], np.rint(text["amplitude"]))
    for name in ("echo_type", "classification", *EXTRA[-4:]):
        np.testing.assert_array_equal(las[name], text[name])
    for name in ("amplitude", "amplitude_db", "amplitude_library_db", "sigma_ns", "fwhm_ns"):
        np.testing.assert_allclose(las[name], text[name], rtol=1e-6)
    assert names(scan.parent) == [
        "echoes.csv",
        "echoes.csv-metadata.json",
        "echoes.las",
        "scan.las",
        "scan.wdp",
    ]


def test_input_is_not_changed(scan: Path, original: Path) -> None:
    extract(scan, scan.with_name("echoes.las"))
    for suffix in (".las", ".wdp"):
        assert scan.with_suffix(suffix).read_bytes() == original.with_suffix(suffix).read_bytes()


def test_summary_agrees_with_the_files(scan: Path) -> None:
    output = scan.with_name("echoes.las")
    result = extract(scan, output, "--threshold", "20", "--channel", "2=high")
    summary, source, echoes = table(result), laspy.read(scan), laspy.read(output)
    index = np.asarray(source["wavepacket_index"])
    packets = len(np.unique(np.asarray(source["wavepacket_offset"])[index > 0]))
    assert packets == 2 * SHOTS
    assert summary["points read"] == [(f"{len(source):,}", "")]
    assert summary["points without waveform"] == [(str(np.count_nonzero(index == 0)), "skipped")]
    (sharing, _) = summary["points sharing a waveform"][0]
    assert int(sharing) == np.count_nonzero(index > 0) - packets
    assert summary["waveforms"] == [(str(packets), "")]
    assert summary["echoes written"] == [(str(len(echoes)), "")]
    (with_echoes, share) = summary["with echoes"][0]
    assert share == f"{int(with_echoes) / packets:.1%} of the waveforms"
    assert "unreadable" not in summary
    without = [int(count) for count, _ in summary["without echoes"]]
    assert int(with_echoes) + sum(without) == packets
    # The empty shots are one in twenty, in both channels.
    low = {remark: int(count) for count, remark in summary["without echoes"]}
    assert low["signal not above the threshold"] == 2 * SHOTS // 20
    assert f"result: {output}" in result.stdout
    assert "after-pulse filter disabled" in result.stdout


def test_quiet_prints_nothing(scan: Path) -> None:
    for option in ("-q", "--quiet"):
        assert extract(scan, scan.with_name(f"{option}.csv"), option).output == ""


def test_threshold(scan: Path) -> None:
    counts = {}
    for threshold in ("20", "200", "estimate"):
        extract(scan, scan.with_name("e.csv"), "--threshold", threshold, "--overwrite")
        counts[threshold] = csv_columns(scan.with_name("e.csv"))["amplitude"]
    # Heights above the baseline of 12 counts.
    assert counts["20"].min() >= 20 - 13
    assert counts["200"].min() >= 200 - 13
    assert len(counts["20"]) > len(counts["200"]) > 0
    # Noise rms 1.5: 12 + 5 * 1.5 = 19.5.
    extract(scan, scan.with_name("default.csv"))
    default = csv_columns(scan.with_name("default.csv"))["amplitude"]
    np.testing.assert_array_equal(default, counts["20"])
    assert len(counts["estimate"]) != len(default)


@pytest.mark.parametrize(("former", "today"), [("auto", "estimate"), ("20", "20")])
def test_former_name_of_the_threshold(scan: Path, former: str, today: str) -> None:
    one, other = scan.with_name("one.csv"), scan.with_name("other.csv")
    extract(scan, one, "--noise", former)
    extract(scan, other, "--threshold", today)
    assert one.read_bytes() == other.read_bytes()
    assert "--noise" not in run("extract", "--help").stdout


@pytest.mark.parametrize("mode", ["0", "three-point"])
def test_mode_by_number_and_name(scan: Path, mode: str) -> None:
    extract(scan, scan.with_name("e.csv"), "--mode", mode)
    extract(scan, scan.with_name("default.csv"))
    assert scan.with_name("e.csv").read_bytes() == scan.with_name("default.csv").read_bytes()
    assert set(csv_columns(scan.with_name("e.csv"))["echo_type"]) == {2}


def test_channels(scan: Path) -> None:
    def flags(*options: str) -> dict[int, set[int]]:
        call = [scan, scan.with_name("e.csv"), "--threshold", "20", "--overwrite"]
        extract(*call, *options)
        text = csv_columns(scan.with_name("e.csv"))
        # Packets are ordered by shot, descriptor 1 first.
        odd = text["waveform_number"].astype(int) % 2 == 1
        return {1: set(text["channel_flag"][~odd]), 2: set(text["channel_flag"][odd])}

    assert flags() == {1: {1}, 2: {1}}
    assert flags("--channel", "high") == {1: {0}, 2: {0}}
    assert flags("--channel", "2=high") == {1: {1}, 2: {0}}
    assert flags("--channel", "high", "--channel", "1=low") == {1: {1}, 2: {0}}
    assert flags("--channel", "1=7", "--channel", "2=0") == {1: {7}, 2: {0}}


def test_scanner_description(scan: Path) -> None:
    description = scan.with_name("scanner.toml")
    description.write_text(TOML, encoding="utf-8")
    extract(scan, scan.with_name("one.csv"), "--threshold", "20")
    one = csv_columns(scan.with_name("one.csv"))
    result = extract(scan, scan.with_name("e.csv"), "--threshold", "20", "--scanner", description)
    assert "after-pulse filter disabled" in result.stdout
    ten = csv_columns(scan.with_name("e.csv"))
    np.testing.assert_array_equal(ten["position"], one["position"])
    # An amplitude unit ten times smaller is 20 dB less.
    library = "amplitude_library_db"
    np.testing.assert_allclose(ten[library], one[library] - 20.0, atol=1e-4)
    # Without a description the unit is unknown.
    assert np.isnan(one["amplitude_db"]).all()
    np.testing.assert_array_equal(ten["amplitude"], one["amplitude"])
    expected = 20.0 * np.log10(0.1 * ten["amplitude"])
    np.testing.assert_allclose(ten["amplitude_db"], expected, atol=1e-4)


def test_after_pulse(scan: Path) -> None:
    def echoes(*options: str) -> int:
        call = [scan, scan.with_name("e.csv"), "--threshold", "20", "--overwrite"]
        result = extract(*call, *options)
        is_reported = "after-pulse filter disabled" in result.stdout
        assert is_reported == (not options)
        return len(csv_columns(scan.with_name("e.csv"))["x"])

    everything = echoes()
    assert echoes("--after-pulse", "off") == everything
    assert echoes("--after-pulse", "0,0") < echoes("--after-pulse", "20,2") < everything


@pytest.mark.parametrize(
    ("options", "message"),
    [
        (
            ["--mode", "5"],
            "'5' must be three-point, decomposition, deconvolution, hybrid, pulse-fit or 0 to 4",
        ),
        (["--mode", "best"], "'best' must be three-point"),
        (["--threshold", "-1"], "'-1' must be 'estimate' or an integer from 0 to 65535"),
        (["--threshold", "65536"], "'65536' must be 'estimate' or an integer"),
        (["--threshold", "2.5"], "'2.5' must be 'estimate' or an integer"),
        (["--channel", "middle"], "'middle' must be low, high or 0 to 255"),
        (["--channel", "256"], "'256' must be low, high"),
        (["--channel", "256=high"], "'256=high' must be low"),
        (["--channel", "2="], "'2=' must be low"),
        (["--after-pulse", "5"], "'5' must be 'off' or OFFSET,WIDTH, integers in samples"),
        (["--after-pulse", "5,-2"], "'5,-2' must be 'off' or OFFSET,WIDTH"),
        (["--after-pulse", "4294967296,2"], "invalid after-pulse offset 4294967296"),
        (["--block", "0"], "'0' must be an integer of at least 1"),
        (["--block", "many"], "'many' must be an integer of at least 1"),
        (["--colour", "red"], "No such option: --colour"),
    ],
)
def test_invalid_option(scan: Path, options: list[str], message: str) -> None:
    assert_usage(run("extract", scan, "-o", scan.with_name("echoes.las"), *options), message)
    assert names(scan.parent) == ["scan.las", "scan.wdp"]


def test_output_is_required_and_has_a_known_suffix(scan: Path) -> None:
    assert_usage(run("extract", scan), "Missing option '-o'")
    assert_usage(run("extract", scan, "-o", scan.with_name("e.dat")), "must end in .las,")


def test_output_equal_to_the_input_is_refused(scan: Path, original: Path) -> None:
    link, twin = scan.with_name("link.las"), scan.with_name("twin.las")
    link.symlink_to(scan)
    os.link(scan, twin)
    for output in (scan, link, twin, scan.parent / "." / "x" / ".." / "scan.las"):
        (scan.parent / "x").mkdir(exist_ok=True)
        assert_usage(run("extract", scan, "-o", output), "is the input file")
    assert_usage(run("extract", link, "-o", scan), "is the input file")
    assert scan.read_bytes() == original.read_bytes()
    assert link.is_symlink()


@pytest.mark.parametrize("output", ["echoes.las", "echoes.csv"])
def test_missing_samples_keep_the_existing_output(scan: Path, output: str) -> None:
    target = scan.with_name(output)
    extract(scan, target)
    older = target.read_bytes()
    written = [name for name in names(scan.parent) if name.startswith("echoes")]
    scan.with_suffix(".wdp").unlink()
    assert_error(run("extract", scan, "-o", target, "--overwrite"), "scan.wdp")
    assert names(scan.parent) == [*written, "scan.las"]
    assert target.read_bytes() == older


def test_error_during_the_run_leaves_no_file(scan: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    blocks = 0

    def fill_the_disk(*_: object) -> None:
        nonlocal blocks
        blocks += 1
        if blocks == 3:
            raise OSError(28, "No space left on device", "echoes.las")

    monkeypatch.setattr("fullwaveform.io.echo_writers.las._fill_standard_fields", fill_the_disk)
    result = run("extract", scan, "-o", scan.with_name("echoes.las"), "--block", "50")
    assert blocks == 3
    assert_error(result, "echoes.las: No space left on device")
    assert names(scan.parent) == ["scan.las", "scan.wdp"]


def test_invalid_files(scan: Path) -> None:
    folder, output = scan.parent, scan.with_name("echoes.las")
    assert_error(run("extract", folder / "no.las", "-o", output), "no.las", "No such file")
    assert_error(run("extract", folder, "-o", output), str(folder))
    text = folder / "text.las"
    text.write_text("no points", encoding="ascii")
    assert_error(run("extract", text, "-o", output), "text.las")
    short = folder / "short.las"
    short.write_bytes(scan.read_bytes()[:-100])
    assert_error(run("extract", short, "-o", output), "short.las", "truncated")
    assert_error(run("extract", scan, "-o", folder / "no" / "e.las"), "the folder", "not exist")
    assert_error(run("extract", scan, "-o", output, "--scanner", folder / "no.toml"), "no.toml")
    assert_error(run("extract", scan, "-o", output, "--scanner", text), "is not a TOML file")
    assert names(folder) == ["scan.las", "scan.wdp", "short.las", "text.las"]


def test_statistics_of_a_mostly_empty_scan(tmp_path: Path) -> None:
    settings = ScanSettings(shots=60, empty_fraction=0.6)
    scan = write_scan(simulate_scan(settings), tmp_path / "dim.las").las
    result = extract(scan, tmp_path / "e.las", "--threshold", "20")
    report = tmp_path / "dim_Warning.txt"
    assert f"statistics appended to {report}" in result.stdout
    lines = report.read_text(encoding="ascii").splitlines()
    assert lines[0].startswith("NumberOfWaves: 120Splitted FWFs: 0 count: ")
    assert lines[-3] == "SignalTooLow: 72 -> 60[%] "


def test_version_and_unknown_command() -> None:
    assert run("--version").stdout == f"fullwaveform {fullwaveform.__version__}\n"
    assert_usage(run("extrude"), "No such command 'extrude'")


def test_uncertainties_can_be_left_out(scan: Path) -> None:
    complete_path, without_path = scan.with_name("with.csv"), scan.with_name("without.csv")
    extract(scan, complete_path, "--mode", "1", "--uncertainty")
    extract(scan, without_path, "--mode", "1", "--no-uncertainty")
    complete, without = csv_columns(complete_path), csv_columns(without_path)
    for column in ("sigma_position_ns", "sigma_amplitude", "sigma_width_ns", "sigma_range"):
        assert np.isfinite(complete[column]).mean() > 0.9
        assert np.isnan(without[column]).all()
    np.testing.assert_array_equal(complete["position"], without["position"])
