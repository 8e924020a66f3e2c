"""From signal values to daily portfolio weights and daily PnL.

Weights of day ``t`` are the day's signal values, demeaned across assets and
scaled to a gross exposure (sum of absolute weights) of 1. Missing values
get a zero weight. A day whose values do not differ across assets (or with
fewer than two present values) holds no position.

Weights are formed after the close of day ``t`` and earn the returns of day
``t + 1``: ``pnl[t + 1] = sum_i weights[t, i] * returns[t + 1, i]``, and
``pnl[0]`` is 0. A missing return earns nothing.
"""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from tallowmere.simulation.cross_section import lane_sums
from tallowmere.simulation.market_panel import FloatArray

__all__ = ["DISPERSION_TOLERANCE", "DailyBook", "daily_book", "daily_pnl", "signal_weights"]

DISPERSION_TOLERANCE = 1e-9
"""A day whose spread of demeaned values is below this share of its values' size holds no position.

This keeps rounding noise (a constant expression demeaned to values of the
order of 1e-17) from being scaled up into a full book.
"""


def signal_weights(values: FloatArray) -> FloatArray:
    """Turn a days × assets matrix of signal values into portfolio weights."""
    present = np.isfinite(values)
    counts = present.sum(axis=1, keepdims=True)
    filled = np.where(present, values, 0.0)
    with np.errstate(all="ignore"):
        means = lane_sums(filled) / np.maximum(counts, 1)
        deviations = np.where(present, filled - means, 0.0)
        gross = lane_sums(np.abs(deviations))
        size = lane_sums(np.abs(filled))
        holds_position = (counts >= 2) & (gross > 0.0) & (gross > DISPERSION_TOLERANCE * size)
        weights = np.where(holds_position, deviations / np.where(holds_position, gross, 1.0), 0.0)
    weights[~np.isfinite(weights)] = 0.0
    return weights


def daily_pnl(weights: FloatArray, returns: FloatArray) -> FloatArray:
    """Daily PnL of ``weights`` held from each day's close to the next day's close."""
    pnl = np.zeros(weights.shape[0])
    earned = np.where(np.isnan(returns[1:]), 0.0, returns[1:])
    pnl[1:] = lane_sums(weights[:-1] * earned)[:, 0]
    return pnl


@dataclass(frozen=True, eq=False)
class DailyBook:
    """What the period statistics need of each day's book, one value per day (read-only arrays).

    ``pnl`` is the day's PnL, ``traded`` the amount traded into the day's
    weights (``sum |w[t] - w[t-1]|``, with no position before the first day),
    ``net`` the net exposure ``sum w[t]``, ``gross`` the gross exposure
    ``sum |w[t]|`` and ``largest`` the largest ``|w[t]|``.
    """

    pnl: FloatArray
    traded: FloatArray
    net: FloatArray
    gross: FloatArray
    largest: FloatArray

    def __post_init__(self) -> None:
        for series in (self.pnl, self.traded, self.net, self.gross, self.largest):
            series.setflags(write=False)


def daily_book(weights: FloatArray, returns: FloatArray) -> DailyBook:
    """The daily figures of a book of ``weights`` (days × assets) trading ``returns``."""
    changes = np.diff(weights, axis=0, prepend=np.zeros((1, weights.shape[1])))
    magnitudes = np.abs(weights)
    largest = magnitudes.max(axis=1) if weights.shape[1] else np.zeros(weights.shape[0])
    return DailyBook(
        pnl=daily_pnl(weights, returns),
        traded=lane_sums(np.abs(changes))[:, 0],
        net=lane_sums(weights)[:, 0],
        gross=lane_sums(magnitudes)[:, 0],
        largest=largest,
    )
