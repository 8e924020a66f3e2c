"""Load test of the reference service: several client processes against one service.

Each client process authenticates as its own owner and sends single
submissions (``POST /signals/submit``) and then batches of 100
(``POST /signals/batch``), each body with its own idempotency key. Afterwards
the script checks that nothing was lost: every acknowledged submission id is
listed by ``GET /signals/submissions`` for its owner, and nothing else is.

Run it with::

    PYTHONPATH=tallowmere_library/src .venv/bin/python bench/service_load.py --processes 4
"""

from __future__ import annotations

import argparse
import multiprocessing
import os
import statistics
import sys
import tempfile
import time
from pathlib import Path
from typing import Any

import httpx

from tallowmere.service import run_service
from tallowmere.simulation import simulate_signal
from tallowmere.simulation.graph_complexity import measure_graph_complexity

GRAPH: dict[str, Any] = {"op": "zscore", "args": [{"op": "neg", "args": [{"op": "returns"}]}]}
BATCH_SIZE = 100


def body_template() -> dict[str, Any]:
    """Return a valid signal body (honest statistics) without its idempotency key."""
    result = simulate_signal(GRAPH, record_timing=False)
    complexity = measure_graph_complexity(GRAPH)
    return {
        "graph": GRAPH,
        "named_universe": "top300",
        "signal_pool_name": "momentum",
        "graph_depth": complexity.depth,
        "graph_node_count": complexity.node_count,
        "is_stats": result.is_stats,
        "is_pnl_mi": result.is_pnl_mi,
        "expression_elapsed_seconds": result.expression_elapsed_seconds,
        "market_id": 1,
        "era_number": 3,
        "client_manifest_market_id": 1,
        "client_manifest_era_number": 3,
        "simulation_data_contract_projection": result.data_contract,
    }


def client_process(
    base_url: str, token: str, template: dict[str, Any], singles: int, batches: int, queue: Any
) -> None:
    """Send ``singles`` single submissions and ``batches`` batches; report ids and timings on ``queue``."""
    acknowledged: list[str] = []
    latencies: list[float] = []
    with httpx.Client(base_url=base_url, headers={"Authorization": f"Bearer {token}"}, timeout=60.0) as client:
        single_began = time.perf_counter()
        for number in range(singles):
            key = f"{token}-single-{number}"
            began = time.perf_counter()
            body = {**template, "idempotency_key": key}
            answer = client.post("/signals/submit", json=body, headers={"Idempotency-Key": key})
            latencies.append(time.perf_counter() - began)
            if answer.status_code == 202:
                acknowledged.append(answer.json()["submission_id"])
        single_seconds = time.perf_counter() - single_began
        batch_began = time.perf_counter()
        for batch in range(batches):
            signals = [{**template, "idempotency_key": f"{token}-batch-{batch}-{n}"} for n in range(BATCH_SIZE)]
            answer = client.post("/signals/batch", json={"signals": signals})
            for item in answer.json().get("results", []):
                if item["status_code"] == 202:
                    acknowledged.append(item["body"]["submission_id"])
        batch_seconds = time.perf_counter() - batch_began
    queue.put(
        {
            "token": token,
            "ids": acknowledged,
            "latencies": latencies,
            "single_seconds": single_seconds,
            "batch_seconds": batch_seconds,
        }
    )


def main() -> int:
    """Run the load test and print its figures; exit 1 when a submission was lost."""
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--processes", type=int, default=4)
    parser.add_argument("--singles", type=int, default=250, help="single submissions per process")
    parser.add_argument("--batches", type=int, default=5, help="batches of 100 per process")
    parser.add_argument("--speed", type=float, default=1.0, help="lifecycle speed (the worker runs meanwhile)")
    args = parser.parse_args()
    template = body_template()
    tokens = [f"load-{n}" for n in range(args.processes)]
    context = multiprocessing.get_context("spawn")
    with tempfile.TemporaryDirectory() as directory:
        db_path = Path(directory) / "load.db"
        with run_service(db_path=db_path, tokens=tokens, speed=args.speed) as service:
            queue = context.Queue()
            workers = [
                context.Process(
                    target=client_process,
                    args=(service.base_url, token, template, args.singles, args.batches, queue),
                )
                for token in tokens
            ]
            began = time.perf_counter()
            for worker in workers:
                worker.start()
            reports = [queue.get() for _ in workers]
            for worker in workers:
                worker.join()
            wall = time.perf_counter() - began
            lost = 0
            for report in reports:
                headers = {"Authorization": f"Bearer {report['token']}"}
                with httpx.Client(base_url=service.base_url, headers=headers) as client:
                    listed = client.get("/signals/submissions", params={"limit": 1000}).json()["submissions"]
                listed_ids = {item["submission_id"] for item in listed}
                lost += len(set(report["ids"]) - listed_ids) + len(listed_ids - set(report["ids"]))
    singles = sum(len(report["latencies"]) for report in reports)
    batched = sum(len(report["ids"]) for report in reports) - singles
    latencies = sorted(latency for report in reports for latency in report["latencies"])
    single_rate = singles / max(report["single_seconds"] for report in reports)
    batch_rate = batched / max(report["batch_seconds"] for report in reports) if batched else 0.0
    print(f"machine: {os.cpu_count()} cores, Python {sys.version.split()[0]}")
    print(f"{'client processes':<34}{args.processes:>12}")
    print(f"{'acknowledged submissions':<34}{singles + batched:>12}")
    print(f"{'single submits per second':<34}{single_rate:>12.0f}")
    print(f"{'single submit latency p50 (ms)':<34}{1000 * statistics.median(latencies):>12.1f}")
    print(f"{'single submit latency p99 (ms)':<34}{1000 * latencies[int(0.99 * (len(latencies) - 1))]:>12.1f}")
    print(f"{'batched submissions per second':<34}{batch_rate:>12.0f}")
    print(f"{'wall time (s)':<34}{wall:>12.1f}")
    print(f"{'lost or unexpected submissions':<34}{lost:>12}")
    return 1 if lost else 0


if __name__ == "__main__":
    raise SystemExit(main())
