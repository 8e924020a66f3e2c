"""Replacing a module global or an instance attribute takes effect at once:
every call goes through the module namespace or the attribute when it is made."""

from __future__ import annotations

import hashlib
import logging
from collections import Counter
from collections.abc import Callable
from typing import Any

import httpx
import pytest

import tallowmere.submit as submit
from tallowmere.api.signal_types import SubmitResult

from submit_support import ERA_CATALOG, fake_client, json_answer, recorded_graph, signal_kwargs

ACCEPTED = json_answer(202, {"submission_id": "s-1"})
BATCH_ACCEPTED = json_answer(202, {"results": [{"index": 0, "status_code": 202, "body": {}}], "accepted": 1,
                                   "failed": 0})  # fmt: skip


@pytest.fixture
def calls(monkeypatch: pytest.MonkeyPatch) -> Counter[str]:
    """Wraps every callable global of the module (and the timing module's
    functions) in a spy that counts its calls and then does the real work."""
    counted: Counter[str] = Counter()

    def spy(name: str, target: Callable[..., Any]) -> Callable[..., Any]:
        def wrapper(*args: Any, **kwargs: Any) -> Any:
            counted[name] += 1
            return target(*args, **kwargs)

        return wrapper

    for name, value in list(vars(submit).items()):
        if name.startswith("__") or isinstance(value, type) or not callable(value):
            continue
        monkeypatch.setattr(submit, name, spy(name, value))
    timing = submit._backtest_timing

    class Timing:
        require_recorded_backtest_timing = staticmethod(spy("require", timing.require_recorded_backtest_timing))
        require_recorded_backtest_timings = staticmethod(spy("require_all", timing.require_recorded_backtest_timings))
        consume_recorded_backtest_timing = staticmethod(spy("consume", timing.consume_recorded_backtest_timing))
        assess_client_backtest_timing = staticmethod(spy("assess", timing.assess_client_backtest_timing))

    monkeypatch.setattr(submit, "_backtest_timing", Timing)
    return counted


SIGNAL_PATH = [
    "validate_bearer_transport_url", "_reject_caller_threshold_authority", "_validate_named_universe",
    "_normalize_named_universe", "_is_unsafe_named_universe", "_validate_selected_pool_name", "require",
    "_submission_thresholds_from_era_catalog", "_active_era_from_catalog", "_field_value", "_coerce_optional_int",
    "_rule_id_for_named_universe", "_shared_selected_signal_pool_from_era_config", "_signal_is_thresholds_for_pool",
    "_required_active_submit_era", "_required_positive_era_int", "_has_disallowed_mi_contract_field",
    "_has_non_finite_number", "_coerce_mi_contract_value", "_validate_submission_thresholds", "_stat_metric",
    "_is_finite_number", "evaluate_threshold_gates", "_validate_optional_manifest_int",
    "_enforce_graph_complexity_for_submit", "measure_graph_complexity", "_enforce_recorded_backtest_timing_for_submit",
    "consume", "_required_era_frequency", "assess", "_submission_is_stats_payload", "_mi_contract_json_value",
    "_simulation_data_contract_projection_from_era", "_request_json", "_join_url", "_parse_response_json",
]  # fmt: skip


def test_a_signal_submission_calls_every_helper_through_the_module(calls: Counter[str]) -> None:
    graph = recorded_graph("open", window=11)
    client, transport = fake_client(transmission_observer=lambda *a: None)
    transport.answer("/signals/submit", ACCEPTED)
    assert client.submit_signal(graph, "top300", **signal_kwargs(client_manifest_version=1)).error is None
    assert [name for name in SIGNAL_PATH if not calls[name]] == []


def test_batch_status_and_listing_call_through_the_module(calls: Counter[str]) -> None:
    graph = recorded_graph("close", window=12)
    client, transport = fake_client()
    transport.answer("/signals/batch", BATCH_ACCEPTED)
    transport.answer("/signals/status/s1", json_answer(200, {"status": "signal_found"}))
    transport.answer("/signals/submissions", json_answer(403, {"error": "forbidden"}))
    item = {"graph": graph, "named_universe": "top300", **signal_kwargs()}
    client.submit_signals_batch([item])
    client.get_signal_status("s1")
    client.list_signal_submissions()
    for name in ["_reject_retired_universe_aliases", "require_all", "_percent_encode", "_public_status_body",
                 "_coerce_status_metric", "_failure_reason_from_status_body", "_raise_submission_rejected"]:
        assert calls[name], name


@pytest.mark.parametrize(
    "record",
    ["SubmitResult", "StatusResult", "BatchSubmitResult", "BatchSubmitItemResult", "SubmissionListResult"],
)
def test_result_records_are_looked_up_when_built(monkeypatch: pytest.MonkeyPatch, record: str) -> None:
    built: list[dict[str, Any]] = []
    original = getattr(submit, record)
    monkeypatch.setattr(submit, record, lambda **fields: built.append(fields) or original(**fields))
    graph = recorded_graph("high", window=13)
    client, transport = fake_client()
    transport.answer("/signals/submit", ACCEPTED)
    transport.answer("/signals/batch", BATCH_ACCEPTED)
    transport.answer("/signals/status/s", json_answer(200, {"status": "signal_found"}))
    transport.answer("/signals/submissions", json_answer(200, {"submissions": []}))
    client.submit_signal(graph, "top300", **signal_kwargs())
    client.submit_signals_batch([{"graph": graph, "named_universe": "top300", **signal_kwargs()}])
    client.get_signal_status("s")
    client.list_signal_submissions()
    assert built


def test_a_result_class_changed_after_import_builds_its_records(monkeypatch: pytest.MonkeyPatch) -> None:
    graph = recorded_graph("high", window=15)
    client, transport = fake_client()
    transport.answer("/signals/submit", ACCEPTED)
    expected = SubmitResult(status_code=202, body={"submission_id": "s-1"}, submission_id="s-1",
                            signal_pool_name=None, strategy_pool_name=None, error=None)
    direct = client.submit_signal(graph, "top300", **signal_kwargs())
    assert type(direct) is SubmitResult and direct == expected
    initialised: list[dict[str, Any]] = []
    original_init = SubmitResult.__init__

    def init(self: SubmitResult, **fields: Any) -> None:
        initialised.append(fields)
        original_init(self, **fields)

    monkeypatch.setattr(SubmitResult, "__init__", init)
    assert client.submit_signal(graph, "top300", **signal_kwargs()) == expected
    assert [fields["submission_id"] for fields in initialised] == ["s-1"]


def test_telemetry_and_error_classes_are_looked_up_when_used(monkeypatch: pytest.MonkeyPatch) -> None:
    events: list[tuple[Any, ...]] = []
    monkeypatch.setattr(submit, "log_library_surface_event", lambda *a, **kw: events.append((a, kw)))
    graph = recorded_graph("low", window=14)
    client, transport = fake_client()
    transport.answer("/signals/submit", httpx.ConnectError("down"))
    assert client.submit_signal(graph, "top300", **signal_kwargs()).status_code == 0
    assert events and events[0][0] == ("Submission", "error")

    class Rejected(submit.SubmissionRejectedError):
        pass

    class Observed(submit._TransmissionObservedBody):
        made = 0

        def __init__(self, *args: Any) -> None:
            Observed.made += 1
            super().__init__(*args)

    monkeypatch.setattr(submit, "_TransmissionObservedBody", Observed)
    client._transmission_observer = lambda *a: None
    transport.answer("/signals/submit", ACCEPTED)
    assert client.submit_signal(graph, "top300", **signal_kwargs()).error is None and Observed.made == 1

    monkeypatch.setattr(submit, "SubmissionRejectedError", Rejected)
    with pytest.raises(Rejected):
        submit._raise_submission_rejected(409, {"reason": "dup"})
    transport.answer("/signals/submit", json_answer(409, {"reason": "dup"}))
    assert client.submit_signal(graph, "top300", **signal_kwargs()).error == "dup"


def test_a_failing_telemetry_call_raises_with_the_transport_error_as_context(monkeypatch: pytest.MonkeyPatch) -> None:
    def broken(*args: Any, **kwargs: Any) -> None:
        raise RuntimeError("telemetry down")

    monkeypatch.setattr(submit, "log_library_surface_event", broken)
    graph = recorded_graph("vwap", window=15)
    client, transport = fake_client()
    transport.answer("/signals/submit", httpx.ConnectError("down"))
    with pytest.raises(RuntimeError, match="telemetry down") as caught:
        client.submit_signal(graph, "top300", **signal_kwargs())
    assert isinstance(caught.value.__context__, httpx.ConnectError)


def test_logger_and_hashlib_are_looked_up_when_used(monkeypatch: pytest.MonkeyPatch) -> None:
    logger = logging.getLogger("replacement")
    monkeypatch.setattr(submit, "logger", logger)
    records: list[logging.LogRecord] = []
    handler = logging.Handler()
    handler.emit = records.append  # type: ignore[method-assign]
    logger.addHandler(handler)
    try:
        with pytest.raises(submit.SignalClientResponseError):
            submit._parse_response_json(200, b"", "u", operation="o")
    finally:
        logger.removeHandler(handler)
    assert len(records) == 1

    digests: list[bytes] = []
    monkeypatch.setattr(submit, "hashlib", type("H", (), {"sha256": lambda data: digests.append(data) or hashlib.sha256(data)}))
    submit.SignalServiceClient._idempotency_key_for_body({"a": 1})
    assert digests == [b'{"a":1}']


def test_instance_attributes_replace_the_methods(monkeypatch: pytest.MonkeyPatch) -> None:
    graph = recorded_graph("returns", window=16)
    client, transport = fake_client()
    sent: list[tuple[Any, ...]] = []
    client._fetch_era_catalog = lambda: ERA_CATALOG  # type: ignore[method-assign]
    client._canonical_request = lambda *args: sent.append(args) or (201, {"submission_id": "x"})  # type: ignore[method-assign]
    client._submit_result_from_body = lambda code, body: ("mapped", code, body)  # type: ignore[method-assign]
    client._idempotency_key_for_body = lambda body: "fixed-key"  # type: ignore[method-assign]
    assert client.submit_signal(graph, "top300", **signal_kwargs()) == ("mapped", 201, {"submission_id": "x"})
    assert transport.requests == [] and sent[0][2]["idempotency_key"] == "fixed-key"
    client._submit_result_from_transport_error = lambda exc: "transport"  # type: ignore[method-assign]
    client._canonical_request = lambda *args: (_ for _ in ()).throw(ConnectionResetError())  # type: ignore[method-assign]
    assert client.submit_signal(graph, "top300", **signal_kwargs()) == "transport"


def test_subclasses_override_the_mappings() -> None:
    class Client(submit.SignalServiceClient):
        @staticmethod
        def _submit_result_from_body(status_code: int, body: dict[str, Any]) -> SubmitResult:
            return SubmitResult(status_code=status_code, body=body, submission_id="override", signal_pool_name=None,
                                strategy_pool_name=None, error=None)  # fmt: skip

    graph = recorded_graph("close", window=17)
    _, transport = fake_client()
    transport.answer("/signals/submit", ACCEPTED)
    transport.answer("/strategies/submit", ACCEPTED)
    client = Client("http://127.0.0.1:9", "t", transport=transport)
    assert client.submit_signal(graph, "top300", **signal_kwargs()).submission_id == "override"
    assert client.submit_strategy(graph, "top300", strategy_pool_name="p", market_id=1, era_number=3).submission_id \
        == "override"  # fmt: skip
