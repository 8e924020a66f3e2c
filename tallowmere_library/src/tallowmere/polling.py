"""Waiting for a submission's verdict, with a clear answer about what happened.

``poll_until_terminal`` returns the latest status at its time-out exactly as
it returns a verdict, and does not know a strategy's verdicts. The helpers
here say which of these happened:

==========================================  ====================================================
What happened                               What ``wait_for_verdict`` does
==========================================  ====================================================
the status reached ``until``                returns it (``result.ok``, ``result.status in until``)
the service refused the query (a 4xx        returns the refusal (``result.ok`` is False,
other than 408 and 429: unknown id,         ``result.error`` says why); asking again would not
wrong token)                                help
no answer (``status_code == 0``)            returns it (``result.error`` is the transport's message)
the deadline passed first                   raises `VerdictTimeout` (``.last`` holds the latest
                                            status); with ``raise_on_timeout=False``, returns
                                            the latest status instead
==========================================  ====================================================

Other answers (a 5xx or 429 the transport's retries did not get past, a
status not yet in ``until``) are asked again after ``interval`` seconds. The
first query is made at once; the wait uses the monotonic clock.

``until`` defaults to `TERMINAL_STATUSES` (any verdict: a signal's first one
included, and a strategy's); pass `FINAL_STATUSES` to follow a signal to the
end of its evaluation.
"""

from __future__ import annotations

import asyncio
import math
import time
from collections.abc import Awaitable, Callable, Collection
from typing import Protocol

from tallowmere.api.signal_types import FINAL_STATUSES, TERMINAL_STATUSES, StatusResult

__all__ = ["FINAL_STATUSES", "TERMINAL_STATUSES", "VerdictTimeout", "wait_for_verdict", "wait_for_verdict_async"]

# Refusals that a later query may get past; any other 4xx ends the wait.
_PASSING_REFUSALS = frozenset({408, 425, 429})


class VerdictTimeout(TimeoutError):
    """No verdict within the time allowed; ``last`` is the latest status answer."""

    def __init__(self, submission_id: str, timeout: float, last: StatusResult) -> None:
        super().__init__(
            f"submission {submission_id!r} has no verdict after {timeout:g} s (latest status: {last.status})"
        )
        self.submission_id = submission_id
        self.timeout = timeout
        self.last = last


class _StatusClient(Protocol):
    def get_signal_status(self, submission_id: str) -> StatusResult: ...


class _AsyncStatusClient(Protocol):
    def get_signal_status(self, submission_id: str) -> Awaitable[StatusResult]: ...


def _settled(result: StatusResult, until: Collection[str]) -> bool:
    """True when no later query is worth making: a verdict, a lasting refusal, or no answer."""
    if result.status_code == 0:
        return True
    if result.error is None:
        return result.status in until
    return 400 <= result.status_code < 500 and result.status_code not in _PASSING_REFUSALS


def _check(timeout: float, interval: float) -> None:
    if not math.isfinite(timeout):
        raise ValueError("timeout must be a finite number of seconds")
    if not math.isfinite(interval) or interval <= 0:
        raise ValueError("interval must be a finite number of seconds > 0")


def wait_for_verdict(
    client: _StatusClient,
    submission_id: str,
    *,
    timeout: float,
    until: Collection[str] = TERMINAL_STATUSES,
    interval: float = 0.5,
    raise_on_timeout: bool = True,
    clock: Callable[[], float] = time.monotonic,
    sleep: Callable[[float], object] = time.sleep,
) -> StatusResult:
    """Ask for ``submission_id``'s status every ``interval`` seconds until it is in ``until``.

    See the module's table for what is returned and raised. ``client`` is any
    object with ``get_signal_status`` (a ``SignalServiceClient``).
    """
    _check(timeout, interval)
    deadline = clock() + timeout
    last = client.get_signal_status(submission_id)
    while not _settled(last, until):
        remaining = deadline - clock()
        if remaining <= 0:
            if raise_on_timeout:
                raise VerdictTimeout(submission_id, timeout, last)
            return last
        sleep(min(interval, remaining))
        last = client.get_signal_status(submission_id)
    return last


async def wait_for_verdict_async(
    client: _AsyncStatusClient,
    submission_id: str,
    *,
    timeout: float,
    until: Collection[str] = TERMINAL_STATUSES,
    interval: float = 0.5,
    raise_on_timeout: bool = True,
    clock: Callable[[], float] = time.monotonic,
    sleep: Callable[[float], Awaitable[object]] = asyncio.sleep,
) -> StatusResult:
    """:func:`wait_for_verdict` for an asynchronous client (an ``AsyncSignalServiceClient``)."""
    _check(timeout, interval)
    deadline = clock() + timeout
    last = await client.get_signal_status(submission_id)
    while not _settled(last, until):
        remaining = deadline - clock()
        if remaining <= 0:
            if raise_on_timeout:
                raise VerdictTimeout(submission_id, timeout, last)
            return last
        await sleep(min(interval, remaining))
        last = await client.get_signal_status(submission_id)
    return last
