"""What of the command line's time goes into reading, extracting and writing.

    python bench/command_line.py [FILE...] [--noise COUNTS] [--mode N] [--turns N]

Without files a scan is simulated. Each file is read, its echoes extracted by one worker, and the
echoes written as every kind of file, in turns; the shortest of each counts, in processor time of
the thread. The last column is reading and writing together over extracting: below 1 the files cost
less than the method. A second table holds the whole command, `fullwaveform extract`, from its start
to its end, with one worker and two, by the clock and in processor time, and what of it passes
before a command does anything.
"""

from __future__ import annotations

import argparse
import resource
import subprocess
import sys
import tempfile
import time
from collections.abc import Callable
from pathlib import Path
from typing import TypeVar

from fullwaveform import Scanner
from fullwaveform.core.driver import Mode
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.extraction.extractor import ExtractedBlock, ExtractionSettings, Extractor
from fullwaveform.io.echo_writers.opening import ECHO_ENDINGS, open_echo_file
from fullwaveform.io.opening import open_waveforms

Result = TypeVar("Result")


def shortest(turns: int, work: Callable[[], Result]) -> tuple[float, Result]:
    """Processor seconds of the fastest turn, and what the last one gave."""
    times = []
    for _ in range(turns):
        began = time.thread_time()
        result = work()
        times.append(time.thread_time() - began)
    return min(times), result


def read(path: Path) -> list[WaveformBlock]:
    """All waveforms of a file."""
    with open_waveforms(path) as reader:
        return list(reader.blocks())


def write(path: Path, source: Path, blocks: list[ExtractedBlock]) -> None:
    """Write the echoes of all blocks of the source."""
    with open_waveforms(source) as reader, open_echo_file(path, reader.header) as writer:
        for block in blocks:
            writer.write(block.echoes)


def command(*arguments: str) -> tuple[float, float]:
    """Seconds of a command by the clock, and of the processors in it and its workers."""

    def processors() -> float:
        used = resource.getrusage(resource.RUSAGE_CHILDREN)
        return used.ru_utime + used.ru_stime

    call = [sys.executable, "-c", "from fullwaveform.cli.start import main; main()", *arguments]
    began, used = time.perf_counter(), processors()
    subprocess.run(call, check=True, capture_output=True)
    return time.perf_counter() - began, processors() - used


def shortest_command(turns: int, *arguments: str) -> str:
    """The fastest turn by the clock and the one of the least processor time, in ms."""
    clock, used = zip(*(command(*arguments) for _ in range(turns)), strict=True)
    return f"{min(clock) * 1e3:.0f} | {min(used) * 1e3:.0f}"


def stages(source: Path, settings: ExtractionSettings, turns: int) -> None:
    """Print a file's lines of the first table."""
    reading, blocks = shortest(turns, lambda: read(source))
    extractor = Extractor(settings)
    extracting, extracted = shortest(turns, lambda: [extractor.extract(block) for block in blocks])
    for ending in ECHO_ENDINGS:
        with tempfile.TemporaryDirectory() as folder:
            output = Path(folder) / f"echoes{ending}"
            writing, _ = shortest(turns, lambda to=output: write(to, source, extracted))
        times = f"{reading * 1e3:.1f} | {extracting * 1e3:.1f} | {writing * 1e3:.1f}"
        print(f"| {source.name} | {ending} | {times} | {(reading + writing) / extracting:.2f} |")


def end_to_end(source: Path, mode: int, noise: int, turns: int) -> None:
    """Print a file's lines of the second table."""
    for workers in (1, 2):
        with tempfile.TemporaryDirectory() as folder:
            options = {"-o": f"{folder}/echoes.las", "--mode": mode, "--noise": noise}
            options["--workers"] = workers
            words = [str(word) for option in options.items() for word in option]
            taken = shortest_command(turns, "extract", str(source), *words)
        print(f"| {source.name} | {workers} | {taken} |")


def main() -> None:
    """Print the tables."""
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("files", nargs="*", type=Path)
    parser.add_argument("--noise", type=int, default=8)
    parser.add_argument("--mode", type=int, default=1)
    parser.add_argument("--turns", type=int, default=7)
    options = parser.parse_args()
    settings = ExtractionSettings(Scanner.default(), Mode(options.mode), options.noise)
    with tempfile.TemporaryDirectory() as folder:
        files = options.files
        if not files:
            files = [Path(folder) / "simulated.las"]
            command("simulate", str(files[0]), "--shots", "10000")
        print("| file | written as | reading, ms | extracting, ms | writing, ms | files / method |")
        print("|---|---|---:|---:|---:|---:|")
        for source in files:
            stages(source, settings, options.turns)
        print("\n| command | workers | by the clock, ms | processor time, ms |")
        print("|---|---:|---:|---:|")
        print(f"| nothing (--help) | | {shortest_command(options.turns, '--help')} |")
        for source in files:
            end_to_end(source, options.mode, options.noise, options.turns)


if __name__ == "__main__":
    main()
