"""The store under concurrency and faults: one process per file, damaged files, locks, paging, the writer."""

from __future__ import annotations

import os
import sqlite3
import threading
import time
from collections.abc import Iterator
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import httpx
import pytest

from service_support import TOKEN_A, client_for, running, signal_body
from tallowmere.__main__ import main
from tallowmere.service import RunningService
from tallowmere.service.config import ServiceLimits
from tallowmere.service.storage import StorageInUseError, StorageOpenError, SubmissionStore
from tallowmere.service.threads import WorkPool


@pytest.fixture(scope="module")
def service(tmp_path_factory: pytest.TempPathFactory) -> Iterator[RunningService]:
    limits = ServiceLimits(write_busy_timeout=0.3, read_busy_timeout=0.3)
    with running(tmp_path_factory.mktemp("storage") / "service.db", limits=limits) as svc:
        yield svc


def submit_batch(client: httpx.Client, keys: list[str]) -> list[str]:
    answer = client.post("/signals/batch", json={"signals": [signal_body(key=key) for key in keys]})
    assert answer.status_code == 202, answer.text
    return [item["body"]["submission_id"] for item in answer.json()["results"]]


def test_a_second_process_on_the_same_database_is_refused_with_a_clear_message(
    tmp_path: Path, capsys: pytest.CaptureFixture[str]
) -> None:
    db_path = tmp_path / "shared.db"
    with running(db_path):
        with pytest.raises(StorageInUseError, match=rf"already in use by another service process \(pid {os.getpid()}\)"):
            SubmissionStore(db_path)
        assert main(["serve", "--port", "0", "--db", str(db_path), "--token", "t"]) == 2
        assert "already in use by another service process" in capsys.readouterr().err
    with running(db_path) as again, client_for(again) as client:  # the lock went with the first service
        assert client.get("/eras").status_code == 200


def test_a_damaged_database_is_refused_at_start(tmp_path: Path, capsys: pytest.CaptureFixture[str]) -> None:
    db_path = tmp_path / "damaged.db"
    with running(db_path) as service, client_for(service) as client:
        submit_batch(client, [f"fill-{n}" for n in range(100)])
    size = db_path.stat().st_size
    with db_path.open("r+b") as database:  # garbage over a page in the middle of the file
        database.seek(size // 4096 // 2 * 4096)
        database.write(bytes(range(256)) * 16)
    with pytest.raises(StorageOpenError, match="failed its integrity check"):
        SubmissionStore(db_path)
    assert main(["serve", "--port", "0", "--db", str(db_path), "--token", "t"]) == 2
    assert "failed its integrity check" in capsys.readouterr().err


def test_listing_pages_with_a_cursor_that_concurrent_inserts_do_not_shift(service: RunningService) -> None:
    with client_for(service, "token-beta") as client:
        stored = submit_batch(client, [f"page-{n}" for n in range(25)])  # one batch: one created_at for all
        first = client.get("/signals/submissions", params={"limit": 10}).json()
        newer = submit_batch(client, [f"page-late-{n}" for n in range(5)])
        pages = [first]
        while pages[-1]["next_cursor"] is not None:
            params = {"limit": 10, "cursor": pages[-1]["next_cursor"]}
            pages.append(client.get("/signals/submissions", params=params).json())
        fresh = client.get("/signals/submissions", params={"limit": 5}).json()
    listed = [item["submission_id"] for page in pages for item in page["submissions"]]
    assert [page["count"] for page in pages] == [10, 10, 5]
    assert listed == stored[::-1]
    assert [item["submission_id"] for item in fresh["submissions"]] == newer[::-1]


def test_a_cursor_keeps_the_filters_of_each_request(service: RunningService) -> None:
    with client_for(service) as client:
        ids = submit_batch(client, [f"filtered-{n}" for n in range(4)])
        first = client.get("/signals/submissions", params={"limit": 2, "status": "signal_submitted"}).json()
        rest = client.get(
            "/signals/submissions", params={"limit": 2, "idempotency_key": "filtered-0", "cursor": first["next_cursor"]}
        ).json()
    assert [item["submission_id"] for item in first["submissions"]] == ids[:1:-1]
    assert ([item["submission_id"] for item in rest["submissions"]], rest["next_cursor"]) == ([ids[0]], None)


def test_listings_hide_the_keys_status_answers_carry_for_the_client(service: RunningService) -> None:
    with client_for(service) as client:
        [submission_id] = submit_batch(client, ["hidden-keys"])
        status = client.get(f"/signals/status/{submission_id}").json()
        [listed] = client.get("/signals/submissions", params={"idempotency_key": "hidden-keys"}).json()["submissions"]
    assert {"correlation", "is_weights_mi"} <= status.keys()
    assert listed == {key: value for key, value in status.items() if key not in ("correlation", "is_weights_mi")}


def test_a_lock_held_by_another_process_refuses_writes_with_503_and_leaves_reads_alone(
    service: RunningService,
) -> None:
    with client_for(service) as client:
        [submission_id] = submit_batch(client, ["before-the-lock"])
        outsider = sqlite3.connect(service.db_path, isolation_level=None)
        try:
            outsider.execute("BEGIN IMMEDIATE")
            began = time.monotonic()
            status = client.get(f"/signals/status/{submission_id}")
            listing = client.get("/signals/submissions")
            read_seconds = time.monotonic() - began
            refused = client.post("/signals/submit", json=signal_body(key="during-the-lock"))
        finally:
            outsider.execute("ROLLBACK")
            outsider.close()
        assert (status.status_code, listing.status_code) == (200, 200)
        assert read_seconds < 0.3, "reads waited for the writer's lock"
        assert (refused.status_code, refused.json()["reason"], refused.headers["Retry-After"]) == (
            503,
            "storage_unavailable",
            "1",
        )
        assert client.post("/signals/submit", json=signal_body(key="during-the-lock")).status_code == 202


def test_concurrent_writers_sharing_keys_store_each_key_once(service: RunningService) -> None:
    keys = [f"shared-{n}" for n in range(8)]

    def submit(attempt: int) -> tuple[str, int, str]:
        key = keys[attempt % len(keys)]
        with client_for(service, TOKEN_A) as client:
            answer = client.post("/signals/submit", json=signal_body(key=key))
        body = answer.json()
        return key, answer.status_code, body.get("submission_id") or body["reason"]

    with ThreadPoolExecutor(max_workers=16) as executor:
        outcomes = list(executor.map(submit, range(64)))
    with client_for(service, TOKEN_A) as client:
        stored = {key: client.get("/signals/submissions", params={"idempotency_key": key}).json()["submissions"]
                  for key in keys}
    assert all(len(listed) == 1 for listed in stored.values())
    for key, status_code, outcome in outcomes:
        assert (status_code, outcome) in ((202, stored[key][0]["submission_id"]), (409, "idempotency_key_in_flight"))


def test_the_work_pool_retires_idle_threads_and_bounds_busy_ones() -> None:
    pool = WorkPool("test-pool", max_threads=3, idle_seconds=0.05)
    release = threading.Event()
    futures = [pool.submit(release.wait, 5) for _ in range(6)]
    time.sleep(0.05)
    assert pool.thread_count() == 3
    release.set()
    assert all(future.result(5) for future in futures)
    deadline = time.monotonic() + 5
    while pool.thread_count():
        assert time.monotonic() < deadline, "idle threads did not retire"
        time.sleep(0.01)
    failing = pool.submit(int, "not a number")
    with pytest.raises(ValueError):
        failing.result(5)
    queued = [pool.submit(time.sleep, 0.01) for _ in range(5)]
    pool.close()
    assert all(future.done() for future in queued)
    with pytest.raises(RuntimeError):
        pool.submit(int, "1")


def test_a_failing_write_in_a_group_fails_alone(tmp_path: Path) -> None:
    from tallowmere.service.records import SubmissionRecord

    def record(key: str, owner: object = "owner-a") -> SubmissionRecord:
        return SubmissionRecord(
            submission_id=f"sig_{key}", owner=owner, kind="signal", idempotency_key=key,  # type: ignore[arg-type]
            fingerprint="f", pool_name="momentum", named_universe="top300", market_id=1, era_number=3,
            request={}, answer={"submission_id": f"sig_{key}"}, thresholds={}, status="signal_submitted",
            created_at=1.0, updated_at=1.0, next_action_at=None,
        )

    store = SubmissionStore(tmp_path / "group.db")
    try:
        gate = threading.Event()
        blocker = store._write(lambda connection: gate.wait(5))  # holds the writer while the group queues up
        queued = [store.insert_later([record("first")]), store.insert_later([record("bad", owner=None)]),
                  store.insert_later([record("second"), record("first")])]
        gate.set()
        assert blocker.result(5) is True
        assert queued[0].result(5) == [None]
        with pytest.raises(sqlite3.IntegrityError):
            queued[1].result(5)
        second, replayed = queued[2].result(5)
        assert second is None and replayed is not None and replayed.answer == {"submission_id": "sig_first"}
        page = store.list_for_owner("owner-a")
        assert [status.submission_id for status in page.submissions] == ["sig_second", "sig_first"]
    finally:
        store.close()


def test_stopping_under_another_process_s_lock_takes_one_write_timeout_not_more(tmp_path: Path) -> None:
    limits = ServiceLimits(write_busy_timeout=0.5, read_busy_timeout=0.5)
    pending: dict[str, httpx.Response] = {}
    db_path = tmp_path / "stuck.db"
    outsider = sqlite3.connect(db_path, isolation_level=None)
    try:
        body = signal_body(key="stuck")
        with running(db_path, limits=limits) as service:
            client = client_for(service)  # outlives the service: its request is pending as the service stops
            client.get("/eras")  # connected before the lock is taken
            outsider.execute("BEGIN IMMEDIATE")
            sender = threading.Thread(target=lambda: pending.update(answer=client.post("/signals/submit", json=body)))
            sender.start()
            time.sleep(0.2)  # the submission now waits for the lock
            began = time.monotonic()
        stopped_after = time.monotonic() - began
        sender.join(5)
        client.close()
    finally:
        if outsider.in_transaction:
            outsider.execute("ROLLBACK")
        outsider.close()
    assert stopped_after < 3
    assert (pending["answer"].status_code, pending["answer"].json()["reason"]) == (503, "storage_unavailable")
