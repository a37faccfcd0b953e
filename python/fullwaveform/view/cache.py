"""Where the viewer keeps what it derives from a file, and for which state of it that is valid."""

from __future__ import annotations

import hashlib
import json
import os
import shutil
import time
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import Any

from platformdirs import user_cache_path

from fullwaveform import __version__
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.remote import RemotePath
from fullwaveform.view.sections import SectionFile, SectionWriter, new_section_file

_ABANDONED_SECONDS = 24 * 3600  # without use, after which no viewer needs a file any more


def cache_folder() -> Path:
    """The folder, which is made if it is missing."""
    folder = user_cache_path("fullwaveform") / "view"
    try:
        folder.mkdir(parents=True, exist_ok=True)
    except OSError as error:
        raise OSError(
            error.errno,
            f"cannot make the cache folder {folder}: {error.strerror}; set XDG_CACHE_HOME to a "
            "folder that can be written",
        ) from error
    return folder


def identity(path: Path, **settings: Any) -> dict[str, Any]:
    """What changes when the file, the version or one of the settings does."""
    state = path.stat()
    return {
        "path": _path_key(path),
        "size": state.st_size,
        "modified": state.st_mtime_ns,
        "tag": path.source.tag if isinstance(path, RemotePath) else "",
        "version": __version__,
        **settings,
    }


def check_unchanged(path: Path, known: dict[str, Any]) -> None:
    """OSError if the file was removed or changed since its `identity` was the known one."""
    try:
        current = identity(path)
    except FileNotFoundError as error:
        raise FileNotFoundError(
            error.errno, "the file was removed or renamed since the viewer was started", str(path)
        ) from error
    if known | current != known:
        raise OSError(f"{path} was changed since the viewer was started; start it again")


def cached_name(purpose: str, path: Path, identified: dict[str, Any]) -> Path:
    """Name of a file in the cache folder for this state of a file."""
    text = json.dumps(identified, sort_keys=True)
    key = hashlib.sha256(text.encode()).hexdigest()[:16]
    return cache_folder() / f"{purpose}-{_path_key(path)}-{key}"


def remove_former(current: Path, *, is_reopened: bool = False) -> None:
    """Remove files of the same purpose that belong to other states or settings of the same file.

    Unfinished ones only if they are abandoned: another viewer may be writing them.

    is_reopened : whether viewers open the file again later; if so, only abandoned ones are removed
    """
    former = current.stem.rpartition("-")[0]
    for other in current.parent.glob(f"{former}-*"):
        if other.stem != current.stem and not (is_reopened and not _is_abandoned(other)):
            other.unlink(missing_ok=True)
    for part in current.parent.glob(f".{former}-*.part"):
        if _is_abandoned(part):
            part.unlink(missing_ok=True)


def mark_used(path: Path) -> None:
    """Note that a viewer uses a file, without a change of its `identity`."""
    os.utime(path, ns=(time.time_ns(), path.stat().st_mtime_ns))


def remove_abandoned_folders(purpose: str) -> None:
    """Remove the folders whose names begin with the purpose that ended viewers have left."""
    for folder in cache_folder().glob(f"{purpose}-*"):
        if _is_abandoned(folder):
            shutil.rmtree(folder, ignore_errors=True)


def _is_abandoned(path: Path) -> bool:
    try:
        state = path.stat()
    except FileNotFoundError:  # removed by another viewer
        return False
    return time.time() - max(state.st_atime, state.st_mtime) > _ABANDONED_SECONDS


@contextmanager
def written_to_cache(name: Path) -> Iterator[None]:
    """Errors in writing this file of the cache say how to use another folder."""
    try:
        yield
    except OSError as error:
        if str(name) not in str(error):
            raise
        message = f"{error.strerror}; XDG_CACHE_HOME sets another cache folder"
        raise OSError(error.errno, message) from error


def cached_sections(name: Path, build: Callable[[SectionWriter], None]) -> SectionFile:
    """The file of this name in the cache, which `build` makes if it is missing or damaged."""
    try:
        return SectionFile(name)
    except (FileNotFoundError, WaveformFileError):
        with written_to_cache(name), new_section_file(name) as writer:
            build(writer)
        remove_former(name)
        return SectionFile(name)


def _path_key(path: Path) -> str:
    # The whole URL: its text leaves out the query, by which some servers distinguish files.
    name = path.url if isinstance(path, RemotePath) else str(path.absolute())
    return hashlib.sha256(name.encode()).hexdigest()[:16]
