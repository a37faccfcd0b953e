"""Invalid calls of ``fullwaveform cluster``, and errors before and during a run."""

from __future__ import annotations

import logging
import sys
import threading
from collections import Counter
from dataclasses import replace
from pathlib import Path

import pytest

import fullwaveform
from fullwaveform.cluster import part_paths
from fullwaveform.cluster.connection import connected
from fullwaveform.cluster.folder import JobFolder
from fullwaveform.cluster.inputs import InputFile, states_of
from fullwaveform.cluster.manifest import Manifest, Part
from fullwaveform.cluster.settings import JobSettings
from fullwaveform.cluster.work import (
    UnitResult,
    count_blocks,
    extract_unit,
    part_unit,
    read_result,
)
from fullwaveform.core.messages import counted_messages, logger
from fullwaveform.core.scanner import Scanner
from fullwaveform.extraction.extractor import ExtractionSettings

from ..support.child_processes import TIMEOUT_S
from ..support.command_line import assert_error, assert_usage, names, run
from .processes import scheduler
from .scenes import las_scan, states

ADDRESS = "127.0.0.1:8786"


@pytest.fixture
def scan(tmp_path: Path) -> Path:
    return las_scan(tmp_path / "scan.las", shots=60)


@pytest.mark.parametrize(
    "options", [["--cluster", "local"], ["--resume"], ["--unit-blocks=3"], ["--part-format", "las"]]
)
def test_extract_refers_to_the_command_for_former_options(scan: Path, options: list[str]) -> None:
    result = run("extract", scan, "-o", scan.with_name("echoes.las"), *options)
    message = f"{options[0].split('=')[0]}: runs on several processes or machines have their own"
    assert_usage(result, message)
    assert "see fullwaveform cluster --help" in result.stderr
    assert names(scan.parent) == ["scan.las", "scan.wdp", "scan_truth.csv"]


@pytest.mark.parametrize(
    ("options", "message"),
    [
        ([], "Missing option '--scheduler'"),
        (["--scheduler", "here"], "'here' must be 'local' or the address of a Dask scheduler"),
        (["--scheduler", "tcp://here"], "'tcp://here' must be 'local' or the address"),
        (
            ["--scheduler", ADDRESS, "--workers", "2"],
            f"applies only to --scheduler local; the scheduler at {ADDRESS} has its own workers",
        ),
        (["--scheduler", ADDRESS, "--format", "pdf"], "'pdf' must be one of las, laz, csv, parq"),
        (
            ["--scheduler", ADDRESS, "--format", "las", "--keep-empty"],
            "--format",
        ),
    ],
)
def test_invalid_options(scan: Path, options: list[str], message: str) -> None:
    result = run("cluster", scan, *options, "-o", scan.with_name("parts"))
    assert_usage(result, message)
    assert names(scan.parent) == ["scan.las", "scan.wdp", "scan_truth.csv"]


def test_output_must_be_a_new_or_empty_folder(scan: Path, tmp_path: Path) -> None:
    def refused(output: Path, message: str) -> None:
        assert_usage(run("cluster", scan, "-o", output, "--scheduler", ADDRESS), message)

    refused(tmp_path / "echoes.parquet", "must be a folder; the format of its files is given by")
    refused(scan, "must be a folder")
    refused(tmp_path, "is not empty; choose a new or empty folder")
    (tmp_path / "parts").mkdir()
    (tmp_path / "parts" / "manifest.json").touch()
    refused(tmp_path / "parts", "already contains a run; continue it with --resume")


def test_input_given_twice_is_refused(scan: Path, tmp_path: Path) -> None:
    again = tmp_path / ".." / tmp_path.name / scan.name
    call = ("cluster", scan, again, "-o", tmp_path / "parts", "--scheduler", ADDRESS)
    assert_usage(run(*call), "is given twice")


def test_missing_dask_is_reported_with_the_install_command(
    scan: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setitem(sys.modules, "distributed", None)
    result = run("cluster", scan, "-o", scan.with_name("parts"), "--scheduler", "local")
    assert_error(result, "install it with: pip install 'fullwaveform[cluster]'")


def test_extract_does_not_load_dask(scan: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setitem(sys.modules, "distributed", None)
    monkeypatch.setitem(sys.modules, "dask", None)
    monkeypatch.delitem(sys.modules, "fullwaveform.cli.cluster", raising=False)
    assert run("extract", scan, "-o", scan.with_name("e.csv"), "--threshold", "20").exit_code == 0


def test_unreachable_scheduler_is_an_error() -> None:
    with (
        pytest.raises(OSError, match=r"cannot connect to the scheduler at 127\.0\.0\.1:9: "),
        connected("127.0.0.1:9", 1, connect_timeout=0.5),
    ):
        raise AssertionError


def test_scheduler_without_workers_is_an_error(tmp_path: Path) -> None:
    with (
        scheduler(tmp_path) as (address, _),
        pytest.raises(OSError, match="has no workers; start some with: dask worker tcp://"),
        connected(address, 1, worker_timeout=0.2),
    ):
        raise AssertionError


def test_lost_connections_are_not_logged(address: str, capfd: pytest.CaptureFixture[str]) -> None:
    with connected(address, 1):
        for name in ("distributed.client", "distributed.scheduler", "asyncio"):
            logging.getLogger(name).error("connection lost")
    assert capfd.readouterr().err == ""
    assert not logging.getLogger("asyncio").disabled


def test_run_of_bad_files_only_is_refused(address: str, tmp_path: Path) -> None:
    bad, missing = tmp_path / "bad.las", tmp_path / "missing.las"
    bad.write_bytes(b"LASF")
    call = ("cluster", bad, missing, "-o", tmp_path / "parts", "--scheduler", address)
    assert_error(run(*call), str(bad), f"{missing}: No such file or directory")
    assert not (tmp_path / "parts").exists()


def test_bad_files_do_not_stop_the_others(address: str, scan: Path, tmp_path: Path) -> None:
    bad, missing, folder = tmp_path / "bad.las", tmp_path / "missing.las", tmp_path / "parts"
    bad.write_bytes(b"LASF")
    call = ("cluster", bad, scan, missing, "-o", folder, "--scheduler", address)
    call = (*call, "--threshold", "20")
    assert_error(run(*call), str(bad), f"{missing}: No such file", "2 of 3 parts are missing")
    failed, done, skipped = "failed", "done", "skipped"
    parts = ("bad.part-00000.parquet", "scan.part-00000.parquet", "missing.part-00000.parquet")
    assert states(folder) == dict(zip(parts, (failed, done, failed), strict=True))
    with pytest.raises(ValueError, match="2 of 3 parts are not finished"):
        part_paths(folder)
    skipping = run(*call, "--resume", "--skip-bad-files")
    assert skipping.exit_code == 0, skipping.output
    assert f"skipped: {missing}: No such file or directory" in skipping.stderr
    assert states(folder) == dict(zip(parts, (skipped, done, skipped), strict=True))
    assert [path.name for path in part_paths(folder)] == [parts[1]]
    # Repaired files are planned as in a new run.
    for path, seed in ((bad, 3), (missing, 4)):
        path.unlink(missing_ok=True)
        las_scan(path, shots=30, seed=seed)
    resumed = run(*call, "--resume")
    assert resumed.exit_code == 0, resumed.output
    fresh = tmp_path / "fresh"
    call = ("cluster", bad, scan, missing, "-o", fresh, "--scheduler", address)
    assert run(*call, "--threshold", "20").exit_code == 0
    assert names(folder) == names(fresh)
    for name in parts:
        assert (folder / name).read_bytes() == (fresh / name).read_bytes()


def test_inputs_of_one_name_are_refused(scan: Path, tmp_path: Path) -> None:
    call = ("cluster", scan, tmp_path / "scan.pls", "-o", tmp_path / "parts")
    assert_usage(run(*call, "--scheduler", "local"), "would have the same name")


def test_run_without_echoes_is_an_error(address: str, scan: Path, tmp_path: Path) -> None:
    call = ("cluster", scan, "--scheduler", address, "--threshold", "60000", "-o")
    assert_error(run(*call, tmp_path / "none"), "no echoes in ", "--allow-empty")
    assert run(*call, tmp_path / "allowed", "--allow-empty").exit_code == 0


def test_unreadable_file_affects_only_its_own_part(
    address: str, scan: Path, tmp_path: Path
) -> None:
    bad = las_scan(tmp_path / "bad.las", shots=30)
    bad.with_suffix(".wdp").write_bytes(bad.with_suffix(".wdp").read_bytes()[:60])
    folder = tmp_path / "parts"
    result = run("cluster", bad, scan, "-o", folder, "--scheduler", address, "--threshold", "20")
    assert_error(result, f"{bad}: no readable waveform", "1 of 2 parts is missing")
    assert states(folder) == {"bad.part-00000.parquet": "failed", "scan.part-00000.parquet": "done"}
    assert names(folder) == ["manifest.json", "scan.part-00000.parquet"]


def unit(scan: Path, folder: Path, version: str = fullwaveform.__version__) -> str:
    settings = JobSettings.of(
        ExtractionSettings(Scanner.default(), threshold=20),
        1,
        block=20,
        blocks_per_part=2,
        part_format="csv",
    )
    source = InputFile(str(scan), states_of(scan), blocks=2)
    part = Part(0, 0, 0, 2, "scan.part-00000.csv")
    return part_unit(Manifest(3, version, settings, [source], [part]), part, JobFolder(folder))


def error_of(result: str) -> UnitResult:
    found = read_result(result)
    assert found.error != ""
    assert found.outcome is None
    return found


def test_repeated_unit_writes_the_same_file(scan: Path, tmp_path: Path) -> None:
    (tmp_path / "manifest.json").touch()
    outcome = read_result(extract_unit(unit(scan, tmp_path))).outcome
    content = (tmp_path / "scan.part-00000.csv").read_bytes()
    assert outcome is not None
    assert content.count(b"\n") == outcome.rows + 1 > 20
    again = read_result(extract_unit(unit(scan, tmp_path))).outcome
    assert again is not None
    assert again == replace(outcome, seconds=again.seconds)
    assert (tmp_path / "scan.part-00000.csv").read_bytes() == content


def test_worker_with_different_folder_version_or_file_is_an_error(
    scan: Path, tmp_path: Path
) -> None:
    result = error_of(extract_unit(unit(scan, tmp_path / "elsewhere")))
    assert result.ends_run
    assert "all machines must share it under the same path" in result.error
    result = error_of(count_blocks(unit(scan, tmp_path, version="0.0.9")))
    assert result.ends_run
    assert "the run needs 0.0.9; install the same version on all machines" in result.error
    text = unit(scan, tmp_path)
    (tmp_path / "manifest.json").touch()
    scan.unlink()
    result = error_of(extract_unit(text))
    assert (result.error, result.ends_run) == (f"{scan}: No such file or directory", True)


def test_file_changed_during_the_run_is_refused(scan: Path, tmp_path: Path) -> None:
    (tmp_path / "manifest.json").touch()
    text = unit(scan, tmp_path)
    with scan.with_suffix(".wdp").open("ab") as stream:
        stream.write(b"\0")
    result = error_of(extract_unit(text))
    assert not result.ends_run
    assert f"{scan} has changed: scan.wdp had " in result.error
    assert not (tmp_path / "scan.part-00000.csv").exists()


def test_messages_are_counted_per_thread() -> None:
    counted: dict[str, Counter[str]] = {}
    both = threading.Barrier(2, timeout=TIMEOUT_S)

    def work(name: str, times: int) -> None:
        with counted_messages(own_thread=True) as kinds:
            both.wait()
            for number in range(times):
                logger.warning("%s %d", name, number)
            both.wait()
        counted[name] = kinds

    threads = [threading.Thread(target=work, args=arguments) for arguments in (("a", 3), ("b", 5))]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert counted == {"a": {"a …": 3}, "b": {"b …": 5}}
