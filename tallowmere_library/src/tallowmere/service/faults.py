"""Scripted faults, for testing clients against a misbehaving service (``--faults`` only).

``POST /_faults`` with ``{"route": "signals/submit", "faults": ["503", "drop"]}``
queues faults for a route; each later request to that route takes the next
one, in order, until the queue is empty. ``GET /_faults`` shows the queues and
``DELETE /_faults`` empties them. Routes are named without the leading slash:
``eras``, ``signals/submit``, ``strategies/submit``, ``signals/batch``,
``signals/status`` (any id) and ``signals/submissions``.

Faults (the request is not processed unless the entry says so):

==================  ===========================================================
``"429"``           429 with a JSON body (reason ``rate_limited``) and
                    ``Retry-After: 1`` (``"429:5"``: 5 s)
``"503"``           503 with a JSON body (reason ``service_unavailable``) and
                    ``Retry-After: 1`` (``"503:5"``: 5 s)
``"500"``           500 with an HTML body
``"502"``           502 with an HTML body
``"503_html"``      503 with an HTML body and no ``Retry-After``
``"504"``           504 with an HTML body
``"drop"``          the connection is closed without an answer
``"drop_after"``    the request is processed, then the connection is closed
                    without an answer (the caller cannot know it succeeded)
``"delay:<s>"``     the request is processed and answered after ``s`` seconds
                    (0 < s <= 60); a retry meanwhile is answered from the
                    stored submission (its key is free once it is stored)
``"malformed_json"`` 200 with a truncated JSON body
==================  ===========================================================

Faults sit in front of everything else: a request takes its route's next
fault before authentication.
"""

from __future__ import annotations

import asyncio
import math
import threading
from collections import deque
from dataclasses import dataclass
from typing import Any, Final

from starlette.requests import Request
from starlette.responses import Response
from starlette.routing import Route
from starlette.types import ASGIApp, Message, Receive, Scope, Send
from tallowmere.service.bodies import read_small_json_object
from tallowmere.service.connections import BoundedHttpProtocol
from tallowmere.service.errors import json_response, refusal
from tallowmere.service.jsonio import JSONObject

CONTROL_PATH: Final = "/_faults"
MAX_DELAY_SECONDS: Final = 60.0

FAULT_ROUTES: Final = frozenset(
    {"eras", "signals/submit", "strategies/submit", "signals/batch", "signals/status", "signals/submissions"}
)

_JSON_STATUSES: Final = {"429": (429, "rate_limited"), "503": (503, "service_unavailable")}
_HTML_STATUSES: Final = {"500": 500, "502": 502, "503_html": 503, "504": 504}
_HTML_TITLES: Final = {
    500: "Internal Server Error",
    502: "Bad Gateway",
    503: "Service Unavailable",
    504: "Gateway Timeout",
}
MALFORMED_JSON_BODY: Final = b'{"submission_id": "sig_'


@dataclass(frozen=True, slots=True)
class Fault:
    """One scripted fault: its ``kind``, the script entry it came from, and what it answers."""

    kind: str
    entry: str
    status_code: int = 0
    error: str = ""
    retry_after: int | None = None
    seconds: float = 0.0


def parse_fault(entry: object) -> Fault:
    """Parse one script entry such as ``"503"``, ``"429:5"`` or ``"delay:1.5"``; raise ValueError if unknown."""
    if not isinstance(entry, str):
        raise ValueError(f"fault entries must be strings, got {type(entry).__name__}")
    name, _, argument = entry.partition(":")
    if name in _JSON_STATUSES:
        retry_after = 1
        if argument:
            if not argument.isdigit():
                raise ValueError(f"fault {entry!r}: Retry-After must be a whole number of seconds")
            retry_after = int(argument)
        status_code, error = _JSON_STATUSES[name]
        return Fault("json_status", entry, status_code, error=error, retry_after=retry_after)
    if argument and name != "delay":
        raise ValueError(f"fault {entry!r} takes no argument")
    if name in _HTML_STATUSES:
        return Fault("html_status", entry, _HTML_STATUSES[name])
    if name in ("drop", "drop_after", "malformed_json"):
        return Fault(name, entry)
    if name == "delay":
        try:
            seconds = float(argument)
        except ValueError:
            raise ValueError(f"fault {entry!r}: the delay must be a number of seconds") from None
        if not math.isfinite(seconds) or not 0 < seconds <= MAX_DELAY_SECONDS:
            raise ValueError(f"fault {entry!r}: the delay must be above 0 and at most {MAX_DELAY_SECONDS:g} seconds")
        return Fault("delay", entry, seconds=seconds)
    raise ValueError(f"unknown fault {entry!r}")


def fault_route(path: str) -> str:
    """Return the fault route of a request path (``/signals/status/abc`` → ``signals/status``)."""
    route = path.lstrip("/")
    if route.startswith("signals/status/"):
        return "signals/status"
    return route


class FaultPlan:
    """The queued faults of each route."""

    def __init__(self) -> None:
        """Start with empty queues."""
        self._lock = threading.Lock()
        self._queues: dict[str, deque[Fault]] = {}

    def add(self, route: str, faults: list[Fault]) -> list[str]:
        """Queue ``faults`` after those already queued for ``route``; return the route's whole queue."""
        with self._lock:
            queue = self._queues.setdefault(route, deque())
            queue.extend(faults)
            return [fault.entry for fault in queue]

    def take(self, route: str) -> Fault | None:
        """Remove and return the next fault of ``route``, or None."""
        with self._lock:
            queue = self._queues.get(route)
            return queue.popleft() if queue else None

    def pending(self) -> dict[str, list[str]]:
        """Return every non-empty queue."""
        with self._lock:
            return {route: [fault.entry for fault in queue] for route, queue in self._queues.items() if queue}

    def clear(self) -> None:
        """Empty every queue."""
        with self._lock:
            self._queues.clear()


# Open connections of fault-enabled servers, keyed by (server address, client
# address) as they appear in the ASGI scope: a "drop" fault closes the
# connection of its own request, which ASGI does not otherwise allow.
_OPEN_CONNECTIONS: dict[tuple[Any, Any], asyncio.Transport] = {}


class ConnectionTrackingHttpProtocol(BoundedHttpProtocol):
    """The service's HTTP protocol, remembering each open connection so that a fault can close it."""

    def connection_made(self, transport: asyncio.Transport) -> None:  # type: ignore[override]
        """Register the new connection (uvicorn's own protocol types it as a stream transport too)."""
        super().connection_made(transport)
        _OPEN_CONNECTIONS[(self.server, self.client)] = transport

    def connection_lost(self, exc: Exception | None) -> None:
        """Forget the closed connection."""
        _OPEN_CONNECTIONS.pop((self.server, self.client), None)
        super().connection_lost(exc)


async def _close_connection(scope: Scope) -> None:
    server, client = scope.get("server"), scope.get("client")
    transport = _OPEN_CONNECTIONS.get((tuple(server) if server else None, tuple(client) if client else None))
    if transport is None:
        raise RuntimeError("this connection is not tracked; serve with ConnectionTrackingHttpProtocol to drop it")
    transport.close()
    # Let the protocol see the connection go before the application returns,
    # so the server does not try to answer on it.
    await asyncio.sleep(0)
    await asyncio.sleep(0)


def _html_response(status_code: int) -> Response:
    title = f"{status_code} {_HTML_TITLES[status_code]}"
    page = f"<html><head><title>{title}</title></head><body><h1>{title}</h1><hr><p>tallowmere-edge</p></body></html>"
    return Response(page, status_code=status_code, media_type="text/html")


class FaultInjectionMiddleware:
    """Apply each request's next scripted fault, if its route has one."""

    def __init__(self, app: ASGIApp, plan: FaultPlan) -> None:
        """Wrap ``app``, taking faults from ``plan``."""
        self.app = app
        self.plan = plan

    async def __call__(self, scope: Scope, receive: Receive, send: Send) -> None:
        """Answer one request, possibly through its fault."""
        if scope["type"] != "http" or scope["path"] == CONTROL_PATH:
            await self.app(scope, receive, send)
            return
        fault = self.plan.take(fault_route(scope["path"]))
        if fault is None:
            await self.app(scope, receive, send)
            return
        if fault.kind == "json_status":
            body = {"error": fault.error, "reason": fault.error, "retry_after": fault.retry_after}
            headers = {"Retry-After": str(fault.retry_after)}
            await json_response(fault.status_code, body, headers)(scope, receive, send)
        elif fault.kind == "html_status":
            await _html_response(fault.status_code)(scope, receive, send)
        elif fault.kind == "malformed_json":
            await Response(MALFORMED_JSON_BODY, status_code=200, media_type="application/json")(scope, receive, send)
        elif fault.kind == "drop":
            await _close_connection(scope)
        elif fault.kind == "drop_after":
            await self.app(scope, receive, _discard)
            await _close_connection(scope)
        else:
            await self.app(scope, receive, _delayed(send, fault.seconds))


async def _discard(message: Message) -> None:
    return None


def _delayed(send: Send, seconds: float) -> Send:
    async def send_later(message: Message) -> None:
        if message["type"] == "http.response.start":
            await asyncio.sleep(seconds)
        await send(message)

    return send_later


def fault_control_routes(plan: FaultPlan) -> list[Route]:
    """Return the routes of ``/_faults``: POST queues a script, GET shows the queues, DELETE empties them."""

    async def control(request: Request) -> Response:
        if request.method == "GET":
            return json_response(200, {"pending": plan.pending()})
        if request.method == "DELETE":
            plan.clear()
            return json_response(200, {"pending": {}})
        route, faults = await _read_script(request)
        return json_response(200, {"route": route, "pending": plan.add(route, faults)})

    return [Route(CONTROL_PATH, control, methods=["GET", "POST", "DELETE"])]


async def _read_script(request: Request) -> tuple[str, list[Fault]]:
    document = await read_small_json_object(request)
    route = document.get("route")
    entries = document.get("faults")
    problems: JSONObject = {}
    if route not in FAULT_ROUTES:
        problems["route"] = f"must be one of {sorted(FAULT_ROUTES)}"
    if not isinstance(entries, list) or not entries:
        problems["faults"] = "must be a non-empty list of fault entries"
    if problems:
        raise refusal("malformed_fault_script", {"invalid": problems})
    assert isinstance(route, str) and isinstance(entries, list)
    try:
        faults = [parse_fault(entry) for entry in entries]
    except ValueError as exc:
        raise refusal("malformed_fault_script", {"message": str(exc)}) from None
    return route, faults

