"""Durable storage of submissions in one SQLite file.

The database runs in WAL mode with ``synchronous=FULL``: a submission is
acknowledged only after its transaction is committed and the WAL synced, so
an acknowledged submission survives a ``kill -9`` of the server (and a power
cut, as far as the disk honours ``fsync``).

One process serves one database: opening the store takes an exclusive lock
on ``<database>.lock`` (released by the operating system when the process
ends, however it ends), and a second process is refused with a message that
names the first one's pid. Opening also runs SQLite's ``quick_check``, so a
damaged file is refused at start rather than answering errors later.

Writes are serialised: one writer thread owns the only writing connection.
It takes the writes queued meanwhile as one group, runs each in its own
savepoint of a single transaction and commits the group with one sync, so
concurrent writers never wait in SQLite's busy handler and share the cost of
a sync. Reads use a small pool of read-only connections that any thread may
borrow; their number is fixed, whatever the threads that borrow them.

A submission and its idempotency record are one row: the pair (owner,
idempotency key) is unique, and the row keeps the original answer, so a
restart keeps every submission, its status and its idempotency record.
"""

from __future__ import annotations

import asyncio
import fcntl
import json
import os
import queue
import sqlite3
import threading
from collections.abc import Callable, Iterator, Sequence
from concurrent.futures import Future
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Final, TypeVar

from tallowmere.service.jsonio import JSONObject, dumps_compact
from tallowmere.service.records import SubmissionRecord, SubmissionStatus

T = TypeVar("T")

SCHEMA_VERSION: Final = 1

_SCHEMA: Final = """
CREATE TABLE IF NOT EXISTS submissions (
    seq INTEGER PRIMARY KEY AUTOINCREMENT,
    submission_id TEXT NOT NULL UNIQUE,
    owner TEXT NOT NULL,
    kind TEXT NOT NULL,
    idempotency_key TEXT NOT NULL,
    fingerprint TEXT NOT NULL,
    pool_name TEXT NOT NULL,
    named_universe TEXT NOT NULL,
    market_id INTEGER NOT NULL,
    era_number INTEGER NOT NULL,
    request_json TEXT NOT NULL,
    answer_json TEXT NOT NULL,
    thresholds_json TEXT NOT NULL,
    status TEXT NOT NULL,
    outcome_json TEXT NOT NULL,
    history_json TEXT NOT NULL,
    created_at REAL NOT NULL,
    updated_at REAL NOT NULL,
    next_action_at REAL,
    UNIQUE (owner, idempotency_key)
);
CREATE INDEX IF NOT EXISTS submissions_by_owner ON submissions (owner, created_at);
CREATE INDEX IF NOT EXISTS submissions_by_owner_seq ON submissions (owner, seq);
CREATE INDEX IF NOT EXISTS submissions_due ON submissions (next_action_at) WHERE next_action_at IS NOT NULL;
CREATE TABLE IF NOT EXISTS pool_members (
    submission_id TEXT PRIMARY KEY REFERENCES submissions (submission_id),
    market_id INTEGER NOT NULL,
    era_number INTEGER NOT NULL,
    pool_name TEXT NOT NULL,
    pnl BLOB NOT NULL,
    added_at REAL NOT NULL
);
CREATE INDEX IF NOT EXISTS pool_members_by_pool ON pool_members (market_id, era_number, pool_name);
"""

_COLUMNS: Final = (
    "submission_id, owner, kind, idempotency_key, fingerprint, pool_name, named_universe, market_id, "
    "era_number, request_json, answer_json, thresholds_json, status, outcome_json, history_json, "
    "created_at, updated_at, next_action_at"
)

_STATUS_COLUMNS: Final = (
    "seq, submission_id, owner, kind, idempotency_key, pool_name, named_universe, market_id, era_number, "
    "status, outcome_json, history_json, created_at, updated_at"
)
"""What a status answer needs: never the stored request, which may be the largest part of a row."""

MAX_WRITE_GROUP: Final = 128
"""The most queued writes committed together."""

INTEGRITY_PROBLEMS_SHOWN: Final = 3

class StorageClosedError(RuntimeError):
    """The store was used after `SubmissionStore.close`."""


class StorageOpenError(RuntimeError):
    """The database file cannot serve as this service's store (not SQLite, another schema, damaged, unreadable)."""


class StorageInUseError(StorageOpenError):
    """Another process serves the database already."""


@dataclass(frozen=True, slots=True)
class PoolKey:
    """The pool a found signal joins: its market, era and signal pool name."""

    market_id: int
    era_number: int
    pool_name: str


@dataclass(frozen=True, slots=True)
class KeyBinding:
    """What an idempotency key is bound to: the fingerprint of the accepted body and the original answer."""

    fingerprint: str
    answer: JSONObject


@dataclass(frozen=True, slots=True)
class ListingPage:
    """One page of a listing, newest first; ``next_before`` is the ``seq`` bound of the next page, if any."""

    submissions: list[SubmissionStatus]
    next_before: int | None


@dataclass(frozen=True, slots=True)
class Transition:
    """A status change the worker asks the store to make, with what it learned.

    ``outcome`` keys are merged into the stored outcome; ``next_action_at`` is
    the epoch time of the next step (None when the new status is final);
    ``pool_pnl`` (float64 bytes), when given, adds the signal to its pool.
    """

    status: str
    outcome: JSONObject
    next_action_at: float | None
    pool_pnl: bytes | None = None


@dataclass(frozen=True, slots=True)
class Step:
    """One status change to make: ``record`` as the worker read it, the ``transition`` it judged,
    and when (``now`` as epoch time, ``timestamp`` as its ISO text for the history)."""

    record: SubmissionRecord
    transition: Transition
    now: float
    timestamp: str


def _advance_update(step: Step) -> tuple[Any, ...]:
    record, transition = step.record, step.transition
    outcome = {**record.outcome, **transition.outcome}
    history = [*record.history, {"status": transition.status, "at": step.timestamp}]
    return (
        transition.status,
        _stored_outcome(outcome),
        dumps_compact(history),
        step.now,
        transition.next_action_at,
        record.submission_id,
        record.status,
    )


def _record_from_row(row: sqlite3.Row) -> SubmissionRecord:
    return SubmissionRecord(
        submission_id=row["submission_id"],
        owner=row["owner"],
        kind=row["kind"],
        idempotency_key=row["idempotency_key"],
        fingerprint=row["fingerprint"],
        pool_name=row["pool_name"],
        named_universe=row["named_universe"],
        market_id=row["market_id"],
        era_number=row["era_number"],
        request=json.loads(row["request_json"]),
        answer=json.loads(row["answer_json"]),
        thresholds=json.loads(row["thresholds_json"]),
        status=row["status"],
        created_at=row["created_at"],
        updated_at=row["updated_at"],
        next_action_at=row["next_action_at"],
        outcome=json.loads(row["outcome_json"]),
        history=json.loads(row["history_json"]),
    )


def _status_from_row(row: sqlite3.Row) -> SubmissionStatus:
    return SubmissionStatus(
        submission_id=row["submission_id"],
        owner=row["owner"],
        kind=row["kind"],
        idempotency_key=row["idempotency_key"],
        pool_name=row["pool_name"],
        named_universe=row["named_universe"],
        market_id=row["market_id"],
        era_number=row["era_number"],
        status=row["status"],
        created_at=row["created_at"],
        updated_at=row["updated_at"],
        outcome=json.loads(row["outcome_json"]),
        history=json.loads(row["history_json"]),
    )


def _stored_outcome(outcome: JSONObject) -> str:
    # Infinite figures (an identical PnL has infinite mutual information) are
    # kept as JSON's non-standard Infinity inside the database only; the status
    # body spells them as strings before they leave the service.
    return json.dumps(outcome, separators=(",", ":"), ensure_ascii=False)


def lock_path_of(path: Path) -> Path:
    """Return the lock file that keeps a second process away from the database at ``path``."""
    return path.with_name(path.name + ".lock")


def _take_process_lock(path: Path) -> int:
    """Lock the database at ``path`` for this process; return the lock file's descriptor."""
    lock_path = lock_path_of(path)
    try:
        descriptor = os.open(lock_path, os.O_RDWR | os.O_CREAT | os.O_CLOEXEC, 0o644)
    except OSError as exc:
        raise StorageOpenError(f"database {path}: cannot create its lock file {lock_path}: {exc.strerror}") from None
    try:
        fcntl.flock(descriptor, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        holder = os.pread(descriptor, 32, 0).decode("ascii", "replace").strip() or "unknown"
        os.close(descriptor)
        raise StorageInUseError(
            f"database {path} is already in use by another service process (pid {holder}); "
            "stop that one first, or give this one another database file"
        ) from None
    except OSError as exc:
        os.close(descriptor)
        raise StorageOpenError(f"database {path}: cannot lock {lock_path}: {exc.strerror}") from None
    os.ftruncate(descriptor, 0)
    os.pwrite(descriptor, f"{os.getpid()}\n".encode("ascii"), 0)
    return descriptor


def _connect(path: Path, busy_timeout: float) -> sqlite3.Connection:
    connection = sqlite3.connect(path, timeout=busy_timeout, isolation_level=None, check_same_thread=False)
    connection.row_factory = sqlite3.Row
    return connection


def _integrity_problems(connection: sqlite3.Connection) -> list[str]:
    """Return SQLite's ``quick_check`` findings (empty when the file is sound)."""
    try:
        rows = connection.execute(f"PRAGMA quick_check({INTEGRITY_PROBLEMS_SHOWN})").fetchall()
    except sqlite3.DatabaseError as exc:
        return [str(exc)]
    findings = [str(row[0]) for row in rows]
    return [] if findings == ["ok"] else findings


class _ReaderPool:
    """Read-only connections lent to any thread, at most ``size`` of them open."""

    def __init__(self, path: Path, size: int, busy_timeout: float) -> None:
        self._path = path
        self._busy_timeout = busy_timeout
        self._slots = threading.BoundedSemaphore(size)
        self._lock = threading.Lock()
        self._idle: list[sqlite3.Connection] = []
        self._open = 0
        self._closed = False

    @contextmanager
    def connection(self) -> Iterator[sqlite3.Connection]:
        self._slots.acquire()
        try:
            with self._lock:
                if self._closed:
                    raise StorageClosedError(f"submission store {self._path} is closed")
                connection = self._idle.pop() if self._idle else None
                if connection is None:
                    self._open += 1
            if connection is None:
                try:
                    connection = _connect(self._path, self._busy_timeout)
                    connection.execute("PRAGMA query_only = ON")
                except BaseException:
                    with self._lock:
                        self._open -= 1
                    raise
            try:
                yield connection
            finally:
                with self._lock:
                    if self._closed:
                        self._open -= 1
                        connection.close()
                    else:
                        self._idle.append(connection)
        finally:
            self._slots.release()

    def open_count(self) -> int:
        with self._lock:
            return self._open

    def close(self) -> None:
        with self._lock:
            self._closed = True
            idle, self._idle = self._idle, []
            self._open -= len(idle)
        for connection in idle:
            connection.close()


_STOP_WRITER: Final = object()

Write = Callable[[sqlite3.Connection], Any]


class _Waiter:
    """Who waits for one queued write: a thread (a concurrent future) or a task (an asyncio future on its loop)."""

    __slots__ = ("future", "loop")

    def __init__(self, future: Future[Any] | asyncio.Future[Any], loop: asyncio.AbstractEventLoop | None) -> None:
        self.future = future
        self.loop = loop

    def wants_result(self) -> bool:
        if self.loop is None:
            assert isinstance(self.future, Future)
            return self.future.set_running_or_notify_cancel()
        return not self.future.cancelled()  # read across threads; at worst a cancelled write is made


def _settle_on_loop(outcomes: list[tuple[asyncio.Future[Any], bool, Any]]) -> None:
    for future, succeeded, value in outcomes:
        if future.done():
            continue
        if succeeded:
            future.set_result(value)
        else:
            future.set_exception(value)


class _Writer:
    """The one thread that writes, committing queued writes in groups.

    A group first runs as one plain transaction. Should a write of it fail,
    the transaction is rolled back and the group runs again with a savepoint
    around each write, so that the failing write alone is refused. The
    outcomes for tasks of an event loop are handed to that loop in one call
    per group, which keeps the hand-overs between threads few.
    """

    def __init__(self, connection: sqlite3.Connection, name: str) -> None:
        self._connection = connection
        self._queue: queue.SimpleQueue[Any] = queue.SimpleQueue()
        self._thread = threading.Thread(target=self._run, name=name, daemon=True)
        self._thread.start()

    def submit(self, write: Callable[[sqlite3.Connection], T]) -> Future[T]:
        future: Future[T] = Future()
        self._queue.put((_Waiter(future, None), write))
        return future

    def submit_for_loop(
        self, write: Callable[[sqlite3.Connection], T], loop: asyncio.AbstractEventLoop
    ) -> asyncio.Future[T]:
        future: asyncio.Future[T] = loop.create_future()
        self._queue.put((_Waiter(future, loop), write))
        return future

    def stop(self, timeout: float) -> None:
        """Commit what is queued, then stop; interrupt a write still waiting after ``timeout`` seconds."""
        self._queue.put(_STOP_WRITER)
        self._thread.join(timeout)
        if self._thread.is_alive():
            self._connection.interrupt()
            self._thread.join(timeout)

    def _run(self) -> None:
        try:
            stopping = False
            while not stopping:
                group = [self._queue.get()]
                if group[0] is _STOP_WRITER:
                    break
                while len(group) < MAX_WRITE_GROUP:
                    try:
                        item = self._queue.get_nowait()
                    except queue.Empty:
                        break
                    if item is _STOP_WRITER:
                        stopping = True
                        break
                    group.append(item)
                live = [(waiter, write) for waiter, write in group if waiter.wants_result()]
                if live:
                    self._deliver(self._commit(live))
        finally:
            self._connection.close()

    def _commit(self, live: list[tuple[_Waiter, Write]]) -> list[tuple[_Waiter, bool, Any]]:
        connection = self._connection
        try:
            try:
                connection.execute("BEGIN IMMEDIATE")
                results = [write(connection) for _, write in live]
            except sqlite3.OperationalError:
                raise  # the database itself refuses (locked, full, I/O): every write of the group fails
            except Exception:
                connection.execute("ROLLBACK")
                return self._commit_one_by_one(live)
            connection.execute("COMMIT")
        except Exception as exc:
            self._roll_back()
            return [(waiter, False, exc) for waiter, _ in live]
        except BaseException:
            self._roll_back()
            raise
        return [(waiter, True, result) for (waiter, _), result in zip(live, results, strict=True)]

    def _commit_one_by_one(self, live: list[tuple[_Waiter, Write]]) -> list[tuple[_Waiter, bool, Any]]:
        connection = self._connection
        outcomes: list[tuple[_Waiter, bool, Any]] = []
        connection.execute("BEGIN IMMEDIATE")
        for waiter, write in live:
            connection.execute("SAVEPOINT one_write")
            try:
                result = write(connection)
            except Exception as exc:  # this write alone fails; the others of the group go on
                connection.execute("ROLLBACK TO one_write")
                connection.execute("RELEASE one_write")
                outcomes.append((waiter, False, exc))
            else:
                connection.execute("RELEASE one_write")
                outcomes.append((waiter, True, result))
        connection.execute("COMMIT")
        return outcomes

    def _roll_back(self) -> None:
        if self._connection.in_transaction:
            try:
                self._connection.execute("ROLLBACK")
            except sqlite3.Error:
                pass

    @staticmethod
    def _deliver(outcomes: list[tuple[_Waiter, bool, Any]]) -> None:
        by_loop: dict[asyncio.AbstractEventLoop, list[tuple[asyncio.Future[Any], bool, Any]]] = {}
        for waiter, succeeded, value in outcomes:
            if waiter.loop is None:
                assert isinstance(waiter.future, Future)
                if succeeded:
                    waiter.future.set_result(value)
                else:
                    waiter.future.set_exception(value)
            else:
                assert isinstance(waiter.future, asyncio.Future)
                by_loop.setdefault(waiter.loop, []).append((waiter.future, succeeded, value))
        for loop, settled in by_loop.items():
            try:
                loop.call_soon_threadsafe(_settle_on_loop, settled)
            except RuntimeError:
                pass  # the loop is closed; nobody waits any more


class SubmissionStore:
    """Submissions, their statuses and idempotency records, and the signal pools, in SQLite."""

    def __init__(
        self,
        path: Path,
        *,
        read_connections: int = 8,
        write_busy_timeout: float = 5.0,
        read_busy_timeout: float = 2.0,
    ) -> None:
        """Open (creating when needed) the database at ``path`` for this process alone.

        Raises `StorageInUseError` when another process serves it, and
        `StorageOpenError` when it is not a sound database of this service.
        """
        self.path = Path(path)
        self._write_busy_timeout = write_busy_timeout
        self._lock = threading.Lock()
        self._closed = False
        self._lock_descriptor = _take_process_lock(self.path)
        connection: sqlite3.Connection | None = None
        try:
            connection = _connect(self.path, write_busy_timeout)
            connection.execute("PRAGMA journal_mode=WAL")
            connection.execute("PRAGMA synchronous=FULL")
            connection.execute("PRAGMA foreign_keys=ON")
            version = connection.execute("PRAGMA user_version").fetchone()[0]
            if version not in (0, SCHEMA_VERSION):
                raise StorageOpenError(f"database {self.path}: schema version {version}, expected {SCHEMA_VERSION}")
            problems = _integrity_problems(connection)
            if problems:
                raise StorageOpenError(
                    f"database {self.path} failed its integrity check ({'; '.join(problems)}); "
                    "restore it from a backup or move it aside"
                )
            connection.executescript(f"BEGIN IMMEDIATE; {_SCHEMA} PRAGMA user_version = {SCHEMA_VERSION}; COMMIT;")
        except (sqlite3.Error, StorageOpenError) as exc:
            if connection is not None:
                connection.close()
            os.close(self._lock_descriptor)
            if isinstance(exc, StorageOpenError):
                raise
            raise StorageOpenError(f"database {self.path} cannot be opened: {exc}") from None
        self._readers = _ReaderPool(self.path, read_connections, read_busy_timeout)
        self._writer = _Writer(connection, name=f"tallowmere-store-writer-{self.path.name}")

    # -- plumbing -----------------------------------------------------------------------

    def _write(self, write: Callable[[sqlite3.Connection], T]) -> Future[T]:
        with self._lock:
            if self._closed:
                raise StorageClosedError(f"submission store {self.path} is closed")
            return self._writer.submit(write)

    def _write_for_loop(
        self, write: Callable[[sqlite3.Connection], T], loop: asyncio.AbstractEventLoop
    ) -> asyncio.Future[T]:
        with self._lock:
            if self._closed:
                raise StorageClosedError(f"submission store {self.path} is closed")
            return self._writer.submit_for_loop(write, loop)

    @contextmanager
    def _read(self) -> Iterator[sqlite3.Connection]:
        if self._closed:
            raise StorageClosedError(f"submission store {self.path} is closed")
        with self._readers.connection() as connection:
            yield connection

    def connection_count(self) -> int:
        """Return how many SQLite connections the store holds open now (the writer's included)."""
        with self._lock:
            writing = 0 if self._closed else 1
        return writing + self._readers.open_count()

    def close(self) -> None:
        """Commit the writes already queued, close every connection and release the database.

        Later calls raise `StorageClosedError`.
        """
        with self._lock:
            if self._closed:
                return
            self._closed = True
        self._writer.stop(self._write_busy_timeout + 5.0)
        self._readers.close()
        os.close(self._lock_descriptor)

    # -- writes -------------------------------------------------------------------------

    def insert_later(self, records: Sequence[SubmissionRecord]) -> Future[list[KeyBinding | None]]:
        """Queue ``records`` for one durable write; the future tells, for each, what happened.

        None for a record written; the stored `KeyBinding` for a record whose
        (owner, idempotency key) was bound already, which is not written, so
        that the caller can tell a replay from a reused key. The future is
        resolved once the write is committed and synced.
        """
        return self._write(_insert_write(list(records)))

    def insert_for_loop(
        self, records: Sequence[SubmissionRecord], loop: asyncio.AbstractEventLoop
    ) -> asyncio.Future[list[KeyBinding | None]]:
        """As `insert_later`, for a task of the event ``loop``: the future is one of that loop's."""
        return self._write_for_loop(_insert_write(list(records)), loop)

    def insert(self, records: Sequence[SubmissionRecord]) -> list[KeyBinding | None]:
        """Store ``records`` in one durable transaction (see `insert_later`) and wait for it."""
        return self.insert_later(records).result()

    def advance(self, steps: Sequence[Step]) -> list[bool]:
        """Make the status changes ``steps`` in one durable transaction and wait for it.

        Each change is made only if the stored status is still the one its
        record was read with; the result tells, step by step, whether it was
        made (False: the status changed meanwhile, and nothing of that step is
        written). One transaction for a whole round of the worker keeps its
        syncs few, which leaves the writer to the submissions.
        """
        updates = [(step, _advance_update(step)) for step in steps]

        def write(connection: sqlite3.Connection) -> list[bool]:
            made: list[bool] = []
            for step, update in updates:
                cursor = connection.execute(
                    "UPDATE submissions SET status = ?, outcome_json = ?, history_json = ?, updated_at = ?, "
                    "next_action_at = ? WHERE submission_id = ? AND status = ?",
                    update,
                )
                made.append(cursor.rowcount == 1)
                record, transition = step.record, step.transition
                if cursor.rowcount == 1 and transition.pool_pnl is not None:
                    connection.execute(
                        "INSERT OR REPLACE INTO pool_members "
                        "(submission_id, market_id, era_number, pool_name, pnl, added_at) VALUES (?, ?, ?, ?, ?, ?)",
                        (
                            record.submission_id,
                            record.market_id,
                            record.era_number,
                            record.pool_name,
                            transition.pool_pnl,
                            step.now,
                        ),
                    )
            return made

        return self._write(write).result() if updates else []

    # -- reads --------------------------------------------------------------------------

    def bound_keys(self, owner: str, keys: Sequence[str]) -> dict[str, KeyBinding]:
        """Return what each of ``keys`` already bound for ``owner`` is bound to (unbound keys are left out)."""
        bound: dict[str, KeyBinding] = {}
        unique = list(dict.fromkeys(keys))
        with self._read() as connection:
            for start in range(0, len(unique), 100):
                chunk = unique[start : start + 100]
                rows = connection.execute(
                    "SELECT idempotency_key, fingerprint, answer_json FROM submissions "
                    f"WHERE owner = ? AND idempotency_key IN ({', '.join('?' * len(chunk))})",
                    (owner, *chunk),
                ).fetchall()
                for row in rows:
                    bound[row["idempotency_key"]] = KeyBinding(row["fingerprint"], json.loads(row["answer_json"]))
        return bound

    def status_of(self, submission_id: str) -> SubmissionStatus | None:
        """Return what a status answer shows of ``submission_id``, or None."""
        with self._read() as connection:
            row = connection.execute(
                f"SELECT {_STATUS_COLUMNS} FROM submissions WHERE submission_id = ?", (submission_id,)
            ).fetchone()
        return None if row is None else _status_from_row(row)

    def list_for_owner(
        self,
        owner: str,
        *,
        status: str | None = None,
        idempotency_key: str | None = None,
        since: float | None = None,
        before: int | None = None,
        limit: int = 100,
    ) -> ListingPage:
        """Return ``owner``'s submissions matching every given filter, newest (last stored) first.

        ``before`` continues a listing: only submissions stored before the
        one whose ``seq`` it is are returned. Submissions stored meanwhile
        never shift a later page, since they are all newer than the bound.
        """
        clauses = ["owner = ?"]
        parameters: list[Any] = [owner]
        if status is not None:
            clauses.append("status = ?")
            parameters.append(status)
        if idempotency_key is not None:
            clauses.append("idempotency_key = ?")
            parameters.append(idempotency_key)
        if since is not None:
            clauses.append("created_at >= ?")
            parameters.append(since)
        if before is not None:
            clauses.append("seq < ?")
            parameters.append(before)
        parameters.append(limit + 1)
        with self._read() as connection:
            rows = connection.execute(
                f"SELECT {_STATUS_COLUMNS} FROM submissions WHERE {' AND '.join(clauses)} ORDER BY seq DESC LIMIT ?",
                parameters,
            ).fetchall()
        page = rows[:limit]
        next_before = page[-1]["seq"] if len(rows) > limit else None
        return ListingPage([_status_from_row(row) for row in page], next_before)

    def due(self, now: float, limit: int) -> list[SubmissionRecord]:
        """Return up to ``limit`` submissions whose next step is due at ``now``, earliest first."""
        with self._read() as connection:
            rows = connection.execute(
                f"SELECT {_COLUMNS} FROM submissions WHERE next_action_at IS NOT NULL AND next_action_at <= ? "
                "ORDER BY next_action_at, seq LIMIT ?",
                (now, limit),
            ).fetchall()
        return [_record_from_row(row) for row in rows]

    def next_due_at(self) -> float | None:
        """Return the earliest pending step's epoch time, or None when nothing is pending."""
        with self._read() as connection:
            value = connection.execute(
                "SELECT MIN(next_action_at) FROM submissions WHERE next_action_at IS NOT NULL"
            ).fetchone()[0]
        return None if value is None else float(value)

    def pool_pnls(self, pool: PoolKey, *, exclude: str | None = None) -> list[bytes]:
        """Return the daily PnL series (float64 bytes) of the signals found in ``pool``, oldest first."""
        with self._read() as connection:
            rows = connection.execute(
                "SELECT submission_id, pnl FROM pool_members "
                "WHERE market_id = ? AND era_number = ? AND pool_name = ? ORDER BY added_at, submission_id",
                (pool.market_id, pool.era_number, pool.pool_name),
            ).fetchall()
        return [bytes(row["pnl"]) for row in rows if row["submission_id"] != exclude]


_INSERT: Final = (
    f"INSERT INTO submissions ({_COLUMNS}) VALUES ({', '.join('?' * 18)}) "
    "ON CONFLICT (owner, idempotency_key) DO NOTHING"
)


def _insert_write(records: list[SubmissionRecord]) -> Callable[[sqlite3.Connection], list[KeyBinding | None]]:
    """Return the write that inserts ``records``, reporting each key bound already (see `insert_later`)."""

    def write(connection: sqlite3.Connection) -> list[KeyBinding | None]:
        outcome: list[KeyBinding | None] = []
        for record in records:
            cursor = connection.execute(_INSERT, _insert_parameters(record))
            if cursor.rowcount == 1:
                outcome.append(None)
                continue
            row = connection.execute(
                "SELECT fingerprint, answer_json FROM submissions WHERE owner = ? AND idempotency_key = ?",
                (record.owner, record.idempotency_key),
            ).fetchone()
            outcome.append(KeyBinding(row["fingerprint"], json.loads(row["answer_json"])))
        return outcome

    return write


def _insert_parameters(record: SubmissionRecord) -> tuple[Any, ...]:
    return (
        record.submission_id,
        record.owner,
        record.kind,
        record.idempotency_key,
        record.fingerprint,
        record.pool_name,
        record.named_universe,
        record.market_id,
        record.era_number,
        record.request_json if record.request_json is not None else dumps_compact(record.request),
        dumps_compact(record.answer),
        dumps_compact(record.thresholds),
        record.status,
        _stored_outcome(record.outcome),
        dumps_compact(record.history),
        record.created_at,
        record.updated_at,
        record.next_action_at,
    )
