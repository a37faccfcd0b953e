"""Signals, cancellation and progress while a block of very expensive waveforms is computed."""

from __future__ import annotations

import os
import signal
import subprocess
import sys
import threading
import time
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from pathlib import Path

import numpy as np
import pytest

from fullwaveform import Driver, Mode, RowState, Scanner
from fullwaveform.cli.progress import extracted_points
from fullwaveform.core.driver import Cancelled, RunMonitor
from fullwaveform.data.arrays import UInt16Array
from fullwaveform.extraction.extractor import ExtractionSettings
from fullwaveform.extraction.pipeline import extracted_blocks
from fullwaveform.io.opening import open_waveforms

from ..support.child_processes import environment, started, wait_until
from ..support.command_line import names

# The end takes one second of processor time, the block would take about 600.
MAX_SECONDS = 30.0
MAX_WAIT_S = 120.0  # on a busy machine
SETTINGS = ExtractionSettings(scanner=Scanner.default(), mode=Mode.DECOMPOSITION, threshold=0)


def noise(waveforms: int, samples: int = 400) -> UInt16Array:
    """Noise whose decomposition takes about 0.03 s per waveform."""
    return np.random.default_rng(1).integers(0, 256, (waveforms, samples)).astype(np.uint16)


@pytest.fixture(scope="module")
def slow_scan(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """One block that takes minutes."""
    path = tmp_path_factory.mktemp("scan") / "noise.npz"
    count = 20_000  # those of a block
    np.savez(
        path,
        samples=noise(count),
        sampling_interval=1e-9,
        anchor=np.zeros((count, 3)),
        location=np.zeros(count),
        direction=np.full((count, 3), 1e-4),
    )
    return path


@pytest.mark.parametrize("workers", ["1", "2"])
@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_signal_during_a_block_ends_the_run(
    slow_scan: Path, tmp_path: Path, workers: str, number: signal.Signals
) -> None:
    call = ["extract", slow_scan, "-o", tmp_path / "e.csv", "--workers", workers]
    stderr = stderr_of_ended_run(call, number, lambda: has_part(tmp_path, 1))
    assert stderr.endswith("; no result was written\n")
    assert names(tmp_path) == []


@pytest.mark.parametrize("jobs", [1, 2])
def test_signal_during_blocks_of_several_files_ends_the_run(
    slow_scan: Path, tmp_path: Path, jobs: int
) -> None:
    copy, folder = tmp_path / "copy.npz", tmp_path / "out"
    copy.symlink_to(slow_scan)
    call = ["extract", slow_scan, copy, "-o", folder, "--format", "csv", "--jobs", str(jobs)]
    stderr_of_ended_run(call, signal.SIGINT, lambda: has_part(folder, jobs))
    assert names(folder) == []


def has_part(folder: Path, count: int) -> bool:
    """Whether so many CSV files have been begun."""
    return len(list(folder.glob(".*.csv.*.part"))) == count


def stderr_of_ended_run(
    call: list[object], number: signal.Signals, is_in_block: Callable[[], bool]
) -> str:
    """Send a signal to a command half a second after its first block began.

    It must end long before the block would.
    """
    options = ["--mode", "decomposition", "--threshold", "0"]
    process = started(
        subprocess.Popen(
            [sys.executable, "-m", "fullwaveform", *map(str, call), *options],
            env=environment(),
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
            start_new_session=True,
        )
    )
    wait_until(is_in_block)
    time.sleep(0.5)
    process.send_signal(number)
    _, stderr = process.communicate(timeout=MAX_WAIT_S)
    assert process.returncode == 128 + number, stderr
    return stderr


@contextmanager
def interrupted_in_a_block(monitor: RunMonitor) -> Iterator[None]:
    """Send SIGINT to this process when the monitor has counted a waveform of the block."""
    ended = threading.Event()

    def send() -> None:
        while not ended.wait(0.01):
            if monitor.waveforms_done > 0:
                os.kill(os.getpid(), signal.SIGINT)
                return

    sender = threading.Thread(target=send)
    sender.start()
    try:
        yield
    finally:
        ended.set()
        sender.join()


@pytest.mark.parametrize("workers", [1, 2])
def test_exception_of_a_signal_handler_ends_a_call(slow_scan: Path, workers: int) -> None:
    """As Ctrl-C in an interactive session."""
    start, monitor = time.process_time(), RunMonitor()
    with (
        open_waveforms(slow_scan) as reader,
        pytest.raises(KeyboardInterrupt),
        interrupted_in_a_block(monitor),
    ):
        list(extracted_blocks(reader.blocks(), SETTINGS, workers, monitor))
    assert time.process_time() - start < MAX_SECONDS


def test_closing_the_extraction_ends_the_blocks_in_progress(slow_scan: Path) -> None:
    before = set(threading.enumerate())
    with open_waveforms(slow_scan, waveforms_per_block=1) as reader:
        quick = next(reader.blocks())
    with open_waveforms(slow_scan) as reader:
        slow = next(reader.blocks())
        extracted = extracted_blocks(iter([quick, slow, slow]), SETTINGS, workers=2)
        next(extracted)
        start = time.process_time()
        extracted.close()
    assert time.process_time() - start < MAX_SECONDS
    assert before.issuperset(threading.enumerate())


def test_cancelled_driver_raises_and_its_waveforms_are_counted_meanwhile() -> None:
    monitor = RunMonitor()
    driver = Driver(Mode.DECOMPOSITION, Scanner.default(1e-9), monitor=monitor)
    seen = []

    def watch() -> None:
        while monitor.waveforms_done < 3:
            time.sleep(0.01)
        seen.append(monitor.waveforms_done)
        monitor.cancel()

    watcher = threading.Thread(target=watch)
    watcher.start()
    with pytest.raises(Cancelled):
        driver.apply(noise(600), threshold=0)
    watcher.join()
    assert 3 <= seen[0] < 600
    assert monitor.cancelled


def test_waveform_above_the_work_limit_has_no_echoes() -> None:
    samples = np.zeros((3, 400), np.uint16)
    samples[:, 9:12] = 50, 100, 50
    samples[1] = noise(1)
    driver = Driver(Mode.DECOMPOSITION, Scanner.default(1e-9), work_limit=1_000_000)
    result = driver.apply(samples, threshold=10)
    assert result.row_states.tolist() == [RowState.KEPT, RowState.TOO_COMPLEX, RowState.KEPT]
    assert result.peaks["row"].tolist() == [0, 2]
    assert result.statistics["tooComplex"] == 1


@pytest.mark.parametrize("limit", [0, -1, 1.5, True, "much"])
def test_invalid_work_limit_is_refused(limit: object) -> None:
    with pytest.raises(ValueError, match="invalid work_limit"):
        Driver(Mode.DECOMPOSITION, Scanner.default(1e-9), work_limit=limit)  # type: ignore[arg-type]


def test_progress_is_the_share_of_the_waveforms_read() -> None:
    class Read:
        points_done = 300
        waveforms_done = 100

    class Extracted:
        waveforms_done = 25

    assert extracted_points(Read(), Extracted()) == 75  # type: ignore[arg-type]
    Read.waveforms_done = 0
    assert extracted_points(Read(), Extracted()) == 0  # type: ignore[arg-type]
