"""The era gates a signal must pass before it is sent, checked per candidate.

``submit_signal`` applies these gates itself and raises on the first failure,
and ``submit_signals_batch`` refuses a whole batch for one failing item
without saying which. Checking each candidate first lets the batch command
name the failing lines and lets the demo set weak candidates aside. The
thresholds and gates are the client's own (``tallowmere.submit``), so a
candidate passes here exactly when the client would send it.
"""

from __future__ import annotations

from collections.abc import Mapping
from typing import Any

import tallowmere.submit as submit


def gate_failure(
    catalog: Mapping[str, Any],
    *,
    named_universe: str,
    signal_pool_name: str,
    is_stats: Mapping[str, Any],
    is_pnl_mi: float,
    market_id: int | None = None,
    era_number: int | None = None,
) -> str | None:
    """Return why the client would refuse these statistics in ``catalog``'s era, or None when they pass.

    The reason is the client's message: an unknown universe or pool (for
    example ``thresholds unavailable: signal_pool_name x not found``) or the
    first failing gate (``sharpe failed: 0.1 >= 0.3``).
    """
    try:
        thresholds = submit._submission_thresholds_from_era_catalog(
            catalog, named_universe, signal_pool_name, market_id=market_id, era_number=era_number
        )
        submit._validate_submission_thresholds(is_stats, is_pnl_mi, thresholds)
    except ValueError as exc:
        return str(exc)
    return None
