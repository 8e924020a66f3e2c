"""The ASGI application: routes, error answers and the middleware stack.

Layers, outermost first: the last-resort 500 answer, scripted faults (only
with ``--faults``), the header checks, bearer authentication, and the routes.
Every answer is strict JSON. Route handlers only move bytes on the event
loop: parsing, validation, database reads and the rendering of large answers
run on the work pool's threads, writes on the store's writer thread.
"""

from __future__ import annotations

import asyncio
import base64
import binascii
import re
import sqlite3
from collections.abc import Sequence
from dataclasses import dataclass
from datetime import UTC, datetime
from typing import Final

from starlette.applications import Starlette
from starlette.exceptions import HTTPException
from starlette.middleware import Middleware
from starlette.requests import Request
from starlette.responses import Response
from starlette.routing import BaseRoute, Route

from tallowmere.service.auth import OWNER_SCOPE_KEY, BearerAuthMiddleware, TokenRegistry
from tallowmere.service.bodies import BodyReader
from tallowmere.service.catalog import EraCatalog
from tallowmere.service.config import MAX_REQUEST_BYTES, MAX_SUBMISSION_BYTES
from tallowmere.service.errors import ServiceError, error_response, json_response, refusal, rendered_response
from tallowmere.service.faults import FaultInjectionMiddleware, FaultPlan, fault_control_routes
from tallowmere.service.guards import IDEMPOTENCY_HEADER_SCOPE_KEY, HeaderGuardMiddleware, InternalErrorMiddleware
from tallowmere.service.idempotency import MAX_KEY_LENGTH
from tallowmere.service.intake import Answer, SubmissionIntake
from tallowmere.service.jsonio import JSONObject, echo, render_json
from tallowmere.service.lifecycle import ALL_STATUSES, SubmissionKind
from tallowmere.service.storage import ListingPage, StorageClosedError, SubmissionStore
from tallowmere.service.threads import WorkPool

DEFAULT_LIST_LIMIT: Final = 100
MAX_LIST_LIMIT: Final = 1000
LIST_PARAMETERS: Final = frozenset({"status", "idempotency_key", "since", "limit", "cursor"})
REPLAY_HEADER: Final = "Idempotent-Replayed"
MAX_SINCE_CHARACTERS: Final = 64
MAX_CURSOR_CHARACTERS: Final = 64
RETRY_AFTER_SECONDS: Final = 1

_LIMIT_TEXT: Final = re.compile(r"[0-9]{1,4}")
_CURSOR_PREFIX: Final = b"before:"


@dataclass(frozen=True, slots=True)
class ServiceParts:
    """What the routes work with."""

    catalog: EraCatalog
    store: SubmissionStore
    intake: SubmissionIntake
    pool: WorkPool
    bodies: BodyReader
    submission_slots: asyncio.Semaphore
    tokens: TokenRegistry
    fault_plan: FaultPlan | None


def _owner(request: Request) -> str:
    owner: str = request.scope[OWNER_SCOPE_KEY]
    return owner


def _answer_response(answer: Answer) -> Response:
    headers = {REPLAY_HEADER: "true"} if answer.replayed else None
    return json_response(answer.status_code, answer.body, headers)


def batch_status_code(status_codes: Sequence[int]) -> int:
    """Return the batch's HTTP status: 202 when every item was accepted (or there are none),
    the items' shared status when all failed alike, else 207."""
    if all(code == 202 for code in status_codes):
        return 202
    distinct = set(status_codes)
    if 202 not in distinct and len(distinct) == 1:
        return distinct.pop()
    return 207


def parse_since(value: str) -> float:
    """Return the epoch time of an ISO-8601 timestamp (UTC when it names no offset)."""
    problem = {"since": "must be an ISO-8601 timestamp, e.g. 2025-01-31T12:00:00Z"}
    if len(value) > MAX_SINCE_CHARACTERS:
        raise refusal("invalid_query", problem)
    try:
        moment = datetime.fromisoformat(value.strip())
        if moment.tzinfo is None:
            moment = moment.replace(tzinfo=UTC)
        return moment.timestamp()
    except (ValueError, OverflowError, OSError):
        raise refusal("invalid_query", problem) from None


def parse_limit(value: str | None) -> int:
    """Return the listing limit: 1 to 1000, 100 when absent."""
    if value is None:
        return DEFAULT_LIST_LIMIT
    text = value.strip()
    if not _LIMIT_TEXT.fullmatch(text) or not 1 <= int(text) <= MAX_LIST_LIMIT:
        raise refusal("invalid_query", {"limit": f"must be an integer from 1 to {MAX_LIST_LIMIT}"})
    return int(text)


def encode_cursor(before: int) -> str:
    """Return the opaque ``next_cursor`` that continues a listing below the stored position ``before``."""
    return base64.urlsafe_b64encode(_CURSOR_PREFIX + str(before).encode("ascii")).decode("ascii").rstrip("=")


def decode_cursor(cursor: str) -> int:
    """Return the stored position a ``cursor`` continues from; refuse one this service did not give."""
    problem = refusal("invalid_query", {"cursor": "must be a next_cursor from an earlier listing"})
    if not cursor or len(cursor) > MAX_CURSOR_CHARACTERS or not cursor.isascii():
        raise problem
    try:
        decoded = base64.urlsafe_b64decode(cursor + "=" * (-len(cursor) % 4))
    except (binascii.Error, ValueError):
        raise problem from None
    position = decoded.removeprefix(_CURSOR_PREFIX)
    if position == decoded or not position.isdigit() or len(position) > 19:
        raise problem
    return int(position)


def render_page(page: ListingPage) -> bytes:
    """Render one listing page: ``{"submissions": [...], "count": n, "next_cursor": str | null}``."""
    submissions = [status.listing_body() for status in page.submissions]
    next_cursor = None if page.next_before is None else encode_cursor(page.next_before)
    return render_json({"submissions": submissions, "count": len(submissions), "next_cursor": next_cursor})


class Routes:
    """The request handlers of one service instance."""

    def __init__(self, parts: ServiceParts) -> None:
        """Serve from ``parts``."""
        self.parts = parts
        self._eras_body = render_json(parts.catalog.document)

    async def eras(self, request: Request) -> Response:
        """``GET /eras``: the era catalog."""
        return rendered_response(200, self._eras_body)

    async def submit_signal(self, request: Request) -> Response:
        """``POST /signals/submit``: accept one signal (202) or refuse it."""
        return await self._submit("signal", request)

    async def submit_strategy(self, request: Request) -> Response:
        """``POST /strategies/submit``: accept one strategy (202) or refuse it."""
        return await self._submit("strategy", request)

    async def _submit(self, kind: SubmissionKind, request: Request) -> Response:
        header_key: str | None = request.scope.get(IDEMPOTENCY_HEADER_SCOPE_KEY)
        async with self.parts.bodies.read(request, max_bytes=MAX_SUBMISSION_BYTES) as raw:
            async with self.parts.submission_slots:
                answer = await self.parts.intake.submit(kind, _owner(request), raw, header_key)
        return _answer_response(answer)

    async def submit_batch(self, request: Request) -> Response:
        """``POST /signals/batch``: judge each of up to 100 signals on its own."""
        async with self.parts.bodies.read(request, max_bytes=MAX_REQUEST_BYTES) as raw:
            async with self.parts.submission_slots:
                answers = await self.parts.intake.submit_batch(_owner(request), raw)
        results = [
            {"index": index, "status_code": answer.status_code, "body": answer.body}
            for index, answer in enumerate(answers)
        ]
        accepted = sum(1 for answer in answers if answer.status_code == 202)
        status_code = batch_status_code([answer.status_code for answer in answers])
        body: JSONObject = {"results": results, "accepted": accepted, "failed": len(answers) - accepted}
        if status_code >= 400:
            body["reason"] = "all_items_refused"
        return json_response(status_code, body)

    async def status(self, request: Request) -> Response:
        """``GET /signals/status/{id}``: the caller's submission, or 404."""
        submission_id: str = request.path_params["submission_id"]
        owner = _owner(request)

        def answer() -> tuple[int, bytes]:
            status = self.parts.store.status_of(submission_id)
            if status is None or status.owner != owner:
                return 404, render_json({"error": "unknown submission"})
            return 200, render_json(status.status_body())

        status_code, content = await self.parts.pool.run(answer)
        return rendered_response(status_code, content)

    async def submissions(self, request: Request) -> Response:
        """``GET /signals/submissions``: the caller's submissions, newest first, a page at a time."""
        pairs = request.query_params.multi_items()
        names = [name for name, _ in pairs]
        unknown = sorted({echo(name) for name in names} - LIST_PARAMETERS)
        if unknown:
            raise refusal("invalid_query", {"unknown": unknown[:20], "allowed": sorted(LIST_PARAMETERS)})
        repeated = sorted({name for name in names if names.count(name) > 1})
        if repeated:
            raise refusal("invalid_query", {"repeated": repeated, "message": "give each parameter at most once"})
        query = dict(pairs)
        status = query.get("status")
        if status is not None and status not in ALL_STATUSES:
            raise refusal("invalid_query", {"status": f"unknown status {echo(status)!r}", "allowed": sorted(ALL_STATUSES)})
        since_text = query.get("since")
        since = None if since_text is None else parse_since(since_text)
        limit = parse_limit(query.get("limit"))
        cursor = query.get("cursor")
        before = None if cursor is None else decode_cursor(cursor)
        idempotency_key = query.get("idempotency_key")
        if idempotency_key is not None and len(idempotency_key) > MAX_KEY_LENGTH:
            raise refusal("invalid_query", {"idempotency_key": f"must be at most {MAX_KEY_LENGTH} characters"})
        owner = _owner(request)

        def page() -> bytes:
            listed = self.parts.store.list_for_owner(
                owner, status=status, idempotency_key=idempotency_key, since=since, before=before, limit=limit
            )
            return render_page(listed)

        return rendered_response(200, await self.parts.pool.run(page))


async def _service_error(request: Request, exc: Exception) -> Response:
    assert isinstance(exc, ServiceError)
    return error_response(exc)


async def _storage_unavailable(request: Request, exc: Exception) -> Response:
    # A lock that another process keeps on the database, a full disk, an I/O
    # error, or a store that is closing: the request may succeed later.
    if isinstance(exc, StorageClosedError):
        refused = ServiceError(503, "shutting_down", {"message": "the service is stopping"}, retry_after=RETRY_AFTER_SECONDS)
    else:
        details = {"message": f"the database is unavailable: {exc}"}
        refused = ServiceError(503, "storage_unavailable", details, retry_after=RETRY_AFTER_SECONDS)
    return error_response(refused)


async def _http_error(request: Request, exc: Exception) -> Response:
    assert isinstance(exc, HTTPException)
    if exc.status_code == 404:
        return json_response(404, {"error": "not found", "path": echo(request.url.path)})
    if exc.status_code == 405:
        return json_response(405, {"error": "method not allowed", "path": echo(request.url.path)})
    return json_response(exc.status_code, {"error": echo(exc.detail)})


def create_app(parts: ServiceParts) -> Starlette:
    """Return the service's ASGI application over ``parts``."""
    routes = Routes(parts)
    table: list[BaseRoute] = [
        Route("/eras", routes.eras, methods=["GET"]),
        Route("/signals/submit", routes.submit_signal, methods=["POST"]),
        Route("/strategies/submit", routes.submit_strategy, methods=["POST"]),
        Route("/signals/batch", routes.submit_batch, methods=["POST"]),
        Route("/signals/status/{submission_id:path}", routes.status, methods=["GET"]),
        Route("/signals/submissions", routes.submissions, methods=["GET"]),
    ]
    middleware: list[Middleware] = [Middleware(InternalErrorMiddleware)]
    if parts.fault_plan is not None:
        table.extend(fault_control_routes(parts.fault_plan))
        middleware.append(Middleware(FaultInjectionMiddleware, plan=parts.fault_plan))
    middleware.append(Middleware(HeaderGuardMiddleware))
    middleware.append(Middleware(BearerAuthMiddleware, registry=parts.tokens))
    return Starlette(
        routes=table,
        middleware=middleware,
        exception_handlers={
            ServiceError: _service_error,
            HTTPException: _http_error,
            sqlite3.OperationalError: _storage_unavailable,
            StorageClosedError: _storage_unavailable,
        },
    )
