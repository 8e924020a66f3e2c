"""Reading request bodies: bounded in size, strict JSON, one object."""

from __future__ import annotations

from starlette.requests import Request

from tallowmere.service.config import MAX_REQUEST_BYTES
from tallowmere.service.errors import ServiceError, refusal
from tallowmere.service.jsonio import JSONObject, StrictJSONError, loads_strict


async def read_json_object(request: Request, *, max_bytes: int = MAX_REQUEST_BYTES) -> JSONObject:
    """Return the request's JSON object body.

    Refuses a body over ``max_bytes`` with 413 ``body_too_large``, and a body
    that is not strict JSON or not an object with 422 ``malformed_json``.
    """
    declared = request.headers.get("content-length")
    if declared is not None and declared.isdigit() and int(declared) > max_bytes:
        raise ServiceError(413, "body_too_large", {"max_bytes": max_bytes})
    chunks: list[bytes] = []
    size = 0
    async for chunk in request.stream():
        size += len(chunk)
        if size > max_bytes:
            raise ServiceError(413, "body_too_large", {"max_bytes": max_bytes})
        chunks.append(chunk)
    try:
        document = loads_strict(b"".join(chunks))
    except StrictJSONError as exc:
        raise refusal("malformed_json", {"message": str(exc)}) from None
    if not isinstance(document, dict):
        raise refusal("malformed_json", {"message": f"the body must be a JSON object, not {type(document).__name__}"})
    return document
