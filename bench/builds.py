"""Compare the C++ benchmarks of two builds, for instance before and after a change.

Usage: builds.py BEFORE AFTER MODULE [FILTER [ROUNDS]]
BEFORE and AFTER are folders that hold fullwaveform_MODULE_bench (build/bench/bench of two
checkouts). The programs run alternately, and each row is the ratio of the minimum processor times
of the thread, AFTER / BEFORE. Each round also runs BEFORE a second time: the ratios of the two runs
of the same program show what the machine alone contributes.
"""

from __future__ import annotations

import json
import statistics
import subprocess
import sys
from pathlib import Path

LIMIT = 1.03  # ratios above it are listed
Times = dict[str, float]  # ns, by the name of the benchmark


def run(program: Path, selected: str) -> Times:
    """One run of a benchmark program."""
    command = [str(program), f"--benchmark_filter={selected}", "--benchmark_min_time=0.02"]
    output = subprocess.run(
        [*command, "--benchmark_format=json"], check=True, capture_output=True, text=True
    ).stdout
    return {row["name"]: row["cpu_time"] for row in json.loads(output)["benchmarks"]}


def minima(programs: dict[str, Path], selected: str, rounds: int) -> dict[str, Times]:
    """Minimum times of alternating runs; the order is reversed in every other round."""
    best: dict[str, Times] = {name: {} for name in programs}
    for number in range(rounds):
        order = list(programs) if number % 2 == 0 else list(reversed(programs))
        for name in order:
            for row, time in run(programs[name], selected).items():
                best[name][row] = min(best[name].get(row, time), time)
    return best


def ratios(over: Times, under: Times) -> dict[str, float]:
    """Ratio of each row that both programs have, in ascending order."""
    found = {row: over[row] / under[row] for row in under if row in over}
    return dict(sorted(found.items(), key=lambda item: item[1]))


def report(title: str, found: dict[str, float]) -> None:
    """Print the spread of the ratios."""
    values = list(found.values())
    print(
        f"{title}: {len(values)} rows, median {statistics.median(values):.2f}, "
        f"{values[0]:.2f} to {values[-1]:.2f}"
    )


def main(before: Path, after: Path, module: str, selected: str = ".", rounds: str = "8") -> None:
    """Print the ratios of all rows of a module."""
    name = f"fullwaveform_{module}_bench"
    programs = {"before": before / name, "again": before / name, "after": after / name}
    best = minima(programs, selected, int(rounds))
    changed = ratios(best["after"], best["before"])
    if not changed:
        raise SystemExit(f"no benchmark of {name} matches {selected!r} in both builds")
    report(f"{module}, after / before", changed)
    report(f"{module}, before / before", ratios(best["again"], best["before"]))
    for row, ratio in changed.items():
        if ratio > LIMIT:
            print(f"  {ratio:.2f}  {row}")


if __name__ == "__main__":
    if not 4 <= len(sys.argv) <= 6:
        raise SystemExit(__doc__)
    main(Path(sys.argv[1]), Path(sys.argv[2]), *sys.argv[3:])
