"""The ``tallowmere`` command line (``python -m tallowmere``)."""

from __future__ import annotations

import argparse
from collections.abc import Sequence


def build_parser() -> argparse.ArgumentParser:
    """Return the parser of the ``tallowmere`` command with its subcommands."""
    from tallowmere.service.cli import add_serve_arguments

    parser = argparse.ArgumentParser(prog="tallowmere", description="Tallowmere signal research tools.")
    commands = parser.add_subparsers(dest="command", required=True, metavar="COMMAND")
    serve = commands.add_parser(
        "serve", help="run the reference signal service", description="Run the reference signal service."
    )
    add_serve_arguments(serve)
    return parser


def main(argv: Sequence[str] | None = None) -> int:
    """Run the ``tallowmere`` command with ``argv`` (default: the process arguments); return its exit status."""
    args = build_parser().parse_args(argv)
    if args.command == "serve":
        from tallowmere.service.cli import run_serve

        return run_serve(args)
    raise AssertionError(f"unhandled command {args.command!r}")


if __name__ == "__main__":
    raise SystemExit(main())
