"""Machine instructions per waveform of the C++ driver in two builds, counted by Valgrind.

Usage: instructions.py BEFORE AFTER
BEFORE and AFTER are folders that hold fullwaveform_measure (build/bench/bench of two checkouts).
Unlike times, the counts do not depend on what else the machine does. Valgrind offers AVX2 but not
AVX-512.
"""

from __future__ import annotations

import re
import subprocess
import sys
import tempfile
from pathlib import Path

from scenes import waveforms

SCENES = ((40, 1, 60), (80, 2, 60), (400, 6, 20))  # samples, echoes, waveforms
FEW, MANY = 5, 15  # runs; their difference is free of start-up and planning


def count(program: Path, file: str, rows: int, columns: int, mode: int, runs: int) -> int:
    """Instructions of one process."""
    arguments = [file, *map(str, (rows, columns, 1, mode, 14, runs, 1))]
    valgrind = ["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null"]
    report = subprocess.run(
        [*valgrind, str(program), *arguments], check=True, capture_output=True, text=True
    ).stderr
    match = re.search(r"Collected : (\d+)", report)
    if match is None:
        raise RuntimeError(f"Valgrind reported no count:\n{report}")
    return int(match[1])


def per_waveform(program: Path, file: str, rows: int, columns: int, mode: int) -> float:
    """Instructions per waveform of `apply`, including the release of its result."""
    few, many = (count(program, file, rows, columns, mode, runs) for runs in (FEW, MANY))
    return (many - few) / (MANY - FEW) / rows


def main(before: Path, after: Path) -> None:
    """Print the counts."""
    print("mode  samples  echoes     before      after  after/before")
    for mode in range(4):
        for columns, echoes, rows in SCENES:
            with tempfile.NamedTemporaryFile() as file:
                waveforms(rows, columns, echoes).tofile(file.name)
                old, new = (
                    per_waveform(folder / "fullwaveform_measure", file.name, rows, columns, mode)
                    for folder in (before, after)
                )
            print(f"{mode:4} {columns:8} {echoes:7} {old:10.0f} {new:10.0f} {new / old:13.3f}")


if __name__ == "__main__":
    if len(sys.argv) != 3:
        raise SystemExit(__doc__)
    main(Path(sys.argv[1]), Path(sys.argv[2]))
