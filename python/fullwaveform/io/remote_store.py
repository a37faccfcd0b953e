"""Access to object stores and web servers through fsspec: ranges, retries, uploads."""

from __future__ import annotations

import errno
import io
import logging
import threading
import time
from collections import OrderedDict
from collections.abc import Callable
from contextlib import suppress
from datetime import datetime
from email.utils import parsedate_to_datetime
from importlib import import_module
from pathlib import Path
from typing import Any, TypeVar

from fullwaveform.io.certificates import certificate_reason
from fullwaveform.io.collector import collector_pause
from fullwaveform.io.interruption import raise_if_requested
from fullwaveform.io.remote import WEB_SCHEMES, RemoteError, RemotePath, missing, noted_failure

_Result = TypeVar("_Result")

#: Waits between attempts at a web server, s. The packages for object stores repeat requests
#: themselves, see docs/remote.md.
WAITS = (0.2, 0.5, 1.0, 2.0)
#: s without any byte of an answer, after which a web server is asked again.
SILENCE = 30.0
_TEMPORARY = (408, 425, 429, 500, 502, 503, 504)  # HTTP status

_BLOCK = 1 << 14  # bytes; every read is rounded up to it
_MAX_READ_AHEAD = 1 << 22  # bytes; reached by doubling while reads follow each other
_MAX_FETCH = 1 << 24  # bytes of a request
_CACHED = 1 << 26  # bytes kept of a file: readers pass over a block several times
_PIECE = 1 << 24  # bytes of a part of an upload
_MAX_PIECES = 9_000  # stores accept 10,000 parts
# Packages beyond those of the extra "remote", by scheme.
_PACKAGES = {
    "gs": "'fullwaveform[gs]'",
    "gcs": "'fullwaveform[gs]'",
    "abfs": "adlfs",
    "az": "adlfs",
}
# Without a handler it prints the traceback of each error that is reported here.
logging.getLogger("gcsfs").addHandler(logging.NullHandler())


class RemoteSource:
    """The bytes of a remote file, as it was when this object was made; for several threads.

    They are fetched in blocks, neighbouring ones in one request, and kept in a cache of bounded
    size. Reads that follow each other fetch more and more ahead.
    """

    def __init__(self, path: RemotePath) -> None:
        self._path = path
        system, name = _system(path)
        info = _attempted(path, "read", lambda: system.info(name))
        if info.get("type") == "directory":
            raise missing(path)
        if info.get("size") is None:
            raise RemoteError(f"cannot read {path}: the server does not tell its size")
        if info.get("partial", True) is False:
            raise _without_ranges(path)
        self.size = int(info["size"])
        self.modified = _modified(info)
        #: Changes with the content: the entity tag of the store, "" where it has none.
        self.tag = str(info.get("ETag") or info.get("etag") or "")
        self._handle = self._opened(system, name)
        self._lock = threading.Lock()
        self._blocks: OrderedDict[int, bytes] = OrderedDict()
        self._end = 0  # of the last read
        self._ahead = _BLOCK  # bytes fetched at once while reads follow each other

    def _opened(self, system: Any, name: str) -> Any:
        options: dict[str, Any] = {}
        if self._path.scheme in WEB_SCHEMES:
            options["size"] = self.size
            if self.tag.startswith('"'):  # weak tags, W/"...", match nothing
                headers = {**system.kwargs.get("headers", {}), "If-Match": self.tag}
                options["headers"] = headers
        if self.size == 0:
            return io.BytesIO()
        if self._path.scheme == "memory":  # its file objects share one position
            return io.BytesIO(system.cat_file(name))
        return _attempted(
            self._path,
            "read",
            lambda: system.open(name, "rb", block_size=_BLOCK, cache_type="none", **options),
        )

    def open(self) -> RemoteFile:
        """A file object with a position of its own."""
        return RemoteFile(self)

    def read_into(self, buffer: memoryview, position: int) -> int:
        """Fill the buffer with the bytes from `position` on; fewer at the end of the file."""
        length = max(min(len(buffer), self.size - position), 0)
        stop = -(-(position + length) // _BLOCK)
        with self._lock:
            follows, self._end = position == self._end, position + length
            done = 0
            while done < length:
                number, offset = divmod(position + done, _BLOCK)
                if number in self._blocks:
                    self._blocks.move_to_end(number)
                    block = self._blocks[number]
                else:
                    block = self._fetch(number, stop, follows=follows)
                part = memoryview(block)[offset : offset + length - done]
                buffer[done : done + len(part)] = part
                done += len(part)
        return length

    def _fetch(self, number: int, stop: int, *, follows: bool) -> bytes:
        """Fetch the missing blocks from `number` to `stop`, more in a sequence; return the first.

        One request, which ends at the first block that is there already.
        """
        self._ahead = min(2 * self._ahead, _MAX_READ_AHEAD) if follows else _BLOCK
        wanted = min(max(stop, number + self._ahead // _BLOCK), number + _MAX_FETCH // _BLOCK)
        after = number + 1
        while after < wanted and after not in self._blocks:
            after += 1
        begin = number * _BLOCK
        content = self._fetched(begin, min(after * _BLOCK, self.size) - begin)
        for start in range(0, len(content), _BLOCK):
            self._blocks[number + start // _BLOCK] = content[start : start + _BLOCK]
        while len(self._blocks) * _BLOCK > _CACHED:
            self._blocks.popitem(last=False)
        return content[:_BLOCK]

    def _fetched(self, position: int, length: int) -> bytes:
        def fetch() -> bytes:
            self._handle.seek(position)
            content = bytes(self._handle.read(length))
            if len(content) != length:
                raise ConnectionError(
                    f"{len(content)} of {length} bytes received from byte {position}"
                )
            return content

        return _attempted(self._path, "read", fetch)


class RemoteFile(io.RawIOBase):
    """A position in a remote file, for libraries that read from file objects."""

    def __init__(self, source: RemoteSource) -> None:
        self._source = source
        self._position = 0

    def readable(self) -> bool:
        """Always."""
        return True

    def seekable(self) -> bool:
        """Always."""
        return True

    def tell(self) -> int:
        """The position in bytes."""
        return self._position

    def seek(self, offset: int, whence: int = io.SEEK_SET) -> int:
        """Set the position, also beyond the end."""
        base = (0, self._position, self._source.size)[whence]
        if base + offset < 0:
            raise ValueError(f"invalid position {base + offset}; must not be negative")
        self._position = base + offset
        return self._position

    def readinto(self, buffer: Any) -> int:
        """Fill the buffer; fewer bytes only at the end of the file."""
        with noted_failure(), collector_pause:
            done = self._source.read_into(memoryview(buffer).cast("B"), self._position)
        self._position += done
        return done


def open_source(path: RemotePath) -> RemoteSource:
    """The bytes of the file; FileNotFoundError or another OSError if it cannot be read."""
    return RemoteSource(path)


def is_folder(path: RemotePath) -> bool:
    """Whether there are files below the URL; never on web servers."""
    if path.scheme in WEB_SCHEMES:
        return False
    system, name = _system(path)
    try:
        return bool(_attempted(path, "read", lambda: system.isdir(name)))
    except FileNotFoundError:
        return False


def file_names(path: RemotePath) -> list[str]:
    """Names of the files of a folder, sorted."""
    system, name = _system(path)
    found = _attempted(path, "list", lambda: system.ls(name, detail=True, refresh=True))
    return sorted(
        entry["name"].rstrip("/").rpartition("/")[2] for entry in found if entry["type"] == "file"
    )


def remove(path: RemotePath, *, missing_ok: bool) -> None:
    """Remove the file; FileNotFoundError if there is none, unless that is no matter."""
    system, name = _system(path)
    try:
        _attempted(path, "remove", lambda: system.rm_file(name))
    except FileNotFoundError:
        if not missing_ok:
            raise


def check_writable(path: RemotePath) -> None:
    """OSError if the store takes no files, or the bucket does not exist."""
    if path.scheme in WEB_SCHEMES:
        raise RemoteError(
            f"cannot write {path}: web servers take no files; write to an object store (s3://, "
            "gs://) or to a file of this machine"
        )
    system, name = _system(path)
    bucket, _, rest = name.strip("/").partition("/")
    if path.scheme == "memory":
        return
    try:
        if rest and not _attempted(path, "write", lambda: system.exists(bucket)):
            raise RemoteError(f"cannot write {path}: {bucket} does not exist")
    except PermissionError:  # allowed to write objects, not to ask for the bucket
        return


def upload(content: Path, path: RemotePath, *, replace: bool) -> None:
    """See `RemotePath.upload`; ended by a signal between two parts of the upload."""
    system, name = _system(path)
    try:
        if path.scheme == "memory":  # whose file objects appear empty at once
            mode = "overwrite" if replace else "create"
            system.pipe_file(name, content.read_bytes(), mode=mode)
        else:
            _upload(system, name, content, "wb" if replace else "xb")
    except FileNotFoundError as error:
        raise RemoteError(f"cannot write {path}: its bucket does not exist") from error
    except Exception as error:
        number = getattr(error, "errno", None)
        if isinstance(error, FileExistsError) or (not replace and number == errno.EINVAL):
            text = f"{path} already exists; use --overwrite (overwrite=True) to replace it"
            raise FileExistsError(errno.EEXIST, text) from error
        if not replace and number == errno.ENOSYS:  # the store has no conditional requests
            upload(content, path, replace=True)
            return
        raise _failure(path, "write", error, 1) from _shown(path, error)


def _upload(system: Any, name: str, content: Path, mode: str) -> None:
    piece = max(_PIECE, -(-content.stat().st_size // _MAX_PIECES))
    target = system.open(name, mode, block_size=piece, autocommit=False)
    try:
        with content.open("rb") as stream:
            while part := stream.read(piece):
                raise_if_requested()
                target.write(part)
        raise_if_requested()
        target.close()
        target.commit()
    except BaseException:
        with suppress(Exception):  # a store that cannot be reached: the first error is the reason
            target.discard()
        target.closed = True  # else its finalizer tries to upload what was discarded
        raise


def _system(path: RemotePath) -> tuple[Any, str]:
    """The file system of the URL as fsspec has it, and the name of the file in it."""
    try:
        core, config = import_module("fsspec.core"), import_module("fsspec.config")
    except ImportError as error:
        raise RemoteError(
            f"{path} is a URL, for which packages are missing; install them with: "
            "pip install 'fullwaveform[remote]'"
        ) from error
    # What another machine has stored since must be seen.
    options: dict[str, Any] = {"use_listings_cache": False}
    try:
        if path.scheme in WEB_SCHEMES:
            given = config.conf.get(path.scheme, {}).get("client_kwargs", {})
            options["client_kwargs"] = {**_web_options(), **given}
        system, name = core.url_to_fs(path.url, **options)
    except ImportError as error:
        package = _PACKAGES.get(path.scheme)
        command = f"pip install {package}" if package else "pip install 'fullwaveform[remote]'"
        raise RemoteError(
            f"{path}: a package for {path.scheme}:// is missing; install it with: {command}"
        ) from error
    except ValueError as error:
        raise RemoteError(
            f"{path}: {path.without_credentials(str(error))}; expected a file or a URL of s3, gs, "
            "http, https or memory"
        ) from _shown(path, error)
    return system, str(name)


def _web_options() -> dict[str, Any]:
    timeout = import_module("aiohttp").ClientTimeout(
        total=None, sock_connect=SILENCE, sock_read=SILENCE
    )
    return {"timeout": timeout, "trust_env": True}  # the latter: proxies, and credentials in .netrc


def _attempted(path: RemotePath, verb: str, call: Callable[[], _Result]) -> _Result:
    """The result of the call; temporary failures of web servers are repeated after a wait."""
    waits = WAITS if path.scheme in WEB_SCHEMES else ()
    for attempt, wait in enumerate((*waits, None), start=1):
        try:
            return call()
        except Exception as error:
            if wait is None or not _is_temporary(_original(path, error)):
                raise _failure(path, verb, error, attempt) from _shown(path, error)
        raise_if_requested()
        time.sleep(wait)
    raise AssertionError


def _original(path: RemotePath, error: Exception) -> BaseException:
    """The error of the request: for any of them fsspec reports that a web page is missing."""
    is_masked = path.scheme in WEB_SCHEMES and isinstance(error, FileNotFoundError)
    return error.__cause__ or error if is_masked else error


def _is_temporary(error: BaseException) -> bool:
    status = getattr(error, "status", None)
    if isinstance(status, int):
        return status in _TEMPORARY
    if isinstance(error, FileNotFoundError | PermissionError | ValueError):
        return False
    is_of_requests = type(error).__module__.startswith("aiohttp")
    return is_of_requests or isinstance(error, OSError | TimeoutError)


def _failure(path: RemotePath, verb: str, error: Exception, attempts: int) -> OSError:
    """The error to raise for one of fsspec or a library below it."""
    original = _original(path, error)
    status = getattr(original, "status", None)
    if status in (404, 410) or isinstance(original, FileNotFoundError):
        return missing(path)
    if status == 412 or type(error).__name__ == "FileExpired":
        return RemoteError(f"{path} has been replaced while it was read")
    if isinstance(original, ValueError) and "range requests" in str(original):
        return _without_ranges(path)
    tried = f"; gave up after {attempts} attempts" if attempts > 1 else ""
    why = certificate_reason(path.scheme, original) or _reason(original)
    reason = path.without_credentials(why)
    return RemoteError(f"cannot {verb} {path}: {reason}{tried}")


def _reason(error: BaseException) -> str:
    status = getattr(error, "status", None)
    if isinstance(status, int):
        return f"HTTP {status} {getattr(error, 'message', '')}".rstrip()
    if isinstance(error, TimeoutError) and not str(error).strip("()"):
        return f"no answer within {SILENCE:g} s"
    text = " ".join(str(error).split()) or type(error).__name__
    if isinstance(error, PermissionError) or "credentials" in text.lower():
        return f"{text} (docs/remote.md: how to give credentials)"
    return text


def _shown(path: RemotePath, error: Exception) -> Exception | None:
    """The cause of an error, unless its text may hold credentials."""
    return None if path.has_credentials else error


def _without_ranges(path: RemotePath) -> RemoteError:
    return RemoteError(
        f"cannot read {path}: the server does not send parts of files (range requests); download "
        "the file, and the file of its samples if it has one"
    )


def _modified(info: dict[str, Any]) -> float:
    """Time of the last modification, s; 0 if the store does not say."""
    found = info.get("LastModified") or info.get("Last-Modified") or info.get("updated")
    found = found or info.get("mtime") or info.get("created")
    if isinstance(found, str):
        found = _parsed_time(found)
    return found.timestamp() if isinstance(found, datetime) else 0.0


def _parsed_time(text: str) -> datetime:
    try:
        return parsedate_to_datetime(text)  # as web servers write it
    except ValueError:
        return datetime.fromisoformat(text)
