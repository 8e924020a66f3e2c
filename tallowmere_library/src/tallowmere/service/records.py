"""One stored submission and the status body the service publishes for it."""

from __future__ import annotations

import math
from dataclasses import dataclass, field
from datetime import UTC, datetime
from typing import Any, Final

from tallowmere.service.jsonio import JSONObject, metric_json_value
from tallowmere.service.lifecycle import SubmissionKind

OUTCOME_KEYS: Final = (
    "is_stats",
    "payment",
    "rejection_reason",
    "is_correlation",
    "agent_is_correlation",
    "is_pnl_mi",
    "agent_is_pnl_mi",
    "failure_reason",
    "failure_detail",
    "failure_message",
)
"""The judged figures of a status body; each is present, null while unknown."""

INTERNAL_OUTCOME_KEYS: Final = ("correlation", "is_weights_mi", "os_stats")
"""Figures published beside the public ones; the client hides ``correlation`` and ``is_weights_mi``."""

HIDDEN_KEYS: Final = ("correlation", "is_weights_mi")
"""Keys of a status answer that the client hides from its users; listings leave them out."""

def iso_timestamp(epoch_seconds: float) -> str:
    """Return ``epoch_seconds`` as an ISO-8601 UTC timestamp with microseconds, e.g. ``2025-01-02T03:04:05.000006Z``."""
    # isoformat ends in "+00:00" for a UTC time; it is several times cheaper than strftime.
    return datetime.fromtimestamp(epoch_seconds, tz=UTC).isoformat(timespec="microseconds")[:-6] + "Z"


def public_metric(value: Any) -> Any:
    """Spell an infinite float as ``"Infinity"``/``"-Infinity"``; pass anything else through."""
    if isinstance(value, float) and not math.isfinite(value):
        return metric_json_value(value)
    return value


@dataclass(slots=True)
class SubmissionRecord:
    """One submission as the service stores it.

    ``request`` is the accepted body as it arrived, ``answer`` the body of the
    202 answer (replayed as it is for an idempotent repeat), ``thresholds``
    the era thresholds resolved when it was accepted, ``outcome`` the judged
    figures (keys of `OUTCOME_KEYS` and `INTERNAL_OUTCOME_KEYS`),
    ``history`` the statuses it went through with their times, and
    ``next_action_at`` the epoch time at which the worker advances it (None
    once its status is final).
    """

    submission_id: str
    owner: str
    kind: SubmissionKind
    idempotency_key: str
    fingerprint: str
    pool_name: str
    named_universe: str
    market_id: int
    era_number: int
    request: JSONObject
    answer: JSONObject
    thresholds: JSONObject
    status: str
    created_at: float
    updated_at: float
    next_action_at: float | None
    outcome: JSONObject = field(default_factory=dict)
    history: list[JSONObject] = field(default_factory=list)
    request_json: str | None = None
    """``request`` as JSON text, when the caller has it already (else it is encoded when stored)."""


@dataclass(frozen=True, slots=True)
class SubmissionStatus:
    """What the status and listing answers show of one submission (never its request body)."""

    submission_id: str
    owner: str
    kind: SubmissionKind
    idempotency_key: str
    pool_name: str
    named_universe: str
    market_id: int
    era_number: int
    status: str
    created_at: float
    updated_at: float
    outcome: JSONObject
    history: list[JSONObject]

    def status_body(self) -> JSONObject:
        """Return the body of ``GET /signals/status/<id>`` for this submission (strict JSON)."""
        is_signal = self.kind == "signal"
        body: JSONObject = {
            "submission_id": self.submission_id,
            "status": self.status,
            "kind": self.kind,
            "signal_pool_name": self.pool_name if is_signal else None,
            "strategy_pool_name": None if is_signal else self.pool_name,
        }
        for key in OUTCOME_KEYS:
            body[key] = public_metric(self.outcome.get(key))
        for key in INTERNAL_OUTCOME_KEYS:
            body[key] = public_metric(self.outcome.get(key))
        body.update(
            {
                "named_universe": self.named_universe,
                "market_id": self.market_id,
                "era_number": self.era_number,
                "idempotency_key": self.idempotency_key,
                "created_at": iso_timestamp(self.created_at),
                "updated_at": iso_timestamp(self.updated_at),
                "history": [dict(step) for step in self.history],
            }
        )
        return body

    def listing_body(self) -> JSONObject:
        """Return this submission as ``GET /signals/submissions`` lists it: its status body without `HIDDEN_KEYS`."""
        body = self.status_body()
        for key in HIDDEN_KEYS:
            del body[key]
        return body
