"""Object stores on this machine, each with the bucket "scans", that fail when they are told to."""

from __future__ import annotations

import re
import socket
import threading
from abc import ABC, abstractmethod
from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any
from urllib.parse import unquote_plus

import boto3
import pytest
import s3fs
from fsspec.registry import _registry
from gcp_storage_emulator.server import Router, create_server
from gcsfs.core import GCSFileSystem
from moto.moto_server.threaded_moto_server import MotoRequestHandler
from moto.server import ThreadedMotoServer

from fullwaveform.io.companions import with_companions


@dataclass
class Faults:
    """What the next requests meet that send content to the store, or ask for it.

    "" for nothing, a status as "503", "cut" for a connection that ends before an answer, "half" for
    one that ends in the middle of it.
    """

    sending: list[str] = field(default_factory=list)
    asking: list[str] = field(default_factory=list)
    _lock: threading.Lock = field(default_factory=threading.Lock)

    def next_of(self, pending: list[str]) -> str:
        with self._lock:  # parts of an upload are stored at the same time
            return pending.pop(0) if pending else ""


class _HalfSent:
    """Sends a head, half of the body, and ends the connection."""

    closed = False

    def __init__(self, handler: Any) -> None:
        self._stream, self._connection = handler.wfile, handler.connection
        self._has_head = False

    def write(self, data: bytes) -> int:
        if self._has_head:
            self._stream.write(data[: len(data) // 2])
            self._connection.shutdown(socket.SHUT_RDWR)
        else:
            self._stream.write(data)
        self._has_head = True
        return len(data)

    def flush(self) -> None:
        """Nothing is buffered."""

    def close(self) -> None:
        self._stream.close()
        self.closed = True


def meets_fault(handler: Any, fault: str) -> bool:
    """Have the handler of a request fail; whether it must not answer any more."""
    if fault.isdigit():
        handler.rfile.read(int(handler.headers.get("Content-Length", 0)))
        handler.send_response(int(fault))
        handler.send_header("Content-Length", "0")
        handler.end_headers()
    elif fault == "cut":
        handler.close_connection = True
        handler.connection.shutdown(socket.SHUT_RDWR)
    elif fault == "half":
        handler.close_connection = True
        handler.wfile = _HalfSent(handler)
    return fault not in ("", "half")


class Bucket(ABC):
    """The bucket "scans" of a store."""

    scheme: str
    #: Bytes of a part of an upload that the store accepts.
    piece: int

    def __init__(self, faults: Faults) -> None:
        self.faults = faults

    @abstractmethod
    def put(self, name: str, content: bytes) -> None: ...

    @abstractmethod
    def get(self, name: str) -> bytes: ...

    @abstractmethod
    def names(self) -> list[str]:
        """Names of all objects."""

    @abstractmethod
    def remove(self, name: str) -> None: ...

    @abstractmethod
    def unfinished_uploads(self) -> int: ...

    def url(self, name: str) -> str:
        return f"{self.scheme}://scans/{name}"

    def store(self, path: Path) -> str:
        """Stores a file and its companions; returns the URL."""
        for file in {one for one in with_companions(path) if one.is_file()}:
            self.put(f"in/{file.name}", file.read_bytes())
        return self.url(f"in/{path.name}")


class S3Bucket(Bucket):
    scheme = "s3"
    piece = 6 << 20

    def __init__(self, faults: Faults, client: Any) -> None:
        super().__init__(faults)
        self.client = client

    def put(self, name: str, content: bytes) -> None:
        self.client.put_object(Bucket="scans", Key=name, Body=content)

    def get(self, name: str) -> bytes:
        return bytes(self.client.get_object(Bucket="scans", Key=name)["Body"].read())

    def names(self) -> list[str]:
        found = self.client.list_objects_v2(Bucket="scans").get("Contents", [])
        return [one["Key"] for one in found]

    def remove(self, name: str) -> None:
        self.client.delete_object(Bucket="scans", Key=name)

    def unfinished_uploads(self) -> int:
        return len(self.client.list_multipart_uploads(Bucket="scans").get("Uploads", []))


class GoogleBucket(Bucket):
    scheme = "gs"
    piece = 1 << 20  # larger ones cause a warning

    def __init__(self, faults: Faults, client: Any, storage: Any) -> None:
        super().__init__(faults)
        self.client, self._storage = client, storage

    def put(self, name: str, content: bytes) -> None:
        self.client.pipe_file(f"scans/{name}", content)

    def get(self, name: str) -> bytes:
        return bytes(self.client.cat_file(f"scans/{name}"))

    def names(self) -> list[str]:
        return [name.removeprefix("scans/") for name in self.client.find("scans")]

    def remove(self, name: str) -> None:
        self.client.rm_file(f"scans/{name}")

    def unfinished_uploads(self) -> int:
        return len(self._storage.resumable)


@contextmanager
def s3_server() -> Iterator[Any]:
    """A server on a free port of this machine."""
    server = ThreadedMotoServer(ip_address="127.0.0.1", port=0, verbose=False)
    server.start()
    yield server._server
    server.stop()


@contextmanager
def google_server() -> Iterator[Any]:
    """A server on a free port of this machine."""
    server = create_server("127.0.0.1", 0, in_memory=True, default_bucket="scans")
    server.start()
    yield server
    server.stop()


def address_of(server: Any) -> str:
    """Host and port of a server of the standard library."""
    return f"127.0.0.1:{server.server_address[1]}"


@contextmanager
def s3_bucket(address: str, monkeypatch: pytest.MonkeyPatch) -> Iterator[S3Bucket]:
    """The empty bucket, found and entered by the environment."""
    s3fs.S3FileSystem.clear_instance_cache()  # it keeps the credentials of former connections
    for name, value in {
        "AWS_ACCESS_KEY_ID": "key",
        "AWS_SECRET_ACCESS_KEY": "secret",
        "AWS_DEFAULT_REGION": "us-east-1",
        "AWS_ENDPOINT_URL": address,
        "AWS_MAX_ATTEMPTS": "2",
    }.items():
        monkeypatch.setenv(name, value)
    faults, answer = Faults(), MotoRequestHandler.run_wsgi

    def run_wsgi(self: Any) -> None:
        is_object = self.path.startswith("/scans/")
        pending = {"PUT": faults.sending, "GET": faults.asking}.get(self.command, [])
        if not meets_fault(self, faults.next_of(pending) if is_object else ""):
            answer(self)

    monkeypatch.setattr(MotoRequestHandler, "run_wsgi", run_wsgi)
    bucket = S3Bucket(faults, boto3.client("s3"))
    bucket.client.create_bucket(Bucket="scans")
    yield bucket
    for name in bucket.names():
        bucket.remove(name)


@contextmanager
def google_bucket(server: Any, monkeypatch: pytest.MonkeyPatch) -> Iterator[GoogleBucket]:
    """The empty bucket, found by the environment; failed requests are repeated without delay."""
    address = f"http://{address_of(server._api._httpd)}"
    monkeypatch.setenv("STORAGE_EMULATOR_HOST", address)
    monkeypatch.setattr("fsspec.config.conf", {"gs": {"token": "anon"}})
    # The class that gcsfs registers asks for the kind of a bucket by gRPC, which the emulator does
    # not speak, for a minute; it then does the same.
    monkeypatch.setitem(_registry, "gs", GCSFileSystem)
    monkeypatch.setattr("gcsfs.retry.asyncio", _WithoutDelay)
    GCSFileSystem.clear_instance_cache()
    faults, answer = Faults(), Router.handle

    def handle(self: Any, method: str) -> None:
        connection = self._request_handler
        if method in ("POST", "PUT"):
            has_content = re.search("uploadType=multipart|upload_id=", connection.path)
            pending = faults.sending if has_content else []
        else:
            is_content = method == "GET" and "alt=media" in connection.path
            pending = faults.asking if is_content else []
        if method == "DELETE" and (upload := re.search("upload_id=([^&]+)", connection.path)):
            # The emulator leaves it out.
            del server._storage.resumable[unquote_plus(upload[1])]
            connection.send_response(499)
            connection.send_header("Content-Length", "0")
            connection.end_headers()
        elif not meets_fault(connection, faults.next_of(pending)):
            answer(self, method)

    monkeypatch.setattr(Router, "handle", handle)
    client = GCSFileSystem(token="anon", endpoint_url=address)
    bucket = GoogleBucket(faults, client, server._storage)
    yield bucket
    for name in bucket.names():
        bucket.remove(name)
    GCSFileSystem.clear_instance_cache()


class _WithoutDelay:
    @staticmethod
    async def sleep(seconds: float) -> None:
        """Returns at once."""
