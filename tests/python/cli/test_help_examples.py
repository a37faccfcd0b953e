"""The examples in the help of every command, run unchanged."""

from __future__ import annotations

import inspect
import re
import shlex
import textwrap
from itertools import pairwise
from pathlib import Path

import numpy as np
import pytest

from fullwaveform.cli.app import COMMANDS

from ..support.command_line import run, words
from ..support.flight_lines import flight_line, in_parts, plain


def examples(command: str) -> list[str]:
    text = textwrap.dedent(inspect.getdoc(COMMANDS[command].load()) or "")
    return re.findall(r"^\s*(fullwaveform .+)$", text, flags=re.MULTILINE)


@pytest.fixture(scope="module")
def files(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """The files that the examples start from."""
    folder = tmp_path_factory.mktemp("files")
    scan = folder / "scan.las"
    assert run("simulate", scan, "--shots", "1500").exit_code == 0
    assert run("simulate", folder / "second.las", "--shots", "50", "--seed", "2").exit_code == 0
    in_parts(flight_line(), [4, 7], folder, plain)
    for name in ("echoes.las", "echoes.csv"):
        assert run("extract", scan, "-o", folder / name, "--threshold", "20").exit_code == 0
    for job in ("planned_job", "computed_job"):
        call = ("plan", scan, "-o", folder / job, "--threshold", "20", "--block", "1000")
        assert run(*call, "--blocks-per-part", "1").exit_code == 0
    assert run("run", folder / "computed_job", "--units", "0-2").exit_code == 0
    time = np.arange(0.0, 40.0)  # ns
    pulse = np.round(5000.0 * np.exp(-0.5 * ((time - 12.0) / 1.6) ** 2), 1)
    lines = [f"{t:g}, {a:g}" for t, a in zip(time, pulse, strict=True)]
    (folder / "pulse.csv").write_text("\n".join(lines), encoding="ascii")
    wave = folder / "scanner.toml"
    call = ["system-wave", folder / "pulse.csv", "-o", wave, "--interval", "1", "-q"]
    assert run(*call).exit_code == 0
    return folder


@pytest.mark.parametrize("command", COMMANDS)
def test_help_shows_the_examples(command: str) -> None:
    found = examples(command)
    assert len(found) >= 2
    text = words(run(command, "--help").stdout)
    for example in found:
        assert example in text


# The examples of view answer requests until they are stopped, those with URLs need an object store;
# the tests of viewer and stores run such calls.
@pytest.mark.parametrize(
    "example",
    [
        line
        for command in COMMANDS
        if command != "view"
        for line in examples(command)
        if "://" not in line
    ],
)
def test_example(example: str, files: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.chdir(files)
    before = {path: path.stat().st_mtime_ns for path in files.iterdir()}
    call = shlex.split(example)[1:]
    for option, name in pairwise(call):
        if option == "-o" and Path(name).is_file():
            Path(name).unlink()
            Path(f"{name}-metadata.json").unlink(missing_ok=True)
    result = run(*call)
    assert result.exit_code == 0, result.output
    for name in (word for option, word in pairwise(call) if option == "-o"):
        path = Path(name)
        assert before.get(files / path) != path.stat().st_mtime_ns
        assert path.stat().st_size > 0 if path.is_file() else any(path.iterdir())
    assert result.stdout != ""
