"""Small checkouts and the lints run over them."""

from __future__ import annotations

import subprocess
import sys
from pathlib import Path

LINTS = Path(__file__).resolve().parents[2] / "lints"


def write(root: Path, files: dict[str, str]) -> Path:
    for name, text in files.items():
        path = root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, encoding="utf-8")
    return root


def faults(lint: str, root: Path) -> list[str]:
    """Lines that a lint prints; its exit code must be 1 exactly if there are any."""
    done = subprocess.run(
        [sys.executable, LINTS / lint, root], capture_output=True, text=True, check=False
    )
    assert done.stderr == ""
    lines = done.stdout.splitlines()
    assert done.returncode == (1 if lines else 0)
    return lines
