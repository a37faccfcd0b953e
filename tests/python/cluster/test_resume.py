"""Interrupted runs and --resume."""

from __future__ import annotations

import json
import os
import shutil
import signal
from collections.abc import Callable
from pathlib import Path
from typing import Any

import pytest

from fullwaveform.cluster import part_paths, read_parts

from ..support.child_processes import TIMEOUT_S, wait_until
from ..support.command_line import assert_error, names, run
from ..support.echo_tables import assert_same_rows
from .processes import command, hold
from .scenes import (
    done_parts,
    las_scan,
    manifest_of,
    parts_table,
    single_run,
    states,
    table_lines,
    times,
)

OPTIONS = ("--threshold", "20", "--block", "40", "--blocks-per-part", "3")
SINGLE = OPTIONS[:4]


@pytest.mark.parametrize(
    ("number", "whole_group", "code"), [(signal.SIGINT, True, 130), (signal.SIGTERM, False, 143)]
)
def test_interrupted_run_is_completed_by_resume(
    address: str, tmp_path: Path, number: signal.Signals, whole_group: bool, code: int
) -> None:
    """A terminal interrupts the workers as well, other programs the command alone."""
    scan, folder = las_scan(tmp_path / "scan.las"), tmp_path / "parts"
    call = ("cluster", scan, "-o", folder, *OPTIONS)
    local = ("--scheduler", "local", "--workers", "2")
    # Quiet: on a busy machine there would be lines of progress.
    first = command(*call, *local, "-q", **hold(tmp_path, block=6))
    wait_until(lambda: (tmp_path / "held").exists() and done_parts(folder) == 4)
    (os.killpg if whole_group else os.kill)(first.pid, number)
    stdout, stderr = first.communicate(timeout=TIMEOUT_S)
    assert (first.returncode, stdout) == (code, "")
    assert stderr.count("\n") == 1, stderr
    line = stderr.rstrip()
    assert line.endswith("; finished parts are kept; continue with --resume")
    assert set(states(folder).values()) == {"done", "waiting"}
    done = {name for name, state in states(folder).items() if state == "done"}
    assert len(done) == 4
    before = times(folder)
    second = run(*call, "--scheduler", address, "--resume")
    assert second.exit_code == 0, second.output
    after = times(folder)
    assert {name: after[name] for name in done} == {name: before[name] for name in done}
    assert names(folder) == ["manifest.json", *(path.name for path in part_paths(folder))]
    expected = single_run(scan, tmp_path / "single.parquet", *SINGLE)
    assert_same_rows(parts_table(folder), expected)
    # The summary is that of the whole run, not of its second half.
    single = run("extract", scan, "-o", tmp_path / "again.parquet", *SINGLE)
    assert table_lines(second.stdout) == table_lines(single.stdout)


@pytest.fixture(scope="module")
def original(address: str, tmp_path_factory: pytest.TempPathFactory) -> Path:
    """A folder with a scan and its finished parts."""
    folder = tmp_path_factory.mktemp("original")
    las_scan(folder / "scan.las")
    call = ("cluster", folder / "scan.las", "-o", folder / "parts", *OPTIONS)
    assert run(*call, "--scheduler", address).exit_code == 0
    return folder


class Job:
    """A copy of the finished run in its own folder."""

    def __init__(self, original: Path, folder: Path, address: str) -> None:
        shutil.copytree(original, folder, dirs_exist_ok=True)
        self.folder, self.parts, self._address = folder, folder / "parts", address
        self.manifest_path = self.parts / "manifest.json"
        self.scan = folder / "scan.las"
        content = self.manifest_path.read_text(encoding="utf-8")
        moved = content.replace(str(original), str(folder))
        self.manifest_path.write_text(moved, encoding="utf-8")

    def resume(self, *options: str, source: Path | None = None) -> Any:
        call = ("cluster", source or self.scan, "-o", self.parts, *OPTIONS, *options)
        return run(*call, "--scheduler", self._address, "--resume")

    def change(self, modify: Callable[[dict[str, Any]], object]) -> None:
        """Modify the manifest."""
        content = manifest_of(self.parts)
        modify(content)
        self.manifest_path.write_text(json.dumps(content), encoding="utf-8")


@pytest.fixture
def job(original: Path, tmp_path: Path, address: str) -> Job:
    return Job(original, tmp_path, address)


def test_finished_parts_are_not_rewritten(job: Job) -> None:
    before = times(job.parts)
    result = job.resume()
    assert result.exit_code == 0, result.output
    assert "echoes written" in result.stdout
    assert times(job.parts) == before


def overwrite_start(path: Path) -> None:
    with path.open("r+b") as stream:
        stream.write(b"0123")


@pytest.mark.parametrize(
    "damage", [Path.unlink, lambda path: os.truncate(path, 100), overwrite_start]
)
def test_missing_or_damaged_part_is_repeated(job: Job, damage: Callable[[Path], object]) -> None:
    third = job.parts / "scan.part-00002.parquet"
    content, before = third.read_bytes(), times(job.parts)
    damage(third)
    assert job.resume().exit_code == 0
    assert third.read_bytes() == content
    after = times(job.parts)
    assert after.pop(third.name) != before.pop(third.name)
    assert after == before


@pytest.mark.parametrize(
    ("options", "difference"),
    [
        (["--threshold", "21"], "settings.threshold was 20, is 21"),
        (["--mode", "1"], "settings.mode was 0, is 1"),
        (["--keep-empty"], "settings.keep_empty was False, is True"),
        (["--no-uncertainty"], "settings.uncertainty was True, is False"),
        (["--channel", "2=high"], "settings.channel_flags.2 was unset, is 0"),
        (["--block", "41"], "settings.block was 40, is 41"),
        (["--blocks-per-part", "4"], "settings.blocks_per_part was 3, is 4"),
        (["--format", "las"], "settings.part_format was 'parquet', is 'las'"),
        (["--after-pulse", "5,2"], "settings.after_pulse.offset was 0, is 5"),
    ],
)
def test_other_settings_are_refused(job: Job, options: list[str], difference: str) -> None:
    before = times(job.parts)
    assert_error(job.resume(*options), f"{job.parts} contains a different run: ", difference)
    assert times(job.parts) == before


def test_another_scanner_is_refused(job: Job) -> None:
    job.change(lambda m: m["settings"]["scanner_attributes"].update(ampl_unit=0.5))
    assert_error(job.resume(), "settings.scanner_attributes.ampl_unit was 0.5, is unset")


def test_other_version_is_refused(job: Job) -> None:
    job.change(lambda m: m.update(package_version="0.0.9"))
    assert_error(job.resume(), "version of fullwaveform was '0.0.9', is ")


def test_other_inputs_are_refused(job: Job) -> None:
    other = job.scan.with_name("other.las")
    assert_error(job.resume(source=other), "inputs.0 was ", f", is '{other}'")


@pytest.mark.parametrize("name", ["scan.las", "scan.wdp"])
def test_changed_input_is_refused(job: Job, name: str) -> None:
    path = job.folder / name
    os.utime(path, ns=(0, path.stat().st_mtime_ns + 1))
    assert_error(
        job.resume(), f"{job.scan} has changed: {name} was modified after the run was planned"
    )
    with path.open("ab") as stream:
        stream.write(b"\0")
    size = path.stat().st_size
    message = f"{job.scan} has changed: {name} had {size - 1} bytes, now {size}"
    assert_error(job.resume(), message)


def test_missing_input_is_refused(job: Job) -> None:
    job.scan.with_suffix(".wdp").unlink()
    assert_error(job.resume(), f"{job.scan} has changed: scan.wdp is missing")
    job.scan.unlink()
    assert_error(job.resume(), "scan.las: No such file or directory")


def test_folder_without_a_run_is_refused(job: Job) -> None:
    job.manifest_path.unlink()
    assert_error(job.resume(), f"{job.parts} has no manifest.json; no run was planned in it")


def test_parts_of_an_unfinished_run_are_not_read(job: Job) -> None:
    job.change(lambda m: m["parts"][1].update(state="waiting", outcome=None))
    with pytest.raises(ValueError, match="1 of 5 parts are not finished"):
        next(read_parts(job.parts))
    assert job.resume().exit_code == 0
    assert len(list(read_parts(job.parts))) == 5
    (job.parts / "scan.part-00004.parquet").unlink()
    with pytest.raises(FileNotFoundError, match=r"scan\.part-00004\.parquet.* is missing"):
        next(read_parts(job.parts))
