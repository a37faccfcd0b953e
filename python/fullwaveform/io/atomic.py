"""Output files that appear when they are complete, and replace only what they may replace."""

from __future__ import annotations

import errno
import io
import os
import stat
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from fullwaveform.io.companions import with_companions
from fullwaveform.io.interruption import raise_if_requested, unfinished
from fullwaveform.io.remote import RemotePath, is_remote, location

# Errors that only writing can cause: disk, quota or maximum file size exceeded.
_NO_SPACE = (errno.ENOSPC, errno.EDQUOT, errno.EFBIG)
_collected: list[Path] | None = None
_inputs: list[Path] = []


class OutputError(OSError):
    """An output cannot be written; the message names it and the reason."""


@dataclass(frozen=True)
class FileKind:
    """A kind of output, by which a former output is told from any other file.

    name : as in "a.las exists and is not NAME"
    matches : whether an existing file is of this kind, by its content; may raise any exception for
        a file that is not
    """

    name: str
    matches: Callable[[Path], bool]
    is_folder: bool = False


#: For files whose names belong to a run, whatever they contain.
ANY_FILE = FileKind("a file", lambda path: True)


@contextmanager
def protected_inputs(*paths: Path) -> Iterator[None]:
    """Protect the inputs of a run: inside the ``with`` statement no output replaces them.

    Nor does it replace the files that belong to them, see `with_companions`.
    """
    _inputs.extend(paths)
    try:
        yield
    finally:
        for path in paths:
            _inputs.remove(path)


def protecting_input(path: Path) -> Path | None:
    """The protected input that is, or to which belongs, the file at `path`, also through links."""
    if is_remote(path):
        return next((one for one in _inputs if path in with_companions(one)), None)
    try:
        found = path.stat()
    except OSError:
        return None
    for source in _inputs:
        if is_remote(source):
            continue
        for file in with_companions(source):
            try:
                if os.path.samestat(found, file.stat()):
                    return source
            except OSError:  # an input that does not exist is reported where it is opened
                continue
    return None


def check_output(path: Path, kind: FileKind | None, overwrite: bool) -> None:
    """Check that an output may get the name `path`; no file must exist there without `overwrite`.

    Even then it must be a regular file of the given kind, and no protected input. Empty files are
    of every kind; without a kind nothing is replaced.

    Raises
    ------
    FileExistsError
        If not; the message says why.
    IsADirectoryError
        If `path` is a folder.
    """
    if not _exists(path):
        return
    if path.is_dir():
        raise IsADirectoryError(errno.EISDIR, f"cannot write {path}: it is a folder")
    if (source := protecting_input(path)) is not None:
        relation = "is the input file" if source.samefile(path) else "belongs to the input file"
        raise FileExistsError(errno.EEXIST, f"output {path} {relation} {source}")
    if kind is not None and not _is_of_kind(path, kind):
        raise FileExistsError(
            errno.EEXIST,
            f"{path} exists and is not {kind.name}; choose another name, or remove the file",
        )
    if kind is None or not overwrite:
        raise FileExistsError(
            errno.EEXIST, f"{path} already exists; use --overwrite (overwrite=True) to replace it"
        )


def _exists(path: Path) -> bool:
    return path.exists() if is_remote(path) else os.path.lexists(path)


def _is_of_kind(path: Path, kind: FileKind) -> bool:
    try:
        found = path.stat()
        return stat.S_ISREG(found.st_mode) and (found.st_size == 0 or kind.matches(path))
    except FileNotFoundError:  # a link to nothing, or removed by another process just now
        return not _exists(path)
    except Exception:  # its library cannot read it
        return False


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
def collected_if_renamed(temporary: Path, final: Path) -> Iterator[None]:
    """Collect the output if it has its final name, also when a signal comes right after."""
    file = temporary.stat()
    try:
        yield
    finally:
        if _collected is not None and final.exists() and os.path.samestat(final.stat(), file):
            _collected.append(final)


@contextmanager
def atomic_path(
    path: str | os.PathLike[str], kind: FileKind | None = None, *, overwrite: bool = False
) -> Iterator[Path]:
    """Yield a temporary path that is renamed to `path` when the ``with`` statement succeeds.

    The temporary file exists already, empty, in the same folder, so that renaming cannot fail for
    lack of space; for a URL in the folder for temporary files, from which it is stored in one
    upload. After an error, Ctrl-C included, or when an end was requested, it is removed and
    an existing file under `path` is unchanged.

    Raises
    ------
    FileExistsError
        As `check_output`, at the beginning, or at the end for a file that has appeared since.
    OSError
        If the folder is missing or not writable, or if `path` is a folder. Errors inside the
        statement that name the temporary file or report a lack of space name `path` instead.
    """
    final = location(path)
    check_output(final, kind, overwrite)
    if isinstance(final, RemotePath):
        with _uploaded_path(final, replace=overwrite) as temporary:
            yield temporary
        return
    temporary = _create_temporary(final)
    try:
        yield temporary
        raise_if_requested()
        with collected_if_renamed(temporary, final):
            _rename(temporary, final, kind, overwrite)
        raise_if_requested()  # a signal that arrived during the renaming
    except OSError as error:
        temporary.unlink(missing_ok=True)
        renamed = _naming_final(error, temporary, final)
        if renamed is error:
            raise
        raise renamed from error
    except BaseException:
        temporary.unlink(missing_ok=True)
        raise
    finally:
        unfinished.discard(temporary)


@contextmanager
def atomic_open(
    path: str | os.PathLike[str], kind: FileKind | None = None, *, overwrite: bool = False
) -> Iterator[OutputFile]:
    """Yield a stream into a file that gets its name when the ``with`` statement succeeds.

    As `atomic_path`, for libraries that write to a stream and replace its errors by their own or
    crash. A write error is raised at the end of the statement in place of any other error, or
    earlier by the stream's `check`.
    """
    final = location(path)
    with (
        atomic_path(final, kind, overwrite=overwrite) as temporary,
        OutputFile(temporary, final) as stream,
    ):
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


@contextmanager
def _uploaded_path(final: RemotePath, *, replace: bool) -> Iterator[Path]:
    """A temporary file of this machine that is stored under the URL, see `atomic_path`."""
    final.check_writable()
    from tempfile import mkstemp  # loaded where it is needed: it takes longer than a small file

    descriptor, name = mkstemp(prefix="fullwaveform-", suffix=final.suffix)
    os.close(descriptor)
    temporary = Path(name)
    unfinished.add(temporary)
    try:
        yield temporary
        raise_if_requested()
        final.upload(temporary, replace=replace)
        if _collected is not None:
            _collected.append(final)
        raise_if_requested()  # a signal that arrived during the upload
    except OSError as error:
        renamed = _naming_final(error, temporary, final)
        if renamed is error:
            raise
        raise renamed from error
    finally:
        temporary.unlink(missing_ok=True)
        unfinished.discard(temporary)


def _output_error(cause: OSError, final: Path) -> OutputError:
    from tempfile import gettempdir

    # Libraries add their own text to the message of the system.
    why = cause.strerror if cause.errno is None else os.strerror(cause.errno)
    where = f" in the folder {gettempdir()}, where it is prepared" if is_remote(final) else ""
    return OutputError(cause.errno, f"cannot write {final}: {why}{where}")


def _naming_final(error: OSError, temporary: Path, final: Path) -> OSError:
    """The error with the final file in place of the temporary one; other errors unchanged."""
    if isinstance(error, OutputError):
        return error
    if error.errno in _NO_SPACE:
        return _output_error(error, final)
    if isinstance(error.filename, str | bytes) and os.fsdecode(error.filename) == str(temporary):
        return OSError(error.errno, f"cannot write {final}: {error.strerror}")
    return error


def _rename(temporary: Path, final: Path, kind: FileKind | None, overwrite: bool) -> None:
    """Give the file its final name; only a file that `check_output` accepts is replaced."""
    try:
        _rename_to_new(temporary, final)
    except FileExistsError:
        check_output(final, kind, overwrite)
        temporary.replace(final)


def _rename_to_new(temporary: Path, final: Path) -> None:
    """Rename the file; FileExistsError if the name is taken, however short ago.

    Renaming would replace a file that another process has made a moment before; making a link does
    not.
    """
    try:
        os.link(temporary, final)
    except FileExistsError:
        raise
    except OSError:  # a file system without links: an empty file takes the name first
        _create_new(final)
        try:
            temporary.replace(final)
        except OSError:
            final.unlink()
            raise
    else:
        temporary.unlink()


def _create_new(path: Path) -> None:
    # Mode 0666 leaves the permissions of the result to the umask, as for any other file.
    os.close(os.open(path, os.O_CREAT | os.O_EXCL | os.O_WRONLY, 0o666))


def _create_temporary(final: Path) -> Path:
    temporary = final.with_name(f".{final.name}.{os.urandom(4).hex()}.part")
    try:
        _create_new(temporary)
    except FileNotFoundError as error:
        message = f"cannot write {final}: the folder {final.parent} does not exist"
        raise OSError(errno.ENOENT, message) from error
    except OSError as error:
        raise OSError(error.errno, f"cannot write {final}: {error.strerror}") from error
    unfinished.add(temporary)
    return temporary
