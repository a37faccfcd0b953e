"""Broken inputs, each made of a good one by one change, and the call that meets it.

A case is a function that prepares a folder and returns the words of a call. Its output, if it made
one, would be called ``out.*``.
"""

from __future__ import annotations

from collections.abc import Callable, Iterator
from pathlib import Path

from . import arrays, calls, las, pulsewaves, scanners

Case = Callable[[Path], list[str]]


def cases() -> dict[str, Case]:
    """All cases by name, in the order of the list of messages."""
    found: dict[str, Case] = {}
    for part in (las, pulsewaves, arrays, scanners, calls):
        for name, case in part.cases():
            full = f"{part.__name__.rpartition('.')[2]}: {name}"
            assert full not in found, full
            found[full] = case
    return found


def names() -> Iterator[str]:
    yield from cases()
