"""Graph builders and sample graphs shared by the simulation tests."""

from __future__ import annotations

from typing import Any

Graph = dict[str, Any]


def node(op: str, *args: Graph, **parameters: Any) -> Graph:
    """Build a graph node: ``node("ts_mean", node("close"), window=5)``."""
    built: Graph = {"op": op, **parameters}
    if args:
        built["args"] = list(args)
    return built


def reversal_graph() -> Graph:
    """Yesterday's losers against yesterday's winners: predictive on the default panel."""
    return node("rank", node("neg", node("returns")))


def momentum_graph() -> Graph:
    """Four months of trend, skipping the latest month: predictive and slow-moving."""
    return node("rank", node("ts_delay", node("ts_mean", node("returns"), window=100), window=20))


def stale_returns_graph(lag: int) -> Graph:
    """Returns of ``lag`` days ago: no effect of the default panel lives there."""
    return node("rank", node("ts_delay", node("returns"), window=lag))


def mixed_graph() -> Graph:
    """A graph that touches every kind of operator."""
    volume_surprise = node("div", node("volume"), node("ts_mean", node("volume"), window=20))
    trend = node("ts_corr", node("close"), node("vwap"), window=10)
    quiet = node("neg", node("ts_std", node("returns"), window=30))
    return node(
        "add",
        node("zscore", node("mul", node("log", volume_surprise), node("sign", trend))),
        node("demean", node("ts_rank", node("max", quiet, node("const", value=-0.5)), window=15)),
    )
