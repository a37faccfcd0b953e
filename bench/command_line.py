"""Time of the command line for reading, extracting and writing.

    python bench/command_line.py [FILE...] [--threshold COUNTS] [--mode N] [--runs N]

Without files a scan is simulated. The first table has the processor time of the thread for reading
each file, extracting with one worker, and writing every kind of file; the minimum of several runs.
Its last column is reading plus writing over extracting: below 1 the files take less time than the
method. The second table has the wall time and processor time of the whole command `fullwaveform
extract` with one and two workers, and of its start-up alone. The last table, for the first LAS
file, has ratios to laspy's reading of the same file and to the import of NumPy.
"""

from __future__ import annotations

import argparse
import resource
import subprocess
import sys
import tempfile
import time
from collections.abc import Callable
from dataclasses import replace
from pathlib import Path
from typing import TypeVar

from ratios import print_ratios

from fullwaveform import Scanner
from fullwaveform.calibration.calibration import measure
from fullwaveform.core.driver import Mode
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.extraction.extractor import ExtractedBlock, ExtractionSettings, Extractor
from fullwaveform.io.echo_writers.opening import ECHO_ENDINGS, open_echo_file
from fullwaveform.io.opening import open_waveforms

Result = TypeVar("Result")


def fastest(runs: int, work: Callable[[], Result]) -> tuple[float, Result]:
    """Minimum processor time in seconds, and the last result."""
    times = []
    for _ in range(runs):
        started = time.thread_time()
        result = work()
        times.append(time.thread_time() - started)
    return min(times), result


def read(path: Path) -> list[WaveformBlock]:
    """All waveforms of a file."""
    with open_waveforms(path) as reader:
        return list(reader.blocks())


def write(path: Path, source: Path, blocks: list[ExtractedBlock]) -> None:
    """Write the echoes of all blocks of the source."""
    with (
        open_waveforms(source) as reader,
        open_echo_file(path, reader.header, overwrite=True) as writer,
    ):
        for block in blocks:
            writer.write(block.echoes)


def command(*arguments: str) -> tuple[float, float]:
    """Wall time of a command in seconds, and processor time including its workers."""

    def processors() -> float:
        used = resource.getrusage(resource.RUSAGE_CHILDREN)
        return used.ru_utime + used.ru_stime

    call = [sys.executable, "-c", "from fullwaveform.cli.main import main; main()", *arguments]
    started, used = time.perf_counter(), processors()
    subprocess.run(call, check=True, capture_output=True)
    return time.perf_counter() - started, processors() - used


def fastest_command(runs: int, *arguments: str) -> str:
    """Minimum wall time and minimum processor time, in ms."""
    clock, used = zip(*(command(*arguments) for _ in range(runs)), strict=True)
    return f"{min(clock) * 1e3:.0f} | {min(used) * 1e3:.0f}"


def stages(source: Path, settings: ExtractionSettings, runs: int) -> None:
    """Print the rows of a file in the first table."""
    reading, blocks = fastest(runs, lambda: read(source))
    with open_waveforms(source) as reader:
        extractor = Extractor(replace(settings, calibration=measure(reader, "off")))
    extracting, extracted = fastest(runs, lambda: [extractor.extract(block) for block in blocks])
    for ending in ECHO_ENDINGS:
        with tempfile.TemporaryDirectory() as folder:
            output = Path(folder) / f"echoes{ending}"
            writing, _ = fastest(runs, lambda to=output: write(to, source, extracted))
        times = f"{reading * 1e3:.1f} | {extracting * 1e3:.1f} | {writing * 1e3:.1f}"
        print(f"| {source.name} | {ending} | {times} | {(reading + writing) / extracting:.2f} |")


def end_to_end(source: Path, mode: int, threshold: int, runs: int) -> None:
    """Print the rows of a file in the second table."""
    for workers in (1, 2):
        with tempfile.TemporaryDirectory() as folder:
            options = {"-o": f"{folder}/echoes.las", "--mode": mode, "--threshold": threshold}
            options["--workers"] = workers
            words = [str(word) for option in options.items() for word in option] + ["--overwrite"]
            taken = fastest_command(runs, "extract", str(source), *words)
        print(f"| {source.name} | {workers} | {taken} |")


def main() -> None:
    """Print both tables."""
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("files", nargs="*", type=Path)
    parser.add_argument("--threshold", type=int, default=8)
    parser.add_argument("--mode", type=int, default=1)
    parser.add_argument("--runs", type=int, default=7)
    options = parser.parse_args()
    settings = ExtractionSettings(Scanner.default(), Mode(options.mode), options.threshold)
    with tempfile.TemporaryDirectory() as folder:
        files = options.files
        if not files:
            files = [Path(folder) / "simulated.las"]
            command("simulate", str(files[0]), "--shots", "10000")
        print("| file | written as | reading, ms | extracting, ms | writing, ms | files / method |")
        print("|---|---|---:|---:|---:|---:|")
        for source in files:
            stages(source, settings, options.runs)
        print("\n| command | workers | wall time, ms | processor time, ms |")
        print("|---|---:|---:|---:|")
        print(f"| start-up (--help) | | {fastest_command(options.runs, '--help')} |")
        for source in files:
            end_to_end(source, options.mode, options.threshold, options.runs)
        if scans := [source for source in files if source.suffix == ".las"]:
            print_ratios(scans[0], options.runs)


if __name__ == "__main__":
    main()
