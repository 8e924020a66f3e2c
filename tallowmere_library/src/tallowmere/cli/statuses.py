"""What the statuses a submission goes through mean to the command line.

A signal goes ``signal_submitted`` → ``signal_found`` or ``signal_is_rejected``;
a found signal goes on to ``signal_os_passed`` or ``signal_os_failed``, and a
passed one to ``signal_useful`` (paid) or ``signal_not_useful``. A strategy
goes ``strategy_submitted`` → ``strategy_accepted`` or ``strategy_rejected``.

- *final*: the service never changes the status again;
- *terminal*: where the client's ``poll_until_terminal`` stops (the first
  verdict, ``signal_found`` included), plus a strategy's verdicts;
- *unsuccessful*: final statuses that mean no: the submission was rejected,
  failed, or was judged not useful. ``status`` and ``poll`` exit with 1 when
  a submission is in one of them.
"""

from __future__ import annotations

from typing import Final

from tallowmere.service.lifecycle import (
    CLIENT_TERMINAL_STATUSES,
    FINAL_STATUSES,
    SIGNAL_IS_REJECTED,
    SIGNAL_NOT_USEFUL,
    SIGNAL_OS_FAILED,
    SIGNAL_SERVER_SIDE_ERROR,
    SIGNAL_USEFUL_TRANSITION_FAILED,
    STRATEGY_ACCEPTED,
    STRATEGY_REJECTED,
)

FINAL: Final[frozenset[str]] = FINAL_STATUSES
TERMINAL: Final[frozenset[str]] = CLIENT_TERMINAL_STATUSES | {STRATEGY_ACCEPTED, STRATEGY_REJECTED}
UNSUCCESSFUL: Final[frozenset[str]] = frozenset(
    {
        SIGNAL_IS_REJECTED,
        SIGNAL_OS_FAILED,
        SIGNAL_NOT_USEFUL,
        SIGNAL_SERVER_SIDE_ERROR,
        SIGNAL_USEFUL_TRANSITION_FAILED,
        STRATEGY_REJECTED,
    }
)

POLL_TARGETS: Final[dict[str, frozenset[str]]] = {"final": FINAL, "terminal": TERMINAL}
"""``poll --until`` choices and the statuses each one waits for."""
