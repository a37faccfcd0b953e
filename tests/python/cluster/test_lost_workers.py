"""Lost workers: no echo is missing or duplicated."""

from __future__ import annotations

import os
import signal
from pathlib import Path

from fullwaveform.cluster import part_paths

from ..support.child_processes import TIMEOUT_S, wait_until
from ..support.command_line import names, run
from ..support.echo_tables import assert_same_rows
from .processes import command, hold, scheduler, workers
from .scenes import (
    done_parts,
    las_scan,
    manifest_of,
    parts_table,
    pulsewaves_scan,
    single_run,
    states,
    table_lines,
)

OPTIONS = ("--threshold", "20", "--block", "40", "--blocks-per-part", "3")
SINGLE = OPTIONS[:4]


def test_part_of_a_killed_worker_is_repeated(tmp_path: Path) -> None:
    """The remaining worker repeats the half-written part and does all others."""
    scan, folder, test = las_scan(tmp_path / "scan.las"), tmp_path / "parts", tmp_path / "test"
    test.mkdir()
    with (
        scheduler(test) as (address, _),
        workers(address, 2, **hold(test, block=6)) as both,
    ):
        first = command("cluster", scan, "-o", folder, *OPTIONS, "--scheduler", address)
        wait_until((test / "held").exists)
        pid = int((test / "held").read_text(encoding="ascii"))
        assert pid in [worker.pid for worker in both]
        assert any(path.name.startswith(".scan.part-00002") for path in folder.iterdir())
        (test / "go").touch()  # for the worker that gets it next
        os.kill(pid, signal.SIGKILL)
        stdout, stderr = first.communicate(timeout=TIMEOUT_S)
        assert first.returncode == 0, stderr
        # One worker was killed, the other one runs to the end.
        wait_until(lambda: -signal.SIGKILL in [worker.poll() for worker in both])
        assert sorted(worker.poll() is None for worker in both) == [False, True]
    expected = single_run(scan, tmp_path / "single.parquet", *SINGLE)
    assert_same_rows(parts_table(folder), expected)
    assert len(part_paths(folder)) == 5
    assert names(folder) == ["manifest.json", *(path.name for path in part_paths(folder))]
    (row,) = [line for line in table_lines(stdout) if line.startswith("echoes written")]
    assert f"| {expected.num_rows:,} |" in row


def test_part_that_kills_every_worker_is_marked_as_failed(address: str, tmp_path: Path) -> None:
    """New workers replace the lost ones; the other parts and files are finished."""
    sources = [las_scan(tmp_path / "scan.las"), pulsewaves_scan(tmp_path / "b.pls", pulses=60)]
    folder = tmp_path / "parts"
    call = ("cluster", *sources, "-o", folder, *OPTIONS, "-q")  # no lines on a busy machine
    local = ("--scheduler", "local", "--workers", "2")
    killing = hold(tmp_path, block=6, HOLD_KILLS="1")
    # The scheduler abandons a unit after two lost workers, to keep the test short, and no other
    # unit waits at a worker that is lost.
    settings = {"ALLOWED_FAILURES": "1", "WORKER_SATURATION": "1.0"}
    variables = {f"DASK_DISTRIBUTED__SCHEDULER__{name}": value for name, value in settings.items()}
    first = command(*call, *local, **killing, **variables)
    stdout, stderr = first.communicate(timeout=TIMEOUT_S)
    assert (first.returncode, stdout) == (1, ""), stderr
    assert stderr.count("\n") == 1, stderr
    line = stderr.rstrip()
    assert line.startswith(
        f"fullwaveform: {sources[0]}: unit failed on 2 workers (out of memory?); reduce --block"
    )
    assert "1 of 7 parts is missing, the others are kept" in line
    assert [name for name, state in states(folder).items() if state != "done"] == (
        ["scan.part-00002.parquet"]
    )
    (failed,) = [part for part in manifest_of(folder)["parts"] if part["state"] == "failed"]
    assert "unit failed on 2 workers" in failed["error"]
    assert names(folder) == sorted(["manifest.json", *(set(states(folder)) - {failed["file"]})])
    again = run(*call, "--scheduler", address, "--resume")
    assert again.exit_code == 0, again.output
    expected = single_run(sources[0], tmp_path / "single.parquet", *SINGLE)
    assert_same_rows(parts_table(folder).slice(0, expected.num_rows), expected)


def test_lost_scheduler_ends_the_run(tmp_path: Path) -> None:
    scan, folder, test = las_scan(tmp_path / "scan.las"), tmp_path / "parts", tmp_path / "test"
    test.mkdir()
    with (
        scheduler(test) as (address, process),
        workers(address, 2, **hold(test, block=6)),
    ):
        call = ("cluster", scan, "-o", folder, *OPTIONS, "-q")  # no lines on a busy machine
        first = command(*call, "--scheduler", address)
        wait_until(lambda: (test / "held").exists() and done_parts(folder) == 4)
        process.kill()
        stdout, stderr = first.communicate(timeout=TIMEOUT_S)
        assert (first.returncode, stdout) == (1, ""), stderr
    assert stderr.count("\n") == 1, stderr
    line = stderr.rstrip()
    assert line.startswith("fullwaveform: connection to the scheduler lost")
    assert done_parts(folder) == 4
