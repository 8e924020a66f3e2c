"""What a caller can patch or build must never break the interpreter: replaced
exception globals that return something else, a widened _UNRESERVED_BYTES,
catalogs whose keys run code, eras lists emptied mid-lookup, long chains of the
module's objects. Each outcome is the one Python code gives. Cases that crashed
the interpreter run in a fresh one, so that a crash is a failed test."""

from __future__ import annotations

import subprocess
import sys
import textwrap
from pathlib import Path
from types import SimpleNamespace
from typing import Any
from unittest import mock

import httpx
import pytest

import tallowmere.submit as submit
from submit_support import fake_client, json_answer


def run_isolated(source: str) -> str:
    """Runs `source` in a fresh interpreter; returns its output, failing on a crash."""
    done = subprocess.run([sys.executable, "-c", textwrap.dedent(source)], capture_output=True, text=True,
                          cwd=Path(__file__).parent, timeout=120)  # fmt: skip
    assert done.returncode == 0, f"exit status {done.returncode}\n{done.stderr}"
    return done.stdout


# ---- replaced exception globals ------------------------------------------------------------

NOT_EXCEPTIONS = {
    "lambda-returning-none": lambda *args, **kwargs: None,
    "magicmock": mock.MagicMock(),
    "plain-class": type("Plain", (), {"__init__": lambda self, *args, **kwargs: None}),
}


@pytest.mark.parametrize("replacement", list(NOT_EXCEPTIONS.values()), ids=list(NOT_EXCEPTIONS))
@pytest.mark.parametrize(
    "raising",
    [
        pytest.param(lambda: submit._parse_response_json(200, b"{", "u", operation="eras"), id="malformed-with-cause"),
        pytest.param(lambda: submit._parse_response_json(200, b"[]", "u", operation="eras"), id="non-object"),
    ],
)
def test_a_response_error_that_is_not_an_exception_is_a_type_error(
    monkeypatch: pytest.MonkeyPatch, replacement: Any, raising: Any
) -> None:
    monkeypatch.setattr(submit, "SignalClientResponseError", replacement)
    with pytest.raises(TypeError, match="^exceptions must derive from BaseException$"):
        raising()


@pytest.mark.parametrize("replacement", list(NOT_EXCEPTIONS.values()), ids=list(NOT_EXCEPTIONS))
def test_a_rejection_that_is_not_an_exception_is_a_type_error(monkeypatch: pytest.MonkeyPatch, replacement: Any) -> None:
    monkeypatch.setattr(submit, "SubmissionRejectedError", replacement)
    with pytest.raises(TypeError, match="^exceptions must derive from BaseException$"):
        submit._raise_submission_rejected(409, {"reason": "duplicate"})


def test_a_replacement_that_returns_an_exception_class_raises_an_instance_of_it(
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    # `raise KeyError` instantiates the class, as Python's raise does.
    monkeypatch.setattr(submit, "SubmissionRejectedError", lambda *args, **kwargs: KeyError)
    with pytest.raises(KeyError) as caught:
        submit._raise_submission_rejected(409, {})
    assert caught.value.args == ()
    monkeypatch.setattr(submit, "SignalClientResponseError", lambda *args, **kwargs: LookupError)
    with pytest.raises(LookupError) as chained:
        submit._parse_response_json(502, b"<html>", "u", operation="eras")
    assert isinstance(chained.value.__cause__, ValueError)


def test_a_public_method_reports_a_replaced_rejection_class_as_python_would(monkeypatch: pytest.MonkeyPatch) -> None:
    # The raise fails first ("must derive"); then the handler `except
    # SubmissionRejectedError` refuses its filter while handling that error.
    monkeypatch.setattr(submit, "SubmissionRejectedError", lambda *args, **kwargs: None)
    client, transport = fake_client()
    transport.answer("/signals/status/s1", json_answer(404, {"error": "unknown submission"}))
    with pytest.raises(TypeError, match="^catching classes that do not inherit from BaseException is not allowed$") as caught:
        client.get_signal_status("s1")
    assert str(caught.value.__context__) == "exceptions must derive from BaseException"


@pytest.mark.parametrize("filter_value", [int, 3, None, "TransportError"])
def test_exception_matching_refuses_a_filter_that_is_not_an_exception_class(
    monkeypatch: pytest.MonkeyPatch, filter_value: Any
) -> None:
    # `except (ConnectionError, httpx.TransportError)` checks every member of the
    # tuple before matching: a failed request cannot be mapped through it.
    monkeypatch.setattr(submit, "httpx", SimpleNamespace(URL=httpx.URL, TransportError=filter_value))
    client, transport = fake_client()
    transport.answer("/signals/status/s1", ConnectionError("refused"))
    with pytest.raises(TypeError, match="^catching classes that do not inherit from BaseException is not allowed$") as caught:
        client.get_signal_status("s1")
    assert isinstance(caught.value.__context__, ConnectionError)
    # No failure, no matching: the answer maps as usual.
    transport.answer("/signals/status/s1", json_answer(200, {"status": "signal_found"}))
    assert client.get_signal_status("s1").status == "signal_found"


def test_an_exception_class_filter_in_a_replaced_global_still_matches(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(submit, "httpx", SimpleNamespace(URL=httpx.URL, TransportError=LookupError))
    client, transport = fake_client()
    transport.answer("/signals/status/s1", KeyError("gone"))
    result = client.get_signal_status("s1")
    assert (result.status_code, result.error) == (0, "'gone'")


# ---- _percent_encode past ASCII ----------------------------------------------------------------


def test_a_widened_unreserved_set_keeps_bytes_as_latin1_characters(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(submit, "_UNRESERVED_BYTES", frozenset(range(256)))
    encoded = submit._percent_encode("sé")
    # The plain-Python loop `"".join(chr(b) if b in keep else ... for b in ...)` gives this.
    assert encoded == "s\u00c3\u00a9" and not encoded.isascii()
    assert encoded.encode("utf-8") == b"s\xc3\x83\xc2\xa9"
    monkeypatch.setattr(submit, "_UNRESERVED_BYTES", {0xC3, ord("s")})
    assert submit._percent_encode("sé/") == "s\u00c3%A9%2F"


def test_a_status_query_with_a_widened_set_completes() -> None:
    out = run_isolated(
        """
        import tallowmere.submit as submit
        from submit_support import fake_client, json_answer

        submit._UNRESERVED_BYTES = frozenset(range(256))
        client, transport = fake_client()
        transport.answer("/signals/status/s%C3%83%C2%A9", json_answer(200, {"status": "signal_found"}))
        print(client.get_signal_status("s\\u00e9").status, transport.paths())
        """
    )
    assert out.strip() == "signal_found ['/signals/status/s%C3%83%C2%A9']"


# ---- strong references across callbacks --------------------------------------------------------


def test_a_threshold_key_that_drops_every_reference_to_its_pair_keeps_it() -> None:
    # The key's __eq__ (run while the entry's keys are compared) empties every
    # dict that holds it, so the pair survives only if the walk holds it.
    out = run_isolated(
        """
        import gc
        import tallowmere.submit as submit

        class DroppingKey:
            def __hash__(self):
                return 7
            def __eq__(self, other):
                for referrer in gc.get_referrers(self):
                    if isinstance(referrer, dict):
                        referrer.clear()
                reuse = [[float(i)] for i in range(1000)]
                return NotImplemented

        entry = {DroppingKey(): [0.25], "rule_id": 1}
        pool = {"name": "p", "is_correlation_threshold": 0.5, "is_pnl_mi_threshold": 0.1,
                "signal_is_thresholds": [entry]}
        era = {"era_number": 1, "universe_rules": [{"rule_id": 1, "universes": ["top300"]}], "signal_pools": [pool]}
        thresholds = submit._submission_thresholds_from_era_catalog({"eras": [era]}, "top300", "p")
        print(sorted((type(k).__name__, v) for k, v in thresholds.items()))
        """
    )
    assert out.strip() == (
        "[('DroppingKey', [0.25]), ('str', 0.1), ('str', 0.5)]"
    )


def test_era_lists_changed_by_a_callee_are_read_as_python_reads_them(monkeypatch: pytest.MonkeyPatch) -> None:
    eras: list[Any] = [{"era_number": 1}, {"era_number": 2}, {"era_number": 3}]
    seen: list[Any] = []
    real_field_value = submit._field_value

    def shrinking(era: Any, key: str, *default: Any) -> Any:
        seen.append(era)
        if eras and era is eras[0]:
            del eras[0]
        return real_field_value(era, key, *default)

    monkeypatch.setattr(submit, "_field_value", shrinking)
    # `for era in eras` skips the era that moves into the removed slot, as a list iterator does.
    assert submit._active_era_from_catalog({"eras": eras}, era_number=9) == {"era_number": 3}


def test_an_eras_list_emptied_during_the_lookup_raises_index_error(monkeypatch: pytest.MonkeyPatch) -> None:
    eras = [{"era_number": 1}, {"era_number": 2}]

    def emptying(era: Any, key: str, default: Any = None) -> Any:
        eras.clear()
        return default

    monkeypatch.setattr(submit, "_field_value", emptying)
    with pytest.raises(IndexError, match="^list index out of range$"):
        submit._active_era_from_catalog({"eras": eras, "active_era_number": 5})


# ---- long chains of the module's objects ---------------------------------------------------------


def test_freeing_long_chains_of_the_modules_objects_does_not_overflow_the_stack() -> None:
    out = run_isolated(
        """
        import tallowmere.submit as submit

        class Sub(submit.SubmissionReceipt):
            pass

        for cls in (submit.SubmissionReceipt, submit.SubmissionStatus, submit._TransmissionObservedBody,
                    submit.SignalServiceClient, Sub):
            head = None
            for _ in range(200_000):
                node = cls.__new__(cls)
                node.next = head
                head = node
            del node, head
        print("freed")
        """
    )
    assert out.strip() == "freed"


# ---- unpacking and the order of listing checks -------------------------------------------------


@pytest.mark.parametrize(
    "call",
    [
        lambda c: c.get_signal_status("s1"),
        lambda c: c.list_signal_submissions(),
        lambda c: c.submit_strategy({}, "top300", strategy_pool_name="p", market_id=1, era_number=1),
    ],
)
def test_a_canonical_request_result_that_is_not_iterable_fails_as_unpacking_does(call: Any) -> None:
    client, _ = fake_client()
    client._canonical_request = lambda *args: None
    with pytest.raises(TypeError, match="^cannot unpack non-iterable NoneType object$"):
        call(client)
    client._canonical_request = lambda *args: (200,)
    with pytest.raises(ValueError, match=r"^not enough values to unpack \(expected 2, got 1\)$"):
        call(client)


def test_a_transport_result_that_is_not_iterable_fails_as_unpacking_does() -> None:
    with pytest.raises(TypeError, match="^cannot unpack non-iterable int object$"):
        submit._request_json("GET", "eras", lambda: "t", "http://127.0.0.1:9", None, lambda *args: 200)


@pytest.mark.parametrize(
    ("limit", "error"), [("x", ValueError), ([1], TypeError), (float("nan"), ValueError)]
)
def test_every_listing_value_is_built_before_any_is_encoded(limit: Any, error: type[Exception]) -> None:
    # str(int(limit)) comes before the lone surrogate of `status` reaches the encoder.
    client, transport = fake_client()
    with pytest.raises(error) as caught:
        client.list_signal_submissions(status="\ud800", limit=limit)
    assert type(caught.value) is error and transport.requests == []
    with pytest.raises(UnicodeEncodeError):
        client.list_signal_submissions(status="\ud800", limit=1)

