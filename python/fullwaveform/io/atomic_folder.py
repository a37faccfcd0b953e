"""Outputs that are folders: they appear when they are complete, and replace only their kind."""

from __future__ import annotations

import errno
import os
import shutil
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

from fullwaveform.io.atomic import (
    FileKind,
    OutputError,
    collected_if_renamed,
    protecting_input,
)
from fullwaveform.io.interruption import raise_if_requested, unfinished


def check_folder(path: Path, kind: FileKind, overwrite: bool) -> None:
    """Check that a folder may get the name `path`: it is free, or has a folder of this kind.

    That is replaced only with `overwrite`, and only if it holds no protected input.

    Raises FileExistsError if not; the message says why.
    """
    if not os.path.lexists(path):
        return
    if not path.is_dir() or not _is_of_kind(path, kind):
        found = "folder" if path.is_dir() else "file"
        raise FileExistsError(
            errno.EEXIST,
            f"{path} exists and is not {kind.name}; choose another name, or remove the {found}",
        )
    if not overwrite:
        raise FileExistsError(
            errno.EEXIST, f"{path} already exists; use --overwrite (overwrite=True) to replace it"
        )
    for file in path.rglob("*"):
        if (source := protecting_input(file)) is not None:
            raise FileExistsError(errno.EEXIST, f"output {path} contains the input file {source}")


def _is_of_kind(path: Path, kind: FileKind) -> bool:
    try:
        return not path.is_symlink() and kind.matches(path)
    except Exception:  # its library cannot read it
        return False


@contextmanager
def atomic_folder(path: Path, kind: FileKind, *, overwrite: bool = False) -> Iterator[Path]:
    """Yield a new folder that gets the name `path` when the ``with`` statement succeeds.

    After an error, Ctrl-C included, or when an end was requested, it is removed and an existing
    folder under `path` is unchanged.

    Raises
    ------
    FileExistsError
        As `check_folder`, at the beginning, or at the end for a folder that has appeared since.
    OSError
        If the parent folder is missing or not writable. Errors of the system inside the statement
        that name a file of the folder or no file name `path` instead.
    """
    check_folder(path, kind, overwrite)
    temporary = path.with_name(f".{path.name}.{os.urandom(4).hex()}.part")
    try:
        temporary.mkdir()
    except OSError as error:
        raise OSError(error.errno, f"cannot write {path}: {error.strerror}") from error
    unfinished.add(temporary)
    try:
        yield temporary
        raise_if_requested()
        with collected_if_renamed(temporary, path):
            _move(temporary, path, kind, overwrite)
    except OSError as error:
        if not _concerns(error, temporary):
            raise
        raise OutputError(error.errno, f"cannot write {path}: {error.strerror}") from error
    finally:
        shutil.rmtree(temporary, ignore_errors=True)
        unfinished.discard(temporary)


def _concerns(error: OSError, temporary: Path) -> bool:
    if error.errno is None or isinstance(error, FileExistsError):
        return False
    name = os.fsdecode(error.filename) if isinstance(error.filename, str | bytes) else None
    return (name or str(temporary)).startswith(str(temporary))


def _move(temporary: Path, path: Path, kind: FileKind, overwrite: bool) -> None:
    """Give the folder its name; an existing one keeps it until then."""
    if not os.path.lexists(path):
        temporary.rename(path)
        return
    check_folder(path, kind, overwrite)
    former = path.with_name(f".{path.name}.{os.urandom(4).hex()}.former")
    path.rename(former)
    try:
        temporary.rename(path)
    except BaseException:
        former.rename(path)
        raise
    shutil.rmtree(former)
