"""The expression graph format: its shape, its size and its identity.

A signal is an expression graph: a JSON tree of nodes such as::

    {"op": "rank", "args": [
        {"op": "ts_mean", "window": 20, "args": [{"op": "close"}]}
    ]}

Each node is a JSON object (a Python ``dict``) with

- ``op``: the operator name, a non-empty string;
- ``args`` (optional): a list of child nodes; a node without ``args`` (or
  with an empty list) is a leaf;
- any other key: a parameter of the operator, whose value is a JSON scalar
  (string, finite number, boolean or null), for example ``"window": 20``.

:func:`measure_graph_complexity` checks that shape and measures the graph:
its depth (nodes on the longest root-to-leaf path) and its node count (every
occurrence of a node counts, so a subtree used twice counts twice). Both are
computed without recursion, so a graph 100,000 levels deep is measured, not
refused with a ``RecursionError``. A node that contains itself is refused.

:func:`graph_fingerprint` names a graph by the SHA-256 of its canonical JSON;
key order and whitespace do not change it, any value does.
"""

from __future__ import annotations

import hashlib
import json
import math
from collections.abc import Sequence
from dataclasses import dataclass
from json.encoder import encode_basestring_ascii

from tallowmere._accelerate import accelerate

__all__ = ["GraphComplexity", "graph_fingerprint", "measure_graph_complexity"]

# Longest index path printed in full in an error message; longer paths show
# their first and last steps around the number of steps left out.
_PATH_HEAD_STEPS = 4
_PATH_TAIL_STEPS = 4


@dataclass(frozen=True, slots=True)
class GraphComplexity:
    """The size of an expression graph.

    ``depth`` counts the nodes on the longest root-to-leaf path (a single leaf
    has depth 1); ``node_count`` counts every node occurrence.
    """

    depth: int
    node_count: int


class _Location:
    """Where a node sits in the graph: its parent's location and its index.

    Locations are linked to their parents so that no path text is built
    unless an error message needs it.
    """

    __slots__ = ("parent", "index")

    def __init__(self, parent: _Location | None, index: int) -> None:
        self.parent = parent
        self.index = index

    def render(self) -> str:
        """Return the location as ``root.args[1].args[0]``."""
        indices: list[int] = []
        location: _Location = self
        while location.parent is not None:
            indices.append(location.index)
            location = location.parent
        indices.reverse()
        steps = [f".args[{index}]" for index in indices]
        if len(steps) > _PATH_HEAD_STEPS + _PATH_TAIL_STEPS:
            hidden = len(steps) - _PATH_HEAD_STEPS - _PATH_TAIL_STEPS
            steps = [*steps[:_PATH_HEAD_STEPS], f"...({hidden} more levels)...", *steps[-_PATH_TAIL_STEPS:]]
        return "root" + "".join(steps)


_ROOT = _Location(None, 0)


def _malformed(location: _Location, problem: str) -> ValueError:
    return ValueError(f"graph node at {location.render()}: {problem}")


def _is_json_scalar(value: object) -> bool:
    if value is None or isinstance(value, (str, bool, int)):
        return True
    return isinstance(value, float) and math.isfinite(value)


def _checked_children(node: object, location: _Location) -> Sequence[object]:
    """Check one node's own shape and return its children (empty for a leaf)."""
    if not isinstance(node, dict):
        raise _malformed(location, f"a node must be an object (dict), got {type(node).__name__}")
    op = node.get("op")
    if not isinstance(op, str) or not op:
        raise _malformed(location, "'op' must be a non-empty string")
    for key, value in node.items():
        if key == "op" or key == "args":
            continue
        if not isinstance(key, str):
            raise _malformed(location, f"parameter names must be strings, got {type(key).__name__} {key!r}")
        if not _is_json_scalar(value):
            raise _malformed(
                location,
                f"parameter {key!r} must be a string, a finite number, a boolean or null, "
                f"got {type(value).__name__} {value!r:.60}",
            )
    if "args" not in node:
        return ()
    children = node["args"]
    if not isinstance(children, (list, tuple)):
        raise _malformed(location, f"'args' must be a list of nodes, got {type(children).__name__}")
    return children


def measure_graph_complexity(graph: object) -> GraphComplexity:
    """Check the shape of ``graph`` and return its depth and node count.

    Raises ``ValueError`` naming the offending node (for example
    ``graph node at root.args[1].args[0]: 'op' must be a non-empty string``)
    when a node is not an object, lacks a non-empty ``op``, has ``args`` that
    is not a list, has a parameter that is not a JSON scalar, or contains
    itself.

    A subtree that appears several times (the same ``dict`` object under
    different parents) is checked and measured once and counted at every
    occurrence, so measuring stays linear in the number of distinct nodes.
    """
    measured: dict[int, tuple[int, int]] = {}
    open_nodes: set[int] = set()
    # Entries are (node, location, children): children is None for a node not
    # yet opened, and the node's checked children once all of them have been
    # queued ahead of it.
    stack: list[tuple[object, _Location, Sequence[object] | None]] = [(graph, _ROOT, None)]
    while stack:
        node, location, children = stack.pop()
        node_id = id(node)
        if children is not None:
            depth = 1
            count = 1
            for child in children:
                child_depth, child_count = measured[id(child)]
                if child_depth >= depth:
                    depth = child_depth + 1
                count += child_count
            measured[node_id] = (depth, count)
            open_nodes.discard(node_id)
            continue
        if node_id in measured:
            continue
        if node_id in open_nodes:
            raise _malformed(location, "the node contains itself; a graph must be a tree")
        checked = _checked_children(node, location)
        open_nodes.add(node_id)
        stack.append((node, location, checked))
        for index in range(len(checked) - 1, -1, -1):
            stack.append((checked[index], _Location(location, index), None))
    depth, count = measured[id(graph)]
    return GraphComplexity(depth=depth, node_count=count)


def graph_fingerprint(graph: object) -> str:
    """Return the SHA-256 hex digest of the canonical JSON of ``graph``.

    The canonical JSON is ``json.dumps(graph, sort_keys=True,
    separators=(",", ":"), allow_nan=False)``; graphs too deep for
    :func:`json.dumps` are encoded to the same text without recursion. Raises
    ``ValueError`` when the graph is not JSON (an object of another type, a
    NaN or infinite number, a list or dict that contains itself).
    """
    try:
        text = _canonical_json(graph)
    except (TypeError, ValueError) as exc:
        raise ValueError(f"graph cannot be fingerprinted: {exc}") from None
    return hashlib.sha256(text.encode("ascii")).hexdigest()


def _canonical_json(value: object) -> str:
    try:
        return json.dumps(value, sort_keys=True, separators=(",", ":"), allow_nan=False)
    except RecursionError:
        return _canonical_json_without_recursion(value)


def _canonical_json_without_recursion(value: object) -> str:
    """Encode ``value`` exactly as the canonical ``json.dumps`` call does.

    Same text, same refusals (``TypeError`` for a type JSON cannot hold or a
    key of such a type, ``ValueError`` for a non-finite number or a container
    that contains itself), with an explicit stack instead of recursion.

    The work stack holds three kinds of entries: a 1-tuple ``(value,)`` is a
    value still to encode, a ``str`` is text to append as it is, and an
    ``int`` is the id of a container whose members have all been encoded.
    """
    parts: list[str] = []
    open_containers: set[int] = set()
    work: list[tuple[object] | str | int] = [(value,)]
    while work:
        entry = work.pop()
        if isinstance(entry, str):
            parts.append(entry)
            continue
        if isinstance(entry, int):
            open_containers.discard(entry)
            continue
        (item,) = entry
        if isinstance(item, str):
            parts.append(encode_basestring_ascii(item))
        elif item is None:
            parts.append("null")
        elif item is True:
            parts.append("true")
        elif item is False:
            parts.append("false")
        elif isinstance(item, int):
            parts.append(int.__repr__(item))
        elif isinstance(item, float):
            parts.append(_float_text(item))
        elif isinstance(item, (list, tuple)):
            if not item:
                parts.append("[]")
                continue
            _open_container(item, open_containers)
            parts.append("[")
            work.append(id(item))
            work.append("]")
            for index in range(len(item) - 1, -1, -1):
                work.append((item[index],))
                if index:
                    work.append(",")
        elif isinstance(item, dict):
            if not item:
                parts.append("{}")
                continue
            _open_container(item, open_containers)
            parts.append("{")
            work.append(id(item))
            work.append("}")
            entries = sorted(item.items())
            for index in range(len(entries) - 1, -1, -1):
                key, member = entries[index]
                work.append((member,))
                work.append(_key_text(key) + ":")
                if index:
                    work.append(",")
        else:
            raise TypeError(f"Object of type {type(item).__name__} is not JSON serializable")
    return "".join(parts)


def _open_container(container: object, open_containers: set[int]) -> None:
    container_id = id(container)
    if container_id in open_containers:
        raise ValueError("Circular reference detected")
    open_containers.add(container_id)


def _float_text(number: float) -> str:
    if not math.isfinite(number):
        raise ValueError(f"Out of range float values are not JSON compliant: {number!r}")
    return float.__repr__(number)


def _key_text(key: object) -> str:
    """Encode a dict key the way :func:`json.dumps` converts and quotes it."""
    if isinstance(key, str):
        return encode_basestring_ascii(key)
    if isinstance(key, float):
        return encode_basestring_ascii(_float_text(key))
    if key is True:
        return '"true"'
    if key is False:
        return '"false"'
    if key is None:
        return '"null"'
    if isinstance(key, int):
        return encode_basestring_ascii(int.__repr__(key))
    raise TypeError(f"keys must be str, int, float, bool or None, not {type(key).__name__}")


# The compiled versions of these functions, unless switched off (see tallowmere._accelerate).
accelerate(globals(), ("measure_graph_complexity", "graph_fingerprint"))
