"""Leak-repeat checks of the compiled sibling functions: each one, on its success and
refusal paths, repeated many times with the number of live allocations staying flat.

The count is pymalloc's (sys.getallocatedblocks); under PYTHONMALLOC=malloc it is
always 0, so the checks first require that it counts at all, and
tests/test_submit_memory.py's positive control shows that a leak of one object
per call is caught."""

from __future__ import annotations

import json
import math
from collections.abc import Callable
from typing import Any

import pytest

from tallowmere import _native
from tallowmere.simulation import backtest_timing

from leak_support import assert_no_leak
from sibling_support import outcome


REPEAT = 1000
GRAPH = {"op": "rank", "args": [{"op": "ts_mean", "window": 5, "args": [{"op": "close"}]}]}
RECORD = backtest_timing.BacktestTimingRecord(fingerprint="fp", elapsed_seconds=0.5, row_count=10,
                                              max_row_elapsed_seconds=0.01, frequency="1d", recorded_at=0.0)


def fresh_graph() -> dict[str, Any]:
    return json.loads(json.dumps(GRAPH))


def under_store_clock(clock: Callable[[], Any], call: Callable[[], Any]) -> Any:
    """call() with the module store's clock replaced, for the store's expiry and error paths."""
    store = backtest_timing._STORE
    saved = store._clock
    store._clock = clock  # type: ignore[method-assign]
    try:
        return call()
    finally:
        store._clock = saved  # type: ignore[method-assign]


def consume_expired() -> Any:
    graph = {"op": "expiring", "args": [GRAPH]}
    backtest_timing.record_backtest_timing(graph, elapsed_seconds=0.5, row_count=10, max_row_elapsed_seconds=0.01,
                                           frequency="1d")  # fmt: skip
    return under_store_clock(lambda: math.inf, lambda: _native.consume_recorded_backtest_timing(graph))


def stopped_clock() -> float:
    raise RuntimeError("clock stopped")


CALLS: dict[str, Callable[[], Any]] = {
    "measure": lambda: _native.measure_graph_complexity(fresh_graph()),
    "measure refused": lambda: outcome(_native.measure_graph_complexity, {"op": "x", "args": [{"op": ""}]}),
    "fingerprint": lambda: _native.graph_fingerprint(fresh_graph()),
    "fingerprint remembered": lambda: _native.graph_fingerprint(GRAPH),
    "fingerprint big int": lambda: _native.graph_fingerprint({"op": "x", "n": 2**80, "s": "é\n\U0001f600"}),
    "fingerprint refused": lambda: outcome(_native.graph_fingerprint, {"op": "x", "n": math.inf}),
    "non finite": lambda: _native._has_non_finite_number({"a": [1.5, {"b": (2, "x")}], 3: math.nan}),
    "contract fields": lambda: _native._has_disallowed_mi_contract_field({"sharpe": 1.0, "pnl_mi": 2}),
    "coerce": lambda: (_native._coerce_mi_contract_value(3), _native._coerce_mi_contract_value("Infinity")),
    "coerce refused": lambda: outcome(_native._coerce_mi_contract_value, 2**1100),
    "universe": lambda: (_native._normalize_named_universe(" top300 "), _native._is_unsafe_named_universe("a/b")),
    "universe refused": lambda: outcome(_native._normalize_named_universe, 5),
    "gates": lambda: _native.evaluate_threshold_gates(
        metrics={"sharpe": 0.1, "turnover": math.inf}, threshold_set={"min_sharpe": 0.5, "max_turnover": 2},
        pool_thresholds={"mi_threshold": 0.3}),
    "gates refused": lambda: outcome(_native.evaluate_threshold_gates, metrics=None, threshold_set={"min_x": "1"},
                                     pool_thresholds=None),
    "pool": lambda: _native.selected_signal_pool_from_era_config(
        {"signal_pools": [3, {"signal_pool_name": "m"}, {"name": "p"}]}, "p"),
    "require": lambda: _native.require_recorded_backtest_timing(fresh_graph()),
    "require missing": lambda: outcome(_native.require_recorded_backtest_timing, {"op": "never recorded"}),
    "require batch": lambda: _native.require_recorded_backtest_timings([fresh_graph(), GRAPH]),
    "require batch refused": lambda: outcome(_native.require_recorded_backtest_timings, [GRAPH, {"op": math.nan}]),
    "consume": lambda: _native.consume_recorded_backtest_timing(GRAPH),
    "consume expired": consume_expired,
    "consume clock error": lambda: under_store_clock(
        stopped_clock, lambda: outcome(_native.consume_recorded_backtest_timing, GRAPH)),
    "require clock error": lambda: under_store_clock(
        stopped_clock, lambda: outcome(_native.require_recorded_backtest_timing, GRAPH)),
    "assess": lambda: _native.assess_client_backtest_timing(RECORD, frequency="1d", per_row_budget_seconds=0.001,
                                                            whole_budget_seconds=10),
}  # fmt: skip


@pytest.mark.parametrize("name", list(CALLS))
def test_compiled_functions_do_not_leak(name: str) -> None:
    backtest_timing.record_backtest_timing(GRAPH, elapsed_seconds=0.5, row_count=10, max_row_elapsed_seconds=0.01,
                                           frequency="1d")  # fmt: skip
    assert_no_leak(CALLS[name], REPEAT)
