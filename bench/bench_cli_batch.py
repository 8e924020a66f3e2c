"""End-to-end benchmark of ``tallowmere batch``: 2,000 candidates against the local reference service.

Run from the project root (``make bench-batch``, also part of ``make bench``):

    .venv/bin/python bench/bench_cli_batch.py [--candidates N] [--repeat N]

It starts the reference service (``tallowmere serve``) on 127.0.0.1 in its own
process with a fresh database, writes N candidates of the demo's generator
(:func:`tallowmere.cli.candidates.generate_candidates`) to a JSON Lines file,
and times ``tallowmere batch FILE --skip-invalid --json`` as a subprocess with
a fresh simulation cache (``TALLOWMERE_CACHE_DIR``), so every graph is
simulated. Progress lines (``--progress plain``) are timestamped as they
arrive, which splits the run into:

- start: the interpreter, the imports and reading the file, up to the first
  progress line;
- simulation: simulating every graph (on threads), and keeping each in the cache;
- checks: the era catalog and the client's checks of every line;
- sending: the chunks of up to 100 signals, one request each;
- finish: the table or JSON document, and the interpreter's exit.

Each run uses a fresh service database and cache; the best run (by total) is
reported, with every run's total, and the processor time the batch process
used (user and system, all its threads), which other work on the machine
does not inflate as it does the wall-clock figures.
"""

from __future__ import annotations

import argparse
import json
import os
import resource
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from tallowmere.cli.candidates import generate_candidates

GOAL_SECONDS = 8.0
TOKEN = "bench-token"
CANDIDATE_KEY = 7


def _start_service(directory: Path) -> tuple[subprocess.Popen[bytes], str]:
    ready = directory / "ready"
    service = subprocess.Popen(
        [sys.executable, "-m", "tallowmere", "serve", "--port", "0", "--db", str(directory / "service.db"),
         "--token", TOKEN, "--ready-file", str(ready), "--log-level", "warning"],
        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
    )  # fmt: skip
    deadline = time.monotonic() + 60.0
    while not ready.exists():
        if service.poll() is not None or time.monotonic() > deadline:
            service.kill()
            raise RuntimeError("the reference service did not start")
        time.sleep(0.05)
    return service, ready.read_text().strip()


def _stop(service: subprocess.Popen[bytes]) -> None:
    service.send_signal(signal.SIGTERM)
    try:
        service.wait(timeout=30.0)
    except subprocess.TimeoutExpired:
        service.kill()
        service.wait()


def _phase(line: str) -> str | None:
    """The step a progress line belongs to, by its wording."""
    if ": simulating " in line:
        return "simulation_end" if "(end)" in line else "simulation"
    if ": sending " in line:
        return "sending_end" if "(end)" in line else "sending"
    return None


def run_once(count: int, directory: Path) -> dict[str, object]:
    """One run against a fresh service and cache: the phases' seconds and the outcome."""
    service, base_url = _start_service(directory)
    try:
        batch = directory / "candidates.jsonl"
        with batch.open("w") as handle:
            for candidate in generate_candidates(count, CANDIDATE_KEY):
                handle.write(json.dumps(candidate.graph) + "\n")
        environment = {
            **os.environ,
            "TALLOWMERE_BASE_URL": base_url,
            "TALLOWMERE_TOKEN": TOKEN,
            "TALLOWMERE_CACHE_DIR": str(directory / "cache"),
            "TALLOWMERE_AGENT_CONFIG": str(directory / "no-agent.toml"),
        }
        command = [sys.executable, "-m", "tallowmere", "batch", str(batch), "--skip-invalid", "--json",
                   "--universe", "top300", "--pool", "momentum", "--progress", "plain"]  # fmt: skip
        marks: dict[str, float] = {}
        output = directory / "batch.json"
        with output.open("wb") as document_file:
            children = resource.getrusage(resource.RUSAGE_CHILDREN)
            started = time.perf_counter()
            process = subprocess.Popen(command, env=environment, stdout=document_file, stderr=subprocess.PIPE)
            assert process.stderr is not None
            for raw in process.stderr:
                phase = _phase(raw.decode(errors="replace"))
                if phase is not None:
                    marks.setdefault(phase, time.perf_counter() - started)
                    marks[phase + "_last"] = time.perf_counter() - started
            process.wait()
            total = time.perf_counter() - started
            finished = resource.getrusage(resource.RUSAGE_CHILDREN)  # the batch only: the service is still running
        document = json.loads(output.read_text())
    finally:
        _stop(service)
    simulation = marks.get("simulation", 0.0)
    simulated = marks.get("simulation_end", simulation)
    sending = marks.get("sending", simulated)
    sent = marks.get("sending_end", marks.get("sending_last", sending))
    return {
        "total": total,
        "cpu": (finished.ru_utime - children.ru_utime) + (finished.ru_stime - children.ru_stime),
        "exit_code": process.returncode,
        "accepted": document.get("accepted"),
        "skipped": document.get("skipped"),
        "phases": {
            "start": simulation,
            "simulation": simulated - simulation,
            "checks": sending - simulated,
            "sending": sent - sending,
            "finish": total - sent,
        },
    }


def main() -> None:
    """Run the benchmark and print where the time goes."""
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--candidates", type=int, default=2000, help="candidates in the batch (default 2000)")
    parser.add_argument("--repeat", type=int, default=3, help="runs, each with a fresh service and cache (default 3)")
    arguments = parser.parse_args()
    runs = []
    for _ in range(arguments.repeat):
        with tempfile.TemporaryDirectory(prefix="tallowmere-bench-batch-") as directory:
            runs.append(run_once(arguments.candidates, Path(directory)))
    best = min(runs, key=lambda run: float(run["total"]))  # type: ignore[arg-type]
    phases = best["phases"]
    assert isinstance(phases, dict)
    print(f"tallowmere batch of {arguments.candidates} candidates, end to end against the local service "
          f"(best of {len(runs)}; goal <= {GOAL_SECONDS:g} s)")  # fmt: skip
    for name, seconds in phases.items():
        print(f"  {name:<11} {seconds:7.2f} s")
    print(f"  {'total':<11} {best['total']:7.2f} s   (runs: {', '.join(f'{run['total']:.2f}' for run in runs)} s)")
    print(f"  processor time of the batch process: {best['cpu']:.2f} s (its threads on 2 cores; the service's not counted)")
    print(f"  exit code {best['exit_code']}: {best['accepted']} accepted, {best['skipped']} set aside by the checks")


if __name__ == "__main__":
    main()
