"""Keeping the bearer token out of everything the command line writes."""

from __future__ import annotations

from typing import Final

REDACTED: Final = "[redacted]"


class Redactor:
    """Replaces every known secret in a text with ``[redacted]``.

    The command line never formats a token into a message on purpose; this is
    the second line of defence for texts it does not control (exception
    messages of lower layers, log records, tracebacks).
    """

    def __init__(self) -> None:
        """Start without secrets."""
        self._secrets: list[str] = []

    def add(self, secret: str | None) -> None:
        """Remember ``secret`` (an empty or missing value is ignored)."""
        if secret and secret not in self._secrets:
            self._secrets.append(secret)
            # Longer secrets first, so that one containing another is replaced whole.
            self._secrets.sort(key=len, reverse=True)

    def clean(self, text: str) -> str:
        """Return ``text`` with every remembered secret replaced."""
        for secret in self._secrets:
            text = text.replace(secret, REDACTED)
        return text
