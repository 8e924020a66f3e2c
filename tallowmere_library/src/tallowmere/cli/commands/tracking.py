"""``tallowmere status``, ``list`` and ``poll``: following submissions after they were accepted."""

from __future__ import annotations

import argparse
from collections.abc import Mapping, Sequence
from typing import Any

from rich.console import Console
from rich.text import Text

from tallowmere.api.signal_types import StatusResult
from tallowmere.cli.connection import answered, open_client, refusal_text, resolve_address, unreachable
from tallowmere.cli.errors import EXIT_OK, EXIT_REFUSED, ServiceRefusal, problems_text
from tallowmere.cli.polling import poll_statuses
from tallowmere.cli.statuses import POLL_TARGETS, UNSUCCESSFUL
from tallowmere.cli.tables import (
    add_row,
    identifier,
    moment_text,
    new_table,
    numeric,
    payment_text,
    stat,
    status_document,
    status_table,
    unbroken,
)
from tallowmere.cli.terminal import Terminal


def status_problems(rows: Sequence[tuple[str, StatusResult]]) -> list[str]:
    """What is wrong with these statuses: ids the service would not report, and unsuccessful outcomes."""
    problems = []
    for submission_id, result in rows:
        if result.error is not None:
            problems.append(f"{submission_id}: {refusal_text(result.status_code, result.error, result.body)}")
        elif result.status in UNSUCCESSFUL:
            problems.append(f"{submission_id}: {result.status}")
    return problems


def _finish(terminal: Terminal, rows: Sequence[tuple[str, StatusResult]], extra: Sequence[str] = ()) -> int:
    problems = [*status_problems(rows), *extra]
    if problems:
        terminal.problem(problems_text(problems))
        return EXIT_REFUSED
    return EXIT_OK


def run_status(args: argparse.Namespace, terminal: Terminal) -> int:
    """Show the current status of each submission named."""
    address = resolve_address(args)
    rows: list[tuple[str, StatusResult]] = []
    with open_client(address) as client:
        for submission_id in dict.fromkeys(args.submission_ids):
            with answered(address, f"GET /signals/status/{submission_id}"):
                result = client.get_signal_status(submission_id)
            if result.status_code == 0:
                raise unreachable(address, result.error or "no answer")
            rows.append((submission_id, result))
    document = {"submissions": [status_document(submission_id, result) for submission_id, result in rows]}
    terminal.emit(document, lambda console: console.print(status_table(rows)))
    return _finish(terminal, rows)


def render_listing(console: Console, submissions: Sequence[Mapping[str, Any]]) -> None:
    """Draw one row per listed submission."""
    table = new_table(identifier("submission"), "pool", "universe", identifier("status"), numeric("IS sharpe"),
                      numeric("payment"), unbroken("created (UTC)"))  # fmt: skip
    for body in submissions:
        pool = body.get("signal_pool_name") or body.get("strategy_pool_name") or ""
        add_row(table, str(body.get("submission_id", "")), str(pool), str(body.get("named_universe", "")),
                str(body.get("status", "")), stat(body.get("is_stats"), "sharpe"), payment_text(body.get("payment")),
                moment_text(body.get("created_at")))  # fmt: skip
    console.print(table)
    console.print(Text(f"{len(submissions)} submission(s)"), soft_wrap=True)


def run_list(args: argparse.Namespace, terminal: Terminal) -> int:
    """List the caller's submissions, newest first, filtered as asked."""
    address = resolve_address(args)
    with open_client(address) as client, answered(address, "GET /signals/submissions"):
        result = client.list_signal_submissions(
            status=args.status, idempotency_key=args.idempotency_key, since=args.since, limit=args.limit
        )
    if result.status_code == 0:
        raise unreachable(address, result.error or "no answer")
    if result.error is not None:
        reason = refusal_text(result.status_code, result.error, result.body)
        raise ServiceRefusal(f"the service refused GET /signals/submissions: {reason}")
    submissions = list(result.submissions)
    document = {"count": len(submissions), "submissions": submissions}
    terminal.emit(document, lambda console: render_listing(console, submissions))
    return EXIT_OK


def run_poll(args: argparse.Namespace, terminal: Terminal) -> int:
    """Poll the submissions named until each reaches the status ``--until`` asks for, or ``--wait`` runs out."""
    address = resolve_address(args)
    submission_ids = list(dict.fromkeys(args.submission_ids))
    with (
        open_client(address) as client,
        terminal.progress(f"waiting for {args.until} statuses", total=len(submission_ids)) as advance,
    ):
        outcome = poll_statuses(
            client,
            address,
            submission_ids,
            target=POLL_TARGETS[args.until],
            timeout=args.wait,
            interval=args.interval,
            on_progress=advance,
        )
    rows = list(outcome.latest.items())
    document = {
        "until": args.until,
        "still_waiting": outcome.waiting,
        "submissions": [status_document(submission_id, result) for submission_id, result in rows],
    }
    terminal.emit(document, lambda console: console.print(status_table(rows)))
    late = [
        f"{submission_id}: still {outcome.latest[submission_id].status} after {args.wait:g} s"
        for submission_id in outcome.waiting
    ]
    return _finish(terminal, rows, late)
