"""Files that hold the samples of another file, of the same name but for the suffix."""

from __future__ import annotations

from collections.abc import Iterator
from pathlib import Path

#: Waveform packets of LAS; samples of PulseWaves, also compressed.
COMPANION_SUFFIXES = (".wdp", ".WDP", ".wvs", ".WVS", ".wvz", ".WVZ")


def with_companions(path: Path) -> Iterator[Path]:
    """The file, and the names of companions, which need not exist.

    These are next to `path`, and next to the file to which it links.
    """
    yield path
    if path.name:
        for base in (path, path.resolve()):
            yield from (base.with_suffix(suffix) for suffix in COMPANION_SUFFIXES)
