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
from tallowmere.cli.connection import BASE_URL_VARIABLE, DEFAULT_TIMEOUT_SECONDS, TOKEN_VARIABLE
from tallowmere.cli.errors import EXIT_USAGE
from tallowmere.cli.statuses import POLL_TARGETS
from tallowmere.service.lifecycle import ALL_STATUSES

EPILOG = (
    f"The service address and token come from --base-url/--token or from {BASE_URL_VARIABLE}/{TOKEN_VARIABLE}. "
    "Exit status: 0 success; 1 the service said no or could not be reached; 2 bad arguments or input, "
    "or a local check failed before anything was sent."
)


class CommandParser(argparse.ArgumentParser):
    """An argument parser whose errors are one line on stderr and exit status 2."""

    def error(self, message: str) -> NoReturn:
        """Report a usage error as ``<prog>: error: <message> (see '<prog> --help')`` and exit with status 2."""
        self.exit(EXIT_USAGE, f"{self.prog}: error: {message} (see '{self.prog} --help')\n")


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


def non_negative_int(text: str) -> int:
    """An integer of at least 0."""
    if not text.strip().isdigit():
        raise argparse.ArgumentTypeError(f"must be a non-negative integer, got {text!r}")
    return int(text)


def _output_options() -> CommandParser:
    options = CommandParser(add_help=False)
    group = options.add_argument_group("output")
    group.add_argument("--json", action="store_true", help="print one JSON document on stdout instead of tables")
    group.add_argument("--debug", action="store_true", help="show debug logs, and tracebacks of errors")
    return options


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

    parser = CommandParser(prog="tallowmere", description="Tallowmere signal research tools.", epilog=EPILOG)
    commands = parser.add_subparsers(dest="command", required=True, metavar="COMMAND")
    output = _output_options()
    connection = _connection_options()
    both = [output, connection]

    serve = commands.add_parser(
        "serve", help="run the reference signal service", description="Run the reference signal service."
    )
    add_serve_arguments(serve)

    eras = commands.add_parser(
        "eras", parents=both, help="show the service's era catalog", description="Show the eras, pools and thresholds.",
        epilog=EPILOG,
    )  # fmt: skip
    eras.add_argument("--market-id", type=positive_int, metavar="N", help="show only this market's eras")
    eras.set_defaults(handler=run_eras)

    simulate = commands.add_parser(
        "simulate", parents=[output], help="backtest a graph locally",
        description="Backtest a graph on the embedded market data and show its statistics.", epilog=EPILOG,
    )  # fmt: skip
    simulate.add_argument("graph_file", metavar="GRAPH_FILE", help="JSON file holding the graph ('-': stdin)")
    simulate.set_defaults(handler=run_simulate)

    submit = commands.add_parser(
        "submit", parents=both, help="simulate a graph, then submit it as a signal",
        description="Simulate the graph locally (recording the timing the client requires), then submit it.",
        epilog=EPILOG,
    )  # fmt: skip
    submit.add_argument("graph_file", metavar="GRAPH_FILE", help="JSON file holding the graph ('-': stdin)")
    _signal_target_options(submit, pool_required=True)
    submit.add_argument(
        "--idempotency-key", metavar="KEY", help="the submission's key (default: derived from the body)"
    )
    submit.add_argument("--metaparameters", type=json_object, metavar="JSON", help="a JSON object sent with the signal")
    submit.set_defaults(handler=run_submit)

    strategy = commands.add_parser(
        "submit-strategy", parents=both, help="simulate a graph, then submit it as a strategy",
        description="Simulate the graph locally (to refuse a bad graph before sending), then submit it as a strategy.",
        epilog=EPILOG,
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
    strategy.set_defaults(handler=run_submit_strategy)

    batch = commands.add_parser(
        "batch", parents=both, help="simulate the graphs of a JSON Lines file, then submit them as one batch",
        description="Simulate every graph of a JSON Lines file, then submit them together (100 per request). "
        "A line is a graph, or an object with a 'graph' and its own named_universe, signal_pool_name, "
        "market_id, era_number, idempotency_key or metaparameters; the options below are the defaults.",
        epilog=EPILOG,
    )  # fmt: skip
    batch.add_argument("batch_file", metavar="JSONL_FILE", help="JSON Lines file of graphs or items ('-': stdin)")
    _signal_target_options(batch, pool_required=False)
    batch.set_defaults(handler=run_batch)

    status = commands.add_parser(
        "status", parents=both, help="show submissions' statuses",
        description="Show the current status of one or more submissions.", epilog=EPILOG,
    )  # fmt: skip
    status.add_argument("submission_ids", nargs="+", metavar="SUBMISSION_ID")
    status.set_defaults(handler=run_status)

    listing = commands.add_parser(
        "list", parents=both, help="list your submissions, newest first",
        description="List your submissions (signals and strategies), newest first.", epilog=EPILOG,
    )  # fmt: skip
    listing.add_argument("--status", choices=sorted(ALL_STATUSES), metavar="STATUS", help="only this status")
    listing.add_argument("--idempotency-key", metavar="KEY", help="only the submission with this key")
    listing.add_argument("--since", type=iso_timestamp, metavar="TIME", help="only those created at or after TIME")
    listing.add_argument(
        "--limit", type=list_limit, default=100, metavar="N", help="at most N (1 to 1000, default 100)"
    )
    listing.set_defaults(handler=run_list)

    poll = commands.add_parser(
        "poll", parents=both, help="wait until submissions reach a final status",
        description="Poll submissions until each one is final (the service will not change it again) "
        "or, with --until terminal, has its first verdict.",
        epilog=EPILOG,
    )  # fmt: skip
    poll.add_argument("submission_ids", nargs="+", metavar="SUBMISSION_ID")
    poll.add_argument("--until", choices=sorted(POLL_TARGETS), default="final", help="what to wait for (default final)")
    poll.add_argument(
        "--wait", type=positive_seconds, default=120.0, metavar="SECONDS", help="give up after this long (default 120)"
    )
    poll.add_argument(
        "--interval", type=positive_seconds, default=0.5, metavar="SECONDS", help="time between rounds (default 0.5)"
    )
    poll.set_defaults(handler=run_poll)

    demo = commands.add_parser(
        "demo", parents=[output], help="run the whole research loop against a local reference service",
        description="Start the reference service in-process, generate and simulate candidate signals, submit one "
        "alone and the rest as a batch, follow every submission to its final status, and summarise.",
        epilog=EPILOG,
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
    demo.set_defaults(handler=run_demo)
    return parser
