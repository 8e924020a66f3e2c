"""One service instance's moving parts, built from its configuration, and how they stop."""

from __future__ import annotations

import asyncio
import time
from collections.abc import Callable

from starlette.applications import Starlette

from tallowmere.service.app import ServiceParts, create_app
from tallowmere.service.auth import TokenRegistry
from tallowmere.service.bodies import BodyReader
from tallowmere.service.catalog import EraCatalog, load_default_catalog
from tallowmere.service.config import ServiceConfig
from tallowmere.service.evaluation import Resimulator, simulator_resimulation
from tallowmere.service.faults import FaultPlan
from tallowmere.service.idempotency import InFlightKeys
from tallowmere.service.intake import SubmissionIntake
from tallowmere.service.storage import SubmissionStore
from tallowmere.service.threads import WorkPool
from tallowmere.service.validation import SubmissionValidator
from tallowmere.service.worker import LifecycleWorker


class ServiceRuntime:
    """The store, threads, worker and application of one service instance.

    Building it opens (or creates) the database, which it keeps to itself
    until `close`; `start` starts the lifecycle worker; `close` stops the
    worker and the work threads and closes the database. The HTTP server
    that serves `app` is the caller's to run.
    """

    def __init__(
        self,
        config: ServiceConfig,
        *,
        resimulator: Resimulator = simulator_resimulation,
        clock: Callable[[], float] = time.time,
    ) -> None:
        """Build every part of the instance described by ``config``."""
        self.config = config
        limits = config.limits
        self.catalog = EraCatalog(config.eras if config.eras is not None else load_default_catalog())
        # One read connection per work thread, one for the lifecycle worker.
        self.store = SubmissionStore(
            config.db_path,
            read_connections=limits.work_threads + 1,
            write_busy_timeout=limits.write_busy_timeout,
            read_busy_timeout=limits.read_busy_timeout,
        )
        self.pool = WorkPool("tallowmere-work", max_threads=limits.work_threads, idle_seconds=limits.thread_idle_seconds)
        self.worker = LifecycleWorker(self.store, config, resimulator=resimulator, clock=clock)
        self.in_flight = InFlightKeys()
        self.fault_plan = FaultPlan() if config.faults else None
        self.intake = SubmissionIntake(
            self.store,
            SubmissionValidator(self.catalog),
            config,
            self.pool,
            self.in_flight,
            on_accepted=self.worker.wake,
            clock=clock,
        )
        self.app: Starlette = create_app(
            ServiceParts(
                catalog=self.catalog,
                store=self.store,
                intake=self.intake,
                pool=self.pool,
                bodies=BodyReader(limits.large_body_slots),
                submission_slots=asyncio.Semaphore(limits.submission_slots),
                tokens=TokenRegistry(config.tokens),
                fault_plan=self.fault_plan,
            )
        )

    def start(self) -> None:
        """Start the lifecycle worker."""
        self.worker.start()

    def close(self) -> None:
        """Stop the worker and the work threads, then close the database."""
        self.worker.stop()
        self.pool.close()
        self.store.close()
