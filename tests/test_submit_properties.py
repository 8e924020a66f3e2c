"""Property checks: the mappings and the decoder take any JSON or any bytes and
either give a record or raise only what their contract names — never crash."""

from __future__ import annotations

import json
from collections.abc import Hashable
from typing import Any

import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

import tallowmere.submit as submit
from tallowmere.api.signal_types import BatchSubmitResult, StatusResult, SubmissionListResult, SubmitResult
from tallowmere.submit import SignalClientResponseError, SignalServiceClient, SubmissionRejectedError

C = SignalServiceClient

json_scalars = st.none() | st.booleans() | st.integers() | st.floats() | st.text(max_size=12)
json_values = st.recursive(
    json_scalars,
    lambda inner: st.lists(inner, max_size=4) | st.dictionaries(st.text(max_size=10), inner, max_size=5),
    max_leaves=25,
)
keys = st.sampled_from(["results", "accepted", "failed", "index", "status_code", "body", "reason", "error",
                        "submission_id", "status", "correlation", "is_weights_mi", "is_pnl_mi", "failure_detail",
                        "rejection_reason", "submissions", "signal_pool_name"])  # fmt: skip
# Objects shaped like the service's answers: known keys holding arbitrary values.
answers = st.recursive(
    st.dictionaries(keys, json_values, max_size=8),
    lambda inner: st.dictionaries(keys, inner | json_values | st.lists(inner, max_size=4), max_size=8),
    max_leaves=20,
)


@given(st.integers(), answers)
def test_answer_mappings_accept_any_object(status_code: int, body: dict[str, Any]) -> None:
    assert isinstance(C._submit_result_from_body(status_code, body), SubmitResult)
    assert isinstance(C._status_result_from_body(status_code, body), StatusResult)
    assert isinstance(C._submission_list_result_from_body(status_code, body), SubmissionListResult)
    batch = C._batch_result_from_body(status_code, body)
    assert isinstance(batch.accepted, int) and isinstance(batch.failed, int)
    if all(isinstance(item.status_code, Hashable) for item in batch.results):
        combined = C._combine_batch_chunk_results([batch, batch])
        assert combined.results == batch.results * 2
        assert (combined.accepted, combined.failed) == (2 * batch.accepted, 2 * batch.failed)


@given(st.integers(min_value=100, max_value=599), answers)
def test_rejections_map_whatever_the_body(status_code: int, body: dict[str, Any]) -> None:
    with pytest.raises(SubmissionRejectedError) as caught:
        submit._raise_submission_rejected(status_code, body)
    error = caught.value
    for result in (C._submit_result_from_rejection(error), C._status_result_from_rejection(error)):
        assert result.status_code == status_code and result.body is body and result.error is not None


@settings(max_examples=300)
@given(st.binary(max_size=700) | json_values.map(lambda v: json.dumps(v).encode()))
def test_decoding_any_bytes_gives_an_object_or_the_response_error(raw: bytes) -> None:
    try:
        data = submit._parse_response_json(200, raw, "http://h/x", operation="op")
    except SignalClientResponseError as error:
        assert error.raw_body == raw and error.raw_body_preview == raw[:512]
        message, body = C._error_body_from_response_error(error)
        assert message and body["status_code"] == 200
        for result in (C._submit_result_from_response_error(error), C._status_result_from_response_error(error),
                       C._batch_result_from_response_error(error)):  # fmt: skip
            assert result.error == message and result.body == body
    else:
        assert isinstance(data, dict)


@given(st.text(), st.text())
def test_join_url_has_exactly_one_slash_at_the_seam(base: str, route: str) -> None:
    joined = submit._join_url(base, route)
    assert joined == base.rstrip("/") + "/" + route.lstrip("/")
