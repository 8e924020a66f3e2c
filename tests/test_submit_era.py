"""Era catalog lookup, era gates, thresholds per pool and universe, and the
client's catalog cache."""

from __future__ import annotations

import json
import math
import re
from pathlib import Path
from types import SimpleNamespace
from typing import Any

import httpx
import pytest
from hypothesis import given
from hypothesis import strategies as st

import tallowmere.submit as submit
from tallowmere.simulation import backtest_timing

from submit_support import ERA_CATALOG, FakeResponse, era_catalog, fake_client, json_answer

A, B, C = {"era_number": 1, "n": "A"}, {"era_number": 2, "n": "B"}, {"era_number": 3, "n": "C"}


def test_the_readme_documents_the_published_catalog() -> None:
    doc = (Path(__file__).parent.parent / "README.md").read_text()
    block = doc.split("## A complete catalog")[1].split("```json")[1].split("```")[0]
    assert json.loads(block) == ERA_CATALOG


@pytest.mark.parametrize(
    ("value", "expected"),
    [(True, None), (None, None), (3.9, 3), (2.99, 2), ("12", 12), ("3.5", None), ("abc", None), (math.nan, None),
     (math.inf, None), ([1], None), (-4, -4)],
)  # fmt: skip
def test_coerce_optional_int(value: object, expected: int | None) -> None:
    assert submit._coerce_optional_int(value) == expected


def test_field_value_and_mapping_lookup() -> None:
    assert submit._field_value({"a": 1}, "a") == 1 and submit._field_value({}, "a", 5) == 5
    assert submit._field_value(SimpleNamespace(a=2), "a") == 2 and submit._field_value(None, "a", 7) == 7
    assert submit._mapping_lookup({"8": "x"}, 8) == "x" and submit._mapping_lookup({8: "y", "8": "x"}, 8) == "y"
    assert submit._mapping_lookup([1], 0) is None and submit._mapping_lookup({}, 1) is None


@pytest.mark.parametrize(
    ("catalog", "kwargs", "expected"),
    [
        ([A], {}, None),
        (None, {}, None),
        ({"eras_by_market": {"7": [A], "8": [B]}}, {"market_id": 8}, B),
        ({"eras_by_market": {"7": [A], "8": [B]}}, {"market_id": "7"}, A),
        ({"eras_by_market": {"7": [A]}, "eras": [B]}, {"market_id": 9}, None),
        ({"eras_by_market": {7: [A]}}, {"market_id": 7}, A),
        ({"eras_by_market": {}, "market_era_groups": {"1": [B]}}, {}, B),
        ({"eras_by_market": {"1": "x"}, "eras": [C]}, {}, C),
        ({"eras_by_market": {"1": [A, B], "2": [C]}}, {}, A),
        ({"eras": [A, B, C]}, {"era_number": 2}, B),
        ({"eras": [A, C], "active_era_number": 3}, {"era_number": 5}, C),
        ({"eras": [A, {"id": 3}]}, {}, A),
        ({"eras": [A, {"id": 3}], "active_era_number": 3}, {}, {"id": 3}),
        ({"eras": [{"id": 3}, A]}, {"era_number": 3}, {"id": 3}),
        ({"eras": [A, C], "active_era_number": "3"}, {}, C),
        ({"eras": [A, C], "active_era_number": True, "active_market_era": {"era_number": 3}}, {}, A),
        ({"eras": [A, C], "active_market_era": {"era_number": 3}}, {}, C),
        ({"eras": [A, C], "active_market_era": {}, "current_market_era": {"era_number": 3}}, {}, C),
        ({"eras": [A, {**B, "state": "OPEN"}]}, {}, {**B, "state": "OPEN"}),
        ({"eras": [{**A, "state": None}, {**B, "state": " active"}]}, {}, {**A, "state": None}),
        ({"eras": []}, {}, None),
        ({"eras": [SimpleNamespace(era_number=4, state="current")], "active_era_number": 4}, {}, "namespace"),
    ],
)
def test_active_era_from_catalog(catalog: Any, kwargs: dict[str, Any], expected: Any) -> None:
    found = submit._active_era_from_catalog(catalog, **kwargs)
    if expected == "namespace":
        assert found is catalog["eras"][0]
    else:
        assert found == expected


def test_a_market_id_that_int_refuses_raises_its_own_error() -> None:
    with pytest.raises(ValueError, match="invalid literal"):
        submit._active_era_from_catalog({"eras_by_market": {"1": [A]}}, market_id="one")


@given(st.recursive(st.none() | st.booleans() | st.integers() | st.text(max_size=5),
                    lambda inner: st.lists(inner, max_size=3) | st.dictionaries(st.text(max_size=12), inner, max_size=4),
                    max_leaves=20))  # fmt: skip
def test_era_lookup_on_arbitrary_catalogs_never_fails_otherwise(catalog: Any) -> None:
    era = submit._active_era_from_catalog(catalog)
    assert era is None or (isinstance(catalog, dict) and era is not None)
    if era is None:
        with pytest.raises(ValueError, match="^era config unavailable: /eras returned no active era$"):
            submit._required_active_submit_era(catalog)


@pytest.mark.parametrize("value", [0, -1, 2.0, "3", True, None])
def test_required_positive_era_int_refuses(value: object) -> None:
    with pytest.raises(ValueError, match="^era config field max_depth must be a positive integer$"):
        submit._required_positive_era_int({"max_depth": value}, "max_depth")


def test_required_era_fields() -> None:
    assert submit._required_positive_era_int({"max_depth": 1}, "max_depth") == 1
    assert submit._required_era_frequency({"frequency": " 1d "}) == " 1d "
    for value in ["", "   ", 60, None]:
        with pytest.raises(ValueError, match="^era config field frequency must be a non-empty string$"):
            submit._required_era_frequency({"frequency": value})
    projection = {"dataset": "x"}
    copied = submit._simulation_data_contract_projection_from_era({"simulation_data_contract_projection": projection})
    assert copied == projection and copied is not projection
    assert submit._simulation_data_contract_projection_from_era({}) is None
    with pytest.raises(ValueError, match="must be a dict$"):
        submit._simulation_data_contract_projection_from_era({"simulation_data_contract_projection": [1]})


# ---- thresholds ---------------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("universe", "pool", "thresholds"),
    [
        ("liquid150", "momentum",
         {"is_pnl_mi_threshold": 0.35, "min_sharpe": 0.3, "max_turnover": 0.9, "is_correlation_threshold": 0.7}),
        ("megacaps", "momentum", {"is_pnl_mi_threshold": 0.3, "min_sharpe": 0.5, "is_correlation_threshold": 0.7}),
        ("11", "reversal",
         {"is_correlation_threshold": 0.6, "max_delta_exposure": 0.2, "is_pnl_mi_threshold": 0.3}),
    ],
)  # fmt: skip
def test_thresholds_from_the_documented_catalog(universe: str, pool: str, thresholds: dict[str, Any]) -> None:
    assert submit._submission_thresholds_from_era_catalog(ERA_CATALOG, universe, pool) == thresholds


@pytest.mark.parametrize(
    ("universe", "pool", "change", "message"),
    [
        ("nowhere", "momentum", None, "thresholds unavailable: named_universe nowhere not found"),
        ("top300", "value", None, "thresholds unavailable: signal_pool_name value not found"),
        ("megacaps", "reversal", None,
         "thresholds unavailable: signal_pool_name reversal has no signal_is_thresholds for named_universe megacaps"),
        ("top300", "momentum", lambda pool: pool.pop("is_correlation_threshold"),
         "thresholds unavailable: missing is_correlation_threshold"),
        ("top300", "momentum", lambda pool: pool["signal_is_thresholds"][0].pop("is_pnl_mi_threshold"),
         "thresholds unavailable: missing is_pnl_mi_threshold"),
    ],
)  # fmt: skip
def test_threshold_resolution_failures(universe: str, pool: str, change: Any, message: str) -> None:
    catalog = era_catalog()
    if change is not None:
        change(catalog["eras_by_market"]["1"][1]["signal_pools"][0])
    with pytest.raises(ValueError, match="^" + re.escape(message) + "$"):
        submit._submission_thresholds_from_era_catalog(catalog, universe, pool)
    with pytest.raises(ValueError, match="^thresholds unavailable: /eras returned no active era$"):
        submit._submission_thresholds_from_era_catalog({"eras": []}, universe, pool)


def test_threshold_entries_keyed_by_rule_and_listing_rules() -> None:
    pool = {"signal_is_thresholds": {"2": {"is_pnl_mi_threshold": 1}}}
    assert submit._signal_is_thresholds_for_pool(pool, 2) == {"is_pnl_mi_threshold": 1}
    listed = {"signal_is_thresholds": [{"universes": [5, "2"], "x": 1}]}
    assert submit._signal_is_thresholds_for_pool(listed, 2) == {"universes": [5, "2"], "x": 1}
    assert submit._signal_is_thresholds_for_pool(listed, 3) is None
    assert submit._rule_id_for_named_universe({"universe_rules": [{"rule_id": "r", "universes": ["u"]}]}, "u") == "r"
    assert submit._rule_id_for_named_universe({"universe_rules": "junk"}, "u") is None


# ---- era gates -------------------------------------------------------------------------------------


def deep_graph(depth: int) -> dict[str, Any]:
    graph: dict[str, Any] = {"op": "close"}
    for _ in range(depth - 1):
        graph = {"op": "neg", "args": [graph]}
    return graph


@pytest.mark.parametrize(
    ("graph", "message"),
    [
        (deep_graph(13), "graph complexity depth 13 exceeds max_depth 12"),
        ({"op": "add", "args": [{"op": "close"}] * 64}, "graph complexity node_count 65 exceeds max_node_count 64"),
    ],
)
def test_graph_complexity_gate(graph: dict[str, Any], message: str) -> None:
    era = ERA_CATALOG["eras_by_market"]["1"][1]
    with pytest.raises(ValueError, match="^" + message + "$"):
        submit._enforce_graph_complexity_for_submit(graph, era)
    complexity = submit._enforce_graph_complexity_for_submit(deep_graph(12), era)
    assert (complexity.depth, complexity.node_count) == (12, 12)


@pytest.mark.parametrize(
    ("timing", "reason"),
    [
        ({"elapsed_seconds": 200.0, "max_row_elapsed_seconds": 0.01}, "whole_budget_exceeded"),
        ({"elapsed_seconds": 2.0, "max_row_elapsed_seconds": 0.08}, "row_budget_exceeded"),
        ({"elapsed_seconds": 2.0, "max_row_elapsed_seconds": 0.01, "frequency": "1h"}, "frequency_mismatch"),
    ],
)
def test_backtest_timing_gate(timing: dict[str, Any], reason: str) -> None:
    era = ERA_CATALOG["eras_by_market"]["1"][1]
    graph = {"op": "rank", "args": [{"op": "volume", "reason": reason}]}
    with pytest.raises(ValueError, match="^recorded backtest timing is required before submit; run simulate_signal"):
        submit._enforce_recorded_backtest_timing_for_submit(graph, era)
    backtest_timing.record_backtest_timing(graph, row_count=756, **{"frequency": "1d", **timing})
    with pytest.raises(ValueError) as caught:
        submit._enforce_recorded_backtest_timing_for_submit(graph, era)
    assert str(caught.value) == (
        f"backtest timing budget exceeded: {reason}; elapsed={timing['elapsed_seconds']}; "
        f"max_row={timing['max_row_elapsed_seconds']}; row_budget=0.05; total_budget=120.0"
    )


# ---- the catalog cache -------------------------------------------------------------------------------


class Clock:
    def __init__(self) -> None:
        self.now = 50.0

    def monotonic(self) -> float:
        return self.now


def test_catalog_is_kept_for_a_minute_and_failures_are_not_kept(monkeypatch: pytest.MonkeyPatch) -> None:
    clock = Clock()
    monkeypatch.setattr(submit, "time", clock)
    client, transport = fake_client()
    newer = era_catalog()
    newer["active_era_number"] = 2
    transport.answer("/eras", json_answer(200, ERA_CATALOG), httpx.ConnectError("down"), FakeResponse(200, b"[]"),
                     json_answer(200, newer))  # fmt: skip
    assert client._fetch_era_catalog() == ERA_CATALOG
    clock.now += 59.9
    assert client._fetch_era_catalog() == ERA_CATALOG and len(transport.requests) == 1
    clock.now += 0.1
    with pytest.raises(ValueError, match="^thresholds are required for submit_signal; could not fetch /eras$") as e:
        client._fetch_era_catalog()
    assert isinstance(e.value.__cause__, httpx.ConnectError)
    with pytest.raises(ValueError, match="^thresholds are required for submit_signal; /eras returned invalid payload$"):
        client._fetch_era_catalog()
    assert client._fetch_era_catalog() == newer and client._era_catalog_cache == newer
    assert len(transport.requests) == 4


@pytest.mark.parametrize("catalog", [{}, {"eras": []}, {"eras_by_market": {}}, {"eras": "x"}])
def test_unusable_catalogs(catalog: dict[str, Any]) -> None:
    client, transport = fake_client()
    transport.answer("/eras", json_answer(200, catalog))
    with pytest.raises(ValueError, match="returned invalid payload$"):
        client._fetch_era_catalog()
    assert client._era_catalog_cache is None


def test_a_catalog_placed_in_the_cache_is_used_as_it_is() -> None:
    client, transport = fake_client()
    pinned = {"eras": [{"era_number": 9}]}
    client._era_catalog_cache = pinned
    assert client._fetch_era_catalog() is pinned and transport.requests == []
