"""tallowmere.connect() and connect_async(): settings from the environment, the token checked and
never echoed, the retrying transport on the same URL and timeout; the package surface and metadata."""

from __future__ import annotations

import asyncio
import importlib.metadata
import json
import subprocess
import sys
from collections.abc import Iterator
from typing import Any

import httpx
import pytest

import tallowmere
from service_support import TOKEN_A, running
from submit_support import recorded_graph, signal_kwargs
from tallowmere.service import RunningService
from tallowmere.transport import AsyncRetryingClient, RetryingClient, RetryPolicy

SECRET = "my-secret-token-123"
URL = "https://signals.example.com"


@pytest.fixture(autouse=True)
def clean_environment(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.delenv("TALLOWMERE_BASE_URL", raising=False)
    monkeypatch.delenv("TALLOWMERE_TOKEN", raising=False)


def test_settings_come_from_the_environment_and_the_transport_shares_url_and_timeout(
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    monkeypatch.setenv("TALLOWMERE_BASE_URL", URL)
    monkeypatch.setenv("TALLOWMERE_TOKEN", SECRET)
    with tallowmere.connect(timeout=7.0) as client:
        transport = client._client
        assert isinstance(client, tallowmere.SignalServiceClient)
        assert (client._base_url, client._jwt_token, client._timeout) == (URL, SECRET, 7.0)
        assert isinstance(transport, RetryingClient) and transport.policy == RetryPolicy()
        assert str(transport.base_url) == URL and transport._client.timeout == httpx.Timeout(7.0)
    assert transport._client.is_closed  # the with block closed it


def test_arguments_win_over_the_environment(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("TALLOWMERE_BASE_URL", "https://elsewhere.example.com")
    monkeypatch.setenv("TALLOWMERE_TOKEN", "\n")  # unusable, and never read
    policy = RetryPolicy(max_attempts=2)
    with tallowmere.connect(URL, SECRET, retries=policy) as client:
        assert client._base_url == URL and client._client.policy is policy
    with tallowmere.connect(URL, SECRET, retries=False, timeout=3.0) as client:
        assert isinstance(client._client, httpx.Client) and client._client.timeout == httpx.Timeout(3.0)


@pytest.mark.parametrize(
    ("token", "from_environment", "message"),
    [
        (None, False, "no token: pass token= or set TALLOWMERE_TOKEN"),
        ("", False, "the token passed as token= is empty"),
        ("", True, "the token in TALLOWMERE_TOKEN is empty"),
        (SECRET + "\n", True, "the token in TALLOWMERE_TOKEN contains whitespace"),
        (" " + SECRET, False, "contains whitespace"),
        (SECRET[:5] + "\x00" + SECRET[5:], False, "contains a control character"),
        (SECRET + "\x7f", False, "contains a control character"),
        (SECRET + "é", True, "contains a non-ASCII character"),
        (SECRET + "\u200b", False, "contains a non-ASCII character"),
    ],
)
def test_unusable_tokens_are_refused_without_being_echoed(
    monkeypatch: pytest.MonkeyPatch, token: str | None, from_environment: bool, message: str
) -> None:
    if from_environment:
        monkeypatch.setenv("TALLOWMERE_TOKEN", token or "")
    for connect in (tallowmere.connect, tallowmere.connect_async):
        with pytest.raises(ValueError) as caught:
            connect(URL, None if from_environment else token)
        assert message in str(caught.value)
        assert SECRET[:8] not in str(caught.value) and SECRET[:8] not in repr(caught.value)


def test_a_token_that_is_not_text_is_a_type_error() -> None:
    with pytest.raises(TypeError, match="must be a str, got bytes"):
        tallowmere.connect(URL, SECRET.encode())  # type: ignore[arg-type]


@pytest.mark.parametrize(
    ("base_url", "message"),
    [(None, "no service address: pass base_url= or set TALLOWMERE_BASE_URL"),
     ("http://signals.example.com", "plain http is allowed only to a loopback host"),
     ("signals.example.com", "no scheme")],
)  # fmt: skip
def test_unusable_addresses_are_refused(base_url: str | None, message: str) -> None:
    with pytest.raises(ValueError, match=message):
        tallowmere.connect(base_url, SECRET)


def test_no_repr_shows_the_token() -> None:
    client = tallowmere.connect(URL, SECRET)
    texts = [repr(client), str(client), repr(client._client)]

    async def asynchronous() -> None:
        async with tallowmere.connect_async(URL, SECRET) as async_client:
            texts.extend([repr(async_client), repr(async_client._transport)])
            assert isinstance(async_client._transport, AsyncRetryingClient)
            assert str(async_client._transport.base_url) == URL

    asyncio.run(asynchronous())
    client.close()
    assert texts[0] == f"ConnectedClient(base_url={URL!r}, timeout=30.0, retries=True)"
    assert all(SECRET not in text for text in texts), texts


# ---- the package's surface ------------------------------------------------------------------------


def run_python(code: str) -> str:
    return subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, check=True).stdout


def test_importing_the_package_or_the_compiled_client_loads_none_of_the_new_modules() -> None:
    loaded = json.loads(run_python(
        "import json, sys, tallowmere; before = sorted(m for m in sys.modules if m.startswith('tallowmere'));"
        "import tallowmere.submit; after = [m for m in ('tallowmere.connection', 'tallowmere.async_client',"
        " 'tallowmere.polling', 'tallowmere.transport', 'asyncio') if m in sys.modules];"
        "print(json.dumps([before, after]))"
    ))  # fmt: skip
    assert loaded == [["tallowmere"], []]
    # the blocking client leaves asyncio alone
    assert run_python("import sys, tallowmere; tallowmere.connect('https://signals.example.com', 'tok').close();"
                      "print('asyncio' in sys.modules)").strip() == "False"  # fmt: skip


def test_every_lazy_name_resolves_and_is_listed() -> None:
    for name in tallowmere.__all__:
        assert getattr(tallowmere, name) is not None and name in dir(tallowmere)
    with pytest.raises(AttributeError, match="no attribute 'nonexistent'"):
        tallowmere.nonexistent  # noqa: B018


def test_version_and_metadata_are_complete() -> None:
    metadata = importlib.metadata.metadata("tallowmere")
    assert tallowmere.__version__ == metadata["Version"]
    assert metadata["Summary"] and (metadata["License"] or metadata["License-Expression"])
    urls = dict(entry.split(", ", 1) for entry in metadata.get_all("Project-URL") or [])
    assert {"Homepage", "Documentation", "Source"} <= set(urls)
    shown = subprocess.run([sys.executable, "-m", "pip", "show", "tallowmere"], capture_output=True, text=True,
                           check=True).stdout  # fmt: skip
    fields = dict(line.split(": ", 1) for line in shown.splitlines() if ": " in line)
    assert fields["Home-page"] and fields["License"] and fields["Summary"]


# ---- with two environment variables, end to end --------------------------------------------------


@pytest.fixture(scope="module")
def service(tmp_path_factory: pytest.TempPathFactory) -> Iterator[RunningService]:
    with running(tmp_path_factory.mktemp("connect") / "service.db", speed=500.0) as svc:
        yield svc


def test_submit_wait_and_list_from_the_environment(service: RunningService, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("TALLOWMERE_BASE_URL", service.base_url)
    monkeypatch.setenv("TALLOWMERE_TOKEN", TOKEN_A)
    graph = recorded_graph("close", window=77)
    with tallowmere.connect() as client:
        submitted = client.submit_signal(graph, "top300", **signal_kwargs())
        assert submitted.submission_id is not None
        verdict = client.wait_for_verdict(submitted.submission_id, timeout=30.0, interval=0.02)
        listed = client.list_signal_submissions(limit=5)

    async def asynchronous() -> tuple[Any, Any]:
        async with tallowmere.connect_async() as async_client:
            again = await async_client.submit_signal(graph, "top300", **signal_kwargs())
            final = await async_client.wait_for_verdict(again.submission_id, timeout=30.0, interval=0.02,
                                                        until=tallowmere.FINAL_STATUSES)  # fmt: skip
            return again, final

    again, final = asyncio.run(asynchronous())
    assert verdict.is_terminal and verdict.status in tallowmere.TERMINAL_STATUSES
    assert again.submission_id == submitted.submission_id and final.is_final
    entry = next(entry for entry in listed.entries if entry.submission_id == submitted.submission_id)
    assert (entry.kind, entry.signal_pool_name, entry.named_universe, entry.market_id) == (
        "signal", "momentum", "top300", 1)  # fmt: skip
