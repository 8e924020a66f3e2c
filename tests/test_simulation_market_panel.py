"""The market panel: the default dataset (its contract, consistency, character and portable generator),
and panels built from user data."""

from __future__ import annotations

import hashlib
import json
import math
import re
import threading
from pathlib import Path

import numpy as np
import pytest

from simulation_support import reversal_graph
from tallowmere import _native
from tallowmere.simulation import MarketPanel, default_panel, simulate_signal
from tallowmere.simulation.market_panel import FIELD_NAMES, FloatArray
from tallowmere.simulation.portable_random import draws, normals, portable_exp, portable_log, stream_key, uniforms
from tallowmere.simulation.synthetic_market import build_synthetic_panel, reference_market_fields

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
    assert np.isfinite(np.stack([panel.field(name) for name in FIELD_NAMES])).all()
    rebuilt = build_synthetic_panel()
    for field in FIELD_NAMES:
        np.testing.assert_array_equal(getattr(rebuilt, field), panel.field(field))
    with pytest.raises(ValueError, match="read-only"):
        panel.close[0, 0] = 1.0


# The default dataset's bytes: the same on every machine, numpy version and
# build. A change of the recipe (or of the generator key) changes them, and
# then the dataset needs a new name (DATASET_NAME, and the eras' contract).
DEFAULT_PANEL_DIGEST = "5c794a234732a0f4a56aada77fc8fb0878b43f16dc33d8b18017b9f8e6251868"


def test_the_default_dataset_is_the_same_everywhere() -> None:
    fields = np.stack([default_panel().field(name) for name in FIELD_NAMES])
    assert hashlib.sha256(fields.astype("<f8").tobytes()).hexdigest() == DEFAULT_PANEL_DIGEST


def test_the_native_generator_gives_the_reference_recipe_bit_for_bit() -> None:
    np.testing.assert_array_equal(
        np.stack([default_panel().field(name) for name in FIELD_NAMES]), reference_market_fields()
    )
    for days, assets in ((1, 1), (3, 2), (31, 17)):
        vectorised, generic = np.empty((7, days, assets)), np.empty((7, days, assets))
        _native.synthetic_market(vectorised)
        _native.synthetic_market(generic, generic=True)
        expected = reference_market_fields(days, assets)
        np.testing.assert_array_equal(vectorised, expected)
        np.testing.assert_array_equal(generic, expected)
    # A shorter panel is the start of a longer one.
    np.testing.assert_array_equal(reference_market_fields(12, 17), reference_market_fields(31, 17)[:, :12])


def test_threads_generate_the_dataset_side_by_side() -> None:
    outputs = [np.empty((7, 60, 40)) for _ in range(4)]
    threads = [threading.Thread(target=_native.synthetic_market, args=(output,)) for output in outputs]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    for output in outputs:
        np.testing.assert_array_equal(output, outputs[0])


@pytest.mark.parametrize(
    ("fields", "message"),
    [
        (np.empty((6, 5, 3)), r"fields must have shape \(7, days, assets\) with at least one day and one asset, got \(6, 5, 3\)"),
        (np.empty((7, 0, 3)), r"got \(7, 0, 3\)"),
        (np.empty((7, 5)), "fields must be a C-contiguous 3-D float64 array"),
        (np.empty((7, 5, 3), dtype=np.float32), "fields must be a C-contiguous 3-D float64 array"),
        (np.empty((7, 5, 6))[:, :, ::2], "fields must be a writable C-contiguous 3-D float64 array"),
        (b"bytes", "fields must be a writable C-contiguous 3-D float64 array"),
    ],
)
def test_the_native_generator_refuses_bad_arrays(fields: object, message: str) -> None:
    with pytest.raises(ValueError, match=message):
        _native.synthetic_market(fields)


def test_the_dataset_has_fat_tails_clustered_volatility_and_sectors() -> None:
    panel = default_panel()
    returns = panel.returns
    scaled = (returns - returns.mean(axis=0)) / returns.std(axis=0)
    assert (scaled**4).mean() > 3.5  # a normal distribution's kurtosis is 3
    # Volatility clusters: a large move today makes one tomorrow likelier.
    size = np.abs(scaled)
    persistence = np.mean([np.corrcoef(size[1:, i], size[:-1, i])[0, 1] for i in range(panel.asset_count)])
    assert persistence > 0.03
    # Assets of one sector (every tenth) move together more than assets of different sectors.
    correlations = np.corrcoef(returns.T)
    same = np.mean([correlations[i, i + 10] for i in range(panel.asset_count - 10)])
    other = np.mean([correlations[i, i + 1] for i in range(panel.asset_count - 1)])
    assert same > other + 0.03


def test_the_portable_functions_agree_with_the_c_library() -> None:
    values = np.exp(np.linspace(-700.0, 700.0, 20001))
    np.testing.assert_allclose(portable_log(values), np.log(values), rtol=4e-16, atol=1e-300)
    exponents = np.linspace(-700.0, 700.0, 20001)
    np.testing.assert_allclose(portable_exp(exponents), np.exp(exponents), rtol=4e-16)
    key = stream_key(1, 2)
    samples = normals(draws(key, 0, 200_000))
    assert abs(samples.mean()) < 0.01 and abs(samples.std() - 1.0) < 0.01
    assert np.isfinite(samples).all() and np.abs(samples).max() < 8.3
    spread = uniforms(draws(key, 0, 200_000))
    assert 0.0 < spread.min() and spread.max() < 1.0 and abs(spread.mean() - 0.5) < 0.01
    # The tails: Acklam's approximation against the exact inverse function.
    from statistics import NormalDist

    for p in (1e-12, 0.001, 0.02, 0.02425, 0.3, 0.5, 0.97575, 0.999):
        bits = np.array([int(p * 2**52 - 0.5) << 12], dtype=np.uint64)  # the draw whose uniform is about p
        assert math.isclose(normals(bits)[0], NormalDist().inv_cdf(float(uniforms(bits)[0])), rel_tol=1e-8, abs_tol=1e-9)


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
