"""simulate_signals: many graphs on threads, a process pool and a dask cluster, in input order."""

from __future__ import annotations

import multiprocessing
import threading
from concurrent.futures import ProcessPoolExecutor, ThreadPoolExecutor
from typing import Any

import numpy as np
import pytest

from simulation_support import Graph, momentum_graph, mixed_graph, node, reversal_graph, stale_returns_graph
from tallowmere.simulation import simulate_signal, simulate_signals
from tallowmere.simulation.backtest_timing import clear_recorded_backtest_timings, require_recorded_backtest_timing

GRAPHS: list[Graph] = [
    mixed_graph(),
    reversal_graph(),
    momentum_graph(),
    stale_returns_graph(7),
    node("rank", node("ts_std", node("returns"), window=20)),
    node("zscore", node("ts_corr", node("close"), node("volume"), window=15)),
]


@pytest.fixture(scope="module")
def expected() -> list[dict[str, float]]:
    return [simulate_signal(graph, record_timing=False).is_stats for graph in GRAPHS]


def _check(results: list[Any], expected: list[dict[str, float]]) -> None:
    assert [result.is_stats for result in results] == expected  # input order, identical numbers
    for graph, result in zip(GRAPHS, results, strict=True):
        assert result.timing is not None and require_recorded_backtest_timing(graph) == result.timing
        assert result.timing.max_row_elapsed_seconds == result.max_row_elapsed_seconds
        assert not result.weights.flags.writeable and not result.pnl.flags.writeable


@pytest.mark.parametrize(
    "run",
    [
        pytest.param(lambda: simulate_signals(GRAPHS), id="calling-thread"),
        pytest.param(lambda: simulate_signals(GRAPHS, workers=3), id="threads"),
        pytest.param(lambda: simulate_signals(iter(GRAPHS), executor=ThreadPoolExecutor(2)), id="thread-executor"),
    ],
)
def test_results_come_back_in_order_with_their_timings_recorded(run: Any, expected: list[dict[str, float]]) -> None:
    clear_recorded_backtest_timings()
    _check(run(), expected)


def test_a_process_pool_brings_its_results_and_timings_back(expected: list[dict[str, float]]) -> None:
    clear_recorded_backtest_timings()
    with ProcessPoolExecutor(max_workers=1, mp_context=multiprocessing.get_context("spawn")) as pool:
        results = simulate_signals(GRAPHS, executor=pool)
    _check(results, expected)  # recorded here, though simulated in another process


def test_a_dask_cluster_runs_the_simulations_through_its_scheduler(expected: list[dict[str, float]]) -> None:
    distributed = pytest.importorskip("dask.distributed")
    clear_recorded_backtest_timings()
    with (
        distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=False, dashboard_address=None) as cluster,
        distributed.Client(cluster) as client,
    ):
        results = simulate_signals(GRAPHS, executor=client.get_executor())
        prefixes = client.run_on_scheduler(lambda dask_scheduler: list(dask_scheduler.task_prefixes))
        executed = client.run(lambda dask_worker: dask_worker.state.executed_count)
    assert any("simulate_chunk" in prefix for prefix in prefixes) and sum(executed.values()) > 0
    _check(results, expected)


def test_progress_is_reported_per_graph_and_weights_can_be_dropped() -> None:
    seen: list[int] = []
    results = simulate_signals(GRAPHS[:3], workers=2, keep_weights=False, record_timing=False, progress=seen.append)
    assert sorted(seen) == [0, 1, 2]
    assert all(result.weights.shape == (0, 300) and result.timing is None for result in results)
    np.testing.assert_array_equal(results[1].pnl, simulate_signal(GRAPHS[1], record_timing=False).pnl)


@pytest.mark.parametrize(
    ("arguments", "message"),
    [
        ({"workers": 2, "executor": ThreadPoolExecutor(1)}, "pass either workers or executor, not both"),
        ({"workers": 0}, "workers must be a positive int, got 0"),
        ({"workers": True}, "workers must be a positive int, got True"),
        ({"executor": object()}, "executor must be a concurrent.futures.Executor, got object"),
        ({"reference_pnls": [np.zeros(3)]}, r"reference_pnls\[0\] has 3 values"),
    ],
)
def test_bad_arguments_are_refused(arguments: dict[str, Any], message: str) -> None:
    with pytest.raises(ValueError, match=message):
        simulate_signals(GRAPHS[:1], **arguments)


def test_a_bad_graph_stops_everything_before_anything_runs() -> None:
    clear_recorded_backtest_timings()
    graphs = [reversal_graph(), node("ts_mean", node("close"), window=0)]
    with pytest.raises(ValueError, match=r"root \(ts_mean\): 'window' must be an integer >= 1, got 0 \(batch item 1\)"):
        simulate_signals(graphs, workers=2)
    with pytest.raises(ValueError, match="recorded backtest timing is required"):
        require_recorded_backtest_timing(graphs[0])


def test_each_result_is_handed_over_as_it_arrives_and_a_failing_caller_stops_the_rest() -> None:
    handed: list[tuple[int, Any, str]] = []

    def keep(index: int, result: Any) -> None:
        handed.append((index, result, threading.current_thread().name))

    results = simulate_signals(GRAPHS, workers=2, record_timing=False, keep_weights=False, on_result=keep)
    assert sorted(index for index, _, _ in handed) == list(range(len(GRAPHS)))
    assert all(results[index] is result for index, result, _ in handed)
    assert {name for _, _, name in handed} == {threading.current_thread().name}  # the calling thread

    class Stop(Exception):
        pass

    def stop_at_the_second(index: int, result: Any) -> None:
        handed.append((index, result, ""))
        if len(handed) == len(GRAPHS) + 2:
            raise Stop

    handed.clear()
    handed.extend([(-1, None, "")] * len(GRAPHS))
    with pytest.raises(Stop):
        simulate_signals(GRAPHS * 4, workers=2, record_timing=False, keep_weights=False, on_result=stop_at_the_second)
    assert len(handed) == len(GRAPHS) + 2  # nothing more after the caller failed
    assert not [thread for thread in threading.enumerate() if thread.name.startswith("tallowmere-simulate")]
