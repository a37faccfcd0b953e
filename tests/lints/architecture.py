"""Reads the tables of allowed dependencies from docs/architecture.md."""

from __future__ import annotations

import re
from pathlib import Path

DOCUMENT = Path(__file__).resolve().parents[2] / "docs" / "architecture.md"
NONE = "nothing"
ROW = re.compile(r"^(?P<name>\w+) +-> (?P<allowed>[\w, ]+)$")


class TableError(ValueError):
    """The table in the document cannot be read."""


def allowed_dependencies(language: str, document: Path = DOCUMENT) -> dict[str, frozenset[str]]:
    """Name -> names it may depend on, from the code block below the heading of a language."""
    text = document.read_text(encoding="utf-8")
    found = re.search(
        rf"^### {re.escape(language)}\n.*?^```text\n(.*?)^```", text, re.DOTALL | re.MULTILINE
    )
    if found is None:
        raise TableError(f"{document.name}: no code block below '### {language}'")
    table: dict[str, frozenset[str]] = {}
    for line in found[1].splitlines():
        row = ROW.match(line)
        if row is None:
            raise TableError(f"{document.name}: expected 'name -> name, name', found {line!r}")
        names = row["allowed"].split(", ")
        table[row["name"]] = frozenset() if names == [NONE] else frozenset(names)
    for name, allowed in table.items():
        if unknown := sorted(allowed - set(table)):
            raise TableError(f"{document.name}: {name} -> {unknown[0]}, which has no row")
    return table
