"""The input files of a job, and whether they are still what they were."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass
from pathlib import Path

# The samples of some formats lie in a file beside.
_COMPANIONS = (".wdp", ".WDP", ".wvs", ".WVS")


@dataclass(frozen=True)
class FileState:
    """What tells without reading whether a file has changed."""

    name: str
    size: int  # bytes
    mtime_ns: int  # time of its last change


@dataclass(frozen=True)
class InputFile:
    """A file of waveforms, with that of its samples where they lie beside it."""

    path: str  # as it was given
    files: list[FileState]
    blocks: int


def states_of(path: Path) -> list[FileState]:
    """The state of the file and of its companions; OSError where there is no such file."""
    beside = [path.with_suffix(suffix) for suffix in _COMPANIONS]
    found = [path, *(other for other in beside if other != path and other.is_file())]
    return [FileState(p.name, p.stat().st_size, p.stat().st_mtime_ns) for p in found]


def check_states(path: Path, before: Sequence[FileState]) -> None:
    """ValueError, with what differs, if the file or a companion is not as it was."""
    now = {state.name: state for state in states_of(path)}
    for state in before:
        found = now.pop(state.name, None)
        if found is None:
            raise ValueError(f"{path} has changed: {state.name} is missing")
        if found.size != state.size:
            raise ValueError(
                f"{path} has changed: {state.name} had {state.size} bytes and has {found.size}"
            )
        if found.mtime_ns != state.mtime_ns:
            raise ValueError(
                f"{path} has changed: {state.name} was written at another time than when the job "
                "was planned"
            )
    if now:
        raise ValueError(f"{path} has changed: {', '.join(now)} was not there before")
