"""The statistics of a simulated signal over one period (in-sample or out-of-sample).

They are read off the :class:`~tallowmere.simulation.portfolio.DailyBook`, the
book's figures of every day. For a period of ``n`` days with daily PnL ``p``
and weights ``w`` formed on those days (the weights of the day before the
period are zero before the first day of the panel):

- ``sharpe``: ``mean(p) / std(p, ddof=1) * sqrt(252)``; 0.0 when the PnL
  does not vary (a flat or degenerate signal);
- ``turnover``: mean over days of ``sum_i |w[t, i] - w[t-1, i]| / 2``, the
  share of a unit book traded per day;
- ``delta_exposure``: mean over days of ``|sum_i w[t, i]|``, the net exposure;
- ``max_weight``: the largest ``|w[t, i]|``;
- ``abs_weight_sum_mean``: mean over days of ``sum_i |w[t, i]|``, the gross exposure;
- ``correlation``: the largest absolute Pearson correlation of ``p`` with
  any reference PnL over the same days; 0.0 without references.

Every value is a finite ``float``; an empty period gives zeros.
"""

from __future__ import annotations

import math
from collections.abc import Sequence

import numpy as np

from tallowmere.simulation.dependence import pearson_correlation
from tallowmere.simulation.market_panel import FloatArray
from tallowmere.simulation.portfolio import DailyBook

__all__ = ["ANNUALISATION_DAYS", "STATISTIC_NAMES", "annualised_sharpe", "period_statistics"]

ANNUALISATION_DAYS = 252
"""Trading days in a year, used to annualise the Sharpe ratio."""

STATISTIC_NAMES: tuple[str, ...] = (
    "sharpe",
    "turnover",
    "delta_exposure",
    "max_weight",
    "abs_weight_sum_mean",
    "correlation",
)

# A PnL whose standard deviation is below this share of its mean is flat:
# its Sharpe ratio would only measure rounding.
_FLAT_PNL_TOLERANCE = 1e-9


# The statistics call the ufuncs' reductions directly: ndarray.mean and
# ndarray.std spend most of their time in Python around the same reductions.
# The operations are those of pnl.mean() and pnl.std(ddof=1) (numpy's sum,
# then one division), so the figures are the same to the last bit.
_sum = np.add.reduce
_largest = np.maximum.reduce
_absolute = np.absolute
_subtract = np.subtract
_multiply = np.multiply


def annualised_sharpe(pnl: FloatArray) -> float:
    """Annualised Sharpe ratio of a daily PnL series; 0.0 when it does not vary."""
    count = pnl.size
    if count < 2:
        return 0.0
    mean = _sum(pnl) / count
    deviations = _subtract(pnl, mean)
    _multiply(deviations, deviations, out=deviations)
    deviation = math.sqrt(_sum(deviations) / (count - 1))
    mean = float(mean)
    if not math.isfinite(deviation) or deviation <= _FLAT_PNL_TOLERANCE * abs(mean) or deviation == 0.0:
        return 0.0
    return mean / deviation * math.sqrt(ANNUALISATION_DAYS)


def _finite(value: float) -> float:
    return value if math.isfinite(value) else 0.0


def period_statistics(
    book: DailyBook,
    start: int,
    stop: int,
    references: Sequence[FloatArray],
) -> dict[str, float]:
    """Compute the statistics of the period of days ``start`` to ``stop`` (exclusive).

    ``references`` are other PnL series over the same days as the period.
    """
    if stop <= start:
        return dict.fromkeys(STATISTIC_NAMES, 0.0)
    count = stop - start
    pnl = book.pnl[start:stop]
    return {
        "sharpe": _finite(annualised_sharpe(pnl)),
        "turnover": _finite(float(_sum(book.traded[start:stop]) / count / 2.0)),
        "delta_exposure": _finite(float(_sum(_absolute(book.net[start:stop])) / count)),
        "max_weight": _finite(float(_largest(book.largest[start:stop]))),
        "abs_weight_sum_mean": _finite(float(_sum(book.gross[start:stop]) / count)),
        "correlation": _finite(
            max((abs(pearson_correlation(pnl, reference)) for reference in references), default=0.0)
        ),
    }
