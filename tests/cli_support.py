"""Shared helpers of the command-line tests: running ``tallowmere`` in-process, a service, graph files."""

from __future__ import annotations

import json
from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path
from typing import Any

import httpx
import pytest

from tallowmere.__main__ import main
from tallowmere.service import RunningService, run_service

# Distinctive, so that a test can search every output for it.
TOKEN = "tok-7Qz-never-shown"

REVERSAL: dict[str, Any] = {"op": "zscore", "args": [{"op": "neg", "args": [{"op": "returns"}]}]}
# Week-old returns: noise, below the momentum pool's minimum Sharpe ratio.
WEAK: dict[str, Any] = {"op": "rank", "args": [{"op": "ts_delay", "window": 8, "args": [{"op": "returns"}]}]}


def volume_graph(window: int) -> dict[str, Any]:
    """A distinct, strong graph per window (volume surprise)."""
    average = {"op": "ts_mean", "window": window, "args": [{"op": "volume"}]}
    return {"op": "rank", "args": [{"op": "div", "args": [{"op": "volume"}, average]}]}


@dataclass(frozen=True)
class Run:
    """What one command run left behind: its exit status and both streams."""

    code: int
    out: str
    err: str

    def json(self) -> Any:
        """Stdout parsed as the one JSON document ``--json`` promises."""
        return json.loads(self.out)


def run_cli(capsys: pytest.CaptureFixture[str], *argv: str) -> Run:
    """Run ``tallowmere argv`` in-process; argument errors (SystemExit) count as their exit status."""
    capsys.readouterr()
    try:
        code = main(list(argv))
    except SystemExit as stopped:
        code = stopped.code if isinstance(stopped.code, int) else 1
    captured = capsys.readouterr()
    return Run(code, captured.out, captured.err)


def write_graph(directory: Path, graph: dict[str, Any], name: str = "graph.json") -> str:
    """Write ``graph`` as a JSON file in ``directory``; return its path."""
    path = directory / name
    path.write_text(json.dumps(graph))
    return str(path)


@contextmanager
def fault_service(db_path: Path, speed: float = 50.0) -> Iterator[RunningService]:
    """A service with fault injection for the owner ``TOKEN``, its lifecycle ``speed`` times faster."""
    with run_service(db_path=db_path, tokens=[TOKEN], speed=speed, faults=True) as service:
        yield service


def script_faults(service: RunningService, route: str, *faults: str) -> None:
    """Queue ``faults`` for the next requests to ``route``."""
    answer = httpx.post(
        service.base_url + "/_faults",
        json={"route": route, "faults": list(faults)},
        headers={"Authorization": f"Bearer {TOKEN}"},
    )
    answer.raise_for_status()


def stored_with_key(service: RunningService, key: str) -> list[dict[str, Any]]:
    """The submissions the service holds under ``key`` (read over HTTP, beside the command line)."""
    answer = httpx.get(
        service.base_url + "/signals/submissions",
        params={"idempotency_key": key},
        headers={"Authorization": f"Bearer {TOKEN}"},
    )
    answer.raise_for_status()
    submissions: list[dict[str, Any]] = answer.json()["submissions"]
    return submissions
