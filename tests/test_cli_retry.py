"""The command line's retrying transport against the service's scripted faults: nothing is stored twice."""

from __future__ import annotations

import json
from collections.abc import Iterator
from pathlib import Path

import httpx
import pytest

from cli_support import TOKEN, fault_service, run_cli, script_faults, stored_with_key, volume_graph, write_graph
from tallowmere.cli.statuses import FINAL
from tallowmere.service import RunningService


@pytest.fixture(scope="module")
def service(tmp_path_factory: pytest.TempPathFactory) -> Iterator[RunningService]:
    with fault_service(tmp_path_factory.mktemp("cli-retry") / "service.db") as svc:
        yield svc


@pytest.fixture(autouse=True)
def environment(service: RunningService, monkeypatch: pytest.MonkeyPatch, tmp_path: Path) -> Iterator[None]:
    monkeypatch.setenv("TALLOWMERE_BASE_URL", service.base_url)
    monkeypatch.setenv("TALLOWMERE_TOKEN", TOKEN)
    monkeypatch.setenv("TALLOWMERE_CACHE_DIR", str(tmp_path / "cache"))
    yield
    httpx.delete(service.base_url + "/_faults", headers={"Authorization": f"Bearer {TOKEN}"}).raise_for_status()


def submit(capsys: pytest.CaptureFixture[str], graph_file: str, *extra: str) -> tuple[int, dict[str, object], str]:
    run = run_cli(capsys, "submit", graph_file, "--universe", "top300", "--pool", "momentum", "--json", *extra)
    return run.code, run.json(), run.err


@pytest.mark.parametrize(
    ("faults", "retry_notices"),
    [
        (["503", "503"], 2),  # refused twice (Retry-After: 1), then accepted
        (["drop_after"], 1),  # stored, but the answer was lost: the retry is a replay
        (["drop", "502", "429:0"], 3),
    ],
)
def test_a_retried_submission_is_stored_exactly_once(
    service: RunningService, capsys: pytest.CaptureFixture[str], tmp_path: Path, faults: list[str], retry_notices: int
) -> None:
    graph_file = write_graph(tmp_path, volume_graph(3 + len(faults) * 7 + retry_notices))
    script_faults(service, "signals/submit", *faults)
    code, document, err = submit(capsys, graph_file)
    assert code == 0, err
    assert err.count("retrying POST") == retry_notices
    body = document["body"]
    assert isinstance(body, dict)
    stored = stored_with_key(service, body["idempotency_key"])
    assert [item["submission_id"] for item in stored] == [document["submission_id"]]


def test_without_retries_a_503_is_a_refusal_and_nothing_is_stored(
    service: RunningService, capsys: pytest.CaptureFixture[str], tmp_path: Path
) -> None:
    graph_file = write_graph(tmp_path, volume_graph(41))
    script_faults(service, "signals/submit", "503")
    code, document, err = submit(capsys, graph_file, "--no-retries", "--idempotency-key", "no-retries-503")
    assert code == 1
    assert "the service refused the signal: service_unavailable (HTTP 503)" in err
    assert "retrying" not in err
    assert document["status_code"] == 503 and document["submission_id"] is None
    assert stored_with_key(service, "no-retries-503") == []


def test_status_and_catalog_reads_are_retried(service: RunningService, capsys: pytest.CaptureFixture[str]) -> None:
    script_faults(service, "eras", "504")
    script_faults(service, "signals/status", "503:0", "500")
    assert run_cli(capsys, "eras", "--json").code == 0
    # 500 is not retried: it is the service's own failure, and an HTML page is no status.
    run = run_cli(capsys, "status", "sig_unknown")
    assert run.code == 3  # no usable answer: not a refusal
    assert "answer to GET /signals/status/sig_unknown (HTTP 500) is not the JSON expected" in run.err
    assert run.err.count("retrying GET") == 1


def test_a_batch_answered_503_is_sent_again_and_stored_once(
    service: RunningService, capsys: pytest.CaptureFixture[str], tmp_path: Path
) -> None:
    items = [{"graph": volume_graph(window), "idempotency_key": f"retry-batch-{window}"} for window in (43, 44)]
    (tmp_path / "batch.jsonl").write_text("\n".join(json.dumps(item) for item in items))
    script_faults(service, "signals/batch", "503")
    # Each item of a batch carries its own key, so the transport sends the batch again by itself.
    sent = run_cli(capsys, "batch", str(tmp_path / "batch.jsonl"), "--universe", "top300", "--pool", "momentum")
    assert sent.code == 0
    assert "retrying POST /signals/batch after HTTP 503" in sent.err
    assert len(stored_with_key(service, "retry-batch-43")) == len(stored_with_key(service, "retry-batch-44")) == 1


def test_poll_goes_on_through_an_outage_and_says_so(
    service: RunningService, capsys: pytest.CaptureFixture[str], tmp_path: Path
) -> None:
    graph_file = write_graph(tmp_path, volume_graph(45))
    code, document, _ = submit(capsys, graph_file)
    assert code == 0
    # Without the transport's retries, each of these is a round without an answer: about a second of outage.
    script_faults(service, "signals/status", "drop", "500", "drop", "503_html", "drop", "502", "drop", "drop")
    polled = run_cli(capsys, "poll", str(document["submission_id"]), "--no-retries", "--interval", "0.1",
                     "--wait", "30", "--json")  # fmt: skip
    (final,) = polled.json()["submissions"]
    assert final["status"] in FINAL and polled.json()["unreachable"] is None
    assert polled.code == (0 if final["status"] == "signal_useful" else 1), polled.err
    assert "tallowmere poll: warning: no answer from the service (Server disconnected" in polled.err
    assert "tallowmere poll: warning: the service answers again, after " in polled.err
