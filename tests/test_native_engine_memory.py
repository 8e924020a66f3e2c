"""Leak-repeat checks of the simulation engine's entry points (tallowmere._native), on their success and
failure paths: repeated many times, the number of live allocations stays flat (see test_submit_memory)."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import numpy as np
import pytest

from tallowmere import _native

from leak_support import assert_no_leak

REPEAT = 300

DAYS, ASSETS = 30, 12
FIELD = np.random.default_rng(3).normal(size=(DAYS, ASSETS))
RETURNS = FIELD * 0.01
PROGRAM = (
    ("field", (), 0, 0.0),
    ("ts_corr", (0, 0), 7, 0.0),
    ("ts_std", (0,), 5, 0.0),
    ("rank", (0,), 0, 0.0),
    ("ts_mean", (3,), 9, 0.0),
    ("ts_max", (4,), 6, 0.0),
    ("add", (1, 5), 0, 0.0),
    ("zscore", (6,), 0, 0.0),
)


def _refused(call: Callable[[], Any]) -> Callable[[], None]:
    def run() -> None:
        try:
            call()
        except ValueError:
            return
        raise AssertionError("expected ValueError")

    return run


OPERATIONS: dict[str, Callable[[], Any]] = {
    "values": lambda: _native.evaluate_program(PROGRAM, (FIELD,), values=np.empty((DAYS, ASSETS))),
    "weights and book": lambda: _native.evaluate_program(
        PROGRAM, [FIELD], weights=np.empty((DAYS, ASSETS)), returns=RETURNS, daily=np.empty((5, DAYS))
    ),
    "bad node": _refused(lambda: _native.evaluate_program(PROGRAM + (("nope", (), 0, 0.0),), (FIELD,))),
    "bad array": _refused(lambda: _native.evaluate_program(PROGRAM, (FIELD,), values=np.empty((DAYS, 2)))),
    "market": lambda: _native.synthetic_market(np.empty((7, 20, 9))),
    "bad market array": _refused(lambda: _native.synthetic_market(np.empty((6, 20, 9)))),
}


@pytest.mark.parametrize("name", list(OPERATIONS))
def test_engine_entry_points_do_not_leak(name: str) -> None:
    assert_no_leak(OPERATIONS[name], REPEAT)
