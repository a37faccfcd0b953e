"""Time of every stage from a LAS file to the written echoes, over the driver's and laspy's reading.

    python bench/echo_table.py FILE [--mode N] [--runs N]

Processor times of the thread, minimum of several runs: laspy's reading of the points and packets
of the file, which has a companion with the packets; reading and calibrating; `Driver.apply`, the
rest of the extraction (samples prepared, echoes refined, table filled with uncertainties, of which
the last is one compiled call), and writing each format.
"""

from __future__ import annotations

import argparse
import time
from dataclasses import replace
from pathlib import Path
from tempfile import TemporaryDirectory
from typing import Any
from unittest.mock import patch

from command_line import fastest, read, write
from ratios import processor_times, read_with_laspy
from ratios import read as read_and_drop

from fullwaveform import Scanner
from fullwaveform.calibration.calibration import measure
from fullwaveform.core import echo_table
from fullwaveform.core.driver import Driver, Mode
from fullwaveform.core.memory import keep_freed_memory
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.extraction.extractor import ExtractionSettings, Extractor
from fullwaveform.io.echo_writers.opening import ECHO_ENDINGS
from fullwaveform.io.opening import open_waveforms

WAVEFORMS = 500_000


class Stopwatch:
    """Processor time of the thread in the calls of a function."""

    def __init__(self, function: Any) -> None:
        self.seconds = 0.0
        self._function = function

    def __get__(self, instance: Any, owner: Any = None) -> Any:
        return lambda *arguments, **options: self(instance, *arguments, **options)

    def __call__(self, *arguments: Any, **options: Any) -> Any:
        """Call the function and add the time."""
        started = time.thread_time()
        try:
            return self._function(*arguments, **options)
        finally:
            self.seconds += time.thread_time() - started


def extract_and_drop(extractor: Extractor, blocks: list[WaveformBlock]) -> None:
    """Extract block by block, as a command does, which keeps none of the results."""
    for block in blocks:
        extractor.extract(block)


def main() -> None:
    """Print a table of stages."""
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("file", type=Path)
    parser.add_argument("--mode", type=int, default=0)
    parser.add_argument("--runs", type=int, default=7)
    options = parser.parse_args()
    keep_freed_memory()  # as the command does
    settings = ExtractionSettings(Scanner.default(), Mode(options.mode))
    with open_waveforms(options.file) as reader:
        calibrating, calibration = fastest(options.runs, lambda: measure(reader))
    settings = replace(settings, calibration=calibration)
    laspys, reading = processor_times(
        options.runs,
        lambda: read_with_laspy(options.file),
        lambda: read_and_drop(options.file),
    )
    blocks = read(options.file)
    runs = []
    extractor = Extractor(settings)
    for _ in range(options.runs):
        driver, table = Stopwatch(Driver.apply), Stopwatch(echo_table._core.echo_table)
        with (
            patch.object(Driver, "apply", driver),
            patch.object(echo_table._core, "echo_table", table),
        ):
            whole, _ = fastest(1, lambda: extract_and_drop(extractor, blocks))
        runs.append((driver.seconds, whole - driver.seconds, table.seconds))
    method, rest, filled = (min(times) for times in zip(*runs, strict=True))
    extracted = [extractor.extract(block) for block in blocks]
    stages = {
        "laspy's reading": laspys,
        "reading": reading,
        "calibrating": calibrating,
        "Driver.apply": method,
        "result to echo table": rest,
        "of that the compiled call": filled,
    }
    for ending in ECHO_ENDINGS:
        with TemporaryDirectory() as folder:
            output = Path(folder) / f"echoes{ending}"
            times = fastest(options.runs, lambda to=output: write(to, options.file, extracted))[0]
        stages[f"writing {ending}"] = times
    scale = 1e3 * WAVEFORMS / sum(map(len, blocks))
    print("| stage | ms per 500,000 waveforms | over Driver.apply | over laspy's reading |")
    print("|---|---:|---:|---:|")
    for name, seconds in stages.items():
        ratios = f"{seconds / method:.2f} | {seconds / laspys:.2f}"
        print(f"| {name} | {seconds * scale:.0f} | {ratios} |")


if __name__ == "__main__":
    main()
