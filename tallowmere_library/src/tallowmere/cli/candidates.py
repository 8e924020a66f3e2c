"""Candidate signal expressions for the demo, generated reproducibly from a generator key.

Each candidate comes from one family of ideas with randomly drawn windows:
short-term reversal, trailing momentum, low volatility, volume surprise,
price-volume divergence, position in the day's range, a delayed return that
is mostly noise, and blends of two of these. Candidates of one family are
alike, so the service's pool comparison refuses some of them as too
correlated with those found before; others fail out of sample or are not
useful. The same key and count always give the same candidates.
"""

from __future__ import annotations

import random
from collections.abc import Callable
from dataclasses import dataclass
from typing import Any, Final

from tallowmere.simulation.graph_complexity import graph_fingerprint

Graph = dict[str, Any]

MAX_DRAWS_PER_CANDIDATE: Final = 50
"""Draws allowed per candidate asked for before the generator stops with fewer (when duplicates abound)."""


def _node(op: str, *args: Graph, **parameters: Any) -> Graph:
    node: Graph = {"op": op, **parameters}
    if args:
        node["args"] = list(args)
    return node


def _reversal(rng: random.Random) -> Graph:
    return _node("rank", _node("neg", _node("ts_mean", _node("returns"), window=rng.randint(1, 5))))


def _momentum(rng: random.Random) -> Graph:
    trailing = _node("ts_mean", _node("returns"), window=rng.choice([60, 80, 100, 120, 150]))
    return _node("rank", _node("ts_delay", trailing, window=rng.randint(10, 30)))


def _low_volatility(rng: random.Random) -> Graph:
    return _node("rank", _node("neg", _node("ts_std", _node("returns"), window=rng.choice([20, 40, 60, 90, 120]))))


def _volume_surprise(rng: random.Random) -> Graph:
    average = _node("ts_mean", _node("volume"), window=rng.choice([5, 10, 20, 40, 60]))
    return _node("rank", _node("div", _node("volume"), average))


def _price_volume(rng: random.Random) -> Graph:
    correlation = _node("ts_corr", _node("returns"), _node("volume"), window=rng.choice([10, 20, 40]))
    return _node("rank", _node("neg", correlation))


def _range_position(rng: random.Random) -> Graph:
    position = _node("div", _node("sub", _node("close"), _node("low")), _node("sub", _node("high"), _node("low")))
    return _node("rank", _node("neg", _node("ts_mean", position, window=rng.randint(1, 10))))


def _stale_return(rng: random.Random) -> Graph:
    return _node("rank", _node("ts_delay", _node("returns"), window=rng.randint(5, 15)))


_SINGLE_FAMILIES: Final[tuple[tuple[str, Callable[[random.Random], Graph]], ...]] = (
    ("reversal", _reversal),
    ("momentum", _momentum),
    ("low volatility", _low_volatility),
    ("volume surprise", _volume_surprise),
    ("price-volume", _price_volume),
    ("range position", _range_position),
    ("stale return", _stale_return),
)


def _blend(rng: random.Random) -> Graph:
    (_, first), (_, second) = rng.sample(_SINGLE_FAMILIES, 2)
    return _node("add", first(rng), second(rng))


FAMILIES: Final = (*_SINGLE_FAMILIES, ("blend", _blend))
"""The families drawn from, each with equal chance: (name, builder from a random generator)."""


@dataclass(frozen=True)
class Candidate:
    """One generated expression: its number (from 1), its family and its graph."""

    number: int
    family: str
    graph: Graph


def generate_candidates(count: int, random_state: int) -> list[Candidate]:
    """Return ``count`` distinct candidates drawn with the generator key ``random_state``.

    Fewer are returned only when the families cannot supply that many
    distinct graphs within a bounded number of draws.
    """
    rng = random.Random(random_state)
    candidates: list[Candidate] = []
    seen: set[str] = set()
    for _ in range(count * MAX_DRAWS_PER_CANDIDATE):
        if len(candidates) == count:
            break
        family, build = rng.choice(FAMILIES)
        graph = build(rng)
        fingerprint = graph_fingerprint(graph)
        if fingerprint not in seen:
            seen.add(fingerprint)
            candidates.append(Candidate(number=len(candidates) + 1, family=family, graph=graph))
    return candidates
