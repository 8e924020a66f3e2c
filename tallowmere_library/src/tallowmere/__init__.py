"""Tallowmere: submit research signals and strategies to the Tallowmere signal service.

The submission client lives in the compiled module :mod:`tallowmere.submit`
(``from tallowmere.submit import SignalServiceClient``). The sibling packages
hold what it builds on: :mod:`tallowmere.simulation` (graph format, local
backtests, recorded timings), :mod:`tallowmere.submissions` (threshold gates,
pool lookup), :mod:`tallowmere.security`, :mod:`tallowmere.telemetry`,
:mod:`tallowmere.api` (result records) and :mod:`tallowmere.agent_onboarding`.

Importing this package imports nothing else but ``logging``, so
``import tallowmere.submit`` pays only for what the client needs. Like any
library, it leaves logging to the application: the ``tallowmere`` logger has
only a ``NullHandler``, so its warnings appear once the application
configures logging (``logging.basicConfig()``, for example).
"""

import logging

__version__ = "0.1.0"

logging.getLogger(__name__).addHandler(logging.NullHandler())
