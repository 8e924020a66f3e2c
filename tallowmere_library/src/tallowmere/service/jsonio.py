"""Strict JSON in and out.

Request bodies must be strict JSON: the bare constants ``NaN``, ``Infinity``
and ``-Infinity`` that Python's ``json`` module accepts by default are
refused. Infinite figures leave the service as the strings ``"Infinity"`` and
``"-Infinity"``, the spelling the client turns back into floats.
"""

from __future__ import annotations

import hashlib
import json
import math
from typing import Any

JSONObject = dict[str, Any]
"""A decoded JSON object."""

POSITIVE_INFINITY_TEXT = "Infinity"
NEGATIVE_INFINITY_TEXT = "-Infinity"


class StrictJSONError(ValueError):
    """A document that is not strict JSON."""


def _refuse_constant(name: str) -> float:
    raise StrictJSONError(f"{name} is not valid JSON; send infinities as the string \"Infinity\"")


def loads_strict(data: bytes | str) -> Any:
    """Decode ``data`` as strict JSON; raise `StrictJSONError` naming what is wrong."""
    try:
        return json.loads(data, parse_constant=_refuse_constant)
    except StrictJSONError:
        raise
    except (UnicodeDecodeError, json.JSONDecodeError) as exc:
        raise StrictJSONError(f"request body is not valid JSON: {exc}") from None
    except RecursionError:
        raise StrictJSONError("request body is nested too deeply") from None


def dumps_compact(value: Any) -> str:
    """Encode ``value`` compactly, refusing NaN and infinities (use `metric_json_value` first)."""
    return json.dumps(value, separators=(",", ":"), ensure_ascii=False, allow_nan=False)


def canonical_fingerprint(value: Any) -> str:
    """Return the SHA-256 hex digest of ``value``'s canonical JSON (sorted keys, no spaces)."""
    text = json.dumps(value, sort_keys=True, separators=(",", ":"), ensure_ascii=False, allow_nan=False)
    return hashlib.sha256(text.encode("utf-8")).hexdigest()


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
