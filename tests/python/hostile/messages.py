"""The message of every case, as a list that people read and tests compare.

``python -m tests.python.hostile.messages FOLDER`` writes the list, and the files of the cases to
FOLDER. Texts of other libraries, which change with their versions, are masked.
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
_ROOT = Path(__file__).resolve().parents[3]
# What precedes the text of another library up to the end of the line.
_LIBRARY_TEXT = re.compile(
    r"(not a (?:valid|readable) LAS file: |cannot read points from number \d+: "
    r"|unsupported array type: |is not a TOML file: |not a table of numbers: "
    r"|unreadable (?:(?:HDF5|file) structure|shots \d+ to \d+[ \w]*); "
    r"the file may be truncated or corrupt )"
    r".*"
)
_USAGE_TEXT = re.compile(r"Error: (Missing|No such|Got unexpected) .*")


def outcomes(folder: Path) -> list[dict[str, Any]]:
    """Run all cases in a separate process; one dictionary each, in order."""
    paths = [str(_ROOT), *sys.path]
    done = subprocess.run(
        [sys.executable, "-m", "tests.python.hostile.run_cases", str(folder)],
        capture_output=True,
        text=True,
        cwd=folder,
        env={**os.environ, "PYTHONPATH": os.pathsep.join(paths)},
        timeout=1800,
        check=False,
    )
    found = [json.loads(line) for line in done.stdout.splitlines()]
    if done.returncode != 0:
        last = found[-1]["name"] if found else "the start"
        raise RuntimeError(f"process ended after {last}: {done.returncode} {done.stderr}")
    if done.stderr:  # printed by a library, not through Python
        raise RuntimeError(f"unexpected output: {done.stderr}")
    return found


def message(outcome: dict[str, Any]) -> str:
    """The exit code and the message, without usage lines and texts of other libraries."""
    lines = [line.strip() for line in outcome["stderr"].splitlines()]
    text = " / ".join(line for line in lines if line and not line.startswith(("Usage:", "Try ")))
    text = _LIBRARY_TEXT.sub(r"\1<text of a library>", text)
    text = _USAGE_TEXT.sub(r"Error: \1 <text of a library>", text)
    return f"exit {outcome['exit']}: {text}"


def as_text(found: list[dict[str, Any]]) -> str:
    return "".join(f"{outcome['name']}\n    {message(outcome)}\n" for outcome in found)


if __name__ == "__main__":
    LIST.write_text(as_text(outcomes(Path(sys.argv[1]))), encoding="utf-8")
