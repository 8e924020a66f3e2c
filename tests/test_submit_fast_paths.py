"""The client calls its own functions and methods, the compiled functions of
the sibling modules and the standard library's json, hashlib and math without
a Python call while the names it reaches them by are bound as at import. Every
replacement, at every level it can be made (module global, instance
attribute, subclass method, class attribute set after import, json's own
settings and helpers), is called as the design writes the call; and what the
client writes in place of json.dumps is byte for byte what json.dumps writes."""

from __future__ import annotations

import copy
import hashlib
import json
import math
import re
import sys
import types
from collections import Counter, OrderedDict
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from dataclasses import dataclass
from decimal import Decimal
from pathlib import Path
from typing import Any

import httpx
import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

import tallowmere.submit as submit
from tallowmere.simulation import backtest_timing
from tallowmere.submit import SignalServiceClient

from submit_support import BASE_URL, FakeResponse, FakeTransport, Request, json_answer, recorded_graph, signal_kwargs

ACCEPTED = json_answer(202, {"submission_id": "s-1", "signal_pool_name": "momentum"})


def batch_answer(request: Request) -> FakeResponse:
    signals = request.json()["signals"]
    return json_answer(202, {"results": [{"index": i, "status_code": 202, "body": {"submission_id": f"s{i}"}}
                                         for i in range(len(signals))]})  # fmt: skip


def batch_items(count: int) -> list[dict[str, Any]]:
    graph = recorded_graph("close", window=31)
    return [{"graph": graph, "named_universe": "top300", **signal_kwargs()} for _ in range(count)]


# ---- the operations each member is reached by --------------------------------------------------------

Operation = Callable[[SignalServiceClient, FakeTransport], Any]


def submit_answered(answer: Any) -> Operation:
    def run(client: SignalServiceClient, transport: FakeTransport) -> Any:
        transport.answer("/signals/submit", answer)
        return client.submit_signal(recorded_graph("open", window=32), "top300", **signal_kwargs())

    return run


def batch_answered(*answers: Any, count: int = 101) -> Operation:
    def run(client: SignalServiceClient, transport: FakeTransport) -> Any:
        transport.answer("/signals/batch", *answers)
        return client.submit_signals_batch(batch_items(count))

    return run


def status_answered(answer: Any) -> Operation:
    def run(client: SignalServiceClient, transport: FakeTransport) -> Any:
        transport.answer("/signals/status/s1", answer)
        return client.get_signal_status("s1")

    return run


def listing(client: SignalServiceClient, transport: FakeTransport) -> Any:
    transport.answer("/signals/submissions", json_answer(200, {"submissions": [{"id": 1}]}))
    return client.list_signal_submissions(status="signal_found")


def poll(client: SignalServiceClient, transport: FakeTransport) -> Any:
    transport.answer("/signals/status/s1", json_answer(200, {"status": "signal_useful"}))
    return client.poll_until_terminal("s1", timeout=5.0)


OPERATIONS: dict[str, Operation] = {
    "submit": submit_answered(ACCEPTED),
    "submit transport failure": submit_answered(httpx.ConnectError("down")),
    "submit rejected": submit_answered(json_answer(409, {"reason": "duplicate"})),
    "submit malformed": submit_answered(FakeResponse(503, b"<html>")),
    "batch in chunks": batch_answered(batch_answer),
    "batch chunk failure": batch_answered(batch_answer, httpx.ConnectError("down")),
    "batch malformed": batch_answered(FakeResponse(422, b"<html>"), count=2),
    "status": status_answered(json_answer(200, {"status": "signal_found", "is_pnl_mi": "Infinity"})),
    "status rejected": status_answered(json_answer(404, {"error": "unknown submission"})),
    "status malformed": status_answered(FakeResponse(404, b"not json")),
    "status transport failure": status_answered(httpx.ReadTimeout("")),
    "listing": listing,
    "poll": poll,
}


@dataclass(frozen=True)
class Member:
    name: str
    kind: str  # "method", "static" or "class"
    operation: str
    through_self: bool = True  # reached as self.name; otherwise only as cls.name


MEMBERS = [
    Member("_fetch_era_catalog", "method", "submit"),
    Member("_resolve_submit_thresholds", "method", "submit"),
    Member("_validate_submission_contract", "static", "submit"),
    Member("_idempotency_key_for_body", "static", "submit"),
    Member("_canonical_request", "method", "submit"),
    Member("_transport_request", "method", "submit"),
    Member("_response_content", "method", "submit"),
    Member("_submit_result_from_body", "static", "submit"),
    Member("_submit_result_from_transport_error", "static", "submit transport failure"),
    Member("_submit_result_from_rejection", "static", "submit rejected"),
    Member("_submit_result_from_response_error", "class", "submit malformed"),
    Member("_error_body_from_response_error", "static", "submit malformed", through_self=False),
    Member("_batch_result_from_body", "class", "batch in chunks"),
    Member("_batch_item_result_from_body", "static", "batch in chunks", through_self=False),
    Member("_rebase_batch_item_indices", "static", "batch in chunks"),
    Member("_combine_batch_chunk_results", "class", "batch in chunks"),
    Member("_batch_body_item_from_result", "static", "batch in chunks", through_self=False),
    Member("_batch_http_status_for_items", "static", "batch in chunks", through_self=False),
    Member("_batch_result_with_partial_failure", "class", "batch chunk failure"),
    Member("_batch_result_from_transport_error", "static", "batch chunk failure"),
    Member("_batch_result_from_response_error", "class", "batch malformed"),
    Member("_status_result_from_body", "static", "status"),
    Member("_status_result_from_rejection", "static", "status rejected"),
    Member("_status_result_from_response_error", "class", "status malformed"),
    Member("_status_result_from_transport_error", "static", "status transport failure"),
    Member("_submission_list_result_from_body", "static", "listing"),
    Member("get_signal_status", "method", "poll"),
]

LEVELS = ["instance attribute", "subclass", "class attribute"]


def delegating(member: Member, calls: list[str]) -> Any:
    """What a class would hold to count the member's calls and do its work."""
    held = SignalServiceClient.__dict__[member.name]
    if member.kind == "method":

        def method(self: Any, *args: Any, **kwargs: Any) -> Any:
            calls.append(member.name)
            return held(self, *args, **kwargs)

        return method
    function = held.__func__
    if member.kind == "static":

        def static(*args: Any, **kwargs: Any) -> Any:
            calls.append(member.name)
            return function(*args, **kwargs)

        return staticmethod(static)

    def bound(cls: Any, *args: Any, **kwargs: Any) -> Any:
        calls.append(member.name)
        return function(cls, *args, **kwargs)

    return classmethod(bound)


def run_operation(name: str, client_class: type[SignalServiceClient] = SignalServiceClient,
                  prepare: Callable[[SignalServiceClient], None] | None = None) -> Any:  # fmt: skip
    transport = FakeTransport()
    client = client_class(BASE_URL, "secret-token", transport=transport)
    if prepare is not None:
        prepare(client)
    return OPERATIONS[name](client, transport)


# A member reached only as cls.name has no instance in its way.
REPLACEMENTS = [pytest.param(member, level, id=f"{member.name}-{level}")
                for member in MEMBERS for level in LEVELS if member.through_self or level != "instance attribute"]  # fmt: skip


@pytest.mark.parametrize(("member", "level"), REPLACEMENTS)
def test_a_replaced_member_is_called_at_every_level(
    monkeypatch: pytest.MonkeyPatch, member: Member, level: str
) -> None:
    expected = run_operation(member.operation)
    calls: list[str] = []
    if level == "instance attribute":

        def prepare(client: SignalServiceClient) -> None:
            original = getattr(client, member.name)

            def replacement(*args: Any, **kwargs: Any) -> Any:
                calls.append(member.name)
                return original(*args, **kwargs)

            setattr(client, member.name, replacement)

        result = run_operation(member.operation, prepare=prepare)
    elif level == "subclass":
        subclass = type("Subclass", (SignalServiceClient,), {member.name: delegating(member, calls)})
        result = run_operation(member.operation, subclass)
    else:
        monkeypatch.setattr(SignalServiceClient, member.name, delegating(member, calls))
        result = run_operation(member.operation)
    assert calls, f"{member.name} replaced as {level} was not called"
    assert result == expected
    # Restored, the class serves its own again.
    monkeypatch.undo()
    assert run_operation(member.operation) == expected


class IteratingTransport(FakeTransport):
    """Reads a streamed body as httpx does: by iterating it."""

    def post(self, path: str, *, content: Any, headers: dict[str, str]) -> FakeResponse:
        if not isinstance(content, bytes):
            content = b"".join(content)
        return super().post(path, content=content, headers=headers)


@pytest.mark.parametrize("name", ["read", "_observe_once"])
@pytest.mark.parametrize("level", ["subclass", "class attribute"])
def test_observed_body_methods_are_looked_up_on_the_body(monkeypatch: pytest.MonkeyPatch, name: str, level: str) -> None:
    calls: list[str] = []
    held = submit._TransmissionObservedBody.__dict__[name]

    def counting(self: Any, *args: Any) -> Any:
        calls.append(name)
        return held(self, *args)

    if level == "subclass":
        monkeypatch.setattr(submit, "_TransmissionObservedBody",
                            type("Observed", (submit._TransmissionObservedBody,), {name: counting}))  # fmt: skip
    else:
        monkeypatch.setattr(submit._TransmissionObservedBody, name, counting)
    observed: list[bytes] = []
    transport = IteratingTransport().answer("/signals/submit", ACCEPTED)
    client = SignalServiceClient(BASE_URL, "t", transport=transport,
                                 transmission_observer=lambda *args: observed.append(args[3]))  # fmt: skip
    assert client.submit_signal(recorded_graph("low", window=33), "top300", **signal_kwargs()).error is None
    assert calls and observed == [transport.requests[-1].content]


@pytest.mark.parametrize("name", ["require_recorded_backtest_timing", "consume_recorded_backtest_timing",
                                  "assess_client_backtest_timing", "require_recorded_backtest_timings"])  # fmt: skip
def test_replaced_timing_functions_are_called(monkeypatch: pytest.MonkeyPatch, name: str) -> None:
    calls: list[str] = []
    original = getattr(backtest_timing, name)

    def counting(*args: Any, **kwargs: Any) -> Any:
        calls.append(name)
        return original(*args, **kwargs)

    monkeypatch.setattr(backtest_timing, name, counting)
    graph = recorded_graph("high", window=34)
    transport = FakeTransport().answer("/signals/submit", ACCEPTED).answer("/signals/batch", batch_answer)
    client = SignalServiceClient(BASE_URL, "t", transport=transport)
    assert client.submit_signal(graph, "top300", **signal_kwargs()).error is None
    assert client.submit_signals_batch([{"graph": graph, "named_universe": "top300", **signal_kwargs()}]).accepted == 1
    assert calls


# ---- json, hashlib and math -------------------------------------------------------------------------------


@contextmanager
def python_calls() -> Iterator[Counter[str]]:
    """Counts the Python functions called meanwhile, as "package/file:function"."""
    seen: Counter[str] = Counter()

    def profile(frame: types.FrameType, event: str, arg: Any) -> None:
        if event == "call":
            path = Path(frame.f_code.co_filename)
            seen[f"{path.parent.name}/{path.name}:{frame.f_code.co_name}"] += 1

    sys.setprofile(profile)
    try:
        yield seen
    finally:
        sys.setprofile(None)


def json_calls(seen: Counter[str]) -> dict[str, int]:
    return {name: count for name, count in seen.items() if name.startswith("json/")}


def expected_body(payload: dict[str, Any]) -> bytes:
    """The body of a submission with `payload` (all but its key), written by the
    standard library as it stands now."""
    canonical = json.dumps(payload, sort_keys=True, separators=(",", ":"), allow_nan=False)
    key = "sigsubmit-" + hashlib.sha256(canonical.encode("utf-8")).hexdigest()
    return json.dumps({**payload, "idempotency_key": key}).encode("utf-8")


def submitted(graph: dict[str, Any]) -> tuple[bytes, Counter[str], Any]:
    transport = FakeTransport().answer("/signals/submit", json_answer(202, {"submission_id": "é\u2028", "n": 1.5}))
    client = SignalServiceClient(BASE_URL, "t", transport=transport)
    with python_calls() as seen:
        result = client.submit_signal(graph, "top300", **signal_kwargs(metaparameters={
            "é": "\U0001f600 \x00\x7f\"\\", "big": 2**70, "small": 5e-324, "neg": -0.0, "t": (1, [2.5e16])}))
    body = transport.requests[-1].content
    assert body is not None
    return body, seen, result


def payload_of(body: bytes) -> dict[str, Any]:
    decoded = json.loads(body)
    decoded.pop("idempotency_key")
    return decoded


def upper_case_escapes(text: str) -> str:
    """The same JSON string, its \\u escapes written with upper-case digits."""
    return re.sub(r"\\u[0-9a-f]{4}", lambda match: match.group(0)[:2] + match.group(0)[2:].upper(),
                  json.encoder.py_encode_basestring_ascii(text))


JSON_PATCHES: dict[str, Callable[[pytest.MonkeyPatch, Callable[..., None]], None]] = {
    "json.dumps": lambda mp, count: mp.setattr(json, "dumps", counted(json.dumps, count)),
    "the module's json": lambda mp, count: mp.setattr(submit, "json", types.SimpleNamespace(
        dumps=counted(json.dumps, count), loads=json.loads, JSONDecodeError=json.JSONDecodeError)),
    "default encoder setting": lambda mp, count: mp.setattr(json._default_encoder, "sort_keys", True),
    "encoder class separator": lambda mp, count: mp.setattr(json.JSONEncoder, "item_separator", ","),
    "encoder method": lambda mp, count: mp.setattr(json.JSONEncoder, "encode",
                                                    counted(json.JSONEncoder.encode, count)),
    "string encoder": lambda mp, count: mp.setattr(json.encoder, "encode_basestring_ascii", upper_case_escapes),
    "hashlib.sha256": lambda mp, count: mp.setattr(hashlib, "sha256", counted(hashlib.sha256, count)),
    "the module's hashlib": lambda mp, count: mp.setattr(submit, "hashlib", types.SimpleNamespace(
        sha256=counted(hashlib.sha256, count))),
}  # fmt: skip


def counted(function: Callable[..., Any], count: Callable[..., None]) -> Callable[..., Any]:
    def wrapper(*args: Any, **kwargs: Any) -> Any:
        count()
        return function(*args, **kwargs)

    return wrapper


def test_json_and_hashlib_work_is_done_in_place_with_the_standard_library() -> None:
    body, seen, result = submitted(recorded_graph("vwap", window=35))
    assert json_calls(seen) == {}
    assert body == expected_body(payload_of(body))
    assert result.submission_id == "é\u2028"


@pytest.mark.parametrize("patch", list(JSON_PATCHES))
def test_patched_json_or_hashlib_writes_what_the_patch_writes(monkeypatch: pytest.MonkeyPatch, patch: str) -> None:
    graph = recorded_graph("vwap", window=36)
    baseline, _, _ = submitted(graph)
    counts: list[int] = []
    JSON_PATCHES[patch](monkeypatch, lambda: counts.append(1))
    body, seen, _ = submitted(graph)
    # The patched call is made (or the standard library runs in Python), and
    # writes what the patched library writes for the same payload.
    assert counts or json_calls(seen)
    assert body == expected_body(payload_of(baseline))
    monkeypatch.undo()
    again, seen, _ = submitted(graph)
    assert again == baseline and json_calls(seen) == {}


LOADS_PATCHES: dict[str, Callable[[pytest.MonkeyPatch, Callable[..., None]], None]] = {
    "json.loads": lambda mp, count: mp.setattr(json, "loads", counted(json.loads, count)),
    "decoder scanner": lambda mp, count: mp.setattr(json._default_decoder, "scan_once",
                                                     counted(json._default_decoder.scan_once, count)),
    "decoder method": lambda mp, count: mp.setattr(json.JSONDecoder, "decode", counted(json.JSONDecoder.decode, count)),
}  # fmt: skip


@pytest.mark.parametrize("patch", list(LOADS_PATCHES))
def test_patched_json_decoding_is_called(monkeypatch: pytest.MonkeyPatch, patch: str) -> None:
    counts: list[int] = []
    LOADS_PATCHES[patch](monkeypatch, lambda: counts.append(1))
    _, _, result = submitted(recorded_graph("vwap", window=37))
    assert counts and result.submission_id == "é\u2028"


@pytest.mark.parametrize(
    "answer",
    [b"", b"{} x", b'{"a": 1,}', b"\xff{}", b'\xef\xbb\xbf{"a": 1}', b'\x00{\x00}', b"{\x00\x00\x00}",
     b' \n{"a": [1, 2.5, "\\ud800", {"b": null}]}\r\t', b"[1]", b"1e400", b'{"a": NaN, "b": -Infinity}'],
)  # fmt: skip
def test_answers_decode_as_json_loads_decodes_them(answer: bytes) -> None:
    try:
        expected: Any = json.loads(answer)
    except ValueError as exc:  # UnicodeDecodeError included
        with pytest.raises(submit.SignalClientResponseError, match="Malformed JSON") as caught:
            submit._parse_response_json(200, answer, "u", operation="o")
        assert type(caught.value.__cause__) is type(exc) and str(caught.value.__cause__) == str(exc)
        return
    if isinstance(expected, dict):
        assert repr(submit._parse_response_json(200, answer, "u", operation="o")) == repr(expected)
    else:
        with pytest.raises(submit.SignalClientResponseError, match="Non-object"):
            submit._parse_response_json(200, answer, "u", operation="o")


@pytest.mark.parametrize("name", ["isinf", "isfinite"])
def test_replaced_math_functions_are_called(monkeypatch: pytest.MonkeyPatch, name: str) -> None:
    counts: list[int] = []
    monkeypatch.setattr(math, name, counted(getattr(math, name), lambda: counts.append(1)))
    submitted(recorded_graph("vwap", window=38))
    assert counts
    monkeypatch.undo()
    monkeypatch.setattr(submit, "math", types.SimpleNamespace(isinf=lambda value: True, isfinite=math.isfinite))
    with pytest.raises(ValueError, match="is_pnl_mi must be a scalar number or Infinity"):
        SignalServiceClient(BASE_URL, "t", transport=FakeTransport()).submit_signal(
            recorded_graph("vwap", window=39), "top300", **signal_kwargs(is_pnl_mi=-1.0))


# ---- the text itself: byte for byte what json.dumps writes --------------------------------------------


class Text(str):
    pass


class Integer(int):
    pass


class Real(float):
    def __repr__(self) -> str:
        return "Real()"


class Mapping(dict):  # type: ignore[type-arg]
    def items(self) -> Any:
        return reversed(list(super().items()))


class Sequence(list):  # type: ignore[type-arg]
    pass


odd_scalars = st.sampled_from([Text("t"), Integer(3), Real(2.5), Decimal("1.5"), object(), {1, 2}, b"x",
                               OrderedDict(b=1, a=2), Mapping(z=1, a=2), Sequence([1, "é"])])  # fmt: skip
# An int beyond the interpreter's digit limit for text (built, as its repr would fail).
odd_scalars |= st.builds(pow, st.just(10), st.just(5000))
scalars = (st.none() | st.booleans() | st.integers() | st.integers(min_value=-(2**200), max_value=2**200)
           | st.floats() | st.text(st.characters(blacklist_categories=()), max_size=12))  # fmt: skip
keys = st.text(st.characters(blacklist_categories=()), max_size=8)
odd_keys = st.one_of(keys, st.sampled_from([1, 2.5, True, None, (1, 2), Text("k"), math.nan]))
values = st.recursive(
    scalars,
    lambda inner: st.lists(inner, max_size=4) | st.tuples(inner, inner) | st.dictionaries(keys, inner, max_size=4),
    max_leaves=24,
)
odd_values = st.recursive(
    scalars | odd_scalars,
    lambda inner: st.lists(inner, max_size=3) | st.dictionaries(odd_keys, inner, max_size=3),
    max_leaves=12,
)
UNTIMED = settings(deadline=None, suppress_health_check=[HealthCheck.too_slow], max_examples=400)


def outcome(make: Callable[[], Any]) -> tuple[Any, ...]:
    try:
        return ("ok", make())
    except Exception as exc:  # noqa: BLE001 - the error itself is compared
        return ("raised", type(exc), str(exc), getattr(exc, "__notes__", None))


def sent_bytes(body: Any) -> bytes:
    sent: list[Any] = []

    def transport(method: str, url: str, headers: dict[str, str], content: Any) -> tuple[int, bytes]:
        sent.append(content)
        return 200, b"{}"

    submit._request_json("POST", "x", lambda: "t", BASE_URL, body, transport)
    return sent[-1]


def reference_key(body: dict[Any, Any]) -> str:
    payload = {key: value for key, value in body.items() if key != "idempotency_key"}
    canonical = json.dumps(payload, sort_keys=True, separators=(",", ":"), allow_nan=False)
    return "sigsubmit-" + hashlib.sha256(canonical.encode("utf-8")).hexdigest()


@UNTIMED
@given((values | odd_values).filter(lambda body: body is not None))  # None means no body at all
def test_request_bodies_are_the_bytes_json_dumps_writes(body: Any) -> None:
    assert outcome(lambda: sent_bytes(body)) == outcome(lambda: json.dumps(body).encode("utf-8"))


@UNTIMED
@given(st.dictionaries(keys, values, max_size=6) | st.dictionaries(odd_keys, odd_values, max_size=4))
def test_idempotency_keys_hash_the_bytes_json_dumps_writes(body: dict[Any, Any]) -> None:
    assert outcome(lambda: SignalServiceClient._idempotency_key_for_body(body)) == outcome(lambda: reference_key(body))


@UNTIMED
@given(st.floats())
def test_every_float_is_written_as_its_repr(number: float) -> None:
    assert outcome(lambda: sent_bytes({"x": number})) == outcome(lambda: json.dumps({"x": number}).encode())
    assert outcome(lambda: SignalServiceClient._idempotency_key_for_body({"x": [number]})) == outcome(
        lambda: reference_key({"x": [number]}))


def nested(depth: int) -> Any:
    value: Any = {"leaf": 1.5}
    for level in range(depth):
        value = [value] if level % 2 else {"k": value}
    return value


@pytest.mark.parametrize("depth", [1, 50, 500, 5000])
def test_deep_values_fare_as_with_json_dumps(depth: int) -> None:
    body = {"deep": nested(depth)}
    assert outcome(lambda: sent_bytes(body))[:2] == outcome(lambda: json.dumps(body).encode())[:2]
    assert outcome(lambda: SignalServiceClient._idempotency_key_for_body(body))[:2] == outcome(
        lambda: reference_key(body))[:2]


def test_a_value_that_contains_itself_is_refused_as_json_dumps_refuses_it() -> None:
    body: dict[str, Any] = {"a": [1]}
    body["a"].append(body)
    assert outcome(lambda: sent_bytes(body)) == outcome(lambda: json.dumps(body))
    assert outcome(lambda: SignalServiceClient._idempotency_key_for_body(body)) == outcome(lambda: reference_key(body))
    shared = [1, 2]
    assert sent_bytes({"a": shared, "b": shared}) == json.dumps({"a": shared, "b": shared}).encode()


# ---- a submission's graph, encoded once ---------------------------------------------------------------


def sent_payloads(transport: FakeTransport, path: str) -> list[dict[str, Any]]:
    bodies = [request.json() for request in transport.requests if request.path == path]
    return [signal for body in bodies for signal in (body["signals"] if path == "/signals/batch" else [body])]


def test_a_graph_changed_after_its_timing_lookup_is_keyed_as_sent(monkeypatch: pytest.MonkeyPatch) -> None:
    graph = recorded_graph("close", window=40)
    original = submit._required_active_submit_era

    def changing(*args: Any, **kwargs: Any) -> Any:
        graph["args"][0]["window"] = 41
        recorded_graph("close", window=41)  # the changed graph has its own timing
        return original(*args, **kwargs)

    monkeypatch.setattr(submit, "_required_active_submit_era", changing)
    transport = FakeTransport().answer("/signals/submit", ACCEPTED)
    client = SignalServiceClient(BASE_URL, "t", transport=transport)
    assert client.submit_signal(graph, "top300", **signal_kwargs()).error is None
    [sent] = sent_payloads(transport, "/signals/submit")
    assert sent["graph"]["args"][0]["window"] == 41 and sent["idempotency_key"] == reference_key(sent)


def test_a_graph_changed_after_its_timing_lookup_needs_its_own_timing(monkeypatch: pytest.MonkeyPatch) -> None:
    graph = recorded_graph("close", window=42)
    original = submit._required_active_submit_era

    def changing(*args: Any, **kwargs: Any) -> Any:
        graph["args"].append({"op": "never-recorded"})
        return original(*args, **kwargs)

    monkeypatch.setattr(submit, "_required_active_submit_era", changing)
    client = SignalServiceClient(BASE_URL, "t", transport=FakeTransport())
    with pytest.raises(ValueError, match="recorded backtest timing is required before submit"):
        client.submit_signal(graph, "top300", **signal_kwargs())


def test_a_batch_keys_each_body_as_sent_when_a_shared_graph_changes_midway() -> None:
    shared = recorded_graph("close", window=43)
    other = recorded_graph("open", window=43)
    items = [{"graph": graph, "named_universe": "top300", **signal_kwargs()} for graph in (shared, other, shared, shared)]
    transport = FakeTransport().answer("/signals/batch", batch_answer)
    client = SignalServiceClient(BASE_URL, "t", transport=transport)
    validate = client._validate_submission_contract
    seen = []

    def changing(*args: Any, **kwargs: Any) -> Any:
        seen.append(1)
        if len(seen) == 2:
            shared["args"][0]["window"] = 44
            recorded_graph("close", window=44)
        return validate(*args, **kwargs)

    client._validate_submission_contract = changing  # type: ignore[method-assign]
    assert client.submit_signals_batch(items).accepted == 4
    sent = sent_payloads(transport, "/signals/batch")
    # Bodies are sent after all are prepared: the first shares the changed graph,
    # but was keyed before the change, the last two after it.
    assert [body["graph"]["args"][0]["window"] for body in sent] == [44, 43, 44, 44]
    keyed_before = copy.deepcopy(sent[0])
    keyed_before["graph"]["args"][0]["window"] = 43
    assert sent[0]["idempotency_key"] == reference_key(keyed_before)
    assert all(body["idempotency_key"] == reference_key(body) for body in sent[1:])
    assert items[0]["graph"] is shared and "idempotency_key" not in items[0]


def test_the_graph_record_a_submission_keeps_is_let_go_with_it() -> None:
    graph = recorded_graph("close", window=45)
    before = sys.getrefcount(graph)
    client = SignalServiceClient(BASE_URL, "t", transport=FakeTransport().answer("/signals/submit", ACCEPTED))
    client.submit_signal(graph, "top300", **signal_kwargs())
    client.submit_signals_batch([{"graph": graph, "named_universe": "top300", **signal_kwargs()}] * 3)
    assert sys.getrefcount(graph) == before
    assert copy.deepcopy(graph) == graph
