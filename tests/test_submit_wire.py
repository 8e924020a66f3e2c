"""The client on the wire: a real HTTP server on 127.0.0.1 records what arrives."""

from __future__ import annotations

import json
import socket
from typing import Any

import httpx
import pytest

from tallowmere.submit import SignalClientResponseError, SignalServiceClient

from submit_support import ERA_CATALOG, WireRequest, recorded_graph, recording_server, signal_kwargs


def answer_json(status: int, body: Any) -> tuple[int, bytes]:
    return status, json.dumps(body).encode()


def routed(request: WireRequest) -> tuple[int, bytes]:
    path = request.request_line.split()[1]
    if path == "/eras":
        return answer_json(200, ERA_CATALOG)
    if path.startswith("/signals/status/"):
        return answer_json(200, {"status": "signal_found", "correlation": 0.5})
    if path.startswith("/signals/submissions"):
        return answer_json(200, {"submissions": []})
    return answer_json(202, {"submission_id": "s-1", "signal_pool_name": "momentum"})


def closed_port() -> int:
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return int(probe.getsockname()[1])


def test_status_paths_keep_their_encoding_on_the_request_line() -> None:
    with recording_server(routed) as server:
        client = SignalServiceClient(server.base_url, "tok")
        result = client.get_signal_status("a/b c")
        client.close()
    assert server.requests[0].request_line == "GET /signals/status/a%2Fb%20c HTTP/1.1"
    assert (result.status, result.body) == ("signal_found", {"status": "signal_found"})


def test_listing_query_on_the_wire() -> None:
    with recording_server(routed) as server:
        client = SignalServiceClient(server.base_url + "/", "tok")
        client.list_signal_submissions(status="signal found", idempotency_key="k&1", since="2024-01-01T00:00:00Z")
    assert server.requests[0].request_line == (
        "GET /signals/submissions?status=signal%20found&idempotency_key=k%261"
        "&since=2024-01-01T00%3A00%3A00Z&limit=100 HTTP/1.1"
    )


def test_a_signal_on_the_wire_with_a_transmission_observer() -> None:
    observed: list[tuple[Any, ...]] = []
    graph = recorded_graph("vwap")
    with recording_server(routed) as server:
        client = SignalServiceClient(server.base_url, "tok", transmission_observer=lambda *a: observed.append(a))
        result = client.submit_signal(graph, "top300", **signal_kwargs())
    eras, submitted = server.requests
    assert eras.request_line == "GET /eras HTTP/1.1" and "Content-Type" not in eras.headers
    assert submitted.request_line == "POST /signals/submit HTTP/1.1"
    body = json.loads(submitted.body)
    assert submitted.headers["Authorization"] == "Bearer tok"
    assert submitted.headers["Content-Type"] == "application/json"
    assert submitted.headers["Idempotency-Key"] == body["idempotency_key"]
    assert submitted.headers["Content-Length"] == str(len(submitted.body))
    ((method, url, headers, body_bytes),) = observed
    assert (method, url) == ("POST", server.base_url + "/signals/submit")
    assert body_bytes == submitted.body == json.dumps(body).encode()
    assert headers["Idempotency-Key"] == body["idempotency_key"]
    assert (result.status_code, result.submission_id, result.error) == (202, "s-1", None)


@pytest.mark.parametrize(
    ("answer", "status_code", "error"),
    [
        (answer_json(409, {"reason": "idempotency_key_in_flight"}), 409, "idempotency_key_in_flight"),
        ((503, b"<html>busy</html>"), 503, "<html>busy</html>"),
        ((404, b""), 404, "http_404"),
    ],
)
def test_signal_outcomes_on_the_wire(answer: tuple[int, bytes], status_code: int, error: str) -> None:
    graph = recorded_graph("open")

    def respond(request: WireRequest) -> tuple[int, bytes]:
        return routed(request) if "/eras" in request.request_line else answer

    with recording_server(respond) as server:
        result = SignalServiceClient(server.base_url, "tok").submit_signal(graph, "top300", **signal_kwargs())
    assert (result.status_code, result.error, result.submission_id) == (status_code, error, None)


def test_a_malformed_500_reaches_the_caller() -> None:
    graph = recorded_graph("low")

    def respond(request: WireRequest) -> tuple[int, bytes]:
        return routed(request) if "/eras" in request.request_line else (500, b"Internal Server Error")

    with recording_server(respond) as server:
        with pytest.raises(SignalClientResponseError, match="Malformed JSON response from .*/signals/submit"):
            SignalServiceClient(server.base_url, "tok").submit_signal(graph, "top300", **signal_kwargs())


def test_a_closed_port_is_a_transport_failure_for_every_query() -> None:
    client = SignalServiceClient(f"http://127.0.0.1:{closed_port()}", "tok", timeout=2.0)
    status = client.get_signal_status("s1")
    listing = client.list_signal_submissions()
    polled = client.poll_until_terminal("s1", timeout=30)
    for result in (status, listing, polled):
        assert result.status_code == 0 and result.body is None and result.error
    with pytest.raises(httpx.ConnectError):
        client.submit_strategy({"op": "close"}, "top300", strategy_pool_name="p", market_id=1, era_number=3)


def test_a_callers_transport_with_only_post_and_get_serves_every_route() -> None:
    class Minimal:
        def __init__(self, base_url: str) -> None:
            self._inner = httpx.Client(base_url=base_url)

        def post(self, path: str, *, content: Any, headers: dict[str, str]) -> httpx.Response:
            return self._inner.post(path, content=content, headers=headers)

        def get(self, path: str, *, headers: dict[str, str]) -> httpx.Response:
            return self._inner.get(path, headers=headers)

    graph = recorded_graph("high")
    with recording_server(routed) as server:
        client = SignalServiceClient(server.base_url, "tok", transport=Minimal(server.base_url))
        assert client.submit_signal(graph, "top300", **signal_kwargs()).error is None
        assert client.submit_strategy(graph, "top300", strategy_pool_name="p", market_id=1, era_number=3).error is None
        assert client.submit_signals_batch([]).status_code == 202
        assert client.get_signal_status("s1").status == "signal_found"
        assert client.list_signal_submissions().error is None
        with pytest.raises(ValueError, match="^Unsupported HTTP method: PUT$"):
            client._canonical_request("PUT", "eras")
        client.close()
    routes = [request.request_line.split()[1] for request in server.requests]
    assert routes == ["/eras", "/signals/submit", "/strategies/submit", "/signals/batch", "/signals/status/s1",
                      "/signals/submissions?limit=100"]  # fmt: skip
