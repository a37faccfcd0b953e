"""Checks that the modules of the library include each other in the allowed directions only.

The directions are those of the C++ table in docs/architecture.md.

Usage: include_direction.py [ROOT]    (ROOT: top of the checkout, default: the one of this file)
"""

from __future__ import annotations

import re
import sys
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

from architecture import allowed_dependencies

LIBRARY = "fullwaveform"
FOR_ALL = frozenset({"Export.h"})  # at the top: every module may include it

# Users of the library must not need these to compile against it.
NOT_IN_PUBLIC_HEADERS = re.compile(r"fftw3|cairo|(unsupported/)?Eigen/", re.IGNORECASE)
NOT_IN_LIBRARY = re.compile(r"python|nanobind", re.IGNORECASE)

INCLUDE = re.compile(r"""^\s*#\s*include\s*(?P<open>[<"])(?P<name>[^>"]+)[>"]""")
PRAGMA_ONCE = re.compile(r"^#pragma once$", re.MULTILINE)


Table = dict[str, frozenset[str]]


@dataclass(frozen=True)
class Include:
    """One #include line of a file."""

    file: Path
    line: int
    name: str
    quoted: bool


def includes_of(file: Path) -> Iterator[Include]:
    """Every #include of a file, in its order."""
    for number, line in enumerate(file.read_text(encoding="utf-8").splitlines(), start=1):
        if found := INCLUDE.match(line):
            yield Include(file, number, found["name"], found["open"] == '"')


def sources(folder: Path) -> list[Path]:
    """Headers and sources below a folder, sorted."""
    return sorted(path for path in folder.rglob("*") if path.suffix in {".h", ".cpp"})


def public_headers(library: Path) -> frozenset[str]:
    """Headers that the build files install, relative to the library's folder."""
    return frozenset(
        (build_file.parent / name).relative_to(library).as_posix()
        for build_file in library.rglob("CMakeLists.txt")
        for name in re.findall(r"[\w./]+\.h\b", build_file.read_text(encoding="utf-8"))
    )


def module_of(name: str) -> str:
    """The module in a path below the library's folder; empty for files at its top."""
    return name.partition("/")[0] if "/" in name else ""


def fault_of_direction(module: str, name: str, table: Table) -> str | None:
    """The rule broken by <fullwaveform/`name`> in a file of `module` ('' at the top)."""
    target = module_of(name)
    if target == "":
        if name in FOR_ALL or module == "":
            return None
        return f"a module must not include <{LIBRARY}/{name}>"
    if target not in table:
        return f"unknown module {target}/"
    if module == target:
        return None
    if name.count("/") > 1:
        return f"{name.rpartition('/')[0]}/ is private to {target}/"
    if module == "" or target in table.get(module, frozenset()):
        return None
    allowed = ", ".join(sorted(table[module])) or "none"
    return f"{module}/ must not include {target}/ (allowed: {allowed})"


def fault_of_include(
    include: Include, library: Path, public: frozenset[str], table: Table
) -> str | None:
    """The rule that an #include inside the library breaks; None if allowed."""
    if include.quoted:
        return f"write the full name in angle brackets: <{LIBRARY}/module/File.h>"
    if NOT_IN_LIBRARY.search(include.name):
        return "the library must not depend on Python"
    own = include.file.relative_to(library).as_posix()
    if own in public and NOT_IN_PUBLIC_HEADERS.match(include.name):
        return "a public header must not include this library"
    prefix, _, name = include.name.partition("/")
    if prefix != LIBRARY:
        return None
    if own in public and name not in public:
        return f"a public header must not include {name}, which is not installed"
    return fault_of_direction(module_of(own), name, table)


def check_library(root: Path, table: Table) -> Iterator[str]:
    """Faults of the library, one line each."""
    library = root / LIBRARY
    public = public_headers(library)
    for file in sources(library):
        shown = file.relative_to(root)
        module = module_of(file.relative_to(library).as_posix())
        if module and module not in table:
            yield f"{shown}: {module}/ is not in the C++ table of docs/architecture.md"
            continue
        if file.suffix == ".h" and not PRAGMA_ONCE.match(file.read_text(encoding="utf-8")):
            yield f"{shown}:1: a header starts with #pragma once"
        for include in includes_of(file):
            if fault := fault_of_include(include, library, public, table):
                yield f"{shown}:{include.line}: {include.name}: {fault}"


def check_bindings(root: Path) -> Iterator[str]:
    """Faults of the bindings, one line each."""
    public = public_headers(root / LIBRARY)
    for file in sources(root / "python" / "bindings"):
        for include in includes_of(file):
            prefix, _, name = include.name.partition("/")
            if prefix == LIBRARY and name not in public:
                place = f"{file.relative_to(root)}:{include.line}"
                yield f"{place}: {include.name}: bindings may include public headers only"


def main(arguments: list[str]) -> int:
    """Prints every fault; returns 1 if there is one."""
    root = Path(arguments[0]) if arguments else Path(__file__).resolve().parents[2]
    table = allowed_dependencies("C++")
    faults = [*check_library(root, table), *check_bindings(root)]
    for fault in faults:
        print(fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
