"""The retrying transport: what is retried, how long it waits, what goes again."""

from __future__ import annotations

import logging
from collections.abc import Callable
from typing import Any

import httpx
import pytest

import tallowmere.submit as submit
from tallowmere.submit import SignalServiceClient
from tallowmere.transport import RetryingClient, RetryPolicy, retry_after_seconds

from submit_support import ERA_CATALOG, recorded_graph, signal_kwargs

Script = list[Callable[[httpx.Request], httpx.Response]]


def status(code: int, **headers: str) -> Callable[[httpx.Request], httpx.Response]:
    return lambda request: httpx.Response(code, headers=headers, json={"submission_id": "s-1"})


def fail(error: type[httpx.TransportError]) -> Callable[[httpx.Request], httpx.Response]:
    def raise_(request: httpx.Request) -> httpx.Response:
        raise error("failed", request=request)

    return raise_


class Harness:
    def __init__(self, script: Script, policy: RetryPolicy | None = None) -> None:
        self.script = list(script)
        self.bodies: list[bytes] = []
        self.headers: list[dict[str, str]] = []
        self.sleeps: list[float] = []
        self.now = 0.0

        def handler(request: httpx.Request) -> httpx.Response:
            self.bodies.append(request.read())
            self.headers.append(dict(request.headers))
            return self.script.pop(0)(request)

        inner = httpx.Client(base_url="http://127.0.0.1:9", transport=httpx.MockTransport(handler))
        self.client = RetryingClient(client=inner, policy=policy, sleep=self._sleep, clock=lambda: self.now,
                                     rng=lambda: 0.5)  # fmt: skip

    def _sleep(self, seconds: float) -> None:
        self.sleeps.append(seconds)
        self.now += seconds


KEYED = {"Idempotency-Key": "k-1"}


@pytest.mark.parametrize(
    ("script", "final", "sleeps"),
    [
        ([status(503), status(503), status(202)], 202, [0.1, 0.2]),
        ([fail(httpx.ConnectError), fail(httpx.ReadTimeout), status(202)], 202, [0.1, 0.2]),
        ([status(429, **{"Retry-After": "2"}), status(202)], 202, [2.0]),
        ([status(502, **{"Retry-After": "120"}), status(202)], 202, [30.0]),
        ([status(500), status(202)], 500, []),
        ([status(422)], 422, []),
        ([status(503)] * 5, 503, [0.1, 0.2, 0.4, 0.8]),
    ],
)
def test_retries_and_waits(script: Script, final: int, sleeps: list[float]) -> None:
    harness = Harness(script)
    assert harness.client.post("/signals/submit", content=b"body", headers=KEYED).status_code == final
    assert harness.sleeps == pytest.approx(sleeps)
    assert set(harness.bodies) == {b"body"}


def test_a_transport_error_on_the_last_attempt_is_raised() -> None:
    harness = Harness([fail(httpx.ConnectError)] * 3, RetryPolicy(max_attempts=3))
    with pytest.raises(httpx.ConnectError):
        harness.client.get("/eras")
    assert len(harness.bodies) == 3


def test_the_deadline_bounds_the_waiting() -> None:
    harness = Harness([status(503, **{"Retry-After": "8"})] * 5, RetryPolicy(deadline=20.0))
    assert harness.client.get("/eras").status_code == 503
    assert harness.sleeps == [8.0, 8.0]


@pytest.mark.parametrize(("path", "final"), [("/signals/submit", 503), ("/signals/batch", 202)])
def test_a_post_without_an_idempotency_key_is_repeated_only_to_item_keyed_routes(path: str, final: int) -> None:
    harness = Harness([status(503), status(202)])
    assert harness.client.post(path, content=b"{}", headers={}).status_code == final
    assert len(harness.bodies) == (2 if final == 202 else 1)


def test_an_observed_body_is_rewound_and_observed_once(caplog: pytest.LogCaptureFixture) -> None:
    observed: list[Any] = []
    body = submit._TransmissionObservedBody(b'{"a": 1}', lambda *a: observed.append(a), "POST", "u", {})
    harness = Harness([fail(httpx.RemoteProtocolError), status(503), status(202)])
    with caplog.at_level(logging.WARNING, logger="tallowmere.transport"):
        assert harness.client.post("/signals/submit", content=body, headers=KEYED).status_code == 202
    assert harness.bodies == [b'{"a": 1}'] * 3 and len(observed) == 1
    assert [record.retry_attempt for record in caplog.records] == [2, 3]
    assert "RemoteProtocolError" in caplog.records[0].getMessage()


def test_a_body_that_cannot_be_rewound_goes_once() -> None:
    harness = Harness([status(503), status(202)])
    assert harness.client.post("/x", content=iter([b"a", b"b"]), headers=KEYED).status_code == 503


@pytest.mark.parametrize(
    ("header", "seconds"),
    [("3", 3.0), (" 1.5 ", 1.5), ("-4", 0.0), ("soon", None), (None, None), ("nan", None),
     ("Thu, 01 Jan 1970 00:01:40 GMT", 40.0)],
)  # fmt: skip
def test_retry_after(header: str | None, seconds: float | None) -> None:
    assert retry_after_seconds(header, now=60.0) == seconds


@pytest.mark.parametrize("field", ["max_attempts", "multiplier", "deadline"])
def test_policy_refuses_nonsense(field: str) -> None:
    with pytest.raises(ValueError, match=field):
        RetryPolicy(**{field: -1})


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
