"""The service's refusals and the JSON bodies that carry them.

A refusal of a request's content is answered ``{"reason": <short code>,
"details": {...}}``; authentication failures are answered ``{"error":
"unauthorized", "reason": ...}``; unknown routes and submissions are answered
``{"error": ...}``.
"""

from __future__ import annotations

from collections.abc import Mapping
from typing import Any

from starlette.responses import JSONResponse

from tallowmere.service.jsonio import JSONObject


class ServiceError(Exception):
    """A request the service refuses, with the HTTP status and body to answer.

    ``reason`` is a short machine-readable code and ``details`` says what
    exactly was wrong; both are sent to the caller.
    """

    def __init__(self, status_code: int, reason: str, details: Mapping[str, Any] | None = None) -> None:
        super().__init__(f"{status_code} {reason}: {dict(details or {})}")
        self.status_code = status_code
        self.reason = reason
        self.details: JSONObject = dict(details or {})

    def body(self) -> JSONObject:
        """Return the JSON body of this refusal."""
        return {"reason": self.reason, "details": self.details}


def refusal(reason: str, details: Mapping[str, Any] | None = None) -> ServiceError:
    """Return a 422 `ServiceError`, the answer to a body the service will not accept."""
    return ServiceError(422, reason, details)


def json_response(status_code: int, body: JSONObject, headers: Mapping[str, str] | None = None) -> JSONResponse:
    """Return a strict-JSON response (NaN and bare infinities cannot be encoded)."""
    return JSONResponse(body, status_code=status_code, headers=dict(headers or {}))


def error_response(exc: ServiceError) -> JSONResponse:
    """Return the response that answers ``exc``."""
    return json_response(exc.status_code, exc.body())
