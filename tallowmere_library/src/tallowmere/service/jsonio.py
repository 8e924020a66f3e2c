"""Strict JSON in and out.

Request bodies must be strict JSON in UTF-8: the bare constants ``NaN``,
``Infinity`` and ``-Infinity`` that Python's ``json`` module accepts by
default are refused, and so is any other encoding. Infinite figures leave the
service as the strings ``"Infinity"`` and ``"-Infinity"``, the spelling the
client turns back into floats.

Some documents are valid JSON and still hold values the service cannot keep:
a number that overflows a float (``1e400``), an integer of more than
`MAX_INTEGER_DIGITS` digits, a lone surrogate such as ``"\\ud800"``.
`loads_strict` parses them (an over-long integer as an `Unrepresentable`
holding its text), so that one bad item of a batch does not spoil the
others; `canonical_json` refuses them with `UnrepresentableValue`, which
names where the value sits.
"""

from __future__ import annotations

import hashlib
import json
import math
from typing import Any, Final

JSONObject = dict[str, Any]
"""A decoded JSON object."""

POSITIVE_INFINITY_TEXT = "Infinity"
NEGATIVE_INFINITY_TEXT = "-Infinity"

MAX_INTEGER_DIGITS: Final = 300
"""The most digits of a JSON integer; every integer that short converts to a float."""

MAX_ECHO_CHARACTERS: Final = 80
"""The most characters of a caller's text that a refusal repeats."""


class StrictJSONError(ValueError):
    """A document that is not strict JSON."""


class UnrepresentableValue(ValueError):
    """A parsed document holds a value the service cannot keep; ``location`` says where."""

    def __init__(self, location: str, problem: str) -> None:
        super().__init__(f"{location or 'the document'}: {problem}")
        self.location = location
        self.problem = problem


class Unrepresentable:
    """An integer literal of more than `MAX_INTEGER_DIGITS` digits, kept as (the start of) its text."""

    __slots__ = ("text",)

    def __init__(self, text: str) -> None:
        self.text = text

    def __repr__(self) -> str:
        return f"Unrepresentable({self.text!r})"


def _refuse_constant(name: str) -> float:
    raise StrictJSONError(f"{name} is not valid JSON; send infinities as the string \"Infinity\"")


def _parse_int(text: str) -> int | Unrepresentable:
    if len(text) - text.startswith("-") > MAX_INTEGER_DIGITS:
        return Unrepresentable(text[:MAX_ECHO_CHARACTERS])
    return int(text)


def loads_strict(data: bytes | str) -> Any:
    """Decode ``data`` (bytes must be UTF-8) as strict JSON; raise `StrictJSONError` naming what is wrong."""
    try:
        text = data.decode("utf-8") if isinstance(data, (bytes, bytearray)) else data
        return json.loads(text, parse_constant=_refuse_constant, parse_int=_parse_int)
    except StrictJSONError:
        raise
    except UnicodeDecodeError as exc:
        raise StrictJSONError(f"request body is not UTF-8: {exc.reason} at byte {exc.start}") from None
    except json.JSONDecodeError as exc:
        raise StrictJSONError(f"request body is not valid JSON: {exc}") from None
    except RecursionError:
        raise StrictJSONError("request body is nested too deeply") from None


def echo(text: object) -> str:
    """Return ``text`` as a refusal may repeat it: at most `MAX_ECHO_CHARACTERS` characters, surrogates escaped."""
    value = str(text)
    if not value.isascii():
        value = value.encode("utf-8", "backslashreplace").decode("utf-8")
    if len(value) > MAX_ECHO_CHARACTERS:
        value = value[: MAX_ECHO_CHARACTERS - 3] + "..."
    return value


def _has_surrogate(text: str) -> bool:
    if text.isascii():
        return False
    try:
        text.encode("utf-8")
    except UnicodeEncodeError:
        return True
    return False


def find_unrepresentable(value: Any) -> UnrepresentableValue | None:
    """Return the first value of a parsed document that the service cannot keep, or None.

    It walks the document without recursion and reports an `Unrepresentable`
    integer, a non-finite float, or a string or object key holding a lone
    surrogate, with its location (``is_stats.sharpe``, ``graph.args[0].op``).
    """
    stack: list[tuple[Any, tuple[Any, ...]]] = [(value, ())]
    while stack:
        item, location = stack.pop()
        problem: str | None = None
        if isinstance(item, Unrepresentable):
            problem = f"integer {item.text}... has more than {MAX_INTEGER_DIGITS} digits"
        elif isinstance(item, float) and not math.isfinite(item):
            problem = "number out of range (beyond a 64-bit float)"
        elif isinstance(item, str) and _has_surrogate(item):
            problem = "string holds a lone UTF-16 surrogate"
        elif isinstance(item, dict):
            for key, child in reversed(item.items()):
                if _has_surrogate(key):
                    where = render_location((*location, key))
                    return UnrepresentableValue(where, "object key holds a lone UTF-16 surrogate")
                stack.append((child, (*location, key)))
        elif isinstance(item, list):
            stack.extend((child, (*location, index)) for index, child in reversed(list(enumerate(item))))
        if problem is not None:
            return UnrepresentableValue(render_location(location), problem)
    return None


def render_location(location: tuple[Any, ...]) -> str:
    """Return a location in a document as ``a.b[2].c`` (keys repeated through `echo`)."""
    parts: list[str] = []
    for step in location:
        if isinstance(step, int):
            parts.append(f"[{step}]")
        else:
            parts.append(("." if parts else "") + echo(step))
    return "".join(parts)


def canonical_json(value: Any) -> bytes:
    """Return ``value``'s canonical JSON (sorted keys, no spaces) in UTF-8.

    Raises `UnrepresentableValue` when ``value`` holds something JSON cannot
    carry faithfully (see `find_unrepresentable`).
    """
    try:
        return json.dumps(
            value, sort_keys=True, separators=(",", ":"), ensure_ascii=False, allow_nan=False
        ).encode("utf-8")
    except (ValueError, TypeError, UnicodeEncodeError, RecursionError):
        found = find_unrepresentable(value)
        if found is None:
            raise
        raise found from None


def dumps_compact(value: Any) -> str:
    """Encode ``value`` compactly, refusing NaN and infinities (use `metric_json_value` first)."""
    return json.dumps(value, separators=(",", ":"), ensure_ascii=False, allow_nan=False)


def canonical_fingerprint(value: Any) -> str:
    """Return the SHA-256 hex digest of ``value``'s canonical JSON (sorted keys, no spaces)."""
    return hashlib.sha256(canonical_json(value)).hexdigest()


def render_json(value: Any) -> bytes:
    """Return an answer body as UTF-8 JSON; a lone surrogate, should one be echoed, is written escaped."""
    try:
        return json.dumps(value, separators=(",", ":"), ensure_ascii=False, allow_nan=False).encode("utf-8")
    except UnicodeEncodeError:
        return json.dumps(value, separators=(",", ":"), ensure_ascii=True, allow_nan=False).encode("ascii")


def metric_json_value(value: float | None) -> float | str | None:
    """Spell an infinite figure as ``"Infinity"``/``"-Infinity"``; pass other values through.

    NaN has no meaning as a service figure and is refused with ``ValueError``.
    """
    if value is None or math.isfinite(value):
        return value
    if math.isnan(value):
        raise ValueError("NaN cannot be published as a service figure")
    return POSITIVE_INFINITY_TEXT if value > 0 else NEGATIVE_INFINITY_TEXT


def metric_from_json(value: Any) -> Any:
    """Turn the strings ``"Infinity"``/``"-Infinity"`` back into floats; pass other values through."""
    if value == POSITIVE_INFINITY_TEXT:
        return math.inf
    if value == NEGATIVE_INFINITY_TEXT:
        return -math.inf
    return value
