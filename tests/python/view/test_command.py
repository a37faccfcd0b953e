"""The command: starts, prints its address, and ends with Ctrl-C."""

from __future__ import annotations

import errno
import io
import json
import os
import signal
import subprocess
import sys
from collections.abc import Iterator
from concurrent.futures import ThreadPoolExecutor
from dataclasses import replace
from http.client import HTTPException
from pathlib import Path
from urllib.request import urlopen
from zipfile import ZipFile

import laspy
import numpy as np
import pytest

from fullwaveform.cli.extract_options import ExtractOptions
from fullwaveform.cli.view import _extracted
from fullwaveform.view.cache import remove_former

from ..faults.processes import finished, slow
from ..faults.slow_command import INDEX_ENDS, SAVING_BEGINS, SAVING_ENDS
from ..faults.test_full_disk import files_end_at
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


def view_folder(cache: Path) -> Path:
    return cache / "fullwaveform" / "view"


def unfinished(cache: Path) -> list[Path]:
    return sorted(cache.rglob("*.part"))


def launched(*call: str | Path, folder: Path) -> subprocess.Popen[str]:
    """The process of the command."""
    process = subprocess.Popen(
        [sys.executable, "-m", "fullwaveform", "view", *map(str, call)],
        cwd=folder,
        env=environment(BROWSER="true"),
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
        start_new_session=True,
    )
    return started(process)


def start(*call: str | Path, folder: Path) -> tuple[subprocess.Popen[str], str]:
    """The process and the address that it prints."""
    process = launched(*call, folder=folder)
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


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_index_interrupted_is_not_used(
    scan: Path, tmp_path: Path, cache: Path, number: signal.Signals
) -> None:
    """The signal arrives when all of the index is written except its end."""
    before = sorted(cache.rglob("*"))
    process = slow("index", "view", scan, "--no-browser")
    assert process.stderr is not None
    while (line := process.stderr.readline()) != f"{INDEX_ENDS}\n":
        assert line, "the command has ended"
    assert unfinished(cache) != []
    code, errors = end(process, number)
    assert code == 128 + number
    assert errors.endswith("ed; the viewer has ended\n")
    assert unfinished(cache) == []
    # Only the echoes were complete.
    (added,) = set(cache.rglob("*")) - set(before) - {cache / "fullwaveform", view_folder(cache)}
    assert added.name.startswith("extracted-")
    process, address = start(scan, "--no-browser", folder=tmp_path)
    assert address.startswith("http://127.0.0.1:")
    code, errors = end(process, signal.SIGINT)
    assert (code, "scan.las: 5 waveforms, index ready" in errors) == (0, True)


def test_unfinished_index_of_a_killed_viewer_is_removed(scan: Path, cache: Path) -> None:
    process = slow("index", "view", scan, "--no-browser")
    assert process.stderr is not None
    while process.stderr.readline() != f"{INDEX_ENDS}\n":
        assert process.poll() is None
    process.kill()
    process.communicate()
    (left,) = unfinished(cache)
    index = left.with_name(left.name[1:].rpartition(".")[0].rpartition(".")[0])
    remove_former(index)
    assert left.exists(), "it may still be written"
    os.utime(left, (0, 0))
    remove_former(index)
    assert not left.exists()


def test_extracted_echoes_in_use_are_not_removed(scan: Path) -> None:
    """A viewer opens them again when echoes are saved."""
    options = ExtractOptions(skip_unreadable=True, allow_empty=True)
    first = _extracted(scan, options)
    second = _extracted(scan, replace(options, keep_degraded=True))
    assert first.exists()
    for path in (first, second):
        os.utime(path, (0, 0))
    assert _extracted(scan, options) == first  # in use again
    _extracted(scan, replace(options, max_samples=1000))
    assert (first.exists(), second.exists()) == (True, False)
    assert first.stat().st_mtime == 0, "it would count as another file"


def test_two_viewers_make_the_same_index_at_once(scan: Path, tmp_path: Path, cache: Path) -> None:
    echoes = scenes.write_echoes(tmp_path / "echoes.csv")
    call = (scan, "--echoes", echoes, "--no-browser")
    processes = [launched(*call, folder=tmp_path) for _ in range(2)]
    for process in processes:
        assert process.stdout is not None
        address = process.stdout.readline().strip()
        with urlopen(f"{address}session", timeout=TIMEOUT_S) as answer:
            assert json.load(answer)["layers"][0]["echoes"] == 7
        assert unfinished(cache) == [] or process is processes[0]
    for process in processes:
        assert end(process, signal.SIGINT)[0] == 0
    assert unfinished(cache) == []


@pytest.mark.parametrize("size", [0, 300])
def test_no_space_in_the_cache_folder_is_reported(
    size: int, scan: Path, tmp_path: Path, cache: Path
) -> None:
    """Nothing, or a part of the first index, can be written."""
    echoes = scenes.write_echoes(tmp_path / "echoes.csv")
    done = finished("view", scan, "--echoes", echoes, "--no-browser", before=files_end_at(size))
    assert done.returncode == 1
    assert done.stderr.startswith(f"fullwaveform: cannot write {view_folder(cache) / 'waveforms-'}")
    assert done.stderr.endswith(": File too large; XDG_CACHE_HOME sets another cache folder\n")
    assert done.stdout == ""
    assert unfinished(cache) == []


def test_read_only_cache_folder_is_reported(
    scan: Path, monkeypatch: pytest.MonkeyPatch, tmp_path: Path
) -> None:
    """As for a user who may not write there; root may write anywhere."""

    def refused(path: Path) -> None:
        raise PermissionError(errno.EACCES, os.strerror(errno.EACCES), str(path))

    echoes = scenes.write_echoes(tmp_path / "echoes.csv")
    monkeypatch.setattr("fullwaveform.io.atomic._create_new", refused)
    for options in ([], ["--echoes", echoes]):
        result = run("view", scan, *options)
        assert_error(result, "cannot write", "Permission denied; XDG_CACHE_HOME sets another")


def test_missing_package_names_the_extra(scan: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    def missing(name: str) -> None:
        raise ModuleNotFoundError(f"No module named {name!r}", name="platformdirs")

    monkeypatch.setattr("fullwaveform.cli.view.import_module", missing)
    assert_error(run("view", scan), "needs the package platformdirs", "fullwaveform[view]")


def test_selection_of_extracted_echoes_is_saved_as_extract_writes_it(
    scan: Path, tmp_path: Path
) -> None:
    """Without --echoes, of the box around the two eastern shots."""
    process, address = start(scan, "--no-browser", folder=tmp_path)
    points, table = tmp_path / "all.las", tmp_path / "all.csv"
    assert run("extract", scan, "-o", points).exit_code == 0
    assert run("extract", scan, "-o", table).exit_code == 0
    query = "box=70,-10,90,90"
    contents = {}
    for kind in ("las", "csv", "zip"):
        url = f"{address}layers/0/selection.{kind}?{query}"
        with urlopen(url, timeout=TIMEOUT_S) as answer:
            contents[kind] = answer.read()
    end(process, signal.SIGINT)
    saved, whole = laspy.read(io.BytesIO(contents["las"])), laspy.read(points)
    east = np.asarray(whole.x) > 80.0
    assert np.count_nonzero(east) == 3
    assert saved.points.array.tobytes() == whole.points.array[east].tobytes()
    with_waveforms = tmp_path / "with.las"
    assert run("extract", scan, "-o", with_waveforms, "--with-waveforms").exit_code == 0
    with ZipFile(io.BytesIO(contents["zip"])) as archive:
        archive.extractall(tmp_path / "saved")
    whole, saved = (
        laspy.read(path) for path in (with_waveforms, tmp_path / "saved" / "selected-echoes.las")
    )
    for name in set(whole.points.array.dtype.names) - {"wavepacket_offset"}:
        assert saved.points.array[name].tobytes() == whole.points.array[name][east].tobytes(), name
    lines = table.read_bytes().splitlines(keepends=True)
    expected = [line for line, is_east in zip(lines[1:], east, strict=True) if is_east]
    assert contents["csv"] == b"".join([lines[0], *expected])


@pytest.mark.parametrize(
    ("kind", "number"),
    [("csv", signal.SIGINT), ("parquet", signal.SIGTERM), ("zip", signal.SIGINT)],
)
def test_saving_is_given_up_at_the_end(
    scan: Path, cache: Path, kind: str, number: signal.Signals
) -> None:
    """The signal arrives while the file of a selection is written; that would take minutes."""
    process = slow("saving", "view", scan, "--no-browser")
    assert process.stdout is not None
    assert process.stderr is not None
    address = process.stdout.readline().strip()

    def is_saved() -> bool:
        try:
            with urlopen(f"{address}layers/0/selection.{kind}", timeout=TIMEOUT_S) as answer:
                answer.read()
        except (OSError, HTTPException):
            return False
        process.kill()  # who waits for the line need not wait any longer
        return True

    with ThreadPoolExecutor(1) as pool:
        saving = pool.submit(is_saved)
        while (line := process.stderr.readline()) != f"{SAVING_BEGINS}\n":
            assert line, "the file is complete already"
        (folder,) = view_folder(cache).glob("selection-*")
        assert list(folder.iterdir()) != []
        code, errors = end(process, number)
        assert code == (0 if number is signal.SIGINT else 128 + number)
        assert "Traceback" not in errors
        assert SAVING_ENDS not in errors, "the end has waited for the file"
        assert not saving.result(TIMEOUT_S)
    assert list(view_folder(cache).glob("selection-*")) == []
    assert unfinished(cache) == []
