"""Named universe normalisation and safety."""

from __future__ import annotations
from typing import Any

import pytest

from tallowmere.simulation.named_universe import MAX_NAMED_UNIVERSE_LENGTH

from sibling_support import implementation_fixture

impl = implementation_fixture("tallowmere.simulation.named_universe")


@pytest.mark.parametrize(("value", "expected"), [(None, ""), ("  top300\n", "top300"), ("Cafe\u0301", "Caf\u00e9")])
def test_normalize(impl: Any, value: object, expected: str) -> None:
    assert impl._normalize_named_universe(value) == expected


@pytest.mark.parametrize(("value", "type_name"), [(300, "int"), (b"top300", "bytes")])
def test_normalize_refuses_non_text(impl: Any, value: object, type_name: str) -> None:
    with pytest.raises(ValueError, match=f"^named_universe must be a string, got {type_name}$"):
        impl._normalize_named_universe(value)


@pytest.mark.parametrize("name", ["top300", "liquid-150_v2", "x" * MAX_NAMED_UNIVERSE_LENGTH, "...", "mega caps"])
def test_safe_names(impl: Any, name: str) -> None:
    assert not impl._is_unsafe_named_universe(name)


@pytest.mark.parametrize(
    "name",
    ["", "x" * (MAX_NAMED_UNIVERSE_LENGTH + 1), ".", "..", "a/b", "a\\b", "top\x00300", "top\n300",
     "top\u200b300", " top300", None, b"top300"],
)
def test_unsafe_names(impl: Any, name: object) -> None:
    assert impl._is_unsafe_named_universe(name)
