"""Timings of local backtests, recorded per graph and required before a submission.

Every era sets a time budget for evaluating a signal: one for the slowest row
(one day of the panel) and one for the whole backtest. The service will not
spend more than that on a signal, so the client sends only graphs that were
backtested locally within budget. The local simulator records each timing
with :func:`record_backtest_timing`; the submission client then

1. checks, before anything is sent, that every graph has a usable record
   (:func:`require_recorded_backtest_timing`,
   :func:`require_recorded_backtest_timings` for a batch);
2. judges the record against the era's frequency and budgets
   (:func:`assess_client_backtest_timing`);
3. marks the record consumed as it submits (:func:`consume_recorded_backtest_timing`).

Records are keyed by :func:`~tallowmere.simulation.graph_complexity.graph_fingerprint`,
so an equal graph built anew (keys in another order included) finds the
record of its twin.

Life of a record:

- it is usable for :data:`RECORD_LIFETIME_SECONDS` (24 hours) after it was
  recorded;
- once consumed it stays usable for :data:`CONSUMED_GRACE_SECONDS` (1 hour)
  after its first consumption, so that a submission interrupted by a network
  failure can be retried as it is; consuming it again does not extend that
  hour. After the hour (or the 24 hours, whichever ends first) it is gone and
  the graph must be simulated again;
- simulating the same graph again replaces the record with a fresh one;
- the store keeps at most :data:`MAX_RECORDED_TIMINGS` records and forgets the
  least recently used first.

The store is process-wide and thread-safe; expiry uses :func:`time.monotonic`,
so changes of the wall clock do not affect it.
"""

from __future__ import annotations

import math
import threading
import time
from collections import OrderedDict
from collections.abc import Callable, Iterable
from dataclasses import dataclass
from typing import Literal, TypedDict

from tallowmere._accelerate import accelerate
from tallowmere.simulation.graph_complexity import graph_fingerprint

__all__ = [
    "CONSUMED_GRACE_SECONDS",
    "MAX_RECORDED_TIMINGS",
    "MISSING_TIMING_MESSAGE",
    "RECORD_LIFETIME_SECONDS",
    "BacktestTimingAssessment",
    "BacktestTimingRecord",
    "BacktestTimingStore",
    "assess_client_backtest_timing",
    "clear_recorded_backtest_timings",
    "consume_recorded_backtest_timing",
    "record_backtest_timing",
    "require_recorded_backtest_timing",
    "require_recorded_backtest_timings",
]

RECORD_LIFETIME_SECONDS = 24 * 60 * 60.0
"""How long a record stays usable after it was recorded."""

CONSUMED_GRACE_SECONDS = 60 * 60.0
"""How long a record stays usable after it was first consumed."""

MAX_RECORDED_TIMINGS = 4096
"""How many records the process keeps; the least recently used go first."""

MISSING_TIMING_MESSAGE = (
    "recorded backtest timing is required before submit; run simulate_signal for this graph before submitting it"
)


@dataclass(frozen=True, slots=True)
class BacktestTimingRecord:
    """One local backtest timing of one graph.

    ``fingerprint`` is the graph's :func:`graph_fingerprint`; ``elapsed_seconds``
    the whole backtest; ``row_count`` the rows (days) evaluated;
    ``max_row_elapsed_seconds`` the slowest row; ``frequency`` the data
    frequency measured on (for example ``1d``); ``recorded_at`` the wall-clock
    time of recording (:func:`time.time`).
    """

    fingerprint: str
    elapsed_seconds: float
    row_count: int
    max_row_elapsed_seconds: float
    frequency: str
    recorded_at: float


class BacktestTimingAssessment(TypedDict):
    """The verdict of :func:`assess_client_backtest_timing`."""

    status: Literal["accepted", "rejected"]
    reason: Literal["frequency_mismatch", "whole_budget_exceeded", "row_budget_exceeded"] | None
    elapsed_seconds: float
    max_row_elapsed_seconds: float
    per_row_budget_seconds: float
    whole_budget_seconds: float


@dataclass(slots=True)
class _StoredTiming:
    record: BacktestTimingRecord
    stored_at: float
    first_consumed_at: float | None = None


class BacktestTimingStore:
    """A bounded, expiring, thread-safe store of timing records by fingerprint.

    The module functions use one process-wide store; build your own (with a
    controllable ``clock``) to test code that depends on expiry.
    """

    def __init__(
        self,
        *,
        max_records: int = MAX_RECORDED_TIMINGS,
        lifetime_seconds: float = RECORD_LIFETIME_SECONDS,
        grace_seconds: float = CONSUMED_GRACE_SECONDS,
        clock: Callable[[], float] = time.monotonic,
        wall_clock: Callable[[], float] = time.time,
    ) -> None:
        """Create an empty store; ``clock`` measures expiry, ``wall_clock`` stamps records."""
        if max_records < 1:
            raise ValueError(f"max_records must be at least 1, got {max_records}")
        self._max_records = max_records
        self._lifetime_seconds = lifetime_seconds
        self._grace_seconds = grace_seconds
        self._clock = clock
        self._wall_clock = wall_clock
        self._lock = threading.Lock()
        self._entries: OrderedDict[str, _StoredTiming] = OrderedDict()

    def __len__(self) -> int:
        """The number of records held, usable or not yet purged."""
        with self._lock:
            return len(self._entries)

    def record(
        self,
        fingerprint: str,
        *,
        elapsed_seconds: float,
        row_count: int,
        max_row_elapsed_seconds: float,
        frequency: str,
    ) -> BacktestTimingRecord:
        """Validate and store a timing for ``fingerprint``, replacing any earlier one."""
        record = BacktestTimingRecord(
            fingerprint=fingerprint,
            elapsed_seconds=_positive_seconds("elapsed_seconds", elapsed_seconds),
            row_count=_positive_row_count(row_count),
            max_row_elapsed_seconds=_positive_seconds("max_row_elapsed_seconds", max_row_elapsed_seconds),
            frequency=_frequency(frequency),
            recorded_at=self._wall_clock(),
        )
        with self._lock:
            self._entries[fingerprint] = _StoredTiming(record=record, stored_at=self._clock())
            self._entries.move_to_end(fingerprint)
            while len(self._entries) > self._max_records:
                self._entries.popitem(last=False)
        return record

    def lookup(self, fingerprint: str) -> BacktestTimingRecord | None:
        """Return the usable record of ``fingerprint`` without consuming it."""
        with self._lock:
            entry = self._usable_entry(fingerprint, self._clock())
        return None if entry is None else entry.record

    def lookup_all(self, fingerprints: Iterable[str]) -> list[BacktestTimingRecord | None]:
        """Look up many fingerprints at one instant, under one acquisition of the lock."""
        with self._lock:
            now = self._clock()
            entries = [self._usable_entry(fingerprint, now) for fingerprint in fingerprints]
        return [None if entry is None else entry.record for entry in entries]

    def consume(self, fingerprint: str) -> BacktestTimingRecord | None:
        """Return the usable record of ``fingerprint`` and mark it consumed.

        The first consumption starts the grace period; later ones leave it as
        it is.
        """
        with self._lock:
            now = self._clock()
            entry = self._usable_entry(fingerprint, now)
            if entry is None:
                return None
            if entry.first_consumed_at is None:
                entry.first_consumed_at = now
            return entry.record

    def clear(self) -> None:
        """Forget every record."""
        with self._lock:
            self._entries.clear()

    def _usable_entry(self, fingerprint: str, now: float) -> _StoredTiming | None:
        """Return the entry if still usable, dropping it if it expired. Lock held."""
        entry = self._entries.get(fingerprint)
        if entry is None:
            return None
        expired = now - entry.stored_at >= self._lifetime_seconds or (
            entry.first_consumed_at is not None and now - entry.first_consumed_at >= self._grace_seconds
        )
        if expired:
            del self._entries[fingerprint]
            return None
        self._entries.move_to_end(fingerprint)
        return entry


_STORE = BacktestTimingStore()


def record_backtest_timing(
    graph: object,
    *,
    elapsed_seconds: float,
    row_count: int,
    max_row_elapsed_seconds: float,
    frequency: str,
) -> BacktestTimingRecord:
    """Record the timing of a local backtest of ``graph`` and return the record.

    ``elapsed_seconds`` and ``max_row_elapsed_seconds`` must be positive finite
    numbers, ``row_count`` a positive int and ``frequency`` a non-blank
    string; anything else raises ``ValueError`` naming the argument, as does
    a graph that cannot be fingerprinted.
    """
    return _STORE.record(
        graph_fingerprint(graph),
        elapsed_seconds=elapsed_seconds,
        row_count=row_count,
        max_row_elapsed_seconds=max_row_elapsed_seconds,
        frequency=frequency,
    )


def require_recorded_backtest_timing(graph: object) -> BacktestTimingRecord:
    """Return the usable record of ``graph`` without consuming it.

    Raises ``ValueError`` with :data:`MISSING_TIMING_MESSAGE` when there is
    none, and a ``ValueError`` saying why when the graph cannot be fingerprinted.
    """
    record = _STORE.lookup(graph_fingerprint(graph))
    if record is None:
        raise ValueError(MISSING_TIMING_MESSAGE)
    return record


def require_recorded_backtest_timings(graphs: Iterable[object]) -> list[BacktestTimingRecord]:
    """Return the usable record of every graph of a batch, in batch order.

    The first graph (by position, counted from 0) that has no usable record
    or cannot be fingerprinted raises ``ValueError`` whose message ends with
    ``(batch item N)``; nothing is consumed.
    """
    fingerprints: list[str] = []
    for index, graph in enumerate(graphs):
        try:
            fingerprints.append(graph_fingerprint(graph))
        except ValueError as exc:
            raise ValueError(f"{exc} (batch item {index})") from None
    records = _STORE.lookup_all(fingerprints)
    found: list[BacktestTimingRecord] = []
    for index, record in enumerate(records):
        if record is None:
            raise ValueError(f"{MISSING_TIMING_MESSAGE} (batch item {index})")
        found.append(record)
    return found


def consume_recorded_backtest_timing(graph: object) -> BacktestTimingRecord | None:
    """Return the usable record of ``graph`` (None when there is none) and mark it consumed.

    A consumed record remains usable for :data:`CONSUMED_GRACE_SECONDS` after
    its first consumption, so retrying a failed submission works.
    """
    return _STORE.consume(graph_fingerprint(graph))


def clear_recorded_backtest_timings() -> None:
    """Forget every recorded timing of this process."""
    _STORE.clear()


def assess_client_backtest_timing(
    record: BacktestTimingRecord,
    *,
    frequency: str,
    per_row_budget_seconds: float,
    whole_budget_seconds: float,
) -> BacktestTimingAssessment:
    """Judge a recorded timing against an era's frequency and budgets.

    Checks in order, the first failure deciding the ``reason``: the record's
    frequency equals ``frequency`` (``frequency_mismatch``); the whole backtest
    took at most ``whole_budget_seconds`` (``whole_budget_exceeded``); the
    slowest row took at most ``per_row_budget_seconds``
    (``row_budget_exceeded``). A timing equal to its budget is within it.
    A budget that is not a positive finite number raises ``ValueError``.
    """
    per_row_budget = _positive_seconds("per_row_budget_seconds", per_row_budget_seconds)
    whole_budget = _positive_seconds("whole_budget_seconds", whole_budget_seconds)
    reason: Literal["frequency_mismatch", "whole_budget_exceeded", "row_budget_exceeded"] | None = None
    if record.frequency != frequency:
        reason = "frequency_mismatch"
    elif record.elapsed_seconds > whole_budget:
        reason = "whole_budget_exceeded"
    elif record.max_row_elapsed_seconds > per_row_budget:
        reason = "row_budget_exceeded"
    return {
        "status": "accepted" if reason is None else "rejected",
        "reason": reason,
        "elapsed_seconds": record.elapsed_seconds,
        "max_row_elapsed_seconds": record.max_row_elapsed_seconds,
        "per_row_budget_seconds": per_row_budget,
        "whole_budget_seconds": whole_budget,
    }


def _positive_seconds(name: str, value: object) -> float:
    problem = f"{name} must be a positive finite number of seconds, got {value!r}"
    if isinstance(value, bool) or not isinstance(value, (int, float)):
        raise ValueError(problem)
    try:
        seconds = float(value)
    except OverflowError:
        raise ValueError(problem) from None
    if not math.isfinite(seconds) or seconds <= 0:
        raise ValueError(problem)
    return seconds


def _positive_row_count(value: object) -> int:
    if isinstance(value, bool) or not isinstance(value, int) or value < 1:
        raise ValueError(f"row_count must be a positive int, got {value!r}")
    return int(value)


def _frequency(value: object) -> str:
    if not isinstance(value, str) or not value.strip():
        raise ValueError(f"frequency must be a non-blank string such as '1d', got {value!r}")
    return value


# The compiled versions of these functions, unless switched off (see tallowmere._accelerate).
accelerate(
    globals(),
    (
        "require_recorded_backtest_timing",
        "require_recorded_backtest_timings",
        "consume_recorded_backtest_timing",
        "assess_client_backtest_timing",
    ),
)
