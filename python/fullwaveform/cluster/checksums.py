"""Checksums of the files of parts, which reveal damage that leaves the size as it was."""

from __future__ import annotations

import zlib
from collections.abc import Iterable
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from fullwaveform.cluster.folder import JobFolder
from fullwaveform.cluster.manifest import Part, PartOutcome
from fullwaveform.io.remote import is_remote

_PIECE = 1 << 20  # bytes
_THREADS = 8  # what waits for a file server waits for several files at once


def checksum(path: Path) -> str:
    """CRC-32 of the bytes of a file, as 8 hexadecimal digits; OSError if it cannot be read."""
    found = 0
    with path.open("rb", buffering=0) as file:
        while piece := file.read(_PIECE):
            found = zlib.crc32(piece, found)
    return f"{found:08x}"


def verify(parts: Iterable[Part], folder: JobFolder, *, download: bool = False) -> int:
    """Compare the files of the finished parts with their checksums.

    Damaged parts are waiting afterwards, with an error that names the file.

    Parameters
    ----------
    download
        Whether this is done for parts at URLs, too, whose bytes are then transferred.

    Returns
    -------
    Number of finished parts of which only the sizes are known to be right: at URLs, or written
    before there were checksums.
    """
    finished = [part for part in parts if part.outcome is not None]
    if is_remote(folder.path) and not download:
        return len(finished)

    def compare(part: Part) -> bool:
        assert part.outcome is not None
        if damage := _damage(part.outcome, folder):
            part.reset(damage)
            return True
        return part.outcome.checksums.keys() >= part.outcome.files.keys()

    with ThreadPoolExecutor(_THREADS, thread_name_prefix="checksum") as pool:
        return list(pool.map(compare, finished)).count(False)


def _damage(outcome: PartOutcome, folder: JobFolder) -> str:
    for name in outcome.files.keys() & outcome.checksums.keys():
        expected = outcome.checksums[name]
        try:
            found = checksum(folder.part_path(name))
        except FileNotFoundError:  # removed a moment ago
            return f"part {name} is missing"
        if found != expected:
            return f"part {name} is damaged: its checksum is {found}, but {expected} was written"
    return ""
