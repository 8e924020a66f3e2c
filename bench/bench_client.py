"""The client measured side by side with the floor of its work, in one run.

1. ``submit_signal`` with an in-memory transport, against the unavoidable work
   for the same body: its JSON serialisation, its canonical serialisation and
   SHA-256 (the idempotency key), and the decoding of the answer.
2. A 10,000-signal batch with an in-memory transport, against the same floor
   per item.
3. End-to-end submissions per second against the reference service (its own
   process, over loopback), against a bare ``httpx.Client`` loop posting bodies
   of the same shape to the same service, request by request in alternation;
   and, in the same alternation, the floor over loopback: row 1's floor work
   for a body, then the bare loop's post of it (what a client doing nothing
   but the unavoidable work would reach).
4. ``import tallowmere.submit`` against ``import httpx`` alone, each in a fresh
   interpreter.

Rows 1 to 3 are measured twice: in this process, with the compiled sibling
functions, and in a worker process started with ``TALLOWMERE_PURE_PYTHON=1``,
whose siblings are the plain-Python ones. The two take turns round by round,
so that both meet the same load of the machine; each figure is the best round
(for row 3, each side's best round of submissions alternating with its bare
loop and its floor loop, and those loops' best rounds).

    python bench/bench_client.py [--quick]
"""

from __future__ import annotations

import argparse
import hashlib
import json
import os
import platform
import statistics
import subprocess
import sys
import tempfile
import time
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path
from typing import Any

import httpx

sys.path.insert(0, str(Path(__file__).resolve().parent))

from bench_batch import Answer, MemoryTransport, submissions  # noqa: E402

from tallowmere import _accelerate  # noqa: E402
from tallowmere.simulation import backtest_timing  # noqa: E402
from tallowmere.submit import SignalServiceClient  # noqa: E402

GRAPH = {"op": "rank", "args": [{"op": "ts_mean", "window": 5, "args": [{"op": "returns"}]}]}
STATS = {"sharpe": 1.2, "turnover": 0.4, "delta_exposure": 0.05, "max_weight": 0.02, "abs_weight_sum_mean": 1.0,
         "correlation": 0.1}  # fmt: skip
ANSWER = json.dumps({"submission_id": "s-1", "status": "signal_submitted", "signal_pool_name": "momentum"}).encode()


def per_call(count: int, call: Callable[[int], object]) -> float:
    started = time.perf_counter()
    for i in range(count):
        call(i)
    return (time.perf_counter() - started) / count


def record_timing() -> None:
    backtest_timing.record_backtest_timing(GRAPH, elapsed_seconds=0.03, row_count=756,
                                           max_row_elapsed_seconds=0.0001, frequency="1d")  # fmt: skip


def signal_arguments(i: int) -> dict[str, Any]:
    return {"signal_pool_name": "momentum", "is_stats": {**STATS, "sharpe": 1.0 + i * 1e-6}, "is_pnl_mi": 0.1,
            "expression_elapsed_seconds": 0.03}  # fmt: skip


class CapturingTransport(MemoryTransport):
    """Answers like the service would and keeps the bodies it was sent."""

    def __init__(self) -> None:
        super().__init__()
        self.bodies: list[bytes] = []

    def post(self, path: str, *, content: bytes, headers: dict[str, str]) -> Any:
        self.bodies.append(content)
        return Answer(202, ANSWER)


class Floor:
    """Serialise, key and decode the answer for the bodies a client sent: the work no client can avoid."""

    def __init__(self, bodies: list[bytes]) -> None:
        self.decoded = [json.loads(body) for body in bodies]

    def keyed_body(self, i: int) -> tuple[bytes, str]:
        """A body serialised with its idempotency key, and the key."""
        body = self.decoded[i % len(self.decoded)]
        unkeyed = {k: v for k, v in body.items() if k != "idempotency_key"}
        canonical = json.dumps(unkeyed, sort_keys=True, separators=(",", ":"), allow_nan=False)
        key = "sigsubmit-" + hashlib.sha256(canonical.encode("utf-8")).hexdigest()
        return json.dumps({**unkeyed, "idempotency_key": key}).encode("utf-8"), key

    def work(self, i: int) -> None:
        self.keyed_body(i)
        json.loads(ANSWER)

    def round(self) -> float:
        return per_call(len(self.decoded), self.work)


# ---- 1. one submission, in memory ------------------------------------------------------------


class SingleSubmission:
    """One client, warmed up; each round times ``count`` submissions."""

    def __init__(self, count: int) -> None:
        record_timing()
        self.count = count
        self.transport = CapturingTransport()
        self.client = SignalServiceClient("http://127.0.0.1:9", "token", transport=self.transport)
        for i in range(100):
            self.submit(i)

    def submit(self, i: int) -> None:
        self.client.submit_signal(GRAPH, "top300", **signal_arguments(i))

    def round(self) -> float:
        return per_call(self.count, self.submit)

    def floor(self) -> Floor:
        return Floor(self.transport.bodies[: self.count])


# ---- 2. a 10,000-signal batch ------------------------------------------------------------------------


class Batch:
    """One batch of ``count`` signals; each round submits it with a new client."""

    def __init__(self, count: int) -> None:
        self.count = count
        self.items = submissions(count)

    def round(self) -> float:
        client = SignalServiceClient("http://127.0.0.1:9", "token", transport=MemoryTransport())
        started = time.perf_counter()
        result = client.submit_signals_batch(self.items)
        elapsed = time.perf_counter() - started
        assert result.accepted == self.count
        return elapsed / self.count

    def floor(self) -> Floor:
        transport = CapturingTransport()
        capture = SignalServiceClient("http://127.0.0.1:9", "token", transport=transport)
        for item in self.items[:1000]:
            capture.submit_signal(item["graph"], "top300", **{k: item[k] for k in
                                  ("signal_pool_name", "is_stats", "is_pnl_mi", "expression_elapsed_seconds")})  # fmt: skip
        return Floor(transport.bodies)


# ---- 3. end to end against the reference service -----------------------------------------------


@contextmanager
def reference_service() -> Iterator[tuple[str, str]]:
    token = "bench-token"
    with tempfile.TemporaryDirectory() as directory:
        ready = Path(directory) / "ready"
        # A slow lifecycle clock keeps the service's worker idle during the run.
        server = subprocess.Popen(
            [sys.executable, "-m", "tallowmere", "serve", "--port", "0", "--db", str(Path(directory) / "bench.db"),
             "--token", token, "--speed", "0.001", "--ready-file", str(ready)],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
        )  # fmt: skip
        try:
            deadline = time.monotonic() + 60
            while not (ready.exists() and ready.read_text().strip()):
                if server.poll() is not None or time.monotonic() > deadline:
                    raise RuntimeError("the reference service did not start")
                time.sleep(0.05)
            yield ready.read_text().strip(), token
        finally:
            server.terminate()
            server.wait(timeout=30)


class EndToEnd:
    """A client and a bare httpx loop against one service; each round sends
    ``count`` submissions with each, request by request in alternation, so
    that both meet the same service state and the same load of the machine.

    The bare loop posts bodies the client itself built (with fresh keys, so
    that no request is an idempotent replay): the same shape and size, without
    the client's local work. The floor loop serialises and keys a body the way
    row 1's floor does (from other captured bodies, so its keys are fresh too)
    and posts it like the bare loop. ``first_signal`` keeps the signals of
    different rounds and processes apart."""

    def __init__(self, base_url: str, token: str, first_signal: int) -> None:
        record_timing()
        self.base_url, self.token = base_url, token
        self.next_signal = first_signal
        self.client = SignalServiceClient(base_url, token)
        self.client.submit_signal(GRAPH, "top300", **signal_arguments(self.take()))  # the catalog, fetched once
        self.bare = httpx.Client(base_url=base_url)

    def take(self) -> int:
        self.next_signal += 1
        return self.next_signal

    def round(self, count: int) -> tuple[float, float, float]:
        """Seconds per submission of the client, of the bare loop and of the floor loop."""
        capture = CapturingTransport()
        capturing = SignalServiceClient(self.base_url, self.token, transport=capture)
        capturing._era_catalog_cache = self.client._era_catalog_cache
        for _ in range(2 * count):
            capturing.submit_signal(GRAPH, "top300", **signal_arguments(self.take()))
        bare_bodies = capture.bodies[:count]
        floor = Floor(capture.bodies[count:])
        headers = {"Authorization": "Bearer " + self.token, "Content-Type": "application/json"}

        def post(body: bytes, key: str) -> None:
            response = self.bare.post("/signals/submit", content=body, headers={**headers, "Idempotency-Key": key})
            assert response.status_code == 202, response.text
            response.json()

        client_seconds = bare_seconds = floor_seconds = 0.0
        for i, body in enumerate(bare_bodies):
            arguments = signal_arguments(self.take())
            started = time.perf_counter()
            assert self.client.submit_signal(GRAPH, "top300", **arguments).error is None
            client_done = time.perf_counter()
            post(body, json.loads(body)["idempotency_key"])
            bare_done = time.perf_counter()
            post(*floor.keyed_body(i))
            floor_done = time.perf_counter()
            client_seconds += client_done - started
            bare_seconds += bare_done - client_done
            floor_seconds += floor_done - bare_done
        return client_seconds / count, bare_seconds / count, floor_seconds / count

    def close(self) -> None:
        self.client.close()
        self.bare.close()


# ---- the plain-Python siblings, in a worker process --------------------------------------------------


def sizes(quick: bool) -> tuple[int, int, int]:
    """Submissions per round of row 1, signals of the batch, submissions per round of row 3."""
    return (300, 1000, 100) if quick else (3000, 10_000, 300)


def serve_rounds(quick: bool) -> None:
    """The worker: answers each line naming a row with one round's figures.

    "single" and "batch" answer seconds per item; "loopback <url> <token>"
    answers [client, bare] seconds per submission."""
    single_count, batch_count, loopback_count = sizes(quick)
    rows: dict[str, Any] = {"single": SingleSubmission(single_count), "batch": Batch(batch_count)}
    loopback: EndToEnd | None = None
    print(json.dumps({"accelerated": _accelerate.ACCELERATED}), flush=True)
    for line in sys.stdin:
        row, *arguments = line.split()
        if row == "loopback":
            if loopback is None:
                loopback = EndToEnd(arguments[0], arguments[1], first_signal=50_000_000)
            print(json.dumps(loopback.round(loopback_count)), flush=True)
        else:
            print(json.dumps(rows[row].round()), flush=True)
    if loopback is not None:
        loopback.close()


class PurePythonWorker:
    """This script in another interpreter, with the compiled siblings switched off."""

    def __init__(self, quick: bool) -> None:
        environment = {**os.environ, _accelerate.PURE_PYTHON_VARIABLE: "1"}
        command = [sys.executable, __file__, "--serve-rounds", *(["--quick"] if quick else [])]
        self.process = subprocess.Popen(command, env=environment, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        text=True)  # fmt: skip
        assert self.process.stdin is not None and self.process.stdout is not None
        self.stdin, self.stdout = self.process.stdin, self.process.stdout
        if json.loads(self.stdout.readline())["accelerated"]:
            raise RuntimeError("the worker did not switch the compiled siblings off")

    def ask(self, line: str) -> Any:
        self.stdin.write(line + "\n")
        self.stdin.flush()
        return json.loads(self.stdout.readline())

    def round(self, row: str) -> float:
        seconds: float = self.ask(row)
        return seconds

    def close(self) -> None:
        self.stdin.close()
        self.process.wait(timeout=120)


def side_by_side(rounds: int, *measurements: Callable[[], float]) -> list[float]:
    """Best of ``rounds`` for each measurement, taken in turns."""
    best = [float("inf")] * len(measurements)
    for _ in range(rounds):
        for index, measure in enumerate(measurements):
            best[index] = min(best[index], measure())
    return best


@dataclass
class Loopback:
    """The best rounds of a client and of its bare loop: seconds per submission."""

    client: float = float("inf")
    bare: float = float("inf")
    floor: float = float("inf")

    def take(self, client: float, bare: float, floor: float) -> None:
        self.client, self.bare, self.floor = min(self.client, client), min(self.bare, bare), min(self.floor, floor)

    @property
    def ratio(self) -> float:
        return self.bare / self.client


def bench_end_to_end(worker: PurePythonWorker, rounds: int, count: int) -> tuple[Loopback, Loopback]:
    """The compiled client (here) and the plain-Python one (in the worker), each
    alternating with its bare loop, round by round in turns."""
    compiled, plain = Loopback(), Loopback()
    with reference_service() as (base_url, token):
        here = EndToEnd(base_url, token, first_signal=0)
        try:
            for _ in range(rounds):
                compiled.take(*here.round(count))
                plain.take(*worker.ask(f"loopback {base_url} {token}"))
        finally:
            here.close()
    return compiled, plain


# ---- 4. import time ------------------------------------------------------------------------------------


def import_seconds(statement: str, rounds: int) -> float:
    times = []
    environment = {**os.environ, "PYTHONDONTWRITEBYTECODE": "0"}
    for _ in range(rounds):
        started = time.perf_counter()
        subprocess.run([sys.executable, "-c", statement], check=True, env=environment)
        times.append(time.perf_counter() - started)
    return statistics.median(times)


def bench_import(rounds: int) -> tuple[float, float]:
    baseline = import_seconds("pass", rounds)
    ours, httpx_alone = [], []
    for _ in range(rounds):
        ours.append(import_seconds("import tallowmere.submit", 1) - baseline)
        httpx_alone.append(import_seconds("import httpx", 1) - baseline)
    return statistics.median(ours), statistics.median(httpx_alone)


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--quick", action="store_true", help="fewer iterations, for a smoke run")
    parser.add_argument("--serve-rounds", action="store_true", help=argparse.SUPPRESS)
    arguments = parser.parse_args()
    quick = arguments.quick
    if arguments.serve_rounds:
        serve_rounds(quick)
        return
    if not _accelerate.ACCELERATED:
        raise SystemExit(f"the compiled siblings are off here; unset {_accelerate.PURE_PYTHON_VARIABLE}")

    single_count, batch_count, loopback_count = sizes(quick)
    worker = PurePythonWorker(quick)
    try:
        single = SingleSubmission(single_count)
        single.round()
        single_on, single_off, single_floor = side_by_side(3 if quick else 7, single.round,
                                                           lambda: worker.round("single"), single.floor().round)
        batch = Batch(batch_count)
        batch_on, batch_off, batch_floor = side_by_side(2 if quick else 4, batch.round, lambda: worker.round("batch"),
                                                        batch.floor().round)  # fmt: skip
        compiled, plain = bench_end_to_end(worker, 2 if quick else 5, loopback_count)
    finally:
        worker.close()
    ours, httpx_alone = bench_import(5 if quick else 15)

    def timed(on: float, off: float, floor: float) -> list[str]:
        return [f"{on * 1e6:.1f} us ({on / floor:.2f}x)", f"{off * 1e6:.1f} us ({off / floor:.2f}x)",
                f"{floor * 1e6:.1f} us"]  # fmt: skip

    def rate(loopback: Loopback) -> str:
        return f"{1 / loopback.client:.0f}/s ({loopback.ratio:.3f} of bare)"

    rows = [
        ["submit_signal, in-memory transport", *timed(single_on, single_off, single_floor), "at most 1.6x floor"],
        [f"{batch_count:,}-signal batch, per item", *timed(batch_on, batch_off, batch_floor), "at most 1.4x floor"],
        ["submissions/s over loopback", rate(compiled), rate(plain), f"{1 / compiled.bare:.0f}/s bare httpx",
         "at least 0.97 of bare"],
        ["  the floor's work, then the bare post", f"{compiled.floor / compiled.client:.3f} of the floor loop",
         f"{plain.floor / plain.client:.3f} of the floor loop",
         f"{1 / compiled.floor:.0f}/s ({compiled.bare / compiled.floor:.3f} of bare)", ""],
        ["import tallowmere.submit", f"{ours * 1e3:.0f} ms ({ours / httpx_alone:.2f}x)", "",
         f"{httpx_alone * 1e3:.0f} ms httpx alone", ""],
    ]  # fmt: skip

    print(f"Machine: {platform.machine()}, {os.cpu_count()} cores, {platform.python_implementation()} "
          f"{platform.python_version()}, {platform.platform()}")  # fmt: skip
    print()
    print("| measurement | compiled siblings | plain-Python siblings | floor or reference | goal |")
    print("|---|---|---|---|---|")
    for row in rows:
        print("| " + " | ".join(row) + " |")


if __name__ == "__main__":
    main()
