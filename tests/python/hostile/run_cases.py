"""Runs all cases in a process of their own, with bounds on memory and time; a line of JSON each."""

from __future__ import annotations

import json
import os
import resource
import signal
import sys
import time
from pathlib import Path
from types import FrameType

from typer.testing import CliRunner

from fullwaveform.cli.main import app

from .corpus import Case, cases

MEMORY = 4 << 30  # bytes of address space, libraries and their threads included
SECONDS = 20  # for a single case


def run_case(case: Case, folder: Path) -> dict[str, object]:
    folder.mkdir(parents=True)
    words = case(folder)
    before = sorted(path.name for path in folder.iterdir())
    began = time.monotonic()
    signal.alarm(SECONDS)
    result = CliRunner().invoke(app, words, env={"COLUMNS": "1000"})
    signal.alarm(0)
    left = sorted(path.name for path in folder.iterdir())
    unexpected = result.exception if not isinstance(result.exception, SystemExit) else None
    return {
        "exit": result.exit_code,
        "stdout": result.stdout,
        "stderr": result.stderr.replace(str(folder), "…"),
        "new files": [name for name in left if name not in before],
        "unexpected": None if unexpected is None else repr(unexpected),
        "seconds": time.monotonic() - began,
    }


def main(folder: Path) -> None:
    def too_long(number: int, frame: FrameType | None) -> None:
        raise TimeoutError(f"not done after {SECONDS} s")

    signal.signal(signal.SIGALRM, too_long)
    resource.setrlimit(resource.RLIMIT_AS, (MEMORY, MEMORY))
    for number, (name, case) in enumerate(cases().items()):
        print(json.dumps({"name": name} | run_case(case, folder / f"{number:03}")), flush=True)


if __name__ == "__main__":
    os.chdir(sys.argv[1])
    main(Path(sys.argv[1]))
