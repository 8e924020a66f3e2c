"""Trailing-window kernels over the day axis (axis 0) of a days × assets matrix.

Every kernel looks only at the current row and the rows before it. A window
of ``w`` rows is complete from row ``w - 1`` on; rows before that, and any
window holding a missing value (NaN), give NaN. Loops run over window lags,
never over days or assets: each lag is one vectorised pass over the matrix.
"""

from __future__ import annotations

from typing import Any

import numpy as np
import numpy.typing as npt

from tallowmere.simulation.market_panel import FloatArray

__all__ = [
    "FLAT_SPREAD_TOLERANCE",
    "flat_spread",
    "rolling_corr",
    "rolling_max",
    "rolling_mean",
    "rolling_min",
    "rolling_rank",
    "rolling_std",
    "rolling_sum",
    "shifted",
]


BoolArray = npt.NDArray[np.bool_]

FLAT_SPREAD_TOLERANCE = 1e-10
"""A spread below this share of the mean's size is rounding: the values count as equal.

Window means come from differences of cumulative sums, exact only to a few
units in the last place of the running total; without this rule a window of
equal values would show a spread of about 1e-15 instead of 0.
"""


def flat_spread(sum_of_squares: FloatArray, means: FloatArray, count: int | npt.NDArray[Any]) -> BoolArray:
    """Whether a sum of squared deviations from ``means`` over ``count`` values is only rounding."""
    threshold = FLAT_SPREAD_TOLERANCE * means
    result: BoolArray = sum_of_squares <= threshold * threshold * count
    return result


def _empty_like(values: FloatArray) -> FloatArray:
    return np.full(values.shape, np.nan)


def _window_has_missing(values: FloatArray, window: int) -> BoolArray:
    """Return, for each complete window (rows ``window - 1`` on), whether it holds a NaN."""
    missing = np.isnan(values)
    if not missing.any():
        return np.zeros((values.shape[0] - window + 1, values.shape[1]), dtype=bool)
    counts = np.cumsum(missing, axis=0, dtype=np.int64)
    totals = counts[window - 1 :].copy()
    totals[1:] -= counts[: counts.shape[0] - window]
    result: BoolArray = totals > 0
    return result


def shifted(values: FloatArray, lag: int) -> FloatArray:
    """Return ``values`` moved down by ``lag`` rows: row ``t`` holds row ``t - lag``."""
    out = _empty_like(values)
    if lag < values.shape[0]:
        out[lag:] = values[: values.shape[0] - lag]
    return out


def rolling_sum(values: FloatArray, window: int) -> FloatArray:
    """Sum over the trailing ``window`` rows, by differences of cumulative sums."""
    out = _empty_like(values)
    if window > values.shape[0]:
        return out
    filled = np.where(np.isnan(values), 0.0, values)
    cumulative = np.cumsum(filled, axis=0)
    sums = cumulative[window - 1 :].copy()
    sums[1:] -= cumulative[: cumulative.shape[0] - window]
    sums[_window_has_missing(values, window)] = np.nan
    out[window - 1 :] = sums
    return out


def rolling_mean(values: FloatArray, window: int) -> FloatArray:
    """Mean over the trailing ``window`` rows."""
    return rolling_sum(values, window) / window


def _lagged(values: FloatArray, window: int, lag: int) -> FloatArray:
    """Rows ``window - 1 - lag`` .. ``end - lag``: the value ``lag`` rows back for each complete window."""
    return values[window - 1 - lag : values.shape[0] - lag]


def rolling_std(values: FloatArray, window: int) -> FloatArray:
    """Sample standard deviation (``ddof=1``) over the trailing ``window`` rows (``window >= 2``).

    Deviations are taken from each window's own mean, so large levels (prices,
    volumes) lose no precision to cancellation.
    """
    out = _empty_like(values)
    if window > values.shape[0]:
        return out
    means = rolling_mean(values, window)[window - 1 :]
    squares = np.zeros_like(means)
    for lag in range(window):
        deviation = _lagged(values, window, lag) - means
        squares += deviation * deviation
    squares[flat_spread(squares, means, window)] = 0.0
    out[window - 1 :] = np.sqrt(squares / (window - 1))
    return out


def rolling_min(values: FloatArray, window: int) -> FloatArray:
    """Minimum over the trailing ``window`` rows."""
    out = _empty_like(values)
    if window > values.shape[0]:
        return out
    lowest = values[window - 1 :].copy()
    for lag in range(1, window):
        np.minimum(lowest, _lagged(values, window, lag), out=lowest)
    out[window - 1 :] = lowest
    return out


def rolling_max(values: FloatArray, window: int) -> FloatArray:
    """Maximum over the trailing ``window`` rows."""
    out = _empty_like(values)
    if window > values.shape[0]:
        return out
    highest = values[window - 1 :].copy()
    for lag in range(1, window):
        np.maximum(highest, _lagged(values, window, lag), out=highest)
    out[window - 1 :] = highest
    return out


def rolling_rank(values: FloatArray, window: int) -> FloatArray:
    """Rank of the current row within its trailing window, scaled to [0, 1] (``window >= 2``).

    0 means the lowest value of the window, 1 the highest; ties count half.
    """
    out = _empty_like(values)
    if window > values.shape[0]:
        return out
    current = values[window - 1 :]
    below = np.zeros(current.shape)
    for lag in range(1, window):
        earlier = _lagged(values, window, lag)
        below += (earlier < current) + 0.5 * (earlier == current)
    ranks = below / (window - 1)
    ranks[_window_has_missing(values, window)] = np.nan
    out[window - 1 :] = ranks
    return out


def rolling_corr(left: FloatArray, right: FloatArray, window: int) -> FloatArray:
    """Pearson correlation of two matrices over the trailing ``window`` rows (``window >= 2``).

    A window in which either side is flat (see :data:`FLAT_SPREAD_TOLERANCE`) gives NaN.
    """
    out = _empty_like(left)
    if window > left.shape[0]:
        return out
    left_means = rolling_mean(left, window)[window - 1 :]
    right_means = rolling_mean(right, window)[window - 1 :]
    cross = np.zeros_like(left_means)
    left_squares = np.zeros_like(left_means)
    right_squares = np.zeros_like(left_means)
    for lag in range(window):
        left_deviation = _lagged(left, window, lag) - left_means
        right_deviation = _lagged(right, window, lag) - right_means
        cross += left_deviation * right_deviation
        left_squares += left_deviation * left_deviation
        right_squares += right_deviation * right_deviation
    flat = flat_spread(left_squares, left_means, window) | flat_spread(right_squares, right_means, window)
    with np.errstate(divide="ignore", invalid="ignore"):
        correlation = cross / np.sqrt(left_squares * right_squares)
    correlation[flat] = np.nan
    out[window - 1 :] = np.clip(correlation, -1.0, 1.0)
    return out
