"""The integer divider, and where the elements of tensors lie in a common iteration."""

from __future__ import annotations

import numpy as np
import pytest
import torch
from hypothesis import given, settings
from hypothesis import strategies as st

import orrery_native_tests as native

POWERS = [1 << bit for bit in range(32)]
AROUND_POWERS = sorted({d + by for d in POWERS + [1 << 32] for by in (-3, -2, -1, 0, 1, 2, 3) if 0 < d + by < 1 << 32})


def test_every_small_divisor() -> None:
    assert native.first_wrong_divisor(1, 1 << 20, 1) == 0


def test_divisors_of_the_whole_range() -> None:
    assert native.first_wrong_divisor(1, 1 << 32, 4099) == 0
    assert [d for d in AROUND_POWERS if native.first_wrong_divisor(d, d + 1, 1)] == []


words = st.integers(1, 32).flatmap(lambda bits: st.integers(0, (1 << bits) - 1))


@given(words.filter(bool), st.lists(words, max_size=20))
@settings(max_examples=1000, deadline=None)
def test_numbers_of_every_length(divisor: int, dividends: list[int]) -> None:
    assert native.divided(divisor, dividends) == [divmod(n, divisor) for n in dividends]


@pytest.mark.parametrize("divisor", [1, 2, 3, 5, 7, 64, 96, 641, 65535, 65537, 2**31 - 1, 2**31, 2**31 + 1, 2**32 - 1])
def test_fields(divisor: int) -> None:
    """The smallest power of two that is not below the divisor, and the part of the factor above 2^32."""
    shift = (divisor - 1).bit_length()
    assert native.divider(divisor) == [divisor, (1 << 32) * ((1 << shift) - divisor) // divisor + 1, shift]


def expected(tensors: list[torch.Tensor], indexes: list[int]) -> list[list[int]]:
    shape = torch.broadcast_shapes(*[t.shape for t in tensors])
    strides = [t.expand(shape).stride() for t in tensors]
    places = np.unravel_index(indexes, shape) if shape else ()
    return np.stack([sum(np.asarray(p) * s for p, s in zip(places, own)) for own in strides], 1).tolist()


def all_indexes(tensor: torch.Tensor) -> list[int]:
    return list(range(tensor.numel()))


LAYOUTS = {
    "contiguous": lambda t: t.clone(),
    "heads and positions exchanged": lambda t: t.transpose(1, 2).clone(memory_format=torch.contiguous_format).transpose(1, 2),
    "every dimension reversed": lambda t: t.permute(3, 2, 1, 0).contiguous().permute(3, 2, 1, 0),
    "a slice": lambda t: torch.nn.functional.pad(t, (3, 5, 1, 0))[..., 1:, 3 : 3 + t.shape[-1]],
    "every second element": lambda t: torch.stack([t, t], -1)[..., 1],
}


@pytest.mark.parametrize("first", LAYOUTS)
@pytest.mark.parametrize("second", LAYOUTS)
def test_offsets_follow_the_order_of_the_dimensions(first: str, second: str) -> None:
    whole = torch.zeros(2, 3, 5, 6)
    tensors = [LAYOUTS[first](whole), LAYOUTS[second](whole)]
    assert native.offsets(2, tensors, all_indexes(whole)) == expected(tensors, all_indexes(whole))


def test_one_tensor_and_four() -> None:
    positions = torch.zeros(3, 7, dtype=torch.int64)
    for one in (positions, positions.T.contiguous().T, positions[:, ::2]):
        assert native.offsets(1, [one], all_indexes(one)) == expected([one], all_indexes(one))
    four = [torch.zeros(2, 3, 5, 6), torch.zeros(2, 5, 3, 6).transpose(1, 2), torch.zeros(1, 1, 5, 6), torch.zeros(2, 1, 5, 1)]
    assert native.offsets(4, four, all_indexes(four[0])) == expected(four, all_indexes(four[0]))


def test_an_index_beyond_the_iteration_begins_again() -> None:
    positions = torch.zeros(1, 7, dtype=torch.int64)
    assert native.offsets(1, [positions], [6, 7, 8, 20]) == [[6], [0], [1], [6]]


def scattered(dims: int) -> list[torch.Tensor]:
    """Tensors of as many dimensions, none of which can be joined with another."""
    order = list(range(0, dims, 2)) + list(range(1, dims, 2))
    one = torch.zeros([2] * dims)
    return [one, one.permute(order).contiguous().permute(*np.argsort(order).tolist())]


def test_twelve_dimensions_and_no_more() -> None:
    indexes = [0, 1, 2, 100, 2047, 4095]
    assert native.offsets(2, scattered(12), indexes) == expected(scattered(12), indexes)
    with pytest.raises(RuntimeError, match=r"^tensor has too many \(>12\) dims$"):
        native.offsets(2, scattered(13), indexes)


def test_more_tensors_than_the_iteration_has() -> None:
    with pytest.raises(RuntimeError, match=r"^Expected N <= iter.ntensors\(\) to be true, but got false\."):
        native.offsets(4, [torch.zeros(3), torch.zeros(3)], [0])


def test_runs() -> None:
    whole = torch.zeros(2, 3, 5, 6)
    runs = {name: native.has_runs_of(layout(whole), 6) for name, layout in LAYOUTS.items()}
    assert runs == dict(zip(LAYOUTS, (True, True, False, True, False)))
    assert native.has_runs_of(whole, 30) and not native.has_runs_of(whole, 7) and not native.has_runs_of(whole, 360)
