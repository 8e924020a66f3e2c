"""The embedded default dataset: a deterministic synthetic market of 300 assets over 756 days.

Daily returns are the sum of

- a market factor (each asset with its own beta) and ten sector factors
  (30 assets each): common risk that a cross-sectional book largely nets out;
- idiosyncratic noise whose scale differs by asset, with fat tails (a day
  in 25 brings a shock three times the usual size) and volatility that
  clusters (a GARCH(1, 1) variance per asset, and one for the market): calm
  and turbulent spells;
- a short-term reversal: a share of yesterday's idiosyncratic move is undone
  today, so yesterday's losers tend to beat yesterday's winners;
- momentum: a slowly wandering drift per asset (a persistent autoregressive
  process), which trailing returns over several months reveal;
- a low-volatility premium, a slow characteristic like value: quieter assets
  earn a little more every day;
- a volume effect: an abnormal-volume shock today predicts a higher return
  tomorrow.

Prices start between 10 and 300 and compound the returns, so they stay
positive. Opens take a share of the day's move plus noise, highs and lows lie
beyond the open and close, vwap is a blend of the day's prices (within the
day's range), and volume is positive, persistent, and higher on big moves
and on abnormal-volume days. Expressions built on these effects are
predictive in and out of sample; expressions unrelated to them, such as
week-old returns, are not.

The dataset is the same on every machine: it is drawn from the portable
generator of :mod:`~tallowmere.simulation.portable_random` with portable
``exp`` and ``log``, in a fixed order of IEEE operations. The compiled engine
builds it in a few milliseconds (:func:`build_synthetic_panel`);
:func:`reference_market_fields` is the plain numpy version of the same
recipe, operation for operation, which the test suite compares with it.
"""

from __future__ import annotations

from functools import cache

import numpy as np

from tallowmere.simulation.market_panel import FIELD_NAMES, FloatArray, MarketPanel
from tallowmere.simulation.portable_random import draws, normals, portable_exp, stream_key, uniforms

__all__ = [
    "ASSET_COUNT",
    "DATASET_NAME",
    "DAY_COUNT",
    "FREQUENCY",
    "GENERATOR_KEY",
    "IN_SAMPLE_DAYS",
    "build_synthetic_panel",
    "default_panel",
    "reference_market_fields",
]

DATASET_NAME = "tallowmere-synthetic-v2"
ASSET_COUNT = 300
DAY_COUNT = 756
IN_SAMPLE_DAYS = 504
FREQUENCY = "1d"

GENERATOR_KEY = 0x7A110EB2
"""Fixes every random draw; changing it (or the recipe) makes a different dataset, which needs a new name."""

# The recipe's numbers. The compiled engine has the same ones
# (_native/engine/market.inl); the two must change together.
SECTOR_COUNT = 10
_MARKET_DRIFT = 0.0003
_MARKET_VOLATILITY = 0.009
_SECTOR_VOLATILITY = 0.005
_GARCH_BASE = 0.02  # 1 - _GARCH_SHOCK - _GARCH_MEMORY: a variance of 1 on average
_GARCH_SHOCK = 0.1
_GARCH_MEMORY = 0.88
_LOG_VOLATILITY_LOW = float.fromhex("-0x1.26bb1bbb55515p+2")  # log 0.01: idiosyncratic volatility from 1% ...
_LOG_VOLATILITY_SPAN = float.fromhex("0x1.193ea7aad0308p+0")  # log 3: ... to 3% a day
_VOLATILITY_CENTER = 0.018
_VOLATILITY_SCALE = 0.006
_LOG_FIRST_CLOSE_LOW = float.fromhex("0x1.26bb1bbb55516p+1")  # log 10: first closes from 10 ...
_LOG_FIRST_CLOSE_SPAN = float.fromhex("0x1.b35a6f90bd69ap+1")  # log 30: ... to 300
_LOG_BASE_VOLUME = float.fromhex("0x1.d046ec97fa33fp+3")  # log 2e6
_REVERSAL_SHARE = 0.015
_DRIFT_PERSISTENCE = 0.99
_DRIFT_INNOVATION = 0.141  # about sqrt(1 - 0.99**2): a drift of variance 1
_MOMENTUM_DRIFT_VOLATILITY = 0.0008
_LOW_VOLATILITY_PREMIUM = 0.0003
_VOLUME_PREMIUM = 0.02
_VOLUME_PERSISTENCE = 0.9
_VOLUME_INNOVATION = 0.436  # about sqrt(1 - 0.9**2)
_LOWEST_RETURN = -0.9
_JUMP_CHANCE = 0.04
_JUMP_SCALE = 2.61  # a jump's shock against a calm day's: 3 times, both scaled to a variance of about 1
_CALM_SCALE = 0.87

# Streams of the generator: what each draw is for.
_ASSET_DRAWS = 0  # 4 per asset: beta, volatility, first close (uniform), base volume (normal)
_MARKET_DRAWS = 1  # 1 per day
_SECTOR_DRAWS = 2  # SECTOR_COUNT per day
_SHOCK_DRAWS = 3  # the rest 1 per day and asset
_DRIFT_DRAWS = 4
_VOLUME_DRAWS = 5
_OPEN_DRAWS = 6
_UPPER_WICK_DRAWS = 7
_LOWER_WICK_DRAWS = 8
_SHARE_DRAWS = 9
_BLEND_DRAWS = 10
_JUMP_DRAWS = 11


def reference_market_fields(days: int = DAY_COUNT, assets: int = ASSET_COUNT) -> FloatArray:
    """The recipe in plain numpy: the seven fields (in :data:`FIELD_NAMES` order) as one 7 × days × assets array.

    Day ``t`` and asset ``i`` take the same draws whatever ``days`` is, so a
    shorter panel is the start of a longer one (of as many assets).
    """
    rows = days + 1  # one extra day in front gives the first day a previous close

    def stream(number: int, count: int) -> FloatArray:
        return draws(stream_key(GENERATOR_KEY, number), 0, count)

    def daily_normals(number: int) -> FloatArray:
        return normals(stream(number, rows * assets)).reshape(rows, assets)

    def daily_uniforms(number: int) -> FloatArray:
        return uniforms(stream(number, rows * assets)).reshape(rows, assets)

    characteristics = stream(_ASSET_DRAWS, 4 * assets).reshape(assets, 4)
    beta = 0.6 + 0.8 * uniforms(characteristics[:, 0])
    volatility = portable_exp(_LOG_VOLATILITY_LOW + _LOG_VOLATILITY_SPAN * uniforms(characteristics[:, 1]))
    quietness = (_VOLATILITY_CENTER - volatility) / _VOLATILITY_SCALE
    first_close = portable_exp(_LOG_FIRST_CLOSE_LOW + _LOG_FIRST_CLOSE_SPAN * uniforms(characteristics[:, 2]))
    base_volume = portable_exp(_LOG_BASE_VOLUME + 0.8 * normals(characteristics[:, 3]))

    market_shocks = normals(stream(_MARKET_DRAWS, rows))
    sectors = _SECTOR_VOLATILITY * normals(stream(_SECTOR_DRAWS, rows * SECTOR_COUNT)).reshape(rows, SECTOR_COUNT)
    shocks = daily_normals(_SHOCK_DRAWS) * np.where(daily_uniforms(_JUMP_DRAWS) < _JUMP_CHANCE, _JUMP_SCALE, _CALM_SCALE)
    drift_shocks = daily_normals(_DRIFT_DRAWS)
    volume_shocks = daily_normals(_VOLUME_DRAWS)
    open_noise = daily_normals(_OPEN_DRAWS)
    upper_wicks = daily_normals(_UPPER_WICK_DRAWS)
    lower_wicks = daily_normals(_LOWER_WICK_DRAWS)
    shares = 0.2 + 0.3 * daily_uniforms(_SHARE_DRAWS)
    blends = daily_uniforms(_BLEND_DRAWS)
    sector_of_asset = np.arange(assets) % SECTOR_COUNT

    # The recursions run day by day, every asset at once.
    market = np.empty(rows)
    idiosyncratic = np.empty((rows, assets))
    drift = np.empty((rows, assets))
    volume_level = np.empty((rows, assets))
    market_variance = 1.0
    variance = np.ones(assets)
    for t in range(rows):
        if t == 0:
            drift[t] = drift_shocks[t]
            volume_level[t] = volume_shocks[t]
        else:
            shock = market_shocks[t - 1]
            market_variance = (_GARCH_BASE + _GARCH_SHOCK * (shock * shock)) + _GARCH_MEMORY * market_variance
            variance = (_GARCH_BASE + _GARCH_SHOCK * (shocks[t - 1] * shocks[t - 1])) + _GARCH_MEMORY * variance
            drift[t] = _DRIFT_PERSISTENCE * drift[t - 1] + _DRIFT_INNOVATION * drift_shocks[t]
            volume_level[t] = _VOLUME_PERSISTENCE * volume_level[t - 1] + _VOLUME_INNOVATION * volume_shocks[t]
        market[t] = _MARKET_DRIFT + _MARKET_VOLATILITY * (np.sqrt(market_variance) * market_shocks[t])
        idiosyncratic[t] = volatility * (np.sqrt(variance) * shocks[t])

    previous_idiosyncratic = np.vstack([np.zeros((1, assets)), idiosyncratic[:-1]])
    previous_volume_shocks = np.vstack([np.zeros((1, assets)), volume_shocks[:-1]])
    returns = (
        (
            (
                ((_LOW_VOLATILITY_PREMIUM * quietness + _MOMENTUM_DRIFT_VOLATILITY * drift) + beta * market[:, np.newaxis])
                + sectors[:, sector_of_asset]
            )
            + idiosyncratic
        )
        - _REVERSAL_SHARE * previous_idiosyncratic
    ) + _VOLUME_PREMIUM * (volatility * previous_volume_shocks)
    moves = np.maximum(returns, _LOWEST_RETURN)
    growth = 1.0 + moves
    closes = np.empty((rows, assets))
    close = first_close
    for t in range(rows):
        close = close * growth[t]
        closes[t] = close
    previous_closes = np.vstack([first_close[np.newaxis, :], closes[:-1]])

    opens = previous_closes * ((1.0 + shares * moves) + 0.25 * (volatility * open_noise))
    highs = np.maximum(opens, closes) * (1.0 + 0.4 * (volatility * np.abs(upper_wicks)))
    lows = np.minimum(opens, closes) / (1.0 + 0.4 * (volatility * np.abs(lower_wicks)))
    blended = blends * ((highs + lows + closes) / 3.0) + (1.0 - blends) * ((opens + closes) / 2.0)
    vwaps = np.minimum(np.maximum(blended, lows), highs)  # a blend of the day's prices; the bounds absorb rounding
    volumes = base_volume * portable_exp((0.5 * volume_level + 0.35 * volume_shocks) + 0.3 * (np.abs(shocks) - 0.8))
    day_returns = closes / previous_closes - 1.0

    fields = {
        "open": opens,
        "high": highs,
        "low": lows,
        "close": closes,
        "volume": volumes,
        "returns": day_returns,
        "vwap": vwaps,
    }
    return np.stack([fields[name][1:] for name in FIELD_NAMES])


def _panel_of(fields: FloatArray) -> MarketPanel:
    return MarketPanel._from_checked_fields(
        fields, in_sample_days=IN_SAMPLE_DAYS, frequency=FREQUENCY, name=DATASET_NAME
    )


def build_synthetic_panel() -> MarketPanel:
    """Build the default dataset with the compiled engine (use :func:`default_panel` for the process's copy)."""
    from tallowmere import _native

    fields = np.empty((len(FIELD_NAMES), DAY_COUNT, ASSET_COUNT))
    _native.synthetic_market(fields)
    return _panel_of(fields)


@cache
def default_panel() -> MarketPanel:
    """Return the default dataset, built once per process (its arrays are read-only)."""
    return build_synthetic_panel()
