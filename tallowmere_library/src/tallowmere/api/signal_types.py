"""The records that the submission client returns.

Every call of ``SignalServiceClient`` answers with one of these records rather
than raising for service-side refusals. Two fields read the same way on all
of them:

- ``status_code`` is the HTTP status of the answer, or ``0`` when no answer
  was received at all (connection refused, timeout, TLS failure);
- ``error`` is ``None`` when the service accepted the request, else a short
  text saying why it did not.

``body`` holds the decoded answer (usually a dict) so that nothing the service
said is lost. Records are built by keyword only, compare by value, and print
compactly: a large ``body`` or a long list of results is shown truncated.

Building a record performs no validation: the client builds ten thousand of
them for one large batch.

Statuses
--------
A signal goes ``signal_submitted`` → ``signal_found`` or ``signal_is_rejected``;
a found signal goes on to ``signal_os_passed`` or ``signal_os_failed``, and a
passed one to ``signal_useful`` (paid) or ``signal_not_useful``; an unexpected
failure on the service's side ends it in ``signal_server_side_error`` or
``signal_useful_transition_failed``. A strategy goes ``strategy_submitted`` →
``strategy_accepted`` or ``strategy_rejected``.

- `TERMINAL_STATUSES`: a verdict has been given; waiting for one stops here.
  Every status but ``signal_submitted`` and ``strategy_submitted``.
  ``SignalServiceClient.poll_until_terminal`` stops at the signal statuses
  among them (`SIGNAL_TERMINAL_STATUSES`), not at a strategy's.
- `FINAL_STATUSES`: the status never changes again. ``signal_found`` and
  ``signal_os_passed`` are terminal but not final: the service goes on to
  judge the signal out of sample and then its usefulness.
"""

from __future__ import annotations

import reprlib
from dataclasses import dataclass, fields
from typing import TYPE_CHECKING, Any, Final, TypeAlias, TypeVar

if TYPE_CHECKING:
    from _typeshed import DataclassInstance

__all__ = [
    "FINAL_STATUSES",
    "SIGNAL_TERMINAL_STATUSES",
    "STRATEGY_TERMINAL_STATUSES",
    "TERMINAL_STATUSES",
    "BatchSubmitItemResult",
    "BatchSubmitResult",
    "JSONValue",
    "StatusResult",
    "SubmissionEntry",
    "SubmissionListResult",
    "SubmitResult",
]

JSONValue: TypeAlias = Any
"""A decoded JSON value: dict, list, str, int, float, bool or None."""

SIGNAL_TERMINAL_STATUSES: Final[frozenset[str]] = frozenset(
    {
        "signal_found",
        "signal_is_rejected",
        "signal_os_passed",
        "signal_os_failed",
        "signal_server_side_error",
        "signal_useful",
        "signal_not_useful",
        "signal_useful_transition_failed",
    }
)
"""A signal's verdicts, first and later: where ``poll_until_terminal`` stops."""

STRATEGY_TERMINAL_STATUSES: Final[frozenset[str]] = frozenset({"strategy_accepted", "strategy_rejected"})
"""A strategy's verdicts."""

TERMINAL_STATUSES: Final[frozenset[str]] = SIGNAL_TERMINAL_STATUSES | STRATEGY_TERMINAL_STATUSES
"""Statuses at which a submission has a verdict: waiting for one stops at any of them."""

FINAL_STATUSES: Final[frozenset[str]] = TERMINAL_STATUSES - {"signal_found", "signal_os_passed"}
"""Statuses that never change again."""

_COMPACT = reprlib.Repr(
    maxlevel=3,
    maxdict=8,
    maxlist=8,
    maxtuple=8,
    maxset=8,
    maxstring=160,
    maxother=160,
    maxlong=60,
)


def _compact_repr(record: DataclassInstance) -> str:
    """Return ``Name(field=value, ...)`` with long values truncated.

    Fields whose value is ``None`` and whose default is ``None`` are left out,
    so that an optional field appears only when it says something.
    """
    parts: list[str] = []
    for field in fields(record):
        value = getattr(record, field.name)
        if value is None and field.default is None:
            continue
        parts.append(f"{field.name}={_COMPACT.repr(value)}")
    return f"{type(record).__name__}({', '.join(parts)})"


@dataclass(kw_only=True, slots=True, repr=False)
class SubmitResult:
    """The answer to one signal submission.

    ``submission_id`` identifies the submission for later status queries; it is
    ``None`` when the service refused the signal or was not reached.
    """

    status_code: int
    body: JSONValue
    submission_id: str | None
    signal_pool_name: str | None
    strategy_pool_name: str | None
    error: str | None

    @property
    def ok(self) -> bool:
        """True when the service answered and accepted the submission."""
        return self.error is None and self.status_code != 0

    def __repr__(self) -> str:
        return _compact_repr(self)


@dataclass(kw_only=True, slots=True, repr=False)
class StatusResult:
    """The state of one submission as the service reports it.

    ``status`` is the service's lifecycle state (for example
    ``signal_submitted``, ``signal_found``, ``signal_is_rejected``,
    ``signal_useful``). The optional fields are filled when the service reports
    them: the in-sample statistics (``is_stats``), the payment, the
    correlation and mutual-information figures computed by the service and
    those claimed by the agent, and the reason of a rejection or failure.
    """

    status_code: int
    body: JSONValue
    status: str | None
    signal_pool_name: str | None
    strategy_pool_name: str | None
    error: str | None
    is_stats: dict[str, JSONValue] | None = None
    payment: JSONValue = None
    rejection_reason: str | None = None
    is_correlation: float | None = None
    agent_is_correlation: float | None = None
    is_pnl_mi: float | None = None
    agent_is_pnl_mi: float | None = None
    failure_reason: str | None = None
    failure_detail: JSONValue = None
    failure_message: str | None = None

    @property
    def ok(self) -> bool:
        """True when the service answered the status query without an error."""
        return self.error is None and self.status_code != 0

    @property
    def is_terminal(self) -> bool:
        """True when the answer reports a verdict (`TERMINAL_STATUSES`)."""
        return self.ok and self.status in TERMINAL_STATUSES

    @property
    def is_final(self) -> bool:
        """True when the answer reports a status that never changes again (`FINAL_STATUSES`)."""
        return self.ok and self.status in FINAL_STATUSES

    def __repr__(self) -> str:
        return _compact_repr(self)


@dataclass(kw_only=True, slots=True, repr=False)
class BatchSubmitItemResult:
    """The answer for one signal of a batch submission.

    ``index`` is the signal's position in the batch the caller passed. It is
    writable because the client submits large batches in chunks and rebases
    each chunk's indices in place.
    """

    index: int
    status_code: int
    body: JSONValue
    submission_id: str | None
    signal_pool_name: str | None
    strategy_pool_name: str | None
    error: str | None

    @property
    def ok(self) -> bool:
        """True when the service answered and accepted this signal."""
        return self.error is None and self.status_code != 0

    def __repr__(self) -> str:
        return _compact_repr(self)


@dataclass(kw_only=True, slots=True, repr=False)
class BatchSubmitResult:
    """The answer to a batch submission.

    ``accepted`` and ``failed`` count the signals of the batch; ``results``
    holds one :class:`BatchSubmitItemResult` per signal, in batch order.
    """

    status_code: int
    body: JSONValue
    accepted: int
    failed: int
    results: list[BatchSubmitItemResult]
    error: str | None

    @property
    def ok(self) -> bool:
        """True when the service answered and accepted the whole batch."""
        return self.error is None and self.status_code != 0

    def __repr__(self) -> str:
        return _compact_repr(self)


_T = TypeVar("_T")


def _typed(item: dict[str, JSONValue], key: str, kind: type[_T]) -> _T | None:
    """``item[key]`` when it is a ``kind`` (booleans are not integers here), else None."""
    value = item.get(key)
    if isinstance(value, bool) and kind is not bool:
        return None
    return value if isinstance(value, kind) else None


@dataclass(frozen=True, kw_only=True, slots=True, repr=False)
class SubmissionEntry:
    """One submission of a listing, read field by field.

    The service lists each submission with the same keys as its status answer.
    Every field is ``None`` when the service left it out or sent a value of
    another type; ``raw`` keeps the listed object exactly as it arrived.
    """

    submission_id: str | None
    status: str | None
    kind: str | None
    signal_pool_name: str | None
    strategy_pool_name: str | None
    named_universe: str | None
    market_id: int | None
    era_number: int | None
    idempotency_key: str | None
    created_at: str | None
    updated_at: str | None
    is_stats: dict[str, JSONValue] | None
    payment: dict[str, JSONValue] | None
    rejection_reason: str | None
    failure_reason: str | None
    failure_message: str | None
    raw: JSONValue

    @classmethod
    def from_listed(cls, item: JSONValue) -> SubmissionEntry:
        """Read one listed submission (anything but a JSON object gives an entry of Nones)."""
        fields_of = item if isinstance(item, dict) else {}
        return cls(
            submission_id=_typed(fields_of, "submission_id", str),
            status=_typed(fields_of, "status", str),
            kind=_typed(fields_of, "kind", str),
            signal_pool_name=_typed(fields_of, "signal_pool_name", str),
            strategy_pool_name=_typed(fields_of, "strategy_pool_name", str),
            named_universe=_typed(fields_of, "named_universe", str),
            market_id=_typed(fields_of, "market_id", int),
            era_number=_typed(fields_of, "era_number", int),
            idempotency_key=_typed(fields_of, "idempotency_key", str),
            created_at=_typed(fields_of, "created_at", str),
            updated_at=_typed(fields_of, "updated_at", str),
            is_stats=_typed(fields_of, "is_stats", dict),
            payment=_typed(fields_of, "payment", dict),
            rejection_reason=_typed(fields_of, "rejection_reason", str),
            failure_reason=_typed(fields_of, "failure_reason", str),
            failure_message=_typed(fields_of, "failure_message", str),
            raw=item,
        )

    @property
    def is_terminal(self) -> bool:
        """True when the submission has a verdict (`TERMINAL_STATUSES`)."""
        return self.status in TERMINAL_STATUSES

    @property
    def is_final(self) -> bool:
        """True when the submission's status never changes again (`FINAL_STATUSES`)."""
        return self.status in FINAL_STATUSES

    def __repr__(self) -> str:
        parts = [
            f"{field.name}={_COMPACT.repr(getattr(self, field.name))}"
            for field in fields(self)
            if field.name != "raw" and getattr(self, field.name) is not None
        ]
        return f"{type(self).__name__}({', '.join(parts)})"


@dataclass(kw_only=True, slots=True, repr=False)
class SubmissionListResult:
    """The agent's submissions as listed by the service, newest first.

    ``submissions`` holds the listed objects as the service sent them;
    ``entries`` reads each one into a `SubmissionEntry`.
    """

    status_code: int
    body: JSONValue
    submissions: list[dict[str, JSONValue]]
    error: str | None

    @property
    def ok(self) -> bool:
        """True when the service answered the listing without an error."""
        return self.error is None and self.status_code != 0

    @property
    def entries(self) -> list[SubmissionEntry]:
        """The listed submissions, each read into a `SubmissionEntry` (a new list on every access)."""
        return [SubmissionEntry.from_listed(item) for item in self.submissions]

    def __repr__(self) -> str:
        return _compact_repr(self)
