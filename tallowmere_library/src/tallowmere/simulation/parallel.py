"""Simulating many graphs at once: on threads, or on any executor (a cluster's included).

:func:`simulate_signals` checks every graph first (a bad one stops the call
before anything runs), then simulates them:

- in the calling thread, by default;
- with ``workers=N``, on a pool of N threads: the compiled engine releases
  the GIL while it evaluates, so threads run side by side;
- with ``executor=``, on any :class:`concurrent.futures.Executor`: a process
  pool, or a cluster's executor such as ``dask.distributed``'s
  ``Client.get_executor()``. Graphs travel in chunks; with ``data=None`` each
  worker simulates on its own copy of the default panel, so only the graphs
  and the results cross the network.

Results come back in input order. Backtest timings are recorded in the
calling process, from each result's measurements, wherever the simulation
ran: the submissions that follow find them.
"""

from __future__ import annotations

import dataclasses
import math
import time
from collections.abc import Callable, Iterable, Mapping, Sequence
from concurrent.futures import Executor, Future, ThreadPoolExecutor, as_completed
from typing import cast

import numpy as np
import numpy.typing as npt

from tallowmere.simulation.backtest_timing import BacktestTimingRecord, record_backtest_timing
from tallowmere.simulation.engines import resolve_engine
from tallowmere.simulation.expression import ExpressionNode, compile_expression
from tallowmere.simulation.market_panel import MarketPanel
from tallowmere.simulation.reference_pnls import ReferencePnls, prepare_reference_pnls
from tallowmere.simulation.simulator import SimulationResult, resolve_panel, simulate_checked, simulate_signal
from tallowmere.simulation.synthetic_market import default_panel

__all__ = ["EXECUTOR_CHUNK_GRAPHS", "simulate_signals"]

EXECUTOR_CHUNK_GRAPHS = 16
"""Graphs per task on an executor: enough work (about a tenth of a second) to outweigh a task's cost."""

Graph = Mapping[str, object]


def simulate_signals(
    graphs: Iterable[Graph],
    *,
    data: MarketPanel | Mapping[str, npt.ArrayLike] | None = None,
    workers: int | None = None,
    executor: Executor | None = None,
    reference_pnls: ReferencePnls | None = None,
    record_timing: bool = True,
    keep_weights: bool = True,
    progress: Callable[[int], None] | None = None,
    on_result: Callable[[int, SimulationResult], None] | None = None,
) -> list[SimulationResult]:
    """Simulate every graph as :func:`simulate_signal` would, and return the results in input order.

    ``data`` and ``reference_pnls`` apply to every graph. ``workers`` runs
    the simulations on that many threads; ``executor`` on the given executor
    instead (not both). With ``record_timing`` (the default) every graph's
    backtest timing is recorded in this process. ``keep_weights=False``
    drops each result's daily weights (its ``weights`` is then an empty
    0 × assets array), which keeps thousands of results small, in memory and
    on their way back from a cluster. As each result arrives, ``on_result``
    is called with the graph's position and the result, then ``progress``
    with the position, both in the calling thread; a caller that keeps each
    result there keeps every finished one even when the call is interrupted.

    Raises ``ValueError`` for bad arguments or a graph that does not check,
    naming its position (``(batch item N)``), before anything is simulated;
    an exception raised while simulating propagates as it is (after the
    graphs already running finish).
    """
    if executor is not None and workers is not None:
        raise ValueError("pass either workers or executor, not both")
    if workers is not None and (isinstance(workers, bool) or not isinstance(workers, int) or workers < 1):
        raise ValueError(f"workers must be a positive int, got {workers!r}")
    if executor is not None and not isinstance(executor, Executor):
        raise ValueError(f"executor must be a concurrent.futures.Executor, got {type(executor).__name__}")
    items = list(graphs)
    panel = None if data is None else resolve_panel(data)
    checked = default_panel() if panel is None else panel
    engine = resolve_engine()
    roots: list[ExpressionNode] = []
    check_seconds: list[float] = []
    for index, graph in enumerate(items):
        began = time.perf_counter()
        try:
            roots.append(compile_expression(graph, day_count=checked.day_count))
        except ValueError as exc:
            raise ValueError(f"{exc} (batch item {index})") from None
        check_seconds.append(time.perf_counter() - began)
    references = prepare_reference_pnls(
        reference_pnls, day_count=checked.day_count, in_sample_days=checked.in_sample_days
    )

    results: list[SimulationResult | None] = [None] * len(items)

    def arrived(index: int, result: SimulationResult) -> None:
        results[index] = result
        if on_result is not None:
            on_result(index, result)
        if progress is not None:
            progress(index)

    def simulate_here(index: int) -> SimulationResult:
        """One graph in this process (this thread or a pool's), its checks already done."""
        return simulate_checked(
            items[index],
            roots[index],
            checked,
            references,
            record_timing=record_timing,
            engine=engine,
            checked_seconds=check_seconds[index],
            keep_weights=keep_weights,
        )

    if executor is None and workers is None:
        for index in range(len(items)):
            arrived(index, simulate_here(index))
    elif executor is None:
        with ThreadPoolExecutor(max_workers=workers, thread_name_prefix="tallowmere-simulate") as pool:
            running = {pool.submit(simulate_here, index): index for index in range(len(items))}
            try:
                for future in as_completed(running):
                    arrived(running[future], future.result())
            finally:
                for future in running:
                    future.cancel()
    else:

        def received(index: int, result: SimulationResult) -> None:
            if record_timing:
                result = dataclasses.replace(result, timing=_record(items[index], result))
            arrived(index, result)

        chunk = max(1, min(EXECUTOR_CHUNK_GRAPHS, math.ceil(len(items) / 8)))
        _collect(executor, _chunks(len(items), chunk), items, panel, reference_pnls, keep_weights, received)
    return cast(list[SimulationResult], results)


def _chunks(count: int, size: int) -> list[range]:
    return [range(start, min(start + size, count)) for start in range(0, count, size)]


def _collect(
    executor: Executor,
    chunks: Sequence[range],
    items: list[Graph],
    panel: MarketPanel | None,
    reference_pnls: ReferencePnls | None,
    keep_weights: bool,
    arrived: Callable[[int, SimulationResult], None],
) -> None:
    """Submit every chunk, then hand each result over as its chunk finishes."""
    pending: dict[Future[list[SimulationResult]], range] = {}
    try:
        for positions in chunks:
            graphs = [items[index] for index in positions]
            pending[executor.submit(_simulate_chunk, graphs, panel, reference_pnls, keep_weights)] = positions
        for future in as_completed(pending):
            for index, result in zip(pending[future], future.result(), strict=True):
                arrived(index, _received(result))
    finally:
        for future in pending:
            future.cancel()


def _simulate_chunk(
    graphs: list[Graph], panel: MarketPanel | None, reference_pnls: ReferencePnls | None, keep_weights: bool
) -> list[SimulationResult]:
    """A task: simulate a few graphs wherever the executor runs it, recording nothing there."""
    results = []
    for graph in graphs:
        result = simulate_signal(graph, data=panel, reference_pnls=reference_pnls, record_timing=False)
        if not keep_weights:
            result = dataclasses.replace(result, weights=_no_weights(result.weights.shape[1]))
        results.append(result)
    return results


def _no_weights(asset_count: int) -> npt.NDArray[np.float64]:
    empty = np.zeros((0, asset_count))
    empty.setflags(write=False)
    return empty


def _received(result: SimulationResult) -> SimulationResult:
    """A result as it arrives: arrays that crossed a process boundary become read-only again."""
    for series in (result.pnl, result.is_pnl, result.os_pnl, result.weights):
        if series.flags.writeable:
            series.setflags(write=False)
    return result


def _record(graph: Graph, result: SimulationResult) -> BacktestTimingRecord:
    return record_backtest_timing(
        graph,
        elapsed_seconds=result.backtest_elapsed_seconds,
        row_count=int(result.data_contract["day_count"]),
        max_row_elapsed_seconds=result.max_row_elapsed_seconds,
        frequency=str(result.data_contract["frequency"]),
    )
