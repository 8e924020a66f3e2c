"""The embedded default dataset: a deterministic synthetic market of 300 assets over 756 days.

Daily returns are built from a fixed random generator state as the sum of

- a market factor (each asset with its own beta) and ten sector factors
  (30 assets each): common risk that a cross-sectional book largely nets out;
- idiosyncratic noise whose scale differs by asset;
- a short-term reversal: a share of yesterday's idiosyncratic move is undone
  today, so yesterday's losers tend to beat yesterday's winners;
- momentum: a slowly wandering drift per asset (a 126-day moving average of
  noise), which trailing returns over several months reveal;
- a low-volatility premium, a slow characteristic like value: quieter assets
  earn a little more every day;
- a volume effect: an abnormal-volume shock today predicts a higher return
  tomorrow.

Prices start between 10 and 300 and compound the returns, so they stay
positive. Opens split each day's move into an overnight and an intraday
part, highs and lows lie beyond the open and close, vwap is a blend of the
day's prices (within the day's range), and volume is positive, higher on big
moves and on abnormal-volume days. Expressions built on these effects are
predictive in and out of sample; expressions unrelated to them, such as
week-old returns, are not.

Building the panel takes some 50 ms (most of it drawing two million random
numbers), so the first build on a machine is kept in a cache file, which
every later process reads in a few milliseconds: see :func:`panel_cache_path`.
"""

from __future__ import annotations

import contextlib
import os
import tempfile
from functools import cache
from pathlib import Path

import numpy as np

from tallowmere.simulation.market_panel import FIELD_NAMES, FloatArray, MarketPanel

__all__ = [
    "ASSET_COUNT",
    "CACHE_VARIABLE",
    "DATASET_NAME",
    "DAY_COUNT",
    "FREQUENCY",
    "IN_SAMPLE_DAYS",
    "build_synthetic_panel",
    "default_panel",
    "load_default_panel",
    "panel_cache_path",
]

DATASET_NAME = "tallowmere-synthetic-v1"
ASSET_COUNT = 300
DAY_COUNT = 756
IN_SAMPLE_DAYS = 504
FREQUENCY = "1d"

# The generator key fixes every random draw; changing it (or the order of the
# draws below) makes a different dataset, which must then get a new name.
_GENERATOR_KEY = 0x7A11_0E3E
_SECTOR_COUNT = 10
_MARKET_DRIFT = 0.0003
_MARKET_VOLATILITY = 0.009
_SECTOR_VOLATILITY = 0.005
_IDIOSYNCRATIC_VOLATILITY_RANGE = (0.010, 0.030)
_REVERSAL_SHARE = 0.015
_MOMENTUM_HORIZON = 126
_MOMENTUM_DRIFT_VOLATILITY = 0.0008
_LOW_VOLATILITY_PREMIUM = 0.0002
_VOLUME_PREMIUM = 0.02
_VOLUME_PERSISTENCE_HORIZON = 20


def _moving_average_noise(noise: FloatArray, horizon: int) -> FloatArray:
    """Trailing moving averages of ``noise`` over ``horizon`` rows, scaled to unit variance.

    The result has ``horizon - 1`` rows fewer than ``noise``.
    """
    cumulative = np.cumsum(noise, axis=0)
    sums = cumulative[horizon - 1 :].copy()
    sums[1:] -= cumulative[: cumulative.shape[0] - horizon]
    scaled: FloatArray = sums / np.sqrt(horizon)
    return scaled


def build_synthetic_panel() -> MarketPanel:
    """Build the default dataset from scratch (use :func:`default_panel` for the cached copy)."""
    rng = np.random.default_rng(_GENERATOR_KEY)
    days = DAY_COUNT + 1  # one extra day in front gives the first day a previous close
    assets = ASSET_COUNT

    sector = np.arange(assets) % _SECTOR_COUNT
    beta = rng.uniform(0.6, 1.4, assets)
    low, high = _IDIOSYNCRATIC_VOLATILITY_RANGE
    volatility = np.exp(rng.uniform(np.log(low), np.log(high), assets))
    quietness = -(volatility - volatility.mean()) / volatility.std()
    first_close = np.exp(rng.uniform(np.log(10.0), np.log(300.0), assets))
    base_volume = np.exp(rng.normal(np.log(2e6), 0.8, assets))

    market = rng.normal(_MARKET_DRIFT, _MARKET_VOLATILITY, days)
    sectors = rng.normal(0.0, _SECTOR_VOLATILITY, (days, _SECTOR_COUNT))
    shocks = rng.standard_normal((days, assets))
    drift_noise = rng.standard_normal((days + _MOMENTUM_HORIZON - 1, assets))
    volume_shocks = rng.standard_normal((days, assets))
    volume_level_noise = rng.standard_normal((days + _VOLUME_PERSISTENCE_HORIZON - 1, assets))

    idiosyncratic = shocks * volatility
    previous_idiosyncratic = np.vstack([np.zeros((1, assets)), idiosyncratic[:-1]])
    previous_volume_shocks = np.vstack([np.zeros((1, assets)), volume_shocks[:-1]])
    drift = _MOMENTUM_DRIFT_VOLATILITY * _moving_average_noise(drift_noise, _MOMENTUM_HORIZON)

    returns = (
        _LOW_VOLATILITY_PREMIUM * quietness
        + drift
        + beta * market[:, np.newaxis]
        + sectors[:, sector]
        + idiosyncratic
        - _REVERSAL_SHARE * previous_idiosyncratic
        + _VOLUME_PREMIUM * volatility * previous_volume_shocks
    )
    closes = first_close * np.cumprod(1.0 + np.maximum(returns, -0.9), axis=0)
    previous_closes = np.vstack([first_close[np.newaxis, :], closes[:-1]])

    day_moves = np.log(closes / previous_closes)
    overnight_share = rng.uniform(0.2, 0.5, (days, assets))
    overnight_noise = rng.normal(0.0, 1.0, (days, assets)) * (0.25 * volatility)
    opens = previous_closes * np.exp(overnight_share * day_moves + overnight_noise)
    upper_wick = np.abs(rng.standard_normal((days, assets))) * (0.4 * volatility)
    lower_wick = np.abs(rng.standard_normal((days, assets))) * (0.4 * volatility)
    highs = np.maximum(opens, closes) * np.exp(upper_wick)
    lows = np.minimum(opens, closes) * np.exp(-lower_wick)
    blend = rng.uniform(0.0, 1.0, (days, assets))
    blended = blend * (highs + lows + closes) / 3.0 + (1.0 - blend) * (opens + closes) / 2.0
    vwaps = np.clip(blended, lows, highs)  # a blend of the day's prices; the clip only absorbs rounding

    volume_level = _moving_average_noise(volume_level_noise, _VOLUME_PERSISTENCE_HORIZON)
    volumes = base_volume * np.exp(0.5 * volume_level + 0.35 * volume_shocks + 0.3 * (np.abs(shocks) - 0.8))

    observed = slice(1, None)
    return MarketPanel(
        open=opens[observed],
        high=highs[observed],
        low=lows[observed],
        close=closes[observed],
        volume=volumes[observed],
        returns=closes[observed] / previous_closes[observed] - 1.0,
        vwap=vwaps[observed],
        in_sample_days=IN_SAMPLE_DAYS,
        frequency=FREQUENCY,
        name=DATASET_NAME,
    )


CACHE_VARIABLE = "TALLOWMERE_CACHE_DIR"
"""The directory of the default panel's cache file; set to an empty value to keep no file."""

# Bumped when the file's layout changes.
_CACHE_LAYOUT = 1


def panel_cache_path() -> Path | None:
    """Where the default panel's cache file lives, or None when caching is turned off.

    The directory is :data:`CACHE_VARIABLE` if set (empty: no cache), else
    ``$XDG_CACHE_HOME/tallowmere``, else ``~/.cache/tallowmere``. The file
    name holds the dataset's name and numpy's version, whose generator draws
    the numbers: another numpy builds and keeps a file of its own.
    """
    configured = os.environ.get(CACHE_VARIABLE)
    if configured is not None:
        if not configured.strip():
            return None
        directory = Path(configured)
    else:
        base = os.environ.get("XDG_CACHE_HOME") or str(Path.home() / ".cache")
        directory = Path(base) / "tallowmere"
    return directory / f"{DATASET_NAME}-numpy{np.__version__}-layout{_CACHE_LAYOUT}.npy"


def _read_cached_panel(path: Path) -> MarketPanel | None:
    try:
        fields = np.load(path, mmap_mode="r", allow_pickle=False)
    except (OSError, ValueError):
        return None
    if fields.shape != (len(FIELD_NAMES), DAY_COUNT, ASSET_COUNT) or fields.dtype != np.float64:
        return None
    matrices = dict(zip(FIELD_NAMES, fields, strict=True))
    try:
        return MarketPanel(**matrices, in_sample_days=IN_SAMPLE_DAYS, frequency=FREQUENCY, name=DATASET_NAME)
    except ValueError:  # a damaged file (an infinity where none can be)
        return None


def _write_cached_panel(panel: MarketPanel, path: Path) -> None:
    """Keep the panel for later processes; a cache that cannot be written is simply not kept."""
    try:
        path.parent.mkdir(parents=True, exist_ok=True)
        descriptor, temporary = tempfile.mkstemp(dir=path.parent, prefix=".panel-", suffix=".npy")
    except OSError:
        return
    try:
        with os.fdopen(descriptor, "wb") as handle:
            np.save(handle, np.stack([panel.field(name) for name in FIELD_NAMES]), allow_pickle=False)
        os.replace(temporary, path)  # readers see the old file or the whole new one
    except OSError:
        with contextlib.suppress(OSError):
            os.unlink(temporary)


def load_default_panel() -> MarketPanel:
    """Read the default dataset from its cache file, or build it and write the file.

    Use :func:`default_panel`, which does this once per process.
    """
    path = panel_cache_path()
    if path is not None:
        cached = _read_cached_panel(path)
        if cached is not None:
            return cached
    panel = build_synthetic_panel()
    if path is not None:
        _write_cached_panel(panel, path)
    return panel


@cache
def default_panel() -> MarketPanel:
    """Return the default dataset, loaded once per process (its arrays are read-only)."""
    return load_default_panel()
