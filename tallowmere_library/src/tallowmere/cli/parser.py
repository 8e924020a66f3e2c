"""The ``tallowmere`` argument parser: every subcommand and its options."""

from __future__ import annotations

import argparse
import json
import math
from datetime import datetime
from typing import Any, NoReturn

from tallowmere.cli.commands.batch import run_batch
from tallowmere.cli.commands.eras import run_eras
from tallowmere.cli.commands.simulate import run_simulate
from tallowmere.cli.commands.demo import DEFAULT_CANDIDATES, DEFAULT_RANDOM_STATE, DEFAULT_SPEED, run_demo
from tallowmere.cli.commands.submission import run_submit, run_submit_strategy
from tallowmere.cli.commands.tracking import run_list, run_poll, run_status
from tallowmere import __version__
from tallowmere.cli.connection import BASE_URL_VARIABLE, DEFAULT_TIMEOUT_SECONDS, TOKEN_VARIABLE
from tallowmere.cli.extras import SERVICE_EXTRA_HINT
from tallowmere.cli.sending import MAX_CHUNK_SIZE
from tallowmere.cli.simulations import CACHE_VARIABLE
from tallowmere.cli.statuses import POLL_TARGETS
from tallowmere.cli.terminal import PROGRESS_MODES
from tallowmere.service.lifecycle import ALL_STATUSES

SERVICE_NOTE = (
    f"The service address and token come from --base-url/--token or from {BASE_URL_VARIABLE}/{TOKEN_VARIABLE}."
)
CACHE_NOTE = (
    f"Simulations are cached (under ${CACHE_VARIABLE}, default ~/.cache/tallowmere), so a re-run sends the "
    "same body and the service replays it; --fresh simulates anew."
)
USAGE_EXIT = "2 bad arguments or input, or a local check failed (nothing was sent)"
UNREACHABLE_EXIT = "3 the service could not be reached or gave no usable answer"
INTERRUPTED_EXIT = "130 interrupted"


def epilog(*notes: str, exits: tuple[str, ...]) -> str:
    """A command's epilog: its notes, then what each exit status means."""
    return " ".join((*notes, "Exit status: " + "; ".join(exits) + "."))


class ArgumentsError(Exception):
    """Bad arguments: the message argparse would print, and the program it concerns."""

    def __init__(self, prog: str, message: str) -> None:
        """Carry ``message`` about ``prog``."""
        super().__init__(message)
        self.prog = prog
        self.message = message

    def line(self) -> str:
        """``<prog>: error: <message> (see '<prog> --help')``."""
        return f"{self.prog}: error: {self.message} (see '{self.prog} --help')"


class CommandParser(argparse.ArgumentParser):
    """An argument parser whose errors are raised as `ArgumentsError`, for `main` to report (exit status 2)."""

    def error(self, message: str) -> NoReturn:
        """Raise `ArgumentsError`: `main` writes it as one line on stderr (and as JSON with ``--json``)."""
        raise ArgumentsError(self.prog, message)


def positive_int(text: str) -> int:
    """An integer of at least 1."""
    if not text.strip().isdigit() or int(text) < 1:
        raise argparse.ArgumentTypeError(f"must be a positive integer, got {text!r}")
    return int(text)


def positive_seconds(text: str) -> float:
    """A finite number of seconds above 0."""
    try:
        value = float(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"must be a number of seconds, got {text!r}") from None
    if not math.isfinite(value) or value <= 0:
        raise argparse.ArgumentTypeError(f"must be a positive number of seconds, got {text!r}")
    return value


def positive_speed(text: str) -> float:
    """A finite factor above 0."""
    try:
        value = float(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"must be a number, got {text!r}") from None
    if not math.isfinite(value) or value <= 0:
        raise argparse.ArgumentTypeError(f"must be a positive finite number, got {text!r}")
    return value


def list_limit(text: str) -> int:
    """An integer from 1 to 1000, the range the service accepts."""
    if not text.strip().isdigit() or not 1 <= int(text) <= 1000:
        raise argparse.ArgumentTypeError(f"must be an integer from 1 to 1000, got {text!r}")
    return int(text)


def iso_timestamp(text: str) -> str:
    """An ISO-8601 timestamp (``2025-01-31T12:00:00Z``; without an offset it is UTC)."""
    try:
        datetime.fromisoformat(text.strip())
    except ValueError:
        message = f"must be an ISO-8601 timestamp such as 2025-01-31T12:00:00Z, got {text!r}"
        raise argparse.ArgumentTypeError(message) from None
    return text.strip()


def json_object(text: str) -> dict[str, Any]:
    """A JSON object given inline."""
    try:
        value = json.loads(text)
    except json.JSONDecodeError as exc:
        raise argparse.ArgumentTypeError(f"must be a JSON object, but is not valid JSON ({exc.msg})") from None
    if not isinstance(value, dict):
        raise argparse.ArgumentTypeError("must be a JSON object such as '{\"lookback\": 20}'")
    return value


def chunk_size(text: str) -> int:
    """An integer from 1 to the client's chunk size."""
    limit = MAX_CHUNK_SIZE
    if not text.strip().isdigit() or not 1 <= int(text) <= limit:
        raise argparse.ArgumentTypeError(f"must be an integer from 1 to {limit}, got {text!r}")
    return int(text)


def submission_id(text: str) -> str:
    """A submission id: not empty, no spaces or control characters."""
    if not text.strip():
        raise argparse.ArgumentTypeError("must not be empty")
    if any(character.isspace() or not character.isprintable() for character in text):
        raise argparse.ArgumentTypeError(f"must not contain spaces or control characters, got {text!r}")
    return text


def non_negative_int(text: str) -> int:
    """An integer of at least 0."""
    if not text.strip().isdigit():
        raise argparse.ArgumentTypeError(f"must be a non-negative integer, got {text!r}")
    return int(text)


def _output_options(*, tables: bool = True, progress: bool = False) -> CommandParser:
    options = CommandParser(add_help=False)
    group = options.add_argument_group("output")
    group.add_argument("--json", action="store_true", help="print one JSON document on stdout instead of tables")
    if tables:
        group.add_argument(
            "--wide", action="store_true",
            help="show every column and whole texts (tables are otherwise fitted to the terminal's width)",
        )  # fmt: skip
    if progress:
        group.add_argument(
            "--progress", choices=PROGRESS_MODES, default="auto",
            help="progress on stderr: a bar on a terminal and plain lines otherwise (auto, the default), "
            "always a bar, always plain lines, or none",
        )  # fmt: skip
    group.add_argument("--debug", action="store_true", help="show debug logs, and tracebacks of errors")
    return options


def _fresh_option(parser: argparse.ArgumentParser) -> None:
    parser.add_argument(
        "--fresh", action="store_true", help="simulate anew instead of reusing the cached simulation (and replace it)"
    )


def _connection_options() -> CommandParser:
    options = CommandParser(add_help=False)
    group = options.add_argument_group("service")
    group.add_argument("--base-url", metavar="URL", help=f"the service's address (default: ${BASE_URL_VARIABLE})")
    group.add_argument(
        "--token",
        metavar="TOKEN",
        help=f"bearer token (default: ${TOKEN_VARIABLE}; prefer the variable, options are visible to other users)",
    )
    group.add_argument("--no-retries", action="store_true", help="send every request once (no retries on 429/5xx)")
    group.add_argument(
        "--timeout",
        type=positive_seconds,
        default=DEFAULT_TIMEOUT_SECONDS,
        metavar="SECONDS",
        help=f"time limit of each request attempt (default {DEFAULT_TIMEOUT_SECONDS:g})",
    )
    return options


def _signal_target_options(parser: argparse.ArgumentParser, *, pool_required: bool) -> None:
    parser.add_argument(
        "--universe",
        dest="named_universe",
        metavar="NAME",
        help="named universe (default: named_universe of the agent configuration file)",
    )
    parser.add_argument(
        "--pool", dest="signal_pool_name", metavar="NAME", required=pool_required, help="signal pool name"
    )
    parser.add_argument("--market-id", type=positive_int, metavar="N", help="market (default: the active era's)")
    parser.add_argument("--era-number", type=positive_int, metavar="N", help="era (default: the active era)")


def build_parser() -> argparse.ArgumentParser:
    """Return the parser of the ``tallowmere`` command with its subcommands."""
    from tallowmere.service.cli import add_serve_arguments

    parser = CommandParser(
        prog="tallowmere", description="Tallowmere signal research tools.",
        epilog=epilog(SERVICE_NOTE, "'tallowmere COMMAND --help' describes a command and its exit statuses.",
                      exits=("0 success", "1 the service said no", USAGE_EXIT, UNREACHABLE_EXIT,
                             "4 poll gave up waiting", INTERRUPTED_EXIT)),
    )  # fmt: skip
    parser.add_argument("--version", action="version", version=f"tallowmere {__version__}")
    commands = parser.add_subparsers(dest="command", required=True, metavar="COMMAND")
    connection = _connection_options()
    tables = [_output_options(), connection]
    plain = [_output_options(tables=False), connection]

    serve = commands.add_parser(
        "serve", help="run the reference signal service", description="Run the reference signal service.",
        epilog=f"Needs the service's packages ({SERVICE_EXTRA_HINT}). Exit status: 0 stopped by SIGINT or SIGTERM; "
        "2 bad arguments, missing packages or an unusable database or catalog.",
    )  # fmt: skip
    add_serve_arguments(serve)

    eras = commands.add_parser(
        "eras", parents=tables, help="show the service's era catalog",
        description="Show the eras, pools and thresholds.",
        epilog=epilog(SERVICE_NOTE, exits=("0 shown", "1 the service refused, or has no eras for --market-id",
                                           USAGE_EXIT, UNREACHABLE_EXIT, INTERRUPTED_EXIT)),
    )  # fmt: skip
    eras.add_argument("--market-id", type=positive_int, metavar="N", help="show only this market's eras")
    eras.set_defaults(handler=run_eras)

    simulate = commands.add_parser(
        "simulate", parents=[_output_options()], help="backtest a graph locally",
        description="Backtest a graph on the embedded market data and show its statistics (no service needed).",
        epilog=epilog(CACHE_NOTE, exits=("0 simulated", "2 bad arguments, an unreadable file or a graph the "
                                         "simulator refuses", INTERRUPTED_EXIT)),
    )  # fmt: skip
    simulate.add_argument("graph_file", metavar="GRAPH_FILE", help="JSON file holding the graph ('-': stdin)")
    _fresh_option(simulate)
    simulate.set_defaults(handler=run_simulate)

    signal_exits = ("0 accepted", "1 the service refused it", USAGE_EXIT, UNREACHABLE_EXIT, INTERRUPTED_EXIT)
    submit = commands.add_parser(
        "submit", parents=plain, help="simulate a graph, then submit it as a signal",
        description="Simulate the graph locally (recording the timing the client requires), then submit it.",
        epilog=epilog(SERVICE_NOTE, CACHE_NOTE, exits=signal_exits),
    )  # fmt: skip
    submit.add_argument("graph_file", metavar="GRAPH_FILE", help="JSON file holding the graph ('-': stdin)")
    _signal_target_options(submit, pool_required=True)
    submit.add_argument(
        "--idempotency-key", metavar="KEY", help="the submission's key (default: derived from the body)"
    )
    submit.add_argument("--metaparameters", type=json_object, metavar="JSON", help="a JSON object sent with the signal")
    _fresh_option(submit)
    submit.set_defaults(handler=run_submit)

    strategy = commands.add_parser(
        "submit-strategy", parents=plain, help="simulate a graph, then submit it as a strategy",
        description="Simulate the graph locally (to refuse a bad graph before sending), then submit it as a strategy.",
        epilog=epilog(SERVICE_NOTE, exits=signal_exits),
    )  # fmt: skip
    strategy.add_argument("graph_file", metavar="GRAPH_FILE", help="JSON file holding the graph ('-': stdin)")
    strategy.add_argument(
        "--universe", dest="named_universe", metavar="NAME",
        help="named universe (default: named_universe of the agent configuration file)",
    )  # fmt: skip
    strategy.add_argument("--pool", dest="strategy_pool_name", metavar="NAME", required=True, help="strategy pool name")
    strategy.add_argument("--market-id", type=positive_int, metavar="N", required=True, help="market")
    strategy.add_argument("--era-number", type=positive_int, metavar="N", required=True, help="era")
    strategy.add_argument(
        "--idempotency-key", metavar="KEY", help="the submission's key (default: derived from the body)"
    )
    strategy.add_argument("--metaparameters", type=json_object, metavar="JSON", help="a JSON object sent with it")
    _fresh_option(strategy)
    strategy.set_defaults(handler=run_submit_strategy)

    batch = commands.add_parser(
        "batch", parents=[_output_options(progress=True), connection],
        help="check every line of a JSON Lines file, then submit its signals chunk by chunk",
        description="Read, simulate and check every line of a JSON Lines file, listing every problem by line; "
        "then submit the signals in chunks, keeping each chunk's results. A line is a graph, or an object "
        "with a 'graph' and its own named_universe, signal_pool_name, market_id, era_number, idempotency_key "
        "or metaparameters; the options below are the defaults.",
        epilog=epilog(SERVICE_NOTE, CACHE_NOTE, exits=(
            "0 every line sent was accepted (or was already, by the ledger)", "1 the service refused an item",
            "2 bad arguments, or invalid lines without --skip-invalid (nothing was sent)",
            "3 a chunk got no usable answer (the chunks after it were not sent)",
            "130 interrupted (what was accepted is still reported)",
        )),
    )  # fmt: skip
    batch.add_argument("batch_file", metavar="JSONL_FILE", help="JSON Lines file of graphs or items ('-': stdin)")
    _signal_target_options(batch, pool_required=False)
    batch.add_argument(
        "--skip-invalid", action="store_true", help="send the lines that pass every check and report the others"
    )
    batch.add_argument(
        "--ledger", metavar="FILE",
        help="JSON Lines file of accepted submissions, appended as each chunk is accepted; lines it already "
        "holds are not sent again (resume an interrupted run with the same ledger)",
    )  # fmt: skip
    batch.add_argument(
        "--chunk-size", type=chunk_size, default=None, metavar="N",
        help=f"signals per request (1 to {MAX_CHUNK_SIZE}, default {MAX_CHUNK_SIZE})",
    )  # fmt: skip
    _fresh_option(batch)
    batch.set_defaults(handler=run_batch)

    status = commands.add_parser(
        "status", parents=tables, help="show submissions' statuses",
        description="Show the current status of one or more submissions.",
        epilog=epilog(SERVICE_NOTE, exits=(
            "0 every submission is known and none ended unsuccessfully",
            "1 an id is unknown, the service refused, or a submission ended unsuccessfully",
            USAGE_EXIT, UNREACHABLE_EXIT, INTERRUPTED_EXIT,
        )),
    )  # fmt: skip
    status.add_argument("submission_ids", nargs="+", type=submission_id, metavar="SUBMISSION_ID")
    status.set_defaults(handler=run_status)

    listing = commands.add_parser(
        "list", parents=tables, help="list your submissions, newest first",
        description="List your submissions (signals and strategies), newest first.",
        epilog=epilog(SERVICE_NOTE, exits=("0 listed", "1 the service refused", USAGE_EXIT, UNREACHABLE_EXIT,
                                           INTERRUPTED_EXIT)),
    )  # fmt: skip
    listing.add_argument("--status", choices=sorted(ALL_STATUSES), metavar="STATUS", help="only this status")
    listing.add_argument("--idempotency-key", metavar="KEY", help="only the submission with this key")
    listing.add_argument("--since", type=iso_timestamp, metavar="TIME", help="only those created at or after TIME")
    listing.add_argument(
        "--limit", type=list_limit, default=100, metavar="N", help="at most N (1 to 1000, default 100)"
    )
    listing.set_defaults(handler=run_list)

    poll = commands.add_parser(
        "poll", parents=[_output_options(progress=True), connection],
        help="wait until submissions reach a final status",
        description="Poll submissions until each one is final (the service will not change it again) "
        "or, with --until terminal, has its first verdict. An outage does not end polling: it goes on "
        "until --wait runs out.",
        epilog=epilog(SERVICE_NOTE, exits=(
            "0 every submission reached the awaited status successfully",
            "1 an id is unknown, the service refused, or a submission ended unsuccessfully", USAGE_EXIT,
            "3 the service could not be reached when --wait ran out", "4 --wait ran out with submissions still "
            "on their way", "130 interrupted (the statuses so far are still reported)",
        )),
    )  # fmt: skip
    poll.add_argument("submission_ids", nargs="+", type=submission_id, metavar="SUBMISSION_ID")
    poll.add_argument("--until", choices=sorted(POLL_TARGETS), default="final", help="what to wait for (default final)")
    poll.add_argument(
        "--wait", type=positive_seconds, default=120.0, metavar="SECONDS", help="give up after this long (default 120)"
    )
    poll.add_argument(
        "--interval", type=positive_seconds, default=0.5, metavar="SECONDS", help="time between rounds (default 0.5)"
    )
    poll.set_defaults(handler=run_poll)

    demo = commands.add_parser(
        "demo", parents=[_output_options(progress=True)],
        help="run the whole research loop against a local reference service",
        description="Start the reference service in-process, generate and simulate candidate signals, submit one "
        "alone and the rest as a batch, follow every submission to its final status, and summarise. "
        "It needs no address or token: the service is its own.",
        epilog=epilog(
            f"Needs the service's packages ({SERVICE_EXTRA_HINT}).", CACHE_NOTE,
            exits=("0 the loop completed", "1 a submission was refused at intake, a status was not final within "
                   "--wait, or no candidate passed the gates", "2 bad arguments or missing packages",
                   INTERRUPTED_EXIT),
        ),
    )  # fmt: skip
    demo.add_argument(
        "--candidates", type=positive_int, default=DEFAULT_CANDIDATES, metavar="N",
        help=f"candidate expressions to generate (default {DEFAULT_CANDIDATES})",
    )  # fmt: skip
    demo.add_argument(
        "--speed", type=positive_speed, default=DEFAULT_SPEED, metavar="X",
        help=f"run the service's lifecycle X times faster (default {DEFAULT_SPEED:g})",
    )  # fmt: skip
    demo.add_argument(
        "--random-state", type=non_negative_int, default=DEFAULT_RANDOM_STATE, metavar="K",
        help=f"generator key of the candidates, which it alone decides (default {DEFAULT_RANDOM_STATE})",
    )  # fmt: skip
    demo.add_argument(
        "--wait", type=positive_seconds, default=120.0, metavar="SECONDS",
        help="give up polling after this long (default 120)",
    )  # fmt: skip
    _fresh_option(demo)
    demo.set_defaults(handler=run_demo)
    return parser
