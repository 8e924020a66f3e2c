"""``python -m tallowmere``: the command line (see :mod:`tallowmere.cli`)."""

from tallowmere.cli.app import main
from tallowmere.cli.parser import build_parser

__all__ = ["build_parser", "main"]

if __name__ == "__main__":
    raise SystemExit(main())
