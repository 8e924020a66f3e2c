"""The reference Tallowmere signal service: a real local server for the demo, tests and offline work.

It serves the routes the client ``tallowmere.submit.SignalServiceClient``
talks to (``eras``, ``signals/submit``, ``strategies/submit``,
``signals/batch``, ``signals/status/<id>``, ``signals/submissions``), keeps
every submission in SQLite, and moves signals through their lifecycle in a
background worker that re-simulates them with :mod:`tallowmere.simulation`.

In-process, for tests and scripts::

    from tallowmere.service import run_service

    with run_service(db_path="service.db", tokens=["token-a"], speed=50.0) as svc:
        print(svc.base_url)  # http://127.0.0.1:<free port>

From the command line: ``python -m tallowmere serve --port 8080 --db service.db --token token-a``.

The exports are loaded on first use, so that ``tallowmere.service.cli`` (and
the ``tallowmere`` command's parser) can be imported without the web stack.
"""

from __future__ import annotations

import importlib
from typing import TYPE_CHECKING

if TYPE_CHECKING:
    from tallowmere.service.config import EvaluationPolicy, LifecycleTimings, ServiceConfig, ServiceLimits
    from tallowmere.service.runner import RunningService, run_service
    from tallowmere.service.runtime import ServiceRuntime

__all__ = [
    "EvaluationPolicy",
    "LifecycleTimings",
    "RunningService",
    "ServiceConfig",
    "ServiceLimits",
    "ServiceRuntime",
    "run_service",
]

# Exported name -> the submodule that defines it.
_LAZY_EXPORTS: dict[str, str] = {
    "EvaluationPolicy": "tallowmere.service.config",
    "LifecycleTimings": "tallowmere.service.config",
    "ServiceConfig": "tallowmere.service.config",
    "ServiceLimits": "tallowmere.service.config",
    "RunningService": "tallowmere.service.runner",
    "run_service": "tallowmere.service.runner",
    "ServiceRuntime": "tallowmere.service.runtime",
}


def __getattr__(name: str) -> object:
    """Import an export on first access and keep it in the module namespace."""
    module_name = _LAZY_EXPORTS.get(name)
    if module_name is None:
        raise AttributeError(f"module {__name__!r} has no attribute {name!r}")
    value: object = getattr(importlib.import_module(module_name), name)
    globals()[name] = value
    return value


def __dir__() -> list[str]:
    """List the module's names, the lazy exports included."""
    return sorted({*globals(), *__all__})
