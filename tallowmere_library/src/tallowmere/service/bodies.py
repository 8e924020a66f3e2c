"""Reading request bodies: JSON only, bounded in size, and parsed off the event loop.

`BodyReader.read` takes a body's bytes on the event loop (moving bytes only),
refusing a body that is not declared ``application/json`` (UTF-8) with 415
``unsupported_media_type`` and one over the route's limit with 413
``body_too_large``. Bodies larger than `MAX_SUBMISSION_BYTES` (batches) are
read and processed only a few at a time, so that many large bodies at once
cannot exhaust memory; more wait their turn. `parse_json_object` (run on a
work thread) turns the bytes into a JSON object.
"""

from __future__ import annotations

import asyncio
import logging
from collections.abc import AsyncIterator, Awaitable, Callable
from contextlib import asynccontextmanager
from typing import Final

from starlette.requests import ClientDisconnect, Request

from tallowmere.service.config import MAX_SUBMISSION_BYTES
from tallowmere.service.errors import ServiceError, refusal
from tallowmere.service.jsonio import JSONObject, StrictJSONError, echo, loads_strict

logger = logging.getLogger("tallowmere.service")

JSON_MEDIA_TYPE: Final = "application/json"


def _is_json_content_type(value: str | None) -> bool:
    if value is None:
        return False
    media_type, *parameters = value.split(";")
    if media_type.strip().lower() != JSON_MEDIA_TYPE:
        return False
    for parameter in parameters:
        name, _, setting = parameter.partition("=")
        if name.strip().lower() == "charset" and setting.strip().strip('"').lower() not in ("utf-8", "utf8"):
            return False
    return True


def check_content_type(value: str | None) -> None:
    """Refuse a body not declared as JSON in UTF-8 with 415 ``unsupported_media_type``."""
    if not _is_json_content_type(value):
        details = {"content_type": None if value is None else echo(value), "expected": JSON_MEDIA_TYPE}
        raise ServiceError(415, "unsupported_media_type", details)


class BodyReader:
    """Reads request bodies, letting at most ``large_body_slots`` large ones in at once."""

    def __init__(self, large_body_slots: int) -> None:
        """Admit ``large_body_slots`` bodies over `MAX_SUBMISSION_BYTES` at a time."""
        self._large = asyncio.Semaphore(large_body_slots)

    @asynccontextmanager
    async def read(self, request: Request, *, max_bytes: int) -> AsyncIterator[bytes]:
        """Read the body (at most ``max_bytes``) and keep its place until the ``async with`` block ends."""
        check_content_type(request.headers.get("content-type"))
        declared = request.headers.get("content-length")
        declared_size = int(declared) if declared is not None and declared.isdigit() and len(declared) < 16 else 0
        if declared_size > max_bytes:
            raise ServiceError(413, "body_too_large", {"max_bytes": max_bytes})
        holding = False

        async def take_a_large_slot() -> None:
            nonlocal holding
            if not holding:
                await self._large.acquire()
                holding = True

        try:
            if declared_size > MAX_SUBMISSION_BYTES:
                await take_a_large_slot()
            yield await _read_body(request, max_bytes, take_a_large_slot)
        finally:
            if holding:
                self._large.release()


async def _read_body(
    request: Request, max_bytes: int, on_large: Callable[[], Awaitable[None]] | None = None
) -> bytes:
    """Collect the body, refusing one over ``max_bytes``; await ``on_large`` once it passes `MAX_SUBMISSION_BYTES`."""
    chunks: list[bytes] = []
    size = 0
    try:
        async for chunk in request.stream():
            size += len(chunk)
            if size > max_bytes:
                raise ServiceError(413, "body_too_large", {"max_bytes": max_bytes})
            if on_large is not None and size > MAX_SUBMISSION_BYTES:
                await on_large()
            chunks.append(chunk)
    except ClientDisconnect:
        logger.info("%s %s: the client went away before sending the whole body", request.method, request.url.path)
        raise ServiceError(400, "client_disconnected", {"received_bytes": size}) from None
    return b"".join(chunks)


def parse_json_object(raw: bytes) -> JSONObject:
    """Return the JSON object in ``raw``; refuse anything else with 422 ``malformed_json``."""
    try:
        document = loads_strict(raw)
    except StrictJSONError as exc:
        raise refusal("malformed_json", {"message": str(exc)}) from None
    if not isinstance(document, dict):
        raise refusal("malformed_json", {"message": f"the body must be a JSON object, not {type(document).__name__}"})
    return document


CONTROL_BODY_BYTES: Final = 64 * 1024


async def read_small_json_object(request: Request, *, max_bytes: int = CONTROL_BODY_BYTES) -> JSONObject:
    """Read and parse a small JSON object body (a control request) on the spot."""
    check_content_type(request.headers.get("content-type"))
    return parse_json_object(await _read_body(request, max_bytes))
