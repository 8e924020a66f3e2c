"""The era catalog the service publishes, and the service's reading of it.

The service answers ``GET /eras`` with the catalog document as it is (the
bundled ``default_eras.json`` or the file given with ``--eras``). To judge a
submission it reads the same document with its own rules, which follow the
client's rules for everything a well-formed catalog contains:

- a market's eras come from ``eras_by_market[<market id>]`` when that mapping
  is non-empty, else from ``market_era_groups``, else from the flat ``eras``
  list (those whose ``market_id`` is the market);
- the market's active era is the one whose ``era_number`` (or ``id``) is the
  catalog's active number (``active_era_number``, else the ``era_number`` of
  ``active_market_era``/``current_market_era``); without such an era, the
  first whose ``state`` is ``active``, ``current`` or ``open``;
- a named universe belongs to the first universe rule listing it by ``name``
  or ``id`` (or as a bare name);
- a pool's thresholds for a rule are those of its first ``signal_is_thresholds``
  entry whose ``universe_rule_id``/``rule_id`` is the rule or whose
  ``universes`` list holds the rule's id; ``is_correlation_threshold``
  and ``is_pnl_mi_threshold`` (old name ``mi_threshold``) fall back on the
  pool's own keys, and both are required.

Unlike the client, the service never guesses: a submission for an era that is
not the active one is refused.
"""

from __future__ import annotations

import json
from collections.abc import Iterator
from importlib import resources
from pathlib import Path
from typing import Any, Final

from tallowmere.service.jsonio import JSONObject

ACTIVE_STATES: Final = frozenset({"active", "current", "open"})
ERA_GROUP_KEYS: Final = ("eras_by_market", "market_era_groups")
ERA_INTEGER_FIELDS: Final = (
    "era_number",
    "market_id",
    "max_depth",
    "max_node_count",
    "backtest_row_budget_ms",
    "backtest_whole_budget_seconds",
)
THRESHOLD_SELECTOR_KEYS: Final = frozenset({"universe_rule_id", "rule_id", "universes", "name"})
DEFAULT_CATALOG_RESOURCE: Final = "default_eras.json"


class CatalogError(ValueError):
    """An era catalog the service cannot publish (named by its location in the document)."""


class ThresholdsUnavailable(LookupError):
    """The era cannot give thresholds for this pool and universe; the message says which is missing."""


def _is_positive_int(value: Any) -> bool:
    return type(value) is int and value > 0


def load_default_catalog() -> JSONObject:
    """Return a fresh copy of the bundled era catalog."""
    text = resources.files("tallowmere.service").joinpath(DEFAULT_CATALOG_RESOURCE).read_text(encoding="utf-8")
    catalog = json.loads(text)
    validate_catalog(catalog)
    return dict(catalog)


def load_catalog_file(path: Path) -> JSONObject:
    """Read and validate the era catalog in ``path``; raise `CatalogError` naming the problem."""
    try:
        text = Path(path).read_text(encoding="utf-8")
    except OSError as exc:
        raise CatalogError(f"era catalog {path}: cannot be read: {exc.strerror or exc}") from None
    try:
        catalog = json.loads(text, parse_constant=_refuse_json_constant)
    except (json.JSONDecodeError, ValueError) as exc:
        raise CatalogError(f"era catalog {path}: not valid JSON: {exc}") from None
    validate_catalog(catalog)
    return dict(catalog)


def _refuse_json_constant(name: str) -> float:
    raise ValueError(f"{name} is not valid JSON")


def _era_locations(catalog: JSONObject) -> Iterator[tuple[str, Any]]:
    for group_key in ERA_GROUP_KEYS:
        groups = catalog.get(group_key)
        if isinstance(groups, dict):
            for market_key, eras in groups.items():
                if not isinstance(eras, list):
                    raise CatalogError(f"era catalog: {group_key}[{market_key!r}] must be a list of eras")
                for position, era in enumerate(eras):
                    yield f"{group_key}[{market_key!r}][{position}]", era
        elif groups is not None:
            raise CatalogError(f"era catalog: {group_key} must be an object keyed by market id")
    flat = catalog.get("eras")
    if isinstance(flat, list):
        for position, era in enumerate(flat):
            yield f"eras[{position}]", era
    elif flat is not None:
        raise CatalogError("era catalog: eras must be a list")


def validate_catalog(catalog: Any) -> None:
    """Raise `CatalogError` unless ``catalog`` is a usable era catalog with well-typed eras."""
    if not isinstance(catalog, dict):
        raise CatalogError("era catalog must be a JSON object")
    if not any(catalog.get(key) for key in (*ERA_GROUP_KEYS, "eras")):
        raise CatalogError("era catalog needs a non-empty eras_by_market, market_era_groups or eras")
    for location, era in _era_locations(catalog):
        _validate_era(location, era)


def _validate_era(location: str, era: Any) -> None:
    if not isinstance(era, dict):
        raise CatalogError(f"era catalog: {location} must be an object")
    for name in ERA_INTEGER_FIELDS:
        if not _is_positive_int(era.get(name)):
            raise CatalogError(f"era catalog: {location}: field {name} must be a positive integer")
    frequency = era.get("frequency")
    if not isinstance(frequency, str) or not frequency:
        raise CatalogError(f"era catalog: {location}: field frequency must be a non-empty string")
    if not isinstance(era.get("state", ""), str):
        raise CatalogError(f"era catalog: {location}: field state must be a string")
    if not isinstance(era.get("universe_rules", []), list):
        raise CatalogError(f"era catalog: {location}: field universe_rules must be a list")
    if not isinstance(era.get("signal_pools", []), (list, dict)):
        raise CatalogError(f"era catalog: {location}: field signal_pools must be a list or an object")
    projection = era.get("simulation_data_contract_projection")
    if projection is not None and not isinstance(projection, dict):
        raise CatalogError(f"era catalog: {location}: field simulation_data_contract_projection must be an object")


class EraCatalog:
    """A validated era catalog with the service's lookups over it."""

    def __init__(self, document: JSONObject) -> None:
        """Wrap ``document`` after checking it with `validate_catalog`."""
        validate_catalog(document)
        self.document = document

    def eras_for_market(self, market_id: int) -> list[JSONObject]:
        """Return the eras of ``market_id`` (empty when the catalog does not know the market)."""
        for group_key in ERA_GROUP_KEYS:
            groups = self.document.get(group_key)
            if isinstance(groups, dict) and groups:
                eras = groups.get(str(market_id), [])
                return [era for era in eras if isinstance(era, dict)]
        flat = self.document.get("eras") or []
        return [era for era in flat if isinstance(era, dict) and era.get("market_id") == market_id]

    def active_era_number(self) -> int | None:
        """Return the catalog's declared active era number, if it declares one."""
        number = self.document.get("active_era_number")
        if number is None:
            for key in ("active_market_era", "current_market_era"):
                holder = self.document.get(key)
                if isinstance(holder, dict) and holder.get("era_number") is not None:
                    number = holder.get("era_number")
                    break
        if type(number) is int and number > 0:
            return number
        return None

    def active_era(self, market_id: int) -> JSONObject | None:
        """Return the active era of ``market_id``, or None when the market has none."""
        eras = self.eras_for_market(market_id)
        number = self.active_era_number()
        if number is not None:
            for era in eras:
                if era.get("era_number", era.get("id")) == number:
                    return era
        for era in eras:
            state = era.get("state")
            if isinstance(state, str) and state.lower() in ACTIVE_STATES:
                return era
        return None


def universe_rule_id(era: JSONObject, named_universe: str) -> Any:
    """Return the ``rule_id`` of the first universe rule of ``era`` listing ``named_universe``, else None."""
    for rule in era.get("universe_rules") or []:
        if isinstance(rule, dict) and _rule_lists_universe(rule, named_universe):
            return rule.get("rule_id")
    return None


def _rule_lists_universe(rule: JSONObject, named_universe: str) -> bool:
    for entry in rule.get("universes") or []:
        if entry == named_universe:
            return True
        if isinstance(entry, dict):
            if entry.get("name") == named_universe:
                return True
            identifier = entry.get("id")
            if identifier is not None and not isinstance(identifier, bool) and str(identifier) == named_universe:
                return True
    return False


def find_signal_pool(era: JSONObject, pool_name: str) -> JSONObject | None:
    """Return the signal pool of ``era`` named ``pool_name``, or None."""
    pools = era.get("signal_pools")
    if isinstance(pools, dict):
        pool = pools.get(pool_name)
        return pool if isinstance(pool, dict) else None
    for pool in pools or []:
        if isinstance(pool, dict) and pool.get("name", pool.get("signal_pool_name")) == pool_name:
            return pool
    return None


def _as_rule_number(value: Any) -> int | None:
    if value is None or isinstance(value, bool):
        return None
    try:
        return int(value)
    except (TypeError, ValueError, OverflowError):
        return None


def same_rule(candidate: Any, rule_id: Any) -> bool:
    """Tell whether ``candidate`` names universe rule ``rule_id`` (``2`` and ``"2"`` name the same rule)."""
    if candidate is None or rule_id is None:
        return False
    left, right = _as_rule_number(candidate), _as_rule_number(rule_id)
    if left is not None and right is not None:
        return left == right
    return str(candidate) == str(rule_id)


def _threshold_entry(pool: JSONObject, rule_id: Any) -> JSONObject | None:
    entries = pool.get("signal_is_thresholds")
    if isinstance(entries, dict):
        for key, entry in entries.items():
            if same_rule(key, rule_id) and isinstance(entry, dict):
                return entry
        return None
    for entry in entries or []:
        if not isinstance(entry, dict):
            continue
        if same_rule(entry.get("universe_rule_id"), rule_id) or same_rule(entry.get("rule_id"), rule_id):
            return entry
        listed = entry.get("universes")
        if isinstance(listed, list) and any(same_rule(item, rule_id) for item in listed):
            return entry
    return None


def resolve_pool_thresholds(pool: JSONObject, rule_id: Any) -> dict[str, Any]:
    """Return the thresholds of ``pool`` for universe rule ``rule_id``.

    Raises `ThresholdsUnavailable` when the pool has no entry for the rule or
    when ``is_correlation_threshold`` or ``is_pnl_mi_threshold`` cannot be found.
    """
    entry = _threshold_entry(pool, rule_id)
    if entry is None:
        raise ThresholdsUnavailable(f"signal pool {pool.get('name')!r} has no thresholds for universe rule {rule_id!r}")
    thresholds = {key: value for key, value in entry.items() if key not in THRESHOLD_SELECTOR_KEYS}
    legacy_mi = thresholds.pop("mi_threshold", None)
    if "is_pnl_mi_threshold" not in thresholds:
        for candidate in (legacy_mi, pool.get("is_pnl_mi_threshold"), pool.get("mi_threshold")):
            if candidate is not None:
                thresholds["is_pnl_mi_threshold"] = candidate
                break
    if "is_correlation_threshold" not in thresholds and pool.get("is_correlation_threshold") is not None:
        thresholds["is_correlation_threshold"] = pool["is_correlation_threshold"]
    for required in ("is_correlation_threshold", "is_pnl_mi_threshold"):
        if thresholds.get(required) is None:
            raise ThresholdsUnavailable(f"missing {required}")
    return thresholds
