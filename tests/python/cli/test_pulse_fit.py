"""The pulse fit on the command line: every format, threads and blocks, options, summary."""

from __future__ import annotations

import json
from pathlib import Path

import laspy
import numpy as np
import pyarrow.csv
import pyarrow.parquet
import pytest

import fullwaveform
from fullwaveform.io.echo_readers.opening import open_echoes
from fullwaveform.simulation import ScanSettings, read_truth, simulate_scan, write_scan

from ..support.command_line import assert_error, assert_usage, names, run, words

SETTINGS = ScanSettings(shots=1200, seed=3)
METRES_PER_SAMPLE = 0.149854128  # of range; 1 ns of two-way travel time in air


@pytest.fixture(scope="module")
def scan(tmp_path_factory: pytest.TempPathFactory) -> Path:
    folder = tmp_path_factory.mktemp("scan")
    return write_scan(simulate_scan(SETTINGS), folder / "scan.las").las


def extracted(scan: Path, output: Path, *options: str) -> Path:
    channels = () if "--channel" in options else ("--channel", "2=high")
    call = ("extract", scan, "-o", output, "--mode", "pulse-fit", *channels, *options)
    result = run(*call, "--quiet")
    assert result.exit_code == 0, result.output
    return output


@pytest.fixture(scope="module")
def table(scan: Path) -> dict[str, np.ndarray]:
    """The columns of the echoes as Parquet."""
    read = pyarrow.parquet.read_table(extracted(scan, scan.with_name("echoes.parquet")))
    return {name: read[name].to_numpy() for name in read.column_names}


def test_strong_isolated_echoes_of_a_scan_are_placed(
    scan: Path, table: dict[str, np.ndarray]
) -> None:
    assert set(table["echo_type"]) == {8}
    truth = read_truth(scan.with_name("scan_truth.csv"))
    alone = truth.neighbour_distance_samples > 6.0 * truth.sigma_samples
    chosen = np.flatnonzero(alone & (truth.amplitude_low_power >= 100.0))
    assert len(chosen) > 300
    xyz = np.column_stack([table[name] for name in "xyz"])
    for number in chosen.tolist():
        of_shot = np.abs(table["gps_time"] - truth.gps_time[number]) < 1e-7
        place = np.array([truth.x[number], truth.y[number], truth.z[number]])
        distance = np.linalg.norm(xyz[of_shot] - place, axis=1)
        # Noise of 1.5 counts moves an echo of 100 counts by 0.02 samples, 3 mm; the coordinates of
        # the files are whole millimetres.
        assert distance.min() < 0.1 * METRES_PER_SAMPLE, number


def test_uncertainties_are_those_of_the_noise(table: dict[str, np.ndarray]) -> None:
    assert (table["sigma_position_ns"] > 0.0).all()
    np.testing.assert_allclose(
        table["sigma_range"], table["sigma_position_ns"] * METRES_PER_SAMPLE, rtol=1e-5
    )
    np.testing.assert_allclose(
        table["significance"], table["amplitude"] / table["sigma_amplitude"], rtol=1e-5
    )
    assert np.median(table["reduced_chi_square"]) == pytest.approx(1.0, abs=0.1)
    assert np.isnan(table["amplitude_library_db"]).all()


def test_clipped_echoes_keep_their_height(scan: Path, tmp_path: Path) -> None:
    """Both descriptors as one channel, so that no echo is taken from the other one."""
    read = pyarrow.csv.read_csv(extracted(scan, tmp_path / "e.csv", "--channel", "low"))
    flags, height = read["fit_flags"].to_numpy(), read["amplitude"].to_numpy()
    # 4 % of the shots have an echo of more than the limit.
    high = height > SETTINGS.maximum
    assert 0.02 * SETTINGS.shots < np.count_nonzero(high) < 0.06 * SETTINGS.shots
    assert (flags[high] & 2 > 0).all()


@pytest.mark.parametrize("suffix", ["las", "laz", "csv", "h5", "txt"])
def test_every_format_has_the_same_echoes(
    scan: Path, tmp_path: Path, table: dict[str, np.ndarray], suffix: str
) -> None:
    output = extracted(scan, tmp_path / f"echoes.{suffix}")
    names_of_fit = ("position", "echo_type", "significance", "fit_flags", "reduced_chi_square")
    if suffix in ("las", "laz"):
        points = laspy.read(output)
        for name in names_of_fit:
            np.testing.assert_array_equal(points[name], table[name], name)
    elif suffix == "csv":
        csv = pyarrow.csv.read_csv(output)
        for name in names_of_fit:
            np.testing.assert_allclose(csv[name].to_numpy(), table[name], rtol=1e-6, err_msg=name)
    if suffix == "txt":
        assert len(output.read_text().splitlines()) == len(table["x"])
        return
    blocks = list(open_echoes(output).blocks())
    records = np.concatenate(blocks)
    np.testing.assert_allclose(records["xyz"][:, 2], table["z"], atol=0.0006)
    np.testing.assert_allclose(records["amplitude"], table["amplitude"], rtol=1e-5)
    np.testing.assert_allclose(records["fwhm_ns"], table["fwhm_ns"], rtol=1e-5)


def test_bytes_do_not_depend_on_threads_and_blocks(scan: Path, tmp_path: Path) -> None:
    one = extracted(scan, tmp_path / "one.csv", "--workers", "1").read_bytes()
    many = extracted(scan, tmp_path / "many.csv", "--workers", "3", "--block", "64").read_bytes()
    assert one == many


def test_python_gives_the_same_echoes(scan: Path, table: dict[str, np.ndarray]) -> None:
    result = fullwaveform.extract(scan, mode="pulse-fit", channel_flags={1: 1, 2: 0})
    for name in ("position", "amplitude", "fwhm_ns", "sigma_position_ns", "fit_flags"):
        np.testing.assert_array_equal(result.peaks[name], table[name], name)
    states = result.waveforms["state"]
    assert np.isnan(result.waveforms["baseline"]).sum() == np.count_nonzero(states == 2)


def test_summary_names_the_models_and_no_threshold(scan: Path, tmp_path: Path) -> None:
    call = ("extract", scan, "--mode", "4", "--channel", "2=high")
    text = words(run(*call, "-o", tmp_path / "echoes.csv").stdout)
    assert "scan.las: Pulse fit" in text
    assert "isolated echoes of the file" in text
    assert "threshold" not in text
    shown = json.loads(run(*call, "-o", tmp_path / "again.csv", "--json").stdout)
    assert [model["descriptor"] for model in shown["pulse_models"]] == [2, 1]
    # The width of an echo of 1.6 samples standard deviation, at 1 ns per sample.
    widths = [model["fwhm_ns"] for model in shown["pulse_models"]]
    np.testing.assert_allclose(widths, 1.6 * 2.3548, rtol=0.02)


def test_metadata_has_the_settings_of_the_fit(scan: Path, tmp_path: Path) -> None:
    options = ("--false-alarms", "0.5", "--max-width", "20")
    file = open_echoes(extracted(scan, tmp_path / "echoes.parquet", *options))
    assert file.settings["mode"] == "Pulse fit"
    assert file.settings["false_alarms"] == "0.5 per 1,000 waveforms"
    assert file.settings["max_width"] == "20 ns"
    assert "threshold" not in file.settings


def test_model_of_the_scanner_description_is_used(scan: Path, tmp_path: Path) -> None:
    description = tmp_path / "scanner.toml"
    made = run("pulse-model", scan, "-o", description, "--channel", "2=high")
    assert made.exit_code == 0, made.output
    alone = extracted(scan, tmp_path / "alone.csv").read_bytes()
    assert extracted(scan, tmp_path / "described.csv", "--scanner", str(description)).exists()
    call = ("extract", scan, "-o", tmp_path / "e.csv", "--mode", "pulse-fit", "--scanner")
    text = words(run(*call, description, "--channel", "2=high").stdout)
    assert "of the scanner description" in text
    refused = run(*call, description, "--pulse", "returned", "--overwrite")
    assert_error(refused, "pulse 'returned' has no effect, because the scanner description has")
    # The metadata name the scanner; the echoes are equal.
    described = pyarrow.csv.read_csv(tmp_path / "described.csv")
    assert described.equals(pyarrow.csv.read_csv(tmp_path / "alone.csv"))
    assert len(alone) > 1000


def test_too_few_echoes_name_the_decomposition(tmp_path: Path) -> None:
    few = write_scan(simulate_scan(ScanSettings(shots=40)), tmp_path / "few.las").las
    result = run("extract", few, "-o", tmp_path / "e.las", "--mode", "pulse-fit", "--quiet")
    assert_error(result, "100", "--mode decomposition")
    assert not (tmp_path / "e.las").exists()


def test_plot_has_the_fit(scan: Path, tmp_path: Path) -> None:
    picture = tmp_path / "w.svg"
    result = run(
        "plot", scan, "--waveform", "2", "--mode", "pulse-fit", "--mode", "0", "-o", picture
    )
    assert result.exit_code == 0, result.output
    assert "pulse-fit: " in result.stdout
    assert names(tmp_path) == ["w.svg"]


def test_inapplicable_options_are_refused(scan: Path, tmp_path: Path) -> None:
    call = ("extract", scan, "-o", tmp_path / "e.las")
    for option, value in (
        ("--threshold", "20"),
        ("--threshold", "estimate"),
        ("--baseline", "keep"),
        ("--sample-scale", "2"),
        ("--smoothing", "1"),
    ):
        result = run(*call, "--mode", "pulse-fit", option, value)
        assert_usage(result, f"Invalid value for {option}: does not apply to mode pulse-fit")
    for option, value in (("--false-alarms", "2"), ("--max-width", "9"), ("--pulse", "outgoing")):
        result = run(*call, option, value)
        assert_usage(result, f"Invalid value for {option}: applies only to mode pulse-fit")
    result = run("report", scan, "--waveform", "1", "--mode", "pulse-fit")
    assert_usage(result, "Invalid value for --mode: the library's report has no place")


def test_plot_uses_the_model_of_the_scanner_description(scan: Path, tmp_path: Path) -> None:
    """A file of a few waveforms has too few echoes for a model of its own."""
    short = write_scan(simulate_scan(ScanSettings(shots=20, seed=4)), tmp_path / "short.las").las
    description, picture = tmp_path / "scanner.toml", tmp_path / "plot.png"
    assert run("pulse-model", scan, "-o", description, "--channel", "2=high").exit_code == 0
    call = ("plot", short, "--waveform", "0", "--mode", "pulse-fit", "-o", picture)
    result = run(*call, "--channel", "2=high", "--scanner", description)
    assert result.exit_code == 0, result.output
    assert "pulse-fit: " in result.output
    figure = fullwaveform.plot(
        short,
        waveform=0,
        mode="pulse-fit",
        scanner=fullwaveform.Scanner.from_toml(description),
        channel_flags={1: 1, 2: 0},
    )
    assert figure.axes


def test_plot_refuses_a_threshold_that_has_no_effect(scan: Path, tmp_path: Path) -> None:
    call = ("plot", scan, "--waveform", "0", "--mode", "pulse-fit", "--threshold", "20")
    assert_usage(run(*call, "-o", tmp_path / "plot.png"), "--threshold: does not apply")
