"""submit_signal and submit_strategy: bodies, order of checks, and outcomes."""

from __future__ import annotations

import json
import logging
import re
from typing import Any

import httpx
import pytest

import tallowmere.submit as submit
from tallowmere.api.signal_types import SubmitResult
from tallowmere.submit import SignalClientResponseError, SubmissionRejectedError

from submit_support import ERA_CATALOG, FakeResponse, fake_client, json_answer, recorded_graph, signal_kwargs

ACCEPTED = json_answer(202, {"submission_id": "s-1", "signal_pool_name": "momentum", "status": "signal_submitted"})
PROJECTION = ERA_CATALOG["eras_by_market"]["1"][1]["simulation_data_contract_projection"]


def submitted(transport: Any) -> dict[str, Any]:
    (body,) = transport.bodies("/signals/submit")
    return body


def test_a_signal_body_with_era_defaults() -> None:
    graph = recorded_graph()
    client, transport = fake_client()
    transport.answer("/signals/submit", ACCEPTED)
    stats = {**signal_kwargs()["is_stats"], "_threshold_checks": {"private": True}}
    result = client.submit_signal(graph, " liquid150 ", **signal_kwargs(is_stats=stats, is_pnl_mi=0.2))
    assert result == SubmitResult(status_code=202, body=json.loads(ACCEPTED.content), submission_id="s-1",
                                  signal_pool_name="momentum", strategy_pool_name=None, error=None)  # fmt: skip
    body = submitted(transport)
    assert list(body) == ["graph", "named_universe", "signal_pool_name", "graph_depth", "graph_node_count",
                          "is_stats", "is_pnl_mi", "expression_elapsed_seconds", "market_id", "era_number",
                          "client_manifest_market_id", "client_manifest_era_number",
                          "simulation_data_contract_projection", "idempotency_key"]  # fmt: skip
    assert body["named_universe"] == "liquid150" and body["graph_depth"] == 2 and body["graph_node_count"] == 2
    assert body["is_stats"] == signal_kwargs()["is_stats"] and "_threshold_checks" in stats
    assert body["is_pnl_mi"] == 0.2 and body["expression_elapsed_seconds"] == 0.25
    assert (body["market_id"], body["era_number"]) == (1, 3)
    assert (body["client_manifest_market_id"], body["client_manifest_era_number"]) == (1, 3)
    assert body["simulation_data_contract_projection"] == PROJECTION
    key = body["idempotency_key"]
    assert len(key) == 74 and key == submit.SignalServiceClient._idempotency_key_for_body(body)
    assert transport.requests[-1].headers["Idempotency-Key"] == key
    assert transport.paths() == ["/eras", "/signals/submit"]


def test_optional_keys_are_sent_only_when_given() -> None:
    graph = recorded_graph("open")
    client, transport = fake_client()
    transport.answer("/signals/submit", ACCEPTED)
    client.submit_signal(graph, "top300", **signal_kwargs(
        metaparameters={"decay": 3}, search_state={"step": 2}, client_manifest_version=4, market_id=1,
        era_number=2, client_manifest_market_id=7, idempotency_key=99))  # fmt: skip
    body = submitted(transport)
    assert list(body)[10:] == ["client_manifest_version", "client_manifest_market_id", "client_manifest_era_number",
                               "metaparameters", "search_state", "idempotency_key"]  # fmt: skip
    assert (body["era_number"], body["client_manifest_market_id"], body["client_manifest_era_number"]) == (2, 7, 2)
    assert body["idempotency_key"] == "99" and transport.requests[-1].headers["Idempotency-Key"] == "99"


def test_same_arguments_give_the_same_key_and_nothing_is_null() -> None:
    graph = recorded_graph("vwap")
    client, transport = fake_client()
    transport.answer("/signals/submit", ACCEPTED)
    client.submit_signal(graph, "top300", **signal_kwargs())
    client.submit_signal(graph, "top300", **signal_kwargs())
    first, second = transport.bodies("/signals/submit")
    assert first["idempotency_key"] == second["idempotency_key"]
    assert None not in first.values() and "metaparameters" not in first


def test_one_submission_asks_for_the_catalog_once() -> None:
    graph = recorded_graph("low")
    client, transport = fake_client()
    transport.answer("/signals/submit", ACCEPTED)
    client.submit_signal(graph, "top300", **signal_kwargs())
    client.submit_signal(graph, "top300", **signal_kwargs())
    assert transport.paths().count("/eras") == 1


@pytest.mark.parametrize(
    ("graph_name", "arguments", "message"),
    [
        ("close", {"thresholds": {}}, "caller-supplied thresholds are not accepted"),
        ("close", {"threshold_checks": []}, "caller-supplied thresholds are not accepted"),
        ("close", {"universe": "a/b"}, "named_universe must be a single safe path segment"),
        ("close", {"signal_pool_name": ""}, "signal_pool_name must be a non-empty string"),
        (None, {}, "recorded backtest timing is required before submit"),
    ],
)
def test_checks_before_any_request(graph_name: str | None, arguments: dict[str, Any], message: str) -> None:
    graph = recorded_graph(graph_name) if graph_name else {"op": "never-simulated"}
    universe = arguments.pop("universe", "top300")
    client, transport = fake_client()
    with pytest.raises(ValueError, match=re.escape(message)):
        client.submit_signal(graph, universe, **signal_kwargs(**arguments))
    assert transport.requests == []


@pytest.mark.parametrize(
    ("arguments", "message"),
    [
        ({"signal_pool_name": "value"}, "thresholds unavailable: signal_pool_name value not found"),
        ({"is_stats": {"sharpe": 0.1}}, "sharpe failed: 0.1 >= 0.3"),
        ({"is_pnl_mi": 0.9}, "is_pnl_mi failed: 0.9 <= 0.35"),
        ({"expression_elapsed_seconds": 1}, "expression_elapsed_seconds must be a positive float"),
        ({"market_id": "1"}, "client_manifest_market_id must be a positive integer"),
        ({"market_id": 2}, "thresholds unavailable: /eras returned no active era"),
    ],
)
def test_checks_after_the_catalog_and_before_sending(arguments: dict[str, Any], message: str) -> None:
    graph = recorded_graph("high")
    client, transport = fake_client()
    with pytest.raises(ValueError, match="^" + re.escape(message)):
        client.submit_signal(graph, "liquid150", **signal_kwargs(**arguments))
    assert transport.paths() == ["/eras"]


def test_an_era_without_a_market_or_era_number_is_refused() -> None:
    graph = recorded_graph("returns")
    catalog: dict[str, Any] = {"eras": [{**ERA_CATALOG["eras_by_market"]["1"][1], "market_id": None}]}
    client, transport = fake_client()
    transport.answer("/eras", json_answer(200, catalog))
    with pytest.raises(ValueError, match="^era config field market_id must be a positive integer$"):
        client.submit_signal(graph, "top300", **signal_kwargs())
    transport.answer("/signals/submit", ACCEPTED)
    assert client.submit_signal(graph, "top300", **signal_kwargs(market_id=5)).error is None
    assert submitted(transport)["market_id"] == 5


@pytest.mark.parametrize(
    ("answer", "status_code", "error", "body"),
    [
        (json_answer(422, {"reason": "era_not_active", "details": {}}), 422, "era_not_active",
         {"reason": "era_not_active", "details": {}}),
        (FakeResponse(400, b"{bad"), 400, "{bad", {"error": "{bad", "raw_body_preview": "{bad", "status_code": 400}),
        *[(FakeResponse(status, b"<html>\xff</html>"), status, "<html>\ufffd</html>",
           {"error": "<html>\ufffd</html>", "raw_body_preview": "<html>\ufffd</html>", "status_code": status})
          for status in (502, 503, 504)],
        (FakeResponse(502, b"  "), 502, "http_502", {"error": "http_502", "raw_body_preview": "", "status_code": 502}),
        (httpx.ConnectError(""), 0, "ConnectError", None),
        (ConnectionRefusedError("refused"), 0, "refused", None),
    ],
)  # fmt: skip
def test_outcomes_become_results(answer: Any, status_code: int, error: str, body: Any) -> None:
    graph = recorded_graph("volume")
    client, transport = fake_client()
    transport.answer("/signals/submit", answer)
    result = client.submit_signal(graph, "top300", **signal_kwargs())
    assert (result.status_code, result.error, result.body, result.submission_id) == (status_code, error, body, None)


@pytest.mark.parametrize("answer", [FakeResponse(500, b"oops"), FakeResponse(505, b""), FakeResponse(200, b"[]")])
def test_other_malformed_answers_reach_the_caller(answer: FakeResponse) -> None:
    graph = recorded_graph("open")
    client, transport = fake_client()
    transport.answer("/signals/submit", answer)
    with pytest.raises(SignalClientResponseError):
        client.submit_signal(graph, "top300", **signal_kwargs())


def test_a_transport_failure_is_reported_as_one_telemetry_event(caplog: pytest.LogCaptureFixture) -> None:
    graph = recorded_graph("close")
    client, transport = fake_client()
    transport.answer("/signals/submit", httpx.ReadTimeout("timed out"))
    with caplog.at_level(logging.INFO, logger="tallowmere.telemetry"):
        result = client.submit_signal(graph, "top300", **signal_kwargs())
    assert (result.status_code, result.error) == (0, "timed out")
    (record,) = [r for r in caplog.records if r.name == "tallowmere.telemetry"]
    event = record.surface_event
    assert (event["surface"], event["outcome"], event["sub_service"], event["component"]) == (
        "Submission", "error", "submit", "transport")
    assert event["metadata"] == {"reason": "transport_error", "error_type": "ReadTimeout"}
    assert event["source_file"] == "tallowmere_library/native_sources/src/tallowmere/submit.cpp"
    assert (event["source_function"], event["source_line"]) == ("_submit_result_from_transport_error", 933)


def test_a_retry_after_a_transport_failure_needs_no_new_simulation() -> None:
    graph = recorded_graph("vwap", window=3)
    client, transport = fake_client()
    transport.answer("/signals/submit", httpx.ConnectError("down"), ACCEPTED)
    assert client.submit_signal(graph, "top300", **signal_kwargs()).status_code == 0
    assert client.submit_signal(graph, "top300", **signal_kwargs()).submission_id == "s-1"
    first, second = transport.bodies("/signals/submit")
    assert first == second


# ---- strategies --------------------------------------------------------------------------------------


def test_a_strategy_body() -> None:
    client, transport = fake_client()
    transport.answer("/strategies/submit", json_answer(202, {"submission_id": "t-1", "strategy_pool_name": "core"}))
    result = client.submit_strategy({"op": "close"}, "top300", strategy_pool_name="core", market_id=1, era_number=3,
                                    metaparameters={"k": 1}, client_manifest_version=2)  # fmt: skip
    assert (result.submission_id, result.strategy_pool_name, result.error) == ("t-1", "core", None)
    (body,) = transport.bodies("/strategies/submit")
    assert list(body) == ["graph", "named_universe", "strategy_pool_name", "market_id", "era_number",
                          "client_manifest_market_id", "client_manifest_era_number", "client_manifest_version",
                          "metaparameters", "idempotency_key"]  # fmt: skip
    assert body["idempotency_key"] == submit.SignalServiceClient._idempotency_key_for_body(body)
    assert transport.paths() == ["/strategies/submit"]


@pytest.mark.parametrize(
    ("arguments", "error", "message"),
    [
        ({"strategy_pool_name": ""}, ValueError, "strategy_pool_name must be a non-empty string"),
        ({"market_id": None}, TypeError, "int()"),
        ({"market_id": "1"}, ValueError, "client_manifest_market_id must be a positive integer"),
        ({"era_number": 0}, ValueError, "client_manifest_era_number must be a positive integer"),
    ],
)
def test_strategy_refusals(arguments: dict[str, Any], error: type[Exception], message: str) -> None:
    client, transport = fake_client()
    kwargs = {"strategy_pool_name": "core", "market_id": 1, "era_number": 3, **arguments}
    with pytest.raises(error, match=re.escape(message)):
        client.submit_strategy({"op": "close"}, "top300", **kwargs)
    assert transport.requests == []


@pytest.mark.parametrize(
    ("answer", "error"),
    [(json_answer(409, {"reason": "dup"}), SubmissionRejectedError), (FakeResponse(422, b"x"), SignalClientResponseError),
     (httpx.ConnectError("down"), httpx.ConnectError)],
)  # fmt: skip
def test_strategies_map_nothing(answer: Any, error: type[Exception]) -> None:
    client, transport = fake_client()
    transport.answer("/strategies/submit", answer)
    with pytest.raises(error):
        client.submit_strategy({"op": "close"}, "top300", strategy_pool_name="core", market_id=1, era_number=3)
