"""Ratios of reading, inspecting and starting, both sides measured alternately in one run."""

from __future__ import annotations

import resource
import subprocess
import sys
import tempfile
import time
from collections.abc import Callable
from pathlib import Path

import laspy
import numpy as np
from numpy.lib.stride_tricks import sliding_window_view

from fullwaveform.analysis.inspection import inspect_waveforms
from fullwaveform.io.opening import open_waveforms

_HEADER = 60  # bytes of the packet record, from whose start packets are counted


def read(path: Path) -> None:
    """Read all waveforms of a file."""
    with open_waveforms(path) as reader:
        for _ in reader.blocks():
            pass


def inspect(path: Path) -> None:
    """Do what `info` does."""
    with open_waveforms(path) as reader:
        inspect_waveforms(reader)


def read_with_laspy(path: Path) -> None:
    """Read points and packets with laspy and NumPy: places, times, each packet once."""
    scan = laspy.read(path)
    for values in (scan.x, scan.y, scan.z, scan.gps_time):
        np.asarray(values)
    points = scan.points.array
    data = np.fromfile(path.with_suffix(".wdp"), dtype=np.uint8)
    refers = points["wavepacket_index"] > 0
    starts, first = np.unique(points["wavepacket_offset"][refers], return_index=True)
    sizes = points["wavepacket_size"][refers][first]
    for size in np.unique(sizes):
        sliding_window_view(data, size)[starts[sizes == size].astype(np.int64)]


def processor_times(runs: int, *works: Callable[[], object]) -> list[float]:
    """Minimum processor time of the thread of each, called in turn, s."""
    times: list[list[float]] = [[] for _ in works]
    for _ in range(runs):
        for work, taken in zip(works, times, strict=True):
            started = time.thread_time()
            work()
            taken.append(time.thread_time() - started)
    return [min(taken) for taken in times]


def of_process(*call: str) -> tuple[float, float]:
    """Wall time and processor time of a process, s."""
    before, started = resource.getrusage(resource.RUSAGE_CHILDREN), time.perf_counter()
    subprocess.run([sys.executable, *call], check=True, capture_output=True)
    taken = time.perf_counter() - started
    used = resource.getrusage(resource.RUSAGE_CHILDREN)
    return taken, used.ru_utime + used.ru_stime - before.ru_utime - before.ru_stime


def command(source: Path, folder: Path, *options: str) -> tuple[str, ...]:
    """The arguments of a process that extracts the echoes."""
    call = ("-m", "fullwaveform", "extract", str(source), "-o", str(folder / "echoes.las"))
    return (*call, "--overwrite", "-q", *options)


def process_times(runs: int, *calls: tuple[str, ...]) -> list[tuple[float, float]]:
    """Minimum wall time and processor time of each process, run in turn, s."""
    times = [[of_process(*call) for call in calls] for _ in range(runs)]
    columns = zip(*times, strict=True)
    return [(min(wall for wall, _ in one), min(used for _, used in one)) for one in columns]


def print_ratios(source: Path, runs: int) -> None:
    """Print the table for a LAS file with a companion file of packets."""
    print("\n| quantity | s | of | s | ratio |\n|---|---:|---|---:|---:|")

    def row(name: str, taken: float, other: str, reference: float) -> None:
        print(f"| {name} | {taken:.3f} | {other} | {reference:.3f} | {taken / reference:.2f} |")

    with tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        few = folder / "few.las"
        of_process("-m", "fullwaveform", "simulate", str(few), "--shots", "50")
        ours, info, laspys = processor_times(
            runs,
            lambda: read(source),
            lambda: inspect(source),
            lambda: read_with_laspy(source),
        )
        row("reading", ours, "laspy", laspys)
        row("info", info, "reading", ours)
        row("info", info, "laspy", laspys)
        mode = ("--mode", "0", "--threshold", "20")
        numpy, shown, start, one, two = process_times(
            runs,
            ("-c", "import numpy"),
            ("-m", "fullwaveform", "--help"),
            command(few, folder, *mode, "--workers", "1"),
            command(source, folder, *mode, "--workers", "1"),
            command(source, folder, *mode, "--workers", "2"),
        )
        row("--help", shown[1], "import numpy", numpy[1])
        row("extract of 100 waveforms", start[1], "import numpy", numpy[1])
        row("extract, mode 0, without start-up", one[1] - start[1], "laspy", laspys)
        row("one worker, wall time", one[0] - start[0], "two", two[0] - start[0])
