"""Client-side cost of a 10,000-signal batch.

The transport answers from memory (a prebuilt 202 document per chunk size),
so the figure is what the client itself spends per item: validation against the
era catalog, body preparation, idempotency keys, JSON encoding and decoding,
and the mapping of every item result.

    python bench/bench_batch.py [--items 10000] [--repeat 5]
"""

from __future__ import annotations

import argparse
import importlib.resources
import json
import statistics
import time
import tracemalloc
from typing import Any

from tallowmere.simulation import backtest_timing
from tallowmere.submit import SignalServiceClient

CATALOG = json.loads(importlib.resources.files("tallowmere.service").joinpath("default_eras.json").read_text())
ERAS_ANSWER = json.dumps(CATALOG).encode()


class Answer:
    def __init__(self, status_code: int, content: bytes) -> None:
        self.status_code = status_code
        self.content = content


class MemoryTransport:
    """Answers "eras" with the catalog and every batch with 202 for each item."""

    def __init__(self) -> None:
        self.requests: dict[str, int] = {}
        self._batch_answers: dict[int, bytes] = {}

    def _batch_answer(self, count: int) -> bytes:
        if count not in self._batch_answers:
            results = [{"index": i, "status_code": 202, "body": {"submission_id": f"s{i}", "status": "signal_submitted"}}
                       for i in range(count)]  # fmt: skip
            self._batch_answers[count] = json.dumps({"results": results, "accepted": count, "failed": 0}).encode()
        return self._batch_answers[count]

    def get(self, path: str, *, headers: dict[str, str]) -> Answer:
        self.requests[path] = self.requests.get(path, 0) + 1
        return Answer(200, ERAS_ANSWER)

    def post(self, path: str, *, content: bytes, headers: dict[str, str]) -> Answer:
        self.requests[path] = self.requests.get(path, 0) + 1
        count = content.count(b'"graph":')
        return Answer(202, self._batch_answer(count))


def submissions(count: int) -> list[dict[str, Any]]:
    graph = {"op": "rank", "args": [{"op": "ts_mean", "window": 5, "args": [{"op": "returns"}]}]}
    backtest_timing.record_backtest_timing(graph, elapsed_seconds=0.03, row_count=756,
                                           max_row_elapsed_seconds=0.0001, frequency="1d")  # fmt: skip
    stats = {"sharpe": 1.2, "turnover": 0.4, "delta_exposure": 0.05, "max_weight": 0.02, "abs_weight_sum_mean": 1.0,
             "correlation": 0.1}  # fmt: skip
    return [{"graph": graph, "named_universe": "top300", "signal_pool_name": "momentum",
             "is_stats": {**stats, "sharpe": 1.0 + i / count}, "is_pnl_mi": 0.1,
             "expression_elapsed_seconds": 0.03} for i in range(count)]  # fmt: skip


def run(count: int, repeat: int) -> dict[str, float]:
    items = submissions(count)
    times = []
    for _ in range(repeat):
        transport = MemoryTransport()
        client = SignalServiceClient("http://127.0.0.1:9", "token", transport=transport)
        started = time.perf_counter()
        result = client.submit_signals_batch(items)
        times.append(time.perf_counter() - started)
        assert result.accepted == count and transport.requests["/eras"] == 1
        assert transport.requests["/signals/batch"] == -(-count // 100)
    tracemalloc.start()
    SignalServiceClient("http://127.0.0.1:9", "token", transport=MemoryTransport()).submit_signals_batch(items)
    _, peak = tracemalloc.get_traced_memory()
    tracemalloc.stop()
    best, median = min(times), statistics.median(times)
    return {"items": count, "best_seconds": best, "median_seconds": median,
            "median_us_per_item": median / count * 1e6, "peak_bytes_per_item": peak / count}  # fmt: skip


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--items", type=int, default=10_000)
    parser.add_argument("--repeat", type=int, default=5)
    figures = run(parser.parse_args().items, parser.parse_args().repeat)
    print(f"{figures['items']:,} signals: median {figures['median_seconds']:.3f} s "
          f"(best {figures['best_seconds']:.3f} s), {figures['median_us_per_item']:.1f} us per item, "
          f"peak {figures['peak_bytes_per_item'] / 1024:.1f} KiB per item")  # fmt: skip


if __name__ == "__main__":
    main()
