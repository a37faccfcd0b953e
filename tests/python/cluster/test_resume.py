"""Runs that end early and are continued."""

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

from ..support.child_processes import PATIENCE, until
from ..support.command_line import assert_trouble, names, run
from .processes import command, hold
from .scenes import (
    assert_same_rows,
    las_scan,
    manifest_of,
    parts_table,
    single_run,
    states,
    table_lines,
    times,
)

OPTIONS = ("--noise", "20", "--block", "40", "--unit-blocks", "3")
SINGLE = OPTIONS[:4]


@pytest.mark.parametrize(
    ("number", "whole_group", "code"), [(signal.SIGINT, True, 130), (signal.SIGTERM, False, 143)]
)
def test_a_run_that_is_interrupted(
    address: str, tmp_path: Path, number: signal.Signals, whole_group: bool, code: int
) -> None:
    """A terminal interrupts the workers as well, other programs the command alone."""
    scan, folder = las_scan(tmp_path / "scan.las"), tmp_path / "parts"
    call = ("extract", scan, "-o", folder, *OPTIONS)
    local = ("--cluster", "local", "--workers", "2")
    first = command(*call, *local, **hold(tmp_path, block=6))
    until(lambda: (tmp_path / "held").exists() and list(states(folder).values()).count("done") == 4)
    (os.killpg if whole_group else os.kill)(first.pid, number)
    shown, told = first.communicate(timeout=PATIENCE)
    assert (first.returncode, shown) == (code, "")
    assert told.count("\n") == 1, told
    line = told.rstrip()
    assert line.endswith("the finished parts are kept, the same call with --resume continues")
    assert set(states(folder).values()) == {"done", "waiting"}
    done = {name for name, state in states(folder).items() if state == "done"}
    assert len(done) == 4
    before = times(folder)
    second = run(*call, "--cluster", address, "--resume")
    assert second.exit_code == 0, second.output
    after = times(folder)
    assert {name: after[name] for name in done} == {name: before[name] for name in done}
    assert names(folder) == ["manifest.json", *(path.name for path in part_paths(folder))]
    expected = single_run(scan, tmp_path / "single.parquet", *SINGLE)
    assert_same_rows(parts_table(folder), expected)
    # The summary is that of the whole job, not of what was left of it.
    single = run("extract", scan, "-o", tmp_path / "single.parquet", *SINGLE)
    assert table_lines(second.stdout) == table_lines(single.stdout)


@pytest.fixture(scope="module")
def original(address: str, tmp_path_factory: pytest.TempPathFactory) -> Path:
    """A folder with a scan and its finished parts."""
    folder = tmp_path_factory.mktemp("original")
    las_scan(folder / "scan.las")
    call = ("extract", folder / "scan.las", "-o", folder / "parts", *OPTIONS)
    assert run(*call, "--cluster", address).exit_code == 0
    return folder


class Job:
    """A copy of the finished job in a folder of its own."""

    def __init__(self, original: Path, folder: Path, address: str) -> None:
        shutil.copytree(original, folder, dirs_exist_ok=True)
        self.folder, self.parts, self._address = folder, folder / "parts", address
        self.manifest_path = self.parts / "manifest.json"
        self.scan = folder / "scan.las"
        content = self.manifest_path.read_text(encoding="utf-8")
        moved = content.replace(str(original), str(folder))
        self.manifest_path.write_text(moved, encoding="utf-8")

    def resume(self, *options: str, source: Path | None = None) -> Any:
        call = ("extract", source or self.scan, "-o", self.parts, *OPTIONS, *options)
        return run(*call, "--cluster", self._address, "--resume")

    def change(self, change: Callable[[dict[str, Any]], object]) -> None:
        """Does something to the manifest."""
        content = manifest_of(self.parts)
        change(content)
        self.manifest_path.write_text(json.dumps(content), encoding="utf-8")


@pytest.fixture
def job(original: Path, tmp_path: Path, address: str) -> Job:
    return Job(original, tmp_path, address)


def test_what_is_finished_is_left_alone(job: Job) -> None:
    before = times(job.parts)
    result = job.resume()
    assert result.exit_code == 0, result.output
    assert "echoes written" in result.stdout
    assert times(job.parts) == before


@pytest.mark.parametrize("harm", [Path.unlink, lambda path: os.truncate(path, 100)])
def test_a_part_that_is_missing_or_cut_is_made_again(
    job: Job, harm: Callable[[Path], object]
) -> None:
    third = job.parts / "part-00002.parquet"
    content, before = third.read_bytes(), times(job.parts)
    harm(third)
    assert job.resume().exit_code == 0
    assert third.read_bytes() == content
    after = times(job.parts)
    assert after.pop(third.name) != before.pop(third.name)
    assert after == before


@pytest.mark.parametrize(
    ("options", "phrase"),
    [
        (["--noise", "21"], "settings.threshold was 20 and is 21"),
        (["--mode", "1"], "settings.mode was 0 and is 1"),
        (["--keep-empty"], "settings.keep_empty was False and is True"),
        (["--channel", "2=high"], "settings.channel_flags.2 was nothing and is 0"),
        (["--block", "41"], "settings.block was 40 and is 41"),
        (["--unit-blocks", "4"], "settings.unit_blocks was 3 and is 4"),
        (["--part-format", "las"], "settings.part_format was 'parquet' and is 'las'"),
        (["--after-pulse", "5,2"], "settings.after_pulse.offset was 0 and is 5"),
    ],
)
def test_other_settings_are_refused(job: Job, options: list[str], phrase: str) -> None:
    before = times(job.parts)
    assert_trouble(job.resume(*options), f"{job.parts} holds another job: ", phrase)
    assert times(job.parts) == before


def test_another_scanner_is_refused(job: Job) -> None:
    job.change(lambda m: m["settings"]["scanner_attributes"].update(ampl_unit=0.5))
    assert_trouble(job.resume(), "settings.scanner_attributes.ampl_unit was 0.5 and is 1.0")


def test_another_version_of_the_program_is_refused(job: Job) -> None:
    job.change(lambda m: m.update(package_version="0.0.9"))
    assert_trouble(job.resume(), "version of fullwaveform was '0.0.9' and is ")


def test_other_inputs_are_refused(job: Job) -> None:
    other = job.scan.with_name("other.las")
    assert_trouble(job.resume(source=other), "inputs.0 was ", f"and is '{other}'")


@pytest.mark.parametrize("name", ["scan.las", "scan.wdp"])
def test_a_changed_input_is_refused(job: Job, name: str) -> None:
    path = job.folder / name
    os.utime(path, ns=(0, path.stat().st_mtime_ns + 1))
    assert_trouble(job.resume(), f"{job.scan} has changed: {name} was written at another time")
    with path.open("ab") as stream:
        stream.write(b"\0")
    size = path.stat().st_size
    sentence = f"{job.scan} has changed: {name} had {size - 1} bytes and has {size}"
    assert_trouble(job.resume(), sentence)


def test_a_missing_input_is_refused(job: Job) -> None:
    job.scan.with_suffix(".wdp").unlink()
    assert_trouble(job.resume(), f"{job.scan} has changed: scan.wdp is missing")
    job.scan.unlink()
    assert_trouble(job.resume(), "scan.las: No such file or directory")


def test_a_folder_without_a_run_is_refused(job: Job) -> None:
    job.manifest_path.unlink()
    assert_trouble(job.resume(), f"{job.parts} holds no manifest.json: no run began there")


def test_parts_of_a_run_that_is_not_finished_are_not_read(job: Job) -> None:
    job.change(lambda m: m["parts"][1].update(state="waiting", outcome=None))
    with pytest.raises(ValueError, match="1 of 5 parts are not finished"):
        next(read_parts(job.parts))
    assert job.resume().exit_code == 0
    assert len(list(read_parts(job.parts))) == 5
    (job.parts / "part-00004.parquet").unlink()
    with pytest.raises(FileNotFoundError, match=r"part-00004\.parquet.* is missing"):
        next(read_parts(job.parts))
