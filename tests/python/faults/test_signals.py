"""Signals that ask the command line to end: a sentence, an exit code, no file."""

from __future__ import annotations

import io
import signal
import subprocess
import sys
from pathlib import Path
from typing import Any

import pytest

from fullwaveform.cli.signals import SignalExit, raise_on_signals
from fullwaveform.io.atomic import OutputFile, atomic_path
from fullwaveform.io.echo_writers.opening import ECHO_ENDINGS

from ..support.child_processes import TIMEOUT_S, environment, wait_until
from ..support.command_line import names
from .processes import slow

CODES = {signal.SIGINT: 130, signal.SIGTERM: 143, signal.SIGHUP: 129}
PARTICIPLES = {signal.SIGINT: "interrupted", signal.SIGTERM: "terminated", signal.SIGHUP: "hung up"}
ON_LINUX = pytest.mark.skipif(
    not Path("/proc/self/status").exists(), reason="handlers of a process are read from /proc"
)


def assert_ended(
    process: subprocess.Popen[str], number: signal.Signals, left: str = "; no result was written"
) -> None:
    shown, told = process.communicate(timeout=TIMEOUT_S)
    assert (process.returncode, shown) == (CODES[number], ""), told
    assert told == f"{PARTICIPLES[number]}{left}\n"


def without_log(folder: Path) -> list[str]:
    """Files but the log of suspicious blocks, to which is appended as they are met."""
    return [name for name in names(folder) if not name.endswith("_Warning.txt")]


def wait_for_temporary_file(folder: Path) -> None:
    wait_until(lambda: any(path.suffix == ".part" for path in folder.iterdir()))


@pytest.mark.parametrize(
    ("ending", "number"),
    [*((ending, signal.SIGINT) for ending in ECHO_ENDINGS), *((".csv", one) for one in CODES)],
)
def test_in_the_middle_of_an_extraction(
    scan: Path, tmp_path: Path, ending: str, number: signal.Signals
) -> None:
    output = tmp_path / f"echoes{ending}"
    output.write_bytes(b"older result")
    call = ("extract", scan, "-o", output, "--workers", "2", "--block", "1")
    process = slow("blocks", *call)  # 800 blocks, 40 s
    wait_for_temporary_file(tmp_path)
    process.send_signal(number)
    assert_ended(process, number)
    assert without_log(tmp_path) == [output.name]
    assert output.read_bytes() == b"older result"


@pytest.mark.parametrize(
    ("verb", "options"),
    [
        ("convert", ["out.h5"]),
        ("simulate", ["--shots", "50"]),
        ("report", ["-o", "report.txt", "--waveform", "2"]),
        ("plot", ["-o", "plot.png", "--waveform", "2"]),
        ("plot", ["-o", "plot.pdf", "--waveform", "2"]),
        ("system-wave", ["-o", "scanner.toml", "--threshold", "20"]),
    ],
)
def test_when_the_output_is_whole_but_has_no_name_yet(
    scan: Path, tmp_path: Path, verb: str, options: list[str]
) -> None:
    placed = [str(tmp_path / word) if "." in word else word for word in options]
    source = tmp_path / "out.las" if verb == "simulate" else scan
    process = slow("renaming", verb, source, *placed)
    wait_for_temporary_file(tmp_path)
    process.send_signal(signal.SIGTERM)
    assert_ended(process, signal.SIGTERM)
    assert names(tmp_path) == []


def test_an_output_that_has_its_name_stays_and_is_told(scan: Path, tmp_path: Path) -> None:
    output = tmp_path / "echoes.csv"
    process = slow("summary", "extract", scan, "-o", output)
    wait_until(output.exists)
    process.send_signal(signal.SIGTERM)
    assert_ended(process, signal.SIGTERM, left=f"; already written: {output}")
    assert without_log(tmp_path) == [output.name]


@pytest.mark.parametrize("second", [signal.SIGINT, signal.SIGTERM])
def test_of_many_signals_one_is_heeded(scan: Path, tmp_path: Path, second: signal.Signals) -> None:
    """Which of two different ones that come together is for the system to say."""
    output = tmp_path / "echoes.csv"
    process = slow("blocks", "extract", scan, "-o", output, "--workers", "2", "--block", "1")
    wait_for_temporary_file(tmp_path)
    process.send_signal(signal.SIGINT)
    while without_log(tmp_path):
        process.send_signal(second)
    shown, told = process.communicate(timeout=TIMEOUT_S)
    heeded = {CODES[one]: f"{PARTICIPLES[one]}; no result was written\n" for one in CODES}
    assert process.returncode in (CODES[signal.SIGINT], CODES[second])
    assert (shown, told) == ("", heeded[process.returncode])
    assert without_log(tmp_path) == []


def catches(process: int, number: signal.Signals) -> bool:
    """Whether the process has a handler for the signal."""
    status = Path(f"/proc/{process}/status").read_text(encoding="ascii").splitlines()
    (mask,) = [int(line.split()[1], 16) for line in status if line.startswith("SigCgt:")]
    return bool(mask >> (number - 1) & 1)


@ON_LINUX
@pytest.mark.parametrize("number", CODES)
def test_while_the_libraries_are_loaded(scan: Path, tmp_path: Path, number: signal.Signals) -> None:
    # Python itself has no handler for SIGTERM: with the program's the loading begins.
    process = slow("nothing", "extract", scan, "-o", tmp_path / "echoes.csv", "--block", "1")
    wait_until(lambda: catches(process.pid, signal.SIGTERM))
    process.send_signal(number)
    assert_ended(process, number, left="")
    assert names(tmp_path) == []


def test_nothing_heavy_is_loaded_before_signals_are_heeded() -> None:
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
def test_a_signal_that_is_ignored_from_outside_stays_so(scan: Path, tmp_path: Path) -> None:
    """As below nohup, or for a job in the background of a script."""
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
    """Python drops what is raised while it is thrown away."""

    def __del__(self) -> None:
        signal.raise_signal(signal.SIGTERM)


def test_a_signal_that_is_dropped_by_python_still_ends_the_run(tmp_path: Path) -> None:
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


class _Raw(io.FileIO):
    def write(self, data: Any) -> int:
        signal.raise_signal(signal.SIGTERM)
        return super().write(data)


class _SignalledFile(OutputFile, _Raw):
    """A signal comes while a piece is written."""


def test_a_piece_is_written_to_its_end(tmp_path: Path) -> None:
    """HDF5 calls `write`, and makes of exceptions in there what it likes."""
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


def test_outputs_of_the_unwinding_get_their_names(tmp_path: Path) -> None:
    """A run notes down how far it came."""
    note = tmp_path / "note"
    with pytest.raises(SignalExit), raise_on_signals():
        try:
            signal.raise_signal(signal.SIGTERM)
        finally:
            with atomic_path(note) as temporary:
                temporary.write_bytes(b"half the way")
    assert note.read_bytes() == b"half the way"


def test_former_handlers_are_back_afterwards() -> None:
    former = {number: signal.getsignal(number) for number in CODES}
    with pytest.raises(SignalExit), raise_on_signals():
        signal.raise_signal(signal.SIGINT)
    assert {number: signal.getsignal(number) for number in CODES} == former


def test_an_error_that_a_library_makes_of_a_signal_is_the_signal() -> None:
    with pytest.raises(SignalExit) as ended, raise_on_signals():
        try:
            signal.raise_signal(signal.SIGINT)
        except KeyboardInterrupt:
            raise OSError("cannot go on") from None
    assert ended.value.exit_code == 130
