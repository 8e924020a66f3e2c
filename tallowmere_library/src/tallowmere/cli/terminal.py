"""Where the command line writes: results on stdout, progress and diagnostics on stderr.

With ``--json`` stdout carries exactly one JSON document and nothing else;
without it, stdout carries tables and short lines for people, fitted to the
terminal's width (``--wide``, or output to a file or pipe, shows everything
whole). Either way progress, retry notices and error messages go to stderr,
so that ``tallowmere list --json | jq`` and ``tallowmere list > report.txt``
never see them.

Progress (``--progress``): ``auto`` draws a bar when stderr is a terminal and
otherwise writes a one-line report every `PLAIN_PROGRESS_SECONDS` seconds
(and when a step starts and ends); ``bar`` and ``plain`` choose one of the
two; ``none`` shows nothing.
"""

from __future__ import annotations

import json
import math
import os
import sys
import time
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from typing import Any, Final, Protocol, TextIO

from rich.console import Console
from rich.progress import BarColumn, MofNCompleteColumn, Progress, ProgressColumn, Task, TextColumn, TimeElapsedColumn
from rich.table import Column
from rich.text import Text

from tallowmere.cli.redaction import Redactor
from tallowmere.cli.tables import Sheet, fit, render

UNLIMITED_WIDTH: Final = 100_000
"""The console width when nothing is fitted (``--wide``, files and pipes): no line is ever wrapped."""

PLAIN_PROGRESS_SECONDS: Final = 5.0
"""Seconds between two plain progress lines of one step."""

PROGRESS_MODES: Final = ("auto", "bar", "plain", "none")


def strict_json_value(value: Any) -> Any:
    """Return ``value`` with every non-finite float spelled as the service spells it (``"Infinity"``, ...).

    Tuples become lists; mapping keys are kept as they are.
    """
    if isinstance(value, float) and not math.isfinite(value):
        if math.isnan(value):
            return "NaN"
        return "Infinity" if value > 0 else "-Infinity"
    if isinstance(value, dict):
        return {key: strict_json_value(item) for key, item in value.items()}
    if isinstance(value, (list, tuple)):
        return [strict_json_value(item) for item in value]
    return value


def json_text(document: Any) -> str:
    """Return ``document`` as indented, strict JSON text."""
    return json.dumps(strict_json_value(document), indent=2, ensure_ascii=False, allow_nan=False)


class Page:
    """What a command draws its result on: the stdout console and the width its tables must fit (None: any)."""

    def __init__(self, console: Console, width: int | None) -> None:
        """Draw on ``console``, fitting tables to ``width`` characters."""
        self.console = console
        self.width = width

    def table(self, sheet: Sheet) -> None:
        """Draw ``sheet`` fitted to the width, with a note naming what was left out or cut."""
        layout = fit(sheet, self.width)
        self.console.print(render(sheet, layout))
        if layout.hidden or layout.cut:
            parts = []
            if layout.hidden:
                parts.append("not shown: " + ", ".join(layout.hidden))
            if layout.cut:
                parts.append("cut: " + ", ".join(layout.cut))
            self.console.print(Text(f"({'; '.join(parts)}; --wide shows everything)", style="dim"))

    def heading(self, text: str) -> None:
        """Draw a heading line, cut to the width."""
        line = Text(text, style="bold")
        if self.width is not None:
            line.truncate(self.width, overflow="ellipsis")
        self.console.print(line, soft_wrap=True)

    def line(self, text: str) -> None:
        """Draw a sentence, wrapped between words to the width (never cut)."""
        self.console.print(Text(text))


Render = Callable[[Page], None]
"""Draws a command's result for people on the stdout page."""


class ProgressReport(Protocol):
    """What a command tells about a step while it runs."""

    def update(self, completed: int, note: str | None = None) -> None:
        """Set how much of the step is done, and optionally a short note on its state."""


class _Silent:
    def update(self, completed: int, note: str | None = None) -> None:
        return None


class PlainProgress:
    """One-line progress reports for a log or a pipe: when the step starts, every ``every`` seconds, and at its end.

    A line reads ``<command>: <description>: 850/2000 (42%), 12 s, <note>, 95 s left``
    (the time left only when the step has a deadline).
    """

    def __init__(
        self,
        write: Callable[[str], None],
        prefix: str,
        description: str,
        total: int,
        *,
        deadline: float | None = None,
        every: float = PLAIN_PROGRESS_SECONDS,
        clock: Callable[[], float] = time.monotonic,
    ) -> None:
        """Report on ``write``; ``deadline`` is a ``clock`` reading at which the step gives up."""
        self._write = write
        self._prefix = prefix
        self._description = description
        self._total = total
        self._deadline = deadline
        self._every = every
        self._clock = clock
        self._began = clock()
        self._last_line: float | None = None
        self._completed = 0
        self._note: str | None = None

    def start(self) -> None:
        """Report that the step began."""
        self._report()

    def update(self, completed: int, note: str | None = None) -> None:
        """Note the progress; report it when the last line is ``every`` seconds old."""
        self._completed, self._note = completed, note
        if self._last_line is None or self._clock() - self._last_line >= self._every:
            self._report()

    def finish(self) -> None:
        """Report where the step ended."""
        self._report(final=True)

    def _report(self, *, final: bool = False) -> None:
        now = self._clock()
        self._last_line = now
        share = f" ({100 * self._completed // self._total}%)" if self._total else ""
        parts = [f"{self._completed}/{self._total}{share}", f"{now - self._began:.0f} s"]
        if self._note:
            parts.append(self._note)
        if self._deadline is not None and not final:
            parts.append(f"{max(0.0, self._deadline - now):.0f} s left")
        ending = " (end)" if final else ""
        self._write(f"{self._prefix}: {self._description}{ending}: {', '.join(parts)}")


class TimeLeftColumn(ProgressColumn):
    """The seconds left until the task's ``deadline`` field (a `time.monotonic` reading)."""

    def render(self, task: Task) -> Text:
        """Draw ``95 s left``."""
        deadline = task.fields.get("deadline")
        if deadline is None:
            return Text("")
        return Text(f"{max(0.0, deadline - time.monotonic()):.0f} s left")


class _BarReport:
    def __init__(self, bar: Progress, task: Any) -> None:
        self._bar = bar
        self._task = task

    def update(self, completed: int, note: str | None = None) -> None:
        self._bar.update(self._task, completed=completed, note=note or "")


class Terminal:
    """The output of one command run.

    ``command`` prefixes error messages (``tallowmere submit: error: ...``).
    ``stdout`` and ``stderr`` default to the process streams as they are when
    the terminal is made (so that test capture works). ``wide`` shows tables
    whole; ``progress`` is one of `PROGRESS_MODES`.
    """

    def __init__(
        self,
        *,
        command: str,
        json_mode: bool,
        redactor: Redactor | None = None,
        stdout: TextIO | None = None,
        stderr: TextIO | None = None,
        wide: bool = False,
        progress: str = "auto",
    ) -> None:
        """Write for ``command``, as JSON when ``json_mode``, keeping ``redactor``'s secrets out."""
        self.command = command
        self.json_mode = json_mode
        self.redactor = redactor if redactor is not None else Redactor()
        self._stdout = stdout if stdout is not None else sys.stdout
        self._stderr = stderr if stderr is not None else sys.stderr
        self.out = Console(file=self._stdout, highlight=False)
        fitted = not wide and (self.out.is_terminal or "COLUMNS" in os.environ)
        self.table_width: int | None = self.out.width if fitted else None
        if self.table_width is None:
            self.out.width = UNLIMITED_WIDTH
        self.err = Console(file=self._stderr, highlight=False)
        if progress not in PROGRESS_MODES:
            raise ValueError(f"progress must be one of {', '.join(PROGRESS_MODES)}, got {progress!r}")
        if progress == "auto":
            progress = "bar" if self.err.is_terminal else "plain"
        self.progress_mode = progress
        self.emitted = False

    # -- results (stdout) ---------------------------------------------------------------

    def emit(self, document: dict[str, Any], render_page: Render) -> None:
        """Write the command's result: ``document`` as JSON with ``--json``, else what ``render_page`` draws.

        A command emits at most once.
        """
        if self.emitted:
            raise RuntimeError("a command writes its result once")
        self.emitted = True
        if self.json_mode:
            print(json_text(document), file=self._stdout, flush=True)
        else:
            render_page(Page(self.out, self.table_width))
            self._stdout.flush()

    def say(self, line: str) -> None:
        """Write a line for people on stdout (nothing with ``--json``, whose stdout is the document alone)."""
        if not self.json_mode:
            self.out.print(Text(line))

    # -- diagnostics (stderr) -----------------------------------------------------------

    def problem(self, message: str) -> None:
        """Write ``<command>: error: <message>`` as one line on stderr."""
        self.diagnostic(f"{self.command}: error: {message}")

    def warning(self, message: str) -> None:
        """Write ``<command>: warning: <message>`` as one line on stderr."""
        self.diagnostic(f"{self.command}: warning: {message}")

    def diagnostic(self, message: str) -> None:
        """Write ``message`` on stderr as it is (secrets removed), above any progress bar."""
        self.err.print(Text(self.redactor.clean(message)), soft_wrap=True)

    @contextmanager
    def progress(self, description: str, total: int, *, deadline: float | None = None) -> Iterator[ProgressReport]:
        """Show the progress of a step on stderr while the block runs; yield what the block reports it to.

        ``deadline`` (a `time.monotonic` reading) adds the time left. A bar
        disappears when the block ends; plain lines stay.
        """
        if self.progress_mode == "none":
            yield _Silent()
        elif self.progress_mode == "plain":
            plain = PlainProgress(self.diagnostic, self.command, description, total, deadline=deadline)
            plain.start()
            try:
                yield plain
            finally:
                plain.finish()
        else:
            note = TextColumn("{task.fields[note]}", table_column=Column(no_wrap=True, overflow="ellipsis", ratio=1))
            clock: ProgressColumn = TimeLeftColumn() if deadline is not None else TimeElapsedColumn()
            bar = Progress(
                TextColumn("{task.description}"), BarColumn(bar_width=20), MofNCompleteColumn(), clock, note,
                console=self.err, transient=True,
            )  # fmt: skip
            with bar:
                task = bar.add_task(description, total=total, note="", deadline=deadline)
                yield _BarReport(bar, task)
