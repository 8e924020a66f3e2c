"""Exit codes of the ``tallowmere`` command and the errors that end a command with one of them."""

from __future__ import annotations

from collections.abc import Sequence
from typing import Any, Final

EXIT_OK: Final = 0
"""The command did what was asked and the service accepted it."""

EXIT_REFUSED: Final = 1
"""The service said no: a rejection, an unsuccessful status, a refused batch item, an unknown submission."""

EXIT_USAGE: Final = 2
"""Bad arguments, an unreadable or invalid input file, or a local check that failed before anything was sent."""

EXIT_UNREACHABLE: Final = 3
"""No usable answer came from the service: it could not be reached, or answered something that is not JSON."""

EXIT_STILL_WAITING: Final = 4
"""``poll`` ran out of ``--wait`` with submissions not yet at the status it waits for."""

EXIT_INTERRUPTED: Final = 130
"""Ctrl-C, as shells report a SIGINT."""

LISTED_PROBLEMS: Final = 5
"""Problems a message names before it summarises the rest."""


def problems_text(problems: Sequence[str]) -> str:
    """The first problems, ``; ``-separated, and how many more there are."""
    shown = "; ".join(problems[:LISTED_PROBLEMS])
    hidden = len(problems) - LISTED_PROBLEMS
    return shown if hidden <= 0 else f"{shown}; and {hidden} more"


class CommandError(Exception):
    """An outcome that ends a command with a one-line message on stderr and a non-zero exit code.

    ``document`` is what ``--json`` prints on stdout for it; without one, the
    command prints ``{"error": <message>, "exit_code": <code>}``.
    """

    exit_code: int = EXIT_REFUSED

    def __init__(self, message: str, *, document: dict[str, Any] | None = None) -> None:
        """Carry ``message`` (one line, never a secret) and the optional ``--json`` ``document``."""
        super().__init__(message)
        self.message = message
        self.document = document


class UsageError(CommandError):
    """The command was called wrongly or its input is invalid; nothing was sent (exit 2)."""

    exit_code = EXIT_USAGE


class ServiceRefusal(CommandError):
    """The service answered, and the answer was no (exit 1)."""

    exit_code = EXIT_REFUSED


class ServiceUnreachable(CommandError):
    """No usable answer came back from the service (exit 3)."""

    exit_code = EXIT_UNREACHABLE


class Interrupted(CommandError):
    """Ctrl-C ended the command; the message says what had been done by then (exit 130)."""

    exit_code = EXIT_INTERRUPTED
