"""Shared helpers of the service tests: valid bodies, auth headers, a running service."""

from __future__ import annotations

import copy
import functools
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import Any

import httpx

from tallowmere.service import RunningService, run_service
from tallowmere.simulation import simulate_signal
from tallowmere.simulation.graph_complexity import measure_graph_complexity

TOKEN_A = "token-alpha"
TOKEN_B = "token-beta"

REVERSAL_GRAPH: dict[str, Any] = {"op": "zscore", "args": [{"op": "neg", "args": [{"op": "returns"}]}]}
MOMENTUM_GRAPH: dict[str, Any] = {"op": "rank", "args": [{"op": "ts_delta", "window": 20, "args": [{"op": "close"}]}]}
VOLUME_GRAPH: dict[str, Any] = {"op": "rank", "args": [{"op": "volume"}]}


@functools.cache
def _simulated(graph_json: str) -> tuple[dict[str, float], float, float, dict[str, Any]]:
    import json

    result = simulate_signal(json.loads(graph_json), record_timing=False)
    return dict(result.is_stats), float(result.is_pnl_mi), result.expression_elapsed_seconds, dict(result.data_contract)


def signal_body(graph: dict[str, Any] = REVERSAL_GRAPH, *, key: str = "key-1", **overrides: Any) -> dict[str, Any]:
    """Return a body the service accepts for ``graph`` (honest statistics), with ``overrides`` applied."""
    import json

    is_stats, is_pnl_mi, elapsed, projection = _simulated(json.dumps(graph, sort_keys=True))
    complexity = measure_graph_complexity(graph)
    body: dict[str, Any] = {
        "graph": copy.deepcopy(graph),
        "named_universe": "top300",
        "signal_pool_name": "momentum",
        "graph_depth": complexity.depth,
        "graph_node_count": complexity.node_count,
        "is_stats": dict(is_stats),
        "is_pnl_mi": is_pnl_mi,
        "expression_elapsed_seconds": elapsed,
        "market_id": 1,
        "era_number": 3,
        "client_manifest_market_id": 1,
        "client_manifest_era_number": 3,
        "simulation_data_contract_projection": projection,
        "idempotency_key": key,
    }
    body.update(overrides)
    return body


def replaced(**fields: Any) -> dict[str, Any]:
    """Return a valid body with ``fields`` replaced as given (no re-simulation, so any graph may be set)."""
    return {**signal_body(), **fields}


def strategy_body(
    graph: dict[str, Any] = MOMENTUM_GRAPH, *, key: str = "strategy-1", **overrides: Any
) -> dict[str, Any]:
    """Return a strategy body the service accepts, with ``overrides`` applied."""
    body: dict[str, Any] = {
        "graph": copy.deepcopy(graph),
        "named_universe": "top300",
        "strategy_pool_name": "core",
        "market_id": 1,
        "era_number": 3,
        "client_manifest_market_id": 1,
        "client_manifest_era_number": 3,
        "idempotency_key": key,
    }
    body.update(overrides)
    return body


def client_for(service: RunningService, token: str = TOKEN_A) -> httpx.Client:
    """Return an httpx client that authenticates to ``service`` with ``token``."""
    return httpx.Client(base_url=service.base_url, headers={"Authorization": f"Bearer {token}"}, timeout=30.0)


@contextmanager
def running(db_path: Path, **options: Any) -> Iterator[RunningService]:
    """Run a service for owners ``TOKEN_A`` and ``TOKEN_B`` on ``db_path`` (slow lifecycle unless told)."""
    options.setdefault("tokens", [TOKEN_A, TOKEN_B])
    options.setdefault("speed", 0.001)
    with run_service(db_path=db_path, **options) as service:
        yield service
