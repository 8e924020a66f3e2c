"""The two evaluators of an expression graph, and the one place that chooses between them.

- ``"native"`` (the default) is the compiled engine of ``tallowmere._native``.
  It runs the graph as a program over the panel in one pass, day by day:
  each time-series node keeps its window's state from one day to the next
  (dyadic blocks of sums, means and spreads, sorted windows for ``ts_rank``),
  each cross-sectional node works on the day's row, and the day's weights and
  book figures follow at once. It reads the panel's arrays in place, releases
  the GIL for the whole run (threads simulate side by side), and times every
  day with a monotonic clock: ``max_row_seconds`` is the slowest day measured.
- ``"reference"`` is the numpy evaluator
  (:func:`~tallowmere.simulation.expression.evaluate_expression`): vectorised
  over days, in blocks of :data:`EVALUATION_BLOCK_DAYS`, each block's time
  shared equally among its days.

Both perform the same floating-point operations in the same order, so they
give identical values, ties and missing values (the test suite runs every
operator and random graphs through both).

:func:`resolve_engine` makes the choice: the engine a caller names
(``simulate_signal(graph, engine="reference")``), else the environment
variable :data:`ENGINE_VARIABLE` (``TALLOWMERE_SIMULATION_ENGINE=reference``
forces the reference for the whole process), else ``"native"``.
"""

from __future__ import annotations

import os
import time
from dataclasses import dataclass
from typing import Literal

import numpy as np

from tallowmere.simulation.expression import ExpressionNode, evaluate_expression
from tallowmere.simulation.market_panel import FloatArray, MarketPanel
from tallowmere.simulation.portfolio import DailyBook, daily_book, signal_weights

__all__ = [
    "ENGINES",
    "ENGINE_VARIABLE",
    "EVALUATION_BLOCK_DAYS",
    "BookEvaluation",
    "Engine",
    "Program",
    "compile_program",
    "evaluate_book",
    "evaluate_values",
    "resolve_engine",
]

Engine = Literal["native", "reference"]

ENGINES: tuple[Engine, ...] = ("native", "reference")
"""The evaluators, the default first."""

ENGINE_VARIABLE = "TALLOWMERE_SIMULATION_ENGINE"
"""The environment variable that picks the evaluator of every simulation that does not name one."""

EVALUATION_BLOCK_DAYS = 63
"""Days the reference evaluator takes together (a quarter of daily data); the unit of its per-day timing."""

Step = tuple[str, tuple[int, ...], int, float]
"""One node of a program: (operator, indices of its arguments, window, value)."""


def resolve_engine(engine: str | None = None) -> Engine:
    """The evaluator to use: ``engine`` if given, else :data:`ENGINE_VARIABLE`, else ``"native"``.

    Raises ``ValueError`` for any other name.
    """
    source = "engine" if engine is not None else ENGINE_VARIABLE
    name = engine if engine is not None else os.environ.get(ENGINE_VARIABLE, "").strip() or "native"
    if name == "native":
        return "native"
    if name == "reference":
        return "reference"
    raise ValueError(f"{source} must be one of {', '.join(ENGINES)}, got {name!r}")


@dataclass(frozen=True, slots=True)
class Program:
    """A compiled graph as the native engine runs it.

    ``steps`` holds the graph's nodes in evaluation order, every node after
    its arguments and each distinct subtree once (a graph that uses
    ``ts_mean(close, 20)`` twice computes it once); the last step is the
    root. A data leaf is the step ``("field", (), i, 0.0)``, which reads
    ``fields[i]``.
    """

    steps: tuple[Step, ...]
    fields: tuple[str, ...]


def compile_program(root: ExpressionNode) -> Program:
    """Lay out a checked graph as a :class:`Program`."""
    steps: list[Step] = []
    fields: list[str] = []
    index_of: dict[tuple[object, ...], int] = {}

    def place(node: ExpressionNode) -> int:
        operator = node.operator
        kind = operator.kind
        step: Step
        if kind == "data":
            name = operator.name
            if name not in fields:
                fields.append(name)
            field = fields.index(name)
            key: tuple[object, ...] = ("field", field)
            step = ("field", (), field, 0.0)
        elif kind == "constant":
            key = ("const", node.value.hex())  # 0.0 and -0.0 stay apart
            step = ("const", (), 0, node.value)
        else:
            arguments = tuple([place(child) for child in node.children])
            key = (operator.name, arguments, node.window)
            step = (operator.name, arguments, node.window, 0.0)
        index = index_of.get(key)
        if index is None:
            index = index_of[key] = len(steps)
            steps.append(step)
        return index

    place(root)
    return Program(tuple(steps), tuple(fields))


@dataclass(frozen=True, slots=True)
class BookEvaluation:
    """A graph evaluated and traded over a whole panel.

    ``weights`` are the daily weights (read-only, days × assets) and ``book``
    their daily figures; ``expression_seconds`` is the time spent evaluating
    the expression and ``max_row_seconds`` the slowest day (expression and
    weights).
    """

    weights: FloatArray
    book: DailyBook
    expression_seconds: float
    max_row_seconds: float


def evaluate_book(root: ExpressionNode, panel: MarketPanel, engine: Engine) -> BookEvaluation:
    """Evaluate the checked graph over the whole panel and trade it, with the given evaluator."""
    if engine == "native":
        return _native_book(root, panel)
    return _reference_book(root, panel)


def evaluate_values(root: ExpressionNode, panel: MarketPanel, engine: Engine) -> FloatArray:
    """The checked graph's values on every day of the panel (days × assets), with the given evaluator."""
    if engine == "reference":
        return evaluate_expression(root, panel, 0, panel.day_count)
    from tallowmere import _native

    program = compile_program(root)
    values = np.empty((panel.day_count, panel.asset_count))
    _native.evaluate_program(program.steps, _fields(program, panel), values=values)
    return values


def _fields(program: Program, panel: MarketPanel) -> tuple[FloatArray, ...]:
    """The program's matrices; a graph of constants still passes one, which gives the panel's shape."""
    return tuple(panel.field(name) for name in program.fields) or (panel.returns,)


def _native_book(root: ExpressionNode, panel: MarketPanel) -> BookEvaluation:
    from tallowmere import _native

    program = compile_program(root)
    weights = np.empty((panel.day_count, panel.asset_count))
    daily = np.empty((5, panel.day_count))
    expression_seconds, max_row_seconds = _native.evaluate_program(
        program.steps, _fields(program, panel), weights=weights, returns=panel.returns, daily=daily
    )
    weights.setflags(write=False)
    pnl, traded, net, gross, largest = daily
    return BookEvaluation(weights, DailyBook(pnl, traded, net, gross, largest), expression_seconds, max_row_seconds)


def _reference_book(root: ExpressionNode, panel: MarketPanel) -> BookEvaluation:
    """Evaluate block by block and turn every block into weights, timing each block."""
    weights = np.zeros((panel.day_count, panel.asset_count))
    expression_seconds = 0.0
    max_row_seconds = 0.0
    for start in range(0, panel.day_count, EVALUATION_BLOCK_DAYS):
        stop = min(start + EVALUATION_BLOCK_DAYS, panel.day_count)
        began = time.perf_counter()
        values = evaluate_expression(root, panel, start, stop)
        evaluated = time.perf_counter()
        weights[start:stop] = signal_weights(values)
        finished = time.perf_counter()
        expression_seconds += evaluated - began
        max_row_seconds = max(max_row_seconds, (finished - began) / (stop - start))
    weights.setflags(write=False)
    return BookEvaluation(weights, daily_book(weights, panel.returns), expression_seconds, max_row_seconds)
