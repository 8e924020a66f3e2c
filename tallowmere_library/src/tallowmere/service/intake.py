"""Accepting submissions: idempotency, validation and the durable write, for one body or a batch.

Each body goes through the same steps: its idempotency key is read and
checked against the header, the key is held for the request, a stored
submission with that key is replayed (same body) or refused (different body),
the body is validated, and the new submission is written in one durable
transaction before the 202 answer leaves. Database work runs in the thread
pool so that the event loop never waits on ``fsync``.
"""

from __future__ import annotations

import time
import uuid
from collections.abc import Callable, Sequence
from dataclasses import dataclass

from starlette.concurrency import run_in_threadpool

from tallowmere.service.config import ServiceConfig
from tallowmere.service.errors import ServiceError, refusal
from tallowmere.service.idempotency import (
    RequestClaims,
    body_idempotency_key,
    check_header_matches,
    submission_fingerprint,
)
from tallowmere.service.jsonio import JSONObject
from tallowmere.service.lifecycle import SubmissionKind, initial_status
from tallowmere.service.records import SubmissionRecord, iso_timestamp
from tallowmere.service.storage import SubmissionStore
from tallowmere.service.validation import AcceptedBody, SubmissionValidator

ID_PREFIXES = {"signal": "sig_", "strategy": "strat_"}


@dataclass(frozen=True, slots=True)
class Answer:
    """The HTTP status and JSON body that answer one submission; ``replayed`` marks an idempotent repeat."""

    status_code: int
    body: JSONObject
    replayed: bool = False


def _refusal_answer(exc: ServiceError) -> Answer:
    return Answer(exc.status_code, exc.body())


def _replay_or_reuse(key: str, stored_fingerprint: str, stored_answer: JSONObject, fingerprint: str) -> Answer:
    """Answer a key already bound: the original answer for the same body, else a reuse refusal."""
    if stored_fingerprint == fingerprint:
        return Answer(202, stored_answer, replayed=True)
    details = {"idempotency_key": key, "message": "this key was used with a different body"}
    return _refusal_answer(refusal("idempotency_key_reused", details))


class SubmissionIntake:
    """Turns submission bodies into stored submissions and their answers."""

    def __init__(
        self,
        store: SubmissionStore,
        validator: SubmissionValidator,
        config: ServiceConfig,
        *,
        on_accepted: Callable[[], None] = lambda: None,
        clock: Callable[[], float] = time.time,
    ) -> None:
        """Write to ``store`` what ``validator`` accepts; call ``on_accepted`` after each durable write."""
        self.store = store
        self.validator = validator
        self.config = config
        self.on_accepted = on_accepted
        self.clock = clock

    async def submit(
        self, kind: SubmissionKind, owner: str, body: JSONObject, header_key: str | None, claims: RequestClaims
    ) -> Answer:
        """Answer one ``POST /signals/submit`` or ``/strategies/submit`` body."""
        key = body_idempotency_key(body)
        check_header_matches(header_key, key)
        answers = await self._process(kind, owner, [body], claims)
        return answers[0]

    async def submit_batch(self, owner: str, bodies: Sequence[object], claims: RequestClaims) -> list[Answer]:
        """Answer each body of a ``POST /signals/batch`` request on its own, in order."""
        return await self._process("signal", owner, bodies, claims)

    async def _process(
        self, kind: SubmissionKind, owner: str, bodies: Sequence[object], claims: RequestClaims
    ) -> list[Answer]:
        answers: list[Answer | None] = []
        keyed: list[tuple[int, JSONObject, str]] = []
        for position, body in enumerate(bodies):
            try:
                if not isinstance(body, dict):
                    raise refusal("malformed_body", {"message": "each signal must be a JSON object"})
                key = body_idempotency_key(body)
                claims.claim(owner, key)
            except ServiceError as exc:
                answers.append(_refusal_answer(exc))
                continue
            answers.append(None)
            keyed.append((position, body, key))
        bound = await run_in_threadpool(self._bound_keys, owner, [key for _, _, key in keyed])
        now = self.clock()
        new_records: dict[int, SubmissionRecord] = {}
        for position, body, key in keyed:
            fingerprint = submission_fingerprint(kind, body)
            if key in bound:
                answers[position] = _replay_or_reuse(key, *bound[key], fingerprint)
                continue
            try:
                accepted = self.validator.signal(body) if kind == "signal" else self.validator.strategy(body)
            except ServiceError as exc:
                answers[position] = _refusal_answer(exc)
                continue
            record = self._new_record(owner, key, fingerprint, accepted, now)
            new_records[position] = record
            bound[key] = (fingerprint, record.answer)
            answers[position] = Answer(202, record.answer)
        if new_records:
            written = await run_in_threadpool(self.store.insert, list(new_records.values()))
            for (position, record), stored in zip(new_records.items(), written, strict=True):
                if stored is not record:
                    # Another process bound the key between the lookup and the write.
                    answers[position] = _replay_or_reuse(
                        record.idempotency_key, stored.fingerprint, stored.answer, record.fingerprint
                    )
            self.on_accepted()
        settled: list[Answer] = []
        for answer in answers:
            assert answer is not None, "every body of the request has been answered"
            settled.append(answer)
        return settled

    def _bound_keys(self, owner: str, keys: Sequence[str]) -> dict[str, tuple[str, JSONObject]]:
        """Return (fingerprint, original answer) of each of ``keys`` already bound for ``owner``."""
        bound: dict[str, tuple[str, JSONObject]] = {}
        for key in dict.fromkeys(keys):
            record = self.store.find_by_key(owner, key)
            if record is not None:
                bound[key] = (record.fingerprint, record.answer)
        return bound

    def _new_record(
        self, owner: str, key: str, fingerprint: str, accepted: AcceptedBody, now: float
    ) -> SubmissionRecord:
        status = initial_status(accepted.kind)
        submission_id = ID_PREFIXES[accepted.kind] + uuid.uuid4().hex
        pool_key = "signal_pool_name" if accepted.kind == "signal" else "strategy_pool_name"
        created = iso_timestamp(now)
        answer: JSONObject = {
            "submission_id": submission_id,
            "status": status,
            pool_key: accepted.pool_name,
            "idempotency_key": key,
            "market_id": accepted.market_id,
            "era_number": accepted.era_number,
            "created_at": created,
        }
        return SubmissionRecord(
            submission_id=submission_id,
            owner=owner,
            kind=accepted.kind,
            idempotency_key=key,
            fingerprint=fingerprint,
            pool_name=accepted.pool_name,
            named_universe=accepted.named_universe,
            market_id=accepted.market_id,
            era_number=accepted.era_number,
            request=accepted.body,
            answer=answer,
            thresholds=accepted.thresholds,
            status=status,
            created_at=now,
            updated_at=now,
            next_action_at=now + self.config.scaled_wait(status),
            outcome=dict(accepted.agent_claims),
            history=[{"status": status, "at": created}],
        )
