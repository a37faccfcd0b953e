"""Who may ask the server: only pages of its own, by the token in the path of every request."""

from __future__ import annotations

import secrets

from starlette.datastructures import Headers, MutableHeaders
from starlette.responses import PlainTextResponse
from starlette.types import ASGIApp, Message, Receive, Scope, Send

ADDRESS = "127.0.0.1"
_HEADERS = {
    "Content-Security-Policy": "default-src 'none'; script-src 'self'; style-src 'self'; "
    "img-src 'self' data: blob:; connect-src 'self'; base-uri 'none'; form-action 'none'; "
    "frame-ancestors 'none'",
    "X-Content-Type-Options": "nosniff",
    "Referrer-Policy": "no-referrer",
    "Cross-Origin-Opener-Policy": "same-origin",
    "Cross-Origin-Resource-Policy": "same-origin",
    "Cache-Control": "no-store",
}
_STALE = (
    "This page belongs to a viewer that has ended, or its address is incomplete. Open the address "
    "that fullwaveform view printed when it was started last."
)


class Access:
    """Passes on the requests whose path starts with the token, without it.

    Requests under another name of the server, as after a DNS rebinding, and of other origins are
    refused. All responses forbid what the page does not need.
    """

    def __init__(self, app: ASGIApp, token: str, port: int) -> None:
        self._app, self._token = app, token
        self._host = f"{ADDRESS}:{port}"

    async def __call__(self, scope: Scope, receive: Receive, send: Send) -> None:
        """Answer a request."""
        if scope["type"] != "http":  # no web sockets; start and end of the server
            if scope["type"] == "lifespan":
                await self._app(scope, receive, send)
            return

        async def send_protected(message: Message) -> None:
            if message["type"] == "http.response.start":
                headers = MutableHeaders(scope=message)
                for name, value in _HEADERS.items():
                    headers[name] = value
            await send(message)

        refused = self._refused(scope)
        if refused is not None:
            await refused(scope, receive, send_protected)
            return
        rest = scope["path"].removeprefix(f"/{self._token}")
        inner = {**scope, "path": rest, "raw_path": rest.encode(), "root_path": ""}
        await self._app(inner, receive, send_protected)

    def _refused(self, scope: Scope) -> PlainTextResponse | None:
        headers = Headers(scope=scope)
        if headers.getlist("host") != [self._host]:
            return PlainTextResponse("unknown host", 421)
        if headers.get("origin", f"http://{self._host}") != f"http://{self._host}":
            return PlainTextResponse("request of another origin", 403)
        _, _, path = scope["path"].partition("/")
        given, slash, _ = path.partition("/")
        is_known = secrets.compare_digest(given.encode(), self._token.encode())
        return None if is_known and slash else PlainTextResponse(_STALE, 403)
