"""The command line's parts on their own: polling rounds and outages, fitted tables, plain progress, the
simulation cache, the ledger, expressions, redaction, strict JSON."""

from __future__ import annotations

import io
import json
from typing import Any, cast

import pytest
from rich.console import Console

from tallowmere.api.signal_types import StatusResult
from tallowmere.cli.errors import problems_text
from tallowmere.cli.expressions import expression_text
from tallowmere.cli.polling import PollOutcome, PollRound, poll_statuses
from tallowmere.cli.redaction import Redactor
from tallowmere.cli.simulations import nesting_problem
from tallowmere.cli.statuses import FINAL, TERMINAL
from tallowmere.cli.tables import Sheet, fit, ident, number, status_reason, text, wrap_parts
from tallowmere.cli.terminal import Page, PlainProgress, json_text
from tallowmere.submit import SignalServiceClient


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
) -> tuple[PollOutcome, ScriptedClient, list[PollRound]]:
    client, clock = ScriptedClient(scripts), FakeTime()
    rounds: list[PollRound] = []
    outcome = poll_statuses(cast(SignalServiceClient, client), ids, target=target, timeout=timeout, interval=1.0,
                            on_round=rounds.append, clock=lambda: clock.now, sleep=clock.sleep)  # fmt: skip
    return outcome, client, rounds


def test_polling_goes_past_the_first_verdict_to_a_final_status() -> None:
    found, passed, useful = status(200, "signal_found"), status(200, "signal_os_passed"), status(200, "signal_useful")
    scripts = {"a": [found, passed, useful], "b": [status(404, None, "unknown submission")]}
    outcome, client, rounds = poll(scripts, ["a", "b", "a"], FINAL)
    assert outcome.waiting == [] and outcome.latest["a"].status == "signal_useful"
    assert client.asked == ["a", "b", "a", "a"]  # an unknown id settles at once; duplicates are asked once
    assert [report.settled for report in rounds] == [1, 1, 2]
    assert rounds[0].note() == "1 error, 1 signal_found"


def test_polling_for_terminal_stops_at_signal_found_and_strategy_verdicts() -> None:
    scripts = {"s": [status(200, "signal_found")], "t": [status(200, "strategy_accepted")]}
    outcome, client, _ = poll(scripts, ["s", "t"], TERMINAL)
    assert outcome.waiting == [] and len(client.asked) == 2


def test_polling_gives_up_at_the_deadline_naming_what_still_waits() -> None:
    outcome, client, rounds = poll({"a": [status(200, "signal_found")]}, ["a"], FINAL, timeout=2.5)
    assert outcome.waiting == ["a"] and len(client.asked) == 4  # at 0, 1, 2 and 2.5 seconds
    assert [report.settled for report in rounds] == [0, 0, 0, 0] and rounds[-1].note() == "signal_found"


def test_polling_goes_on_through_an_outage_until_the_service_answers() -> None:
    no_connection, overloaded = status(0, None, "ConnectError"), status(503, None, "service_unavailable")
    scripts = {"a": [status(200, "signal_found"), no_connection, overloaded, status(200, "signal_useful")],
               "b": [status(200, "signal_found"), status(200, "signal_useful")]}  # fmt: skip
    outcome, client, rounds = poll(scripts, ["a", "b"], FINAL)
    assert outcome.waiting == [] and outcome.outage is None
    # A round stops at the first request without an answer: "b" is not asked while the service is down.
    assert client.asked == ["a", "b", "a", "a", "a", "b"]
    assert [report.outage for report in rounds] == [None, "ConnectError", "service_unavailable (HTTP 503)", None]
    assert rounds[2].outage_seconds == 1.0 and rounds[2].note().startswith("no answer for 1 s")


def test_an_outage_that_outlasts_the_wait_is_what_polling_ends_with() -> None:
    outcome, client, rounds = poll({"a": [status(0, None, "refused")]}, ["a"], FINAL, timeout=2.0)
    assert outcome.waiting == ["a"] and outcome.latest == {} and outcome.outage == "refused"
    assert len(client.asked) == 3 and rounds[-1].outage_seconds == 2.0


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


def sample_sheet() -> Sheet:
    sheet = Sheet(ident("submission"), ident("status"), text("reason", keep=70, min_width=12),
                  number("payment", keep=50), number("correlation", keep=20), text("note", keep=90))  # fmt: skip
    reason = "too_correlated: is_pnl_mi failed: 0.697 <= 0.35"
    sheet.add_row("sig_" + "a" * 32, "signal_is_rejected", reason, "", 0.893, "")
    sheet.add_row("sig_" + "b" * 32, "signal_useful", "", "90.21 TMC", 0.0, "")
    return sheet


@pytest.mark.parametrize(
    ("width", "shown", "cut"),
    [
        (None, ["submission", "status", "reason", "payment", "correlation", "note"], []),
        (200, ["submission", "status", "reason", "payment", "correlation", "note"], []),
        # The empty column goes first, whatever its value; then the least valuable ones.
        (120, ["submission", "status", "reason", "payment", "correlation"], ["reason"]),
        (90, ["submission", "status", "reason", "payment"], ["reason"]),
        (80, ["submission", "status", "reason"], ["reason"]),
        # Identifiers and statuses are never left out, even when they alone do not fit.
        (40, ["submission", "status"], []),
    ],
)  # fmt: skip
def test_tables_leave_out_the_least_valuable_columns_first(width: int | None, shown: list[str], cut: list[str]) -> None:
    sheet = sample_sheet()
    layout = fit(sheet, width)
    assert [sheet.columns[index].header for index in layout.shown] == shown
    assert list(layout.cut) == cut
    if width is not None and width >= 80:
        output = io.StringIO()
        Page(Console(file=output, width=width), width).table(sheet)
        lines = output.getvalue().splitlines()
        assert max(len(line.rstrip()) for line in lines) <= width
        assert all(f"sig_{letter * 32}" in output.getvalue() for letter in "ab")  # identifiers whole
        assert ("--wide shows everything" in lines[-1]) == (width < 200)


def test_list_cells_wrap_between_parts_and_cut_only_a_part_too_long() -> None:
    assert wrap_parts(["a <= 1", "bb >= 2", "c"], ", ", 10) == "a <= 1,\nbb >= 2, c"
    rules = ["rule 1: top300, liquid150", "rule 2: megacaps"]
    assert wrap_parts(rules, "; ", 18) == "rule 1: top300, l…\nrule 2: megacaps"
    assert wrap_parts(["x"], ", ", 1) == "x"


def test_plain_progress_reports_at_start_every_interval_and_at_the_end() -> None:
    clock = FakeTime()
    lines: list[str] = []
    progress = PlainProgress(lines.append, "tallowmere batch", "simulating 2000 graphs", 2000, every=5.0,
                             deadline=60.0, clock=lambda: clock.now)  # fmt: skip
    progress.start()
    for seconds, done in ((1.0, 100), (4.0, 700), (1.0, 850), (1.0, 900), (4.5, 1500)):
        clock.sleep(seconds)
        progress.update(done, "2 signal_found")
    progress.finish()
    assert lines == [
        "tallowmere batch: simulating 2000 graphs: 0/2000 (0%), 0 s, 60 s left",
        "tallowmere batch: simulating 2000 graphs: 700/2000 (35%), 5 s, 2 signal_found, 55 s left",
        "tallowmere batch: simulating 2000 graphs: 1500/2000 (75%), 12 s, 2 signal_found, 48 s left",
        "tallowmere batch: simulating 2000 graphs (end): 1500/2000 (75%), 12 s, 2 signal_found",
    ]


@pytest.mark.parametrize(
    ("body", "reason"),
    [
        ({"failure_reason": "too_correlated",
          "rejection_reason": "is_pnl_mi failed: inf <= 0.35; is_correlation failed: 1.0 <= 0.7: too_correlated",
          "failure_message": "is_pnl_mi failed: inf <= 0.35; is_correlation failed: 1.0 <= 0.7"},
         "too_correlated: is_pnl_mi failed: inf <= 0.35; is_correlation failed: 1.0 <= 0.7"),
        ({"rejection_reason": "era closed"}, "era closed"),
        ({"failure_reason": "os_sharpe_below_minimum"}, "os_sharpe_below_minimum"),
        ({"status": "signal_useful"}, ""),
    ],
)  # fmt: skip
def test_status_reasons_put_the_code_first_where_a_narrow_column_keeps_it(body: dict[str, Any], reason: str) -> None:
    assert status_reason(body) == reason


def test_nesting_is_measured_without_recursion() -> None:
    graph: dict[str, Any] = {"op": "close"}
    for _ in range(5_000):
        graph = {"op": "neg", "args": [graph]}
    problem = nesting_problem(graph)
    assert problem is not None and "nested more than 200 levels" in problem
    assert nesting_problem({"op": "rank", "args": [{"op": "neg", "args": [{"op": "returns"}]}]}) is None
