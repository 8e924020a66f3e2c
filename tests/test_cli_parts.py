"""The command line's parts on their own: polling rounds, batch progress, expressions, redaction, strict JSON."""

from __future__ import annotations

import json
from typing import Any, cast

import pytest

from tallowmere.api.signal_types import StatusResult
from tallowmere.cli.commands.batch import BatchProgress
from tallowmere.cli.connection import ServiceAddress
from tallowmere.cli.errors import ServiceUnreachable, problems_text
from tallowmere.cli.expressions import expression_text
from tallowmere.cli.polling import PollOutcome, poll_statuses
from tallowmere.cli.redaction import Redactor
from tallowmere.cli.statuses import FINAL, TERMINAL
from tallowmere.cli.terminal import json_text
from tallowmere.submit import SignalServiceClient

ADDRESS = ServiceAddress(base_url="http://127.0.0.1:9", token="t")


def status(code: int, value: str | None, error: str | None = None) -> StatusResult:
    return StatusResult(status_code=code, body={}, status=value, signal_pool_name=None, strategy_pool_name=None,
                        error=error)  # fmt: skip


class ScriptedClient:
    """Answers each id's status requests from its own script; the last answer repeats."""

    def __init__(self, scripts: dict[str, list[StatusResult]]) -> None:
        self.scripts = scripts
        self.asked: list[str] = []

    def get_signal_status(self, submission_id: str) -> StatusResult:
        self.asked.append(submission_id)
        script = self.scripts[submission_id]
        return script.pop(0) if len(script) > 1 else script[0]


class FakeTime:
    def __init__(self) -> None:
        self.now = 0.0

    def sleep(self, seconds: float) -> None:
        self.now += seconds


def poll(
    scripts: dict[str, list[StatusResult]], ids: list[str], target: frozenset[str], timeout: float = 10.0
) -> tuple[PollOutcome, ScriptedClient, list[int]]:
    client, clock = ScriptedClient(scripts), FakeTime()
    progress: list[int] = []
    outcome = poll_statuses(cast(SignalServiceClient, client), ADDRESS, ids, target=target, timeout=timeout,
                            interval=1.0, on_progress=progress.append, clock=lambda: clock.now,
                            sleep=clock.sleep)  # fmt: skip
    return outcome, client, progress


def test_polling_goes_past_the_first_verdict_to_a_final_status() -> None:
    found, passed, useful = status(200, "signal_found"), status(200, "signal_os_passed"), status(200, "signal_useful")
    scripts = {"a": [found, passed, useful], "b": [status(404, None, "unknown submission")]}
    outcome, client, progress = poll(scripts, ["a", "b", "a"], FINAL)
    assert outcome.waiting == [] and outcome.latest["a"].status == "signal_useful"
    assert client.asked == ["a", "b", "a", "a"]  # an unknown id settles at once; duplicates are asked once
    assert progress == [1, 1, 2]


def test_polling_for_terminal_stops_at_signal_found_and_strategy_verdicts() -> None:
    scripts = {"s": [status(200, "signal_found")], "t": [status(200, "strategy_accepted")]}
    outcome, client, _ = poll(scripts, ["s", "t"], TERMINAL)
    assert outcome.waiting == [] and len(client.asked) == 2


def test_polling_gives_up_at_the_deadline_naming_what_still_waits() -> None:
    outcome, client, progress = poll({"a": [status(200, "signal_found")]}, ["a"], FINAL, timeout=2.5)
    assert outcome.waiting == ["a"] and len(client.asked) == 4  # at 0, 1, 2 and 2.5 seconds
    assert progress == [0, 0, 0, 0]


def test_polling_an_unreachable_service_is_an_error() -> None:
    with pytest.raises(ServiceUnreachable, match="could not reach the service at http://127.0.0.1:9: refused"):
        poll({"a": [status(0, None, "refused")]}, ["a"], FINAL)


def test_batch_progress_counts_items_of_answered_chunks_only() -> None:
    progress = BatchProgress()
    reported: list[int] = []
    unheard = json.dumps({"signals": [{}] * 100}).encode()
    progress.observe("POST", "http://h/signals/batch", {}, unheard)  # nobody listens yet
    progress.report_to = reported.append
    for size in (100, 100, 37):
        body = json.dumps({"signals": [{}] * size}).encode()
        progress.observe("POST", "http://h/signals/batch", {"Authorization": "Bearer t"}, body)
    progress.observe("POST", "http://h/signals/submit", {}, b"{}")
    assert reported == [0, 100, 200]


@pytest.mark.parametrize(
    ("graph", "text"),
    [
        ({"op": "returns"}, "returns"),
        ({"op": "ts_mean", "window": 20, "args": [{"op": "close"}]}, "ts_mean(close, 20)"),
        ({"op": "add", "args": [{"op": "const", "value": 0.5}, {"op": "volume"}]}, "add(const(0.5), volume)"),
        ({"op": "neg", "args": [{"oops": 1}]}, "neg(?(1))"),
    ],
)
def test_expression_text(graph: dict[str, Any], text: str) -> None:
    assert expression_text(graph) == text


def test_expression_text_is_cut_and_survives_deep_graphs() -> None:
    graph: dict[str, Any] = {"op": "close"}
    for _ in range(10_000):
        graph = {"op": "neg", "args": [graph]}
    text = expression_text(graph, max_length=40)
    assert len(text) == 40 and text.endswith("...")


def test_redactor_replaces_the_longer_secret_first() -> None:
    redactor = Redactor()
    redactor.add("abc")
    redactor.add("abcdef")
    redactor.add("")
    assert redactor.clean("x abcdef y abc") == "x [redacted] y [redacted]"


def test_json_text_is_strict_json() -> None:
    text = json_text({"mi": float("inf"), "values": (float("-inf"), float("nan"), 1.5)})
    assert json.loads(text) == {"mi": "Infinity", "values": ["-Infinity", "NaN", 1.5]}


def test_problems_text_names_five_and_counts_the_rest() -> None:
    assert problems_text([f"p{n}" for n in range(7)]) == "p0; p1; p2; p3; p4; and 2 more"
