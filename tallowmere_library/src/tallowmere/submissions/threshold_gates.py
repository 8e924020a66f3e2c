"""The threshold gates that a signal's in-sample statistics must pass.

Each signal pool sets thresholds per universe rule in the era catalog. Every
threshold key that names a gate becomes one comparison on a metric:

==========================================  =====================================
key                                         gate
==========================================  =====================================
``is_correlation_threshold``                ``is_correlation <= value``
``is_pnl_mi_threshold``                     ``is_pnl_mi <= value``
``mi_threshold`` (older name of the above)  ``is_pnl_mi <= value``, only when
                                            ``is_pnl_mi_threshold`` is absent
``max_weight``                              ``max_weight <= value``
``max_<metric>``                            ``<metric> <= value``
``min_<metric>``                            ``<metric> >= value``
==========================================  =====================================

Other keys (``universe_rule_id``, ``rule_id``, ``universes``, ``name``, and a
bare ``min_`` or ``max_``) are not gates and are ignored.

Rules of evaluation:

- ``pool_thresholds`` entries override ``threshold_set`` entries of the same
  key; gates are evaluated in the key order of the merged mapping, and every
  failing gate is reported, not only the first;
- a metric that is missing, ``None``, not a number (a bool or text included)
  or NaN fails its gate;
- an infinite metric fails every ``<=`` gate; on a ``>=`` gate it compares as
  the number it is (``inf`` passes, ``-inf`` fails);
- a gate threshold must be a finite int or float (not a bool): anything else
  raises ``ValueError`` naming the key, because a gate that cannot be
  evaluated must not be taken as passed.
"""

from __future__ import annotations

import math
from collections.abc import Mapping
from dataclasses import dataclass
from typing import Literal

from tallowmere._accelerate import accelerate

__all__ = ["ThresholdGateFailure", "ThresholdGateResult", "evaluate_threshold_gates"]

_NAMED_GATES: dict[str, str] = {
    "is_correlation_threshold": "is_correlation",
    "is_pnl_mi_threshold": "is_pnl_mi",
    "mi_threshold": "is_pnl_mi",
    # The largest absolute weight is itself a metric named max_weight, so this
    # key is not the generic max_<metric> form (which would read "weight").
    "max_weight": "max_weight",
}


@dataclass(frozen=True, slots=True)
class ThresholdGateFailure:
    """One failed gate: ``actual`` (``None`` when missing) did not satisfy
    ``actual <operator> threshold`` for the metric ``gate``."""

    gate: str
    actual: object
    operator: Literal["<=", ">="]
    threshold: int | float

    def __str__(self) -> str:
        return f"{self.gate} failed: {self.actual} {self.operator} {self.threshold}"


@dataclass(frozen=True, slots=True)
class ThresholdGateResult:
    """The outcome of all gates: ``passed`` is True when ``failures`` is empty."""

    passed: bool
    failures: tuple[ThresholdGateFailure, ...]


def _gate_for_key(key: str, merged: Mapping[str, object]) -> tuple[str, Literal["<=", ">="]] | None:
    """Return the (metric, operator) gate a threshold key stands for, or None."""
    if key in _NAMED_GATES:
        if key == "mi_threshold" and "is_pnl_mi_threshold" in merged:
            return None
        return _NAMED_GATES[key], "<="
    if key.startswith("max_") and len(key) > len("max_"):
        return key[len("max_") :], "<="
    if key.startswith("min_") and len(key) > len("min_"):
        return key[len("min_") :], ">="
    return None


def _gate_threshold(key: str, value: object) -> int | float:
    """Return a gate's threshold, refusing anything but a finite int or float."""
    if isinstance(value, bool) or not isinstance(value, (int, float)):
        raise ValueError(f"threshold {key} must be a finite number, got {type(value).__name__} {value!r}")
    if isinstance(value, float) and not math.isfinite(value):
        raise ValueError(f"threshold {key} must be a finite number, got {value!r}")
    return value


def _gate_holds(actual: object, operator: Literal["<=", ">="], threshold: int | float) -> bool:
    if isinstance(actual, bool) or not isinstance(actual, (int, float)):
        return False
    if isinstance(actual, float):
        if math.isnan(actual):
            return False
        if math.isinf(actual) and operator == "<=":
            return False
    if operator == "<=":
        return actual <= threshold
    return actual >= threshold


def evaluate_threshold_gates(
    *,
    metrics: Mapping[str, object] | None,
    threshold_set: Mapping[str, object] | None,
    pool_thresholds: Mapping[str, object] | None,
) -> ThresholdGateResult:
    """Evaluate every gate named by the merged thresholds against ``metrics``.

    ``metrics`` maps metric names (``sharpe``, ``is_correlation``,
    ``is_pnl_mi``, ...) to values; ``threshold_set`` and ``pool_thresholds``
    map threshold keys to values, the latter winning. See the module
    documentation for which keys are gates and how each is judged.
    """
    merged: dict[str, object] = {}
    if threshold_set is not None:
        merged.update(threshold_set)
    if pool_thresholds is not None:
        merged.update(pool_thresholds)
    observed: Mapping[str, object] = {} if metrics is None else metrics
    failures: list[ThresholdGateFailure] = []
    for key, raw_threshold in merged.items():
        if not isinstance(key, str):  # decoded JSON has text keys; a caller's dict may not
            continue
        gate = _gate_for_key(key, merged)
        if gate is None:
            continue
        metric, operator = gate
        threshold = _gate_threshold(key, raw_threshold)
        actual = observed.get(metric)
        if not _gate_holds(actual, operator, threshold):
            failures.append(ThresholdGateFailure(gate=metric, actual=actual, operator=operator, threshold=threshold))
    return ThresholdGateResult(passed=not failures, failures=tuple(failures))


# The compiled versions of these functions, unless switched off (see tallowmere._accelerate).
accelerate(globals(), ("evaluate_threshold_gates",))
