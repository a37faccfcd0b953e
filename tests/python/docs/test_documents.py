"""What README and documents show is run here."""

from __future__ import annotations

import re
import shlex
import subprocess
import sys
from itertools import pairwise
from pathlib import Path
from typing import Any

import laspy
import numpy as np
import pytest
from typer.testing import CliRunner

from fullwaveform import Scanner
from fullwaveform.cli.app import app
from fullwaveform.simulation import ScanSettings, simulate_scan, write_scan

from ..support.command_line import run

ROOT = Path(__file__).resolve().parents[3]


#: Every page, the one that a reader meets first in front.
DOCUMENTS = [
    "README.md",
    *sorted(str(path.relative_to(ROOT)) for path in (ROOT / "docs").rglob("*.md")),
]
#: A line that shows how a command is called, with places to fill in.
SYNOPSIS = re.compile(r"\[|\b(IN|OUT|SCAN|ECHOES|FILE)\b")


def code_blocks(document: str, language: str) -> list[str]:
    text = (ROOT / document).read_text(encoding="utf-8")
    return re.findall(rf"```{language}\n(.*?)```", text, flags=re.DOTALL)


def commands_of(document: str) -> list[str]:
    """The calls of the program, in the order of the page, a line each."""
    lines = "\n".join(code_blocks(document, "sh")).replace("\\\n", " ").splitlines()
    return [line for line in lines if line.startswith("fullwaveform ")]


COMMANDS = sorted({line for document in DOCUMENTS for line in commands_of(document)})


def anchors(path: Path) -> set[str]:
    """The names that headings of a page can be linked by."""
    headings = re.findall(r"^#+ (.+)$", path.read_text(encoding="utf-8"), flags=re.MULTILINE)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


@pytest.fixture(scope="module")
def scan(tmp_path_factory: pytest.TempPathFactory) -> Path:
    path = tmp_path_factory.mktemp("scan") / "scan.las"
    write_scan(simulate_scan(ScanSettings(shots=400)), path)
    return path


@pytest.fixture(scope="module")
def echoes(scan: Path) -> Path:
    path = scan.with_name("echoes.las")
    call = ["extract", str(scan), "-o", str(path), "--threshold", "20", "--channel", "2=high"]
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


def test_cpp_of_the_readme_is_the_built_example() -> None:
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


@pytest.mark.parametrize("document", DOCUMENTS)
def test_links_and_images_exist(document: str) -> None:
    text = re.sub(r"```.*?```", "", (ROOT / document).read_text(encoding="utf-8"), flags=re.DOTALL)
    for target in re.findall(r"\]\(([^)\s]+)\)", text):
        if re.match(r"https?:", target):
            continue
        name, _, anchor = target.partition("#")
        path = ((ROOT / document).parent / name) if name else ROOT / document
        assert path.exists(), f"{document}: {target}"
        if anchor:
            assert anchor in anchors(path), f"{document}: {target}"


def test_every_document_can_be_reached_from_the_index() -> None:
    linked = "".join(
        (ROOT / d).read_text(encoding="utf-8") for d in ("README.md", "docs/README.md")
    )
    for document in DOCUMENTS[1:]:
        name = document.removeprefix("docs/")
        assert f"({name})" in linked or f"({document})" in linked, document


@pytest.mark.parametrize("line", COMMANDS)
def test_commands_and_options_in_documents_exist(line: str) -> None:
    verb = line.split()[1]
    shown = run(verb, "--help")
    assert shown.exit_code == 0, shown.output
    for option in re.findall(r"(?<!\S)\[?(--?[a-z][a-z-]*)", line):
        assert option in re.split(r"[\s,]+", shown.stdout), f"{verb} {option}"


@pytest.mark.parametrize("document", ["docs/quick-start.md", "docs/command-line.md"])
def test_commands_of_a_page_run_in_order(
    document: str, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.chdir(tmp_path)
    calls = [line for line in commands_of(document) if not SYNOPSIS.search(line)]
    assert len(calls) >= 5
    for line in calls:
        call = shlex.split(line)[1:]
        before = set(tmp_path.iterdir())
        result = run(*call)
        assert result.exit_code == 0, f"{line}\n{result.output}"
        for option, name in pairwise(call):
            if option in ("-o", "--plot"):
                assert tmp_path / name in set(tmp_path.iterdir()) - before


def test_python_of_the_quick_start_runs(
    scan: Path, monkeypatch: pytest.MonkeyPatch, capsys: pytest.CaptureFixture[str]
) -> None:
    monkeypatch.chdir(scan.parent)
    (code,) = code_blocks("docs/quick-start.md", "python")
    exec(compile(code, "quick-start.md", "exec"), {})
    written = len(laspy.read("decomposed.las").points)
    assert f"Extraction({written} echoes of 800 waveforms)" in capsys.readouterr().out
    assert written > 400


def test_python_of_the_on_board_page_runs() -> None:
    (code,) = code_blocks("docs/methods/on-board.md", "python")
    names: dict[str, Any] = {}
    exec(compile(code, "on-board.md", "exec"), names)
    assert names["echoes"]["shotTime"].tolist() == [1.0, 1.0, 2.0]
    assert names["echoes"]["amplitude"].tolist() == [9.0, 14.0, 24.0]
    # Light in air needs 4030.6, 4086.6 and 4131.3 ns for twice 604.0, 612.4 and 619.1 m.
    np.testing.assert_allclose(
        names["echoes"]["time"], [4030.6e-9, 4086.6e-9, 4131.3e-9], rtol=2e-5
    )


def test_show_scan_compares_with_the_truth_and_draws(
    scan: Path, echoes: Path, tmp_path: Path
) -> None:
    picture = tmp_path / "overview.png"
    printed = run_example("show_scan.py", scan, echoes, picture)
    assert "100.0%" in next(line for line in printed.splitlines() if "alone" in line)
    assert "false positives (no true echo within 2 samples): 0 of" in printed
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


def test_file_to_table_prints_a_row_per_echo_number(scan: Path, tmp_path: Path) -> None:
    pytest.importorskip("pandas", reason="the example is about pandas")
    picture = tmp_path / "echoes.png"
    printed = run_example("file_to_table.py", scan, picture)
    assert re.search(r"^Extraction\(\d+ echoes of 800 waveforms\)$", printed, flags=re.MULTILINE)
    assert re.search(r"^1 +\d+\.\d+ +\d+\.\d+ +4\d\d\.\d+$", printed, flags=re.MULTILINE)
    assert picture.read_bytes().startswith(b"\x89PNG")


def test_own_arrays_finds_the_constructed_echoes() -> None:
    lines = run_example("own_arrays.py").splitlines()
    found = {int(line.split()[0]): float(line.split()[1]) for line in lines[1:4]}
    assert found == pytest.approx({0: 30.25, 1: 41.0, 4: 55.5}, abs=0.02)
    assert lines[4:] == [
        "row 0: kept",
        "row 1: kept",
        "row 2: merged into other channel",
        "row 3: signal too low",
        "row 4: kept",
    ]


def test_compare_methods_finds_the_echoes_with_every_method() -> None:
    printed = run_example("compare_methods.py")
    positions = re.findall(r"position +\[(.*?)\]", printed)
    assert len(positions) == 4
    for found in positions:
        assert [float(x) for x in found.split()] == pytest.approx([20.3, 40.0, 45.2], abs=0.5)
