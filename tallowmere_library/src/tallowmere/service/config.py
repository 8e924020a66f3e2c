"""Settings of one service instance: where it stores, whom it serves, how fast it judges."""

from __future__ import annotations

import math
import resource
from collections.abc import Sequence
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any, Final

from tallowmere.service.lifecycle import (
    SIGNAL_FOUND,
    SIGNAL_OS_PASSED,
    SIGNAL_SUBMITTED,
    STRATEGY_SUBMITTED,
)

MAX_BATCH_ITEMS = 100
"""The most signals one ``POST /signals/batch`` request may carry."""

MAX_REQUEST_BYTES = 8 * 1024 * 1024
"""The largest request body the service reads, in bytes (a batch of up to 100 signals)."""

MAX_SUBMISSION_BYTES = 256 * 1024
"""The largest body of one ``POST /signals/submit`` or ``/strategies/submit``, in bytes."""

FIELD_BYTE_LIMITS: Final = {
    "graph": 64 * 1024,
    "is_stats": 16 * 1024,
    "metaparameters": 16 * 1024,
    "search_state": 64 * 1024,
    "simulation_data_contract_projection": 4 * 1024,
}
"""The most bytes each structured field of a submission may take, measured as its compact UTF-8 JSON."""

MAX_HEADER_BYTES = 16 * 1024
"""The most bytes of header names and values one request may carry."""


def _positive_finite(name: str, value: object) -> None:
    if isinstance(value, bool) or not isinstance(value, (int, float)):
        raise TypeError(f"{name} must be a number")
    if not math.isfinite(value) or value <= 0:
        raise ValueError(f"{name} must be a positive finite number, got {value!r}")


@dataclass(frozen=True, slots=True)
class ServiceLimits:
    """How much one service instance takes on at once, and how long it waits for a slow peer.

    ``max_connections``: open client connections; one more is answered 503
    and closed at once (the operating system's limit on open files lowers it
    further, see `effective_max_connections`). ``header_timeout``: seconds a
    connection may take to send a request's head (from its first byte, or
    from connecting); ``body_timeout``: seconds from the end of the head to
    the end of the body; ``keep_alive_timeout``: seconds an idle kept-alive
    connection stays open. ``work_threads``: threads that parse, validate
    and read the database (each reads through a pooled connection);
    ``thread_idle_seconds``: how long an idle one lives before it retires.
    ``write_busy_timeout`` / ``read_busy_timeout``: seconds a write or read
    waits for a lock that another process holds on the database before the
    request is answered 503. ``large_body_slots``: requests over
    `MAX_SUBMISSION_BYTES` (batches) read and parsed at once; more wait.
    ``submission_slots``: submission requests (single or batch) processed at
    once once their body is in; more wait their turn, so that a flood of
    writers leaves the event loop free for status reads and listings.
    ``switch_interval``: the interpreter's thread switch interval while the
    service runs (`sys.setswitchinterval`); shorter than Python's 5 ms, it
    hands the interpreter back to the event loop sooner when the lifecycle
    worker computes or a thread finishes a database call.
    ``worker_niceness``: how much lower than the requests' the operating
    system's priority of the lifecycle worker's thread is (Linux; 0 keeps it
    equal), so that its re-simulations take only the CPU that requests leave.
    """

    max_connections: int = 512
    header_timeout: float = 10.0
    body_timeout: float = 30.0
    keep_alive_timeout: float = 5.0
    work_threads: int = 8
    thread_idle_seconds: float = 10.0
    write_busy_timeout: float = 5.0
    read_busy_timeout: float = 2.0
    large_body_slots: int = 2
    submission_slots: int = 8
    switch_interval: float = 0.001
    worker_niceness: int = 10

    def __post_init__(self) -> None:
        for name in ("max_connections", "work_threads", "large_body_slots", "submission_slots"):
            value = getattr(self, name)
            if type(value) is not int or value < 1:
                raise ValueError(f"{name} must be a positive integer, got {value!r}")
        if type(self.worker_niceness) is not int or not 0 <= self.worker_niceness <= 19:
            raise ValueError(f"worker_niceness must be an integer from 0 to 19, got {self.worker_niceness!r}")
        for name in (
            "header_timeout",
            "body_timeout",
            "keep_alive_timeout",
            "thread_idle_seconds",
            "write_busy_timeout",
            "read_busy_timeout",
            "switch_interval",
        ):
            _positive_finite(name, getattr(self, name))


@dataclass(frozen=True, slots=True)
class LifecycleTimings:
    """How long, in seconds at speed 1, a submission waits in each pending status.

    ``resimulation`` is the wait after submission before the re-simulation,
    ``out_of_sample`` the wait of a found signal before its out-of-sample
    evaluation, ``usefulness`` the wait of a passed signal before the
    usefulness review, ``strategy_review`` the wait of a strategy before its
    review.
    """

    resimulation: float = 2.0
    out_of_sample: float = 10.0
    usefulness: float = 10.0
    strategy_review: float = 2.0

    def wait_after(self, status: str) -> float:
        """Return the nominal wait, in seconds, of a submission that just entered ``status``."""
        waits = {
            SIGNAL_SUBMITTED: self.resimulation,
            SIGNAL_FOUND: self.out_of_sample,
            SIGNAL_OS_PASSED: self.usefulness,
            STRATEGY_SUBMITTED: self.strategy_review,
        }
        return waits[status]


@dataclass(frozen=True, slots=True)
class EvaluationPolicy:
    """The service's own bars, beyond the era thresholds.

    ``stats_rel_tolerance``/``stats_abs_tolerance``: how far a submitted
    statistic may differ from the re-simulated one (``math.isclose``) before
    the submission counts as tampered. ``os_min_sharpe``: the out-of-sample
    Sharpe ratio a found signal needs to pass. ``useful_min_sharpe``: the
    out-of-sample Sharpe ratio a passed signal needs to be useful.
    ``payment_per_sharpe``: the payment of a useful signal per unit of
    out-of-sample Sharpe ratio, in ``currency``.
    """

    stats_rel_tolerance: float = 1e-6
    stats_abs_tolerance: float = 1e-9
    os_min_sharpe: float = 0.3
    useful_min_sharpe: float = 0.8
    payment_per_sharpe: float = 25.0
    currency: str = "TMC"


RESERVED_FILE_DESCRIPTORS: Final = 64
"""Open files kept free of client connections: the database, its WAL, the listening socket, logs."""

MIN_CONNECTIONS: Final = 8


def effective_max_connections(limits: ServiceLimits, open_file_limit: int | None = None) -> int:
    """Return how many client connections the server keeps open at most.

    That is ``limits.max_connections``, lowered when the process's limit on
    open files (``open_file_limit``, read from the system when None) would
    not leave `RESERVED_FILE_DESCRIPTORS` beside them, but never below
    `MIN_CONNECTIONS`.
    """
    if open_file_limit is None:
        soft, _ = resource.getrlimit(resource.RLIMIT_NOFILE)
        open_file_limit = soft if soft != resource.RLIM_INFINITY else limits.max_connections * 2
    return max(MIN_CONNECTIONS, min(limits.max_connections, open_file_limit - RESERVED_FILE_DESCRIPTORS))


def is_token_text(text: str) -> bool:
    """Tell whether ``text`` can be a bearer token: one or more printable ASCII characters, no spaces."""
    return bool(text) and text.isascii() and text.isprintable() and " " not in text


@dataclass(frozen=True, slots=True)
class ServiceConfig:
    """Everything one service instance needs to start.

    ``tokens`` are the accepted bearer tokens (each one is its own owner);
    ``eras`` is an era catalog that replaces the bundled one (None keeps the
    bundled catalog); ``speed`` divides every lifecycle wait (2.0 runs twice
    as fast); ``faults`` enables the fault-injection control route;
    ``limits`` bounds connections, threads and waits.
    """

    db_path: Path
    tokens: Sequence[str]
    eras: dict[str, Any] | None = None
    speed: float = 1.0
    faults: bool = False
    timings: LifecycleTimings = field(default_factory=LifecycleTimings)
    policy: EvaluationPolicy = field(default_factory=EvaluationPolicy)
    limits: ServiceLimits = field(default_factory=ServiceLimits)

    def __post_init__(self) -> None:
        if isinstance(self.tokens, str):
            raise TypeError("tokens must be a sequence of strings, not one string")
        if not self.tokens:
            raise ValueError("at least one bearer token is required")
        for token in self.tokens:
            if not isinstance(token, str) or not is_token_text(token):
                raise ValueError(
                    "bearer tokens must be non-empty printable ASCII without spaces "
                    "(an HTTP header cannot carry anything else)"
                )
        _positive_finite("speed", self.speed)

    def scaled_wait(self, status: str) -> float:
        """Return the real wait, in seconds, of a submission that just entered ``status``."""
        return self.timings.wait_after(status) / self.speed
