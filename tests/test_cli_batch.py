"""``tallowmere batch`` against a real service: one pass over a bad file, chunk by chunk sending, the ledger."""

from __future__ import annotations

import json
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import httpx
import pytest

from cli_support import TOKEN, WEAK, fault_service, run_cli, script_faults, stored_with_key, volume_graph
from tallowmere.service import RunningService

TARGET = ["--universe", "top300", "--pool", "momentum"]


@pytest.fixture(scope="module")
def service(tmp_path_factory: pytest.TempPathFactory) -> Iterator[RunningService]:
    with fault_service(tmp_path_factory.mktemp("cli-batch") / "service.db", speed=100.0) as svc:
        yield svc


@pytest.fixture(autouse=True)
def environment(service: RunningService, monkeypatch: pytest.MonkeyPatch, tmp_path: Path) -> Iterator[None]:
    monkeypatch.setenv("TALLOWMERE_BASE_URL", service.base_url)
    monkeypatch.setenv("TALLOWMERE_TOKEN", TOKEN)
    monkeypatch.setenv("TALLOWMERE_AGENT_CONFIG", str(tmp_path / "no-agent.toml"))
    monkeypatch.setenv("TALLOWMERE_CACHE_DIR", str(tmp_path / "cache"))
    yield
    httpx.delete(service.base_url + "/_faults", headers={"Authorization": f"Bearer {TOKEN}"}).raise_for_status()


def batch_file(directory: Path, lines: list[str]) -> str:
    path = directory / "batch.jsonl"
    path.write_text("\n".join(lines) + "\n")
    return str(path)


def keyed(window: int, **options: Any) -> str:
    return json.dumps({"graph": volume_graph(window), "idempotency_key": f"batch-{window}", **options})


BAD_LINES = [
    (keyed(101), None),
    ('{"op": "rank"', "json"),
    ('{"graph": {"op": "volume"}, "pool": "x"}', "item"),
    ("", None),  # blank: not a line of the batch
    ('{"op": "rank", "args": [{"op": "clsoe"}]}', "simulation"),
    (json.dumps(WEAK), "check"),
    (keyed(102, signal_pool_name="nopool"), "era"),
    (keyed(103, market_id=7), "era"),
    ('{"op": "neg", "args": [' * 3_000 + '{"op": "close"}' + "]}" * 3_000, "json"),
    (keyed(104), None),
]


def test_one_pass_reports_every_bad_line_and_sends_nothing(
    capsys: pytest.CaptureFixture[str], tmp_path: Path, service: RunningService
) -> None:
    path = batch_file(tmp_path, [line for line, _ in BAD_LINES])
    run = run_cli(capsys, "batch", path, *TARGET)
    assert run.code == 2 and run.out == ""
    listed = [line for line in run.err.splitlines() if line.startswith(path)]
    bad = [number for number, (_, stage) in enumerate(BAD_LINES, start=1) if stage is not None]
    assert [int(line.split(": line ")[1].split(":")[0]) for line in listed] == bad
    assert "unknown signal pool 'nopool' in market 1, era 3 (its pools: momentum, reversal)" in run.err
    assert "market 7 is not in the service's catalog (its markets: 1)" in run.err
    assert run.err.rstrip().endswith(
        "tallowmere batch: error: 7 of 9 lines cannot be sent (listed above); nothing was sent "
        "(fix them, or pass --skip-invalid to send the other 2)"
    )
    assert stored_with_key(service, "batch-101") == [] and stored_with_key(service, "batch-104") == []
    document = run_cli(capsys, "batch", path, *TARGET, "--json").json()
    assert document["exit_code"] == 2
    assert [(problem["line"], problem["stage"]) for problem in document["problems"]] == [
        (number, stage) for number, (_, stage) in enumerate(BAD_LINES, start=1) if stage is not None
    ]


def test_skip_invalid_sends_the_good_lines_and_reports_the_rest(
    capsys: pytest.CaptureFixture[str], tmp_path: Path, service: RunningService
) -> None:
    path = batch_file(tmp_path, [line for line, _ in BAD_LINES])
    run = run_cli(capsys, "batch", path, *TARGET, "--skip-invalid", "--json")
    assert run.code == 0, run.err
    document = run.json()
    assert (document["accepted"], document["skipped"], document["refused"], document["total"]) == (2, 7, 0, 9)
    outcomes = {item["line"]: item["outcome"] for item in document["items"]}
    assert [line for line, outcome in outcomes.items() if outcome == "accepted"] == [1, 10]
    assert all(item["problem"]["stage"] for item in document["items"] if item["outcome"] == "skipped")
    assert run.err.count("tallowmere batch: warning: ") == 7
    assert len(stored_with_key(service, "batch-101")) == 1


def test_a_refused_item_is_shown_with_the_others(capsys: pytest.CaptureFixture[str], tmp_path: Path) -> None:
    reused = json.dumps({"graph": volume_graph(113), "idempotency_key": "batch-112"})
    lines = [json.dumps(volume_graph(111)), keyed(112), reused]
    run = run_cli(capsys, "batch", batch_file(tmp_path, lines), *TARGET, "--json")
    assert run.code == 1
    document = run.json()
    assert [(item["line"], item["outcome"], item["error"]) for item in document["items"]] == [
        (1, "accepted", None), (2, "accepted", None), (3, "refused", "idempotency_key_reused"),
    ]  # fmt: skip
    assert "1 of 3 items sent were refused; 2 accepted, 1 refused, of 3 lines" in run.err


def test_a_failing_chunk_keeps_the_earlier_chunks_and_a_ledger_resumes_without_duplicates(
    capsys: pytest.CaptureFixture[str], tmp_path: Path, service: RunningService
) -> None:
    windows = range(121, 126)
    path = batch_file(tmp_path, [keyed(window) for window in windows])
    ledger = tmp_path / "ledger.jsonl"
    # Chunk 1 goes through, chunk 2 gets an HTML error page; chunk 3 must then not be sent.
    script_faults(service, "signals/batch", "delay:0.01", "500")
    run = run_cli(capsys, "batch", path, *TARGET, "--chunk-size", "2", "--ledger", str(ledger), "--json")
    assert run.code == 3
    document = run.json()
    assert (document["accepted"], document["unanswered"], document["not_sent"], document["refused"]) == (2, 2, 1, 0)
    accepted = {
        item["idempotency_key"]: item["submission_id"] for item in document["items"] if item["outcome"] == "accepted"
    }
    assert set(accepted) == {"batch-121", "batch-122"}
    assert "(HTTP 500) is not the JSON expected" in document["stopped"]
    assert "2 accepted, 2 sent without an answer, 1 not sent, of 5 lines" in run.err
    recorded = [json.loads(line) for line in ledger.read_text().splitlines()]
    assert {record["idempotency_key"]: record["submission_id"] for record in recorded} == accepted

    resumed = run_cli(capsys, "batch", path, *TARGET, "--chunk-size", "2", "--ledger", str(ledger), "--json")
    assert resumed.code == 0, resumed.err
    again = resumed.json()
    assert (again["already_accepted"], again["accepted"], again["chunks_sent"]) == (2, 3, 2)
    for window in windows:
        assert len(stored_with_key(service, f"batch-{window}")) == 1
    assert len(ledger.read_text().splitlines()) == 5


def test_the_table_names_every_outcome(
    capsys: pytest.CaptureFixture[str], tmp_path: Path, service: RunningService
) -> None:
    path = batch_file(tmp_path, [keyed(131), keyed(132), keyed(133)])
    script_faults(service, "signals/batch", "drop")
    run = run_cli(capsys, "batch", path, *TARGET, "--chunk-size", "1", "--no-retries")
    assert run.code == 3
    rows = [line.split() for line in run.out.splitlines() if line.startswith("   ")]  # the right-aligned line numbers
    assert [(row[0], row[1]) for row in rows] == [("1", "no"), ("2", "not"), ("3", "not")]
    assert "2 not sent" in run.out and "1 sent without an answer" in run.out
