"""The market panel: the default dataset's contract and consistency, and panels built from user data."""

from __future__ import annotations

import json
import re
from pathlib import Path

import numpy as np
import pytest

from simulation_support import reversal_graph
from tallowmere.simulation import MarketPanel, default_panel, simulate_signal
from tallowmere.simulation.market_panel import FloatArray
from tallowmere.simulation.synthetic_market import (
    CACHE_VARIABLE,
    build_synthetic_panel,
    load_default_panel,
    panel_cache_path,
)

CATALOG_DOC = Path(__file__).resolve().parent.parent / "README.md"


def test_default_panel_matches_the_published_data_contract() -> None:
    catalog_json = re.search(r"## A complete catalog\s+```json\n(.*?)```", CATALOG_DOC.read_text(), re.S)
    assert catalog_json is not None
    active_era = json.loads(catalog_json.group(1))["eras_by_market"]["1"][1]
    assert default_panel().contract_projection() == active_era["simulation_data_contract_projection"]


def test_default_panel_prices_are_consistent_and_rebuilt_identically() -> None:
    panel = default_panel()
    assert panel is default_panel()
    assert (panel.low > 0).all() and (panel.volume > 0).all()
    assert (panel.low <= np.minimum(panel.open, panel.close)).all()
    assert (np.maximum(panel.open, panel.close) <= panel.high).all()
    assert ((panel.low <= panel.vwap) & (panel.vwap <= panel.high)).all()
    np.testing.assert_allclose(panel.returns[1:], panel.close[1:] / panel.close[:-1] - 1.0, rtol=1e-12)
    rebuilt = build_synthetic_panel()
    for field in ("open", "high", "low", "close", "volume", "returns", "vwap"):
        np.testing.assert_array_equal(getattr(rebuilt, field), panel.field(field))
    with pytest.raises(ValueError, match="read-only"):
        panel.close[0, 0] = 1.0


def _prices(days: int = 30, assets: int = 4) -> dict[str, FloatArray]:
    closes = np.linspace(10.0, 20.0, days * assets).reshape(days, assets)
    volume = np.ones_like(closes)
    return {"open": closes, "high": closes * 1.01, "low": closes * 0.99, "close": closes, "volume": volume}


def test_a_mapping_gets_derived_returns_vwap_and_a_two_thirds_split() -> None:
    data = _prices()
    panel = MarketPanel.from_fields(data)
    assert np.isnan(panel.returns[0]).all()
    np.testing.assert_allclose(panel.returns[1:], data["close"][1:] / data["close"][:-1] - 1.0)
    np.testing.assert_allclose(panel.vwap, (data["high"] + data["low"] + data["close"]) / 3.0)
    assert (panel.in_sample_days, panel.name, panel.frequency) == (20, "custom", "1d")

    result = simulate_signal(reversal_graph(), data=data, in_sample_days=25, frequency="1h", record_timing=False)
    assert result.data_contract["in_sample_days"] == 25 and result.data_contract["frequency"] == "1h"


@pytest.mark.parametrize(
    ("change", "message"),
    [
        ({"close": np.ones((30, 5))}, r"'open' has shape \(30, 4\); every field must have the shape of 'close'"),
        ({"volume": np.ones(30)}, "market field 'volume' must be 2-D"),
        ({"high": np.full((30, 4), np.inf)}, "market field 'high' contains infinite values"),
        ({"price": np.ones((30, 4))}, "unknown market data field"),
        ({"open": None}, "missing required field"),
        ({"low": [["a"] * 4] * 30}, "market field 'low' must be a 2-D array of numbers"),
    ],
)
def test_bad_market_data_is_refused_naming_the_field(change: dict[str, object], message: str) -> None:
    data: dict[str, object] = {**_prices(), **change}
    data = {key: value for key, value in data.items() if value is not None}
    with pytest.raises(ValueError, match=message):
        MarketPanel.from_fields(data)  # type: ignore[arg-type]


@pytest.mark.parametrize(
    ("in_sample_days", "message"), [(0, "between 1 and"), (31, "between 1 and"), (2.5, "an integer")]
)
def test_the_in_sample_split_must_fit_the_panel(in_sample_days: object, message: str) -> None:
    with pytest.raises(ValueError, match=message):
        MarketPanel.from_fields(_prices(), in_sample_days=in_sample_days)  # type: ignore[arg-type]


def test_a_panel_carries_its_own_split() -> None:
    with pytest.raises(ValueError, match="a MarketPanel carries its own"):
        simulate_signal(reversal_graph(), data=default_panel(), in_sample_days=100)


def test_the_default_panel_is_kept_in_a_cache_file_that_later_processes_read(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setenv(CACHE_VARIABLE, str(tmp_path / "cache"))
    path = panel_cache_path()
    assert path is not None and path.parent == tmp_path / "cache" and not path.exists()
    built = load_default_panel()  # builds and keeps the file
    assert path.exists() and not list(path.parent.glob(".panel-*"))
    read = load_default_panel()
    for field in ("open", "high", "low", "close", "volume", "returns", "vwap"):
        np.testing.assert_array_equal(read.field(field), built.field(field))
        assert not read.field(field).flags.writeable
    assert read.contract_projection() == built.contract_projection()

    path.write_bytes(b"damaged")  # a damaged file is rebuilt and replaced
    np.testing.assert_array_equal(load_default_panel().close, built.close)
    np.testing.assert_array_equal(np.load(path)[3], built.close)

    monkeypatch.setenv(CACHE_VARIABLE, "")
    assert panel_cache_path() is None


def test_a_cache_that_cannot_be_written_is_not_kept(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    blocker = tmp_path / "file"
    blocker.write_text("not a directory")
    monkeypatch.setenv(CACHE_VARIABLE, str(blocker / "cache"))
    np.testing.assert_array_equal(load_default_panel().close, default_panel().close)
