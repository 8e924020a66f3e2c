"""The asynchronous client is the blocking client, awaited.

The differential tests run both clients on the same inputs against the same
scripted service and require the same requests (method, path, headers, body
bytes), the same observed bodies and the same results or errors. The rest
covers what only the asynchronous client has: concurrency against the real
service, cancellation, and its construction checks.
"""

from __future__ import annotations

import asyncio
import json
import threading
from collections.abc import Callable, Iterator
from dataclasses import dataclass, field
from typing import Any

import httpx
import pytest

import tallowmere.submit as submit
from service_support import TOKEN_A, running
from submit_support import ERA_CATALOG, recorded_graph, signal_kwargs
from tallowmere import AsyncSignalServiceClient, connect_async
from tallowmere.service import RunningService
from tallowmere.submit import SignalServiceClient
from tallowmere.transport import AsyncRetryingClient, RetryingClient

BASE_URL = "http://127.0.0.1:9"
TOKEN = "secret-token"

Answer = Callable[[httpx.Request], httpx.Response]


def answer(status: int, body: Any = None, *, text: str | None = None, **headers: str) -> Answer:
    if text is not None:
        return lambda request: httpx.Response(status, text=text, headers=headers)
    return lambda request: httpx.Response(status, json=body, headers=headers)


def raises(error: type[httpx.TransportError], message: str = "connection refused") -> Answer:
    def raise_(request: httpx.Request) -> httpx.Response:
        raise error(message, request=request)

    return raise_


def batch_answer(request: httpx.Request) -> httpx.Response:
    signals = json.loads(request.content)["signals"]
    results = [{"index": i, "status_code": 202, "body": {"submission_id": s["idempotency_key"][-12:]}}
               for i, s in enumerate(signals)]  # fmt: skip
    return httpx.Response(202, json={"results": results, "accepted": len(results), "failed": 0})


CATALOG = answer(200, ERA_CATALOG)
ACCEPTED = answer(202, {"submission_id": "sig_1", "status": "signal_submitted", "signal_pool_name": "momentum"})


@dataclass
class Service:
    """A scripted service: per path (without query), answers used in order, the last one repeated."""

    routes: dict[str, list[Answer]]
    log: list[tuple[str, str, list[tuple[str, str]], bytes]] = field(default_factory=list)

    def __call__(self, request: httpx.Request) -> httpx.Response:
        self.log.append((request.method, request.url.raw_path.decode(), request.headers.multi_items(),
                         request.content))  # fmt: skip
        answers = self.routes.get(request.url.path, [answer(404, {"error": "no route"})])
        return (answers.pop(0) if len(answers) > 1 else answers[0])(request)


Step = tuple[str, tuple[Any, ...], dict[str, Any]]


def step(name: str, *args: Any, **kwargs: Any) -> Step:
    return (name, args, kwargs)


def batch_items(graph: dict[str, Any], count: int, **extra: Any) -> list[dict[str, Any]]:
    kwargs = signal_kwargs()
    return [{"graph": graph, "named_universe": "top300", "signal_pool_name": "momentum",
             "is_stats": {**kwargs["is_stats"], "sharpe": 1.0 + i / 100}, "is_pnl_mi": 0.1,
             "expression_elapsed_seconds": 0.25, **extra} for i in range(count)]  # fmt: skip


GRAPH = recorded_graph("close", window=61)
OTHER_GRAPH = recorded_graph("close", window=62)
STRATEGY = step("submit_strategy", GRAPH, "top300", strategy_pool_name="core", market_id=1, era_number=3)

SCENARIOS: dict[str, tuple[dict[str, list[Answer]], list[Step]]] = {
    "accepted, catalog fetched once": (
        {"/eras": [CATALOG], "/signals/submit": [ACCEPTED]},
        [step("submit_signal", GRAPH, "top300", **signal_kwargs()),
         step("submit_signal", OTHER_GRAPH, "top300", idempotency_key="mine", metaparameters={"w": 5},
              **signal_kwargs()),
         STRATEGY, step("get_signal_status", "a/b c"),
         step("list_signal_submissions", status="signal_found", since="2024-01-01T00:00:00Z", limit=None)],
    ),
    "local refusals": (
        {"/eras": [CATALOG]},
        [step("submit_signal", GRAPH, "top300", **signal_kwargs(thresholds={"min_sharpe": 0})),
         step("submit_signal", GRAPH, "../top300", **signal_kwargs()),
         step("submit_signal", GRAPH, "top300", **signal_kwargs(expression_elapsed_seconds=0)),
         step("submit_signal", recorded_graph("open", window=9), "top300", **signal_kwargs(signal_pool_name="nope")),
         step("submit_signals_batch", [*batch_items(GRAPH, 2), {"graph": GRAPH}]),
         step("list_signal_submissions", limit="many")],
    ),
    "service refusals": (
        {"/eras": [CATALOG], "/signals/submit": [answer(422, {"reason": "era_not_active", "details": {"a": 1}})],
         "/strategies/submit": [answer(422, {"reason": "unknown_strategy_pool"})],
         "/signals/status/s-1": [answer(404, {"error": "unknown submission"})],
         "/signals/submissions": [answer(403, {"error": "forbidden"})],
         "/signals/batch": [answer(422, {"reason": "all_items_refused", "results": []})]},
        [step("submit_signal", GRAPH, "top300", **signal_kwargs()), STRATEGY, step("get_signal_status", "s-1"),
         step("list_signal_submissions"), step("submit_signals_batch", batch_items(GRAPH, 2))],
    ),
    "malformed answers": (
        {"/eras": [CATALOG], "/signals/submit": [answer(502, text="<html>bad gateway</html>"),
                                                  answer(500, text="<html>oops</html>")],
         "/signals/status/s-1": [answer(200, text='{"status": "sig'), answer(400, text="<html>")],
         "/signals/submissions": [answer(400, text="nope"), answer(502, text="<html>")]},
        [step("submit_signal", GRAPH, "top300", **signal_kwargs()),
         step("submit_signal", GRAPH, "top300", **signal_kwargs()),
         step("get_signal_status", "s-1"), step("get_signal_status", "s-1"),
         step("list_signal_submissions"), step("list_signal_submissions")],
    ),
    "unusable catalog": (
        {"/eras": [answer(200, {"eras": []}), answer(200, text="[1, 2]"), raises(httpx.ConnectError)]},
        [step("submit_signal", GRAPH, "top300", **signal_kwargs()) for _ in range(3)],
    ),
    "transport failures": (
        {"/eras": [CATALOG], "/signals/submit": [raises(httpx.ConnectError), raises(httpx.ReadTimeout, "")],
         "/signals/status/s-1": [raises(httpx.RemoteProtocolError, "peer closed")],
         "/signals/submissions": [raises(httpx.ConnectTimeout)],
         "/strategies/submit": [raises(httpx.ConnectError)]},
        [step("submit_signal", GRAPH, "top300", **signal_kwargs()),
         step("submit_signal", GRAPH, "top300", **signal_kwargs()),
         step("get_signal_status", "s-1"), step("list_signal_submissions"), STRATEGY],
    ),
    "batch chunk failures": (
        {"/eras": [CATALOG], "/signals/batch": [batch_answer, answer(422, {"reason": "thresholds_failed"}),
                                                 batch_answer, raises(httpx.ConnectError), batch_answer,
                                                 answer(503, text="<html>")]},
        [step("submit_signals_batch", batch_items(GRAPH, 5)), step("submit_signals_batch", batch_items(GRAPH, 3)),
         step("submit_signals_batch", batch_items(GRAPH, 4))],
    ),
    "polling": (
        {"/signals/status/s-1": [answer(200, {"status": "signal_submitted"}), answer(429, {"reason": "slow down"}),
                                 answer(200, {"status": "signal_found", "is_stats": {"sharpe": 1.5}})],
         "/signals/status/s-2": [answer(200, {"status": "signal_submitted"}), raises(httpx.ConnectError)],
         "/signals/status/s-3": [answer(200, {"status": "strategy_submitted"})]},
        [step("poll_until_terminal", "s-1", timeout=5.0), step("poll_until_terminal", "s-2", timeout=5.0),
         step("poll_until_terminal", "s-3", timeout=0.0)],
    ),
}  # fmt: skip


def outcome_of(run: Callable[[], Any]) -> tuple[Any, ...]:
    try:
        return ("returned", run())
    except Exception as error:  # every error is compared by type and text
        return ("raised", type(error), str(error))


async def async_outcome_of(run: Callable[[], Any]) -> tuple[Any, ...]:
    try:
        return ("returned", await run())
    except Exception as error:
        return ("raised", type(error), str(error))


@dataclass
class Run:
    requests: list[tuple[str, str, list[tuple[str, str]], bytes]]
    outcomes: list[tuple[Any, ...]]
    observed: list[tuple[Any, ...]]
    sleeps: list[float]


def run_sync(routes: dict[str, list[Answer]], steps: list[Step], *, retries: bool, observe: bool) -> Run:
    service, observed, sleeps = Service({path: list(answers) for path, answers in routes.items()}), [], []
    inner = httpx.Client(base_url=BASE_URL, transport=httpx.MockTransport(service))
    transport: Any = RetryingClient(client=inner, sleep=sleeps.append, rng=lambda: 0.5) if retries else inner
    client = SignalServiceClient(BASE_URL, TOKEN, transport=transport,
                                 transmission_observer=(lambda *args: observed.append(args)) if observe else None)  # fmt: skip
    outcomes = [outcome_of(lambda: getattr(client, name)(*args, **kwargs)) for name, args, kwargs in steps]
    client.close()
    return Run(service.log, outcomes, observed, sleeps)


def run_async(routes: dict[str, list[Answer]], steps: list[Step], *, retries: bool, observe: bool) -> Run:
    service, observed, sleeps = Service({path: list(answers) for path, answers in routes.items()}), [], []

    async def record_sleep(seconds: float) -> None:
        sleeps.append(seconds)

    async def main() -> list[tuple[Any, ...]]:
        inner = httpx.AsyncClient(base_url=BASE_URL, transport=httpx.MockTransport(service))
        transport: Any = AsyncRetryingClient(client=inner, sleep=record_sleep, rng=lambda: 0.5) if retries else inner
        async with AsyncSignalServiceClient(
            BASE_URL, TOKEN, transport=transport,
            transmission_observer=(lambda *args: observed.append(args)) if observe else None,
        ) as client:  # fmt: skip
            return [await async_outcome_of(lambda: getattr(client, name)(*args, **kwargs))
                    for name, args, kwargs in steps]  # fmt: skip

    outcomes = asyncio.run(main())
    return Run(service.log, outcomes, observed, sleeps)


@pytest.fixture(autouse=True)
def quick_polls_and_small_chunks(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(submit, "_POLL_INTERVAL_SECONDS", 0.001)
    monkeypatch.setattr(submit, "_SIGNALS_BATCH_CLIENT_CHUNK_SIZE", 2)


@pytest.mark.parametrize("observe", [False, True], ids=["plain", "observed"])
@pytest.mark.parametrize("scenario", list(SCENARIOS))
def test_the_async_client_sends_and_returns_what_the_blocking_one_does(scenario: str, observe: bool) -> None:
    routes, steps = SCENARIOS[scenario]
    blocking = run_sync(routes, steps, retries=False, observe=observe)
    asynchronous = run_async(routes, steps, retries=False, observe=observe)
    assert asynchronous.requests == blocking.requests
    assert asynchronous.outcomes == blocking.outcomes
    assert asynchronous.observed == blocking.observed
    assert len(blocking.outcomes) == len(steps) and (blocking.observed != []) == (observe and any(
        method == "POST" for method, *_ in blocking.requests))  # fmt: skip


RETRIED: dict[str, list[Answer]] = {
    "/eras": [raises(httpx.ConnectError), answer(503, {"reason": "busy"}, **{"Retry-After": "1"}), CATALOG],
    "/signals/submit": [answer(503, text="<html>"), answer(409, {"reason": "idempotency_key_in_flight"}), ACCEPTED],
    "/signals/batch": [raises(httpx.ReadTimeout), batch_answer],
    "/signals/status/s-1": [answer(502, text="<html>")],
}


@pytest.mark.parametrize("observe", [False, True], ids=["plain", "observed"])
def test_retries_go_the_same_way_in_both_clients(observe: bool) -> None:
    steps = [step("submit_signal", GRAPH, "top300", **signal_kwargs()), step("submit_signals_batch",
             batch_items(GRAPH, 2)), step("get_signal_status", "s-1")]  # fmt: skip
    blocking = run_sync(RETRIED, steps, retries=True, observe=observe)
    asynchronous = run_async(RETRIED, steps, retries=True, observe=observe)
    assert asynchronous.requests == blocking.requests and len(blocking.requests) == 13
    assert asynchronous.outcomes == blocking.outcomes
    assert asynchronous.sleeps == blocking.sleeps == [0.1, 1.0, 0.1, 0.2, 0.1, 0.1, 0.2, 0.4, 0.8]
    assert asynchronous.observed == blocking.observed


# ---- concurrency against the real reference service ------------------------------------------------


@pytest.fixture(scope="module")
def service(tmp_path_factory: pytest.TempPathFactory) -> Iterator[RunningService]:
    with running(tmp_path_factory.mktemp("async") / "service.db") as svc:
        yield svc


def test_two_hundred_gathered_submissions_are_each_stored_once(service: RunningService) -> None:
    graphs = [recorded_graph("close", window=1000 + i) for i in range(200)]
    observed: list[str] = []

    async def main() -> tuple[list[Any], list[Any], Any]:
        async with connect_async(service.base_url, TOKEN_A, max_concurrency=16,
                                 transmission_observer=lambda m, url, h, body: observed.append(url)) as client:  # fmt: skip
            async def submit_one(graph: dict[str, Any]) -> Any:
                return await client.submit_signal(graph, "top300", **signal_kwargs())

            first = await asyncio.gather(*(submit_one(graph) for graph in graphs))
            again = await asyncio.gather(*(submit_one(graph) for graph in graphs))
            return first, again, await client.list_signal_submissions(limit=1000)

    first, again, listed = asyncio.run(main())
    assert all(result.status_code == 202 and result.error is None for result in first + again)
    ids = [result.submission_id for result in first]
    assert len(set(ids)) == 200
    assert [result.submission_id for result in again] == ids  # the second round is replayed, not stored again
    stored = [entry.submission_id for entry in listed.entries if entry.submission_id in set(ids)]
    assert sorted(stored) == sorted(ids)
    assert len(observed) == 400


# ---- cancellation ---------------------------------------------------------------------------------


class Stalled:
    """An asynchronous transport whose requests never end until cancelled."""

    def __init__(self) -> None:
        self.started: list[str] = []
        self.cancelled: list[str] = []
        self.entered = asyncio.Event()

    async def handle(self, request: httpx.Request) -> httpx.Response:
        self.started.append(request.url.path)
        self.entered.set()
        try:
            await asyncio.Event().wait()
        except asyncio.CancelledError:
            self.cancelled.append(request.url.path)
            raise
        raise AssertionError("unreachable")


def workers() -> list[threading.Thread]:
    return [thread for thread in threading.enumerate() if thread.name.startswith("tallowmere-async")]


@pytest.mark.parametrize(
    "operation",
    [lambda client: client.get_signal_status("s-1"),
     lambda client: client.submit_signals_batch(batch_items(GRAPH, 5))],
    ids=["status", "batch"],
)  # fmt: skip
def test_cancelling_the_caller_cancels_the_request_and_frees_the_worker(operation: Callable[[Any], Any]) -> None:
    async def main() -> Stalled:
        stalled = Stalled()
        transport = httpx.AsyncClient(base_url=BASE_URL, transport=httpx.MockTransport(stalled.handle))
        client = AsyncSignalServiceClient(BASE_URL, TOKEN, transport=transport)
        client._era_catalog_cache = ERA_CATALOG
        task = asyncio.create_task(operation(client))
        await stalled.entered.wait()
        task.cancel()
        with pytest.raises(asyncio.CancelledError):
            await task
        await asyncio.sleep(0.05)  # time enough for a worker that was not stopped to send its next chunk
        await client.aclose()
        return stalled

    stalled = asyncio.run(main())
    assert len(stalled.started) == 1 and stalled.cancelled == stalled.started
    assert workers() == []


def test_a_time_limit_on_the_caller_cancels_the_request() -> None:
    async def main() -> Stalled:
        stalled = Stalled()
        transport = httpx.AsyncClient(base_url=BASE_URL, transport=httpx.MockTransport(stalled.handle))
        async with AsyncSignalServiceClient(BASE_URL, TOKEN, transport=transport, max_concurrency=1) as client:
            with pytest.raises(TimeoutError):
                async with asyncio.timeout(0.2):
                    # the second call waits for the only worker and never starts
                    await asyncio.gather(client.get_signal_status("first"), client.get_signal_status("second"))
        return stalled

    stalled = asyncio.run(main())
    assert stalled.started == stalled.cancelled == ["/signals/status/first"]
    assert workers() == []


def test_concurrent_first_submissions_share_one_catalog_request() -> None:
    service = Service({"/eras": [CATALOG], "/signals/submit": [ACCEPTED]})

    async def main() -> list[Any]:
        transport = httpx.AsyncClient(base_url=BASE_URL, transport=httpx.MockTransport(service))
        async with AsyncSignalServiceClient(BASE_URL, TOKEN, transport=transport, max_concurrency=8) as client:
            graphs = [recorded_graph("close", window=300 + i) for i in range(20)]
            return await asyncio.gather(*(client.submit_signal(g, "top300", **signal_kwargs()) for g in graphs))

    results = asyncio.run(main())
    assert all(result.submission_id == "sig_1" for result in results)
    assert [path for _, path, _, _ in service.log].count("/eras") == 1


# ---- construction ---------------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("kwargs", "error", "message"),
    [
        ({"transport": httpx.AsyncClient(base_url="http://signals.example.com")}, ValueError, "plain http"),
        ({"transport": httpx.Client(base_url=BASE_URL)}, TypeError, "asynchronous transport"),
        ({"max_concurrency": 0}, ValueError, "max_concurrency"),
        ({"max_concurrency": True}, ValueError, "max_concurrency"),
    ],
)
def test_construction_refuses(kwargs: dict[str, Any], error: type[Exception], message: str) -> None:
    with pytest.raises(error, match=message):
        AsyncSignalServiceClient("https://signals.example.com", TOKEN, **kwargs)


def test_the_base_url_is_checked_as_the_blocking_client_checks_it() -> None:
    with pytest.raises(ValueError, match="refusing to send a bearer token: plain http"):
        AsyncSignalServiceClient("http://signals.example.com", TOKEN)


def test_repr_and_a_closed_client() -> None:
    async def main() -> None:
        client = AsyncSignalServiceClient(BASE_URL, TOKEN)
        assert TOKEN not in repr(client) and repr(client).startswith("AsyncSignalServiceClient(base_url=")
        await client.aclose()
        with pytest.raises(RuntimeError, match="closed"):
            await client.get_signal_status("s-1")

    asyncio.run(main())
