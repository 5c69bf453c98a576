"""The rotary operations for tensors of any strides: bit for bit against numpy, and memory between the outputs' elements
stays as it was."""

from __future__ import annotations

import ctypes
import ctypes.util
import os
import re
import subprocess
import sys
from collections.abc import Callable
from dataclasses import dataclass

import numpy as np
import pytest
import torch
from kernel_reference import assert_same_bits, assert_same_bits_in_any_order
from linear_reference import DTYPES, Arithmetic, float32_of, numbers

import orrery_host
import orrery_ops

Q_AND_K = "apply_rotary_embedding_half_q_and_k"
Q_OR_K = "apply_rotary_embedding_half_q_or_k"
CACHED = "apply_rotary_embedding_half_q_and_k_cache_freq"
KERNELS = {
    Q_AND_K: ("apply_rotary_embedding_half_kernel_q_and_k", 2),
    Q_OR_K: ("apply_rotary_embedding_half_kernel_q_or_k", 2),
    CACHED: ("apply_rotary_embedding_half_kernel_cache_freq", 4),
}
CPP = {"float16": "c10::Half", "bfloat16": "c10::BFloat16", "float32": "float", "float64": "double"}

operations = pytest.mark.parametrize("operation", KERNELS)
types = pytest.mark.parametrize("dtype", CPP)


# --- The reference --------------------------------------------------------------------------------------------------

libm = ctypes.CDLL(ctypes.util.find_library("m"))
for function, count in (("powf", 2), ("exp2f", 1)):
    getattr(libm, function).restype = ctypes.c_float
    getattr(libm, function).argtypes = [ctypes.c_float] * count


def theta_of_base(base: float, head_dim: int) -> np.float32:
    return np.float32(libm.powf(base, np.float32(-2) / np.float32(head_dim)))


def theta_of_10000(head_dim: int) -> np.float32:
    return np.float32(libm.exp2f(np.float32(-26.575424194335938) / np.float32(head_dim)))


def angles(theta: np.float32, head_dim: int, positions: np.ndarray) -> np.ndarray:
    """[..., half of head_dim] for positions [...]. The device's power is the nearest float but for one in millions."""
    j = np.arange(head_dim // 2, dtype=np.float64)
    return positions.astype(np.float32)[..., None] * float32_of(lambda t: t**j, np.asarray(theta))


def positions_of_rows(positions: np.ndarray, heads: int, rows: int) -> np.ndarray:
    """The position of each row of [batch, head, position]; the sequence is as long as `positions` says."""
    seq, g = positions.shape[1], np.arange(rows)
    return positions.reshape(-1)[g // (heads * seq) * seq + g % seq]


@np.errstate(all="ignore")
def turned(dtype: str, x: np.ndarray, sn: np.ndarray, cs: np.ndarray) -> np.ndarray:
    """The last dimension of x by halves; sines and cosines are those of the first half, as float32."""
    half = x.shape[-1] // 2
    with np.errstate(over="ignore"):
        x1, x2 = x[..., :half].astype(np.float32), x[..., half:].astype(np.float32)
    return Arithmetic(dtype).of(np.concatenate([cs * x1 - sn * x2, cs * x2 + sn * x1], -1))


def reference(dtype: str, x: np.ndarray, positions: np.ndarray, theta: np.float32, sign: int = 1) -> np.ndarray:
    """x [batch, head, position, element]"""
    head_dim, rows = x.shape[3], x.size // x.shape[3]
    at = positions_of_rows(positions, x.shape[1], rows).reshape(x.shape[:3])
    a = angles(theta, head_dim, at)
    return turned(dtype, x, np.float32(sign) * float32_of(np.sin, a), float32_of(np.cos, a))


# --- Tensors of many strides ----------------------------------------------------------------------------------------


@dataclass
class Room:
    """A tensor as a view of storage that is NaN elsewhere."""

    storage: torch.Tensor
    view: torch.Tensor

    def is_nan_elsewhere(self) -> bool:
        self.view.fill_(float("nan"))
        return bool(self.storage.isnan().all())


Layout = Callable[[tuple[int, ...], torch.dtype], Room]


def empty(shape: tuple[int, ...], dtype: torch.dtype) -> torch.Tensor:
    return torch.full(shape, float("nan"), dtype=dtype, device="xpu")


def contiguous(shape, dtype) -> Room:
    storage = empty((2, *shape), dtype)
    return Room(storage, storage[1])


def transposed(shape, dtype) -> Room:
    """[batch, position, head, element], as projections leave it."""
    b, h, s, d = shape
    storage = empty((b, s, h, d), dtype)
    return Room(storage, storage.transpose(1, 2))


def sliced(shape, dtype) -> Room:
    b, h, s, d = shape
    storage = empty((b, h + 1, 2 * s + 3, d + 3), dtype)
    return Room(storage, storage[:, 1:, 2 : 2 * s + 2 : 2, 1 : d + 1])


def reversed_dimensions(shape, dtype) -> Room:
    """The batch has unit stride, an element the largest."""
    storage = empty(shape[::-1], dtype)
    return Room(storage, storage.permute(3, 2, 1, 0))


def every_second_element(shape, dtype) -> Room:
    storage = empty((*shape[:3], 2 * shape[3] + 1), dtype)
    return Room(storage, storage[..., 1::2])


def positions_last(shape, dtype) -> Room:
    """[head, batch, element, position]"""
    b, h, s, d = shape
    storage = empty((h, b, d, s), dtype)
    return Room(storage, storage.permute(1, 0, 3, 2))


LAYOUTS: list[Layout] = [
    contiguous, transposed, sliced, reversed_dimensions, every_second_element, positions_last,
]  # fmt: skip


def filled(layout: Layout, dtype: str, x: np.ndarray) -> torch.Tensor:
    view = layout(x.shape, DTYPES[dtype]).view
    view.copy_(torch.from_numpy(x).to(DTYPES[dtype]))
    return view


def values(generator: np.random.Generator, dtype: str, *shape: int) -> np.ndarray:
    return Arithmetic(dtype).of(generator.standard_normal(shape) * 2)


@dataclass
class Case:
    """query and key by their shapes, with numbers drawn from the seed; `sin` and `cos` have a shape that fits both."""

    dtype: str
    query: tuple[int, int, int, int]
    key_heads: int
    seed: int = 0
    positions: np.ndarray | None = None
    base: float = 10000.0
    backward: bool = False

    def __post_init__(self) -> None:
        g = np.random.default_rng(self.seed + self.query[3])
        b, _, s, d = self.query
        self.x = values(g, self.dtype, *self.query), values(g, self.dtype, b, self.key_heads, s, d)
        if self.positions is None:
            self.positions = g.integers(-3000, 9000, (b, s))
        self.sin, self.cos = values(g, self.dtype, b, 1, s, d), values(g, self.dtype, b, 1, s, d)

    def expected(self, operation: str) -> list[np.ndarray]:
        d, half = self.query[3], self.query[3] // 2
        if operation == CACHED:
            sn, cs = (one[..., :half].astype(np.float32) for one in (self.sin, self.cos))
            return [turned(self.dtype, x, sn, cs) for x in self.x]
        if operation == Q_AND_K:
            return [reference(self.dtype, x, self.positions, theta_of_base(self.base, d)) for x in self.x]
        sign = -1 if self.backward else 1
        return [reference(self.dtype, self.x[0], self.positions, theta_of_10000(d), sign)]

    def call(
        self,
        operation: str,
        inputs: list[torch.Tensor],
        outputs: list[torch.Tensor],
        position_ids: torch.Tensor | None = None,
    ) -> None:
        if position_ids is None:
            position_ids = torch.from_numpy(self.positions).to("xpu")
        if operation == Q_AND_K:
            arguments = [*inputs, position_ids, *outputs, self.base]
        elif operation == Q_OR_K:
            arguments = [inputs[0], position_ids, outputs[0], self.backward]
        else:
            arguments = [*inputs, *self.tables(), *outputs]
        assert getattr(orrery_ops, operation)(*arguments) is None

    def tables(self) -> list[torch.Tensor]:
        """sin and cos; what stands in their second halves is not read."""
        half = self.query[3] // 2
        out = []
        for one in (self.sin, self.cos):
            table = torch.from_numpy(one).to(DTYPES[self.dtype]).to("xpu")
            table[..., half:] = float("nan")
            out.append(table)
        return out

    def tensors(self, operation: str) -> list[np.ndarray]:
        """Those that the operation turns."""
        return [self.x[0]] if operation == Q_OR_K else list(self.x)

    def run(self, operation: str, input: Layout = contiguous, output: Layout = contiguous) -> list[Room]:
        inputs = [filled(input, self.dtype, x) for x in self.tensors(operation)]
        outputs = [output(x.shape, DTYPES[self.dtype]) for x in self.tensors(operation)]
        before = [one.clone() for one in inputs]
        self.call(operation, inputs, [one.view for one in outputs])
        assert all(torch.equal(*pair) for pair in zip(inputs, before, strict=True))
        return outputs

    def assert_turned(self, operation: str, outputs: list[Room]) -> None:
        for got, want in zip(outputs, self.expected(operation), strict=True):
            assert_same_bits(got.view, want)
            assert got.is_nan_elsewhere()

    def check(self, operation: str, input: Layout = contiguous, output: Layout = contiguous) -> None:
        self.assert_turned(operation, self.run(operation, input, output))


# --- Values ---------------------------------------------------------------------------------------------------------


@operations
@types
@pytest.mark.parametrize("head_dim", [2, 4, 6, 64, 80, 96, 128])
def test_is_bit_exact(operation, dtype, head_dim):
    Case(dtype, (2, 6, 5, head_dim), 2).check(operation)
    Case(dtype, (3, 1, 19, head_dim), 7, seed=1).check(operation, transposed, sliced)


@operations
@pytest.mark.parametrize("output", LAYOUTS)
@pytest.mark.parametrize("input", LAYOUTS)
def test_any_strides_on_both_sides(operation, input, output):
    for dtype, head_dim in (("float32", 12), ("float16", 64)):
        Case(dtype, (2, 3, 7, head_dim), 1).check(operation, input, output)


@operations
@types
def test_inputs_that_are_expanded(operation, dtype):
    """One batch, one head, one position seen many times; the positions still differ."""
    case = Case(dtype, (3, 4, 5, 16), 2, seed=2)
    for dimension in (0, 1, 2):
        for x in case.x:
            x[...] = x.take([0], dimension)
        tensors = case.tensors(operation)
        inputs = [filled(transposed, dtype, x.take([0], dimension)).expand(x.shape) for x in tensors]
        outputs = [sliced(x.shape, DTYPES[dtype]) for x in tensors]
        case.call(operation, inputs, [one.view for one in outputs])
        case.assert_turned(operation, outputs)


@operations
@types
@pytest.mark.parametrize("layout", [contiguous, transposed, every_second_element])
def test_in_place(operation, dtype, layout):
    case = Case(dtype, (2, 3, 5, 32), 2, seed=3)
    rooms = [layout(x.shape, DTYPES[dtype]) for x in case.tensors(operation)]
    for room, x in zip(rooms, case.tensors(operation), strict=True):
        room.view.copy_(torch.from_numpy(x).to(DTYPES[dtype]))
    views = [room.view for room in rooms]
    case.call(operation, views, views)
    case.assert_turned(operation, rooms)


@operations
@pytest.mark.parametrize("rows, head_dim", [(32767, 4), (32768, 4), (32769, 4), (70001, 4), (33001, 64), (70001, 32)])
def test_more_rows_than_groups(operation, rows, head_dim):
    """The groups go through the rows in steps of 32768, across the border of the two tensors. Groups of whole sub-groups
    run in another way on the host than those of a part of one."""
    heads = [rows] if operation == Q_OR_K else [rows - 9999, 9999]
    case = Case("float32", (1, heads[0], 1, head_dim), heads[-1], seed=4)
    case.check(operation)
    case.check(operation, reversed_dimensions, contiguous)


@pytest.mark.parametrize("operation", [Q_AND_K, Q_OR_K])
def test_a_long_sequence(operation):
    """The sines and cosines of its positions are more than 8 MiB."""
    Case("float16", (1, 2, 17000, 128), 1, seed=21).check(operation, transposed)


@types
@pytest.mark.parametrize("input", [contiguous, transposed, reversed_dimensions])
def test_backward_is_the_inverse(dtype, input):
    case = Case(dtype, (2, 3, 9, 64), 1, seed=5)
    forward = case.run(Q_OR_K, input)[0].view
    case.backward = True
    case.check(Q_OR_K, input, sliced)
    case.x = (numbers(forward), case.x[1])
    case.check(Q_OR_K, input)
    back = numbers(case.run(Q_OR_K)[0].view).astype(np.float64)
    original = Case(dtype, (2, 3, 9, 64), 1, seed=5).x[0].astype(np.float64)
    # A pair's length is below 12; each way rounds in the type, and in float where cos^2 + sin^2 is not quite 1.
    unit = {"float16": 2**-11, "bfloat16": 2**-8}.get(dtype, 2**-24)
    assert np.abs(back - original).max() < 12 * (2 * unit + 8 * 2**-24)


def test_turns_each_pair_by_its_angle():
    """A second opinion in complex float64. theta is off by 2^-24 of itself, its powers by up to 64 times that, so
    angles of up to 100 are off by at most 2^-11; a pair's length is below 12."""
    positions = np.random.default_rng(6).integers(0, 100, (2, 7))
    for base in (10000.0, 500000.0):
        case = Case("float32", (2, 3, 7, 128), 2, seed=6, positions=positions, base=base)
        turn = np.exp(1j * positions[:, None, :, None] * base ** (-2 * np.arange(64) / 128))
        for x, got in zip(case.x, case.run(Q_AND_K), strict=True):
            y = numbers(got.view)
            assert (
                np.abs((x[..., :64] + 1j * x[..., 64:]) * turn - (y[..., :64] + 1j * y[..., 64:])).max() < 12 * 2**-11
            )


@pytest.mark.parametrize("base", [1.0, 2.5, 1e6, 0.5])
@pytest.mark.parametrize("head_dim", [4, 64, 96])
def test_base(base, head_dim):
    Case("float32", (1, 2, 9, head_dim), 1, seed=7, base=base).check(Q_AND_K)


@pytest.mark.parametrize("head_dim", [24, 28, 100, 160])
def test_theta_of_one_tensor_is_that_of_base_10000_but_for_the_last_bit(head_dim):
    """These are sizes at which the two ways to the same number differ."""
    theta = theta_of_base(10000.0, head_dim), theta_of_10000(head_dim)
    assert theta[0] != theta[1] and abs(theta[0] - theta[1]) <= 2 * np.spacing(theta[0])
    case = Case("float32", (1, 2, 33, head_dim), 1, seed=8)
    for operation in (Q_AND_K, Q_OR_K):
        case.check(operation)


# --- Positions ------------------------------------------------------------------------------------------------------

EXTREME = [0, -1, -4097, 2**24 - 1, 2**24, 2**24 + 1, 2**24 + 3, 2**31 - 1, -(2**31), 2**31, 2**33 + 7,
           -(2**40) - 12345, 2**62 + 1]  # fmt: skip


@pytest.mark.parametrize("operation", [Q_AND_K, Q_OR_K])
@types
def test_extreme_positions(operation, dtype):
    """Negative ones, and those that float cannot hold."""
    case = Case(dtype, (1, 3, len(EXTREME), 64), 2, seed=9, positions=np.array([EXTREME]))
    case.check(operation)
    case.check(operation, reversed_dimensions, transposed)


@pytest.mark.parametrize("operation", [Q_AND_K, Q_OR_K])
def test_a_large_position_acts_as_its_float(operation):
    case = Case("float32", (1, 1, 4, 64), 1, seed=10, positions=np.array([[2**31 - 1, 2**31, 2**24 + 1, 2**24]]))
    for x in case.x:
        x[:, :, 1::2] = x[:, :, ::2]
    for room in case.run(operation):
        assert torch.equal(room.view[:, :, ::2], room.view[:, :, 1::2])


@pytest.mark.parametrize("operation", [Q_AND_K, Q_OR_K])
@types
def test_position_0_leaves_all_as_it_is(operation, dtype):
    case = Case(dtype, (2, 2, 3, 64), 2, seed=11, positions=np.zeros((2, 3), np.int64))
    for x, room in zip(case.tensors(operation), case.run(operation), strict=True):
        expected = Arithmetic(dtype).of(x.astype(np.float32))  # double loses what float does not hold
        assert_same_bits(room.view, expected)


@pytest.mark.parametrize("operation", [Q_AND_K, Q_OR_K])
@pytest.mark.parametrize("dtype", ["float32", "float16"])
def test_positions_of_any_strides(operation, dtype):
    case = Case(dtype, (3, 2, 5, 16), 4, seed=12)
    for at in (case.positions, case.positions[:1].repeat(3, 0), case.positions[:, :1].repeat(5, 1)):
        case.positions = at
        wide = torch.full((11, 6), -777, device="xpu")
        wide[1::2, ::2] = torch.from_numpy(np.ascontiguousarray(at.T)).to("xpu")
        views = [wide[1::2, ::2].t()]
        if (at[:1] == at).all():
            views.append(torch.from_numpy(at[:1].copy()).to("xpu").expand(3, 5))
        if (at[:, :1] == at).all():
            views.append(torch.from_numpy(at[:, :1].copy()).to("xpu").expand(3, 5))
        for position_ids in views:
            assert not position_ids.is_contiguous()
            tensors = case.tensors(operation)
            outputs = [contiguous(x.shape, DTYPES[dtype]) for x in tensors]
            inputs = [filled(transposed, dtype, x) for x in tensors]
            case.call(operation, inputs, [one.view for one in outputs], position_ids)
            case.assert_turned(operation, outputs)


@pytest.mark.parametrize("operation", [Q_AND_K, Q_OR_K])
@pytest.mark.parametrize("input", [contiguous, transposed, reversed_dimensions])
def test_the_sequence_is_as_long_as_the_positions_say(operation, input):
    """[1, 2, 6] rows are served by [3, 2] positions: four rows a batch, whatever the tensor calls them."""
    case = Case("float32", (1, 2, 6, 8), 2, seed=13, positions=np.array([[5, -7], [100, 3], [0, 9]]))
    case.check(operation, input)


@types
def test_each_tensor_has_its_own_number_of_heads(dtype):
    """With two batches, a position looked up with the other tensor's heads would be of the wrong batch."""
    positions = np.array([[0, 1, 2], [1000, 2000, 3000]])
    for heads, key_heads in ((8, 1), (1, 8), (6, 2), (3, 5)):
        Case(dtype, (2, heads, 3, 8), key_heads, seed=14, positions=positions).check(Q_AND_K)


def test_positions_of_another_type():
    for operation in (Q_AND_K, Q_OR_K):
        case = Case("float32", (1, 2, 3, 8), 1)
        case.positions = case.positions.astype(np.int32)
        with pytest.raises(RuntimeError, match="expected scalar type Long but found Int"):
            case.run(operation)


# --- double ---------------------------------------------------------------------------------------------------------


@operations
def test_double_turns_in_float(operation):
    case = Case("float64", (1, 2, 3, 16), 1, seed=15)
    for x in case.x:
        assert (x != x.astype(np.float32)).any()
    outputs = case.run(operation)
    narrow = Case("float32", (1, 2, 3, 16), 1, seed=15)
    narrow.x = tuple(x.astype(np.float32) for x in case.x)
    narrow.sin, narrow.cos = case.sin.astype(np.float32), case.cos.astype(np.float32)
    for wide, single in zip(outputs, narrow.run(operation), strict=True):
        assert torch.equal(wide.view, single.view.double())


@operations
def test_double_beyond_float(operation):
    case = Case("float64", (1, 1, 2, 4), 1, seed=16)
    for x in case.x:
        x[0, 0, 0] = [1e300, 1.0, -1e-300, 2.0]
    case.check(operation)


@operations
@pytest.mark.parametrize("dtype", ["float16", "bfloat16"])
def test_narrow_types_round_once(operation, dtype):
    """The rotation is in float; only the result is rounded."""
    case = Case(dtype, (1, 4, 9, 64), 1, seed=17)
    a = Arithmetic(dtype)
    got = numbers(case.run(operation)[0].view)
    x, half = case.x[0], 32
    sn, cs = case.sin, case.cos
    if operation != CACHED:
        theta = theta_of_base(case.base, 64) if operation == Q_AND_K else theta_of_10000(64)
        angle = angles(theta, 64, case.positions[:, None])
        sn, cs = a.of(float32_of(np.sin, angle)), a.of(float32_of(np.cos, angle))
    narrow = a.add(a.mul(cs[..., :half], x[..., :half]), -a.mul(sn[..., :half], x[..., half:]))
    assert (got[..., :half] != narrow).mean() > 0.05


# --- Tables ---------------------------------------------------------------------------------------------------------


@types
@pytest.mark.parametrize("key_heads", [1, 6])
def test_tables_of_any_strides(dtype, key_heads):
    """Only the first half of each row is read; the other is NaN here."""
    case = Case(dtype, (2, 6, 5, 32), key_heads, seed=18)
    sin, cos = case.tables()
    broad = [torch.cat([one[..., :16], one[..., 16:]], -1).expand(2, 6, 5, 32)[:, :key_heads] for one in (sin, cos)]
    by_elements = [filled(reversed_dimensions, dtype, numbers(one)) for one in (sin, cos)]
    tables = [(sin, cos), (by_elements[0], cos), (sin, filled(every_second_element, dtype, numbers(cos)))]
    if key_heads == 6:
        tables.append(broad)
        tables.append((broad[0].contiguous(), broad[1]))
    for some in tables:
        inputs = [filled(transposed, dtype, x) for x in case.x]
        outputs = [sliced(x.shape, DTYPES[dtype]) for x in case.x]
        orrery_ops.apply_rotary_embedding_half_q_and_k_cache_freq(*inputs, *some, *[one.view for one in outputs])
        case.assert_turned(CACHED, outputs)


@types
@pytest.mark.parametrize("dimensions", [1, 2, 3, 5, 7])
def test_tables_of_any_number_of_dimensions(dtype, dimensions):
    g = np.random.default_rng(19)
    shape = (2, 3, 1, 2, 3, 2, 8)[-dimensions:]
    x, k, sin, cos = (values(g, dtype, *shape) for _ in range(4))
    tensors = [torch.from_numpy(one).to(DTYPES[dtype]).to("xpu") for one in (x, k, sin, cos)]
    outputs = [empty(shape, DTYPES[dtype]) for _ in range(2)]
    orrery_ops.apply_rotary_embedding_half_q_and_k_cache_freq(*tensors, *outputs)
    for input, got in zip((x, k), outputs, strict=True):
        assert_same_bits(got, turned(dtype, input, *(one[..., :4].astype(np.float32) for one in (sin, cos))))


def many_dimensions(count: int) -> list[torch.Tensor]:
    """Tensors of `count` dimensions of 2, of which no iterator can join two: neighbours of one are far in another."""
    g = np.random.default_rng(20)
    order = [*range(0, count, 2), *range(1, count, 2)]
    back = np.argsort(order).tolist()
    numbers_of = [torch.from_numpy(values(g, "float32", *[2] * count)).to("xpu") for _ in range(4)]
    return (
        [one.permute(back) for one in numbers_of[:2]]
        + numbers_of[2:]
        + [torch.full_like(x, np.nan) for x in numbers_of[2:]]
    )


def test_12_dimensions():
    tensors = many_dimensions(12)
    orrery_ops.apply_rotary_embedding_half_q_and_k_cache_freq(*tensors)
    query, key, sin, cos, *outputs = tensors
    for input, got in zip((query, key), outputs, strict=True):
        assert_same_bits(got, turned("float32", numbers(input), numbers(sin)[..., :1], numbers(cos)[..., :1]))


def test_13_dimensions_are_too_many():
    with pytest.raises(RuntimeError) as error:
        orrery_ops.apply_rotary_embedding_half_q_and_k_cache_freq(*many_dimensions(13))
    assert str(error.value) == "tensor has too many (>12) dims"


# --- Launches -------------------------------------------------------------------------------------------------------


@operations
@types
@pytest.mark.parametrize("head_dim, group", [(2, 2), (4, 4), (62, 62), (64, 64), (80, 64), (128, 64)])
def test_launch(operation, dtype, head_dim, group):
    kernel, tensors = KERNELS[operation]
    with orrery_host.record_launches() as launches:
        Case(dtype, (2, 5, 3, head_dim), 1).run(operation)
    (launch,) = [one for one in launches if one.kernel == kernel]
    rows = 30 if operation == Q_OR_K else 36
    assert (launch.name, launch.waited, launch.local_memory) == ("gridrun_kernel", False, 0)
    assert launch.instance.startswith(f"{CPP[dtype]}, {tensors}, unsigned int, false, ")
    assert "OffsetCalculator" in launch.instance
    assert (launch.file, launch.function) == ("rope_xpu", kernel)
    assert (launch.global_size, launch.local_size) == ((rows * group,), (group,))


@operations
def test_no_more_than_32768_groups(operation):
    kernel, _ = KERNELS[operation]
    for rows, groups in ((32767, 32767), (32768, 32768), (32769, 32768), (100000, 32768)):
        heads = rows if operation == Q_OR_K else rows - 5
        with orrery_host.record_launches() as launches:
            Case("float16", (1, heads, 1, 2), 5).run(operation)
        (launch,) = [one for one in launches if one.kernel == kernel]
        assert (launch.global_size, launch.local_size) == ((2 * groups,), (2,))


@operations
@pytest.mark.parametrize("shape", [(0, 3, 5, 64), (2, 3, 0, 64), (2, 0, 5, 64), (2, 3, 5, 0)])
def test_no_rows(operation, shape):
    kernel, _ = KERNELS[operation]
    key_heads = 0 if shape[1] == 0 else 2
    with orrery_host.record_launches() as launches:
        Case("float32", shape, key_heads).run(operation)
    (launch,) = [one for one in launches if one.kernel == kernel]
    assert (launch.name, launch.global_size) == ("gridrun_kernel", (0,))


@pytest.mark.parametrize("operation", [Q_AND_K, CACHED])
def test_no_rows_in_one_of_two(operation):
    Case("float32", (2, 3, 5, 8), 0).check(operation)
    Case("float32", (2, 0, 5, 8), 3).check(operation)


# --- Failures -------------------------------------------------------------------------------------------------------

FOUR = "The dimensions of all tensor should be 4"
TWO = "The dimensions of position_ids should be 2"
EVEN = "The problem size should be divisible by 2"
EQUAL = "The dimensions of all tensor should be equal"
SAME_SIZE = "The problem size of all tensor should be equal"
BAD: dict[str, list[tuple[str, dict[int, tuple[int, ...]]]]] = {
    Q_AND_K: [
        *((FOUR, {2: (2,), 0: (2, 3, 4, 7), i: (2, 3, 8)}) for i in (0, 1, 3, 4)),
        (FOUR, {1: (1, 2, 3, 4, 8)}),
        (TWO, {2: (5,), 0: (2, 3, 4, 7)}),
        (TWO, {2: (2, 4, 1)}),
        (EVEN, {0: (2, 3, 4, 7), 3: (2, 3, 4, 7)}),
        (EVEN, {1: (2, 3, 4, 7), 4: (2, 3, 4, 7)}),
    ],
    Q_OR_K: [
        *((FOUR, {0: (2, 3, 4, 7), 1: (2,), i: (2, 3, 8)}) for i in (0, 2)),
        (TWO, {1: (5,), 0: (2, 3, 4, 7)}),
        (TWO, {1: (2, 4, 1)}),
        (EVEN, {0: (2, 3, 4, 7), 2: (2, 3, 4, 7)}),
    ],
    CACHED: [
        *((EQUAL, {0: (2, 3, 4, 7), i: (3, 4, 6)}) for i in range(6)),
        *((SAME_SIZE, {i: (2, 3, 4, 6)}) for i in range(6)),
        (SAME_SIZE, {0: (2, 3, 4, 7), 4: (2, 3, 4, 7)}),
        (EVEN, dict.fromkeys(range(6), (2, 3, 4, 7))),
    ],
}


def tensors_of(operation: str, dtype: torch.dtype = torch.float32) -> list:
    x = torch.ones(2, 3, 4, 8, dtype=dtype, device="xpu")
    at = torch.zeros(2, 4, dtype=torch.int64, device="xpu")
    if operation == Q_AND_K:
        return [x, x, at, x.clone(), x.clone(), 10000.0]
    return [x, at, x.clone(), False] if operation == Q_OR_K else [x, x, x, x, x.clone(), x.clone()]


def with_shapes(operation: str, shapes: dict[int, tuple[int, ...]]) -> list:
    return [torch.ones(shapes[i], dtype=one.dtype, device="xpu") if i in shapes else one
            for i, one in enumerate(tensors_of(operation))]  # fmt: skip


@pytest.mark.parametrize("operation, text, shapes", [(o, *one) for o, some in BAD.items() for one in some])
def test_the_first_check_that_fails_is_told(operation, text, shapes):
    with orrery_host.record_launches() as launches, pytest.raises(RuntimeError) as error:
        getattr(orrery_ops, operation)(*with_shapes(operation, shapes))
    assert type(error.value) is RuntimeError and str(error.value) == text
    assert not launches


@operations
@pytest.mark.parametrize("dtype, name", [(torch.int32, "Int"), (torch.int64, "Long"), (torch.bool, "Bool")])
def test_types_that_are_not_supported(operation, dtype, name):
    with pytest.raises(RuntimeError) as error:
        getattr(orrery_ops, operation)(*tensors_of(operation, dtype))
    assert str(error.value) == f"\"apply_rotary_embedding\" not implemented for '{name}'"


def test_the_shapes_come_before_the_type():
    for operation, (text, shapes) in ((name, some[-1]) for name, some in BAD.items()):
        tensors = [one.int() if torch.is_tensor(one) else one for one in with_shapes(operation, shapes)]
        with pytest.raises(RuntimeError) as error:
            getattr(orrery_ops, operation)(*tensors)
        assert str(error.value) == text


def test_failed_checks_name_their_function():
    code = """
import sys, test_rope_xpu as m, orrery_ops
for operation, some in m.BAD.items():
    for text, shapes in some:
        try:
            getattr(orrery_ops, operation)(*m.with_shapes(operation, shapes))
        except RuntimeError as error:
            print(str(error).splitlines()[1].split(" (most")[0])
"""
    here = os.path.dirname(__file__)
    environment = os.environ | {"TORCH_SHOW_CPP_STACKTRACES": "1", "TORCH_SYMBOLIZE_MODE": "dladdr"}
    environment["PYTHONPATH"] = os.pathsep.join(filter(None, [here, os.environ.get("PYTHONPATH")]))
    done = subprocess.run(
        [sys.executable, "-c", code], capture_output=True, text=True, env=environment, timeout=300, check=False
    )
    assert done.returncode == 0, done.stderr
    lines = iter(done.stdout.splitlines())
    for operation, some in BAD.items():
        function = operation.replace("_embedding_half", "_embedding")
        for _ in some:
            assert re.match(rf"Exception raised from {function} at .*rope_xpu", next(lines)), operation


def results() -> list[torch.Tensor]:
    out = []
    for i, (dtype, layout) in enumerate([("float32", contiguous), ("float16", transposed), ("bfloat16", sliced),
                                         ("float64", reversed_dimensions)]):  # fmt: skip
        case = Case(dtype, (2, 5, 9, 96), 2, seed=30 + i)
        for operation in KERNELS:
            out += [room.view for room in case.run(operation, layout)]
    return out


def test_bits_do_not_depend_on_threads_or_schedule():
    assert_same_bits_in_any_order("test_rope_xpu", results)
