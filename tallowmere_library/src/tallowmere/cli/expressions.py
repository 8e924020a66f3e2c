"""Expression graphs written the way people read them: ``rank(ts_mean(returns, 20))``."""

from __future__ import annotations

import json
from collections.abc import Mapping
from typing import Any, Final

MAX_RENDERED_DEPTH: Final = 24
"""Deeper nodes are shown as ``...``; the service refuses far shallower graphs anyway."""


def _node_text(node: Any, depth: int) -> str:
    if not isinstance(node, Mapping):
        return "?"
    if depth >= MAX_RENDERED_DEPTH:
        return "..."
    op = node.get("op")
    name = op if isinstance(op, str) and op else "?"
    args = node.get("args") or []
    parts = [_node_text(arg, depth + 1) for arg in args] if isinstance(args, (list, tuple)) else ["?"]
    parts.extend(json.dumps(value) for key, value in node.items() if key not in ("op", "args"))
    return f"{name}({', '.join(parts)})" if parts else name


def expression_text(graph: Mapping[str, Any], *, max_length: int = 100) -> str:
    """Return ``graph`` in call notation, parameters after the arguments, cut to ``max_length`` characters.

    ``{"op": "ts_mean", "window": 20, "args": [{"op": "returns"}]}`` reads ``ts_mean(returns, 20)``.
    """
    text = _node_text(graph, 0)
    return text if len(text) <= max_length else text[: max_length - 3] + "..."
