"""Drivers and Python threads: the interpreter is released, calls of one driver are serialised."""

from __future__ import annotations

import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from threading import Barrier

import numpy as np

from fullwaveform import Driver, Result

from ..support.child_processes import TIMEOUT_S
from ..support.sample_triples import Samples, scanner, triples

# A named pipe in place of the report file keeps the library inside `apply` until it is read.
PIPE = """
import contextlib, os, tempfile, threading, time
import numpy as np
from fullwaveform import Driver, Scanner

folder = tempfile.mkdtemp()
pipe = os.path.join(folder, "waveforms_Warning.txt")
os.mkfifo(pipe)
driver = Driver(0, Scanner.default(1e-9), report_directory=folder)
done = []

def extract(name, samples):
    driver.apply(samples, threshold=10)
    done.append(name)

low = np.zeros((4, 50), np.uint16)
good = np.zeros((1, 50), np.uint16)
good[0, 10:13] = 40, 80, 40
first = threading.Thread(target=extract, args=("first", low))
second = threading.Thread(target=extract, args=("second", good))
"""
INTERPRETER_IS_RELEASED = """
first.start()  # its report can be opened only when somebody reads it
with open(pipe) as report:
    print(report.read().startswith("NumberOfWaves: 4"))
first.join()
"""
SECOND_THREAD_WAITS = """
drain = os.open(pipe, os.O_RDWR | os.O_NONBLOCK)
with contextlib.suppress(BlockingIOError):
    while True:
        os.write(drain, bytes(4096))

def users_of_the_pipe():
    handles = (os.path.join("/proc/self/fd", name) for name in os.listdir("/proc/self/fd"))
    return sum(os.path.exists(handle) and os.path.samefile(handle, pipe) for handle in handles)

first.start()
while users_of_the_pipe() < 2:  # the library has opened its report and blocks on the full pipe
    time.sleep(0.01)
second.start()
time.sleep(0.5)
print(done)
with contextlib.suppress(BlockingIOError):
    while True:
        os.read(drain, 65536)
first.join()
second.join()
print(sorted(done))
"""
TIDY = """
os.remove(pipe)
os.rmdir(folder)
"""


def run(script: str) -> str:
    """Output of a program; a timeout fails the test."""
    done = subprocess.run(
        [sys.executable, "-c", script],
        check=True,
        capture_output=True,
        text=True,
        timeout=TIMEOUT_S,
    )
    return done.stdout


def blocks(count: int) -> list[Samples]:
    """Blocks of 500 different waveforms with two echoes each."""
    rng = np.random.default_rng(4)
    return [
        np.array(
            [
                triples({int(first): int(height), 45: 60})
                for first, height in zip(
                    rng.integers(5, 38, 500), 2 * rng.integers(20, 300, 500), strict=True
                )
            ]
        )
        for _ in range(count)
    ]


def columns(result: Result) -> dict[str, list[float]]:
    return {name: column.tolist() for name, column in result.peaks.items()}


def test_apply_releases_the_interpreter() -> None:
    assert run(PIPE + INTERPRETER_IS_RELEASED + TIDY) == "True\n"


def test_calls_of_one_driver_are_serialised() -> None:
    assert run(PIPE + SECOND_THREAD_WAITS + TIDY) == "[]\n['first', 'second']\n"


def test_threads_sharing_a_driver_give_equal_results() -> None:
    work = blocks(8)
    alone = [columns(Driver(0, scanner()).apply(block, threshold=10)) for block in work]
    shared = Driver(0, scanner())
    together = Barrier(4)

    def extract_all(_: int) -> list[dict[str, list[float]]]:
        together.wait(TIMEOUT_S)
        return [columns(shared.apply(block, threshold=10)) for block in work]

    with ThreadPoolExecutor(4) as pool:
        for results in pool.map(extract_all, range(4)):
            assert results == alone


def test_one_driver_per_thread_gives_equal_results() -> None:
    work = blocks(8)
    alone = [columns(Driver(0, scanner()).apply(block, threshold=10)) for block in work]
    with ThreadPoolExecutor(4) as pool:
        parallel = list(
            pool.map(lambda block: columns(Driver(0, scanner()).apply(block, threshold=10)), work)
        )
    assert parallel == alone
    assert len({tuple(peaks["idx"]) for peaks in parallel}) == 8
