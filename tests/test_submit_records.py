"""Records and errors of the request path."""

from __future__ import annotations

import copy
import multiprocessing
import pickle
from collections.abc import Callable
from concurrent.futures import ProcessPoolExecutor

import pytest

from tallowmere.submit import (
    SignalClientResponseError,
    SubmissionReceipt,
    SubmissionRejectedError,
    SubmissionStatus,
    _parse_response_json,
    _raise_submission_rejected,
)

OPTIONAL_STATUS_FIELDS = [
    "signal_pool_name", "is_correlation", "agent_is_correlation", "is_pnl_mi", "agent_is_pnl_mi",
    "failure_reason", "failure_detail", "failure_message",
]  # fmt: skip


def test_receipt_and_status_store_what_they_are_given() -> None:
    stats: dict[str, float] = {}
    assert vars(SubmissionReceipt(submission_id=7)) == {"submission_id": 7}
    status = SubmissionStatus("s1", "signal_found", stats, None, None)
    assert list(vars(status)) == ["submission_id", "status", "is_stats", "payment", "rejection_reason",
                                  *OPTIONAL_STATUS_FIELDS]  # fmt: skip
    assert status.is_stats is stats
    assert all(getattr(status, name) is None for name in OPTIONAL_STATUS_FIELDS)
    full = SubmissionStatus("s1", "signal_useful", {}, {"amount": 3}, None, *range(8))
    assert [getattr(full, name) for name in OPTIONAL_STATUS_FIELDS] == list(range(8))


def test_rejected_error() -> None:
    error = SubmissionRejectedError(409, "duplicate")
    assert str(error) == "409: duplicate" and error.args == ("409: duplicate",)
    assert (error.status_code, error.reason, error.details, error.body) == (409, "duplicate", None, None)
    body = {"reason": "x"}
    assert SubmissionRejectedError(422, None, {"a": 1}, body=body).body is body
    assert str(SubmissionRejectedError("teapot", 418)) == "teapot: 418"


@pytest.mark.parametrize(("size", "preview_size"), [(2000, 512), (512, 512), (10, 10), (0, 0)])
def test_response_error_keeps_the_whole_body_and_a_preview(size: int, preview_size: int) -> None:
    raw = bytes(range(256)) * 8
    raw = raw[:size]
    error = SignalClientResponseError("bad answer", status_code=502, url="http://h/x", raw_body=raw)
    assert str(error) == "bad answer" and error.args == ("bad answer",)
    assert error.raw_body is raw and error.raw_body_preview == raw[:preview_size]
    assert (error.status_code, error.url) == (502, "http://h/x")


def test_response_error_arguments_are_keyword_only_and_required() -> None:
    with pytest.raises(TypeError, match="takes 2 positional arguments but 5 were given"):
        SignalClientResponseError("m", 500, "u", b"")  # type: ignore[misc]
    with pytest.raises(TypeError, match="missing 1 required keyword-only argument: 'raw_body'"):
        SignalClientResponseError("m", status_code=500, url="u")  # type: ignore[call-arg]
    with pytest.raises(TypeError):
        SignalClientResponseError("m", status_code=500, url="u", raw_body=None)


@pytest.mark.parametrize(
    ("status", "data", "reason", "details"),
    [
        (422, {"reason": "", "error": "bad pool"}, "bad pool", None),
        (500, {}, "http_500", None),
        (409, {"reason": "duplicate"}, "duplicate", None),
        (400, {"reason": "invalid", "error": "ignored", "details": {"field": "graph"}}, "invalid", {"field": "graph"}),
        (503, {"reason": None, "error": None}, "http_503", None),
        (302, {"error": "moved"}, "moved", None),
    ],
)
def test_raise_submission_rejected(status: int, data: dict, reason: str, details: object) -> None:
    with pytest.raises(SubmissionRejectedError) as caught:
        _raise_submission_rejected(status, data)
    error = caught.value
    assert (error.status_code, error.reason, error.details) == (status, reason, details)
    assert error.body is data and str(error) == f"{status}: {reason}"


def test_classes_are_subclassable_and_picklable_like_python_classes() -> None:
    class Receipt(SubmissionReceipt):
        def __init__(self, submission_id: str, note: str) -> None:
            super().__init__(submission_id)
            self.note = note

    receipt = Receipt("s9", "n")
    assert vars(receipt) == {"submission_id": "s9", "note": "n"}
    restored = pickle.loads(pickle.dumps(SubmissionStatus("s1", "signal_found", {}, None, None)))
    assert vars(restored)["status"] == "signal_found"

    class Rejected(SubmissionRejectedError):
        pass

    with pytest.raises(SubmissionRejectedError):
        raise Rejected(400, "no")


def rejected_error() -> SubmissionRejectedError:
    error = SubmissionRejectedError(409, "duplicate", {"field": "graph"}, body={"reason": "duplicate", "n": [1, 2]})
    error.add_note("while submitting s1")
    return error


def response_error() -> SignalClientResponseError:
    error = SignalClientResponseError("Malformed JSON", status_code=502, url="http://h/x", raw_body=b"<" * 900)
    error.raw_body_preview = b"edited after construction"
    return error


ERRORS = {"rejected": rejected_error, "response": response_error}


def same_error(restored: BaseException, original: BaseException) -> None:
    assert type(restored) is type(original)
    assert restored.args == original.args and str(restored) == str(original)
    assert vars(restored) == vars(original)


@pytest.mark.parametrize("make", list(ERRORS.values()), ids=list(ERRORS))
@pytest.mark.parametrize("protocol", range(pickle.HIGHEST_PROTOCOL + 1))
def test_errors_pickle_with_every_attribute(make: Callable[[], BaseException], protocol: int) -> None:
    original = make()
    same_error(pickle.loads(pickle.dumps(original, protocol)), original)


@pytest.mark.parametrize("make", list(ERRORS.values()), ids=list(ERRORS))
def test_errors_copy_with_every_attribute(make: Callable[[], BaseException]) -> None:
    original = make()
    shallow, deep = copy.copy(original), copy.deepcopy(original)
    same_error(shallow, original)
    same_error(deep, original)
    for name, value in vars(original).items():
        assert getattr(shallow, name) is value
        if isinstance(value, (dict, list)):
            assert getattr(deep, name) is not value


def test_a_subclass_of_an_error_pickles_as_itself() -> None:
    restored = pickle.loads(pickle.dumps(Rejection(404, "gone")))
    assert type(restored) is Rejection and (restored.status_code, restored.reason) == (404, "gone")


class Rejection(SubmissionRejectedError):
    pass


def test_errors_raised_in_a_worker_process_reach_the_caller_whole() -> None:
    # A worker that raises either error delivers it (no BrokenProcessPool).
    with ProcessPoolExecutor(max_workers=1, mp_context=multiprocessing.get_context("spawn")) as pool:
        rejected = pool.submit(_raise_submission_rejected, 422, {"error": "bad pool", "details": {"k": 1}})
        unusable = pool.submit(_parse_response_json, 500, b"<html>", "http://h/x", operation="signals/submit")
        with pytest.raises(SubmissionRejectedError) as caught_rejection:
            rejected.result(timeout=60)
        with pytest.raises(SignalClientResponseError) as caught_response:
            unusable.result(timeout=60)
    error = caught_rejection.value
    assert (error.status_code, error.reason, error.details, str(error)) == (422, "bad pool", {"k": 1}, "422: bad pool")
    assert error.body == {"error": "bad pool", "details": {"k": 1}}
    response = caught_response.value
    assert (response.status_code, response.url, response.raw_body, response.raw_body_preview) == (
        500, "http://h/x", b"<html>", b"<html>")  # fmt: skip
    assert str(response) == "Malformed JSON response from http://h/x for signals/submit"
