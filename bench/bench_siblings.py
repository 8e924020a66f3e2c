"""The sibling functions a submission calls, compiled and in Python, one call at a time.

Each function is called with the arguments ``submit_signal`` passes for the
signal of ``bench_client.py``: in this process with the compiled siblings, and
in a worker process started with ``TALLOWMERE_PURE_PYTHON=1`` (so that the
Python functions call Python functions throughout). The two take turns round
by round; each figure is the best round.

    python bench/bench_siblings.py [--quick]
"""

from __future__ import annotations

import argparse
import importlib
import importlib.resources
import json
import os
import platform
import subprocess
import sys
import time
from collections.abc import Callable
from typing import Any

from tallowmere import _accelerate
from tallowmere.simulation import backtest_timing

GRAPH = {"op": "rank", "args": [{"op": "ts_mean", "window": 5, "args": [{"op": "returns"}]}]}
STATS = {"sharpe": 1.2, "turnover": 0.4, "delta_exposure": 0.05, "max_weight": 0.02, "abs_weight_sum_mean": 1.0,
         "correlation": 0.1}  # fmt: skip
METRICS = {"sharpe": 1.2, "turnover": 0.4, "delta_exposure": 0.05, "max_weight": 0.02, "abs_weight_sum_mean": 1.0,
           "is_correlation": 0.1, "is_pnl_mi": 0.1}  # fmt: skip
THRESHOLDS = {"is_pnl_mi_threshold": 0.35, "min_sharpe": 0.3, "max_turnover": 0.9, "is_correlation_threshold": 0.7}
CATALOG = json.loads(importlib.resources.files("tallowmere.service").joinpath("default_eras.json").read_text())
ERA = CATALOG["eras_by_market"]["1"][-1]

backtest_timing.record_backtest_timing(GRAPH, elapsed_seconds=0.03, row_count=756, max_row_elapsed_seconds=0.0001,
                                       frequency="1d")  # fmt: skip
RECORD = backtest_timing.require_recorded_backtest_timing(GRAPH)

# (module, function, arguments, keyword arguments), in the order a submission calls them.
CALLS: list[tuple[str, str, tuple[Any, ...], dict[str, Any]]] = [
    ("tallowmere.simulation.named_universe", "_normalize_named_universe", ("top300",), {}),
    ("tallowmere.simulation.named_universe", "_is_unsafe_named_universe", ("top300",), {}),
    ("tallowmere.simulation.backtest_timing", "require_recorded_backtest_timing", (GRAPH,), {}),
    ("tallowmere.submissions.pool_identity", "selected_signal_pool_from_era_config", (ERA, "momentum"), {}),
    ("tallowmere.simulation.mi_contract", "_has_disallowed_mi_contract_field", (STATS,), {}),
    ("tallowmere.simulation.mi_contract", "_has_non_finite_number", (STATS,), {}),
    ("tallowmere.simulation.mi_contract", "_coerce_mi_contract_value", (0.1,), {}),
    ("tallowmere.simulation.mi_contract", "_is_finite_number", (1.2,), {}),
    ("tallowmere.submissions.threshold_gates", "evaluate_threshold_gates", (),
     {"metrics": METRICS, "threshold_set": THRESHOLDS, "pool_thresholds": THRESHOLDS}),
    ("tallowmere.simulation.graph_complexity", "measure_graph_complexity", (GRAPH,), {}),
    ("tallowmere.simulation.backtest_timing", "consume_recorded_backtest_timing", (GRAPH,), {}),
    ("tallowmere.simulation.backtest_timing", "assess_client_backtest_timing", (RECORD,),
     {"frequency": "1d", "per_row_budget_seconds": 0.05, "whole_budget_seconds": 120.0}),
    ("tallowmere.simulation.graph_complexity", "graph_fingerprint", (GRAPH,), {}),
]  # fmt: skip


def per_call(count: int, function: Callable[..., Any], args: tuple[Any, ...], kwargs: dict[str, Any]) -> float:
    started = time.perf_counter()
    for _ in range(count):
        function(*args, **kwargs)
    return (time.perf_counter() - started) / count


def one_pass(count: int) -> list[float]:
    """Seconds per call of each function as this process selected it."""
    return [per_call(count, getattr(importlib.import_module(module), name), args, kwargs)
            for module, name, args, kwargs in CALLS]  # fmt: skip


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--quick", action="store_true", help="fewer iterations, for a smoke run")
    parser.add_argument("--serve-passes", action="store_true", help=argparse.SUPPRESS)
    arguments = parser.parse_args()
    count, rounds = (2_000, 3) if arguments.quick else (20_000, 7)
    if arguments.serve_passes:
        for _ in sys.stdin:
            print(json.dumps(one_pass(count)), flush=True)
        return
    if not _accelerate.ACCELERATED:
        raise SystemExit(f"the compiled siblings are off here; unset {_accelerate.PURE_PYTHON_VARIABLE}")

    environment = {**os.environ, _accelerate.PURE_PYTHON_VARIABLE: "1"}
    worker = subprocess.Popen([sys.executable, __file__, "--serve-passes", *(["--quick"] if arguments.quick else [])],
                              env=environment, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)  # fmt: skip
    assert worker.stdin is not None and worker.stdout is not None
    compiled = [float("inf")] * len(CALLS)
    python = [float("inf")] * len(CALLS)
    for _ in range(rounds):
        compiled = [min(a, b) for a, b in zip(compiled, one_pass(count))]
        worker.stdin.write("pass\n")
        worker.stdin.flush()
        python = [min(a, b) for a, b in zip(python, json.loads(worker.stdout.readline()))]
    worker.stdin.close()
    worker.wait(timeout=60)

    print(f"Machine: {platform.machine()}, {os.cpu_count()} cores, {platform.python_implementation()} "
          f"{platform.python_version()}")  # fmt: skip
    print()
    print("| function | compiled | Python | speed-up |")
    print("|---|---|---|---|")
    for (_, name, _, _), fast, slow in zip(CALLS, compiled, python):
        print(f"| `{name}` | {fast * 1e6:.2f} us | {slow * 1e6:.2f} us | {slow / fast:.1f}x |")
    print(f"| all of the above | {sum(compiled) * 1e6:.2f} us | {sum(python) * 1e6:.2f} us | "
          f"{sum(python) / sum(compiled):.1f}x |")  # fmt: skip


if __name__ == "__main__":
    main()
