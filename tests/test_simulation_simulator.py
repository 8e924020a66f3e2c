"""simulate_signal: statistics, mutual information, recorded timing, determinism, predictiveness."""

from __future__ import annotations

import math
import subprocess
import sys

import numpy as np
import pytest

from simulation_support import momentum_graph, mixed_graph, node, reversal_graph, stale_returns_graph
from tallowmere.simulation.backtest_timing import require_recorded_backtest_timing
from tallowmere.simulation.mi_contract import MI_CONTRACT_KEYS
from tallowmere.simulation.portfolio import DailyBook
from tallowmere.simulation.signal_statistics import period_statistics
from tallowmere.simulation.simulator import simulate_signal

STATISTICS = {"sharpe", "turnover", "delta_exposure", "max_weight", "abs_weight_sum_mean", "correlation"}


def test_simulation_gives_finite_statistics_and_records_the_timing_submit_needs() -> None:
    graph = mixed_graph()
    result = simulate_signal(graph)

    for stats in (result.is_stats, result.os_stats):
        assert set(stats) == STATISTICS
        assert all(type(value) is float and math.isfinite(value) for value in stats.values())
        assert not MI_CONTRACT_KEYS & set(stats)
    days_holding = np.count_nonzero(result.weights[:504].any(axis=1))
    assert 400 < days_holding < 504  # every day after the warm-up of the longest window chain
    assert result.is_stats["abs_weight_sum_mean"] == pytest.approx(days_holding / 504)
    assert result.is_stats["delta_exposure"] < 1e-12
    assert (result.is_pnl.size, result.os_pnl.size) == (504, 252)
    assert type(result.expression_elapsed_seconds) is float and result.expression_elapsed_seconds > 0.0

    record = require_recorded_backtest_timing(graph)
    assert record == result.timing
    assert (record.row_count, record.frequency) == (756, "1d")
    # The slowest day takes at least an average day's share and at most the whole backtest.
    assert result.expression_elapsed_seconds <= record.max_row_elapsed_seconds * record.row_count
    assert record.max_row_elapsed_seconds < record.elapsed_seconds
    assert result.submission_kwargs() == {
        "is_stats": result.is_stats,
        "is_pnl_mi": 0.0,
        "expression_elapsed_seconds": result.expression_elapsed_seconds,
    }


def test_the_same_graph_twice_gives_identical_results() -> None:
    first = simulate_signal(mixed_graph(), record_timing=False)
    second = simulate_signal(mixed_graph(), record_timing=False)
    assert first.is_stats == second.is_stats and first.os_stats == second.os_stats
    np.testing.assert_array_equal(first.pnl, second.pnl)


def test_record_timing_false_records_nothing() -> None:
    graph = node("rank", node("ts_sum", node("volume"), window=7))
    assert simulate_signal(graph, record_timing=False).timing is None
    with pytest.raises(ValueError, match="recorded backtest timing is required"):
        require_recorded_backtest_timing(graph)


def test_a_signal_against_its_own_pnl_has_infinite_mutual_information() -> None:
    original = simulate_signal(reversal_graph(), record_timing=False)
    scaled_copy = node("mul", reversal_graph(), node("const", value=3.0))
    unrelated = stale_returns_graph(8)

    copied = simulate_signal(scaled_copy, reference_pnls={"reversal": original.pnl}, record_timing=False)
    assert copied.is_pnl_mi == math.inf
    assert copied.is_stats["correlation"] == pytest.approx(1.0)
    assert copied.os_stats["correlation"] == pytest.approx(1.0)

    other = simulate_signal(unrelated, reference_pnls=[original.is_pnl], record_timing=False)
    assert 0.0 < other.is_pnl_mi < 0.05
    assert other.is_stats["correlation"] < 0.2
    assert other.os_stats["correlation"] == 0.0  # an in-sample reference says nothing out of sample


def test_designed_signals_are_predictive_and_stale_returns_are_not() -> None:
    for graph in (reversal_graph(), momentum_graph()):
        result = simulate_signal(graph, record_timing=False)
        assert result.is_stats["sharpe"] > 1.5 and result.os_stats["sharpe"] > 1.5
    for lag in (6, 7, 8):
        result = simulate_signal(stale_returns_graph(lag), record_timing=False)
        assert abs(result.is_stats["sharpe"]) < 1.0 and abs(result.os_stats["sharpe"]) < 1.0


@pytest.mark.parametrize(
    "graph",
    [
        node("const", value=1.5),
        node("ts_mean", node("const", value=0.1), window=20),
        node("zscore", node("const", value=0.1)),
        node("div", node("close"), node("const", value=0.0)),
    ],
)
def test_degenerate_signals_hold_no_position_and_have_zero_statistics(graph: dict[str, object]) -> None:
    result = simulate_signal(graph, reference_pnls=[np.ones(756)], record_timing=False)
    assert set(result.is_stats.values()) == {0.0}
    assert result.is_pnl_mi == 0.0
    assert not result.weights.any()


@pytest.mark.parametrize(
    ("reference_pnls", "message"),
    [
        ([np.zeros(100)], r"reference_pnls\[0\] has 100 values; expected 756 .* or 504"),
        ({"rival": np.full(756, np.nan)}, r"reference_pnls\['rival'\] contains NaN"),
        ([np.zeros((2, 756))], r"reference_pnls\[0\] must be a 1-D series"),
        ("abc", "reference_pnls must be a sequence"),
    ],
)
def test_bad_reference_pnls_are_refused_by_name(reference_pnls: object, message: str) -> None:
    with pytest.raises(ValueError, match=message):
        simulate_signal(reversal_graph(), reference_pnls=reference_pnls, record_timing=False)  # type: ignore[arg-type]


def test_importing_the_package_leaves_numpy_unloaded_until_the_simulator_is_used() -> None:
    probe = (
        "import sys, tallowmere.simulation as simulation; loaded_early = 'numpy' in sys.modules; "
        "simulation.simulate_signal; print(loaded_early, 'numpy' in sys.modules)"
    )
    completed = subprocess.run([sys.executable, "-c", probe], capture_output=True, text=True, check=True)
    assert completed.stdout.split() == ["False", "True"]


@pytest.mark.parametrize("days", [0, 1, 2, 7, 129, 504, 757])
@pytest.mark.parametrize("level", [0.0, 1e6])
def test_period_statistics_equal_the_plain_numpy_figures_bit_for_bit(days: int, level: float) -> None:
    # The statistics reduce with the ufuncs directly; they must still be exactly
    # what ndarray.mean, ndarray.std and ndarray.max give, on every length that
    # changes numpy's summation (blocks of 8 and 128) and on a large level.
    rng = np.random.default_rng(days)
    pnl, traded, net, gross, largest = rng.normal(level, 1e-2, (5, days))
    book = DailyBook(pnl, traded, net, gross, largest)
    split = days // 3
    for start, stop in ((0, split), (split, days)):
        statistics = period_statistics(book, start, stop, [])
        if stop - start == 0:
            assert statistics == dict.fromkeys(STATISTICS, 0.0)
            continue
        period = pnl[start:stop]
        expected_sharpe = 0.0
        if period.size >= 2:
            mean, deviation = float(period.mean()), float(period.std(ddof=1))
            if deviation > 1e-9 * abs(mean):
                expected_sharpe = mean / deviation * math.sqrt(252)
        assert statistics == {
            "sharpe": expected_sharpe,
            "turnover": float(traded[start:stop].mean() / 2.0),
            "delta_exposure": float(np.abs(net[start:stop]).mean()),
            "max_weight": float(largest[start:stop].max()),
            "abs_weight_sum_mean": float(gross[start:stop].mean()),
            "correlation": 0.0,
        }
