"""The compiled client against the real service over loopback."""

from __future__ import annotations

import math
from collections.abc import Iterator
from contextlib import closing
from pathlib import Path
from typing import Any

import httpx
import pytest

from service_support import MOMENTUM_GRAPH, REVERSAL_GRAPH, TOKEN_A, TOKEN_B, VOLUME_GRAPH, running
import tallowmere.submit
from tallowmere.service import RunningService
from tallowmere.service.lifecycle import ALL_STATUSES, CLIENT_TERMINAL_STATUSES
from tallowmere.simulation import simulate_signal
from tallowmere.submit import SignalServiceClient


def simulated(graph: dict[str, Any]) -> dict[str, Any]:
    """Simulate ``graph`` (recording its backtest timing) and return its submission keyword arguments."""
    return dict(simulate_signal(graph).submission_kwargs())


def window_graph(window: int) -> dict[str, Any]:
    return {"op": "rank", "args": [{"op": "ts_mean", "window": window, "args": [{"op": "volume"}]}]}


@pytest.fixture(scope="module")
def service(tmp_path_factory: pytest.TempPathFactory) -> Iterator[RunningService]:
    with running(tmp_path_factory.mktemp("client") / "service.db", faults=True) as svc:
        yield svc


@pytest.fixture
def client(service: RunningService) -> Iterator[SignalServiceClient]:
    httpx.delete(service.base_url + "/_faults", headers={"Authorization": f"Bearer {TOKEN_A}"}).raise_for_status()
    with closing(SignalServiceClient(service.base_url, TOKEN_A)) as client:
        yield client


def script(service: RunningService, *faults: str) -> None:
    httpx.post(
        service.base_url + "/_faults",
        json={"route": "signals/submit", "faults": list(faults)},
        headers={"Authorization": f"Bearer {TOKEN_A}"},
    ).raise_for_status()


def test_submit_then_replay_with_the_generated_key(client: SignalServiceClient) -> None:
    kwargs = simulated(REVERSAL_GRAPH)
    first = client.submit_signal(REVERSAL_GRAPH, "top300", signal_pool_name="momentum", **kwargs)
    again = client.submit_signal(REVERSAL_GRAPH, "top300", signal_pool_name="momentum", **kwargs)
    assert (first.error, first.status_code, first.signal_pool_name) == (None, 202, "momentum")
    assert first.body["idempotency_key"].startswith("sigsubmit-")
    assert (again.status_code, again.submission_id) == (202, first.submission_id)


def test_key_reuse_and_unknown_token_come_back_as_results(service: RunningService, client: SignalServiceClient) -> None:
    for graph in (MOMENTUM_GRAPH, VOLUME_GRAPH):
        reused = client.submit_signal(
            graph, "top300", signal_pool_name="momentum", idempotency_key="fixed", **simulated(graph)
        )
    assert (reused.status_code, reused.error) == (422, "idempotency_key_reused")
    with closing(SignalServiceClient(service.base_url, "not-a-token")) as stranger:
        refused = stranger.list_signal_submissions()
        with pytest.raises(ValueError, match="could not fetch /eras"):
            stranger.submit_signal(VOLUME_GRAPH, "top300", signal_pool_name="momentum", **simulated(VOLUME_GRAPH))
    assert (refused.status_code, refused.error, refused.submissions) == (401, "unknown bearer token", [])


def test_batch_with_a_reused_key_is_207(client: SignalServiceClient) -> None:
    first, second = window_graph(5), window_graph(6)
    client.submit_signal(first, "top300", signal_pool_name="reversal", idempotency_key="batch-dup", **simulated(first))
    items = [
        {"graph": second, "named_universe": "top300", "signal_pool_name": "reversal", **simulated(second)},
        {
            "graph": first,
            "named_universe": "liquid150",
            "signal_pool_name": "reversal",
            "idempotency_key": "batch-dup",
            **simulated(first),
        },
    ]
    result = client.submit_signals_batch(items)
    assert (result.status_code, result.accepted, result.failed) == (207, 1, 1)
    assert [item.status_code for item in result.results] == [202, 422]
    assert result.results[0].submission_id is not None and result.results[1].error == "idempotency_key_reused"


def test_listing_filters_reach_the_service(service: RunningService) -> None:
    with closing(SignalServiceClient(service.base_url, TOKEN_B)) as client:
        check_listing_filters(client)


def check_listing_filters(client: SignalServiceClient) -> None:
    graphs = [window_graph(window) for window in (10, 11, 12)]
    results = [
        client.submit_signal(graph, "top300", signal_pool_name="reversal", idempotency_key=key, **simulated(graph))
        for key, graph in zip(["list-0", "list-1", "list-2"], graphs, strict=True)
    ]
    ids = [result.submission_id for result in results]
    newest_two = client.list_signal_submissions(status="signal_submitted", limit=2)
    assert [item["submission_id"] for item in newest_two.submissions] == ids[:0:-1]
    by_key = client.list_signal_submissions(idempotency_key="list-0")
    assert [item["submission_id"] for item in by_key.submissions] == ids[:1]
    assert client.list_signal_submissions(since="2999-01-01T00:00:00+00:00").submissions == []
    bad = client.list_signal_submissions(limit=0)
    assert (bad.status_code, bad.error) == (422, "invalid_query")


def test_transport_failures_and_retries_are_safe(service: RunningService, client: SignalServiceClient) -> None:
    graph = window_graph(30)
    kwargs = simulated(graph)
    script(service, "drop_after", "503")
    lost = client.submit_signal(graph, "top300", signal_pool_name="reversal", **kwargs)
    busy = client.submit_signal(graph, "top300", signal_pool_name="reversal", **kwargs)
    retried = client.submit_signal(graph, "top300", signal_pool_name="reversal", **kwargs)
    assert (lost.status_code, busy.status_code, retried.status_code) == (0, 503, 202)
    assert lost.error and busy.error == "service_unavailable"
    listed = client.list_signal_submissions(idempotency_key=retried.body["idempotency_key"])
    assert [item["submission_id"] for item in listed.submissions] == [retried.submission_id]


def test_strategy_and_unknown_status(client: SignalServiceClient) -> None:
    result = client.submit_strategy(VOLUME_GRAPH, "top300", strategy_pool_name="core", market_id=1, era_number=3)
    assert (result.status_code, result.strategy_pool_name, result.error) == (202, "core", None)
    missing = client.get_signal_status("no/such id")
    assert (missing.status_code, missing.error, missing.status) == (404, "unknown submission", None)


def test_the_service_and_the_client_agree_on_terminal_statuses() -> None:
    assert CLIENT_TERMINAL_STATUSES == tallowmere.submit._TERMINAL_STATUSES
    assert CLIENT_TERMINAL_STATUSES <= ALL_STATUSES


def test_poll_until_terminal_and_status_figures(tmp_path: Path) -> None:
    with (
        running(tmp_path / "fast.db", speed=200.0) as fast,
        closing(SignalServiceClient(fast.base_url, TOKEN_A)) as client,
    ):
        kwargs = simulated(REVERSAL_GRAPH)
        found = client.submit_signal(REVERSAL_GRAPH, "top300", signal_pool_name="momentum", **kwargs)
        copy = client.submit_signal(
            REVERSAL_GRAPH, "top300", signal_pool_name="momentum", idempotency_key="copy", **kwargs
        )
        tampered_stats = {**kwargs["is_stats"], "turnover": kwargs["is_stats"]["turnover"] * 0.9}
        tampered = client.submit_signal(
            REVERSAL_GRAPH, "liquid150", signal_pool_name="reversal", **{**kwargs, "is_stats": tampered_stats}
        )
        first = client.poll_until_terminal(found.submission_id, timeout=20)
        rejected = client.poll_until_terminal(copy.submission_id, timeout=20)
        mismatch = client.poll_until_terminal(tampered.submission_id, timeout=20)
    assert first.status in {"signal_found", "signal_os_passed", "signal_useful"}
    assert (rejected.status, rejected.is_correlation, rejected.is_pnl_mi) == ("signal_is_rejected", 1.0, math.inf)
    assert "correlation" not in rejected.body and "is_weights_mi" not in rejected.body
    assert (mismatch.status, mismatch.failure_reason) == ("signal_is_rejected", "stats_mismatch")
    assert mismatch.agent_is_pnl_mi == 0.0
