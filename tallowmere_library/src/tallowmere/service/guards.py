"""Checks every request passes before it reaches authentication and the routes, and the last resort.

`HeaderGuardMiddleware` refuses, with a JSON reason:

- headers larger than `MAX_HEADER_BYTES` in all: 431 ``headers_too_large``;
- ``Authorization``, ``Idempotency-Key``, ``Content-Type`` or
  ``Content-Length`` sent more than once: 400 ``duplicate_header`` (the
  service does not guess which one was meant);
- an ``Idempotency-Key`` that is not UTF-8 text of 1 to 255 characters:
  400 ``invalid_header``.

The ``Idempotency-Key`` is decoded as UTF-8, so a non-ASCII key matches the
same key in the (UTF-8) body.

`InternalErrorMiddleware` answers any unexpected failure with a JSON 500 and
logs it once, keeping the connection open for the client's next request.
"""

from __future__ import annotations

import logging
from typing import Final

from starlette.types import ASGIApp, Message, Receive, Scope, Send

from tallowmere.service.config import MAX_HEADER_BYTES
from tallowmere.service.errors import ServiceError, error_response, json_response
from tallowmere.service.idempotency import MAX_KEY_LENGTH

logger = logging.getLogger("tallowmere.service")

IDEMPOTENCY_HEADER_SCOPE_KEY: Final = "tallowmere.idempotency_key_header"
"""The ASGI scope key of the decoded ``Idempotency-Key`` header (absent when none was sent)."""

SINGLE_HEADERS: Final = {
    b"authorization": "Authorization",
    b"idempotency-key": "Idempotency-Key",
    b"content-type": "Content-Type",
    b"content-length": "Content-Length",
}


def _decoded_idempotency_key(value: bytes) -> str:
    try:
        key = value.decode("utf-8")
    except UnicodeDecodeError:
        raise ServiceError(400, "invalid_header", {"header": "Idempotency-Key", "message": "must be UTF-8 text"}) from None
    if not key.strip() or len(key) > MAX_KEY_LENGTH:
        message = f"must be a non-empty key of at most {MAX_KEY_LENGTH} characters"
        raise ServiceError(400, "invalid_header", {"header": "Idempotency-Key", "message": message})
    return key


def check_headers(scope: Scope) -> None:
    """Refuse a request whose headers are too large, repeated where they must be single, or ill-formed."""
    headers: list[tuple[bytes, bytes]] = scope["headers"]
    size = sum(len(name) + len(value) for name, value in headers)
    if size > MAX_HEADER_BYTES:
        raise ServiceError(431, "headers_too_large", {"max_bytes": MAX_HEADER_BYTES})
    seen: dict[bytes, bytes] = {}
    for name, value in headers:
        if name in SINGLE_HEADERS:
            if name in seen:
                raise ServiceError(400, "duplicate_header", {"header": SINGLE_HEADERS[name]})
            seen[name] = value
    if b"idempotency-key" in seen:
        scope[IDEMPOTENCY_HEADER_SCOPE_KEY] = _decoded_idempotency_key(seen[b"idempotency-key"])


class HeaderGuardMiddleware:
    """Refuse requests whose headers the service will not interpret (see the module's notes)."""

    def __init__(self, app: ASGIApp) -> None:
        """Guard ``app``."""
        self.app = app

    async def __call__(self, scope: Scope, receive: Receive, send: Send) -> None:
        """Check one request's headers, then pass it on or refuse it."""
        if scope["type"] == "http":
            try:
                check_headers(scope)
            except ServiceError as exc:
                await error_response(exc)(scope, receive, send)
                return
        await self.app(scope, receive, send)


class InternalErrorMiddleware:
    """Answer an unexpected exception with a JSON 500 instead of dropping the connection."""

    def __init__(self, app: ASGIApp) -> None:
        """Wrap ``app``."""
        self.app = app

    async def __call__(self, scope: Scope, receive: Receive, send: Send) -> None:
        """Run one request; turn an escaped exception into a 500 when no answer has started."""
        if scope["type"] != "http":
            await self.app(scope, receive, send)
            return
        started = False

        async def watching_send(message: Message) -> None:
            nonlocal started
            if message["type"] == "http.response.start":
                started = True
            await send(message)

        try:
            await self.app(scope, receive, watching_send)
        except Exception:
            if started:
                raise
            logger.exception("%s %s failed", scope.get("method"), scope.get("path"))
            await json_response(500, {"error": "internal server error"})(scope, receive, send)
