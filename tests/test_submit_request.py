"""The request path: URLs, answer decoding, the observed body, _request_json and
the client's own transport adapter."""

from __future__ import annotations

import json
import logging
import urllib.parse
from typing import Any

import httpx
import pytest
from hypothesis import given
from hypothesis import strategies as st

import tallowmere.submit as submit
from tallowmere.submit import SignalClientResponseError, SignalServiceClient, SubmissionRejectedError

from submit_support import FakeResponse

# ---- URLs -------------------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("value", "encoded"),
    [
        ("abc-._~XYZ09", "abc-._~XYZ09"),
        ("a/b c", "a%2Fb%20c"),
        ("", ""),
        ("é", "%C3%A9"),
        ("100%+?&=#", "100%25%2B%3F%26%3D%23"),
        ("\x00\x7f", "%00%7F"),
    ],
)
def test_percent_encode(value: str, encoded: str) -> None:
    assert submit._percent_encode(value) == encoded


@given(st.text())
def test_percent_encode_round_trips_and_leaves_one_segment(value: str) -> None:
    try:
        value.encode("utf-8")
    except UnicodeEncodeError:
        with pytest.raises(UnicodeEncodeError):
            submit._percent_encode(value)
        return
    encoded = submit._percent_encode(value)
    assert urllib.parse.unquote(encoded, errors="strict") == value
    assert set(encoded) <= set("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~%")


def test_percent_encode_reads_the_unreserved_set_at_call_time(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(submit, "_UNRESERVED_BYTES", frozenset(b"ab/"))
    assert submit._percent_encode("a/bc") == "a/b%63"


@pytest.mark.parametrize("value", [None, 5, b"bytes"])
def test_percent_encode_refuses_what_is_not_text(value: object) -> None:
    with pytest.raises((AttributeError, TypeError)):
        submit._percent_encode(value)  # type: ignore[arg-type]


@pytest.mark.parametrize(
    ("server_url", "endpoint", "joined"),
    [
        ("base/api///", "//signals/submit", "base/api/signals/submit"),
        ("base", "eras", "base/eras"),
        ("http://h:1/", "", "http://h:1/"),
        ("http://h", "a/../b", "http://h/a/../b"),
    ],
)
def test_join_url(server_url: str, endpoint: str, joined: str) -> None:
    assert submit._join_url(server_url, endpoint) == joined


# ---- decoding answers ----------------------------------------------------------------------------


def test_parse_response_json_returns_objects_whatever_the_status() -> None:
    assert submit._parse_response_json(404, b'{"error": "x"}', "u", operation="op") == {"error": "x"}
    assert submit._parse_response_json(200, '{"a": 1}'.encode("utf-16"), "u", operation="op") == {"a": 1}


@pytest.mark.parametrize(
    ("body", "prefix", "has_cause"),
    [
        (b"", "Malformed JSON response from ", True),
        (b"<html>oops</html>", "Malformed JSON response from ", True),
        (b"\xff\xfe\xfa", "Malformed JSON response from ", True),
        (b"[]", "Non-object JSON response from ", False),
        (b"null", "Non-object JSON response from ", False),
        (b'"text"', "Non-object JSON response from ", False),
        (b"x" * 600, "Malformed JSON response from ", True),
    ],
)
def test_unusable_answers_are_logged_then_raised(
    caplog: pytest.LogCaptureFixture, body: bytes, prefix: str, has_cause: bool
) -> None:
    url = "http://127.0.0.1:9/signals/status/s1"
    with caplog.at_level(logging.WARNING, logger="tallowmere.submit"):
        with pytest.raises(SignalClientResponseError) as caught:
            submit._parse_response_json(502, body, url, operation="signals/status/s1")
    error = caught.value
    assert str(error) == f"{prefix}{url} for signals/status/s1"
    assert (error.status_code, error.url, error.raw_body) == (502, url, body)
    assert (error.__cause__ is not None) is has_cause
    (record,) = caplog.records
    assert record.getMessage() == f"{prefix}{url} status=502 operation=signals/status/s1 raw_body={body[:512]!r}"
    assert (record.status_code, record.url, record.operation) == (502, url, "signals/status/s1")
    assert record.raw_body_preview == body[:512] == error.raw_body_preview


def test_decoding_goes_through_the_module_json(monkeypatch: pytest.MonkeyPatch) -> None:
    class Decoder:
        JSONDecodeError = json.JSONDecodeError

        @staticmethod
        def loads(data: bytes) -> Any:
            return {"decoded": data.decode()}

        dumps = staticmethod(json.dumps)

    monkeypatch.setattr(submit, "json", Decoder)
    assert submit._parse_response_json(200, b"raw", "u", operation="o") == {"decoded": "raw"}


# ---- the observed body -----------------------------------------------------------------------------


def observed(body: bytes = b"0123456789") -> tuple[Any, list[tuple[Any, ...]]]:
    calls: list[tuple[Any, ...]] = []
    headers = {"Authorization": "Bearer t"}
    stream = submit._TransmissionObservedBody(body, lambda *a: calls.append(a), "POST", "http://h/x", headers)
    headers["late"] = "change"
    return stream, calls


def test_observed_body_fires_once_on_the_first_non_empty_read() -> None:
    stream, calls = observed()
    assert stream.read(0) == b"" and not stream.consumed and calls == []
    assert stream.read(4) == b"0123"
    assert calls == [("POST", "http://h/x", {"Authorization": "Bearer t"}, b"0123456789")]
    assert stream.read() == b"456789" and stream.read() == b""
    assert stream.seek(0) == 0 and list(stream) == [b"0123456789"] and list(stream) == []
    assert len(calls) == 1 and stream.consumed


def test_observed_body_seek_and_tell() -> None:
    stream, calls = observed()
    assert stream.seek(-1, 2) == 9 and stream.tell() == 9
    assert stream.seek(-4, 1) == 5 and stream.read(None) == b"56789"
    assert stream.seek(50) == 50 and stream.read() == b""
    with pytest.raises(ValueError, match="^negative seek position$"):
        stream.seek(-1)
    assert stream.tell() == 50
    with pytest.raises(ValueError, match="^unsupported whence: 3$"):
        stream.seek(0, 3)


def test_an_observer_that_raises_is_not_called_again() -> None:
    calls = []

    def observer(*args: Any) -> None:
        calls.append(args)
        raise RuntimeError("observer failed")

    stream = submit._TransmissionObservedBody(b"abc", observer, "POST", "u", {})
    with pytest.raises(RuntimeError, match="observer failed"):
        stream.read()
    assert stream.consumed and stream.read() == b"abc" and len(calls) == 1


def test_httpx_sends_an_observed_body_with_its_length() -> None:
    stream, calls = observed(b'{"a": 1}')
    request = httpx.Request("POST", "http://h/x", content=stream)
    assert request.headers["Content-Length"] == "8"
    assert b"".join(request.stream) == b'{"a": 1}' and len(calls) == 1


# ---- _request_json ---------------------------------------------------------------------------------


class Recorder:
    def __init__(self, *answers: tuple[int, bytes]) -> None:
        self.answers = list(answers)
        self.calls: list[tuple[Any, ...]] = []

    def __call__(self, method: str, url: str, headers: dict[str, str], body: Any) -> tuple[int, bytes]:
        content = body if body is None or isinstance(body, bytes) else body.read()
        self.calls.append((method, url, dict(headers), content))
        return self.answers.pop(0)


def request(transport: Any, body: Any = None, observer: Any = None, token: Any = "tok") -> Any:
    return submit._request_json("POST", "signals/submit", lambda: token, "http://127.0.0.1:9/", body, transport,
                                transmission_observer=observer)  # fmt: skip


@pytest.mark.parametrize(
    ("key", "header"),
    [("k-1", "k-1"), ("", None), (None, None), (42, "42")],
)
def test_request_json_headers_and_body(key: object, header: str | None) -> None:
    transport = Recorder((202, b'{"submission_id": "s1"}'))
    body = {"graph": {"op": "x"}, "name": "é", "is_pnl_mi": float("inf"), "idempotency_key": key}
    assert request(transport, body) == (202, {"submission_id": "s1"})
    ((method, url, headers, content),) = transport.calls
    assert (method, url) == ("POST", "http://127.0.0.1:9/signals/submit")
    expected = {"Authorization": "Bearer tok", "Content-Type": "application/json"}
    if header is not None:
        expected["Idempotency-Key"] = header
    assert headers == expected
    assert content == json.dumps(body).encode() and b"\\u00e9" in content and b"Infinity" in content


def test_request_json_without_body_sends_only_authorization() -> None:
    transport = Recorder((200, b"{}"))
    assert request(transport, None, observer=lambda *a: None, token=7) == (200, {})
    assert transport.calls == [("POST", "http://127.0.0.1:9/signals/submit", {"Authorization": "Bearer 7"}, None)]


@pytest.mark.parametrize(
    ("answer", "error", "text"),
    [
        ((404, b'{"error": "unknown submission"}'), SubmissionRejectedError, "404: unknown submission"),
        ((301, b'{"reason": "moved"}'), SubmissionRejectedError, "301: moved"),
        ((204, b""), SignalClientResponseError, "Malformed JSON response from"),
        ((500, b"<html/>"), SignalClientResponseError, "Malformed JSON response from"),
    ],
)
def test_request_json_failures(answer: tuple[int, bytes], error: type[Exception], text: str) -> None:
    with pytest.raises(error, match=text):
        request(Recorder(answer), {"a": 1})


def test_request_json_checks_the_url_before_fetching_the_token() -> None:
    tokens = []
    with pytest.raises(ValueError, match="bearer token"):
        submit._request_json("GET", "eras", lambda: tokens.append(1), "http://example.com", None, Recorder())
    assert tokens == []


def test_request_json_requires_the_transport_to_read_an_observed_body() -> None:
    seen = []
    with pytest.raises(RuntimeError, match="^transport returned without consuming the request body; "):
        request(lambda *args: (200, b"{}"), {"a": 1}, observer=lambda *a: seen.append(a))
    assert seen == []


@pytest.mark.parametrize("answer", [(200,), (200, b"{}", "extra"), None])
def test_request_json_requires_a_pair(answer: Any) -> None:
    with pytest.raises((ValueError, TypeError)):
        request(lambda *args: answer, None)


# ---- the client's own transport --------------------------------------------------------------------


def test_constructor_refuses_an_unsafe_url_before_storing_anything() -> None:
    with pytest.raises(ValueError):
        SignalServiceClient("http://user:pw@127.0.0.1/", "t")


@pytest.mark.parametrize(("url", "verify_off"), [("http://127.0.0.1:9", True), ("HTTP://localhost", True),
                                                ("https://example.com", False)])  # fmt: skip
def test_constructor_builds_its_own_httpx_client(monkeypatch: pytest.MonkeyPatch, url: str, verify_off: bool) -> None:
    made = []
    monkeypatch.setattr(httpx, "Client", lambda **kwargs: made.append(kwargs) or object())
    client = SignalServiceClient(url, "tok", timeout=5)
    expected: dict[str, Any] = {"base_url": url, "timeout": 5}
    if verify_off:
        expected["verify"] = False
    assert made == [expected]
    assert list(vars(client)) == ["_base_url", "_jwt_token", "_timeout", "_transmission_observer", "_client",
                                  "_era_catalog_cache"]  # fmt: skip


def test_close_calls_close_only_when_the_transport_has_it() -> None:
    class Closing:
        closed = 0

        def close(self) -> None:
            self.closed += 1

    transport = Closing()
    client = SignalServiceClient("http://127.0.0.1:9", "t", transport=transport)
    client.close()
    client.close()
    assert transport.closed == 2
    SignalServiceClient("http://127.0.0.1:9", "t", transport=object()).close()


class JsonOnly:
    def json(self) -> Any:
        return {"b": [1]}


@pytest.mark.parametrize(
    ("response", "content"),
    [
        (FakeResponse(200, b"raw"), b"raw"),
        (FakeResponse(200, "{}"), b"{}"),
        (type("T", (), {"content": None, "text": "t\u00e9"})(), "t\u00e9".encode()),
        (JsonOnly(), b'{"b": [1]}'),
        (object(), b""),
    ],
)
def test_response_content(response: Any, content: bytes) -> None:
    client = SignalServiceClient("http://127.0.0.1:9", "t", transport=object())
    assert client._response_content(response) == content


class MethodRecorder:
    def __init__(self, *, with_request: bool) -> None:
        self.calls: list[tuple[Any, ...]] = []
        if with_request:
            self.request = lambda method, path, **kw: self._record("request", method, path, **kw)

    def _record(self, name: str, *args: Any, **kwargs: Any) -> FakeResponse:
        self.calls.append((name, args, kwargs))
        return FakeResponse(201, b"{}")

    def post(self, path: str, **kwargs: Any) -> FakeResponse:
        return self._record("post", path, **kwargs)

    def get(self, path: str, **kwargs: Any) -> FakeResponse:
        return self._record("get", path, **kwargs)


def test_transport_request_dispatches_on_the_method() -> None:
    transport = MethodRecorder(with_request=True)
    client = SignalServiceClient("http://127.0.0.1:9", "t", transport=transport)
    headers = {"h": "v"}
    assert client._transport_request("POST", "http://127.0.0.1:9/a%2Fb?x=%20", headers, b"b") == (201, b"{}")
    assert client._transport_request("GET", "http://127.0.0.1:9", headers, None) == (201, b"{}")
    client._transport_request("PUT", "http://127.0.0.1:9/p", headers, b"c")
    assert transport.calls == [
        ("post", ("/a%2Fb?x=%20",), {"content": b"b", "headers": headers}),
        ("get", ("/",), {"headers": headers}),
        ("request", ("PUT", "/p"), {"content": b"c", "headers": headers}),
    ]
    plain = SignalServiceClient("http://127.0.0.1:9", "t", transport=MethodRecorder(with_request=False))
    with pytest.raises(ValueError, match="^Unsupported HTTP method: PUT$"):
        plain._transport_request("PUT", "http://127.0.0.1:9/p", headers, None)


def test_canonical_request_reads_the_token_and_observer_at_call_time() -> None:
    seen: list[str] = []
    client = SignalServiceClient("http://127.0.0.1:9", "old", transport=MethodRecorder(with_request=False))
    client._jwt_token = "new"
    client._transport_request = lambda method, url, headers, body: (seen.append(headers["Authorization"]) or (200, b'{"ok": 1}'))  # type: ignore[method-assign]  # noqa: E501
    assert client._canonical_request("GET", "eras") == (200, {"ok": 1})
    assert seen == ["Bearer new"]


def test_a_replaced_url_parser_is_called_for_every_request(monkeypatch: pytest.MonkeyPatch) -> None:
    transport = MethodRecorder(with_request=False)
    client = SignalServiceClient("http://127.0.0.1:9", "t", transport=transport)
    client._transport_request("GET", "http://127.0.0.1:9/eras", {}, None)
    parsed: list[str] = []

    class URL:
        def __init__(self, url: str) -> None:
            parsed.append(url)
            self.raw_path = b"/elsewhere"

    monkeypatch.setattr(httpx, "URL", URL)
    client._transport_request("GET", "http://127.0.0.1:9/eras", {}, None)
    client._transport_request("GET", "http://127.0.0.1:9/eras", {}, None)
    assert parsed == ["http://127.0.0.1:9/eras"] * 2
    assert [call[1] for call in transport.calls] == [("/eras",), ("/elsewhere",), ("/elsewhere",)]
