"""Both implementations of the accelerated sibling functions, for one test suite.

A test module of a sibling module declares::

    impl = implementation_fixture("tallowmere.simulation.mi_contract")

and its tests take ``impl`` and call ``impl._is_finite_number(...)``: each test
then runs once against the compiled functions and once against the Python ones.
"""

from __future__ import annotations

from collections.abc import Callable
from types import SimpleNamespace
from typing import Any

import pytest

from tallowmere._accelerate import implementations

KINDS = ("compiled", "python")


def implementation_fixture(module_name: str) -> Any:
    @pytest.fixture(params=KINDS, scope="module")
    def impl(request: pytest.FixtureRequest) -> SimpleNamespace:
        functions = implementations(module_name)[request.param]
        assert functions, f"no {request.param} implementation of {module_name}"
        return SimpleNamespace(kind=request.param, **functions)

    return impl


def outcome(function: Callable[..., Any], *args: Any, **kwargs: Any) -> tuple[str, Any]:
    """("ok", result) or ("raised", (exception type, message)), to compare two implementations."""
    try:
        return "ok", function(*args, **kwargs)
    except Exception as exc:  # noqa: BLE001 - any exception is part of the outcome
        return "raised", (type(exc), str(exc))
