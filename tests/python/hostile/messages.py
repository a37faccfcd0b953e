"""What the command line says to every case, as a list that people read and tests compare.

``python -m tests.python.hostile.messages FOLDER`` writes the list again, its cases in the folder.
"""

from __future__ import annotations

import json
import os
import re
import subprocess
import sys
from pathlib import Path
from typing import Any

LIST = Path(__file__).with_name("messages.txt")
_ADDRESS = re.compile("0x[0-9a-f]+")  # of an object, other in every run
_ROOT = Path(__file__).resolve().parents[3]


def outcomes(folder: Path) -> list[dict[str, Any]]:
    """Run all cases in a process of their own; one dictionary each, in their order."""
    paths = [str(_ROOT), *sys.path]
    done = subprocess.run(
        [sys.executable, "-m", "tests.python.hostile.run_cases", str(folder)],
        capture_output=True,
        text=True,
        cwd=folder,
        env={**os.environ, "PYTHONPATH": os.pathsep.join(paths)},
        timeout=600,
        check=False,
    )
    found = [json.loads(line) for line in done.stdout.splitlines()]
    if done.returncode != 0:
        last = found[-1]["name"] if found else "nothing"
        raise RuntimeError(f"the program ended after {last}: {done.returncode} {done.stderr}")
    if done.stderr:  # past Python, by a library
        raise RuntimeError(f"something was said beside the sentences: {done.stderr}")
    return found


def sentence(outcome: dict[str, Any]) -> str:
    """The exit code and what was said, without frames and the hint to --help."""
    lines = [line.strip("│ ") for line in outcome["stderr"].splitlines()]
    said = [line for line in lines if line and not line.startswith(("Usage:", "Try ", "╭", "╰"))]
    return f"exit {outcome['exit']}: {_ADDRESS.sub('0x…', ' / '.join(said))}"


def as_text(found: list[dict[str, Any]]) -> str:
    return "".join(f"{outcome['name']}\n    {sentence(outcome)}\n" for outcome in found)


if __name__ == "__main__":
    LIST.write_text(as_text(outcomes(Path(sys.argv[1]))), encoding="utf-8")
