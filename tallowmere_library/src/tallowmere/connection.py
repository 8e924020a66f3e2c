"""One-line connection to the signal service: :func:`connect` and :func:`connect_async`.

::

    import tallowmere

    with tallowmere.connect() as client:   # TALLOWMERE_BASE_URL and TALLOWMERE_TOKEN
        print(client.list_signal_submissions(limit=5).entries)

The address and the token come from the arguments, else from the environment.
The token is checked before anything is built, and no message ever contains
it: an empty token, or one with whitespace (a trailing newline read from a
file), control or non-ASCII characters, could only fail later, with an error
that would echo it.
"""

from __future__ import annotations

import os
from collections.abc import Callable, Collection
from types import TracebackType
from typing import TYPE_CHECKING, Final

from tallowmere.api.signal_types import TERMINAL_STATUSES, StatusResult
from tallowmere.security.transport import validate_bearer_transport_url
from tallowmere.submit import SignalServiceClient
from tallowmere.transport import RetryingClient, RetryPolicy

if TYPE_CHECKING:
    from tallowmere.async_client import AsyncSignalServiceClient

__all__ = ["BASE_URL_VARIABLE", "TOKEN_VARIABLE", "ConnectedClient", "check_token", "connect", "connect_async"]

BASE_URL_VARIABLE: Final = "TALLOWMERE_BASE_URL"
TOKEN_VARIABLE: Final = "TALLOWMERE_TOKEN"

TransmissionObserver = Callable[[str, str, dict[str, str], bytes], object]


def check_token(token: object, *, source: str = "the token") -> str:
    """Return ``token`` when it can be sent as a bearer token; raise saying why not.

    ``source`` names where the token came from in the message (the token
    itself never appears). Raises ``TypeError`` for a token that is not a
    ``str`` and ``ValueError`` for an empty one or one holding whitespace,
    control or non-ASCII characters.
    """
    if not isinstance(token, str):
        raise TypeError(f"{source} must be a str, got {type(token).__name__}")
    if not token:
        raise ValueError(f"{source} is empty")
    for character in token:
        if character.isspace():
            raise ValueError(f"{source} contains whitespace (a trailing newline from a file?); strip it")
        if ord(character) < 0x20 or ord(character) == 0x7F:
            raise ValueError(f"{source} contains a control character")
        if ord(character) > 0x7E:
            raise ValueError(f"{source} contains a non-ASCII character; a bearer token is plain ASCII")
    return token


def _settings(base_url: str | None, token: str | None) -> tuple[str, str]:
    """The base URL and token of a connection, from the arguments or else the environment."""
    if base_url is None:
        base_url = os.environ.get(BASE_URL_VARIABLE)
        if not base_url:
            raise ValueError(f"no service address: pass base_url= or set {BASE_URL_VARIABLE}")
    elif not isinstance(base_url, str):
        raise TypeError(f"base_url must be a str, got {type(base_url).__name__}")
    validate_bearer_transport_url(base_url)
    if token is None:
        token = os.environ.get(TOKEN_VARIABLE)
        if token is None:
            raise ValueError(f"no token: pass token= or set {TOKEN_VARIABLE}")
        check_token(token, source=f"the token in {TOKEN_VARIABLE}")
    else:
        check_token(token, source="the token passed as token=")
    return base_url, token


def _policy(retries: bool | RetryPolicy) -> RetryPolicy | None:
    if isinstance(retries, RetryPolicy):
        return retries
    if retries is True:
        return RetryPolicy()
    if retries is False:
        return None
    raise TypeError(f"retries must be True, False or a RetryPolicy, got {type(retries).__name__}")


class ConnectedClient(SignalServiceClient):
    """The client :func:`connect` returns: a :class:`SignalServiceClient` that is
    also a context manager (``with`` closes it) and can wait for a verdict.

    Every operation, result and error is the submission client's own.
    """

    def __enter__(self) -> ConnectedClient:
        return self

    def __exit__(
        self, exc_type: type[BaseException] | None, exc: BaseException | None, traceback: TracebackType | None
    ) -> None:
        self.close()

    def wait_for_verdict(
        self,
        submission_id: str,
        *,
        timeout: float,
        until: Collection[str] = TERMINAL_STATUSES,
        interval: float = 0.5,
        raise_on_timeout: bool = True,
    ) -> StatusResult:
        """Query the submission's status until it is in ``until``: see :func:`tallowmere.polling.wait_for_verdict`."""
        from tallowmere.polling import wait_for_verdict

        return wait_for_verdict(
            self, submission_id, timeout=timeout, until=until, interval=interval, raise_on_timeout=raise_on_timeout
        )

    def __repr__(self) -> str:
        transport = self._client
        retries: bool | RetryPolicy = False
        if isinstance(transport, RetryingClient):
            retries = True if transport.policy == RetryPolicy() else transport.policy
        return f"{type(self).__name__}(base_url={self._base_url!r}, timeout={self._timeout!r}, retries={retries!r})"


def connect(
    base_url: str | None = None,
    token: str | None = None,
    *,
    timeout: float = 30.0,
    retries: bool | RetryPolicy = True,
    transmission_observer: TransmissionObserver | None = None,
) -> ConnectedClient:
    """Return a client of the signal service, ready for ``with``.

    ``base_url`` defaults to ``$TALLOWMERE_BASE_URL`` and ``token`` to
    ``$TALLOWMERE_TOKEN``. The URL must be ``https``, or plain ``http`` to a
    loopback host; the token must be non-empty printable ASCII without spaces.
    Requests go through a :class:`~tallowmere.transport.RetryingClient` on the
    same URL with the same ``timeout`` (``retries=False`` sends each request
    once; a :class:`~tallowmere.transport.RetryPolicy` replaces the default
    one). Raises ``ValueError`` (never showing the token) when the address or
    the token is missing or unusable.
    """
    base_url, token = _settings(base_url, token)
    policy = _policy(retries)
    transport = None if policy is None else RetryingClient(base_url, timeout=timeout, policy=policy)
    return ConnectedClient(
        base_url, token, timeout=timeout, transport=transport, transmission_observer=transmission_observer
    )


def connect_async(
    base_url: str | None = None,
    token: str | None = None,
    *,
    timeout: float = 30.0,
    retries: bool | RetryPolicy = True,
    transmission_observer: TransmissionObserver | None = None,
    max_concurrency: int = 32,
) -> AsyncSignalServiceClient:
    """Return an asynchronous client of the signal service, ready for ``async with``.

    The same settings and checks as :func:`connect`; requests go through an
    :class:`~tallowmere.transport.AsyncRetryingClient`. ``max_concurrency``
    bounds how many operations run at once (see
    :class:`~tallowmere.async_client.AsyncSignalServiceClient`).
    """
    from tallowmere.async_client import AsyncSignalServiceClient
    from tallowmere.transport import AsyncRetryingClient

    base_url, token = _settings(base_url, token)
    policy = _policy(retries)
    transport = None if policy is None else AsyncRetryingClient(base_url, timeout=timeout, policy=policy)
    return AsyncSignalServiceClient(
        base_url,
        token,
        timeout=timeout,
        transport=transport,
        transmission_observer=transmission_observer,
        max_concurrency=max_concurrency,
    )
