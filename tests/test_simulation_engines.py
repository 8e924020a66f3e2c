"""The compiled engine against the numpy reference: every operator, random graphs, errors, threads.

Both evaluators perform the same floating-point operations in the same order,
so they agree exactly, with the same rank ties and the same missing values.
The one thing they do not share is the implementation of ``log`` and ``pow``:
where numpy's (vectorised on some processors) differs from the C library's
the engine calls, agreement to 1e-9 relative is required instead.
"""

from __future__ import annotations

import math
import threading
from typing import Any

import numpy as np
import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

from simulation_support import Graph, mixed_graph, node
from tallowmere import _native
from tallowmere.simulation.dependence import copula_mutual_information, largest_copula_mutual_information
from tallowmere.simulation.engines import ENGINE_VARIABLE, compile_program, evaluate_book, evaluate_values, resolve_engine
from tallowmere.simulation.expression import compile_expression
from tallowmere.simulation.market_panel import FIELD_NAMES, FloatArray, MarketPanel
from tallowmere.simulation.operators import OPERATORS
from tallowmere.simulation.portfolio import daily_book, signal_weights
from tallowmere.simulation.simulator import simulate_signal
from tallowmere.simulation.synthetic_market import default_panel

DAYS, ASSETS = 40, 9


def _awkward_panel() -> MarketPanel:
    """A small panel with every hard case: missing values, ties, flat rows and columns, huge and tiny values."""
    rng = np.random.default_rng(7)
    close = np.round(rng.lognormal(3.0, 0.3, (DAYS, ASSETS)), 1)  # rounding makes ties
    close[:, 3] = close[:, 2]  # a duplicated asset: ties on every day, after any computation
    close[:, 4] = 25.0  # a flat asset
    close[12] = 17.5  # a flat day
    close[5, 1] = close[20, 6] = np.nan
    volume = rng.lognormal(14.0, 1.0, (DAYS, ASSETS))
    volume[:, 5] = 1e300  # overflows into infinities, which become missing
    volume[30:33, 7] = np.nan
    returns = np.full((DAYS, ASSETS), np.nan)
    returns[1:] = close[1:] / close[:-1] - 1.0
    returns[8, :] = 0.0  # zeros: signs, logs and divisions by zero
    opens = close * 0.99
    return MarketPanel(
        open=opens,
        high=close * 1.02,
        low=-close,  # negative: logs, roots and powers of negative numbers
        close=close,
        volume=volume,
        returns=returns,
        vwap=rng.normal(0.0, 1e-12, (DAYS, ASSETS)),  # tiny values near flat
        in_sample_days=30,
    )


AWKWARD = _awkward_panel()


def _numpy_matches_the_c_library() -> bool:
    samples = np.random.default_rng(3).lognormal(0.0, 30.0, 4096)
    exponents = np.random.default_rng(4).normal(0.0, 3.0, 4096)
    logs_agree = all(math.log(x) == y for x, y in zip(samples, np.log(samples), strict=True))
    powers = np.power(samples**0.01, exponents)
    powers_agree = all(math.pow(x**0.01, e) == y for x, e, y in zip(samples, exponents, powers, strict=True))
    return logs_agree and powers_agree


EXACT = _numpy_matches_the_c_library()


def _assert_same(native: FloatArray, reference: FloatArray) -> None:
    np.testing.assert_array_equal(np.isnan(native), np.isnan(reference), err_msg="missing values differ")
    if EXACT:
        np.testing.assert_array_equal(native, reference)
        return
    present = ~np.isnan(reference)
    np.testing.assert_allclose(native[present], reference[present], rtol=1e-9, atol=0.0)


def _both(graph: Graph, panel: MarketPanel = AWKWARD) -> tuple[FloatArray, FloatArray]:
    root = compile_expression(graph, day_count=panel.day_count)
    return evaluate_values(root, panel, "native"), evaluate_values(root, panel, "reference")


def _windows(name: str) -> list[int]:
    smallest = OPERATORS[name].min_window
    return sorted({smallest, smallest + 1, 4, 5, 7, 8, 16, 21, DAYS - 1, DAYS})


WINDOWED = [name for name, item in OPERATORS.items() if item.min_window]
ELEMENTWISE = [name for name, item in OPERATORS.items() if item.kind in ("elementwise", "cross_sectional")]
LEAVES = [node(name) for name in FIELD_NAMES] + [node("const", value=-2.5)]


@pytest.mark.parametrize("leaf", LEAVES, ids=lambda leaf: str(leaf["op"]))
@pytest.mark.parametrize("name", ELEMENTWISE)
def test_every_elementwise_and_cross_sectional_operator_agrees(name: str, leaf: Graph) -> None:
    arguments = [leaf] if OPERATORS[name].arity == 1 else [leaf, node("close")]
    native, reference = _both(node(name, *arguments))
    _assert_same(native, reference)


@pytest.mark.parametrize("name", WINDOWED)
def test_every_window_operator_agrees_at_every_window_length(name: str) -> None:
    for window in _windows(name):
        for leaf in (node("close"), node("volume"), node("vwap"), node("returns"), node("const", value=3.0)):
            arguments = [leaf] if OPERATORS[name].arity == 1 else [leaf, node("open")]
            native, reference = _both(node(name, *arguments, window=window))
            _assert_same(native, reference)


@pytest.mark.parametrize("leaf", [node("close"), node("sign", node("returns")), node("const", value=1.0)])
def test_rank_ties_and_missing_values_are_identical(leaf: Graph) -> None:
    for ranked in (node("rank", leaf), node("ts_rank", leaf, window=6), node("rank", node("ts_rank", leaf, window=3))):
        native, reference = _both(ranked)
        np.testing.assert_array_equal(native, reference)  # ties to the last bit, NaN in place
    ranks, _ = _both(node("rank", node("close")))
    np.testing.assert_array_equal(ranks[:, 2], ranks[:, 3])  # the duplicated asset ties with its twin


def _rank_days(days: list[FloatArray]) -> tuple[FloatArray, FloatArray]:
    """The native and reference ranks of each day of ``days`` (one row each), and the exact ranks (sorting)."""
    values = np.array(days)
    panel = MarketPanel(**{name: np.ones_like(values) for name in FIELD_NAMES if name != "close"}, close=values,
                        in_sample_days=1)  # fmt: skip
    native, reference = _both(node("rank", node("close")), panel)
    np.testing.assert_array_equal(native, reference)
    generic = np.empty_like(values)
    _native.evaluate_program((("field", (), 0, 0.0), ("rank", (0,), 0, 0.0)), (values,), values=generic, generic=True)
    np.testing.assert_array_equal(generic, native)
    return native, values


def _exact_ranks(row: FloatArray) -> FloatArray:
    """Ties averaged, missing values missing, from a sort."""
    present = row[~np.isnan(row)]
    ranks = np.full(row.shape, np.nan)
    if present.size == 1:
        ranks[~np.isnan(row)] = 0.5
        return ranks
    for index, value in enumerate(row):
        if value == value:
            first = np.count_nonzero(present < value)
            last = first + np.count_nonzero(present == value) - 1
            ranks[index] = (first + last) / (2.0 * (present.size - 1))
    return ranks


def test_the_rank_of_hard_days_is_exact() -> None:
    rng = np.random.default_rng(11)
    assets = 40
    base = rng.normal(size=assets)
    days = [
        base,
        np.where(np.arange(assets) < 10, 0.5, base),  # ten equal values: one crowded bucket
        np.where(np.arange(assets) == 0, 1e12, base),  # a far outlier crowds the rest into few buckets
        np.where(np.arange(assets) == 5, 1.7e308, np.where(np.arange(assets) == 6, -1.7e308, base)),  # the range overflows
        1.0 + base * 1e-12,  # neighbours closer than single precision tells apart
        base * 1e-310,  # subnormal values: a range too small to bucket
        np.where(np.arange(assets) % 2 == 0, 1e39, -1e39) * (1.0 + np.arange(assets)),  # beyond single precision
        np.where(np.arange(assets) % 3 == 0, np.nan, base),  # missing values among present ones
        np.where(np.arange(assets) == 7, 2.0, np.nan),  # one present value
        np.round(base, 1),  # many ties
        np.full(assets, -0.0),  # one value (of two signs of zero)
        np.where(np.arange(assets) < 20, -0.0, 0.0),
        # an outlier crowds the rest into buckets of nine or ten, then twice the buckets hold them
        np.where(np.arange(assets) == 0, 20.0, np.linspace(0.0, 1.0, assets)),
        np.where(np.arange(assets) == 0, -20.0, np.linspace(0.0, 1.0, assets)),
        # distinct neighbours far closer than a bucket's key tells apart, once low, once high in a bucket
        np.where(np.arange(assets) == 3, base[4] + 1e-9, base),
        np.where(np.arange(assets) == 3, np.nextafter(base[4], np.inf), base),
    ]
    native, values = _rank_days(days)
    for row, ranks in zip(values, native, strict=True):
        np.testing.assert_array_equal(ranks, _exact_ranks(row))


@pytest.mark.parametrize("assets", [2, 3, 7, 8, 9, 63, 257])
def test_the_rank_of_any_width_is_exact(assets: int) -> None:
    rng = np.random.default_rng(assets)
    days = [rng.normal(size=assets), rng.integers(0, 3, assets).astype(float), np.exp(rng.normal(0.0, 20.0, assets))]
    native, values = _rank_days(days)
    for row, ranks in zip(values, native, strict=True):
        np.testing.assert_array_equal(ranks, _exact_ranks(row))


def test_the_rank_of_a_very_wide_day_is_exact() -> None:
    # beyond the fast rank's widest day: every day is bucketed exactly
    rng = np.random.default_rng(5)
    assets = 16_001
    days = [rng.normal(size=assets), np.where(np.arange(assets) % 7 == 0, np.nan, rng.integers(0, 50, assets).astype(float))]
    native, values = _rank_days(days)
    for row, ranks in zip(values, native, strict=True):
        present = np.sort(row[~np.isnan(row)])
        first = np.searchsorted(present, row, side="left")
        last = np.searchsorted(present, row, side="right") - 1
        np.testing.assert_array_equal(ranks, np.where(np.isnan(row), np.nan, (first + last) / (2.0 * (present.size - 1))))


def test_the_rank_of_a_single_asset_is_the_middle_or_missing() -> None:
    values = np.empty((3, 1))
    _native.evaluate_program((("field", (), 0, 0.0), ("rank", (0,), 0, 0.0)), (np.array([[2.0], [np.nan], [-0.0]]),), values=values)
    np.testing.assert_array_equal(values, [[0.5], [np.nan], [0.5]])


def _oracle_window(values: FloatArray, window: int, statistic: str) -> FloatArray:
    """A window statistic from exact sums (math.fsum) over each window's own values, one asset."""
    out = np.full(values.shape, np.nan)
    for end in range(window - 1, values.shape[0]):
        days = values[end - window + 1 : end + 1]
        mean = math.fsum(days) / window
        if statistic == "sum":
            out[end] = math.fsum(days)
        elif statistic == "mean":
            out[end] = mean
        else:
            squares = math.fsum((float(x) - mean) ** 2 for x in days)
            flat = squares <= (1e-10 * mean) ** 2 * window  # the documented rule: a spread of rounding is none
            out[end] = 0.0 if flat else math.sqrt(squares / (window - 1))
    return out


@pytest.mark.parametrize(("operator", "statistic"), [("ts_sum", "sum"), ("ts_mean", "mean"), ("ts_std", "std")])
@pytest.mark.parametrize("level", [0.0, 1e3])
def test_window_statistics_agree_with_exact_sums_and_never_drift(operator: str, statistic: str, level: float) -> None:
    # A long history of noise around a level (up to a price a hundred thousand times its daily spread):
    # every window matches the exact statistic of its own days, at the end as at the start, so nothing
    # accumulates from the days before it. (Sums are compared on the scale of the values summed.)
    rng = np.random.default_rng(5)
    values = level + rng.normal(0.0, 1.0, (3000, 2)) * np.array([1.0, 1e-2])
    panel = MarketPanel(**{name: values for name in FIELD_NAMES}, in_sample_days=100)
    for window in (2, 7, 64, 250):
        native, reference = _both(node(operator, node("close"), window=window), panel)
        np.testing.assert_array_equal(native, reference)
        for asset in range(2):
            exact = _oracle_window(values[:, asset], window, statistic)
            scale = np.abs(values[:, asset]).max() if statistic != "std" else 1e-2 if asset else 1.0
            np.testing.assert_allclose(native[:, asset], exact, rtol=1e-9, atol=1e-9 * scale)


def test_window_correlations_agree_with_exact_sums() -> None:
    rng = np.random.default_rng(6)
    left = 1e4 + rng.normal(size=(1500, 3))
    right = 0.5 * left + rng.normal(size=(1500, 3)) * np.array([1.0, 10.0, 1e-3])
    panel = MarketPanel(**{name: left for name in FIELD_NAMES if name != "vwap"}, vwap=right, in_sample_days=100)
    for window in (2, 10, 99, 300):
        native, reference = _both(node("ts_corr", node("close"), node("vwap"), window=window), panel)
        np.testing.assert_array_equal(native, reference)
        for asset in range(3):
            for end in range(window - 1, 1500, 37):
                a, b = left[end - window + 1 : end + 1, asset], right[end - window + 1 : end + 1, asset]
                ma, mb = math.fsum(a) / window, math.fsum(b) / window
                cross = math.fsum((x - ma) * (y - mb) for x, y in zip(a, b, strict=True))
                spread = math.sqrt(math.fsum((x - ma) ** 2 for x in a) * math.fsum((y - mb) ** 2 for y in b))
                assert math.isclose(native[end, asset], max(-1.0, min(1.0, cross / spread)), rel_tol=1e-9, abs_tol=1e-12)


def test_a_graph_evaluates_its_shared_subtrees_once_and_keeps_constants_apart() -> None:
    shared = node("ts_mean", node("close"), window=5)
    graph = node("add", node("mul", shared, node("const", value=0.0)), node("div", shared, node("const", value=-0.0)))
    program = compile_program(compile_expression(graph, day_count=DAYS))
    assert [step[0] for step in program.steps] == ["field", "ts_mean", "const", "mul", "const", "div", "add"]
    assert program.fields == ("close",)


def test_weights_and_the_daily_book_are_identical_on_the_default_panel() -> None:
    panel = default_panel()
    root = compile_expression(mixed_graph(), day_count=panel.day_count)
    native, reference = evaluate_book(root, panel, "native"), evaluate_book(root, panel, "reference")
    np.testing.assert_array_equal(native.weights, reference.weights)
    for figure in ("pnl", "traded", "net", "gross", "largest"):
        np.testing.assert_array_equal(getattr(native.book, figure), getattr(reference.book, figure))


@pytest.mark.parametrize("assets", [1, 2, 7, 8, 13, 300])
@pytest.mark.parametrize("generic", [False, True])
def test_weights_and_the_daily_book_match_the_reference_on_awkward_days(assets: int, generic: bool) -> None:
    # Days with missing and infinite values, one present value, a constant row,
    # rounding-level spread and huge levels; asset counts around the eight lanes.
    rng = np.random.default_rng(assets)
    values = rng.normal(size=(40, assets))
    values[rng.random(values.shape) < 0.2] = np.nan
    values[1] = np.inf
    values[2, 1:] = np.nan
    values[3] = 4.25
    values[4] = 1.0 + rng.normal(scale=1e-13, size=assets)
    values[5] = rng.normal(1e300, 1e299, size=assets)
    returns = rng.normal(scale=0.01, size=values.shape)
    returns[rng.random(returns.shape) < 0.1] = np.nan
    weights, daily = np.empty_like(values), np.empty((5, values.shape[0]))
    program = (("field", (), 0, 0.0),)
    _native.evaluate_program(program, (values,), weights=weights, returns=returns, daily=daily, generic=generic)
    expected = signal_weights(values)
    np.testing.assert_array_equal(weights, expected)
    book = daily_book(expected, returns)
    np.testing.assert_array_equal(daily, np.stack([book.pnl, book.traded, book.net, book.gross, book.largest]))


def test_simulations_with_either_engine_give_identical_results() -> None:
    graph = mixed_graph()
    references = [simulate_signal(node("rank", node("returns")), record_timing=False).pnl]
    native = simulate_signal(graph, reference_pnls=references, record_timing=False, engine="native")
    reference = simulate_signal(graph, reference_pnls=references, record_timing=False, engine="reference")
    assert (native.is_stats, native.os_stats, native.is_pnl_mi) == (reference.is_stats, reference.os_stats, reference.is_pnl_mi)
    np.testing.assert_array_equal(native.pnl, reference.pnl)
    assert not native.weights.flags.writeable and not native.pnl.flags.writeable


# ---- random graphs ----------------------------------------------------------------------


def _graphs(days: int) -> st.SearchStrategy[Graph]:
    leaves = st.one_of(
        st.sampled_from(FIELD_NAMES).map(lambda name: node(name)),
        st.sampled_from([0.0, -1.0, 0.5, 2.0, 1e200]).map(lambda value: node("const", value=value)),
    )

    def extend(children: st.SearchStrategy[Graph]) -> st.SearchStrategy[Graph]:
        @st.composite
        def built(draw: Any) -> Graph:
            name = draw(st.sampled_from([name for name, item in OPERATORS.items() if item.arity]))
            operator = OPERATORS[name]
            arguments = [draw(children) for _ in range(operator.arity)]
            if operator.min_window:
                window = draw(st.integers(operator.min_window, max(operator.min_window, days)))
                return node(name, *arguments, window=window)
            return node(name, *arguments)

        return built()

    return st.recursive(leaves, extend, max_leaves=8)


@st.composite
def _panels(draw: Any) -> MarketPanel:
    days = draw(st.integers(2, 30))
    assets = draw(st.integers(2, 7))
    pool = draw(st.sampled_from(["integers", "decimals", "continuous"]))
    rng = np.random.default_rng(draw(st.integers(0, 2**32 - 1)))
    fields: dict[str, FloatArray] = {}
    for name in FIELD_NAMES:
        if pool == "integers":
            values = rng.integers(-3, 4, (days, assets)).astype(float)
        elif pool == "decimals":
            values = np.round(rng.normal(0.0, 1.0, (days, assets)), 1)
        else:
            values = rng.normal(0.0, 1.0, (days, assets)) * 10.0 ** rng.integers(-8, 9)
        values[rng.random((days, assets)) < draw(st.sampled_from([0.0, 0.1, 0.4]))] = np.nan
        fields[name] = values
    return MarketPanel(**fields, in_sample_days=days)


@settings(max_examples=150, deadline=None, suppress_health_check=[HealthCheck.too_slow])
@given(data=st.data())
def test_random_graphs_agree_on_random_panels(data: st.DataObject) -> None:
    panel = data.draw(_panels())
    graph = data.draw(_graphs(panel.day_count))
    native, reference = _both(graph, panel)
    _assert_same(native, reference)


# ---- errors and the native entry point ----------------------------------------------------


@pytest.mark.parametrize("engine", ["native", "reference"])
@pytest.mark.parametrize(
    ("graph", "data", "message"),
    [
        (node("add", node("close"), node("clsoe")), None, r"graph node at root\.args\[1\] \(clsoe\): unknown operator"),
        (node("ts_mean", node("close"), window=0), None, r"graph node at root \(ts_mean\): 'window' must be an integer >= 1"),
        (node("ts_std", node("close"), window=900), None, r"'window' 900 is longer than the panel's 756 days"),
        (node("rank", node("close")), {"close": np.ones((5, 3))}, "market data is missing required field"),
    ],
)
def test_errors_keep_their_messages_with_either_engine(engine: str, graph: Graph, data: object, message: str) -> None:
    with pytest.raises(ValueError, match=message):
        simulate_signal(graph, data=data, record_timing=False, engine=engine)  # type: ignore[arg-type]


def test_the_engine_is_chosen_in_one_place(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.delenv(ENGINE_VARIABLE, raising=False)
    assert resolve_engine() == "native"
    monkeypatch.setenv(ENGINE_VARIABLE, "reference")
    assert resolve_engine() == "reference" and resolve_engine("native") == "native"
    monkeypatch.setenv(ENGINE_VARIABLE, "gpu")
    with pytest.raises(ValueError, match=f"{ENGINE_VARIABLE} must be one of native, reference, got 'gpu'"):
        simulate_signal(node("close"), record_timing=False)
    with pytest.raises(ValueError, match="engine must be one of native, reference, got 'numba'"):
        simulate_signal(node("close"), record_timing=False, engine="numba")


CLOSE = np.ones((4, 3))


@pytest.mark.parametrize(
    ("program", "fields", "keywords", "message"),
    [
        ((), (CLOSE,), {}, "program must hold at least one node"),
        ((("field", (), 0, 0.0),), (), {}, "fields must hold at least one array"),
        ((("nope", (), 0, 0.0),), (CLOSE,), {}, r"program\[0\]: unknown operator 'nope'"),
        ((("field", (), 1, 0.0),), (CLOSE,), {}, r"program\[0\]: the field index is out of range"),
        ((("field", (), 0, 0.0), ("neg", (1,), 0, 0.0)), (CLOSE,), {}, r"program\[1\]: an argument must be an earlier node"),
        ((("field", (), 0, 0.0), ("add", (0,), 0, 0.0)), (CLOSE,), {}, r"add takes a tuple of 2 argument"),
        ((("field", (), 0, 0.0), ("ts_std", (0,), 1, 0.0)), (CLOSE,), {}, r"ts_std needs a window from 2 to the panel's 4 days"),
        ((("field", (), 0, 0.0), ("ts_sum", (0,), 5, 0.0)), (CLOSE,), {}, r"ts_sum needs a window from 1"),
        ((("field", (), 0, 0.0), ("ts_sum", (0,), True, 0.0)), (CLOSE,), {}, r"the window must be an int"),
        ((("const", (), 0, math.inf),), (CLOSE,), {}, r"a constant must be finite"),
        ((("const", (), 0, 1),), (CLOSE,), {}, r"the value must be a float"),
        (("field",), (CLOSE,), {}, r"a node must be a tuple"),
        ((("field", (), 0, 0.0),), (CLOSE.astype(np.float32),), {}, r"fields\[0\] must be a C-contiguous 2-D float64 array"),
        ((("field", (), 0, 0.0),), (np.ones((4, 6))[:, ::2],), {}, r"fields\[0\] must be a C-contiguous 2-D float64 array"),
        ((("field", (), 0, 0.0),), (CLOSE, np.ones((3, 3))), {}, r"fields\[1\] must have shape \(4, 3\), got \(3, 3\)"),
        ((("field", (), 0, 0.0),), (CLOSE,), {"values": CLOSE}, "values must be a writable"),
        ((("field", (), 0, 0.0),), (CLOSE,), {"weights": np.ones((4, 2))}, r"weights must have shape \(4, 3\)"),
        ((("field", (), 0, 0.0),), (CLOSE,), {"daily": np.ones((5, 4))}, "daily figures need both weights and returns"),
    ],
)
def test_the_native_entry_point_refuses_bad_programs_and_arrays(
    program: Any, fields: Any, keywords: dict[str, Any], message: str
) -> None:
    if "values" in keywords:
        keywords = {"values": np.ones((4, 3))}
        keywords["values"].setflags(write=False)
    with pytest.raises(ValueError, match=message):
        _native.evaluate_program(program, fields, **keywords)


def test_threads_evaluate_side_by_side_with_identical_results() -> None:
    panel = default_panel()
    graphs = [mixed_graph(), node("rank", node("ts_corr", node("close"), node("volume"), window=30))] * 3
    roots = [compile_expression(graph, day_count=panel.day_count) for graph in graphs]
    expected = [evaluate_values(root, panel, "native") for root in roots]
    found: list[FloatArray | None] = [None] * len(roots)

    def run(index: int) -> None:
        found[index] = evaluate_values(roots[index], panel, "native")

    threads = [threading.Thread(target=run, args=(index,)) for index in range(len(roots))]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    for got, want in zip(found, expected, strict=True):
        np.testing.assert_array_equal(got, want)


def test_every_day_is_timed() -> None:
    result = simulate_signal(mixed_graph(), record_timing=False, engine="native")
    days = result.weights.shape[0]
    assert 0.0 < result.expression_elapsed_seconds < result.backtest_elapsed_seconds
    # The slowest day is at least the average day and at most the whole backtest.
    assert result.expression_elapsed_seconds / days <= result.max_row_elapsed_seconds < result.backtest_elapsed_seconds


def test_the_largest_mutual_information_is_the_largest_pair_and_stops_at_a_copy() -> None:
    rng = np.random.default_rng(9)
    series = rng.normal(size=60)
    others = [rng.normal(size=60) + weight * series for weight in (0.0, 0.5, 0.2)]
    pairs = [copula_mutual_information(series, other) for other in others]
    assert largest_copula_mutual_information(series, others) == max(pairs) > 0.0
    assert largest_copula_mutual_information(series, [others[0], 3.0 * series, np.zeros(2)]) == math.inf
    assert largest_copula_mutual_information(series, []) == 0.0
    with pytest.raises(ValueError, match="series to compare must be 1-D and of equal length"):
        largest_copula_mutual_information(series, [np.zeros(5)])


def test_the_build_for_any_processor_gives_the_same_numbers_as_the_vectorised_one() -> None:
    graphs = [mixed_graph(), node("rank", node("volume")), node("ts_corr", node("close"), node("vwap"), window=13)]
    for panel in (AWKWARD, default_panel()):
        for graph in graphs:
            program = compile_program(compile_expression(graph, day_count=panel.day_count))
            fields = tuple(panel.field(name) for name in program.fields)
            vectorised, generic = np.empty((panel.day_count, panel.asset_count)), np.empty((panel.day_count, panel.asset_count))
            _native.evaluate_program(program.steps, fields, values=vectorised)
            _native.evaluate_program(program.steps, fields, values=generic, generic=True)
            np.testing.assert_array_equal(vectorised, generic)
