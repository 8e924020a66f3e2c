"""Bearer-token authentication: every request names its owner with ``Authorization: Bearer <token>``.

Each configured token is one owner. The owner is known inside the service by
an identifier derived from the token's SHA-256 digest, so the database never
holds a token, and restarting with the same tokens gives the same owners.
"""

from __future__ import annotations

import hashlib
from collections.abc import Iterable
from typing import Final

from starlette.types import ASGIApp, Receive, Scope, Send

from tallowmere.service.errors import json_response

OWNER_SCOPE_KEY: Final = "tallowmere.owner"
"""The ASGI scope key under which an authenticated request carries its owner id."""


def owner_id_for_token(token: str) -> str:
    """Return the stable owner identifier of ``token``."""
    return "owner-" + hashlib.sha256(token.encode("utf-8")).hexdigest()[:24]


class TokenRegistry:
    """The accepted bearer tokens, looked up by digest."""

    def __init__(self, tokens: Iterable[str]) -> None:
        """Accept each of ``tokens``; each one is a separate owner."""
        self._owners = {hashlib.sha256(token.encode("utf-8")).digest(): owner_id_for_token(token) for token in tokens}

    def owner_for_header(self, authorization: str | None) -> tuple[str | None, str]:
        """Return ``(owner, "")`` for a valid header, else ``(None, why it was refused)``."""
        if authorization is None:
            return None, "missing Authorization header"
        scheme, _, credentials = authorization.partition(" ")
        if scheme.lower() != "bearer" or not credentials.strip():
            return None, "Authorization header must be 'Bearer <token>'"
        owner = self._owners.get(hashlib.sha256(credentials.strip().encode("utf-8")).digest())
        if owner is None:
            return None, "unknown bearer token"
        return owner, ""


class BearerAuthMiddleware:
    """Refuse every HTTP request without a known bearer token with 401; tag the others with their owner."""

    def __init__(self, app: ASGIApp, registry: TokenRegistry) -> None:
        """Wrap ``app``, admitting the owners of ``registry``."""
        self.app = app
        self.registry = registry

    async def __call__(self, scope: Scope, receive: Receive, send: Send) -> None:
        """Authenticate one request, then pass it on or answer 401."""
        if scope["type"] != "http":
            await self.app(scope, receive, send)
            return
        header: str | None = None
        for name, value in scope["headers"]:
            if name == b"authorization":
                header = value.decode("latin-1")
                break
        owner, why = self.registry.owner_for_header(header)
        if owner is None:
            response = json_response(
                401, {"error": "unauthorized", "reason": why}, headers={"WWW-Authenticate": "Bearer"}
            )
            await response(scope, receive, send)
            return
        scope[OWNER_SCOPE_KEY] = owner
        await self.app(scope, receive, send)
