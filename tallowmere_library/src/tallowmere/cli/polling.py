"""Following submissions until each one reaches a status the caller waits for."""

from __future__ import annotations

import time
from collections.abc import Callable, Sequence
from dataclasses import dataclass, field

from tallowmere.api.signal_types import StatusResult
from tallowmere.cli.connection import ServiceAddress, answered, unreachable
from tallowmere.submit import SignalServiceClient


@dataclass
class PollOutcome:
    """The last status of each submission polled (in the order asked) and those still waiting at the deadline."""

    latest: dict[str, StatusResult] = field(default_factory=dict)
    waiting: list[str] = field(default_factory=list)


def poll_statuses(
    client: SignalServiceClient,
    address: ServiceAddress,
    submission_ids: Sequence[str],
    *,
    target: frozenset[str],
    timeout: float,
    interval: float,
    on_progress: Callable[[int], None] = lambda settled: None,
    clock: Callable[[], float] = time.monotonic,
    sleep: Callable[[float], None] = time.sleep,
) -> PollOutcome:
    """Ask for each submission's status every ``interval`` seconds until it is in ``target``.

    A submission is settled once its status is in ``target`` or the service
    refuses to report it (an unknown id: no later answer would differ).
    Polling ends when all are settled or ``timeout`` seconds have passed;
    ``on_progress`` is told how many are settled after every round. A request
    that gets no answer at all ends polling with `ServiceUnreachable`.
    """
    outcome = PollOutcome()
    waiting = list(dict.fromkeys(submission_ids))
    deadline = clock() + timeout
    while True:
        still_waiting: list[str] = []
        for submission_id in waiting:
            with answered(address, f"GET /signals/status/{submission_id}"):
                result = client.get_signal_status(submission_id)
            if result.status_code == 0:
                raise unreachable(address, result.error or "no answer")
            outcome.latest[submission_id] = result
            if result.error is None and result.status not in target:
                still_waiting.append(submission_id)
        waiting = still_waiting
        on_progress(len(outcome.latest) - len(waiting))
        remaining = deadline - clock()
        if not waiting or remaining <= 0:
            break
        sleep(min(interval, remaining))
    outcome.waiting = waiting
    return outcome
