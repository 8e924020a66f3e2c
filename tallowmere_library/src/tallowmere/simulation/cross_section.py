"""Cross-sectional kernels: each day (row) of a days × assets matrix on its own.

Missing values (NaN) are left out of every day's statistics and stay missing.
Sums across a day's assets are :func:`lane_sums`, the order of additions the
compiled engine uses too.
"""

from __future__ import annotations

import numpy as np

from tallowmere.simulation.market_panel import FloatArray
from tallowmere.simulation.rolling import flat_spread

__all__ = [
    "LANES",
    "cross_sectional_demean",
    "cross_sectional_rank",
    "cross_sectional_zscore",
    "lane_sums",
    "row_means",
]

LANES = 8
"""Lanes of a row sum: lane ``j`` adds the columns ``j``, ``j + 8``, ``j + 16``, ... in order."""


def lane_sums(values: FloatArray) -> FloatArray:
    """Sum each row of a 2-D matrix, as a column.

    Lane ``j`` adds the row's columns ``i`` with ``i % 8 == j`` from left to
    right, starting from 0.0; the eight lane totals then add pairwise:
    ``((l0 + l1) + (l2 + l3)) + ((l4 + l5) + (l6 + l7))``. The order is fixed
    (numpy's own summation order is not part of its interface), so the
    compiled engine adds in exactly the same order and gets the same sums.
    """
    rows, columns = values.shape
    lanes = np.zeros((rows, LANES))
    full = columns - columns % LANES
    for start in range(0, full, LANES):
        lanes += values[:, start : start + LANES]
    if full < columns:
        lanes[:, : columns - full] += values[:, full:]
    totals = ((lanes[:, 0] + lanes[:, 1]) + (lanes[:, 2] + lanes[:, 3])) + (
        (lanes[:, 4] + lanes[:, 5]) + (lanes[:, 6] + lanes[:, 7])
    )
    column: FloatArray = totals[:, np.newaxis]
    return column


def row_means(values: FloatArray) -> FloatArray:
    """Mean of each row over its present values, as a column (NaN for a row with none)."""
    present = ~np.isnan(values)
    counts = present.sum(axis=1, keepdims=True)
    totals = lane_sums(np.where(present, values, 0.0))
    with np.errstate(divide="ignore", invalid="ignore"):
        means: FloatArray = totals / counts
    return means


def cross_sectional_demean(values: FloatArray) -> FloatArray:
    """Subtract each day's mean across assets."""
    return values - row_means(values)


def cross_sectional_zscore(values: FloatArray) -> FloatArray:
    """Standardise each day across assets: ``(x - mean) / std`` (population std).

    A day whose values are all equal (to rounding) has no spread and gives NaN.
    """
    means = row_means(values)
    deviations = values - means
    present = ~np.isnan(values)
    counts = present.sum(axis=1, keepdims=True)
    squares = lane_sums(np.where(present, deviations * deviations, 0.0))
    squares[flat_spread(squares, means, counts)] = 0.0
    with np.errstate(divide="ignore", invalid="ignore"):
        scores: FloatArray = deviations / np.sqrt(squares / counts)
    return scores


def cross_sectional_rank(values: FloatArray) -> FloatArray:
    """Rank each day's values across assets, scaled to [0, 1]; ties share their average rank.

    The lowest present value of a day ranks 0 and the highest 1; a day with a
    single present value ranks it 0.5.
    """
    day_count, asset_count = values.shape
    order = np.argsort(values, axis=1)  # NaN sorts last; the order within ties does not matter
    ordered = np.take_along_axis(values, order, axis=1)
    positions = np.broadcast_to(np.arange(asset_count), ordered.shape)

    # A tie group runs from the first to the last position holding its value;
    # every member gets the average of the two.
    starts_group = np.ones(ordered.shape, dtype=bool)
    starts_group[:, 1:] = ordered[:, 1:] != ordered[:, :-1]
    ends_group = np.ones(ordered.shape, dtype=bool)
    ends_group[:, :-1] = starts_group[:, 1:]
    group_first = np.maximum.accumulate(np.where(starts_group, positions, 0), axis=1)
    group_last = np.minimum.accumulate(np.where(ends_group, positions, asset_count - 1)[:, ::-1], axis=1)[:, ::-1]

    present = ~np.isnan(ordered)
    counts = present.sum(axis=1, keepdims=True)
    with np.errstate(divide="ignore", invalid="ignore"):
        scaled = (group_first + group_last) / (2.0 * (counts - 1))
    scaled = np.where(counts > 1, scaled, 0.5)
    scaled[~present] = np.nan

    ranks = np.empty((day_count, asset_count))
    np.put_along_axis(ranks, order, scaled, axis=1)
    return ranks
