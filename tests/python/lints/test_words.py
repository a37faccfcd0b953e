"""The lint for paths of one machine, unfinished work and unclear phrases."""

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
def test_accepted_text(tmp_path: Path, text: str) -> None:
    assert of_text(tmp_path, text) == []


def test_ignored_and_binary_files_are_skipped(tmp_path: Path) -> None:
    assert of_text(tmp_path, UNFINISHED[0], ignored="notes/\n") == []
    assert of_text(tmp_path, "\0" + UNFINISHED[0]) == []


@pytest.mark.parametrize("text", ["Plain road of the fit", "the Plain Road.", "a (plain road)"])
def test_unclear_phrase(tmp_path: Path, text: str) -> None:
    (fault,) = of_text(tmp_path, f"first\n{text}\n")
    assert fault.lower().startswith("notes/a.txt:2: plain road: unclear; for example: ")


def test_part_of_a_longer_word_is_no_phrase(tmp_path: Path) -> None:
    assert of_text(tmp_path, "a plain roadmap\n") == []


def test_only_the_list_itself_may_hold_phrases(tmp_path: Path) -> None:
    subprocess.run(["git", "init", "--quiet", tmp_path], check=True)
    write(tmp_path, {"tests/lints/words.py": '"plain road"', "other/words.py": '"plain road"'})
    (fault,) = faults("words.py", tmp_path)
    assert fault.startswith("other/words.py:1:")


def test_the_list_itself_may_not_hold_unfinished_work(tmp_path: Path) -> None:
    subprocess.run(["git", "init", "--quiet", tmp_path], check=True)
    write(tmp_path, {"tests/lints/words.py": UNFINISHED[0]})
    assert len(faults("words.py", tmp_path)) == 1
