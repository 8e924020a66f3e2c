"""``tallowmere simulate``: backtest a graph locally, and the simulation step the submitting commands share."""

from __future__ import annotations

import argparse
from collections.abc import Mapping
from typing import Any

from tallowmere.cli.errors import EXIT_OK, UsageError
from tallowmere.cli.expressions import expression_text
from tallowmere.cli.inputs import read_graph_file
from tallowmere.cli.simulations import (
    Simulation,
    SimulationCache,
    SimulationProblem,
    default_cache_directory,
    simulate_graphs,
)
from tallowmere.cli.tables import Sheet, figure, ident, number
from tallowmere.cli.terminal import Page, Terminal
from tallowmere.simulation.graph_complexity import measure_graph_complexity

STATISTICS = ("sharpe", "turnover", "delta_exposure", "max_weight", "abs_weight_sum_mean", "correlation")


def simulation_cache(args: argparse.Namespace, terminal: Terminal) -> SimulationCache:
    """The simulation cache of a command: read unless ``--fresh``, its write failures reported as warnings."""
    return SimulationCache(default_cache_directory(), read=not args.fresh, warn=terminal.warning)


def simulate_graph(graph: Mapping[str, Any], source: str, cache: SimulationCache | None) -> Simulation:
    """Backtest ``graph`` on the embedded data (or take its cached result), recording the timing a submission needs.

    A graph the simulator refuses raises `UsageError` with the simulator's
    message (which names the node), prefixed by ``source``.
    """
    (outcome,) = simulate_graphs([graph], cache)
    if isinstance(outcome, SimulationProblem):
        raise UsageError(f"{source}: {outcome.message}")
    return outcome


def simulation_document(graph: Mapping[str, Any], result: Simulation) -> dict[str, Any]:
    """The JSON form of a simulation: the graph's size and text, both periods' statistics, the timings, its origin."""
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
        "simulated_at": result.simulated_at,
        "cached": result.cached_at is not None,
    }


def render_simulation(page: Page, graph: Mapping[str, Any], result: Simulation) -> None:
    """Draw the statistics of both periods, a line of timings and where the result came from."""
    sheet = Sheet(ident("statistic"), number("in sample"), number("out of sample"))
    for key in STATISTICS:
        sheet.add_row(key, result.is_stats.get(key), result.os_stats.get(key))
    page.heading(expression_text(graph, max_length=10_000))
    page.table(sheet)
    complexity = measure_graph_complexity(graph)
    page.line(
        f"is_pnl_mi {figure(result.is_pnl_mi)} · depth {complexity.depth}, {complexity.node_count} nodes · "
        f"expression {result.expression_elapsed_seconds * 1e3:.1f} ms · "
        f"backtest {result.backtest_elapsed_seconds * 1e3:.1f} ms · "
        f"slowest day {result.max_row_elapsed_seconds * 1e3:.3f} ms"
    )
    if result.cached_at is not None:
        page.line(f"Simulated {result.cached_at} and taken from the cache (--fresh simulates anew).")


def run_simulate(args: argparse.Namespace, terminal: Terminal) -> int:
    """Simulate the graph of ``args.graph_file`` and show its statistics."""
    graph = read_graph_file(args.graph_file)
    result = simulate_graph(graph, args.graph_file, simulation_cache(args, terminal))
    terminal.emit(simulation_document(graph, result), lambda page: render_simulation(page, graph, result))
    return EXIT_OK
