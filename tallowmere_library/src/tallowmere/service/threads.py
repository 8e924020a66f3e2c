"""The threads that do a request's blocking and CPU-heavy work, off the event loop.

Parsing a body, validating it and reading the database run here, so that the
event loop only moves bytes. The pool starts threads as work arrives, up to
its maximum, and retires a thread that has been idle for ``idle_seconds``;
nothing a thread holds outlives it (database connections are pooled by the
store, not kept per thread), so the churn of threads costs no resources.

An awaiting request may be cancelled (a graceful shutdown that ran out of
time): it stops waiting at once, and the thread finishes its call on its own.
"""

from __future__ import annotations

import asyncio
import queue
import threading
from collections.abc import Callable
from concurrent.futures import Future
from typing import Any, TypeVar

T = TypeVar("T")

_STOP = object()


class WorkPool:
    """A bounded pool of threads that retire when idle."""

    def __init__(self, name: str, *, max_threads: int, idle_seconds: float) -> None:
        """Run calls on at most ``max_threads`` threads named after ``name``."""
        if max_threads < 1:
            raise ValueError("max_threads must be at least 1")
        self.name = name
        self.max_threads = max_threads
        self.idle_seconds = idle_seconds
        self._queue: queue.SimpleQueue[Any] = queue.SimpleQueue()
        self._lock = threading.Lock()
        self._waiting = 0
        self._threads: set[threading.Thread] = set()
        self._started = 0
        self._closed = False

    def submit(self, function: Callable[..., T], *args: Any) -> Future[T]:
        """Run ``function(*args)`` on a pool thread; return its future."""
        future: Future[T] = Future()
        with self._lock:
            if self._closed:
                raise RuntimeError(f"the {self.name} pool is closed")
            self._queue.put((future, function, args))
            # Waiting threads take the queued calls; start one more for a call
            # none of them will take, if the pool may grow.
            if self._queue.qsize() > self._waiting and len(self._threads) < self.max_threads:
                self._started += 1
                thread = threading.Thread(target=self._serve, name=f"{self.name}-{self._started}", daemon=True)
                self._threads.add(thread)
                thread.start()
        return future

    async def run(self, function: Callable[..., T], *args: Any) -> T:
        """Await ``function(*args)`` run on a pool thread."""
        return await asyncio.wrap_future(self.submit(function, *args))

    def thread_count(self) -> int:
        """Return how many threads the pool has now."""
        with self._lock:
            return len(self._threads)

    def close(self, timeout: float = 10.0) -> None:
        """Finish the calls already submitted, then stop every thread (waiting up to ``timeout`` seconds)."""
        with self._lock:
            if self._closed:
                return
            self._closed = True
            threads = list(self._threads)
            for _ in threads:
                self._queue.put(_STOP)
        for thread in threads:
            thread.join(timeout)

    def _serve(self) -> None:
        current = threading.current_thread()
        while True:
            with self._lock:
                self._waiting += 1
            try:
                item = self._queue.get(timeout=self.idle_seconds)
            except queue.Empty:
                with self._lock:
                    self._waiting -= 1
                    # Retire, unless a call arrived just now (its caller
                    # counted on this thread and started no other).
                    if self._queue.empty():
                        self._threads.discard(current)
                        return
                continue
            with self._lock:
                self._waiting -= 1
            if item is _STOP:
                with self._lock:
                    self._threads.discard(current)
                return
            future, function, args = item
            if future.set_running_or_notify_cancel():
                try:
                    result = function(*args)
                except BaseException as exc:  # handed to the caller, who decides
                    future.set_exception(exc)
                else:
                    future.set_result(result)
            del item, future, function, args
