"""Checking an expression graph against the operator set, and evaluating it.

:func:`compile_expression` checks the whole graph before anything is
evaluated: every node's operator, arity and parameters. An error names the
node by its path and operator, for example::

    graph node at root.args[0] (ts_mean): 'window' must be an integer >= 1, got -3

:func:`evaluate_expression` then computes the graph over any run of panel
rows. Each time-series node reads as many earlier rows as its window needs,
so a run of days is evaluated on its own from just enough history; no row
ever reads a later row.
"""

from __future__ import annotations

import difflib
import math
from collections.abc import Mapping
from dataclasses import dataclass

import numpy as np

from tallowmere.simulation.graph_complexity import measure_graph_complexity
from tallowmere.simulation.market_panel import FloatArray, MarketPanel
from tallowmere.simulation.operators import OPERATORS, Operator

__all__ = ["MAX_GRAPH_DEPTH", "ExpressionNode", "compile_expression", "evaluate_expression"]

MAX_GRAPH_DEPTH = 256
"""The deepest graph the simulator evaluates; far beyond any era's limit."""


@dataclass(frozen=True, slots=True)
class ExpressionNode:
    """A checked graph node, ready to evaluate.

    ``window`` is 0 and ``value`` 0.0 for operators without those parameters.
    """

    operator: Operator
    children: tuple[ExpressionNode, ...]
    window: int
    value: float


def _node_error(path: str, op: object, problem: str) -> ValueError:
    return ValueError(f"graph node at {path} ({op}): {problem}")


def _unknown_operator_message(op: str) -> str:
    suggestion = difflib.get_close_matches(op, list(OPERATORS), n=1)
    hint = f" (did you mean {suggestion[0]!r}?)" if suggestion else ""
    data_fields = ", ".join(name for name, item in OPERATORS.items() if item.kind == "data")
    others = ", ".join(name for name, item in OPERATORS.items() if item.kind != "data")
    return f"unknown operator {op!r}{hint}; market data fields: {data_fields}; operators: {others}"


# Where a node sits: "root", or (parent's location, argument index). The
# path text is built only for an error message.
_Location = str | tuple["_Location", int]


def _path(location: _Location) -> str:
    indices: list[int] = []
    while not isinstance(location, str):
        location, index = location
        indices.append(index)
    return location + "".join(f".args[{index}]" for index in reversed(indices))


def _window(node: Mapping[str, object], location: _Location, operator: Operator, day_count: int) -> int:
    window = node["window"]
    if isinstance(window, bool) or not isinstance(window, int) or window < operator.min_window:
        raise _node_error(
            _path(location), operator.name, f"'window' must be an integer >= {operator.min_window}, got {window!r}"
        )
    if window > day_count:
        raise _node_error(_path(location), operator.name, f"'window' {window} is longer than the panel's {day_count} days")
    return window


def _constant(node: Mapping[str, object], location: _Location, operator: Operator) -> float:
    value = node["value"]
    if isinstance(value, bool) or not isinstance(value, (int, float)) or not math.isfinite(value):
        raise _node_error(_path(location), operator.name, f"'value' must be a finite number, got {value!r}")
    return float(value)


# Plain dictionaries for the lookups made on every node.
_OPERATORS_BY_NAME: dict[str, Operator] = dict(OPERATORS)
_PARAMETERS: dict[str, tuple[str, ...]] = {name: operator.parameters for name, operator in OPERATORS.items()}


def _check_parameters(node: Mapping[str, object], path: str, op: str, parameters: tuple[str, ...]) -> None:
    given = {key for key in node if key not in ("op", "args")}
    missing = [name for name in parameters if name not in given]
    if missing:
        raise _node_error(path, op, f"missing required parameter {missing[0]!r}")
    unexpected = sorted(str(key) for key in given if key not in parameters)
    if unexpected:
        accepted = ", ".join(repr(name) for name in parameters) or "no parameters"
        raise _node_error(path, op, f"unexpected parameter {unexpected[0]!r}; {op} takes {accepted}")


def _compile_node(node: object, location: _Location, day_count: int) -> ExpressionNode:
    if type(node) is not dict and not isinstance(node, Mapping):
        raise ValueError(
            f"graph node at {_path(location)}: a node must be an object (dict), got {type(node).__name__}"
        )
    op = node.get("op")
    if type(op) is not str and not isinstance(op, str):
        raise ValueError(f"graph node at {_path(location)}: 'op' must be a non-empty string")
    operator = _OPERATORS_BY_NAME.get(op)
    if operator is None:
        raise _node_error(_path(location), op, _unknown_operator_message(op))

    args = node.get("args", ())
    if type(args) is not list and not isinstance(args, (list, tuple)):
        raise _node_error(_path(location), op, f"'args' must be a list of nodes, got {type(args).__name__}")
    if len(args) != operator.arity:
        expected = "no arguments" if operator.arity == 0 else f"{operator.arity} argument(s)"
        raise _node_error(_path(location), op, f"expects {expected}, got {len(args)}")

    parameters = _PARAMETERS[op]
    # Exactly "op", the parameters and maybe "args": nothing missing and nothing more.
    exact = len(node) == 1 + len(parameters) + ("args" in node)
    for name in parameters:
        exact = exact and name in node
    if not exact:
        _check_parameters(node, _path(location), op, parameters)

    window = _window(node, location, operator, day_count) if operator.min_window else 0
    value = _constant(node, location, operator) if operator.kind == "constant" else 0.0
    children = tuple([_compile_node(child, (location, index), day_count) for index, child in enumerate(args)])
    return ExpressionNode(operator, children, window, value)


def compile_expression(graph: object, *, day_count: int) -> ExpressionNode:
    """Check ``graph`` completely and return its root node, ready to evaluate.

    ``day_count`` is the length of the panel the graph will run on: no
    ``window`` may exceed it. Raises ``ValueError`` naming the first
    offending node (depth first, in argument order).
    """
    if not isinstance(graph, Mapping):
        raise ValueError(f"graph must be an object (dict) with an 'op' key, got {type(graph).__name__}")
    depth = measure_graph_complexity(graph).depth
    if depth > MAX_GRAPH_DEPTH:
        raise ValueError(f"graph is {depth} levels deep; the simulator evaluates at most {MAX_GRAPH_DEPTH}")
    return _compile_node(graph, "root", day_count)


def _evaluate(node: ExpressionNode, panel: MarketPanel, first: int, stop: int) -> FloatArray:
    """Evaluate ``node`` for panel rows ``first`` to ``stop``, reading its children from further back."""
    operator = node.operator
    if operator.kind == "data":
        return panel.field(operator.name)[first:stop]
    if operator.kind == "constant":
        return np.full((stop - first, panel.asset_count), node.value)
    child_first = max(0, first - operator.lookback(node.window))
    inputs = tuple(_evaluate(child, panel, child_first, stop) for child in node.children)
    assert operator.kernel is not None
    result = operator.kernel(inputs, node.window, child_first)[first - child_first :]
    result[~np.isfinite(result)] = np.nan
    return result


def evaluate_expression(root: ExpressionNode, panel: MarketPanel, start: int, stop: int) -> FloatArray:
    """Evaluate the compiled graph for panel rows ``start`` to ``stop`` (exclusive).

    The result has one row per day in that range and equals the matching rows
    of an evaluation over the whole panel (up to rounding in the last places):
    each time-series node reads just as many earlier rows as its window needs,
    and never a row after ``stop``.
    """
    if not 0 <= start < stop <= panel.day_count:
        raise ValueError(f"row range {start}:{stop} is outside the panel's {panel.day_count} days")
    with np.errstate(all="ignore"):
        return _evaluate(root, panel, start, stop)
