"""The commands against a real service: exit statuses, messages, JSON output, and the token kept out of all of it."""

from __future__ import annotations

import io
import json
from collections.abc import Iterator
from pathlib import Path

import pytest

from cli_support import REVERSAL, TOKEN, WEAK, Run, fault_service, run_cli, volume_graph, write_graph
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


def one_line_error(run: Run, command: str) -> str:
    """The error message of a failed run, checked to be one line with no traceback."""
    lines = [line for line in run.err.splitlines() if not line.startswith("tallowmere.transport: retrying")]
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


def test_a_copy_is_rejected_and_poll_says_so(capsys: pytest.CaptureFixture[str], tmp_path: Path) -> None:
    graph_file = write_graph(tmp_path, REVERSAL)
    ids = []
    for _ in range(2):  # each run simulates anew, so the second is a new submission of the same signal
        run = run_cli(capsys, "submit", graph_file, "--universe", "top300", "--pool", "momentum", "--json")
        ids.append(run.json()["submission_id"])
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
        (["eras", "--token", "not-a-known-token"], 1, "the service refused GET /eras: unknown bearer token (HTTP 401)"),
        # Nobody listens there.
        (["list", "--base-url", "http://127.0.0.1:9", "--no-retries"], 1,
         "could not reach the service at http://127.0.0.1:9"),
        # Refused locally, before anything is sent.
        (["submit", "{weak}", "--universe", "top300", "--pool", "momentum"], 2, "not sent: sharpe failed: "),
        (["submit", "{graph}", "--universe", "top300", "--pool", "nopool"], 2,
         "not sent: thresholds unavailable: signal_pool_name nopool not found"),
        (["submit", "{graph}", "--pool", "momentum"], 2, "no named universe: pass --universe or set named_universe in"),
        (["submit", "{bad_op}", "--universe", "top300", "--pool", "momentum"], 2, "unknown operator 'clsoe'"),
        (["submit", "{missing}", "--universe", "top300", "--pool", "momentum"], 2, "missing.json: no such file"),
        (["simulate", "{nan}"], 2, "NaN is not allowed; numbers must be finite"),
        (["list", "--base-url", "http://signals.example.com"], 2, "plain http is allowed only to a loopback host"),
        # Bad arguments.
        (["submit", "{graph}", "--universe", "top300"], 2, "the following arguments are required: --pool"),
        (["list", "--limit", "0"], 2, "argument --limit: must be an integer from 1 to 1000"),
        (["poll", "sig_x", "--until", "forever"], 2, "argument --until: invalid choice"),
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
    }
    (tmp_path / "nan.json").write_text('{"op": "const", "value": NaN}')
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


def test_batch_reports_each_line(capsys: pytest.CaptureFixture[str], tmp_path: Path) -> None:
    lines = [
        json.dumps(volume_graph(31)),
        "",
        json.dumps({"graph": volume_graph(32), "signal_pool_name": "reversal", "idempotency_key": "cli-batch-k"}),
        json.dumps({"graph": volume_graph(33), "named_universe": "liquid150", "idempotency_key": "cli-batch-k"}),
    ]
    (tmp_path / "batch.jsonl").write_text("\n".join(lines) + "\n")
    batch_file = str(tmp_path / "batch.jsonl")
    run = run_cli(capsys, "batch", batch_file, "--universe", "top300", "--pool", "momentum", "--json")
    assert run.code == 1
    document = run.json()
    assert (document["accepted"], document["failed"]) == (2, 1)
    assert [(item["line"], item["error"]) for item in document["items"]] == [
        (1, None), (3, None), (4, "idempotency_key_reused"),
    ]  # fmt: skip
    assert run.err.strip() == "tallowmere batch: error: 1 of 3 items were refused"


@pytest.mark.parametrize(
    ("lines", "message"),
    [
        (['{"op": "rank", "args": [{"op": "volume"}]}', '{"graph": [1]}'], "line 2: 'graph' must be a JSON object"),
        (['{"graph": {"op": "volume"}, "pool": "x"}'], "line 1: unknown item key(s) pool"),
        (['{"op": "rank"', ], "line 1: not valid JSON"),
        (['{"graph": {"op": "volume"}, "market_id": 0}'], "line 1: market_id must be a positive integer, got 0"),
        ([json.dumps(volume_graph(5)), json.dumps(WEAK)],
         "1 of 2 signals fail the era's gates, nothing was sent: line 2: sharpe failed"),
        (['{"op": "rank", "args": []}', '{"op": "ts_mean", "window": 0, "args": [{"op": "close"}]}'],
         "2 of 2 lines cannot be sent: line 1: graph node at root (rank): expects 1 argument(s), got 0; line 2: "),
    ],
)  # fmt: skip
def test_batch_refuses_bad_lines_naming_them(
    capsys: pytest.CaptureFixture[str], tmp_path: Path, lines: list[str], message: str
) -> None:
    (tmp_path / "batch.jsonl").write_text("\n".join(lines))
    run = run_cli(capsys, "batch", str(tmp_path / "batch.jsonl"), "--universe", "top300", "--pool", "momentum")
    assert run.code == 2
    assert message in one_line_error(run, "batch")


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
    ]
    monkeypatch.setenv("TALLOWMERE_TOKEN", "other-token")
    runs.append(run_cli(capsys, "eras", "--debug"))  # a token the service does not know
    assert [run.code for run in runs] == [0, 0, 0, 1, 2, 1]
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
    assert missing.code == 1 and "no eras for market 7" in missing.err
