"""The background lifecycle: re-simulation verdicts, out-of-sample and usefulness steps, timings."""

from __future__ import annotations

import json
import os
import sys
import threading
import time
from collections.abc import Sequence
from pathlib import Path
from typing import Any

import httpx
import pytest

from service_support import (
    MOMENTUM_GRAPH,
    REVERSAL_GRAPH,
    VOLUME_GRAPH,
    client_for,
    replaced,
    running,
    signal_body,
    strategy_body,
)
from tallowmere.service import EvaluationPolicy
from tallowmere.service.config import ServiceConfig, ServiceLimits
from tallowmere.service.evaluation import Resimulation, mismatched_statistics
from tallowmere.service.lifecycle import FINAL_STATUSES
from tallowmere.service.records import SubmissionRecord
from tallowmere.service.storage import PoolKey, Step, SubmissionStore, Transition
from tallowmere.service.worker import lower_thread_priority

def wait_for_final(client: httpx.Client, submission_id: str, timeout: float = 20.0) -> dict[str, Any]:
    deadline = time.monotonic() + timeout
    while True:
        answer = client.get(f"/signals/status/{submission_id}")
        body: dict[str, Any] = json.loads(answer.text, parse_constant=lambda name: pytest.fail(f"bare {name}"))
        if body["status"] in FINAL_STATUSES or time.monotonic() > deadline:
            return body
        time.sleep(0.02)


def submit(client: httpx.Client, body: dict[str, Any], route: str = "/signals/submit") -> str:
    answer = client.post(route, json=body)
    assert answer.status_code == 202, answer.text
    submission_id: str = answer.json()["submission_id"]
    return submission_id


def test_an_honest_signal_goes_all_the_way_to_useful_with_a_payment(tmp_path: Path) -> None:
    with running(tmp_path / "s.db", speed=500.0) as service, client_for(service) as client:
        status = wait_for_final(client, submit(client, signal_body(REVERSAL_GRAPH)))
    assert [step["status"] for step in status["history"]] == [
        "signal_submitted", "signal_found", "signal_os_passed", "signal_useful",
    ]
    assert status["payment"]["currency"] == "TMC" and status["payment"]["amount"] > 0
    assert (status["is_correlation"], status["is_pnl_mi"], status["agent_is_pnl_mi"]) == (0.0, 0.0, 0.0)
    assert status["os_stats"]["sharpe"] == pytest.approx(status["payment"]["os_sharpe"])
    assert status["rejection_reason"] is None


def test_rejections_explain_themselves(tmp_path: Path) -> None:
    honest = signal_body(MOMENTUM_GRAPH)
    with running(tmp_path / "s.db", speed=500.0) as service, client_for(service) as client:
        first = wait_for_final(client, submit(client, honest))
        copy = wait_for_final(client, submit(client, {**honest, "idempotency_key": "copy"}))
        volume_stats = signal_body(VOLUME_GRAPH)["is_stats"]
        tampered_stats = {**volume_stats, "sharpe": volume_stats["sharpe"] * 1.01}
        tampered = wait_for_final(client, submit(client, signal_body(VOLUME_GRAPH, key="t", is_stats=tampered_stats)))
        unknown = replaced(graph={"op": "telepathy"}, graph_depth=1, graph_node_count=1, idempotency_key="u")
        unknown_op = wait_for_final(client, submit(client, unknown))
    assert first["history"][1]["status"] == "signal_found"
    assert (copy["status"], copy["is_correlation"], copy["is_pnl_mi"]) == ("signal_is_rejected", 1.0, "Infinity")
    assert copy["rejection_reason"].endswith(": too_correlated")
    assert copy["failure_detail"]["reason"] == "too_correlated"
    assert tampered["status"] == "signal_is_rejected"
    assert tampered["rejection_reason"].endswith(": tampering_detected")
    assert tampered["failure_detail"]["reason"] == "stats_mismatch"
    assert list(tampered["failure_detail"]["fields"]) == ["sharpe"]
    assert (unknown_op["status"], unknown_op["failure_reason"]) == ("signal_is_rejected", "invalid_graph")
    assert "telepathy" in unknown_op["failure_message"]


@pytest.mark.parametrize(
    ("policy", "final_status", "failure_reason"),
    [
        (EvaluationPolicy(os_min_sharpe=50.0), "signal_os_failed", "os_sharpe_below_minimum"),
        (EvaluationPolicy(useful_min_sharpe=50.0), "signal_not_useful", "below_usefulness_bar"),
    ],
)
def test_out_of_sample_and_usefulness_bars(
    tmp_path: Path, policy: EvaluationPolicy, final_status: str, failure_reason: str
) -> None:
    with running(tmp_path / "s.db", speed=500.0, policy=policy) as service, client_for(service) as client:
        status = wait_for_final(client, submit(client, signal_body()))
    assert (status["status"], status["failure_reason"], status["payment"]) == (final_status, failure_reason, None)


def test_an_unexpected_simulator_failure_ends_in_a_server_side_error(tmp_path: Path) -> None:
    def broken(graph: dict[str, Any], references: Sequence[bytes]) -> Resimulation:
        raise RuntimeError("panel store offline")

    with running(tmp_path / "s.db", speed=500.0, resimulator=broken) as service, client_for(service) as client:
        status = wait_for_final(client, submit(client, signal_body()))
    assert status["status"] == "signal_server_side_error"
    assert status["failure_message"] == "RuntimeError: panel store offline"


def test_a_strategy_is_reviewed_into_accepted(tmp_path: Path) -> None:
    with running(tmp_path / "s.db", speed=500.0) as service, client_for(service) as client:
        status = wait_for_final(client, submit(client, strategy_body(), "/strategies/submit"))
    assert status["status"] == "strategy_accepted"
    assert set(status["is_stats"]) >= {"sharpe", "turnover"}


def test_waits_are_scaled_by_speed_and_kept_until_due(tmp_path: Path) -> None:
    now = [1_000_000.0]
    with running(tmp_path / "s.db", speed=4.0, clock=lambda: now[0]) as service, client_for(service) as client:
        submission_id = submit(client, signal_body())
        now[0] += 0.45  # the re-simulation is due 2 s / 4 = 0.5 s after submission
        time.sleep(0.7)
        assert client.get(f"/signals/status/{submission_id}").json()["status"] == "signal_submitted"
        now[0] += 0.1
        deadline = time.monotonic() + 5
        while client.get(f"/signals/status/{submission_id}").json()["status"] == "signal_submitted":
            assert time.monotonic() < deadline, "the worker never re-simulated a due submission"
            time.sleep(0.05)


@pytest.mark.parametrize(
    ("submitted", "mismatching"),
    [
        ({"sharpe": 1.0, "turnover": 0.5}, []),
        ({"sharpe": 1.0 + 5e-7}, []),
        ({"sharpe": 1.0 + 5e-6}, ["sharpe"]),
        ({"sharpe": "1.0"}, ["sharpe"]),
        ({"correlation": 0.9, "is_correlation": 0.9, "custom": 3.0}, []),
    ],
)
def test_statistics_comparison_tolerance(submitted: dict[str, Any], mismatching: list[str]) -> None:
    recomputed = {"sharpe": 1.0, "turnover": 0.5, "correlation": 0.0}
    assert list(mismatched_statistics(submitted, recomputed, EvaluationPolicy())) == mismatching


def test_config_refuses_bad_tokens_and_speeds() -> None:
    for tokens, speed in [("abc", 1.0), ([], 1.0), (["with space"], 1.0), (["ok"], 0.0), (["ok"], float("inf"))]:
        with pytest.raises((TypeError, ValueError)):
            ServiceConfig(db_path=Path("x.db"), tokens=tokens, speed=speed)


@pytest.mark.parametrize("niceness", [-1, 20, 2.0, True, None])
def test_limits_refuse_a_worker_niceness_outside_0_to_19(niceness: Any) -> None:
    with pytest.raises(ValueError, match="worker_niceness"):
        ServiceLimits(worker_niceness=niceness)


def test_the_worker_s_priority_is_lowered_for_its_own_thread_alone() -> None:
    seen: dict[str, int | bool] = {}

    def lower() -> None:
        seen["lowered"] = lower_thread_priority(25)
        seen["thread"] = os.getpriority(os.PRIO_PROCESS, threading.get_native_id())

    before = os.getpriority(os.PRIO_PROCESS, threading.get_native_id())
    thread = threading.Thread(target=lower)
    thread.start()
    thread.join()
    on_linux = sys.platform.startswith("linux")  # elsewhere a thread has no priority of its own
    assert seen == ({"lowered": True, "thread": 19} if on_linux else {"lowered": False, "thread": before})
    assert os.getpriority(os.PRIO_PROCESS, threading.get_native_id()) == before
    assert os.getpriority(os.PRIO_PROCESS, 0) == before


def test_a_round_of_status_changes_is_written_at_once_and_skips_a_status_changed_meanwhile(tmp_path: Path) -> None:
    def record(name: str) -> SubmissionRecord:
        return SubmissionRecord(
            submission_id=f"sig_{name}", owner="owner-a", kind="signal", idempotency_key=name, fingerprint="f",
            pool_name="momentum", named_universe="top300", market_id=1, era_number=3, request={},
            answer={}, thresholds={}, status="signal_submitted", created_at=1.0, updated_at=1.0, next_action_at=2.0,
            history=[{"status": "signal_submitted", "at": "then"}],
        )

    pool = PoolKey(1, 3, "momentum")
    found = Transition("signal_found", {"is_correlation": 0.1}, 50.0, pool_pnl=b"\x00" * 8)
    store = SubmissionStore(tmp_path / "rounds.db")
    try:
        first, second, third = record("first"), record("second"), record("third")
        store.insert([first, second, third])
        assert store.advance([Step(second, found, 3.0, "now")]) == [True]
        made = store.advance([Step(first, found, 4.0, "now"), Step(second, found, 4.0, "again"),
                              Step(third, Transition("signal_is_rejected", {"rejection_reason": "r"}, None), 4.0, "now")])
        assert made == [True, False, True]
        statuses = {s.submission_id: s for s in store.list_for_owner("owner-a").submissions}
        assert [statuses[f"sig_{n}"].status for n in ("first", "second", "third")] == [
            "signal_found", "signal_found", "signal_is_rejected"]
        skipped = statuses["sig_second"]  # nothing of the stale step is written
        assert (skipped.updated_at, skipped.history[-1]) == (3.0, {"status": "signal_found", "at": "now"})
        assert statuses["sig_third"].outcome["rejection_reason"] == "r"
        assert len(store.pool_pnls(pool)) == 2  # first and second, once each
        assert store.advance([]) == []
    finally:
        store.close()
