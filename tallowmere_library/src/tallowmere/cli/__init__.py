"""The ``tallowmere`` command line.

``tallowmere`` (or ``python -m tallowmere``) runs the research loop from a
shell: ``eras``, ``simulate``, ``submit``, ``submit-strategy``, ``batch``,
``status``, ``list``, ``poll``, ``demo`` and ``serve``. Results go to stdout
(tables, or one JSON document with ``--json``), progress and diagnostics to
stderr. Exit status: 0 success, 1 the service said no or could not be
reached, 2 bad arguments or input (nothing was sent).

Modules: `parser` (arguments), `app` (running a command, exit statuses),
`commands` (one module per group of commands), `terminal` and `tables`
(output), `connection` (address, token, client), `inputs` (graph and batch
files), `polling`, `screening`, `statuses`, `candidates` (the demo's
expressions), `expressions`, `errors`, `redaction`.
"""

from tallowmere.cli.app import main
from tallowmere.cli.parser import build_parser

__all__ = ["build_parser", "main"]
