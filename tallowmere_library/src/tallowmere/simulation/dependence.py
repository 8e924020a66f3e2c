"""How much one daily PnL series tells about another: correlation and mutual information.

The mutual information is a Gaussian-copula estimate: each series is replaced
by the normal scores of its ranks, ``Phi^-1(rank / (n + 1))`` (ties share
their average rank), and with ``rho`` the correlation of the two score
series the estimate is ``-0.5 * log(1 - rho**2)`` nats. It depends only on
the order of the values, so any increasing transform of either series gives
the same figure; series whose ranks agree (or mirror each other) exactly
give ``math.inf``.
"""

from __future__ import annotations

import math
from collections.abc import Sequence
from functools import cache
from statistics import NormalDist

import numpy as np

from tallowmere.simulation.market_panel import FloatArray

__all__ = ["copula_mutual_information", "largest_copula_mutual_information", "pearson_correlation"]

# Rank correlations within this distance of ±1 are perfect dependence; the
# gap left is rounding, not information.
_PERFECT_DEPENDENCE_GAP = 1e-12


def pearson_correlation(left: FloatArray, right: FloatArray) -> float:
    """Pearson correlation of two equal-length series; 0.0 when either is constant."""
    if left.shape != right.shape or left.ndim != 1:
        raise ValueError(f"series to correlate must be 1-D and of equal length, got {left.shape} and {right.shape}")
    if left.size < 2:
        return 0.0
    left_deviation = left - left.mean()
    right_deviation = right - right.mean()
    scale = math.sqrt(float(left_deviation @ left_deviation) * float(right_deviation @ right_deviation))
    if not scale > 0.0 or not math.isfinite(scale):
        return 0.0
    correlation = float(left_deviation @ right_deviation) / scale
    return min(1.0, max(-1.0, correlation))


@cache
def _normal_scores_by_doubled_rank(count: int) -> FloatArray:
    """Normal scores of the ranks 0.5, 1, 1.5, ... ``count`` of a series of ``count`` values.

    Indexed by twice the (1-based, possibly half-integer) rank; entry 0 is unused.
    """
    normal = NormalDist()
    table = np.zeros(2 * count + 1)
    table[1:] = [normal.inv_cdf(doubled / (2.0 * (count + 1))) for doubled in range(1, 2 * count + 1)]
    table.setflags(write=False)
    return table


def _normal_scores(series: FloatArray) -> FloatArray:
    count = series.size
    order = np.argsort(series, kind="stable")
    ordered = series[order]
    positions = np.arange(count)
    starts_group = np.ones(count, dtype=bool)
    starts_group[1:] = ordered[1:] != ordered[:-1]
    ends_group = np.ones(count, dtype=bool)
    ends_group[:-1] = starts_group[1:]
    group_first = np.maximum.accumulate(np.where(starts_group, positions, 0))
    group_last = np.minimum.accumulate(np.where(ends_group, positions, count - 1)[::-1])[::-1]
    # The average 1-based rank of a tie group is (first + last) / 2 + 1; doubled it is an integer.
    doubled_ranks = group_first + group_last + 2
    scores = np.empty(count)
    scores[order] = _normal_scores_by_doubled_rank(count)[doubled_ranks]
    return scores


def copula_mutual_information(left: FloatArray, right: FloatArray) -> float:
    """Gaussian-copula mutual information of two equal-length series, in nats.

    0.0 when either series is constant or shorter than two values;
    ``math.inf`` when their ranks agree exactly.
    """
    if left.shape != right.shape or left.ndim != 1:
        raise ValueError(f"series to compare must be 1-D and of equal length, got {left.shape} and {right.shape}")
    if left.size < 2:
        return 0.0
    return _information(pearson_correlation(_normal_scores(left), _normal_scores(right)))


def _information(rho: float) -> float:
    if abs(rho) >= 1.0 - _PERFECT_DEPENDENCE_GAP:
        return math.inf
    return -0.5 * math.log1p(-rho * rho)


def largest_copula_mutual_information(series: FloatArray, others: Sequence[FloatArray]) -> float:
    """The largest :func:`copula_mutual_information` of ``series`` with any of ``others``; 0.0 without any.

    ``series``'s normal scores are computed once, and the search stops at the first ``math.inf``.
    """
    largest = 0.0
    scores: FloatArray | None = None
    for other in others:
        if other.shape != series.shape or other.ndim != 1:
            raise ValueError(
                f"series to compare must be 1-D and of equal length, got {series.shape} and {other.shape}"
            )
        if series.size < 2:
            continue
        if scores is None:
            scores = _normal_scores(series)
        largest = max(largest, _information(pearson_correlation(scores, _normal_scores(other))))
        if math.isinf(largest):
            break
    return largest
