"""Files that appear under their name only when they are whole."""

from __future__ import annotations

import errno
import io
import os
import secrets
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import Any

from fullwaveform.io.interruption import raise_if_requested

# Errors that only writing can bring: disk, quota or largest file size used up.
_NO_SPACE = (errno.ENOSPC, errno.EDQUOT, errno.EFBIG)
_noted: list[Path] | None = None


class OutputError(OSError):
    """An output cannot be written any further; the message names it and says why."""


@contextmanager
def collect_outputs() -> Iterator[list[Path]]:
    """Yield a list that receives the outputs that get their name in the block."""
    global _noted
    former, _noted = _noted, []
    try:
        yield _noted
    finally:
        _noted = former


@contextmanager
def atomic_path(path: str | os.PathLike[str]) -> Iterator[Path]:
    """Yield a temporary path beside `path` that takes its name when the block ends well.

    The temporary file exists already, empty, and lies in the same folder, so that the final
    renaming cannot fail for want of space. After an error, Ctrl-C included, it is removed and
    whatever stood under `path` before is untouched; so it is when an end was requested.

    Raises
    ------
    OSError
        Its subclass by cause, if the folder is missing or cannot be written to, or if `path` is a
        folder itself. Errors inside the block that speak of the temporary file, or that there is
        no space left, name `path` instead.
    """
    final = Path(path)
    temporary = _create_beside(final)
    try:
        yield temporary
        raise_if_requested()
        temporary.replace(final)
        if _noted is not None:
            _noted.append(final)
    except OSError as error:
        temporary.unlink(missing_ok=True)
        told = _told_of(error, temporary, final)
        if told is error:
            raise
        raise told from error
    except BaseException:
        temporary.unlink(missing_ok=True)
        raise


@contextmanager
def atomic_open(path: str | os.PathLike[str]) -> Iterator[OutputFile]:
    """Yield a stream into a file that takes its name when the block ends well.

    As `atomic_path`, for libraries that write to a stream and make errors of their own, or
    worse, of an error in it. An error of writing is raised at the end of the block, in place of
    any other, or before that by the stream's `check`.
    """
    final = Path(path)
    with atomic_path(final) as temporary, OutputFile(temporary, final) as stream:
        try:
            yield stream
        except Exception:
            stream.check()
            raise
        stream.check()


class OutputFile(io.FileIO):
    """A file that keeps its first error of writing to itself and drops what comes after it.

    Libraries that close files of their own at the end of the program must not find one that
    refuses to be closed: HDF5 crashes on it.
    """

    def __init__(self, path: Path, final: Path) -> None:
        super().__init__(path, "w+")
        self._final = final
        self._failure: OSError | None = None

    def check(self) -> None:
        """Raise OutputError if something could not be written."""
        if self._failure is not None:
            raise _output_error(self._failure, self._final) from self._failure

    def write(self, data: Any) -> int:
        """Write all of the bytes, or none from the first error on."""
        left = memoryview(data).cast("B")
        size = len(left)
        while self._failure is None and len(left) > 0:
            try:
                left = left[super().write(left) or 0 :]
            except OSError as error:
                self._failure = error
        return size

    def truncate(self, size: int | None = None) -> int:
        """Set the length of the file, but not after an error."""
        if self._failure is None:
            try:
                return super().truncate(size)
            except OSError as error:
                self._failure = error
        return self.tell() if size is None else size


def _output_error(cause: OSError, final: Path) -> OutputError:
    # Libraries put words of their own around the system's.
    why = cause.strerror if cause.errno is None else os.strerror(cause.errno)
    return OutputError(cause.errno, f"cannot write {final}: {why}")


def _told_of(error: OSError, temporary: Path, final: Path) -> OSError:
    """The error in terms of the file that was asked for; itself when it speaks of another."""
    if isinstance(error, OutputError):
        return error
    if error.errno in _NO_SPACE:
        return _output_error(error, final)
    if isinstance(error.filename, str | bytes) and os.fsdecode(error.filename) == str(temporary):
        return OSError(error.errno, f"cannot write {final}: {error.strerror}")
    return error


def _create_beside(final: Path) -> Path:
    if final.is_dir():
        raise OSError(errno.EISDIR, f"cannot write {final}: it is a folder")
    temporary = final.with_name(f".{final.name}.{secrets.token_hex(4)}.part")
    try:
        # Mode 0666 leaves the permissions of the result to the umask, as for any other file.
        os.close(os.open(temporary, os.O_CREAT | os.O_EXCL | os.O_WRONLY, 0o666))
    except FileNotFoundError as error:
        message = f"cannot write {final}: the folder {final.parent} does not exist"
        raise OSError(errno.ENOENT, message) from error
    except OSError as error:
        raise OSError(error.errno, f"cannot write {final}: {error.strerror}") from error
    return temporary
