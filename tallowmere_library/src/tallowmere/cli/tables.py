"""Tables that fit the terminal, and the figures and JSON documents of the command line's results.

A table is built as a `Sheet`: its columns say what may give way when the
terminal is narrow, and its rows hold plain texts. `fit` then decides, for a
width, which columns are shown and how wide each one is:

1. every column starts at its smallest width: identifiers, statuses and
   figures (``fixed``) at their full width, texts at their ``min_width``;
2. when the table does not fit whole, columns with nothing in them are left
   out; while the smallest widths are still too wide, the least valuable
   column is left out (by ascending ``keep``); ``ESSENTIAL`` columns never are;
3. the room left is shared among the texts, narrowest first, up to their
   full width.

A ``text`` cell longer than its column ends in an ellipsis; an ``items`` cell
(a list of parts, such as an era's gates) is wrapped between its parts, and
only a part longer than the whole column is cut. Identifiers are never cut.
With no width (``--wide``, or output to a file or pipe), every column is
shown whole on one line.
"""

from __future__ import annotations

import math
import re
from collections.abc import Iterable, Mapping, Sequence
from dataclasses import dataclass
from typing import Any, Final, Literal

from rich import box
from rich.cells import cell_len
from rich.table import Table
from rich.text import Text

from tallowmere.api.signal_types import StatusResult, SubmitResult

ESSENTIAL: Final = 100
"""The ``keep`` of a column that is never left out."""

COLUMN_GAP: Final = 3
"""Characters between two columns (padding, rule, padding)."""

ColumnKind = Literal["fixed", "text", "items"]


@dataclass(frozen=True)
class Col:
    """One column of a `Sheet`.

    ``kind``: ``fixed`` cells are shown whole (identifiers, statuses,
    figures); ``text`` cells are cut with an ellipsis; ``items`` cells are
    lists of parts joined by ``separator`` and wrapped between parts.
    ``keep`` orders what is left out when the table does not fit (lowest
    first; `ESSENTIAL` never); ``min_width`` is the narrowest a text column
    is made before columns are left out.
    """

    header: str
    kind: ColumnKind = "fixed"
    justify: Literal["left", "right"] = "left"
    keep: int = ESSENTIAL
    min_width: int = 12
    separator: str = ", "


def ident(header: str) -> Col:
    """A column of identifiers or statuses: never cut, never left out."""
    return Col(header)


def number(header: str, keep: int = ESSENTIAL) -> Col:
    """A column of figures, right-aligned, never cut."""
    return Col(header, justify="right", keep=keep)


def label(header: str, keep: int) -> Col:
    """A column of short codes or names, never cut, left out when room is short."""
    return Col(header, keep=keep)


def text(header: str, keep: int, min_width: int = 12) -> Col:
    """A column of free text, cut with an ellipsis when room is short."""
    return Col(header, kind="text", keep=keep, min_width=min_width)


def items(header: str, keep: int, min_width: int = 12, separator: str = ", ") -> Col:
    """A column of lists, wrapped between their parts when room is short."""
    return Col(header, kind="items", keep=keep, min_width=min_width, separator=separator)


Cell = str | tuple[str, ...]


class Sheet:
    """A table's columns and rows, drawn to fit a width by `fit` and `render`."""

    def __init__(self, *columns: Col) -> None:
        """Start a table with ``columns`` and no rows."""
        self.columns = columns
        self.rows: list[tuple[Cell, ...]] = []

    def add_row(self, *cells: Any) -> None:
        """Add a row: texts as they are, numbers through `figure`, None as empty, lists for ``items`` columns."""
        if len(cells) != len(self.columns):
            raise ValueError(f"a row of this table has {len(self.columns)} cells, got {len(cells)}")
        row: list[Cell] = []
        for column, cell in zip(self.columns, cells, strict=True):
            if column.kind == "items":
                parts = [cell] if isinstance(cell, str) else list(cell or ())
                row.append(tuple(str(part) for part in parts if str(part)))
            else:
                row.append(cell if isinstance(cell, str) else figure(cell))
        self.rows.append(tuple(row))


@dataclass(frozen=True)
class Layout:
    """How a sheet is drawn: the columns shown (by position), their widths, what was left out or cut.

    ``widths`` is None when everything is shown at full width.
    """

    shown: tuple[int, ...]
    widths: dict[int, int] | None
    hidden: tuple[str, ...] = ()
    cut: tuple[str, ...] = ()

    @property
    def total_width(self) -> int | None:
        """The width the shown columns take, gaps included (None at full width)."""
        if self.widths is None:
            return None
        return sum(self.widths[index] for index in self.shown) + COLUMN_GAP * max(len(self.shown) - 1, 0)


def _one_line(column: Col, cell: Cell) -> str:
    return column.separator.join(cell) if isinstance(cell, tuple) else cell


def _full_width(sheet: Sheet, index: int) -> int:
    column = sheet.columns[index]
    return max([cell_len(column.header), *(cell_len(_one_line(column, row[index])) for row in sheet.rows)])


def _smallest_width(sheet: Sheet, index: int, full: int) -> int:
    column = sheet.columns[index]
    if column.kind == "fixed":
        return full
    smallest = max(column.min_width, cell_len(column.header))
    if column.kind == "items":
        parts = [cell_len(part) + len(column.separator.rstrip()) for row in sheet.rows for part in row[index]]
        smallest = max(smallest, min(max(parts, default=0), 2 * column.min_width))
    return min(full, smallest)


def _is_empty(sheet: Sheet, index: int) -> bool:
    return bool(sheet.rows) and not any(row[index] for row in sheet.rows)


def fit(sheet: Sheet, width: int | None) -> Layout:
    """Choose the columns and widths of ``sheet`` for ``width`` characters (None: everything, whole)."""
    everything = tuple(range(len(sheet.columns)))
    if width is None:
        return Layout(everything, None)
    full = {index: _full_width(sheet, index) for index in everything}
    smallest = {index: _smallest_width(sheet, index, full[index]) for index in everything}
    empty = {index for index in everything if _is_empty(sheet, index)}
    shown = list(everything)

    def needed(widths: dict[int, int]) -> int:
        return sum(widths[index] for index in shown) + COLUMN_GAP * max(len(shown) - 1, 0)

    if needed(full) > width:
        # Something must give: columns with nothing in them go before anything is cut.
        shown = [index for index in shown if index not in empty]
    while needed(smallest) > width:
        candidates = [index for index in shown if sheet.columns[index].keep < ESSENTIAL]
        if not candidates:
            break
        # The least valuable first; of equals, the rightmost.
        shown.remove(min(candidates, key=lambda index: (sheet.columns[index].keep, -index)))
    widths = {index: smallest[index] for index in shown}
    spare = width - needed(widths)
    while spare > 0:
        wanting = [index for index in shown if widths[index] < full[index]]
        if not wanting:
            break
        widths[min(wanting, key=lambda index: (widths[index], index))] += 1
        spare -= 1
    # Columns with nothing in them are left out without a word: nothing is missing.
    hidden = tuple(sheet.columns[index].header for index in everything if index not in shown and index not in empty)
    cut = tuple(
        sheet.columns[index].header
        for index in shown
        if widths[index] < full[index] and _cuts(sheet, index, widths[index])
    )
    return Layout(tuple(shown), widths, hidden, cut)


def _cuts(sheet: Sheet, index: int, width: int) -> bool:
    column = sheet.columns[index]
    if column.kind == "items":
        tail = len(column.separator.rstrip())
        return any(cell_len(part) + tail > width for row in sheet.rows for part in row[index])
    return column.kind == "text" and any(cell_len(_one_line(column, row[index])) > width for row in sheet.rows)


def _cut(value: str, width: int) -> str:
    if cell_len(value) <= width:
        return value
    shortened = Text(value)
    shortened.truncate(width, overflow="ellipsis")
    return shortened.plain


def wrap_parts(parts: Sequence[str], separator: str, width: int) -> str:
    """Join ``parts`` with ``separator``, breaking lines between parts to stay within ``width``."""
    mark, gap = separator.rstrip(), separator[len(separator.rstrip()) :]
    lines: list[str] = []
    current = ""
    for position, part in enumerate(parts):
        piece = _cut(part + (mark if position < len(parts) - 1 else ""), width)
        joined = f"{current}{gap}{piece}" if current else piece
        if current and cell_len(joined) > width:
            lines.append(current)
            joined = piece
        current = joined
    lines.append(current)
    return "\n".join(lines)


def _cell_text(column: Col, cell: Cell, width: int | None) -> Text:
    if width is None:
        return Text(_one_line(column, cell))
    if isinstance(cell, tuple):
        return Text(wrap_parts(cell, column.separator, width))
    return Text(_cut(cell, width) if column.kind == "text" else cell)


def render(sheet: Sheet, layout: Layout) -> Table:
    """Draw ``sheet`` as ``layout`` says (literal texts, never read as markup)."""
    table = Table(box=box.SIMPLE_HEAD, show_edge=False, pad_edge=False)
    fits = layout.widths is not None and all(
        layout.widths[index] >= _full_width(sheet, index)
        for index in layout.shown
        if sheet.columns[index].kind == "fixed"
    )
    for index in layout.shown:
        column = sheet.columns[index]
        width = None if layout.widths is None else layout.widths[index]
        if column.kind == "fixed" and not fits and layout.widths is not None:
            # Even the essential columns do not fit: fold identifiers rather than cut them.
            table.add_column(column.header, justify=column.justify, overflow="fold")
        else:
            table.add_column(column.header, justify=column.justify, width=width, no_wrap=True)
    for row in sheet.rows:
        widths = layout.widths
        table.add_row(
            *(_cell_text(sheet.columns[index], row[index], None if widths is None else widths[index])
              for index in layout.shown)
        )  # fmt: skip
    return table


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


def moment_text(timestamp: Any) -> str:
    """A service timestamp to the second: ``2026-11-21T13:20:52.089818Z`` reads ``2026-11-21 13:20:52``."""
    value = str(timestamp or "")
    return value[:19].replace("T", " ") if len(value) >= 19 and value[10:11] == "T" else value


def stat(stats: Any, key: str) -> Any:
    """``stats[key]`` when ``stats`` is a mapping, else None."""
    return stats.get(key) if isinstance(stats, Mapping) else None


def status_reason(body: Any) -> str:
    """Why a submission was rejected or failed, its reason code first (the part a narrow column keeps).

    ``too_correlated: is_pnl_mi failed: 0.697 <= 0.35; ...``; without a code,
    the rejection reason or failure message as the service wrote it.
    """
    if not isinstance(body, Mapping):
        return ""
    code = str(body.get("failure_reason") or "")
    message = str(body.get("failure_message") or body.get("rejection_reason") or "")
    if code and message.endswith(f": {code}"):
        message = message[: -len(code) - 2]
    if code and message and message != code:
        return f"{code}: {message}"
    return code or message


def status_sheet(rows: Iterable[tuple[str, StatusResult]]) -> Sheet:
    """One row per submission: id, status, reason, payment, in- and out-of-sample Sharpe, correlation.

    On a narrow terminal the correlation goes first, then the Sharpe ratios,
    then the payment; the reason is cut before any of them goes.
    """
    sheet = Sheet(
        ident("submission"), ident("status"), number("IS sharpe", keep=40), number("OS sharpe", keep=30),
        number("correlation", keep=20), text("reason", keep=70, min_width=16), number("payment", keep=50),
    )  # fmt: skip
    for submission_id, result in rows:
        if result.error is not None:
            sheet.add_row(submission_id, "error", None, None, None, f"{result.error} (HTTP {result.status_code})", "")
            continue
        body = result.body if isinstance(result.body, Mapping) else {}
        sheet.add_row(
            submission_id,
            result.status or "",
            stat(result.is_stats, "sharpe"),
            stat(body.get("os_stats"), "sharpe"),
            result.is_correlation,
            rounded_numbers(status_reason(body)),
            payment_text(result.payment),
        )
    return sheet


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
