"""Invalid inputs, each made from a valid one by one change, and the calls that read them.

A case is a function that prepares a folder and returns the arguments of a call, whose output would
be called ``out.*``.
"""

from __future__ import annotations

from collections.abc import Callable, Iterator
from pathlib import Path

from . import (
    arrays,
    calls,
    compressed_pulsewaves,
    las,
    pulsewaves,
    scanners,
    shot_tables,
    tables,
)

Case = Callable[[Path], list[str]]


def cases() -> dict[str, Case]:
    """All cases by name, in the order of the list of messages."""
    found: dict[str, Case] = {}
    formats = (las, pulsewaves, compressed_pulsewaves, arrays, shot_tables)
    for part in (*formats, scanners, calls, tables):
        for name, case in part.cases():
            full = f"{part.__name__.rpartition('.')[2]}: {name}"
            assert full not in found, full
            found[full] = case
    return found


def names() -> Iterator[str]:
    yield from cases()
