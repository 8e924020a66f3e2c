"""Where the command line writes: results on stdout, progress and diagnostics on stderr.

With ``--json`` stdout carries exactly one JSON document and nothing else;
without it, stdout carries tables and short lines for people. Either way
progress bars, retry notices and error messages go to stderr, so that
``tallowmere list --json | jq`` and ``tallowmere list > report.txt`` never
see them. Progress bars are drawn only when stderr is a terminal.
"""

from __future__ import annotations

import json
import math
import os
import sys
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from typing import Any, TextIO

from rich.console import Console
from rich.progress import BarColumn, MofNCompleteColumn, Progress, TextColumn, TimeElapsedColumn
from rich.text import Text

from tallowmere.cli.redaction import Redactor

Render = Callable[[Console], None]
"""Draws a command's result for people on the stdout console."""

UNLIMITED_WIDTH = 200
"""Columns of a table written to a file or pipe (unless ``COLUMNS`` says otherwise): wide enough not to wrap."""


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


class Terminal:
    """The output of one command run.

    ``command`` prefixes error messages (``tallowmere submit: error: ...``).
    ``stdout`` and ``stderr`` default to the process streams as they are when
    the terminal is made (so that test capture works).
    """

    def __init__(
        self,
        *,
        command: str,
        json_mode: bool,
        redactor: Redactor | None = None,
        stdout: TextIO | None = None,
        stderr: TextIO | None = None,
    ) -> None:
        """Write for ``command``, as JSON when ``json_mode``, keeping ``redactor``'s secrets out."""
        self.command = command
        self.json_mode = json_mode
        self.redactor = redactor if redactor is not None else Redactor()
        self._stdout = stdout if stdout is not None else sys.stdout
        self._stderr = stderr if stderr is not None else sys.stderr
        self.out = Console(file=self._stdout, highlight=False)
        if not self.out.is_terminal and "COLUMNS" not in os.environ:
            self.out.width = UNLIMITED_WIDTH
        self.err = Console(file=self._stderr, highlight=False)
        self.emitted = False

    # -- results (stdout) ---------------------------------------------------------------

    def emit(self, document: dict[str, Any], render: Render) -> None:
        """Write the command's result: ``document`` as JSON with ``--json``, else what ``render`` draws.

        A command emits at most once.
        """
        if self.emitted:
            raise RuntimeError("a command writes its result once")
        self.emitted = True
        if self.json_mode:
            print(json_text(document), file=self._stdout, flush=True)
        else:
            render(self.out)

    def say(self, line: str) -> None:
        """Write a line for people on stdout (nothing with ``--json``, whose stdout is the document alone)."""
        if not self.json_mode:
            self.out.print(Text(line), soft_wrap=True)

    # -- diagnostics (stderr) -----------------------------------------------------------

    def problem(self, message: str) -> None:
        """Write ``<command>: error: <message>`` as one line on stderr."""
        self.diagnostic(f"{self.command}: error: {message}")

    def diagnostic(self, message: str) -> None:
        """Write ``message`` on stderr as it is (secrets removed), above any progress bar."""
        self.err.print(Text(self.redactor.clean(message)), soft_wrap=True)

    @contextmanager
    def progress(self, description: str, total: int) -> Iterator[Callable[[int], None]]:
        """Show a progress bar on stderr while the block runs; yield a function that sets the count done.

        The bar is drawn only on a terminal and disappears when the block ends.
        """
        bar = Progress(
            TextColumn("{task.description}"),
            BarColumn(),
            MofNCompleteColumn(),
            TimeElapsedColumn(),
            console=self.err,
            transient=True,
            disable=not self.err.is_terminal,
        )
        with bar:
            task = bar.add_task(description, total=total)

            def advance_to(completed: int) -> None:
                bar.update(task, completed=completed)

            yield advance_to
