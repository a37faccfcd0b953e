"""Processor time and memory of extractions against the number of waveforms; see docs/scale.md.

    python bench/scale.py [-o FOLDER] [--most 7] [--longest 300] [--repeated 8]

Scans of 10^4, 10^5, ... 10^MOST waveforms of 80 samples are extracted by the command line with one
worker, by each method up to a size that takes LONGEST seconds. They repeat one simulated scan at
later times. Then one block in memory is extracted until 10^REPEATED waveforms are done in mode 0 by
two workers, without a file on either side, to see whether memory stays flat. Prints the tables and
writes scale.png. The time per waveform is that of the additional waveforms of each scan over the
next smaller one, so that start-up and calibration, which read a bounded number of waveforms, do not
count. Times of small scans are the median of several runs, between which the other sizes are
measured.
"""

from __future__ import annotations

import argparse
import itertools
import os
import re
import shutil
import subprocess
import sys
import tempfile
from collections.abc import Iterator
from concurrent.futures import ProcessPoolExecutor
from dataclasses import dataclass, replace
from multiprocessing import get_context
from pathlib import Path
from statistics import median

import laspy
import matplotlib as mpl
import numpy as np

mpl.use("Agg")

from matplotlib import pyplot as plt

from fullwaveform import Scanner
from fullwaveform.calibration.calibration import measure as calibrated
from fullwaveform.core.driver import Mode
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.extraction.extractor import ExtractionSettings
from fullwaveform.extraction.pipeline import extracted_blocks
from fullwaveform.io.opening import open_waveforms

METHODS = ("three-point", "decomposition", "pulse-fit", "deconvolution", "hybrid")
SMALLEST = 4  # exponent
SHOTS = 5000  # of the simulated scan, with two waveforms each: 10^SMALLEST
PACKETS_START = 60  # bytes of the header of a file of packets
STEP_S = 1e-4  # between shots of the simulated scan
RUNS = {4: 5, 5: 3, 6: 2}  # exponent: runs; one for larger scans
SURVEY = 42_000 * 1e6 * 10  # waveforms of a country: km2, m2 per km2, waveforms per m2
WEEK_HOURS = 7 * 24
LARGEST_KB = r"VmHWM:\s*(\d+)"  # of a process; the maximum of getrusage includes its parent's
#: The command line, which prints its largest resident set (kB) at the end.
COMMAND = f"""
import re
from fullwaveform.cli.main import main
try:
    main()
finally:
    print(re.search(r"{LARGEST_KB}", open("/proc/self/status").read())[1])
"""


@dataclass(frozen=True)
class Used:
    """What a process used."""

    seconds: float  # of processors
    memory: float  # largest resident set, bytes


def largest_memory() -> float:
    """Largest resident set of this process so far, bytes."""
    return 1024.0 * int(re.search(LARGEST_KB, Path("/proc/self/status").read_text())[1])


def run(*arguments: str) -> Used:
    """Run the command line in a process of its own."""
    call = [sys.executable, "-c", COMMAND, *arguments]
    with subprocess.Popen(call, stdout=subprocess.PIPE, text=True) as process:
        assert process.stdout is not None
        output = process.stdout.read()
        _, status, usage = os.wait4(process.pid, 0)
        process.returncode = os.waitstatus_to_exitcode(status)
    if status != 0:
        raise RuntimeError(f"{' '.join(arguments)} failed")
    return Used(usage.ru_utime + usage.ru_stime, 1024.0 * float(output.split()[-1]))


def repeat_scan(source: Path, target: Path, times: int) -> None:
    """Write a scan that repeats the waveforms of the source, at later times."""
    packets = source.with_suffix(".wdp").read_bytes()
    body = packets[PACKETS_START:]
    with laspy.open(source) as reader:
        points = reader.read().points
        gps_times, offsets = np.array(points.gps_time), np.array(points.wavepacket_offset)
        duration = STEP_S + float(gps_times.max() - gps_times.min())
        with (
            laspy.open(target, mode="w", header=reader.header) as writer,
            target.with_suffix(".wdp").open("wb") as to,
        ):
            to.write(packets[:PACKETS_START])
            for number in range(times):
                part = points.copy()
                part.gps_time = gps_times + number * duration
                part.wavepacket_offset = offsets + number * len(body)
                writer.write_points(part)
                to.write(body)


@dataclass(frozen=True)
class Growth:
    """Time and memory of scans of 10^4, 10^5, ... waveforms."""

    method: str
    exponents: list[int]
    seconds: list[float]
    memory: list[float]  # bytes
    output: float  # bytes per waveform

    @property
    def microseconds(self) -> list[float]:
        """Per additional waveform, from each scan to the next."""
        more = np.diff(10.0 ** np.array(self.exponents))
        return list(1e6 * np.diff(self.seconds) / more)

    @property
    def cost(self) -> float:
        """Core hours of 10^9 waveforms."""
        return self.microseconds[-1] * 1e9 / 1e6 / 3600.0


def measure(method: str, folder: Path, most: int, longest: float) -> Growth:
    """Extract scans of increasing size with a method, up to one that takes `longest` seconds."""
    options = ["--mode", method, "--workers", "1", "--quiet", "--overwrite"]
    if method in ("deconvolution", "hybrid"):
        options += ["--scanner", str(folder / "scanner.toml")]
    output = folder / "echoes.las"

    def used(exponent: int) -> Used:
        scan = folder / f"scan{exponent}.las"
        found = run("extract", str(scan), "-o", str(output), *options)
        print(f"{method}, 10^{exponent}: {found.seconds:.2f} s", flush=True)
        return found

    runs = {SMALLEST: [used(SMALLEST)]}
    for exponent in range(SMALLEST + 1, most + 1):
        if 10.0 * runs[exponent - 1][0].seconds > longest:
            break
        runs[exponent] = [used(exponent)]
    per_waveform = output.stat().st_size / 10 ** max(runs)
    for turn in range(1, max(RUNS.values())):
        for exponent, found in runs.items():
            if turn < RUNS.get(exponent, 1):
                found.append(used(exponent))
    return Growth(
        method,
        list(runs),
        [median(one.seconds for one in found) for found in runs.values()],
        [max(one.memory for one in found) for found in runs.values()],
        per_waveform,
    )


def repeated(block: WaveformBlock, times: int) -> Iterator[WaveformBlock]:
    """The same block again and again."""
    return itertools.repeat(block, times)


def memory_of_repeated(scan: Path, exponent: int) -> list[tuple[float, float]]:
    """Waveforms done and largest resident set so far (bytes), while a block is repeated."""
    with open_waveforms(scan) as reader:
        settings = ExtractionSettings(scanner=Scanner.default(), mode=Mode.THREE_POINT)
        settings = replace(settings, calibration=calibrated(reader))
        block = next(reader.blocks())
    steps = [10**power for power in range(SMALLEST, exponent + 1)]
    found: list[tuple[float, float]] = []
    done = 0
    for extracted in extracted_blocks(
        repeated(block, -(-steps[-1] // len(block))), settings, workers=2
    ):
        done += len(block)
        assert len(extracted.echoes) > 0
        if steps and done >= steps[0]:
            found.append((done, largest_memory()))
            steps.pop(0)
    return found


def prepare(folder: Path, most: int) -> float:
    """Make the scans and the scanner description; bytes per waveform."""
    base = folder / "base.las"
    run("simulate", str(base), "--shots", str(SHOTS), "--samples", "80")
    run("system-wave", str(base), "-o", str(folder / "scanner.toml"))
    for exponent in range(SMALLEST, most + 1):
        repeat_scan(base, folder / f"scan{exponent}.las", 10 ** (exponent - SMALLEST))
    with open_waveforms(base) as reader:
        waveforms = sum(len(block) for block in reader.blocks())
    assert waveforms == 10**SMALLEST
    with laspy.open(base) as reader:
        points, size = reader.header.point_count, reader.header.point_format.size
    packets = base.with_suffix(".wdp").stat().st_size - PACKETS_START
    return float(points * size + packets) / waveforms


def plot(growths: list[Growth], flat: list[tuple[float, float]], path: Path) -> None:
    """Time per waveform and memory against the number of waveforms."""
    figure, (time, memory) = plt.subplots(1, 2, figsize=(11, 4), layout="constrained")
    for growth in growths:
        count = 10.0 ** np.array(growth.exponents)
        time.loglog(count[1:], growth.microseconds, "o-", label=growth.method)
        memory.semilogx(count, np.array(growth.memory) / 1e6, "o-", label=growth.method)
    done, largest = np.array(flat).T
    memory.semilogx(done, largest / 1e6, "s--", color="black", label="one block, repeated")
    time.set_ylabel("processor time, µs per additional waveform")
    memory.set_ylabel("largest resident memory, MB")
    memory.set_ylim(0.0)
    for axes in (time, memory):
        axes.set_xlabel("waveforms")
        axes.grid(alpha=0.3)
    memory.legend()
    figure.savefig(path / "scale.png", dpi=110)


def print_table(title: str, head: list[str], rows: list[list[str]]) -> None:
    """Print a Markdown table; cells that a row lacks at the end are empty."""
    print(f"\n{title}\n\n| {' | '.join(head)} |\n|---|{'---:|' * (len(head) - 1)}")
    for row in rows:
        print(f"| {' | '.join([*row, *[''] * (len(head) - len(row))])} |")


def show(growths: list[Growth], flat: list[tuple[float, float]], size: float) -> None:
    """Print the tables of docs/scale.md; `size` is that of the input, bytes per waveform."""
    exponents = range(SMALLEST, max(growth.exponents[-1] for growth in growths) + 1)
    head = ["method", *(f"10^{exponent}" for exponent in exponents)]
    seconds = [[one.method, *(f"{value:.2f}" for value in one.seconds)] for one in growths]
    each = [[one.method, "", *(f"{value:.2f}" for value in one.microseconds)] for one in growths]
    memory = [[one.method, *(f"{value / 1e6:.0f}" for value in one.memory)] for one in growths]
    print_table("Processor time, s", head, seconds)
    print_table("Processor time, us per additional waveform", head, each)
    print_table("Largest resident memory, MB", head, memory)
    print_table(
        "One block, repeated",
        ["waveforms", "largest resident memory, MB"],
        [[f"{done:,.0f}", f"{largest / 1e6:.1f}"] for done, largest in flat],
    )
    print_table(
        "A billion waveforms",
        ["method", "core hours", "read, GB", "written, GB"],
        [
            [one.method, f"{one.cost:.2f}", f"{size:.0f}", f"{one.output:.0f}"]  # 10^9 bytes each
            for one in growths
        ],
    )
    print_table(
        f"{SURVEY:.2g} waveforms in a week",
        ["method", "core hours", "cores", "read, MB/s", "written, MB/s"],
        [
            [
                one.method,
                f"{one.cost * SURVEY / 1e9:.0f}",
                f"{one.cost * SURVEY / 1e9 / WEEK_HOURS:.1f}",
                f"{size * SURVEY / 1e6 / WEEK_HOURS / 3600.0:.0f}",
                f"{one.output * SURVEY / 1e6 / WEEK_HOURS / 3600.0:.0f}",
            ]
            for one in growths
        ],
    )


def main() -> None:
    """Measure, print and plot."""
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("-o", "--output", type=Path, default=Path("docs"))
    parser.add_argument("--most", type=int, default=7)
    parser.add_argument("--longest", type=float, default=300.0, help="run of a method, s")
    parser.add_argument("--repeated", type=int, default=8)
    parser.add_argument("--folder", type=Path, help="of the scans; needs 400 bytes per waveform")
    options = parser.parse_args()
    folder = Path(tempfile.mkdtemp(dir=options.folder))
    try:
        size = prepare(folder, options.most)
        growths = [measure(method, folder, options.most, options.longest) for method in METHODS]
        # A new process, since its largest resident set counts.
        with ProcessPoolExecutor(1, get_context("spawn")) as process:
            scan = folder / f"scan{options.most}.las"  # its first block is full
            flat = process.submit(memory_of_repeated, scan, options.repeated).result()
    finally:
        shutil.rmtree(folder)
    show(growths, flat, size)
    plot(growths, flat, options.output)


if __name__ == "__main__":
    main()
