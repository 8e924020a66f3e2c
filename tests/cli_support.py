"""Shared helpers of the command-line tests: running ``tallowmere`` in-process or on a pseudo-terminal, a service,
graph files."""

from __future__ import annotations

import fcntl
import json
import os
import pty
import re
import select
import struct
import subprocess
import sys
import tempfile
import termios
import time
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path
from typing import IO, Any

import httpx
import pytest

from tallowmere.__main__ import main
from tallowmere.service import RunningService, run_service

# Distinctive, so that a test can search every output for it.
TOKEN = "tok-7Qz-never-shown"

REVERSAL: dict[str, Any] = {"op": "zscore", "args": [{"op": "neg", "args": [{"op": "returns"}]}]}
# Week-old returns: noise, below the momentum pool's minimum Sharpe ratio.
WEAK: dict[str, Any] = {"op": "rank", "args": [{"op": "ts_delay", "window": 8, "args": [{"op": "returns"}]}]}


def volume_graph(window: int) -> dict[str, Any]:
    """A distinct, strong graph per window (volume surprise)."""
    average = {"op": "ts_mean", "window": window, "args": [{"op": "volume"}]}
    return {"op": "rank", "args": [{"op": "div", "args": [{"op": "volume"}, average]}]}


@dataclass(frozen=True)
class Run:
    """What one command run left behind: its exit status and both streams."""

    code: int
    out: str
    err: str

    def json(self) -> Any:
        """Stdout parsed as the one JSON document ``--json`` promises."""
        return json.loads(self.out)


def run_cli(capsys: pytest.CaptureFixture[str], *argv: str) -> Run:
    """Run ``tallowmere argv`` in-process; argument errors (SystemExit) count as their exit status."""
    capsys.readouterr()
    try:
        code = main(list(argv))
    except SystemExit as stopped:
        code = stopped.code if isinstance(stopped.code, int) else 1
    captured = capsys.readouterr()
    return Run(code, captured.out, captured.err)


def write_graph(directory: Path, graph: dict[str, Any], name: str = "graph.json") -> str:
    """Write ``graph`` as a JSON file in ``directory``; return its path."""
    path = directory / name
    path.write_text(json.dumps(graph))
    return str(path)


@contextmanager
def fault_service(db_path: Path, speed: float = 50.0) -> Iterator[RunningService]:
    """A service with fault injection for the owner ``TOKEN``, its lifecycle ``speed`` times faster."""
    with run_service(db_path=db_path, tokens=[TOKEN], speed=speed, faults=True) as service:
        yield service


def script_faults(service: RunningService, route: str, *faults: str) -> None:
    """Queue ``faults`` for the next requests to ``route``."""
    answer = httpx.post(
        service.base_url + "/_faults",
        json={"route": route, "faults": list(faults)},
        headers={"Authorization": f"Bearer {TOKEN}"},
    )
    answer.raise_for_status()


def stored_with_key(service: RunningService, key: str) -> list[dict[str, Any]]:
    """The submissions the service holds under ``key`` (read over HTTP, beside the command line)."""
    answer = httpx.get(
        service.base_url + "/signals/submissions",
        params={"idempotency_key": key},
        headers={"Authorization": f"Bearer {TOKEN}"},
    )
    answer.raise_for_status()
    submissions: list[dict[str, Any]] = answer.json()["submissions"]
    return submissions


ANSI = re.compile(r"\x1b\[[0-9;?]*[ -/]*[@-~]|\x1b[()][0-9A-Za-z]|\r")


def plain_text(raw: bytes) -> str:
    """Terminal output without its escape sequences and carriage returns."""
    return ANSI.sub("", raw.decode("utf-8", errors="replace"))


def tallowmere(*argv: str) -> list[str]:
    """The command line that runs ``tallowmere argv`` in a new interpreter."""
    return [sys.executable, "-m", "tallowmere", *argv]


@dataclass(frozen=True)
class TerminalRun:
    """A run with one stream on a pseudo-terminal: its exit status, what the terminal showed, the other stream."""

    code: int
    screen: str
    other: str


def run_on_terminal(
    argv: list[str],
    *,
    columns: int = 80,
    stream: str = "stdout",
    timeout: float = 60.0,
    env: dict[str, str] | None = None,
) -> TerminalRun:
    """Run ``tallowmere argv`` with ``stream`` (stdout or stderr) on a pseudo-terminal ``columns`` wide.

    ``COLUMNS`` and the terminal's window size agree, as in a real terminal.
    """
    master, slave = pty.openpty()
    fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", 40, columns, 0, 0))
    environment = {**(env if env is not None else os.environ), "COLUMNS": str(columns), "TERM": "xterm"}
    with tempfile.TemporaryFile() as other:
        out, err = (slave, other.fileno()) if stream == "stdout" else (other.fileno(), slave)
        process = subprocess.Popen(tallowmere(*argv), stdin=subprocess.DEVNULL, stdout=out, stderr=err, env=environment)
        os.close(slave)
        screen = bytearray()
        deadline = time.monotonic() + timeout
        try:
            while time.monotonic() < deadline:
                ready, _, _ = select.select([master], [], [], 0.2)
                if not ready:
                    if process.poll() is not None:
                        break
                    continue
                try:
                    chunk = os.read(master, 65536)
                except OSError:  # the child closed its end
                    break
                if not chunk:
                    break
                screen.extend(chunk)
            code = process.wait(timeout=max(deadline - time.monotonic(), 1.0))
        finally:
            os.close(master)
            if process.poll() is None:
                process.kill()
        other.seek(0)
        return TerminalRun(code, plain_text(bytes(screen)), other.read().decode("utf-8", errors="replace"))


def wait_until(condition: Callable[[], bool], timeout: float = 30.0, what: str = "the condition") -> None:
    """Return once ``condition()`` holds, checking every 50 ms; fail the test after ``timeout`` seconds."""
    deadline = time.monotonic() + timeout
    while not condition():
        if time.monotonic() > deadline:
            raise AssertionError(f"timed out after {timeout:g} s waiting for {what}")
        time.sleep(0.05)


def read_until(stream: IO[bytes], marker: str, timeout: float = 30.0) -> str:
    """Read ``stream`` (a pipe) until ``marker`` appears; return what was read."""
    seen = b""
    deadline = time.monotonic() + timeout
    while marker.encode() not in seen:
        remaining = deadline - time.monotonic()
        if remaining <= 0:
            raise AssertionError(f"timed out waiting for {marker!r}; read {seen.decode(errors='replace')!r}")
        ready, _, _ = select.select([stream], [], [], remaining)
        if ready:
            chunk = os.read(stream.fileno(), 65536)
            if not chunk:
                raise AssertionError(f"the stream ended before {marker!r}; read {seen.decode(errors='replace')!r}")
            seen += chunk
    return seen.decode(errors="replace")
