"""The local agent configuration, a TOML file of top-level keys.

The file is found at

1. ``$TALLOWMERE_AGENT_CONFIG`` when that variable is set and not empty;
2. else ``$XDG_CONFIG_HOME/tallowmere/agent.toml``, with ``XDG_CONFIG_HOME``
   defaulting to ``~/.config`` (a relative ``XDG_CONFIG_HOME`` is ignored, as
   the XDG convention asks).

Example ``agent.toml``::

    named_universe = "top300"

The file is read on the first :func:`get` and the result is kept; :func:`reload`
reads it again on the next :func:`get`, and a change of the variables above
(a different path) is noticed by itself. A missing file is an empty
configuration. A file that cannot be read or is not valid TOML raises
``ValueError`` naming the file, and is read again on the next call.
"""

from __future__ import annotations

import os
import threading
import tomllib
from pathlib import Path

__all__ = ["CONFIG_PATH_VARIABLE", "config_path", "get", "reload"]

CONFIG_PATH_VARIABLE = "TALLOWMERE_AGENT_CONFIG"
"""The environment variable that names the configuration file explicitly."""

_lock = threading.Lock()
_loaded: tuple[Path, dict[str, object]] | None = None


def config_path() -> Path:
    """Return the path of the agent configuration file (which may not exist)."""
    explicit = os.environ.get(CONFIG_PATH_VARIABLE)
    if explicit:
        return Path(explicit).expanduser()
    xdg_config_home = os.environ.get("XDG_CONFIG_HOME")
    if xdg_config_home and Path(xdg_config_home).is_absolute():
        base = Path(xdg_config_home)
    else:
        base = Path.home() / ".config"
    return base / "tallowmere" / "agent.toml"


def get(key: str, default: object = None) -> object:
    """Return the value of the top-level ``key``, or ``default`` when absent."""
    return _configuration().get(key, default)


def reload() -> None:
    """Forget the configuration read so far; the next :func:`get` reads the file again."""
    global _loaded
    with _lock:
        _loaded = None


def _configuration() -> dict[str, object]:
    global _loaded
    path = config_path()
    with _lock:
        if _loaded is None or _loaded[0] != path:
            _loaded = (path, _read(path))
        return _loaded[1]


def _read(path: Path) -> dict[str, object]:
    try:
        with path.open("rb") as handle:
            return tomllib.load(handle)
    except FileNotFoundError:
        return {}
    except tomllib.TOMLDecodeError as exc:
        raise ValueError(f"agent configuration {path} is not valid TOML: {exc}") from None
    except (OSError, UnicodeDecodeError) as exc:
        raise ValueError(f"agent configuration {path} cannot be read: {exc}") from None
