"""The one place where the sibling modules choose their implementation.

The functions that every submission calls (graph complexity and fingerprint,
the MI contract checks, the threshold gates, the named-universe checks, the
pool lookup, the backtest-timing lookups) are written in Python in their
modules and also compiled in :mod:`tallowmere._native`. Each of those modules
ends with::

    from tallowmere._accelerate import accelerate
    accelerate(globals(), ("measure_graph_complexity", "graph_fingerprint"))

which binds the compiled functions under the same names, unless the
accelerators are switched off. Either way the module keeps its Python
functions as the reference: the compiled ones give the same results and the
same errors, and hand every input they do not handle themselves (subclasses,
other types, anything that ends in an error) to them. A module whose globals
are replaced after import (a test's monkeypatch, for example) is served by its
Python functions until they are restored.

Switch: set the environment variable ``TALLOWMERE_PURE_PYTHON`` to ``1`` (any
value but empty or ``0``) before ``tallowmere`` is first imported, and every
module uses its Python functions. :data:`ACCELERATED` tells which is in use.
"""

from __future__ import annotations

import os
from collections.abc import Callable, Iterable
from types import ModuleType
from typing import Any

__all__ = ["ACCELERATED", "PURE_PYTHON_VARIABLE", "accelerate", "implementations"]

PURE_PYTHON_VARIABLE = "TALLOWMERE_PURE_PYTHON"
"""The environment variable that switches the compiled fast paths off."""


def _compiled_module() -> ModuleType | None:
    try:
        from tallowmere import _native
    except ImportError:  # a source checkout without the built extension
        return None
    return _native


_native = _compiled_module()

ACCELERATED: bool = _native is not None and os.environ.get(PURE_PYTHON_VARIABLE, "") in ("", "0")
"""True when the sibling modules use their compiled functions."""

# Module name -> {function name -> the module's Python implementation}.
_PYTHON: dict[str, dict[str, Callable[..., Any]]] = {}


def accelerate(namespace: dict[str, Any], names: Iterable[str]) -> None:
    """Bind the compiled versions of ``names`` in a module's ``namespace``.

    Called once, as the last statement of the module. The Python functions
    stay reachable through :func:`implementations`.
    """
    python = {name: namespace[name] for name in names}
    _PYTHON[namespace["__name__"]] = python
    if _native is None:
        return
    if ACCELERATED:
        for name in python:
            namespace[name] = getattr(_native, name)
    # Registered last, so that the module's namespace as it now stands is the
    # one the compiled functions compare against.
    _native._register_sibling(namespace, python)


def implementations(module_name: str) -> dict[str, dict[str, Callable[..., Any]]]:
    """Both implementations of a module's accelerated functions, by kind.

    ``{"python": {...}, "compiled": {...}}``; ``compiled`` is empty when the
    extension is not built. Used by the tests, which run one suite against both.
    """
    import importlib

    importlib.import_module(module_name)
    python = _PYTHON[module_name]
    compiled = {} if _native is None else {name: getattr(_native, name) for name in python}
    return {"python": dict(python), "compiled": compiled}
