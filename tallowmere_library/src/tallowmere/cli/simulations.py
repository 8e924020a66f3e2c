"""Simulating graphs for the command line, with a cache that makes re-runs send the same bodies.

A signal's body carries its simulation's figures, timings included, and its
derived idempotency key covers the body; a graph simulated anew measures new
timings and so gets a new key. The command line therefore keeps each graph's
simulation in a cache directory and reuses it: running ``submit`` (or
``batch``) again sends exactly the same body, and the service answers with
the submission it already stored instead of storing a second one.

An entry is keyed by the graph's fingerprint (equal graphs written with keys
in another order share it), the market data simulated on (a digest of the
panel's arrays and shape) and the simulator (the package version and a digest
of its source files), so a change of any of them simulates anew. Entries live
in ``$TALLOWMERE_CACHE_DIR/simulations`` (default
``$XDG_CACHE_HOME/tallowmere/simulations``, or ``~/.cache/tallowmere/simulations``),
one small JSON file each; delete the directory to forget them. ``--fresh``
simulates anew and replaces the entry.

A result taken from the cache still records its backtest timing in this
process (``tallowmere.simulation.backtest_timing``), as a simulation would,
so ``submit_signal`` accepts the graph.
"""

from __future__ import annotations

import hashlib
import json
import os
import tempfile
from collections.abc import Callable, Mapping, Sequence
from dataclasses import dataclass
from datetime import UTC, datetime
from importlib import resources
from pathlib import Path
from typing import Any, Final

import tallowmere
from tallowmere.simulation.backtest_timing import record_backtest_timing
from tallowmere.simulation.graph_complexity import graph_fingerprint
from tallowmere.simulation.simulator import SimulationResult, SubmissionArguments

CACHE_VARIABLE: Final = "TALLOWMERE_CACHE_DIR"
ENTRY_FORMAT: Final = 1
"""The version of an entry's layout; entries of another version are ignored."""

_PANEL_FIELDS: Final = ("open", "high", "low", "close", "volume", "returns", "vwap")


@dataclass(frozen=True)
class Simulation:
    """What the command line keeps of a simulation: both periods' statistics, the timings, the data's description.

    ``cached_at`` is when a result taken from the cache was first simulated
    (ISO-8601, UTC), None for a result simulated in this run.
    """

    is_stats: dict[str, float]
    os_stats: dict[str, float]
    is_pnl_mi: float
    expression_elapsed_seconds: float
    backtest_elapsed_seconds: float
    max_row_elapsed_seconds: float
    row_count: int
    frequency: str
    data_contract: dict[str, Any]
    simulated_at: str
    cached_at: str | None = None

    def submission_kwargs(self) -> SubmissionArguments:
        """The keyword arguments ``SignalServiceClient.submit_signal`` takes from a simulation."""
        return {
            "is_stats": dict(self.is_stats),
            "is_pnl_mi": self.is_pnl_mi,
            "expression_elapsed_seconds": self.expression_elapsed_seconds,
        }

    def record_timing(self, graph: Mapping[str, Any]) -> None:
        """Record this simulation's backtest timing for ``graph`` in this process, as the simulator does."""
        record_backtest_timing(
            graph,
            elapsed_seconds=self.backtest_elapsed_seconds,
            row_count=self.row_count,
            max_row_elapsed_seconds=self.max_row_elapsed_seconds,
            frequency=self.frequency,
        )

    def entry(self) -> dict[str, Any]:
        """The JSON form kept in the cache."""
        return {
            "is_stats": self.is_stats,
            "os_stats": self.os_stats,
            "is_pnl_mi": self.is_pnl_mi,
            "expression_elapsed_seconds": self.expression_elapsed_seconds,
            "backtest_elapsed_seconds": self.backtest_elapsed_seconds,
            "max_row_elapsed_seconds": self.max_row_elapsed_seconds,
            "row_count": self.row_count,
            "frequency": self.frequency,
            "data_contract": self.data_contract,
            "simulated_at": self.simulated_at,
        }

    @classmethod
    def from_entry(cls, entry: Mapping[str, Any]) -> Simulation:
        """Rebuild a simulation from its cache entry; `ValueError` (or `KeyError`/`TypeError`) when malformed."""
        statistics = {name: _float_map(entry[name]) for name in ("is_stats", "os_stats")}
        row_count = entry["row_count"]
        if isinstance(row_count, bool) or not isinstance(row_count, int):
            raise ValueError("row_count is not an integer")
        return cls(
            is_stats=statistics["is_stats"],
            os_stats=statistics["os_stats"],
            is_pnl_mi=float(entry["is_pnl_mi"]),
            expression_elapsed_seconds=float(entry["expression_elapsed_seconds"]),
            backtest_elapsed_seconds=float(entry["backtest_elapsed_seconds"]),
            max_row_elapsed_seconds=float(entry["max_row_elapsed_seconds"]),
            row_count=row_count,
            frequency=str(entry["frequency"]),
            data_contract=dict(entry["data_contract"]),
            simulated_at=str(entry["simulated_at"]),
            cached_at=str(entry["simulated_at"]),
        )


def _float_map(value: Any) -> dict[str, float]:
    if not isinstance(value, dict):
        raise ValueError("statistics are not an object")
    return {str(key): float(item) for key, item in value.items()}


def default_cache_directory(environ: Mapping[str, str] | None = None) -> Path:
    """The simulation cache directory, ``simulations`` under the first of ``$TALLOWMERE_CACHE_DIR``,
    ``$XDG_CACHE_HOME/tallowmere`` and ``~/.cache/tallowmere``."""
    environ = os.environ if environ is None else environ
    root = environ.get(CACHE_VARIABLE)
    if root:
        return Path(root) / "simulations"
    xdg = environ.get("XDG_CACHE_HOME")
    base = Path(xdg) if xdg else Path.home() / ".cache"
    return base / "tallowmere" / "simulations"


def _simulator_digest() -> str:
    digest = hashlib.sha256(tallowmere.__version__.encode())
    package = resources.files("tallowmere.simulation")
    for item in sorted(package.iterdir(), key=lambda entry: entry.name):
        if item.name.endswith(".py"):
            digest.update(item.name.encode())
            digest.update(item.read_bytes())
    return digest.hexdigest()


def _default_data_digest() -> str:
    from tallowmere.simulation import default_panel

    panel = default_panel()
    digest = hashlib.sha256(json.dumps(panel.contract_projection(), sort_keys=True).encode())
    for name in _PANEL_FIELDS:
        values = getattr(panel, name)
        digest.update(f"{name}:{values.dtype.str}:{values.shape}".encode())
        digest.update(values.tobytes())
    return digest.hexdigest()


class SimulationCache:
    """Simulations kept on disk, one JSON file per (graph, data, simulator).

    ``read`` False (``--fresh``) never takes a result from the cache but
    still stores new ones. A cache that cannot be written is reported once to
    ``warn`` and then left alone.
    """

    def __init__(
        self, directory: Path, *, read: bool = True, warn: Callable[[str], None] = lambda message: None
    ) -> None:
        """Keep entries under ``directory``."""
        self.directory = directory
        self.read = read
        self._warn = warn
        self._writable = True
        self._context: str | None = None

    def _key(self, graph: Mapping[str, Any]) -> str:
        if self._context is None:
            self._context = f"{ENTRY_FORMAT}:{_simulator_digest()}:{_default_data_digest()}"
        return hashlib.sha256(f"{self._context}:{graph_fingerprint(graph)}".encode()).hexdigest()

    def _path(self, key: str) -> Path:
        return self.directory / key[:2] / f"{key}.json"

    def load(self, graph: Mapping[str, Any]) -> Simulation | None:
        """The cached simulation of ``graph``, None when there is none (or ``read`` is off, or it is unreadable)."""
        if not self.read:
            return None
        key = self._key(graph)
        try:
            entry = json.loads(self._path(key).read_text(encoding="utf-8"))
            if entry.get("format") != ENTRY_FORMAT or entry.get("key") != key:
                return None
            return Simulation.from_entry(entry)
        except (OSError, ValueError, KeyError, TypeError, AttributeError):
            return None

    def store(self, graph: Mapping[str, Any], simulation: Simulation) -> None:
        """Keep ``simulation`` as the entry of ``graph`` (written whole or not at all)."""
        if not self._writable:
            return
        key = self._key(graph)
        path = self._path(key)
        document = {"format": ENTRY_FORMAT, "key": key, **simulation.entry()}
        try:
            path.parent.mkdir(parents=True, exist_ok=True)
            descriptor, temporary = tempfile.mkstemp(dir=path.parent, prefix=f".{path.name}.")
            try:
                with os.fdopen(descriptor, "w", encoding="utf-8") as handle:
                    json.dump(document, handle)
                os.replace(temporary, path)
            except BaseException:
                Path(temporary).unlink(missing_ok=True)
                raise
        except OSError as exc:
            self._writable = False
            self._warn(f"cannot write the simulation cache at {self.directory} ({exc.strerror or exc}); "
                       "re-runs will simulate anew")  # fmt: skip


@dataclass(frozen=True)
class SimulationProblem:
    """Why a graph could not be simulated (the simulator's message, which names the node)."""

    message: str


MAX_GRAPH_NESTING: Final = 200
"""Levels of nesting a graph may have; any era allows far fewer, and deeper ones are refused before simulating."""


def nesting_problem(value: Any, limit: int = MAX_GRAPH_NESTING) -> str | None:
    """Why ``value`` nests too deeply to be a graph (counted without recursion), or None."""
    stack: list[tuple[Any, int]] = [(value, 1)]
    while stack:
        item, depth = stack.pop()
        if depth > limit:
            return f"nested more than {limit} levels deep; no era accepts such a graph"
        if isinstance(item, dict):
            stack.extend((child, depth + 1) for child in item.values() if isinstance(child, (dict, list)))
        elif isinstance(item, list):
            stack.extend((child, depth + 1) for child in item if isinstance(child, (dict, list)))
    return None


def _now() -> str:
    return datetime.now(UTC).isoformat(timespec="seconds").replace("+00:00", "Z")


def _simulation_of(result: SimulationResult) -> Simulation | SimulationProblem:
    timing = result.timing
    if timing is None:  # simulations record by default; no timing means no submission
        return SimulationProblem("the simulator recorded no backtest timing")
    return Simulation(
        is_stats=dict(result.is_stats),
        os_stats=dict(result.os_stats),
        is_pnl_mi=result.is_pnl_mi,
        expression_elapsed_seconds=result.expression_elapsed_seconds,
        backtest_elapsed_seconds=result.backtest_elapsed_seconds,
        max_row_elapsed_seconds=result.max_row_elapsed_seconds,
        row_count=timing.row_count,
        frequency=timing.frequency,
        data_contract=dict(result.data_contract),
        simulated_at=_now(),
    )


def _simulate_anew(graph: Mapping[str, Any]) -> Simulation | SimulationProblem:
    from tallowmere.simulation import simulate_signal

    try:
        return _simulation_of(simulate_signal(graph))
    except ValueError as exc:
        return SimulationProblem(str(exc))
    except RecursionError:
        return SimulationProblem(f"the graph is nested too deeply (more than {MAX_GRAPH_NESTING} levels)")


def _check_problem(graph: Mapping[str, Any], day_count: int) -> SimulationProblem | None:
    from tallowmere.simulation.expression import compile_expression

    try:
        compile_expression(graph, day_count=day_count)
    except ValueError as exc:
        return SimulationProblem(str(exc))
    except RecursionError:
        return SimulationProblem(f"the graph is nested too deeply (more than {MAX_GRAPH_NESTING} levels)")
    return None


SIMULATION_WORKERS: Final = max(1, min(os.cpu_count() or 1, 8))
"""Threads that simulate side by side (the compiled engine runs without the GIL)."""


def _simulate_each(
    graphs: Sequence[Mapping[str, Any]], on_result: Callable[[int, Simulation | SimulationProblem], None]
) -> None:
    """Simulate every graph anew, telling ``on_result`` each one's position and outcome as it is done.

    Graphs that do not check are reported at once; the others are simulated
    on ``SIMULATION_WORKERS`` threads, each result reported (and so cached)
    as it arrives, so that an interrupted run keeps every finished graph.
    When simulating fails, the graphs without a result are simulated again
    one at a time, to tell which graph failed and why.
    """
    from tallowmere.simulation import default_panel, simulate_signals

    day_count = default_panel().day_count
    runnable: list[int] = []
    for position, graph in enumerate(graphs):
        problem = _check_problem(graph, day_count)
        if problem is None:
            runnable.append(position)
        else:
            on_result(position, problem)
    reported: set[int] = set()

    def arrived(index: int, result: SimulationResult) -> None:
        reported.add(index)
        on_result(runnable[index], _simulation_of(result))

    try:
        simulate_signals(
            [graphs[position] for position in runnable],
            workers=SIMULATION_WORKERS,
            keep_weights=False,
            on_result=arrived,
        )
    except (ValueError, RecursionError):
        for index, position in enumerate(runnable):
            if index not in reported:
                on_result(position, _simulate_anew(graphs[position]))


def simulate_graphs(
    graphs: Sequence[Mapping[str, Any]],
    cache: SimulationCache | None,
    on_progress: Callable[[int], None] = lambda done: None,
) -> list[Simulation | SimulationProblem]:
    """Simulate ``graphs`` on the embedded market data, each result (or problem) at its graph's position.

    Results come from ``cache`` when it holds them (their timings are then
    recorded in this process); the others are simulated and stored in it as
    each one is done, so an interrupted run keeps what it finished.
    ``on_progress`` is told how many graphs are done. This is the one place
    that simulates many candidates.
    """
    results: list[Simulation | SimulationProblem | None] = [None] * len(graphs)
    misses: list[int] = []
    for position, graph in enumerate(graphs):
        nesting = nesting_problem(graph)
        cached = cache.load(graph) if cache is not None and nesting is None else None
        if nesting is not None:
            results[position] = SimulationProblem(f"the graph is {nesting}")
        elif cached is not None:
            cached.record_timing(graph)
            results[position] = cached
        else:
            misses.append(position)
    done = len(graphs) - len(misses)
    if done:
        on_progress(done)

    def finished(miss: int, outcome: Simulation | SimulationProblem) -> None:
        nonlocal done
        position = misses[miss]
        if isinstance(outcome, Simulation) and cache is not None:
            cache.store(graphs[position], outcome)
        results[position] = outcome
        done += 1
        on_progress(done)

    _simulate_each([graphs[position] for position in misses], finished)
    return [result if result is not None else SimulationProblem("not simulated") for result in results]
