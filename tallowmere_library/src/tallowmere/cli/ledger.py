"""The batch ledger: a JSON Lines file of accepted submissions, written as each chunk is accepted.

``tallowmere batch FILE --ledger LEDGER`` appends one line per accepted item
as soon as its chunk's answer arrives (flushed and synced to disk), so the
ledger survives Ctrl-C, a lost connection or a crash::

    {"entry": "9f2c...", "line": 3, "submission_id": "sig_...", "idempotency_key": "sigsubmit-...",
     "market_id": 1, "era_number": 3, "signal_pool_name": "momentum", "accepted_at": "2026-11-21T13:30:12Z"}

A later run with the same ledger skips every line whose ``entry`` is in it,
and reports it as already accepted. An entry identifies what a line asks
for, not where it is: the graph's fingerprint, the universe, pool, market
and era it goes to, its metaparameters and its own idempotency key when it
has one. Moving lines around, or adding new ones, resumes correctly.
"""

from __future__ import annotations

import hashlib
import json
import os
from dataclasses import dataclass
from datetime import UTC, datetime
from pathlib import Path
from typing import IO, Any

from tallowmere.cli.errors import UsageError
from tallowmere.simulation.graph_complexity import graph_fingerprint


def entry_identity(
    graph: Any,
    *,
    named_universe: str,
    signal_pool_name: str,
    market_id: int | None,
    era_number: int | None,
    metaparameters: Any = None,
    idempotency_key: str | None = None,
) -> str:
    """The ledger identity of a batch line: a digest of everything that makes it one submission."""
    document = {
        "graph": graph_fingerprint(graph),
        "named_universe": named_universe,
        "signal_pool_name": signal_pool_name,
        "market_id": market_id,
        "era_number": era_number,
        "metaparameters": metaparameters,
        "idempotency_key": idempotency_key,
    }
    canonical = json.dumps(document, sort_keys=True, separators=(",", ":"), ensure_ascii=False, default=str)
    return hashlib.sha256(canonical.encode()).hexdigest()


@dataclass(frozen=True)
class LedgerRecord:
    """One accepted submission as the ledger holds it."""

    entry: str
    line: int
    submission_id: str
    idempotency_key: str | None


class Ledger:
    """The accepted submissions of earlier runs, and the file this run appends its own to."""

    def __init__(self, path: Path) -> None:
        """Read ``path`` (a missing file is an empty ledger); `UsageError` when it cannot be read or opened."""
        self.path = path
        self.records: dict[str, LedgerRecord] = {}
        self.unreadable_lines: list[int] = []
        try:
            text = path.read_text(encoding="utf-8") if path.exists() else ""
        except (OSError, UnicodeDecodeError) as exc:
            raise UsageError(f"--ledger {path}: cannot be read: {exc}") from None
        for number, line in enumerate(text.splitlines(), start=1):
            if not line.strip():
                continue
            record = _record(line)
            if record is None:
                # A run killed mid-write leaves at most a torn last line; anything else is reported.
                self.unreadable_lines.append(number)
            else:
                self.records[record.entry] = record
        try:
            self._file: IO[str] = path.open("a", encoding="utf-8")
        except OSError as exc:
            raise UsageError(f"--ledger {path}: cannot be written: {exc.strerror or exc}") from None
        if text and not text.endswith("\n"):
            self._file.write("\n")  # start after a torn last line, never on it

    def accepted(self, entry: str) -> LedgerRecord | None:
        """The record of ``entry`` when an earlier run had it accepted."""
        return self.records.get(entry)

    def append(self, records: list[dict[str, Any]]) -> None:
        """Write the accepted items of one chunk and put them on disk before returning."""
        if not records:
            return
        moment = datetime.now(UTC).isoformat(timespec="seconds").replace("+00:00", "Z")
        for record in records:
            self._file.write(json.dumps({**record, "accepted_at": moment}, ensure_ascii=False) + "\n")
            self.records[record["entry"]] = LedgerRecord(
                record["entry"], record["line"], record["submission_id"], record.get("idempotency_key")
            )
        self._file.flush()
        os.fsync(self._file.fileno())

    def close(self) -> None:
        """Close the file."""
        self._file.close()


def _record(line: str) -> LedgerRecord | None:
    try:
        document = json.loads(line)
    except ValueError:
        return None
    if not isinstance(document, dict):
        return None
    entry, submission_id, number = document.get("entry"), document.get("submission_id"), document.get("line")
    if not isinstance(entry, str) or not isinstance(submission_id, str):
        return None
    key = document.get("idempotency_key")
    line_number = number if isinstance(number, int) else 0
    return LedgerRecord(entry, line_number, submission_id, key if isinstance(key, str) else None)
