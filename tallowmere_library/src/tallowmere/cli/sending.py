"""Sending a batch chunk by chunk, keeping every chunk's results whatever happens to a later one.

``submit_signals_batch`` sends its chunks itself, but raises for a malformed
5xx answer and so loses the results of the chunks before it. The command line
therefore hands the client one chunk at a time and records each item's fate
as its chunk's answer arrives:

- ``accepted``: the service stored it (it has a submission id);
- ``refused``: the service answered no for it;
- ``unanswered``: it was sent, but no usable answer came back (no connection,
  a page that is not JSON, Ctrl-C while waiting): the service may have stored
  it, and sending it again with the same key is safe (it is replayed);
- ``not_sent``: sending stopped before its chunk went out.

Sending stops at the first chunk that gets no usable answer or is refused as
a whole: the chunks after it are not sent.
"""

from __future__ import annotations

from collections.abc import Callable, Mapping, Sequence
from dataclasses import dataclass
from typing import Any, Final, Literal

import tallowmere.submit as submit
from tallowmere.cli.connection import ServiceAddress, refusal_text, request_failure
from tallowmere.cli.errors import EXIT_REFUSED, EXIT_UNREACHABLE, EXIT_USAGE
from tallowmere.submit import SignalClientResponseError, SignalServiceClient

Outcome = Literal["accepted", "refused", "unanswered", "not_sent"]

MAX_CHUNK_SIZE: Final = 100
"""The most signals one batch request carries (the client's own chunk size)."""


def client_chunk_size() -> int:
    """The client's chunk size, read when asked (tests may lower it)."""
    size = submit._SIGNALS_BATCH_CLIENT_CHUNK_SIZE
    return size if isinstance(size, int) and size > 0 else MAX_CHUNK_SIZE


@dataclass
class ItemFate:
    """What became of one item: its outcome and, when the service answered, what it said."""

    outcome: Outcome = "not_sent"
    status_code: int | None = None
    error: str | None = None
    submission_id: str | None = None
    body: Any = None


@dataclass
class SendReport:
    """The fate of every item (by position), the chunks sent and answered, and why sending stopped.

    ``stop_exit_code`` is the exit status that the stop calls for: 1 when a
    chunk was refused as a whole, 3 when it got no usable answer, 2 when the
    client refused it before sending.
    """

    fates: list[ItemFate]
    chunk_size: int
    chunks_sent: int = 0
    chunks_answered: int = 0
    stopped: str | None = None
    stop_exit_code: int | None = None
    interrupted: bool = False

    def count(self, outcome: Outcome) -> int:
        """How many items had ``outcome``."""
        return sum(1 for fate in self.fates if fate.outcome == outcome)


ChunkListener = Callable[[list[int]], None]
"""Told the positions of the items a chunk got accepted, as soon as its answer is in."""


def send_in_chunks(
    client: SignalServiceClient,
    address: ServiceAddress,
    items: Sequence[Mapping[str, Any]],
    *,
    chunk_size: int,
    report: SendReport | None = None,
    on_chunk: ChunkListener = lambda accepted: None,
    on_progress: Callable[[int], None] = lambda done: None,
) -> SendReport:
    """Send ``items`` as batches of ``chunk_size``, one after another, recording every item's fate in ``report``.

    Ctrl-C propagates, with ``report`` up to date: the chunk in flight is
    ``unanswered``, the later ones ``not_sent``.
    """
    report = report if report is not None else SendReport([ItemFate() for _ in items], chunk_size)
    for start in range(0, len(items), chunk_size):
        chunk = [dict(item) for item in items[start : start + chunk_size]]
        positions = range(start, start + len(chunk))
        for position in positions:
            report.fates[position].outcome = "unanswered"
        report.chunks_sent += 1
        try:
            result = client.submit_signals_batch(chunk)
        except SignalClientResponseError as exc:
            report.stopped = (
                f"the service's answer to POST /signals/batch (HTTP {exc.status_code}) is not the JSON expected"
            )
            report.stop_exit_code = EXIT_UNREACHABLE
            break
        except ValueError as exc:
            failure = request_failure(exc, address, "GET /eras")
            for position in positions:
                report.fates[position].outcome = "not_sent"
            report.chunks_sent -= 1
            report.stopped = failure.message if failure is not None else f"the client refused to send it: {exc}"
            report.stop_exit_code = failure.exit_code if failure is not None else EXIT_USAGE
            break
        if not result.results:
            if result.status_code == 0:
                report.stopped = f"no answer from {address.base_url}: {result.error or 'no answer'}"
                report.stop_exit_code = EXIT_UNREACHABLE
            else:
                reason = refusal_text(result.status_code, result.error, result.body, address)
                for position in positions:
                    report.fates[position] = ItemFate("refused", result.status_code, result.error, None, result.body)
                report.chunks_answered += 1
                report.stopped = f"the service refused the whole chunk: {reason}"
                report.stop_exit_code = EXIT_REFUSED
            break
        report.chunks_answered += 1
        accepted: list[int] = []
        for item in result.results:
            if not 0 <= item.index < len(chunk):
                continue
            position = start + item.index
            outcome: Outcome = "accepted" if item.error is None and item.submission_id else "refused"
            report.fates[position] = ItemFate(outcome, item.status_code, item.error, item.submission_id, item.body)
            if outcome == "accepted":
                accepted.append(position)
        on_chunk(accepted)
        on_progress(start + len(chunk))
    return report
