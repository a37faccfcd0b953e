"""Checks that the folders of the Python package import in the allowed directions only.

The directions are those of the Python table in docs/architecture.md. Imports inside functions and
under TYPE_CHECKING count as well.

Usage: import_direction.py [ROOT]    (ROOT: top of the checkout, default: the one of this file)
"""

from __future__ import annotations

import ast
import sys
from collections.abc import Iterator
from pathlib import Path

from architecture import allowed_dependencies

PACKAGE = "fullwaveform"
COMPILED = "_core"
ONLY_IMPORTER_OF_COMPILED = "core"
# Files at the top without a row of their own, and the row that applies to them.
ENTRY_POINTS = {"__init__": "api", "__main__": "cli"}
FOR_ALL = "fullwaveform.io.atomic"  # every folder that writes files may import it
VERSION = "__version__"  # defined in __init__ before its imports; every folder may read it


def part_of(path: Path, package: Path) -> str:
    """Folder below the package that holds a file; for files at its top, their own name."""
    first = path.relative_to(package).parts[0]
    return first.removesuffix(".py")


def imported_modules(path: Path, package: Path) -> Iterator[tuple[int, str]]:
    """Line and full name of each import; of `from a import b` the name a.b."""
    folder = [PACKAGE, *path.relative_to(package).parts[:-1]]
    for node in ast.walk(ast.parse(path.read_bytes(), str(path))):
        if isinstance(node, ast.Import):
            for alias in node.names:
                yield node.lineno, alias.name
        elif isinstance(node, ast.ImportFrom):
            base = folder[: len(folder) - node.level + 1] if node.level else []
            prefix = ".".join([*base, *filter(None, [node.module])])
            for alias in node.names:
                yield node.lineno, f"{prefix}.{alias.name}"


def fault_of(part: str, module: str, table: dict[str, frozenset[str]]) -> str | None:
    """The rule that an import of `module` in `part` breaks; None if allowed."""
    names = module.split(".")
    if names[0] != PACKAGE:
        return None
    target = names[1] if len(names) > 1 else ""
    if target == COMPILED:
        if part == ONLY_IMPORTER_OF_COMPILED:
            return None
        return f"only {ONLY_IMPORTER_OF_COMPILED}/ imports the compiled module"
    row = ENTRY_POINTS.get(part, part)
    if target in (part, row, VERSION) or target in table[row] or module.startswith(f"{FOR_ALL}."):
        return None
    if target not in table:
        if row in ("api", "cli"):
            return None
        return "import from the folder that defines it, not from the top of the package"
    return f"{part} must not import {target} (allowed: {', '.join(sorted(table[row])) or 'none'})"


def check(root: Path, table: dict[str, frozenset[str]]) -> Iterator[str]:
    """Faults of a checkout, one line each."""
    package = root / "python" / PACKAGE
    for path in sorted(package.rglob("*.py")):
        part, shown = part_of(path, package), path.relative_to(root)
        if part not in table and part not in ENTRY_POINTS:
            yield f"{shown}: {part} is not in the Python table of docs/architecture.md"
            continue
        for line, module in sorted(imported_modules(path, package)):
            if fault := fault_of(part, module, table):
                yield f"{shown}:{line}: {module}: {fault}"


def main(arguments: list[str]) -> int:
    """Prints every fault; returns 1 if there is one."""
    root = Path(arguments[0]) if arguments else Path(__file__).resolve().parents[2]
    faults = list(check(root, allowed_dependencies("Python")))
    for fault in faults:
        print(fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
