"""The local agent configuration file."""

from __future__ import annotations

from collections.abc import Iterator
from pathlib import Path

import pytest

from tallowmere.agent_onboarding import _config


@pytest.fixture(autouse=True)
def _isolated(monkeypatch: pytest.MonkeyPatch, tmp_path: Path) -> Iterator[None]:
    monkeypatch.delenv(_config.CONFIG_PATH_VARIABLE, raising=False)
    monkeypatch.delenv("XDG_CONFIG_HOME", raising=False)
    monkeypatch.setenv("HOME", str(tmp_path / "home"))
    _config.reload()
    yield
    _config.reload()


def test_path_prefers_the_variable_then_xdg_then_home(monkeypatch: pytest.MonkeyPatch, tmp_path: Path) -> None:
    monkeypatch.setenv("XDG_CONFIG_HOME", "relative/dir")
    assert _config.config_path() == tmp_path / "home" / ".config" / "tallowmere" / "agent.toml"
    monkeypatch.setenv("XDG_CONFIG_HOME", str(tmp_path / "xdg"))
    assert _config.config_path() == tmp_path / "xdg" / "tallowmere" / "agent.toml"
    monkeypatch.setenv(_config.CONFIG_PATH_VARIABLE, str(tmp_path / "explicit.toml"))
    assert _config.config_path() == tmp_path / "explicit.toml"


def test_file_is_read_once_per_path_until_reload(monkeypatch: pytest.MonkeyPatch, tmp_path: Path) -> None:
    assert _config.get("named_universe") is None and _config.get("named_universe", "top300") == "top300"
    path = tmp_path / "agent.toml"
    path.write_text('named_universe = "top300"\n[limits]\nmax_batch = 10\n')
    monkeypatch.setenv(_config.CONFIG_PATH_VARIABLE, str(path))
    assert _config.get("named_universe") == "top300" and _config.get("limits") == {"max_batch": 10}
    path.write_text('named_universe = "liquid150"\n')
    assert _config.get("named_universe") == "top300"
    _config.reload()
    assert _config.get("named_universe") == "liquid150"


@pytest.mark.parametrize(
    ("content", "message"),
    [(b"named_universe = top300\n", "is not valid TOML"), (b"named_universe = '\xff'\n", "cannot be read")],
)
def test_unusable_file_names_itself_and_is_not_cached(
    monkeypatch: pytest.MonkeyPatch, tmp_path: Path, content: bytes, message: str
) -> None:
    path = tmp_path / "agent.toml"
    path.write_bytes(content)
    monkeypatch.setenv(_config.CONFIG_PATH_VARIABLE, str(path))
    with pytest.raises(ValueError, match=f"agent configuration {path} {message}"):
        _config.get("named_universe")
    path.write_text('named_universe = "top300"\n')
    assert _config.get("named_universe") == "top300"
