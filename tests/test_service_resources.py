"""Bounded resources of a real running service: file descriptors, threads, connections and slow peers."""

from __future__ import annotations

import json
import os
import socket
import threading
import time
from collections.abc import Iterator
from contextlib import ExitStack, closing
from pathlib import Path

import httpx
import pytest

from service_support import TOKEN_A, client_for, running, signal_body
from tallowmere.service import RunningService, ServiceLimits
from tallowmere.service.config import effective_max_connections


def open_descriptors() -> int:
    return len(os.listdir("/proc/self/fd"))


def wait_until(condition: object, timeout: float = 5.0) -> None:
    deadline = time.monotonic() + timeout
    while not condition():  # type: ignore[operator]
        assert time.monotonic() < deadline, "the condition did not come true in time"
        time.sleep(0.01)


def burst(clients: list[httpx.Client], round_number: int) -> None:
    """Submit and read concurrently, one thread per client."""
    failures: list[str] = []

    def work(writer: int, client: httpx.Client) -> None:
        answer = client.post("/signals/submit", json=signal_body(key=f"burst-{round_number}-{writer}"))
        if answer.status_code != 202:
            failures.append(answer.text)
            return
        status = client.get(f"/signals/status/{answer.json()['submission_id']}")
        listed = client.get("/signals/submissions", params={"limit": 5})
        if status.status_code != 200 or listed.status_code != 200:
            failures.append(f"{status.status_code} {listed.status_code}")

    threads = [threading.Thread(target=work, args=pair) for pair in enumerate(clients)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert failures == []


def test_descriptors_and_connections_stay_flat_over_bursts_and_idle_gaps(tmp_path: Path) -> None:
    # Work threads retire after 50 ms idle, so each gap between bursts retires
    # them all and each burst starts new ones: the churn that used to leave a
    # database connection behind per retired thread.
    limits = ServiceLimits(work_threads=4, thread_idle_seconds=0.05)
    most_connections = limits.work_threads + 2  # the writer's, one per work thread, the worker's
    with running(tmp_path / "flat.db", limits=limits) as service, ExitStack() as stack:
        runtime = service.runtime
        clients = [stack.enter_context(client_for(service)) for _ in range(limits.work_threads)]
        burst(clients, 0)
        wait_until(lambda: runtime.pool.thread_count() == 0)
        baseline = open_descriptors()
        # Each SQLite connection holds three files (database, WAL, shared memory),
        # and the pool may still open the connections it has not needed yet.
        bound = baseline + 3 * (most_connections - runtime.store.connection_count()) + 4
        threads_seen: set[str] = set()
        for round_number in range(1, 21):
            burst(clients, round_number)
            threads_seen.update(thread.name for thread in threading.enumerate() if thread.name.startswith("tallowmere-work"))
            wait_until(lambda: runtime.pool.thread_count() == 0)
            assert runtime.store.connection_count() <= most_connections
        assert len(threads_seen) > 2 * limits.work_threads, "the work threads did not churn"
        wait_until(lambda: open_descriptors() <= bound)  # sockets of the last burst may still be closing


def raw_connection(service: RunningService) -> socket.socket:
    sock = socket.create_connection((service.host, service.port), timeout=5)
    sock.settimeout(5)
    return sock


def read_until_closed(sock: socket.socket) -> bytes:
    received = b""
    while chunk := sock.recv(65536):
        received += chunk
    return received


def answer_of(received: bytes) -> tuple[int, dict[str, object]]:
    head, _, body = received.partition(b"\r\n\r\n")
    return int(head.split()[1]), json.loads(body)


@pytest.fixture(scope="module")
def impatient(tmp_path_factory: pytest.TempPathFactory) -> Iterator[RunningService]:
    limits = ServiceLimits(header_timeout=0.3, body_timeout=0.3, keep_alive_timeout=0.3, max_connections=8)
    with running(tmp_path_factory.mktemp("impatient") / "service.db", limits=limits) as service:
        yield service


def test_a_silent_connection_is_closed_after_the_header_timeout(impatient: RunningService) -> None:
    with closing(raw_connection(impatient)) as sock:
        began = time.monotonic()
        assert read_until_closed(sock) == b""
        assert 0.2 < time.monotonic() - began < 3


def test_a_half_sent_head_is_answered_408_and_closed(impatient: RunningService) -> None:
    with closing(raw_connection(impatient)) as sock:
        sock.sendall(b"GET /eras HTTP/1.1\r\nHost: x\r\nAuthoriz")
        status_code, body = answer_of(read_until_closed(sock))
    assert (status_code, body["reason"]) == (408, "request_timeout")


def test_a_trickling_head_cannot_outlast_the_timeout(impatient: RunningService) -> None:
    # A byte every 10 ms keeps a connection busy but never finishes its head:
    # the deadline runs from the first byte, not from the last.
    payload = b"GET /eras HTTP/1.1\r\nHost: x\r\n" + b"X-Pad: y\r\n" * 50
    with closing(raw_connection(impatient)) as sock:
        began = time.monotonic()
        try:
            for byte in payload:
                sock.sendall(bytes([byte]))
                time.sleep(0.01)
        except OSError:
            pass  # the server closed the connection under the sender
        assert time.monotonic() - began < 2.5, "the server kept the trickling connection open"


def test_a_slow_body_is_cut_off_and_the_request_never_stored(impatient: RunningService) -> None:
    body = json.dumps(signal_body(key="slow-body")).encode()
    head = (
        "POST /signals/submit HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n"
        f"Authorization: Bearer {TOKEN_A}\r\nContent-Length: {len(body)}\r\n\r\n"
    ).encode()
    with closing(raw_connection(impatient)) as sock:
        sock.sendall(head + body[:100])
        assert read_until_closed(sock) == b""
    with client_for(impatient) as client:
        assert client.get("/signals/submissions", params={"idempotency_key": "slow-body"}).json()["count"] == 0


def test_an_idle_kept_alive_connection_is_closed(impatient: RunningService) -> None:
    with closing(raw_connection(impatient)) as sock:
        sock.sendall(f"GET /eras HTTP/1.1\r\nHost: x\r\nAuthorization: Bearer {TOKEN_A}\r\n\r\n".encode())
        received = read_until_closed(sock)
    assert received.startswith(b"HTTP/1.1 200")


def test_connections_beyond_the_limit_are_refused_with_503(impatient: RunningService) -> None:
    held = [raw_connection(impatient) for _ in range(8)]
    try:
        time.sleep(0.05)
        with closing(raw_connection(impatient)) as extra:
            status_code, body = answer_of(read_until_closed(extra))
        assert (status_code, body["reason"]) == (503, "too_many_connections")
    finally:
        for sock in held:
            sock.close()
    wait_until(lambda: _eras_answered(impatient))


def _eras_answered(service: RunningService) -> bool:
    try:
        with client_for(service) as client:
            return client.get("/eras").status_code == 200
    except httpx.TransportError:
        return False


@pytest.mark.parametrize(
    ("open_files", "expected"),
    [(20000, 512), (256, 192), (70, 8)],
)
def test_the_connection_limit_leaves_room_under_the_open_file_limit(open_files: int, expected: int) -> None:
    assert effective_max_connections(ServiceLimits(), open_files) == expected
