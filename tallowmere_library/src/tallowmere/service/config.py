"""Settings of one service instance: where it stores, whom it serves, how fast it judges."""

from __future__ import annotations

import math
from collections.abc import Sequence
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

from tallowmere.service.lifecycle import (
    SIGNAL_FOUND,
    SIGNAL_OS_PASSED,
    SIGNAL_SUBMITTED,
    STRATEGY_SUBMITTED,
)

MAX_BATCH_ITEMS = 100
"""The most signals one ``POST /signals/batch`` request may carry."""

MAX_REQUEST_BYTES = 8 * 1024 * 1024
"""The largest request body the service reads, in bytes."""


@dataclass(frozen=True, slots=True)
class LifecycleTimings:
    """How long, in seconds at speed 1, a submission waits in each pending status.

    ``resimulation`` is the wait after submission before the re-simulation,
    ``out_of_sample`` the wait of a found signal before its out-of-sample
    evaluation, ``usefulness`` the wait of a passed signal before the
    usefulness review, ``strategy_review`` the wait of a strategy before its
    review.
    """

    resimulation: float = 2.0
    out_of_sample: float = 10.0
    usefulness: float = 10.0
    strategy_review: float = 2.0

    def wait_after(self, status: str) -> float:
        """Return the nominal wait, in seconds, of a submission that just entered ``status``."""
        waits = {
            SIGNAL_SUBMITTED: self.resimulation,
            SIGNAL_FOUND: self.out_of_sample,
            SIGNAL_OS_PASSED: self.usefulness,
            STRATEGY_SUBMITTED: self.strategy_review,
        }
        return waits[status]


@dataclass(frozen=True, slots=True)
class EvaluationPolicy:
    """The service's own bars, beyond the era thresholds.

    ``stats_rel_tolerance``/``stats_abs_tolerance``: how far a submitted
    statistic may differ from the re-simulated one (``math.isclose``) before
    the submission counts as tampered. ``os_min_sharpe``: the out-of-sample
    Sharpe ratio a found signal needs to pass. ``useful_min_sharpe``: the
    out-of-sample Sharpe ratio a passed signal needs to be useful.
    ``payment_per_sharpe``: the payment of a useful signal per unit of
    out-of-sample Sharpe ratio, in ``currency``.
    """

    stats_rel_tolerance: float = 1e-6
    stats_abs_tolerance: float = 1e-9
    os_min_sharpe: float = 0.3
    useful_min_sharpe: float = 0.8
    payment_per_sharpe: float = 25.0
    currency: str = "TMC"


@dataclass(frozen=True, slots=True)
class ServiceConfig:
    """Everything one service instance needs to start.

    ``tokens`` are the accepted bearer tokens (each one is its own owner);
    ``eras`` is an era catalog that replaces the bundled one (None keeps the
    bundled catalog); ``speed`` divides every lifecycle wait (2.0 runs twice
    as fast); ``faults`` enables the fault-injection control route.
    """

    db_path: Path
    tokens: Sequence[str]
    eras: dict[str, Any] | None = None
    speed: float = 1.0
    faults: bool = False
    timings: LifecycleTimings = field(default_factory=LifecycleTimings)
    policy: EvaluationPolicy = field(default_factory=EvaluationPolicy)

    def __post_init__(self) -> None:
        if isinstance(self.tokens, str):
            raise TypeError("tokens must be a sequence of strings, not one string")
        if not self.tokens:
            raise ValueError("at least one bearer token is required")
        for token in self.tokens:
            if not isinstance(token, str) or not token or token != token.strip() or " " in token:
                raise ValueError("bearer tokens must be non-empty strings without spaces")
        if isinstance(self.speed, bool) or not isinstance(self.speed, (int, float)):
            raise TypeError("speed must be a number")
        if not math.isfinite(self.speed) or self.speed <= 0:
            raise ValueError(f"speed must be a positive finite number, got {self.speed!r}")

    def scaled_wait(self, status: str) -> float:
        """Return the real wait, in seconds, of a submission that just entered ``status``."""
        return self.timings.wait_after(status) / self.speed
