"""Signals to the command line: a message, an exit code, no file."""

from __future__ import annotations

import io
import os
import signal
import subprocess
import sys
import tempfile
import time
from collections.abc import Callable
from pathlib import Path
from typing import Any

import pytest

from fullwaveform.cli.signals import SignalExit, raise_on_signals
from fullwaveform.io.atomic import (
    FileKind,
    OutputFile,
    atomic_open,
    atomic_path,
    collect_outputs,
)
from fullwaveform.io.atomic_folder import atomic_folder
from fullwaveform.io.echo_writers.opening import ECHO_ENDINGS, open_echo_file
from fullwaveform.io.file_writer import FileWriter
from fullwaveform.io.interruption import unfinished

from ..support.child_processes import TIMEOUT_S, environment, wait_until
from ..support.command_line import names, run
from .processes import slow
from .slow_command import SUMMARY_BEGINS

CODES = {signal.SIGINT: 130, signal.SIGTERM: 143, signal.SIGHUP: 129}
PARTICIPLES = {signal.SIGINT: "interrupted", signal.SIGTERM: "terminated", signal.SIGHUP: "hung up"}
ON_LINUX = pytest.mark.skipif(
    not Path("/proc/self/status").exists(), reason="handlers of a process are read from /proc"
)


def assert_ended(
    process: subprocess.Popen[str], number: signal.Signals, left: str = "; no result was written"
) -> None:
    stdout, stderr = process.communicate(timeout=TIMEOUT_S)
    assert (process.returncode, stdout) == (CODES[number], ""), stderr
    assert stderr == f"{PARTICIPLES[number]}{left}\n"


def without_statistics(folder: Path) -> list[str]:
    """Files without the statistics of suspicious blocks, which are appended during the run."""
    return [name for name in names(folder) if not name.endswith("_Warning.txt")]


def wait_for_temporary_file(folder: Path) -> None:
    wait_until(lambda: any(path.suffix == ".part" for path in folder.iterdir()))


@pytest.mark.parametrize(
    ("ending", "number"),
    [*((ending, signal.SIGINT) for ending in ECHO_ENDINGS), *((".csv", one) for one in CODES)],
)
def test_signal_during_an_extraction_removes_the_output(
    scan: Path, tmp_path: Path, ending: str, number: signal.Signals
) -> None:
    output = tmp_path / f"echoes{ending}"
    call = ("extract", scan, "-o", output)
    assert run(*call).exit_code == 0
    older = {name: (tmp_path / name).read_bytes() for name in without_statistics(tmp_path)}
    process = slow("blocks", *call, "--overwrite", "--workers", "2", "--block", "1")  # 40 s
    wait_for_temporary_file(tmp_path)
    process.send_signal(number)
    assert_ended(process, number)
    left = {name: (tmp_path / name).read_bytes() for name in without_statistics(tmp_path)}
    assert left == older


@pytest.mark.parametrize(
    ("command", "options"),
    [
        ("convert", ["out.h5"]),
        ("simulate", ["--shots", "50"]),
        ("report", ["-o", "report.txt", "--waveform", "2"]),
        ("plot", ["-o", "plot.png", "--waveform", "2"]),
        ("plot", ["-o", "plot.pdf", "--waveform", "2"]),
        ("system-wave", ["-o", "scanner.toml", "--threshold", "20"]),
    ],
)
def test_signal_before_renaming_removes_the_output(
    scan: Path, tmp_path: Path, command: str, options: list[str]
) -> None:
    placed = [str(tmp_path / word) if "." in word else word for word in options]
    source = tmp_path / "out.las" if command == "simulate" else scan
    process = slow("renaming", command, source, *placed)
    wait_for_temporary_file(tmp_path)
    process.send_signal(signal.SIGTERM)
    assert_ended(process, signal.SIGTERM)
    assert names(tmp_path) == []


def test_finished_output_stays_and_is_reported(scan: Path, tmp_path: Path) -> None:
    output = tmp_path / "echoes.parquet"
    process = slow("summary", "extract", scan, "-o", output)
    assert process.stderr is not None
    assert process.stderr.readline() == f"{SUMMARY_BEGINS}\n"
    process.send_signal(signal.SIGTERM)
    assert_ended(process, signal.SIGTERM, left=f"; already written: {output}")
    assert without_statistics(tmp_path) == [output.name]


@pytest.mark.parametrize("second", [signal.SIGINT, signal.SIGTERM])
def test_only_the_first_of_several_signals_is_handled(
    scan: Path, tmp_path: Path, second: signal.Signals
) -> None:
    """Of two signals that arrive together the system chooses the first."""
    output = tmp_path / "echoes.csv"
    process = slow("blocks", "extract", scan, "-o", output, "--workers", "2", "--block", "1")
    wait_for_temporary_file(tmp_path)
    process.send_signal(signal.SIGINT)
    while without_statistics(tmp_path):
        process.send_signal(second)
        time.sleep(0.001)  # a stream of signals would leave it no time for anything else
    stdout, stderr = process.communicate(timeout=TIMEOUT_S)
    handled = {CODES[one]: f"{PARTICIPLES[one]}; no result was written\n" for one in CODES}
    assert process.returncode in (CODES[signal.SIGINT], CODES[second])
    assert (stdout, stderr) == ("", handled[process.returncode])
    assert without_statistics(tmp_path) == []


def catches(process: int, number: signal.Signals) -> bool:
    """Whether the process has a handler for the signal."""
    status = Path(f"/proc/{process}/status").read_text(encoding="ascii").splitlines()
    (mask,) = [int(line.split()[1], 16) for line in status if line.startswith("SigCgt:")]
    return bool(mask >> (number - 1) & 1)


@ON_LINUX
@pytest.mark.parametrize("number", CODES)
def test_signal_while_libraries_are_loaded(
    scan: Path, tmp_path: Path, number: signal.Signals
) -> None:
    # Python itself has handlers for none but SIGINT; the program installs them one after the other.
    process = slow("loading", "extract", scan, "-o", tmp_path / "echoes.csv", "--block", "1")
    wait_until(lambda: all(catches(process.pid, one) for one in CODES))
    process.send_signal(number)
    assert_ended(process, number, left="")
    assert names(tmp_path) == []


def test_signals_are_handled_before_libraries_are_loaded() -> None:
    heavy = {"numpy", "pyarrow", "laspy", "h5py", "typer", "rich", "matplotlib", "scipy"}
    code = "import fullwaveform.cli.main, sys; print(*{name.split('.')[0] for name in sys.modules})"
    done = subprocess.run(
        [sys.executable, "-c", code],
        env=environment(),
        capture_output=True,
        text=True,
        check=True,
    )
    assert "fullwaveform" in done.stdout.split()
    assert heavy.isdisjoint(done.stdout.split())


@ON_LINUX
def test_signal_ignored_from_outside_stays_ignored(scan: Path, tmp_path: Path) -> None:
    """As under nohup, or for a background job of a script."""
    former = signal.signal(signal.SIGHUP, signal.SIG_IGN)
    try:
        process = slow("blocks", "extract", scan, "-o", tmp_path / "e.csv", "--block", "1")
    finally:
        signal.signal(signal.SIGHUP, former)
    wait_for_temporary_file(tmp_path)
    assert not catches(process.pid, signal.SIGHUP)
    process.send_signal(signal.SIGHUP)
    process.send_signal(signal.SIGTERM)
    assert_ended(process, signal.SIGTERM)


class _Finalized:
    """Python drops exceptions of finalizers."""

    def __del__(self) -> None:
        signal.raise_signal(signal.SIGTERM)


def test_exception_dropped_by_python_still_ends_the_run(tmp_path: Path) -> None:
    output = tmp_path / "output"
    with (
        pytest.raises(SignalExit) as ended,
        raise_on_signals(),
        atomic_path(output) as temporary,
    ):
        _Finalized()
        temporary.write_bytes(b"whole")
    assert ended.value.exit_code == 143
    assert names(tmp_path) == []
    with atomic_path(output) as temporary:
        temporary.write_bytes(b"whole")
    assert output.read_bytes() == b"whole"


def test_signal_during_the_renaming_ends_the_run_after_it(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    output, later = tmp_path / "output", tmp_path / "later"
    link = os.link

    def signalled(*names: Path) -> None:
        link(*names)
        signal.raise_signal(signal.SIGTERM)

    monkeypatch.setattr(os, "link", signalled)
    with pytest.raises(SignalExit), raise_on_signals(), collect_outputs() as written:
        with atomic_path(output) as temporary:
            temporary.write_bytes(b"whole")
        later.write_bytes(b"not reached")
    assert written == [output]
    assert names(tmp_path) == [output.name]


def test_signal_that_is_raised_nowhere_else_ends_the_block() -> None:
    with pytest.raises(SignalExit) as ended, raise_on_signals():
        _Finalized()
    assert ended.value.exit_code == 143


class _Raw(io.FileIO):
    def write(self, data: Any) -> int:
        signal.raise_signal(signal.SIGTERM)
        return super().write(data)


class _SignalledFile(OutputFile, _Raw):
    """A signal arrives during a write."""


def test_write_is_not_interrupted(tmp_path: Path) -> None:
    """HDF5 calls `write` and replaces exceptions raised in it."""
    output = tmp_path / "output"
    with (
        pytest.raises(SignalExit),
        raise_on_signals(),
        atomic_path(output) as temporary,
        _SignalledFile(temporary, output) as stream,
    ):
        assert stream.write(b"piece") == 5
        assert temporary.read_bytes() == b"piece"
    assert names(tmp_path) == []


def test_outputs_written_after_the_signal_are_renamed(tmp_path: Path) -> None:
    """A run saves its progress."""
    note = tmp_path / "note"
    with pytest.raises(SignalExit), raise_on_signals():
        try:
            signal.raise_signal(signal.SIGTERM)
        finally:
            with atomic_path(note) as temporary:
                temporary.write_bytes(b"half the way")
    assert note.read_bytes() == b"half the way"


ANY_FOLDER = FileKind("a folder", lambda path: True, is_folder=True)


@pytest.mark.parametrize(
    "opened",
    [
        atomic_path,
        atomic_open,
        lambda path: atomic_folder(path, ANY_FOLDER),
        lambda path: atomic_path("memory://signals/output"),
        lambda path: open_echo_file(path.with_suffix(".csv"), None, {"a": "b"}),
        lambda path: open_echo_file(path.with_suffix(".h5"), None, None),
    ],
    ids=["path", "stream", "folder", "url", "csv", "h5"],
)
def test_signal_between_opening_and_its_statement_leaves_no_file(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch, opened: Callable[[Path], Any]
) -> None:
    monkeypatch.setattr(tempfile, "tempdir", str(tmp_path))
    before = set(unfinished)
    output = opened(tmp_path / "output")  # alive to the end, so that no finalizer removes the file
    with pytest.raises(SignalExit), raise_on_signals():
        output.__enter__()
        assert len(names(tmp_path)) >= 1
        signal.raise_signal(signal.SIGTERM)
    assert names(tmp_path) == []
    assert unfinished == before


def test_signal_leaves_outputs_that_were_open_before(tmp_path: Path) -> None:
    before = set(unfinished)
    with atomic_path(tmp_path / "older") as temporary:
        with pytest.raises(SignalExit), raise_on_signals():
            signal.raise_signal(signal.SIGTERM)
        assert names(tmp_path) == [temporary.name]
        temporary.write_bytes(b"whole")
    assert (tmp_path / "older").read_bytes() == b"whole"
    assert unfinished == before


def test_command_ended_between_opening_and_its_statement_leaves_no_file(
    scan: Path, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    opened, enter = [], FileWriter.__enter__

    def signalled(self: FileWriter) -> FileWriter:
        opened.append(enter(self))
        signal.raise_signal(signal.SIGINT)
        return self

    monkeypatch.setattr(FileWriter, "__enter__", signalled)
    result = run("extract", scan, "-o", tmp_path / "echoes.csv", "--quiet")
    assert len(opened) == 1
    assert result.exit_code == 130
    assert result.stderr == "interrupted; no result was written\n"
    assert names(tmp_path) == []


def test_former_handlers_are_restored() -> None:
    former = {number: signal.getsignal(number) for number in CODES}
    with pytest.raises(SignalExit), raise_on_signals():
        signal.raise_signal(signal.SIGINT)
    assert {number: signal.getsignal(number) for number in CODES} == former


def test_library_error_caused_by_a_signal_counts_as_the_signal() -> None:
    with pytest.raises(SignalExit) as ended, raise_on_signals():
        try:
            signal.raise_signal(signal.SIGINT)
        except KeyboardInterrupt:
            raise OSError("cannot go on") from None
    assert ended.value.exit_code == 130
