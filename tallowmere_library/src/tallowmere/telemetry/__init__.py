"""Structured events the library emits on the standard :mod:`logging` system.

See :mod:`tallowmere.telemetry.logging_style`.
"""
