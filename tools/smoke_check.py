"""Checks an installed tallowmere: the compiled client loads through the
interpreter's extension loader, the sibling modules use their compiled fast
paths, the package data ships, and a signal goes from simulation to an
accepted submission against the bundled era catalog.

    python tools/smoke_check.py
"""

import importlib.machinery
import importlib.resources
import json
from typing import Any

import tallowmere.submit
from tallowmere import _accelerate
from tallowmere.simulation import simulate_signal
from tallowmere.submit import SignalServiceClient

assert isinstance(tallowmere.submit.__loader__, importlib.machinery.ExtensionFileLoader), tallowmere.submit.__loader__
assert _accelerate.ACCELERATED, "the compiled sibling functions are not in use"
catalog_text = importlib.resources.files("tallowmere.service").joinpath("default_eras.json").read_text()
assert importlib.resources.files("tallowmere").joinpath("submit.pyi").is_file()
assert importlib.resources.files("tallowmere").joinpath("py.typed").is_file()


class Answer:
    def __init__(self, status_code: int, body: Any) -> None:
        self.status_code = status_code
        self.content = json.dumps(body).encode()


class InMemory:
    def get(self, path: str, *, headers: dict[str, str]) -> Answer:
        return Answer(200, json.loads(catalog_text))

    def post(self, path: str, *, content: bytes, headers: dict[str, str]) -> Answer:
        return Answer(202, {"submission_id": "smoke-1", "status": "signal_submitted"})


graph = {"op": "rank", "args": [{"op": "neg", "args": [{"op": "returns"}]}]}
result = simulate_signal(graph)
submitted = SignalServiceClient("http://127.0.0.1:9", "token", transport=InMemory()).submit_signal(
    graph, "top300", signal_pool_name="momentum", **result.submission_kwargs()
)
assert submitted.error is None and submitted.submission_id == "smoke-1", submitted
print(f"ok: {tallowmere.submit.__file__}")
