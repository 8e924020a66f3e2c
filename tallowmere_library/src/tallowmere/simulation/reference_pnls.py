"""The daily PnL series of other signals that a simulated signal is compared with.

A reference is a 1-D series of finite numbers covering either the whole
panel (``day_count`` values) or only its in-sample days (``in_sample_days``
values). References are given as a sequence, or as a mapping from a name to
a series so that errors can name them.
"""

from __future__ import annotations

from collections.abc import Iterable, Mapping
from dataclasses import dataclass

import numpy as np
import numpy.typing as npt

from tallowmere.simulation.market_panel import FloatArray

__all__ = ["ReferencePnl", "ReferencePnls", "prepare_reference_pnls"]

ReferencePnls = Mapping[str, npt.ArrayLike] | Iterable[npt.ArrayLike]
"""What ``simulate_signal`` accepts as ``reference_pnls``."""


@dataclass(frozen=True, slots=True)
class ReferencePnl:
    """One checked reference: its in-sample part and, when given, its out-of-sample part."""

    label: str
    in_sample: FloatArray
    out_of_sample: FloatArray | None


def _labelled(reference_pnls: ReferencePnls) -> list[tuple[str, object]]:
    if isinstance(reference_pnls, Mapping):
        return [(f"reference_pnls[{key!r}]", value) for key, value in reference_pnls.items()]
    if isinstance(reference_pnls, (str, bytes)) or not isinstance(reference_pnls, Iterable):
        raise ValueError(
            "reference_pnls must be a sequence of PnL series or a mapping of name to series, "
            f"got {type(reference_pnls).__name__}"
        )
    return [(f"reference_pnls[{index}]", value) for index, value in enumerate(reference_pnls)]


def prepare_reference_pnls(
    reference_pnls: ReferencePnls | None, *, day_count: int, in_sample_days: int
) -> tuple[ReferencePnl, ...]:
    """Check every reference and split it into its in-sample and out-of-sample parts."""
    if reference_pnls is None:
        return ()
    prepared: list[ReferencePnl] = []
    for label, value in _labelled(reference_pnls):
        try:
            series = np.array(value, dtype=np.float64, copy=True)
        except (TypeError, ValueError) as exc:
            raise ValueError(f"{label} must be a 1-D series of numbers: {exc}") from None
        if series.ndim != 1:
            raise ValueError(f"{label} must be a 1-D series, got shape {series.shape}")
        if not np.isfinite(series).all():
            raise ValueError(f"{label} contains NaN or infinite values")
        if series.size == day_count:
            prepared.append(ReferencePnl(label, series[:in_sample_days], series[in_sample_days:]))
        elif series.size == in_sample_days:
            prepared.append(ReferencePnl(label, series, None))
        else:
            raise ValueError(
                f"{label} has {series.size} values; expected {day_count} (every day of the panel) "
                f"or {in_sample_days} (the in-sample days)"
            )
    return tuple(prepared)
