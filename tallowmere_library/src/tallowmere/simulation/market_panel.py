"""The market panel a simulation runs on: daily market fields, days × assets.

A :class:`MarketPanel` holds seven fields, each a read-only ``float64`` matrix
with one row per day and one column per asset: ``open``, ``high``, ``low``,
``close``, ``volume``, ``returns`` (close-to-close simple return of the day)
and ``vwap``. Missing values are NaN; infinities are refused. The first
``in_sample_days`` rows are the in-sample period, the rest the out-of-sample
period.
"""

from __future__ import annotations

from collections.abc import Mapping
from dataclasses import dataclass

import numpy as np
import numpy.typing as npt

__all__ = ["FIELD_NAMES", "FloatArray", "MarketPanel"]

FloatArray = npt.NDArray[np.float64]

FIELD_NAMES: tuple[str, ...] = ("open", "high", "low", "close", "volume", "returns", "vwap")
"""The market data fields of a panel, in the order they are stored."""

_REQUIRED_MAPPING_FIELDS: tuple[str, ...] = ("open", "high", "low", "close", "volume")

# A panel built from a mapping without an explicit split keeps this share of
# its days in sample (504 of 756 for three years of daily data).
_DEFAULT_IN_SAMPLE_SHARE = 2.0 / 3.0


def _readonly_matrix(value: npt.ArrayLike, name: str) -> FloatArray:
    """Copy ``value`` into a read-only 2-D ``float64`` matrix, refusing bad input."""
    try:
        matrix = np.array(value, dtype=np.float64, copy=True, order="C")
    except (TypeError, ValueError) as exc:
        raise ValueError(f"market field {name!r} must be a 2-D array of numbers: {exc}") from None
    if matrix.ndim != 2:
        raise ValueError(
            f"market field {name!r} must be 2-D (days × assets), got {matrix.ndim}-D shape {matrix.shape}"
        )
    if np.isinf(matrix).any():
        raise ValueError(f"market field {name!r} contains infinite values; use NaN for missing data")
    matrix.setflags(write=False)
    return matrix


@dataclass(frozen=True, eq=False)
class MarketPanel:
    """Daily market data for a set of assets, split into in-sample and out-of-sample days.

    Every field is converted to a read-only ``float64`` copy of shape
    ``(day_count, asset_count)``; all seven must share one shape, with at
    least two days and two assets. ``in_sample_days`` must be an integer
    from 1 to ``day_count`` (equal to ``day_count`` leaves no out-of-sample
    period). ``frequency`` names the row frequency (``"1d"`` for daily rows)
    and ``name`` the dataset; both must be non-empty strings.
    """

    open: FloatArray
    high: FloatArray
    low: FloatArray
    close: FloatArray
    volume: FloatArray
    returns: FloatArray
    vwap: FloatArray
    in_sample_days: int
    frequency: str = "1d"
    name: str = "custom"

    def __post_init__(self) -> None:
        shape: tuple[int, ...] | None = None
        for field_name in FIELD_NAMES:
            matrix = _readonly_matrix(getattr(self, field_name), field_name)
            if shape is None:
                shape = matrix.shape
            elif matrix.shape != shape:
                raise ValueError(
                    f"market field {field_name!r} has shape {matrix.shape}; "
                    f"every field must have the shape of 'open', {shape}"
                )
            object.__setattr__(self, field_name, matrix)
        assert shape is not None
        day_count, asset_count = shape
        if day_count < 2 or asset_count < 2:
            raise ValueError(f"a market panel needs at least 2 days and 2 assets, got shape {shape}")
        in_sample = self.in_sample_days
        if isinstance(in_sample, bool) or not isinstance(in_sample, int):
            raise ValueError(f"in_sample_days must be an integer, got {type(in_sample).__name__} {in_sample!r}")
        if not 1 <= in_sample <= day_count:
            raise ValueError(f"in_sample_days must be between 1 and the day count {day_count}, got {in_sample}")
        for label in ("frequency", "name"):
            text = getattr(self, label)
            if not isinstance(text, str) or not text.strip():
                raise ValueError(f"{label} must be a non-empty string, got {text!r}")

    @classmethod
    def from_fields(
        cls,
        data: Mapping[str, npt.ArrayLike],
        *,
        frequency: str = "1d",
        in_sample_days: int | None = None,
        name: str = "custom",
    ) -> MarketPanel:
        """Build a panel from a mapping of field name to a days × assets array.

        ``open``, ``high``, ``low``, ``close`` and ``volume`` are required.
        ``returns`` defaults to the close-to-close return (NaN on the first
        day) and ``vwap`` to the typical price ``(high + low + close) / 3``.
        ``in_sample_days`` defaults to two thirds of the days, rounded.
        Unknown field names are refused.
        """
        if not isinstance(data, Mapping):
            raise ValueError(f"market data must be a mapping of field name to array, got {type(data).__name__}")
        unknown = sorted(str(key) for key in data if key not in FIELD_NAMES)
        if unknown:
            raise ValueError(
                f"unknown market data field(s) {', '.join(unknown)}; known fields: {', '.join(FIELD_NAMES)}"
            )
        missing = [key for key in _REQUIRED_MAPPING_FIELDS if key not in data]
        if missing:
            raise ValueError(f"market data is missing required field(s) {', '.join(missing)}")
        matrices = {key: _readonly_matrix(value, key) for key, value in data.items()}
        close = matrices["close"]
        for key, matrix in matrices.items():
            if matrix.shape != close.shape:
                raise ValueError(
                    f"market field {key!r} has shape {matrix.shape}; "
                    f"every field must have the shape of 'close', {close.shape}"
                )
        if "returns" not in matrices:
            returns = np.full(close.shape, np.nan)
            with np.errstate(divide="ignore", invalid="ignore"):
                returns[1:] = close[1:] / close[:-1] - 1.0
            returns[~np.isfinite(returns)] = np.nan
            matrices["returns"] = returns
        if "vwap" not in matrices:
            matrices["vwap"] = (matrices["high"] + matrices["low"] + close) / 3.0
        if in_sample_days is None:
            in_sample_days = max(1, round(close.shape[0] * _DEFAULT_IN_SAMPLE_SHARE))
        return cls(
            open=matrices["open"],
            high=matrices["high"],
            low=matrices["low"],
            close=close,
            volume=matrices["volume"],
            returns=matrices["returns"],
            vwap=matrices["vwap"],
            in_sample_days=in_sample_days,
            frequency=frequency,
            name=name,
        )

    @classmethod
    def _from_checked_fields(
        cls, fields: FloatArray, *, in_sample_days: int, frequency: str, name: str
    ) -> MarketPanel:
        """A panel over a 7 × days × assets block of finite (or NaN) float64 fields in :data:`FIELD_NAMES` order.

        For data made by this package only: the block is neither copied nor
        checked, just made read-only, and each field is a view of it.
        """
        fields.setflags(write=False)
        panel = object.__new__(cls)
        for field_name, matrix in zip(FIELD_NAMES, fields, strict=True):
            object.__setattr__(panel, field_name, matrix)
        object.__setattr__(panel, "in_sample_days", in_sample_days)
        object.__setattr__(panel, "frequency", frequency)
        object.__setattr__(panel, "name", name)
        return panel

    @property
    def day_count(self) -> int:
        """The number of days (rows)."""
        return int(self.close.shape[0])

    @property
    def asset_count(self) -> int:
        """The number of assets (columns)."""
        return int(self.close.shape[1])

    @property
    def out_of_sample_days(self) -> int:
        """The number of days after the in-sample period."""
        return self.day_count - self.in_sample_days

    def field(self, name: str) -> FloatArray:
        """Return the matrix of one market field by name."""
        if name not in FIELD_NAMES:
            raise ValueError(f"unknown market data field {name!r}; known fields: {', '.join(FIELD_NAMES)}")
        matrix: FloatArray = getattr(self, name)
        return matrix

    def contract_projection(self) -> dict[str, str | int]:
        """Describe the panel the way an era's ``simulation_data_contract_projection`` does."""
        return {
            "dataset": self.name,
            "frequency": self.frequency,
            "asset_count": self.asset_count,
            "day_count": self.day_count,
            "in_sample_days": self.in_sample_days,
        }

    def head(self, day_count: int) -> MarketPanel:
        """Return a panel of the first ``day_count`` days (the in-sample split capped to fit)."""
        if isinstance(day_count, bool) or not isinstance(day_count, int) or not 2 <= day_count <= self.day_count:
            raise ValueError(f"day_count must be an integer from 2 to {self.day_count}, got {day_count!r}")
        return MarketPanel(
            open=self.open[:day_count],
            high=self.high[:day_count],
            low=self.low[:day_count],
            close=self.close[:day_count],
            volume=self.volume[:day_count],
            returns=self.returns[:day_count],
            vwap=self.vwap[:day_count],
            in_sample_days=min(self.in_sample_days, day_count),
            frequency=self.frequency,
            name=self.name,
        )
