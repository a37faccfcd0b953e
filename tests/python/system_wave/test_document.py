"""The examples of the document about the system wave."""

from __future__ import annotations

import re
import tomllib
from pathlib import Path

import pytest
from typer.testing import CliRunner

from fullwaveform import Scanner
from fullwaveform.cli.app import app

from .scenes import recorded

TEXT = (Path(__file__).resolve().parents[3] / "docs" / "system-wave.md").read_text(encoding="utf-8")


def code(language: str) -> str:
    (block,) = re.findall(rf"```{language}\n(.*?)```", TEXT, flags=re.DOTALL)
    return str(block)


def test_python_of_the_document_runs(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.chdir(tmp_path)
    exec(compile(code("python"), "system-wave.md", "exec"), {"rows": recorded(100, 0.3)[0]})
    scanner = Scanner.from_toml("scanner.toml")
    assert scanner.has_system_wave
    assert scanner.deconvolution_offset != 0.0


def test_documented_offset_table_is_valid(tmp_path: Path) -> None:
    table = tomllib.loads(code("toml"))["deconvolution"]
    assert set(table) == {
        "position_offset",
        "position_offset_hybrid",
        "position_spread",
        "echoes",
    }


def test_documented_options_exist() -> None:
    shown = CliRunner().invoke(app, ["system-wave", "--help"], env={"COLUMNS": "200"}).stdout
    named = set(re.findall(r"`(--?[a-z]+)", TEXT.partition("## Input")[0]))
    assert named > {"--source", "--order", "--begin", "--plot"}
    assert all(option in shown for option in named)
