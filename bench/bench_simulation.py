"""Benchmark of the local simulator: building the default panel and simulating a 20-node graph.

Run from the project root:

    PYTHONPATH=tallowmere_library/src .venv/bin/python bench/bench_simulation.py [--repeat N]

Prints the median and the fastest of N runs (default 15) for each case.
"""

from __future__ import annotations

import argparse
import statistics
import time
from typing import Any

from tallowmere.simulation.graph_complexity import measure_graph_complexity
from tallowmere.simulation.simulator import simulate_signal
from tallowmere.simulation.synthetic_market import build_synthetic_panel, default_panel


def _node(op: str, *args: dict[str, Any], **parameters: Any) -> dict[str, Any]:
    built: dict[str, Any] = {"op": op, **parameters}
    if args:
        built["args"] = list(args)
    return built


def twenty_node_graph() -> dict[str, Any]:
    """A research-style blend of reversal, momentum and volume surprise: 20 nodes."""
    returns = _node("returns")
    reversal = _node("rank", _node("neg", returns))
    momentum = _node("zscore", _node("ts_delay", _node("ts_mean", returns, window=100), window=20))
    surprise = _node("rank", _node("div", _node("volume"), _node("ts_mean", _node("volume"), window=20)))
    trend_fit = _node("sign", _node("ts_corr", _node("close"), _node("vwap"), window=10))
    return _node("rank", _node("add", _node("add", reversal, momentum), _node("mul", surprise, trend_fit)))


def _median_ms(timings: list[float]) -> str:
    return f"{statistics.median(timings) * 1e3:10.3f}"


def _best_ms(timings: list[float]) -> str:
    return f"{min(timings) * 1e3:10.3f}"


def main() -> None:
    """Run the benchmark and print a table of timings in milliseconds."""
    parser = argparse.ArgumentParser(description="Benchmark the local simulator.")
    parser.add_argument("--repeat", type=int, default=15, help="runs per case (default 15)")
    repeat = parser.parse_args().repeat

    builds = []
    for _ in range(repeat):
        began = time.perf_counter()
        build_synthetic_panel()
        builds.append(time.perf_counter() - began)

    graph = twenty_node_graph()
    nodes = measure_graph_complexity(graph).node_count
    default_panel()  # the cached panel is built outside the timed runs
    simulate_signal(graph)  # warm-up
    calls: list[float] = []
    expressions: list[float] = []
    slowest_days: list[float] = []
    for _ in range(repeat):
        began = time.perf_counter()
        result = simulate_signal(graph)
        calls.append(time.perf_counter() - began)
        expressions.append(result.expression_elapsed_seconds)
        slowest_days.append(result.max_row_elapsed_seconds)

    rows = [
        ("default panel build (300 assets x 756 days)", builds),
        (f"simulate_signal, {nodes}-node graph", calls),
        ("  expression evaluation (expression_elapsed_seconds)", expressions),
        ("  slowest day (max_row_elapsed_seconds)", slowest_days),
    ]
    width = max(len(name) for name, _ in rows)
    print(f"{'case':<{width}}  {'median ms':>10}  {'best ms':>10}")
    for name, timings in rows:
        print(f"{name:<{width}}  {_median_ms(timings)}  {_best_ms(timings)}")
    print(f"runs per case: {repeat}")


if __name__ == "__main__":
    main()
