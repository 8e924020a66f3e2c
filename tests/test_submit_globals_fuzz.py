"""Every module global deleted or replaced with a wrong value (None, an int,
object(), a lambda returning None, an exception class), one at a time and then
several at once, while every public operation runs: the only outcomes allowed
are a result or an ordinary Python exception, never a crash or a SystemError."""

from __future__ import annotations

import pickle
import random
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from typing import Any

import httpx
import pytest

import tallowmere.submit as submit
from tallowmere.submit import SignalServiceClient

from submit_support import FakeResponse, FakeTransport, json_answer, recorded_graph, signal_kwargs

DELETED = object()
REPLACEMENTS: dict[str, Any] = {
    "deleted": DELETED,
    "none": None,
    "int": 7,
    "object": object(),
    "lambda": lambda *args, **kwargs: None,
    "exception-class": ValueError,
}
GLOBALS = [name for name in vars(submit) if not name.startswith("__")]

STATUS_PATH = "/signals/status/s%2F1"


def client_with(**routes: Any) -> SignalServiceClient:
    transport = FakeTransport()
    for path, answer in routes.items():
        transport.answer(path, answer)
    return SignalServiceClient("http://127.0.0.1:9", "token", transport=transport,
                               transmission_observer=lambda *args: None)  # fmt: skip


def submit_with(answer: Any) -> Callable[[], Any]:
    return lambda: client_with(**{"/signals/submit": answer}).submit_signal(
        recorded_graph("vwap", window=5), "top300", **signal_kwargs()
    )


def status_with(answer: Any) -> Callable[[], Any]:
    return lambda: client_with(**{STATUS_PATH: answer}).get_signal_status("s/1")


def batch_with(answer: Any) -> Callable[[], Any]:
    def run() -> Any:
        items = [{"graph": recorded_graph("close", window=w), "named_universe": "top300", **signal_kwargs()}
                 for w in (3, 4, 5)]  # fmt: skip
        return client_with(**{"/signals/batch": answer}).submit_signals_batch(items)

    return run


BATCH_ANSWER = json_answer(207, {"results": [{"index": 0, "status_code": 202, "body": {"submission_id": "a"}},
                                             {"index": 1, "status_code": 409, "body": {"reason": "dup"}}]})  # fmt: skip

OPERATIONS: dict[str, Callable[[], Any]] = {
    "construct": lambda: SignalServiceClient("http://127.0.0.1:9", "token"),
    "close": lambda: client_with().close(),
    "submit accepted": submit_with(json_answer(202, {"submission_id": "s"})),
    "submit rejected": submit_with(json_answer(409, {"reason": "duplicate"})),
    "submit malformed 503": submit_with(FakeResponse(503, b"<html>")),
    "submit malformed 500": submit_with(FakeResponse(500, b"")),
    "submit transport failure": submit_with(httpx.ConnectError("down")),
    "strategy": lambda: client_with(**{"/strategies/submit": json_answer(202, {"submission_id": "t"})})
    .submit_strategy({"op": "close"}, "top300", strategy_pool_name="p", market_id=1, era_number=3),
    "batch": batch_with(BATCH_ANSWER),
    "batch rejected": batch_with(json_answer(400, {"error": "bad"})),
    "batch transport failure": batch_with(ConnectionError("refused")),
    "status": status_with(json_answer(200, {"status": "signal_found", "correlation": 1, "is_pnl_mi": "Infinity"})),
    "status rejected": status_with(json_answer(404, {"error": "unknown submission"})),
    "status malformed 4xx": status_with(FakeResponse(404, b"not json")),
    "status transport failure": status_with(httpx.ReadTimeout("")),
    "listing": lambda: client_with(**{"/signals/submissions": json_answer(200, {"submissions": [{"id": 1}]})})
    .list_signal_submissions(status="signal_found", since="2024-01-01", limit=5),
    "listing rejected": lambda: client_with(**{"/signals/submissions": json_answer(403, {"error": "no"})})
    .list_signal_submissions(),
    "poll": lambda: client_with(**{STATUS_PATH: json_answer(200, {"status": "signal_submitted"})})
    .poll_until_terminal("s/1", timeout=0.0),
    "records": lambda: (submit.SubmissionReceipt("s"), submit.SubmissionStatus("s", "x", {}, None, None)),
    "errors": lambda: pickle.loads(pickle.dumps(
        (submit.SubmissionRejectedError(409, "x"),
         submit.SignalClientResponseError("m", status_code=502, url="u", raw_body=b"x" * 600)))),
}  # fmt: skip


@contextmanager
def replaced(replacements: dict[str, Any]) -> Iterator[None]:
    namespace = vars(submit)
    saved = dict(namespace)
    try:
        for name, value in replacements.items():
            if value is DELETED:
                delattr(submit, name)
            else:
                setattr(submit, name, value)
        yield
    finally:
        # The same dict, in the same order (a deleted name would come back last).
        namespace.clear()
        namespace.update(saved)


def outcomes(replacements: dict[str, Any]) -> list[str]:
    """Runs every operation; returns a description of each forbidden outcome."""
    forbidden = []
    with replaced(replacements):
        for name, operation in OPERATIONS.items():
            try:
                operation()
            except SystemError as error:
                forbidden.append(f"{name}: SystemError {error}")
            except Exception:
                pass
            except BaseException as error:  # noqa: BLE001 - anything outside Exception is reported
                forbidden.append(f"{name}: {type(error).__name__} {error}")
    return forbidden


def test_the_operations_succeed_untouched() -> None:
    # Each operation reaches its end with the module as loaded (the malformed
    # 500 is re-raised by design), so the failures below come from the replacements.
    for name, operation in OPERATIONS.items():
        if name == "submit malformed 500":
            with pytest.raises(submit.SignalClientResponseError):
                operation()
        else:
            operation()


@pytest.mark.parametrize("replacement", list(REPLACEMENTS), ids=list(REPLACEMENTS))
def test_each_global_replaced_or_deleted(replacement: str) -> None:
    forbidden = {}
    for name in GLOBALS:
        found = outcomes({name: REPLACEMENTS[replacement]})
        if found:
            forbidden[name] = found
    assert forbidden == {}


def test_several_globals_replaced_at_once() -> None:
    rng = random.Random(20240611)
    forbidden = {}
    for _ in range(150):
        chosen = rng.sample(GLOBALS, rng.randint(2, 4))
        replacements = {name: REPLACEMENTS[rng.choice(list(REPLACEMENTS))] for name in chosen}
        found = outcomes(replacements)
        if found:
            forbidden[repr(sorted(replacements))] = found
    assert forbidden == {}
