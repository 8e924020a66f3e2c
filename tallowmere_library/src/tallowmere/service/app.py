"""The ASGI application: routes, error answers and the middleware stack.

Layers, outermost first: scripted faults (only with ``--faults``), bearer
authentication, the release of idempotency keys once an answer is sent, and
the routes. Every answer is strict JSON.
"""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass
from datetime import UTC, datetime
from typing import Final

from starlette.applications import Starlette
from starlette.concurrency import run_in_threadpool
from starlette.exceptions import HTTPException
from starlette.middleware import Middleware
from starlette.requests import Request
from starlette.responses import JSONResponse, Response
from starlette.routing import BaseRoute, Route

from tallowmere.service.auth import OWNER_SCOPE_KEY, BearerAuthMiddleware, TokenRegistry
from tallowmere.service.bodies import read_json_object
from tallowmere.service.catalog import EraCatalog
from tallowmere.service.config import MAX_BATCH_ITEMS
from tallowmere.service.errors import ServiceError, error_response, json_response, refusal
from tallowmere.service.faults import FaultInjectionMiddleware, FaultPlan, fault_control_routes
from tallowmere.service.idempotency import CLAIMS_SCOPE_KEY, ClaimReleaseMiddleware, InFlightKeys, RequestClaims
from tallowmere.service.intake import Answer, SubmissionIntake
from tallowmere.service.jsonio import JSONObject
from tallowmere.service.lifecycle import ALL_STATUSES, SubmissionKind
from tallowmere.service.storage import SubmissionStore

DEFAULT_LIST_LIMIT: Final = 100
MAX_LIST_LIMIT: Final = 1000
LIST_PARAMETERS: Final = frozenset({"status", "idempotency_key", "since", "limit"})
REPLAY_HEADER: Final = "Idempotent-Replayed"


@dataclass(frozen=True, slots=True)
class ServiceParts:
    """What the routes work with."""

    catalog: EraCatalog
    store: SubmissionStore
    intake: SubmissionIntake
    in_flight: InFlightKeys
    tokens: TokenRegistry
    fault_plan: FaultPlan | None


def _owner(request: Request) -> str:
    owner: str = request.scope[OWNER_SCOPE_KEY]
    return owner


def _claims(request: Request) -> RequestClaims:
    claims: RequestClaims = request.scope[CLAIMS_SCOPE_KEY]
    return claims


def _answer_response(answer: Answer) -> JSONResponse:
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
    try:
        moment = datetime.fromisoformat(value.strip())
    except ValueError:
        raise refusal("invalid_query", {"since": "must be an ISO-8601 timestamp, e.g. 2025-01-31T12:00:00Z"}) from None
    if moment.tzinfo is None:
        moment = moment.replace(tzinfo=UTC)
    return moment.timestamp()


def parse_limit(value: str | None) -> int:
    """Return the listing limit: 1 to 1000, 100 when absent."""
    if value is None:
        return DEFAULT_LIST_LIMIT
    text = value.strip()
    if not text.isdigit() or not 1 <= int(text) <= MAX_LIST_LIMIT:
        raise refusal("invalid_query", {"limit": f"must be an integer from 1 to {MAX_LIST_LIMIT}"})
    return int(text)


class Routes:
    """The request handlers of one service instance."""

    def __init__(self, parts: ServiceParts) -> None:
        """Serve from ``parts``."""
        self.parts = parts

    async def eras(self, request: Request) -> JSONResponse:
        """``GET /eras``: the era catalog."""
        return json_response(200, self.parts.catalog.document)

    async def submit_signal(self, request: Request) -> JSONResponse:
        """``POST /signals/submit``: accept one signal (202) or refuse it."""
        return await self._submit("signal", request)

    async def submit_strategy(self, request: Request) -> JSONResponse:
        """``POST /strategies/submit``: accept one strategy (202) or refuse it."""
        return await self._submit("strategy", request)

    async def _submit(self, kind: SubmissionKind, request: Request) -> JSONResponse:
        body = await read_json_object(request)
        header_key = request.headers.get("idempotency-key")
        answer = await self.parts.intake.submit(kind, _owner(request), body, header_key, _claims(request))
        return _answer_response(answer)

    async def submit_batch(self, request: Request) -> JSONResponse:
        """``POST /signals/batch``: judge each of up to 100 signals on its own."""
        document = await read_json_object(request)
        signals = document.get("signals")
        unknown = sorted(key for key in document if key != "signals")
        if not isinstance(signals, list) or unknown:
            details: JSONObject = {"message": 'the body must be {"signals": [signal, ...]}'}
            if unknown:
                details["unknown"] = unknown
            raise refusal("malformed_body", details)
        if len(signals) > MAX_BATCH_ITEMS:
            raise ServiceError(413, "batch_too_large", {"count": len(signals), "max_items": MAX_BATCH_ITEMS})
        answers = await self.parts.intake.submit_batch(_owner(request), signals, _claims(request))
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

    async def status(self, request: Request) -> JSONResponse:
        """``GET /signals/status/{id}``: the caller's submission, or 404."""
        submission_id: str = request.path_params["submission_id"]
        record = await run_in_threadpool(self.parts.store.get, submission_id)
        if record is None or record.owner != _owner(request):
            return json_response(404, {"error": "unknown submission"})
        return json_response(200, record.status_body())

    async def submissions(self, request: Request) -> JSONResponse:
        """``GET /signals/submissions``: the caller's submissions, newest first."""
        query = request.query_params
        unknown = sorted(set(query.keys()) - LIST_PARAMETERS)
        if unknown:
            raise refusal("invalid_query", {"unknown": unknown, "allowed": sorted(LIST_PARAMETERS)})
        status = query.get("status")
        if status is not None and status not in ALL_STATUSES:
            raise refusal("invalid_query", {"status": f"unknown status {status!r}", "allowed": sorted(ALL_STATUSES)})
        since_text = query.get("since")
        since = None if since_text is None else parse_since(since_text)
        limit = parse_limit(query.get("limit"))
        idempotency_key = query.get("idempotency_key")
        owner = _owner(request)
        records = await run_in_threadpool(
            lambda: self.parts.store.list_for_owner(
                owner, status=status, idempotency_key=idempotency_key, since=since, limit=limit
            )
        )
        return json_response(200, {"submissions": [record.status_body() for record in records], "count": len(records)})


async def _service_error(request: Request, exc: Exception) -> Response:
    assert isinstance(exc, ServiceError)
    return error_response(exc)


async def _http_error(request: Request, exc: Exception) -> Response:
    assert isinstance(exc, HTTPException)
    if exc.status_code == 404:
        return json_response(404, {"error": "not found", "path": request.url.path})
    if exc.status_code == 405:
        return json_response(405, {"error": "method not allowed", "path": request.url.path})
    return json_response(exc.status_code, {"error": str(exc.detail)})


async def _internal_error(request: Request, exc: Exception) -> Response:
    return json_response(500, {"error": "internal server error"})


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
    middleware: list[Middleware] = []
    if parts.fault_plan is not None:
        table.extend(fault_control_routes(parts.fault_plan))
        middleware.append(Middleware(FaultInjectionMiddleware, plan=parts.fault_plan))
    middleware.append(Middleware(BearerAuthMiddleware, registry=parts.tokens))
    middleware.append(Middleware(ClaimReleaseMiddleware, registry=parts.in_flight))
    return Starlette(
        routes=table,
        middleware=middleware,
        exception_handlers={ServiceError: _service_error, HTTPException: _http_error, Exception: _internal_error},
    )
