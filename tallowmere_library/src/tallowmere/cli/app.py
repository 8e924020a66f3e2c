"""Running one ``tallowmere`` command: parse, set up output and logging, map every outcome to an exit status."""

from __future__ import annotations

import argparse
import logging
import os
import sys
import traceback
from collections.abc import Callable, Iterator, Sequence
from contextlib import contextmanager

from tallowmere.cli.connection import TOKEN_VARIABLE
from tallowmere.cli.errors import EXIT_INTERRUPTED, EXIT_REFUSED, EXIT_USAGE, CommandError
from tallowmere.cli.extras import SERVICE_EXTRA_HINT, missing_service_packages
from tallowmere.cli.parser import ArgumentsError, build_parser
from tallowmere.cli.redaction import Redactor
from tallowmere.cli.terminal import Terminal, json_text

Handler = Callable[[argparse.Namespace, Terminal], int]


class _NotTelemetry(logging.Filter):
    """Drops the client's telemetry events: each command reports its outcome itself."""

    def filter(self, record: logging.LogRecord) -> bool:
        return not record.name.startswith("tallowmere.telemetry")


class TerminalLogHandler(logging.Handler):
    """Writes log records as diagnostics on the terminal's stderr (above progress bars, secrets removed)."""

    def __init__(self, terminal: Terminal, level: int) -> None:
        """Write records of ``level`` and above to ``terminal``."""
        super().__init__(level)
        self.terminal = terminal

    def emit(self, record: logging.LogRecord) -> None:
        """Write one record as ``<logger>: <message>``."""
        try:
            self.terminal.diagnostic(f"{record.name}: {record.getMessage()}")
        except Exception:  # a log line must never end the command
            self.handleError(record)


@contextmanager
def diagnostics_logging(terminal: Terminal, *, debug: bool) -> Iterator[None]:
    """Show the library's log records on stderr while the command runs.

    Normally warnings are shown (a retry, an answer that could not be read),
    but not the client's telemetry events, which repeat what the command
    reports itself; with ``--debug`` every record of the ``tallowmere``
    loggers is.
    """
    logger = logging.getLogger("tallowmere")
    handler = TerminalLogHandler(terminal, logging.DEBUG if debug else logging.WARNING)
    if not debug:
        handler.addFilter(_NotTelemetry())
    previous_level = logger.level
    logger.addHandler(handler)
    if debug:
        logger.setLevel(logging.DEBUG)
    try:
        yield
    finally:
        logger.removeHandler(handler)
        logger.setLevel(previous_level)


def _report(terminal: Terminal, error: BaseException, message: str, *, debug: bool) -> None:
    if debug:
        terminal.diagnostic("".join(traceback.format_exception(error)).rstrip())
    terminal.problem(message)


def run_command(args: argparse.Namespace, handler: Handler) -> int:
    """Run a parsed client command and return its exit status."""
    redactor = Redactor()
    redactor.add(getattr(args, "token", None))
    redactor.add(os.environ.get(TOKEN_VARIABLE))
    terminal = Terminal(
        command=f"tallowmere {args.command}",
        json_mode=args.json,
        redactor=redactor,
        wide=getattr(args, "wide", False),
        progress=getattr(args, "progress", "auto"),
    )
    with diagnostics_logging(terminal, debug=args.debug):
        try:
            return handler(args, terminal)
        except CommandError as error:
            if terminal.json_mode and not terminal.emitted:
                document = error.document or {"error": error.message, "exit_code": error.exit_code}
                terminal.emit(document, lambda console: None)
            _report(terminal, error, error.message, debug=args.debug)
            return error.exit_code
        except KeyboardInterrupt as error:
            if terminal.json_mode and not terminal.emitted:
                terminal.emit({"error": "interrupted", "exit_code": EXIT_INTERRUPTED}, lambda page: None)
            _report(terminal, error, "interrupted", debug=args.debug)
            return EXIT_INTERRUPTED
        except Exception as error:  # a defect here or in the library: say so in one line
            hint = "" if args.debug else " (run with --debug for the traceback)"
            _report(terminal, error, f"unexpected {type(error).__name__}: {error}{hint}", debug=args.debug)
            return EXIT_REFUSED


def _wants_json(argv: Sequence[str]) -> bool:
    """Whether ``--json`` is among the arguments (before a ``--`` that ends the options)."""
    for argument in argv:
        if argument == "--":
            return False
        if argument == "--json":
            return True
    return False


def _serve(args: argparse.Namespace) -> int:
    missing = missing_service_packages()
    if missing:
        print(
            f"tallowmere serve: error: the reference service needs {', '.join(missing)}: {SERVICE_EXTRA_HINT}",
            file=sys.stderr,
        )
        return EXIT_USAGE
    from tallowmere.service.cli import run_serve

    return run_serve(args)


def main(argv: Sequence[str] | None = None) -> int:
    """Run the ``tallowmere`` command with ``argv`` (default: the process arguments); return its exit status.

    Bad arguments write one line on stderr (and, with ``--json``,
    ``{"error": ..., "exit_code": 2}`` on stdout) and exit through
    ``SystemExit`` with status 2, as argparse does; ``--help`` and
    ``--version`` exit through it with status 0.
    """
    arguments = list(sys.argv[1:] if argv is None else argv)
    try:
        args = build_parser().parse_args(arguments)
    except ArgumentsError as error:
        if _wants_json(arguments):
            print(json_text({"error": error.message, "exit_code": EXIT_USAGE}), flush=True)
        print(error.line(), file=sys.stderr)
        raise SystemExit(EXIT_USAGE) from None
    if args.command == "serve":
        return _serve(args)
    handler: Handler = args.handler
    return run_command(args, handler)
