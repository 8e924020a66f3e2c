"""The background worker that moves submissions through their lifecycle.

One thread owns every status change after intake. It takes the submissions
whose next step is due (earliest first), judges each one, and writes the new
statuses of a round together, in one short transaction; its thread runs at a
lower scheduling priority than the requests'. Due times are stored with the
submissions, so a restarted service resumes where the last one stopped (a
step that was due while the service was down runs at once).

Steps and their nominal waits (divided by the service's ``--speed``):

=====================  ======  ==============================================
status                 wait    next step
=====================  ======  ==============================================
``signal_submitted``   2 s     re-simulation → ``signal_found`` / ``signal_is_rejected``
``signal_found``       10 s    out-of-sample evaluation → ``signal_os_passed`` / ``signal_os_failed``
``signal_os_passed``   10 s    usefulness review → ``signal_useful`` / ``signal_not_useful``
``strategy_submitted`` 2 s     review → ``strategy_accepted`` / ``strategy_rejected``
=====================  ======  ==============================================

An unexpected failure of a step ends the signal in ``signal_server_side_error``
(``signal_useful_transition_failed`` for the usefulness review) with the
failure's text in ``failure_message``; it is never retried in a loop.
"""

from __future__ import annotations

import logging
import math
import os
import sys
import threading
import time
from collections.abc import Callable
from typing import Final

from tallowmere.service.config import ServiceConfig
from tallowmere.service.evaluation import (
    Resimulator,
    Verdict,
    judge_invalid_graph,
    judge_out_of_sample,
    judge_signal_resimulation,
    judge_strategy,
    judge_usefulness,
    rejection,
    simulator_resimulation,
)
from tallowmere.service.lifecycle import (
    PENDING_STATUSES,
    SIGNAL_FOUND,
    SIGNAL_IS_REJECTED,
    SIGNAL_OS_PASSED,
    SIGNAL_SERVER_SIDE_ERROR,
    SIGNAL_SUBMITTED,
    SIGNAL_USEFUL_TRANSITION_FAILED,
    STRATEGY_REJECTED,
    STRATEGY_SUBMITTED,
)
from tallowmere.service.records import SubmissionRecord, iso_timestamp
from tallowmere.service.storage import PoolKey, Step, StorageClosedError, SubmissionStore, Transition

logger = logging.getLogger("tallowmere.service.worker")

DUE_BATCH: Final = 32
"""Submissions taken from the database per round."""

IDLE_POLL_SECONDS: Final = 0.5
"""The longest the worker sleeps without looking for due work."""

ROUND_WRITE_SECONDS: Final = 0.1
"""The longest a judged status change waits to be written with the next ones of its round."""


def lower_thread_priority(niceness: int) -> bool:
    """Raise the calling thread's niceness by ``niceness`` (at most to 19); tell whether it could.

    Linux schedules each thread on its own, and ``setpriority`` on a thread
    id changes that thread alone; elsewhere nothing is changed.
    """
    if niceness == 0 or not sys.platform.startswith("linux"):
        return False
    thread_id = threading.get_native_id()
    try:
        current = os.getpriority(os.PRIO_PROCESS, thread_id)
        os.setpriority(os.PRIO_PROCESS, thread_id, min(19, current + niceness))
    except OSError:
        return False
    return True


class LifecycleWorker:
    """Advances due submissions in a background thread (or one round at a time with `run_once`)."""

    def __init__(
        self,
        store: SubmissionStore,
        config: ServiceConfig,
        *,
        resimulator: Resimulator = simulator_resimulation,
        clock: Callable[[], float] = time.time,
    ) -> None:
        """Advance the submissions of ``store`` on ``config``'s timings, re-simulating with ``resimulator``."""
        self.store = store
        self.config = config
        self.resimulator = resimulator
        self.clock = clock
        self._wake = threading.Event()
        self._stop = threading.Event()
        # The time the worker looks for due work again by itself; new work due
        # later needs no wake-up (infinite while it is deciding how long to sleep).
        self._sleeping_until = math.inf
        self._thread: threading.Thread | None = None

    def start(self) -> None:
        """Start the background thread."""
        if self._thread is not None:
            raise RuntimeError("the lifecycle worker is already running")
        self._thread = threading.Thread(target=self._run, name="tallowmere-lifecycle-worker", daemon=True)
        self._thread.start()

    def stop(self, timeout: float = 30.0) -> None:
        """Ask the thread to stop after its current step and wait for it."""
        self._stop.set()
        self._wake.set()
        if self._thread is not None:
            self._thread.join(timeout)
            if self._thread.is_alive():
                logger.warning("lifecycle worker did not stop within %.1f s", timeout)
            self._thread = None

    def wake(self, due_at: float | None = None) -> None:
        """Look for due work now; given the epoch time ``due_at`` of new work, only if it falls due
        before the worker would look anyway (called after each accepted submission)."""
        if due_at is None or due_at < self._sleeping_until:
            self._wake.set()

    def _run(self) -> None:
        # Re-simulations take a core for milliseconds each; requests go first.
        lower_thread_priority(self.config.limits.worker_niceness)
        while not self._stop.is_set():
            try:
                if self.run_once():
                    continue
                self._sleeping_until = math.inf
                next_due = self.store.next_due_at()
            except StorageClosedError:
                return
            except Exception:
                logger.exception("lifecycle worker round failed")
                next_due = None
            now = self.clock()
            wait = IDLE_POLL_SECONDS if next_due is None else min(max(next_due - now, 0.0), IDLE_POLL_SECONDS)
            self._sleeping_until = now + wait
            self._wake.wait(wait)
            self._wake.clear()

    def run_once(self) -> int:
        """Advance every submission due now (at most `DUE_BATCH`); return how many were advanced.

        The status changes are written together, in one transaction per
        `ROUND_WRITE_SECONDS` of judging, so that the worker takes few of the
        writer's syncs from the submissions.
        """
        advanced = 0
        steps: list[Step] = []
        unwritten_since = time.monotonic()
        for record in self.store.due(self.clock(), DUE_BATCH):
            if self._stop.is_set():
                break
            verdict = self._judge(record)
            now = self.clock()
            next_action_at = None
            if verdict.status in PENDING_STATUSES:
                next_action_at = now + self.config.scaled_wait(verdict.status)
            transition = Transition(verdict.status, verdict.outcome, next_action_at, verdict.pool_pnl)
            steps.append(Step(record, transition, now, iso_timestamp(now)))
            if time.monotonic() - unwritten_since >= ROUND_WRITE_SECONDS:
                advanced += sum(self.store.advance(steps))
                steps = []
                unwritten_since = time.monotonic()
        return advanced + sum(self.store.advance(steps))

    def _judge(self, record: SubmissionRecord) -> Verdict:
        if record.kind == "strategy":
            failure_status = STRATEGY_REJECTED
        elif record.status == SIGNAL_OS_PASSED:
            failure_status = SIGNAL_USEFUL_TRANSITION_FAILED
        else:
            failure_status = SIGNAL_SERVER_SIDE_ERROR
        try:
            return self._step(record)
        except Exception as exc:
            logger.exception("lifecycle step of %s (%s) failed", record.submission_id, record.status)
            message = f"{type(exc).__name__}: {exc}"
            detail = {"reason": "server_side_error", "message": message}
            return rejection(failure_status, "server_side_error", message, detail)

    def _step(self, record: SubmissionRecord) -> Verdict:
        policy = self.config.policy
        if record.status == SIGNAL_SUBMITTED:
            references = self.store.pool_pnls(
                PoolKey(record.market_id, record.era_number, record.pool_name), exclude=record.submission_id
            )
            try:
                result = self.resimulator(record.request["graph"], references)
            except ValueError as exc:
                return judge_invalid_graph(SIGNAL_IS_REJECTED, str(exc))
            return judge_signal_resimulation(record, result, policy, pool_size=len(references))
        if record.status == SIGNAL_FOUND:
            return judge_out_of_sample(record, policy)
        if record.status == SIGNAL_OS_PASSED:
            return judge_usefulness(record, policy)
        if record.status == STRATEGY_SUBMITTED:
            try:
                result = self.resimulator(record.request["graph"], [])
            except ValueError as exc:
                return judge_invalid_graph(STRATEGY_REJECTED, str(exc))
            return judge_strategy(result)
        raise RuntimeError(f"submission {record.submission_id} is due in status {record.status!r}, which has no step")
