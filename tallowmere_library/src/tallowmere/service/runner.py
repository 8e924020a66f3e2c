"""Running the service on uvicorn: in a background thread (tests, the demo) or in the foreground (the CLI)."""

from __future__ import annotations

import signal
import socket
import sys
import threading
import time
from collections.abc import Callable, Iterator, Mapping, Sequence
from contextlib import contextmanager
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

import uvicorn

from tallowmere.service.catalog import load_catalog_file
from tallowmere.service.config import EvaluationPolicy, LifecycleTimings, ServiceConfig, ServiceLimits
from tallowmere.service.connections import BoundedHttpProtocol, ServerSettings
from tallowmere.service.evaluation import Resimulator, simulator_resimulation
from tallowmere.service.faults import ConnectionTrackingHttpProtocol
from tallowmere.service.runtime import ServiceRuntime

STARTUP_TIMEOUT_SECONDS = 30.0
GRACEFUL_SHUTDOWN_SECONDS = 5


@dataclass(frozen=True, slots=True)
class RunningService:
    """A service serving on loopback: where it listens, whom it admits, and its runtime."""

    base_url: str
    host: str
    port: int
    tokens: tuple[str, ...]
    db_path: Path
    runtime: ServiceRuntime = field(repr=False)


LISTEN_BACKLOG = 2048


def bind_socket(host: str, port: int) -> socket.socket:
    """Bind a TCP socket and start listening (``port`` 0 picks a free port).

    It listens at once, so a caller may connect as soon as the URL is known:
    connections wait in the backlog until the server accepts them.
    """
    family = socket.AF_INET6 if ":" in host else socket.AF_INET
    # Naming the protocol matters: asyncio turns Nagle's algorithm off
    # (TCP_NODELAY) only on connections whose socket says IPPROTO_TCP, and
    # without it every answer waits ~40 ms for the client's delayed ACK.
    sock = socket.socket(family, socket.SOCK_STREAM, socket.IPPROTO_TCP)
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    try:
        sock.bind((host, port))
    except OSError:
        sock.close()
        raise
    sock.listen(LISTEN_BACKLOG)
    return sock


def base_url_of(sock: socket.socket) -> str:
    """Return ``http://host:port`` of a bound socket."""
    host, port = sock.getsockname()[:2]
    return f"http://[{host}]:{port}" if ":" in host else f"http://{host}:{port}"


def uvicorn_server(runtime: ServiceRuntime, *, log_level: str = "warning") -> uvicorn.Server:
    """Return a uvicorn server for ``runtime``'s application, bounded by its limits
    (and tracking connections when faults are on)."""
    config = ServerSettings(
        runtime.app,
        limits=runtime.config.limits,
        http=ConnectionTrackingHttpProtocol if runtime.config.faults else BoundedHttpProtocol,
        lifespan="off",
        proxy_headers=False,
        log_level=log_level,
        access_log=False,
        timeout_graceful_shutdown=GRACEFUL_SHUTDOWN_SECONDS,
    )
    return uvicorn.Server(config)


@contextmanager
def switch_interval(seconds: float) -> Iterator[None]:
    """Set the interpreter's thread switch interval for the duration of the block, then restore it."""
    previous = sys.getswitchinterval()
    sys.setswitchinterval(seconds)
    try:
        yield
    finally:
        sys.setswitchinterval(previous)


def resolve_eras(eras: Mapping[str, Any] | str | Path | None) -> dict[str, Any] | None:
    """Return the era catalog to publish: a mapping as given, a file's content, or None for the bundled one."""
    if eras is None:
        return None
    if isinstance(eras, (str, Path)):
        return load_catalog_file(Path(eras))
    return dict(eras)


@contextmanager
def run_service(
    *,
    db_path: str | Path,
    tokens: Sequence[str],
    eras: Mapping[str, Any] | str | Path | None = None,
    speed: float = 1.0,
    faults: bool = False,
    host: str = "127.0.0.1",
    port: int = 0,
    timings: LifecycleTimings | None = None,
    policy: EvaluationPolicy | None = None,
    limits: ServiceLimits | None = None,
    resimulator: Resimulator = simulator_resimulation,
    clock: Callable[[], float] = time.time,
) -> Iterator[RunningService]:
    """Serve the service in a background thread for the duration of the ``with`` block.

    ``port`` 0 picks a free port; the yielded `RunningService` says which.
    On exit the server stops accepting, finishes its open requests, the
    worker stops and the database is closed; no thread or socket is left.
    """
    config = ServiceConfig(
        db_path=Path(db_path),
        tokens=tuple(tokens),
        eras=resolve_eras(eras),
        speed=speed,
        faults=faults,
        timings=timings or LifecycleTimings(),
        policy=policy or EvaluationPolicy(),
        limits=limits or ServiceLimits(),
    )
    runtime = ServiceRuntime(config, resimulator=resimulator, clock=clock)
    try:
        sock = bind_socket(host, port)
    except BaseException:
        runtime.close()
        raise
    server = uvicorn_server(runtime)
    thread = threading.Thread(target=server.run, kwargs={"sockets": [sock]}, name="tallowmere-service", daemon=True)
    with switch_interval(config.limits.switch_interval):
        try:
            runtime.start()
            thread.start()
            deadline = time.monotonic() + STARTUP_TIMEOUT_SECONDS
            while not server.started:
                if not thread.is_alive() or time.monotonic() > deadline:
                    raise RuntimeError("the service did not start; see the log for uvicorn's error")
                time.sleep(0.005)
            bound_port = sock.getsockname()[1]
            yield RunningService(
                base_url=base_url_of(sock),
                host=host,
                port=bound_port,
                tokens=tuple(config.tokens),
                db_path=config.db_path,
                runtime=runtime,
            )
        finally:
            server.should_exit = True
            if thread.is_alive():
                thread.join(GRACEFUL_SHUTDOWN_SECONDS + 10)
            runtime.close()
            sock.close()


def serve_forever(
    runtime: ServiceRuntime,
    sock: socket.socket,
    *,
    log_level: str = "info",
    announce: Callable[[], None] = lambda: None,
) -> None:
    """Serve ``runtime`` on ``sock`` in this thread until SIGINT or SIGTERM, then stop everything and return.

    uvicorn turns the first SIGINT/SIGTERM into a graceful shutdown and then
    re-raises the signal; the handlers installed here absorb that re-raise
    (and stop a server that is signalled before uvicorn took over), so the
    worker is stopped and the database closed before the caller exits normally.
    ``announce`` (which tells the world the URL) runs once those handlers
    are in place, so that a signal sent as soon as the URL is known stops
    the service cleanly.
    """
    server = uvicorn_server(runtime, log_level=log_level)

    def stop(number: int, frame: object) -> None:
        server.should_exit = True

    previous: dict[signal.Signals, Any] = {}
    if threading.current_thread() is threading.main_thread():
        for stop_signal in (signal.SIGINT, signal.SIGTERM):
            previous[stop_signal] = signal.signal(stop_signal, stop)
    try:
        announce()
        runtime.start()
        with switch_interval(runtime.config.limits.switch_interval):
            server.run(sockets=[sock])
    finally:
        for stop_signal, handler in previous.items():
            signal.signal(stop_signal, handler)
        runtime.close()
        sock.close()
