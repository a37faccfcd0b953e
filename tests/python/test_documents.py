"""What README and documents show is run here."""

from __future__ import annotations

import re
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest
from typer.testing import CliRunner

from fullwaveform import Scanner
from fullwaveform.cli.main import app
from fullwaveform.simulation import ScanSettings, simulate_scan, write_scan

ROOT = Path(__file__).resolve().parents[2]


def code_blocks(document: str, language: str) -> list[str]:
    text = (ROOT / document).read_text(encoding="utf-8")
    return re.findall(rf"```{language}\n(.*?)```", text, flags=re.DOTALL)


@pytest.fixture(scope="module")
def scan(tmp_path_factory: pytest.TempPathFactory) -> Path:
    path = tmp_path_factory.mktemp("scan") / "scan.las"
    write_scan(simulate_scan(ScanSettings(shots=400)), path)
    return path


@pytest.fixture(scope="module")
def echoes(scan: Path) -> Path:
    path = scan.with_name("echoes.las")
    call = ["extract", str(scan), "-o", str(path), "--noise", "20", "--channel", "2=high"]
    assert CliRunner().invoke(app, call).exit_code == 0
    return path


def run_example(name: str, *arguments: Path) -> str:
    script = ROOT / "examples" / "python" / name
    done = subprocess.run(
        [sys.executable, str(script), *map(str, arguments)],
        check=True,
        capture_output=True,
        text=True,
    )
    return done.stdout


def test_python_of_the_readme_finds_the_two_echoes() -> None:
    (code,) = code_blocks("README.md", "python")
    names: dict[str, object] = {}
    exec(compile(code, "README.md", "exec"), names)
    peaks = names["result"].peaks  # type: ignore[attr-defined]
    # 40, 80, 40 peaks on its middle sample, 40, 80, 80 half-way between the equal ones, and the
    # Gaussian through the latter rises to 80 * 2**(1/8).
    assert peaks["idx"].tolist() == [31.0, 51.5]
    np.testing.assert_allclose(peaks["amplitudeCounts"], [80.0, 80.0 * 2**0.125], rtol=1e-6)
    np.testing.assert_allclose(peaks["time"], [31e-9, 51.5e-9], rtol=1e-12)


def test_cpp_of_the_readme_is_the_example_that_is_built() -> None:
    (code,) = code_blocks("README.md", "cpp")
    example = (ROOT / "examples" / "cpp" / "three_point.cpp").read_text(encoding="utf-8")
    assert code.strip() == example.strip()


def test_scanner_description_of_the_documents_is_valid(tmp_path: Path) -> None:
    (toml,) = code_blocks("docs/scanner-description.md", "toml")
    path = tmp_path / "scanner.toml"
    path.write_text(toml, encoding="utf-8")
    scanner = Scanner.from_toml(path).at_interval(1e-9)
    assert "type_id: VQ-840-GL\n" in scanner.report()
    assert "AfterPulse: offset: 5 width: 2 [-]\n" in scanner.report()
    assert scanner.has_system_wave


def test_commands_of_the_documents_exist() -> None:
    shown = set(re.findall(r"^fullwaveform ([a-z-]+)", "\n".join(
        block
        for document in ("README.md", "docs/command-line.md")
        for block in code_blocks(document, "sh")
    ), flags=re.MULTILINE))  # fmt: skip
    assert {"extract", "simulate"} <= shown
    for verb in shown:
        assert CliRunner().invoke(app, [verb, "--help"]).exit_code == 0


def test_show_scan_compares_with_the_truth_and_draws(
    scan: Path, echoes: Path, tmp_path: Path
) -> None:
    picture = tmp_path / "overview.png"
    printed = run_example("show_scan.py", scan, echoes, picture)
    assert "100.0%" in next(line for line in printed.splitlines() if "alone" in line)
    assert "echoes without a true one within 2 samples: 0 of" in printed
    assert picture.read_bytes().startswith(b"\x89PNG")


def test_compare_returns_accounts_for_every_point(scan: Path, echoes: Path) -> None:
    printed = run_example("compare_returns.py", scan, echoes)
    number = {
        label: int(re.search(rf"{label} ([\d,]+)", printed).group(1).replace(",", ""))  # type: ignore[union-attr]
        for label in (
            "discrete returns",
            "extracted echoes",
            "matched within 3 samples",
            "returns without an echo",
            "echoes without a return",
        )
    }
    assert number["matched within 3 samples"] > 0
    assert (
        number["discrete returns"]
        == number["matched within 3 samples"] + number["returns without an echo"]
    )
    assert (
        number["extracted echoes"]
        == number["matched within 3 samples"] + number["echoes without a return"]
    )
