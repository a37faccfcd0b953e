"""Calls that contradict themselves, and trouble before and during a run."""

from __future__ import annotations

import sys
import threading
from collections import Counter
from pathlib import Path

import pytest

import fullwaveform
from fullwaveform.cluster.connection import connected
from fullwaveform.cluster.inputs import states_of
from fullwaveform.cluster.message_counts import messages_of_this_thread
from fullwaveform.cluster.plain import to_plain
from fullwaveform.cluster.settings import JobSettings
from fullwaveform.cluster.work import Plain, Unit, count_blocks, extract_unit
from fullwaveform.core.messages import logger
from fullwaveform.core.scanner import Scanner
from fullwaveform.extraction.extractor import ExtractionSettings

from ..support.command_line import assert_trouble, assert_usage, names, run
from .processes import scheduler
from .scenes import las_scan, states

ADDRESS = "127.0.0.1:8786"


@pytest.fixture
def scan(tmp_path: Path) -> Path:
    return las_scan(tmp_path / "scan.las", shots=60)


@pytest.mark.parametrize(
    ("options", "sentence"),
    [
        (["--resume"], "--resume: is for a run with --cluster"),
        (["--unit-blocks", "3"], "--unit-blocks: is for a run with --cluster"),
        (["--part-format", "las"], "--part-format: is for a run with --cluster"),
        (["other.las"], "2 files are extracted together with --cluster only"),
        (["--cluster", "here"], "'here' is neither local nor the address of a scheduler"),
        (["--cluster", "tcp://here"], "'tcp://here' is neither local nor the address"),
        (["--cluster", ADDRESS, "--verbose"], "waveforms are not told one by one with --cluster"),
        (["--cluster", ADDRESS, "--workers", "2"], f"are those of the scheduler at {ADDRESS}"),
        (["--cluster", ADDRESS, "--part-format", "pdf"], "'pdf' is none of las, laz, csv, parq"),
        (
            ["--cluster", ADDRESS, "--part-format", "las", "--keep-empty"],
            "cannot hold waveforms without echoes",
        ),
    ],
)
def test_contradictions(scan: Path, options: list[str], sentence: str) -> None:
    result = run("extract", scan, *options, "-o", scan.with_name("parts.of.it"))
    if "--cluster" not in options:
        result = run("extract", scan, *options, "-o", scan.with_name("echoes.las"))
    assert_usage(result, sentence)
    assert names(scan.parent) == ["scan.las", "scan.wdp", "scan_truth.csv"]


def test_the_output_is_a_folder(scan: Path, tmp_path: Path) -> None:
    def refused(output: Path, sentence: str) -> None:
        assert_usage(run("extract", scan, "-o", output, "--cluster", ADDRESS), sentence)

    refused(tmp_path / "echoes.parquet", "is a single file; with --cluster name a folder")
    refused(scan, "is a single file; with --cluster name a folder")
    refused(tmp_path, "holds files already; name a new or an empty folder")
    (tmp_path / "parts").mkdir()
    (tmp_path / "parts" / "manifest.json").touch()
    refused(tmp_path / "parts", "holds a run already: continue it with --resume")


def test_a_file_is_named_once(scan: Path, tmp_path: Path) -> None:
    again = tmp_path / ".." / tmp_path.name / scan.name
    call = ("extract", scan, again, "-o", tmp_path / "parts", "--cluster", ADDRESS)
    assert_usage(run(*call), "is named twice")


def test_the_library_is_missing(scan: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setitem(sys.modules, "distributed", None)
    result = run("extract", scan, "-o", scan.with_name("parts"), "--cluster", "local")
    assert_trouble(result, "install it with: pip install 'fullwaveform[cluster]'")


def test_the_library_is_not_loaded_without_need(
    scan: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setitem(sys.modules, "distributed", None)
    monkeypatch.setitem(sys.modules, "dask", None)
    monkeypatch.delitem(sys.modules, "fullwaveform.cli.cluster", raising=False)
    assert run("extract", scan, "-o", scan.with_name("e.csv"), "--noise", "20").exit_code == 0


def test_there_is_no_scheduler() -> None:
    with (
        pytest.raises(OSError, match=r"no scheduler to be reached at 127\.0\.0\.1:9: "),
        connected("127.0.0.1:9", 1, patience=0.5),
    ):
        raise AssertionError


def test_there_are_no_workers(tmp_path: Path) -> None:
    with (
        scheduler(tmp_path) as (address, _),
        pytest.raises(OSError, match="has no workers; start some with: dask worker tcp://"),
        connected(address, 1, patience=0.5),
    ):
        raise AssertionError


def test_an_input_that_is_none_is_told_before_anything_is_written(
    address: str, scan: Path, tmp_path: Path
) -> None:
    bad = tmp_path / "bad.las"
    bad.write_bytes(b"LASF and nothing else")
    call = ("extract", scan, bad, "-o", tmp_path / "parts", "--cluster", address)
    assert_trouble(run(*call), str(bad))
    assert not (tmp_path / "parts").exists()
    missing = tmp_path / "missing.las"
    call = ("extract", scan, missing, "-o", tmp_path / "parts", "--cluster", address)
    assert_trouble(run(*call), f"{missing}: No such file or directory")


def test_a_file_without_a_readable_waveform_costs_its_own_part_only(
    address: str, scan: Path, tmp_path: Path
) -> None:
    bad = las_scan(tmp_path / "bad.las", shots=30)
    bad.with_suffix(".wdp").write_bytes(bad.with_suffix(".wdp").read_bytes()[:60])
    folder = tmp_path / "parts"
    result = run("extract", bad, scan, "-o", folder, "--cluster", address, "--noise", "20")
    assert_trouble(result, f"{bad}: no readable waveform", "1 of 2 parts are missing")
    assert states(folder) == {"part-00000.parquet": "failed", "part-00001.parquet": "done"}
    assert names(folder) == ["manifest.json", "part-00001.parquet"]


def unit(scan: Path, folder: Path, version: str = fullwaveform.__version__) -> Plain:
    settings = JobSettings.of(
        ExtractionSettings(Scanner.default(), threshold=20),
        1,
        block=20,
        unit_blocks=2,
        part_format="csv",
    )
    output = str(folder / "part-00000.csv")
    plain: Plain = to_plain(
        Unit(version, settings, str(scan), states_of(scan), first=0, stop=2, output=output)
    )
    return plain


def test_a_unit_done_again_is_the_same_file(scan: Path, tmp_path: Path) -> None:
    (tmp_path / "manifest.json").touch()
    first = extract_unit(unit(scan, tmp_path))
    content = (tmp_path / "part-00000.csv").read_bytes()
    assert content.count(b"\n") == first["outcome"]["rows"] + 1 > 20
    assert extract_unit(unit(scan, tmp_path)) == first
    assert (tmp_path / "part-00000.csv").read_bytes() == content


def test_a_worker_that_is_not_fit_for_the_job(scan: Path, tmp_path: Path) -> None:
    result = extract_unit(unit(scan, tmp_path / "elsewhere"))
    assert result["ends_the_job"]
    assert "all machines must see the same one under this name" in result["trouble"]
    result = count_blocks(unit(scan, tmp_path, version="0.0.9"))
    assert result["ends_the_job"]
    assert "the job is of version 0.0.9; all machines must have the same" in result["trouble"]
    plain = unit(scan, tmp_path)
    scan.unlink()
    result = extract_unit(plain)
    assert result == {"trouble": f"{scan}: No such file or directory", "ends_the_job": True}


def test_a_file_that_changes_during_the_job(scan: Path, tmp_path: Path) -> None:
    (tmp_path / "manifest.json").touch()
    plain = unit(scan, tmp_path)
    with scan.with_suffix(".wdp").open("ab") as stream:
        stream.write(b"\0")
    result = extract_unit(plain)
    assert not result["ends_the_job"]
    assert f"{scan} has changed: scan.wdp had " in result["trouble"]
    assert not (tmp_path / "part-00000.csv").exists()


def test_messages_are_counted_for_each_thread_alone() -> None:
    counted: dict[str, Counter[str]] = {}
    both = threading.Barrier(2, timeout=60)

    def work(name: str, times: int) -> None:
        with messages_of_this_thread() as kinds:
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
