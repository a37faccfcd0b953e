"""Extraction of many files by executors of several kinds."""

from __future__ import annotations

import os
import sys
import threading
from collections.abc import Callable, Iterator
from concurrent.futures import (
    BrokenExecutor,
    CancelledError,
    ProcessPoolExecutor,
    ThreadPoolExecutor,
)
from contextlib import contextmanager
from multiprocessing import get_context
from pathlib import Path
from types import ModuleType, SimpleNamespace
from typing import Any

import numpy as np
import pyarrow.parquet
import pytest

import fullwaveform as fw
from fullwaveform import Scanner
from fullwaveform.cluster import read_parts
from fullwaveform.cluster.connection import connected
from fullwaveform.cluster.executors import ExecutorWorkers, local_executor, workers_of
from fullwaveform.cluster.plan import open_inputs
from fullwaveform.cluster.progress import JobProgress
from fullwaveform.io.base import WaveformReader
from fullwaveform.io.companions import with_companions
from fullwaveform.io.opening import open_waveforms
from fullwaveform.io.scanner_file import scanner_text

from ..docs.test_documents import code_blocks
from ..support.child_processes import TIMEOUT_S
from ..support.command_line import names, run
from ..support.echo_tables import assert_same_rows
from .scenes import las_scan, parts_table, pulsewaves_scan

BLOCKS = {"block": 40, "blocks_per_part": 3}
PARTS = 8


class Handle:
    """What some executors return: a result to wait for, and nothing else."""

    def __init__(self, work: Callable[[], str]) -> None:
        self._work = work

    def result(self) -> str:
        return self._work()


class OwnExecutor:
    """The least that an executor can be."""

    def __init__(self) -> None:
        self.submitted = 0

    def submit(self, function: Callable[[str], str], text: str) -> Handle:
        self.submitted += 1
        return Handle(lambda: function(text))


@contextmanager
def processes(address: str) -> Iterator[Any]:
    with ProcessPoolExecutor(2, get_context("spawn")) as executor:
        yield executor


@contextmanager
def threads(address: str) -> Iterator[Any]:
    with ThreadPoolExecutor(3) as executor:
        yield executor


@contextmanager
def dask_client(address: str) -> Iterator[Any]:
    with connected(address, 1) as client:
        yield client


@contextmanager
def dask_executor(address: str) -> Iterator[Any]:
    with connected(address, 1) as client, client.get_executor(pure=False) as executor:
        yield executor


@contextmanager
def own(address: str) -> Iterator[Any]:
    executor = OwnExecutor()
    yield executor
    assert executor.submitted == 2 + PARTS  # files are measured, too


@contextmanager
def none(address: str) -> Iterator[Any]:
    yield None


@pytest.fixture(scope="module")
def sources(tmp_path_factory: pytest.TempPathFactory) -> list[Path]:
    folder = tmp_path_factory.mktemp("sources")
    return [las_scan(folder / "a.las"), pulsewaves_scan(folder / "b.pls")]


@pytest.fixture(scope="module")
def expected(sources: list[Path], tmp_path_factory: pytest.TempPathFactory) -> Path:
    """The files that the command extract writes."""
    folder = tmp_path_factory.mktemp("expected")
    result = run("extract", *sources, "-o", folder, "--threshold", "20", "--block", "40", "-q")
    assert result.exit_code == 0, result.output
    return folder


@pytest.mark.parametrize("made", [threads, processes, dask_client, dask_executor, own, none])
def test_result_is_the_same_for_every_executor(
    made: Callable[[str], Any], address: str, sources: list[Path], expected: Path, tmp_path: Path
) -> None:
    stages: list[tuple[str, int, int]] = []
    with made(address) as executor:
        found = fw.extract_many(
            sources,
            tmp_path / "parts",
            executor=executor,
            threshold=20,
            progress=lambda *stage: stages.append(stage),
            **BLOCKS,
        )
    assert found.failures == {}
    assert names(tmp_path / "parts") == sorted(["manifest.json", *(p.name for p in found.parts)])
    assert len(found.parts) == PARTS
    tables = [pyarrow.parquet.read_table(expected / f"{name}.parquet") for name in "ab"]
    single = pyarrow.concat_tables([table.select(tables[1].column_names) for table in tables])
    assert found.echoes == len(single) > 500
    assert_same_rows(parts_table(found.folder), single)
    assert stages[-1] == ("parts done", PARTS, PARTS)
    assert {stage for stage, _, _ in stages} == {"files opened", "files measured", "parts done"}


class StandInForRay(ModuleType):
    """What the example of the document uses, in threads."""

    def __init__(self, pool: ThreadPoolExecutor) -> None:
        super().__init__("ray")
        self._pool = pool

    def init(self, address: str) -> None:
        assert address == "auto"

    def remote(self, function: Callable[..., Any]) -> Any:
        def submit(*arguments: Any) -> Any:
            future = self._pool.submit(function, *arguments)
            return SimpleNamespace(future=lambda: future)

        return SimpleNamespace(remote=submit)


def test_example_for_ray(
    sources: list[Path], expected: Path, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    (code,) = [block for block in code_blocks("docs/cluster.md", "python") if "ray" in block]
    for file in set(filter(Path.is_file, with_companions(sources[0]))):
        (tmp_path / file.name.replace("a.", "scan.")).symlink_to(file)
    monkeypatch.chdir(tmp_path)
    names: dict[str, Any] = {}
    with ThreadPoolExecutor(2) as pool:
        monkeypatch.setitem(sys.modules, "ray", StandInForRay(pool))
        exec(compile(code, "cluster.md", "exec"), names)
    assert names["job"].failures == {}
    found = parts_table(names["job"].folder)
    single = pyarrow.parquet.read_table(expected / "a.parquet").select(found.column_names)
    assert len(single) > 500
    # But for the name of the file and the size of blocks, which the example leaves to the default.
    assert_same_rows(found.replace_schema_metadata(), single.replace_schema_metadata())


def test_bad_files_do_not_stop_the_others(sources: list[Path], tmp_path: Path) -> None:
    missing, unreadable = tmp_path / "missing.las", las_scan(tmp_path / "empty.las", shots=20)
    packets = unreadable.with_suffix(".wdp")
    whole = packets.read_bytes()
    packets.write_bytes(whole[:60])
    inputs = [missing, sources[0], unreadable]
    found = fw.extract_many(inputs, tmp_path / "parts", threshold=20)
    assert list(found.failures) == [str(missing), str(unreadable)]
    assert "No such file or directory" in found.failures[str(missing)]
    assert "no readable waveform" in found.failures[str(unreadable)]
    assert [path.name for path in found.parts] == ["a.part-00000.parquet"]
    with pytest.raises(ValueError, match="2 of 3 parts are not finished"):
        next(read_parts(found.folder))

    packets.write_bytes(whole)
    with pytest.raises(ValueError, match=r"empty\.las has changed: empty\.wdp had 60 bytes"):
        fw.extract_many(inputs, found.folder, threshold=20, resume=True)


def test_resumed_call_completes_the_first(sources: list[Path], tmp_path: Path) -> None:
    missing = tmp_path / "missing.las"
    inputs = [missing, sources[0]]
    first = fw.extract_many(inputs, tmp_path / "parts", threshold=20)
    assert list(first.failures) == [str(missing)]
    before = first.parts[0].stat().st_mtime_ns
    las_scan(missing, shots=20, seed=3)
    with pytest.raises(ValueError, match="already contains a run"):
        fw.extract_many(inputs, first.folder, threshold=20)
    with pytest.raises(ValueError, match=r"settings\.threshold was 20, is 21"):
        fw.extract_many(inputs, first.folder, threshold=21, resume=True)
    second = fw.extract_many(inputs, first.folder, threshold=20, resume=True)
    assert second.failures == {}
    assert second.parts[1] == first.parts[0]
    assert first.parts[0].stat().st_mtime_ns == before
    assert second.waveforms > first.waveforms


@pytest.mark.parametrize(
    ("inputs", "options", "message"),
    [
        ([], {}, "no inputs"),
        (["a.las", "x/a.las"], {}, "would have the same name"),
        (["a.las"], {"mode": 7}, "invalid mode 7"),
        (["a.las"], {"mode": "pulse-fit", "threshold": 20}, "does not apply to mode pulse-fit"),
        (["a.las"], {"file_format": "pdf"}, r"part\.pdf must end in"),
        (["a.las"], {"file_format": "las", "keep_empty": True}, "cannot hold waveforms without"),
        (["a.las"], {"executor": 3}, r"invalid executor 3; expected an object with submit\("),
        (["gone.las"], {}, r"gone\.las: No such file or directory"),
    ],
)
def test_invalid_calls(
    inputs: list[str],
    options: dict[str, Any],
    message: str,
    sources: list[Path],
    tmp_path: Path,
) -> None:
    paths = [sources[0].parent / name for name in inputs]
    with pytest.raises(ValueError, match=message):
        fw.extract_many(paths, tmp_path / "parts", **options)
    assert not (tmp_path / "parts").exists()


def test_folder_with_other_files_is_refused(sources: list[Path], tmp_path: Path) -> None:
    (tmp_path / "file.txt").touch()
    with pytest.raises(ValueError, match="is not an empty folder"):
        fw.extract_many(sources, tmp_path)


@pytest.mark.parametrize(
    ("error", "message"),
    [
        (BrokenExecutor("a process\n\n has\tdied"), r"memory\?\): a process has died$"),
        (BrokenExecutor("a child process terminated abruptly"), "has lost a worker .out of memo"),
        (CancelledError(), "the executor has cancelled the units"),
        (ImportError("fullwaveform"), r"cannot run the extraction \(ImportError: fullwaveform\)"),
    ],
)
def test_lost_executor_ends_the_run(
    error: BaseException, message: str, sources: list[Path], tmp_path: Path
) -> None:
    class Broken(OwnExecutor):
        def submit(self, function: Callable[[str], str], text: str) -> Handle:
            def fail() -> str:
                raise error

            return super().submit(function, text) if self.submitted < 4 else Handle(fail)

    with pytest.raises(OSError, match=message):
        fw.extract_many(sources, tmp_path / "parts", executor=Broken(), threshold=20, **BLOCKS)
    # What was finished before is not lost.
    found = fw.extract_many(sources, tmp_path / "parts", threshold=20, resume=True, **BLOCKS)
    assert len(found.parts) == PARTS


@pytest.mark.parametrize(
    ("error", "message"),
    [
        (BrokenExecutor("a child process terminated abruptly"), "has lost a worker .out of memo"),
        (RuntimeError("cannot schedule new futures after shutdown"), r"RuntimeError: cannot sched"),
    ],
)
def test_executor_that_takes_no_units_ends_the_run(
    error: Exception, message: str, sources: list[Path], tmp_path: Path
) -> None:
    class Ended(OwnExecutor):
        def submit(self, function: Callable[[str], str], text: str) -> Handle:
            if self.submitted == 4:
                raise error
            return super().submit(function, text)

    with pytest.raises(OSError, match=message):
        fw.extract_many(sources, tmp_path / "parts", executor=Ended(), threshold=20, **BLOCKS)


def test_executor_whose_process_dies_ends_the_run(sources: list[Path], tmp_path: Path) -> None:
    class Dying:
        submitted = 0

        def submit(self, function: Callable[[str], str], text: str) -> Any:
            self.submitted += 1
            if self.submitted == 5:
                return pool.submit(os._exit, 9)
            return pool.submit(function, text)

    with (
        ProcessPoolExecutor(1, get_context("spawn")) as pool,
        pytest.raises(OSError, match=r"lost a worker \(out of memory\?\): A "),
    ):
        fw.extract_many(sources, tmp_path / "parts", executor=Dying(), threshold=20, **BLOCKS)
    found = fw.extract_many(sources, tmp_path / "parts", threshold=20, resume=True, **BLOCKS)
    assert found.failures == {}
    assert len(found.parts) == PARTS


def test_scanner_of_the_files_is_used(tmp_path: Path) -> None:
    scan = las_scan(tmp_path / "scan.las", shots=20)
    for name, unit in (("a", 0.25), ("b", 0.25), ("c", 0.5)):
        scanner = tmp_path / f"{name}.toml"
        described = Scanner.from_attributes({**Scanner.default().attributes, "ampl_unit": unit})
        scanner.write_text(scanner_text(described), encoding="utf-8")
        converted = run("convert", scan, tmp_path / f"{name}.h5", "--scanner", scanner)
        assert converted.exit_code == 0, converted.output
    paths = [tmp_path / "a.h5", tmp_path / "b.h5"]
    found = fw.extract_many(paths, tmp_path / "parts", threshold=20)
    assert found.failures == {}
    table = parts_table(found.folder)
    decibels = 20.0 * np.log10(table["amplitude"].to_numpy().astype(float) * 0.25)
    assert table["amplitude_db"].to_numpy() == pytest.approx(decibels, abs=1e-3)
    with pytest.raises(ValueError, match="the files contain different scanner descriptions"):
        fw.extract_many([*paths, tmp_path / "c.h5"], tmp_path / "other", threshold=20)


def test_inputs_are_opened_several_at_a_time(sources: list[Path]) -> None:
    both = threading.Barrier(2, timeout=TIMEOUT_S)  # passed only by two that wait at the same time

    def look(reader: WaveformReader) -> int:
        both.wait()
        return reader.point_count

    counts: list[int] = []
    progress = JobProgress(lambda stage, done, total: counts.append(done))
    found = open_inputs(sources, open_waveforms, look, progress)
    assert [Path(file.path) for file, _ in found] == sources
    counted = []
    for source in sources:
        with open_waveforms(source) as reader:
            counted.append(reader.point_count)
    assert [points for _, points in found] == counted
    assert counts == [1, 2]


def test_many_short_units_run_in_processes() -> None:
    """Threads for few, which are done before processes have started."""
    with local_executor(2, 63) as few, local_executor(1, 100) as single:
        assert isinstance(few, ThreadPoolExecutor)
        assert isinstance(single, ThreadPoolExecutor)
    with local_executor(2, 64) as many:
        assert isinstance(many, ProcessPoolExecutor)


def test_executor_is_kept_busy_and_its_units_are_cancelled() -> None:
    class Cancelled:
        cancelled = False

        def cancel(self) -> None:
            self.cancelled = True

    workers = workers_of(OwnExecutor())
    assert isinstance(workers, ExecutorWorkers)
    assert workers.has_workers()
    assert workers.capacity() >= 100
    future = Cancelled()
    workers.cancel([future, Handle(str)])
    assert future.cancelled
