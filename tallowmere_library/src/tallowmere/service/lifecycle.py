"""Submission statuses and the order in which the service moves through them.

A signal goes ``signal_submitted`` → (re-simulation) → ``signal_found`` or
``signal_is_rejected``; a found signal goes on to the out-of-sample evaluation
(``signal_os_passed`` / ``signal_os_failed``) and a passed one to the
usefulness review (``signal_useful`` with a payment, or ``signal_not_useful``).
A strategy goes ``strategy_submitted`` → ``strategy_accepted`` or
``strategy_rejected``.

The client treats the first status of each outcome as terminal (a poller stops
at ``signal_found``), while the service keeps advancing a found signal; the
sets below say which statuses the worker still has work for.
"""

from __future__ import annotations

from typing import Final, Literal

SubmissionKind = Literal["signal", "strategy"]

SIGNAL_SUBMITTED: Final = "signal_submitted"
SIGNAL_FOUND: Final = "signal_found"
SIGNAL_IS_REJECTED: Final = "signal_is_rejected"
SIGNAL_OS_PASSED: Final = "signal_os_passed"
SIGNAL_OS_FAILED: Final = "signal_os_failed"
SIGNAL_USEFUL: Final = "signal_useful"
SIGNAL_NOT_USEFUL: Final = "signal_not_useful"
SIGNAL_SERVER_SIDE_ERROR: Final = "signal_server_side_error"
SIGNAL_USEFUL_TRANSITION_FAILED: Final = "signal_useful_transition_failed"

STRATEGY_SUBMITTED: Final = "strategy_submitted"
STRATEGY_ACCEPTED: Final = "strategy_accepted"
STRATEGY_REJECTED: Final = "strategy_rejected"

SIGNAL_STATUSES: Final = frozenset(
    {
        SIGNAL_SUBMITTED,
        SIGNAL_FOUND,
        SIGNAL_IS_REJECTED,
        SIGNAL_OS_PASSED,
        SIGNAL_OS_FAILED,
        SIGNAL_USEFUL,
        SIGNAL_NOT_USEFUL,
        SIGNAL_SERVER_SIDE_ERROR,
        SIGNAL_USEFUL_TRANSITION_FAILED,
    }
)
STRATEGY_STATUSES: Final = frozenset({STRATEGY_SUBMITTED, STRATEGY_ACCEPTED, STRATEGY_REJECTED})
ALL_STATUSES: Final = SIGNAL_STATUSES | STRATEGY_STATUSES

CLIENT_TERMINAL_STATUSES: Final = frozenset(
    {
        SIGNAL_FOUND,
        SIGNAL_IS_REJECTED,
        SIGNAL_OS_PASSED,
        SIGNAL_OS_FAILED,
        SIGNAL_SERVER_SIDE_ERROR,
        SIGNAL_USEFUL,
        SIGNAL_NOT_USEFUL,
        SIGNAL_USEFUL_TRANSITION_FAILED,
    }
)
"""Statuses at which the client's ``poll_until_terminal`` stops."""

PENDING_STATUSES: Final = frozenset({SIGNAL_SUBMITTED, SIGNAL_FOUND, SIGNAL_OS_PASSED, STRATEGY_SUBMITTED})
"""Statuses the background worker still has to advance."""

FINAL_STATUSES: Final = ALL_STATUSES - PENDING_STATUSES
"""Statuses that never change again."""


def initial_status(kind: SubmissionKind) -> str:
    """Return the status a new submission of ``kind`` starts in."""
    return SIGNAL_SUBMITTED if kind == "signal" else STRATEGY_SUBMITTED
