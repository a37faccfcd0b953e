"""Units that are computed one by one, without a scheduler: plan, run and join."""

from __future__ import annotations

import json
import os
import re
import shutil
import subprocess
import sys
import zlib
from pathlib import Path
from typing import Any

import pytest
from typer.testing import Result

from fullwaveform.cluster import join as join_module
from fullwaveform.cluster import part_paths
from fullwaveform.cluster.folder import JobFolder
from fullwaveform.io import atomic

from ..support.child_processes import TIMEOUT_S, environment, started
from ..support.command_line import assert_error, assert_usage, names, run, succeeded
from .scenes import las_scan, manifest_of, states, table_lines, times

DYING = Path(__file__).with_name("dying_workers.py")
OPTIONS = ("--threshold", "20", "--block", "40", "--blocks-per-part", "3")
SINGLE = OPTIONS[:4]


def test_killed_units_are_computed_again(tmp_path: Path) -> None:
    """200 units in random order from eight processes; a third of them kill their process."""
    scans = [las_scan(tmp_path / f"scan{n}.las", shots=20, seed=n) for n in range(20)]
    options, job = ("--threshold", "20", "--block", "2", "--format", "csv"), tmp_path / "job"
    call = ("plan", *scans, "-o", job, *options, "--blocks-per-part", "2")
    assert succeeded(*call, "--print-count") == "200\n"

    process = started(
        subprocess.Popen(
            [sys.executable, str(DYING), str(job), "7"],
            env=environment(),
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
            start_new_session=True,
        )
    )
    stdout, stderr = process.communicate(timeout=TIMEOUT_S)
    assert (process.returncode, stderr) == (0, "")
    killed = json.loads(stdout)
    assert len(killed) == 66

    unfinished = run("join", job)
    assert_error(unfinished, "66 of 200 parts are missing, the others are kept")
    found = re.search(r"compute them with: fullwaveform run \S+ --units (\S+)$", unfinished.stderr)
    assert found is not None
    ranges = [list(map(int, word.split("-"))) for word in found[1].split(",")]
    assert [unit for limits in ranges for unit in range(limits[0], limits[-1] + 1)] == killed
    left = [name for name in names(job) if name.startswith(".")]
    assert len(left) > 30

    before = times(job)
    succeeded("run", job, "--units", found[1], "-q")
    after = times(job)
    done = {path for path, time in before.items() if after.get(path) == time}
    assert len(done) >= 2 * (200 - 66)  # parts and their metadata; records have other names

    joined, single = tmp_path / "joined", tmp_path / "single"
    succeeded("join", job, "-o", joined)
    succeeded("extract", *scans, "-o", single, *options, "-q")
    assert len(names(joined)) == 2 * len(scans)
    statistics = [f"{scan.stem}_Warning.txt" for scan in scans]
    for name in names(single):
        found = (job if name in statistics else joined) / name
        assert found.read_bytes() == (single / name).read_bytes()
    parts = [path.name for path in part_paths(job)]
    metadata = [f"{name}-metadata.json" for name in parts]
    assert names(job) == sorted(["manifest.json", *parts, *metadata, *statistics])


@pytest.fixture(scope="module")
def planned(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """A folder with a scan and the plan of its five units."""
    folder = tmp_path_factory.mktemp("planned")
    scan = las_scan(folder / "scan.las")
    succeeded("plan", scan, "-o", folder / "job", *OPTIONS)
    return folder


class Job:
    """A copy of the plan in its own folder."""

    def __init__(self, planned: Path, folder: Path) -> None:
        shutil.copytree(planned, folder, dirs_exist_ok=True)
        self.folder, self.path, self.scan = folder, folder / "job", folder / "scan.las"
        self.manifest = self.path / "manifest.json"
        content = self.manifest.read_text(encoding="utf-8")
        self.manifest.write_text(content.replace(str(planned), str(folder)), encoding="utf-8")

    def run(self, *options: str) -> Result:
        return run("run", self.path, *options)

    def done(self) -> list[int]:
        """The numbers of the units whose parts are there."""
        found = enumerate(states(self.path).values())
        return [number for number, state in found if state == "done"]


@pytest.fixture
def job(planned: Path, tmp_path: Path) -> Job:
    return Job(planned, tmp_path)


def test_units_of_any_order_are_joined_to_the_single_run(job: Job, tmp_path: Path) -> None:
    for units in ("3", "4,0-1", "2-3"):
        assert job.run("--units", units).exit_code == 0
    shown = succeeded("join", job.path, "-o", tmp_path / "joined.parquet")
    single = succeeded("extract", job.scan, "-o", tmp_path / "single.parquet", *SINGLE)
    assert table_lines(shown) == table_lines(single)
    assert (tmp_path / "joined.parquet").read_bytes() == (tmp_path / "single.parquet").read_bytes()
    assert names(job.path) == ["manifest.json", *(path.name for path in part_paths(job.path))]
    assert table_lines(succeeded("join", job.path)) == table_lines(single)
    assert "unit 2: scan.part-00002.parquet is there already" in job.run("--unit", "2").stdout


@pytest.mark.parametrize(
    ("variables", "options", "units"),
    [
        ({"SLURM_ARRAY_TASK_ID": "3"}, [], [3]),
        ({"AWS_BATCH_JOB_ARRAY_INDEX": "0"}, [], [0]),
        ({"JOB_COMPLETION_INDEX": "4"}, [], [4]),
        ({"SLURM_ARRAY_TASK_ID": "1"}, ["--units-per-task", "2"], [2, 3]),
        ({"SLURM_ARRAY_TASK_ID": "2"}, ["--units-per-task", "2"], [4]),
        ({"SLURM_ARRAY_TASK_ID": "3"}, ["--unit", "1"], [1]),
    ],
)
def test_index_of_the_task_chooses_the_units(
    job: Job,
    variables: dict[str, str],
    options: list[str],
    units: list[int],
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    for name, value in variables.items():
        monkeypatch.setenv(name, value)
    assert job.run(*options).exit_code == 0
    assert job.done() == units


@pytest.mark.parametrize(
    ("value", "options", "message"),
    [
        ("", [], "give --unit K or --units LIST, or run in a job array, which sets SLURM_ARRAY"),
        ("-1", [], "SLURM_ARRAY_TASK_ID: '-1' must be the index of a task, 0 or more"),
        ("x", [], "'x' must be the index of a task"),
        ("", ["--unit", "1", "--units", "2"], "cannot be combined with --units"),
        ("", ["--unit", "1", "--units-per-task", "2"], "applies to the index of a job array"),
        ("", ["--units", "3-1"], "'3-1' must be numbers and ranges from small to large"),
        ("", ["--units", "1,"], "'1,' must be numbers and ranges"),
        ("", ["--unit", "-1"], "--unit"),
    ],
)
def test_invalid_choice_of_units(
    job: Job, value: str, options: list[str], message: str, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setenv("SLURM_ARRAY_TASK_ID", value)
    assert_usage(job.run(*options), message)
    assert job.done() == []


@pytest.mark.parametrize(
    "options", [["--unit", "5"], ["--units", "3-7"], ["--units", "0-999999999"]]
)
def test_unit_out_of_range(job: Job, options: list[str]) -> None:
    assert_error(job.run(*options), "unit 5 is out of range; the run in ", " has 5 units, 0 to 4")
    assert job.done() == []


def test_task_out_of_range(job: Job, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("SLURM_ARRAY_TASK_ID", "3")
    assert_error(job.run("--units-per-task", "2"), "unit 6 is out of range")


def test_whole_part_is_computed_again_only_on_request(job: Job) -> None:
    assert job.run("--unit", "1").exit_code == 0
    part = job.path / "scan.part-00001.parquet"
    before, content = part.stat().st_ino, part.read_bytes()
    assert job.run("--unit", "1").stdout == "unit 1: scan.part-00001.parquet is there already\n"
    assert part.stat().st_ino == before
    assert job.run("--unit", "1", "--again").exit_code == 0
    assert part.stat().st_ino != before
    os.truncate(part, 100)
    assert job.run("--unit", "1").exit_code == 0
    assert part.read_bytes() == content


def test_join_while_another_one_ends(job: Job, monkeypatch: pytest.MonkeyPatch) -> None:
    """The other one has moved the records into the manifest after this one has read it."""
    assert job.run("--units", "0-4").exit_code == 0
    collect = join_module.collect

    def late(parts: Any, folder: JobFolder) -> None:
        monkeypatch.setattr(join_module, "collect", collect)
        succeeded("join", job.path)
        collect(parts, folder)

    monkeypatch.setattr(join_module, "collect", late)
    succeeded("join", job.path)
    assert job.done() == [0, 1, 2, 3, 4]


def test_statistics_are_replaced_in_one_step(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    """Whoever reads them while the run is joined again finds the former ones, or the new ones."""
    scan, job = las_scan(tmp_path / "scan.las"), tmp_path / "job"
    succeeded("plan", scan, "-o", job, "--threshold", "3000", "--block", "45")
    succeeded("run", job, "--unit", "0")
    succeeded("join", job)
    path = job / "scan_Warning.txt"
    content = path.read_bytes()
    assert content.count(b"NumberOfWaves: ") > 4
    temporary = atomic._create_temporary
    found = []

    def watched(final: Path) -> Path:
        found.append(path.read_bytes() if path.exists() else b"")
        return temporary(final)

    monkeypatch.setattr(atomic, "_create_temporary", watched)
    succeeded("join", job)
    assert set(found) == {content}
    assert len(found) == 2  # manifest and statistics
    assert path.read_bytes() == content


def test_truncated_part_is_missing_after_join_too(job: Job) -> None:
    assert job.run("--units", "0-4").exit_code == 0
    succeeded("join", job.path)
    os.truncate(job.path / "scan.part-00001.parquet", 100)
    (job.path / "scan.part-00003.parquet").unlink()
    call = f"compute them with: fullwaveform run {job.path} --units 1,3"
    assert_error(run("join", job.path), f"2 of 5 parts are missing, the others are kept; {call}")
    assert job.run("--units", "1,3").exit_code == 0
    succeeded("join", job.path)


def flip_bit(path: Path) -> None:
    """Damages a byte in the middle; the size remains."""
    with path.open("r+b") as stream:
        stream.seek(path.stat().st_size // 2)
        byte = stream.read(1)[0]
        stream.seek(-1, os.SEEK_CUR)
        stream.write(bytes([byte ^ 1]))


def test_damaged_part_is_reported_and_computed_again(job: Job) -> None:
    assert job.run("--units", "0-4").exit_code == 0
    second, fourth = (job.path / f"scan.part-0000{number}.parquet" for number in (1, 3))
    content = second.read_bytes()
    flip_bit(second)
    message = "1 of 5 parts is missing or damaged, the others are kept"
    damaged = (
        f"part {second.name} is damaged: its checksum is {zlib.crc32(second.read_bytes()):08x}, "
    )
    expected = f"but {zlib.crc32(content):08x} was written"
    assert_error(run("join", job.path), damaged, expected, message, f"{job.path} --units 1")
    assert job.run("--units", "0-4").stdout.count("is there already") == 4
    assert second.read_bytes() == content
    succeeded("join", job.path)
    flip_bit(fourth)  # whose checksum is in the manifest now
    assert_error(run("join", job.path), f"part {fourth.name} is damaged", "--units 3")


def test_parts_without_checksums_are_checked_by_size(job: Job) -> None:
    assert job.run("--units", "0-4").exit_code == 0
    assert "checked by size only" not in succeeded("join", job.path)
    content = manifest_of(job.path)
    for part in content["parts"][:2]:
        del part["outcome"]["checksums"]
    job.manifest.write_text(json.dumps(content), encoding="utf-8")
    assert "2 parts checked by size only: no checksums" in succeeded("join", job.path)


def test_changed_input_is_refused(job: Job) -> None:
    with job.scan.with_suffix(".wdp").open("ab") as stream:
        stream.write(b"\0")
    message = f"unit 2: {job.scan} has changed: scan.wdp had "
    assert_error(job.run("--unit", "2"), message, "1 of 1 unit failed")
    assert_error(run("join", job.path), f"{job.scan} has changed: ", "5 of 5 parts are missing")


def test_other_version_is_refused(job: Job) -> None:
    content = manifest_of(job.path)
    content["package_version"] = "0.0.9"
    job.manifest.write_text(json.dumps(content), encoding="utf-8")
    assert_error(job.run("--unit", "2"), "the run needs 0.0.9; install the same version")


def test_failed_unit_does_not_stop_the_others(tmp_path: Path) -> None:
    """Its error is known to join, which can leave it out."""
    bad, good = (las_scan(tmp_path / name, shots=30) for name in ("bad.las", "good.las"))
    bad.with_suffix(".wdp").write_bytes(bad.with_suffix(".wdp").read_bytes()[:60])
    job = tmp_path / "job"
    succeeded("plan", bad, good, "-o", job, "--threshold", "20")
    assert_error_after(run("run", job, "--units", "0-1"), "unit 0: ", "1 of 2 units failed")
    assert_error(run("join", job), str(bad), "1 of 2 parts is missing", "--units 0")
    joined = run("join", job, "--skip-bad-files", "-o", tmp_path / "joined")
    assert joined.exit_code == 0, joined.output
    assert f"skipped: {bad}: " in joined.stderr
    assert names(tmp_path / "joined") == ["good.parquet"]
    assert [path.name for path in part_paths(job)] == ["good.part-00000.parquet"]


def assert_error_after(result: Result, *phrases: str) -> None:
    """As `assert_error`, after lines on units that were computed."""
    assert result.exit_code == 1, result.output
    (line,) = result.stderr.splitlines()
    assert all(phrase in line for phrase in phrases), line


def test_plan_with_bad_files(tmp_path: Path) -> None:
    scan, bad = las_scan(tmp_path / "scan.las", shots=30), tmp_path / "bad.las"
    bad.write_bytes(b"LASF")
    call = ("plan", bad, scan, "-o", tmp_path / "job", "--threshold", "20")
    assert_error(run(*call), str(bad), "1 of 2 files is bad, nothing was planned")
    assert not (tmp_path / "job").exists()
    result = run(*call, "--skip-bad-files")
    assert result.exit_code == 0, result.output
    assert result.stderr.startswith(f"skipped: {bad}: ")
    ran = run("run", tmp_path / "job", "--units", "0-1")
    assert ran.exit_code == 0
    assert f"unit 0: skipped when the run was planned: {bad}: " in ran.stdout
    succeeded("join", tmp_path / "job")


def test_plan_does_not_replace_a_plan(job: Job) -> None:
    assert_usage(run("plan", job.scan, "-o", job.path), "already contains a run")
    assert_usage(run("plan", job.scan, "-o", job.folder), "is not empty")


def test_joined_file_does_not_replace_others(job: Job, tmp_path: Path) -> None:
    assert job.run("--units", "0-4").exit_code == 0
    out = tmp_path / "joined.parquet"
    out.write_bytes(b"other")
    result = run("join", job.path, "-o", out, "--overwrite")
    assert_error(result, "exists and is not a Parquet file of echoes")
    assert_error(run("join", job.path, "-o", job.scan), "must end in .parquet, as the parts do")
    assert_error(run("join", job.path, "-o", tmp_path / "a.csv"), "must end in .parquet")
    out.unlink()
    succeeded("join", job.path, "-o", out)
    assert_error(run("join", job.path, "-o", out), "already exists; use --overwrite")
    succeeded("join", job.path, "-o", out, "--overwrite")


def test_parts_with_waveforms_are_whole_with_their_packets(tmp_path: Path) -> None:
    scan, job = las_scan(tmp_path / "scan.las", shots=60), tmp_path / "job"
    succeeded("plan", scan, "-o", job, "--with-waveforms", "--format", "las", "--threshold", "20")
    succeeded("run", job, "--unit", "0")
    (packets,) = job.glob("*.wdp")
    content = packets.read_bytes()
    packets.unlink()
    assert_error(run("join", job), "--units 0")
    succeeded("run", job, "--unit", "0")
    assert packets.read_bytes() == content
    flip_bit(packets)
    assert_error(run("join", job), f"part {packets.name} is damaged", "--units 0")
    succeeded("run", job, "--unit", "0")
    assert packets.read_bytes() == content


def test_run_without_echoes_is_an_error(tmp_path: Path) -> None:
    scan, job = las_scan(tmp_path / "scan.las", shots=30), tmp_path / "job"
    succeeded("plan", scan, "-o", job, "--threshold", "60000")
    succeeded("run", job, "--unit", "0")
    assert_error(run("join", job), "no echoes in ", "give a lower --threshold, or --allow-empty")
    succeeded("join", job, "--allow-empty")
