"""Names of inputs, after which their outputs are named."""

from __future__ import annotations

from collections.abc import Sequence
from pathlib import Path


def check_distinct(sources: Sequence[Path]) -> None:
    """ValueError for inputs that are given twice, or whose outputs would have one name."""
    by_stem: dict[str, Path] = {}
    for source in sources:
        # Names that differ only in case are one file on some systems.
        other = by_stem.setdefault(source.stem.casefold(), source)
        if other is source:
            continue
        if other.resolve() == source.resolve():
            raise ValueError(f"{source} is given twice")
        raise ValueError(
            f"the outputs of {other} and {source} would have the same name; extract them into "
            "different folders"
        )
