"""Following submissions until each one reaches a status the caller waits for, through outages.

A round asks for the status of every submission still waiting. An answer
settles a submission when its status is one waited for, or when the service
refuses to report it for good (an unknown id, a token it does not accept: no
later answer would differ). Anything else that is not an answer — no
connection, a timeout, a 429 or 5xx, a page that is not JSON — is an
*outage*: the round stops there and polling goes on at the next interval
until the wait is over. The outage is reported when it begins and when it
ends, so a long one is visible while it lasts.
"""

from __future__ import annotations

import time
from collections import Counter
from collections.abc import Callable, Sequence
from dataclasses import dataclass, field

from tallowmere.api.signal_types import StatusResult
from tallowmere.submit import SignalClientResponseError, SignalServiceClient


@dataclass
class PollOutcome:
    """What polling learnt so far.

    ``latest``: the last answer about each submission (in the order asked);
    ``waiting``: those not settled; ``outage``: why the service gave no
    answer, while it gives none (None once it answers again);
    ``outage_began``: when that outage began (a clock reading).
    """

    latest: dict[str, StatusResult] = field(default_factory=dict)
    waiting: list[str] = field(default_factory=list)
    outage: str | None = None
    outage_began: float | None = None


@dataclass(frozen=True)
class PollRound:
    """What one round leaves to report: how many are settled, the statuses seen, and any outage."""

    settled: int
    total: int
    statuses: dict[str, int]
    outage: str | None
    outage_seconds: float

    def note(self) -> str:
        """A short line for a progress display: the outage, else the statuses by count."""
        if self.outage is not None:
            return f"no answer for {self.outage_seconds:.0f} s ({self.outage}); still trying"
        ordered = sorted(self.statuses.items(), key=lambda pair: (-pair[1], pair[0]))
        if len(ordered) == 1 and self.total == 1:
            return ordered[0][0]
        return ", ".join(f"{count} {status}" for status, count in ordered)


TRANSIENT_STATUSES = frozenset({408, 425, 429})
"""Refusals that say "not now" rather than "no": polling asks again (as for every 5xx)."""


def outage_reason(result: StatusResult) -> str | None:
    """Why an answer is no answer at all (no connection, 429, 5xx), or None when it is a real answer."""
    if result.status_code == 0:
        return result.error or "no answer"
    if result.status_code >= 500 or result.status_code in TRANSIENT_STATUSES:
        return f"{result.error or 'error'} (HTTP {result.status_code})"
    return None


def poll_statuses(
    client: SignalServiceClient,
    submission_ids: Sequence[str],
    *,
    target: frozenset[str],
    timeout: float,
    interval: float,
    on_round: Callable[[PollRound], None] = lambda report: None,
    on_outage: Callable[[str | None, float], None] = lambda reason, seconds: None,
    outcome: PollOutcome | None = None,
    clock: Callable[[], float] = time.monotonic,
    sleep: Callable[[float], None] = time.sleep,
) -> PollOutcome:
    """Ask for each submission's status every ``interval`` seconds until it is in ``target``, for ``timeout`` seconds.

    Polling ends when all are settled or the time is up; an outage never
    ends it early. ``on_round`` gets a `PollRound` after every round;
    ``on_outage`` is called with the reason and 0 when an outage begins, and
    with None and its length when it ends. ``outcome`` (filled in as polling
    goes, so that an interrupted caller still has it) is returned.
    """
    outcome = outcome if outcome is not None else PollOutcome()
    outcome.waiting = list(dict.fromkeys(submission_ids))
    total = len(outcome.waiting)
    deadline = clock() + timeout
    while True:
        reason: str | None = None
        still_waiting: list[str] = []
        for position, submission_id in enumerate(outcome.waiting):
            try:
                result = client.get_signal_status(submission_id)
            except SignalClientResponseError as exc:
                reason = f"an answer that is not JSON (HTTP {exc.status_code})"
            else:
                reason = outage_reason(result)
            if reason is not None:
                still_waiting.extend(outcome.waiting[position:])
                break
            outcome.latest[submission_id] = result
            if result.error is None and result.status not in target:
                still_waiting.append(submission_id)
        outcome.waiting = still_waiting
        _note_outage(outcome, reason, clock(), on_outage)
        statuses = Counter(result.status or "error" for result in outcome.latest.values())
        began = outcome.outage_began
        on_round(
            PollRound(
                settled=total - len(outcome.waiting),
                total=total,
                statuses=dict(statuses),
                outage=outcome.outage,
                outage_seconds=0.0 if began is None else clock() - began,
            )
        )
        remaining = deadline - clock()
        if not outcome.waiting or remaining <= 0:
            return outcome
        sleep(min(interval, remaining))


def _note_outage(
    outcome: PollOutcome, reason: str | None, now: float, on_outage: Callable[[str | None, float], None]
) -> None:
    if reason is not None:
        if outcome.outage is None:
            outcome.outage_began = now
            on_outage(reason, 0.0)
        outcome.outage = reason
    elif outcome.outage is not None:
        began = outcome.outage_began if outcome.outage_began is not None else now
        outcome.outage, outcome.outage_began = None, None
        on_outage(None, now - began)

