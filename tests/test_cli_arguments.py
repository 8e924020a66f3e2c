"""The command line's arguments and its documentation: help that tells the truth, errors in JSON, working links."""

from __future__ import annotations

import re
from pathlib import Path

import pytest

from cli_support import run_cli
from tallowmere import __version__

ROOT = Path(__file__).resolve().parent.parent
SERVICE_COMMANDS = ["eras", "submit", "submit-strategy", "batch", "status", "list", "poll"]
LOCAL_COMMANDS = ["simulate", "demo"]


def help_text(capsys: pytest.CaptureFixture[str], *argv: str) -> str:
    run = run_cli(capsys, *argv, "--help")
    assert run.code == 0
    return run.out


def test_version(capsys: pytest.CaptureFixture[str]) -> None:
    run = run_cli(capsys, "--version")
    assert run.code == 0 and run.out.strip() == f"tallowmere {__version__}"


@pytest.mark.parametrize("command", SERVICE_COMMANDS + LOCAL_COMMANDS)
def test_each_command_documents_only_the_options_it_takes(capsys: pytest.CaptureFixture[str], command: str) -> None:
    text = " ".join(help_text(capsys, command).split())  # argparse wraps the epilog
    talks_to_the_service = command in SERVICE_COMMANDS
    for option in ("--base-url", "--token", "TALLOWMERE_TOKEN"):
        assert (option in text) == talks_to_the_service, option
    assert "Exit status: 0 " in text and "130 interrupted" in text
    assert ("--fresh" in text) == (command in ("simulate", "submit", "submit-strategy", "batch", "demo"))
    assert ("--progress" in text) == (command in ("batch", "poll", "demo"))


@pytest.mark.parametrize(
    ("command", "statuses"),
    [
        ("poll", ["1 an id is unknown", "3 the service could not be reached when --wait ran out",
                  "4 --wait ran out with submissions still on their way"]),
        ("status", ["1 an id is unknown", "3 the service could not be reached"]),
        ("batch", ["2 bad arguments, or invalid lines without --skip-invalid", "3 a chunk got no usable answer"]),
    ],
)  # fmt: skip
def test_help_tells_the_exit_statuses_apart(capsys: pytest.CaptureFixture[str], command: str, statuses: list[str]) -> None:
    text = " ".join(help_text(capsys, command).split())  # argparse wraps the epilog
    for status in statuses:
        assert status in text


@pytest.mark.parametrize(
    ("argv", "message"),
    [
        (["list", "--limit", "0", "--json"], "argument --limit: must be an integer from 1 to 1000, got '0'"),
        (["--json", "status"], "the following arguments are required: SUBMISSION_ID"),
        (["poll", "--json", "sig_x", "--wait", "-1"], "argument --wait: must be a positive number of seconds"),
    ],
)
def test_argument_errors_with_json_are_a_json_document(
    capsys: pytest.CaptureFixture[str], argv: list[str], message: str
) -> None:
    run = run_cli(capsys, *argv)
    assert run.code == 2
    assert run.json() == {"error": run.json()["error"], "exit_code": 2} and message in run.json()["error"]
    assert len(run.err.splitlines()) == 1 and message in run.err


def test_without_json_an_argument_error_is_one_line_on_stderr(capsys: pytest.CaptureFixture[str]) -> None:
    run = run_cli(capsys, "list", "--limit", "0", "--", "--json")
    assert run.code == 2 and run.out == ""
    assert run.err.startswith("tallowmere list: error: ")


@pytest.mark.parametrize(("mode", "lines"), [("plain", 2), ("none", 0), ("auto", 2)])
def test_progress_modes_off_a_terminal(
    capsys: pytest.CaptureFixture[str], tmp_path: Path, monkeypatch: pytest.MonkeyPatch, mode: str, lines: int
) -> None:
    monkeypatch.setenv("TALLOWMERE_CACHE_DIR", str(tmp_path / "cache"))
    (tmp_path / "batch.jsonl").write_text('{"op": "clsoe"}\n')
    run = run_cli(capsys, "batch", str(tmp_path / "batch.jsonl"), "--base-url", "http://127.0.0.1:9",
                  "--token", "test-token", "--pool", "momentum", "--universe", "top300", "--no-retries", "--progress", mode)  # fmt: skip
    assert run.code == 3  # the simulation ran, then the catalog could not be fetched
    progress = [line for line in run.err.splitlines() if "simulating 1 graphs" in line]
    assert len(progress) == lines
    assert "line 1: graph node at root (clsoe): unknown operator" in run.err  # what was found is still told


def markdown_links(path: Path) -> list[str]:
    return re.findall(r"\]\(([^)\s]+)\)", path.read_text())


def anchors(path: Path) -> set[str]:
    headings = re.findall(r"^#+ (.+)$", path.read_text(), flags=re.M)
    return {re.sub(r"[^a-z0-9 -]", "", heading.lower().replace("`", "")).replace(" ", "-") for heading in headings}


@pytest.mark.parametrize("document", sorted(path.name for path in (ROOT / "docs").glob("*.md")))
def test_the_docs_link_to_files_and_sections_that_exist(document: str) -> None:
    path = ROOT / "docs" / document
    for link in markdown_links(path):
        if link.startswith(("http://", "https://", "mailto:")):
            continue
        target, _, anchor = link.partition("#")
        linked = (path.parent / target).resolve() if target else path
        assert linked.exists(), f"{document} links to {link}, which does not exist"
        if anchor and linked.suffix == ".md":
            assert anchor in anchors(linked), f"{document} links to {link}, which has no such section"
