"""Accuracy of every method on waveforms with known echoes, against the physical limit.

    python bench/accuracy.py -o FOLDER [--file WAVEFORMS] [--quick] [--methods NAME ...]

FOLDER gets accuracy.json and accuracy.csv with all figures, accuracy.md with the tables and three
pictures; `-o docs` writes docs/accuracy.md. `--file` adds the tables of real echoes: its pulse in
constructed waveforms, and sums of two of its isolated echoes. The figures do not depend on the
number of threads.
"""

from __future__ import annotations

import argparse
import sys
import time
from pathlib import Path

from accuracy.document import write_document
from accuracy.methods import METHODS, checked_methods
from accuracy.plan import Plan
from accuracy.results import Results
from accuracy.suite import measured

from fullwaveform.extraction.pipeline import available_workers


def arguments(words: list[str]) -> argparse.Namespace:
    """The options of a call."""
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument("-o", "--output", type=Path, required=True, metavar="FOLDER")
    parser.add_argument("--file", type=Path, help="file of waveforms, in any format that is read")
    parser.add_argument("--quick", action="store_true", help="fewer waveforms: less than a minute")
    parser.add_argument(
        "--methods", nargs="+", default=list(METHODS), metavar="NAME", help=", ".join(METHODS)
    )
    parser.add_argument("--threads", type=int, default=available_workers())
    parser.add_argument(
        "--tables", action="store_true", help="only write tables and pictures of FOLDER again"
    )
    return parser.parse_args(words)


def main(words: list[str]) -> None:
    """Measure and write."""
    given = arguments(words)
    given.output.mkdir(parents=True, exist_ok=True)
    figures = given.output / "accuracy.json"
    if given.tables:
        write_document(Results.read(figures), given.output)
        return
    try:
        methods = checked_methods(given.methods)
    except ValueError as error:
        sys.exit(f"accuracy: {error}")
    plan = (Plan.quick if given.quick else Plan)(methods, given.file)
    start = time.monotonic()

    def report(table: str) -> None:
        print(f"{time.monotonic() - start:6.0f} s  {table}", flush=True)

    results = measured(plan, given.threads, report)
    figures.write_text(results.json(), encoding="utf-8")
    results.write_csv(given.output / "accuracy.csv")
    write_document(results, given.output)


if __name__ == "__main__":
    main(sys.argv[1:])
