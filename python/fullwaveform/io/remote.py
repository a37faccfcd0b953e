"""Files at URLs, used in place of paths: object stores and web servers, read in ranges.

`location` is the one place where a name becomes a path or a URL. A `RemotePath` has those methods
of `pathlib.Path` that reading and writing need, so that readers and writers do not distinguish.
"""

from __future__ import annotations

import errno
import io
import os
import re
import stat
import threading
from collections.abc import Iterator
from contextlib import contextmanager
from importlib import import_module
from pathlib import Path, PurePosixPath
from typing import IO, TYPE_CHECKING, Any, cast
from urllib.parse import unquote

if TYPE_CHECKING:
    from fullwaveform.io.remote_store import RemoteSource

    _PathMethods = Path
else:
    # Not a Path when the program runs: a function that knows only files of this machine must not
    # take the URL for a relative path.
    _PathMethods = object

_URL = re.compile(r"(?P<scheme>[A-Za-z][A-Za-z0-9+.-]+)://(?P<rest>.*)", re.DOTALL)
_USER = re.compile(r"(?P<user>[^/?#]*)@(?P<path>.*)", re.DOTALL)
# A password with one of "/?#" ends before the last "@" that a slash follows.
_USER_WITH_SLASH = re.compile(r"(?P<user>.*)@(?P<path>[^@]*/.*)", re.DOTALL)
_USER_WITHOUT_PATH = re.compile(r"(?P<user>.*)@(?P<path>[^@/]*)", re.DOTALL)
# What cannot be a user and the beginning of a password.
_SURELY_HOST = re.compile(r"(localhost|\[[^]/]*]|[^:/?#@]*\.[^:/?#@]*)(:[0-9]{1,5})?(?=[/?#]|$)")
_HOST = re.compile(r"(\[[^]/]*]|[^:/?#]*)(:[0-9]+)?(?=[/?#]|$)|arn:")
#: Only in these a question mark begins a query; in the names of objects it is a character.
WEB_SCHEMES = ("http", "https")


class _Reads(threading.local):
    """Of the thread, what the last remote read met that failed."""

    failure: OSError | None = None


_reads = _Reads()


def location(path: str | os.PathLike[str]) -> Path:
    """The path, or for a URL such as ``s3://bucket/scan.las`` what is used like one."""
    if isinstance(path, RemotePath):
        return path
    if isinstance(path, str) and (found := _URL.fullmatch(path)) is not None:
        scheme = found["scheme"].lower()
        return Path(unquote(found["rest"])) if scheme == "file" else RemotePath(path)
    return Path(path)


def is_remote(path: object) -> bool:
    """Whether the location is a URL."""
    return isinstance(path, RemotePath)


def path_or_stream(path: Path) -> Path | IO[bytes]:
    """For libraries that open paths of this machine, and otherwise take file objects."""
    return path.open("rb") if is_remote(path) else path


def _user_and_path(rest: str) -> tuple[str, str]:
    """User and password of a URL, and what follows them; `rest` is the URL without its scheme."""
    found = _USER.fullmatch(rest)
    if found is None and _HOST.match(rest) is None:
        found = _USER_WITH_SLASH.fullmatch(rest) or _USER_WITHOUT_PATH.fullmatch(rest)
    if found is None:
        return "", rest
    return re.sub("[/?#]", lambda mark: f"%{ord(mark[0]):02X}", found["user"]), found["path"]


class RemotePath(_PathMethods):
    """A URL with the methods of a path.

    Its text, and every message on it, leaves out user, password and query, which may be
    credentials. What the store says of the file is asked once, when it is first needed.
    """

    def __init__(self, url: str) -> None:
        found = _URL.fullmatch(url)
        if found is None:
            raise ValueError(f"invalid URL {url!r}; expected SCHEME://...")
        self._scheme = found["scheme"].lower()
        self._user, path = _user_and_path(found["rest"])
        self._query = ""
        if self._scheme in WEB_SCHEMES:
            path, mark, query = path.partition("?")
            self._query = f"{mark}{query.partition('#')[0]}"
        self._path = path
        self._source: RemoteSource | None = None

    def __str__(self) -> str:
        path = self._path.removeprefix(self._perhaps_secret)
        return f"{self._scheme}://{path}{'?...' if self._query else ''}"

    def __repr__(self) -> str:
        return f"RemotePath({str(self)!r})"

    def __fspath__(self) -> str:
        raise RemoteError(f"{self} is a URL; a file of this machine is needed here")

    def __eq__(self, other: object) -> bool:
        return isinstance(other, RemotePath) and self.url == other.url

    def __hash__(self) -> int:
        return hash(self.url)

    def __reduce__(self) -> tuple[Any, ...]:
        return RemotePath, (self.url,)

    @property
    def scheme(self) -> str:
        """As ``s3``, in lower case."""
        return self._scheme

    @property
    def url(self) -> str:
        """The whole URL, with credentials; not for messages."""
        user = f"{self._user}@" if self._user else ""
        return f"{self._scheme}://{user}{self._path}{self._query}"

    @property
    def _perhaps_secret(self) -> str:
        """What at the start of the path may be the end of a password with a slash."""
        if not self._user and ":" not in self._path.partition("/")[0]:
            return ""
        if _SURELY_HOST.match(self._path) is not None:
            return ""
        found = _USER_WITH_SLASH.match(self._path)
        return "" if found is None else f"{found['user']}@"

    @property
    def has_credentials(self) -> bool:
        """Whether the URL has parts that its text leaves out."""
        return bool(self._user or self._query or self._perhaps_secret)

    def without_credentials(self, text: str) -> str:
        """The text of a library, with what may be credentials left out."""
        text = text.replace(self.url, str(self))
        secrets = [
            self._user,
            *self._user.split(":"),
            self._perhaps_secret,
            self._query,
            *re.split("[?&=]", self._query),
        ]
        for secret in sorted({one for one in secrets if len(one) > 2}, key=len, reverse=True):
            text = text.replace(secret, "...").replace(unquote(secret), "...")
        return text

    # ---- names ---------------------------------------------------------------------------------

    @property
    def _pure(self) -> PurePosixPath:
        return PurePosixPath(self._path)

    @property
    def name(self) -> str:
        """Last part of the path."""
        return self._pure.name

    @property
    def stem(self) -> str:
        """The name without its last suffix."""
        return self._pure.stem

    @property
    def suffix(self) -> str:
        """The last suffix of the name, with its dot."""
        return self._pure.suffix

    @property
    def parent(self) -> RemotePath:
        """The folder of the file."""
        return self._with_path(self._path.rstrip("/").rpartition("/")[0])

    def with_name(self, name: str) -> RemotePath:
        """The file of another name in the same folder."""
        return self.parent / name

    def with_suffix(self, suffix: str) -> RemotePath:
        """The file of the same name but for the suffix."""
        return self.with_name(f"{self.stem}{suffix}")

    def __truediv__(self, name: str | os.PathLike[str]) -> RemotePath:
        return self._with_path(f"{self._path.rstrip('/')}/{os.fspath(name)}")

    def _with_path(self, path: str) -> RemotePath:
        user = f"{self._user}@" if self._user else ""
        return RemotePath(f"{self._scheme}://{user}{path}{self._query}")

    def absolute(self) -> RemotePath:
        """The URL itself."""
        return self

    def resolve(self, strict: bool = False) -> RemotePath:
        """The URL itself."""
        return self

    def samefile(self, other: str | os.PathLike[str]) -> bool:
        """Whether the URLs are equal."""
        return self == other

    # ---- what the store has --------------------------------------------------------------------

    @property
    def source(self) -> RemoteSource:
        """The bytes of the file; OSError if it does not exist or the store cannot be reached."""
        if self._source is None:
            self._source = self._store.open_source(self)
        return self._source

    @property
    def _store(self) -> Any:
        # Imported on demand: fsspec is an extra, and takes time to load.
        return import_module("fullwaveform.io.remote_store")

    def stat(self, *, follow_symlinks: bool = True) -> os.stat_result:
        """Size and time of the last modification, 0 where the store does not say."""
        seconds = self.source.modified
        whole, ns = (int(seconds),) * 3, (int(seconds * 1e9),) * 3
        mode = stat.S_IFREG | stat.S_IRUSR
        return os.stat_result((mode, 0, 0, 1, 0, 0, self.source.size, *whole, *(seconds,) * 3, *ns))

    def is_file(self) -> bool:
        """Whether there is a file; OSError if the store cannot be reached or refuses to say."""
        try:
            return self.source.size >= 0
        except FileNotFoundError:
            return False

    def is_dir(self) -> bool:
        """Whether there are files below the URL."""
        return self._source is None and bool(self._store.is_folder(self))

    def exists(self, *, follow_symlinks: bool = True) -> bool:
        """Whether there is a file, or are files below the URL."""
        return self.is_file() or self.is_dir()

    def open(  # type: ignore[override]
        self,
        mode: str = "r",
        buffering: int = -1,
        encoding: str | None = None,
        errors: str | None = None,
        newline: str | None = None,
    ) -> IO[Any]:
        """A file for reading; outputs are written by `atomic_open`."""
        if mode not in ("r", "rb"):
            raise RemoteError(f"cannot append to {self}: files of an object store are written once")
        raw = self.source.open()
        if mode == "rb":
            return cast(IO[bytes], raw)
        return io.TextIOWrapper(io.BufferedReader(raw), encoding, errors, newline)

    def read_bytes(self) -> bytes:
        """The whole file."""
        with self.open("rb") as stream:
            return bytes(stream.read())

    def read_text(self, encoding: str | None = None, errors: str | None = None) -> str:
        """The whole file."""
        return self.read_bytes().decode(encoding or "utf-8", errors or "strict")

    def iterdir(self) -> Iterator[RemotePath]:  # type: ignore[override]
        """The files of a folder."""
        for name in self._store.file_names(self):
            yield self / name

    def mkdir(self, mode: int = 0o777, parents: bool = False, exist_ok: bool = False) -> None:
        """Nothing: folders of object stores exist by their files."""

    def unlink(self, missing_ok: bool = False) -> None:
        """Remove the file."""
        self._store.remove(self, missing_ok=missing_ok)
        self._source = None

    def upload(self, content: Path, *, replace: bool) -> None:
        """Store the file `content` under this URL, where it appears when it is complete.

        Raises FileExistsError if there is one and it must not be replaced, OSError if the store
        does not take it; then nothing has changed.
        """
        self._store.upload(content, self, replace=replace)
        self._source = None

    def check_writable(self) -> None:
        """OSError if the store takes no files, or the bucket does not exist."""
        self._store.check_writable(self)


class RemoteError(OSError):
    """A remote file cannot be used; the message names it and the reason."""


@contextmanager
def noted_failure() -> Iterator[None]:
    """Note the error of a read for `remote_failures_first`."""
    try:
        yield
    except OSError as error:
        _reads.failure = error
        raise


@contextmanager
def remote_failures_first() -> Iterator[None]:
    """Raise the error of a remote read in place of what a library makes of it.

    Decoders that read from file objects call every such error one of the format.
    """
    _reads.failure = None
    try:
        yield
    except Exception as error:
        failure, _reads.failure = _reads.failure, None
        if failure is None or failure is error:
            raise
        raise failure from error


def missing(path: RemotePath) -> FileNotFoundError:
    """The error for a file that does not exist, as the system has it for a path."""
    return FileNotFoundError(errno.ENOENT, os.strerror(errno.ENOENT), str(path))
