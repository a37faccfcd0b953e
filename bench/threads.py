"""Two workers against one: C++ threads and Python threads, a driver each, as ratios.

Usage: threads.py MEASURE    (MEASURE: the program fullwaveform_measure of the bench build)
The ratio is the work done in a time with two workers over that with one; 2 is the best there is.
By the clock on the wall it means something on a machine with two idle cores only; what threads cost
each other shows in their own time as well (C++ thread ratio), whatever else runs.
"""

from __future__ import annotations

import sys
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from scenes import Samples, cpp_apply, waveforms

from fullwaveform import Driver, Scanner

ROWS = 4000
ROUNDS = 12
RUNS = 10


def python_apply(mode: int, samples: Samples, threads: int) -> float:
    """Seconds until every thread has been through the samples several times."""
    drivers = [Driver(mode, Scanner.default(1e-9)) for _ in range(threads)]

    def work(driver: Driver) -> None:
        for _ in range(RUNS):
            driver.apply(samples)

    with ThreadPoolExecutor(threads) as pool:
        start = time.perf_counter()
        list(pool.map(work, drivers))
        return (time.perf_counter() - start) / RUNS


def main(program: Path) -> None:
    """Prints the ratios."""
    print("mode  C++ ratio  C++ thread ratio  Python ratio")
    for mode in (0, 1):
        samples = waveforms(ROWS, 80, 2)
        wall, own, python = ([float("inf")] * 2 for _ in range(3))
        for _ in range(ROUNDS):
            for worker in (0, 1):
                measured = cpp_apply(program, samples, mode, runs=RUNS, threads=worker + 1)
                wall[worker] = min(wall[worker], measured.wall)
                own[worker] = min(own[worker], measured.with_release)
                python[worker] = min(python[worker], python_apply(mode, samples, worker + 1))
        cpp_ratio, own_ratio, python_ratio = (
            2 * times[0] / times[1] for times in (wall, own, python)
        )
        print(f"{mode:4}  {cpp_ratio:9.2f}  {own_ratio:16.2f}  {python_ratio:12.2f}")


if __name__ == "__main__":
    main(Path(sys.argv[1]))
