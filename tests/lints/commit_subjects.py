"""Checks that commit subjects have at most 72 characters, after the commit that added this check.

Without history (no git, or a shallow clone) it reports so and passes.

Usage: commit_subjects.py [ROOT]    (ROOT: top of a git checkout, default: the one of this file)
"""

from __future__ import annotations

import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path

MAX_LENGTH = 72
THIS_FILE = "tests/lints/commit_subjects.py"


def git(root: Path, *arguments: str) -> str:
    """Output of a git command; OSError or CalledProcessError without git or repository."""
    done = subprocess.run(
        ["git", *arguments], cwd=root, check=True, capture_output=True, encoding="utf-8"
    )
    return done.stdout.strip()


def first_commit(root: Path) -> str | None:
    """The commit that added this check; None without history."""
    try:
        if git(root, "rev-parse", "--is-shallow-repository") != "false":
            return None
        # The path is relative to ROOT: an archive unpacked inside another repository has no such
        # file in its history.
        added = git(root, "log", "--diff-filter=A", "--format=%H", "--", THIS_FILE)
    except (OSError, subprocess.CalledProcessError):
        return None
    return added.splitlines()[-1] if added else None


def check(root: Path, start: str) -> Iterator[str]:
    """Subjects that are too long, one line each."""
    for line in git(root, "log", "--format=%h %s", f"{start}..HEAD").splitlines():
        commit, _, subject = line.partition(" ")
        if len(subject) > MAX_LENGTH:
            length = f"{len(subject)} characters, at most {MAX_LENGTH}"
            yield f"{commit}: subject has {length}: {subject}"


def main(arguments: list[str]) -> int:
    """Prints every fault; returns 1 if there is one."""
    root = Path(arguments[0]) if arguments else Path(__file__).resolve().parents[2]
    start = first_commit(root)
    if start is None:
        print("commit subjects not checked: no complete git history")
        return 0
    faults = list(check(root, start))
    for fault in faults:
        print(fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
