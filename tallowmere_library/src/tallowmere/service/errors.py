"""The service's refusals and the JSON bodies that carry them.

A refusal of a request's content is answered ``{"reason": <short code>,
"details": {...}}`` (so are the 503 answers of a database that another
process keeps locked); authentication failures are answered ``{"error":
"unauthorized", "reason": ...}``; unknown routes and submissions are answered
``{"error": ...}``.
"""

from __future__ import annotations

from collections.abc import Mapping
from typing import Any

from starlette.responses import Response

from tallowmere.service.jsonio import JSONObject, render_json

JSON_MEDIA_TYPE = "application/json"


class ServiceError(Exception):
    """A request the service refuses, with the HTTP status and body to answer.

    ``reason`` is a short machine-readable code and ``details`` says what
    exactly was wrong; both are sent to the caller.
    """

    def __init__(
        self,
        status_code: int,
        reason: str,
        details: Mapping[str, Any] | None = None,
        *,
        retry_after: int | None = None,
    ) -> None:
        super().__init__(f"{status_code} {reason}: {dict(details or {})}")
        self.status_code = status_code
        self.reason = reason
        self.details: JSONObject = dict(details or {})
        self.retry_after = retry_after

    def body(self) -> JSONObject:
        """Return the JSON body of this refusal."""
        return {"reason": self.reason, "details": self.details}


def refusal(reason: str, details: Mapping[str, Any] | None = None) -> ServiceError:
    """Return a 422 `ServiceError`, the answer to a body the service will not accept."""
    return ServiceError(422, reason, details)


def json_response(status_code: int, body: JSONObject, headers: Mapping[str, str] | None = None) -> Response:
    """Return a strict-JSON response (NaN and bare infinities cannot be encoded)."""
    return rendered_response(status_code, render_json(body), headers)


def rendered_response(status_code: int, content: bytes, headers: Mapping[str, str] | None = None) -> Response:
    """Return a response carrying JSON already rendered (by `render_json`, perhaps on a work thread)."""
    return Response(content, status_code=status_code, headers=dict(headers or {}), media_type=JSON_MEDIA_TYPE)


def error_response(exc: ServiceError) -> Response:
    """Return the response that answers ``exc`` (with ``Retry-After`` when it names one)."""
    headers = {"Retry-After": str(exc.retry_after)} if exc.retry_after is not None else None
    return json_response(exc.status_code, exc.body(), headers)
