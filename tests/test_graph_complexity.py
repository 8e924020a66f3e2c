"""The expression graph format: shape checks, depth, node count, fingerprint."""

from __future__ import annotations

import json
from typing import Any

import pytest
from hypothesis import given
from hypothesis import strategies as st

from tallowmere.simulation.graph_complexity import GraphComplexity, _canonical_json_without_recursion

from sibling_support import implementation_fixture

impl = implementation_fixture("tallowmere.simulation.graph_complexity")


def _chain(levels: int) -> dict[str, Any]:
    graph: dict[str, Any] = {"op": "close"}
    for _ in range(levels - 1):
        graph = {"op": "neg", "args": [graph]}
    return graph


SHARED = {"op": "rank", "args": [{"op": "close"}]}


@pytest.mark.parametrize(
    ("graph", "depth", "node_count"),
    [
        ({"op": "close", "args": []}, 1, 1),
        ({"op": "add", "window": 3, "args": [{"op": "close"}, {"op": "rank", "args": [{"op": "volume"}]}]}, 3, 4),
        ({"op": "sub", "args": [SHARED, {"op": "neg", "args": [SHARED]}]}, 4, 6),
        (_chain(100_000), 100_000, 100_000),
    ],
)
def test_measures_depth_and_every_occurrence(impl: Any, graph: object, depth: int, node_count: int) -> None:
    assert impl.measure_graph_complexity(graph) == GraphComplexity(depth=depth, node_count=node_count)


def test_heavily_shared_graph_is_measured_in_linear_time(impl: Any) -> None:
    graph: dict[str, Any] = {"op": "close"}
    for _ in range(200):
        graph = {"op": "add", "args": [graph, graph]}
    assert impl.measure_graph_complexity(graph) == GraphComplexity(depth=201, node_count=2**201 - 1)


@pytest.mark.parametrize(
    ("graph", "message"),
    [
        ([], "graph node at root: a node must be an object (dict), got list"),
        ({"op": ""}, "graph node at root: 'op' must be a non-empty string"),
        ({"op": "neg", "args": None}, "'args' must be a list of nodes, got NoneType"),
        ({"op": "const", "value": [1, 2]}, "parameter 'value' must be a string, a finite number"),
        ({"op": "const", "value": float("nan")}, "parameter 'value' must be a string, a finite number"),
        ({"op": "const", 1: 2}, "parameter names must be strings"),
        ({"op": "add", "args": [{"op": "close"}, {"op": "rank", "args": [{"op": None}]}]},
         "graph node at root.args[1].args[0]: 'op' must be a non-empty string"),
    ],
)
def test_malformed_graph_names_the_node(impl: Any, graph: object, message: str) -> None:
    with pytest.raises(ValueError) as caught:
        impl.measure_graph_complexity(graph)
    assert message in str(caught.value)


def test_error_path_deep_in_a_graph_is_abbreviated(impl: Any) -> None:
    graph = _chain(50_000)
    leaf = graph
    while "args" in leaf:
        leaf = leaf["args"][0]
    leaf["op"] = ""
    with pytest.raises(ValueError, match=r"root\.args\[0\].*more levels.*args\[0\]: 'op' must") as caught:
        impl.measure_graph_complexity(graph)
    assert len(str(caught.value)) < 300


def test_node_containing_itself_is_refused(impl: Any) -> None:
    inner: dict[str, Any] = {"op": "neg"}
    graph = {"op": "add", "args": [{"op": "close"}, inner]}
    inner["args"] = [graph]
    with pytest.raises(ValueError, match=r"root\.args\[1\]\.args\[0\]: the node contains itself"):
        impl.measure_graph_complexity(graph)
    with pytest.raises(ValueError, match="cannot be fingerprinted: Circular reference"):
        impl.graph_fingerprint(graph)


@pytest.mark.parametrize(("depth", "back_to"), [(30, 0), (30, 27), (60, 40)])
def test_deep_cycle_is_refused_wherever_it_closes(impl: Any, depth: int, back_to: int) -> None:
    nodes: list[dict[str, Any]] = [{"op": "neg"} for _ in range(depth)]
    for parent, child in zip(nodes, nodes[1:]):
        parent["args"] = [child]
    nodes[-1]["args"] = [nodes[back_to]]
    with pytest.raises(ValueError, match="cannot be fingerprinted: Circular reference"):
        impl.graph_fingerprint(nodes[0])


def test_fingerprint_sees_every_value_and_refuses_non_json(impl: Any) -> None:
    graph = {"op": "ts_mean", "window": 20, "args": [{"op": "close"}]}
    assert impl.graph_fingerprint(graph) != impl.graph_fingerprint({**graph, "window": 20.0})
    shared_twice = {"op": "sub", "args": [SHARED, SHARED]}
    assert _canonical_json_without_recursion(shared_twice) == json.dumps(shared_twice, sort_keys=True,
                                                                        separators=(",", ":"))
    assert len(impl.graph_fingerprint(_chain(100_000))) == 64
    for bad in ({"op": "const", "value": float("inf")}, {"op": "x", "when": {1, 2}}):
        with pytest.raises(ValueError, match="graph cannot be fingerprinted"):
            impl.graph_fingerprint(bad)


_json_scalars = st.none() | st.booleans() | st.integers() | st.floats(allow_nan=False, allow_infinity=False) | st.text()
_json_values = st.recursive(
    _json_scalars,
    lambda children: st.lists(children, max_size=4) | st.dictionaries(st.text(max_size=6), children, max_size=4),
    max_leaves=30,
)


@given(_json_values)
def test_encoder_without_recursion_matches_json_dumps(value: object) -> None:
    expected = json.dumps(value, sort_keys=True, separators=(",", ":"), allow_nan=False)
    assert _canonical_json_without_recursion(value) == expected


@given(st.dictionaries(st.text(max_size=6), _json_scalars, max_size=8), st.randoms())
def test_fingerprint_is_invariant_to_key_order(impl: Any, parameters: dict[str, object], rng: Any) -> None:
    graph = {"op": "f", **parameters}
    items = list(graph.items())
    rng.shuffle(items)
    assert impl.graph_fingerprint(dict(items)) == impl.graph_fingerprint(graph)
