"""The module's surface: what loading it defines, in which order, of which kind."""

from __future__ import annotations

import importlib.machinery
import inspect
import json
import logging
import math

import pytest

import tallowmere.submit as submit
from tallowmere.api import signal_types
from tallowmere.simulation import backtest_timing, graph_complexity
from tallowmere.submit import SignalServiceClient

MODULE_DOC = (
    "Submit subcomponent \u2014 client-side signal and strategy submission.\n\n"
    "Canonical surface: :class:`SignalServiceClient`. Spec routes are bare\n"
    "``signals/submit`` etc. (no ``api/v1`` prefix), per\n"
    "``plans/tallowmere_library/tallowmere_library.md`` lines 241-244.\n"
)

IMPORTED_NAMES = [
    "json", "logging", "math", "time", "hashlib", "httpx", "Any", "Callable",
    "validate_bearer_transport_url", "graph_complexity", "measure_graph_complexity", "evaluate_threshold_gates",
    "_coerce_mi_contract_value", "_has_disallowed_mi_contract_field", "_has_non_finite_number", "_is_finite_number",
    "_is_unsafe_named_universe", "_normalize_named_universe", "_backtest_timing", "log_library_surface_event",
    "_shared_selected_signal_pool_from_era_config", "BatchSubmitItemResult", "BatchSubmitResult",
    "SubmissionListResult", "StatusResult", "SubmitResult",
]  # fmt: skip

DEFINITIONS = [
    "logger", "_MALFORMED_BODY_PREVIEW_BYTES", "_SIGNALS_BATCH_CLIENT_CHUNK_SIZE", "_TERMINAL_STATUSES",
    "_POLL_INTERVAL_SECONDS", "_UNRESERVED_BYTES", "_RETIRED_UNIVERSE_ALIAS_KEYS",
    "_mi_contract_json_value", "_stat_metric", "_reject_caller_threshold_authority",
    "_validate_submission_thresholds", "_validate_optional_manifest_int", "_submission_is_stats_payload",
    "_field_value", "_mapping_lookup", "_coerce_optional_int", "_active_era_from_catalog",
    "_required_active_submit_era", "_required_positive_era_int", "_required_era_frequency",
    "_simulation_data_contract_projection_from_era", "_enforce_graph_complexity_for_submit",
    "_enforce_recorded_backtest_timing_for_submit", "_rule_id_for_named_universe", "_signal_is_thresholds_for_pool",
    "_submission_thresholds_from_era_catalog", "_validate_selected_pool_name", "_validate_named_universe",
    "_reject_retired_universe_aliases", "_percent_encode", "SubmissionReceipt", "SubmissionStatus",
    "SubmissionRejectedError", "SignalClientResponseError", "_join_url", "_parse_response_json",
    "_coerce_status_metric", "_failure_reason_from_status_body", "_public_status_body", "_raise_submission_rejected",
    "_TransmissionObservedBody", "_request_json", "SignalServiceClient",
]  # fmt: skip

# (member, kind, parameters after self/cls as inspect shows them on the class)
CLIENT_MEMBERS = [
    ("__init__", "instance", "(base_url, jwt_token, *, timeout=30.0, transport=None, transmission_observer=None)"),
    ("close", "instance", "()"),
    ("_response_content", "instance", "(response)"),
    ("_transport_request", "instance", "(method, url, headers, body_content)"),
    ("_canonical_request", "instance", "(method, endpoint, body=None)"),
    ("_fetch_era_catalog", "instance", "()"),
    ("_resolve_submit_thresholds", "instance", "(named_universe, signal_pool_name, market_id=None, era_number=None)"),
    ("_submit_result_from_body", "static", "(status_code, body)"),
    ("_batch_item_result_from_body", "static", "(item)"),
    ("_batch_result_from_body", "class", "(status_code, body, *, error=None)"),
    ("_batch_body_item_from_result", "static", "(item)"),
    ("_batch_http_status_for_items", "static", "(results)"),
    ("_combine_batch_chunk_results", "class", "(chunk_results)"),
    ("_batch_result_with_partial_failure", "class", "(failure, prior_results, total_count)"),
    ("_rebase_batch_item_indices", "static", "(result, index_offset)"),
    ("_status_result_from_body", "static", "(status_code, body)"),
    ("_submission_list_result_from_body", "static", "(status_code, body, *, error=None)"),
    ("_submit_result_from_rejection", "static", "(exc)"),
    ("_status_result_from_rejection", "static", "(exc)"),
    ("_error_body_from_response_error", "static", "(exc)"),
    ("_submit_result_from_response_error", "class", "(exc)"),
    ("_batch_result_from_response_error", "class", "(exc)"),
    ("_status_result_from_response_error", "class", "(exc)"),
    ("_submit_result_from_transport_error", "static", "(exc)"),
    ("_batch_result_from_transport_error", "static", "(exc)"),
    ("_status_result_from_transport_error", "static", "(exc)"),
    ("_idempotency_key_for_body", "static", "(body)"),
    ("_validate_submission_contract", "static",
     "(signal_pool_name, is_stats, is_pnl_mi, expression_elapsed_seconds, thresholds=None, "
     "client_manifest_version=None, client_manifest_market_id=None, client_manifest_era_number=None)"),
    ("submit_signal", "instance",
     "(graph, named_universe=None, *, signal_pool_name, is_stats, is_pnl_mi, metaparameters=None, "
     "expression_elapsed_seconds, search_state=None, idempotency_key=None, threshold_checks=None, thresholds=None, "
     "client_manifest_version=None, market_id=None, era_number=None, client_manifest_market_id=None, "
     "client_manifest_era_number=None)"),
    ("submit_strategy", "instance",
     "(graph, named_universe=None, *, strategy_pool_name, market_id, era_number, metaparameters=None, "
     "idempotency_key=None, client_manifest_version=None, client_manifest_market_id=None, "
     "client_manifest_era_number=None)"),
    ("submit_signals_batch", "instance", "(submissions)"),
    ("get_signal_status", "instance", "(submission_id)"),
    ("list_signal_submissions", "instance", "(*, status=None, idempotency_key=None, since=None, limit=100)"),
    ("poll_until_terminal", "instance", "(submission_id, *, timeout)"),
]  # fmt: skip

CLASSES = [
    ("SubmissionReceipt", (object,), "Receipt returned after successful signal/strategy submission."),
    ("SubmissionStatus", (object,), "Status returned by poll_status for a submitted signal/strategy."),
    ("SubmissionRejectedError", (Exception,), "Raised when the server rejects a submission or poll request."),
    ("SignalClientResponseError", (Exception,), "Raised when signal_service returns an invalid response body."),
    ("_TransmissionObservedBody", (object,), "Seekable request body that observes the first transport read."),
    ("SignalServiceClient", (object,), "Result-based HTTP SDK facade backed by the canonical submit transport."),
]


def test_is_a_compiled_extension_for_cpython_312() -> None:
    loader = submit.__spec__.loader
    loader = getattr(loader, "_skbuild_loader", loader)  # a development (editable) install wraps it
    assert isinstance(loader, importlib.machinery.ExtensionFileLoader)
    assert submit.__file__.endswith(".cpython-312-x86_64-linux-gnu.so")


def test_module_doc_and_namespace_order() -> None:
    assert submit.__doc__ == MODULE_DOC
    names = [name for name in vars(submit) if not name.startswith("__")]
    assert names == IMPORTED_NAMES + DEFINITIONS


def test_imports_bind_the_sibling_objects() -> None:
    assert submit.json is json and submit.math is math
    assert submit.graph_complexity is graph_complexity
    assert submit._backtest_timing is backtest_timing
    assert submit.measure_graph_complexity is graph_complexity.measure_graph_complexity
    assert submit.SubmitResult is signal_types.SubmitResult
    from tallowmere.submissions.pool_identity import selected_signal_pool_from_era_config

    assert submit._shared_selected_signal_pool_from_era_config is selected_signal_pool_from_era_config


def test_constants() -> None:
    assert submit.logger is logging.getLogger("tallowmere.submit")
    assert type(submit._MALFORMED_BODY_PREVIEW_BYTES) is int and submit._MALFORMED_BODY_PREVIEW_BYTES == 512
    assert type(submit._SIGNALS_BATCH_CLIENT_CHUNK_SIZE) is int and submit._SIGNALS_BATCH_CLIENT_CHUNK_SIZE == 100
    assert type(submit._POLL_INTERVAL_SECONDS) is float and submit._POLL_INTERVAL_SECONDS == 0.1
    terminal = submit._TERMINAL_STATUSES
    assert type(terminal) is frozenset and len(terminal) == 8
    assert "signal_useful_transition_failed" in terminal and "signal_submitted" not in terminal
    unreserved = submit._UNRESERVED_BYTES
    assert type(unreserved) is frozenset and len(unreserved) == 66
    assert 65 in unreserved and "A" not in unreserved and ord("/") not in unreserved
    assert submit._RETIRED_UNIVERSE_ALIAS_KEYS == ("universe_id", "valid_universe_id", "valid_universe_rule_id")


@pytest.mark.parametrize(("name", "bases", "doc"), CLASSES)
def test_classes(name: str, bases: tuple[type, ...], doc: str) -> None:
    cls = getattr(submit, name)
    assert cls.__bases__ == bases
    assert cls.__doc__ == doc
    assert cls.__module__ == "tallowmere.submit" and cls.__qualname__ == name


def with_self(parameters: str) -> str:
    return "(self" + (", " + parameters[1:] if parameters != "()" else ")")


@pytest.mark.parametrize(("name", "kind", "parameters"), CLIENT_MEMBERS)
def test_client_member_kinds_and_signatures(name: str, kind: str, parameters: str) -> None:
    raw = SignalServiceClient.__dict__[name]
    client = SignalServiceClient("http://127.0.0.1:9", "t", transport=object())
    expected_type = {"static": staticmethod, "class": classmethod}.get(kind)
    if expected_type is None:
        # As for a method written in Python: `self` is an ordinary parameter of
        # the function on the class, and an instance's bound method drops it.
        assert not isinstance(raw, (staticmethod, classmethod)) and callable(raw)
        assert getattr(SignalServiceClient, name) is raw
        assert str(inspect.signature(raw)) == with_self(parameters)
        assert str(inspect.signature(getattr(client, name))) == parameters
        assert inspect.ismethod(getattr(client, name)) and getattr(client, name).__func__ is raw
        assert raw.__qualname__ == "SignalServiceClient." + name and raw.__module__ == "tallowmere.submit"
    else:
        assert isinstance(raw, expected_type)
        assert str(inspect.signature(getattr(SignalServiceClient, name))) == parameters
        assert str(inspect.signature(getattr(client, name))) == parameters


# Instance methods of the other classes: (class, member, signature on the class).
OTHER_METHODS = [
    ("SubmissionReceipt", "__init__", "(self, submission_id)"),
    ("SubmissionStatus", "__init__",
     "(self, submission_id, status, is_stats, payment, rejection_reason, signal_pool_name=None, is_correlation=None, "
     "agent_is_correlation=None, is_pnl_mi=None, agent_is_pnl_mi=None, failure_reason=None, failure_detail=None, "
     "failure_message=None)"),
    ("SubmissionRejectedError", "__init__", "(self, status_code, reason, details=None, body=None)"),
    ("SignalClientResponseError", "__init__", "(self, message, *, status_code, url, raw_body)"),
    ("_TransmissionObservedBody", "__init__", "(self, body_bytes, observer, method, url, headers)"),
    ("_TransmissionObservedBody", "_observe_once", "(self)"),
    ("_TransmissionObservedBody", "read", "(self, size=-1)"),
    ("_TransmissionObservedBody", "seek", "(self, offset, whence=0)"),
    ("_TransmissionObservedBody", "tell", "(self)"),
    ("_TransmissionObservedBody", "__iter__", "(self)"),
    ("_TransmissionObservedBody", "__next__", "(self)"),
]  # fmt: skip


@pytest.mark.parametrize(("cls", "name", "shown"), OTHER_METHODS)
def test_every_instance_method_reads_like_a_python_method(cls: str, name: str, shown: str) -> None:
    method = getattr(submit, cls).__dict__[name]
    assert str(inspect.signature(method)) == shown
    self_parameter = next(iter(inspect.signature(method).parameters.values()))
    assert self_parameter.kind is inspect.Parameter.POSITIONAL_OR_KEYWORD
    instance = getattr(submit, cls).__new__(getattr(submit, cls))
    bound = "(" + shown[len("(self") :].removeprefix(", ")
    assert str(inspect.signature(getattr(instance, name))) == bound


def test_each_method_keeps_its_own_docstring() -> None:
    methods = [SignalServiceClient.__dict__[name] for name, kind, _ in CLIENT_MEMBERS if kind == "instance"]
    docs = [method.__doc__ for method in methods if method.__doc__ is not None]
    assert len(docs) >= 8 and len(set(docs)) == len(docs)
    client = SignalServiceClient("http://127.0.0.1:9", "t", transport=object())
    assert client.submit_signal.__doc__ == SignalServiceClient.submit_signal.__doc__
    assert SignalServiceClient.submit_signal.__doc__.startswith("Validate a signal against the active era")


def test_self_is_an_ordinary_parameter() -> None:
    client = SignalServiceClient("http://127.0.0.1:9", "t", transport=object())
    assert SignalServiceClient.close(self=client) is None
    with pytest.raises(TypeError) as caught:
        SignalServiceClient.close()
    assert str(caught.value) == "SignalServiceClient.close() missing 1 required positional argument: 'self'"
    with pytest.raises(TypeError) as caught:
        SignalServiceClient.get_signal_status(client, "a", self=client)
    assert str(caught.value) == "SignalServiceClient.get_signal_status() got multiple values for argument 'self'"


def test_client_members_are_defined_in_order() -> None:
    members = [name for name in SignalServiceClient.__dict__ if name == "__init__" or not name.startswith("__")]
    assert members == [name for name, _, _ in CLIENT_MEMBERS]


def test_observed_body_members() -> None:
    cls = submit._TransmissionObservedBody
    assert isinstance(cls.__dict__["consumed"], property) and cls.__dict__["consumed"].fset is None
    assert str(inspect.signature(cls)) == "(body_bytes, observer, method, url, headers)"


@pytest.mark.parametrize(
    ("call", "message"),
    [
        (lambda c: c.submit_signal({}), "SignalServiceClient.submit_signal() missing 4 required keyword-only "
         "arguments: 'signal_pool_name', 'is_stats', 'is_pnl_mi', and 'expression_elapsed_seconds'"),
        (lambda c: c.get_signal_status(), "SignalServiceClient.get_signal_status() missing 1 required positional "
         "argument: 'submission_id'"),
        (lambda c: c.get_signal_status("a", "b"), "SignalServiceClient.get_signal_status() takes 2 positional "
         "arguments but 3 were given"),
        (lambda c: c.list_signal_submissions(1), "SignalServiceClient.list_signal_submissions() takes 1 positional "
         "argument but 2 were given"),
        (lambda c: c.poll_until_terminal("a", wait=1), "SignalServiceClient.poll_until_terminal() got an unexpected "
         "keyword argument 'wait'"),
        (lambda c: submit._join_url("a", "b", endpoint="c"), "_join_url() got multiple values for argument "
         "'endpoint'"),
        (lambda c: submit._request_json("GET"), "_request_json() missing 5 required positional arguments: "
         "'endpoint', 'get_token', 'server_url', 'body', and 'request_func'"),
    ],
)  # fmt: skip
def test_argument_errors_read_like_the_interpreters(call, message: str) -> None:
    client = SignalServiceClient("http://127.0.0.1:9", "t", transport=object())
    with pytest.raises(TypeError) as caught:
        call(client)
    assert str(caught.value) == message


def test_only_documented_docstrings_are_exact() -> None:
    assert submit._percent_encode.__doc__ == "Percent-encode every byte except RFC 3986 unreserved characters."
    assert submit._request_json.__doc__.startswith("Run an authenticated JSON request through the supplied transport.")
    assert submit._request_json.__doc__.endswith("SignalServiceClient passes that stream to httpx via ``content=``.\n")


def test_modules_load_again_in_a_subinterpreter() -> None:
    # Each interpreter gets its own module objects and state; nothing is shared
    # through C globals, so the main interpreter's classes stay untouched.
    import _xxsubinterpreters as interpreters

    interpreter = interpreters.create(isolated=False)
    try:
        interpreters.run_string(interpreter, (
            "import tallowmere.submit as m, tallowmere._native as n\n"
            "client = m.SignalServiceClient('http://127.0.0.1:9', 'token')\n"
            "assert m._percent_encode('a b') == 'a%20b'\n"
            "assert len(n.graph_fingerprint({'op': 'close'})) == 64\n"
        ))  # fmt: skip
    finally:
        interpreters.destroy(interpreter)
    assert submit.SignalServiceClient("http://127.0.0.1:9", "token")._base_url == "http://127.0.0.1:9"
