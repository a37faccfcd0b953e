"""Speed-up by a second worker: C++ threads, processes and Python threads.

Usage: threads.py MEASURE    (MEASURE: the program fullwaveform_measure of the bench build)
The ratio is the throughput of two workers over that of one; 2 is ideal. Two processes share only
the machine, so that their loss is due to its cores. Any further loss of threads, and any in their
own processor time, is due to the threads themselves.
"""

from __future__ import annotations

import sys
import time
from collections.abc import Callable
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from scenes import Samples, cpp_apply, waveforms

from fullwaveform import Driver, Scanner

ROWS = 4000
ROUNDS = 12
RUNS = {0: 60, 1: 30}
Work = Callable[[int], float]


def python_apply(mode: int, samples: Samples, threads: int) -> float:
    """Wall time per run in seconds, for threads that process the samples several times."""
    drivers = [Driver(mode, Scanner.default(1e-9)) for _ in range(threads)]

    def work(driver: Driver) -> None:
        for _ in range(RUNS[mode]):
            driver.apply(samples)

    with ThreadPoolExecutor(threads) as pool:
        start = time.perf_counter()
        list(pool.map(work, drivers))
        return (time.perf_counter() - start) / RUNS[mode]


def ratios(program: Path, mode: int) -> dict[str, float]:
    """Speed-up of two workers; minimum times of alternating rounds."""
    samples = waveforms(ROWS, 80, 2)
    runs = RUNS[mode]
    works: dict[str, Work] = {
        "threads": lambda n: cpp_apply(program, samples, mode, runs=runs, threads=n).wall,
        "thread time": lambda n: cpp_apply(program, samples, mode, threads=n).with_release,
        "processes": lambda n: cpp_apply(program, samples, mode, runs=runs, processes=n).wall,
        "Python": lambda n: python_apply(mode, samples, n),
    }
    times = {(name, n): float("inf") for name in works for n in (1, 2)}
    for _ in range(ROUNDS):
        for name, n in times:
            times[name, n] = min(times[name, n], works[name](n))
    return {name: 2 * times[name, 1] / times[name, 2] for name in works}


def main(program: Path) -> None:
    """Print the ratios."""
    print("mode  C++ threads  threads' own time  C++ processes  threads/processes  Python threads")
    for mode in RUNS:
        found = ratios(program, mode)
        print(
            f"{mode:4}  {found['threads']:11.2f}  {found['thread time']:17.2f}"
            f"  {found['processes']:13.2f}  {found['threads'] / found['processes']:17.2f}"
            f"  {found['Python']:14.2f}"
        )


if __name__ == "__main__":
    main(Path(sys.argv[1]))
