"""What of the command line's time goes into reading, extracting and writing.

    python bench/command_line.py FILE... [--noise COUNTS] [--mode N] [--turns N]

Each file is read, its echoes extracted by one worker, and the echoes written as every kind of file,
in turns; the shortest of each counts, in processor time of the thread. The last column is reading
and writing together over extracting: below 1 the files cost less than the method.
"""

from __future__ import annotations

import argparse
import tempfile
import time
from collections.abc import Callable
from pathlib import Path
from typing import TypeVar

from fullwaveform import Scanner
from fullwaveform.driver import Mode
from fullwaveform.extraction import ExtractedBlock, ExtractionSettings, Extractor
from fullwaveform.formats.blocks import WaveformBlock
from fullwaveform.formats.echo_files import ECHO_ENDINGS, open_echo_file
from fullwaveform.formats.opening import open_waveforms

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


def main() -> None:
    """Print the table."""
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("files", nargs="+", type=Path)
    parser.add_argument("--noise", type=int, default=8)
    parser.add_argument("--mode", type=int, default=1)
    parser.add_argument("--turns", type=int, default=7)
    options = parser.parse_args()
    settings = ExtractionSettings(Scanner.default(), Mode(options.mode), options.noise)
    print("| file | written as | reading, ms | extracting, ms | writing, ms | files / method |")
    print("|---|---|---:|---:|---:|---:|")
    for source in options.files:
        reading, blocks = shortest(options.turns, lambda path=source: read(path))
        extractor = Extractor(settings)
        extracting, extracted = shortest(
            options.turns, lambda work=extractor, of=blocks: [work.extract(block) for block in of]
        )
        for ending in ECHO_ENDINGS:
            with tempfile.TemporaryDirectory() as folder:
                output = Path(folder) / f"echoes{ending}"
                writing, _ = shortest(
                    options.turns,
                    lambda to=output, path=source, of=extracted: write(to, path, of),
                )
            times = f"{reading * 1e3:.1f} | {extracting * 1e3:.1f} | {writing * 1e3:.1f}"
            print(
                f"| {source.name} | {ending} | {times} | {(reading + writing) / extracting:.2f} |"
            )


if __name__ == "__main__":
    main()
