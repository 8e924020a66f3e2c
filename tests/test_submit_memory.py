"""Leak-repeat checks: every operation of the client, on its success and failure
paths, repeated many times with the number of live allocations staying flat.

The count is pymalloc's (sys.getallocatedblocks); under PYTHONMALLOC=malloc it
is always 0, and the positive control below then fails instead of every check
passing unseen."""

from __future__ import annotations

import ctypes
import json
import logging
from collections.abc import Callable, Iterator
from typing import Any

import httpx
import pytest

import tallowmere.submit as submit
from tallowmere.submit import SignalServiceClient

from leak_support import assert_no_leak, leaks
from submit_support import ERA_CATALOG, FakeResponse, json_answer, recorded_graph, signal_kwargs

REPEAT = 1000


class StaticTransport:
    """Answers each path with a fixed answer (or raises it) and records nothing."""

    def __init__(self, answers: dict[str, Any]) -> None:
        self.answers = {"/eras": json_answer(200, ERA_CATALOG), **answers}

    def _answer(self, path: str, content: Any) -> Any:
        if content is not None and not isinstance(content, bytes):
            while content.read(65536):
                pass
        answer = self.answers[path.split("?")[0]]
        if isinstance(answer, BaseException):
            # A fresh exception each time: re-raising one object grows its traceback.
            raise type(answer)(*answer.args)
        return answer

    def get(self, path: str, *, headers: dict[str, str]) -> Any:
        return self._answer(path, None)

    def post(self, path: str, *, content: Any, headers: dict[str, str]) -> Any:
        return self._answer(path, content)


@pytest.fixture(autouse=True)
def quiet_logs() -> Iterator[None]:
    loggers = [logging.getLogger(name) for name in ("tallowmere.submit", "tallowmere.telemetry")]
    levels = [logger.level for logger in loggers]
    for logger in loggers:
        logger.setLevel(logging.CRITICAL)
    yield
    for logger, level in zip(loggers, levels):
        logger.setLevel(level)


def client_for(**answers: Any) -> SignalServiceClient:
    return SignalServiceClient("http://127.0.0.1:9", "token", transport=StaticTransport(answers),
                               transmission_observer=lambda *a: None)  # fmt: skip


GRAPH = {"op": "rank", "args": [{"op": "vwap", "window": 99}]}


@pytest.fixture(autouse=True)
def recorded_timing() -> None:
    assert recorded_graph("vwap", window=99) == GRAPH
ITEMS = [{"graph": GRAPH, "named_universe": "top300", **signal_kwargs()} for _ in range(3)]
BATCH_ANSWER = json_answer(207, {"results": [{"index": 0, "status_code": 202, "body": {"submission_id": "a"}},
                                             {"index": 1, "status_code": 409, "body": {"reason": "dup"}}]})  # fmt: skip


class Overriding(SignalServiceClient):
    """Overrides reached through self and cls, each doing the client's own work."""

    def _fetch_era_catalog(self) -> Any:
        return super()._fetch_era_catalog()

    @staticmethod
    def _submit_result_from_body(status_code: int, body: dict[str, Any]) -> Any:
        return SignalServiceClient._submit_result_from_body(status_code, body)

    @staticmethod
    def _batch_item_result_from_body(item: dict[str, Any]) -> Any:
        return SignalServiceClient._batch_item_result_from_body(item)


def overriding_client(**answers: Any) -> SignalServiceClient:
    client = Overriding("http://127.0.0.1:9", "token", transport=StaticTransport(answers))
    client._idempotency_key_for_body = SignalServiceClient._idempotency_key_for_body  # type: ignore[method-assign]
    return client


def with_json_dumps_replaced(call: Callable[[], Any]) -> Callable[[], None]:
    """The call made while json.dumps is a wrapper (the client then calls it as written)."""

    def run() -> None:
        original = json.dumps
        json.dumps = lambda *args, **kwargs: original(*args, **kwargs)
        try:
            call()
        finally:
            json.dumps = original

    return run


def expect(error: type[BaseException], call: Callable[[], Any]) -> Callable[[], None]:
    def run() -> None:
        try:
            call()
        except error:
            return
        raise AssertionError("expected " + error.__name__)

    return run


OPERATIONS: dict[str, Callable[[], Any]] = {
    "submit accepted": lambda: client_for(**{"/signals/submit": json_answer(202, {"submission_id": "s"})})
    .submit_signal(GRAPH, "top300", **signal_kwargs()),
    "submit transport failure": lambda: client_for(**{"/signals/submit": httpx.ConnectError("down")})
    .submit_signal(GRAPH, "top300", **signal_kwargs()),
    "submit rejected": lambda: client_for(**{"/signals/submit": json_answer(409, {"reason": "dup"})})
    .submit_signal(GRAPH, "top300", **signal_kwargs()),
    "submit malformed 503": lambda: client_for(**{"/signals/submit": FakeResponse(503, b"<html>")})
    .submit_signal(GRAPH, "top300", **signal_kwargs()),
    "submit malformed 500 raises": expect(submit.SignalClientResponseError, lambda: client_for(
        **{"/signals/submit": FakeResponse(500, b"")}).submit_signal(GRAPH, "top300", **signal_kwargs())),
    "submit refused locally": expect(ValueError, lambda: client_for().submit_signal(
        GRAPH, "top300", **signal_kwargs(expression_elapsed_seconds=1))),
    "submit bad arguments": expect(TypeError, lambda: client_for().submit_signal(GRAPH, unknown=1)),
    "strategy": lambda: client_for(**{"/strategies/submit": json_answer(202, {"submission_id": "t"})})
    .submit_strategy(GRAPH, "top300", strategy_pool_name="p", market_id=1, era_number=3),
    "batch": lambda: client_for(**{"/signals/batch": BATCH_ANSWER}).submit_signals_batch(ITEMS),
    "batch in chunks": lambda: client_for(**{"/signals/batch": BATCH_ANSWER}).submit_signals_batch(ITEMS * 40),
    "overridden members": lambda: (
        overriding_client(**{"/signals/submit": json_answer(202, {"submission_id": "s"})})
        .submit_signal(GRAPH, "top300", **signal_kwargs()),
        overriding_client(**{"/signals/batch": BATCH_ANSWER}).submit_signals_batch(ITEMS)),
    "json.dumps replaced": with_json_dumps_replaced(
        lambda: client_for(**{"/signals/submit": json_answer(202, {"submission_id": "s"})})
        .submit_signal(GRAPH, "top300", **signal_kwargs())),
    "bodies written in place": lambda: (
        SignalServiceClient._idempotency_key_for_body({"a": [1.5, "é", 2**80, None, {"b": True}]}),
        expect(ValueError, lambda: SignalServiceClient._idempotency_key_for_body({"a": float("nan")}))(),
        expect(TypeError, lambda: SignalServiceClient._idempotency_key_for_body({"a": object()}))()),
    "batch transport failure": lambda: client_for(**{"/signals/batch": httpx.ReadTimeout("")})
    .submit_signals_batch(ITEMS),
    "status": lambda: client_for(**{"/signals/status/s%2F1": json_answer(200, {"status": "signal_found",
                                                                              "correlation": 1})})
    .get_signal_status("s/1"),
    "poll": lambda: client_for(**{"/signals/status/s": json_answer(200, {"status": "signal_useful"})})
    .poll_until_terminal("s", timeout=1.0),
    "listing rejected": lambda: client_for(**{"/signals/submissions": json_answer(403, {"error": "no"})})
    .list_signal_submissions(status="x", since="y"),
    "records and errors": lambda: (submit.SubmissionStatus("s", "x", {}, None, None),
                                   submit.SignalClientResponseError("m", status_code=1, url="u", raw_body=b"x" * 900),
                                   expect(submit.SubmissionRejectedError,
                                          lambda: submit._raise_submission_rejected(422, {}))()),
    "era lookup": lambda: submit._active_era_from_catalog(ERA_CATALOG, market_id="1", era_number="x"),
    "percent encoding": lambda: submit._percent_encode("a/b c é" * 10),
}  # fmt: skip


@pytest.mark.parametrize("name", list(OPERATIONS))
def test_operations_do_not_leak(name: str) -> None:
    assert_no_leak(OPERATIONS[name], REPEAT)


def test_the_check_detects_a_leak_of_one_object_per_call() -> None:
    # One reference too many per call, as a missing Py_DECREF in the extension
    # would leave: the object is never freed.
    incref = ctypes.pythonapi.Py_IncRef
    incref.argtypes = [ctypes.py_object]
    incref.restype = None
    assert leaks(lambda: incref(object()), REPEAT)
    assert not leaks(lambda: object(), REPEAT)
