"""Graph checking, operator kernels and the no-look-ahead guarantee of the simulator."""

from __future__ import annotations

from collections.abc import Callable

import numpy as np
import pytest

from simulation_support import Graph, mixed_graph, node
from tallowmere.simulation.backtest_timing import require_recorded_backtest_timing
from tallowmere.simulation.cross_section import cross_sectional_rank
from tallowmere.simulation.expression import compile_expression, evaluate_expression
from tallowmere.simulation.market_panel import FloatArray, MarketPanel
from tallowmere.simulation.portfolio import signal_weights
from tallowmere.simulation.rolling import (
    rolling_corr,
    rolling_max,
    rolling_mean,
    rolling_min,
    rolling_rank,
    rolling_std,
    rolling_sum,
    shifted,
)
from tallowmere.simulation.simulator import simulate_signal
from tallowmere.simulation.synthetic_market import default_panel

CLOSE = node("close")


@pytest.mark.parametrize(
    ("graph", "message"),
    [
        (
            node("rank", node("ts_mean", CLOSE, window=-3)),
            "root.args[0] (ts_mean): 'window' must be an integer >= 1, got -3",
        ),
        (node("ts_delay", CLOSE, window=-1), "root (ts_delay): 'window' must be an integer >= 1, got -1"),
        (node("ts_std", CLOSE, window=1), "root (ts_std): 'window' must be an integer >= 2, got 1"),
        (node("ts_mean", CLOSE, window=2.0), "'window' must be an integer >= 1, got 2.0"),
        (node("ts_mean", CLOSE, window=True), "'window' must be an integer >= 1, got True"),
        (node("ts_mean", CLOSE, window=10_000), "'window' 10000 is longer than the panel's 756 days"),
        (node("ts_mean", CLOSE), "root (ts_mean): missing required parameter 'window'"),
        (node("neg", CLOSE, window=3), "root (neg): unexpected parameter 'window'; neg takes no parameters"),
        (node("const", value="1"), "root (const): 'value' must be a finite number, got '1'"),
        (node("add", CLOSE), "root (add): expects 2 argument(s), got 1"),
        (node("close", node("open")), "root (close): expects no arguments, got 1"),
        (
            node("sub", CLOSE, node("clsoe")),
            "root.args[1] (clsoe): unknown operator 'clsoe' (did you mean 'close'?); market data fields: open,",
        ),
        ({"op": "neg", "args": CLOSE}, "graph node at root: 'args' must be a list of nodes, got dict"),
        ([CLOSE], "graph must be an object (dict) with an 'op' key, got list"),
    ],
)
def test_bad_graphs_are_refused_naming_the_node(graph: Graph, message: str) -> None:
    with pytest.raises(ValueError) as caught:
        compile_expression(graph, day_count=756)
    assert message in str(caught.value)


def test_a_bad_node_anywhere_stops_the_simulation_before_any_timing_is_recorded() -> None:
    graph = node("add", node("ts_mean", CLOSE, window=5), node("ts_delta", CLOSE, window=0))
    with pytest.raises(ValueError, match=r"root\.args\[1\] \(ts_delta\)"):
        simulate_signal(graph)
    with pytest.raises(ValueError, match="recorded backtest timing is required"):
        require_recorded_backtest_timing(graph)


def _naive(kernel: str, values: FloatArray, window: int, other: FloatArray) -> FloatArray:
    """The obvious day-by-day loop each kernel must agree with."""
    out = np.full(values.shape, np.nan)
    for day in range(window - 1, values.shape[0]):
        block = values[day - window + 1 : day + 1]
        if kernel == "sum":
            out[day] = block.sum(axis=0)
        elif kernel == "mean":
            out[day] = block.mean(axis=0)
        elif kernel == "std":
            out[day] = block.std(axis=0, ddof=1)
        elif kernel == "min":
            out[day] = block.min(axis=0)
        elif kernel == "max":
            out[day] = block.max(axis=0)
        elif kernel == "rank":
            earlier = block[:-1]
            out[day] = ((earlier < block[-1]).sum(axis=0) + 0.5 * (earlier == block[-1]).sum(axis=0)) / (window - 1)
            out[day][np.isnan(block).any(axis=0)] = np.nan
        elif kernel == "corr":
            for asset in range(values.shape[1]):
                with np.errstate(invalid="ignore", divide="ignore"):  # a flat window has no correlation
                    out[day, asset] = np.corrcoef(block[:, asset], other[day - window + 1 : day + 1, asset])[0, 1]
    return out


@pytest.mark.parametrize(
    ("kernel", "compute"),
    [
        ("sum", rolling_sum),
        ("mean", rolling_mean),
        ("std", rolling_std),
        ("min", rolling_min),
        ("max", rolling_max),
        ("rank", rolling_rank),
        ("corr", None),
    ],
)
@pytest.mark.parametrize("window", [2, 5, 12])
def test_rolling_kernels_match_a_day_by_day_loop(
    kernel: str, compute: Callable[[FloatArray, int], FloatArray] | None, window: int
) -> None:
    rng = np.random.default_rng(11)
    values = np.round(rng.normal(50.0, 3.0, (40, 6)), 1)  # rounding makes ties for the rank
    values[17, 2] = np.nan
    other = rng.normal(0.0, 1.0, values.shape)
    if compute is None:
        result = rolling_corr(values, other, window)
    else:
        result = compute(values, window)
    np.testing.assert_allclose(result, _naive(kernel, values, window, other), rtol=1e-9, atol=1e-9)


def test_delay_moves_rows_down_and_never_up() -> None:
    values = np.arange(12.0).reshape(6, 2)
    delayed = shifted(values, 2)
    assert np.isnan(delayed[:2]).all()
    np.testing.assert_array_equal(delayed[2:], values[:4])


def test_cross_sectional_rank_averages_ties_and_keeps_missing_values() -> None:
    values = np.array([[3.0, 1.0, 3.0, np.nan, 2.0], [np.nan, np.nan, 4.0, np.nan, np.nan]])
    expected = np.array([[5 / 6, 0.0, 5 / 6, np.nan, 1 / 3], [np.nan, np.nan, 0.5, np.nan, np.nan]])
    np.testing.assert_allclose(cross_sectional_rank(values), expected)


@pytest.mark.parametrize(
    ("values", "weights"),
    [
        ([[1.0, 2.0, 3.0, np.nan]], [[-0.5, 0.0, 0.5, 0.0]]),
        ([[0.1, 0.1, 0.1, 0.1]], [[0.0, 0.0, 0.0, 0.0]]),  # no dispersion, no position
        ([[np.nan, 4.0, np.nan, np.nan]], [[0.0, 0.0, 0.0, 0.0]]),
    ],
)
def test_signal_weights_are_demeaned_to_unit_gross_exposure(
    values: list[list[float]], weights: list[list[float]]
) -> None:
    np.testing.assert_allclose(signal_weights(np.array(values)), np.array(weights), atol=1e-15)


def test_block_evaluation_matches_evaluating_the_whole_panel_at_once() -> None:
    panel = default_panel()
    graph = mixed_graph()
    root = compile_expression(graph, day_count=panel.day_count)
    whole = signal_weights(evaluate_expression(root, panel, 0, panel.day_count))
    blocked = simulate_signal(graph, record_timing=False).weights
    np.testing.assert_allclose(blocked, whole, atol=1e-12)


def test_future_days_do_not_change_past_weights_or_pnl() -> None:
    graph = mixed_graph()
    full = simulate_signal(graph, record_timing=False)
    cut = simulate_signal(graph, data=default_panel().head(600), record_timing=False)
    np.testing.assert_array_equal(cut.weights, full.weights[:600])
    np.testing.assert_array_equal(cut.pnl, full.pnl[:600])


def test_trading_on_todays_returns_earns_nothing_on_independent_returns() -> None:
    # Were weights to earn the returns they are formed from, this signal would
    # have a Sharpe ratio in the hundreds.
    rng = np.random.default_rng(5)
    returns = rng.normal(0.0, 0.02, (500, 80))
    closes = 50.0 * np.cumprod(1.0 + returns, axis=0)
    panel = MarketPanel.from_fields(
        {"open": closes, "high": closes, "low": closes, "close": closes, "volume": np.ones_like(closes)}
    )
    result = simulate_signal(node("returns"), data=panel, record_timing=False)
    assert abs(result.is_stats["sharpe"]) < 2.0
