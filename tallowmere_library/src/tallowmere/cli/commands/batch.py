"""``tallowmere batch``: check every line of a JSON Lines file, then submit the signals chunk by chunk.

1. Read every line, noting each one that is not JSON or not a usable item.
2. Apply the defaults (``--pool``, ``--universe``) and simulate every graph
   (cached: a re-run sends the same bodies).
3. Fetch the era catalog; check each line's market, era and pool, then run
   the client's own checks of each item without sending anything.
4. Any problem so far: list them all, by line, and stop (exit 2) — unless
   ``--skip-invalid``, which sets those lines aside and sends the others.
5. Lines the ``--ledger`` holds as accepted by an earlier run are not sent.
6. Send the rest in chunks of ``--chunk-size`` (at most 100), one request
   each; every accepted item goes into the ledger as its chunk's answer
   arrives. Ctrl-C stops after reporting what was accepted.
"""

from __future__ import annotations

import argparse
from collections import Counter
from collections.abc import Sequence
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Final

from tallowmere.cli.commands.simulate import simulation_cache
from tallowmere.cli.commands.submission import named_universe_or_configured
from tallowmere.cli.connection import ServiceAddress, fetch_era_catalog, open_client, refusal_text, resolve_address
from tallowmere.cli.errors import (
    EXIT_OK,
    EXIT_REFUSED,
    CommandError,
    Interrupted,
    ServiceRefusal,
    UsageError,
)
from tallowmere.cli.expressions import expression_text
from tallowmere.cli.inputs import BatchEntry, LineProblem, read_batch_file
from tallowmere.cli.ledger import Ledger, entry_identity
from tallowmere.cli.screening import prepared_batch_bodies, target_problem
from tallowmere.cli.sending import ItemFate, SendReport, client_chunk_size, send_in_chunks
from tallowmere.cli.simulations import Simulation, SimulationProblem, simulate_graphs
from tallowmere.cli.tables import Sheet, ident, number, text
from tallowmere.cli.terminal import Page, Terminal
from tallowmere.submit import SignalServiceClient

OUTCOME_WORDS: Final = {
    "accepted": "accepted",
    "already_accepted": "already accepted (in the ledger)",
    "refused": "refused",
    "unanswered": "sent without an answer",
    "not_sent": "not sent",
    "skipped": "skipped as invalid",
}
"""How the summary line names each outcome, in the order it lists them."""

TABLE_WORDS: Final = {
    "accepted": "accepted",
    "already_accepted": "in ledger",
    "refused": "refused",
    "unanswered": "no answer",
    "not_sent": "not sent",
    "skipped": "skipped",
}
"""How the table names each outcome (short, to leave room for the reason)."""


@dataclass
class BatchLine:
    """One non-blank line of the batch file and everything learnt about it."""

    line: int
    entry: BatchEntry | None
    problem: LineProblem | None = None
    named_universe: str | None = None
    signal_pool_name: str | None = None
    simulation: Simulation | None = None
    prepared: dict[str, Any] | None = None
    identity: str | None = None
    outcome: str = "pending"
    status_code: int | None = None
    error: str | None = None
    submission_id: str | None = None
    body: Any = None

    @property
    def usable(self) -> bool:
        """True while no problem was found and nothing decided its fate."""
        return self.problem is None and self.outcome == "pending"

    def refuse(self, stage: str, message: str) -> None:
        """Note why the line cannot be sent."""
        self.problem = LineProblem(self.line, stage, message)

    def expression(self, max_length: int = 10_000) -> str:
        """The line's graph in call notation (empty when the line has none)."""
        return expression_text(self.entry.graph, max_length=max_length) if self.entry is not None else ""

    def options(self) -> dict[str, Any]:
        """The options the line sets, the command's defaults filled in."""
        return dict(self.entry.options) if self.entry is not None else {}

    def item(self) -> dict[str, Any]:
        """The line as ``submit_signals_batch`` takes it."""
        if self.entry is None or self.simulation is None:
            raise RuntimeError(f"line {self.line} is not ready to send")
        item: dict[str, Any] = {
            "graph": self.entry.graph,
            "named_universe": self.named_universe,
            "signal_pool_name": self.signal_pool_name,
            **self.simulation.submission_kwargs(),
        }
        for key in ("market_id", "era_number", "idempotency_key", "metaparameters"):
            if key in self.entry.options:
                item[key] = self.entry.options[key]
        return item

    def document(self) -> dict[str, Any]:
        """The JSON form of the line's fate."""
        key = self.prepared.get("idempotency_key") if self.prepared is not None else None
        return {
            "line": self.line,
            "expression": self.expression(),
            "outcome": self.outcome,
            "status_code": self.status_code,
            "error": self.error,
            "submission_id": self.submission_id,
            "idempotency_key": key,
            "problem": None if self.problem is None else {"stage": self.problem.stage, "message": self.problem.message},
            "body": self.body,
        }


def _apply_defaults(lines: Sequence[BatchLine], args: argparse.Namespace) -> None:
    configured: str | None = args.named_universe
    configured_problem: str | None = None
    if configured is None and any(line.usable and "named_universe" not in line.options() for line in lines):
        try:
            configured = named_universe_or_configured(None)
        except UsageError as exc:
            configured_problem = exc.message
    defaults = {"market_id": args.market_id, "era_number": args.era_number}
    for line in lines:
        if not line.usable or line.entry is None:
            continue
        options = {key: value for key, value in defaults.items() if value is not None}
        options.update(line.entry.options)
        line.entry = BatchEntry(line.entry.line, line.entry.graph, options)
        line.signal_pool_name = options.get("signal_pool_name", args.signal_pool_name)
        line.named_universe = options.get("named_universe", configured)
        if line.signal_pool_name is None:
            line.refuse("options", "no signal_pool_name (give one in the item or pass --pool)")
        elif line.named_universe is None:
            why = f"; {configured_problem}" if configured_problem else ""
            line.refuse("options", f"no named_universe (give one in the item or pass --universe{why})")


def _simulate(lines: Sequence[BatchLine], args: argparse.Namespace, terminal: Terminal) -> None:
    pending = [line for line in lines if line.usable and line.entry is not None]
    graphs = [line.entry.graph for line in pending if line.entry is not None]
    done = 0

    def advance(count: int) -> None:
        nonlocal done
        done = count
        report.update(count)

    try:
        with terminal.progress(f"simulating {len(graphs)} graphs", total=len(graphs)) as report:
            outcomes = simulate_graphs(graphs, simulation_cache(args, terminal), advance)
    except KeyboardInterrupt:
        progress = f"{done} of {len(graphs)} graphs done, kept in the cache"
        raise Interrupted(f"interrupted while simulating ({progress}); nothing was sent") from None
    for line, outcome in zip(pending, outcomes, strict=True):
        if isinstance(outcome, SimulationProblem):
            line.refuse("simulation", outcome.message)
        else:
            line.simulation = outcome


def _check(lines: Sequence[BatchLine], client: SignalServiceClient, catalog: dict[str, Any]) -> None:
    """Check each line's target in the catalog, then run the client's checks; note the body of each that passes."""
    for line in lines:
        if not line.usable:
            continue
        options = line.options()
        problem = target_problem(
            catalog,
            market_id=options.get("market_id"),
            era_number=options.get("era_number"),
            signal_pool_name=line.signal_pool_name,
        )
        if problem is not None:
            line.refuse("era", problem)
    ready = [line for line in lines if line.usable]
    for line, outcome in zip(ready, prepared_batch_bodies(client, [line.item() for line in ready]), strict=True):
        if isinstance(outcome, str):
            line.refuse("check", outcome)
            continue
        line.prepared = outcome
        options = line.options()
        line.identity = entry_identity(
            outcome.get("graph"),
            named_universe=str(outcome.get("named_universe")),
            signal_pool_name=str(outcome.get("signal_pool_name")),
            market_id=outcome.get("market_id"),
            era_number=outcome.get("era_number"),
            metaparameters=options.get("metaparameters"),
            idempotency_key=options.get("idempotency_key"),
        )


def _problem_lines(name: str, lines: Sequence[BatchLine]) -> list[str]:
    return [f"{name}: {line.problem.text()}" for line in lines if line.problem is not None]


def _problems_document(lines: Sequence[BatchLine]) -> list[dict[str, Any]]:
    return [
        {"line": line.problem.line, "stage": line.problem.stage, "message": line.problem.message}
        for line in lines
        if line.problem is not None
    ]


def batch_document(
    name: str, lines: Sequence[BatchLine], report: SendReport | None, ledger: Ledger | None
) -> dict[str, Any]:
    """The JSON form of a batch run: counts of each outcome, how sending went, and every line's fate."""
    counts = Counter(line.outcome for line in lines)
    return {
        "file": name,
        "total": len(lines),
        **{outcome: counts.get(outcome, 0) for outcome in OUTCOME_WORDS},
        "submitted": sum(counts.get(outcome, 0) for outcome in ("accepted", "refused", "unanswered")),
        "chunk_size": report.chunk_size if report is not None else None,
        "chunks_sent": report.chunks_sent if report is not None else 0,
        "chunks_answered": report.chunks_answered if report is not None else 0,
        "stopped": report.stopped if report is not None else None,
        "interrupted": report.interrupted if report is not None else False,
        "ledger": str(ledger.path) if ledger is not None else None,
        "problems": _problems_document(lines),
        "items": [line.document() for line in lines],
    }


def summary_text(document: dict[str, Any]) -> str:
    """The outcomes as one line: ``4 accepted, 2 sent without an answer, 1 not sent, of 7 lines``."""
    parts = [f"{document[outcome]} {words}" for outcome, words in OUTCOME_WORDS.items() if document[outcome]]
    if not parts:
        parts = ["nothing sent"]
    chunks = ""
    if document["chunks_sent"]:
        chunks = (
            f" ({document['chunks_sent']} chunk(s) of up to {document['chunk_size']} sent, "
            f"{document['chunks_answered']} answered)"
        )
    return f"{', '.join(parts)}, of {document['total']} lines{chunks}"


def render_batch(page: Page, lines: Sequence[BatchLine], document: dict[str, Any]) -> None:
    """Draw one row per line (its outcome, submission id, expression and reason) and the summary."""
    sheet = Sheet(
        number("line"), ident("outcome"), ident("submission"), text("expression", keep=50, min_width=16),
        text("reason", keep=70, min_width=12),
    )  # fmt: skip
    for line in lines:
        if line.problem is not None:
            reason = line.problem.message
        elif line.error is not None:
            reason = refusal_text(line.status_code or 0, line.error, line.body)
        else:
            reason = ""
        sheet.add_row(line.line, TABLE_WORDS.get(line.outcome, line.outcome),
                      line.submission_id or "", line.expression(), reason)  # fmt: skip
    page.table(sheet)
    page.line(summary_text(document))


def _send(
    lines: Sequence[BatchLine], client: SignalServiceClient, address: ServiceAddress, ledger: Ledger | None,
    chunk_size: int, terminal: Terminal,
) -> SendReport:  # fmt: skip
    sending = [line for line in lines if line.usable]
    report = SendReport([ItemFate() for _ in sending], chunk_size)

    def record(accepted: list[int]) -> None:
        if ledger is None:
            return
        entries = []
        for position in accepted:
            line, fate = sending[position], report.fates[position]
            prepared = line.prepared or {}
            entries.append({
                "entry": line.identity, "line": line.line, "submission_id": fate.submission_id,
                "idempotency_key": prepared.get("idempotency_key"), "market_id": prepared.get("market_id"),
                "era_number": prepared.get("era_number"), "signal_pool_name": line.signal_pool_name,
            })  # fmt: skip
        ledger.append(entries)

    chunks = -(-len(sending) // chunk_size)
    try:
        with terminal.progress(f"sending {len(sending)} signals in {chunks} chunk(s)", total=len(sending)) as shown:
            send_in_chunks(
                client, address, [line.item() for line in sending], chunk_size=chunk_size, report=report,
                on_chunk=record, on_progress=shown.update,
            )  # fmt: skip
    except KeyboardInterrupt:
        report.interrupted = True
    for line, fate in zip(sending, report.fates, strict=True):
        line.outcome, line.status_code, line.error = fate.outcome, fate.status_code, fate.error
        line.submission_id, line.body = fate.submission_id, fate.body
    return report


def _interrupted_message(document: dict[str, Any], ledger: Ledger | None) -> str:
    resume = (
        "run the same command again to resume (the ledger skips what was accepted)"
        if ledger is not None
        else "pass --ledger FILE next time to resume without sending accepted lines again"
    )
    unanswered = document["unanswered"]
    in_flight = (
        f"; the {unanswered} sent without an answer may have been stored, and sending them again replays them"
        if unanswered
        else ""
    )
    return f"interrupted: {summary_text(document)}{in_flight}; {resume}"


def _outcome_error(document: dict[str, Any], report: SendReport) -> CommandError | None:
    refused = document["refused"]
    if refused:
        message = f"{refused} of {document['submitted']} items sent were refused"
        if report.stopped is not None:
            message += f"; sending stopped: {report.stopped}"
        return ServiceRefusal(f"{message}; {summary_text(document)}", document=document)
    if report.stopped is not None:
        error = CommandError(f"sending stopped: {report.stopped}; {summary_text(document)}", document=document)
        error.exit_code = report.stop_exit_code if report.stop_exit_code is not None else EXIT_REFUSED
        return error
    return None


def run_batch(args: argparse.Namespace, terminal: Terminal) -> int:
    """Check every line of ``args.batch_file``, then submit the good ones chunk by chunk."""
    batch = read_batch_file(args.batch_file)
    address = resolve_address(args)
    ledger = Ledger(Path(args.ledger)) if args.ledger is not None else None
    try:
        return _run(args, terminal, batch.name, _lines(batch), address, ledger)
    finally:
        if ledger is not None:
            ledger.close()


def _lines(batch: Any) -> list[BatchLine]:
    lines = [BatchLine(entry.line, entry) for entry in batch.entries]
    lines += [BatchLine(problem.line, None, problem) for problem in batch.problems]
    return sorted(lines, key=lambda line: line.line)


def _screen(
    args: argparse.Namespace, terminal: Terminal, name: str, lines: list[BatchLine], client: SignalServiceClient,
    address: ServiceAddress, ledger: Ledger | None,
) -> None:  # fmt: skip
    """Check every line against the catalog and the client, list the problems, and settle what is not sent."""
    try:
        catalog = fetch_era_catalog(client, address)
    except CommandError:
        for problem in _problem_lines(name, lines):
            terminal.diagnostic(problem)
        raise
    _check(lines, client, catalog)
    invalid = [line for line in lines if line.problem is not None]
    for problem in _problem_lines(name, lines):
        (terminal.warning if args.skip_invalid else terminal.diagnostic)(problem)
    if invalid and not args.skip_invalid:
        message = (
            f"{len(invalid)} of {len(lines)} lines cannot be sent (listed above); nothing was sent "
            f"(fix them, or pass --skip-invalid to send the other {len(lines) - len(invalid)})"
        )
        document = {"error": message, "exit_code": UsageError.exit_code, "problems": _problems_document(lines)}
        raise UsageError(message, document=document)
    for line in invalid:
        line.outcome = "skipped"
    for line in lines:
        record = ledger.accepted(line.identity) if ledger is not None and line.identity and line.usable else None
        if record is not None:
            line.outcome, line.submission_id = "already_accepted", record.submission_id
    if invalid and not any(line.usable or line.outcome == "already_accepted" for line in lines):
        message = f"none of the {len(lines)} lines can be sent (listed above)"
        raise UsageError(message, document={**batch_document(name, lines, None, ledger), "error": message})


def _run(
    args: argparse.Namespace, terminal: Terminal, name: str, lines: list[BatchLine], address: ServiceAddress,
    ledger: Ledger | None,
) -> int:  # fmt: skip
    if ledger is not None and ledger.unreadable_lines:
        numbers = ", ".join(map(str, ledger.unreadable_lines))
        terminal.warning(f"--ledger {ledger.path}: ignored unreadable line(s) {numbers}")
    _apply_defaults(lines, args)
    _simulate(lines, args, terminal)
    chunk_size = min(args.chunk_size or client_chunk_size(), client_chunk_size())
    report: SendReport | None = None
    with open_client(address) as client:
        try:
            _screen(args, terminal, name, lines, client, address, ledger)
        except KeyboardInterrupt:
            raise Interrupted("interrupted while checking the lines; nothing was sent") from None
        if any(line.usable for line in lines):
            report = _send(lines, client, address, ledger, chunk_size, terminal)
    document = batch_document(name, lines, report, ledger)
    terminal.emit(document, lambda page: render_batch(page, lines, document))
    if report is None:
        return EXIT_OK
    if report.interrupted:
        raise Interrupted(_interrupted_message(document, ledger), document=document)
    error = _outcome_error(document, report)
    if error is not None:
        terminal.problem(error.message)
        return error.exit_code
    return EXIT_OK
