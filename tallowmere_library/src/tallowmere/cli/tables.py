"""Tables and figures for people, and the JSON documents of the same results."""

from __future__ import annotations

import math
import re
from collections.abc import Iterable, Mapping
from typing import Any

from rich import box
from rich.table import Column, Table
from rich.text import Text

from tallowmere.api.signal_types import StatusResult, SubmitResult


def figure(value: Any, digits: int = 3) -> str:
    """A number as a table shows it: fixed decimals, ``inf`` for infinity, empty when unknown."""
    if value is None or isinstance(value, bool):
        return "" if value is None else str(value)
    if value in ("Infinity", "-Infinity"):
        return "inf" if value == "Infinity" else "-inf"
    if isinstance(value, int):
        return str(value)
    if isinstance(value, float):
        if math.isinf(value):
            return "inf" if value > 0 else "-inf"
        return f"{value:.{digits}f}"
    return str(value)


_LONG_DECIMAL = re.compile(r"-?\d+\.\d{4,}")


def rounded_numbers(text: str) -> str:
    """``text`` with long decimals cut to three places, for tables (``0.8934286179`` → ``0.893``)."""
    return _LONG_DECIMAL.sub(lambda match: f"{float(match.group()):.3f}", text)


def payment_text(payment: Any) -> str:
    """A payment ``{"amount": 90.21, "currency": "TMC", ...}`` as ``90.21 TMC``; empty when there is none."""
    if not isinstance(payment, Mapping):
        return ""
    amount = payment.get("amount")
    currency = payment.get("currency") or ""
    return f"{figure(amount, 2)} {currency}".strip()


def numeric(header: str) -> Column:
    """A column of figures, right-aligned."""
    return Column(header, justify="right", overflow="fold")


def identifier(header: str) -> Column:
    """A column of identifiers, never wrapped (they are made to be copied); other columns give way first."""
    return Column(header, no_wrap=True)


def unbroken(header: str) -> Column:
    """A column of identifiers or codes: folded at any character when it must be, never cut."""
    return Column(header, overflow="fold")


def new_table(*columns: str | Column) -> Table:
    """A plain table with the given columns (a text header is a column of wrapping text).

    Nothing is ever cut: on a narrow terminal a long value wraps, an
    identifier folds onto the next line.
    """
    made = [column if isinstance(column, Column) else Column(column, overflow="fold") for column in columns]
    return Table(*made, box=box.SIMPLE_HEAD, show_edge=False, pad_edge=False)


def heading(text: str) -> Text:
    """A table's heading line."""
    return Text(text, style="bold")


def add_row(table: Table, *cells: Any) -> None:
    """Add a row of literal texts (never read as markup); numbers are formatted with `figure`."""
    table.add_row(*(Text(cell if isinstance(cell, str) else figure(cell)) for cell in cells))


def moment_text(timestamp: Any) -> str:
    """A service timestamp to the second: ``2026-11-21T13:20:52.089818Z`` reads ``2026-11-21 13:20:52``."""
    text = str(timestamp or "")
    return text[:19].replace("T", " ") if len(text) >= 19 and text[10:11] == "T" else text


def stat(stats: Any, key: str) -> Any:
    """``stats[key]`` when ``stats`` is a mapping, else None."""
    return stats.get(key) if isinstance(stats, Mapping) else None


def status_reason(body: Any) -> str:
    """The most telling reason a status body gives: its rejection reason, else its failure message."""
    if not isinstance(body, Mapping):
        return ""
    for key in ("rejection_reason", "failure_message", "failure_reason"):
        value = body.get(key)
        if value:
            return str(value)
    return ""


def status_table(rows: Iterable[tuple[str, StatusResult]]) -> Table:
    """One row per submission: id, status, in- and out-of-sample Sharpe, correlation, reason, payment."""
    table = new_table(
        identifier("submission"), identifier("status"), numeric("IS sharpe"), numeric("OS sharpe"),
        numeric("correlation"), "reason", numeric("payment"),
    )  # fmt: skip
    for submission_id, result in rows:
        if result.error is not None:
            add_row(table, submission_id, f"error: {result.error} (HTTP {result.status_code})", "", "", "", "", "")
            continue
        body = result.body if isinstance(result.body, Mapping) else {}
        add_row(
            table,
            submission_id,
            result.status or "",
            stat(result.is_stats, "sharpe"),
            stat(body.get("os_stats"), "sharpe"),
            result.is_correlation,
            rounded_numbers(status_reason(body)),
            payment_text(result.payment),
        )
    return table


def status_document(submission_id: str, result: StatusResult) -> dict[str, Any]:
    """The JSON form of one status answer: the id asked for, the HTTP status, the error and the whole body."""
    return {
        "submission_id": submission_id,
        "status_code": result.status_code,
        "error": result.error,
        "status": result.status,
        "body": result.body,
    }


def submit_document(result: SubmitResult) -> dict[str, Any]:
    """The JSON form of one submission answer (the service's body kept whole)."""
    return {
        "status_code": result.status_code,
        "error": result.error,
        "submission_id": result.submission_id,
        "signal_pool_name": result.signal_pool_name,
        "strategy_pool_name": result.strategy_pool_name,
        "body": result.body,
    }
