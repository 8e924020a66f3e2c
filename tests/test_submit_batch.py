"""Batch submission: validation before sending, chunking, merging, partial failures."""

from __future__ import annotations

import copy
import re
from typing import Any

import httpx
import pytest

import tallowmere.submit as submit
from tallowmere.api.signal_types import BatchSubmitItemResult, BatchSubmitResult
from tallowmere.submit import SignalClientResponseError, SignalServiceClient

from submit_support import FakeResponse, Request, fake_client, json_answer, recorded_graph, signal_kwargs

C = SignalServiceClient


def item(index: Any, status: int, **body: Any) -> BatchSubmitItemResult:
    return BatchSubmitItemResult(index=index, status_code=status, body=body or None, submission_id=None,
                                 signal_pool_name=None, strategy_pool_name=None, error=None)  # fmt: skip


def batch(status: int, items: list[BatchSubmitItemResult], accepted: int, failed: int) -> BatchSubmitResult:
    return BatchSubmitResult(status_code=status, body=None, accepted=accepted, failed=failed, results=items, error=None)


# ---- mapping answers -----------------------------------------------------------------------------------


def test_batch_result_from_body_skips_junk_and_recounts() -> None:
    body = {"results": [{"index": 0, "status_code": 202, "body": {"submission_id": "s1"}}, "junk"], "accepted": "1"}
    result = C._batch_result_from_body(207, body, error="e")
    assert (result.accepted, result.failed, result.error, result.body) == (1, 0, "e", body)
    assert result.results[0].submission_id == "s1"
    kept = C._batch_result_from_body(202, {"accepted": 5, "failed": 0, "results": []})
    assert (kept.accepted, kept.failed, kept.results) == (5, 0, [])
    assert C._batch_result_from_body(202, {"results": {"a": 1}}).results == []


@pytest.mark.parametrize(
    ("raw", "fields"),
    [
        ({"index": 1, "status_code": 422, "body": "text"}, (1, 422, None, None, None)),
        ({"index": 2, "status_code": 422, "body": {"reason": "", "error": "bad pool"}}, (2, 422, None, None, "bad pool")),
        ({"index": 3, "status_code": 202, "body": {"submission_id": "s", "signal_pool_name": "p", "reason": "ok"}},
         (3, 202, "s", "p", "ok")),
        ({}, (None, None, None, None, None)),
    ],
)  # fmt: skip
def test_batch_item_result_from_body(raw: dict[str, Any], fields: tuple[Any, ...]) -> None:
    result = C._batch_item_result_from_body(raw)
    assert (result.index, result.status_code, result.submission_id, result.signal_pool_name, result.error) == fields


@pytest.mark.parametrize(
    ("statuses", "expected"),
    [([], 202), ([202, 202], 202), ([409, 409], 409), ([409, 422], 207), ([202, 409], 207)],
)
def test_batch_http_status_for_items(statuses: list[int], expected: int) -> None:
    assert C._batch_http_status_for_items([item(i, s) for i, s in enumerate(statuses)]) == expected


@pytest.mark.parametrize(
    ("chunks", "status"),
    [
        ([batch(202, [], 3, 0), batch(202, [], 2, 0)], 202),
        ([batch(422, [], 0, 3), batch(422, [], 0, 1)], 422),
        ([batch(422, [], 0, 3), batch(409, [], 0, 1)], 207),
        ([batch(202, [], 1, 0), batch(422, [], 0, 1)], 207),
        ([batch(207, [item(0, 202)], 1, 0), batch(207, [item(1, 409)], 0, 1)], 207),
        ([batch(999, [item(0, 202)], 7, 7)], 202),
    ],
)
def test_combine_batch_chunk_results(chunks: list[BatchSubmitResult], status: int) -> None:
    combined = C._combine_batch_chunk_results(chunks)
    accepted = sum(chunk.accepted for chunk in chunks)
    failed = sum(chunk.failed for chunk in chunks)
    results = [result for chunk in chunks for result in chunk.results]
    assert (combined.status_code, combined.accepted, combined.failed, combined.error) == (status, accepted, failed, None)
    assert combined.results == results
    assert combined.body == {"accepted": accepted, "failed": failed,
                             "results": [{"index": r.index, "status_code": r.status_code} for r in results]}


def test_partial_failure_accounts_for_every_body() -> None:
    prior = [item(i, 202 if i < 90 else 409) for i in range(100)]
    failure = C._batch_result_from_transport_error(httpx.ConnectError(""))
    result = C._batch_result_with_partial_failure(failure, prior, 250)
    assert (result.status_code, result.accepted, result.failed, result.error) == (0, 90, 160, "ConnectError")
    assert result.results is prior and list(result.body) == ["accepted", "failed", "results", "error"]
    rejected = C._batch_result_from_body(429, {"error": "slow down"}, error=None)
    with_body = C._batch_result_with_partial_failure(rejected, [], 10)
    assert (with_body.error, with_body.body["failure"], with_body.failed) == ("slow down", {"error": "slow down"}, 10)


def test_rebasing_moves_only_exact_int_indices() -> None:
    class Index(int):
        pass

    result = batch(202, [item(3, 202), item(None, 202), item(True, 202), item(Index(4), 202)], 4, 0)
    C._rebase_batch_item_indices(result, 0)
    assert [r.index for r in result.results] == [3, None, True, 4]
    C._rebase_batch_item_indices(result, 100)
    assert [r.index for r in result.results] == [103, None, True, 4]


# ---- sending -------------------------------------------------------------------------------------------


def numbered(graph: dict[str, Any], count: int, **extra: Any) -> list[dict[str, Any]]:
    kwargs = signal_kwargs()
    return [{"graph": graph, "named_universe": "top300", "signal_pool_name": kwargs["signal_pool_name"],
             "is_stats": {**kwargs["is_stats"], "sharpe": 1.0 + i / 1000}, "is_pnl_mi": 0.1,
             "expression_elapsed_seconds": 0.25, **extra} for i in range(count)]  # fmt: skip


def server_answer(request: Request) -> FakeResponse:
    signals = request.json()["signals"]
    results = [{"index": i, "status_code": 202, "body": {"submission_id": s["idempotency_key"][-8:]}}
               for i, s in enumerate(signals)]  # fmt: skip
    return json_answer(202, {"results": results, "accepted": len(results), "failed": 0})


@pytest.mark.parametrize(("count", "chunk_sizes"), [(0, [0]), (100, [100]), (101, [100, 1]), (250, [100, 100, 50])])
def test_chunks_and_rebased_indices(count: int, chunk_sizes: list[int]) -> None:
    graph = recorded_graph("vwap", window=count)
    client, transport = fake_client()
    transport.answer("/signals/batch", server_answer)
    submissions = numbered(graph, count)
    originals = copy.deepcopy(submissions)
    result = client.submit_signals_batch(submissions)
    assert [len(body["signals"]) for body in transport.bodies("/signals/batch")] == chunk_sizes
    assert [r.index for r in result.results] == list(range(count))
    assert (result.status_code, result.accepted, result.failed) == (202, count, 0)
    assert submissions == originals
    assert transport.paths().count("/eras") == (1 if count else 0)


def test_prepared_bodies() -> None:
    graph = recorded_graph("low", window=7)
    client, transport = fake_client()
    transport.answer("/signals/batch", server_answer)
    submissions = numbered(graph, 2, market_id=1, era_number=2, client_manifest_era_number=None)
    submissions[0]["idempotency_key"] = "mine"
    submissions[1]["is_stats"]["_threshold_checks"] = [1]
    client.submit_signals_batch(tuple(submissions))
    first, second = transport.bodies("/signals/batch")[0]["signals"]
    assert first["idempotency_key"] == "mine" and (first["market_id"], first["era_number"]) == (1, 2)
    assert (first["client_manifest_market_id"], first["client_manifest_era_number"]) == (1, 2)
    assert (first["graph_depth"], first["graph_node_count"]) == (2, 2)
    assert "_threshold_checks" not in second["is_stats"]
    assert second["idempotency_key"] == C._idempotency_key_for_body({k: v for k, v in second.items()
                                                                     if k != "idempotency_key"})  # fmt: skip
    assert "_threshold_checks" in submissions[1]["is_stats"]


def test_chunk_size_is_read_at_call_time(monkeypatch: pytest.MonkeyPatch) -> None:
    graph = recorded_graph("open", window=2)
    monkeypatch.setattr(submit, "_SIGNALS_BATCH_CLIENT_CHUNK_SIZE", 2)
    client, transport = fake_client()
    transport.answer("/signals/batch", server_answer)
    result = client.submit_signals_batch(numbered(graph, 5))
    assert [len(b["signals"]) for b in transport.bodies("/signals/batch")] == [2, 2, 1]
    assert [r.index for r in result.results] == [0, 1, 2, 3, 4]


@pytest.mark.parametrize(
    ("submissions", "message"),
    [
        ({"a": 1}, "submissions must be a list or tuple of dicts"),
        ("abc", "submissions must be a list or tuple of dicts"),
        ((x for x in []), "submissions must be a list or tuple of dicts"),
        ([{}, 5], "each batch submission must be a dict"),
        ([{"universe_id": 1}], "universe_id is retired; submit named_universe"),
        ([{"named_universe": "top300", "thresholds": None}], "caller-supplied thresholds are not accepted"),
        ([{"named_universe": "top300"}], "signal_pool_name must be a non-empty string"),
        ([{"named_universe": "top300", "signal_pool_name": "momentum", "graph": {"op": "new"}}],
         "recorded backtest timing is required before submit"),
    ],
)  # fmt: skip
def test_nothing_is_sent_when_an_item_is_invalid(submissions: Any, message: str) -> None:
    client, transport = fake_client()
    with pytest.raises(ValueError, match=re.escape(message)):
        client.submit_signals_batch(submissions)
    assert transport.requests == []


def test_one_bad_item_after_the_catalog_stops_the_whole_batch() -> None:
    graph = recorded_graph("close", window=9)
    client, transport = fake_client()
    submissions = numbered(graph, 3)
    submissions[2]["expression_elapsed_seconds"] = 2
    with pytest.raises(ValueError, match="^expression_elapsed_seconds must be a positive float$"):
        client.submit_signals_batch(submissions)
    submissions[2]["expression_elapsed_seconds"] = 0.5
    del submissions[1]["is_stats"]
    with pytest.raises(ValueError, match="^is_stats must be a dict$"):
        client.submit_signals_batch(submissions)
    assert transport.paths() == ["/eras"]


@pytest.mark.parametrize(
    ("answer", "status_code", "error"),
    [
        (httpx.ConnectError("down"), 0, "down"),
        (json_answer(413, {"reason": "batch_too_large"}), 413, "batch_too_large"),
        (FakeResponse(422, b"nope"), 422, "nope"),
    ],
)
def test_single_request_failures_become_results(answer: Any, status_code: int, error: str) -> None:
    graph = recorded_graph("high", window=4)
    client, transport = fake_client()
    transport.answer("/signals/batch", answer)
    result = client.submit_signals_batch(numbered(graph, 3))
    assert (result.status_code, result.error, result.results) == (status_code, error, [])


def test_a_failing_second_chunk_accounts_for_all_250() -> None:
    graph = recorded_graph("returns", window=250)
    client, transport = fake_client()
    transport.answer("/signals/batch", server_answer, httpx.ConnectError("lost"))
    result = client.submit_signals_batch(numbered(graph, 250))
    assert (result.status_code, result.accepted, result.failed, result.error) == (0, 100, 150, "lost")
    assert [r.index for r in result.results] == list(range(100))
    assert len(transport.bodies("/signals/batch")) == 2


@pytest.mark.parametrize("count", [3, 150])
@pytest.mark.parametrize("status", [500, 502, 503])
def test_malformed_5xx_answers_reach_the_caller(count: int, status: int) -> None:
    graph = recorded_graph("volume", window=count)
    client, transport = fake_client()
    transport.answer("/signals/batch", *([server_answer] if count > 100 else []), FakeResponse(status, b"<html>"))
    with pytest.raises(SignalClientResponseError):
        client.submit_signals_batch(numbered(graph, count))


def test_a_rejected_chunk_keeps_the_services_body() -> None:
    graph = recorded_graph("open", window=120)
    client, transport = fake_client()
    transport.answer("/signals/batch", server_answer, json_answer(401, {"error": "unauthorized", "reason": "token"}))
    result = client.submit_signals_batch(numbered(graph, 120))
    assert (result.status_code, result.accepted, result.failed, result.error) == (401, 100, 20, "token")
    assert result.body["failure"] == {"error": "unauthorized", "reason": "token"}


def test_ten_thousand_signals() -> None:
    import tracemalloc

    graph = recorded_graph("close", window=10_000)
    client, transport = fake_client()
    transport.answer("/signals/batch", server_answer)
    submissions = numbered(graph, 10_000)
    tracemalloc.start()
    try:
        result = client.submit_signals_batch(submissions)
        _, peak = tracemalloc.get_traced_memory()
    finally:
        tracemalloc.stop()
    assert transport.paths().count("/eras") == 1 and transport.paths().count("/signals/batch") == 100
    assert (result.accepted, result.failed, len(result.results)) == (10_000, 0, 10_000)
    assert result.results[-1].index == 9_999
    # The transport here keeps every request it saw; even so the peak stays a few
    # kilobytes per item, i.e. proportional to the batch.
    assert peak / 10_000 < 16_384
