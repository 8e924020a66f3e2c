"""``tallowmere status``, ``list`` and ``poll``: following submissions after they were accepted.

``status`` and ``poll`` end with a status that tells their outcomes apart:
0 every submission is where it should be; 1 the service said no (an unknown
id, a token it refuses, an unsuccessful status); 3 the service could not be
reached (for ``poll``: it was still unreachable when ``--wait`` ran out);
4 (``poll``) ``--wait`` ran out with submissions still on their way.
"""

from __future__ import annotations

import argparse
import time
from collections.abc import Mapping, Sequence
from typing import Any

from tallowmere.api.signal_types import StatusResult
from tallowmere.cli.connection import answered, open_client, refusal_text, resolve_address, unreachable
from tallowmere.cli.errors import (
    EXIT_OK,
    EXIT_REFUSED,
    EXIT_STILL_WAITING,
    EXIT_UNREACHABLE,
    Interrupted,
    ServiceRefusal,
    problems_text,
)
from tallowmere.cli.polling import PollOutcome, PollRound, poll_statuses
from tallowmere.cli.statuses import POLL_TARGETS, UNSUCCESSFUL
from tallowmere.cli.tables import (
    Sheet,
    ident,
    label,
    moment_text,
    number,
    payment_text,
    stat,
    status_document,
    status_sheet,
)
from tallowmere.cli.terminal import Page, Terminal
from tallowmere.transport import RetryPolicy

POLL_RETRY_ATTEMPTS = 3
"""Attempts per status request while polling: polling itself asks again at every interval."""


def status_problems(rows: Sequence[tuple[str, StatusResult]], hint: str | None = None) -> list[str]:
    """What is wrong with these statuses: ids the service would not report, and unsuccessful outcomes.

    ``hint`` (what to do about the token) follows the first 401.
    """
    problems = []
    hinted = False
    for submission_id, result in rows:
        if result.error is not None:
            text = f"{submission_id}: {refusal_text(result.status_code, result.error, result.body)}"
            if result.status_code == 401 and hint and not hinted:
                text, hinted = f"{text}; {hint}", True
            problems.append(text)
        elif result.status in UNSUCCESSFUL:
            problems.append(f"{submission_id}: {result.status}")
    return problems


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
    terminal.emit(document, lambda page: page.table(status_sheet(rows)))
    problems = status_problems(rows, address.token_hint())
    if problems:
        terminal.problem(problems_text(problems))
        return EXIT_REFUSED
    return EXIT_OK


def render_listing(page: Page, submissions: Sequence[Mapping[str, Any]]) -> None:
    """Draw one row per listed submission (the universe goes first on a narrow terminal, then the payment)."""
    sheet = Sheet(ident("submission"), ident("status"), label("pool", keep=70), number("IS sharpe", keep=50),
                  number("payment", keep=45), label("created (UTC)", keep=60), label("universe", keep=40))  # fmt: skip
    for body in submissions:
        pool = body.get("signal_pool_name") or body.get("strategy_pool_name") or ""
        sheet.add_row(str(body.get("submission_id", "")), str(body.get("status", "")), str(pool),
                      stat(body.get("is_stats"), "sharpe"), payment_text(body.get("payment")),
                      moment_text(body.get("created_at")), str(body.get("named_universe", "")))  # fmt: skip
    page.table(sheet)
    page.line(f"{len(submissions)} submission(s)")


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
        reason = refusal_text(result.status_code, result.error, result.body, address)
        raise ServiceRefusal(f"the service refused GET /signals/submissions: {reason}")
    submissions = list(result.submissions)
    document = {"count": len(submissions), "submissions": submissions}
    terminal.emit(document, lambda page: render_listing(page, submissions))
    return EXIT_OK


def poll_document(
    args: argparse.Namespace, ids: Sequence[str], outcome: PollOutcome, *, interrupted: bool
) -> dict[str, Any]:
    """The JSON form of a poll: what it waited for, the last answer about each id, and what is still waiting."""
    return {
        "until": args.until,
        "still_waiting": list(outcome.waiting),
        "unreachable": outcome.outage,
        "interrupted": interrupted,
        "submissions": [status_document(key, outcome.latest[key]) for key in ids if key in outcome.latest],
        "never_answered": [key for key in ids if key not in outcome.latest],
    }


def render_poll(page: Page, ids: Sequence[str], outcome: PollOutcome) -> None:
    """Draw the status table, with a row for each id the service never answered about."""
    sheet = status_sheet((key, outcome.latest[key]) for key in ids if key in outcome.latest)
    for key in ids:
        if key not in outcome.latest:
            sheet.add_row(key, "no answer", None, None, None, outcome.outage or "", "")
    page.table(sheet)


def run_poll(args: argparse.Namespace, terminal: Terminal) -> int:
    """Poll the submissions named until each reaches the status ``--until`` asks for, or ``--wait`` runs out.

    An outage (no connection, 5xx) does not end polling before ``--wait`` does.
    """
    address = resolve_address(args)
    ids = list(dict.fromkeys(args.submission_ids))
    # Polling asks again at every interval, so one request need not be retried for long.
    policy = RetryPolicy(max_attempts=POLL_RETRY_ATTEMPTS, deadline=min(args.wait, 10.0))
    outcome = PollOutcome()
    deadline = time.monotonic() + args.wait

    def on_outage(reason: str | None, seconds: float) -> None:
        if reason is not None:
            left = max(0.0, deadline - time.monotonic())
            terminal.warning(f"no answer from the service ({reason}); still trying for {left:.0f} s")
        else:
            terminal.warning(f"the service answers again, after {seconds:.1f} s without an answer")

    interrupted = False
    try:
        with (
            open_client(address, policy=policy, timeout=min(address.timeout, max(args.wait, 1.0))) as client,
            terminal.progress(f"waiting for {args.until} statuses", total=len(ids), deadline=deadline) as shown,
        ):

            def on_round(report: PollRound) -> None:
                shown.update(report.settled, report.note())

            poll_statuses(
                client, ids, target=POLL_TARGETS[args.until], timeout=args.wait, interval=args.interval,
                on_round=on_round, on_outage=on_outage, outcome=outcome,
            )  # fmt: skip
    except KeyboardInterrupt:
        interrupted = True
    document = poll_document(args, ids, outcome, interrupted=interrupted)
    terminal.emit(document, lambda page: render_poll(page, ids, outcome))
    settled = len(ids) - len(outcome.waiting)
    if interrupted:
        raise Interrupted(f"interrupted: {settled} of {len(ids)} submission(s) had reached a {args.until} status")
    rows = [(key, outcome.latest[key]) for key in ids if key in outcome.latest]
    problems = status_problems(rows, address.token_hint())
    if problems:
        terminal.problem(problems_text(problems))
        return EXIT_REFUSED
    if outcome.waiting and outcome.outage is not None:
        terminal.problem(
            f"could not reach the service at {address.base_url} when the wait of {args.wait:g} s ran out "
            f"({outcome.outage}); {len(outcome.waiting)} submission(s) not known to be {args.until}"
        )
        return EXIT_UNREACHABLE
    if outcome.waiting:
        late = [
            f"{key}: still {outcome.latest[key].status if key in outcome.latest else 'unknown'} after {args.wait:g} s"
            for key in outcome.waiting
        ]
        terminal.problem(problems_text(late))
        return EXIT_STILL_WAITING
    return EXIT_OK
