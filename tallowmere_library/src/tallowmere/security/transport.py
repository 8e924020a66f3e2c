"""Which URLs may carry a bearer token.

A bearer token grants whoever holds it the agent's full authority, so the
client refuses to send one anywhere it could be read or redirected on the way:

- the scheme must be ``https``; plain ``http`` is allowed only to a loopback
  host (``localhost``, an address in ``127.0.0.0/8``, or ``[::1]``), where the
  traffic never leaves the machine;
- the URL must name a host;
- the URL must not carry user information (``user:password@host``): such
  credentials end up in logs and proxies, and a URL like
  ``https://service.example@evil.example`` misleads the reader about the host;
- the URL must not contain whitespace or control characters, which parsers
  disagree about;
- a port, when given, must be a number from 0 to 65535.

The check runs before every request, so verdicts are cached per URL; a
refused URL raises again every time it is checked.
"""

from __future__ import annotations

import ipaddress
from functools import lru_cache
from urllib.parse import urlsplit

__all__ = ["validate_bearer_transport_url"]

_VERDICT_CACHE_SIZE = 256
_LOOPBACK_NAMES = frozenset({"localhost"})
_IPV4_LOOPBACK = ipaddress.IPv4Network("127.0.0.0/8")


def validate_bearer_transport_url(url: str) -> None:
    """Refuse a URL over which a bearer token must not be sent.

    Returns ``None`` for a URL that may carry the token. Raises ``ValueError``
    saying why for any other URL, and ``TypeError`` when ``url`` is not a
    ``str``.
    """
    if not isinstance(url, str):
        raise TypeError(f"bearer transport URL must be a str, got {type(url).__name__}")
    reason = _refusal_reason(str(url))
    if reason is not None:
        raise ValueError(f"refusing to send a bearer token: {reason}")


@lru_cache(maxsize=_VERDICT_CACHE_SIZE)
def _refusal_reason(url: str) -> str | None:
    """Return why ``url`` may not carry a bearer token, or ``None`` if it may."""
    if any(character.isspace() or ord(character) < 0x20 or ord(character) == 0x7F for character in url):
        return "the URL contains whitespace or control characters"
    try:
        parts = urlsplit(url)
    except ValueError as exc:
        return f"the URL cannot be parsed ({exc})"
    scheme = parts.scheme
    if not scheme:
        return "the URL has no scheme; use https"
    if scheme not in ("http", "https"):
        return f"the URL's scheme is {scheme!r}; use https"
    if "@" in parts.netloc:
        return "the URL carries user information (user:password@host); send credentials in headers, not in the URL"
    host = parts.hostname
    if not host:
        return "the URL names no host"
    try:
        _ = parts.port  # reading the port is what checks it
    except ValueError:
        return "the URL's port is not a number from 0 to 65535"
    if scheme == "http" and not _is_loopback_host(host):
        return f"plain http is allowed only to a loopback host, not {host!r}; use https"
    return None


def _is_loopback_host(host: str) -> bool:
    """True for ``localhost``, an IPv4 address in 127.0.0.0/8 and ``::1``.

    ``host`` is the lower-cased host of a parsed URL, without brackets. Only
    the canonical address forms count: ``127.1`` or ``0x7f.0.0.1`` are refused
    rather than guessed at.
    """
    if host in _LOOPBACK_NAMES:
        return True
    try:
        address = ipaddress.ip_address(host)
    except ValueError:
        return False
    if isinstance(address, ipaddress.IPv4Address):
        return address in _IPV4_LOOPBACK
    return int(address) == 1
