"""The server of the viewer: one page and its data, on the loopback address."""

from __future__ import annotations

import asyncio
import secrets
import signal
import socket
import threading
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from dataclasses import replace
from functools import wraps
from importlib.resources import files
from types import FrameType
from typing import Any

import numpy as np
import uvicorn
from starlette.applications import Starlette
from starlette.requests import Request
from starlette.responses import JSONResponse, Response, StreamingResponse
from starlette.routing import Route

from fullwaveform.core.driver import Threshold, checked_mode, checked_threshold
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.interruption import request_end
from fullwaveform.view.access import ADDRESS, Access
from fullwaveform.view.panel import PanelSettings
from fullwaveform.view.selection import Selection
from fullwaveform.view.session import Layer, ViewSession
from fullwaveform.view.statistics import described_selection

_TYPES = {
    ".html": "text/html; charset=utf-8",
    ".css": "text/css; charset=utf-8",
    ".js": "text/javascript; charset=utf-8",
    ".txt": "text/plain; charset=utf-8",
}
_PICTURES = {"png": "image/png", "pdf": "application/pdf", "svg": "image/svg+xml"}
_TOKEN_BYTES = 24
_GRACE_SECONDS = 1  # for requests in progress at the end
_MAX_NODES = 4096  # of a request
_WORST_FITS = 20  # in the list of the page


class ViewServer:
    """Serves a session under an address that nobody can guess, until `stop` or Ctrl-C.

    It listens from the beginning, so that its address is known.
    """

    def __init__(self, session: ViewSession) -> None:
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self._socket.bind((ADDRESS, 0))
        port = self._socket.getsockname()[1]
        token = secrets.token_urlsafe(_TOKEN_BYTES)
        self.address = f"http://{ADDRESS}:{port}/{token}/"
        self._answers = Answers()
        config = uvicorn.Config(
            Access(application(session, self._answers), token, port),
            access_log=False,
            log_level="critical",
            lifespan="off",
            ws="none",
            server_header=False,
            timeout_graceful_shutdown=_GRACE_SECONDS,
        )
        self._server = _Server(config)

    def run(self, on_start: Callable[[str], None] = lambda address: None) -> None:
        """Answer requests until the end; calls `on_start` with the address before the first."""
        self._socket.listen()
        try:
            with ended_by_signals(self._server, self._answers):
                on_start(self.address)
                asyncio.run(self._server.serve(sockets=[self._socket]))
        finally:
            self._socket.close()

    def stop(self) -> None:
        """End `run`, from another thread."""
        self._server.should_exit = True


class ViewerEndedError(Exception):
    """The viewer ends before an answer is ready."""


class Answers:
    """Counts the requests that threads are answering: they outlive the server's loop."""

    def __init__(self) -> None:
        self._changed = threading.Condition()
        self._count = 0

    def counted(self, answer: Callable[[Request], Response]) -> Callable[[Request], Response]:
        """The same answer, counted while a thread makes it."""

        @wraps(answer)
        def call(request: Request) -> Response:
            with self._changed:
                self._count += 1
            try:
                return answer(request)
            finally:
                with self._changed:
                    self._count -= 1
                    self._changed.notify_all()

        return call

    def wait(self) -> None:
        """Wait until there are none."""
        with self._changed:
            self._changed.wait_for(lambda: self._count == 0)


class _Server(uvicorn.Server):
    """A server that leaves signals to `ended_by_signals`."""

    @contextmanager
    def capture_signals(self) -> Iterator[None]:
        """Handle no signals; uvicorn would raise them again at the end."""
        yield


@contextmanager
def ended_by_signals(server: uvicorn.Server, answers: Answers) -> Iterator[None]:
    """End the server with a signal; files that are being written are given up, and removed.

    Waits at the end until they are. Ctrl-C is the intended end; other signals are raised again when
    the server has ended. Nothing outside the main thread, which signals do not reach.
    """
    if threading.current_thread() is not threading.main_thread():
        yield
        return
    received: list[int] = []

    def end(number: int, frame: FrameType | None) -> None:
        received.append(number)
        request_end(ViewerEndedError("the viewer has ended"))
        server.should_exit = True

    handled = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)
    former = {number: signal.getsignal(number) for number in handled}
    for number, handler in former.items():
        if handler is not signal.SIG_IGN:
            signal.signal(number, end)
    try:
        yield
    finally:
        answers.wait()
        request_end(None)
        for number, handler in former.items():
            signal.signal(number, handler)
    if received and received[0] != signal.SIGINT:
        signal.raise_signal(signal.Signals(received[0]))


def application(session: ViewSession, answers: Answers) -> Starlette:
    """The requests of the page; without any check of who asks."""
    requests = _Requests(session)
    counted = answers.counted
    assets = _assets()

    def asset(request: Request) -> Response:
        name = request.path_params.get("name", "index.html")
        if name not in assets:
            return Response("not found", 404)
        content, kind = assets[name]
        return Response(content, media_type=kind)

    layer = "/layers/{layer:int}"
    return Starlette(
        routes=[
            Route("/", asset),
            Route("/session", counted(requests.session)),
            Route("/noise", counted(requests.noise)),
            Route(f"{layer}/points", counted(requests.points)),
            Route(f"{layer}/echoes/{{index:int}}", counted(requests.echo)),
            Route(f"{layer}/next/{{kind}}", counted(requests.next)),
            Route(f"{layer}/selection", counted(requests.selection)),
            Route(f"{layer}/selection.{{kind}}", counted(requests.selection_file)),
            Route("/waveforms/{number:int}", counted(requests.waveform)),
            Route("/waveforms/{number:int}/picture.{kind}", counted(requests.picture)),
            Route("/{name:path}", asset),
        ],
        exception_handlers={
            ValueError: _error(400),
            WaveformFileError: _error(422),
            OSError: _error(410),
            ViewerEndedError: _error(503),
        },
    )


class _Requests:
    """What the page may ask for."""

    def __init__(self, session: ViewSession) -> None:
        self._session = session

    def session(self, request: Request) -> Response:
        return JSONResponse(self._session.described)

    def noise(self, request: Request) -> Response:
        """The histogram of the noise of all waveforms, which are measured now if they were not."""
        self._session.noise.values()
        return JSONResponse(self._session.noise.histogram)

    def points(self, request: Request) -> Response:
        text = request.query_params.get("nodes", "")
        numbers = [_integer(number) for number in text.split(",")[:_MAX_NODES] if number]
        with_noise = request.query_params.get("noise") == "1"
        content = self._layer(request).echoes.points(numbers, with_noise=with_noise)
        return Response(content, media_type="application/octet-stream")

    def echo(self, request: Request) -> Response:
        return JSONResponse(self._echo(request, request.path_params["index"]))

    def next(self, request: Request) -> Response:
        """The echo or waveform after or before the current one; null at the end."""
        echoes = self._layer(request).echoes
        step = -1 if request.query_params.get("step") == "-1" else 1
        kind = request.path_params["kind"]
        if kind == "echo":
            index = echoes.next_echo(self._number(request, "echo"), step)
            return JSONResponse(None if index is None else self._echo(request, index))
        current = self._number(request, "waveform")
        self._session.waveforms.check_number(current)
        if kind == "shot":
            found = self._session.waveforms.next_shot(current, step)
        elif kind == "empty":
            found = echoes.next_waveform(current, step, "echoes", lambda count: count == 0)
        elif kind == "many":
            limit = self._limit(request)
            found = echoes.next_waveform(current, step, "echoes", lambda count: count > limit)
        elif kind == "chi":
            limit = self._limit(request)
            found = echoes.next_waveform(current, step, "chi_square", lambda chi: chi > limit)
        else:
            raise ValueError(f"unknown move {kind!r}")
        if found is None:
            return JSONResponse(None)
        first = echoes.echo_of_waveform(found)
        if first is not None:
            return JSONResponse(self._echo(request, first))
        return JSONResponse({"index": None, "waveform": found, "row": None, "xyz": None})

    def selection(self, request: Request) -> Response:
        """Statistics of the selected echoes, and the formats in which they can be saved."""
        layer, selection = self._layer(request), self._selection(request)
        waveforms = self._session.waveforms
        found = described_selection(layer.echoes, waveforms, selection, _WORST_FITS)
        try:
            formats = layer.export.formats
        except (OSError, WaveformFileError):  # counting needs the index only
            formats = ()
        return JSONResponse({**found, "formats": formats})

    def selection_file(self, request: Request) -> Response:
        """The selected echoes as a file."""
        kind = request.path_params["kind"]
        export = self._layer(request).export
        size, content = export.content(self._selection(request), kind)
        headers = {
            "Content-Disposition": f'attachment; filename="selected-echoes.{kind}"',
            "Content-Length": str(size),
        }
        return StreamingResponse(content, media_type="application/octet-stream", headers=headers)

    def waveform(self, request: Request) -> Response:
        number = request.path_params["number"]
        return JSONResponse(self._session.panel.data(number, self._settings(request)))

    def picture(self, request: Request) -> Response:
        kind = request.path_params["kind"]
        if kind not in _PICTURES:
            raise ValueError(f"unknown picture format {kind!r}; use {', '.join(_PICTURES)}")
        number, settings = request.path_params["number"], self._settings(request)
        content = self._session.panel.picture(number, settings, kind)
        shot = self._session.waveforms.shot_number(number)
        name = f'attachment; filename="shot-{shot}.{kind}"'
        return Response(content, media_type=_PICTURES[kind], headers={"Content-Disposition": name})

    def _layer(self, request: Request) -> Layer:
        number: int = request.path_params["layer"]
        if not 0 <= number < len(self._session.layers):
            raise ValueError(f"no file of echoes {number}")
        return self._session.layers[number]

    def _selection(self, request: Request) -> Selection:
        query = request.query_params
        box, slab = query.get("box", ""), query.get("slab", "")
        return Selection.of_text(box, query.getlist("bars"), slab)

    def _echo(self, request: Request, index: int) -> dict[str, Any]:
        place = self._layer(request).echoes.place(index)
        return {"index": index, "waveform": place.waveform, "row": place.row, "xyz": place.xyz}

    def _settings(self, request: Request) -> PanelSettings:
        query = request.query_params
        modes = tuple(dict.fromkeys(checked_mode(mode) for mode in query.getlist("mode")))
        text = query.get("threshold", "")
        scanner = _integer(query.get("scanner", "0"))
        if not 0 <= scanner < len(self._session.panel.scanners):
            raise ValueError(f"no scanner description {scanner}")
        chosen = PanelSettings(scanner=scanner)
        if text:
            chosen = replace(chosen, threshold=_threshold(text))
        return replace(chosen, modes=modes) if modes else chosen

    def _number(self, request: Request, name: str) -> int:
        return _integer(request.query_params.get(name, ""))

    def _limit(self, request: Request) -> float:
        text = request.query_params.get("limit", "")
        try:
            limit = float(text)
        except ValueError:
            limit = np.nan
        if not np.isfinite(limit):
            raise ValueError(f"invalid limit {text!r}; expected a number")
        return limit


def _threshold(text: str) -> Threshold:
    return checked_threshold("estimate" if text == "estimate" else _integer(text))


def _integer(text: str) -> int:
    if not (text.isascii() and text.isdigit() and len(text) <= 12):
        raise ValueError(f"invalid number {text[:20]!r}; expected an integer of at least 0")
    return int(text)


def _error(status: int) -> Callable[[Request, Exception], Response]:
    def respond(request: Request, error: Exception) -> Response:
        where = ""
        if isinstance(error, OSError) and error.filename and error.strerror:
            where = f"{error.filename}: "
        text = error.strerror if isinstance(error, OSError) and error.strerror else str(error)
        return JSONResponse({"error": f"{where}{text}"}, status)

    return respond


def _assets() -> dict[str, tuple[bytes, str]]:
    """The files of the page, by their names; read once, so that no request opens a file."""
    found: dict[str, tuple[bytes, str]] = {}
    folder = files("fullwaveform.view") / "page"
    for part, prefix in ((folder, ""), (folder / "libraries", "libraries/")):
        for file in part.iterdir():
            kind = _TYPES.get(f".{file.name.rpartition('.')[2]}")
            if file.is_file() and kind is not None:
                found[prefix + file.name] = (file.read_bytes(), kind)
    return found
