"""How the service judges a submission once it has re-simulated it.

The worker re-simulates each signal with the project's simulator against the
daily PnLs of the signals already found in the same pool (same market, era
and pool name), then:

1. tampering: every statistic of the submitted ``is_stats`` that the service
   also computes (all but ``correlation``/``is_correlation``, which the agent
   measured against its own references) must equal the re-simulated one
   within the policy's tolerance; otherwise the signal is rejected with a
   ``rejection_reason`` ending in ``": tampering_detected"`` and a
   ``failure_detail`` whose ``reason`` is ``"stats_mismatch"``;
2. gates: the era thresholds are evaluated again on the service's own
   figures, ``is_correlation`` and ``is_pnl_mi`` being measured against the
   pool; a signal too close to the pool is rejected (``too_correlated``), one
   failing another gate too (``thresholds_failed``);
3. otherwise the signal is found and its PnL joins the pool.

The out-of-sample evaluation and the usefulness review read the out-of-sample
statistics kept from the re-simulation.
"""

from __future__ import annotations

import math
from collections.abc import Mapping, Sequence
from dataclasses import dataclass, field
from typing import Any, Final, Protocol

from tallowmere.service.config import EvaluationPolicy
from tallowmere.service.jsonio import JSONObject
from tallowmere.service.lifecycle import (
    SIGNAL_FOUND,
    SIGNAL_IS_REJECTED,
    SIGNAL_NOT_USEFUL,
    SIGNAL_OS_FAILED,
    SIGNAL_OS_PASSED,
    SIGNAL_USEFUL,
    STRATEGY_ACCEPTED,
)
from tallowmere.service.records import SubmissionRecord
from tallowmere.service.validation import claimed_correlation, gate_failure_json, gate_metrics
from tallowmere.submissions.threshold_gates import evaluate_threshold_gates

UNVERIFIED_STATISTICS: Final = frozenset({"correlation", "is_correlation"})
"""Submitted statistics that depend on the agent's own references and are not compared."""

CORRELATION_GATES: Final = frozenset({"is_correlation", "is_pnl_mi"})

HELD_OS_STATS_KEY: Final = "resimulated_os_stats"
"""Outcome key of the out-of-sample statistics, kept unpublished until the out-of-sample evaluation."""


@dataclass(frozen=True, slots=True)
class Resimulation:
    """What the service's re-simulation of a graph found.

    ``pnl`` is the full daily PnL series as little-endian float64 bytes (it
    joins the pool when the signal is found); ``correlation`` and
    ``is_pnl_mi`` are measured against the pool's PnLs.
    """

    is_stats: dict[str, float]
    os_stats: dict[str, float]
    is_pnl_mi: float
    pnl: bytes

    @property
    def correlation(self) -> float:
        """The largest absolute in-sample correlation with a pool member (0.0 for an empty pool)."""
        return float(self.is_stats.get("correlation", 0.0))


class Resimulator(Protocol):
    """Re-simulates a graph against reference PnLs (float64 bytes); raises ValueError for a bad graph."""

    def __call__(self, graph: JSONObject, reference_pnls: Sequence[bytes], /) -> Resimulation:
        """Return the re-simulation of ``graph`` measured against ``reference_pnls``."""
        ...


def simulator_resimulation(graph: JSONObject, reference_pnls: Sequence[bytes]) -> Resimulation:
    """Re-simulate ``graph`` with ``tallowmere.simulation.simulate_signal`` on its default panel."""
    import numpy as np

    from tallowmere.simulation import simulate_signal

    references = [np.frombuffer(pnl, dtype="<f8") for pnl in reference_pnls]
    result = simulate_signal(graph, reference_pnls=references or None, record_timing=False)
    return Resimulation(
        is_stats={key: float(value) for key, value in result.is_stats.items()},
        os_stats={key: float(value) for key, value in result.os_stats.items()},
        is_pnl_mi=float(result.is_pnl_mi),
        pnl=np.ascontiguousarray(result.pnl, dtype="<f8").tobytes(),
    )


@dataclass(frozen=True, slots=True)
class Verdict:
    """The status a submission moves to, what is learned, and (for a found signal) the PnL joining its pool."""

    status: str
    outcome: JSONObject = field(default_factory=dict)
    pool_pnl: bytes | None = None


def rejection(status: str, code: str, description: str, detail: JSONObject) -> Verdict:
    """Return a rejecting verdict: ``rejection_reason`` reads ``"<description>: <code>"``,
    ``failure_message`` is the description and ``failure_reason`` the detail's reason (else the code)."""
    reason = f"{description}: {code}"
    outcome: JSONObject = {
        "rejection_reason": reason,
        "failure_reason": detail.get("reason", code),
        "failure_detail": detail,
        "failure_message": description,
    }
    return Verdict(status, outcome)


def mismatched_statistics(
    submitted: Mapping[str, Any], recomputed: Mapping[str, float], policy: EvaluationPolicy
) -> dict[str, JSONObject]:
    """Return the submitted statistics that differ from the re-simulated ones, with both values."""
    mismatches: dict[str, JSONObject] = {}
    for key, claimed in submitted.items():
        if key in UNVERIFIED_STATISTICS or key not in recomputed:
            continue
        actual = recomputed[key]
        is_number = isinstance(claimed, (int, float)) and not isinstance(claimed, bool)
        if not is_number or not math.isclose(
            claimed, actual, rel_tol=policy.stats_rel_tolerance, abs_tol=policy.stats_abs_tolerance
        ):
            mismatches[key] = {"submitted": claimed, "recomputed": actual}
    return mismatches


def judge_signal_resimulation(
    record: SubmissionRecord, result: Resimulation, policy: EvaluationPolicy, pool_size: int
) -> Verdict:
    """Judge a signal's re-simulation: tampering first, then the era gates on the service's figures."""
    submitted_stats: Mapping[str, Any] = record.request.get("is_stats") or {}
    figures: JSONObject = {
        "is_stats": result.is_stats,
        "is_correlation": result.correlation,
        "is_pnl_mi": result.is_pnl_mi,
        "agent_is_correlation": claimed_correlation(submitted_stats),
        "correlation": {"max_abs_is_correlation": result.correlation, "pool_size": pool_size},
        HELD_OS_STATS_KEY: result.os_stats,
    }
    mismatches = mismatched_statistics(submitted_stats, result.is_stats, policy)
    if mismatches:
        verdict = rejection(
            SIGNAL_IS_REJECTED,
            "tampering_detected",
            "submitted is_stats differ from the service's re-simulation in " + ", ".join(sorted(mismatches)),
            {
                "reason": "stats_mismatch",
                "fields": mismatches,
                "tolerance": {"relative": policy.stats_rel_tolerance, "absolute": policy.stats_abs_tolerance},
            },
        )
        return Verdict(verdict.status, {**figures, **verdict.outcome})
    metrics = gate_metrics(result.is_stats, is_pnl_mi=result.is_pnl_mi, is_correlation=result.correlation)
    thresholds = record.thresholds
    gates = evaluate_threshold_gates(metrics=metrics, threshold_set=thresholds, pool_thresholds=thresholds)
    if not gates.passed:
        code = "too_correlated" if any(f.gate in CORRELATION_GATES for f in gates.failures) else "thresholds_failed"
        verdict = rejection(
            SIGNAL_IS_REJECTED,
            code,
            "; ".join(str(failure) for failure in gates.failures),
            {"reason": code, "failures": [gate_failure_json(failure) for failure in gates.failures]},
        )
        return Verdict(verdict.status, {**figures, **verdict.outcome})
    return Verdict(SIGNAL_FOUND, figures, pool_pnl=result.pnl)


def judge_invalid_graph(status: str, message: str) -> Verdict:
    """Reject a submission whose graph the simulator refuses (an unknown operator, a bad window)."""
    return rejection(status, "invalid_graph", message, {"reason": "invalid_graph", "message": message})


def _held_os_sharpe(record: SubmissionRecord) -> float:
    os_stats = record.outcome.get(HELD_OS_STATS_KEY) or {}
    return float(os_stats.get("sharpe", 0.0))


def judge_out_of_sample(record: SubmissionRecord, policy: EvaluationPolicy) -> Verdict:
    """Pass a found signal whose out-of-sample Sharpe ratio reaches ``policy.os_min_sharpe``."""
    os_stats = record.outcome.get(HELD_OS_STATS_KEY) or {}
    sharpe = _held_os_sharpe(record)
    if sharpe >= policy.os_min_sharpe:
        return Verdict(SIGNAL_OS_PASSED, {"os_stats": os_stats})
    verdict = rejection(
        SIGNAL_OS_FAILED,
        "os_sharpe_below_minimum",
        f"out-of-sample sharpe {sharpe:.4f} < {policy.os_min_sharpe}",
        {"reason": "os_sharpe_below_minimum", "os_sharpe": sharpe, "os_min_sharpe": policy.os_min_sharpe},
    )
    return Verdict(verdict.status, {"os_stats": os_stats, **verdict.outcome})


def judge_usefulness(record: SubmissionRecord, policy: EvaluationPolicy) -> Verdict:
    """Pay a passed signal whose out-of-sample Sharpe ratio reaches ``policy.useful_min_sharpe``."""
    sharpe = _held_os_sharpe(record)
    if sharpe >= policy.useful_min_sharpe:
        amount = round(policy.payment_per_sharpe * sharpe, 2)
        return Verdict(SIGNAL_USEFUL, {"payment": {"amount": amount, "currency": policy.currency, "os_sharpe": sharpe}})
    return rejection(
        SIGNAL_NOT_USEFUL,
        "below_usefulness_bar",
        f"out-of-sample sharpe {sharpe:.4f} < {policy.useful_min_sharpe}",
        {"reason": "below_usefulness_bar", "os_sharpe": sharpe, "useful_min_sharpe": policy.useful_min_sharpe},
    )


def judge_strategy(result: Resimulation) -> Verdict:
    """Accept a strategy the simulator could evaluate, publishing its statistics."""
    return Verdict(STRATEGY_ACCEPTED, {"is_stats": result.is_stats, "os_stats": result.os_stats})

