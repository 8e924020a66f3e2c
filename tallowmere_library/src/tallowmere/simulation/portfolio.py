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

import numpy as np

from tallowmere.simulation.market_panel import FloatArray

__all__ = ["DISPERSION_TOLERANCE", "daily_pnl", "signal_weights"]

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
        means = filled.sum(axis=1, keepdims=True) / np.maximum(counts, 1)
        deviations = np.where(present, filled - means, 0.0)
        gross = np.abs(deviations).sum(axis=1, keepdims=True)
        size = np.abs(filled).sum(axis=1, keepdims=True)
        holds_position = (counts >= 2) & (gross > 0.0) & (gross > DISPERSION_TOLERANCE * size)
        weights = np.where(holds_position, deviations / np.where(holds_position, gross, 1.0), 0.0)
    weights[~np.isfinite(weights)] = 0.0
    return weights


def daily_pnl(weights: FloatArray, returns: FloatArray) -> FloatArray:
    """Daily PnL of ``weights`` held from each day's close to the next day's close."""
    pnl = np.zeros(weights.shape[0])
    earned = np.where(np.isnan(returns[1:]), 0.0, returns[1:])
    pnl[1:] = np.einsum("ij,ij->i", weights[:-1], earned)
    return pnl
