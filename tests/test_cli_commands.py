"""The commands against a real service: exit statuses, messages, JSON output, and the token kept out of all of it."""

from __future__ import annotations

import io
import json
import re
from collections.abc import Iterator
from pathlib import Path

import pytest

from cli_support import REVERSAL, TOKEN, WEAK, Run, fault_service, run_cli, stored_with_key, volume_graph, write_graph
from tallowmere.service import RunningService


@pytest.fixture(scope="module")
def service(tmp_path_factory: pytest.TempPathFactory) -> Iterator[RunningService]:
    with fault_service(tmp_path_factory.mktemp("cli") / "service.db", speed=100.0) as svc:
        yield svc


@pytest.fixture(autouse=True)
def environment(service: RunningService, monkeypatch: pytest.MonkeyPatch, tmp_path: Path) -> None:
    monkeypatch.setenv("TALLOWMERE_BASE_URL", service.base_url)
    monkeypatch.setenv("TALLOWMERE_TOKEN", TOKEN)
    monkeypatch.setenv("TALLOWMERE_AGENT_CONFIG", str(tmp_path / "no-agent.toml"))
    monkeypatch.setenv("TALLOWMERE_CACHE_DIR", str(tmp_path / "cache"))


PROGRESS_LINE = re.compile(r"^tallowmere [a-z-]+: [^:]+: \d+/\d+ ")


def one_line_error(run: Run, command: str) -> str:
    """The error message of a failed run, checked to be one line with no traceback (beside progress lines)."""
    lines = [
        line for line in run.err.splitlines()
        if not line.startswith("tallowmere.transport: retrying") and not PROGRESS_LINE.match(line)
        and ": warning: " not in line
    ]  # fmt: skip
    assert len(lines) == 1 and "Traceback" not in run.err, run.err
    assert lines[0].startswith(f"tallowmere {command}: error: ")
    return lines[0]


def test_submit_poll_and_list_follow_a_signal_to_its_payment(
    capsys: pytest.CaptureFixture[str], tmp_path: Path
) -> None:
    graph_file = write_graph(tmp_path, volume_graph(17))
    submitted = run_cli(capsys, "submit", graph_file, "--universe", "top300", "--pool", "momentum", "--json")
    assert submitted.code == 0, submitted.err
    document = submitted.json()
    submission_id = document["submission_id"]
    assert document["simulation"]["graph_node_count"] == 5
    polled = run_cli(capsys, "poll", submission_id, "--interval", "0.05", "--json")
    assert polled.code == 0, polled.err
    (final,) = polled.json()["submissions"]
    assert final["status"] == "signal_useful" and final["body"]["payment"]["currency"] == "TMC"
    listed = run_cli(capsys, "list", "--status", "signal_useful", "--json").json()
    assert submission_id in [item["submission_id"] for item in listed["submissions"]]
    table = run_cli(capsys, "status", submission_id)
    assert table.code == 0 and "signal_useful" in table.out and "TMC" in table.out


def test_a_rerun_replays_and_a_fresh_one_is_a_rejected_copy(
    capsys: pytest.CaptureFixture[str], tmp_path: Path, service: RunningService
) -> None:
    graph_file = write_graph(tmp_path, REVERSAL)
    submit = ["submit", graph_file, "--universe", "top300", "--pool", "momentum", "--json"]
    first, again = run_cli(capsys, *submit).json(), run_cli(capsys, *submit).json()
    # The cached simulation gives the same body, so the same derived key: the service replays it.
    assert again["submission_id"] == first["submission_id"] and again["simulation"]["cached"]
    assert len(stored_with_key(service, first["body"]["idempotency_key"])) == 1
    keyed = [*submit, "--idempotency-key", "cli-replay-k"]
    assert run_cli(capsys, *keyed).json()["submission_id"] == run_cli(capsys, *keyed).json()["submission_id"]
    # Simulated anew, the timings differ: a new submission of the same signal, which the pool rejects.
    fresh = run_cli(capsys, *submit, "--fresh").json()
    assert not fresh["simulation"]["cached"] and fresh["body"]["idempotency_key"] != first["body"]["idempotency_key"]
    ids = [first["submission_id"], fresh["submission_id"]]
    polled = run_cli(capsys, "poll", *ids, "--interval", "0.05")
    assert polled.code == 1
    assert one_line_error(polled, "poll").endswith(f"{ids[1]}: signal_is_rejected")
    assert "too_correlated" in polled.out


@pytest.mark.parametrize(
    ("argv", "code", "message"),
    [
        # The service said no: the era is not the active one.
        (["submit", "{graph}", "--universe", "top300", "--pool", "momentum", "--era-number", "2"], 1,
         "the service refused the signal: era_not_active (HTTP 422)"),
        (["submit-strategy", "{graph}", "--universe", "top300", "--pool", "core", "--market-id", "1",
          "--era-number", "2"], 1, "the service refused POST /strategies/submit: era_not_active (HTTP 422)"),
        (["status", "sig_missing"], 1, "sig_missing: unknown submission (HTTP 404)"),
        (["eras", "--token", "not-a-known-token"], 1, "the service refused GET /eras: unknown bearer token "
         "(HTTP 401); the token given with --token was not accepted: check it (or drop --token to use "
         "$TALLOWMERE_TOKEN)"),
        (["list", "--token", "not-a-known-token"], 1, "the token given with --token was not accepted"),
        (["status", "sig_x", "--token", "not-a-known-token"], 1, "the token given with --token was not accepted"),
        # Nobody listens there.
        (["list", "--base-url", "http://127.0.0.1:9", "--no-retries"], 3,
         "could not reach the service at http://127.0.0.1:9"),
        (["status", "sig_x", "--base-url", "http://127.0.0.1:9", "--no-retries"], 3,
         "could not reach the service at http://127.0.0.1:9"),
        # Polling goes on through the outage until the wait is over.
        (["poll", "sig_x", "--base-url", "http://127.0.0.1:9", "--no-retries", "--wait", "0.5", "--interval", "0.1"],
         3, "could not reach the service at http://127.0.0.1:9 when the wait of 0.5 s ran out"),
        # Refused locally, before anything is sent.
        (["submit", "{weak}", "--universe", "top300", "--pool", "momentum"], 2, "not sent: sharpe failed: "),
        (["submit", "{graph}", "--universe", "top300", "--pool", "nopool"], 2,
         "not sent: unknown signal pool 'nopool' in market 1, era 3 (its pools: momentum, reversal)"),
        (["submit", "{graph}", "--universe", "top300", "--pool", "momentum", "--market-id", "7"], 2,
         "not sent: market 7 is not in the service's catalog (its markets: 1)"),
        (["submit", "{graph}", "--universe", "top300", "--pool", "momentum", "--era-number", "9"], 2,
         "not sent: era 9 is not in the service's catalog (its eras: 2, 3)"),
        (["submit-strategy", "{graph}", "--universe", "top300", "--pool", "core", "--market-id", "7",
          "--era-number", "3"], 2, "not sent: market 7 is not in the service's catalog (its markets: 1)"),
        (["simulate", "{deep}"], 2, "nested more than 200 levels deep; no era accepts such a graph"),
        (["submit", "{deep}", "--universe", "top300", "--pool", "momentum"], 2, "nested more than 200 levels deep"),
        (["submit", "{graph}", "--pool", "momentum"], 2, "no named universe: pass --universe or set named_universe in"),
        (["submit", "{bad_op}", "--universe", "top300", "--pool", "momentum"], 2, "unknown operator 'clsoe'"),
        (["submit", "{missing}", "--universe", "top300", "--pool", "momentum"], 2, "missing.json: no such file"),
        (["simulate", "{nan}"], 2, "NaN is not allowed; numbers must be finite"),
        (["list", "--base-url", "http://signals.example.com"], 2, "plain http is allowed only to a loopback host"),
        # Bad arguments.
        (["submit", "{graph}", "--universe", "top300"], 2, "the following arguments are required: --pool"),
        (["list", "--limit", "0"], 2, "argument --limit: must be an integer from 1 to 1000"),
        (["poll", "sig_x", "--until", "forever"], 2, "argument --until: invalid choice"),
        (["status", ""], 2, "argument SUBMISSION_ID: must not be empty"),
        (["poll", "sig_x", " "], 2, "argument SUBMISSION_ID: must not be empty"),
        (["batch", "{graph}", "--chunk-size", "101"], 2, "argument --chunk-size: must be an integer from 1 to 100"),
        (["submit", "{graph}", "--pool", "momentum", "--metaparameters", "[1]"], 2, "must be a JSON object"),
    ],
)  # fmt: skip
def test_exit_statuses_and_messages(
    capsys: pytest.CaptureFixture[str], tmp_path: Path, argv: list[str], code: int, message: str
) -> None:
    files = {
        "graph": write_graph(tmp_path, volume_graph(23)),
        "weak": write_graph(tmp_path, WEAK, "weak.json"),
        "bad_op": write_graph(tmp_path, {"op": "rank", "args": [{"op": "clsoe"}]}, "bad.json"),
        "missing": str(tmp_path / "missing.json"),
        "nan": str(tmp_path / "nan.json"),
        "deep": str(tmp_path / "deep.json"),
    }
    (tmp_path / "nan.json").write_text('{"op": "const", "value": NaN}')
    (tmp_path / "deep.json").write_text('{"op": "neg", "args": [' * 5_000 + '{"op": "close"}' + "]}" * 5_000)
    run = run_cli(capsys, *(part.format(**files) for part in argv))
    assert run.code == code
    command = argv[0]
    assert message in one_line_error(run, command)
    if code == 2:
        assert run.out == ""  # nothing was done, so there is nothing to show


def test_json_errors_are_one_document_on_stdout(capsys: pytest.CaptureFixture[str], tmp_path: Path) -> None:
    graph_file = write_graph(tmp_path, volume_graph(29))
    refused = run_cli(
        capsys, "submit", graph_file, "--universe", "top300", "--pool", "momentum", "--era-number", "2", "--json"
    )
    assert refused.code == 1
    assert refused.json()["body"]["reason"] == "era_not_active"
    local = run_cli(capsys, "submit", graph_file, "--pool", "momentum", "--json")
    assert local.code == 2 and local.json()["exit_code"] == 2 and "no named universe" in local.json()["error"]


@pytest.mark.parametrize(
    "command", [["eras"], ["simulate", "{graph}"], ["list", "--limit", "3"], ["status", "sig_none"]]
)
def test_json_output_parses(capsys: pytest.CaptureFixture[str], tmp_path: Path, command: list[str]) -> None:
    graph_file = write_graph(tmp_path, REVERSAL)
    run = run_cli(capsys, *(part.format(graph=graph_file) for part in command), "--json")
    document = run.json()
    assert isinstance(document, dict) and document


def test_the_token_never_appears_in_any_output(
    capsys: pytest.CaptureFixture[str], tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    graph_file = write_graph(tmp_path, volume_graph(37))
    runs = [
        run_cli(capsys, "submit", graph_file, "--universe", "top300", "--pool", "momentum", "--debug"),
        run_cli(capsys, "submit", graph_file, "--universe", "top300", "--pool", "momentum", "--json", "--debug"),
        run_cli(capsys, "list", "--json", "--token", TOKEN, "--debug"),
        run_cli(capsys, "eras", "--base-url", "http://127.0.0.1:9", "--no-retries", "--debug"),
        run_cli(capsys, "status", "x", "--token", TOKEN + " extra"),  # refused locally: whitespace
        run_cli(capsys, "status", "x", "--token", TOKEN + "\u00e9"),  # refused locally: not ASCII
    ]
    monkeypatch.setenv("TALLOWMERE_TOKEN", "other-token")
    runs.append(run_cli(capsys, "eras", "--debug"))  # a token the service does not know
    assert [run.code for run in runs] == [0, 0, 0, 3, 2, 2, 1]
    assert "non-ASCII" in runs[-2].err
    assert "the token in $TALLOWMERE_TOKEN was not accepted: check it, or pass --token" in runs[-1].err
    for run in runs:
        assert TOKEN not in run.out + run.err
        assert "other-token" not in run.out + run.err


def test_strategy_from_standard_input(capsys: pytest.CaptureFixture[str], monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr("sys.stdin", io.StringIO(json.dumps(volume_graph(47))))
    argv = ["submit-strategy", "-", "--universe", "top300", "--pool", "core", "--market-id", "1", "--era-number", "3"]
    run = run_cli(capsys, *argv, "--json")
    assert run.code == 0, run.err
    assert run.json()["submission_id"].startswith("strat_") and run.json()["strategy_pool_name"] == "core"
    polled = run_cli(capsys, "poll", run.json()["submission_id"], "--until", "terminal", "--interval", "0.05")
    assert polled.code == 0 and "strategy_accepted" in polled.out


def test_eras_of_one_market(capsys: pytest.CaptureFixture[str]) -> None:
    shown = run_cli(capsys, "eras", "--market-id", "1", "--json").json()
    assert [era["era_number"] for era in shown["eras"]] == [2, 3] and shown["active_era_number"] == 3
    missing = run_cli(capsys, "eras", "--market-id", "7")
    assert missing.code == 1 and "no eras for market 7 (its markets: 1)" in missing.err
