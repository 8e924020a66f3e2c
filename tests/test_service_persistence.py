"""Durability and start-up: restarts, kill -9 of a served process, the command line, custom catalogs."""

from __future__ import annotations

import json
import os
import signal
import subprocess
import sys
import threading
import time
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

import pytest

import tallowmere
from service_support import TOKEN_A, TOKEN_B, client_for, running, signal_body
from tallowmere.__main__ import main

PACKAGE_ROOT = Path(tallowmere.__file__).resolve().parent.parent


@contextmanager
def served_process(db_path: Path, ready_file: Path, *extra: str) -> Iterator[tuple[subprocess.Popen[str], str]]:
    environment = {**os.environ, "PYTHONPATH": os.pathsep.join([str(PACKAGE_ROOT), os.environ.get("PYTHONPATH", "")])}
    command = [sys.executable, "-m", "tallowmere", "serve", "--port", "0", "--db", str(db_path)]
    command += ["--log-level", "warning", "--ready-file", str(ready_file)]
    command += ["--token", TOKEN_A, "--token", TOKEN_B, *extra]
    process = subprocess.Popen(command, env=environment, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    try:
        assert process.stdout is not None
        url = process.stdout.readline().strip()
        deadline = time.monotonic() + 30
        while not ready_file.exists():
            assert process.poll() is None and time.monotonic() < deadline, process.stderr and process.stderr.read()
            time.sleep(0.02)
        assert ready_file.read_text().strip() == url
        yield process, url
    finally:
        if process.poll() is None:
            process.kill()
        process.wait(10)
        for stream in (process.stdout, process.stderr):
            if stream is not None:
                stream.close()


def test_kill_9_after_an_acknowledged_submission_keeps_it(tmp_path: Path) -> None:
    db_path = tmp_path / "durable.db"
    with served_process(db_path, tmp_path / "ready") as (process, url):
        import httpx

        with httpx.Client(base_url=url, headers={"Authorization": f"Bearer {TOKEN_A}"}) as client:
            acknowledged = client.post("/signals/submit", json=signal_body(key="durable"))
        assert acknowledged.status_code == 202
        process.send_signal(signal.SIGKILL)
        process.wait(10)
    with running(db_path) as service, client_for(service) as client:
        listed = client.get("/signals/submissions").json()["submissions"]
        replay = client.post("/signals/submit", json=signal_body(key="durable"))
    assert [item["submission_id"] for item in listed] == [acknowledged.json()["submission_id"]]
    assert (replay.status_code, replay.json()) == (202, acknowledged.json())


def test_sigterm_stops_the_served_process_cleanly(tmp_path: Path) -> None:
    with served_process(tmp_path / "clean.db", tmp_path / "ready", "--speed", "10") as (process, _):
        process.send_signal(signal.SIGTERM)
        assert process.wait(20) == 0


def test_restart_keeps_statuses_and_keys_and_the_worker_resumes(tmp_path: Path) -> None:
    db_path = tmp_path / "restart.db"
    with running(db_path, speed=1.0) as service, client_for(service) as client:
        first = client.post("/signals/submit", json=signal_body(key="resume")).json()
    an_hour_later = lambda: time.time() + 3600.0  # noqa: E731 - the restarted service wakes after every wait
    with running(db_path, speed=1.0, clock=an_hour_later) as service, client_for(service) as client:
        assert client.post("/signals/submit", json=signal_body(key="resume")).json() == first
        deadline = time.monotonic() + 20
        status_path = f"/signals/status/{first['submission_id']}"
        while (status := client.get(status_path).json())["status"] == "signal_submitted":
            assert time.monotonic() < deadline
            time.sleep(0.05)
    assert status["history"][0]["status"] == "signal_submitted"
    assert status["history"][1]["status"] == "signal_found"


def test_a_custom_catalog_replaces_the_bundled_one(tmp_path: Path) -> None:
    catalog = json.loads((PACKAGE_ROOT / "tallowmere" / "service" / "default_eras.json").read_text())
    catalog["active_era_number"] = 2
    path = tmp_path / "eras.json"
    path.write_text(json.dumps(catalog))
    with running(tmp_path / "s.db", eras=path) as service, client_for(service) as client:
        assert client.get("/eras").json()["active_era_number"] == 2
        refused = client.post("/signals/submit", json=signal_body())
    assert refused.json() == {
        "reason": "era_not_active",
        "details": {"market_id": 1, "era_number": 3, "active_era_number": 2},
    }


@pytest.mark.parametrize(
    ("catalog_text", "database_text", "message"),
    [
        ("{}", None, "needs a non-empty eras_by_market"),
        ('{"eras": [{"era_number": 1}]}', None, "field market_id must be a positive integer"),
        ('{"eras": [', None, "not valid JSON"),
        (None, "not a database" * 100, "cannot be opened: file is not a database"),
    ],
)
def test_serve_refuses_a_bad_catalog_or_database_with_exit_status_2(
    tmp_path: Path,
    capsys: pytest.CaptureFixture[str],
    catalog_text: str | None,
    database_text: str | None,
    message: str,
) -> None:
    argv = ["serve", "--port", "0", "--db", str(tmp_path / "s.db"), "--token", "t"]
    if catalog_text is not None:
        (tmp_path / "eras.json").write_text(catalog_text)
        argv += ["--eras", str(tmp_path / "eras.json")]
    if database_text is not None:
        (tmp_path / "s.db").write_text(database_text)
    assert main(argv) == 2
    assert message in capsys.readouterr().err


@pytest.mark.parametrize(
    "argv",
    [["serve", "--token", "t"], ["serve", "--db", "x.db"], ["serve", "--db", "x", "--token", "t", "--speed", "0"]],
)
def test_serve_argument_errors_exit_with_usage(argv: list[str]) -> None:
    with pytest.raises(SystemExit) as stopped:
        main(argv)
    assert stopped.value.code == 2


def test_run_service_leaves_no_thread_behind(tmp_path: Path) -> None:
    before = {thread.ident for thread in threading.enumerate()}
    with running(tmp_path / "s.db", speed=100.0) as service, client_for(service) as client:
        client.post("/signals/submit", json=signal_body())
    time.sleep(0.2)
    leftover = [thread.name for thread in threading.enumerate() if thread.ident not in before]
    assert leftover == []
