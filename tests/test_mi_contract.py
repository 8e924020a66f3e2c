"""Mutual-information contract checks."""

from __future__ import annotations

import math
from typing import Any

import pytest

from tallowmere.simulation.mi_contract import MI_CONTRACT_KEYS

from sibling_support import implementation_fixture

impl = implementation_fixture("tallowmere.simulation.mi_contract")


@pytest.mark.parametrize(
    ("value", "finite"),
    [(-3, True), (10**400, True), (1.5, True), (True, False), (math.nan, False), (-math.inf, False), ("1", False)],
)
def test_is_finite_number(impl: Any, value: object, finite: bool) -> None:
    assert impl._is_finite_number(value) is finite


@pytest.mark.parametrize(
    ("value", "expected"), [(2, 2.0), (0.35, 0.35), (-math.inf, -math.inf), ("Infinity", math.inf), ("-Infinity", -math.inf)]
)
def test_coerce_accepts_numbers_and_infinity_text(impl: Any, value: object, expected: float) -> None:
    result = impl._coerce_mi_contract_value(value)
    assert type(result) is float and result == expected


@pytest.mark.parametrize("value", [True, math.nan, None, "inf", " Infinity", "1.5", [0.1], 10**400])
def test_coerce_refuses_everything_else(impl: Any, value: object) -> None:
    with pytest.raises(ValueError, match="^is_pnl_mi must be a scalar number or Infinity$"):
        impl._coerce_mi_contract_value(value)


def test_contract_keys_are_disallowed_only_at_the_top_of_the_stats(impl: Any) -> None:
    assert all(impl._has_disallowed_mi_contract_field({"sharpe": 1.0, key: 0.1}) for key in MI_CONTRACT_KEYS)
    for stats in ({"sharpe": 1.0}, {"nested": {"is_pnl_mi": 0.1}}, None, ["is_pnl_mi"]):
        assert not impl._has_disallowed_mi_contract_field(stats)


@pytest.mark.parametrize(
    ("value", "found"),
    [({"a": [1, 2.5, {"b": (3, "nan")}]}, False), ({"a": [1, {"b": (3, math.nan)}]}, True),
     ([True, None, "Infinity", -math.inf], True), ({math.inf: 1}, True)],
)
def test_non_finite_number_anywhere(impl: Any, value: object, found: bool) -> None:
    assert impl._has_non_finite_number(value) is found


def test_non_finite_search_survives_deep_and_self_containing_values(impl: Any) -> None:
    deep: Any = [math.inf]
    for _ in range(100_000):
        deep = [deep]
    assert impl._has_non_finite_number(deep)
    loop: list[object] = [1.0]
    loop.append(loop)
    assert not impl._has_non_finite_number(loop)
