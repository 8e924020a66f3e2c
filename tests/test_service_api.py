"""The service's HTTP contract, driven with httpx over loopback."""

from __future__ import annotations

import asyncio
import json
import threading
import time
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import httpx
import pytest

from service_support import (
    MOMENTUM_GRAPH,
    TOKEN_A,
    TOKEN_B,
    VOLUME_GRAPH,
    client_for,
    replaced,
    running,
    signal_body,
    strategy_body,
)
from tallowmere.service import RunningService


@pytest.fixture(scope="module")
def service(tmp_path_factory: pytest.TempPathFactory) -> Iterator[RunningService]:
    with running(tmp_path_factory.mktemp("api") / "service.db", faults=True) as svc:
        yield svc


@pytest.fixture
def alpha(service: RunningService) -> Iterator[httpx.Client]:
    with client_for(service, TOKEN_A) as client:
        yield client


def unique(prefix: str) -> str:
    return f"{prefix}-{time.monotonic_ns()}"


@pytest.mark.parametrize(
    ("headers", "reason"),
    [
        ({}, "missing Authorization header"),
        ({"Authorization": f"Basic {TOKEN_A}"}, "Authorization header must be 'Bearer <token>'"),
        ({"Authorization": "Bearer nobody"}, "unknown bearer token"),
    ],
)
@pytest.mark.parametrize("path", ["/eras", "/signals/submissions", "/no/such/route"])
def test_every_route_refuses_a_missing_or_unknown_token(
    service: RunningService, headers: dict[str, str], reason: str, path: str
) -> None:
    answer = httpx.get(service.base_url + path, headers=headers)
    assert answer.status_code == 401
    assert answer.json() == {"error": "unauthorized", "reason": reason}


def test_unknown_route_is_a_json_404(alpha: httpx.Client) -> None:
    answer = alpha.get("/v1/signals/submit")
    assert (answer.status_code, answer.json()["error"]) == (404, "not found")


def test_eras_publishes_the_bundled_catalog_matching_the_default_panel(alpha: httpx.Client) -> None:
    catalog = alpha.get("/eras").json()
    active = next(era for era in catalog["eras_by_market"]["1"] if era["era_number"] == catalog["active_era_number"])
    assert active["simulation_data_contract_projection"] == signal_body()["simulation_data_contract_projection"]


def test_replay_returns_the_original_answer_and_creates_nothing(alpha: httpx.Client) -> None:
    key = unique("replay")
    body = signal_body(key=key)
    first = alpha.post("/signals/submit", json=body, headers={"Idempotency-Key": key})
    reordered = dict(reversed(list(body.items())))
    second = alpha.post("/signals/submit", json=reordered, headers={"Idempotency-Key": key})
    assert first.status_code == second.status_code == 202
    assert second.json() == first.json()
    assert second.headers["Idempotent-Replayed"] == "true"
    listed = alpha.get("/signals/submissions", params={"idempotency_key": key}).json()
    assert listed["count"] == 1


def test_key_reuse_mismatch_and_owner_scope(service: RunningService, alpha: httpx.Client) -> None:
    key = unique("scope")
    accepted = alpha.post("/signals/submit", json=signal_body(key=key)).json()
    reused = alpha.post("/signals/submit", json=signal_body(key=key, signal_pool_name="reversal"))
    assert (reused.status_code, reused.json()["reason"]) == (422, "idempotency_key_reused")
    mismatch = alpha.post("/signals/submit", json=signal_body(key=key), headers={"Idempotency-Key": "other"})
    assert (mismatch.status_code, mismatch.json()["reason"]) == (422, "idempotency_key_mismatch")
    with client_for(service, TOKEN_B) as beta:
        own = beta.post("/signals/submit", json=signal_body(key=key))
        assert own.status_code == 202 and own.json()["submission_id"] != accepted["submission_id"]
        hidden = beta.get(f"/signals/status/{accepted['submission_id']}")
        assert (hidden.status_code, hidden.json()) == (404, {"error": "unknown submission"})


def test_a_refused_body_leaves_its_key_free(alpha: httpx.Client) -> None:
    key = unique("retry")
    refused = alpha.post("/signals/submit", json=signal_body(key=key, era_number=2, client_manifest_era_number=2))
    assert refused.status_code == 422
    assert alpha.post("/signals/submit", json=signal_body(key=key)).status_code == 202


def test_a_duplicate_is_409_only_while_the_first_is_still_processed(
    service: RunningService, alpha: httpx.Client, monkeypatch: pytest.MonkeyPatch
) -> None:
    key = unique("inflight")
    store = service.runtime.store
    entered = threading.Event()

    def slow_insert_for_loop(records: list[Any], loop: asyncio.AbstractEventLoop) -> asyncio.Future[Any]:
        # The first request waits for a slow disk: still processing, not stored yet.
        written: asyncio.Future[Any] = loop.create_future()

        def write_slowly() -> None:
            entered.set()
            time.sleep(0.5)
            loop.call_soon_threadsafe(written.set_result, store.insert_later(records).result())

        threading.Thread(target=write_slowly).start()
        return written

    monkeypatch.setattr(store, "insert_for_loop", slow_insert_for_loop)
    first: dict[str, httpx.Response] = {}
    slow = threading.Thread(target=lambda: first.update(answer=alpha.post("/signals/submit", json=signal_body(key=key))))
    slow.start()
    assert entered.wait(5)
    with client_for(service, TOKEN_A) as other:
        duplicate = other.post("/signals/submit", json=signal_body(key=key))
    slow.join()
    assert (duplicate.status_code, duplicate.json()["reason"]) == (409, "idempotency_key_in_flight")
    assert first["answer"].status_code == 202
    assert service.runtime.in_flight.held_count() == 0


def test_a_retry_while_the_first_answer_is_on_its_way_gets_the_replay(
    service: RunningService, alpha: httpx.Client
) -> None:
    key = unique("stored")
    alpha.post("/_faults", json={"route": "signals/submit", "faults": ["delay:1.0"]}).raise_for_status()
    first: dict[str, httpx.Response] = {}
    slow = threading.Thread(target=lambda: first.update(answer=alpha.post("/signals/submit", json=signal_body(key=key))))
    slow.start()
    deadline = time.monotonic() + 5
    with client_for(service, TOKEN_A) as other:
        while other.get("/signals/submissions", params={"idempotency_key": key}).json()["count"] == 0:
            assert time.monotonic() < deadline, "the delayed submission was never stored"
            time.sleep(0.02)
        retry = other.post("/signals/submit", json=signal_body(key=key))
    assert "answer" not in first, "the first answer should still be delayed"
    slow.join()
    assert (retry.status_code, retry.headers["Idempotent-Replayed"]) == (202, "true")
    assert retry.json() == first["answer"].json()


def _without(field: str) -> dict[str, Any]:
    body = signal_body()
    del body[field]
    return body


@pytest.mark.parametrize(
    ("body", "reason", "detail"),
    [
        (signal_body(thresholds={}), "caller_thresholds_not_accepted", {"fields": ["thresholds"]}),
        (_without("graph_depth"), "malformed_body", {"missing": ["graph_depth"]}),
        (signal_body(market_id=True), "malformed_body", {"invalid": {"market_id": "must be a positive integer"}}),
        (signal_body(extra=1), "malformed_body", {"unknown": ["extra"]}),
        (signal_body(is_pnl_mi="inf"), "malformed_body", {}),
        (signal_body(named_universe="../top300"), "malformed_body", {}),
        (
            signal_body(is_stats={"sharpe": 1.0, "is_pnl_mi": 0.1}),
            "mi_contract_field_in_stats",
            {"fields": ["is_pnl_mi"]},
        ),
        (signal_body(market_id=7, client_manifest_market_id=7), "unknown_market", {"market_id": 7}),
        (signal_body(era_number=2, client_manifest_era_number=2), "era_not_active", {"active_era_number": 3}),
        (signal_body(client_manifest_era_number=2), "manifest_mismatch", {}),
        (signal_body(named_universe="smallcaps"), "unknown_named_universe", {}),
        (signal_body(signal_pool_name="carry"), "unknown_signal_pool", {"known": ["momentum", "reversal"]}),
        (replaced(graph={"op": "rank", "args": "close"}), "malformed_graph", {}),
        (signal_body(graph_node_count=99), "graph_complexity_mismatch", {"measured": {"depth": 3, "node_count": 3}}),
        (
            replaced(
                graph={"op": "add", "args": [{"op": "neg", "args": [MOMENTUM_GRAPH]}] * 30},
                graph_depth=5,
                graph_node_count=121,
            ),
            "graph_too_complex",
            {"max_node_count": 64},
        ),
        (
            signal_body(simulation_data_contract_projection={"dataset": "other"}),
            "data_contract_mismatch",
            {"sent": {"dataset": "other"}},
        ),
        (signal_body(is_stats={**signal_body()["is_stats"], "sharpe": 0.1}), "thresholds_failed", {}),
        (signal_body(is_pnl_mi="Infinity"), "thresholds_failed", {}),
    ],
)
def test_validation_names_the_first_problem(
    alpha: httpx.Client, body: dict[str, Any], reason: str, detail: dict[str, Any]
) -> None:
    body["idempotency_key"] = unique("invalid")
    answer = alpha.post("/signals/submit", json=body)
    assert answer.status_code == 422
    assert answer.json()["reason"] == reason
    details = answer.json()["details"]
    assert {key: details[key] for key in detail} == {key: value for key, value in detail.items()}


def test_threshold_failures_report_every_failing_gate(alpha: httpx.Client) -> None:
    stats = {**signal_body()["is_stats"], "sharpe": 0.1, "turnover": 2.0}
    answer = alpha.post("/signals/submit", json=signal_body(key=unique("gates"), is_stats=stats, is_pnl_mi="Infinity"))
    failures = answer.json()["details"]["failures"]
    assert {failure["gate"] for failure in failures} == {"sharpe", "turnover", "is_pnl_mi"}
    assert {"gate": "is_pnl_mi", "actual": "Infinity", "operator": "<=", "threshold": 0.35} in failures


@pytest.mark.parametrize("raw", [b'{"idempotency_key": NaN}', b"[1, 2]", b"{", "{\"a\": \"\xff\"}".encode("latin-1")])
def test_bodies_that_are_not_strict_json_objects_are_refused(alpha: httpx.Client, raw: bytes) -> None:
    answer = alpha.post("/signals/submit", content=raw, headers={"Content-Type": "application/json"})
    assert (answer.status_code, answer.json()["reason"]) == (422, "malformed_json")


def test_batch_judges_each_item_and_answers_207_when_mixed(alpha: httpx.Client) -> None:
    key = unique("batch")
    items = [
        signal_body(key=key + "-a"),
        signal_body(key=key + "-b", era_number=9, client_manifest_era_number=9),
        signal_body(key=key + "-a"),
        "not an object",
    ]
    answer = alpha.post("/signals/batch", json={"signals": items})
    document = answer.json()
    assert answer.status_code == 207
    assert (document["accepted"], document["failed"]) == (2, 2)
    assert [item["index"] for item in document["results"]] == [0, 1, 2, 3]
    assert [item["status_code"] for item in document["results"]] == [202, 422, 202, 422]
    assert document["results"][2]["body"] == document["results"][0]["body"]
    assert document["results"][1]["body"]["reason"] == "era_not_active"


@pytest.mark.parametrize(
    ("signals", "status_code"),
    [
        ([], 202),
        ([{"idempotency_key": "x"}, {"idempotency_key": "y"}], 422),
        ([signal_body()] * 101, 413),
    ],
)
def test_batch_status_for_empty_all_refused_and_oversized(
    alpha: httpx.Client, signals: list[Any], status_code: int
) -> None:
    answer = alpha.post("/signals/batch", json={"signals": signals})
    assert answer.status_code == status_code
    if status_code == 422:
        assert answer.json()["failed"] == 2 and answer.json()["reason"] == "all_items_refused"


def test_status_body_is_strict_json_with_every_key(alpha: httpx.Client) -> None:
    accepted = alpha.post("/signals/submit", json=signal_body(key=unique("status"), is_pnl_mi=0.0)).json()
    answer = alpha.get("/signals/status/" + accepted["submission_id"].replace("_", "%5F"))
    body = json.loads(answer.text, parse_constant=lambda name: pytest.fail(f"bare {name} in the status body"))
    expected_keys = {
        "submission_id", "status", "signal_pool_name", "strategy_pool_name", "is_stats", "payment",
        "rejection_reason", "is_correlation", "agent_is_correlation", "is_pnl_mi", "agent_is_pnl_mi",
        "failure_reason", "failure_detail", "failure_message", "correlation", "is_weights_mi",
    }
    assert expected_keys <= body.keys()
    pools = (body["signal_pool_name"], body["strategy_pool_name"])
    assert (body["status"], pools) == ("signal_submitted", ("momentum", None))


def test_listing_filters_and_orders_newest_first(service: RunningService, tmp_path: Path) -> None:
    with running(tmp_path / "listing.db") as own, client_for(own) as client:
        answers = [client.post("/signals/submit", json=signal_body(key=f"list-{n}")) for n in range(3)]
        ids = [answer.json()["submission_id"] for answer in answers]
        client.post("/strategies/submit", json=strategy_body())
        listed = client.get("/signals/submissions", params={"status": "signal_submitted", "limit": 2}).json()
        assert [item["submission_id"] for item in listed["submissions"]] == ids[:0:-1]
        assert client.get("/signals/submissions", params={"since": "2999-01-01T00:00:00Z"}).json()["count"] == 0
        assert client.get("/signals/submissions", params={"since": "2000-01-01T00:00:00+00:00"}).json()["count"] == 4
        only = client.get("/signals/submissions", params={"idempotency_key": "list-1"}).json()["submissions"]
        assert [item["submission_id"] for item in only] == [ids[1]]


@pytest.mark.parametrize(
    "params",
    [{"limit": "0"}, {"limit": "1001"}, {"limit": "ten"}, {"since": "yesterday"}, {"status": "done"}, {"order": "asc"}],
)
def test_listing_refuses_bad_query_values(alpha: httpx.Client, params: dict[str, str]) -> None:
    answer = alpha.get("/signals/submissions", params=params)
    assert (answer.status_code, answer.json()["reason"]) == (422, "invalid_query")


def test_strategy_submission_has_its_own_answer_shape(alpha: httpx.Client) -> None:
    answer = alpha.post("/strategies/submit", json=strategy_body(VOLUME_GRAPH, key=unique("strategy")))
    body = answer.json()
    assert (answer.status_code, body["status"], body["strategy_pool_name"]) == (202, "strategy_submitted", "core")
    status = alpha.get(f"/signals/status/{body['submission_id']}").json()
    assert (status["signal_pool_name"], status["strategy_pool_name"]) == (None, "core")


def test_claims_of_a_finished_request_cannot_hold_a_key_again() -> None:
    from tallowmere.service.errors import ServiceError
    from tallowmere.service.idempotency import InFlightKeys, RequestClaims

    registry = InFlightKeys()
    with RequestClaims(registry) as first:
        first.claim("owner", "key")
        first.claim("owner", "key")  # the same request may name a key twice
        with pytest.raises(ServiceError) as refused, RequestClaims(registry) as second:
            second.claim("owner", "key")
        assert refused.value.reason == "idempotency_key_in_flight"
    # A work thread still judging the body of a cancelled request must not keep the key held.
    with pytest.raises(ServiceError) as late:
        first.claim("owner", "key")
    assert late.value.reason == "request_abandoned"
    assert registry.held_count() == 0
