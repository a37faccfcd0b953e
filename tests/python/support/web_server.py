"""A web server with range requests that counts what it sends and fails when it is told to."""

from __future__ import annotations

import re
import threading
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from dataclasses import dataclass, field
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

_RANGE = re.compile(r"bytes=(\d+)-(\d+)")


@dataclass(frozen=True)
class ServedFile:
    """A file of which any part can be made when it is asked for."""

    size: int
    part: Callable[[int, int], bytes]  # from the first byte, to the one after the last
    tag: str = '"1"'

    @classmethod
    def of(cls, content: bytes, tag: str = '"1"') -> ServedFile:
        return cls(len(content), lambda begin, end: content[begin:end], tag)


@dataclass
class WebServer:
    """What is served, how it fails, and what was sent."""

    files: dict[str, ServedFile] = field(default_factory=dict)
    with_ranges: bool = True
    #: What the next requests for content meet: a status as "503", "cut" in the middle of the body,
    #: "silent" without any answer until `ended`.
    faults: list[str] = field(default_factory=list)
    always: str = ""  # the same for every request
    sent: int = 0  # bytes of bodies
    requests: int = 0  # for content
    address: str = ""
    ended: threading.Event = field(default_factory=threading.Event)

    def url(self, name: str) -> str:
        return f"http://{self.address}/{name}"


class _Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    #: Head and body are sent one after the other; the body would wait 40 ms for the client.
    disable_nagle_algorithm = True
    served: WebServer

    def do_HEAD(self) -> None:
        self._answer(with_body=False)

    def do_GET(self) -> None:
        self.served.requests += 1
        self._answer(with_body=True)

    def _answer(self, *, with_body: bool) -> None:
        served = self.served
        fault = served.always
        if not fault and with_body and served.faults:
            fault = served.faults.pop(0)
        if fault == "silent":
            served.ended.wait()
            self.close_connection = True
            return
        if fault.isdigit():
            self._end(int(fault))
            return
        file = served.files.get(self.path.lstrip("/").partition("?")[0])
        if file is None:
            self._end(404)
            return
        if self.headers.get("If-Match", file.tag) != file.tag:
            self._end(412)
            return
        begin, end = 0, file.size
        asked = _RANGE.fullmatch(self.headers.get("Range", "")) if served.with_ranges else None
        self.send_response(200 if asked is None else 206)
        if asked is not None:
            begin, end = int(asked[1]), min(int(asked[2]) + 1, file.size)
            self.send_header("Content-Range", f"bytes {begin}-{end - 1}/{file.size}")
        self.send_header("Content-Length", str(end - begin))
        self.send_header("ETag", file.tag)
        self.end_headers()
        if not with_body:
            return
        if fault == "cut":
            end = (begin + end) // 2
            self.close_connection = True
        self._send(file, begin, end)

    def _send(self, file: ServedFile, begin: int, end: int) -> None:
        for start in range(begin, end, 1 << 16):
            part = file.part(start, min(start + (1 << 16), end))
            self.served.sent += len(part)  # before the client has them and looks
            try:
                self.wfile.write(part)
            except OSError:  # the client has what it wants
                self.close_connection = True
                return

    def _end(self, status: int) -> None:
        self.send_response(status)
        self.send_header("Content-Length", "0")
        self.end_headers()

    def log_message(self, format: str, *args: object) -> None:
        """Nothing: the output of the tests is not that of the server."""


@contextmanager
def serving(prepare: Callable[[ThreadingHTTPServer], None] | None = None) -> Iterator[WebServer]:
    """A server on a free port of this machine; `prepare` is called before it takes requests."""
    served = WebServer()
    handler = type("Handler", (_Handler,), {"served": served})
    with ThreadingHTTPServer(("127.0.0.1", 0), handler) as server:
        server.daemon_threads = True
        if prepare is not None:
            prepare(server)
        served.address = f"127.0.0.1:{server.server_address[1]}"
        thread = threading.Thread(target=server.serve_forever, args=(0.01,), daemon=True)
        thread.start()
        try:
            yield served
        finally:
            served.ended.set()
            server.shutdown()
            thread.join()
