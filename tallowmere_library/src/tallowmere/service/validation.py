"""Server-side validation of submission bodies.

The service checks every body again, whatever the client checked, and refuses
with 422 ``{"reason": <code>, "details": {...}}``. The checks run in this
order and the first failing one decides the reason:

1. ``caller_thresholds_not_accepted``: the body carries ``thresholds`` or
   ``threshold_checks`` (thresholds come from the era, never from the caller);
2. ``malformed_body``: fields missing, ill-typed, over their size limit
   (`FIELD_BYTE_LIMITS`) or unknown (``details`` lists every one under
   ``missing``, ``invalid`` and ``unknown``);
3. ``mi_contract_field_in_stats``: ``is_stats`` carries a mutual-information
   key that belongs beside it;
4. ``unknown_market`` / ``no_active_era`` / ``era_not_active``: the market and
   era must name the market's active era;
5. ``manifest_mismatch``: ``client_manifest_market_id`` and
   ``client_manifest_era_number`` must equal ``market_id`` and ``era_number``;
6. ``unknown_named_universe``, ``unknown_signal_pool``, ``thresholds_unavailable``;
7. ``malformed_graph``, ``graph_too_complex`` (over the era's limits),
   ``graph_complexity_mismatch`` (declared depth or node count differ from
   the graph);
8. ``data_contract_mismatch``: a ``simulation_data_contract_projection`` that
   differs from the era's;
9. ``thresholds_failed``: the submitted statistics fail the era's gates.
"""

from __future__ import annotations

import json
import math
from collections.abc import Callable, Mapping
from dataclasses import dataclass, field
from typing import Any, Final

from tallowmere.service.catalog import (
    EraCatalog,
    ThresholdsUnavailable,
    find_signal_pool,
    resolve_pool_thresholds,
    universe_rule_id,
)
from tallowmere.service.config import FIELD_BYTE_LIMITS
from tallowmere.service.errors import refusal
from tallowmere.service.jsonio import JSONObject, echo, metric_from_json
from tallowmere.service.lifecycle import SubmissionKind
from tallowmere.service.records import public_metric
from tallowmere.simulation.graph_complexity import GraphComplexity, measure_graph_complexity
from tallowmere.simulation.mi_contract import MI_CONTRACT_KEYS
from tallowmere.simulation.named_universe import _is_unsafe_named_universe
from tallowmere.submissions.threshold_gates import ThresholdGateFailure, evaluate_threshold_gates

CALLER_THRESHOLD_KEYS: Final = ("thresholds", "threshold_checks")

MAX_NAME_CHARACTERS: Final = 128
"""The longest pool name."""

MAX_STORED_INTEGER: Final = 2**63 - 1
"""The largest market id, era number or count (SQLite's integer range)."""

MAX_LISTED_NAMES: Final = 20
"""The most unknown field names a refusal lists."""

FieldCheck = Callable[[Any], str | None]
"""Returns None for a good value, else what the value must be."""


def _is_number(value: Any) -> bool:
    return isinstance(value, (int, float)) and not isinstance(value, bool)


def _positive_int(value: Any) -> str | None:
    if type(value) is not int or value <= 0:
        return "must be a positive integer"
    return None if value <= MAX_STORED_INTEGER else f"must be at most {MAX_STORED_INTEGER}"


def _non_empty_text(value: Any) -> str | None:
    return None if isinstance(value, str) and value.strip() else "must be a non-empty string"


def _pool_name(value: Any) -> str | None:
    if not isinstance(value, str) or not value.strip():
        return "must be a non-empty string"
    if len(value) > MAX_NAME_CHARACTERS:
        return f"must be at most {MAX_NAME_CHARACTERS} characters"
    return None


def _json_size(value: Any) -> int:
    """Return the size of ``value``'s compact JSON in UTF-8 bytes."""
    return len(json.dumps(value, separators=(",", ":"), ensure_ascii=False).encode("utf-8"))


SMALLEST_FIELD_LIMIT: Final = min(FIELD_BYTE_LIMITS.values())


def _named_universe(value: Any) -> str | None:
    if not isinstance(value, str):
        return "must be a string"
    if _is_unsafe_named_universe(value):
        return "must be one safe name: 1 to 128 characters, no slashes, control characters or surrounding spaces"
    return None


def _graph_object(value: Any) -> str | None:
    return None if isinstance(value, dict) else "must be a graph node object"


def _json_object(value: Any) -> str | None:
    return None if isinstance(value, dict) else "must be an object"


def _positive_seconds(value: Any) -> str | None:
    return None if _is_number(value) and math.isfinite(value) and value > 0 else "must be a positive number of seconds"


def _mi_value(value: Any) -> str | None:
    if value == "Infinity" or (_is_number(value) and math.isfinite(value) and value >= 0):
        return None
    return 'must be a non-negative number or "Infinity"'


def _anything(value: Any) -> str | None:
    return None


@dataclass(frozen=True, slots=True)
class _Field:
    name: str
    check: FieldCheck
    required: bool = True


_SIGNAL_FIELDS: Final = (
    _Field("graph", _graph_object),
    _Field("named_universe", _named_universe),
    _Field("signal_pool_name", _pool_name),
    _Field("graph_depth", _positive_int),
    _Field("graph_node_count", _positive_int),
    _Field("is_stats", _json_object),
    _Field("is_pnl_mi", _mi_value),
    _Field("expression_elapsed_seconds", _positive_seconds),
    _Field("market_id", _positive_int),
    _Field("era_number", _positive_int),
    _Field("client_manifest_version", _positive_int, required=False),
    _Field("client_manifest_market_id", _positive_int),
    _Field("client_manifest_era_number", _positive_int),
    _Field("metaparameters", _json_object, required=False),
    _Field("search_state", _anything, required=False),
    _Field(
        "simulation_data_contract_projection",
        _json_object,
        required=False,
    ),
    _Field("idempotency_key", _non_empty_text),
)

_STRATEGY_FIELDS: Final = (
    _Field("graph", _graph_object),
    _Field("named_universe", _named_universe),
    _Field("strategy_pool_name", _pool_name),
    _Field("market_id", _positive_int),
    _Field("era_number", _positive_int),
    _Field("client_manifest_market_id", _positive_int),
    _Field("client_manifest_era_number", _positive_int),
    _Field("client_manifest_version", _positive_int, required=False),
    _Field("metaparameters", _json_object, required=False),
    _Field("idempotency_key", _non_empty_text),
)


def _check_fields(body: Mapping[str, Any], fields: tuple[_Field, ...], body_size: int | None) -> None:
    known = {rule.name for rule in fields}
    missing = [rule.name for rule in fields if rule.required and rule.name not in body]
    invalid: dict[str, str] = {}
    for rule in fields:
        if rule.name in body and (rule.required or body[rule.name] is not None):
            problem = rule.check(body[rule.name])
            if problem is not None:
                invalid[rule.name] = problem
    # No field of a body smaller than the smallest limit can be over its own.
    if body_size is None or body_size > SMALLEST_FIELD_LIMIT:
        for name, limit in FIELD_BYTE_LIMITS.items():
            if name in known and name in body and name not in invalid and _json_size(body[name]) > limit:
                invalid[name] = f"must take at most {limit} bytes of JSON"
    unknown = [name for name in body if name not in known]
    if missing or invalid or unknown:
        details: JSONObject = {}
        if missing:
            details["missing"] = missing
        if invalid:
            details["invalid"] = invalid
        if unknown:
            details["unknown"] = [echo(name) for name in unknown[:MAX_LISTED_NAMES]]
            if len(unknown) > MAX_LISTED_NAMES:
                details["unknown_count"] = len(unknown)
        raise refusal("malformed_body", details)


GATE_METRIC_KEYS: Final = (
    ("sharpe", ("sharpe", "is_sharpe", "gross_returns_sharpe")),
    ("turnover", ("turnover", "avg_turnover", "is_turnover_pct")),
    ("delta_exposure", ("delta_exposure",)),
    ("max_weight", ("max_weight",)),
    ("abs_weight_sum_mean", ("abs_weight_sum_mean",)),
)
"""Each gate metric and the ``is_stats`` keys it is read from, first finite number wins (as the client reads them)."""

CORRELATION_KEYS: Final = ("correlation", "is_correlation")


def _first_finite(is_stats: Mapping[str, Any], keys: tuple[str, ...]) -> float | None:
    for key in keys:
        value = is_stats.get(key)
        if isinstance(value, (int, float)) and not isinstance(value, bool) and math.isfinite(value):
            return float(value)
    return None


def claimed_correlation(is_stats: Mapping[str, Any]) -> float | None:
    """Return the correlation the statistics claim: ``correlation``, else ``is_correlation``."""
    return _first_finite(is_stats, CORRELATION_KEYS)


def gate_metrics(is_stats: Mapping[str, Any], *, is_pnl_mi: float, is_correlation: float | None) -> dict[str, Any]:
    """Return the metrics the threshold gates read: the named statistics, ``is_correlation`` and ``is_pnl_mi``."""
    metrics: dict[str, Any] = {metric: _first_finite(is_stats, keys) for metric, keys in GATE_METRIC_KEYS}
    metrics["is_correlation"] = is_correlation
    metrics["is_pnl_mi"] = is_pnl_mi
    return metrics


@dataclass(frozen=True, slots=True)
class AcceptedBody:
    """A body that passed validation, with what the service resolved for it.

    ``thresholds`` are the era thresholds of the signal's pool and universe
    (empty for a strategy); ``agent_claims`` holds the figures the agent
    submitted (``is_stats``, ``agent_is_correlation``, ``agent_is_pnl_mi``).
    """

    kind: SubmissionKind
    body: JSONObject
    pool_name: str
    named_universe: str
    market_id: int
    era_number: int
    era: JSONObject
    thresholds: JSONObject = field(default_factory=dict)
    agent_claims: JSONObject = field(default_factory=dict)


class SubmissionValidator:
    """Validates signal and strategy bodies against one era catalog."""

    def __init__(self, catalog: EraCatalog) -> None:
        """Judge bodies by the eras of ``catalog``."""
        self.catalog = catalog

    def signal(self, body: JSONObject, *, body_size: int | None = None) -> AcceptedBody:
        """Validate a ``POST /signals/submit`` body; raise a 422 `ServiceError` naming the first problem.

        ``body_size``, the size of the body's JSON when the caller knows it,
        spares measuring each field of a small body.
        """
        present = [key for key in CALLER_THRESHOLD_KEYS if key in body]
        if present:
            raise refusal(
                "caller_thresholds_not_accepted",
                {"fields": present, "message": "submit thresholds must come from era thresholds"},
            )
        _check_fields(body, _SIGNAL_FIELDS, body_size)
        is_stats: JSONObject = body["is_stats"]
        mi_fields = sorted(key for key in is_stats if key in MI_CONTRACT_KEYS)
        if mi_fields:
            raise refusal(
                "mi_contract_field_in_stats",
                {"fields": mi_fields, "message": "send mutual-information figures beside is_stats, not inside it"},
            )
        era = self._active_era(body)
        named_universe: str = body["named_universe"]
        pool_name: str = body["signal_pool_name"]
        rule_id = universe_rule_id(era, named_universe)
        if rule_id is None:
            raise refusal("unknown_named_universe", {"named_universe": named_universe})
        pool = find_signal_pool(era, pool_name)
        if pool is None:
            raise refusal("unknown_signal_pool", {"signal_pool_name": pool_name, "known": _pool_names(era)})
        try:
            thresholds = resolve_pool_thresholds(pool, rule_id)
        except ThresholdsUnavailable as exc:
            raise refusal("thresholds_unavailable", {"message": str(exc)}) from None
        complexity = self._checked_graph(body["graph"], era)
        declared = {"depth": body["graph_depth"], "node_count": body["graph_node_count"]}
        measured = {"depth": complexity.depth, "node_count": complexity.node_count}
        if declared != measured:
            raise refusal("graph_complexity_mismatch", {"declared": declared, "measured": measured})
        projection = body.get("simulation_data_contract_projection")
        expected_projection = era.get("simulation_data_contract_projection")
        if projection is not None and projection != expected_projection:
            raise refusal("data_contract_mismatch", {"sent": projection, "expected": expected_projection})
        is_pnl_mi = float(metric_from_json(body["is_pnl_mi"]))
        agent_correlation = claimed_correlation(is_stats)
        metrics = gate_metrics(is_stats, is_pnl_mi=is_pnl_mi, is_correlation=agent_correlation)
        try:
            gates = evaluate_threshold_gates(metrics=metrics, threshold_set=thresholds, pool_thresholds=thresholds)
        except ValueError as exc:
            raise refusal("thresholds_unavailable", {"message": str(exc)}) from None
        if not gates.passed:
            raise refusal(
                "thresholds_failed",
                {"failures": [gate_failure_json(failure) for failure in gates.failures], "thresholds": thresholds},
            )
        return AcceptedBody(
            kind="signal",
            body=body,
            pool_name=pool_name,
            named_universe=named_universe,
            market_id=body["market_id"],
            era_number=body["era_number"],
            era=era,
            thresholds=thresholds,
            agent_claims={
                "is_stats": is_stats,
                "agent_is_correlation": agent_correlation,
                "agent_is_pnl_mi": is_pnl_mi,
            },
        )

    def strategy(self, body: JSONObject, *, body_size: int | None = None) -> AcceptedBody:
        """Validate a ``POST /strategies/submit`` body; raise a 422 `ServiceError` naming the first problem
        (``body_size`` as for `signal`)."""
        _check_fields(body, _STRATEGY_FIELDS, body_size)
        era = self._active_era(body)
        named_universe: str = body["named_universe"]
        if universe_rule_id(era, named_universe) is None:
            raise refusal("unknown_named_universe", {"named_universe": named_universe})
        self._checked_graph(body["graph"], era)
        return AcceptedBody(
            kind="strategy",
            body=body,
            pool_name=body["strategy_pool_name"],
            named_universe=named_universe,
            market_id=body["market_id"],
            era_number=body["era_number"],
            era=era,
        )

    def _active_era(self, body: JSONObject) -> JSONObject:
        market_id: int = body["market_id"]
        era_number: int = body["era_number"]
        if not self.catalog.eras_for_market(market_id):
            raise refusal("unknown_market", {"market_id": market_id})
        era = self.catalog.active_era(market_id)
        if era is None:
            raise refusal("no_active_era", {"market_id": market_id})
        if era["era_number"] != era_number:
            raise refusal(
                "era_not_active",
                {"market_id": market_id, "era_number": era_number, "active_era_number": era["era_number"]},
            )
        manifest_fields = (("client_manifest_market_id", "market_id"), ("client_manifest_era_number", "era_number"))
        mismatched = {
            name: {"sent": body[name], "expected": body[target]}
            for name, target in manifest_fields
            if body[name] != body[target]
        }
        if mismatched:
            raise refusal("manifest_mismatch", mismatched)
        return era

    @staticmethod
    def _checked_graph(graph: JSONObject, era: JSONObject) -> GraphComplexity:
        try:
            complexity = measure_graph_complexity(graph)
        except ValueError as exc:
            raise refusal("malformed_graph", {"message": str(exc)}) from None
        limits = {"max_depth": era["max_depth"], "max_node_count": era["max_node_count"]}
        if complexity.depth > limits["max_depth"] or complexity.node_count > limits["max_node_count"]:
            raise refusal(
                "graph_too_complex",
                {"depth": complexity.depth, "node_count": complexity.node_count, **limits},
            )
        return complexity


def _pool_names(era: JSONObject) -> list[str]:
    pools = era.get("signal_pools")
    if isinstance(pools, dict):
        return sorted(str(name) for name in pools)
    return [str(pool.get("name")) for pool in pools or [] if isinstance(pool, dict)]


def gate_failure_json(failure: ThresholdGateFailure) -> JSONObject:
    """Return one threshold-gate failure as a JSON object (an infinite figure spelled "Infinity")."""
    return {
        "gate": failure.gate,
        "actual": public_metric(failure.actual),
        "operator": failure.operator,
        "threshold": failure.threshold,
    }
