"""Accepting submissions: idempotency, validation and the durable write, for one body or a batch.

Each body goes through the same steps: it must hold nothing the service
cannot keep (an overflowing number, a lone surrogate), its idempotency key is
read and checked against the header, the key is held for the request, a
stored submission with that key is replayed (same body) or refused
(different body), the body is validated, and the new submission is written
in one durable transaction before the 202 answer leaves. The key is released
as soon as the write is committed, so that a retry from then on is answered
from the stored record.

Parsing, validation and database reads run on the work pool's threads and
the write on the store's writer thread, so that the event loop only moves
bytes and never waits on a sync.
"""

from __future__ import annotations

import asyncio
import time
import uuid
from collections.abc import Callable, Sequence
from dataclasses import dataclass, field

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


@dataclass(slots=True)
class _Plan:
    """A request's answers so far, and the records still to be written (by position)."""

    answers: list[Answer | None]
    new_records: dict[int, SubmissionRecord] = field(default_factory=dict)


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
        on_accepted: Callable[[], None] = lambda: None,
        clock: Callable[[], float] = time.time,
    ) -> None:
        """Write to ``store`` what ``validator`` accepts, working on ``pool``'s threads.

        ``in_flight`` holds the keys of requests being processed;
        ``on_accepted`` is called after each durable write.
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
        with RequestClaims(self.in_flight) as claims:
            plan = await self.pool.run(self._plan_single, kind, owner, raw, header_key, claims)
            answers = await self._write(plan)
        return answers[0]

    async def submit_batch(self, owner: str, raw: bytes) -> list[Answer]:
        """Answer each signal of a ``POST /signals/batch`` body (raw bytes) on its own, in order."""
        with RequestClaims(self.in_flight) as claims:
            plan = await self.pool.run(self._plan_batch, owner, raw, claims)
            return await self._write(plan)

    def _plan_single(
        self, kind: SubmissionKind, owner: str, raw: bytes, header_key: str | None, claims: RequestClaims
    ) -> _Plan:
        body = parse_json_object(raw)
        canonical = canonical_body(body)
        key = body_idempotency_key(body)
        check_header_matches(header_key, key)
        return self._plan(kind, owner, [(body, canonical)], claims)

    def _plan_batch(self, owner: str, raw: bytes, claims: RequestClaims) -> _Plan:
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
        return self._plan("signal", owner, items, claims)

    def _plan(
        self,
        kind: SubmissionKind,
        owner: str,
        items: Sequence[tuple[object, bytes] | ServiceError],
        claims: RequestClaims,
    ) -> _Plan:
        plan = _Plan(answers=[])
        keyed: list[tuple[int, JSONObject, bytes, str]] = []
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
            plan.answers.append(None)
            keyed.append((position, body, canonical, key))
        if not keyed:
            return plan
        bound = self.store.bound_keys(owner, [key for _, _, _, key in keyed])
        now = self.clock()
        for position, body, canonical, key in keyed:
            fingerprint = submission_fingerprint(kind, canonical)
            if key in bound:
                plan.answers[position] = _replay_or_reuse(key, bound[key], fingerprint)
                continue
            try:
                accepted = self.validator.signal(body) if kind == "signal" else self.validator.strategy(body)
            except ServiceError as exc:
                plan.answers[position] = _refusal_answer(exc)
                continue
            record = self._new_record(owner, key, fingerprint, accepted, now)
            plan.new_records[position] = record
            bound[key] = KeyBinding(fingerprint, record.answer)
            plan.answers[position] = Answer(202, record.answer)
        return plan

    async def _write(self, plan: _Plan) -> list[Answer]:
        if plan.new_records:
            written = await asyncio.wrap_future(self.store.insert_later(list(plan.new_records.values())))
            for (position, record), binding in zip(plan.new_records.items(), written, strict=True):
                if binding is not None:
                    # The key was bound between the lookup and the write.
                    plan.answers[position] = _replay_or_reuse(record.idempotency_key, binding, record.fingerprint)
            self.on_accepted()
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
