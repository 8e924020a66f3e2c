"""The operators of the expression language and their numpy kernels.

Every value in an expression is a days × assets ``float64`` matrix. Market
data leaves read a panel field, ``const`` fills a matrix with one number, and
every other operator maps its argument matrices to a new matrix:

- elementwise: ``add sub mul div pow max min`` (two arguments) and
  ``neg abs log sqrt sign`` (one argument);
- cross-sectional (each day across assets): ``rank zscore demean``;
- time-series (each asset over its trailing ``window`` days): ``ts_mean
  ts_sum ts_std ts_min ts_max ts_rank ts_delay ts_delta`` (one argument) and
  ``ts_corr`` (two arguments).

Results that are not finite (division by zero, the log of a non-positive
number, an overflow) become NaN, the missing value, which later gives a zero
weight.
"""

from __future__ import annotations

from collections.abc import Callable, Mapping
from dataclasses import dataclass
from types import MappingProxyType
from typing import Literal

import numpy as np

from tallowmere.simulation import cross_section, rolling
from tallowmere.simulation.market_panel import FIELD_NAMES, FloatArray

__all__ = ["OPERATORS", "Operator", "OperatorKind"]

Inputs = tuple[FloatArray, ...]
Kernel = Callable[[Inputs, int, int], FloatArray]
"""A kernel maps the argument matrices, the window (0 when unused) and the day number of the
matrices' first row (the origin of a window's chunks) to a new matrix."""

OperatorKind = Literal["data", "constant", "elementwise", "cross_sectional", "time_series"]


@dataclass(frozen=True, slots=True)
class Operator:
    """One operator: its name, arity, parameters and kernel.

    ``min_window`` is 0 for operators without a ``window`` parameter.
    ``lookback_includes_window`` tells how many earlier rows a result row
    needs: ``window`` rows when true (``ts_delay``, ``ts_delta``), otherwise
    ``window - 1``.
    """

    name: str
    arity: int
    kind: OperatorKind
    summary: str
    kernel: Kernel | None = None
    min_window: int = 0
    lookback_includes_window: bool = False

    @property
    def parameters(self) -> tuple[str, ...]:
        """The parameter names the operator requires (and accepts)."""
        if self.kind == "constant":
            return ("value",)
        if self.min_window:
            return ("window",)
        return ()

    def lookback(self, window: int) -> int:
        """The number of rows before a result row that the operator reads."""
        if not self.min_window:
            return 0
        return window if self.lookback_includes_window else window - 1


def _add(args: Inputs, window: int, origin: int) -> FloatArray:
    return args[0] + args[1]


def _sub(args: Inputs, window: int, origin: int) -> FloatArray:
    return args[0] - args[1]


def _mul(args: Inputs, window: int, origin: int) -> FloatArray:
    return args[0] * args[1]


def _div(args: Inputs, window: int, origin: int) -> FloatArray:
    return args[0] / args[1]


def _pow(args: Inputs, window: int, origin: int) -> FloatArray:
    result: FloatArray = np.power(args[0], args[1])
    return result


def _max(args: Inputs, window: int, origin: int) -> FloatArray:
    result: FloatArray = np.maximum(args[0], args[1])
    return result


def _min(args: Inputs, window: int, origin: int) -> FloatArray:
    result: FloatArray = np.minimum(args[0], args[1])
    return result


def _neg(args: Inputs, window: int, origin: int) -> FloatArray:
    result: FloatArray = np.negative(args[0])
    return result


def _abs(args: Inputs, window: int, origin: int) -> FloatArray:
    result: FloatArray = np.abs(args[0])
    return result


def _log(args: Inputs, window: int, origin: int) -> FloatArray:
    result: FloatArray = np.log(args[0])
    return result


def _sqrt(args: Inputs, window: int, origin: int) -> FloatArray:
    result: FloatArray = np.sqrt(args[0])
    return result


def _sign(args: Inputs, window: int, origin: int) -> FloatArray:
    result: FloatArray = np.sign(args[0])
    return result


def _rank(args: Inputs, window: int, origin: int) -> FloatArray:
    return cross_section.cross_sectional_rank(args[0])


def _zscore(args: Inputs, window: int, origin: int) -> FloatArray:
    return cross_section.cross_sectional_zscore(args[0])


def _demean(args: Inputs, window: int, origin: int) -> FloatArray:
    return cross_section.cross_sectional_demean(args[0])


def _ts_mean(args: Inputs, window: int, origin: int) -> FloatArray:
    return rolling.rolling_mean(args[0], window, origin)


def _ts_sum(args: Inputs, window: int, origin: int) -> FloatArray:
    return rolling.rolling_sum(args[0], window, origin)


def _ts_std(args: Inputs, window: int, origin: int) -> FloatArray:
    return rolling.rolling_std(args[0], window, origin)


def _ts_min(args: Inputs, window: int, origin: int) -> FloatArray:
    return rolling.rolling_min(args[0], window)


def _ts_max(args: Inputs, window: int, origin: int) -> FloatArray:
    return rolling.rolling_max(args[0], window)


def _ts_rank(args: Inputs, window: int, origin: int) -> FloatArray:
    return rolling.rolling_rank(args[0], window)


def _ts_delay(args: Inputs, window: int, origin: int) -> FloatArray:
    return rolling.shifted(args[0], window)


def _ts_delta(args: Inputs, window: int, origin: int) -> FloatArray:
    return args[0] - rolling.shifted(args[0], window)


def _ts_corr(args: Inputs, window: int, origin: int) -> FloatArray:
    return rolling.rolling_corr(args[0], args[1], window, origin)


_DATA_SUMMARIES: Mapping[str, str] = {
    "open": "opening price of the day",
    "high": "highest price of the day",
    "low": "lowest price of the day",
    "close": "closing price of the day",
    "volume": "traded volume of the day",
    "returns": "close-to-close return of the day, close[t] / close[t-1] - 1",
    "vwap": "volume-weighted average price of the day",
}

_ALL_OPERATORS: tuple[Operator, ...] = (
    *(Operator(name, 0, "data", _DATA_SUMMARIES[name]) for name in FIELD_NAMES),
    Operator("const", 0, "constant", "the number `value` on every day and asset"),
    Operator("add", 2, "elementwise", "a + b", _add),
    Operator("sub", 2, "elementwise", "a - b", _sub),
    Operator("mul", 2, "elementwise", "a * b", _mul),
    Operator("div", 2, "elementwise", "a / b (division by zero is missing)", _div),
    Operator("pow", 2, "elementwise", "a ** b (a non-real result is missing)", _pow),
    Operator("max", 2, "elementwise", "larger of a and b", _max),
    Operator("min", 2, "elementwise", "smaller of a and b", _min),
    Operator("neg", 1, "elementwise", "-a", _neg),
    Operator("abs", 1, "elementwise", "|a|", _abs),
    Operator("log", 1, "elementwise", "natural log of a (a <= 0 is missing)", _log),
    Operator("sqrt", 1, "elementwise", "square root of a (a < 0 is missing)", _sqrt),
    Operator("sign", 1, "elementwise", "-1, 0 or 1 by the sign of a", _sign),
    Operator("rank", 1, "cross_sectional", "rank across assets scaled to [0, 1], ties averaged", _rank),
    Operator("zscore", 1, "cross_sectional", "(a - mean) / std across assets", _zscore),
    Operator("demean", 1, "cross_sectional", "a - mean across assets", _demean),
    Operator("ts_mean", 1, "time_series", "mean over the last `window` days", _ts_mean, 1),
    Operator("ts_sum", 1, "time_series", "sum over the last `window` days", _ts_sum, 1),
    Operator("ts_std", 1, "time_series", "sample standard deviation over the last `window` days", _ts_std, 2),
    Operator("ts_min", 1, "time_series", "minimum over the last `window` days", _ts_min, 1),
    Operator("ts_max", 1, "time_series", "maximum over the last `window` days", _ts_max, 1),
    Operator("ts_rank", 1, "time_series", "rank of today within the last `window` days, in [0, 1]", _ts_rank, 2),
    Operator("ts_delay", 1, "time_series", "the value `window` days ago", _ts_delay, 1, True),
    Operator("ts_delta", 1, "time_series", "a minus its value `window` days ago", _ts_delta, 1, True),
    Operator("ts_corr", 2, "time_series", "correlation of a and b over the last `window` days", _ts_corr, 2),
)

OPERATORS: Mapping[str, Operator] = MappingProxyType({operator.name: operator for operator in _ALL_OPERATORS})
"""Every operator of the expression language, by name."""
