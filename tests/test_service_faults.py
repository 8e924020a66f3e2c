"""Scripted faults: each kind, their order, and the control route's own refusals."""

from __future__ import annotations

import json
import time
from collections.abc import Iterator
from pathlib import Path

import httpx
import pytest

from service_support import client_for, running, signal_body
from tallowmere.service import RunningService


# A server that closes while request bytes are still in flight or unread
# resets the connection instead of ending it; the client then fails to read
# or to write rather than seeing an orderly end without an answer.
CLOSED_WITHOUT_ANSWER = (httpx.RemoteProtocolError, httpx.ReadError, httpx.WriteError)


@pytest.fixture(scope="module")
def service(tmp_path_factory: pytest.TempPathFactory) -> Iterator[RunningService]:
    with running(tmp_path_factory.mktemp("faults") / "service.db", faults=True) as svc:
        yield svc


@pytest.fixture
def client(service: RunningService) -> Iterator[httpx.Client]:
    with client_for(service) as client:
        client.delete("/_faults").raise_for_status()
        yield client


def script(client: httpx.Client, route: str, *faults: str) -> None:
    client.post("/_faults", json={"route": route, "faults": list(faults)}).raise_for_status()


def count_with_key(client: httpx.Client, key: str) -> int:
    count: int = client.get("/signals/submissions", params={"idempotency_key": key}).json()["count"]
    return count


@pytest.mark.parametrize(
    ("fault", "status_code", "content_type", "retry_after"),
    [
        ("429", 429, "application/json", "1"),
        ("429:7", 429, "application/json", "7"),
        ("503", 503, "application/json", "1"),
        ("500", 500, "text/html", None),
        ("502", 502, "text/html", None),
        ("503_html", 503, "text/html", None),
        ("504", 504, "text/html", None),
        ("malformed_json", 200, "application/json", None),
    ],
)
def test_answer_faults_stand_in_for_the_route_without_processing(
    client: httpx.Client, fault: str, status_code: int, content_type: str, retry_after: str | None
) -> None:
    key = f"answer-{fault}"
    script(client, "signals/submit", fault)
    answer = client.post("/signals/submit", json=signal_body(key=key))
    assert answer.status_code == status_code
    assert answer.headers["content-type"].startswith(content_type)
    assert answer.headers.get("retry-after") == retry_after
    if fault == "malformed_json":
        with pytest.raises(json.JSONDecodeError):
            json.loads(answer.text)
    elif content_type == "application/json":
        assert answer.json()["retry_after"] == int(retry_after or 0)
    assert count_with_key(client, key) == 0
    assert client.post("/signals/submit", json=signal_body(key=key)).status_code == 202


def test_faults_are_consumed_in_order_one_per_request_of_their_route(client: httpx.Client) -> None:
    script(client, "eras", "503", "429")
    script(client, "eras", "502")
    script(client, "signals/status", "500")
    assert client.get("/_faults").json()["pending"] == {"eras": ["503", "429", "502"], "signals/status": ["500"]}
    assert client.get("/signals/submissions").status_code == 200
    assert [client.get("/eras").status_code for _ in range(4)] == [503, 429, 502, 200]
    assert client.get("/signals/status/any%2Fid").status_code == 500
    assert client.get("/signals/status/any").status_code == 404


def test_drop_closes_the_connection_before_processing(client: httpx.Client) -> None:
    script(client, "signals/submit", "drop")
    with pytest.raises(CLOSED_WITHOUT_ANSWER):
        client.post("/signals/submit", json=signal_body(key="dropped"))
    assert count_with_key(client, "dropped") == 0


def test_drop_after_processes_then_hides_the_answer_and_a_retry_replays(client: httpx.Client) -> None:
    script(client, "signals/submit", "drop_after")
    with pytest.raises(CLOSED_WITHOUT_ANSWER):
        client.post("/signals/submit", json=signal_body(key="lost-answer"))
    listed = client.get("/signals/submissions", params={"idempotency_key": "lost-answer"}).json()["submissions"]
    retry = client.post("/signals/submit", json=signal_body(key="lost-answer"))
    assert (retry.status_code, retry.headers["Idempotent-Replayed"]) == (202, "true")
    assert [item["submission_id"] for item in listed] == [retry.json()["submission_id"]]


def test_delay_answers_late(client: httpx.Client) -> None:
    script(client, "signals/submissions", "delay:0.3")
    began = time.monotonic()
    assert client.get("/signals/submissions").status_code == 200
    assert time.monotonic() - began >= 0.3


@pytest.mark.parametrize(
    "document",
    [
        {"route": "signals/everything", "faults": ["503"]},
        {"route": "eras", "faults": []},
        {"route": "eras", "faults": ["418"]},
        {"route": "eras", "faults": ["delay:0"]},
        {"route": "eras", "faults": ["delay:61"]},
        {"route": "eras", "faults": ["429:soon"]},
        {"route": "eras", "faults": ["drop:1"]},
        {"route": "eras", "faults": [503]},
    ],
)
def test_bad_scripts_are_refused_whole(client: httpx.Client, document: dict[str, object]) -> None:
    answer = client.post("/_faults", json=document)
    assert (answer.status_code, answer.json()["reason"]) == (422, "malformed_fault_script")
    assert client.get("/_faults").json()["pending"] == {}


def test_the_control_route_exists_only_with_faults_enabled(tmp_path: Path) -> None:
    with running(tmp_path / "plain.db") as plain, client_for(plain) as client:
        assert client.post("/_faults", json={"route": "eras", "faults": ["503"]}).status_code == 404
        assert client.get("/eras").status_code == 200
