"""A simulated signal passes the submission client's local checks against a matching era catalog."""

from __future__ import annotations

import json
import re
from collections.abc import Iterable
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from simulation_support import momentum_graph
from tallowmere.simulation import simulate_signal

CATALOG_DOC = Path(__file__).resolve().parent.parent / "README.md"


def _published_catalog() -> dict[str, Any]:
    match = re.search(r"## A complete catalog\s+```json\n(.*?)```", CATALOG_DOC.read_text(), re.S)
    assert match is not None
    catalog: dict[str, Any] = json.loads(match.group(1))
    return catalog


@dataclass
class _Response:
    status_code: int
    content: bytes


def _body_bytes(content: object) -> bytes:
    if isinstance(content, (bytes, bytearray)):
        return bytes(content)
    read = getattr(content, "read", None)
    if callable(read):
        data = read()
        return data if isinstance(data, bytes) else str(data).encode()
    assert isinstance(content, Iterable)
    return b"".join(bytes(chunk) for chunk in content)


class _SignalService:
    """A caller's transport answering the era catalog and signal submissions, recording what it was sent."""

    def __init__(self, catalog: dict[str, Any]) -> None:
        self.catalog = catalog
        self.submitted: list[dict[str, Any]] = []

    def get(self, path: str, headers: object = None) -> _Response:
        if path.rstrip("/").endswith("/eras"):
            return _Response(200, json.dumps(self.catalog).encode())
        return _Response(404, b'{"detail": "not found"}')

    def post(self, path: str, content: object = None, headers: object = None) -> _Response:
        if path.rstrip("/").endswith("/signals/submit"):
            self.submitted.append(json.loads(_body_bytes(content)))
            return _Response(202, b'{"submission_id": "s-1", "status": "signal_submitted"}')
        return _Response(404, b'{"detail": "not found"}')


def test_a_simulated_signal_passes_the_clients_checks_and_is_sent() -> None:
    from tallowmere.submit import SignalServiceClient

    graph = momentum_graph()
    result = simulate_signal(graph)
    service = _SignalService(_published_catalog())
    client = SignalServiceClient("http://127.0.0.1:9", "token", transport=service)

    submitted = client.submit_signal(graph, "top300", signal_pool_name="momentum", **result.submission_kwargs())

    assert submitted.error is None
    assert submitted.submission_id == "s-1"
    (body,) = service.submitted
    assert {"graph_depth", "graph_node_count", "is_stats", "is_pnl_mi", "expression_elapsed_seconds"} <= set(body)
    assert (body["graph_depth"], body["graph_node_count"]) == (4, 4)
    assert body["is_stats"] == result.is_stats
    assert body["is_pnl_mi"] == 0.0
    assert body["simulation_data_contract_projection"] == result.data_contract
