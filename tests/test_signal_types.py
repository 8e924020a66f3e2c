"""Result records: keyword construction, defaults, equality, compact repr."""

from __future__ import annotations

import dataclasses

import pytest

from tallowmere.api.signal_types import (
    BatchSubmitItemResult,
    BatchSubmitResult,
    StatusResult,
    SubmissionListResult,
    SubmitResult,
)

_RESULT_FIELDS = ["submission_id", "signal_pool_name", "strategy_pool_name", "error"]


@pytest.mark.parametrize(
    ("record_type", "names"),
    [
        (SubmitResult, ["status_code", "body", *_RESULT_FIELDS]),
        (BatchSubmitItemResult, ["index", "status_code", "body", *_RESULT_FIELDS]),
        (BatchSubmitResult, ["status_code", "body", "accepted", "failed", "results", "error"]),
        (SubmissionListResult, ["status_code", "body", "submissions", "error"]),
        (StatusResult, ["status_code", "body", "status", "signal_pool_name", "strategy_pool_name", "error",
                        "is_stats", "payment", "rejection_reason", "is_correlation", "agent_is_correlation",
                        "is_pnl_mi", "agent_is_pnl_mi", "failure_reason", "failure_detail", "failure_message"]),
    ],
)
def test_field_order_and_keyword_only(record_type: type, names: list[str]) -> None:
    assert [field.name for field in dataclasses.fields(record_type)] == names
    with pytest.raises(TypeError):
        record_type(*range(len(names)))


def _item(index: int, status_code: int = 200, error: str | None = None) -> BatchSubmitItemResult:
    return BatchSubmitItemResult(index=index, status_code=status_code, body={"i": index}, submission_id=f"s{index}",
                                 signal_pool_name="momentum", strategy_pool_name=None, error=error)


@pytest.mark.parametrize(
    ("status_code", "error", "ok"), [(200, None, True), (0, None, False), (422, "rejected", False)]
)
def test_ok_needs_an_answer_and_no_error(status_code: int, error: str | None, ok: bool) -> None:
    assert _item(0, status_code, error).ok is ok


def test_index_is_writable_and_equality_is_by_value() -> None:
    item = _item(3)
    item.index = 103
    assert item == dataclasses.replace(_item(103), body={"i": 3}, submission_id="s3")
    assert item != _item(103)


def test_repr_stays_short_and_shows_only_meaningful_optional_fields() -> None:
    body = {"results": [{"submission_id": str(i)} for i in range(10_000)], "note": "x" * 100_000}
    batch = BatchSubmitResult(status_code=200, body=body, accepted=10_000, failed=0,
                              results=[_item(i) for i in range(10_000)], error=None)
    assert len(repr(batch)) < 5_000 and "accepted=10000" in repr(batch)
    status = StatusResult(status_code=0, body=None, status=None, signal_pool_name=None, strategy_pool_name=None,
                          error="transport_error", is_pnl_mi=float("inf"))
    assert "signal_pool_name=None" in repr(status) and "is_pnl_mi=inf" in repr(status)
    assert "failure_reason" not in repr(status) and status.is_stats is None


# ---- statuses and typed listings ---------------------------------------------------------------


def test_the_status_sets_agree_with_the_client_the_service_and_the_command_line() -> None:
    import tallowmere.submit as submit
    from tallowmere.api.signal_types import (
        FINAL_STATUSES,
        SIGNAL_TERMINAL_STATUSES,
        STRATEGY_TERMINAL_STATUSES,
        TERMINAL_STATUSES,
    )
    from tallowmere.cli import statuses as cli
    from tallowmere.service import lifecycle

    assert SIGNAL_TERMINAL_STATUSES == submit._TERMINAL_STATUSES == lifecycle.CLIENT_TERMINAL_STATUSES
    assert STRATEGY_TERMINAL_STATUSES == lifecycle.STRATEGY_STATUSES - {lifecycle.STRATEGY_SUBMITTED}
    assert TERMINAL_STATUSES == cli.TERMINAL == lifecycle.ALL_STATUSES - {"signal_submitted", "strategy_submitted"}
    assert FINAL_STATUSES == lifecycle.FINAL_STATUSES == cli.FINAL


@pytest.mark.parametrize(
    ("status_code", "status", "error", "terminal", "final"),
    [
        (200, "signal_submitted", None, False, False),
        (200, "signal_found", None, True, False),
        (200, "signal_useful", None, True, True),
        (200, "strategy_rejected", None, True, True),
        (404, "signal_useful", "unknown submission", False, False),  # a refusal reports no status
        (0, None, "ConnectError", False, False),
    ],
)
def test_a_status_result_says_whether_it_is_a_verdict(
    status_code: int, status: str | None, error: str | None, terminal: bool, final: bool
) -> None:
    result = StatusResult(status_code=status_code, body={}, status=status, signal_pool_name=None,
                          strategy_pool_name=None, error=error)  # fmt: skip
    assert (result.is_terminal, result.is_final) == (terminal, final)


def test_listed_submissions_are_read_into_typed_entries() -> None:
    from tallowmere.api.signal_types import SubmissionEntry

    good = {"submission_id": "sig_1", "status": "signal_useful", "kind": "signal", "signal_pool_name": "momentum",
            "strategy_pool_name": None, "named_universe": "top300", "market_id": 1, "era_number": 3,
            "idempotency_key": "k", "created_at": "2026-01-01T00:00:00Z", "updated_at": "2026-01-01T00:00:01Z",
            "is_stats": {"sharpe": 1.0}, "payment": {"amount": 9.5}, "rejection_reason": None, "history": []}
    odd = {"submission_id": 7, "status": ["x"], "market_id": True, "era_number": "3", "payment": 12.0}
    listing = SubmissionListResult(status_code=200, body={}, submissions=[good, odd, "junk"], error=None)  # type: ignore[list-item]
    first, second, third = listing.entries
    assert (first.submission_id, first.market_id, first.payment, first.is_final) == ("sig_1", 1, {"amount": 9.5}, True)
    assert first.raw is good and "history" not in repr(first) and "raw" not in repr(first)
    assert (second.submission_id, second.status, second.market_id, second.era_number, second.payment) == (None,) * 5
    assert second.raw is odd and not second.is_terminal
    assert third == SubmissionEntry.from_listed("junk") and third.raw == "junk" and third.status is None
    assert listing.submissions == [good, odd, "junk"]  # the listing itself is untouched
