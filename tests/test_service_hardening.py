"""Hostile and malformed requests: every one is a 4xx with a JSON reason, and the connection lives on."""

from __future__ import annotations

import json
import logging
import socket
import time
from collections.abc import Iterator
from contextlib import closing
from pathlib import Path
from typing import Any

import httpx
import pytest

from service_support import TOKEN_A, client_for, running, signal_body, strategy_body
from tallowmere.service import RunningService
from tallowmere.service.idempotency import submission_fingerprint
from tallowmere.service.jsonio import canonical_fingerprint, canonical_json

JSON = {"Content-Type": "application/json"}


@pytest.fixture(scope="module")
def service(tmp_path_factory: pytest.TempPathFactory) -> Iterator[RunningService]:
    with running(tmp_path_factory.mktemp("hardening") / "service.db") as svc:
        yield svc


@pytest.fixture
def alpha(service: RunningService) -> Iterator[httpx.Client]:
    with client_for(service, TOKEN_A) as client:
        yield client


@pytest.fixture
def server_log(caplog: pytest.LogCaptureFixture) -> Iterator[pytest.LogCaptureFixture]:
    """Capture the service's log and uvicorn's (which does not reach the root logger) from INFO up."""
    uvicorn_log = logging.getLogger("uvicorn")
    uvicorn_log.addHandler(caplog.handler)
    try:
        with caplog.at_level(logging.INFO):
            yield caplog
    finally:
        uvicorn_log.removeHandler(caplog.handler)


def body_text(key: str, **overrides: Any) -> str:
    return json.dumps(signal_body(key=key, **overrides))


def spliced(key: str, old: str, new: str) -> bytes:
    """A valid body's JSON text with its first ``old`` replaced by ``new`` (to write what json.dumps cannot)."""
    text = body_text(key)
    assert old in text
    return text.replace(old, new, 1).encode()


def batch_of(*items: str) -> bytes:
    return ('{"signals": [' + ", ".join(items) + "]}").encode()


# (name, method, path, headers, body, status code, reason)
CORPUS: list[tuple[str, str, str, Any, bytes | None, int, str]] = [
    ("limit in superscript digits", "GET", "/signals/submissions?limit=%C2%B2", {}, None, 422, "invalid_query"),
    ("limit of 5,000 digits", "GET", "/signals/submissions?limit=" + "9" * 5000, {}, None, 422, "invalid_query"),
    ("negative limit", "GET", "/signals/submissions?limit=-1", {}, None, 422, "invalid_query"),
    ("limit given twice", "GET", "/signals/submissions?limit=1&limit=2", {}, None, 422, "invalid_query"),
    ("overlong since", "GET", "/signals/submissions?since=" + "2" * 500, {}, None, 422, "invalid_query"),
    ("garbage cursor", "GET", "/signals/submissions?cursor=%FF%FE", {}, None, 422, "invalid_query"),
    ("forged cursor", "GET", "/signals/submissions?cursor=YmVmb3JlOmFiYw", {}, None, 422, "invalid_query"),
    ("overlong key filter", "GET", "/signals/submissions?idempotency_key=" + "k" * 300, {}, None, 422, "invalid_query"),
    ("1e400 in the statistics", "POST", "/signals/submit", JSON,
     spliced("inf", '"sharpe": ', '"sharpe": 1e400, "x": '), 422, "malformed_json"),
    ("-1e400 in the search state", "POST", "/signals/submit", JSON,
     spliced("ninf", '"idempotency_key"', '"search_state": [-1e400], "idempotency_key"'), 422, "malformed_json"),
    ("an integer of 5,000 digits", "POST", "/signals/submit", JSON,
     spliced("digits", '"market_id": 1', '"market_id": 1' + "0" * 5000), 422, "malformed_json"),
    ("a lone surrogate in the key", "POST", "/signals/submit", JSON,
     spliced("placeholder", '"placeholder"', '"\\ud800"'), 422, "malformed_json"),
    ("a lone surrogate in a value", "POST", "/signals/submit", JSON,
     spliced("value", '"top300"', '"top\\udc00"'), 422, "malformed_json"),
    ("a lone surrogate in a field name", "POST", "/signals/submit", JSON,
     spliced("name", '"graph"', '"gr\\ud800aph"'), 422, "malformed_json"),
    ("nesting 100,000 deep", "POST", "/signals/submit", JSON, b"[" * 100_000, 422, "malformed_json"),
    ("UTF-16 declared as JSON", "POST", "/signals/submit", JSON, body_text("utf16").encode("utf-16"), 422,
     "malformed_json"),
    ("UTF-16 declared", "POST", "/signals/submit", {"Content-Type": "application/json; charset=utf-16"},
     body_text("utf16").encode("utf-16"), 415, "unsupported_media_type"),
    ("form data", "POST", "/signals/submit", {"Content-Type": "application/x-www-form-urlencoded"},
     b"idempotency_key=form", 415, "unsupported_media_type"),
    ("no content type", "POST", "/signals/submit", {}, body_text("bare").encode(), 415, "unsupported_media_type"),
    ("a body over 256 KiB", "POST", "/signals/submit", JSON, body_text("big", search_state="x" * 300_000).encode(),
     413, "body_too_large"),
    ("a search state over its cap", "POST", "/signals/submit", JSON,
     body_text("state", search_state="x" * 70_000).encode(), 422, "malformed_body"),
    ("metaparameters over their cap", "POST", "/signals/submit", JSON,
     body_text("meta", metaparameters={"x": "y" * 17_000}).encode(), 422, "malformed_body"),
    ("a market id beyond 64 bits", "POST", "/signals/submit", JSON,
     body_text("market", market_id=10**30, client_manifest_market_id=10**30).encode(), 422, "malformed_body"),
    ("Idempotency-Key twice", "POST", "/signals/submit",
     [("Content-Type", "application/json"), ("Idempotency-Key", "twice"), ("Idempotency-Key", "other")],
     body_text("twice").encode(), 400, "duplicate_header"),
    ("Authorization twice", "GET", "/eras", [("Authorization", f"Bearer {TOKEN_A}"), ("Authorization", "Bearer x")],
     None, 400, "duplicate_header"),
    ("a 100 KB Idempotency-Key", "POST", "/signals/submit", {**JSON, "Idempotency-Key": "k" * 100_000},
     body_text("long").encode(), 431, "headers_too_large"),
    ("a 300-character Idempotency-Key", "POST", "/signals/submit", {**JSON, "Idempotency-Key": "k" * 300},
     body_text("k" * 300).encode(), 400, "invalid_header"),
    ("an Idempotency-Key that is not UTF-8", "POST", "/signals/submit",
     [(b"Content-Type", b"application/json"), (b"Idempotency-Key", b"\xff\xfe")], body_text("latin").encode(), 400,
     "invalid_header"),
    ("a batch whose envelope has a surrogate", "POST", "/signals/batch", JSON, b'{"signals": [], "\\ud800": 1}', 422,
     "malformed_body"),
    ("a strategy with 1e400", "POST", "/strategies/submit", JSON,
     json.dumps(strategy_body(key="strategy-inf")).replace('"era_number": 3', '"era_number": 3e400', 1).encode(),
     422, "malformed_json"),
]


def _send(client: httpx.Client, method: str, path: str, headers: Any, body: bytes | None) -> httpx.Response:
    if isinstance(headers, list) and any(name.lower() in ("authorization", b"authorization") for name, _ in headers):
        # The client's own Authorization would be replaced; send the request's headers alone.
        request = httpx.Request(method, client.base_url.join(path), headers=headers, content=body)
        return client.send(request)
    return client.request(method, path, headers=headers, content=body)


@pytest.mark.parametrize(
    ("method", "path", "headers", "body", "status_code", "reason"),
    [case[1:] for case in CORPUS],
    ids=[case[0] for case in CORPUS],
)
def test_malformed_requests_get_a_json_4xx_and_the_connection_lives_on(
    alpha: httpx.Client,
    server_log: pytest.LogCaptureFixture,
    method: str,
    path: str,
    headers: Any,
    body: bytes | None,
    status_code: int,
    reason: str,
) -> None:
    answer = _send(alpha, method, path, headers, body)
    assert (answer.status_code, answer.json()["reason"]) == (status_code, reason), answer.text
    assert "k" * 100 not in answer.text, "a refusal echoed a long header value"
    assert answer.headers.get("connection") != "close"
    assert alpha.get("/eras").status_code == 200  # on the same kept-alive connection
    assert [record for record in server_log.records if record.levelno >= logging.WARNING] == []


def test_a_refusal_names_where_the_unkeepable_value_sits(alpha: httpx.Client) -> None:
    answer = alpha.post("/signals/submit", content=spliced("where", '"sharpe": ', '"sharpe": -1e400, "x": '),
                        headers=JSON)
    assert answer.json()["details"] == {"message": "number out of range (beyond a 64-bit float)",
                                        "at": "is_stats.sharpe"}


def test_one_bad_item_of_a_batch_is_refused_alone(alpha: httpx.Client) -> None:
    stamp = time.monotonic_ns()
    items = [
        body_text(f"batch-good-{stamp}"),
        spliced(f"batch-inf-{stamp}", '"sharpe": ', '"sharpe": 1e400, "x": ').decode(),
        spliced(f"batch-surrogate-{stamp}", '"top300"', '"\\ud800"').decode(),
        spliced(f"batch-digits-{stamp}", '"era_number": 3', '"era_number": 3' + "0" * 400).decode(),
        body_text(f"batch-other-{stamp}"),
    ]
    answer = alpha.post("/signals/batch", content=batch_of(*items), headers=JSON)
    results = answer.json()["results"]
    assert answer.status_code == 207
    assert [item["status_code"] for item in results] == [202, 422, 422, 422, 202]
    assert {item["body"]["reason"] for item in results[1:4]} == {"malformed_json"}
    assert [item["body"]["details"]["at"] for item in results[1:4]] == ["is_stats.sharpe", "named_universe",
                                                                        "era_number"]


def test_a_non_ascii_idempotency_key_matches_the_same_key_in_the_body(alpha: httpx.Client) -> None:
    key = f"clé-{time.monotonic_ns()}"
    body = body_text(key).encode()
    first = alpha.post("/signals/submit", content=body,
                       headers=[(b"Content-Type", b"application/json"), (b"Idempotency-Key", key.encode())])
    again = alpha.post("/signals/submit", content=body,
                       headers=[(b"Content-Type", b"application/json"), (b"Idempotency-Key", key.encode())])
    assert (first.status_code, again.status_code, again.headers["Idempotent-Replayed"]) == (202, 202, "true")
    assert first.json()["idempotency_key"] == key


@pytest.mark.parametrize(
    "raw",
    [b"GET /signals/status/\xff\xfe HTTP/1.1\r\nHost: x\r\n\r\n", b"BREW /pot\r\n\r\n", b"\x16\x03\x01\x02\x00\x01"],
    ids=["a target that is not ASCII", "not HTTP", "a TLS greeting"],
)
def test_malformed_http_is_answered_400_in_json(service: RunningService, raw: bytes) -> None:
    with closing(socket.create_connection((service.host, service.port), timeout=5)) as sock:
        sock.sendall(raw)
        received = b""
        while chunk := sock.recv(65536):
            received += chunk
    head, _, body = received.partition(b"\r\n\r\n")
    assert head.startswith(b"HTTP/1.1 400")
    assert json.loads(body)["reason"] == "malformed_http"


def test_a_client_leaving_mid_body_is_logged_without_a_traceback(
    service: RunningService, server_log: pytest.LogCaptureFixture
) -> None:
    head = (
        "POST /signals/submit HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n"
        f"Authorization: Bearer {TOKEN_A}\r\nContent-Length: 5000\r\n\r\n"
    ).encode()
    with closing(socket.create_connection((service.host, service.port), timeout=5)) as sock:
        sock.sendall(head + b'{"graph": ')
        time.sleep(0.1)
    deadline = time.monotonic() + 5
    while not any("went away" in record.getMessage() for record in server_log.records):
        assert time.monotonic() < deadline, "the early disconnect was not noticed"
        time.sleep(0.01)
    time.sleep(0.1)
    assert [record for record in server_log.records if record.levelno >= logging.WARNING or record.exc_info] == []


def test_the_fingerprint_of_a_body_is_the_one_stored_by_earlier_versions() -> None:
    body = signal_body(key="fingerprint", metaparameters={"zeta": 1, "alpha": ["é", 2.5]})
    for kind in ("signal", "strategy"):
        assert submission_fingerprint(kind, canonical_json(body)) == canonical_fingerprint({"kind": kind, "body": body})


def test_service_config_refuses_tokens_that_no_header_can_carry(tmp_path: Path) -> None:
    from tallowmere.__main__ import main
    from tallowmere.service.config import ServiceConfig

    for token in ["tök", "tab\there", "new\nline"]:
        with pytest.raises(ValueError, match="printable ASCII"):
            ServiceConfig(db_path=tmp_path / "x.db", tokens=[token])
    assert main(["serve", "--port", "0", "--db", str(tmp_path / "s.db"), "--token", "tök"]) == 2


def test_an_unexpected_failure_is_a_json_500_that_keeps_the_connection(
    service: RunningService, alpha: httpx.Client, server_log: pytest.LogCaptureFixture, monkeypatch: pytest.MonkeyPatch
) -> None:
    def broken(submission_id: str) -> None:
        raise RuntimeError("a bug")

    monkeypatch.setattr(service.runtime.store, "status_of", broken)
    answer = alpha.get("/signals/status/sig_x")
    assert (answer.status_code, answer.json()) == (500, {"error": "internal server error"})
    assert answer.headers.get("connection") != "close"
    assert alpha.get("/eras").status_code == 200
    logged = [record for record in server_log.records if record.levelno >= logging.ERROR]
    assert len(logged) == 1 and logged[0].exc_info is not None


def test_bodies_without_a_length_are_held_to_the_same_limits(alpha: httpx.Client) -> None:
    stamp = time.monotonic_ns()
    items = [body_text(f"chunked-{stamp}-{n}", search_state="s" * 60_000) for n in range(5)]
    batch = batch_of(*items)  # over 256 KiB: read as a large body, a few at a time
    chunks = [batch[start : start + 65_536] for start in range(0, len(batch), 65_536)]
    answer = alpha.post("/signals/batch", content=iter(chunks), headers=JSON)
    assert (answer.status_code, answer.json()["accepted"]) == (202, 5)
    single = body_text(f"chunked-single-{stamp}", search_state="s" * 300_000).encode()
    refused = alpha.post("/signals/submit", content=iter([single[:200_000], single[200_000:]]), headers=JSON)
    assert (refused.status_code, refused.json()["reason"]) == (413, "body_too_large")
