"""wait_for_verdict (blocking and asynchronous): what it returns, when it raises, how often it asks."""

from __future__ import annotations

import asyncio
from typing import Any

import pytest

from tallowmere.api.signal_types import FINAL_STATUSES, StatusResult
from tallowmere.polling import VerdictTimeout, wait_for_verdict, wait_for_verdict_async


def status(value: str | None, status_code: int = 200, error: str | None = None) -> StatusResult:
    return StatusResult(status_code=status_code, body={}, status=value, signal_pool_name=None,
                        strategy_pool_name=None, error=error)  # fmt: skip


PENDING = status("signal_submitted")


class Scripted:
    """A client whose status answers come from a script (the last one repeated), with a fake clock."""

    def __init__(self, answers: list[StatusResult]) -> None:
        self.answers = list(answers)
        self.queries = 0
        self.sleeps: list[float] = []
        self.now = 0.0

    def get_signal_status(self, submission_id: str) -> StatusResult:
        self.queries += 1
        return self.answers.pop(0) if len(self.answers) > 1 else self.answers[0]

    def sleep(self, seconds: float) -> None:
        self.sleeps.append(seconds)
        self.now += seconds


class AsyncScripted(Scripted):
    async def get_signal_status(self, submission_id: str) -> StatusResult:  # type: ignore[override]
        return Scripted.get_signal_status(self, submission_id)

    async def async_sleep(self, seconds: float) -> None:
        self.sleep(seconds)


def wait(driver: str, answers: list[StatusResult], **options: Any) -> tuple[StatusResult, Scripted]:
    options.setdefault("timeout", 10.0)
    options.setdefault("interval", 1.0)
    if driver == "sync":
        client = Scripted(answers)
        return wait_for_verdict(client, "s-1", clock=lambda: client.now, sleep=client.sleep, **options), client
    async_client = AsyncScripted(answers)
    result = asyncio.run(wait_for_verdict_async(async_client, "s-1", clock=lambda: async_client.now,
                                                sleep=async_client.async_sleep, **options))  # fmt: skip
    return result, async_client


DRIVERS = pytest.mark.parametrize("driver", ["sync", "async"])


@DRIVERS
@pytest.mark.parametrize(
    ("answers", "options", "status_code", "final_status", "queries"),
    [
        ([PENDING, PENDING, status("signal_found")], {}, 200, "signal_found", 3),
        ([status("strategy_submitted"), status("strategy_accepted")], {}, 200, "strategy_accepted", 2),
        ([status("signal_found"), status("signal_os_passed"), status("signal_useful")],
         {"until": FINAL_STATUSES}, 200, "signal_useful", 3),
        # lasting refusals and lost answers end the wait at once
        ([status(None, 404, "unknown submission"), status("signal_found")], {}, 404, None, 1),
        ([status(None, 401, "unknown bearer token")], {}, 401, None, 1),
        ([status(None, 0, "ConnectError: refused"), status("signal_found")], {}, 0, None, 1),
        # passing refusals are asked again
        ([status(None, 429, "rate_limited"), status(None, 503, "busy"), status("signal_is_rejected")], {}, 200,
         "signal_is_rejected", 3),
    ],
)  # fmt: skip
def test_what_ends_the_wait(driver: str, answers: list[StatusResult], options: dict[str, Any], status_code: int,
                            final_status: str | None, queries: int) -> None:  # fmt: skip
    result, client = wait(driver, answers, **options)
    assert (result.status_code, result.status, client.queries) == (status_code, final_status, queries)
    assert client.sleeps == [1.0] * (queries - 1)


@DRIVERS
def test_the_deadline_raises_with_the_latest_answer(driver: str) -> None:
    latest = status("signal_found")
    with pytest.raises(VerdictTimeout) as caught:
        wait(driver, [PENDING, latest], timeout=2.5, until=FINAL_STATUSES)
    assert isinstance(caught.value, TimeoutError) and caught.value.last is latest
    assert "'s-1' has no verdict after 2.5 s (latest status: signal_found)" in str(caught.value)


@DRIVERS
def test_the_deadline_can_be_a_flag_instead(driver: str) -> None:
    result, client = wait(driver, [PENDING], timeout=2.5, raise_on_timeout=False)
    assert result is PENDING and not result.is_terminal
    assert client.sleeps == [1.0, 1.0, 0.5]  # the last pause ends at the deadline


@DRIVERS
def test_a_zero_timeout_still_asks_once(driver: str) -> None:
    result, client = wait(driver, [status("signal_found")], timeout=0.0)
    assert result.status == "signal_found" and client.queries == 1
    with pytest.raises(VerdictTimeout):
        wait(driver, [PENDING], timeout=0.0)


@pytest.mark.parametrize(("option", "value"), [("interval", 0.0), ("interval", float("nan")),
                                               ("timeout", float("inf"))])  # fmt: skip
def test_nonsense_times_are_refused(option: str, value: float) -> None:
    with pytest.raises(ValueError, match=option):
        wait("sync", [PENDING], **{option: value})
