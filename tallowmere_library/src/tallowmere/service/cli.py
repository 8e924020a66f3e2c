"""The ``tallowmere serve`` command: run the reference service in the foreground.

It prints the URL it listens on as the first line of standard output (useful
with ``--port 0``), writes the same URL to ``--ready-file`` when given, and
serves until SIGINT or SIGTERM.
"""

from __future__ import annotations

import argparse
import os
import sys
import tempfile
from pathlib import Path


def _positive_speed(text: str) -> float:
    try:
        value = float(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"speed must be a number, got {text!r}") from None
    if not 0 < value < float("inf"):
        raise argparse.ArgumentTypeError(f"speed must be a positive finite number, got {text!r}")
    return value


def _port(text: str) -> int:
    if not text.isdigit() or not 0 <= int(text) <= 65535:
        raise argparse.ArgumentTypeError(f"port must be an integer from 0 to 65535, got {text!r}")
    return int(text)


def add_serve_arguments(parser: argparse.ArgumentParser) -> None:
    """Add the options of ``tallowmere serve`` to ``parser``."""
    parser.add_argument("--host", default="127.0.0.1", help="address to listen on (default 127.0.0.1)")
    parser.add_argument("--port", type=_port, default=8080, help="port to listen on; 0 picks a free one (default 8080)")
    parser.add_argument("--db", type=Path, required=True, help="SQLite database file (created when missing)")
    parser.add_argument(
        "--token",
        dest="tokens",
        action="append",
        required=True,
        metavar="TOKEN",
        help="an accepted bearer token; repeat for more owners",
    )
    parser.add_argument("--eras", type=Path, default=None, help="era catalog JSON file replacing the bundled one")
    parser.add_argument(
        "--speed", type=_positive_speed, default=1.0, help="divide every lifecycle wait by this factor (default 1)"
    )
    parser.add_argument("--faults", action="store_true", help="enable the POST /_faults fault-injection route")
    parser.add_argument("--ready-file", type=Path, default=None, help="write the bound URL to this file once listening")
    parser.add_argument(
        "--log-level",
        default="info",
        choices=["critical", "error", "warning", "info", "debug"],
        help="server log level (default info)",
    )


def _write_atomically(path: Path, text: str) -> None:
    descriptor, temporary = tempfile.mkstemp(dir=path.parent, prefix=f".{path.name}.")
    with os.fdopen(descriptor, "w", encoding="utf-8") as handle:
        handle.write(text)
    os.replace(temporary, path)


def run_serve(args: argparse.Namespace) -> int:
    """Run the service described by parsed ``tallowmere serve`` arguments; return the exit status."""
    from tallowmere.service.catalog import CatalogError
    from tallowmere.service.config import ServiceConfig
    from tallowmere.service.runner import base_url_of, bind_socket, resolve_eras, serve_forever
    from tallowmere.service.runtime import ServiceRuntime
    from tallowmere.service.storage import StorageOpenError

    try:
        config = ServiceConfig(
            db_path=args.db,
            tokens=tuple(args.tokens),
            eras=resolve_eras(args.eras),
            speed=args.speed,
            faults=args.faults,
        )
        runtime = ServiceRuntime(config)
    except (CatalogError, StorageOpenError, ValueError, TypeError, OSError) as exc:
        print(f"tallowmere serve: {exc}", file=sys.stderr)
        return 2
    try:
        sock = bind_socket(args.host, args.port)
    except OSError as exc:
        runtime.close()
        print(f"tallowmere serve: cannot listen on {args.host}:{args.port}: {exc.strerror or exc}", file=sys.stderr)
        return 2
    url = base_url_of(sock)

    def announce() -> None:
        print(url, flush=True)
        if args.ready_file is not None:
            _write_atomically(args.ready_file, url + "\n")

    serve_forever(runtime, sock, log_level=args.log_level, announce=announce)
    return 0
