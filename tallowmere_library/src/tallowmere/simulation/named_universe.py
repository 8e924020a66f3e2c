"""Named universes: how the client reads them and which names it refuses.

A named universe (``top300``, ``liquid150``) selects the assets a signal is
evaluated on. The client normalises the name it is given, then refuses any
name that could not serve as one path segment, because the service and the
local simulator both use it to address stored data:

- ``None`` stands for "no named universe" and becomes ``""``;
- text is put in Unicode NFC form and stripped of surrounding whitespace, so
  that visually equal names are equal;
- a safe name is 1 to :data:`MAX_NAMED_UNIVERSE_LENGTH` characters long, has no
  ``/`` or ``\\``, is not ``.`` or ``..``, has no control or format characters
  (Unicode categories Cc and Cf, NUL included) and no surrounding whitespace.
"""

from __future__ import annotations

import unicodedata

from tallowmere._accelerate import accelerate

__all__ = ["MAX_NAMED_UNIVERSE_LENGTH", "_is_unsafe_named_universe", "_normalize_named_universe"]

MAX_NAMED_UNIVERSE_LENGTH = 128
"""The longest accepted named universe, in characters."""

_UNSAFE_CATEGORIES = frozenset({"Cc", "Cf"})
_SEPARATORS = frozenset("/\\")


def _normalize_named_universe(value: object) -> str:
    """Return ``value`` as a normalised universe name.

    ``None`` gives ``""``; a ``str`` gives its NFC form stripped of
    surrounding whitespace; anything else raises
    ``ValueError("named_universe must be a string, got <type name>")``.
    """
    if value is None:
        return ""
    if not isinstance(value, str):
        raise ValueError(f"named_universe must be a string, got {type(value).__name__}")
    return unicodedata.normalize("NFC", value).strip()


def _is_unsafe_named_universe(name: object) -> bool:
    """True unless ``name`` is a single safe path segment (see the module rules)."""
    if not isinstance(name, str):
        return True
    if not name or len(name) > MAX_NAMED_UNIVERSE_LENGTH:
        return True
    if name in (".", "..") or name != name.strip():
        return True
    for character in name:
        if character in _SEPARATORS or unicodedata.category(character) in _UNSAFE_CATEGORIES:
            return True
    return False


# The compiled versions of these functions, unless switched off (see tallowmere._accelerate).
accelerate(globals(), ("_normalize_named_universe", "_is_unsafe_named_universe"))
