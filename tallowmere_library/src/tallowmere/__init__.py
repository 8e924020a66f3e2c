"""Tallowmere: submit research signals and strategies to the Tallowmere signal service.

Start here::

    import tallowmere

    with tallowmere.connect() as client:          # $TALLOWMERE_BASE_URL, $TALLOWMERE_TOKEN
        submitted = client.submit_signal(...)

    async with tallowmere.connect_async() as client:
        submitted = await client.submit_signal(...)

The names below are loaded when first used:

- :func:`connect`, :func:`connect_async`, :class:`ConnectedClient`,
  :func:`check_token` (:mod:`tallowmere.connection`);
- :class:`AsyncSignalServiceClient` (:mod:`tallowmere.async_client`);
- :func:`wait_for_verdict`, :func:`wait_for_verdict_async`,
  :class:`VerdictTimeout` (:mod:`tallowmere.polling`);
- :class:`RetryingClient`, :class:`AsyncRetryingClient`, :class:`RetryPolicy`
  (:mod:`tallowmere.transport`);
- the status sets :data:`TERMINAL_STATUSES`, :data:`FINAL_STATUSES`,
  :data:`SIGNAL_TERMINAL_STATUSES`, :data:`STRATEGY_TERMINAL_STATUSES` and the
  records (:mod:`tallowmere.api.signal_types`);
- :class:`SignalServiceClient` (:mod:`tallowmere.submit`, the compiled client).

The sibling packages hold what the client builds on:
:mod:`tallowmere.simulation` (graph format, local backtests, recorded
timings), :mod:`tallowmere.submissions` (threshold gates, pool lookup),
:mod:`tallowmere.security`, :mod:`tallowmere.telemetry`, :mod:`tallowmere.api`
(result records) and :mod:`tallowmere.agent_onboarding`.

Importing this package imports only ``logging``, ``typing`` and
``importlib``, so ``import tallowmere.submit`` pays only for what the client
needs. Like any library, it leaves logging to the application: the
``tallowmere`` logger has only a ``NullHandler``, so its warnings appear once
the application configures logging (``logging.basicConfig()``, for example).
"""

from __future__ import annotations

import importlib
import logging
from typing import TYPE_CHECKING, Any

__version__ = "0.1.0"

if TYPE_CHECKING:
    from tallowmere.api.signal_types import (
        FINAL_STATUSES as FINAL_STATUSES,
        SIGNAL_TERMINAL_STATUSES as SIGNAL_TERMINAL_STATUSES,
        STRATEGY_TERMINAL_STATUSES as STRATEGY_TERMINAL_STATUSES,
        TERMINAL_STATUSES as TERMINAL_STATUSES,
        BatchSubmitItemResult as BatchSubmitItemResult,
        BatchSubmitResult as BatchSubmitResult,
        StatusResult as StatusResult,
        SubmissionEntry as SubmissionEntry,
        SubmissionListResult as SubmissionListResult,
        SubmitResult as SubmitResult,
    )
    from tallowmere.async_client import AsyncSignalServiceClient as AsyncSignalServiceClient
    from tallowmere.connection import (
        ConnectedClient as ConnectedClient,
        check_token as check_token,
        connect as connect,
        connect_async as connect_async,
    )
    from tallowmere.polling import (
        VerdictTimeout as VerdictTimeout,
        wait_for_verdict as wait_for_verdict,
        wait_for_verdict_async as wait_for_verdict_async,
    )
    from tallowmere.submit import (
        SignalClientResponseError as SignalClientResponseError,
        SignalServiceClient as SignalServiceClient,
        SubmissionRejectedError as SubmissionRejectedError,
    )
    from tallowmere.transport import (
        AsyncRetryingClient as AsyncRetryingClient,
        RetryingClient as RetryingClient,
        RetryPolicy as RetryPolicy,
    )

_LAZY: dict[str, str] = {
    "connect": "tallowmere.connection",
    "connect_async": "tallowmere.connection",
    "ConnectedClient": "tallowmere.connection",
    "check_token": "tallowmere.connection",
    "AsyncSignalServiceClient": "tallowmere.async_client",
    "wait_for_verdict": "tallowmere.polling",
    "wait_for_verdict_async": "tallowmere.polling",
    "VerdictTimeout": "tallowmere.polling",
    "RetryingClient": "tallowmere.transport",
    "AsyncRetryingClient": "tallowmere.transport",
    "RetryPolicy": "tallowmere.transport",
    "SignalServiceClient": "tallowmere.submit",
    "SubmissionRejectedError": "tallowmere.submit",
    "SignalClientResponseError": "tallowmere.submit",
    "TERMINAL_STATUSES": "tallowmere.api.signal_types",
    "FINAL_STATUSES": "tallowmere.api.signal_types",
    "SIGNAL_TERMINAL_STATUSES": "tallowmere.api.signal_types",
    "STRATEGY_TERMINAL_STATUSES": "tallowmere.api.signal_types",
    "SubmitResult": "tallowmere.api.signal_types",
    "StatusResult": "tallowmere.api.signal_types",
    "BatchSubmitResult": "tallowmere.api.signal_types",
    "BatchSubmitItemResult": "tallowmere.api.signal_types",
    "SubmissionListResult": "tallowmere.api.signal_types",
    "SubmissionEntry": "tallowmere.api.signal_types",
}

__all__ = ["__version__", *_LAZY]


def __getattr__(name: str) -> Any:
    module = _LAZY.get(name)
    if module is None:
        raise AttributeError(f"module {__name__!r} has no attribute {name!r}")
    value = getattr(importlib.import_module(module), name)
    globals()[name] = value  # later lookups skip this function
    return value


def __dir__() -> list[str]:
    return sorted({*globals(), *_LAZY})


logging.getLogger(__name__).addHandler(logging.NullHandler())
