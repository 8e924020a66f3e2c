"""Finding a signal pool in an era of the catalog.

An era lists its open signal pools under ``signal_pools``, in one of two
shapes:

- a list of pools, each a dict or an object with a ``name`` (a pool without
  ``name`` is known by its ``signal_pool_name``); the first pool of that name
  is the one selected;
- an object keyed by pool name, whose value is the pool.

The era itself may be a dict or an object with a ``signal_pools`` attribute.
The lookup never raises: an era of another shape, an era without pools, or
a name found nowhere gives ``None``, and the caller reports the pool as
unknown.
"""

from __future__ import annotations

from collections.abc import Mapping

from tallowmere._accelerate import accelerate

__all__ = ["selected_signal_pool_from_era_config"]


def _field(container: object, name: str) -> object:
    """Read ``name`` from a mapping or an attribute object; None when absent or unreadable."""
    if isinstance(container, Mapping):
        try:
            return container.get(name)
        except Exception:
            return None
    try:
        return getattr(container, name, None)
    except Exception:
        return None


def _pool_name(pool: object) -> object:
    name = _field(pool, "name")
    return _field(pool, "signal_pool_name") if name is None else name


def selected_signal_pool_from_era_config(era_config: object, signal_pool_name: object) -> object | None:
    """Return the pool of ``era_config`` named ``signal_pool_name``, or None.

    The pool is returned as the era holds it (a dict or an attribute object).
    """
    if not isinstance(signal_pool_name, str) or era_config is None:
        return None
    pools = _field(era_config, "signal_pools")
    if isinstance(pools, Mapping):
        try:
            pool: object = pools.get(signal_pool_name)
        except Exception:
            return None
        return pool
    if not isinstance(pools, (list, tuple)):
        return None
    for pool in pools:
        name = _pool_name(pool)
        if isinstance(name, str) and name == signal_pool_name:
            return pool
    return None


# The compiled versions of these functions, unless switched off (see tallowmere._accelerate).
accelerate(globals(), ("selected_signal_pool_from_era_config",))
