"""``fullwaveform pulse-model``: description, plot and error messages."""

from __future__ import annotations

import json
import math
import re
from pathlib import Path

import numpy as np
import pytest
from matplotlib import image

from fullwaveform import Scanner
from fullwaveform.core.pulse_models import full_width
from fullwaveform.simulation import ScanSettings, simulate_scan, write_scan

from ..support.command_line import assert_error, assert_usage, names, run, words

SETTINGS = ScanSettings(shots=1500, seed=3)
TRUE_FWHM = SETTINGS.pulse_width * 2.3548  # samples, of hard targets; 85 % of the ground widen it


@pytest.fixture(scope="module")
def scan(tmp_path_factory: pytest.TempPathFactory) -> Path:
    path = tmp_path_factory.mktemp("scan") / "scan.las"
    write_scan(simulate_scan(SETTINGS), path)
    return path


def test_description_and_plot(scan: Path, tmp_path: Path) -> None:
    toml, plot = tmp_path / "scanner.toml", tmp_path / "model.png"

    result = run("pulse-model", scan, "-o", toml, "--plot", plot, "--channel", "2=high")

    assert result.exit_code == 0, result.output
    output = words(result.stdout)
    assert re.search(r"pulse model 3\.7\d ns low power, descriptor 1: \d{3} isolated ech", output)
    assert re.search(r"3\.7\d ns high power, descriptor 2: \d{3} isolated echoes of the", output)
    assert f"result: {toml}" in output
    assert f"result: {plot}" in output
    assert image.imread(plot).shape[:2] == (1088, 1760)
    assert names(tmp_path) == ["model.png", "scanner.toml"]
    assert "# Pulse model: measured on scan.las." in toml.read_text(encoding="utf-8")
    high, low = Scanner.from_toml(toml).pulse_models
    assert (high.channel_flag, high.descriptor) == (0, 2)
    assert (low.channel_flag, low.descriptor) == (1, 1)
    for entry in (low, high):
        model = entry.model
        lag = model.first_lag + model.lag_step * np.arange(len(model.pulse))
        truth = np.exp(-0.5 * (lag / SETTINGS.pulse_width) ** 2)
        # The narrowest echoes are known to 0.03 samples squared, 0.5 % of the maximum.
        assert np.abs(np.array(model.pulse) - truth).max() < 5e-3
        assert full_width(model) == pytest.approx(TRUE_FWHM, rel=0.005)
        assert model.baseline == pytest.approx(SETTINGS.baseline, abs=0.1)
        rms = math.sqrt(SETTINGS.noise_rms**2 + 1.0 / 12.0)
        assert model.noise_rms == pytest.approx(rms, rel=0.02)
        assert model.noise_correlation == pytest.approx(1.0, abs=0.04)
        assert model.scatter < 1e-3
        assert model.sampling_interval == SETTINGS.sampling_interval


def test_equal_calls_write_equal_files(scan: Path, tmp_path: Path) -> None:
    first, second = tmp_path / "first.toml", tmp_path / "second.toml"

    assert run("pulse-model", scan, "-o", first, "-q").stdout == ""
    run("pulse-model", scan, "-o", second, "-q")

    assert first.read_bytes() == second.read_bytes()


def test_model_is_added_to_a_description(scan: Path, tmp_path: Path) -> None:
    base, toml = tmp_path / "base.toml", tmp_path / "scanner.toml"
    call = ["system-wave", scan, "-o", base, "--source", "echoes", "-q"]
    assert run(*call).exit_code == 0
    base.write_text("ampl_unit = 0.125\n" + base.read_text(encoding="utf-8"), encoding="utf-8")

    assert run("pulse-model", scan, "-o", toml, "--scanner", base, "-q").exit_code == 0

    before, after = Scanner.from_toml(base), Scanner.from_toml(toml)
    assert after.attributes == before.attributes
    assert after.deconvolution_offset == before.deconvolution_offset != 0.0
    assert after.deconvolution_offset_hybrid == before.deconvolution_offset_hybrid
    assert len(after.pulse_models) == 2


def test_system_wave_keeps_the_model(scan: Path, tmp_path: Path) -> None:
    base, toml = tmp_path / "base.toml", tmp_path / "scanner.toml"
    run("pulse-model", scan, "-o", base, "-q")

    call = ["system-wave", scan, "-o", toml, "--source", "echoes", "--scanner", base, "-q"]

    assert run(*call).exit_code == 0
    assert Scanner.from_toml(toml).pulse_models == Scanner.from_toml(base).pulse_models


def test_figures_as_json(scan: Path, tmp_path: Path) -> None:
    toml = tmp_path / "s.toml"

    figures = json.loads(run("pulse-model", scan, "-o", toml, "--json").stdout)["models"]

    assert [entry["descriptor"] for entry in figures] == [1, 2]
    assert figures[0]["origin"] == "returned"
    assert figures[0]["pulses"] == Scanner.from_toml(toml).pulse_models[0].pulses
    assert figures[0]["fwhm"] == pytest.approx(TRUE_FWHM, rel=0.005)


def test_outgoing_pulses(tmp_path: Path) -> None:
    scan, toml = tmp_path / "scan.pls", tmp_path / "s.toml"
    assert run("simulate", scan, "--shots", "300").exit_code == 0

    assert run("pulse-model", scan, "-o", toml, "--pulse", "outgoing", "-q").exit_code == 0

    entry = Scanner.from_toml(toml).pulse_models[0]
    assert entry.origin == "outgoing"
    assert entry.pulses > 280


def test_existing_files(scan: Path, tmp_path: Path) -> None:
    other, toml = tmp_path / "other.toml", tmp_path / "scanner.toml"
    other.write_text('title = "something else"\n', encoding="utf-8")
    assert run("pulse-model", scan, "-o", toml, "-q").exit_code == 0

    assert_usage(run("pulse-model", scan, "-o", toml), "use --overwrite")
    assert_usage(
        run("pulse-model", scan, "-o", other, "--overwrite"),
        "is not a scanner description with a pulse model",
    )
    assert_usage(run("pulse-model", scan, "-o", toml, "--scanner", toml, "--overwrite"), "input")
    assert run("pulse-model", scan, "-o", toml, "--overwrite", "-q").exit_code == 0
    assert other.read_text(encoding="utf-8") == 'title = "something else"\n'


def test_too_few_echoes(tmp_path: Path) -> None:
    scan, toml = tmp_path / "few.las", tmp_path / "s.toml"
    write_scan(simulate_scan(ScanSettings(shots=60)), scan)

    result = run("pulse-model", scan, "-o", toml, "--plot", tmp_path / "model.png")

    assert_error(result, "isolated echoes for a pulse model; 100 needed", "--mode decomposition")
    assert not toml.exists()
    assert not (tmp_path / "model.png").exists()


def test_invalid_options(scan: Path, tmp_path: Path) -> None:
    toml = tmp_path / "s.toml"
    call = ["pulse-model", scan, "-o"]
    assert_usage(run(*call, tmp_path / "s.txt"), "must end in .toml")
    assert_usage(run(*call, toml, "--plot", tmp_path / "p.gif"), "must end in .png")
    assert_usage(run(*call, toml, "--pulse", "both"), "must be 'auto', 'returned' or 'outgoing'")
    assert_usage(run(*call, toml, "--channel", "9=high"), "no packet descriptor or channel 9")
    assert_error(run("pulse-model", tmp_path / "none.las", "-o", toml), "none.las")
    assert_error(run(*call, toml, "--pulse", "outgoing"), "too few usable outgoing pulses")
    assert names(tmp_path) == []


def test_extraction_prints_the_source_of_its_model(scan: Path, tmp_path: Path) -> None:
    toml, echoes = tmp_path / "s.toml", tmp_path / "e.csv"
    call = ["extract", scan, "-o", echoes, "--mode", "pulse-fit", "--overwrite"]
    run("pulse-model", scan, "-o", toml, "-q")

    from_file = run(*call)
    first = echoes.read_bytes()
    from_description = run(*call, "--scanner", toml)

    assert "isolated echoes of the file" in words(from_file.stdout)
    assert "isolated echoes of the scanner description" in words(from_description.stdout)
    assert echoes.read_bytes() == first


@pytest.mark.parametrize("options", [("--block", "100"), ("--block", "37", "--workers", "3")])
def test_model_of_an_extraction_for_any_blocks_and_workers(
    scan: Path, tmp_path: Path, options: tuple[str, ...]
) -> None:
    call = ["extract", scan, "--mode", "pulse-fit", "-q", "-o"]
    assert run(*call, tmp_path / "whole.csv").exit_code == 0

    assert run(*call, tmp_path / "parts.csv", *options).exit_code == 0

    assert (tmp_path / "parts.csv").read_bytes() == (tmp_path / "whole.csv").read_bytes()


def test_extraction_without_a_possible_model(tmp_path: Path) -> None:
    scan = tmp_path / "few.las"
    write_scan(simulate_scan(ScanSettings(shots=60)), scan)

    result = run("extract", scan, "-o", tmp_path / "e.csv", "--mode", "pulse-fit")

    assert_error(result, "isolated echoes for a pulse model; 100 needed", "--mode decomposition")
    assert not (tmp_path / "e.csv").exists()
