"""What a second worker gains on the command line, without the start-up of the program.

    python bench/workers.py FILE [--modes N...] [--scanner FILE] [--runs N]

Modes 2 and 3 need a scanner description with a system wave. One and two workers, and the start-up
(the same command on a scan of 50 shots), are run in turn; ratios are of minimum wall times. With
one worker the echoes are written by a thread of its own, so that the second processor has work
already: the last column is the gain over a single processor, the processor time of one worker over
the wall time of two, both without start-up. Needs an idle machine of two processors.
"""

from __future__ import annotations

import argparse
import tempfile
from pathlib import Path

from command_line import command


def fastest_in_turn(calls: dict[str, list[str]], runs: int) -> dict[str, tuple[float, float]]:
    """Minimum wall time and minimum processor time of each command, s."""
    times: dict[str, list[tuple[float, float]]] = {name: [] for name in calls}
    for _ in range(runs):
        for name, words in calls.items():
            times[name].append(command(*words))
    return {
        name: (min(wall for wall, _ in taken), min(processor for _, processor in taken))
        for name, taken in times.items()
    }


def main() -> None:
    """Print a table of modes."""
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("file", type=Path)
    parser.add_argument("--modes", nargs="+", type=int, default=[0, 1])
    parser.add_argument("--scanner", type=Path)
    parser.add_argument("--runs", type=int, default=5)
    options = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        small = Path(folder) / "small.las"
        command("simulate", str(small), "--shots", "50")
        print(
            "| mode | start-up, s | one worker, s | two workers, s | gain without start-up "
            "| processor time of one worker, s | gain over one processor |"
        )
        print("|---:|---:|---:|---:|---:|---:|---:|")
        for mode in options.modes:
            words = ["-o", f"{folder}/echoes.las", "--overwrite", "--mode", str(mode)]
            words += ["--scanner", str(options.scanner)] if options.scanner else []
            calls = {
                "start": ["extract", str(small), *words, "--workers", "1"],
                "one": ["extract", str(options.file), *words, "--workers", "1"],
                "two": ["extract", str(options.file), *words, "--workers", "2"],
            }
            taken = fastest_in_turn(calls, options.runs)
            start, one, two = (wall for wall, _ in taken.values())
            used = taken["one"][1] - taken["start"][1]
            walls = f"{start:.2f} | {one:.2f} | {two:.2f} | {(one - start) / (two - start):.2f}"
            print(f"| {mode} | {walls} | {used:.2f} | {used / (two - start):.2f} |")


if __name__ == "__main__":
    main()
