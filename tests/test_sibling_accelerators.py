"""The compiled sibling functions against their Python reference implementations.

Random inputs of every shape (nested and shared graphs, cycles, non-str keys,
NaN and infinities, bools, subclasses of the built-in types, huge integers,
deep graphs) must give the same result or the same error from both; replaced
module globals, mutated graphs and hostile objects must not make them differ,
crash or leak.
"""

from __future__ import annotations

import gc
import hashlib
import json
import math
import os
import subprocess
import sys
import types
from collections.abc import Callable
from pathlib import Path
from typing import Any

import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

import tallowmere._accelerate as accelerate
import tallowmere.submit as submit
from tallowmere import _native
from tallowmere.simulation import backtest_timing, graph_complexity, mi_contract, named_universe
from tallowmere.submissions import pool_identity, threshold_gates

from sibling_support import outcome

MODULES = {module.__name__: module for module in (graph_complexity, mi_contract, named_universe, threshold_gates,
                                                  pool_identity, backtest_timing)}  # fmt: skip


def both(module: types.ModuleType, name: str) -> tuple[Callable[..., Any], Callable[..., Any]]:
    found = accelerate.implementations(module.__name__)
    return found["compiled"][name], found["python"][name]


def shown(value: Any) -> str:
    try:
        return repr(value)
    except ValueError:  # an int beyond the digits repr() may print
        return repr(value.__class__) + str(sys.getsizeof(value))


def same(compiled: tuple[str, Any], python: tuple[str, Any]) -> bool:
    """Equal outcomes: the same error, or results of one type with one repr (NaN included)."""
    if compiled[0] != python[0]:
        return False
    if compiled[0] == "raised":
        return compiled[1] == python[1]
    return type(compiled[1]) is type(python[1]) and shown(compiled[1]) == shown(python[1])


def assert_agree(module: types.ModuleType, name: str, *args: Any, **kwargs: Any) -> tuple[str, Any]:
    compiled, python = both(module, name)
    expected = outcome(python, *args, **kwargs)
    got = outcome(compiled, *args, **kwargs)
    assert same(got, expected), (got, expected)
    return got


# ---- selection and the switch ------------------------------------------------------------------------


def test_every_module_uses_the_implementation_the_switch_selects() -> None:
    switched_off = os.environ.get(accelerate.PURE_PYTHON_VARIABLE, "") not in ("", "0")
    assert accelerate.ACCELERATED is not switched_off
    for module_name, module in MODULES.items():
        for name, python in accelerate.implementations(module_name)["python"].items():
            assert isinstance(python, types.FunctionType)
            selected = getattr(module, name)
            assert selected is (python if switched_off else getattr(_native, name))
    # tallowmere.submit bound the selected functions when it was imported.
    assert submit.measure_graph_complexity is graph_complexity.measure_graph_complexity
    assert submit._has_non_finite_number is mi_contract._has_non_finite_number
    assert submit._shared_selected_signal_pool_from_era_config is pool_identity.selected_signal_pool_from_era_config


SUBMISSION_SCRIPT = """
import json, sys
from tallowmere import _accelerate
from tallowmere.simulation import backtest_timing, graph_complexity
from tallowmere.submit import SignalServiceClient

sys.path.insert(0, sys.argv[1])
from submit_support import ERA_CATALOG, json_answer

graph = {"op": "rank", "args": [{"op": "ts_mean", "window": 5, "args": [{"op": "close"}]}]}
backtest_timing.record_backtest_timing(graph, elapsed_seconds=0.5, row_count=10, max_row_elapsed_seconds=0.01,
                                       frequency="1d")
sent = []

class Transport:
    def get(self, path, *, headers):
        return json_answer(200, ERA_CATALOG)

    def post(self, path, *, content, headers):
        sent.append(json.loads(content))
        return json_answer(202, {"submission_id": "s-1"})

client = SignalServiceClient("http://127.0.0.1:9", "token", transport=Transport())
result = client.submit_signal(graph, "top300", signal_pool_name="momentum", is_pnl_mi=0.1,
                              is_stats={"sharpe": 1.0, "turnover": 0.1, "correlation": 0.1},
                              expression_elapsed_seconds=0.5)
print(json.dumps({"accelerated": _accelerate.ACCELERATED,
                  "python_functions": type(graph_complexity.graph_fingerprint).__name__ == "function",
                  "error": result.error, "body": sent}))
"""


def run_submission(pure_python: str | None) -> dict[str, Any]:
    environment = {k: v for k, v in os.environ.items() if k != accelerate.PURE_PYTHON_VARIABLE}
    if pure_python is not None:
        environment[accelerate.PURE_PYTHON_VARIABLE] = pure_python
    done = subprocess.run([sys.executable, "-c", SUBMISSION_SCRIPT, str(Path(__file__).parent)], env=environment,
                          capture_output=True, text=True, timeout=120, check=True)  # fmt: skip
    answer: dict[str, Any] = json.loads(done.stdout)
    return answer


def test_switch_turns_the_accelerators_off_and_submissions_stay_the_same() -> None:
    accelerated = run_submission(None)
    assert accelerated["accelerated"] is True and accelerated["python_functions"] is False
    assert run_submission("0")["accelerated"] is True
    pure = run_submission("1")
    assert pure["accelerated"] is False and pure["python_functions"] is True
    assert accelerated["error"] is None and accelerated["body"] == pure["body"]
    assert accelerated["body"][0]["graph_node_count"] == 3


# ---- random inputs ---------------------------------------------------------------------------------------

# Speed is for the benchmarks: no example is held to a time limit, however busy the machine.
UNTIMED = settings(deadline=None, suppress_health_check=[HealthCheck.too_slow])


class Text(str):
    pass


class Integer(int):
    pass


class Real(float):
    pass


class Mapping(dict):  # type: ignore[type-arg]
    pass


class Sequence(list):  # type: ignore[type-arg]
    pass


class Opaque:
    """A value of no JSON type, with a stable repr."""

    def __repr__(self) -> str:
        return "Opaque()"


any_text = st.text(st.characters(exclude_categories=()), max_size=12)
numbers = st.one_of(
    st.integers(),
    st.sampled_from([2**63 - 1, 2**63, -(2**63), -(2**63) - 1, 2**200]),
    st.builds(pow, st.just(10), st.just(4400)),  # beyond the digits int() may convert
    st.floats(),
    st.builds(Integer, st.integers(-5, 5)),
    st.builds(Real, st.floats()),
)
scalars = st.one_of(st.none(), st.booleans(), numbers, any_text, st.builds(Text, any_text), st.just(Opaque()),
                    st.just(b"bytes"))  # fmt: skip
keys = st.one_of(any_text, any_text, st.integers(-3, 3), st.floats(), st.booleans(), st.none(),
                 st.builds(Text, any_text), st.tuples(st.integers(0, 2)))  # fmt: skip
json_like = st.recursive(
    scalars,
    lambda children: st.one_of(
        st.lists(children, max_size=4),
        st.lists(children, max_size=3).map(tuple),
        st.lists(children, max_size=3).map(Sequence),
        st.dictionaries(any_text, children, max_size=4),
        st.dictionaries(keys, children, max_size=3),
        st.dictionaries(any_text, children, max_size=3).map(Mapping),
    ),
    max_leaves=25,
)


def node(children: st.SearchStrategy[Any] | None = None) -> st.SearchStrategy[Any]:
    """Nodes that are mostly well formed: an op, parameters, children under "args"."""
    op = st.one_of(st.sampled_from(["rank", "ts_mean", "close"]), st.sampled_from(["", None, 5]),
                   st.builds(Text, st.just("neg")))  # fmt: skip
    params = st.dictionaries(st.sampled_from(["window", "lag", "name", "é", "\x00k"]) | keys, scalars, max_size=3)
    malformed = st.one_of(st.sampled_from([None, "x", ()]), st.builds(dict), st.builds(list))  # fresh: they get mutated
    args = malformed if children is None else st.one_of(
        st.lists(children, min_size=1, max_size=3), st.lists(children, min_size=1, max_size=2).map(tuple),
        st.lists(children, max_size=2).map(Sequence), malformed)  # fmt: skip

    @st.composite
    def build(draw: st.DrawFn) -> Any:
        made: dict[Any, Any] = {}
        if draw(st.integers(0, 9)) > 0:
            made["op"] = draw(op)
        made.update(draw(params))
        if draw(st.booleans()):
            made["args"] = draw(args)
        kind = draw(st.integers(0, 19))
        return Mapping(made) if kind == 0 else made

    return build()


leaves = node() | scalars
graphs = st.recursive(leaves, node, max_leaves=12)


def dict_nodes(graph: Any) -> list[dict[Any, Any]]:
    found: list[dict[Any, Any]] = []
    pending, seen = [graph], set()
    while pending:
        item = pending.pop()
        if isinstance(item, dict) and id(item) not in seen:
            seen.add(id(item))
            found.append(item)
            pending.extend(item.values())
        elif isinstance(item, (list, tuple)) and id(item) not in seen:
            seen.add(id(item))
            pending.extend(item)
    return found


@st.composite
def graphs_with_sharing(draw: st.DrawFn) -> Any:
    """A graph where some node is placed under another as well (a shared subtree or a cycle)."""
    graph = draw(graphs)
    nodes = dict_nodes(graph)
    for _ in range(draw(st.integers(0, 2))):
        if not nodes:
            break
        parent = draw(st.sampled_from(nodes))
        child = draw(st.sampled_from(nodes))
        if isinstance(parent.get("args"), list):
            parent["args"].append(child)
        else:
            parent["args"] = [child, child]
    return graph


@given(graphs_with_sharing())
@settings(UNTIMED, max_examples=300)
def test_graph_functions_agree_on_any_graph(graph: Any) -> None:
    assert_agree(graph_complexity, "measure_graph_complexity", graph)
    assert_agree(graph_complexity, "graph_fingerprint", graph)
    assert_agree(mi_contract, "_has_non_finite_number", graph)


@given(json_like)
@settings(UNTIMED, max_examples=300)
def test_fingerprint_and_non_finite_search_agree_on_any_value(value: Any) -> None:
    assert_agree(graph_complexity, "graph_fingerprint", value)
    assert_agree(mi_contract, "_has_non_finite_number", value)
    assert_agree(mi_contract, "_has_disallowed_mi_contract_field", value)


@given(st.one_of(scalars, json_like))
@UNTIMED
def test_number_checks_agree(value: Any) -> None:
    assert_agree(mi_contract, "_is_finite_number", value)
    assert_agree(mi_contract, "_coerce_mi_contract_value", value)


@given(st.dictionaries(st.sampled_from(sorted(mi_contract.MI_CONTRACT_KEYS)) | keys, scalars, max_size=6))
@UNTIMED
def test_contract_field_check_agrees(stats: dict[Any, Any]) -> None:
    assert_agree(mi_contract, "_has_disallowed_mi_contract_field", stats)
    assert_agree(mi_contract, "_has_disallowed_mi_contract_field", Mapping(stats))


universe_names = st.one_of(
    st.text(st.sampled_from("ab1_-./\\ \t\n\x00\x7f\u200b\u00e9e\u0301"), max_size=8),
    any_text,
    st.text(st.sampled_from("x"), min_size=126, max_size=130),
    st.builds(Text, any_text),
    st.sampled_from([".", "..", "...", " ", "\x1c", None, 5, b"top300"]),
)


@given(universe_names)
@UNTIMED
def test_universe_checks_agree(value: Any) -> None:
    assert_agree(named_universe, "_normalize_named_universe", value)
    assert_agree(named_universe, "_is_unsafe_named_universe", value)


GATE_KEYS = ["is_correlation_threshold", "is_pnl_mi_threshold", "mi_threshold", "max_weight", "min_sharpe",
             "max_turnover", "max_", "min_", "rule_id", "max_é", "min_\U0001f600"]  # fmt: skip
METRIC_NAMES = ["sharpe", "turnover", "weight", "is_correlation", "is_pnl_mi", "max_weight", "é", "\U0001f600"]
threshold_values = st.one_of(st.integers(-3, 3), st.floats(-2, 2), st.just(10**30), st.builds(Real, st.floats(0, 1)))
refused_thresholds = st.sampled_from([math.nan, math.inf, True, None, "0.5"])
metric_values = st.one_of(st.floats(-3, 3), st.sampled_from([math.inf, -math.inf, math.nan]), scalars)


def some_of(names: list[str], values: st.SearchStrategy[Any]) -> st.SearchStrategy[dict[Any, Any]]:
    """Dicts over the given keys (each maybe present), in any order, with a few random keys beside."""
    chosen = st.fixed_dictionaries({}, optional=dict.fromkeys(names, values))
    shuffled = st.tuples(chosen, st.randoms()).map(lambda pair: dict(pair[1].sample(list(pair[0].items()),
                                                                                      len(pair[0]))))
    return st.builds(lambda listed, extra: {**listed, **extra}, shuffled,
                     st.dictionaries(keys, values, max_size=2))  # fmt: skip


thresholds = st.none() | some_of(GATE_KEYS, threshold_values)
metrics = st.none() | some_of(METRIC_NAMES, metric_values)


@given(metrics, thresholds, thresholds, st.integers(0, 9), st.tuples(st.sampled_from(GATE_KEYS), refused_thresholds))
@settings(UNTIMED, max_examples=300)
def test_threshold_gates_agree(observed: Any, threshold_set: Any, pool: Any, variant: int,
                               refused: tuple[str, Any]) -> None:
    if variant == 0 and pool is not None:
        pool = Mapping(pool)
    elif variant == 1 and threshold_set is not None:
        threshold_set[refused[0]] = refused[1]
    assert_agree(threshold_gates, "evaluate_threshold_gates", metrics=observed, threshold_set=threshold_set,
                 pool_thresholds=pool)  # fmt: skip


@pytest.mark.parametrize("actual", [math.inf, -math.inf, math.nan, 0.3, 0.2999, 1, True, None, "0.5", 10**30,
                                    Integer(1), Real(0.3), Opaque()])
@pytest.mark.parametrize("gate", ["min_sharpe", "max_sharpe", "max_weight", "is_correlation_threshold"])
def test_each_gate_judges_edge_values_alike(actual: Any, gate: str) -> None:
    observed = {"sharpe": actual, "weight": 0.0, "max_weight": actual, "is_correlation": actual}
    assert_agree(threshold_gates, "evaluate_threshold_gates", metrics=observed, threshold_set={gate: 0.3},
                 pool_thresholds={gate: 0.3})  # fmt: skip


pool_names = st.one_of(st.sampled_from(["momentum", "carry", "é"]), st.builds(Text, st.just("momentum")),
                       st.sampled_from([None, 7, ("momentum",)]))  # fmt: skip
pools = st.one_of(
    st.fixed_dictionaries({}, optional={"name": pool_names, "signal_pool_name": pool_names, "x": scalars}),
    scalars,
    st.builds(lambda name: types.SimpleNamespace(name=name), pool_names),
)


@given(
    st.one_of(
        st.none(),
        st.fixed_dictionaries({}, optional={"signal_pools": st.one_of(
            st.lists(pools, max_size=4), st.lists(pools, max_size=3).map(tuple),
            st.dictionaries(st.sampled_from(["momentum", "carry"]), pools, max_size=2), scalars,
            st.lists(pools, max_size=2).map(Sequence))}),
        st.builds(lambda pools: types.SimpleNamespace(signal_pools=pools), st.lists(pools, max_size=3)),
    ),
    pool_names,
)  # fmt: skip
@UNTIMED
def test_pool_lookup_agrees(era: Any, name: Any) -> None:
    compiled, python = both(pool_identity, "selected_signal_pool_from_era_config")
    assert compiled(era, name) is python(era, name)


seconds = st.one_of(st.floats(), st.integers(-2, 200), st.sampled_from([True, None, "1", 2**1100]),
                    st.builds(Real, st.floats(0.1, 5)))  # fmt: skip


@given(st.sampled_from(["1d", "1h", Text("1d")]), seconds, seconds, seconds, seconds, st.sampled_from(["1d", "1h"]))
@UNTIMED
def test_assessment_agrees(frequency: Any, elapsed: Any, max_row: Any, per_row: Any, whole: Any, asked: str) -> None:
    record = backtest_timing.BacktestTimingRecord(fingerprint="fp", elapsed_seconds=elapsed, row_count=1,
                                                  max_row_elapsed_seconds=max_row, frequency=frequency,
                                                  recorded_at=0.0)  # fmt: skip
    assert_agree(backtest_timing, "assess_client_backtest_timing", record, frequency=asked,
                 per_row_budget_seconds=per_row, whole_budget_seconds=whole)  # fmt: skip


# ---- deep and large graphs ---------------------------------------------------------------------------------


def chain(levels: int, leaf: Any) -> Any:
    graph: Any = leaf
    for _ in range(levels - 1):
        graph = {"op": "neg", "args": [graph]}
    return graph


@pytest.mark.parametrize("leaf", [{"op": "close"}, {"op": "close", "x": math.nan}, {"op": ""}, [1.5, "é"]])
def test_deep_graphs_agree_without_recursion(leaf: Any) -> None:
    graph = chain(20_000, leaf)
    assert_agree(graph_complexity, "measure_graph_complexity", graph)
    assert_agree(graph_complexity, "graph_fingerprint", graph)
    deep_list: Any = [leaf]
    for _ in range(20_000):
        deep_list = [deep_list, 2]
    assert_agree(graph_complexity, "graph_fingerprint", deep_list)
    assert_agree(mi_contract, "_has_non_finite_number", deep_list)


def test_counts_beyond_64_bits_agree() -> None:
    graph: Any = {"op": "close"}
    for _ in range(70):
        graph = {"op": "add", "args": (graph, graph)}
    measured = assert_agree(graph_complexity, "measure_graph_complexity", graph)
    assert measured[1].node_count == 2**71 - 1


# ---- the fingerprint memo ---------------------------------------------------------------------------------


MUTATIONS: list[Callable[[dict[str, Any]], None]] = [
    lambda g: g["args"][0].__setitem__("window", 21),
    lambda g: g["args"][0].__setitem__("window", int("21")),  # an equal value, another object
    lambda g: g["args"][0].update(window=g["args"][0].pop("window")),  # another key order
    lambda g: g.__setitem__("lag", 1.5),
    lambda g: g.pop("lag"),
    lambda g: g["args"].append({"op": "volume"}),
    lambda g: g["args"].insert(0, g["args"].pop()),
    lambda g: g["args"].append(g["args"].pop(0)),
    lambda g: g["args"].__setitem__(1, dict(g["args"][1])),
    lambda g: g["args"][0]["args"][0].__setitem__("op", "open"),
    lambda g: g["args"][0]["args"].append([]),
    lambda g: g["args"][0]["args"][-1].append(7),
    lambda g: g["args"][0]["args"][-1].__setitem__(0, 8),  # a leaf replaced, the list as long
    lambda g: g["args"][0]["args"].pop(),
    lambda g: g["args"][0]["args"].append({}),
    lambda g: g["args"][0]["args"][-1].__setitem__("k", math.nan),
    lambda g: g["args"][0]["args"][-1].__setitem__("k", []),
    lambda g: g["args"][0]["args"][-1]["k"].append(g),  # a cycle
    lambda g: g["args"][0]["args"][-1].__setitem__("k", None),
    lambda g: g.__setitem__("op", Text("rank")),
    lambda g: g.__setitem__("op", "rank"),
]


def remember(graph: Any) -> Any:
    """Record a timing for ``graph`` and look it up as a submission does, which remembers its fingerprint."""
    record = backtest_timing.record_backtest_timing(graph, elapsed_seconds=0.5, row_count=10,
                                                    max_row_elapsed_seconds=0.01, frequency="1d")  # fmt: skip
    assert _native.require_recorded_backtest_timing(graph) is record
    return record


def test_remembered_fingerprint_follows_every_change_of_its_graph() -> None:
    python_fingerprint = both(graph_complexity, "graph_fingerprint")[1]
    graph: dict[str, Any] = {"op": "rank", "args": [{"op": "ts_mean", "window": 20, "args": [{"op": "close"}]},
                                                    {"op": "volume"}]}  # fmt: skip
    seen = set()
    for mutate in MUTATIONS:
        before = outcome(python_fingerprint, graph)
        record = remember(graph) if before[0] == "ok" else None
        assert same(outcome(_native.graph_fingerprint, graph), before)  # answered from the memo
        mutate(graph)
        after = outcome(python_fingerprint, graph)
        assert same(outcome(_native.graph_fingerprint, graph), after)
        if record is not None:
            # The consumption fingerprints the graph as it is now.
            consumed = outcome(_native.consume_recorded_backtest_timing, graph)
            if after[0] == "raised":
                assert consumed == after
            else:
                assert consumed[1] is backtest_timing._STORE.lookup(after[1])
                assert (consumed[1] is record) is (after == before)
        seen.add(str(after[1]))
    assert len(seen) > 10


def test_remembered_fingerprint_sees_a_node_moved_into_a_nested_list() -> None:
    inner: list[Any] = [{"op": "close"}]
    outer: list[Any] = [{"op": "ts_mean", "args": inner}, {"op": "volume"}]
    graph = {"op": "rank", "args": outer}
    remember(graph)
    inner.append(outer.pop())  # the same objects, nested differently
    assert _native.graph_fingerprint(graph) == both(graph_complexity, "graph_fingerprint")[1](graph)
    assert _native.consume_recorded_backtest_timing(graph) is None


def test_memo_holds_a_bounded_number_of_graphs_until_they_are_consumed() -> None:
    graphs = [{"op": "close", "n": n, "args": [{"op": "x"}]} for n in range(50)]

    def references() -> list[int]:
        return [sys.getrefcount(graphs[i]) for i in range(len(graphs))]

    before = references()
    for i in range(len(graphs)):
        remember(graphs[i])
    held = [after - earlier for after, earlier in zip(references(), before)]
    assert held[:-8] == [0] * 42 and held[-8:] == [1] * 8
    for i in range(len(graphs)):
        _native.consume_recorded_backtest_timing(graphs[i])
    assert references() == before


# ---- replaced globals and changed classes -------------------------------------------------------------------


def test_replaced_globals_are_honoured(monkeypatch: pytest.MonkeyPatch) -> None:
    gates = {"metrics": {"sharpe": 0.9}, "threshold_set": {"sharpe_cap": 0.5}, "pool_thresholds": None}
    monkeypatch.setattr(threshold_gates, "_NAMED_GATES", {**threshold_gates._NAMED_GATES, "sharpe_cap": "sharpe"})
    failed = assert_agree(threshold_gates, "evaluate_threshold_gates", **gates)
    assert [f.gate for f in failed[1].failures] == ["sharpe"]

    monkeypatch.setattr(mi_contract, "MI_CONTRACT_KEYS", frozenset({"sharpe"}))
    assert assert_agree(mi_contract, "_has_disallowed_mi_contract_field", {"sharpe": 1.0}) == ("ok", True)

    monkeypatch.setattr(named_universe, "MAX_NAMED_UNIVERSE_LENGTH", 3)
    assert assert_agree(named_universe, "_is_unsafe_named_universe", "top300") == ("ok", True)

    class Complexity:
        def __init__(self, *, depth: int, node_count: int) -> None:
            self.size = (depth, node_count)

        def __repr__(self) -> str:
            return f"Complexity{self.size}"

    monkeypatch.setattr(graph_complexity, "GraphComplexity", Complexity)
    assert assert_agree(graph_complexity, "measure_graph_complexity", {"op": "x"})[1].size == (1, 1)

    store = backtest_timing.BacktestTimingStore(clock=lambda: 5.0)
    monkeypatch.setattr(backtest_timing, "_STORE", store)
    monkeypatch.setattr(backtest_timing, "graph_fingerprint", lambda graph: "constant")
    record = store.record("constant", elapsed_seconds=1.0, row_count=1, max_row_elapsed_seconds=0.1, frequency="1d")
    compiled_require, _ = both(backtest_timing, "require_recorded_backtest_timing")
    assert compiled_require({"op": "anything"}) is record

    monkeypatch.undo()
    assert assert_agree(named_universe, "_is_unsafe_named_universe", "top300") == ("ok", False)


def test_changed_record_class_is_called_not_bypassed(monkeypatch: pytest.MonkeyPatch) -> None:
    made: list[tuple[int, int]] = []
    original = graph_complexity.GraphComplexity.__init__

    def counting_init(self: Any, depth: int, node_count: int) -> None:
        made.append((depth, node_count))
        original(self, depth, node_count)

    compiled = both(graph_complexity, "measure_graph_complexity")[0]
    compiled({"op": "x"})
    assert made == []  # built directly while the class is as defined
    monkeypatch.setattr(graph_complexity.GraphComplexity, "__init__", counting_init)
    measured = compiled({"op": "x", "args": [{"op": "y"}]})
    assert made == [(2, 2)] and (measured.depth, measured.node_count) == (2, 2)


# ---- hostile objects ----------------------------------------------------------------------------------------


class Colliding:
    """A key that collides with `target` in a dict and empties the dict when compared."""

    def __init__(self, target: str, victim: Any) -> None:
        self.target, self.victim = target, victim

    def __hash__(self) -> int:
        return hash(self.target)

    def __eq__(self, other: object) -> bool:
        self.victim.clear()
        gc.collect()
        return False

    def __repr__(self) -> str:
        return "Colliding()"


def hostile_cases() -> list[tuple[types.ModuleType, str, Callable[[], tuple[tuple[Any, ...], dict[str, Any]]]]]:
    def stats() -> tuple[tuple[Any, ...], dict[str, Any]]:
        victim: dict[Any, Any] = {"sharpe": [1.0] * 5}
        victim[Colliding("is_pnl_mi", victim)] = 2.0
        return (victim,), {}

    def gate_metrics() -> tuple[tuple[Any, ...], dict[str, Any]]:
        victim: dict[Any, Any] = {"turnover": [0.5]}
        victim[Colliding("sharpe", victim)] = 1.0
        return (), {"metrics": victim, "threshold_set": {"min_sharpe": 0.5, "max_turnover": 1.0},
                    "pool_thresholds": None}  # fmt: skip

    def pools() -> tuple[tuple[Any, ...], dict[str, Any]]:
        listed: list[Any] = [{"name": "other"}, {"name": "momentum"}]
        hostile: dict[Any, Any] = {"x": 1}
        hostile[Colliding("name", listed)] = "momentum"
        listed.insert(0, hostile)
        return ({"signal_pools": listed}, "momentum"), {}

    class Shifting(dict):  # type: ignore[type-arg]
        def get(self, key: Any, default: Any = None) -> Any:
            self.clear()
            return super().get(key, default)

        def items(self) -> Any:
            return [("window", [1])]

    def shifting_graph() -> tuple[tuple[Any, ...], dict[str, Any]]:
        return ({"op": "rank", "args": [Shifting(op="x")]},), {}

    class Attributes:
        @property
        def frequency(self) -> Any:
            return Text("1d")

        @property
        def elapsed_seconds(self) -> Any:
            raise RuntimeError("elapsed unreadable")

        max_row_elapsed_seconds = 0.1

    def record() -> tuple[tuple[Any, ...], dict[str, Any]]:
        return (Attributes(),), {"frequency": "1d", "per_row_budget_seconds": 1, "whole_budget_seconds": 2.0}

    return [
        (mi_contract, "_has_disallowed_mi_contract_field", stats),
        (mi_contract, "_has_non_finite_number", stats),
        (threshold_gates, "evaluate_threshold_gates", gate_metrics),
        (pool_identity, "selected_signal_pool_from_era_config", pools),
        (graph_complexity, "measure_graph_complexity", shifting_graph),
        (graph_complexity, "graph_fingerprint", shifting_graph),
        (backtest_timing, "assess_client_backtest_timing", record),
    ]


@pytest.mark.parametrize(("module", "name", "make"), hostile_cases(), ids=lambda case: getattr(case, "__name__", ""))
def test_hostile_objects_give_the_same_outcome(module: types.ModuleType, name: str,
                                               make: Callable[[], tuple[tuple[Any, ...], dict[str, Any]]]) -> None:
    compiled, python = both(module, name)
    args, kwargs = make()
    expected = outcome(python, *args, **kwargs)
    args, kwargs = make()
    assert same(outcome(compiled, *args, **kwargs), expected)


def test_batch_errors_chain_as_the_python_implementation_does() -> None:
    compiled, python = both(backtest_timing, "require_recorded_backtest_timings")
    errors = []
    for function in (compiled, python):
        with pytest.raises(ValueError) as caught:
            function(iter([{"op": "x", "n": math.nan}]))
        errors.append(caught.value)
    assert [str(e) for e in errors] == [str(errors[1])] * 2 and str(errors[0]).endswith("(batch item 0)")
    for error in errors:
        assert error.__cause__ is None and error.__suppress_context__
        assert isinstance(error.__context__, ValueError)


# ---- SHA-256 ---------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("portable", [False, True])
def test_sha256_matches_hashlib_across_block_boundaries(portable: bool) -> None:
    for length in [*range(0, 140), 1000, 65_536 + 3]:
        data = bytes((i * 7 + length) % 256 for i in range(length))
        assert _native._sha256_hexdigest(data, portable) == hashlib.sha256(data).hexdigest(), length


@given(st.binary(max_size=700))
@UNTIMED
def test_sha256_matches_hashlib(data: bytes) -> None:
    assert _native._sha256_hexdigest(data) == hashlib.sha256(data).hexdigest()
    assert _native._sha256_hexdigest(data, True) == hashlib.sha256(data).hexdigest()
