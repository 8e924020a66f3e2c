"""Accepting submissions: idempotency, validation and the durable write, for one body or a batch.

Each body goes through the same steps: it must hold nothing the service
cannot keep (an overflowing number, a lone surrogate), its idempotency key is
read and checked against the header, the key is held for the request, a
stored submission with that key is replayed (same body) or refused
(different body), the body is validated, and the new submission is written
in one durable transaction before the 202 answer leaves. The key is released
as soon as the write is committed, so that a retry from then on is answered
from the stored record. A new body is written without a lookup first (the
write reports a key bound already); only a body refused by validation has
its key looked up, since a bound key decides even after the era changed.

The write runs on the store's writer thread and database reads on the work
pool's threads, so that the event loop never waits on the disk; parsing and
validation run on the event loop for small bodies (a fraction of a
millisecond) and on the work pool for larger ones.
"""

from __future__ import annotations

import asyncio
import time
import uuid
from collections.abc import Callable, Sequence
from dataclasses import dataclass, field
from typing import Final

from tallowmere.service.bodies import parse_json_object
from tallowmere.service.config import MAX_BATCH_ITEMS, ServiceConfig
from tallowmere.service.errors import ServiceError, refusal
from tallowmere.service.idempotency import (
    InFlightKeys,
    RequestClaims,
    body_idempotency_key,
    check_header_matches,
    submission_fingerprint,
)
from tallowmere.service.jsonio import JSONObject, UnrepresentableValue, canonical_json, echo
from tallowmere.service.lifecycle import SubmissionKind, initial_status
from tallowmere.service.records import SubmissionRecord, iso_timestamp
from tallowmere.service.storage import KeyBinding, SubmissionStore
from tallowmere.service.threads import WorkPool
from tallowmere.service.validation import AcceptedBody, SubmissionValidator

ID_PREFIXES = {"signal": "sig_", "strategy": "strat_"}


@dataclass(frozen=True, slots=True)
class Answer:
    """The HTTP status and JSON body that answer one submission; ``replayed`` marks an idempotent repeat."""

    status_code: int
    body: JSONObject
    replayed: bool = False


INLINE_BODY_BYTES: Final = 16 * 1024
"""Bodies up to this size are parsed and validated on the event loop (a fraction of a millisecond);
larger ones on a work thread."""


@dataclass(slots=True)
class _Plan:
    """A request's answers so far, its new records (by position) and their queued write, and the
    (key, fingerprint) of each body refused by validation, whose key may be bound already."""

    answers: list[Answer | None]
    new_records: dict[int, SubmissionRecord] = field(default_factory=dict)
    written: asyncio.Future[list[KeyBinding | None]] | None = None
    refused_keys: dict[int, tuple[str, str]] = field(default_factory=dict)


def _refusal_answer(exc: ServiceError) -> Answer:
    return Answer(exc.status_code, exc.body())


def _replay_or_reuse(key: str, binding: KeyBinding, fingerprint: str) -> Answer:
    """Answer a key already bound: the original answer for the same body, else a reuse refusal."""
    if binding.fingerprint == fingerprint:
        return Answer(202, binding.answer, replayed=True)
    details = {"idempotency_key": echo(key), "message": "this key was used with a different body"}
    return _refusal_answer(refusal("idempotency_key_reused", details))


def canonical_body(body: JSONObject) -> bytes:
    """Return a body's canonical JSON; refuse one holding a value the service cannot keep (422 ``malformed_json``)."""
    try:
        return canonical_json(body)
    except UnrepresentableValue as exc:
        raise refusal("malformed_json", {"message": exc.problem, "at": exc.location}) from None


class SubmissionIntake:
    """Turns submission bodies into stored submissions and their answers."""

    def __init__(
        self,
        store: SubmissionStore,
        validator: SubmissionValidator,
        config: ServiceConfig,
        pool: WorkPool,
        in_flight: InFlightKeys,
        *,
        on_accepted: Callable[[float], None] = lambda due_at: None,
        clock: Callable[[], float] = time.time,
    ) -> None:
        """Write to ``store`` what ``validator`` accepts, working on ``pool``'s threads.

        ``in_flight`` holds the keys of requests being processed;
        ``on_accepted`` is called after each durable write with the epoch
        time at which the earliest new submission falls due.
        """
        self.store = store
        self.validator = validator
        self.config = config
        self.pool = pool
        self.in_flight = in_flight
        self.on_accepted = on_accepted
        self.clock = clock

    async def submit(self, kind: SubmissionKind, owner: str, raw: bytes, header_key: str | None) -> Answer:
        """Answer one ``POST /signals/submit`` or ``/strategies/submit`` body (raw bytes)."""
        loop = asyncio.get_running_loop()
        with RequestClaims(self.in_flight) as claims:
            if len(raw) <= INLINE_BODY_BYTES:
                plan = self._plan_single(kind, owner, raw, header_key, claims, loop)
            else:
                plan = await self.pool.run(self._plan_single, kind, owner, raw, header_key, claims, loop)
            answers = await self._settle(owner, plan)
        return answers[0]

    async def submit_batch(self, owner: str, raw: bytes) -> list[Answer]:
        """Answer each signal of a ``POST /signals/batch`` body (raw bytes) on its own, in order."""
        loop = asyncio.get_running_loop()
        with RequestClaims(self.in_flight) as claims:
            if len(raw) <= INLINE_BODY_BYTES:
                plan = self._plan_batch(owner, raw, claims, loop)
            else:
                plan = await self.pool.run(self._plan_batch, owner, raw, claims, loop)
            return await self._settle(owner, plan)

    def _plan_single(
        self,
        kind: SubmissionKind,
        owner: str,
        raw: bytes,
        header_key: str | None,
        claims: RequestClaims,
        loop: asyncio.AbstractEventLoop,
    ) -> _Plan:
        body = parse_json_object(raw)
        canonical = canonical_body(body)
        key = body_idempotency_key(body)
        check_header_matches(header_key, key)
        return self._plan(kind, owner, [(body, canonical)], claims, loop)

    def _plan_batch(self, owner: str, raw: bytes, claims: RequestClaims, loop: asyncio.AbstractEventLoop) -> _Plan:
        document = parse_json_object(raw)
        signals = document.get("signals")
        unknown = sorted(echo(key) for key in document if key != "signals")
        if not isinstance(signals, list) or unknown:
            details: JSONObject = {"message": 'the body must be {"signals": [signal, ...]}'}
            if unknown:
                details["unknown"] = unknown[:20]
            raise refusal("malformed_body", details)
        if len(signals) > MAX_BATCH_ITEMS:
            raise ServiceError(413, "batch_too_large", {"count": len(signals), "max_items": MAX_BATCH_ITEMS})
        items: list[tuple[object, bytes] | ServiceError] = []
        for body in signals:
            if not isinstance(body, dict):
                items.append(refusal("malformed_body", {"message": "each signal must be a JSON object"}))
                continue
            try:
                items.append((body, canonical_body(body)))
            except ServiceError as exc:
                items.append(exc)
        return self._plan("signal", owner, items, claims, loop)

    def _plan(
        self,
        kind: SubmissionKind,
        owner: str,
        items: Sequence[tuple[object, bytes] | ServiceError],
        claims: RequestClaims,
        loop: asyncio.AbstractEventLoop,
    ) -> _Plan:
        """Judge each item and queue the write of the accepted ones (its outcome delivered on ``loop``).

        A new valid body is written without looking its key up first: the
        write itself reports a key bound already, and the answer becomes the
        replay (same body) or the reuse refusal. Only a body that validation
        refuses has its key looked up (by `_settle`), since a key bound by an
        accepted body decides the answer even after the era changed.
        """
        plan = _Plan(answers=[])
        accepted_here: dict[str, KeyBinding] = {}
        now = self.clock()
        validate = self.validator.signal if kind == "signal" else self.validator.strategy
        for position, item in enumerate(items):
            try:
                if isinstance(item, ServiceError):
                    raise item
                body, canonical = item
                assert isinstance(body, dict)
                key = body_idempotency_key(body)
                claims.claim(owner, key)
            except ServiceError as exc:
                plan.answers.append(_refusal_answer(exc))
                continue
            fingerprint = submission_fingerprint(kind, canonical)
            if key in accepted_here:
                plan.answers.append(_replay_or_reuse(key, accepted_here[key], fingerprint))
                continue
            try:
                accepted = validate(body, body_size=len(canonical))
            except ServiceError as exc:
                plan.answers.append(_refusal_answer(exc))
                plan.refused_keys[position] = (key, fingerprint)
                continue
            record = self._new_record(owner, key, fingerprint, accepted, now)
            record.request_json = canonical.decode("utf-8")  # the body's canonical JSON serves as its stored text
            plan.new_records[position] = record
            accepted_here[key] = KeyBinding(fingerprint, record.answer)
            plan.answers.append(Answer(202, record.answer))
        if plan.new_records:
            plan.written = self.store.insert_for_loop(list(plan.new_records.values()), loop)
        return plan

    async def _settle(self, owner: str, plan: _Plan) -> list[Answer]:
        """Wait for the plan's write and settle every answer that a bound key decides."""
        if plan.refused_keys:
            keys = [key for key, _ in plan.refused_keys.values()]
            bound = await self.pool.run(self.store.bound_keys, owner, keys)
            for position, (key, fingerprint) in plan.refused_keys.items():
                if key in bound:
                    plan.answers[position] = _replay_or_reuse(key, bound[key], fingerprint)
        if plan.written is not None:
            written = await plan.written
            for (position, record), binding in zip(plan.new_records.items(), written, strict=True):
                if binding is not None:
                    plan.answers[position] = _replay_or_reuse(record.idempotency_key, binding, record.fingerprint)
            due = [
                record.next_action_at
                for record, binding in zip(plan.new_records.values(), written, strict=True)
                if binding is None and record.next_action_at is not None
            ]
            if due:
                self.on_accepted(min(due))
        settled: list[Answer] = []
        for answer in plan.answers:
            assert answer is not None, "every body of the request has been answered"
            settled.append(answer)
        return settled

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
