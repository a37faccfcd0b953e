"""``fullwaveform system-wave``: description, picture and error messages."""

from __future__ import annotations

import json
from pathlib import Path

import numpy as np
import pytest
from matplotlib import image
from typer.testing import CliRunner, Result

from fullwaveform import Mode, Scanner
from fullwaveform.cli.app import app
from fullwaveform.simulation import ScanSettings, simulate_scan, write_scan

from .scenes import INTERVAL, echo_samples, recorded, shape


def run(*call: str | Path) -> Result:
    return CliRunner().invoke(app, [str(word) for word in call], env={"COLUMNS": "200"})


def words(text: str) -> str:
    """The text without frames and line breaks."""
    return " ".join(text.replace("│", " ").split())


@pytest.fixture
def arrays(tmp_path: Path) -> Path:
    path = tmp_path / "arrays.npz"
    rows, _ = recorded(300, 0.3)
    rows[3] = 3.0
    np.savez(
        path,
        out_samples=np.maximum(rows, 0).astype(np.uint16),
        samples=echo_samples(200),
        count=np.full(200, 60),
        sampling_interval_s=INTERVAL,
    )
    return path


def test_command_writes_description_and_picture(arrays: Path, tmp_path: Path) -> None:
    toml, picture = tmp_path / "scanner.toml", tmp_path / "wave.png"
    result = run("system-wave", arrays, "-o", toml, "--threshold", "12", "--plot", picture)
    assert result.exit_code == 0, result.output
    output = words(result.stdout)
    assert "pulses used 299 out_samples of arrays.npz" in output
    assert "skipped 1 no pulse above the noise" in output
    assert "samples, deconvolution minus three-point fit" in output
    assert "offset, hybrid" in output
    assert "echoes 200 isolated echoes of the file" in output
    assert "note:" not in output
    scanner = Scanner.from_toml(toml)
    assert scanner.has_system_wave
    assert scanner.sampling_interval == INTERVAL
    assert -2.5 < scanner.deconvolution_offset < 0.5
    seen = image.imread(picture)
    assert seen.shape[:2] == (896, 1200)
    assert sorted(entry.name for entry in tmp_path.iterdir()) == [
        "arrays.npz",
        "scanner.toml",
        "wave.png",
    ]


def test_system_wave_of_the_description_follows_the_pulse(arrays: Path, tmp_path: Path) -> None:
    toml = tmp_path / "scanner.toml"
    assert run("system-wave", arrays, "-o", toml, "--begin=-4.5", "-q").stdout == ""
    attributes = Scanner.from_toml(toml).attributes
    a = np.array(attributes["a_real"]) + 1j * np.array(attributes["a_imag"])
    b = np.array(attributes["b_real"]) + 1j * np.array(attributes["b_imag"])
    time = np.arange(56) * INTERVAL / 5
    wave = (np.exp(np.outer(time, b)) @ a).real
    assert np.abs(wave - shape(-4.5 + np.arange(56) / 5)).max() < 1e-2


def test_order_and_base_description_are_used(arrays: Path, tmp_path: Path) -> None:
    first, second = tmp_path / "first.toml", tmp_path / "second.toml"
    run("system-wave", arrays, "-o", first, "--order", "4")
    text = "ampl_unit = 0.125\n" + first.read_text(encoding="utf-8")
    first.write_text(text + "\n[after_pulse]\noffset = 6\nwidth = 3\n", encoding="utf-8")
    result = run("system-wave", arrays, "-o", second, "--order", "5", "--scanner", first)
    assert result.exit_code == 0, result.output
    assert "exponentials 5" in words(result.stdout)
    scanner = Scanner.from_toml(second)
    assert scanner.attributes["ampl_unit"] == 0.125
    assert len(scanner.attributes["a_real"]) == 5  # type: ignore[arg-type]
    assert scanner.after_pulse is not None
    assert (scanner.after_pulse.offset, scanner.after_pulse.width) == (6, 3)


def test_text_input_and_pdf_output(tmp_path: Path) -> None:
    text, toml, picture = (tmp_path / name for name in ("p.txt", "p.toml", "p.PDF"))
    time = np.arange(0.0, 45.0, 0.2)
    np.savetxt(text, np.column_stack([time, 3.0 + 2.0 * shape(time - 15.0)]))
    result = run("system-wave", text, "-o", toml, "--interval", "1", "--plot", picture)
    assert result.exit_code == 0, result.output
    assert "computed from the pulse" in words(result.stdout)
    assert picture.read_bytes().startswith(b"%PDF")
    assert Scanner.from_toml(toml).has_system_wave


def test_long_pulse_is_noted(tmp_path: Path) -> None:
    text = tmp_path / "p.txt"
    time = np.arange(0.0, 120.0, 0.5)
    np.savetxt(text, np.column_stack([time, shape((time - 40.0) / 3.0)]))
    result = run("system-wave", text, "-o", tmp_path / "p.toml", "--interval", "1")
    assert "note: pulse longer than the 12 samples of the system wave" in result.stdout


def test_figures_as_json(tmp_path: Path) -> None:
    text = tmp_path / "p.txt"
    time = np.arange(0.0, 120.0, 0.5)
    np.savetxt(text, np.column_stack([time, shape((time - 40.0) / 3.0)]))
    call = ["system-wave", text, "-o", tmp_path / "p.toml", "--interval", "1", "--order", "3"]
    figures = json.loads(run(*call, "--json").stdout)
    assert figures["exponentials"] == 3
    assert figures["pulses"]["used"] == 1
    assert figures["pulses"]["sampling_interval"] == 1e-9
    assert figures["pulses"]["scatter"] is None
    assert 0.0 < figures["energy_inside"] < 1.0  # longer than the window
    assert figures["misfit"]["rms"] <= figures["misfit"]["largest"]
    (note,) = figures["notes"]
    assert note.startswith("pulse longer than the 12 samples")


def test_extract_uses_the_description(tmp_path: Path) -> None:
    scan = write_scan(simulate_scan(ScanSettings(shots=300)), tmp_path / "scan.las").las
    toml = tmp_path / "scanner.toml"
    assert run("system-wave", scan, "-o", toml, "--threshold", "25").exit_code == 0
    positions = {}
    for mode in (Mode.THREE_POINT, Mode.DECONVOLUTION, Mode.HYBRID):
        output = tmp_path / f"{int(mode)}.csv"
        call = ["extract", scan, "-o", output, "--threshold", "25", "--scanner", toml]
        result = run(*call, "--mode", str(int(mode)), "--channel", "2=high")
        assert result.exit_code == 0, result.output
        table = np.genfromtxt(output, delimiter=",", names=True)
        alone = table[table["echo_count"] == 1]
        positions[mode] = dict(zip(alone["gps_time"], alone["position"], strict=True))
    fitted = positions.pop(Mode.THREE_POINT)
    for mode, found in positions.items():
        both = fitted.keys() & found.keys()
        assert len(both) > 50
        assert abs(np.median([found[t] - fitted[t] for t in both])) < 0.05, mode


@pytest.mark.parametrize(
    ("options", "message"),
    [
        (["-o", "out.txt"], "must end in .toml"),
        (["-o", "o.toml", "--plot", "p.jpg"], "must end in .png or .pdf or .svg"),
        (["-o", "o.toml", "--order", "0"], "must be 'auto' or an integer from 1 to 12"),
        (["-o", "o.toml", "--order", "x"], "must be 'auto' or an integer from 1 to 12"),
        (["-o", "o.toml", "--interval", "0"], "'0' must be a finite number above 0, in ns"),
        (["-o", "o.toml", "--source", "both"], "outgoing"),
        (
            ["-o", "o.toml", "--source", "echoes", "--array", "a"],
            "applies only to pulses of an .npz",
        ),
    ],
)
def test_invalid_options_are_refused(arrays: Path, options: list[str], message: str) -> None:
    result = run("system-wave", arrays, *options)
    assert result.exit_code == 2
    assert message in words(result.stderr)


def test_options_without_effect_are_refused(tmp_path: Path) -> None:
    for name, option in (("a.las", "--interval"), ("a.las", "--array"), ("a.txt", "--source")):
        value = {"--interval": "1", "--array": "x", "--source": "echoes"}[option]
        assert run("system-wave", name, "-o", tmp_path / "o.toml", option, value).exit_code == 2


def test_invalid_data_is_reported(arrays: Path, tmp_path: Path) -> None:
    toml = tmp_path / "o.toml"
    for call, message in (
        ([tmp_path / "missing.las"], "missing.las"),
        ([arrays, "--array", "other"], "has no array other"),
        ([arrays, "--begin", "50"], "the system wave needs 50.0 to 61.0"),
        ([arrays, "--scanner", arrays], "is not a TOML file"),
    ):
        result = run("system-wave", *call, "-o", toml)
        assert result.exit_code == 1, call
        assert message in result.stderr
        assert len(result.stderr.strip().splitlines()) == 1
    assert not toml.exists()
