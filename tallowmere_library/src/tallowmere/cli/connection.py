"""Where the service is, who the caller is, and the client that talks to it.

The address and token come from ``--base-url``/``--token`` or from the
environment (``TALLOWMERE_BASE_URL``/``TALLOWMERE_TOKEN``); an option wins over
its variable. The token is never printed: messages name where it came from,
never its value.
"""

from __future__ import annotations

import argparse
import json
import os
from collections.abc import Callable, Iterator, Mapping
from contextlib import contextmanager
from dataclasses import dataclass, field
from typing import Any, Final

import httpx

from tallowmere.cli.errors import CommandError, ServiceRefusal, ServiceUnreachable, UsageError
from tallowmere.connection import check_token
from tallowmere.security.transport import validate_bearer_transport_url
from tallowmere.submit import SignalClientResponseError, SignalServiceClient, SubmissionRejectedError
from tallowmere.transport import RetryingClient, RetryPolicy

BASE_URL_VARIABLE: Final = "TALLOWMERE_BASE_URL"
TOKEN_VARIABLE: Final = "TALLOWMERE_TOKEN"
DEFAULT_TIMEOUT_SECONDS: Final = 30.0

TransmissionObserver = Callable[[str, str, dict[str, str], bytes], object]
"""The client's ``transmission_observer``: called with (method, url, headers, body) once per request body."""


@dataclass(frozen=True)
class ServiceAddress:
    """How to reach the service: its URL, the bearer token (and where it came from), and how patiently to ask."""

    base_url: str
    token: str = field(repr=False)
    retries: bool = True
    timeout: float = DEFAULT_TIMEOUT_SECONDS
    token_source: str = TOKEN_VARIABLE

    def token_hint(self) -> str:
        """What to do about a token the service does not accept, naming where it came from."""
        if self.token_source == "--token":
            return f"the token given with --token was not accepted: check it (or drop --token to use ${TOKEN_VARIABLE})"
        if self.token_source == TOKEN_VARIABLE:
            return f"the token in ${TOKEN_VARIABLE} was not accepted: check it, or pass --token"
        return f"the token of {self.token_source} was not accepted"


def _check_token(token: str, source: str) -> None:
    try:
        check_token(token, source=f"the token from {source}")
    except ValueError as exc:
        raise UsageError(str(exc)) from None


def resolve_address(args: argparse.Namespace, environ: Mapping[str, str] | None = None) -> ServiceAddress:
    """Return the service address of parsed arguments, falling back on the environment.

    Raises `UsageError` when the URL or the token is missing, or when the URL
    may not carry a bearer token (plain http is allowed only to loopback).
    """
    environ = os.environ if environ is None else environ
    base_url = args.base_url if args.base_url is not None else environ.get(BASE_URL_VARIABLE, "")
    if not base_url:
        raise UsageError(f"no service address: pass --base-url or set {BASE_URL_VARIABLE}")
    try:
        validate_bearer_transport_url(base_url)
    except ValueError as exc:
        raise UsageError(f"--base-url: {exc}") from None
    if args.token is not None:
        token, source = args.token, "--token"
    else:
        token, source = environ.get(TOKEN_VARIABLE, ""), TOKEN_VARIABLE
        if not token:
            raise UsageError(f"no token: set {TOKEN_VARIABLE} (or pass --token)")
    _check_token(token, source)
    return ServiceAddress(
        base_url=base_url, token=token, retries=not args.no_retries, timeout=args.timeout, token_source=source
    )


@contextmanager
def open_client(
    address: ServiceAddress,
    *,
    transmission_observer: TransmissionObserver | None = None,
    policy: RetryPolicy | None = None,
    timeout: float | None = None,
) -> Iterator[SignalServiceClient]:
    """Yield a client of ``address`` (through the retrying transport unless retries are off); close it after.

    ``policy`` replaces the transport's default retry policy, ``timeout``
    the address's time limit per attempt.
    """
    timeout = address.timeout if timeout is None else timeout
    transport = RetryingClient(address.base_url, timeout=timeout, policy=policy) if address.retries else None
    client = SignalServiceClient(
        address.base_url,
        address.token,
        timeout=timeout,
        transport=transport,
        transmission_observer=transmission_observer,
    )
    try:
        yield client
    finally:
        client.close()


def transport_error_text(error: BaseException) -> str:
    """Describe a failed request in a few words (``ConnectError: [Errno 111] Connection refused``)."""
    text = str(error)
    return f"{type(error).__name__}: {text}" if text else type(error).__name__


def unreachable(address: ServiceAddress, reason: str) -> ServiceUnreachable:
    """The error of a request that got no answer from ``address``."""
    return ServiceUnreachable(f"could not reach the service at {address.base_url}: {reason}")


def refusal_text(status_code: int, error: str | None, body: object, address: ServiceAddress | None = None) -> str:
    """Describe a refusal: the service's reason, its HTTP status and, when it gave them, its details.

    A 401 also says where the token came from (when ``address`` is given).
    """
    text = f"{error or 'refused'} (HTTP {status_code})"
    if isinstance(body, dict):
        details = body.get("details")
        if details:
            text += f": {_compact(details)}"
    if status_code == 401 and address is not None:
        text += f"; {address.token_hint()}"
    return text


def _compact(value: Any) -> str:
    text = json.dumps(value, sort_keys=True, ensure_ascii=False, default=str)
    return text if len(text) <= 300 else text[:297] + "..."


def request_failure(error: BaseException, address: ServiceAddress, request: str) -> CommandError | None:
    """Translate an exception a client call raised about ``request`` (``"GET /eras"``) into a command error.

    Covers a request that got no answer (an ``httpx.TransportError``), a
    refusal the client raised instead of returning it
    (``SubmissionRejectedError``), and an answer that is not JSON
    (``SignalClientResponseError``), raised directly or as the cause of a
    ``ValueError``. Returns None for anything else.
    """
    for candidate in (error, error.__cause__):
        if isinstance(candidate, (httpx.TransportError, ConnectionError)):
            return unreachable(address, transport_error_text(candidate))
        if isinstance(candidate, SubmissionRejectedError):
            reason = refusal_text(candidate.status_code, candidate.reason, candidate.body, address)
            return ServiceRefusal(f"the service refused {request}: {reason}")
        if isinstance(candidate, SignalClientResponseError):
            return ServiceUnreachable(
                f"the service's answer to {request} (HTTP {candidate.status_code}) is not the JSON expected"
            )
    return None


def service_failure(error: BaseException, address: ServiceAddress, request: str) -> CommandError:
    """Like `request_failure`, for an error known to come from the request: never None."""
    failure = request_failure(error, address, request)
    return failure if failure is not None else ServiceUnreachable(f"{request} failed: {transport_error_text(error)}")


@contextmanager
def answered(address: ServiceAddress, request: str) -> Iterator[None]:
    """Turn what a client call raises about the service's answer to ``request`` into a command error.

    The client returns most refusals as results, but raises for an answer
    that is not JSON (an HTML error page, a truncated body), and
    ``submit_strategy`` also raises for refusals and failed requests.
    """
    try:
        yield
    except (SignalClientResponseError, SubmissionRejectedError, httpx.TransportError) as exc:
        raise service_failure(exc, address, request) from exc


def fetch_era_catalog(client: SignalServiceClient, address: ServiceAddress) -> dict[str, Any]:
    """Return the service's era catalog (kept by the client for a minute, so a submission right after reuses it).

    Any failure here is the service's: unreachable, refusing, or answering
    something that is not a usable catalog (exit 1).
    """
    try:
        return client._fetch_era_catalog()
    except ValueError as exc:
        failure = request_failure(exc, address, "GET /eras")
        if failure is not None:
            raise failure from exc
        message = f"the service at {address.base_url} answered GET /eras with an unusable catalog"
        raise ServiceUnreachable(message) from exc
