"""Records and errors of the request path."""

from __future__ import annotations

import pickle

import pytest

from tallowmere.submit import (
    SignalClientResponseError,
    SubmissionReceipt,
    SubmissionRejectedError,
    SubmissionStatus,
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
