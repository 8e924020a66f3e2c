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
