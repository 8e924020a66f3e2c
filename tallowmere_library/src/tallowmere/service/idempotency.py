"""Idempotency keys: one submission per (owner, key), replays answered from the record.

The rules, per owner:

- the ``Idempotency-Key`` header, when sent, must equal the body's
  ``idempotency_key`` (else 422 ``idempotency_key_mismatch``);
- a key already bound to an accepted submission with the same body (compared
  by the SHA-256 of the canonical JSON, so key order and spacing do not
  matter) is answered with the original status and body, and nothing new is
  created;
- the same key with a different body is refused (422 ``idempotency_key_reused``);
- while a request holding a key is still being processed, another request
  with that key is refused (409 ``idempotency_key_in_flight``); the key is
  held from before the lookup of bound keys until the new submission is
  durably written (or refused), so from then on a retry is answered from the
  stored record, even while the first answer is still on its way;
- only accepted submissions bind a key: a refused body leaves the key free.
"""

from __future__ import annotations

import hashlib
import itertools
import threading
from collections.abc import Mapping
from types import TracebackType
from typing import Any, Final

from tallowmere.service.errors import ServiceError, refusal
from tallowmere.service.jsonio import echo
from tallowmere.service.lifecycle import SubmissionKind

MAX_KEY_LENGTH: Final = 255


def body_idempotency_key(body: Mapping[str, Any]) -> str:
    """Return the body's ``idempotency_key``, refusing a missing, empty or over-long one."""
    key = body.get("idempotency_key")
    if not isinstance(key, str) or not key.strip():
        raise refusal(
            "malformed_body",
            {"invalid": {"idempotency_key": "must be a non-empty string"}} if "idempotency_key" in body
            else {"missing": ["idempotency_key"]},
        )
    if len(key) > MAX_KEY_LENGTH:
        problem = f"must be at most {MAX_KEY_LENGTH} characters"
        raise refusal("malformed_body", {"invalid": {"idempotency_key": problem}})
    return key


def check_header_matches(header_key: str | None, body_key: str) -> None:
    """Refuse a request whose ``Idempotency-Key`` header differs from its body's key."""
    if header_key is not None and header_key != body_key:
        raise refusal("idempotency_key_mismatch", {"header": echo(header_key), "body": echo(body_key)})


def submission_fingerprint(kind: SubmissionKind, canonical_body: bytes) -> str:
    """Return the fingerprint that tells a replay (same body) from a reused key.

    It is the SHA-256 of the canonical JSON of ``{"kind": kind, "body": body}``,
    assembled from the body's own canonical JSON (``canonical_body``), which
    the caller has made already.
    """
    digest = hashlib.sha256(b'{"body":')
    digest.update(canonical_body)
    digest.update(b',"kind":"' + kind.encode("ascii") + b'"}')
    return digest.hexdigest()


class InFlightKeys:
    """The (owner, key) pairs held by requests still being processed."""

    def __init__(self) -> None:
        """Start with no key held."""
        self._lock = threading.Lock()
        self._holders: dict[tuple[str, str], int] = {}
        self._held_by: dict[int, list[tuple[str, str]]] = {}
        self._holder_ids = itertools.count(1)

    def new_holder(self) -> int:
        """Return a fresh holder identity for one request."""
        holder = next(self._holder_ids)
        with self._lock:
            self._held_by[holder] = []
        return holder

    def claim(self, owner: str, key: str, holder: int) -> None:
        """Hold (owner, key) for ``holder``; raise 409 when another request holds it.

        A holder that released its keys already (its request was cancelled
        while a work thread still judged its body) claims nothing more.
        """
        pair = (owner, key)
        with self._lock:
            held = self._held_by.get(holder)
            if held is None:
                raise ServiceError(503, "request_abandoned", {"message": "the request was cancelled"})
            current = self._holders.setdefault(pair, holder)
            if current == holder:
                held.append(pair)
        if current != holder:
            raise ServiceError(409, "idempotency_key_in_flight", {"idempotency_key": echo(key)})

    def release_all(self, holder: int) -> None:
        """Release every key that ``holder`` holds; it can claim none afterwards."""
        with self._lock:
            for pair in self._held_by.pop(holder, ()):
                if self._holders.get(pair) == holder:
                    del self._holders[pair]

    def held_count(self) -> int:
        """Return how many keys are held now."""
        with self._lock:
            return len(self._holders)


class RequestClaims:
    """The keys one request holds; a context manager that releases them all on exit."""

    def __init__(self, registry: InFlightKeys) -> None:
        """Create the claims of one request in ``registry``."""
        self._registry = registry
        self._holder = registry.new_holder()

    def claim(self, owner: str, key: str) -> None:
        """Hold (owner, key) for this request (claiming a key twice in one request is allowed)."""
        self._registry.claim(owner, key, self._holder)

    def release(self) -> None:
        """Release every key this request holds."""
        self._registry.release_all(self._holder)

    def __enter__(self) -> RequestClaims:
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, traceback: TracebackType | None
    ) -> None:
        self.release()
