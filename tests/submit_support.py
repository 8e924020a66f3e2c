"""Shared helpers of the client tests: an in-memory transport, a recording HTTP
server on 127.0.0.1, the era catalog of the documentation, and valid signals."""

from __future__ import annotations

import copy
import http.server
import importlib.resources
import json
import threading
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from dataclasses import dataclass, field
from typing import Any

from tallowmere.simulation import backtest_timing
from tallowmere.submit import SignalServiceClient

# The catalog the reference service publishes, which is also the README's complete example.
ERA_CATALOG: dict[str, Any] = json.loads(
    importlib.resources.files("tallowmere.service").joinpath("default_eras.json").read_text()
)
BASE_URL = "http://127.0.0.1:9"

# The statistics of a signal that passes every gate of the "momentum" pool for
# "top300" in the catalog above.
PASSING_STATS: dict[str, float] = {
    "sharpe": 1.2,
    "turnover": 0.4,
    "delta_exposure": 0.05,
    "max_weight": 0.02,
    "abs_weight_sum_mean": 1.0,
    "correlation": 0.1,
}


def era_catalog() -> dict[str, Any]:
    """A fresh copy of the documented era catalog."""
    return copy.deepcopy(ERA_CATALOG)


def recorded_graph(name: str = "close", **parameters: Any) -> dict[str, Any]:
    """A graph with a recorded local backtest timing, ready to submit."""
    graph = {"op": "rank", "args": [{"op": name, **parameters}]}
    backtest_timing.record_backtest_timing(
        graph, elapsed_seconds=0.5, row_count=756, max_row_elapsed_seconds=0.001, frequency="1d"
    )
    return graph


def signal_kwargs(**overrides: Any) -> dict[str, Any]:
    """Keyword arguments of a valid submit_signal call."""
    kwargs: dict[str, Any] = {
        "signal_pool_name": "momentum",
        "is_stats": dict(PASSING_STATS),
        "is_pnl_mi": 0.1,
        "expression_elapsed_seconds": 0.25,
    }
    kwargs.update(overrides)
    return kwargs


@dataclass
class FakeResponse:
    status_code: int
    content: Any = b""


Answer = FakeResponse | BaseException | Callable[["Request"], FakeResponse]


@dataclass
class Request:
    method: str
    path: str
    headers: dict[str, str]
    content: bytes | None

    def json(self) -> Any:
        assert self.content is not None
        return json.loads(self.content)


def json_answer(status_code: int, body: Any) -> FakeResponse:
    return FakeResponse(status_code, json.dumps(body).encode())


@dataclass
class FakeTransport:
    """A caller's transport object with only `get` and `post`.

    Answers come from `routes` (path without query → list of answers, used in
    order, the last one repeated); "/eras" answers the documented catalog unless
    told otherwise. Every request is recorded, its body read as httpx reads a
    stream.
    """

    routes: dict[str, list[Answer]] = field(default_factory=dict)
    requests: list[Request] = field(default_factory=list)

    def __post_init__(self) -> None:
        self.routes.setdefault("/eras", [json_answer(200, ERA_CATALOG)])

    def answer(self, path: str, *answers: Answer) -> FakeTransport:
        self.routes[path] = list(answers)
        return self

    def _respond(self, method: str, path: str, headers: dict[str, str], content: Any) -> FakeResponse:
        body = _read_body(content)
        request = Request(method, path, dict(headers), body)
        self.requests.append(request)
        route = path.split("?", 1)[0]
        answers = self.routes.get(route)
        if not answers:
            return json_answer(404, {"error": "no route " + route})
        answer = answers.pop(0) if len(answers) > 1 else answers[0]
        if isinstance(answer, BaseException):
            raise answer
        return answer(request) if callable(answer) else answer

    def get(self, path: str, *, headers: dict[str, str]) -> FakeResponse:
        return self._respond("GET", path, headers, None)

    def post(self, path: str, *, content: Any, headers: dict[str, str]) -> FakeResponse:
        return self._respond("POST", path, headers, content)

    def paths(self) -> list[str]:
        return [request.path for request in self.requests]

    def bodies(self, path: str) -> list[Any]:
        return [request.json() for request in self.requests if request.path == path]


def _read_body(content: Any) -> bytes | None:
    if content is None or isinstance(content, bytes):
        return content
    chunks = []
    while chunk := content.read(65536):
        chunks.append(chunk)
    return b"".join(chunks)


def fake_client(transport: FakeTransport | None = None, **kwargs: Any) -> tuple[SignalServiceClient, FakeTransport]:
    transport = transport or FakeTransport()
    return SignalServiceClient(BASE_URL, "secret-token", transport=transport, **kwargs), transport


# ---- a real HTTP server on 127.0.0.1 ---------------------------------------------------------


@dataclass
class WireRequest:
    request_line: str
    headers: dict[str, str]
    body: bytes


class RecordingServer:
    """A threaded HTTP/1.1 server that records each raw request and answers
    from a script: a callable taking the request and returning (status, body bytes)."""

    def __init__(self, respond: Callable[[WireRequest], tuple[int, bytes]]) -> None:
        self.requests: list[WireRequest] = []
        recorded = self.requests

        class Handler(http.server.BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def _handle(self) -> None:
                length = int(self.headers.get("Content-Length") or 0)
                if self.headers.get("Transfer-Encoding", "").lower() == "chunked":
                    body = _read_chunked(self.rfile)
                else:
                    body = self.rfile.read(length)
                request = WireRequest(self.requestline, {k: v for k, v in self.headers.items()}, body)
                recorded.append(request)
                status, payload = respond(request)
                self.send_response(status)
                self.send_header("Content-Type", "application/json")
                self.send_header("Content-Length", str(len(payload)))
                self.end_headers()
                self.wfile.write(payload)

            do_GET = do_POST = do_PUT = _handle

            def log_message(self, format: str, *args: Any) -> None:
                pass

        self._server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self._thread = threading.Thread(target=self._server.serve_forever, args=(0.02,), daemon=True)

    @property
    def base_url(self) -> str:
        return f"http://127.0.0.1:{self._server.server_address[1]}"

    def __enter__(self) -> RecordingServer:
        self._thread.start()
        return self

    def __exit__(self, *exc_info: object) -> None:
        self._server.shutdown()
        self._server.server_close()
        self._thread.join()


def _read_chunked(stream: Any) -> bytes:
    body = b""
    while True:
        size = int(stream.readline().strip(), 16)
        if size == 0:
            stream.readline()
            return body
        body += stream.read(size)
        stream.readline()


@contextmanager
def recording_server(respond: Callable[[WireRequest], tuple[int, bytes]]) -> Iterator[RecordingServer]:
    with RecordingServer(respond) as server:
        yield server
