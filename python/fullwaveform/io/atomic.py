"""Output files that appear under their name only when they are complete."""

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

# Errors that only writing can cause: disk, quota or maximum file size exceeded.
_NO_SPACE = (errno.ENOSPC, errno.EDQUOT, errno.EFBIG)
_collected: list[Path] | None = None


class OutputError(OSError):
    """An output cannot be written; the message names it and the reason."""


@contextmanager
def collect_outputs() -> Iterator[list[Path]]:
    """Yield a list that receives the outputs completed inside the ``with`` statement."""
    global _collected
    former, _collected = _collected, []
    try:
        yield _collected
    finally:
        _collected = former


@contextmanager
def atomic_path(path: str | os.PathLike[str]) -> Iterator[Path]:
    """Yield a temporary path that is renamed to `path` when the ``with`` statement succeeds.

    The temporary file exists already, empty, in the same folder, so that renaming cannot fail for
    lack of space. After an error, Ctrl-C included, or when an end was requested, it is removed and
    an existing file under `path` is unchanged.

    Raises
    ------
    OSError
        If the folder is missing or not writable, or if `path` is a folder. Errors inside the
        statement that name the temporary file or report a lack of space name `path` instead.
    """
    final = Path(path)
    temporary = _create_temporary(final)
    try:
        yield temporary
        raise_if_requested()
        temporary.replace(final)
        if _collected is not None:
            _collected.append(final)
    except OSError as error:
        temporary.unlink(missing_ok=True)
        renamed = _naming_final(error, temporary, final)
        if renamed is error:
            raise
        raise renamed from error
    except BaseException:
        temporary.unlink(missing_ok=True)
        raise


@contextmanager
def atomic_open(path: str | os.PathLike[str]) -> Iterator[OutputFile]:
    """Yield a stream into a file that gets its name when the ``with`` statement succeeds.

    As `atomic_path`, for libraries that write to a stream and replace its errors by their own or
    crash. A write error is raised at the end of the statement in place of any other error, or
    earlier by the stream's `check`.
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
    """A file that stores its first write error for `check` and ignores what is written after it.

    Libraries that close their files at the end of the program must not meet an error then: HDF5
    crashes on it.
    """

    def __init__(self, path: Path, final: Path) -> None:
        super().__init__(path, "w+")
        self._final = final
        self._failure: OSError | None = None

    def check(self) -> None:
        """Raise OutputError if a write has failed."""
        if self._failure is not None:
            raise _output_error(self._failure, self._final) from self._failure

    def write(self, data: Any) -> int:
        """Write all bytes; does nothing after an error."""
        left = memoryview(data).cast("B")
        size = len(left)
        while self._failure is None and len(left) > 0:
            try:
                left = left[super().write(left) or 0 :]
            except OSError as error:
                self._failure = error
        return size

    def truncate(self, size: int | None = None) -> int:
        """Set the length of the file; does nothing after an error."""
        if self._failure is None:
            try:
                return super().truncate(size)
            except OSError as error:
                self._failure = error
        return self.tell() if size is None else size


def _output_error(cause: OSError, final: Path) -> OutputError:
    # Libraries add their own text to the message of the system.
    why = cause.strerror if cause.errno is None else os.strerror(cause.errno)
    return OutputError(cause.errno, f"cannot write {final}: {why}")


def _naming_final(error: OSError, temporary: Path, final: Path) -> OSError:
    """The error with the final file in place of the temporary one; other errors unchanged."""
    if isinstance(error, OutputError):
        return error
    if error.errno in _NO_SPACE:
        return _output_error(error, final)
    if isinstance(error.filename, str | bytes) and os.fsdecode(error.filename) == str(temporary):
        return OSError(error.errno, f"cannot write {final}: {error.strerror}")
    return error


def _create_temporary(final: Path) -> Path:
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
