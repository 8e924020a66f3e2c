"""``tallowmere eras``: the service's era catalog, its pools and their thresholds."""

from __future__ import annotations

import argparse
from collections.abc import Mapping
from typing import Any

from rich.console import Console
from rich.text import Text

from tallowmere.cli.connection import fetch_era_catalog, open_client, resolve_address
from tallowmere.cli.errors import EXIT_OK, ServiceRefusal
from tallowmere.cli.tables import add_row, figure, heading, new_table, numeric, unbroken
from tallowmere.cli.terminal import Terminal

USABLE_STATES = frozenset({"active", "current", "open"})


def catalog_eras(catalog: Mapping[str, Any]) -> list[dict[str, Any]]:
    """Every era of ``catalog``, from the first non-empty of ``eras_by_market``, ``market_era_groups``, ``eras``."""
    for key in ("eras_by_market", "market_era_groups"):
        groups = catalog.get(key)
        if isinstance(groups, Mapping) and groups:
            return [era for eras in groups.values() if isinstance(eras, list) for era in eras if isinstance(era, dict)]
    eras = catalog.get("eras")
    return [era for era in eras if isinstance(era, dict)] if isinstance(eras, list) else []


def _universe_text(era: Mapping[str, Any]) -> str:
    parts = []
    for rule in era.get("universe_rules") or []:
        if not isinstance(rule, Mapping):
            continue
        names = [
            str(universe.get("name", universe.get("id"))) if isinstance(universe, Mapping) else str(universe)
            for universe in rule.get("universes") or []
        ]
        parts.append(f"rule {rule.get('rule_id')}: {', '.join(names)}")
    return "; ".join(parts)


def _pool_names(era: Mapping[str, Any]) -> str:
    pools = era.get("signal_pools") or []
    if isinstance(pools, Mapping):
        return ", ".join(str(name) for name in pools)
    return ", ".join(str(pool.get("name", pool.get("signal_pool_name"))) for pool in pools if isinstance(pool, Mapping))


def gate_text(key: str, value: Any) -> str | None:
    """A threshold key as the gate it sets (``min_sharpe`` → ``sharpe >= 0.3``); None for keys that set none."""
    if key == "is_correlation_threshold":
        return f"is_correlation <= {figure(value)}"
    if key in ("is_pnl_mi_threshold", "mi_threshold"):
        return f"is_pnl_mi <= {figure(value)}"
    for prefix, operator in (("min_", ">="), ("max_", "<=")):
        if key.startswith(prefix) and len(key) > len(prefix):
            return f"{key[len(prefix):]} {operator} {figure(value)}"
    return None


def _threshold_entries(pool: Mapping[str, Any]) -> list[tuple[str, Mapping[str, Any]]]:
    entries = pool.get("signal_is_thresholds") or []
    if isinstance(entries, Mapping):
        return [(f"rule {rule}", entry) for rule, entry in entries.items() if isinstance(entry, Mapping)]
    labelled = []
    for entry in entries:
        if not isinstance(entry, Mapping):
            continue
        rule = entry.get("universe_rule_id", entry.get("rule_id"))
        if rule is not None:
            label = f"rule {rule}"
        else:
            label = "rules " + ", ".join(str(listed) for listed in entry.get("universes") or [])
        labelled.append((label, entry))
    return labelled


def _pools(era: Mapping[str, Any]) -> list[Mapping[str, Any]]:
    pools = era.get("signal_pools") or []
    if isinstance(pools, Mapping):
        return [{"name": name, **pool} for name, pool in pools.items() if isinstance(pool, Mapping)]
    return [pool for pool in pools if isinstance(pool, Mapping)]


def render_eras(console: Console, eras: list[dict[str, Any]], active_era_number: Any) -> None:
    """Draw one table of eras, then the pool thresholds of every usable era."""
    table = new_table(
        numeric("market"), numeric("era"), unbroken("state"), unbroken("frequency"), numeric("max depth"),
        numeric("max nodes"), numeric("row budget ms"), numeric("whole budget s"), "universes", "pools",
    )  # fmt: skip
    for era in eras:
        add_row(table, era.get("market_id"), era.get("era_number"), str(era.get("state", "")),
                str(era.get("frequency", "")), era.get("max_depth"), era.get("max_node_count"),
                era.get("backtest_row_budget_ms"), era.get("backtest_whole_budget_seconds"),
                _universe_text(era), _pool_names(era))  # fmt: skip
    console.print(heading("Eras"))
    console.print(table)
    if active_era_number is not None:
        console.print(Text(f"The catalog names era {active_era_number} as the active one."), soft_wrap=True)
    for era in eras:
        if str(era.get("state", "")).lower() not in USABLE_STATES:
            continue
        thresholds = new_table(unbroken("pool"), unbroken("applies to"), "gates")
        for pool in _pools(era):
            for label, entry in _threshold_entries(pool):
                merged = {key: pool[key] for key in ("is_correlation_threshold", "is_pnl_mi_threshold") if key in pool}
                merged.update(entry)
                if "is_pnl_mi_threshold" in merged:
                    merged.pop("mi_threshold", None)  # the older name counts only without the new one
                gates = [text for key, value in merged.items() if (text := gate_text(key, value)) is not None]
                add_row(thresholds, str(pool.get("name", pool.get("signal_pool_name"))), label, ", ".join(gates))
        console.print(heading(f"Thresholds of market {era.get('market_id')}, era {era.get('era_number')}"))
        console.print(thresholds)


def run_eras(args: argparse.Namespace, terminal: Terminal) -> int:
    """Show the eras of the service's catalog (only ``--market-id``'s when given)."""
    address = resolve_address(args)
    with open_client(address) as client:
        catalog = fetch_era_catalog(client, address)
    eras = catalog_eras(catalog)
    if args.market_id is not None:
        eras = [era for era in eras if era.get("market_id") == args.market_id]
        if not eras:
            raise ServiceRefusal(f"the service's catalog has no eras for market {args.market_id}")
    active = catalog.get("active_era_number")
    document = {"active_era_number": active, "eras": eras}
    terminal.emit(document, lambda console: render_eras(console, eras, active))
    return EXIT_OK
