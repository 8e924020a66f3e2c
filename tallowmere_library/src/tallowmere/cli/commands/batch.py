"""``tallowmere batch``: simulate every graph of a JSON Lines file, then submit them as one batch."""

from __future__ import annotations

import argparse
import json
from collections.abc import Callable
from dataclasses import dataclass
from typing import Any

from rich.console import Console
from rich.text import Text

from tallowmere.api.signal_types import BatchSubmitResult
from tallowmere.cli.commands.simulate import simulate_graph
from tallowmere.cli.commands.submission import named_universe_or_configured
from tallowmere.cli.connection import (
    ServiceAddress,
    answered,
    fetch_era_catalog,
    open_client,
    refusal_text,
    request_failure,
    resolve_address,
    unreachable,
)
from tallowmere.cli.errors import EXIT_OK, EXIT_REFUSED, ServiceRefusal, UsageError, problems_text
from tallowmere.cli.expressions import expression_text
from tallowmere.cli.inputs import BatchEntry, read_batch_file
from tallowmere.cli.screening import gate_failure
from tallowmere.cli.tables import add_row, new_table, numeric
from tallowmere.cli.terminal import Terminal
from tallowmere.simulation import SimulationResult
from tallowmere.submit import SignalServiceClient


class BatchProgress:
    """A transmission observer that counts the batch items the service has answered.

    The client sends a batch in chunks and calls the observer as each
    chunk's body starts to go out; when chunk ``k`` starts, every chunk
    before it has been answered.
    """

    def __init__(self) -> None:
        """Count from zero, reporting nowhere until `report_to` is set."""
        self.report_to: Callable[[int], None] | None = None
        self.started = 0

    def observe(self, method: str, url: str, headers: dict[str, str], body: bytes) -> None:
        """Note a request body (the client's ``transmission_observer``); only batch bodies count."""
        if self.report_to is None or not url.rstrip("/").endswith("signals/batch"):
            return
        try:
            chunk = len(json.loads(body)["signals"])
        except (ValueError, KeyError, TypeError):
            return
        self.report_to(self.started)
        self.started += chunk


@dataclass(frozen=True)
class PreparedItem:
    """A batch entry with its defaults applied and its simulation done."""

    entry: BatchEntry
    named_universe: str
    signal_pool_name: str
    simulation: SimulationResult

    def body(self) -> dict[str, Any]:
        """The item as ``submit_signals_batch`` takes it."""
        item: dict[str, Any] = {
            "graph": self.entry.graph,
            "named_universe": self.named_universe,
            "signal_pool_name": self.signal_pool_name,
            "is_stats": dict(self.simulation.is_stats),
            "is_pnl_mi": self.simulation.is_pnl_mi,
            "expression_elapsed_seconds": self.simulation.expression_elapsed_seconds,
        }
        for key in ("market_id", "era_number", "idempotency_key", "metaparameters"):
            if key in self.entry.options:
                item[key] = self.entry.options[key]
        return item


def _prepare_one(entry: BatchEntry, args: argparse.Namespace, default_universe: str | None) -> PreparedItem:
    pool = entry.options.get("signal_pool_name", args.signal_pool_name)
    if pool is None:
        raise UsageError(f"line {entry.line}: no signal_pool_name (give one in the item or pass --pool)")
    universe: str | None = entry.options.get("named_universe", default_universe)
    if universe is None:
        raise UsageError(f"line {entry.line}: no named_universe (give one in the item or pass --universe)")
    simulation = simulate_graph(entry.graph, f"line {entry.line}")
    defaults = (("market_id", args.market_id), ("era_number", args.era_number))
    options = {key: value for key, value in defaults if value is not None}
    options.update(entry.options)
    return PreparedItem(BatchEntry(entry.line, entry.graph, options), universe, pool, simulation)


def _prepare(args: argparse.Namespace, entries: list[BatchEntry], terminal: Terminal) -> list[PreparedItem]:
    """Apply the defaults to every entry and simulate it; `UsageError` naming every line that cannot be sent."""
    default_universe = args.named_universe
    if default_universe is None and any("named_universe" not in entry.options for entry in entries):
        default_universe = named_universe_or_configured(None)
    problems: list[str] = []
    prepared: list[PreparedItem] = []
    with terminal.progress(f"simulating {len(entries)} graphs", total=len(entries)) as advance:
        for done, entry in enumerate(entries, start=1):
            try:
                prepared.append(_prepare_one(entry, args, default_universe))
            except UsageError as exc:
                problems.append(exc.message)
            advance(done)
    if problems:
        raise UsageError(f"{len(problems)} of {len(entries)} lines cannot be sent: {problems_text(problems)}")
    return prepared


def _screen(items: list[PreparedItem], catalog: dict[str, Any]) -> None:
    problems = []
    for item in items:
        reason = gate_failure(
            catalog,
            named_universe=item.named_universe,
            signal_pool_name=item.signal_pool_name,
            is_stats=item.simulation.is_stats,
            is_pnl_mi=item.simulation.is_pnl_mi,
            market_id=item.entry.options.get("market_id"),
            era_number=item.entry.options.get("era_number"),
        )
        if reason is not None:
            problems.append(f"line {item.entry.line}: {reason}")
    if problems:
        raise UsageError(
            f"{len(problems)} of {len(items)} signals fail the era's gates, nothing was sent: {problems_text(problems)}"
        )


def batch_document(items: list[PreparedItem], result: BatchSubmitResult) -> dict[str, Any]:
    """The JSON form of a batch answer, each item with its input line (items left unanswered have no entry)."""
    answered = []
    for item_result in result.results:
        item = items[item_result.index]
        answered.append(
            {
                "line": item.entry.line,
                "index": item_result.index,
                "expression": expression_text(item.entry.graph, max_length=10_000),
                "status_code": item_result.status_code,
                "error": item_result.error,
                "submission_id": item_result.submission_id,
                "body": item_result.body,
            }
        )
    return {
        "status_code": result.status_code,
        "error": result.error,
        "accepted": result.accepted,
        "failed": result.failed,
        "submitted": len(items),
        "items": answered,
    }


def render_batch(console: Console, document: dict[str, Any]) -> None:
    """Draw one row per answered item and a line of totals."""
    table = new_table(numeric("line"), "expression", numeric("HTTP"), "submission / reason")
    for item in document["items"]:
        if item["error"] is None:
            outcome = item["submission_id"]
        else:
            outcome = refusal_text(item["status_code"], item["error"], item["body"])
        add_row(table, item["line"], item["expression"], item["status_code"], outcome)
    console.print(table)
    console.print(
        Text(f"{document['accepted']} accepted, {document['failed']} refused, of {document['submitted']} submitted"),
        soft_wrap=True,
    )


def _send(
    client: SignalServiceClient, items: list[PreparedItem], progress: BatchProgress, terminal: Terminal,
    address: ServiceAddress,
) -> BatchSubmitResult:  # fmt: skip
    with terminal.progress(f"submitting {len(items)} signals", total=len(items)) as advance:
        progress.report_to = advance
        try:
            with answered(address, "POST /signals/batch"):
                result = client.submit_signals_batch([item.body() for item in items])
        except ValueError as exc:
            raise request_failure(exc, address, "GET /eras") or UsageError(f"nothing was sent: {exc}") from exc
        finally:
            progress.report_to = None
        advance(len(items))
    return result


def run_batch(args: argparse.Namespace, terminal: Terminal) -> int:
    """Simulate every graph of ``args.batch_file`` and submit them as one batch."""
    entries = read_batch_file(args.batch_file)
    address = resolve_address(args)
    items = _prepare(args, entries, terminal)
    progress = BatchProgress()
    with open_client(address, transmission_observer=progress.observe) as client:
        catalog = fetch_era_catalog(client, address)
        _screen(items, catalog)
        result = _send(client, items, progress, terminal, address)
    document = batch_document(items, result)
    if result.status_code == 0 and not result.results:
        error = unreachable(address, result.error or "no answer")
        error.document = document
        raise error
    if not result.results and result.error is not None:
        message = f"the service refused the batch: {refusal_text(result.status_code, result.error, result.body)}"
        raise ServiceRefusal(message, document=document)
    terminal.emit(document, lambda console: render_batch(console, document))
    unanswered = len(items) - len(result.results)
    if result.failed or unanswered or result.error is not None:
        reason = f"{result.failed} of {len(items)} items were refused"
        if unanswered:
            reason += f", {unanswered} got no answer ({result.error})"
        terminal.problem(reason)
        return EXIT_REFUSED
    return EXIT_OK
