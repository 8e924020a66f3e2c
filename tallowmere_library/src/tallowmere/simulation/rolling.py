"""Trailing-window kernels over the day axis (axis 0) of a days × assets matrix.

Every kernel looks only at the current row and the rows before it. A window
of ``w`` rows is complete from row ``w - 1`` on; rows before that, and any
window holding a missing value (NaN), give NaN.

Sums, means, spreads and correlations cut the days into chunks of ``w``
days, counted from day 0 (``origin`` is the day number of a matrix's first
row, so that a run of rows evaluated on its own gives the same numbers). The
window ending on day ``t`` is the end of the previous chunk, from day
``t - w + 1`` on (its *suffix*), followed by the start of the current chunk
up to day ``t`` (its *prefix*); on a chunk's last day it is the whole chunk,
the prefix alone. Prefixes grow forward one day at a time and suffixes
backward from the chunk's last day, then the suffix (older) and the prefix
(newer) combine. Every window is thus built from its own days only, in an
order fixed by the day it ends on: no running total is ever subtracted
from, so nothing drifts however long the history, and a sum is accurate to
``w`` units in the last place of its terms' magnitude. Spreads combine
(count, mean, sum of squared deviations) with the pairwise update of Chan,
Golub and LeVeque (Welford's update when one side is a single day), so large
levels (prices, volumes) lose no precision to cancellation.

The compiled engine (``tallowmere._native``) performs exactly the same
operations day by day, so both give identical numbers. Loops here run over
positions in a chunk or window lags, never over days or assets: each is one
vectorised pass over the matrix.
"""

from __future__ import annotations

from typing import Any

import numpy as np
import numpy.typing as npt

from tallowmere.simulation.market_panel import FloatArray

__all__ = [
    "FLAT_SPREAD_TOLERANCE",
    "merge_factors",
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


def _laid_in_chunks(values: FloatArray, window: int, origin: int) -> tuple[FloatArray, int]:
    """``values`` as chunks × ``window`` rows × assets, chunks starting on multiples of ``window`` days.

    ``origin`` is the day number of the first row. Returns the chunks and the
    number of rows put in front of the first row (NaN, like the rows after
    the last).
    """
    rows, assets = values.shape
    front = origin % window
    chunk_count = -(-(front + rows) // window)
    laid = np.full((chunk_count * window, assets), np.nan)
    laid[front : front + rows] = values
    return laid.reshape(chunk_count, window, assets), front


def _unlaid(windows: FloatArray, front: int, rows: int, window: int) -> FloatArray:
    """Per-row results from chunks × positions × assets; rows without a complete window are NaN."""
    out = windows.reshape(-1, windows.shape[2])[front : front + rows].copy()
    out[: window - 1] = np.nan
    return out


def _combined_windows(whole: FloatArray, combined: FloatArray) -> FloatArray:
    """Every window of every chunk: ``whole`` (the chunk itself) on its last position, ``combined`` before it.

    ``combined[c - 1, j]`` is the window ending on position ``j`` of chunk
    ``c``; the first chunk has no window before its last position.
    """
    windows = np.full((whole.shape[0], combined.shape[1] + 1, whole.shape[1]), np.nan)
    windows[:, -1] = whole
    windows[1:, :-1] = combined
    return windows


def merge_factors(older_count: int, newer_count: int) -> tuple[float, float]:
    """How the mean and the squared deviations of two merged blocks change.

    With ``n = older_count + newer_count`` and ``d`` the newer block's mean
    minus the older's, the merged mean is ``older mean + d * (newer_count / n)``
    and the merged squared deviations gain ``d * d * (older_count * newer_count / n)``.
    """
    total = older_count + newer_count
    return newer_count / total, older_count * newer_count / total


def _window_factors(window: int) -> tuple[FloatArray, FloatArray]:
    """The merge factors of a suffix (older) and a prefix (newer) ending on positions 0 .. window - 2."""
    factors = [merge_factors(window - 1 - j, j + 1) for j in range(window - 1)]
    shifts = np.array([shift for shift, _ in factors])[np.newaxis, :, np.newaxis]
    weights = np.array([weight for _, weight in factors])[np.newaxis, :, np.newaxis]
    return shifts, weights


def rolling_sum(values: FloatArray, window: int, origin: int = 0) -> FloatArray:
    """Sum over the trailing ``window`` rows, as the suffix of the previous chunk plus the prefix of the current one.

    ``origin`` is the day number of the first row (see the module's description).
    """
    rows = values.shape[0]
    if window > rows:
        return _empty_like(values)
    chunks, front = _laid_in_chunks(values, window, origin)
    prefixes = np.cumsum(chunks, axis=1)  # each day adds to the days before it in the chunk
    suffixes = np.cumsum(chunks[:, ::-1], axis=1)[:, ::-1]  # each day adds to the days after it
    windows = _combined_windows(prefixes[:, -1], suffixes[:-1, 1:] + prefixes[1:, :-1])
    return _unlaid(windows, front, rows, window)


def rolling_mean(values: FloatArray, window: int, origin: int = 0) -> FloatArray:
    """Mean over the trailing ``window`` rows."""
    return rolling_sum(values, window, origin) / window


def _moment_parts(chunks: FloatArray, quantities: int) -> tuple[list[FloatArray], list[FloatArray]]:
    """The prefixes and suffixes of every chunk: moments of one series (``quantities`` 2) or of two (5).

    The chunks hold one series (chunks × window × assets) or, stacked on a
    first axis, two. Prefixes grow forward by Welford's update (older: the
    prefix, newer: the day), suffixes backward (older: the day, newer: the
    suffix after it); a single day's squared deviations and cross products
    are 0, and adding 0 to the other side's changes nothing, so those
    additions are left out.
    """
    series = [chunks] if quantities == 2 else [chunks[0], chunks[1]]
    window = series[0].shape[1]
    prefix = [np.empty_like(series[0]) for _ in range(quantities)]
    suffix = [np.full_like(series[0], np.nan) for _ in range(quantities)]
    for target, source in zip((prefix, suffix), (0, window - 1), strict=True):
        for index, values in enumerate(series):
            target[index][:, source] = values[:, source]
        for index in range(len(series), quantities):
            target[index][:, source] = 0.0
    for j in range(1, window):
        shift, weight = merge_factors(j, 1)
        deltas = [values[:, j] - prefix[index][:, j - 1] for index, values in enumerate(series)]
        for index, delta in enumerate(deltas):
            prefix[index][:, j] = prefix[index][:, j - 1] + delta * shift
        _grow_spreads(prefix, deltas, j, j - 1, weight)
    for j in range(window - 2, 0, -1):
        shift, weight = merge_factors(1, window - 1 - j)
        deltas = [suffix[index][:, j + 1] - values[:, j] for index, values in enumerate(series)]
        for index, (delta, values) in enumerate(zip(deltas, series, strict=True)):
            suffix[index][:, j] = values[:, j] + delta * shift
        _grow_spreads(suffix, deltas, j, j + 1, weight)
    return prefix, suffix


def _grow_spreads(parts: list[FloatArray], deltas: list[FloatArray], to: int, source: int, weight: float) -> None:
    """Squared deviations (and the cross products) of position ``to`` from those of ``source`` and the deltas."""
    count = len(deltas)
    for index, delta in enumerate(deltas):
        parts[count + index][:, to] = parts[count + index][:, source] + (delta * delta) * weight
    if count == 2:
        parts[4][:, to] = parts[4][:, source] + (deltas[0] * deltas[1]) * weight


def _merged_window_moments(prefix: list[FloatArray], suffix: list[FloatArray]) -> list[FloatArray]:
    """The statistics of every window ending before a chunk's last position: the previous chunk's suffix
    (older) merged with the chunk's prefix (newer)."""
    window = prefix[0].shape[1]
    shifts, weights = _window_factors(window)
    series = 1 if len(prefix) == 2 else 2
    older = [part[:-1, 1:] for part in suffix]
    newer = [part[1:, :-1] for part in prefix]
    deltas = [newer[index] - older[index] for index in range(series)]
    merged = [older[index] + deltas[index] * shifts for index in range(series)]
    merged += [(older[series + index] + newer[series + index]) + (delta * delta) * weights for index, delta in enumerate(deltas)]
    if series == 2:
        merged.append((older[4] + newer[4]) + (deltas[0] * deltas[1]) * weights)
    return merged


def rolling_std(values: FloatArray, window: int, origin: int = 0) -> FloatArray:
    """Sample standard deviation (``ddof=1``) over the trailing ``window`` rows (``window >= 2``)."""
    rows = values.shape[0]
    if window > rows:
        return _empty_like(values)
    chunks, front = _laid_in_chunks(values, window, origin)
    prefix, suffix = _moment_parts(chunks, 2)
    merged = _merged_window_moments(prefix, suffix)
    means = _combined_windows(prefix[0][:, -1], merged[0])
    squares = _combined_windows(prefix[1][:, -1], merged[1])
    squares[flat_spread(squares, means, window)] = 0.0
    return _unlaid(np.sqrt(squares / (window - 1)), front, rows, window)


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


def rolling_corr(left: FloatArray, right: FloatArray, window: int, origin: int = 0) -> FloatArray:
    """Pearson correlation of two matrices over the trailing ``window`` rows (``window >= 2``).

    A window in which either side is flat (see :data:`FLAT_SPREAD_TOLERANCE`) gives NaN.
    """
    rows = left.shape[0]
    if window > rows:
        return _empty_like(left)
    left_chunks, front = _laid_in_chunks(left, window, origin)
    right_chunks, _ = _laid_in_chunks(right, window, origin)
    prefix, suffix = _moment_parts(np.stack([left_chunks, right_chunks]), 5)
    merged = _merged_window_moments(prefix, suffix)
    left_means, right_means, left_squares, right_squares, cross = (
        _combined_windows(part[:, -1], window_part) for part, window_part in zip(prefix, merged, strict=True)
    )
    flat = flat_spread(left_squares, left_means, window) | flat_spread(right_squares, right_means, window)
    with np.errstate(divide="ignore", invalid="ignore"):
        correlation = cross / np.sqrt(left_squares * right_squares)
    correlation[flat] = np.nan
    return _unlaid(np.clip(correlation, -1.0, 1.0), front, rows, window)
