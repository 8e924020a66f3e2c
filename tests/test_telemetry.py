"""Structured surface events on the standard logging system."""

from __future__ import annotations

import logging

import pytest

from tallowmere.telemetry.logging_style import TELEMETRY_LOGGER_NAME, log_library_surface_event

NATIVE_SOURCE = "tallowmere_library/native_sources/src/tallowmere/submit.cpp"


def test_error_event_is_one_warning_record_pointing_at_its_source(caplog: pytest.LogCaptureFixture) -> None:
    metadata = {"reason": "transport_error", "error_type": "ConnectError"}
    with caplog.at_level(logging.INFO, logger=TELEMETRY_LOGGER_NAME):
        event = log_library_surface_event(
            "Submission", "error", sub_service="submit", component="transport", metadata=metadata,
            source_function="_submit_result_from_transport_error", source_file=NATIVE_SOURCE, source_line=933,
        )
    metadata["reason"] = "changed afterwards"
    assert len(caplog.records) == 1
    record = caplog.records[0]
    assert record.name == TELEMETRY_LOGGER_NAME and record.levelno == logging.WARNING
    assert record.getMessage() == (
        "Submission error sub_service=submit component=transport reason=transport_error error_type=ConnectError"
    )
    assert (record.filename, record.lineno, record.funcName) == ("submit.cpp", 933, "_submit_result_from_transport_error")
    assert record.surface_event is event  # type: ignore[attr-defined]
    assert event == {
        "surface": "Submission", "outcome": "error", "sub_service": "submit", "component": "transport",
        "metadata": {"reason": "transport_error", "error_type": "ConnectError"},
        "source_function": "_submit_result_from_transport_error", "source_file": NATIVE_SOURCE, "source_line": 933,
    }


def test_other_outcomes_log_at_info_from_the_caller(caplog: pytest.LogCaptureFixture) -> None:
    with caplog.at_level(logging.INFO, logger=TELEMETRY_LOGGER_NAME):
        event = log_library_surface_event("Status", "ok", sub_service="status", component="client")
    (record,) = caplog.records
    assert record.levelno == logging.INFO and record.filename == "test_telemetry.py"
    assert record.getMessage() == "Status ok sub_service=status component=client"
    assert event["metadata"] == {} and event["source_line"] is None


def test_filtered_level_emits_nothing_but_returns_the_event(caplog: pytest.LogCaptureFixture) -> None:
    with caplog.at_level(logging.WARNING, logger=TELEMETRY_LOGGER_NAME):
        event = log_library_surface_event("Status", "ok", sub_service="status", component="client",
                                          metadata={"n": 1})
    assert caplog.records == [] and event["metadata"] == {"n": 1}
