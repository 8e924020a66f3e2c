"""Reading graphs and batches from files.

A graph file holds one expression graph as a JSON object (see the simulation
docs for the format). A batch file is JSON Lines: one JSON object per line,
either a bare graph (it has ``"op"``) or an item with a ``"graph"`` and
options of its own, for example::

    {"op": "rank", "args": [{"op": "neg", "args": [{"op": "returns"}]}]}
    {"graph": {"op": "rank", "args": [{"op": "volume"}]}, "signal_pool_name": "reversal", "idempotency_key": "vol-1"}

Blank lines are skipped. ``-`` reads standard input. Numbers must be finite:
``NaN`` and ``Infinity`` are refused, as the service refuses them.
"""

from __future__ import annotations

import json
import sys
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any, Final

from tallowmere.cli.errors import UsageError
from tallowmere.cli.simulations import MAX_GRAPH_NESTING, nesting_problem

ITEM_OPTIONS: Final = (
    "named_universe",
    "signal_pool_name",
    "market_id",
    "era_number",
    "idempotency_key",
    "metaparameters",
)
"""The options a batch item may carry beside its graph."""

_POSITIVE_INT_OPTIONS: Final = ("market_id", "era_number")
_TEXT_OPTIONS: Final = ("named_universe", "signal_pool_name", "idempotency_key")
_TOO_DEEP: Final = f"nested more than {MAX_GRAPH_NESTING} levels deep; no era accepts such a graph"


@dataclass(frozen=True)
class BatchEntry:
    """One line of a batch file: where it was, its graph and the options it set."""

    line: int
    graph: dict[str, Any]
    options: dict[str, Any] = field(default_factory=dict)


def _refuse_constant(name: str) -> float:
    raise ValueError(f"{name} is not allowed; numbers must be finite")


def _parse_json(text: str) -> Any:
    return json.loads(text, parse_constant=_refuse_constant)


def _read_text(path: str) -> str:
    if path == "-":
        return sys.stdin.read()
    try:
        return Path(path).read_text(encoding="utf-8")
    except FileNotFoundError:
        raise UsageError(f"{path}: no such file") from None
    except IsADirectoryError:
        raise UsageError(f"{path}: is a directory, not a file") from None
    except UnicodeDecodeError:
        raise UsageError(f"{path}: not UTF-8 text") from None
    except OSError as exc:
        raise UsageError(f"{path}: cannot be read: {exc.strerror or exc}") from None


def _source_name(path: str) -> str:
    return "standard input" if path == "-" else path


def _check_nesting(name: str, document: Any) -> None:
    problem = nesting_problem(document)
    if problem is not None:
        raise UsageError(f"{name}: {problem}")


def read_graph_file(path: str) -> dict[str, Any]:
    """Return the graph held by the JSON file ``path`` (``-``: standard input); `UsageError` when unusable."""
    text = _read_text(path)
    name = _source_name(path)
    try:
        graph = _parse_json(text)
    except json.JSONDecodeError as exc:
        raise UsageError(f"{name}: not valid JSON (line {exc.lineno}, column {exc.colno}: {exc.msg})") from None
    except RecursionError:
        raise UsageError(f"{name}: {_TOO_DEEP}") from None
    except ValueError as exc:
        raise UsageError(f"{name}: {exc}") from None
    if not isinstance(graph, dict):
        raise UsageError(f"{name}: a graph file must hold one JSON object, got {_json_kind(graph)}")
    _check_nesting(name, graph)
    return graph


def _json_kind(value: Any) -> str:
    if isinstance(value, list):
        return "an array"
    if isinstance(value, str):
        return "a string"
    if value is None:
        return "null"
    if isinstance(value, bool):
        return "a boolean"
    return "a number"


class _InvalidLine(Exception):
    """A line that is not a usable batch entry (message without the line number)."""


def _entry(document: Any, line: int) -> BatchEntry:
    if not isinstance(document, dict):
        kind = _json_kind(document)
        raise _InvalidLine(f"expected a JSON object (a graph or an item with a graph), got {kind}")
    if "op" in document and "graph" in document:
        raise _InvalidLine("has both 'op' and 'graph'; write a bare graph or an item with a graph")
    if "op" in document:
        return BatchEntry(line=line, graph=document)
    if "graph" not in document:
        raise _InvalidLine("neither a graph (no 'op') nor an item (no 'graph')")
    graph = document["graph"]
    if not isinstance(graph, dict):
        raise _InvalidLine(f"'graph' must be a JSON object, got {_json_kind(graph)}")
    unknown = sorted(key for key in document if key != "graph" and key not in ITEM_OPTIONS)
    if unknown:
        allowed = ", ".join(("graph", *ITEM_OPTIONS))
        raise _InvalidLine(f"unknown item key(s) {', '.join(unknown)}; allowed: {allowed}")
    options = {key: document[key] for key in ITEM_OPTIONS if key in document and document[key] is not None}
    for key in _POSITIVE_INT_OPTIONS:
        value = options.get(key)
        if value is not None and (isinstance(value, bool) or not isinstance(value, int) or value < 1):
            raise _InvalidLine(f"{key} must be a positive integer, got {json.dumps(value)}")
    for key in _TEXT_OPTIONS:
        value = options.get(key)
        if value is not None and (not isinstance(value, str) or not value.strip()):
            raise _InvalidLine(f"{key} must be a non-empty string, got {json.dumps(value)}")
    metaparameters = options.get("metaparameters")
    if metaparameters is not None and not isinstance(metaparameters, dict):
        raise _InvalidLine(f"metaparameters must be a JSON object, got {_json_kind(metaparameters)}")
    return BatchEntry(line=line, graph=graph, options=options)


@dataclass(frozen=True)
class LineProblem:
    """Why one line of a batch file cannot be sent.

    ``stage`` names the check that found it: ``json`` (not JSON), ``item``
    (not a graph or a well-formed item), ``options`` (no pool or universe),
    ``simulation`` (the simulator refused the graph), ``era`` (an unknown
    market, era or pool) or ``check`` (the client's own checks: the era's
    gates, graph limits, timing budgets).
    """

    line: int
    stage: str
    message: str

    def text(self) -> str:
        """``line 3: <message>``."""
        return f"line {self.line}: {self.message}"


@dataclass
class BatchFile:
    """A batch file read in one pass: its usable entries and the problems of the other lines."""

    name: str
    entries: list[BatchEntry]
    problems: list[LineProblem]

    @property
    def line_count(self) -> int:
        """The lines holding something (blank lines are not counted)."""
        return len(self.entries) + len(self.problems)


def read_batch_file(path: str) -> BatchFile:
    """Read the JSON Lines file ``path`` (``-``: standard input), checking every line.

    Lines that are not usable are returned as problems, not raised: one
    pass finds them all. `UsageError` only when the file cannot be read or
    holds nothing.
    """
    text = _read_text(path)
    name = _source_name(path)
    batch = BatchFile(name=name, entries=[], problems=[])
    for number, line in enumerate(text.splitlines(), start=1):
        if not line.strip():
            continue
        try:
            document = _parse_json(line)
        except json.JSONDecodeError as exc:
            batch.problems.append(LineProblem(number, "json", f"not valid JSON (column {exc.colno}: {exc.msg})"))
            continue
        except RecursionError:
            batch.problems.append(LineProblem(number, "json", _TOO_DEEP))
            continue
        except ValueError as exc:
            batch.problems.append(LineProblem(number, "json", str(exc)))
            continue
        nesting = nesting_problem(document)
        if nesting is not None:
            batch.problems.append(LineProblem(number, "item", nesting))
            continue
        try:
            batch.entries.append(_entry(document, number))
        except _InvalidLine as exc:
            batch.problems.append(LineProblem(number, "item", str(exc)))
    if not batch.line_count:
        raise UsageError(f"{name}: holds no graphs")
    return batch
