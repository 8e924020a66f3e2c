"""The command line as a person meets it: on an 80-column terminal, in pipes, and stopped with Ctrl-C.

Each test runs ``python -m tallowmere`` in its own process against a real service on 127.0.0.1:
tables through a pseudo-terminal of fixed width, interrupts through a real SIGINT.
"""

from __future__ import annotations

import json
import os
import signal
import subprocess
import sys
import time
from collections.abc import Iterator
from pathlib import Path

import httpx
import pytest

from cli_support import (
    TOKEN,
    fault_service,
    read_until,
    run_on_terminal,
    script_faults,
    stored_with_key,
    tallowmere,
    volume_graph,
    wait_until,
)
from service_support import signal_body
from tallowmere.cli.statuses import FINAL
from tallowmere.service import RunningService, run_service

TARGET = ["--universe", "top300", "--pool", "momentum"]


@pytest.fixture(scope="module")
def service(tmp_path_factory: pytest.TempPathFactory) -> Iterator[RunningService]:
    with fault_service(tmp_path_factory.mktemp("cli-terminal") / "service.db", speed=100.0) as svc:
        yield svc


@pytest.fixture(scope="module")
def slow_service(tmp_path_factory: pytest.TempPathFactory) -> Iterator[RunningService]:
    """A service whose lifecycle barely moves: its submissions stay ``signal_submitted``."""
    with run_service(db_path=tmp_path_factory.mktemp("cli-slow") / "service.db", tokens=[TOKEN], speed=0.001) as svc:
        yield svc


@pytest.fixture(scope="module")
def cache(tmp_path_factory: pytest.TempPathFactory) -> Path:
    return tmp_path_factory.mktemp("cli-terminal-cache")


def environment(service: RunningService, cache: Path) -> dict[str, str]:
    return {**os.environ, "TALLOWMERE_BASE_URL": service.base_url, "TALLOWMERE_TOKEN": TOKEN,
            "TALLOWMERE_CACHE_DIR": str(cache), "TALLOWMERE_AGENT_CONFIG": str(cache / "no-agent.toml")}  # fmt: skip


def submit(service: RunningService, window: int, key: str) -> str:
    """Submit a signal over plain HTTP (the command line is not what these set-ups test)."""
    answer = httpx.post(service.base_url + "/signals/submit", json=signal_body(volume_graph(window), key=key),
                        headers={"Authorization": f"Bearer {TOKEN}"}, timeout=30)  # fmt: skip
    answer.raise_for_status()
    submission_id: str = answer.json()["submission_id"]
    return submission_id


@pytest.fixture(scope="module")
def submitted(service: RunningService) -> list[str]:
    """Two signals at their final statuses: one paid, the other rejected as a copy of it."""
    ids = [submit(service, 201, "terminal-201"), submit(service, 201, "terminal-201-copy")]

    def final() -> bool:
        answers = [httpx.get(f"{service.base_url}/signals/status/{key}", headers={"Authorization": f"Bearer {TOKEN}"})
                   for key in ids]  # fmt: skip
        return all(answer.json()["status"] in FINAL for answer in answers)

    wait_until(final, what="final statuses")
    return ids


def widest(screen: str) -> int:
    return max(len(line.rstrip()) for line in screen.splitlines())


@pytest.mark.parametrize(
    ("argv", "code", "shown"),
    [
        (["eras"], 0, ["rule 2: megacaps", "reversal", "sharpe >= 0.300", "Thresholds of market 1, era 3"]),
        (["list"], 0, ["{0}", "{1}", "signal_useful", "signal_is_rejected"]),
        (["status", "{0}", "{1}", "sig_unknown"], 1, ["{0}", "sig_unknown", "too_correlated"]),
        (["poll", "{0}", "{1}", "--interval", "0.05"], 1, ["{0}", "{1}", "signal_useful"]),
        (["demo", "--candidates", "6", "--speed", "50"], 0, ["Outcome of every candidate", "signal_useful"]),
    ],
)  # fmt: skip
def test_tables_fit_an_80_column_terminal(
    service: RunningService, cache: Path, submitted: list[str], argv: list[str], code: int, shown: list[str]
) -> None:
    run = run_on_terminal([part.format(*submitted) for part in argv], env=environment(service, cache))
    assert run.code == code, run.other
    assert widest(run.screen) <= 80, run.screen
    for text in shown:
        assert text.format(*submitted) in run.screen, run.screen
    if argv[0] != "eras":
        assert "(not shown: " in run.screen  # something had to give, and the note says what


def test_wide_shows_every_column_whole(service: RunningService, cache: Path, submitted: list[str]) -> None:
    run = run_on_terminal(["list", "--wide"], env=environment(service, cache))
    assert run.code == 0 and widest(run.screen) > 80
    assert "created (UTC)" in run.screen and "universe" in run.screen and "--wide shows" not in run.screen


def test_the_poll_bar_shows_the_status_and_the_time_left(slow_service: RunningService, cache: Path) -> None:
    env = environment(slow_service, cache)
    waiting = submit(slow_service, 211, "terminal-211")
    run = run_on_terminal(["poll", waiting, "--wait", "1.5", "--interval", "0.2"], stream="stderr", env=env)
    assert run.code == 4, run.screen  # --wait ran out with the signal still on its way
    assert "signal_submitted" in run.screen and "s left" in run.screen
    assert f"{waiting}: still signal_submitted after 1.5 s" in run.screen


def test_ctrl_c_in_batch_reports_what_was_accepted_and_a_ledger_resumes_without_duplicates(
    service: RunningService, cache: Path, tmp_path: Path
) -> None:
    env = environment(service, cache)
    windows = range(221, 227)
    lines = [json.dumps({"graph": volume_graph(window), "idempotency_key": f"sigint-{window}"}) for window in windows]
    (tmp_path / "batch.jsonl").write_text("\n".join(lines) + "\n")
    ledger = tmp_path / "ledger.jsonl"
    argv = ["batch", str(tmp_path / "batch.jsonl"), *TARGET, "--chunk-size", "2", "--ledger", str(ledger), "--json"]
    hold = 1.5
    # Chunks 1 and 2 are answered at once; chunk 3 is stored, but its answer takes a while: Ctrl-C comes first.
    script_faults(service, "signals/batch", "delay:0.01", "delay:0.01", f"delay:{hold}")
    process = subprocess.Popen(tallowmere(*argv), env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    wait_until(lambda: ledger.exists() and len(ledger.read_text().splitlines()) == 4, what="two accepted chunks")
    interrupted_at = time.monotonic()
    time.sleep(0.2)
    process.send_signal(signal.SIGINT)
    out, err = process.communicate(timeout=30)
    assert process.returncode == 130, err
    document = json.loads(out)  # one JSON document, even so
    assert document["interrupted"] and (document["accepted"], document["chunks_answered"]) == (4, 2)
    assert document["unanswered"] + document["not_sent"] == 2 and document["refused"] == 0
    recorded = {json.loads(line)["submission_id"] for line in ledger.read_text().splitlines()}
    assert recorded == {item["submission_id"] for item in document["items"] if item["outcome"] == "accepted"}
    text = err.decode()
    assert "tallowmere batch: error: interrupted: 4 accepted" in text
    assert "run the same command again to resume" in text
    assert "tallowmere batch: sending 6 signals in 3 chunk(s): 0/6 (0%)" in text  # plain progress in a pipe

    time.sleep(max(0.0, interrupted_at + hold - time.monotonic()))  # the service holds chunk 3's keys until then
    resumed = subprocess.run(tallowmere(*argv), env=env, capture_output=True, text=True, timeout=60, check=False)
    assert resumed.returncode == 0, resumed.stderr
    again = json.loads(resumed.stdout)
    assert (again["already_accepted"], again["accepted"]) == (4, 2)
    for window in windows:
        assert len(stored_with_key(service, f"sigint-{window}")) == 1


def test_ctrl_c_in_poll_json_still_prints_one_document(slow_service: RunningService, cache: Path) -> None:
    env = environment(slow_service, cache)
    waiting = submit(slow_service, 231, "terminal-231")
    process = subprocess.Popen(tallowmere("poll", waiting, "--json", "--interval", "0.1", "--wait", "60"), env=env,
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE)  # fmt: skip
    assert process.stderr is not None
    read_until(process.stderr, "waiting for final statuses")
    time.sleep(0.3)
    process.send_signal(signal.SIGINT)
    out, err = process.communicate(timeout=30)
    assert process.returncode == 130, err
    document = json.loads(out)
    assert document["interrupted"] and document["still_waiting"] == [waiting]
    assert [item["status"] for item in document["submissions"]] == ["signal_submitted"]
    assert b"tallowmere poll: error: interrupted: 0 of 1 submission(s) had reached a final status" in err


@pytest.mark.parametrize(
    ("argv", "message"),
    [
        (["serve", "--db", "service.db", "--token", "t"],
         "tallowmere serve: error: the reference service needs starlette, uvicorn: pip install 'tallowmere[service]'"),
        (["demo"], "tallowmere demo: error: the demo needs the reference service's packages (starlette, uvicorn): "
                   "pip install 'tallowmere[service]'"),
    ],
)  # fmt: skip
def test_without_the_service_packages_the_install_hint_is_given(tmp_path: Path, argv: list[str], message: str) -> None:
    # The packages are made unimportable in the child, as in an installation without the extra.
    program = ("import sys; sys.modules['starlette'] = sys.modules['uvicorn'] = None; "
               "from tallowmere.cli.app import main; raise SystemExit(main(sys.argv[1:]))")  # fmt: skip
    finished = subprocess.run([sys.executable, "-c", program, *argv], cwd=tmp_path, capture_output=True, text=True,
                              timeout=60, check=False)  # fmt: skip
    assert finished.returncode == 2
    assert finished.stderr.strip() == message and "Traceback" not in finished.stderr
    assert not (tmp_path / "service.db").exists()
