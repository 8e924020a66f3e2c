"""The demo end to end: in-process with JSON output, and as ``python -m tallowmere demo`` in a subprocess."""

from __future__ import annotations

import os
import re
import subprocess
import sys
from pathlib import Path

import pytest

from cli_support import run_cli
from tallowmere.cli.candidates import generate_candidates
from tallowmere.cli.statuses import FINAL
from tallowmere.simulation.graph_complexity import graph_fingerprint


@pytest.fixture(autouse=True)
def cache_directory(monkeypatch: pytest.MonkeyPatch, tmp_path: Path) -> None:
    monkeypatch.setenv("TALLOWMERE_CACHE_DIR", str(tmp_path / "cache"))


def test_candidates_depend_only_on_the_generator_key() -> None:
    first, again, other = generate_candidates(30, 7), generate_candidates(30, 7), generate_candidates(30, 8)
    assert first == again and first != other
    assert len({graph_fingerprint(candidate.graph) for candidate in first}) == 30
    assert [candidate.number for candidate in first] == list(range(1, 31))


def test_demo_follows_every_submission_to_a_final_status(capsys: pytest.CaptureFixture[str]) -> None:
    run = run_cli(capsys, "demo", "--candidates", "8", "--speed", "50", "--json")
    assert run.code == 0, run.err
    document = run.json()
    candidates = document["candidates"]
    assert len(candidates) == 8
    submitted = [candidate for candidate in candidates if candidate["set_aside"] is None]
    assert [candidate["submitted"] for candidate in submitted] == ["alone"] + ["batch"] * (len(submitted) - 1)
    assert all(candidate["status"] in FINAL for candidate in submitted)
    set_aside = [candidate for candidate in candidates if candidate not in submitted]
    assert all(candidate["status"] is None and candidate["set_aside"] for candidate in set_aside)
    useful = [candidate for candidate in submitted if candidate["status"] == "signal_useful"]
    assert useful, "the default generator key yields useful signals"
    paid = sum(candidate["status_body"]["payment"]["amount"] for candidate in useful)
    assert document["totals"]["paid"] == {"TMC": pytest.approx(paid)}


def test_demo_runs_as_a_command() -> None:
    environment = {**os.environ, "COLUMNS": "200"}
    finished = subprocess.run(
        [sys.executable, "-m", "tallowmere", "demo", "--candidates", "5", "--speed", "50"],
        capture_output=True, text=True, timeout=120, env=environment, check=False,
    )  # fmt: skip
    assert finished.returncode == 0, finished.stderr
    assert "Outcome of every candidate" in finished.stdout
    assert "Paid:" in finished.stdout and "Service stopped" in finished.stdout
    # Not on a terminal, progress is plain lines on stderr, and nothing else is there.
    assert "tallowmere demo: simulating 5 candidates (end): 5/5 (100%)" in finished.stderr
    assert all(re.match(r"tallowmere demo: [^:]+: \d+/\d+ ", line) for line in finished.stderr.splitlines())
