"""The input files of a run, and checks that they have not changed."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass, field
from pathlib import Path

from fullwaveform.calibration.calibration import Calibration
from fullwaveform.io.block_range import BlockStart
from fullwaveform.io.companions import COMPANION_SUFFIXES
from fullwaveform.io.remote import RemotePath


@dataclass(frozen=True)
class FileState:
    """Reveals a change of a file without reading it."""

    name: str
    size: int  # bytes
    mtime_ns: int  # time of the last modification
    tag: str = ""  # of a URL: the entity tag of the store


@dataclass(frozen=True)
class InputFile:
    """A waveform file, with its companion file if it has one."""

    path: str  # as given
    files: list[FileState]
    blocks: int
    calibration: Calibration = field(default_factory=Calibration)
    error: str = ""  # why it could not be read when the run was planned
    starts: list[BlockStart] = field(default_factory=list)  # of parts that need not start at 0

    def start_of(self, block: int) -> BlockStart:
        """The last known start at or before the block."""
        known = [start for start in self.starts if start.block <= block]
        return max(known, key=lambda start: start.block, default=BlockStart())


def states_of(path: Path) -> list[FileState]:
    """The state of the file and of its companions; OSError if the file does not exist."""
    companions = [path.with_suffix(suffix) for suffix in COMPANION_SUFFIXES]
    if isinstance(path, RemotePath) and path.has_credentials:
        raise ValueError(
            f"{path} has credentials, which the manifest would show; give them by the environment"
        )
    found = [path, *(other for other in companions if other != path and other.is_file())]
    return [FileState(p.name, p.stat().st_size, p.stat().st_mtime_ns, _tag(p)) for p in found]


def _tag(path: Path) -> str:
    return path.source.tag if isinstance(path, RemotePath) else ""


def check_states(path: Path, before: Sequence[FileState]) -> None:
    """ValueError with the difference if the file or a companion has changed."""
    now = {state.name: state for state in states_of(path)}
    for state in before:
        found = now.pop(state.name, None)
        if found is None:
            raise ValueError(f"{path} has changed: {state.name} is missing")
        if found.size != state.size:
            raise ValueError(
                f"{path} has changed: {state.name} had {state.size} bytes, now {found.size}"
            )
        if (found.mtime_ns, found.tag) != (state.mtime_ns, state.tag):
            raise ValueError(
                f"{path} has changed: {state.name} was modified after the run was planned"
            )
    if now:
        raise ValueError(f"{path} has changed: {', '.join(now)} is new")
