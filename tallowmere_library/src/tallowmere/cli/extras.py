"""The optional packages some commands need, and what to say when they are missing."""

from __future__ import annotations

import importlib
from typing import Final

SERVICE_PACKAGES: Final = ("starlette", "uvicorn")
"""What the reference service (``serve``, ``demo``) imports beyond the client's own dependencies."""

SERVICE_EXTRA_HINT: Final = "pip install 'tallowmere[service]'"


def missing_service_packages() -> list[str]:
    """The service's packages that cannot be imported here (those that can are imported: the service needs them)."""
    missing = []
    for name in SERVICE_PACKAGES:
        try:
            importlib.import_module(name)
        except ImportError:
            missing.append(name)
    return missing
