"""Runs all cases with limits on memory and time, and prints a line of JSON for each."""

from __future__ import annotations

import hashlib
import json
import os
import resource
import signal
import sys
import time
from pathlib import Path
from types import FrameType

from typer.testing import CliRunner

from fullwaveform.cli.app import app

from ..support.las_scenes import four_shots
from .corpus import Case, cases

MEMORY = 1 << 30  # bytes of address space in addition to that of the libraries and their threads
SECONDS = 120  # for a single case, which takes a few milliseconds, on a busy machine


def contents(folder: Path) -> dict[str, str]:
    """Everything below the folder: a digest of each file, the kind of all else."""
    found = {}
    for path in sorted(folder.rglob("*")):
        kind = "link" if path.is_symlink() else "folder" if path.is_dir() else "other"
        plain = kind == "other" and path.is_file()
        digest = hashlib.sha256(path.read_bytes()).hexdigest() if plain else kind
        found[str(path.relative_to(folder))] = digest
    return found


def run_case(case: Case, folder: Path) -> dict[str, object]:
    folder.mkdir(parents=True)
    words = case(folder)
    before = contents(folder)
    began = time.process_time()
    signal.alarm(SECONDS)
    result = CliRunner().invoke(app, words, env={"COLUMNS": "1000"})
    signal.alarm(0)
    left = contents(folder)
    unexpected = result.exception if not isinstance(result.exception, SystemExit) else None
    return {
        "exit": result.exit_code,
        "stdout": result.stdout,
        "stderr": result.stderr.replace(str(folder), "…"),
        "changed": [name for name in {**before, **left} if before.get(name) != left.get(name)],
        "unexpected": None if unexpected is None else repr(unexpected),
        "seconds": time.process_time() - began,
    }


def load_everything(folder: Path) -> None:
    """Valid runs that load the libraries of every format."""
    folder.mkdir(parents=True)
    scan = four_shots().write(folder / "scan.las")
    for words in (
        ["extract", str(scan), "-o", str(folder / "out.csv"), "--allow-empty"],
        ["convert", str(scan), str(folder / "out.h5")],
        ["metrics", str(scan), "-o", str(folder / "metrics.csv")],
        ["voxels", str(scan), "-o", str(folder / "out.zarr"), "--size", "1"],
        ["voxels", str(scan), "-o", str(folder / "out.tif"), "--size", "1"],
    ):
        result = CliRunner().invoke(app, words)
        assert result.exit_code == 0, result.output


def main(folder: Path) -> None:
    def too_long(number: int, frame: FrameType | None) -> None:
        raise TimeoutError(f"not finished after {SECONDS} s")

    signal.signal(signal.SIGALRM, too_long)
    load_everything(folder / "good")
    pages = int(Path("/proc/self/statm").read_text(encoding="ascii").split()[0])
    limit = pages * resource.getpagesize() + MEMORY
    resource.setrlimit(resource.RLIMIT_AS, (limit, limit))
    for number, (name, case) in enumerate(cases().items()):
        print(json.dumps({"name": name} | run_case(case, folder / f"{number:03}")), flush=True)


if __name__ == "__main__":
    os.chdir(sys.argv[1])
    main(Path(sys.argv[1]))
