"""The asynchronous client measured against the blocking one and a bare httpx.AsyncClient.

1. One ``submit_signal`` at a time with an in-memory transport: the cost of the
   bridge (a worker thread and a hop to the event loop per request) over the
   blocking client doing the same work.
2. Submissions per second against the reference service (its own process,
   over loopback): the blocking client one by one, the asynchronous client
   with N submissions gathered, and a bare ``httpx.AsyncClient`` posting bodies
   of the same shape with the same concurrency.

    python bench/bench_async.py [--quick]
"""

from __future__ import annotations

import argparse
import asyncio
import json
import os
import platform
import sys
import time
from pathlib import Path
from typing import Any

import httpx

sys.path.insert(0, str(Path(__file__).resolve().parent))

from bench_client import (  # noqa: E402
    ANSWER,
    GRAPH,
    CapturingTransport,
    best_of,
    per_call,
    record_timing,
    reference_service,
    signal_arguments,
)

from tallowmere import AsyncSignalServiceClient  # noqa: E402
from tallowmere.submit import SignalServiceClient  # noqa: E402

CONCURRENCY = 32


class AsyncMemoryTransport:
    """Answers like the service would, without a network."""

    def __init__(self, catalog: dict[str, Any]) -> None:
        self.catalog = json.dumps(catalog).encode()

    async def get(self, path: str, *, headers: dict[str, str]) -> Any:
        return type("Answer", (), {"status_code": 200, "content": self.catalog})()

    async def post(self, path: str, *, content: bytes, headers: dict[str, str]) -> Any:
        return type("Answer", (), {"status_code": 202, "content": ANSWER})()


def bench_in_memory(count: int) -> tuple[float, float]:
    record_timing()
    blocking = SignalServiceClient("http://127.0.0.1:9", "token", transport=CapturingTransport())
    for i in range(100):
        blocking.submit_signal(GRAPH, "top300", **signal_arguments(i))
    blocking_time = best_of(5, lambda: per_call(count, lambda i: blocking.submit_signal(
        GRAPH, "top300", **signal_arguments(i))))  # fmt: skip
    catalog = blocking._era_catalog_cache
    assert catalog is not None

    async def run() -> float:
        async with AsyncSignalServiceClient("http://127.0.0.1:9", "token",
                                            transport=AsyncMemoryTransport(catalog)) as client:  # fmt: skip
            for i in range(100):
                await client.submit_signal(GRAPH, "top300", **signal_arguments(i))
            best = float("inf")
            for _ in range(5):
                started = time.perf_counter()
                for i in range(count):
                    await client.submit_signal(GRAPH, "top300", **signal_arguments(i))
                best = min(best, (time.perf_counter() - started) / count)
            return best

    return asyncio.run(run()), blocking_time


def bench_loopback(count: int) -> tuple[float, float, float]:
    record_timing()
    with reference_service() as (base_url, token):
        blocking = SignalServiceClient(base_url, token)
        blocking.submit_signal(GRAPH, "top300", **signal_arguments(0))
        started = time.perf_counter()
        for i in range(1, count + 1):
            assert blocking.submit_signal(GRAPH, "top300", **signal_arguments(i)).error is None
        blocking_rate = count / (time.perf_counter() - started)
        # Fresh bodies of the same shape for the bare loop, built by the client itself.
        capture = CapturingTransport()
        capturing = SignalServiceClient(base_url, token, transport=capture)
        capturing._era_catalog_cache = blocking._era_catalog_cache
        for i in range(2 * count + 1, 3 * count + 1):
            capturing.submit_signal(GRAPH, "top300", **signal_arguments(i))
        blocking.close()

        async def gathered() -> float:
            async with AsyncSignalServiceClient(base_url, token, max_concurrency=CONCURRENCY) as client:
                await client.submit_signal(GRAPH, "top300", **signal_arguments(0))
                started = time.perf_counter()
                results = await asyncio.gather(*(client.submit_signal(GRAPH, "top300", **signal_arguments(i))
                                                 for i in range(count + 1, 2 * count + 1)))  # fmt: skip
                elapsed = time.perf_counter() - started
            assert all(result.error is None for result in results)
            return count / elapsed

        async def bare() -> float:
            headers = {"Authorization": "Bearer " + token, "Content-Type": "application/json"}
            limit = asyncio.Semaphore(CONCURRENCY)

            async def post(client: httpx.AsyncClient, body: bytes) -> None:
                async with limit:
                    key = {"Idempotency-Key": json.loads(body)["idempotency_key"]}
                    response = await client.post("/signals/submit", content=body, headers={**headers, **key})
                    assert response.status_code == 202, response.text
                    response.json()

            async with httpx.AsyncClient(base_url=base_url) as client:
                started = time.perf_counter()
                await asyncio.gather(*(post(client, body) for body in capture.bodies))
                return count / (time.perf_counter() - started)

        return blocking_rate, asyncio.run(gathered()), asyncio.run(bare())


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--quick", action="store_true", help="fewer iterations, for a smoke run")
    quick = parser.parse_args().quick

    asynchronous, blocking = bench_in_memory(300 if quick else 2000)
    blocking_rate, gathered_rate, bare_rate = bench_loopback(200 if quick else 1000)
    print(f"Machine: {platform.machine()}, {os.cpu_count()} cores, {platform.python_implementation()} "
          f"{platform.python_version()}, {platform.platform()}")  # fmt: skip
    print()
    print("| measurement | asynchronous client | reference | ratio |")
    print("|---|---|---|---|")
    print(f"| submit_signal one at a time, in-memory transport | {asynchronous * 1e6:.1f} us | "
          f"{blocking * 1e6:.1f} us blocking client | {asynchronous / blocking:.2f}x |")  # fmt: skip
    print(f"| submissions/s over loopback, {CONCURRENCY} at once | {gathered_rate:.0f}/s | "
          f"{bare_rate:.0f}/s bare httpx.AsyncClient | {gathered_rate / bare_rate:.2f} of bare |")  # fmt: skip
    print(f"| submissions/s over loopback | {gathered_rate:.0f}/s gathered | {blocking_rate:.0f}/s blocking, "
          f"one by one | {gathered_rate / blocking_rate:.2f}x |")  # fmt: skip


if __name__ == "__main__":
    main()
