"""Structured events of the library's public surfaces, on the standard logging system.

Each call of :func:`log_library_surface_event` emits exactly one record on the
logger ``tallowmere.telemetry``: at ``WARNING`` when the outcome is
``"error"``, at ``INFO`` otherwise. The record carries

- a plain message, for example
  ``Submission error sub_service=submit component=transport reason=transport_error``;
- the whole event as one dict in the record attribute ``surface_event``, for
  structured handlers (JSON logs, metrics);
- when the event names its source file, that file, line and function as the
  record's ``pathname``/``filename``, ``lineno`` and ``funcName``, so that a
  formatter using ``%(filename)s:%(lineno)d`` points at the code that
  reported the event (native code included) rather than at this module.

The library installs a :class:`logging.NullHandler` on its logger, so nothing
is printed unless the application configures logging, for example::

    import logging
    logging.basicConfig(level=logging.INFO)
"""

from __future__ import annotations

import logging
from collections.abc import Mapping
from typing import TypedDict

__all__ = ["SURFACE_EVENT_ATTRIBUTE", "TELEMETRY_LOGGER_NAME", "SurfaceEvent", "log_library_surface_event"]

TELEMETRY_LOGGER_NAME = "tallowmere.telemetry"
"""The logger every surface event is emitted on."""

SURFACE_EVENT_ATTRIBUTE = "surface_event"
"""The :class:`logging.LogRecord` attribute that holds the event dict."""

_logger = logging.getLogger(TELEMETRY_LOGGER_NAME)
_logger.addHandler(logging.NullHandler())


class SurfaceEvent(TypedDict):
    """One event of a library surface, as returned and as attached to the log record."""

    surface: str
    outcome: str
    sub_service: str
    component: str
    metadata: dict[str, object]
    source_function: str | None
    source_file: str | None
    source_line: int | None


def log_library_surface_event(
    surface: str,
    outcome: str,
    *,
    sub_service: str,
    component: str,
    metadata: Mapping[str, object] | None = None,
    source_function: str | None = None,
    source_file: str | None = None,
    source_line: int | None = None,
) -> SurfaceEvent:
    """Emit one structured record describing an event and return the event.

    ``surface`` names the public surface (for example ``Submission``),
    ``outcome`` what happened (``"error"`` logs at WARNING, anything else at
    INFO), ``sub_service`` and ``component`` where; ``metadata`` adds details
    (copied, so later changes by the caller do not alter the event). The
    ``source_*`` arguments name the code that reported the event.
    """
    event: SurfaceEvent = {
        "surface": surface,
        "outcome": outcome,
        "sub_service": sub_service,
        "component": component,
        "metadata": dict(metadata) if metadata is not None else {},
        "source_function": source_function,
        "source_file": source_file,
        "source_line": source_line,
    }
    level = logging.WARNING if outcome == "error" else logging.INFO
    if not _logger.isEnabledFor(level):
        return event
    message = "%s %s sub_service=%s component=%s" + " %s=%s" * len(event["metadata"])
    arguments: list[object] = [surface, outcome, sub_service, component]
    for key, value in event["metadata"].items():
        arguments.extend((key, value))
    extra = {SURFACE_EVENT_ATTRIBUTE: event}
    if source_file is None:
        _logger.log(level, message, *arguments, extra=extra, stacklevel=2)
        return event
    record = _logger.makeRecord(
        _logger.name,
        level,
        source_file,
        source_line if source_line is not None else 0,
        message,
        tuple(arguments),
        None,
        func=source_function,
        extra=extra,
    )
    _logger.handle(record)
    return event
