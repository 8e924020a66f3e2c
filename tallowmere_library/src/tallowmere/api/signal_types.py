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
"""

from __future__ import annotations

import reprlib
from dataclasses import dataclass, fields
from typing import TYPE_CHECKING, Any, TypeAlias

if TYPE_CHECKING:
    from _typeshed import DataclassInstance

__all__ = [
    "BatchSubmitItemResult",
    "BatchSubmitResult",
    "JSONValue",
    "StatusResult",
    "SubmissionListResult",
    "SubmitResult",
]

JSONValue: TypeAlias = Any
"""A decoded JSON value: dict, list, str, int, float, bool or None."""

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


@dataclass(kw_only=True, slots=True, repr=False)
class SubmissionListResult:
    """The agent's submissions as listed by the service, one dict each."""

    status_code: int
    body: JSONValue
    submissions: list[dict[str, JSONValue]]
    error: str | None

    @property
    def ok(self) -> bool:
        """True when the service answered the listing without an error."""
        return self.error is None and self.status_code != 0

    def __repr__(self) -> str:
        return _compact_repr(self)
