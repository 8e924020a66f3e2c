"""Load test of the reference service: concurrent writers against one service, a reader beside them.

Each client process authenticates as its own owner and runs ``--threads``
writers; each writer sends single submissions (``POST /signals/submit``) and
then batches of 100 (``POST /signals/batch``), each body with its own
idempotency key. Meanwhile a separate reader process asks for the status of
one submission in a loop, so that the figures show whether writers slow
readers down. Afterwards the script checks that nothing was lost: every
acknowledged submission id is listed by ``GET /signals/submissions`` for its
owner (following ``next_cursor`` page by page), and nothing else is.

The writers' client is httpx by default. ``--client lean`` gives each writer a
keep-alive socket that writes prepared HTTP/1.1 requests and reads the
answers by their ``Content-Length``: some twenty times less CPU per request
than httpx, so that on a small machine the load generator does not take the
processor from the service it measures (in production the clients run on
other machines).

With ``--big-batches N``, a last phase sends N batches of 100 signals at once,
each signal carrying a search state near its 64 KiB cap (about 6.5 MB a
batch), while another process asks for ``GET /eras`` in a loop: the era
answers must not wait for the big bodies to be parsed.

Run it with::

    .venv/bin/python bench/service_load.py --processes 4
    .venv/bin/python bench/service_load.py --processes 8 --threads 4 --client lean
"""

from __future__ import annotations

import argparse
import json
import multiprocessing
import os
import socket
import statistics
import sys
import tempfile
import threading
import time
from pathlib import Path
from typing import Any

import httpx

from tallowmere.service import run_service
from tallowmere.simulation import simulate_signal
from tallowmere.simulation.graph_complexity import measure_graph_complexity

GRAPH: dict[str, Any] = {"op": "zscore", "args": [{"op": "neg", "args": [{"op": "returns"}]}]}
BATCH_SIZE = 100
READER_TOKEN = "load-reader"


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


def percentile(values: list[float], fraction: float) -> float:
    """Return the ``fraction`` quantile of ``values`` (nearest rank), 0.0 for no values."""
    if not values:
        return 0.0
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(fraction * len(ordered)))]


class Answer:
    """Status code and JSON body of an answer."""

    def __init__(self, status_code: int, content: bytes) -> None:
        self.status_code = status_code
        self.content = content

    def json(self) -> Any:
        return json.loads(self.content)


class LeanClient:
    """One keep-alive HTTP/1.1 connection writing prepared requests: a load generator's client.

    Answers are read by their ``Content-Length`` (the service always sends
    one); a connection the service closes is opened again for the next request."""

    def __init__(self, base_url: str, token: str) -> None:
        url = httpx.URL(base_url)
        self.address = (url.host, url.port or 80)
        self.head = f"Host: {url.host}:{url.port}\r\nAuthorization: Bearer {token}\r\n".encode()
        self.sock: socket.socket | None = None
        self.buffer = b""

    def __enter__(self) -> LeanClient:
        return self

    def __exit__(self, *exc: object) -> None:
        if self.sock is not None:
            self.sock.close()

    def request(self, method: str, path: str, body: bytes = b"", headers: dict[str, str] | None = None) -> Answer:
        extra = "".join(f"{name}: {value}\r\n" for name, value in (headers or {}).items())
        length = f"Content-Type: application/json\r\nContent-Length: {len(body)}\r\n" if body else ""
        message = f"{method} {path} HTTP/1.1\r\n".encode() + self.head + (extra + length + "\r\n").encode() + body
        if self.sock is None:
            self.sock = socket.create_connection(self.address, timeout=60.0)
            self.sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            self.buffer = b""
        self.sock.sendall(message)
        while b"\r\n\r\n" not in self.buffer:
            self.receive()
        head, _, self.buffer = self.buffer.partition(b"\r\n\r\n")
        lines = head.decode("latin-1").split("\r\n")
        fields = {name.strip().lower(): value.strip() for name, _, value in (line.partition(":") for line in lines[1:])}
        size = int(fields["content-length"])
        while len(self.buffer) < size:
            self.receive()
        content, self.buffer = self.buffer[:size], self.buffer[size:]
        if fields.get("connection", "").lower() == "close":
            self.sock.close()
            self.sock = None
        return Answer(int(lines[0].split()[1]), content)

    def receive(self) -> None:
        assert self.sock is not None
        chunk = self.sock.recv(65536)
        if not chunk:
            raise ConnectionError("the service closed the connection in the middle of an answer")
        self.buffer += chunk

    def get(self, path: str) -> Answer:
        return self.request("GET", path)

    def post(self, path: str, *, json: Any, headers: dict[str, str] | None = None) -> Answer:
        return self.request("POST", path, _json_bytes(json), headers)


def _json_bytes(value: Any) -> bytes:
    return json.dumps(value).encode()


def writer(
    base_url: str, token: str, name: str, template: dict[str, Any], singles: int, batches: int,
    start: Any, report: dict[str, Any], lean: bool = False,
) -> None:
    """Send ``singles`` single submissions and then ``batches`` batches; fill ``report``."""
    acknowledged: list[str] = []
    latencies: list[float] = []
    failures = 0
    opened: Any = (LeanClient(base_url, token) if lean else
                   httpx.Client(base_url=base_url, headers={"Authorization": f"Bearer {token}"}, timeout=60.0))
    with opened as client:
        client.get("/eras")  # the connection is open before the clock starts
        start.wait()
        single_began = time.perf_counter()
        for number in range(singles):
            key = f"{name}-single-{number}"
            began = time.perf_counter()
            answer = client.post("/signals/submit", json={**template, "idempotency_key": key},
                                 headers={"Idempotency-Key": key})
            latencies.append(time.perf_counter() - began)
            if answer.status_code == 202:
                acknowledged.append(answer.json()["submission_id"])
            else:
                failures += 1
        single_ended = time.perf_counter()
        start.wait()  # every writer's singles are done before any batch is sent
        batch_began = time.perf_counter()
        for batch in range(batches):
            signals = [{**template, "idempotency_key": f"{name}-batch-{batch}-{n}"} for n in range(BATCH_SIZE)]
            answer = client.post("/signals/batch", json={"signals": signals})
            for item in answer.json().get("results", []):
                if item["status_code"] == 202:
                    acknowledged.append(item["body"]["submission_id"])
                else:
                    failures += 1
        batch_ended = time.perf_counter()
    report.update(ids=acknowledged, latencies=latencies, failures=failures,
                  single_span=(single_began, single_ended), batch_span=(batch_began, batch_ended))


def client_process(
    base_url: str, token: str, threads: int, template: dict[str, Any], singles: int, batches: int, queue: Any,
    niceness: int, lean: bool, start: Any,
) -> None:
    """Run ``threads`` writers of one owner; put their merged report on ``queue``.

    ``start`` is a barrier of all writers of all processes: they start together, and
    begin their batches together once every writer has sent its singles."""
    os.nice(niceness)
    reports: list[dict[str, Any]] = [{} for _ in range(threads)]
    workers = [
        threading.Thread(target=writer, args=(base_url, token, f"{token}-{n}", template, singles, batches, start, report, lean))
        for n, report in enumerate(reports)
    ]
    for thread in workers:
        thread.start()
    for thread in workers:
        thread.join()
    queue.put({
        "token": token,
        "ids": [i for report in reports for i in report["ids"]],
        "latencies": [v for report in reports for v in report["latencies"]],
        "failures": sum(report["failures"] for report in reports),
        "single_spans": [report["single_span"] for report in reports],
        "batch_spans": [report["batch_span"] for report in reports],
    })


def reader_process(base_url: str, submission_id: str, stop: Any, queue: Any, niceness: int) -> None:
    """Ask for one submission's status in a loop until ``stop`` is set; report (start, latency) of each."""
    os.nice(niceness)
    latencies: list[tuple[float, float]] = []
    with httpx.Client(base_url=base_url, headers={"Authorization": f"Bearer {READER_TOKEN}"}, timeout=60.0) as client:
        while not stop.is_set():
            began = time.perf_counter()
            answer = client.get(f"/signals/status/{submission_id}")
            latencies.append((began, time.perf_counter() - began))
            answer.raise_for_status()
            time.sleep(0.005)
    queue.put(latencies)


def eras_process(base_url: str, stop: Any, queue: Any) -> None:
    """Ask for the era catalog in a loop until ``stop`` is set; report the latencies."""
    latencies: list[float] = []
    with httpx.Client(base_url=base_url, headers={"Authorization": f"Bearer {READER_TOKEN}"}, timeout=60.0) as client:
        while not stop.is_set():
            began = time.perf_counter()
            client.get("/eras").raise_for_status()
            latencies.append(time.perf_counter() - began)
            time.sleep(0.005)
    queue.put(latencies)


def big_batch_process(base_url: str, template: dict[str, Any], count: int, queue: Any) -> None:
    """Send ``count`` big batches at once, one thread each; report how many signals were accepted."""
    state = "s" * (63 * 1024)
    bodies = [
        json.dumps({"signals": [{**template, "search_state": state, "idempotency_key": f"big-{batch}-{n}"}
                                for n in range(BATCH_SIZE)]}).encode()
        for batch in range(count)
    ]
    accepted: list[int] = []

    def send(body: bytes) -> None:
        headers = {"Authorization": f"Bearer {READER_TOKEN}", "Content-Type": "application/json"}
        with httpx.Client(base_url=base_url, headers=headers, timeout=120.0) as client:
            accepted.append(client.post("/signals/batch", content=body).json()["accepted"])

    began = time.perf_counter()
    threads = [threading.Thread(target=send, args=(body,)) for body in bodies]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    queue.put({"accepted": sum(accepted), "seconds": time.perf_counter() - began, "bytes": len(bodies[0])})


def peak_resident_megabytes() -> float:
    """Return this process's peak resident memory (the service runs in it), in MiB."""
    for line in Path("/proc/self/status").read_text().splitlines():
        if line.startswith("VmHWM:"):
            return int(line.split()[1]) / 1024
    return 0.0


def listed_ids(client: httpx.Client) -> set[str]:
    """Return every submission id the owner's listing shows, following ``next_cursor``."""
    ids: set[str] = set()
    params: dict[str, Any] = {"limit": 1000}
    while True:
        page = client.get("/signals/submissions", params=params).json()
        ids.update(item["submission_id"] for item in page["submissions"])
        cursor = page.get("next_cursor")
        if not cursor:
            return ids
        params = {"limit": 1000, "cursor": cursor}


def main() -> int:
    """Run the load test and print its figures; exit 1 when a submission was lost or refused."""
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--processes", type=int, default=4, help="client processes, one owner each")
    parser.add_argument("--threads", type=int, default=1, help="concurrent writers per client process")
    parser.add_argument("--singles", type=int, default=250, help="single submissions per writer")
    parser.add_argument("--batches", type=int, default=5, help="batches of 100 per writer")
    parser.add_argument("--speed", type=float, default=1.0, help="lifecycle speed (the worker runs meanwhile)")
    parser.add_argument("--big-batches", type=int, default=0, help="concurrent batches of big signals at the end")
    parser.add_argument(
        "--client-nice", type=int, default=10,
        help="niceness of the client processes, so that they do not take the CPU from the service they measure",
    )
    parser.add_argument("--client", choices=("httpx", "lean"), default="httpx",
                        help="the writers' HTTP client: httpx, or prepared requests on a bare socket")
    args = parser.parse_args()
    template = body_template()
    tokens = [f"load-{n}" for n in range(args.processes)]
    context = multiprocessing.get_context("spawn")
    with tempfile.TemporaryDirectory() as directory:
        db_path = Path(directory) / "load.db"
        with run_service(db_path=db_path, tokens=[*tokens, READER_TOKEN], speed=args.speed) as service:
            with httpx.Client(base_url=service.base_url, headers={"Authorization": f"Bearer {READER_TOKEN}"}) as c:
                probe = c.post("/signals/submit", json={**template, "idempotency_key": "reader-probe"}).json()
            queue = context.Queue()
            reader_queue = context.Queue()
            stop = context.Event()
            start = context.Barrier(args.processes * args.threads)
            reader = context.Process(target=reader_process,
                                     args=(service.base_url, probe["submission_id"], stop, reader_queue,
                                           args.client_nice))
            workers = [
                context.Process(target=client_process,
                                args=(service.base_url, token, args.threads, template, args.singles, args.batches, queue,
                                      args.client_nice, args.client == "lean", start))
                for token in tokens
            ]
            began = time.perf_counter()
            reader.start()
            for worker in workers:
                worker.start()
            reports = [queue.get() for _ in workers]
            stop.set()
            reads = reader_queue.get()
            for process in [*workers, reader]:
                process.join()
            wall = time.perf_counter() - began
            lost = 0
            for report in reports:
                with httpx.Client(base_url=service.base_url, headers={"Authorization": f"Bearer {report['token']}"},
                                  timeout=60.0) as client:
                    listed = listed_ids(client)
                lost += len(set(report["ids"]) - listed) + len(listed - set(report["ids"]))
            big: dict[str, Any] = {}
            eras_latencies: list[float] = []
            if args.big_batches:
                eras_queue = context.Queue()
                big_queue = context.Queue()
                stop = context.Event()
                eras = context.Process(target=eras_process, args=(service.base_url, stop, eras_queue))
                sender = context.Process(target=big_batch_process,
                                         args=(service.base_url, template, args.big_batches, big_queue))
                eras.start()
                time.sleep(0.5)
                sender.start()
                big = big_queue.get()
                stop.set()
                eras_latencies = eras_queue.get()
                sender.join()
                eras.join()
    writers = args.processes * args.threads
    singles = sum(len(report["latencies"]) for report in reports)
    acknowledged = sum(len(report["ids"]) for report in reports)
    failures = sum(report["failures"] for report in reports)
    latencies = [latency for report in reports for latency in report["latencies"]]
    single_spans = [span for report in reports for span in report["single_spans"]]
    batch_spans = [span for report in reports for span in report["batch_spans"]]
    single_seconds = max(end for _, end in single_spans) - min(start for start, _ in single_spans)
    batch_seconds = max(end for _, end in batch_spans) - min(start for start, _ in batch_spans)
    batched = acknowledged - (singles - failures)
    # Status reads while the singles were being sent, and while the batches were.
    single_phase = (min(start for start, _ in single_spans), max(end for _, end in single_spans))
    batch_phase = (min(start for start, _ in batch_spans), max(end for _, end in batch_spans))
    reads_in = {
        phase: [latency for began, latency in reads if low <= began <= high]
        for phase, (low, high) in (("singles", single_phase), ("batches", batch_phase))
    }
    print(f"machine: {os.cpu_count()} cores, Python {sys.version.split()[0]}, "
          f"load average {os.getloadavg()[0]:.1f}, {args.client} clients at niceness {args.client_nice}")
    rows = [
        ("concurrent writers", f"{writers} ({args.processes} x {args.threads})"),
        ("acknowledged submissions", f"{acknowledged}"),
        ("refused or failed", f"{failures}"),
        ("single submits per second", f"{singles / single_seconds:.0f}"),
        ("single submit p50 (ms)", f"{1000 * statistics.median(latencies):.1f}"),
        ("single submit p99 (ms)", f"{1000 * percentile(latencies, 0.99):.1f}"),
        ("single submit max (ms)", f"{1000 * max(latencies):.1f}"),
        ("batched submissions per second", f"{batched / batch_seconds:.0f}" if batched else "0"),
        *[row for phase, latencies_in in reads_in.items() for row in (
            (f"status reads during {phase}", f"{len(latencies_in)}"),
            ("  p50 / p99 (ms)", f"{1000 * statistics.median(latencies_in):.1f} / "
                                 f"{1000 * percentile(latencies_in, 0.99):.1f}" if latencies_in else "-"),
        )],
        ("wall time (s)", f"{wall:.1f}"),
        ("lost or unexpected submissions", f"{lost}"),
    ]
    if args.big_batches:
        rows += [
            ("big batches at once", f"{args.big_batches} x {big['bytes'] / 1e6:.1f} MB"),
            ("big-batch signals accepted", f"{big['accepted']}"),
            ("big batches done in (s)", f"{big['seconds']:.1f}"),
            ("GET /eras meanwhile p50 (ms)", f"{1000 * statistics.median(eras_latencies):.1f}"),
            ("GET /eras meanwhile p99 (ms)", f"{1000 * percentile(eras_latencies, 0.99):.1f}"),
            ("GET /eras meanwhile max (ms)", f"{1000 * max(eras_latencies):.1f}"),
        ]
    rows.append(("service process peak RSS (MiB)", f"{peak_resident_megabytes():.0f}"))
    for label, value in rows:
        print(f"{label:<34}{value:>16}")
    return 1 if lost or failures else 0


if __name__ == "__main__":
    raise SystemExit(main())
