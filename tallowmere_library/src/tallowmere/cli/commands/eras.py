"""``tallowmere eras``: the service's era catalog, its pools and their thresholds."""

from __future__ import annotations

import argparse
from collections.abc import Mapping
from typing import Any

from tallowmere.cli.connection import fetch_era_catalog, open_client, resolve_address
from tallowmere.cli.errors import EXIT_OK, ServiceRefusal
from tallowmere.cli.screening import catalog_eras, pool_names
from tallowmere.cli.tables import Sheet, figure, ident, items, label, number
from tallowmere.cli.terminal import Page, Terminal

USABLE_STATES = frozenset({"active", "current", "open"})


def _universe_parts(era: Mapping[str, Any]) -> list[str]:
    parts = []
    for rule in era.get("universe_rules") or []:
        if not isinstance(rule, Mapping):
            continue
        names = [
            str(universe.get("name", universe.get("id"))) if isinstance(universe, Mapping) else str(universe)
            for universe in rule.get("universes") or []
        ]
        parts.append(f"rule {rule.get('rule_id')}: {', '.join(names)}")
    return parts


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
            applies = f"rule {rule}"
        else:
            applies = "rules " + ", ".join(str(listed) for listed in entry.get("universes") or [])
        labelled.append((applies, entry))
    return labelled


def _pools(era: Mapping[str, Any]) -> list[Mapping[str, Any]]:
    pools = era.get("signal_pools") or []
    if isinstance(pools, Mapping):
        return [{"name": name, **pool} for name, pool in pools.items() if isinstance(pool, Mapping)]
    return [pool for pool in pools if isinstance(pool, Mapping)]


def render_eras(page: Page, eras: list[dict[str, Any]], active_era_number: Any) -> None:
    """Draw one table of eras, then the pool thresholds of every usable era.

    On a narrow terminal the budgets and limits go first, then the frequency;
    universes and pools wrap between their parts.
    """
    sheet = Sheet(
        number("market"), number("era"), ident("state"), items("pools", keep=80, min_width=10),
        items("universes", keep=70, min_width=14, separator="; "), label("frequency", keep=40),
        number("max depth", keep=30), number("max nodes", keep=30), number("row budget ms", keep=20),
        number("whole budget s", keep=20),
    )  # fmt: skip
    for era in eras:
        sheet.add_row(era.get("market_id"), era.get("era_number"), str(era.get("state", "")), pool_names(era),
                      _universe_parts(era), str(era.get("frequency", "")), era.get("max_depth"),
                      era.get("max_node_count"), era.get("backtest_row_budget_ms"),
                      era.get("backtest_whole_budget_seconds"))  # fmt: skip
    page.heading("Eras")
    page.table(sheet)
    if active_era_number is not None:
        page.line(f"The catalog names era {active_era_number} as the active one.")
    for era in eras:
        if str(era.get("state", "")).lower() not in USABLE_STATES:
            continue
        thresholds = Sheet(ident("pool"), ident("applies to"), items("gates", keep=90, min_width=16))
        for pool in _pools(era):
            for rule, entry in _threshold_entries(pool):
                merged = {key: pool[key] for key in ("is_correlation_threshold", "is_pnl_mi_threshold") if key in pool}
                merged.update(entry)
                if "is_pnl_mi_threshold" in merged:
                    merged.pop("mi_threshold", None)  # the older name counts only without the new one
                gates = [text for key, value in merged.items() if (text := gate_text(key, value)) is not None]
                thresholds.add_row(str(pool.get("name", pool.get("signal_pool_name"))), rule, gates)
        page.heading(f"Thresholds of market {era.get('market_id')}, era {era.get('era_number')}")
        page.table(thresholds)


def run_eras(args: argparse.Namespace, terminal: Terminal) -> int:
    """Show the eras of the service's catalog (only ``--market-id``'s when given)."""
    address = resolve_address(args)
    with open_client(address) as client:
        catalog = fetch_era_catalog(client, address)
    eras = catalog_eras(catalog)
    if args.market_id is not None:
        eras = [era for era in eras if era.get("market_id") == args.market_id]
        if not eras:
            markets = sorted({era.get("market_id") for era in catalog_eras(catalog)}, key=str)
            listed = ", ".join(str(market) for market in markets) or "none"
            message = f"the service's catalog has no eras for market {args.market_id} (its markets: {listed})"
            raise ServiceRefusal(message)
    active = catalog.get("active_era_number")
    document = {"active_era_number": active, "eras": eras}
    terminal.emit(document, lambda page: render_eras(page, eras, active))
    return EXIT_OK
