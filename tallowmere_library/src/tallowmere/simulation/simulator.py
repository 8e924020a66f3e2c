"""Simulate a signal: evaluate its graph, trade it, measure it and record the backtest timing.

:func:`simulate_signal` is the local backtest a submission needs. It

1. checks the whole graph against the operator set (nothing is evaluated
   before every node passes);
2. evaluates the graph over the panel and turns each day's values into
   portfolio weights, with the evaluator :mod:`~tallowmere.simulation.engines`
   chooses (the compiled engine unless told otherwise);
3. earns each day's weights on the next day's returns;
4. measures the in-sample and out-of-sample periods and the mutual
   information with the reference PnLs;
5. records the backtest timing that ``submit_signal`` requires.

Timing: the whole backtest (steps 1 to 4, after the panel is at hand) is
measured with :func:`time.perf_counter`. The compiled engine times every day
(expression and weights) with a monotonic clock, and the slowest day
recorded is the slowest day measured; the numpy reference evaluates blocks of
days, and shares each block's time equally among its days.
"""

from __future__ import annotations

import time
from collections.abc import Mapping, Sequence
from dataclasses import dataclass, field
from typing import TypedDict

import numpy as np
import numpy.typing as npt

from tallowmere.simulation.backtest_timing import BacktestTimingRecord, record_backtest_timing
from tallowmere.simulation.dependence import largest_copula_mutual_information
from tallowmere.simulation.engines import EVALUATION_BLOCK_DAYS, Engine, evaluate_book, resolve_engine
from tallowmere.simulation.expression import ExpressionNode, compile_expression
from tallowmere.simulation.market_panel import FloatArray, MarketPanel
from tallowmere.simulation.reference_pnls import ReferencePnl, ReferencePnls, prepare_reference_pnls
from tallowmere.simulation.signal_statistics import period_statistics
from tallowmere.simulation.synthetic_market import default_panel

__all__ = [
    "EVALUATION_BLOCK_DAYS",
    "SimulationResult",
    "SubmissionArguments",
    "resolve_panel",
    "simulate_checked",
    "simulate_signal",
]

# perf_counter can return equal readings around a very short step; a timing
# is never reported below this many seconds.
_SHORTEST_TIMING = 1e-9


class SubmissionArguments(TypedDict):
    """What a simulation gives ``SignalServiceClient.submit_signal``, as keyword arguments."""

    is_stats: dict[str, float]
    is_pnl_mi: float
    expression_elapsed_seconds: float


@dataclass(frozen=True, eq=False)
class SimulationResult:
    """The outcome of :func:`simulate_signal`.

    ``is_stats`` and ``os_stats`` hold the statistics of the in-sample and
    out-of-sample periods (``sharpe``, ``turnover``, ``delta_exposure``,
    ``max_weight``, ``abs_weight_sum_mean``, ``correlation``), all finite.
    ``is_pnl_mi`` is the mutual information (nats) of the in-sample PnL with
    the most similar reference, 0.0 without references and ``math.inf`` for
    a copy. ``pnl`` is the daily PnL of every day of the panel, split into
    ``is_pnl`` and ``os_pnl``; ``weights`` the daily weights (days × assets).
    ``timing`` is the recorded backtest timing, None when recording was
    turned off. ``data_contract`` describes the panel simulated on.
    """

    is_stats: dict[str, float]
    os_stats: dict[str, float]
    is_pnl_mi: float
    expression_elapsed_seconds: float
    backtest_elapsed_seconds: float
    max_row_elapsed_seconds: float
    pnl: FloatArray = field(repr=False)
    is_pnl: FloatArray = field(repr=False)
    os_pnl: FloatArray = field(repr=False)
    weights: FloatArray = field(repr=False)
    timing: BacktestTimingRecord | None
    data_contract: dict[str, str | int]

    def submission_kwargs(self) -> SubmissionArguments:
        """The keyword arguments ``SignalServiceClient.submit_signal`` takes from a simulation.

        Returns ``{"is_stats": ..., "is_pnl_mi": ..., "expression_elapsed_seconds": ...}``
        with a fresh copy of ``is_stats``.
        """
        return {
            "is_stats": dict(self.is_stats),
            "is_pnl_mi": self.is_pnl_mi,
            "expression_elapsed_seconds": self.expression_elapsed_seconds,
        }


def resolve_panel(
    data: MarketPanel | Mapping[str, npt.ArrayLike] | None,
    frequency: str | None = None,
    in_sample_days: int | None = None,
) -> MarketPanel:
    """The panel ``simulate_signal`` runs on for its ``data``, ``frequency`` and ``in_sample_days``."""
    if isinstance(data, MarketPanel):
        if frequency is not None or in_sample_days is not None:
            raise ValueError(
                "frequency and in_sample_days apply only to data given as a mapping; "
                "a MarketPanel carries its own"
            )
        return data
    if data is None:
        if frequency is not None or in_sample_days is not None:
            raise ValueError("frequency and in_sample_days apply only to data given as a mapping")
        return default_panel()
    if isinstance(data, Mapping):
        return MarketPanel.from_fields(
            data, frequency="1d" if frequency is None else frequency, in_sample_days=in_sample_days
        )
    raise ValueError(
        f"data must be a MarketPanel, a mapping of field name to array, or None, got {type(data).__name__}"
    )


def simulate_signal(
    graph: Mapping[str, object],
    *,
    data: MarketPanel | Mapping[str, npt.ArrayLike] | None = None,
    reference_pnls: ReferencePnls | None = None,
    record_timing: bool = True,
    frequency: str | None = None,
    in_sample_days: int | None = None,
    engine: str | None = None,
) -> SimulationResult:
    """Backtest ``graph`` and return its statistics, PnL and recorded timing.

    ``data`` is the panel to simulate on: None for :func:`default_panel`, a
    :class:`MarketPanel`, or a mapping of field name to a days × assets array
    (see :meth:`MarketPanel.from_fields`; ``frequency`` and
    ``in_sample_days`` then set its row frequency, default ``"1d"``, and its
    split, default two thirds of the days). ``reference_pnls`` are the daily
    PnLs of other signals, as a sequence or a mapping of name to series,
    each covering every day of the panel or only its in-sample days; they
    set the ``correlation`` statistics and ``is_pnl_mi``.

    With ``record_timing`` (the default) the timing is recorded for
    ``graph``, after which ``require_recorded_backtest_timing(graph)``
    passes and the graph can be submitted.

    ``engine`` names the evaluator, ``"native"`` or ``"reference"`` (see
    :mod:`tallowmere.simulation.engines`); by default the environment
    variable ``TALLOWMERE_SIMULATION_ENGINE`` decides, else the compiled engine.

    Raises ``ValueError`` for a graph that does not check (naming the node),
    bad data or bad references, before anything is evaluated.
    """
    panel = resolve_panel(data, frequency, in_sample_days)
    chosen = resolve_engine(engine)
    began = time.perf_counter()
    root = compile_expression(graph, day_count=panel.day_count)
    references = prepare_reference_pnls(
        reference_pnls, day_count=panel.day_count, in_sample_days=panel.in_sample_days
    )
    checked = time.perf_counter() - began
    return simulate_checked(graph, root, panel, references, record_timing=record_timing, engine=chosen, checked_seconds=checked)


def simulate_checked(
    graph: Mapping[str, object],
    root: ExpressionNode,
    panel: MarketPanel,
    references: Sequence[ReferencePnl],
    *,
    record_timing: bool,
    engine: Engine,
    checked_seconds: float,
    keep_weights: bool = True,
) -> SimulationResult:
    """Backtest a graph already checked: :func:`simulate_signal` after its checks.

    ``root`` is ``compile_expression(graph)`` for ``panel``'s days,
    ``references`` the prepared reference PnLs and ``checked_seconds`` the
    time those checks took, which counts in the backtest's elapsed time.
    ``keep_weights`` False gives an empty 0 × assets ``weights``.
    """
    began = time.perf_counter()
    evaluation = evaluate_book(root, panel, engine)
    split, days = panel.in_sample_days, panel.day_count
    book = evaluation.book
    pnl = book.pnl
    is_pnl, os_pnl = pnl[:split], pnl[split:]
    is_stats = period_statistics(book, 0, split, [reference.in_sample for reference in references])
    os_stats = period_statistics(
        book,
        split,
        days,
        [reference.out_of_sample for reference in references if reference.out_of_sample is not None],
    )
    is_pnl_mi = largest_copula_mutual_information(is_pnl, [reference.in_sample for reference in references])
    backtest_seconds = max(checked_seconds + (time.perf_counter() - began), _SHORTEST_TIMING)
    max_row_seconds = max(evaluation.max_row_seconds, _SHORTEST_TIMING)

    timing: BacktestTimingRecord | None = None
    if record_timing:
        timing = record_backtest_timing(
            graph,
            elapsed_seconds=backtest_seconds,
            row_count=panel.day_count,
            max_row_elapsed_seconds=max_row_seconds,
            frequency=panel.frequency,
        )
    return SimulationResult(
        is_stats=is_stats,
        os_stats=os_stats,
        is_pnl_mi=is_pnl_mi,
        expression_elapsed_seconds=max(evaluation.expression_seconds, _SHORTEST_TIMING),
        backtest_elapsed_seconds=backtest_seconds,
        max_row_elapsed_seconds=max_row_seconds,
        pnl=pnl,
        is_pnl=is_pnl,
        os_pnl=os_pnl,
        weights=evaluation.weights if keep_weights else _no_weights(panel.asset_count),
        timing=timing,
        data_contract=panel.contract_projection(),
    )


def _no_weights(asset_count: int) -> FloatArray:
    empty = np.zeros((0, asset_count))
    empty.setflags(write=False)
    return empty
