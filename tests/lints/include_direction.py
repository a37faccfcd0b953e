"""Fails when a room of the library includes what it must not know.

Usage: include_direction.py [ROOT]    (ROOT: top of the checkout, default: the one of this file)
"""

from __future__ import annotations

import re
import sys
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

LIBRARY = "fullwaveform"
UMBRELLA = "FullWaveform.h"  # at the top: may include every room, and no room includes it
FOR_ALL = frozenset({"Export.h"})  # at the top: every room may include it

# Who may know whom; every room knows itself. Arrows point one way.
MAY_KNOW: dict[str, frozenset[str]] = {
    "text": frozenset(),
    "host": frozenset({"text"}),
    "scanner": frozenset({"host", "text"}),
    "model": frozenset({"scanner", "host", "text"}),
    "fitting": frozenset({"model"}),
    "deconvolution": frozenset({"fitting", "model", "scanner", "host"}),
    "online": frozenset({"model", "scanner", "host"}),
    "driver": frozenset({"text", "host", "scanner", "model", "fitting", "deconvolution", "online"}),
}

# Users of the library must not need these to compile against it.
NOT_IN_PUBLIC_HEADERS = re.compile(r"fftw3|cairo|(unsupported/)?Eigen/", re.IGNORECASE)
NOT_IN_LIBRARY = re.compile(r"python|nanobind", re.IGNORECASE)

INCLUDE = re.compile(r"""^\s*#\s*include\s*(?P<open>[<"])(?P<name>[^>"]+)[>"]""")
PRAGMA_ONCE = re.compile(r"^#pragma once$", re.MULTILINE)


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


def room_of(name: str) -> str:
    """The room in a path below the library's folder; empty for files at its top."""
    return name.partition("/")[0] if "/" in name else ""


def fault_of_arrow(room: str, name: str) -> str | None:
    """What is wrong with a file of `room` ('' at the top) that includes <fullwaveform/`name`>."""
    target = room_of(name)
    if target == "":
        if name in FOR_ALL or room == "":
            return None
        return f"a room must not include <{LIBRARY}/{name}>"
    if target not in MAY_KNOW:
        return f"{target}/ is not a room of the library"
    if room in ("", target) or target in MAY_KNOW.get(room, frozenset()):
        return None
    known = ", ".join(sorted(MAY_KNOW[room])) or "nothing"
    return f"{room}/ must not know {target}/ (it may know: {known})"


def fault_of_include(include: Include, library: Path, public: frozenset[str]) -> str | None:
    """What is wrong with an #include inside the library; None when nothing is."""
    if include.quoted:
        return f"write the full name in angle brackets: <{LIBRARY}/room/File.h>"
    if NOT_IN_LIBRARY.search(include.name):
        return "nothing in the library knows Python"
    own = include.file.relative_to(library).as_posix()
    if own in public and NOT_IN_PUBLIC_HEADERS.match(include.name):
        return "a public header must not need this library"
    prefix, _, name = include.name.partition("/")
    if prefix != LIBRARY:
        return None
    if own in public and name not in public:
        return f"a public header must not include {name}, which is not installed"
    return fault_of_arrow(room_of(own), name)


def check_library(root: Path) -> Iterator[str]:
    """Faults of the library itself, one sentence each."""
    library = root / LIBRARY
    public = public_headers(library)
    for file in sources(library):
        shown = file.relative_to(root)
        room = room_of(file.relative_to(library).as_posix())
        if room and room not in MAY_KNOW:
            yield f"{shown}: {room}/ is not in the table of rooms"
            continue
        if file.suffix == ".h" and not PRAGMA_ONCE.match(file.read_text(encoding="utf-8")):
            yield f"{shown}:1: a header starts with #pragma once"
        for include in includes_of(file):
            if fault := fault_of_include(include, library, public):
                yield f"{shown}:{include.line}: {include.name}: {fault}"


def check_bindings(root: Path) -> Iterator[str]:
    """Faults of the bindings, which stand outside and see the public headers only."""
    public = public_headers(root / LIBRARY)
    for file in sources(root / "python" / "bindings"):
        for include in includes_of(file):
            prefix, _, name = include.name.partition("/")
            if prefix == LIBRARY and name not in public:
                place = f"{file.relative_to(root)}:{include.line}"
                yield f"{place}: {include.name}: bindings see the public headers only"


def main(arguments: list[str]) -> int:
    """Prints every fault; returns 1 when there is one."""
    root = Path(arguments[0]) if arguments else Path(__file__).resolve().parents[2]
    faults = [*check_library(root), *check_bindings(root)]
    for fault in faults:
        print(fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
