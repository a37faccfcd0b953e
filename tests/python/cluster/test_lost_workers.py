"""Workers that are lost in the middle of a run: nothing is missing, nothing is there twice."""

from __future__ import annotations

import os
import signal
from pathlib import Path

from fullwaveform.cluster import part_paths

from ..support.child_processes import PATIENCE, until
from ..support.command_line import names, run
from .processes import command, hold, scheduler, workers
from .scenes import (
    assert_same_rows,
    las_scan,
    manifest_of,
    parts_table,
    pulsewaves_scan,
    single_run,
    states,
    table_lines,
)

OPTIONS = ("--noise", "20", "--block", "40", "--unit-blocks", "3")
SINGLE = OPTIONS[:4]


def test_a_worker_killed_while_it_writes(tmp_path: Path) -> None:
    """It is killed with its part half written; the one that is left does all the rest."""
    scan, folder, test = las_scan(tmp_path / "scan.las"), tmp_path / "parts", tmp_path / "test"
    test.mkdir()
    with (
        scheduler(test) as (address, _),
        workers(address, 2, **hold(test, block=6)) as both,
    ):
        first = command("extract", scan, "-o", folder, *OPTIONS, "--cluster", address)
        until((test / "held").exists)
        pid = int((test / "held").read_text(encoding="ascii"))
        assert pid in [worker.pid for worker in both]
        assert any(path.name.startswith(".part-00002") for path in folder.iterdir())
        (test / "go").touch()  # for the one that gets it next
        os.kill(pid, signal.SIGKILL)
        shown, told = first.communicate(timeout=PATIENCE)
        assert first.returncode == 0, told
        # One worker is gone by the signal, the other one is there to the end.
        assert sorted(worker.poll() is None for worker in both) == [False, True]
        until(lambda: -signal.SIGKILL in [worker.poll() for worker in both])
    expected = single_run(scan, tmp_path / "single.parquet", *SINGLE)
    assert_same_rows(parts_table(folder), expected)
    assert len(part_paths(folder)) == 5
    assert names(folder) == ["manifest.json", *(path.name for path in part_paths(folder))]
    (row,) = [line for line in table_lines(shown) if line.startswith("echoes written")]
    assert f"| {expected.num_rows:,} |" in row


def test_a_range_that_kills_every_worker(address: str, tmp_path: Path) -> None:
    """New workers take the place of the lost ones; the other parts and files are finished."""
    sources = [las_scan(tmp_path / "scan.las"), pulsewaves_scan(tmp_path / "b.pls", pulses=60)]
    folder = tmp_path / "parts"
    call = ("extract", *sources, "-o", folder, *OPTIONS)
    local = ("--cluster", "local", "--workers", "2")
    killing = hold(tmp_path, block=6, HOLD_KILLS="1")
    # The scheduler gives a unit up at its second death, to keep the test short.
    first = command(*call, *local, **killing, DASK_DISTRIBUTED__SCHEDULER__ALLOWED_FAILURES="1")
    shown, told = first.communicate(timeout=PATIENCE)
    assert (first.returncode, shown) == (1, ""), told
    assert told.count("\n") == 1, told
    line = told.rstrip()
    assert line.startswith(f"fullwaveform: {sources[0]}: 2 workers died one after the other")
    assert "1 of 7 parts are missing, the others are kept" in line
    assert [name for name, state in states(folder).items() if state != "done"] == (
        ["part-00002.parquet"]
    )
    (failed,) = [part for part in manifest_of(folder)["parts"] if part["state"] == "failed"]
    assert "2 workers died" in failed["trouble"]
    assert names(folder) == sorted(["manifest.json", *(set(states(folder)) - {failed["file"]})])
    again = run(*call, "--cluster", address, "--resume")
    assert again.exit_code == 0, again.output
    expected = single_run(sources[0], tmp_path / "single.parquet", *SINGLE)
    assert_same_rows(parts_table(folder).slice(0, expected.num_rows), expected)


def test_the_scheduler_is_lost(tmp_path: Path) -> None:
    scan, folder, test = las_scan(tmp_path / "scan.las"), tmp_path / "parts", tmp_path / "test"
    test.mkdir()
    quick = {"DASK_DISTRIBUTED__COMM__TIMEOUTS__CONNECT": "2s"}
    with (
        scheduler(test) as (address, process),
        workers(address, 2, **hold(test, block=6)),
    ):
        call = ("extract", scan, "-o", folder, *OPTIONS)
        first = command(*call, "--cluster", address, **quick)
        until(lambda: (test / "held").exists() and list(states(folder).values()).count("done") == 4)
        process.kill()
        shown, told = first.communicate(timeout=PATIENCE)
        assert (first.returncode, shown) == (1, ""), told
    assert told.count("\n") == 1, told
    line = told.rstrip()
    assert line.startswith("fullwaveform: the connection to the scheduler is lost")
    assert list(states(folder).values()).count("done") == 4
