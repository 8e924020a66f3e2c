"""The asynchronous client: :class:`AsyncSignalServiceClient`.

It is the compiled :class:`~tallowmere.submit.SignalServiceClient` driven from
``asyncio``, not a second implementation of it. Each instance owns a private
compiled client (its *core*) whose transport is a bridge back to the event
loop:

1. A public coroutine hands the compiled operation to a bounded pool of
   worker threads and awaits it. Validation, body building, idempotency keys,
   era-catalog caching and the mapping of answers to result records all
   happen there, in the compiled code, exactly as in the blocking client.
2. When the compiled operation sends a request, the bridge schedules the
   request on the event loop's asynchronous transport (an ``httpx.AsyncClient``
   or an :class:`~tallowmere.transport.AsyncRetryingClient`) and the worker
   waits for its answer, without holding the interpreter lock.
3. Cancelling the awaiting coroutine cancels the request in flight; the
   worker is released at once and its operation sends nothing more.

So the requests (method, path, headers, body bytes) and the results are the
blocking client's own, and the event loop only ever does network I/O.
"""

from __future__ import annotations

import asyncio
import concurrent.futures
import inspect
import os
import threading
from collections.abc import AsyncIterator, Awaitable, Callable, Collection, Mapping
from types import TracebackType
from typing import Any, Final, Protocol, TypeVar

import httpx

import tallowmere.submit as _submit
from tallowmere.api.signal_types import (
    TERMINAL_STATUSES,
    BatchSubmitResult,
    StatusResult,
    SubmissionListResult,
    SubmitResult,
)
from tallowmere.security.transport import validate_bearer_transport_url
from tallowmere.submit import SignalServiceClient

__all__ = ["AsyncSignalServiceClient", "AsyncTransport"]

_T = TypeVar("_T")

DEFAULT_MAX_CONCURRENCY: Final = 32
# The size of the pieces an observed body is streamed in (httpx's own for iterables).
_BODY_CHUNK_BYTES: Final = 65_536
# How often a worker waiting for the era catalog looks whether its call was cancelled.
_CANCEL_CHECK_SECONDS: Final = 0.05

TransmissionObserver = Callable[[str, str, dict[str, str], bytes], object]


class AsyncTransport(Protocol):
    """What the asynchronous client needs of a transport (``httpx.AsyncClient`` fits).

    ``request(method, url, *, content, headers)`` (for other methods) and
    ``aclose()`` are used when present.
    """

    def post(self, url: str, *, content: Any, headers: Mapping[str, str] | None) -> Awaitable[Any]: ...
    def get(self, url: str, *, headers: Mapping[str, str] | None) -> Awaitable[Any]: ...


class _Call:
    """One public operation in progress: its event loop, its requests in flight, and whether it was cancelled."""

    def __init__(self, loop: asyncio.AbstractEventLoop) -> None:
        self.loop = loop
        self.cancelled = False
        self._lock = threading.Lock()
        self._in_flight: set[concurrent.futures.Future[Any]] = set()

    def send(self, request: Callable[[], Awaitable[_T]]) -> _T:
        """Run ``request()`` on the event loop and wait for it (called from the worker thread)."""
        with self._lock:
            if self.cancelled:
                raise concurrent.futures.CancelledError()
            coroutine = self._on_loop(request)
            try:
                future = asyncio.run_coroutine_threadsafe(coroutine, self.loop)
            except BaseException:  # a closed loop: the request was never scheduled
                coroutine.close()
                raise
            self._in_flight.add(future)
        try:
            return future.result()
        finally:
            with self._lock:
                self._in_flight.discard(future)

    async def _on_loop(self, request: Callable[[], Awaitable[_T]]) -> _T:
        # A call cancelled after the worker scheduled this, but before the loop
        # got to it, must not start the request.
        if self.cancelled:
            raise asyncio.CancelledError()
        return await request()

    def cancel(self) -> None:
        """Cancel the requests in flight and refuse any later one (called from the event loop)."""
        with self._lock:
            self.cancelled = True
            in_flight = list(self._in_flight)
        for future in in_flight:
            future.cancel()


_worker_state = threading.local()


def _current_call() -> _Call:
    call: _Call | None = getattr(_worker_state, "call", None)
    if call is None:
        raise RuntimeError("the asynchronous client's core sends requests only from its own operations")
    return call


def _run_in_worker(call: _Call, operation: Callable[..., _T], args: tuple[Any, ...], kwargs: dict[str, Any]) -> _T:
    _worker_state.call = call
    try:
        if call.cancelled:
            raise concurrent.futures.CancelledError()
        return operation(*args, **kwargs)
    finally:
        _worker_state.call = None


class _StreamedBody:
    """An observed request body as an asynchronous stream; rewound through ``seek`` for a retry.

    The body fires its transmission observer on its first non-empty read,
    which happens here when the transport starts sending, on the event loop.
    """

    def __init__(self, body: Any) -> None:
        self._body = body

    def seek(self, offset: int, whence: int = 0) -> int:
        position: int = self._body.seek(offset, whence)
        return position

    async def __aiter__(self) -> AsyncIterator[bytes]:
        while chunk := self._body.read(_BODY_CHUNK_BYTES):
            yield chunk


class _LoopBridge:
    """The core's transport: forwards each request to the asynchronous transport on the event loop."""

    def __init__(self) -> None:
        self.transport: AsyncTransport | None = None

    def _transport(self) -> AsyncTransport:
        if self.transport is None:
            raise RuntimeError("the asynchronous client has no transport yet")
        return self.transport

    def post(self, url: str, *, content: Any = None, headers: Mapping[str, str] | None = None) -> Any:
        transport = self._transport()
        body, sent_headers = _streamable(content, headers)
        return _current_call().send(lambda: transport.post(url, content=body, headers=sent_headers))

    def get(self, url: str, *, headers: Mapping[str, str] | None = None) -> Any:
        transport = self._transport()
        return _current_call().send(lambda: transport.get(url, headers=headers))

    def request(
        self, method: str, url: str, *, content: Any = None, headers: Mapping[str, str] | None = None
    ) -> Any:
        request = getattr(self._transport(), "request", None)
        if request is None:
            raise ValueError("Unsupported HTTP method: " + method)
        body, sent_headers = _streamable(content, headers)
        return _current_call().send(lambda: request(method, url, content=body, headers=sent_headers))

    def close(self) -> None:
        """Nothing to do here: the asynchronous client closes the transport itself, on the loop."""


def _streamable(content: Any, headers: Mapping[str, str] | None) -> tuple[Any, Mapping[str, str] | None]:
    """The body and headers to hand the asynchronous transport for what the core passed.

    Bytes go as they are. A readable body goes as an asynchronous stream with
    the ``Content-Length`` that httpx's blocking client announces for it (it
    measures a seekable body), so both clients send the same headers.
    """
    if content is None or isinstance(content, (bytes, str)):
        return content, headers
    try:
        offset = content.tell()
        length = content.seek(0, os.SEEK_END)
        content.seek(offset)
    except (AttributeError, OSError):
        return _StreamedBody(content), headers
    if not isinstance(length, int):
        return _StreamedBody(content), headers
    return _StreamedBody(content), {**(headers or {}), "Content-Length": str(length)}


class AsyncSignalServiceClient:
    """The submission client for ``asyncio``: :class:`~tallowmere.submit.SignalServiceClient`'s
    operations as coroutines, with the same validation, requests and results.

    ``transport`` is an asynchronous transport (an ``httpx.AsyncClient``, an
    :class:`~tallowmere.transport.AsyncRetryingClient`, or any object with
    coroutine methods ``post(url, *, content, headers)`` and
    ``get(url, *, headers)``); without one, an ``httpx.AsyncClient`` is built
    on ``base_url`` with ``timeout``. ``transmission_observer`` is called on the
    event loop's thread when a body starts to go out. At most
    ``max_concurrency`` operations run at once; more wait their turn, so any
    number of calls can be gathered. Use one client per event loop.
    """

    def __init__(
        self,
        base_url: str,
        jwt_token: str,
        *,
        timeout: float = 30.0,
        transport: AsyncTransport | None = None,
        transmission_observer: TransmissionObserver | None = None,
        max_concurrency: int = DEFAULT_MAX_CONCURRENCY,
    ) -> None:
        if isinstance(max_concurrency, bool) or not isinstance(max_concurrency, int) or max_concurrency < 1:
            raise ValueError("max_concurrency must be a positive integer")
        if isinstance(transport, httpx.Client):
            raise TypeError(
                "AsyncSignalServiceClient needs an asynchronous transport (httpx.AsyncClient, "
                "AsyncRetryingClient); an httpx.Client belongs to SignalServiceClient"
            )
        if transport is not None:
            # A bearer token may go only where the transport will really send it.
            transport_base = str(getattr(transport, "base_url", "") or "")
            if transport_base:
                validate_bearer_transport_url(transport_base)
        bridge = _LoopBridge()
        self._core = SignalServiceClient(
            base_url, jwt_token, timeout=timeout, transport=bridge, transmission_observer=transmission_observer
        )
        if transport is None:
            options: dict[str, Any] = {"base_url": base_url, "timeout": timeout}
            if base_url.lower().startswith("http://"):
                options["verify"] = False
            transport = httpx.AsyncClient(**options)
        bridge.transport = transport
        self._transport: AsyncTransport = transport
        self._core._fetch_era_catalog = self._fetch_era_catalog_once  # type: ignore[method-assign]
        self._catalog_lock = threading.Lock()
        self._max_concurrency = max_concurrency
        self._workers: concurrent.futures.ThreadPoolExecutor | None = None
        self._calls: set[_Call] = set()
        self._closed = False

    # -- running compiled operations ------------------------------------------------

    def _pool(self) -> concurrent.futures.ThreadPoolExecutor:
        if self._workers is None:
            self._workers = concurrent.futures.ThreadPoolExecutor(
                max_workers=self._max_concurrency, thread_name_prefix="tallowmere-async"
            )
        return self._workers

    async def _run(self, operation: Callable[..., _T], *args: Any, **kwargs: Any) -> _T:
        if self._closed:
            raise RuntimeError("the client is closed")
        call = _Call(asyncio.get_running_loop())
        work = self._pool().submit(_run_in_worker, call, operation, args, kwargs)
        self._calls.add(call)
        try:
            return await asyncio.wrap_future(work)
        except asyncio.CancelledError:
            call.cancel()
            work.cancel()
            raise
        finally:
            self._calls.discard(call)

    def _fetch_era_catalog_once(self) -> dict[str, Any]:
        """The core's catalog fetch, one at a time: concurrent first submissions make one ``GET eras``."""
        call = _current_call()
        while not self._catalog_lock.acquire(timeout=_CANCEL_CHECK_SECONDS):
            if call.cancelled:
                raise concurrent.futures.CancelledError()
        try:
            return SignalServiceClient._fetch_era_catalog(self._core)
        finally:
            self._catalog_lock.release()

    @property
    def _era_catalog_cache(self) -> dict[str, Any] | None:
        """The era catalog the client keeps (see the README's Caching); settable, like the blocking client's."""
        return self._core._era_catalog_cache

    @_era_catalog_cache.setter
    def _era_catalog_cache(self, catalog: dict[str, Any] | None) -> None:
        self._core._era_catalog_cache = catalog

    # -- the six operations ------------------------------------------------------------

    async def submit_signal(
        self,
        graph: Mapping[str, Any],
        named_universe: str | None = None,
        *,
        signal_pool_name: str,
        is_stats: Mapping[str, Any],
        is_pnl_mi: float | str,
        metaparameters: Any = None,
        expression_elapsed_seconds: float,
        search_state: Any = None,
        idempotency_key: object = None,
        threshold_checks: object = None,
        thresholds: object = None,
        client_manifest_version: int | None = None,
        market_id: int | None = None,
        era_number: int | None = None,
        client_manifest_market_id: int | None = None,
        client_manifest_era_number: int | None = None,
    ) -> SubmitResult:
        """Submit one signal: ``SignalServiceClient.submit_signal``, awaited."""
        return await self._run(
            self._core.submit_signal,
            graph,
            named_universe,
            signal_pool_name=signal_pool_name,
            is_stats=is_stats,
            is_pnl_mi=is_pnl_mi,
            metaparameters=metaparameters,
            expression_elapsed_seconds=expression_elapsed_seconds,
            search_state=search_state,
            idempotency_key=idempotency_key,
            threshold_checks=threshold_checks,
            thresholds=thresholds,
            client_manifest_version=client_manifest_version,
            market_id=market_id,
            era_number=era_number,
            client_manifest_market_id=client_manifest_market_id,
            client_manifest_era_number=client_manifest_era_number,
        )

    async def submit_strategy(
        self,
        graph: Mapping[str, Any],
        named_universe: str | None = None,
        *,
        strategy_pool_name: str,
        market_id: int,
        era_number: int,
        metaparameters: Any = None,
        idempotency_key: object = None,
        client_manifest_version: int | None = None,
        client_manifest_market_id: int | None = None,
        client_manifest_era_number: int | None = None,
    ) -> SubmitResult:
        """Submit one strategy: ``SignalServiceClient.submit_strategy``, awaited (it raises what that raises)."""
        return await self._run(
            self._core.submit_strategy,
            graph,
            named_universe,
            strategy_pool_name=strategy_pool_name,
            market_id=market_id,
            era_number=era_number,
            metaparameters=metaparameters,
            idempotency_key=idempotency_key,
            client_manifest_version=client_manifest_version,
            client_manifest_market_id=client_manifest_market_id,
            client_manifest_era_number=client_manifest_era_number,
        )

    async def submit_signals_batch(
        self, submissions: list[dict[str, Any]] | tuple[dict[str, Any], ...]
    ) -> BatchSubmitResult:
        """Submit many signals in chunks: ``SignalServiceClient.submit_signals_batch``, awaited."""
        return await self._run(self._core.submit_signals_batch, submissions)

    async def get_signal_status(self, submission_id: str) -> StatusResult:
        """One submission's status: ``SignalServiceClient.get_signal_status``, awaited."""
        return await self._run(self._core.get_signal_status, submission_id)

    async def list_signal_submissions(
        self,
        *,
        status: str | None = None,
        idempotency_key: str | None = None,
        since: str | None = None,
        limit: int | None = 100,
    ) -> SubmissionListResult:
        """Your submissions, newest first: ``SignalServiceClient.list_signal_submissions``, awaited."""
        return await self._run(
            self._core.list_signal_submissions,
            status=status,
            idempotency_key=idempotency_key,
            since=since,
            limit=limit,
        )

    async def poll_until_terminal(self, submission_id: str, *, timeout: float) -> StatusResult:
        """Query the status until it is terminal, a query gets no answer, or ``timeout`` seconds pass.

        ``SignalServiceClient.poll_until_terminal``'s loop, waiting with
        ``asyncio.sleep`` instead of blocking a thread: the first query at
        once, then one every ``_POLL_INTERVAL_SECONDS``; the latest result is
        returned at the deadline. :meth:`wait_for_verdict` says which of these
        happened.
        """
        clock = _submit.time.monotonic
        deadline = clock() + timeout
        last = await self.get_signal_status(submission_id)
        while True:
            if last.status_code == 0 or last.status in _submit._TERMINAL_STATUSES:
                return last
            now = clock()
            if now >= deadline:
                return last
            await asyncio.sleep(max(0.0, min(_submit._POLL_INTERVAL_SECONDS, deadline - now)))
            last = await self.get_signal_status(submission_id)

    async def wait_for_verdict(
        self,
        submission_id: str,
        *,
        timeout: float,
        until: Collection[str] = TERMINAL_STATUSES,
        interval: float = 0.5,
        raise_on_timeout: bool = True,
    ) -> StatusResult:
        """Query the status until it is in ``until``: see :func:`tallowmere.polling.wait_for_verdict`."""
        from tallowmere.polling import wait_for_verdict_async

        return await wait_for_verdict_async(
            self, submission_id, timeout=timeout, until=until, interval=interval, raise_on_timeout=raise_on_timeout
        )

    # -- life cycle --------------------------------------------------------------------

    async def aclose(self) -> None:
        """Cancel what is still running, stop the workers and close the transport.

        Like ``SignalServiceClient.close``, this closes the transport whether
        the client built it or was given it.
        """
        if self._closed:
            return
        self._closed = True
        for call in list(self._calls):
            call.cancel()
        workers, self._workers = self._workers, None
        if workers is not None:
            await asyncio.to_thread(workers.shutdown, wait=True, cancel_futures=True)
        close = getattr(self._transport, "aclose", None)
        if callable(close):
            closing = close()
            if inspect.isawaitable(closing):
                await closing

    async def __aenter__(self) -> AsyncSignalServiceClient:
        return self

    async def __aexit__(
        self, exc_type: type[BaseException] | None, exc: BaseException | None, traceback: TracebackType | None
    ) -> None:
        await self.aclose()

    def __repr__(self) -> str:
        return (
            f"{type(self).__name__}(base_url={self._core._base_url!r}, timeout={self._core._timeout!r}, "
            f"transport={type(self._transport).__name__}, max_concurrency={self._max_concurrency})"
        )
