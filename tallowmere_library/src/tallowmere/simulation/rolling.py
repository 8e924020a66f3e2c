"""Trailing-window kernels over the day axis (axis 0) of a days × assets matrix.

Every kernel looks only at the current row and the rows before it. A window
of ``w`` rows is complete from row ``w - 1`` on; rows before that, and any
window holding a missing value (NaN), give NaN.

Sums, means, spreads and correlations are built from dyadic blocks: the
window's ``w`` rows split into blocks of the sizes of ``w``'s binary digits
(the largest, oldest block first), and the block of ``2**k`` rows ending on a
row is the combination of the two blocks of ``2**(k - 1)`` rows it is made
of. Every row's window is then O(log w) combinations of values that depend
only on the rows inside the window, so a sum is accurate to a few units in
the last place of its terms, no matter how long the history before it, and
nothing drifts. Spreads combine (count, mean, sum of squared deviations) with
the pairwise update of Chan, Golub and LeVeque, so large levels (prices,
volumes) lose no precision to cancellation.

The compiled engine (``tallowmere._native``) performs exactly the same
operations day by day, so both give identical numbers. Loops here run over
block levels or window lags, never over days or assets: each is one
vectorised pass over the matrix.
"""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import numpy as np
import numpy.typing as npt

from tallowmere.simulation.market_panel import FloatArray

__all__ = [
    "FLAT_SPREAD_TOLERANCE",
    "dyadic_blocks",
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

A window of equal values has a spread of exactly 0; this rule also treats as
equal values that differ only in their last few digits, such as the results
of one computation done in two orders.
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


def _lagged(values: FloatArray, window: int, lag: int) -> FloatArray:
    """Rows ``window - 1 - lag`` .. ``end - lag``: the value ``lag`` rows back for each complete window."""
    return values[window - 1 - lag : values.shape[0] - lag]


def dyadic_blocks(window: int) -> list[tuple[int, int]]:
    """The blocks of a window as (level, rows back from its last row), oldest first.

    Level ``k`` is a block of ``2**k`` rows; ``dyadic_blocks(13)`` is
    ``[(3, 5), (2, 1), (0, 0)]``: rows ``t-12..t-5``, ``t-4..t-1`` and ``t``.
    """
    return [(k, window & ((1 << k) - 1)) for k in range(window.bit_length() - 1, -1, -1) if window >> k & 1]


Blocks = tuple[FloatArray, ...]
"""One block statistic per quantity (for example the means and the squared deviations)."""

Merge = Callable[[Blocks, Blocks, int, int], Blocks]
"""Combines the statistics of older blocks with those of the newer blocks that follow them,
given the two blocks' sizes in rows."""


def _block_levels(first: Blocks, top: int, merge: Merge) -> list[Blocks]:
    """Levels 0 to ``top``: level ``k`` holds, on every row, the block of the ``2**k`` rows ending there.

    Rows before the first complete block of a level are NaN.
    """
    levels = [first]
    rows = first[0].shape[0]
    for k in range(1, top + 1):
        half = 1 << (k - 1)
        older = tuple(part[half - 1 : rows - half] for part in levels[-1])
        newer = tuple(part[2 * half - 1 :] for part in levels[-1])
        merged = merge(older, newer, half, half)
        level = tuple(np.full(part.shape, np.nan) for part in first)
        for target, value in zip(level, merged, strict=True):
            target[2 * half - 1 :] = value
        levels.append(level)
    return levels


def _fold_window(levels: list[Blocks], window: int, merge: Merge) -> Blocks:
    """The statistics of every complete window (rows ``window - 1`` on), folded oldest block first."""
    rows = levels[0][0].shape[0]
    folded: Blocks | None = None
    count = 0
    for level, back in dyadic_blocks(window):
        block = tuple(part[window - 1 - back : rows - back] for part in levels[level])
        size = 1 << level
        folded = block if folded is None else merge(folded, block, count, size)
        count += size
    assert folded is not None
    return folded


def _merge_sums(older: Blocks, newer: Blocks, older_count: int, newer_count: int) -> Blocks:
    return (older[0] + newer[0],)


def _merge_moments(older: Blocks, newer: Blocks, older_count: int, newer_count: int) -> Blocks:
    """(mean, squared deviations) of one series; see :func:`merge_factors`."""
    shift, weight = merge_factors(older_count, newer_count)
    mean_a, squares_a = older
    mean_b, squares_b = newer
    delta = mean_b - mean_a
    return mean_a + delta * shift, (squares_a + squares_b) + (delta * delta) * weight


def _merge_comoments(older: Blocks, newer: Blocks, older_count: int, newer_count: int) -> Blocks:
    """(mean a, mean b, squared deviations a, squared deviations b, cross products) of two series."""
    shift, weight = merge_factors(older_count, newer_count)
    delta_a = newer[0] - older[0]
    delta_b = newer[1] - older[1]
    return (
        older[0] + delta_a * shift,
        older[1] + delta_b * shift,
        (older[2] + newer[2]) + (delta_a * delta_a) * weight,
        (older[3] + newer[3]) + (delta_b * delta_b) * weight,
        (older[4] + newer[4]) + (delta_a * delta_b) * weight,
    )


def merge_factors(older_count: int, newer_count: int) -> tuple[float, float]:
    """How the mean and the squared deviations of two merged blocks change.

    With ``n = older_count + newer_count`` and ``d`` the newer block's mean
    minus the older's, the merged mean is ``older mean + d * (newer_count / n)``
    and the merged squared deviations gain ``d * d * (older_count * newer_count / n)``.
    """
    total = older_count + newer_count
    return newer_count / total, older_count * newer_count / total


def _window_statistics(first: Blocks, window: int, merge: Merge) -> Blocks:
    levels = _block_levels(first, window.bit_length() - 1, merge)
    return _fold_window(levels, window, merge)


def rolling_sum(values: FloatArray, window: int) -> FloatArray:
    """Sum over the trailing ``window`` rows, as the sum of the window's dyadic blocks."""
    out = _empty_like(values)
    if window > values.shape[0]:
        return out
    (sums,) = _window_statistics((values,), window, _merge_sums)
    out[window - 1 :] = sums
    return out


def rolling_mean(values: FloatArray, window: int) -> FloatArray:
    """Mean over the trailing ``window`` rows."""
    return rolling_sum(values, window) / window


def rolling_std(values: FloatArray, window: int) -> FloatArray:
    """Sample standard deviation (``ddof=1``) over the trailing ``window`` rows (``window >= 2``)."""
    out = _empty_like(values)
    if window > values.shape[0]:
        return out
    means, squares = _window_statistics((values, np.zeros_like(values)), window, _merge_moments)
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
    zeros = np.zeros_like(left)
    left_means, right_means, left_squares, right_squares, cross = _window_statistics(
        (left, right, zeros, zeros, zeros), window, _merge_comoments
    )
    flat = flat_spread(left_squares, left_means, window) | flat_spread(right_squares, right_means, window)
    with np.errstate(divide="ignore", invalid="ignore"):
        correlation = cross / np.sqrt(left_squares * right_squares)
    correlation[flat] = np.nan
    out[window - 1 :] = np.clip(correlation, -1.0, 1.0)
    return out
