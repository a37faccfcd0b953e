"""The lint for words that a reader should not meet."""

from __future__ import annotations

import subprocess
from pathlib import Path

import pytest

from .checkout import faults, write

UNFINISHED = ["TO" + "DO", "FIX" + "ME", "XX" + "X"]


def of_text(root: Path, text: str, ignored: str = "") -> list[str]:
    write(root, {"notes/a.txt": text, ".gitignore": ignored})
    subprocess.run(["git", "init", "--quiet", root], check=True)
    return faults("words.py", root)


@pytest.mark.parametrize("word", UNFINISHED)
def test_unfinished_work(tmp_path: Path, word: str) -> None:
    (fault,) = of_text(tmp_path, f"first\n// {word}: later\n")
    assert fault.startswith(f"notes/a.txt:2: {word}:")


@pytest.mark.parametrize("folder", ["home", "root", "Users"])
def test_path_of_one_machine(tmp_path: Path, folder: str) -> None:
    assert len(of_text(tmp_path, f"open('/{folder}/someone/scan.las')\n")) == 1


@pytest.mark.parametrize(
    "text",
    [
        "folder=$(mktemp -d /tmp/scan.XXXXXX)",
        "https://example.org/home/page",
        "${root}/home/a, build/root/a, ./home/a",
        "methods of to do lists",
    ],
)
def test_what_is_fine(tmp_path: Path, text: str) -> None:
    assert of_text(tmp_path, text) == []


def test_ignored_and_binary_files_are_passed_over(tmp_path: Path) -> None:
    assert of_text(tmp_path, UNFINISHED[0], ignored="notes/\n") == []
    assert of_text(tmp_path, "\0" + UNFINISHED[0]) == []
