"""Durable storage of submissions in one SQLite file.

The database runs in WAL mode with ``synchronous=FULL``: a submission is
acknowledged only after its transaction is committed and the WAL synced, so
an acknowledged submission survives a ``kill -9`` of the server (and a power
cut, as far as the disk honours ``fsync``). Each thread gets its own
connection; writers take the write lock at the start of their transaction
(``BEGIN IMMEDIATE``) and keep it for a few statements only.

A submission and its idempotency record are one row: the pair (owner,
idempotency key) is unique, and the row keeps the original answer, so a
restart keeps every submission, its status and its idempotency record.
"""

from __future__ import annotations

import json
import sqlite3
import threading
from collections.abc import Iterator, Sequence
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Final

from tallowmere.service.jsonio import JSONObject, dumps_compact
from tallowmere.service.records import SubmissionRecord

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


class StorageClosedError(RuntimeError):
    """The store was used after `SubmissionStore.close`."""


class StorageOpenError(RuntimeError):
    """The database file cannot serve as this service's store (not SQLite, another schema, unreadable)."""


@dataclass(frozen=True, slots=True)
class PoolKey:
    """The pool a found signal joins: its market, era and signal pool name."""

    market_id: int
    era_number: int
    pool_name: str


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


def _stored_outcome(outcome: JSONObject) -> str:
    # Infinite figures (an identical PnL has infinite mutual information) are
    # kept as JSON's non-standard Infinity inside the database only; the status
    # body spells them as strings before they leave the service.
    return json.dumps(outcome, separators=(",", ":"), ensure_ascii=False)


class SubmissionStore:
    """Submissions, their statuses and idempotency records, and the signal pools, in SQLite."""

    def __init__(self, path: Path) -> None:
        """Open (creating when needed) the database at ``path``."""
        self.path = Path(path)
        self._local = threading.local()
        self._connections: list[sqlite3.Connection] = []
        self._lock = threading.Lock()
        self._closed = False
        try:
            connection = self._connection()
            version = connection.execute("PRAGMA user_version").fetchone()[0]
            if version not in (0, SCHEMA_VERSION):
                raise StorageOpenError(f"database {self.path}: schema version {version}, expected {SCHEMA_VERSION}")
            connection.executescript(f"BEGIN IMMEDIATE; {_SCHEMA} PRAGMA user_version = {SCHEMA_VERSION}; COMMIT;")
        except sqlite3.Error as exc:
            self.close()
            raise StorageOpenError(f"database {self.path} cannot be opened: {exc}") from None
        except StorageOpenError:
            self.close()
            raise

    def _connection(self) -> sqlite3.Connection:
        if self._closed:
            raise StorageClosedError(f"submission store {self.path} is closed")
        connection: sqlite3.Connection | None = getattr(self._local, "connection", None)
        if connection is None:
            connection = sqlite3.connect(self.path, timeout=30.0, isolation_level=None, check_same_thread=False)
            connection.row_factory = sqlite3.Row
            connection.execute("PRAGMA journal_mode=WAL")
            connection.execute("PRAGMA synchronous=FULL")
            connection.execute("PRAGMA foreign_keys=ON")
            with self._lock:
                if self._closed:
                    connection.close()
                    raise StorageClosedError(f"submission store {self.path} is closed")
                self._connections.append(connection)
            self._local.connection = connection
        return connection

    @contextmanager
    def _write(self) -> Iterator[sqlite3.Connection]:
        connection = self._connection()
        connection.execute("BEGIN IMMEDIATE")
        try:
            yield connection
        except BaseException:
            connection.execute("ROLLBACK")
            raise
        connection.execute("COMMIT")

    def close(self) -> None:
        """Close every connection; later calls raise `StorageClosedError`."""
        with self._lock:
            self._closed = True
            connections, self._connections = self._connections, []
        for connection in connections:
            connection.close()

    def insert(self, records: Sequence[SubmissionRecord]) -> list[SubmissionRecord]:
        """Store ``records`` in one durable transaction and return what is stored for each.

        A record whose (owner, idempotency key) is already stored is not
        written; the stored record is returned in its place so that the
        caller can tell a replay from a reused key.
        """
        stored: list[SubmissionRecord] = []
        with self._write() as connection:
            for record in records:
                cursor = connection.execute(
                    f"INSERT INTO submissions ({_COLUMNS}) VALUES ({', '.join('?' * 18)}) "
                    "ON CONFLICT (owner, idempotency_key) DO NOTHING",
                    (
                        record.submission_id,
                        record.owner,
                        record.kind,
                        record.idempotency_key,
                        record.fingerprint,
                        record.pool_name,
                        record.named_universe,
                        record.market_id,
                        record.era_number,
                        dumps_compact(record.request),
                        dumps_compact(record.answer),
                        dumps_compact(record.thresholds),
                        record.status,
                        _stored_outcome(record.outcome),
                        dumps_compact(record.history),
                        record.created_at,
                        record.updated_at,
                        record.next_action_at,
                    ),
                )
                if cursor.rowcount == 1:
                    stored.append(record)
                else:
                    row = connection.execute(
                        f"SELECT {_COLUMNS} FROM submissions WHERE owner = ? AND idempotency_key = ?",
                        (record.owner, record.idempotency_key),
                    ).fetchone()
                    stored.append(_record_from_row(row))
        return stored

    def get(self, submission_id: str) -> SubmissionRecord | None:
        """Return the submission ``submission_id``, or None."""
        row = self._connection().execute(
            f"SELECT {_COLUMNS} FROM submissions WHERE submission_id = ?", (submission_id,)
        ).fetchone()
        return None if row is None else _record_from_row(row)

    def find_by_key(self, owner: str, idempotency_key: str) -> SubmissionRecord | None:
        """Return ``owner``'s submission made with ``idempotency_key``, or None."""
        row = self._connection().execute(
            f"SELECT {_COLUMNS} FROM submissions WHERE owner = ? AND idempotency_key = ?",
            (owner, idempotency_key),
        ).fetchone()
        return None if row is None else _record_from_row(row)

    def list_for_owner(
        self,
        owner: str,
        *,
        status: str | None = None,
        idempotency_key: str | None = None,
        since: float | None = None,
        limit: int = 100,
    ) -> list[SubmissionRecord]:
        """Return ``owner``'s submissions matching every given filter, newest first."""
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
        parameters.append(limit)
        rows = self._connection().execute(
            f"SELECT {_COLUMNS} FROM submissions WHERE {' AND '.join(clauses)} "
            "ORDER BY created_at DESC, seq DESC LIMIT ?",
            parameters,
        ).fetchall()
        return [_record_from_row(row) for row in rows]

    def due(self, now: float, limit: int) -> list[SubmissionRecord]:
        """Return up to ``limit`` submissions whose next step is due at ``now``, earliest first."""
        rows = self._connection().execute(
            f"SELECT {_COLUMNS} FROM submissions WHERE next_action_at IS NOT NULL AND next_action_at <= ? "
            "ORDER BY next_action_at, seq LIMIT ?",
            (now, limit),
        ).fetchall()
        return [_record_from_row(row) for row in rows]

    def next_due_at(self) -> float | None:
        """Return the earliest pending step's epoch time, or None when nothing is pending."""
        value = self._connection().execute(
            "SELECT MIN(next_action_at) FROM submissions WHERE next_action_at IS NOT NULL"
        ).fetchone()[0]
        return None if value is None else float(value)

    def advance(self, record: SubmissionRecord, transition: Transition, now: float, timestamp: str) -> bool:
        """Move ``record`` to ``transition.status`` unless its status changed meanwhile.

        Returns False (and changes nothing) when the stored status is no longer
        ``record.status``.
        """
        outcome = {**record.outcome, **transition.outcome}
        history = [*record.history, {"status": transition.status, "at": timestamp}]
        with self._write() as connection:
            cursor = connection.execute(
                "UPDATE submissions SET status = ?, outcome_json = ?, history_json = ?, updated_at = ?, "
                "next_action_at = ? WHERE submission_id = ? AND status = ?",
                (
                    transition.status,
                    _stored_outcome(outcome),
                    dumps_compact(history),
                    now,
                    transition.next_action_at,
                    record.submission_id,
                    record.status,
                ),
            )
            if cursor.rowcount != 1:
                return False
            if transition.pool_pnl is not None:
                connection.execute(
                    "INSERT OR REPLACE INTO pool_members "
                    "(submission_id, market_id, era_number, pool_name, pnl, added_at) VALUES (?, ?, ?, ?, ?, ?)",
                    (
                        record.submission_id,
                        record.market_id,
                        record.era_number,
                        record.pool_name,
                        transition.pool_pnl,
                        now,
                    ),
                )
        return True

    def pool_pnls(self, pool: PoolKey, *, exclude: str | None = None) -> list[bytes]:
        """Return the daily PnL series (float64 bytes) of the signals found in ``pool``, oldest first."""
        rows = self._connection().execute(
            "SELECT submission_id, pnl FROM pool_members WHERE market_id = ? AND era_number = ? AND pool_name = ? "
            "ORDER BY added_at, submission_id",
            (pool.market_id, pool.era_number, pool.pool_name),
        ).fetchall()
        return [bytes(row["pnl"]) for row in rows if row["submission_id"] != exclude]
