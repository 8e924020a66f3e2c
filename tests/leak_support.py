"""The leak-repeat check shared by the memory tests.

An operation is repeated many times and the number of live allocations that
pymalloc counts (``sys.getallocatedblocks``) is compared before and after. A
leak of one object per call grows the count by at least ``repeat`` blocks in
every round; caches that are still settling grow it in the first round only,
so the smallest growth of three rounds decides. Under ``PYTHONMALLOC=malloc``
nothing is counted, and the check refuses to pass unseen."""

from __future__ import annotations

import gc
import sys
from collections.abc import Callable
from typing import Any


def growth(operation: Callable[[], Any], repeat: int, warmup: int = 50) -> int:
    """Live blocks gained over ``repeat`` calls, after ``warmup`` calls."""
    assert sys.getallocatedblocks() > 0, "live blocks are not counted under this allocator; run under pymalloc"
    for _ in range(warmup):
        operation()
    gc.collect()
    before = sys.getallocatedblocks()
    for _ in range(repeat):
        operation()
    gc.collect()
    return sys.getallocatedblocks() - before


def rounds(operation: Callable[[], Any], repeat: int) -> list[int]:
    return [growth(operation, repeat) for _ in range(3)]


def leaks(operation: Callable[[], Any], repeat: int) -> bool:
    """Whether every round grew by at least a fifth of a block per call."""
    return min(rounds(operation, repeat)) >= repeat // 5


def assert_no_leak(operation: Callable[[], Any], repeat: int) -> None:
    grown = rounds(operation, repeat)
    assert min(grown) < repeat // 5, f"live blocks grew by {grown} in three rounds of {repeat} calls"
