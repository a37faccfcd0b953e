"""The command: starts, prints its address, and ends with Ctrl-C."""

from __future__ import annotations

import signal
import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path
from urllib.request import urlopen

import pytest

from ..support.child_processes import TIMEOUT_S, environment, kill_started, started
from ..support.command_line import assert_error, assert_usage, run
from . import scenes


@pytest.fixture(autouse=True)
def _no_process_is_left() -> Iterator[None]:
    yield
    kill_started()


@pytest.fixture
def scan(tmp_path: Path) -> Path:
    return scenes.write_scan(tmp_path / "scan.las")


def start(*call: str | Path, folder: Path) -> tuple[subprocess.Popen[str], str]:
    """The process and the address that it prints."""
    process = subprocess.Popen(
        [sys.executable, "-m", "fullwaveform", "view", *map(str, call)],
        cwd=folder,
        env=environment(BROWSER="true"),
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
        start_new_session=True,
    )
    started(process)
    assert process.stdout is not None
    return process, process.stdout.readline().strip()


def end(process: subprocess.Popen[str], number: signal.Signals) -> tuple[int, str]:
    """Exit code and what was printed on standard error."""
    process.send_signal(number)
    _, errors = process.communicate(timeout=TIMEOUT_S)
    return process.returncode, errors


def test_serves_until_interrupted(scan: Path, tmp_path: Path) -> None:
    echoes = scenes.write_echoes(tmp_path / "echoes.csv")
    process, address = start(scan, "--echoes", echoes, "--no-browser", folder=tmp_path)
    with urlopen(address, timeout=TIMEOUT_S) as answer:
        assert answer.status == 200
    code, errors = end(process, signal.SIGINT)
    assert code == 0
    lines = errors.splitlines()
    assert [line.partition(",")[0] for line in lines] == [
        "scan.las: 5 waveforms",
        "echoes.csv: 7 echoes",
    ]


def test_opens_the_browser_and_extracts_the_echoes_once(scan: Path, tmp_path: Path) -> None:
    before = sorted(tmp_path.iterdir())
    process, address = start(scan, folder=tmp_path)
    assert address.startswith("http://127.0.0.1:")
    code, errors = end(process, signal.SIGINT)
    assert code == 0
    assert "scan.las: 7 echoes extracted in " in errors
    assert "no browser was found" not in errors
    # What is derived from the input is not written next to it.
    assert sorted(tmp_path.iterdir()) == before
    process, _ = start(scan, "--no-browser", folder=tmp_path)
    code, errors = end(process, signal.SIGTERM)
    assert (code, "extracted" in errors) == (143, False)
    assert errors.splitlines()[-1] == "terminated; the viewer has ended"


def test_invalid_calls_are_explained(scan: Path, tmp_path: Path) -> None:
    assert_usage(run("view"), "Missing argument 'IN'")
    assert_usage(run("view", scan, "--channel", "9=high"), "no packet descriptor or channel 9")
    assert_error(run("view", tmp_path / "none.las"), "none.las", "No such file")
    assert_error(run("view", scan, "--echoes", tmp_path / "none.csv"), "none.csv", "No such file")
    (tmp_path / "bad.csv").write_text("x,y\n1,2\n", encoding="ascii")
    result = run("view", scan, "--echoes", tmp_path / "bad.csv")
    assert result.exit_code == 1
    assert "no column z" in result.stderr


def test_cache_folder_that_cannot_be_made(
    scan: Path, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    blocked = tmp_path / "blocked"
    blocked.write_text("", encoding="ascii")
    monkeypatch.setenv("XDG_CACHE_HOME", str(blocked))
    assert_error(run("view", scan), "cannot make the cache folder", "XDG_CACHE_HOME")


def test_missing_package_names_the_extra(scan: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    def missing(name: str) -> None:
        raise ModuleNotFoundError(f"No module named {name!r}", name="platformdirs")

    monkeypatch.setattr("fullwaveform.cli.view.import_module", missing)
    assert_error(run("view", scan), "needs the package platformdirs", "fullwaveform[view]")
