"""The lint for the length of commit subjects."""

from __future__ import annotations

import subprocess
import sys
from pathlib import Path

from .checkout import LINTS, faults, write

NOTE = "commit subjects not checked: no complete git history\n"


def git(root: Path, *arguments: str) -> None:
    identity = ("-c", "user.name=a", "-c", "user.email=a@example.org")
    subprocess.run(["git", *identity, *arguments], cwd=root, check=True, capture_output=True)


def commit(root: Path, subject: str) -> None:
    git(root, "add", "--all")
    git(root, "commit", "--quiet", "--allow-empty", "--message", f"{subject}\n\n{'b' * 100}")


def history(root: Path) -> Path:
    """A long subject, then the commit that adds the check, which has a long subject as well."""
    root.mkdir()
    git(root, "init", "--quiet")
    commit(root, "a" * 100)
    write(root, {"tests/lints/commit_subjects.py": "first"})
    commit(root, "b" * 100)
    return root


def passes_with_note(root: Path) -> bool:
    call = [sys.executable, LINTS / "commit_subjects.py", root]
    done = subprocess.run(call, capture_output=True, text=True, check=False)
    return (done.returncode, done.stdout, done.stderr) == (0, NOTE, "")


def test_later_subjects_are_checked(tmp_path: Path) -> None:
    root = history(tmp_path / "a")
    assert faults("commit_subjects.py", root) == []
    commit(root, "c" * 72)
    assert faults("commit_subjects.py", root) == []
    commit(root, "d" * 73)
    commit(root, "e")
    (fault,) = faults("commit_subjects.py", root)
    assert fault.endswith(f": subject has 73 characters, at most 72: {'d' * 73}")


def test_changing_the_check_does_not_move_the_start(tmp_path: Path) -> None:
    root = history(tmp_path / "a")
    commit(root, "d" * 73)
    write(root, {"tests/lints/commit_subjects.py": "second"})
    commit(root, "e")
    assert len(faults("commit_subjects.py", root)) == 1


def test_characters_not_bytes(tmp_path: Path) -> None:
    root = history(tmp_path / "a")
    commit(root, "\u00fc" * 72)
    assert faults("commit_subjects.py", root) == []


def test_shallow_clone(tmp_path: Path) -> None:
    root = history(tmp_path / "a")
    commit(root, "d" * 73)
    git(tmp_path, "clone", "--quiet", "--depth", "1", f"file://{root}", "b")
    assert passes_with_note(tmp_path / "b")


def test_no_history(tmp_path: Path) -> None:
    assert passes_with_note(tmp_path)
