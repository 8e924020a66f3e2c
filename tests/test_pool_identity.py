"""Finding a signal pool in an era."""

from __future__ import annotations

from types import SimpleNamespace
from typing import Any

import pytest

from sibling_support import implementation_fixture

impl = implementation_fixture("tallowmere.submissions.pool_identity")

MOMENTUM = {"name": "momentum", "is_correlation_threshold": 0.7}
REVERSAL = SimpleNamespace(name="reversal")
CARRY = {"signal_pool_name": "carry"}
POOLS = [MOMENTUM, REVERSAL, CARRY, {"name": "momentum", "duplicate": True}]


class _Unreadable:
    @property
    def signal_pools(self) -> object:
        raise RuntimeError("unreadable")


@pytest.mark.parametrize(
    ("era", "name", "expected"),
    [
        ({"signal_pools": POOLS}, "momentum", MOMENTUM),
        ({"signal_pools": POOLS}, "reversal", REVERSAL),
        ({"signal_pools": POOLS}, "carry", CARRY),
        (SimpleNamespace(signal_pools=(MOMENTUM,)), "momentum", MOMENTUM),
        ({"signal_pools": {"momentum": MOMENTUM}}, "momentum", MOMENTUM),
        ({"signal_pools": POOLS}, "value", None),
        ({"signal_pools": []}, "momentum", None),
        ({}, "momentum", None),
        (None, "momentum", None),
        ({"signal_pools": "momentum"}, "momentum", None),
        ({"signal_pools": [None, 3, "momentum", {"name": 7}]}, "momentum", None),
        ({"signal_pools": {"momentum": MOMENTUM}}, ["momentum"], None),
        (_Unreadable(), "momentum", None),
    ],
)
def test_selected_pool(impl: Any, era: object, name: object, expected: object) -> None:
    assert impl.selected_signal_pool_from_era_config(era, name) is expected
