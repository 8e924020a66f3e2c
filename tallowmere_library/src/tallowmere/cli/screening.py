"""Checking submissions before they are sent, one by one, so that every problem can be named.

``submit_signal`` applies the era's checks itself and raises on the first
failure, and ``submit_signals_batch`` refuses a whole batch for one failing
item without saying which. The command line checks each candidate first:

- `target_problem` names an unknown market, era or signal pool, with the
  ones the catalog does hold;
- `gate_failure` applies the pool's gates to a simulation's statistics;
- `prepared_batch_bodies` runs the client's own checks of batch items (the
  contract, the era's gates, graph limits and timing budgets) without sending
  anything, and returns the body each item would be sent as.

The thresholds, gates and checks are the client's own (``tallowmere.submit``),
so a candidate passes here exactly when the client would send it.
"""

from __future__ import annotations

from collections.abc import Iterator, Mapping, Sequence
from contextlib import contextmanager
from typing import Any

import tallowmere.submit as submit
from tallowmere.submit import SignalServiceClient


def catalog_eras(catalog: Mapping[str, Any]) -> list[dict[str, Any]]:
    """Every era of ``catalog``, from the first non-empty of ``eras_by_market``, ``market_era_groups``, ``eras``."""
    for key in ("eras_by_market", "market_era_groups"):
        groups = catalog.get(key)
        if isinstance(groups, Mapping) and groups:
            return [era for eras in groups.values() if isinstance(eras, list) for era in eras if isinstance(era, dict)]
    eras = catalog.get("eras")
    return [era for era in eras if isinstance(era, dict)] if isinstance(eras, list) else []


def pool_names(era: Mapping[str, Any]) -> list[str]:
    """The names of an era's signal pools, in catalog order."""
    pools = era.get("signal_pools") or []
    if isinstance(pools, Mapping):
        return [str(name) for name in pools]
    names = (pool.get("name", pool.get("signal_pool_name")) for pool in pools if isinstance(pool, Mapping))
    return [str(name) for name in names if name is not None]


def _listed(values: Sequence[Any]) -> str:
    return ", ".join(str(value) for value in values) or "none"


def target_problem(
    catalog: Mapping[str, Any],
    *,
    market_id: int | None,
    era_number: int | None,
    signal_pool_name: str | None = None,
) -> str | None:
    """Why the catalog has no place for this market, era or signal pool (naming those it has), or None.

    Only what the catalog plainly lacks is named here; everything else is
    left to the client's own checks.
    """
    eras = catalog_eras(catalog)
    if market_id is not None:
        markets = sorted({era["market_id"] for era in eras if isinstance(era.get("market_id"), int)})
        if eras and market_id not in markets:
            return f"market {market_id} is not in the service's catalog (its markets: {_listed(markets)})"
        eras = [era for era in eras if era.get("market_id") == market_id]
    if era_number is not None:
        numbers = sorted({era["era_number"] for era in eras if isinstance(era.get("era_number"), int)})
        if eras and era_number not in numbers:
            where = f" of market {market_id}" if market_id is not None else ""
            return f"era {era_number} is not in the service's catalog{where} (its eras: {_listed(numbers)})"
    if signal_pool_name is None:
        return None
    era = submit._active_era_from_catalog(catalog, market_id, era_number)
    if not isinstance(era, Mapping):
        return None
    pools = pool_names(era)
    if pools and signal_pool_name not in pools:
        return (
            f"unknown signal pool {signal_pool_name!r} in market {era.get('market_id')}, era {era.get('era_number')} "
            f"(its pools: {_listed(pools)})"
        )
    return None


def gate_failure(
    catalog: Mapping[str, Any],
    *,
    named_universe: str,
    signal_pool_name: str,
    is_stats: Mapping[str, Any],
    is_pnl_mi: float,
    market_id: int | None = None,
    era_number: int | None = None,
) -> str | None:
    """Return why the client would refuse these statistics in ``catalog``'s era, or None when they pass.

    The reason is the client's message: an unknown universe or pool (for
    example ``thresholds unavailable: signal_pool_name x not found``) or the
    first failing gate (``sharpe failed: 0.1 >= 0.3``).
    """
    try:
        thresholds = submit._submission_thresholds_from_era_catalog(
            catalog, named_universe, signal_pool_name, market_id=market_id, era_number=era_number
        )
        submit._validate_submission_thresholds(is_stats, is_pnl_mi, thresholds)
    except ValueError as exc:
        return str(exc)
    return None


class _Prepared(Exception):
    """Raised in place of sending a batch: carries the bodies the client finished."""

    def __init__(self, bodies: list[dict[str, Any]]) -> None:
        super().__init__("prepared, not sent")
        self.bodies = bodies


@contextmanager
def _sending_nothing(client: SignalServiceClient) -> Iterator[None]:
    """Within the block, the client's POSTs stop at `_Prepared`; its other requests (the catalog) go out."""
    send = client._canonical_request

    def capture(method: str, endpoint: str, body: dict[str, Any] | None = None) -> tuple[int, dict[str, Any]]:
        if method.upper() == "POST" and body is not None:
            raise _Prepared(list(body.get("signals") or [body]))
        return send(method, endpoint, body)

    # The client looks its request method up on the instance at each call.
    client._canonical_request = capture  # type: ignore[method-assign]
    try:
        yield
    finally:
        del client._canonical_request


def prepared_batch_bodies(
    client: SignalServiceClient, items: Sequence[Mapping[str, Any]]
) -> list[dict[str, Any] | str]:
    """Run the client's checks of each batch item on its own; return its finished body, or why it was refused.

    Nothing is sent (the era catalog may be fetched). Each body is what
    ``submit_signals_batch`` would send for the item, its derived
    ``idempotency_key`` included.
    """
    outcomes: list[dict[str, Any] | str] = []
    with _sending_nothing(client):
        for item in items:
            try:
                client.submit_signals_batch([dict(item)])
            except _Prepared as prepared:
                outcomes.append(prepared.bodies[0])
            except ValueError as exc:
                outcomes.append(_without_batch_position(str(exc)))
            else:  # the client returned without sending: it refused the item in its result
                outcomes.append("the client did not send the item")
    return outcomes


def _without_batch_position(message: str) -> str:
    # Each item is checked as a batch of one; its position there means nothing to the caller.
    suffix = " (batch item 0)"
    return message[: -len(suffix)] if message.endswith(suffix) else message
