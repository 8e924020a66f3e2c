"""Benchmark of the local simulator: the compiled engine side by side with the numpy reference.

Run from the project root (``make bench`` runs it after the client benchmark):

    .venv/bin/python bench/bench_simulation.py [--repeat N] [--graphs N]

Measures, best of N runs (default 15):

- the default panel: built by the numpy recipe and by the compiled engine
  (what every process pays once);
- ``simulate_signal`` of a 20-node graph on the default panel, and its
  expression evaluation alone (``expression_elapsed_seconds``), with each
  evaluator;
- the slowest day (``max_row_elapsed_seconds``);
- ``simulate_signals`` of 200 graphs with ``workers=2`` against one thread
  (best of 3): the throughput ratio.
"""

from __future__ import annotations

import argparse
import math
import statistics
import time
from collections.abc import Callable
from typing import Any

from tallowmere.simulation.graph_complexity import measure_graph_complexity
from tallowmere.simulation.parallel import simulate_signals
from tallowmere.simulation.simulator import simulate_signal
from tallowmere.simulation.synthetic_market import build_synthetic_panel, default_panel, reference_market_fields

GOALS_MS = {
    "panel": 10.0,
    "simulate": 5.0,
    "expression": 3.5,
}
THROUGHPUT_GOAL = 1.8


def _node(op: str, *args: dict[str, Any], **parameters: Any) -> dict[str, Any]:
    built: dict[str, Any] = {"op": op, **parameters}
    if args:
        built["args"] = list(args)
    return built


def twenty_node_graph(reversal_lag: int = 0, momentum_window: int = 100) -> dict[str, Any]:
    """A research-style blend of reversal, momentum and volume surprise: 20 nodes."""
    returns = _node("returns") if reversal_lag == 0 else _node("ts_delay", _node("returns"), window=reversal_lag)
    reversal = _node("rank", _node("neg", returns))
    momentum = _node("zscore", _node("ts_delay", _node("ts_mean", _node("returns"), window=momentum_window), window=20))
    surprise = _node("rank", _node("div", _node("volume"), _node("ts_mean", _node("volume"), window=20)))
    trend_fit = _node("sign", _node("ts_corr", _node("close"), _node("vwap"), window=10))
    return _node("rank", _node("add", _node("add", reversal, momentum), _node("mul", surprise, trend_fit)))


def _best(run: Callable[[], float], repeat: int) -> tuple[float, float]:
    """The median and the best of ``repeat`` measurements (seconds) that ``run`` returns."""
    timings = [run() for _ in range(repeat)]
    return statistics.median(timings), min(timings)


def _elapsed(action: Callable[[], object]) -> float:
    began = time.perf_counter()
    action()
    return time.perf_counter() - began


def _ms(seconds: float) -> str:
    return f"{seconds * 1e3:9.3f}"


def main() -> None:
    """Run the benchmark and print a table of timings in milliseconds."""
    parser = argparse.ArgumentParser(description="Benchmark the local simulator.")
    parser.add_argument("--repeat", type=int, default=15, help="runs per case (default 15)")
    parser.add_argument("--graphs", type=int, default=200, help="graphs of the throughput case (default 200)")
    arguments = parser.parse_args()
    repeat = arguments.repeat

    graph = twenty_node_graph()
    nodes = measure_graph_complexity(graph).node_count
    default_panel()  # the process's panel is at hand before the timed runs
    rows: list[tuple[str, str, str, str]] = []

    reference_build = _best(lambda: _elapsed(reference_market_fields), max(3, repeat // 3))
    build = _best(lambda: _elapsed(build_synthetic_panel), repeat)
    rows.append(("default panel, built", _ms(reference_build[1]), _ms(build[1]), f"<= {GOALS_MS['panel']:g}"))

    # Each run keeps its timings, not its result: a research loop submits or drops each result
    # before the next, so its weights reuse memory. Keeping every result makes each run write its
    # weights (days x assets) to freshly mapped pages, a cost of its own, shown in the last row.
    measured: dict[str, list[tuple[float, float, float]]] = {}
    kept: dict[str, float] = {}
    for engine in ("reference", "native"):
        simulate_signal(graph, engine=engine, record_timing=False)  # warm-up
        timings = []
        for _ in range(repeat):
            began = time.perf_counter()
            result = simulate_signal(graph, engine=engine)
            elapsed = time.perf_counter() - began
            timings.append((elapsed, result.expression_elapsed_seconds, result.max_row_elapsed_seconds))
            del result
        measured[engine] = timings
        results = []
        for _ in range(repeat):
            began = time.perf_counter()
            results.append(simulate_signal(graph, engine=engine))
            kept[engine] = min(kept.get(engine, math.inf), time.perf_counter() - began)
        del results

    def best_of(engine: str, column: int) -> float:
        return min(timing[column] for timing in measured[engine])

    for label, column, goal in (
        (f"simulate_signal, {nodes}-node graph", 0, f"<= {GOALS_MS['simulate']:g}"),
        ("  expression evaluation", 1, f"<= {GOALS_MS['expression']:g}"),
        ("  slowest day (max_row_elapsed_seconds)", 2, ""),
    ):
        rows.append((label, _ms(best_of("reference", column)), _ms(best_of("native", column)), goal))
    rows.append(("  every result kept (weights on fresh pages)", _ms(kept["reference"]), _ms(kept["native"]), ""))

    count = arguments.graphs
    graphs = [twenty_node_graph(reversal_lag=i % 5, momentum_window=60 + i % 80) for i in range(count)]
    simulate_signals(graphs[:4], workers=2, record_timing=False)  # warm-up
    one = _best(lambda: _elapsed(lambda: simulate_signals(graphs, record_timing=False, keep_weights=False)), 3)
    two = _best(lambda: _elapsed(lambda: simulate_signals(graphs, workers=2, record_timing=False, keep_weights=False)), 3)
    rows.append((f"{count} graphs, one thread (graphs/s)", "", f"{count / one[1]:9.1f}", ""))
    rows.append((f"{count} graphs, workers=2 (graphs/s)", "", f"{count / two[1]:9.1f}", ""))
    rows.append(("  throughput, workers=2 / one thread", "", f"{one[1] / two[1]:8.2f}x", f">= {THROUGHPUT_GOAL:g}x"))

    width = max(len(row[0]) for row in rows)
    print(f"{'simulation (best of runs, ms)':<{width}}  {'numpy':>9}  {'native':>9}  goal")
    for label, reference, native, goal in rows:
        print(f"{label:<{width}}  {reference:>9}  {native:>9}  {goal}")
    print(f"runs per case: {repeat}")


if __name__ == "__main__":
    main()
