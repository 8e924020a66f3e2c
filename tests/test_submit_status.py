"""Status answers, listings and polling, over an in-memory transport."""

from __future__ import annotations

import math
from typing import Any

import httpx
import pytest

import tallowmere.submit as submit
from tallowmere.api.signal_types import StatusResult, SubmissionListResult
from tallowmere.submit import SignalClientResponseError, SignalServiceClient, SubmissionRejectedError

from submit_support import FakeResponse, fake_client, json_answer


@pytest.mark.parametrize(
    ("value", "expected"),
    [("Infinity", math.inf), ("-Infinity", -math.inf), ("inf", "inf"), ("infinity", "infinity"), (1.5, 1.5),
     (None, None)],
)  # fmt: skip
def test_coerce_status_metric(value: object, expected: object) -> None:
    assert submit._coerce_status_metric(value) == expected


@pytest.mark.parametrize(
    ("body", "reason"),
    [
        ({"rejection_reason": "x: tampering_detected", "failure_detail": {"reason": "stats_mismatch"},
          "failure_reason": "other"}, "stats_mismatch"),
        ({"rejection_reason": "x: tampering_detected", "failure_detail": "stats_mismatch",
          "failure_reason": "other"}, "other"),
        ({"rejection_reason": "tampering_detected", "failure_detail": {"reason": "stats_mismatch"}}, None),
        ({"rejection_reason": 5, "failure_reason": "own"}, "own"),
        ({}, None),
    ],
)  # fmt: skip
def test_failure_reason_from_status_body(body: dict[str, Any], reason: object) -> None:
    assert submit._failure_reason_from_status_body(body) == reason


def test_public_status_body_hides_internal_keys_without_touching_the_body() -> None:
    plain = {"status": "signal_found"}
    assert submit._public_status_body(plain) is plain
    body = {"status": "s", "correlation": 0.3, "is_weights_mi": 1, "payment": None}
    assert submit._public_status_body(body) == {"status": "s", "payment": None}
    assert "correlation" in body


def test_status_result_from_body_reads_the_full_body() -> None:
    body = {"status": "signal_is_rejected", "correlation": 0.9, "is_pnl_mi": "Infinity", "agent_is_pnl_mi": 0.2,
            "rejection_reason": "r: tampering_detected", "failure_detail": {"reason": "stats_mismatch"}}  # fmt: skip
    result = SignalServiceClient._status_result_from_body(200, body)
    assert result == StatusResult(
        status_code=200, body={k: v for k, v in body.items() if k != "correlation"}, status="signal_is_rejected",
        signal_pool_name=None, strategy_pool_name=None, error=None, is_pnl_mi=math.inf, agent_is_pnl_mi=0.2,
        rejection_reason="r: tampering_detected", failure_reason="stats_mismatch",
        failure_detail={"reason": "stats_mismatch"},
    )  # fmt: skip


@pytest.mark.parametrize(
    ("exception", "status_code", "error"),
    [(httpx.ConnectError("refused"), 0, "refused"), (httpx.ReadTimeout(""), 0, "ReadTimeout"),
     (ConnectionResetError(), 0, "ConnectionResetError")],
)  # fmt: skip
def test_transport_failures_stop_polling_at_once(exception: BaseException, status_code: int, error: str) -> None:
    client, transport = fake_client()
    transport.answer("/signals/status/s1", exception)
    result = client.poll_until_terminal("s1", timeout=60)
    assert (result.status_code, result.error, result.body, result.status) == (status_code, error, None, None)
    assert len(transport.requests) == 1


def test_other_exceptions_of_the_transport_propagate() -> None:
    client, transport = fake_client()
    transport.answer("/signals/status/s1", TimeoutError("not a transport error"))
    with pytest.raises(TimeoutError):
        client.get_signal_status("s1")


def test_get_signal_status_maps_each_outcome() -> None:
    client, transport = fake_client()
    transport.answer(
        "/signals/status/a%2Fb%20c",
        json_answer(200, {"status": "signal_found", "signal_pool_name": "momentum"}),
        json_answer(404, {"error": "unknown submission"}),
        FakeResponse(422, b"not json"),
        FakeResponse(502, b"<html>bad gateway</html>"),
    )
    found = client.get_signal_status("a/b c")
    assert (found.status_code, found.status, found.signal_pool_name, found.error) == (200, "signal_found", "momentum",
                                                                                      None)  # fmt: skip
    missing = client.get_signal_status("a/b c")
    assert (missing.status_code, missing.error, missing.body) == (404, "unknown submission",
                                                                  {"error": "unknown submission"})  # fmt: skip
    malformed = client.get_signal_status("a/b c")
    assert (malformed.status_code, malformed.error) == (422, "not json")
    assert malformed.body == {"error": "not json", "raw_body_preview": "not json", "status_code": 422}
    with pytest.raises(SignalClientResponseError):
        client.get_signal_status("a/b c")
    assert transport.paths() == ["/signals/status/a%2Fb%20c"] * 4


@pytest.mark.parametrize(
    ("kwargs", "query"),
    [
        ({}, "?limit=100"),
        ({"limit": None}, ""),
        ({"limit": 0}, "?limit=0"),
        ({"limit": 50.9}, "?limit=50"),
        ({"status": "signal_found", "since": "2024-01-01T00:00:00Z", "limit": None},
         "?status=signal_found&since=2024-01-01T00%3A00%3A00Z"),
        ({"limit": 5, "since": 1, "idempotency_key": "k/1", "status": "s"},
         "?status=s&idempotency_key=k%2F1&since=1&limit=5"),
    ],
)  # fmt: skip
def test_listing_query_strings(kwargs: dict[str, Any], query: str) -> None:
    client, transport = fake_client()
    transport.answer("/signals/submissions", json_answer(200, {"submissions": [{"submission_id": "s1"}]}))
    result = client.list_signal_submissions(**kwargs)
    assert transport.paths() == ["/signals/submissions" + query]
    assert result.submissions == [{"submission_id": "s1"}] and result.error is None


def test_listing_refuses_a_bad_limit_before_sending() -> None:
    client, transport = fake_client()
    with pytest.raises(ValueError):
        client.list_signal_submissions(limit="many")
    assert transport.requests == []


@pytest.mark.parametrize(
    ("answer", "expected"),
    [
        (json_answer(200, {"submissions": {"a": 1}}),
         SubmissionListResult(status_code=200, body={"submissions": {"a": 1}}, submissions=[], error=None)),
        (json_answer(403, {"error": "forbidden"}),
         SubmissionListResult(status_code=403, body={"error": "forbidden"}, submissions=[], error="forbidden")),
        (FakeResponse(400, b" "),
         SubmissionListResult(status_code=400, body={"error": "http_400", "raw_body_preview": "",
                                                     "status_code": 400}, submissions=[], error="http_400")),
        (httpx.ReadTimeout("slow"), SubmissionListResult(status_code=0, body=None, submissions=[], error="slow")),
    ],
)  # fmt: skip
def test_listing_maps_each_outcome(answer: Any, expected: SubmissionListResult) -> None:
    client, transport = fake_client()
    transport.answer("/signals/submissions", answer)
    assert client.list_signal_submissions() == expected


def test_listing_reraises_a_malformed_5xx() -> None:
    client, transport = fake_client()
    transport.answer("/signals/submissions", FakeResponse(502, b"<html>"))
    with pytest.raises(SignalClientResponseError):
        client.list_signal_submissions()


class Clock:
    """Stands in for the module's `time`: monotonic time advances only by sleeping."""

    def __init__(self) -> None:
        self.now = 1000.0
        self.sleeps: list[float] = []

    def monotonic(self) -> float:
        return self.now

    def sleep(self, seconds: float) -> None:
        self.sleeps.append(seconds)
        self.now += seconds


def test_polling_waits_in_fixed_steps_until_the_deadline(monkeypatch: pytest.MonkeyPatch) -> None:
    clock = Clock()
    monkeypatch.setattr(submit, "time", clock)
    client, transport = fake_client()
    transport.answer("/signals/status/s1", json_answer(200, {"status": "signal_submitted"}))
    result = client.poll_until_terminal("s1", timeout=0.35)
    assert result.status == "signal_submitted"
    assert clock.sleeps == pytest.approx([0.1, 0.1, 0.1, 0.05])
    assert len(transport.requests) == 5


@pytest.mark.parametrize("timeout", [0, -5])
def test_polling_with_no_time_left_queries_once(monkeypatch: pytest.MonkeyPatch, timeout: float) -> None:
    clock = Clock()
    monkeypatch.setattr(submit, "time", clock)
    client, transport = fake_client()
    transport.answer("/signals/status/s1", json_answer(200, {"status": "signal_submitted"}))
    assert client.poll_until_terminal("s1", timeout=timeout).status == "signal_submitted"
    assert clock.sleeps == [] and len(transport.requests) == 1


def test_polling_stops_at_a_terminal_status_and_retries_rejections(monkeypatch: pytest.MonkeyPatch) -> None:
    clock = Clock()
    monkeypatch.setattr(submit, "time", clock)
    monkeypatch.setattr(submit, "_POLL_INTERVAL_SECONDS", 2.0)
    client, transport = fake_client()
    transport.answer(
        "/signals/status/s1",
        json_answer(503, {"error": "busy"}),
        json_answer(200, {"status": "signal_submitted"}),
        json_answer(200, {"status": "signal_useful", "payment": {"amount": 5}}),
    )
    result = client.poll_until_terminal("s1", timeout=60)
    assert (result.status, result.payment) == ("signal_useful", {"amount": 5})
    assert clock.sleeps == [2.0, 2.0]


def test_polling_calls_get_signal_status_through_the_instance() -> None:
    client = SignalServiceClient("http://127.0.0.1:9", "t", transport=object())
    answers = iter(["signal_submitted", "signal_found"])
    client.get_signal_status = lambda submission_id: StatusResult(  # type: ignore[method-assign]
        status_code=200, body={}, status=next(answers), signal_pool_name=None, strategy_pool_name=None, error=None
    )
    assert client.poll_until_terminal("s1", timeout=5).status == "signal_found"


def test_rejections_keep_their_body_as_given() -> None:
    error = SubmissionRejectedError(409, "dup")
    result = SignalServiceClient._status_result_from_rejection(error)
    assert (result.status_code, result.body, result.error, result.is_stats) == (409, None, "dup", None)
