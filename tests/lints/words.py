"""Fails when a file of the repository holds words that a reader should not meet.

Usage: words.py [ROOT]    (ROOT: top of a git checkout, default: the one of this file)
"""

from __future__ import annotations

import re
import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path

# Pattern and what is wrong with it. Word boundaries keep mktemp's long rows of X out of it.
UNWANTED: list[tuple[re.Pattern[str], str]] = [
    (
        re.compile(r"(?<![\w.:/~$}-])/(?:home|root|work|Users)/(?=\w)"),
        "a path of one machine",
    ),
    (
        re.compile(r"\b(?:TO" + r"DO|FIX" + r"ME|XX" + r"X)\b"),
        "finish it, or describe the gap where users look for it",
    ),
]

# Files that may hold them, as patterns below the root.
EXEMPT: tuple[str, ...] = ()


def tracked_files(root: Path) -> list[Path]:
    """Files of the checkout, whether added to git already or not, without the ignored ones."""
    listing = subprocess.run(
        ["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
        cwd=root,
        check=True,
        capture_output=True,
    ).stdout
    paths = (root / name for name in listing.decode().split("\0") if name)
    return sorted(path for path in paths if path.is_file())


def text_of(path: Path) -> str | None:
    """The content of a text file, None for a binary one."""
    content = path.read_bytes()
    if b"\0" in content:
        return None
    return content.decode("utf-8", errors="replace")


def faults_of(text: str) -> Iterator[tuple[int, str, str]]:
    """Line number, words found and what is wrong with them."""
    for number, line in enumerate(text.splitlines(), start=1):
        for pattern, reason in UNWANTED:
            if found := pattern.search(line):
                yield number, found.group().strip(), reason


def check(root: Path) -> Iterator[str]:
    """Faults of a checkout, one sentence each."""
    for path in tracked_files(root):
        shown = path.relative_to(root)
        text = None if any(shown.match(pattern) for pattern in EXEMPT) else text_of(path)
        for number, words, reason in faults_of(text or ""):
            yield f"{shown}:{number}: {words}: {reason}"


def main(arguments: list[str]) -> int:
    """Prints every fault; returns 1 when there is one."""
    root = Path(arguments[0]) if arguments else Path(__file__).resolve().parents[2]
    faults = list(check(root))
    for fault in faults:
        print(fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
