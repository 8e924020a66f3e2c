"""A retrying transport for :class:`tallowmere.submit.SignalServiceClient`.

Pass it as ``transport=``::

    from tallowmere.submit import SignalServiceClient
    from tallowmere.transport import RetryingClient

    client = SignalServiceClient(url, token, transport=RetryingClient(url))

Each request is retried on connection failures and timeouts (any
``httpx.TransportError``) and on the answers 429, 502, 503 and 504, with
capped exponential backoff and full jitter; a ``Retry-After`` header
(seconds or an HTTP date) is honoured up to a cap. Attempts are bounded in
number and by a deadline per request. Before every attempt the request body is
rewound, so exactly the same bytes — and the same ``Idempotency-Key`` — go
again, and the service can recognise the repeat.

A POST is retried only when the service can tell a repeat from a new
request: when it carries an ``Idempotency-Key`` header (every signal and
strategy body the client sends does), or when it goes to a route whose items
each carry their own key (``RetryPolicy.item_keyed_routes``: the batch route,
whose repeated items are replayed, not created twice). Other methods are
retried when they are safe to repeat (GET, HEAD, OPTIONS, PUT, DELETE).
"""

from __future__ import annotations

import email.utils
import logging
import math
import random
import time
from collections.abc import Callable, Mapping
from dataclasses import dataclass, field
from types import TracebackType
from typing import Any

import httpx

__all__ = ["RetryPolicy", "RetryingClient"]

logger = logging.getLogger("tallowmere.transport")

_IDEMPOTENT_METHODS = frozenset({"GET", "HEAD", "OPTIONS", "PUT", "DELETE"})


@dataclass(frozen=True)
class RetryPolicy:
    """How often and how patiently a request is retried.

    The wait before retry ``n`` (1 for the first retry) is a uniformly random
    fraction of ``min(max_backoff, initial_backoff * multiplier ** (n - 1))``
    ("full jitter"), or the answer's ``Retry-After`` when it gives one, capped
    at ``max_retry_after``. No attempt starts after ``deadline`` seconds from
    the first, and no wait is begun that would end after it.
    """

    max_attempts: int = 5
    initial_backoff: float = 0.2
    max_backoff: float = 5.0
    multiplier: float = 2.0
    max_retry_after: float = 30.0
    deadline: float = 60.0
    retry_statuses: frozenset[int] = field(default_factory=lambda: frozenset({429, 502, 503, 504}))
    item_keyed_routes: frozenset[str] = field(default_factory=lambda: frozenset({"/signals/batch"}))

    def __post_init__(self) -> None:
        if self.max_attempts < 1:
            raise ValueError("max_attempts must be at least 1")
        for name in ("initial_backoff", "max_backoff", "max_retry_after", "deadline"):
            value = getattr(self, name)
            if not math.isfinite(value) or value < 0:
                raise ValueError(f"{name} must be a finite number >= 0")
        if not math.isfinite(self.multiplier) or self.multiplier < 1:
            raise ValueError("multiplier must be a finite number >= 1")

    def backoff(self, retry: int, draw: float) -> float:
        """The jittered wait before retry number ``retry``, for a draw in [0, 1)."""
        ceiling = min(self.max_backoff, self.initial_backoff * self.multiplier ** (retry - 1))
        return draw * ceiling


def retry_after_seconds(value: str | None, *, now: float | None = None) -> float | None:
    """The wait a ``Retry-After`` header asks for, in seconds; None when absent or unreadable."""
    if value is None:
        return None
    text = value.strip()
    try:
        seconds = float(text)
    except ValueError:
        try:
            moment = email.utils.parsedate_to_datetime(text)
        except (TypeError, ValueError, IndexError):
            return None
        seconds = moment.timestamp() - (time.time() if now is None else now)
    if not math.isfinite(seconds):
        return None
    return max(0.0, seconds)


class RetryingClient:
    """An HTTP client with the ``post``/``get``/``request``/``close`` methods the
    submission client uses, retrying as :class:`RetryPolicy` says.

    ``base_url`` and ``timeout`` build an ``httpx.Client`` (certificate checks
    are kept, except for plain-http base URLs, which have none); pass
    ``client=`` to reuse one of your own. ``sleep``, ``clock`` and ``rng`` are
    there for tests.
    """

    def __init__(
        self,
        base_url: str = "",
        *,
        timeout: float = 30.0,
        policy: RetryPolicy | None = None,
        client: httpx.Client | None = None,
        sleep: Callable[[float], None] = time.sleep,
        clock: Callable[[], float] = time.monotonic,
        rng: Callable[[], float] = random.random,
    ) -> None:
        self.policy = policy or RetryPolicy()
        self._client = client if client is not None else httpx.Client(base_url=base_url, timeout=timeout)
        self._owns_client = client is None
        self._sleep = sleep
        self._clock = clock
        self._rng = rng

    # -- the methods SignalServiceClient calls ------------------------------------------

    def post(self, url: str, *, content: Any = None, headers: Mapping[str, str] | None = None) -> httpx.Response:
        """POST, retried (when the request carries an Idempotency-Key)."""
        return self.request("POST", url, content=content, headers=headers)

    def get(self, url: str, *, headers: Mapping[str, str] | None = None) -> httpx.Response:
        """GET, retried."""
        return self.request("GET", url, headers=headers)

    def request(
        self, method: str, url: str, *, content: Any = None, headers: Mapping[str, str] | None = None
    ) -> httpx.Response:
        """Send one request, retrying failures the policy allows; return the last answer.

        The last transport error is raised when no attempt got an answer.
        """
        policy = self.policy
        # A body that cannot be rewound cannot be sent twice.
        retryable = (
            method.upper() in _IDEMPOTENT_METHODS
            or _has_idempotency_key(headers)
            or httpx.URL(url).path in policy.item_keyed_routes
        ) and _rewindable(content)
        started = self._clock()
        attempt = 1
        while True:
            _rewind(content)
            try:
                response = self._client.request(method, url, content=content, headers=headers)
            except httpx.TransportError as error:
                delay = self._next_delay(attempt, started, None, retryable)
                if delay is None:
                    raise
                reason = f"{type(error).__name__}: {error}" if str(error) else type(error).__name__
            else:
                if response.status_code not in policy.retry_statuses:
                    return response
                requested = retry_after_seconds(response.headers.get("Retry-After"))
                delay = self._next_delay(attempt, started, requested, retryable)
                if delay is None:
                    return response
                response.close()
                reason = f"HTTP {response.status_code}"
            logger.warning(
                "retrying %s %s after %s (attempt %d of %d, waiting %.3f s)",
                method, url, reason, attempt + 1, policy.max_attempts, delay,
                extra={"retry_attempt": attempt + 1, "retry_reason": reason, "retry_delay": delay},
            )  # fmt: skip
            self._sleep(delay)
            attempt += 1

    def _next_delay(self, attempt: int, started: float, requested: float | None, retryable: bool) -> float | None:
        """The wait before the next attempt, or None when there is none to make."""
        policy = self.policy
        if not retryable or attempt >= policy.max_attempts:
            return None
        if requested is not None:
            delay = min(requested, policy.max_retry_after)
        else:
            delay = policy.backoff(attempt, self._rng())
        if self._clock() + delay - started > policy.deadline:
            return None
        return delay

    def close(self) -> None:
        """Close the underlying httpx client (only one this object made itself)."""
        if self._owns_client:
            self._client.close()

    def __enter__(self) -> RetryingClient:
        return self

    def __exit__(
        self, exc_type: type[BaseException] | None, exc: BaseException | None, traceback: TracebackType | None
    ) -> None:
        self.close()


def _has_idempotency_key(headers: Mapping[str, str] | None) -> bool:
    return headers is not None and any(name.lower() == "idempotency-key" and value for name, value in headers.items())


def _rewindable(content: Any) -> bool:
    return content is None or isinstance(content, (bytes, str)) or callable(getattr(content, "seek", None))


def _rewind(content: Any) -> None:
    seek = getattr(content, "seek", None)
    if callable(seek) and not isinstance(content, (bytes, str)):
        seek(0)
