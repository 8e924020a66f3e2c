"""The retrying transports: what is retried, how long they wait, what goes again, where a token may go.

The blocking and the asynchronous driver share one policy; the tables below run
against both, so the two cannot drift apart.
"""

from __future__ import annotations

import asyncio
import logging
import socket
import time
from collections.abc import Callable, Iterator
from contextlib import closing
from typing import Any

import httpx
import pytest

import tallowmere.submit as submit
from service_support import TOKEN_A, running, signal_body
from tallowmere.service import RunningService
from tallowmere.submit import SignalServiceClient
from tallowmere.transport import AsyncRetryingClient, RetryingClient, RetryPolicy, retry_after_seconds

from submit_support import ERA_CATALOG, recorded_graph, signal_kwargs

Script = list[Callable[[httpx.Request], httpx.Response]]


def status(code: int, body: Any = None, **headers: str) -> Callable[[httpx.Request], httpx.Response]:
    answer = {"submission_id": "s-1"} if body is None else body
    return lambda request: httpx.Response(code, headers=headers, json=answer)


def fail(error: type[httpx.TransportError]) -> Callable[[httpx.Request], httpx.Response]:
    def raise_(request: httpx.Request) -> httpx.Response:
        raise error("failed", request=request)

    return raise_


IN_FLIGHT = {"error": "idempotency_key_in_flight", "reason": "idempotency_key_in_flight"}


class Harness:
    """One retrying transport (blocking or asynchronous) over a scripted service, with a fake clock."""

    def __init__(self, driver: str, script: Script, policy: RetryPolicy | None = None,
                 base_url: str = "http://127.0.0.1:9", seconds_per_request: float = 0.0) -> None:  # fmt: skip
        self.driver = driver
        self.script = list(script)
        self.bodies: list[bytes] = []
        self.headers: list[dict[str, str]] = []
        self.timeouts: list[dict[str, float]] = []
        self.sleeps: list[float] = []
        self.now = 0.0

        def handler(request: httpx.Request) -> httpx.Response:
            self.bodies.append(request.content)
            self.headers.append(dict(request.headers))
            self.timeouts.append(request.extensions["timeout"])
            self.now += seconds_per_request
            return self.script.pop(0)(request)

        mock = httpx.MockTransport(handler)
        common: dict[str, Any] = {"policy": policy, "clock": lambda: self.now, "rng": lambda: 0.5}
        if driver == "sync":
            self.sync = RetryingClient(client=httpx.Client(base_url=base_url, transport=mock, timeout=30.0), sleep=self._sleep,
                                       **common)  # fmt: skip
        else:
            self.asynchronous = AsyncRetryingClient(client=httpx.AsyncClient(base_url=base_url, transport=mock, timeout=30.0),
                                                    sleep=self._async_sleep, **common)  # fmt: skip

    def _sleep(self, seconds: float) -> None:
        self.sleeps.append(seconds)
        self.now += seconds

    async def _async_sleep(self, seconds: float) -> None:
        self._sleep(seconds)

    def request(self, method: str, path: str, *, content: Any = None,
                headers: dict[str, str] | None = None) -> httpx.Response:  # fmt: skip
        if self.driver == "sync":
            return self.sync.request(method, path, content=content, headers=headers)
        if content is not None and not isinstance(content, bytes):
            content = AsyncBody(content)
        return asyncio.run(self.asynchronous.request(method, path, content=content, headers=headers))


class AsyncBody:
    """A rewindable asynchronous body over a readable one, as the asynchronous client streams bodies."""

    def __init__(self, body: Any) -> None:
        self.body = body

    def seek(self, offset: int, whence: int = 0) -> int:
        return int(self.body.seek(offset, whence))

    async def __aiter__(self) -> Any:
        while chunk := self.body.read(65536):
            yield chunk


DRIVERS = pytest.mark.parametrize("driver", ["sync", "async"])
KEYED = {"Idempotency-Key": "k-1"}


@DRIVERS
@pytest.mark.parametrize(
    ("script", "final", "sleeps"),
    [
        ([status(503), status(503), status(202)], 202, [0.1, 0.2]),
        ([fail(httpx.ConnectError), fail(httpx.ReadTimeout), status(202)], 202, [0.1, 0.2]),
        ([status(429, **{"Retry-After": "2"}), status(202)], 202, [2.0]),
        ([status(502, **{"Retry-After": "120"}), status(202)], 202, [30.0]),
        # "now", or a moment already past, waits the first backoff step rather than nothing
        ([status(503, **{"Retry-After": "0"}), status(503, **{"Retry-After": "-4"}), status(202)], 202, [0.2, 0.2]),
        ([status(503, **{"Retry-After": "Thu, 01 Jan 1970 00:00:00 GMT"}), status(202)], 202, [0.2]),
        ([status(409, IN_FLIGHT), status(409, IN_FLIGHT), status(200)], 200, [0.1, 0.2]),
        ([status(409, IN_FLIGHT, **{"Retry-After": "1"}), status(200)], 200, [1.0]),
        ([status(409, {"reason": "conflict"})], 409, []),
        ([lambda request: httpx.Response(409, text="<html>busy</html>")], 409, []),
        ([status(500), status(202)], 500, []),
        ([status(422)], 422, []),
        ([status(503)] * 5, 503, [0.1, 0.2, 0.4, 0.8]),
    ],
)  # fmt: skip
def test_retries_and_waits(driver: str, script: Script, final: int, sleeps: list[float]) -> None:
    harness = Harness(driver, script)
    assert harness.request("POST", "/signals/submit", content=b"body", headers=KEYED).status_code == final
    assert harness.sleeps == pytest.approx(sleeps)
    assert set(harness.bodies) == {b"body"}


BATCH_IN_FLIGHT = {"reason": "all_items_refused", "results": [{"index": 0, "status_code": 409, "body": IN_FLIGHT}]}
BATCH_MIXED = {"reason": "all_items_refused", "results": [{"index": 0, "status_code": 409, "body": IN_FLIGHT},
                                                          {"index": 1, "status_code": 409, "body": {"reason": "x"}}]}


@DRIVERS
@pytest.mark.parametrize(
    ("path", "headers", "answer", "attempts"),
    [
        ("/signals/batch", {}, BATCH_IN_FLIGHT, 2),  # every item held by an earlier copy of the batch
        ("/signals/batch", {}, BATCH_MIXED, 1),  # one item refused for another reason: asking again changes nothing
        ("/signals/submit", {}, IN_FLIGHT, 1),  # no key: the service cannot tell a repeat
    ],
)
def test_409_in_flight_is_retried_only_for_keyed_requests(
    driver: str, path: str, headers: dict[str, str], answer: Any, attempts: int
) -> None:
    harness = Harness(driver, [status(409, answer), status(202)])
    harness.request("POST", path, content=b"{}", headers=headers)
    assert len(harness.bodies) == attempts


@DRIVERS
def test_a_transport_error_on_the_last_attempt_is_raised(driver: str) -> None:
    harness = Harness(driver, [fail(httpx.ConnectError)] * 3, RetryPolicy(max_attempts=3))
    with pytest.raises(httpx.ConnectError):
        harness.request("GET", "/eras")
    assert len(harness.bodies) == 3


@DRIVERS
def test_the_deadline_bounds_the_waiting(driver: str) -> None:
    harness = Harness(driver, [status(503, **{"Retry-After": "8"})] * 5, RetryPolicy(deadline=20.0))
    assert harness.request("GET", "/eras").status_code == 503
    assert harness.sleeps == [8.0, 8.0]


@DRIVERS
def test_each_attempt_gets_only_what_remains_of_the_deadline(driver: str) -> None:
    # Every attempt takes 4 s and is answered 503; the client's own timeout is 30 s.
    harness = Harness(driver, [status(503, **{"Retry-After": "1"})] * 5, RetryPolicy(deadline=12.0),
                      seconds_per_request=4.0)  # fmt: skip
    harness.request("GET", "/eras")
    # attempts start at 0, 5 and 10 s: 12, 7 and 2 s remain, each below the client's 30 s
    assert [limits["read"] for limits in harness.timeouts] == pytest.approx([12.0, 7.0, 2.0])
    assert all(set(limits.values()) == {limits["read"]} for limits in harness.timeouts)
    assert harness.sleeps == [1.0, 1.0]


@DRIVERS
@pytest.mark.parametrize(("path", "final"), [("/signals/submit", 503), ("/signals/batch", 202)])
def test_a_post_without_an_idempotency_key_is_repeated_only_to_item_keyed_routes(
    driver: str, path: str, final: int
) -> None:
    harness = Harness(driver, [status(503), status(202)])
    assert harness.request("POST", path, content=b"{}", headers={}).status_code == final
    assert len(harness.bodies) == (2 if final == 202 else 1)


@DRIVERS
def test_an_observed_body_is_rewound_and_observed_once(driver: str, caplog: pytest.LogCaptureFixture) -> None:
    observed: list[Any] = []
    body = submit._TransmissionObservedBody(b'{"a": 1}', lambda *a: observed.append(a), "POST", "u", {})
    harness = Harness(driver, [fail(httpx.RemoteProtocolError), status(503), status(202)])
    with caplog.at_level(logging.WARNING, logger="tallowmere.transport"):
        assert harness.request("POST", "/signals/submit", content=body, headers=KEYED).status_code == 202
    assert harness.bodies == [b'{"a": 1}'] * 3 and len(observed) == 1
    assert [record.retry_attempt for record in caplog.records] == [2, 3]
    assert "RemoteProtocolError" in caplog.records[0].getMessage()


def test_a_body_that_cannot_be_rewound_goes_once() -> None:
    harness = Harness("sync", [status(503), status(202)])
    assert harness.request("POST", "/x", content=iter([b"a", b"b"]), headers=KEYED).status_code == 503


@pytest.mark.parametrize(
    ("header", "seconds"),
    [("3", 3.0), (" 1.5 ", 1.5), ("-4", 0.0), ("soon", None), (None, None), ("nan", None),
     ("Thu, 01 Jan 1970 00:01:40 GMT", 40.0)],
)  # fmt: skip
def test_retry_after(header: str | None, seconds: float | None) -> None:
    assert retry_after_seconds(header, now=60.0) == seconds


@pytest.mark.parametrize(("field", "value"), [("max_attempts", 0), ("multiplier", 0.5), ("deadline", 0.0),
                                              ("deadline", float("inf")), ("initial_backoff", -1)])  # fmt: skip
def test_policy_refuses_nonsense(field: str, value: float) -> None:
    with pytest.raises(ValueError, match=field):
        RetryPolicy(**{field: value})


# ---- the token rule -------------------------------------------------------------------------------


@DRIVERS
@pytest.mark.parametrize(
    ("base_url", "headers", "sent"),
    [
        ("http://signals.example.com", {"Authorization": "Bearer tok"}, False),
        ("http://signals.example.com", {"authorization": "Bearer tok"}, False),
        ("http://signals.example.com", {}, True),  # nothing secret to protect
        ("https://signals.example.com", {"Authorization": "Bearer tok"}, True),
        ("http://localhost:8080", {"Authorization": "Bearer tok"}, True),
    ],
)
def test_a_bearer_token_never_goes_over_plain_http_to_another_host(
    driver: str, base_url: str, headers: dict[str, str], sent: bool
) -> None:
    harness = Harness(driver, [status(200)], base_url=base_url)
    if sent:
        assert harness.request("GET", "/eras", headers=headers).status_code == 200
    else:
        with pytest.raises(ValueError, match="refusing to send a bearer token: plain http is allowed only to a loopback"):
            harness.request("GET", "/eras", headers=headers)
    assert len(harness.bodies) == (1 if sent else 0)


def test_a_client_on_https_cannot_leak_its_token_through_a_plain_http_transport() -> None:
    seen: list[httpx.Request] = []
    inner = httpx.Client(base_url="http://signals.example.com", transport=httpx.MockTransport(
        lambda request: seen.append(request) or httpx.Response(200, json={})))  # fmt: skip
    client = SignalServiceClient("https://signals.example.com", "my-secret-token", transport=RetryingClient(client=inner))
    with pytest.raises(ValueError, match="refusing to send a bearer token") as caught:
        client.get_signal_status("s-1")
    assert seen == [] and "my-secret-token" not in str(caught.value)


@DRIVERS
@pytest.mark.parametrize("token", ["my-secret-token-123\n", "my secret", "my-secret-tökén", "", "my-\x00secret"])
def test_a_token_http_cannot_carry_is_refused_without_being_quoted(driver: str, token: str) -> None:
    harness = Harness(driver, [status(200)])
    with pytest.raises(ValueError, match="refusing to send the Authorization header") as caught:
        harness.request("GET", "/eras", headers={"Authorization": "Bearer " + token})
    assert harness.bodies == [] and "secret" not in str(caught.value)


def test_the_submission_client_reports_no_token_through_the_retrying_transport() -> None:
    inner = httpx.Client(base_url="http://127.0.0.1:9", transport=httpx.MockTransport(
        lambda request: httpx.Response(200, json={"status": "signal_found"})))  # fmt: skip
    client = SignalServiceClient("http://127.0.0.1:9", "my-secret-token-123\n", transport=RetryingClient(client=inner))
    with pytest.raises(ValueError) as caught:
        client.get_signal_status("s-1")
    assert "my-secret" not in str(caught.value)


def test_a_default_authorization_header_of_the_inner_client_is_checked_too() -> None:
    inner = httpx.Client(base_url="http://signals.example.com", headers={"Authorization": "Bearer x"},
                         transport=httpx.MockTransport(lambda request: httpx.Response(200)))  # fmt: skip
    with pytest.raises(ValueError, match="refusing to send a bearer token"):
        RetryingClient(client=inner).get("/eras")


@pytest.mark.parametrize("cls", [RetryingClient, AsyncRetryingClient])
@pytest.mark.parametrize(
    ("base_url", "message"),
    [(None, "needs the service's base URL"), ("", "needs the service's base URL"),
     ("signals.example.com", "absolute http or https URL"), ("ftp://signals.example.com", "absolute http or https")],
)  # fmt: skip
def test_a_transport_without_a_usable_base_url_says_so(cls: type, base_url: str | None, message: str) -> None:
    with pytest.raises(ValueError, match=message):
        cls(base_url)


def test_repr_names_the_url_and_policy() -> None:
    transport = RetryingClient("https://signals.example.com", policy=RetryPolicy(max_attempts=2))
    assert repr(transport).startswith("RetryingClient(base_url='https://signals.example.com', policy=RetryPolicy(")
    transport.close()


# ---- the submission client over the retrying transport ---------------------------------------------


def test_the_submission_client_retries_with_the_same_key() -> None:
    answers = [httpx.Response(200, json=ERA_CATALOG), httpx.Response(503, text="<html>"),
               httpx.Response(202, json={"submission_id": "s-1"})]  # fmt: skip
    seen: list[httpx.Request] = []

    def handler(request: httpx.Request) -> httpx.Response:
        request.read()
        seen.append(request)
        return answers.pop(0)

    inner = httpx.Client(base_url="http://127.0.0.1:9", transport=httpx.MockTransport(handler))
    transport = RetryingClient(client=inner, sleep=lambda s: None)
    client = SignalServiceClient("http://127.0.0.1:9", "tok", transport=transport,
                                 transmission_observer=lambda *a: None)  # fmt: skip
    result = client.submit_signal(recorded_graph("close", window=31), "top300", **signal_kwargs())
    assert result.submission_id == "s-1"
    first, second = seen[1:]
    assert first.content == second.content
    assert first.headers["Idempotency-Key"] == second.headers["Idempotency-Key"]


# ---- against real servers on 127.0.0.1 --------------------------------------------------------------


@pytest.fixture
def silent_server() -> Iterator[str]:
    """A listening socket that accepts connections and never answers."""
    with socket.create_server(("127.0.0.1", 0)) as server:
        yield f"http://127.0.0.1:{server.getsockname()[1]}"


@DRIVERS
def test_the_deadline_bounds_a_call_to_a_service_that_never_answers(driver: str, silent_server: str) -> None:
    policy = RetryPolicy(deadline=0.5, initial_backoff=0.05)
    started = time.monotonic()
    with pytest.raises(httpx.TimeoutException):
        if driver == "sync":
            with RetryingClient(silent_server, timeout=60.0, policy=policy) as transport:
                transport.get("/eras")
        else:

            async def call() -> None:
                async with AsyncRetryingClient(silent_server, timeout=60.0, policy=policy) as transport:
                    await transport.get("/eras")

            asyncio.run(call())
    # a correctness bound, far from the 60 s each attempt would otherwise be given
    assert time.monotonic() - started < 10.0


@pytest.fixture(scope="module")
def fault_service(tmp_path_factory: pytest.TempPathFactory) -> Iterator[RunningService]:
    with running(tmp_path_factory.mktemp("transport") / "service.db", faults=True) as service:
        yield service


def test_a_timed_out_submission_ends_with_the_stored_ones_replay(fault_service: RunningService) -> None:
    """The first attempt times out while the service is still answering it; the retry must not report a failure."""
    auth = {"Authorization": f"Bearer {TOKEN_A}"}
    httpx.post(fault_service.base_url + "/_faults", headers=auth,
               json={"route": "signals/submit", "faults": ["delay:1.2"]}).raise_for_status()  # fmt: skip
    body = signal_body(key="timed-out-then-replayed")
    policy = RetryPolicy(max_attempts=10, initial_backoff=0.2, max_backoff=0.4, deadline=20.0)
    # Waits of 0.2, 0.4, 0.4 ... s (the top of each jitter range) reach the answer's delay within a few attempts.
    with RetryingClient(fault_service.base_url, timeout=0.4, policy=policy, rng=lambda: 0.999) as transport:
        answer = transport.post(
            "/signals/submit",
            content=json_bytes(body),
            headers={**auth, "Idempotency-Key": body["idempotency_key"], "Content-Type": "application/json"},
        )
    assert answer.status_code == 202 and answer.headers.get("Idempotent-Replayed") == "true"
    with closing(SignalServiceClient(fault_service.base_url, TOKEN_A)) as client:
        listed = client.list_signal_submissions(idempotency_key=body["idempotency_key"])
    assert [entry.submission_id for entry in listed.entries] == [answer.json()["submission_id"]]


def json_bytes(body: dict[str, Any]) -> bytes:
    import json

    return json.dumps(body).encode()

