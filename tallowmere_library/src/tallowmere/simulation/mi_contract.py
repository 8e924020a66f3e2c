"""Checks on the mutual-information values of a submission.

A signal carries its in-sample statistics (``is_stats``) and, beside them, the
mutual information between its profit-and-loss and the pool's (``is_pnl_mi``).
The mutual information may legitimately be infinite (a signal that copies
another), which JSON cannot spell as a number, so it travels as the text
``"Infinity"`` or ``"-Infinity"``. The statistics themselves must be finite.

The helpers here are what the submission client applies:

- :func:`_is_finite_number`: an int or float, not a bool, and finite;
- :func:`_coerce_mi_contract_value`: reads a mutual-information value;
- :func:`_has_disallowed_mi_contract_field`: the statistics carry a key that
  belongs beside them (:data:`MI_CONTRACT_KEYS`);
- :func:`_has_non_finite_number`: a NaN or infinity hides anywhere in a value.
"""

from __future__ import annotations

import math
from collections.abc import Mapping

from tallowmere._accelerate import accelerate

__all__ = [
    "MI_CONTRACT_KEYS",
    "_coerce_mi_contract_value",
    "_has_disallowed_mi_contract_field",
    "_has_non_finite_number",
    "_is_finite_number",
]

MI_CONTRACT_KEYS: frozenset[str] = frozenset(
    {
        "is_pnl_mi",
        "agent_is_pnl_mi",
        "pnl_mi",
        "is_weights_mi",
        "is_pnl_mi_threshold",
        "mi_threshold",
    }
)
"""Mutual-information keys that belong beside the statistics, never inside them."""

_MI_VALUE_ERROR = "is_pnl_mi must be a scalar number or Infinity"
_INFINITY_TEXT = {"Infinity": math.inf, "-Infinity": -math.inf}


def _is_finite_number(value: object) -> bool:
    """True for an int or float (subclasses included) that is finite; False for bools."""
    if isinstance(value, bool):
        return False
    if isinstance(value, int):
        return True
    return isinstance(value, float) and math.isfinite(value)


def _coerce_mi_contract_value(value: object) -> float:
    """Return a mutual-information value as a float.

    Accepted: an int or float other than a bool or NaN (infinities of either
    sign included), and the exact texts ``"Infinity"`` and ``"-Infinity"``.
    Anything else raises ``ValueError("is_pnl_mi must be a scalar number or
    Infinity")``.
    """
    if isinstance(value, str):
        if value in _INFINITY_TEXT:
            return _INFINITY_TEXT[value]
        raise ValueError(_MI_VALUE_ERROR)
    if isinstance(value, bool) or not isinstance(value, (int, float)):
        raise ValueError(_MI_VALUE_ERROR)
    try:
        number = float(value)
    except OverflowError:
        raise ValueError(_MI_VALUE_ERROR) from None
    if math.isnan(number):
        raise ValueError(_MI_VALUE_ERROR)
    return number


def _has_disallowed_mi_contract_field(is_stats: object) -> bool:
    """True when the statistics mapping has a top-level key of :data:`MI_CONTRACT_KEYS`.

    Anything that is not a mapping has no such key and gives False.
    """
    if not isinstance(is_stats, Mapping):
        return False
    return any(key in is_stats for key in MI_CONTRACT_KEYS)


def _has_non_finite_number(value: object) -> bool:
    """True when a float NaN or infinity appears anywhere in ``value``.

    Dicts (keys and values), lists and tuples are searched to any depth
    without recursion; a container that contains itself is searched once.
    Bools, ints and strings are never non-finite numbers.
    """
    pending: list[object] = [value]
    searched: set[int] = set()
    while pending:
        item = pending.pop()
        if isinstance(item, float):
            if not math.isfinite(item):
                return True
        elif isinstance(item, (dict, list, tuple)):
            if id(item) in searched:
                continue
            searched.add(id(item))
            if isinstance(item, dict):
                pending.extend(item.keys())
                pending.extend(item.values())
            else:
                pending.extend(item)
    return False


# The compiled versions of these functions, unless switched off (see tallowmere._accelerate).
accelerate(
    globals(),
    (
        "_coerce_mi_contract_value",
        "_has_disallowed_mi_contract_field",
        "_has_non_finite_number",
        "_is_finite_number",
    ),
)
