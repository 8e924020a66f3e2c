"""``tallowmere demo``: the whole research loop against a reference service started in-process.

1. Start the reference service on a free loopback port with a temporary
   database, its lifecycle running ``--speed`` times faster.
2. Generate ``--candidates`` expressions from the generator key
   ``--random-state`` and simulate each on the embedded market data.
3. Check each against the era's gates for the pool, as the client would, and
   set aside those that fail.
4. Submit the first remaining candidate on its own and the rest as one batch.
5. Poll every submission until its status is final: the service never changes
   it again (``signal_is_rejected``, ``signal_os_failed``, ``signal_useful``,
   ``signal_not_useful``, or a server-side failure). ``signal_found`` and
   ``signal_os_passed`` are not final: a found signal still faces the
   out-of-sample evaluation and the usefulness review.
6. Print a summary table, stop the service and exit 0.
"""

from __future__ import annotations

import argparse
import secrets
import tempfile
import time
from collections import Counter
from collections.abc import Mapping
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Final

from tallowmere.api.signal_types import StatusResult
from tallowmere.cli.candidates import Candidate, generate_candidates
from tallowmere.cli.commands.simulate import simulation_cache
from tallowmere.cli.connection import ServiceAddress, answered, fetch_era_catalog, open_client
from tallowmere.cli.errors import EXIT_OK, EXIT_REFUSED, UsageError, problems_text
from tallowmere.cli.extras import SERVICE_EXTRA_HINT, missing_service_packages
from tallowmere.cli.expressions import expression_text
from tallowmere.cli.polling import PollRound, poll_statuses
from tallowmere.cli.screening import gate_failure
from tallowmere.cli.sending import client_chunk_size, send_in_chunks
from tallowmere.cli.simulations import Simulation, SimulationProblem, simulate_graphs
from tallowmere.cli.statuses import FINAL
from tallowmere.cli.tables import (
    Sheet,
    ident,
    number,
    payment_text,
    rounded_numbers,
    stat,
    status_reason,
    text,
)
from tallowmere.cli.terminal import Page, Terminal
from tallowmere.submit import SignalServiceClient

DEFAULT_CANDIDATES: Final = 36
DEFAULT_SPEED: Final = 20.0
DEFAULT_RANDOM_STATE: Final = 7
NAMED_UNIVERSE: Final = "top300"
SIGNAL_POOL: Final = "momentum"
POLL_INTERVAL_SECONDS: Final = 0.1


@dataclass
class CandidateRun:
    """What became of one candidate: its simulation, the local verdict and the service's."""

    candidate: Candidate
    simulation: Simulation
    set_aside: str | None = None
    route: str | None = None
    submission_id: str | None = None
    intake_error: str | None = None
    status: StatusResult | None = None

    def outcome(self) -> str:
        """The candidate's status, or what kept it from having one."""
        if self.set_aside is not None:
            return "set aside locally"
        if self.intake_error is not None:
            return "refused at intake"
        if self.status is None:
            return ""
        return self.status.status or f"error: {self.status.error}"

    def reason(self) -> str:
        """Why it was set aside, refused or rejected (empty when nothing said no)."""
        if self.set_aside is not None:
            return self.set_aside
        if self.intake_error is not None:
            return self.intake_error
        return status_reason(self.status.body) if self.status is not None else ""

    def document(self) -> dict[str, Any]:
        """The JSON form of the candidate's run."""
        body = self.status.body if self.status is not None and isinstance(self.status.body, Mapping) else None
        return {
            "number": self.candidate.number,
            "family": self.candidate.family,
            "expression": expression_text(self.candidate.graph, max_length=10_000),
            "graph": self.candidate.graph,
            "local_is_stats": dict(self.simulation.is_stats),
            "local_os_stats": dict(self.simulation.os_stats),
            "set_aside": self.set_aside,
            "submitted": self.route,
            "submission_id": self.submission_id,
            "intake_error": self.intake_error,
            "status": self.status.status if self.status is not None else None,
            "status_body": body,
        }


def _simulate(candidates: list[Candidate], args: argparse.Namespace, terminal: Terminal) -> list[CandidateRun]:
    graphs = [candidate.graph for candidate in candidates]
    with terminal.progress(f"simulating {len(candidates)} candidates", total=len(candidates)) as shown:
        outcomes = simulate_graphs(graphs, simulation_cache(args, terminal), shown.update)
    runs = []
    for candidate, outcome in zip(candidates, outcomes, strict=True):
        if isinstance(outcome, SimulationProblem):  # the generator's families are all valid graphs
            raise RuntimeError(f"candidate {candidate.number} could not be simulated: {outcome.message}")
        runs.append(CandidateRun(candidate, outcome))
    return runs


def _submit(client: SignalServiceClient, address: ServiceAddress, runs: list[CandidateRun], terminal: Terminal) -> None:
    """Submit the first run alone and the others as one batch, noting each one's id or refusal."""
    first, rest = runs[0], runs[1:]
    simulation = first.simulation
    with answered(address, "POST /signals/submit"):
        alone = client.submit_signal(
            first.candidate.graph,
            NAMED_UNIVERSE,
            signal_pool_name=SIGNAL_POOL,
            **simulation.submission_kwargs(),
        )
    first.route, first.submission_id = "alone", alone.submission_id
    if not alone.ok:
        first.intake_error = f"{alone.error} (HTTP {alone.status_code})"
    if not rest:
        return
    items = [
        {
            "graph": run.candidate.graph,
            "named_universe": NAMED_UNIVERSE,
            "signal_pool_name": SIGNAL_POOL,
            "is_stats": dict(run.simulation.is_stats),
            "is_pnl_mi": run.simulation.is_pnl_mi,
            "expression_elapsed_seconds": run.simulation.expression_elapsed_seconds,
        }
        for run in rest
    ]
    with terminal.progress(f"submitting {len(items)} signals as a batch", total=len(items)) as shown:
        report = send_in_chunks(client, address, items, chunk_size=client_chunk_size(), on_progress=shown.update)
    for run, fate in zip(rest, report.fates, strict=True):
        run.route = "batch"
        if fate.outcome == "accepted":
            run.submission_id = fate.submission_id
        elif fate.outcome == "refused":
            run.intake_error = f"{fate.error} (HTTP {fate.status_code})"
        else:
            run.intake_error = f"{fate.outcome.replace('_', ' ')}: {report.stopped}"


def render_summary(page: Page, runs: list[CandidateRun]) -> None:
    """Draw one row per candidate: status, Sharpe ratios, correlation with the pool, reason, payment.

    On a narrow terminal the correlation goes first, then the out-of-sample
    Sharpe ratio; the expression and the reason are cut before.
    """
    sheet = Sheet(
        number("#"), text("expression", keep=60, min_width=18), ident("status"), number("IS sharpe", keep=45),
        number("OS sharpe", keep=35), number("correlation", keep=30), text("reason", keep=65, min_width=14),
        number("payment", keep=50),
    )  # fmt: skip
    for run in runs:
        status = run.status
        if status is None:
            figures: tuple[Any, ...] = (run.simulation.is_stats.get("sharpe"), None, None, "")
        else:
            body = status.body if isinstance(status.body, Mapping) else {}
            os_sharpe = stat(body.get("os_stats"), "sharpe")
            figures = (stat(status.is_stats, "sharpe"), os_sharpe, status.is_correlation, payment_text(status.payment))
        is_sharpe, os_sharpe, correlation, payment = figures
        expression = expression_text(run.candidate.graph, max_length=10_000)
        sheet.add_row(run.candidate.number, expression, run.outcome(), is_sharpe, os_sharpe, correlation,
                      rounded_numbers(run.reason()), payment)  # fmt: skip
    page.heading("Outcome of every candidate")
    page.table(sheet)


def totals(runs: list[CandidateRun]) -> dict[str, Any]:
    """Counts of each outcome, of each failure reason the service gave, and the sum paid per currency."""
    outcomes = Counter(run.outcome() for run in runs)
    statuses = [run.status for run in runs if run.status is not None]
    reasons = Counter(status.failure_reason for status in statuses if status.failure_reason)
    paid: dict[str, float] = {}
    for status in statuses:
        payment = status.payment
        if isinstance(payment, Mapping) and isinstance(payment.get("amount"), (int, float)):
            currency = str(payment.get("currency", ""))
            paid[currency] = round(paid.get(currency, 0.0) + float(payment["amount"]), 2)
    return {"outcomes": dict(outcomes), "failure_reasons": dict(reasons), "paid": paid}


def totals_line(summary: Mapping[str, Any]) -> str:
    """The totals as one sentence."""
    outcomes: Mapping[str, int] = summary["outcomes"]
    paid = ", ".join(f"{amount:.2f} {currency}" for currency, amount in summary["paid"].items()) or "nothing"
    parts = [f"{count} {status}" for status, count in sorted(outcomes.items(), key=lambda pair: -pair[1])]
    by_count = sorted(summary["failure_reasons"].items(), key=lambda pair: -pair[1])
    reasons = ", ".join(f"{code} {count}" for code, count in by_count)
    line = "; ".join(parts) + f". Paid: {paid}."
    return line + (f" Reasons: {reasons}." if reasons else "")


def _research_loop(args: argparse.Namespace, terminal: Terminal, base_url: str, token: str) -> list[CandidateRun]:
    """Generate, simulate, screen, submit and follow the candidates; return what became of each.

    Submissions still not final when ``--wait`` runs out keep their last status.
    """
    runs = _simulate(generate_candidates(args.candidates, args.random_state), args, terminal)
    terminal.say(
        f"Generated {len(runs)} candidate expressions (generator key {args.random_state}) "
        f"and simulated them on the embedded market data."
    )
    address = ServiceAddress(base_url=base_url, token=token, token_source="the demo's own service")
    with open_client(address) as client:
        catalog = fetch_era_catalog(client, address)
        for run in runs:
            run.set_aside = gate_failure(
                catalog, named_universe=NAMED_UNIVERSE, signal_pool_name=SIGNAL_POOL,
                is_stats=run.simulation.is_stats, is_pnl_mi=run.simulation.is_pnl_mi,
            )  # fmt: skip
        chosen = [run for run in runs if run.set_aside is None]
        terminal.say(
            f"Gates of pool {SIGNAL_POOL!r} for universe {NAMED_UNIVERSE!r}: "
            f"{len(chosen)} candidates pass, {len(runs) - len(chosen)} set aside."
        )
        if not chosen:
            return runs
        _submit(client, address, chosen, terminal)
        accepted = {run.submission_id: run for run in chosen if run.submission_id is not None}
        terminal.say(
            f"Submitted candidate {chosen[0].candidate.number} alone and {len(chosen) - 1} as one batch; "
            f"{len(accepted)} accepted."
        )
        began = time.monotonic()
        with terminal.progress("waiting for final statuses", total=len(accepted), deadline=began + args.wait) as shown:

            def on_round(report: PollRound) -> None:
                shown.update(report.settled, report.note())

            outcome = poll_statuses(
                client, list(accepted), target=FINAL, timeout=args.wait, interval=POLL_INTERVAL_SECONDS,
                on_round=on_round,
            )  # fmt: skip
    for submission_id, run in accepted.items():
        run.status = outcome.latest.get(submission_id)
    settled = len(accepted) - len(outcome.waiting)
    seconds = time.monotonic() - began
    terminal.say(f"Followed {settled} of {len(accepted)} submissions to a final status in {seconds:.1f} s.")
    return runs


def demo_problems(runs: list[CandidateRun], wait: float) -> list[str]:
    """What kept the loop from completing: refusals at intake, statuses not final in time, nothing to submit."""
    problems = [f"candidate {run.candidate.number}: refused at intake: {run.intake_error}"
                for run in runs if run.intake_error]  # fmt: skip
    for run in runs:
        if run.status is None:
            continue
        if run.status.error is not None:
            problems.append(f"candidate {run.candidate.number}: no status: {run.status.error}")
        elif run.status.status not in FINAL:
            problems.append(f"candidate {run.candidate.number}: still {run.status.status} after {wait:g} s")
    if all(run.set_aside is not None for run in runs):
        problems.append("no candidate passed the gates, so nothing was submitted")
    return problems


def run_demo(args: argparse.Namespace, terminal: Terminal) -> int:
    """Run the research loop against a reference service of its own and summarise every candidate."""
    missing = missing_service_packages()
    if missing:
        needed = ", ".join(missing)
        raise UsageError(f"the demo needs the reference service's packages ({needed}): {SERVICE_EXTRA_HINT}")
    from tallowmere.service import run_service

    began = time.monotonic()
    token = secrets.token_urlsafe(24)
    terminal.redactor.add(token)
    with (
        tempfile.TemporaryDirectory(prefix="tallowmere-demo-") as directory,
        run_service(db_path=Path(directory) / "demo.db", tokens=[token], speed=args.speed) as service,
    ):
        terminal.say(
            f"Reference service at {service.base_url} (temporary database, lifecycle {args.speed:g}x faster)."
        )
        runs = _research_loop(args, terminal, service.base_url, token)
    summary = totals(runs)
    elapsed = time.monotonic() - began
    document = {
        "named_universe": NAMED_UNIVERSE,
        "signal_pool_name": SIGNAL_POOL,
        "random_state": args.random_state,
        "speed": args.speed,
        "candidates": [run.document() for run in runs],
        "totals": summary,
        "elapsed_seconds": round(elapsed, 3),
    }

    def render(page: Page) -> None:
        render_summary(page, runs)
        page.line(totals_line(summary))
        page.line(f"Service stopped; the demo took {elapsed:.1f} s.")

    terminal.emit(document, render)
    problems = demo_problems(runs, args.wait)
    if problems:
        terminal.problem(problems_text(problems))
        return EXIT_REFUSED
    return EXIT_OK
