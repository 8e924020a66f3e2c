"""The command line's simulation cache and batch ledger on real files."""

from __future__ import annotations

import json
from pathlib import Path
from typing import Any

import pytest

from tallowmere.cli.ledger import Ledger, entry_identity
from tallowmere.cli.simulations import (
    Simulation,
    SimulationCache,
    SimulationProblem,
    default_cache_directory,
    simulate_graphs,
)
from tallowmere.simulation.backtest_timing import clear_recorded_backtest_timings, require_recorded_backtest_timing

GRAPH: dict[str, Any] = {"op": "rank", "args": [{"op": "ts_mean", "window": 5, "args": [{"op": "returns"}]}]}
SAME_GRAPH_REORDERED: dict[str, Any] = {
    "args": [{"args": [{"op": "returns"}], "window": 5, "op": "ts_mean"}], "op": "rank"
}


def simulated(graphs: list[dict[str, Any]], cache: SimulationCache) -> list[Simulation]:
    outcomes = simulate_graphs(graphs, cache)
    assert all(isinstance(outcome, Simulation) for outcome in outcomes)
    return [outcome for outcome in outcomes if isinstance(outcome, Simulation)]


def test_a_cached_simulation_is_replayed_and_still_records_its_timing(tmp_path: Path) -> None:
    cache = SimulationCache(tmp_path)
    (first,) = simulated([GRAPH], cache)
    assert first.cached_at is None and len(list(tmp_path.rglob("*.json"))) == 1
    clear_recorded_backtest_timings()  # a new process has no timing of its own
    (again,) = simulated([SAME_GRAPH_REORDERED], cache)
    assert again.cached_at == first.simulated_at
    assert again.submission_kwargs() == first.submission_kwargs()  # the same body, so the same derived key
    record = require_recorded_backtest_timing(GRAPH)  # submit_signal would accept it
    assert record.elapsed_seconds == first.backtest_elapsed_seconds and record.row_count == first.row_count


def test_fresh_simulates_anew_and_replaces_the_entry(tmp_path: Path) -> None:
    (first,) = simulated([GRAPH], SimulationCache(tmp_path))
    (fresh,) = simulated([GRAPH], SimulationCache(tmp_path, read=False))
    assert fresh.cached_at is None
    (kept,) = simulated([GRAPH], SimulationCache(tmp_path))
    assert kept.backtest_elapsed_seconds == fresh.backtest_elapsed_seconds != first.backtest_elapsed_seconds


@pytest.mark.parametrize("damage", ["{not json", '{"format": 1}', "[]", ""])
def test_a_damaged_entry_is_simulated_anew_and_rewritten(tmp_path: Path, damage: str) -> None:
    simulated([GRAPH], SimulationCache(tmp_path))
    (entry,) = tmp_path.rglob("*.json")
    entry.write_text(damage)
    (again,) = simulated([GRAPH], SimulationCache(tmp_path))
    assert again.cached_at is None and json.loads(entry.read_text())["format"] == 1


def test_an_unwritable_cache_warns_once_and_simulates_on(tmp_path: Path) -> None:
    (tmp_path / "file").write_text("")  # a directory cannot be made under a file, whoever runs the test
    warnings: list[str] = []
    cache = SimulationCache(tmp_path / "file" / "cache", warn=warnings.append)
    outcomes = simulate_graphs([GRAPH, {"op": "rank", "args": [{"op": "volume"}]}], cache)
    assert all(isinstance(outcome, Simulation) for outcome in outcomes)
    assert len(warnings) == 1 and "re-runs will simulate anew" in warnings[0]


def test_problems_stay_at_their_graphs_positions(tmp_path: Path) -> None:
    deep: dict[str, Any] = {"op": "close"}
    for _ in range(300):
        deep = {"op": "neg", "args": [deep]}
    progress: list[int] = []
    outcomes = simulate_graphs([{"op": "clsoe"}, GRAPH, deep], SimulationCache(tmp_path), progress.append)
    assert isinstance(outcomes[0], SimulationProblem) and "unknown operator 'clsoe'" in outcomes[0].message
    assert isinstance(outcomes[1], Simulation)
    assert isinstance(outcomes[2], SimulationProblem) and "nested more than 200 levels" in outcomes[2].message
    assert progress == [1, 2, 3]  # the refused deep graph counts as done at once


@pytest.mark.parametrize(
    ("environ", "expected"),
    [
        ({"TALLOWMERE_CACHE_DIR": "/c", "XDG_CACHE_HOME": "/x"}, "/c/simulations"),
        ({"XDG_CACHE_HOME": "/x"}, "/x/tallowmere/simulations"),
    ],
)
def test_the_cache_directory(environ: dict[str, str], expected: str) -> None:
    assert default_cache_directory(environ) == Path(expected)


def identity(**changes: Any) -> str:
    target: dict[str, Any] = {"named_universe": "top300", "signal_pool_name": "momentum", "market_id": 1,
                              "era_number": 3, "metaparameters": None, "idempotency_key": None, **changes}  # fmt: skip
    graph = target.pop("graph", GRAPH)
    return entry_identity(graph, **target)


def test_a_ledger_entry_names_what_a_line_asks_for() -> None:
    assert identity() == identity(graph=SAME_GRAPH_REORDERED)
    others = [identity(era_number=4), identity(signal_pool_name="reversal"), identity(idempotency_key="k"),
              identity(metaparameters={"lookback": 20}), identity(graph={"op": "volume"})]  # fmt: skip
    assert len({identity(), *others}) == 6


def test_the_ledger_survives_a_torn_last_line_and_appends_after_it(tmp_path: Path) -> None:
    path = tmp_path / "ledger.jsonl"
    ledger = Ledger(path)
    ledger.append([{"entry": "e1", "line": 1, "submission_id": "sig_1", "idempotency_key": "k1"}])
    ledger.close()
    with path.open("a") as handle:
        handle.write('{"entry": "e2", "line": 2, "subm')  # killed mid-write
    reopened = Ledger(path)
    assert reopened.accepted("e1") is not None and reopened.accepted("e2") is None
    assert reopened.unreadable_lines == [2]
    reopened.append([{"entry": "e3", "line": 3, "submission_id": "sig_3", "idempotency_key": None}])
    reopened.close()
    assert Ledger(path).accepted("e3") is not None
    assert json.loads(path.read_text().splitlines()[-1])["accepted_at"].endswith("Z")


def test_a_simulation_that_fails_partway_keeps_the_finished_graphs(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    import tallowmere.simulation.simulator as simulator

    evaluate = simulator.evaluate_book
    failing = {"op": "rank", "args": [{"op": "ts_mean", "window": 7, "args": [{"op": "volume"}]}]}

    def evaluate_unless_volume_mean(root: Any, panel: Any, engine: Any) -> Any:
        if root.children and root.children[0].window == 7:
            raise ValueError("no memory for this one")
        return evaluate(root, panel, engine)

    monkeypatch.setattr(simulator, "evaluate_book", evaluate_unless_volume_mean)
    graphs = [GRAPH, failing, {"op": "rank", "args": [{"op": "volume"}]}]
    outcomes = simulate_graphs(graphs, SimulationCache(tmp_path))
    assert isinstance(outcomes[0], Simulation) and isinstance(outcomes[2], Simulation)
    assert isinstance(outcomes[1], SimulationProblem) and outcomes[1].message == "no memory for this one"
    assert len(list(tmp_path.rglob("*.json"))) == 2  # the two that finished are kept
