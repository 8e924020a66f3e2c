"""The submission contract checked on the caller's side, and idempotency keys."""

from __future__ import annotations

import math
import re
from typing import Any

import pytest
from hypothesis import given
from hypothesis import strategies as st

import tallowmere.submit as submit
from tallowmere.submit import SignalServiceClient

from submit_support import PASSING_STATS

validate = SignalServiceClient._validate_submission_contract


@pytest.mark.parametrize(
    ("value", "expected"),
    [(math.inf, "Infinity"), ("Infinity", "Infinity"), (3, 3.0), (0.25, 0.25), (0, 0.0)],
)
def test_mi_contract_json_value(value: object, expected: object) -> None:
    result = submit._mi_contract_json_value(value)
    assert result == expected and type(result) is type(expected)


@pytest.mark.parametrize("value", [-math.inf, "-Infinity", math.nan, True, "inf", [1], None])
def test_mi_contract_json_value_refuses(value: object) -> None:
    with pytest.raises(ValueError, match="^is_pnl_mi must be a scalar number or Infinity$"):
        submit._mi_contract_json_value(value)


def test_stat_metric_takes_the_first_finite_value() -> None:
    keys = ("sharpe", "is_sharpe", "gross_returns_sharpe")
    assert submit._stat_metric({"sharpe": math.nan, "is_sharpe": 1}, keys) == 1.0
    assert type(submit._stat_metric({"is_sharpe": 1}, keys)) is float
    assert submit._stat_metric({"sharpe": "2", "gross_returns_sharpe": True}, keys) is None
    assert submit._stat_metric({}, keys) is None


@pytest.mark.parametrize("kwargs", [{"thresholds": {}}, {"threshold_checks": []}, {"thresholds": 0}])
def test_caller_thresholds_are_refused(kwargs: dict[str, Any]) -> None:
    with pytest.raises(ValueError, match="^caller-supplied thresholds are not accepted; submit thresholds must "):
        submit._reject_caller_threshold_authority(**kwargs)
    submit._reject_caller_threshold_authority()


def test_threshold_gates_get_the_statistics_by_their_first_finite_key(monkeypatch: pytest.MonkeyPatch) -> None:
    calls: list[dict[str, Any]] = []

    class Passed:
        passed, failures = True, ()

    monkeypatch.setattr(submit, "evaluate_threshold_gates", lambda **kw: calls.append(kw) or Passed())
    thresholds = {"min_sharpe": 1.0}
    stats = {"avg_turnover": 0.3, "sharpe": math.inf, "is_sharpe": 2, "is_correlation": 0.4, "max_weight": "big"}
    submit._validate_submission_thresholds(stats, "Infinity", thresholds=thresholds)
    (call,) = calls
    assert call["threshold_set"] is thresholds and call["pool_thresholds"] is thresholds
    assert call["metrics"] == {"sharpe": 2.0, "turnover": 0.3, "delta_exposure": None, "max_weight": None,
                               "abs_weight_sum_mean": None, "is_correlation": 0.4, "is_pnl_mi": math.inf}  # fmt: skip
    assert list(call["metrics"]) == ["sharpe", "turnover", "delta_exposure", "max_weight", "abs_weight_sum_mean",
                                     "is_correlation", "is_pnl_mi"]  # fmt: skip
    submit._validate_submission_thresholds(stats, 0.1)
    assert len(calls) == 1
    with pytest.raises(ValueError, match="^thresholds must be a dict$"):
        submit._validate_submission_thresholds(stats, 0.1, thresholds=[])


def test_only_the_first_failed_gate_is_reported() -> None:
    stats = {"sharpe": 0.4, "turnover": 0.95}
    with pytest.raises(ValueError, match=r"^sharpe failed: 0\.4 >= 1\.0$"):
        submit._validate_submission_thresholds(stats, 0.1, thresholds={"min_sharpe": 1.0, "max_turnover": 0.9})
    with pytest.raises(ValueError, match=r"^is_pnl_mi failed: inf <= 0\.3$"):
        submit._validate_submission_thresholds(stats, math.inf, thresholds={"is_pnl_mi_threshold": 0.3})


@pytest.mark.parametrize("value", [True, 0, -1, 2.0, "3"])
def test_manifest_integers(value: object) -> None:
    with pytest.raises(ValueError, match="^client_manifest_version must be a positive integer$"):
        submit._validate_optional_manifest_int(value, "client_manifest_version")
    assert submit._validate_optional_manifest_int(7, "x") == 7 and submit._validate_optional_manifest_int(None, "x") is None


def test_pool_names_and_retired_aliases() -> None:
    for value in ["", 5, None]:
        with pytest.raises(ValueError, match="^signal_pool_name must be a non-empty string$"):
            submit._validate_selected_pool_name(value)
    submit._validate_selected_pool_name("   ")
    with pytest.raises(ValueError, match="^strategy_pool_name must be a non-empty string$"):
        submit._validate_selected_pool_name("", "strategy_pool_name")
    with pytest.raises(ValueError, match="^universe_id is retired; submit named_universe$"):
        submit._reject_retired_universe_aliases({"valid_universe_id": 1, "universe_id": 2})
    submit._reject_retired_universe_aliases(["universe_id"])


def test_stats_payload_drops_only_the_private_key() -> None:
    stats = {"sharpe": 1.0, "_threshold_checks": {"a": 1}}
    assert submit._submission_is_stats_payload(stats) == {"sharpe": 1.0}
    assert "_threshold_checks" in stats


# ---- named universes ------------------------------------------------------------------------------


@pytest.fixture
def agent_config(monkeypatch: pytest.MonkeyPatch, tmp_path: Any) -> Any:
    from tallowmere.agent_onboarding import _config

    def configure(text: str | None) -> None:
        path = tmp_path / "agent.toml"
        if text is not None:
            path.write_text(text)
        monkeypatch.setenv("TALLOWMERE_AGENT_CONFIG", str(path))
        _config.reload()

    yield configure
    _config.reload()


def test_named_universe_falls_back_on_the_agent_configuration(agent_config: Any) -> None:
    agent_config(None)
    with pytest.raises(ValueError, match="^named_universe is required$"):
        submit._validate_named_universe(None)
    agent_config('named_universe = "  top300  "\n')
    assert submit._validate_named_universe(None) == "top300"
    assert submit._validate_named_universe(" liquid150 ") == "liquid150"
    agent_config("named_universe = [broken\n")
    with pytest.raises(ValueError, match="^named_universe is required$"):
        submit._validate_named_universe("")


def test_named_universe_import_failure_reads_as_missing(monkeypatch: pytest.MonkeyPatch, agent_config: Any) -> None:
    import sys

    agent_config(None)
    monkeypatch.setitem(sys.modules, "tallowmere.agent_onboarding", None)
    with pytest.raises(ValueError, match="^named_universe is required$"):
        submit._validate_named_universe(None)


@pytest.mark.parametrize("value", ["a/b", "..", " ../x ", "bad\x00name", "x" * 200])
def test_unsafe_universes_are_reported_with_the_callers_value(value: str) -> None:
    with pytest.raises(ValueError) as caught:
        submit._validate_named_universe(value)
    assert str(caught.value) == "named_universe must be a single safe path segment, got " + repr(value)


# ---- the whole contract --------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("overrides", "message"),
    [
        ({"signal_pool_name": ""}, "signal_pool_name must be a non-empty string"),
        ({"is_stats": [1]}, "is_stats must be a dict"),
        ({"is_stats": {"is_pnl_mi": 0.1}}, "is_stats must not contain MI contract fields"),
        ({"is_stats": {"sharpe": math.nan}}, "is_stats values must be finite numbers"),
        ({"is_stats": {"nested": [{"x": math.inf}]}}, "is_stats values must be finite numbers"),
        ({"is_pnl_mi": True}, "is_pnl_mi must be a scalar number or Infinity"),
        ({"thresholds": {"min_sharpe": 5.0}}, "sharpe failed: 1.2 >= 5.0"),
        ({"expression_elapsed_seconds": 1}, "expression_elapsed_seconds must be a positive float"),
        ({"expression_elapsed_seconds": 0.0}, "expression_elapsed_seconds must be a positive float"),
        ({"expression_elapsed_seconds": math.inf}, "expression_elapsed_seconds must be a positive float"),
        ({"client_manifest_market_id": 0}, "client_manifest_market_id must be a positive integer"),
        ({"client_manifest_era_number": True}, "client_manifest_era_number must be a positive integer"),
    ],
)
def test_contract_refusals(overrides: dict[str, Any], message: str) -> None:
    arguments: dict[str, Any] = {"signal_pool_name": "momentum", "is_stats": dict(PASSING_STATS), "is_pnl_mi": 0.1,
                                 "expression_elapsed_seconds": 0.5, "thresholds": {"min_sharpe": 1.0}}  # fmt: skip
    arguments.update(overrides)
    with pytest.raises(ValueError, match="^" + re.escape(message) + "$"):
        validate(**arguments)


def test_contract_checks_timing_only_after_statistics_and_gates() -> None:
    with pytest.raises(ValueError, match="^is_stats values must be finite numbers$"):
        validate("p", {"sharpe": math.inf}, 0.1, 1)
    assert validate("p", dict(PASSING_STATS), math.inf, 0.5, None, 1, 2, 3) is None


# ---- idempotency keys ----------------------------------------------------------------------------


key_of = SignalServiceClient._idempotency_key_for_body

json_values = st.recursive(
    st.none() | st.booleans() | st.integers() | st.floats(allow_nan=False, allow_infinity=False) | st.text(),
    lambda inner: st.lists(inner, max_size=3) | st.dictionaries(st.text(max_size=8), inner, max_size=3),
    max_leaves=15,
)


@given(st.dictionaries(st.text(max_size=10), json_values, min_size=1, max_size=6))
def test_idempotency_key_ignores_key_order_and_its_own_entry(body: dict[str, Any]) -> None:
    key = key_of(body)
    assert re.fullmatch(r"sigsubmit-[0-9a-f]{64}", key)
    assert key_of(dict(reversed(list(body.items())))) == key
    assert key_of({**body, "idempotency_key": "anything"}) == key_of({k: v for k, v in body.items()
                                                                        if k != "idempotency_key"})  # fmt: skip


def test_idempotency_key_covers_nested_values() -> None:
    body = {"graph": {"op": "rank", "args": [{"op": "close"}]}, "is_stats": {"sharpe": 1.0}}
    changed = {"graph": {"op": "rank", "args": [{"op": "open"}]}, "is_stats": {"sharpe": 1.0}}
    assert key_of(body) != key_of(changed)
    assert key_of(body) == "sigsubmit-" + __import__("hashlib").sha256(
        b'{"graph":{"args":[{"op":"close"}],"op":"rank"},"is_stats":{"sharpe":1.0}}'
    ).hexdigest()


@pytest.mark.parametrize(("body", "error"), [({"x": math.nan}, ValueError), ({"x": object()}, TypeError),
                                             (None, AttributeError)])  # fmt: skip
def test_idempotency_key_of_unencodable_bodies(body: Any, error: type[Exception]) -> None:
    with pytest.raises(error):
        key_of(body)
