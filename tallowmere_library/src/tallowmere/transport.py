"""Retrying transports for the submission clients.

:class:`RetryingClient` serves :class:`tallowmere.submit.SignalServiceClient`
and :class:`AsyncRetryingClient` serves
:class:`tallowmere.AsyncSignalServiceClient`; ``tallowmere.connect()`` and
``tallowmere.connect_async()`` build them for you. By hand::

    from tallowmere.submit import SignalServiceClient
    from tallowmere.transport import RetryingClient

    client = SignalServiceClient(url, token, transport=RetryingClient(url, timeout=10.0))

Both follow one :class:`RetryPolicy`. A request is retried on connection
failures and timeouts (any ``httpx.TransportError``), on the answers 429, 502,
503 and 504, and on 409 ``idempotency_key_in_flight`` (the service is still
answering an earlier copy of the same request, typically one whose client
timed out; a later retry is answered with the stored submission). Waits are
capped exponential backoff with full jitter; a ``Retry-After`` header (seconds
or an HTTP date) is honoured up to a cap, and one that names no time to wait
(zero, negative, or a date in the past) waits the first backoff step. The
deadline bounds the whole call: no wait is begun that would end after it, and
no attempt is given more time than remains of it. Before every attempt the
request body is rewound, so exactly the same bytes — and the same
``Idempotency-Key`` — go again, and the service can recognise the repeat.

A POST is retried only when the service can tell a repeat from a new request:
when it carries an ``Idempotency-Key`` header (every signal and strategy body
the client sends does), or when it goes to a route whose items each carry
their own key (``RetryPolicy.item_keyed_routes``: the batch route, whose
repeated items are replayed, not created twice). Other methods are retried
when they are safe to repeat (GET, HEAD, OPTIONS, PUT, DELETE).

Both transports refuse to send an ``Authorization`` header anywhere the client
itself would refuse to: plain ``http`` is allowed only to a loopback host (see
:func:`tallowmere.security.transport.validate_bearer_transport_url`). The check
is made on the URL each request actually goes to, so a transport built on a
different base URL than its client cannot leak the token. They also refuse an
``Authorization`` header whose token holds whitespace, control or non-ASCII
characters, which would otherwise fail with an error quoting the token.
"""

from __future__ import annotations

import email.utils
import json
import logging
import math
import random
import time
from collections.abc import Awaitable, Callable, Mapping
from dataclasses import dataclass, field
from types import TracebackType
from typing import Any, Final

import httpx

from tallowmere.security.transport import validate_bearer_transport_url

__all__ = ["AsyncRetryingClient", "RetryPolicy", "RetryingClient", "retry_after_seconds"]

logger = logging.getLogger("tallowmere.transport")

_IDEMPOTENT_METHODS: Final = frozenset({"GET", "HEAD", "OPTIONS", "PUT", "DELETE"})
_KEY_IN_FLIGHT: Final = "idempotency_key_in_flight"
# The shortest time an attempt is given: httpx reads a timeout of zero as "fail at once".
_SHORTEST_ATTEMPT_SECONDS: Final = 0.001


@dataclass(frozen=True)
class RetryPolicy:
    """How often and how patiently a request is retried.

    The wait before retry ``n`` (1 for the first retry) is a uniformly random
    fraction of ``min(max_backoff, initial_backoff * multiplier ** (n - 1))``
    ("full jitter"), or the answer's ``Retry-After`` when it gives one, capped
    at ``max_retry_after``; a ``Retry-After`` of zero or in the past waits
    ``initial_backoff``. ``deadline`` bounds the whole call, in seconds from
    its start: no wait is begun that would end after it, and each attempt's
    connect, write, read and pool timeouts are cut to what remains of it.
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
        for name in ("initial_backoff", "max_backoff", "max_retry_after"):
            value = getattr(self, name)
            if not math.isfinite(value) or value < 0:
                raise ValueError(f"{name} must be a finite number >= 0")
        if not math.isfinite(self.deadline) or self.deadline <= 0:
            raise ValueError("deadline must be a finite number > 0")
        if not math.isfinite(self.multiplier) or self.multiplier < 1:
            raise ValueError("multiplier must be a finite number >= 1")

    def backoff(self, retry: int, draw: float) -> float:
        """The jittered wait before retry number ``retry``, for a draw in [0, 1)."""
        ceiling = min(self.max_backoff, self.initial_backoff * self.multiplier ** (retry - 1))
        return draw * ceiling

    def honoured_retry_after(self, requested: float) -> float:
        """The wait for a ``Retry-After`` of ``requested`` seconds: capped, and never nothing."""
        if requested <= 0:
            return self.initial_backoff
        return min(requested, self.max_retry_after)


def retry_after_seconds(value: str | None, *, now: float | None = None) -> float | None:
    """The wait a ``Retry-After`` header asks for, in seconds (0.0 for "now" or a past date).

    None when the header is absent or unreadable.
    """
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


class _Attempts:
    """The retry state of one call, shared by the blocking and the asynchronous driver.

    A driver asks :meth:`timeout` for each attempt's time limits, sends, and
    then asks :meth:`after_error` or :meth:`after_response` how long to wait
    before the next attempt; None means there is none to make.
    """

    def __init__(
        self,
        policy: RetryPolicy,
        method: str,
        url: str,
        content: Any,
        headers: Mapping[str, str] | None,
        clock: Callable[[], float],
        rng: Callable[[], float],
    ) -> None:
        self.policy = policy
        self.method = method
        self.url = url
        path = httpx.URL(url).path
        self.item_keyed = path in policy.item_keyed_routes
        # A body that cannot be rewound cannot be sent twice.
        self.retryable = (
            method.upper() in _IDEMPOTENT_METHODS or _has_idempotency_key(headers) or self.item_keyed
        ) and _rewindable(content)
        self.number = 1
        self._clock = clock
        self._rng = rng
        self._started = clock()

    def timeout(self, configured: httpx.Timeout) -> httpx.Timeout:
        """The attempt's time limits: the configured ones, cut to what remains of the deadline."""
        remaining = max(self.policy.deadline - (self._clock() - self._started), _SHORTEST_ATTEMPT_SECONDS)

        def cut(limit: float | None) -> float:
            return remaining if limit is None else min(limit, remaining)

        return httpx.Timeout(
            connect=cut(configured.connect),
            read=cut(configured.read),
            write=cut(configured.write),
            pool=cut(configured.pool),
        )

    def after_error(self, error: httpx.TransportError) -> float | None:
        """The wait before retrying a request that got no answer."""
        return self._next(None, _describe(error))

    def after_response(self, response: httpx.Response) -> float | None:
        """The wait before retrying a request answered with ``response``."""
        status = response.status_code
        if status in self.policy.retry_statuses:
            reason = f"HTTP {status}"
        elif status == 409 and self.retryable and _in_flight(response, self.item_keyed):
            reason = f"HTTP 409 {_KEY_IN_FLIGHT}"
        else:
            return None
        requested = retry_after_seconds(response.headers.get("Retry-After"))
        return self._next(requested, reason)

    def _next(self, requested: float | None, reason: str) -> float | None:
        policy = self.policy
        if not self.retryable or self.number >= policy.max_attempts:
            return None
        if requested is not None:
            delay = policy.honoured_retry_after(requested)
        else:
            delay = policy.backoff(self.number, self._rng())
        if self._clock() + delay - self._started >= policy.deadline:
            return None
        self.number += 1
        logger.warning(
            "retrying %s %s after %s (attempt %d of %d, waiting %.3f s)",
            self.method, self.url, reason, self.number, policy.max_attempts, delay,
            extra={"retry_attempt": self.number, "retry_reason": reason, "retry_delay": delay},
        )  # fmt: skip
        return delay


def _check_authorization_value(headers: Mapping[str, str] | None) -> None:
    """Refuse an Authorization header that HTTP cannot carry, without repeating it.

    Sent as it is, such a header fails inside the HTTP library with a message
    that quotes it, token included, and the client would report that message.
    """
    for name, value in (headers or {}).items():
        if name.lower() != "authorization" or not isinstance(value, str):
            continue
        _scheme, _, credentials = value.partition(" ")
        if not credentials or any(not 0x21 <= ord(character) <= 0x7E for character in credentials):
            raise ValueError(
                "refusing to send the Authorization header: its token is empty or contains whitespace, "
                "control or non-ASCII characters (a trailing newline read from a file?)"
            )


def _check_token_destination(request: httpx.Request) -> None:
    """Refuse a request that would carry an Authorization header where a bearer token must not go."""
    if "authorization" in request.headers:
        validate_bearer_transport_url(str(request.url))


def _checked_base_url(base_url: str | None, owner: str) -> str:
    if base_url is None or base_url == "":
        raise ValueError(
            f"{owner} needs the service's base URL (such as https://signals.example.com), "
            "or an httpx client of your own as client="
        )
    if not isinstance(base_url, str):
        raise TypeError(f"{owner}'s base_url must be a str, got {type(base_url).__name__}")
    try:
        parsed = httpx.URL(base_url)
    except httpx.InvalidURL as exc:
        raise ValueError(f"{owner}'s base_url {base_url!r} is not a URL: {exc}") from None
    if parsed.scheme not in ("http", "https") or not parsed.host:
        raise ValueError(f"{owner}'s base_url must be an absolute http or https URL, not {base_url!r}")
    return base_url


class _RetryingBase:
    """What the blocking and the asynchronous retrying clients share: the policy,
    the httpx client (their own or the caller's), the waits and the clock."""

    def __init__(
        self,
        client: Any,
        owns_client: bool,
        policy: RetryPolicy | None,
        sleep: Any,
        clock: Callable[[], float],
        rng: Callable[[], float],
    ) -> None:
        self.policy = policy or RetryPolicy()
        self._client = client
        self._owns_client = owns_client
        self._sleep = sleep
        self._clock = clock
        self._rng = rng

    @property
    def base_url(self) -> httpx.URL:
        """The URL relative request paths are resolved against."""
        url: httpx.URL = self._client.base_url
        return url

    def __repr__(self) -> str:
        return f"{type(self).__name__}(base_url={str(self.base_url)!r}, policy={self.policy!r})"

    def _attempt_request(
        self, method: str, url: str, content: Any, headers: Mapping[str, str] | None, attempts: _Attempts
    ) -> httpx.Request:
        """The request of one attempt: the body rewound, the timeouts cut to what
        remains of the deadline, and the token's destination checked."""
        _rewind(content)
        request: httpx.Request = self._client.build_request(
            method, url, content=content, headers=headers, timeout=attempts.timeout(self._client.timeout)
        )
        _check_token_destination(request)
        return request


class RetryingClient(_RetryingBase):
    """An HTTP client with the ``post``/``get``/``request``/``close`` methods the
    submission client uses, retrying as :class:`RetryPolicy` says.

    ``base_url`` and ``timeout`` build an ``httpx.Client`` (certificate checks
    are kept, except for plain-http base URLs, which have none); pass
    ``client=`` to reuse one of your own instead. ``sleep``, ``clock`` and
    ``rng`` are there for tests.
    """

    def __init__(
        self,
        base_url: str | None = None,
        *,
        timeout: float = 30.0,
        policy: RetryPolicy | None = None,
        client: httpx.Client | None = None,
        sleep: Callable[[float], None] = time.sleep,
        clock: Callable[[], float] = time.monotonic,
        rng: Callable[[], float] = random.random,
    ) -> None:
        owned = client is None
        if client is None:
            client = httpx.Client(base_url=_checked_base_url(base_url, "RetryingClient"), timeout=timeout)
        super().__init__(client, owned, policy, sleep, clock, rng)
        self._client: httpx.Client

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
        Raises ``ValueError`` before sending anything when the request carries
        an ``Authorization`` header to a URL that may not carry a bearer token,
        or one whose token HTTP cannot carry (the message never repeats it).
        """
        _check_authorization_value(headers)
        attempts = _Attempts(self.policy, method, url, content, headers, self._clock, self._rng)
        while True:
            request = self._attempt_request(method, url, content, headers, attempts)
            try:
                response = self._client.send(request)
            except httpx.TransportError as error:
                delay = attempts.after_error(error)
                if delay is None:
                    raise
            else:
                delay = attempts.after_response(response)
                if delay is None:
                    return response
                response.close()
            self._sleep(delay)

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


class AsyncRetryingClient(_RetryingBase):
    """The asynchronous twin of :class:`RetryingClient`, over ``httpx.AsyncClient``.

    Same policy, same decisions, same logging; its methods are coroutines and
    it waits with ``asyncio.sleep`` (or ``sleep=``). Its request bodies are bytes or
    asynchronous iterables (rewound before each attempt when they have
    ``seek``).
    """

    def __init__(
        self,
        base_url: str | None = None,
        *,
        timeout: float = 30.0,
        policy: RetryPolicy | None = None,
        client: httpx.AsyncClient | None = None,
        sleep: Callable[[float], Awaitable[object]] | None = None,
        clock: Callable[[], float] = time.monotonic,
        rng: Callable[[], float] = random.random,
    ) -> None:
        if sleep is None:
            import asyncio  # here, so that the blocking transport's users never load it

            sleep = asyncio.sleep
        owned = client is None
        if client is None:
            client = httpx.AsyncClient(base_url=_checked_base_url(base_url, "AsyncRetryingClient"), timeout=timeout)
        super().__init__(client, owned, policy, sleep, clock, rng)
        self._client: httpx.AsyncClient

    async def post(
        self, url: str, *, content: Any = None, headers: Mapping[str, str] | None = None
    ) -> httpx.Response:
        """POST, retried (when the request carries an Idempotency-Key)."""
        return await self.request("POST", url, content=content, headers=headers)

    async def get(self, url: str, *, headers: Mapping[str, str] | None = None) -> httpx.Response:
        """GET, retried."""
        return await self.request("GET", url, headers=headers)

    async def request(
        self, method: str, url: str, *, content: Any = None, headers: Mapping[str, str] | None = None
    ) -> httpx.Response:
        """Send one request, retrying failures the policy allows; return the last answer.

        As :meth:`RetryingClient.request`.
        """
        _check_authorization_value(headers)
        attempts = _Attempts(self.policy, method, url, content, headers, self._clock, self._rng)
        while True:
            request = self._attempt_request(method, url, content, headers, attempts)
            try:
                response = await self._client.send(request)
            except httpx.TransportError as error:
                delay = attempts.after_error(error)
                if delay is None:
                    raise
            else:
                delay = attempts.after_response(response)
                if delay is None:
                    return response
                await response.aclose()
            await self._sleep(delay)

    async def aclose(self) -> None:
        """Close the underlying httpx client (only one this object made itself)."""
        if self._owns_client:
            await self._client.aclose()

    async def __aenter__(self) -> AsyncRetryingClient:
        return self

    async def __aexit__(
        self, exc_type: type[BaseException] | None, exc: BaseException | None, traceback: TracebackType | None
    ) -> None:
        await self.aclose()


def _describe(error: BaseException) -> str:
    return f"{type(error).__name__}: {error}" if str(error) else type(error).__name__


def _has_idempotency_key(headers: Mapping[str, str] | None) -> bool:
    return headers is not None and any(name.lower() == "idempotency-key" and value for name, value in headers.items())


def _reason(body: object) -> object:
    if not isinstance(body, dict):
        return None
    return body.get("reason", body.get("error"))


def _in_flight(response: httpx.Response, item_keyed: bool) -> bool:
    """True when a 409 says the request's key (or every item's key) is held by an unanswered copy."""
    try:
        body = json.loads(response.content)
    except (ValueError, UnicodeDecodeError):
        return False
    if _reason(body) == _KEY_IN_FLIGHT:
        return True
    if not item_keyed or not isinstance(body, dict):
        return False
    items = body.get("results")
    return (
        isinstance(items, list)
        and bool(items)
        and all(isinstance(item, dict) and _reason(item.get("body")) == _KEY_IN_FLIGHT for item in items)
    )


def _rewindable(content: Any) -> bool:
    return content is None or isinstance(content, (bytes, str)) or callable(getattr(content, "seek", None))


def _rewind(content: Any) -> None:
    seek = getattr(content, "seek", None)
    if callable(seek) and not isinstance(content, (bytes, str)):
        seek(0)
