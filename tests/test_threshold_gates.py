"""Threshold gates on in-sample statistics."""

from __future__ import annotations

import math
from typing import Any

import pytest

from sibling_support import implementation_fixture

impl = implementation_fixture("tallowmere.submissions.threshold_gates")

CATALOG = {"is_pnl_mi_threshold": 0.35, "min_sharpe": 0.3, "max_turnover": 0.9, "is_correlation_threshold": 0.7}


def _failures(impl: Any, metrics: dict[str, object] | None, threshold_set: dict[str, object] | None,
              pool_thresholds: dict[str, object] | None = None) -> list[str]:
    result = impl.evaluate_threshold_gates(metrics=metrics, threshold_set=threshold_set,
                                           pool_thresholds=threshold_set if pool_thresholds is None else pool_thresholds)
    assert result.passed is (not result.failures)
    return [f"{f.gate} failed: {f.actual} {f.operator} {f.threshold}" for f in result.failures]


@pytest.mark.parametrize(
    ("metrics", "thresholds", "failures"),
    [
        ({"sharpe": 0.8, "turnover": 0.5, "is_correlation": 0.2, "is_pnl_mi": 0.1}, CATALOG, []),
        ({"sharpe": 0.1, "turnover": 1.2, "is_correlation": 0.9, "is_pnl_mi": 0.1}, CATALOG,
         ["sharpe failed: 0.1 >= 0.3", "turnover failed: 1.2 <= 0.9", "is_correlation failed: 0.9 <= 0.7"]),
        ({"sharpe": 0.3, "max_weight": 0.05}, {"min_sharpe": 0.3, "max_weight": 0.05}, []),
        ({"max_weight": 0.06}, {"max_weight": 0.05}, ["max_weight failed: 0.06 <= 0.05"]),
        ({"delta_exposure": 0.21}, {"max_delta_exposure": 0.2}, ["delta_exposure failed: 0.21 <= 0.2"]),
        ({}, {"min_sharpe": 0.3}, ["sharpe failed: None >= 0.3"]),
        ({"sharpe": "0.9"}, {"min_sharpe": 0.3}, ["sharpe failed: 0.9 >= 0.3"]),
        ({"sharpe": True}, {"min_sharpe": 0.3}, ["sharpe failed: True >= 0.3"]),
        ({"sharpe": math.nan}, {"min_sharpe": 0.3}, ["sharpe failed: nan >= 0.3"]),
        ({"sharpe": math.inf}, {"min_sharpe": 0.3}, []),
        ({"is_pnl_mi": math.inf}, {"is_pnl_mi_threshold": 0.35}, ["is_pnl_mi failed: inf <= 0.35"]),
        ({"is_correlation": -math.inf}, {"is_correlation_threshold": 0.7}, ["is_correlation failed: -inf <= 0.7"]),
        ({"is_pnl_mi": 0.32}, {"mi_threshold": 0.3}, ["is_pnl_mi failed: 0.32 <= 0.3"]),
        ({"is_pnl_mi": 0.32}, {"mi_threshold": 0.3, "is_pnl_mi_threshold": 0.35}, []),
        ({}, {"universe_rule_id": 1, "rule_id": 2, "universes": ["megacaps"], "name": "m", "min_": 1}, []),
        (None, None, []),
    ],
)
def test_gate_rules(impl: Any, metrics: dict[str, object], thresholds: dict[str, object], failures: list[str]) -> None:
    assert _failures(impl, metrics, thresholds) == failures


def test_pool_thresholds_override_the_threshold_set(impl: Any) -> None:
    assert _failures(impl, {"sharpe": 0.4, "turnover": 0.95}, {"min_sharpe": 0.5, "max_turnover": 0.9},
                     {"min_sharpe": 0.3}) == ["turnover failed: 0.95 <= 0.9"]


@pytest.mark.parametrize("bad", [None, "0.5", True, math.nan, math.inf])
def test_unusable_threshold_names_its_key(impl: Any, bad: object) -> None:
    with pytest.raises(ValueError, match="^threshold max_turnover must be a finite number"):
        _failures(impl, {"sharpe": 1.0}, {"min_sharpe": 0.3, "max_turnover": bad})
