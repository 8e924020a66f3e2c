"""Recorded backtest timings: recording, requiring, consuming, expiry, assessment."""

from __future__ import annotations

import math
from typing import Any

import pytest

from tallowmere.simulation import backtest_timing
from tallowmere.simulation.backtest_timing import (
    CONSUMED_GRACE_SECONDS,
    MISSING_TIMING_MESSAGE,
    RECORD_LIFETIME_SECONDS,
    BacktestTimingRecord,
    BacktestTimingStore,
    record_backtest_timing,
)

from sibling_support import implementation_fixture

impl = implementation_fixture("tallowmere.simulation.backtest_timing")

GRAPH = {"op": "rank", "args": [{"op": "ts_mean", "window": 20, "args": [{"op": "close"}]}]}
TIMING: dict[str, object] = {"elapsed_seconds": 12.5, "row_count": 504, "max_row_elapsed_seconds": 0.04,
                             "frequency": "1d"}


class _Clock:
    now = 1000.0

    def __call__(self) -> float:
        return self.now


@pytest.fixture
def graph(request: pytest.FixtureRequest) -> dict[str, object]:
    """A graph no other test records: the process-wide store is shared with other test modules."""
    return {**GRAPH, "test": request.node.nodeid}


def test_record_is_required_and_consumed_through_an_equal_graph(impl: Any, graph: dict[str, object]) -> None:
    with pytest.raises(ValueError) as caught:
        impl.require_recorded_backtest_timing(graph)
    assert str(caught.value) == MISSING_TIMING_MESSAGE
    assert impl.consume_recorded_backtest_timing(graph) is None
    record = record_backtest_timing(graph, **TIMING)  # type: ignore[arg-type]
    rebuilt = dict(reversed(graph.items()))
    assert impl.require_recorded_backtest_timing(rebuilt) is record
    assert impl.consume_recorded_backtest_timing(rebuilt) is record
    assert impl.require_recorded_backtest_timing(graph) is record  # a retry within the grace period


def test_batch_names_the_first_unusable_item(impl: Any, graph: dict[str, object]) -> None:
    record_backtest_timing(graph, **TIMING)  # type: ignore[arg-type]
    assert len(impl.require_recorded_backtest_timings([graph, graph])) == 2
    missing = [{**graph, "variant": n} for n in range(2)]
    with pytest.raises(ValueError) as caught:
        impl.require_recorded_backtest_timings([graph, graph, *missing])
    assert str(caught.value) == f"{MISSING_TIMING_MESSAGE} (batch item 2)"
    with pytest.raises(ValueError, match=r"graph cannot be fingerprinted.*\(batch item 1\)$"):
        impl.require_recorded_backtest_timings([graph, {"op": "const", "value": math.nan}])


@pytest.mark.parametrize(
    ("change", "message"),
    [
        ({"elapsed_seconds": 0.0}, "elapsed_seconds must be a positive finite number"),
        ({"elapsed_seconds": True}, "elapsed_seconds must be a positive finite number"),
        ({"max_row_elapsed_seconds": math.nan}, "max_row_elapsed_seconds must be a positive finite number"),
        ({"row_count": 10.0}, "row_count must be a positive int"),
        ({"frequency": "  "}, "frequency must be a non-blank string"),
    ],
)
def test_record_refuses_bad_values(impl: Any, graph: dict[str, object], change: dict[str, object],
                                   message: str) -> None:
    with pytest.raises(ValueError, match=message):
        record_backtest_timing(graph, **{**TIMING, **change})  # type: ignore[arg-type]
    assert impl.consume_recorded_backtest_timing(graph) is None


def test_consumed_record_lasts_one_grace_period_from_its_first_consumption() -> None:
    clock = _Clock()
    store = BacktestTimingStore(clock=clock)
    store.record("fp", **TIMING)  # type: ignore[arg-type]
    first = store.consume("fp")
    clock.now += CONSUMED_GRACE_SECONDS - 1
    assert first is not None and store.consume("fp") is first
    clock.now += 1
    assert store.lookup("fp") is None and store.consume("fp") is None and len(store) == 0
    fresh = store.record("fp", **TIMING)  # type: ignore[arg-type]
    assert store.consume("fp") is fresh
    store.clear()
    assert store.lookup("fp") is None


def test_unconsumed_record_expires_after_its_lifetime() -> None:
    clock = _Clock()
    store = BacktestTimingStore(clock=clock)
    store.record("fp", **TIMING)  # type: ignore[arg-type]
    clock.now += RECORD_LIFETIME_SECONDS - 1
    assert store.lookup("fp") is not None
    clock.now += 1
    assert store.lookup("fp") is None


def test_store_forgets_the_least_recently_used_record() -> None:
    store = BacktestTimingStore(max_records=2)
    for name in ("a", "b"):
        store.record(name, **TIMING)  # type: ignore[arg-type]
    assert store.lookup("a") is not None
    store.record("c", **TIMING)  # type: ignore[arg-type]
    assert [store.lookup(name) is not None for name in ("a", "b", "c")] == [True, False, True]


# The module's own store, as both implementations of the module functions use it.


@pytest.fixture
def store_clock(monkeypatch: pytest.MonkeyPatch) -> _Clock:
    """The module store's clock, replaced by one the test moves."""
    clock = _Clock()
    monkeypatch.setattr(backtest_timing._STORE, "_clock", clock)
    return clock


@pytest.mark.parametrize("start", [1000.0, 1000, 10**30])  # a clock of ints takes the same steps
def test_module_store_expires_records_by_its_clock_at_call_time(impl: Any, graph: dict[str, object],
                                                                store_clock: _Clock, start: Any) -> None:
    store_clock.now = start
    record = record_backtest_timing(graph, **TIMING)  # type: ignore[arg-type]
    store_clock.now = start + int(CONSUMED_GRACE_SECONDS)
    assert impl.consume_recorded_backtest_timing(graph) is record
    store_clock.now += int(CONSUMED_GRACE_SECONDS) - 1
    assert impl.require_recorded_backtest_timing(graph) is record
    store_clock.now += 1  # the grace period after the first consumption is over
    assert impl.consume_recorded_backtest_timing(graph) is None
    with pytest.raises(ValueError, match="recorded backtest timing is required"):
        impl.require_recorded_backtest_timing(graph)
    fresh = record_backtest_timing(graph, **TIMING)  # type: ignore[arg-type]
    store_clock.now += int(RECORD_LIFETIME_SECONDS) - 1
    assert impl.require_recorded_backtest_timing(graph) is fresh
    store_clock.now += 1  # its lifetime is over, unconsumed
    assert impl.consume_recorded_backtest_timing(graph) is None


def test_module_store_reads_its_methods_and_attributes_when_called(impl: Any, graph: dict[str, object],
                                                                   monkeypatch: pytest.MonkeyPatch) -> None:
    store = backtest_timing._STORE
    record = record_backtest_timing(graph, **TIMING)  # type: ignore[arg-type]
    seen: list[str] = []

    def hidden(fingerprint: str, now: float) -> None:
        seen.append("instance _usable_entry")

    monkeypatch.setattr(store, "_usable_entry", hidden, raising=False)
    assert impl.consume_recorded_backtest_timing(graph) is None
    monkeypatch.undo()
    original_lookup = BacktestTimingStore.lookup

    def lookup(self: BacktestTimingStore, fingerprint: str) -> BacktestTimingRecord | None:
        seen.append("class lookup")
        return original_lookup(self, fingerprint)

    monkeypatch.setattr(BacktestTimingStore, "lookup", lookup)
    assert impl.require_recorded_backtest_timing(graph) is record
    monkeypatch.undo()
    fingerprint = backtest_timing.graph_fingerprint(graph)
    # A plain dict in place of the ordered one: found by .get, then refused by .move_to_end.
    monkeypatch.setattr(store, "_entries", {fingerprint: store._entries[fingerprint]})
    with pytest.raises(AttributeError, match="move_to_end"):
        impl.consume_recorded_backtest_timing(graph)
    assert seen == ["instance _usable_entry", "class lookup"]
    assert not store._lock.locked()


def test_module_store_calls_its_clock_under_its_lock_and_releases_it_on_error(
        impl: Any, graph: dict[str, object], monkeypatch: pytest.MonkeyPatch) -> None:
    store = backtest_timing._STORE
    record_backtest_timing(graph, **TIMING)  # type: ignore[arg-type]
    held: list[bool] = []

    def failing_clock() -> float:
        held.append(store._lock.locked())
        raise RuntimeError("clock stopped")

    monkeypatch.setattr(store, "_clock", failing_clock)
    for call in (impl.require_recorded_backtest_timing, impl.consume_recorded_backtest_timing):
        with pytest.raises(RuntimeError, match="clock stopped") as caught:
            call(graph)
        assert caught.value.__context__ is None
        assert not store._lock.locked()
    assert held == [True, True]


def _record(elapsed: float = 100.0, max_row: float = 0.05, frequency: str = "1d") -> BacktestTimingRecord:
    return BacktestTimingRecord(fingerprint="fp", elapsed_seconds=elapsed, row_count=504,
                                max_row_elapsed_seconds=max_row, frequency=frequency, recorded_at=0.0)


@pytest.mark.parametrize(
    ("record", "reason"),
    [
        (_record(elapsed=120.0, max_row=0.05), None),
        (_record(frequency="1h", elapsed=500.0, max_row=1.0), "frequency_mismatch"),
        (_record(elapsed=120.001, max_row=1.0), "whole_budget_exceeded"),
        (_record(max_row=0.0501), "row_budget_exceeded"),
    ],
)
def test_assessment_checks_frequency_then_whole_then_row(impl: Any, record: BacktestTimingRecord,
                                                         reason: str | None) -> None:
    verdict = impl.assess_client_backtest_timing(record, frequency="1d", per_row_budget_seconds=0.05,
                                                 whole_budget_seconds=120)
    assert verdict == {
        "status": "accepted" if reason is None else "rejected", "reason": reason,
        "elapsed_seconds": record.elapsed_seconds, "max_row_elapsed_seconds": record.max_row_elapsed_seconds,
        "per_row_budget_seconds": 0.05, "whole_budget_seconds": 120.0,
    }


@pytest.mark.parametrize("budget", [math.nan, 0, None])
def test_assessment_refuses_a_budget_that_would_accept_anything(impl: Any, budget: object) -> None:
    with pytest.raises(ValueError, match="whole_budget_seconds must be a positive finite number"):
        impl.assess_client_backtest_timing(_record(), frequency="1d", per_row_budget_seconds=0.05,
                                           whole_budget_seconds=budget)  # type: ignore[arg-type]
