"""The ``tallowmere`` command line.

``tallowmere`` (or ``python -m tallowmere``) runs the research loop from a
shell: ``eras``, ``simulate``, ``submit``, ``submit-strategy``, ``batch``,
``status``, ``list``, ``poll``, ``demo`` and ``serve``. Results go to stdout
(tables fitted to the terminal, or one JSON document with ``--json``),
progress and diagnostics to stderr. Exit status: 0 success, 1 the service
said no, 2 bad arguments or input (nothing was sent), 3 no usable answer
from the service, 4 ``poll`` gave up waiting, 130 interrupted.

Modules: `parser` (arguments), `app` (running a command, exit statuses),
`commands` (one module per group of commands), `terminal` and `tables`
(output, fitted tables, progress), `connection` (address, token, client),
`inputs` (graph and batch files), `simulations` (simulating, and the cache
that makes re-runs replay), `screening` (checks before sending), `sending`
(batches chunk by chunk), `ledger` (accepted submissions of batch runs),
`polling`, `statuses`, `candidates` (the demo's expressions), `expressions`,
`extras` (optional packages), `errors`, `redaction`.
"""

from tallowmere.cli.app import main
from tallowmere.cli.parser import build_parser

__all__ = ["build_parser", "main"]
