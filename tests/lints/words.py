"""Checks the files of the repository for paths of one machine, unfinished work and unclear phrases.

Usage: words.py [ROOT]    (ROOT: top of a git checkout, default: the one of this file)
"""

from __future__ import annotations

import re
import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path

# Pattern and advice. The word boundaries exempt the long rows of X of mktemp.
PATTERNS: list[tuple[re.Pattern[str], str]] = [
    (
        re.compile(r"(?<![\w.:/~$}-])/(?:home|root|work|Users)/(?=\w)"),
        "a path of one machine",
    ),
    (
        re.compile(r"\b(?:TO" + r"DO|FIX" + r"ME|XX" + r"X)\b"),
        "finish it, or document the gap for users",
    ),
]

# Phrases without a legitimate use, and what to write instead.
PHRASES = {
    "what is not a number": "NaN",
    "the header announces": "header declares",
    "tell_unreadable": "on_unreadable",
    "lie beside": "are next to",
    "led back": "pulled back",
    "one after the other while": "while",
    "told apart": "distinguished",
    "stands beside": "is next to",
    "side by side with": "compared with",
    "set beside": "compared with",
    "hands on": "passes",
    "standing beside": "next to",
    "side by side in memory": "contiguous",
    "the house's": "the project's",
    "least and most": "minimum and maximum",
    "may know whom": "may include which",
    "all is well": "all checks passed",
    "there is no verb": "unknown command",
    "gives a sentence": "gives a message",
    "plain road": "reference implementation",
    "of its own accord": "by itself",
    "are none of": "are not",
    "wait for some to come": "wait for workers",
    "a room's": "a module's",
    "room of the library": "module of the library",
    "table of rooms": "table of modules",
    "no end of": "many",
    "cut off in the middle": "truncated",
    "lies beside": "is next to",
    "comes to nothing": "fails",
}
PHRASE = re.compile(r"\b(?:" + "|".join(map(re.escape, PHRASES)) + r")\b", re.IGNORECASE)
# This list, and the tests of this check.
MAY_HOLD_PHRASES = ("tests/lints/words.py", "tests/python/lints/test_words.py")


def tracked_files(root: Path) -> list[Path]:
    """Files of the checkout, added to git or not, without the ignored ones."""
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


def faults_of(text: str, *, phrases: bool) -> Iterator[tuple[int, str, str]]:
    """Line number, words found and the advice; with or without the search for phrases."""
    for number, line in enumerate(text.splitlines(), start=1):
        for pattern, advice in PATTERNS:
            if found := pattern.search(line):
                yield number, found.group().strip(), advice
        if phrases and (found := PHRASE.search(line)):
            yield number, found.group(), f"unclear; for example: {PHRASES[found.group().lower()]}"


def check(root: Path) -> Iterator[str]:
    """Faults of a checkout, one line each."""
    for path in tracked_files(root):
        shown = path.relative_to(root)
        phrases = shown.as_posix() not in MAY_HOLD_PHRASES
        for number, words, advice in faults_of(text_of(path) or "", phrases=phrases):
            yield f"{shown}:{number}: {words}: {advice}"


def main(arguments: list[str]) -> int:
    """Prints every fault; returns 1 if there is one."""
    root = Path(arguments[0]) if arguments else Path(__file__).resolve().parents[2]
    faults = list(check(root))
    for fault in faults:
        print(fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
