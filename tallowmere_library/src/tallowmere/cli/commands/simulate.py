"""``tallowmere simulate``: backtest a graph locally, and the simulation step the submitting commands share."""

from __future__ import annotations

import argparse
from collections.abc import Mapping
from typing import Any

from rich.console import Console
from rich.text import Text

from tallowmere.cli.errors import EXIT_OK, UsageError
from tallowmere.cli.expressions import expression_text
from tallowmere.cli.inputs import read_graph_file
from tallowmere.cli.tables import add_row, figure, heading, new_table, numeric, unbroken
from tallowmere.cli.terminal import Terminal
from tallowmere.simulation import SimulationResult, simulate_signal
from tallowmere.simulation.graph_complexity import measure_graph_complexity

STATISTICS = ("sharpe", "turnover", "delta_exposure", "max_weight", "abs_weight_sum_mean", "correlation")


def simulate_graph(graph: Mapping[str, Any], source: str) -> SimulationResult:
    """Backtest ``graph`` on the embedded data, recording the timing a submission needs.

    A graph the simulator refuses raises `UsageError` with the simulator's
    message (which names the node), prefixed by ``source``.
    """
    try:
        return simulate_signal(graph)
    except ValueError as exc:
        raise UsageError(f"{source}: {exc}") from exc


def simulation_document(graph: Mapping[str, Any], result: SimulationResult) -> dict[str, Any]:
    """The JSON form of a simulation: the graph's size and text, both periods' statistics and the timings."""
    complexity = measure_graph_complexity(graph)
    return {
        "expression": expression_text(graph, max_length=10_000),
        "graph_depth": complexity.depth,
        "graph_node_count": complexity.node_count,
        "is_stats": dict(result.is_stats),
        "os_stats": dict(result.os_stats),
        "is_pnl_mi": result.is_pnl_mi,
        "expression_elapsed_seconds": result.expression_elapsed_seconds,
        "backtest_elapsed_seconds": result.backtest_elapsed_seconds,
        "max_row_elapsed_seconds": result.max_row_elapsed_seconds,
        "data_contract": dict(result.data_contract),
    }


def render_simulation(console: Console, graph: Mapping[str, Any], result: SimulationResult) -> None:
    """Draw the statistics of both periods and a line of timings."""
    table = new_table(unbroken("statistic"), numeric("in sample"), numeric("out of sample"))
    for key in STATISTICS:
        add_row(table, key, result.is_stats.get(key), result.os_stats.get(key))
    console.print(heading(expression_text(graph)))
    console.print(table)
    complexity = measure_graph_complexity(graph)
    console.print(
        Text(
            f"is_pnl_mi {figure(result.is_pnl_mi)} · depth {complexity.depth}, {complexity.node_count} nodes · "
            f"expression {result.expression_elapsed_seconds * 1e3:.1f} ms · "
            f"backtest {result.backtest_elapsed_seconds * 1e3:.1f} ms · "
            f"slowest day {result.max_row_elapsed_seconds * 1e3:.3f} ms"
        ),
        soft_wrap=True,
    )


def run_simulate(args: argparse.Namespace, terminal: Terminal) -> int:
    """Simulate the graph of ``args.graph_file`` and show its statistics."""
    graph = read_graph_file(args.graph_file)
    result = simulate_graph(graph, args.graph_file)
    terminal.emit(simulation_document(graph, result), lambda console: render_simulation(console, graph, result))
    return EXIT_OK
