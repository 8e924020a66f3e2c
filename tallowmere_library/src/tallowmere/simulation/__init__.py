"""Local simulation support: the expression graph format and its contracts.

The submodules are imported on demand so that ``import tallowmere.submit``
stays cheap:

- :mod:`tallowmere.simulation.graph_complexity`: the graph format, its depth
  and node count, and its fingerprint;
- :mod:`tallowmere.simulation.backtest_timing`: timings of local backtests,
  recorded per graph and required before a submission;
- :mod:`tallowmere.simulation.mi_contract`: checks on the mutual-information
  values sent beside the in-sample statistics;
- :mod:`tallowmere.simulation.named_universe`: normalisation and safety of
  named universes.

The local simulator is exported here as well: :func:`simulate_signal`,
:func:`simulate_signals` (many graphs, on threads or any executor),
:class:`SimulationResult`, :class:`MarketPanel` and :func:`default_panel`.
They are loaded on first use, so importing this package does not import
numpy.
"""

from __future__ import annotations

# Not imported from typing, which this package must not pay for at import
# time; type checkers treat any TYPE_CHECKING name as true.
TYPE_CHECKING = False
if TYPE_CHECKING:
    from tallowmere.simulation.market_panel import MarketPanel
    from tallowmere.simulation.parallel import simulate_signals
    from tallowmere.simulation.simulator import SimulationResult, simulate_signal
    from tallowmere.simulation.synthetic_market import default_panel

__all__ = ["MarketPanel", "SimulationResult", "default_panel", "simulate_signal", "simulate_signals"]

# Exported name -> the submodule that defines it.
_LAZY_EXPORTS: dict[str, str] = {
    "MarketPanel": "tallowmere.simulation.market_panel",
    "SimulationResult": "tallowmere.simulation.simulator",
    "default_panel": "tallowmere.simulation.synthetic_market",
    "simulate_signal": "tallowmere.simulation.simulator",
    "simulate_signals": "tallowmere.simulation.parallel",
}


def __getattr__(name: str) -> object:
    """Import a simulator export on first access and keep it in the module namespace."""
    module_name = _LAZY_EXPORTS.get(name)
    if module_name is None:
        raise AttributeError(f"module {__name__!r} has no attribute {name!r}")
    from importlib import import_module

    value: object = getattr(import_module(module_name), name)
    globals()[name] = value
    return value


def __dir__() -> list[str]:
    """List the module's names, the lazy exports included."""
    return sorted({*globals(), *__all__})
