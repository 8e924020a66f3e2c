"""Client connections, bounded: how many stay open, and how long a slow one may take.

`BoundedHttpProtocol` is uvicorn's protocol over the httptools parser (a C
parser, several times cheaper per request than the pure-Python h11) with the
limits of `ServiceLimits`:

- a connection beyond the cap is answered 503 ``too_many_connections`` and
  closed at once, so that open files never run out (the cap leaves room for
  the database under the process's open-file limit);
- a request's head must arrive within ``header_timeout`` seconds of its first
  byte (or of the connection, for the first request): else 408
  ``request_timeout`` and the connection is closed;
- its body must arrive within ``body_timeout`` seconds of the head: else the
  connection is closed (the request is abandoned unanswered);
- an idle kept-alive connection is closed after ``keep_alive_timeout``
  seconds (uvicorn's own timer).

Malformed HTTP is answered 400 with a JSON reason rather than plain text.
"""

from __future__ import annotations

import asyncio
import logging
import weakref
from typing import Any, Final

import uvicorn
from uvicorn.protocols.http.httptools_impl import HttpToolsProtocol

from tallowmere.service.config import ServiceLimits, effective_max_connections
from tallowmere.service.jsonio import render_json

logger = logging.getLogger("tallowmere.service")

REFUSAL_RETRY_AFTER_SECONDS: Final = 1


def raw_json_answer(status_code: int, phrase: str, body: dict[str, Any], *, retry_after: int | None = None) -> bytes:
    """Return a whole HTTP/1.1 answer that closes the connection, for use outside any request cycle."""
    content = render_json(body)
    head = [
        f"HTTP/1.1 {status_code} {phrase}",
        "content-type: application/json",
        f"content-length: {len(content)}",
        "connection: close",
    ]
    if retry_after is not None:
        head.append(f"retry-after: {retry_after}")
    return ("\r\n".join(head) + "\r\n\r\n").encode("ascii") + content


class ServerSettings(uvicorn.Config):
    """uvicorn's configuration, carrying the service's `ServiceLimits` to each connection."""

    def __init__(self, app: Any, *, limits: ServiceLimits, **options: Any) -> None:
        """Configure uvicorn for ``app`` with ``options``, and bound connections by ``limits``."""
        super().__init__(app, timeout_keep_alive=limits.keep_alive_timeout, **options)  # type: ignore[arg-type]
        self.limits = limits
        self.max_connections = effective_max_connections(limits)


class _DeadlineSweeper:
    """One timer per server that closes the connections whose deadline has passed.

    A deadline is then two attribute writes per request, where a timer of
    its own would cost a heap entry to schedule and another to cancel.
    """

    def __init__(self, loop: asyncio.AbstractEventLoop, connections: set[Any], interval: float) -> None:
        self.loop = loop
        self.connections = connections
        self.interval = interval
        self.timer: asyncio.TimerHandle | None = None

    def ensure_running(self) -> None:
        if self.timer is None:
            self.timer = self.loop.call_later(self.interval, self.sweep)

    def sweep(self) -> None:
        self.timer = None
        now = self.loop.time()
        for protocol in list(self.connections):
            if isinstance(protocol, BoundedHttpProtocol) and protocol.deadline_at <= now:
                protocol.deadline_passed()
        if self.connections:
            self.ensure_running()


_SWEEPERS: weakref.WeakKeyDictionary[Any, _DeadlineSweeper] = weakref.WeakKeyDictionary()


def _sweeper_for(protocol: BoundedHttpProtocol) -> _DeadlineSweeper:
    sweeper = _SWEEPERS.get(protocol.server_state)
    if sweeper is None or sweeper.loop is not protocol.loop:
        shortest = min(protocol.limits.header_timeout, protocol.limits.body_timeout)
        sweeper = _DeadlineSweeper(protocol.loop, protocol.connections, min(1.0, max(0.02, shortest / 4)))
        _SWEEPERS[protocol.server_state] = sweeper
    return sweeper


class BoundedHttpProtocol(HttpToolsProtocol):
    """uvicorn's httptools protocol with a connection cap and read deadlines (see the module's notes)."""

    def __init__(self, config: uvicorn.Config, *args: Any, **kwargs: Any) -> None:
        """Take the limits from ``config`` (a `ServerSettings`; the defaults otherwise)."""
        super().__init__(config, *args, **kwargs)
        self.limits: ServiceLimits = getattr(config, "limits", ServiceLimits())
        self.max_connections: int = getattr(config, "max_connections", self.limits.max_connections)
        self.deadline_at = float("inf")
        self._deadline_phase: str | None = None
        self._head_bytes = 0

    def connection_made(self, transport: asyncio.Transport) -> None:  # type: ignore[override]
        """Admit the connection, or refuse it when the server holds as many as it may."""
        super().connection_made(transport)
        if len(self.connections) > self.max_connections:
            logger.warning("refusing a connection: %d open, the limit is %d", len(self.connections) - 1,
                           self.max_connections)
            body = {"reason": "too_many_connections", "details": {"max_connections": self.max_connections}}
            transport.write(
                raw_json_answer(503, "Service Unavailable", body, retry_after=REFUSAL_RETRY_AFTER_SECONDS)
            )
            transport.close()
            return
        _sweeper_for(self).ensure_running()
        self._arm("head")

    def connection_lost(self, exc: Exception | None) -> None:
        """Forget the deadline of a closed connection."""
        self._disarm()
        super().connection_lost(exc)

    def data_received(self, data: bytes) -> None:
        """Count the bytes of a head still in progress, then parse."""
        if self._deadline_phase == "head":
            self._head_bytes += len(data)
        super().data_received(data)

    def on_message_begin(self) -> None:
        """A request starts: its head must be complete within the header timeout."""
        super().on_message_begin()
        if self._deadline_phase != "head":
            self._arm("head")
            self._head_bytes = 1

    def on_headers_complete(self) -> None:
        """The head is complete: the body must follow within the body timeout."""
        try:
            super().on_headers_complete()
        except UnicodeDecodeError:
            # A request target that is not ASCII (the parser lets some such bytes through).
            self.send_400_response("the request target must be ASCII")
            return
        self._arm("body")

    def on_message_complete(self) -> None:
        """The request has been read whole: its answer is the application's business now."""
        self._disarm()
        super().on_message_complete()

    def send_400_response(self, msg: str) -> None:
        """Answer malformed HTTP with a JSON reason and close the connection."""
        self._disarm()
        logger.info("malformed HTTP request: %s", msg)
        body = {"reason": "malformed_http", "details": {"message": msg}}
        if not self.transport.is_closing():
            self.transport.write(raw_json_answer(400, "Bad Request", body))
            self.transport.close()

    def _arm(self, phase: str) -> None:
        seconds = self.limits.header_timeout if phase == "head" else self.limits.body_timeout
        self.deadline_at = self.loop.time() + seconds
        self._deadline_phase = phase
        self._head_bytes = 0

    def _disarm(self) -> None:
        self.deadline_at = float("inf")
        self._deadline_phase = None

    def deadline_passed(self) -> None:
        """Close the connection whose head or body is late (a 408 first for a late head)."""
        phase = self._deadline_phase
        self._disarm()
        if self.transport.is_closing():
            return
        if phase == "head":
            if self._head_bytes:
                body = {"reason": "request_timeout",
                        "details": {"message": f"the request head took over {self.limits.header_timeout:g} s"}}
                self.transport.write(raw_json_answer(408, "Request Timeout", body))
            logger.info("closing a connection whose request head did not arrive in time (%d bytes received)",
                        self._head_bytes)
        else:
            logger.info("closing a connection whose request body did not arrive within %g s",
                        self.limits.body_timeout)
        self.transport.close()
