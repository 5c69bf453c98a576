"""fused_rms_norm and fused_layer_norm: bit for bit against the order of additions in numpy, for every instance that a
row length brings; the lengths that are declined, and those for which nothing runs."""

from __future__ import annotations

import os
import subprocess
import sys
from collections.abc import Callable, Iterator
from pathlib import Path

import numpy as np
import pytest
import torch
from kernel_reference import (
    assert_same_bits,
    assert_same_bits_in_any_order,
    between_nan,
    fold,
    leave_nan_behind,
)
from linear_reference import DTYPES, Arithmetic, numbers
from sanitizers import SANITIZED, THREADS_SANITIZED
from torch.profiler import ProfilerActivity, profile

import orrery_host
import orrery_launch
import orrery_ops

# The largest work-group; some tests run in a process that sets it.
W = int(os.environ.get("ORRERY_HOST_MAX_WORK_GROUP_SIZE", "1024"))
CPP = {"float16": "c10::Half", "bfloat16": "c10::BFloat16", "float32": "float", "float64": "double"}
PER_ITEM = {"float16": 16, "bfloat16": 16, "float32": 8, "float64": 4}
WIDEST = {"float16": 8, "bfloat16": 8, "float32": 4, "float64": 2}
OPERATIONS = {"rms": orrery_ops.fused_rms_norm, "layer": orrery_ops.fused_layer_norm}

types = pytest.mark.parametrize("dtype", CPP)
kinds = pytest.mark.parametrize("kind", OPERATIONS)


# --- The reference --------------------------------------------------------------------------------------------------


def shape_of(dtype: str, n: int) -> tuple[int, int]:
    """Elements per load and work-items per group for a row of n."""
    vec, items = WIDEST[dtype], W
    while vec > 1 and n <= vec // 2 * W:
        vec //= 2
    while (items >> 1) * vec >= n:
        items >>= 1
    return vec, items


def accumulator(dtype: str) -> type:
    return np.float64 if dtype == "float64" else np.float32


def rounded_eps(dtype: str, eps: float) -> np.floating:
    eps = np.float32(eps)
    return accumulator(dtype)(Arithmetic(dtype).of(eps) if PER_ITEM[dtype] == 16 else eps)


def item_sums(dtype: str, x: np.ndarray, shape: tuple[int, int] | None = None) -> tuple[np.ndarray, np.ndarray]:
    """[row, item]: each work-item's sum and sum of squares, over its passes and the elements of each load in order."""
    (m, n), (vec, items), acc = x.shape, shape or shape_of(dtype, x.shape[1]), accumulator(dtype)
    passes = -(-n // (items * vec))
    assert passes <= PER_ITEM[dtype] // vec and n % vec == 0
    padded = np.zeros((m, passes * items * vec), acc)  # adding zeros changes no sum
    padded[:, :n] = x
    padded = padded.reshape(m, passes, items, vec)
    total, squares = np.zeros((m, items), acc), np.zeros((m, items), acc)
    for i in range(passes):
        for k in range(vec):
            v = padded[:, i, :, k]
            total = total + v
            squares = squares + v * v
    return total, squares


def shuffled_down(v: np.ndarray, shift: int) -> np.ndarray:
    """What lies beyond the sub-group is nobody's: NaN shows where it would be used."""
    return np.concatenate([v[..., shift:], np.full_like(v[..., :shift], np.nan)], -1)


def over_sub_groups(values: np.ndarray) -> np.ndarray:
    """[row]: the sum over [row, item] by whole sub-groups of 32, then over these."""
    m, items = values.shape
    count = items >> 5
    if count == 0:
        return np.zeros(m, values.dtype)
    lanes = values[:, : 32 * count].reshape(m, count, 32)
    for shift in (1, 2, 4, 8, 16):
        lanes = lanes + shuffled_down(lanes, shift)
    totals = lanes[..., 0]
    if count == 1:
        return totals[:, 0]
    first = np.zeros((m, 32), values.dtype)
    first[:, : min(count, 32)] = totals[:, :32]
    for start in range(32, count, 32):
        some = totals[:, start : start + 32]
        first[:, : some.shape[1]] = first[:, : some.shape[1]] + some
    limit, shift = (count + 1) >> 1, 1
    while shift < 32:
        first = first + shuffled_down(first, shift)
        if shift >= limit:
            break
        shift *= 2
    return first[:, 0]


def rsqrt(t: np.ndarray) -> np.ndarray:
    """For float the nearest one, which is what the host's native function gives; in double a square root, then a
    division, each rounded."""
    return (1 / np.sqrt(t.astype(np.float64))).astype(t.dtype)


def over_group(values: np.ndarray) -> np.ndarray:
    """[row]: the group's own sum over [row, item]: the work-items whose ids are equal modulo 32 in their order, then
    the halving tree over the 32 sums."""
    m, items = values.shape
    padded = np.zeros((m, -(-items // 32) * 32), values.dtype)
    padded[:, :items] = values
    sums = np.zeros((m, 32), values.dtype)
    for some in padded.reshape(m, -1, 32).transpose(1, 0, 2):
        sums = sums + some
    return fold(sums)


def in_any_order(squares: np.ndarray) -> np.ndarray:
    """For sums that are exact whatever the order: of small whole numbers."""
    assert (squares == np.trunc(squares)).all() and squares.sum() < 2**24
    return squares.sum(1)


@np.errstate(all="ignore")
def reference(
    kind: str,
    dtype: str,
    x: np.ndarray,
    eps: float,
    weight: np.ndarray | None = None,
    bias: np.ndarray | None = None,
    residuals: tuple[np.ndarray, ...] = (),
    group_sum: Callable[[np.ndarray], np.ndarray] = over_group,
    shape: tuple[int, int] | None = None,
) -> np.ndarray:
    """Rows of numbers of the type, as float32 for bfloat16. `shape` is that of the group, if it is not the device's."""
    a, acc = Arithmetic(dtype), accumulator(dtype)
    for residual in [a.add(*residuals)] if len(residuals) == 2 else residuals:
        x = a.add(x, residual)
    n, zero, eps = acc(np.float32(x.shape[1])), acc(0), rounded_eps(dtype, eps)
    total, squares = item_sums(dtype, x, shape)
    x = x.astype(acc)
    if kind == "layer":
        total, squares = over_sub_groups(total), over_sub_groups(squares)
        mean = total / n
        var = (squares - total * total / n) / n
        r = rsqrt(np.where(var < 0, zero, var + eps))
        y = r[:, None] * (x - mean[:, None])
    else:
        squares = group_sum(squares)
        y = rsqrt(np.where(squares < 0, zero, squares / n + eps))[:, None] * x
    y = y if weight is None else y * weight.astype(acc)
    y = y if bias is None else y + bias.astype(acc)
    return a.of(y)


# --- Cases ----------------------------------------------------------------------------------------------------------


def whole(generator: np.random.Generator, dtype: str, *shape: int) -> np.ndarray:
    """Whole numbers whose squares add up exactly."""
    return Arithmetic(dtype).of(generator.integers(-5, 6, shape))


def spread(generator: np.random.Generator, dtype: str, *shape: int) -> np.ndarray:
    return Arithmetic(dtype).of(generator.standard_normal(shape) * 2 + 0.3)


def tensor(dtype: str, x: np.ndarray | None) -> torch.Tensor | None:
    return None if x is None else between_nan(torch.from_numpy(np.ascontiguousarray(x)).to(DTYPES[dtype]))


def call(kind: str, dtype: str, x: np.ndarray, eps: float, *more: np.ndarray | None) -> torch.Tensor:
    leave_nan_behind(x.shape, DTYPES[dtype])
    weight, bias = (tensor(dtype, one) for one in (*more, None, None)[:2])
    return OPERATIONS[kind](tensor(dtype, x), (x.shape[1],), weight, bias, eps)


def lengths(dtype: str) -> Iterator[int]:
    """Lengths of rows that run: of each vector width the shortest, the longest, and odd multiples between."""
    longest = PER_ITEM[dtype] * W
    yield from (n for n in (1, 2, 7, 16, 17, 31, 32, 33, 63, 64, 65, 99, 129, 257, 576, 989) if n < W)
    vec = 1
    while vec <= WIDEST[dtype]:
        end = longest if vec == WIDEST[dtype] else vec * W
        begin = vec // 2 * W
        yield from {n for n in (begin + vec, begin + 37 * vec, end - vec, end) if begin < n <= end}
        vec *= 2


def check(kind: str, dtype: str, n: int, eps: float = 1e-5) -> None:
    g = np.random.default_rng(n)
    x = spread(g, dtype, 5 if n < 2000 else 2, n)
    weight, bias = spread(g, dtype, n), spread(g, dtype, n)
    for more in [(), (weight,), (None, bias), (weight, bias)] if n % 3 == 0 else [(weight, bias)]:
        assert_same_bits(call(kind, dtype, x, eps, *more), reference(kind, dtype, x, eps, *more))


@kinds
@types
def test_every_length_is_bit_exact(kind, dtype):
    for n in lengths(dtype):
        check(kind, dtype, n)


@types
def test_whole_numbers_add_up_exactly(dtype):
    """The order of the group's sum is this implementation's; here any order gives the same."""
    for n in lengths(dtype):
        x = whole(np.random.default_rng(n), dtype, 2, n)
        expected = reference("rms", dtype, x, 0.1, group_sum=in_any_order)
        assert_same_bits(call("rms", dtype, x, 0.1), expected)


@kinds
@types
@pytest.mark.parametrize("more", [(False, False), (True, False), (False, True), (True, True)])
@pytest.mark.parametrize("m, n", [(1, 2048), (19, 576), (111, 64)])
def test_weight_and_bias(kind, dtype, more, m, n):
    g = np.random.default_rng(m)
    x = spread(g, dtype, m, n)
    more = [spread(g, dtype, n) if one else None for one in more]
    assert_same_bits(call(kind, dtype, x, 0.1, *more), reference(kind, dtype, x, 0.1, *more))


@kinds
@types
def test_agrees_with_float64(kind, dtype):
    """A second opinion. A sum of 2056 squares in float is right to 2056 * 2^-24
    of itself and moves the result by half of that; the other roundings are 6 more, and the last one is to the type."""
    g = np.random.default_rng(1)
    x, weight, bias = spread(g, dtype, 7, 2056), spread(g, dtype, 2056), spread(g, dtype, 2056)
    wide = x.astype(np.float64)
    centred = wide - wide.mean(1, keepdims=True) if kind == "layer" else wide
    expected = centred / np.sqrt((centred**2).mean(1, keepdims=True) + 1e-5) * weight + bias
    unit = {"float16": 2**-11, "bfloat16": 2**-8, "float32": 0, "float64": 0}[dtype]
    # 1e-8: the rounding of eps to float, for double; half and bfloat16 round it to 2^-9 of 1e-5.
    sums = 1e-8 if dtype == "float64" else 2056 * 2**-25 + 6 * 2**-24
    bound = (np.abs(expected - bias) + np.abs(weight)) * sums + np.abs(expected) * unit + 2**-25
    got = numbers(call(kind, dtype, x, 1e-5, weight, bias)).astype(np.float64)
    assert (np.abs(got - expected) <= bound).all()


# --- Short rows -----------------------------------------------------------------------------------------------------


@types
@pytest.mark.parametrize("n", [1, 2, 5, 8, 13, 16])
def test_layer_norm_of_a_row_below_17_has_no_sums(dtype, n):
    """Below 32 work-items there is no whole sub-group: the mean is 0, and r is 1 / sqrt(eps)."""
    g = np.random.default_rng(n)
    x = spread(g, dtype, 3, n)
    result = call("layer", dtype, x, 0.25)
    assert_same_bits(result, Arithmetic(dtype).of(x * 2))
    x[1, 0] = 0
    with np.errstate(all="ignore"):
        assert_same_bits(call("layer", dtype, x, 0.0), Arithmetic(dtype).of(x * np.inf))


@types
@pytest.mark.parametrize("n", [1, 2, 5, 8, 13, 16])
def test_rms_norm_of_a_row_below_17_has_its_sum(dtype, n):
    x = np.full((3, n), 2.0, Arithmetic(dtype).numpy) * np.array([[1], [2], [-4]], Arithmetic(dtype).numpy)
    assert_same_bits(call("rms", dtype, x, 0.0), np.sign(x))


@kinds
@types
def test_every_dimension_normalized_or_none(kind, dtype):
    g = np.random.default_rng(3)
    x = whole(g, dtype, 60)
    one_row = reference(kind, dtype, x.reshape(1, 60), 0.1)[0]
    one_each = reference(kind, dtype, x.reshape(60, 1), 0.1).reshape(60)
    for sizes in [(60,), (3, 20), (3, 4, 5)]:
        input = tensor(dtype, x.reshape(sizes))
        assert_same_bits(OPERATIONS[kind](input, sizes, None, None, 0.1), one_row.reshape(sizes))
        assert_same_bits(OPERATIONS[kind](input, (), None, None, 0.1), one_each.reshape(sizes))
    single = OPERATIONS[kind](tensor(dtype, x[7:8]).view(()), (), None, None, 0.1)
    assert single.shape == ()
    assert_same_bits(single.view(1), one_each[7:8])


@kinds
def test_only_the_number_of_normalized_dimensions_counts(kind):
    g = np.random.default_rng(4)
    x = whole(g, "float32", 4, 3, 36)
    for shape, rows in [((7,), 12), ((99, 1), 4), ((0, 5, -1), 1)]:
        result = OPERATIONS[kind](tensor("float32", x), shape, None, None, 1e-5)
        expected = reference(kind, "float32", x.reshape(rows, -1), 1e-5)
        assert_same_bits(result, expected.reshape(x.shape))


# --- Rows that do not run -------------------------------------------------------------------------------------------


@kinds
@types
@pytest.mark.parametrize("beyond", [1, 2, 1000])
def test_a_row_beyond_the_limit_is_declined(kind, dtype, beyond):
    """What says so is an empty tensor of the default type, in host memory."""
    x = torch.ones(1, PER_ITEM[dtype] * W + beyond, dtype=DTYPES[dtype], device="xpu")
    with orrery_host.record_launches() as launches:
        result = OPERATIONS[kind](x, x.shape[1:], None, None, 1e-5)
    assert (result.shape, result.dtype, result.device.type) == ((0,), torch.get_default_dtype(), "cpu")
    assert not launches


@kinds
@pytest.mark.parametrize("dtype, n", [("float16", W + 1), ("bfloat16", 2 * W + 2), ("float16", 4 * W + 4),
                                      ("float32", W + 3), ("float32", 2 * W + 6), ("float64", W + 1)])  # fmt: skip
def test_nothing_runs_for_a_length_that_no_load_divides(kind, dtype, n):
    vec, _ = shape_of(dtype, n)
    assert n % vec != 0
    x = torch.ones(2, 3, n, dtype=DTYPES[dtype], device="xpu")
    with orrery_host.record_launches() as launches:
        result = OPERATIONS[kind](x, (n,), None, None, 1e-5)
    assert (result.shape, result.dtype, result.device.type) == (x.shape, x.dtype, "xpu")
    assert not launches


@kinds
@pytest.mark.parametrize("dtype, n", [("float16", 2 * W), ("float16", 16 * W), ("bfloat16", 4 * W),
                                      ("float32", 2 * W), ("float32", 4 * W), ("float64", 2 * W)])  # fmt: skip
def test_nothing_runs_for_an_address_that_no_load_divides(kind, dtype, n):
    vec, _ = shape_of(dtype, n)
    room = torch.ones(2 * n + vec, dtype=DTYPES[dtype], device="xpu")
    assert room.data_ptr() % (vec * room.element_size()) == 0
    for offset in range(vec + 1):
        x = room[offset : offset + 2 * n].view(2, n)
        with orrery_host.record_launches() as launches:
            result = OPERATIONS[kind](x, (n,), None, None, 1e-5)
        assert (result.shape, result.dtype) == (x.shape, x.dtype)
        assert len(launches) == (offset % vec == 0)


@kinds
@types
def test_an_address_does_not_matter_to_single_elements(kind, dtype):
    g = np.random.default_rng(5)
    x = whole(g, dtype, 2, 99)
    input = between_nan(torch.from_numpy(x).to(DTYPES[dtype]), 1)
    weight = between_nan(torch.ones(99, dtype=DTYPES[dtype]), 3)
    assert_same_bits(OPERATIONS[kind](input, (99,), weight, None, 0.1), reference(kind, dtype, x, 0.1))


@kinds
@pytest.mark.parametrize("shape", [(0, 64), (3, 0), (2, 0, 20000)])
@pytest.mark.parametrize("dtype", [torch.float16, torch.float32, torch.float64, torch.bfloat16, torch.int32])
def test_no_elements(kind, shape, dtype):
    """Neither a launch, nor a test of type or size."""
    x = torch.empty(shape, dtype=dtype, device="xpu")
    with orrery_host.record_launches() as launches:
        result = OPERATIONS[kind](x, shape[-1:], None, None, 1e-5)
    assert (result.shape, result.dtype, result.device.type) == (shape, dtype, "xpu")
    assert not launches


@kinds
@pytest.mark.parametrize("n", [64, 20000])
@pytest.mark.parametrize("dtype, name", [(torch.int32, "Int"), (torch.int64, "Long"), (torch.bool, "Bool"),
                                         (torch.complex64, "ComplexFloat")])  # fmt: skip
def test_types_that_are_not_supported(kind, dtype, name, n):
    """The type comes before the length."""
    x = torch.ones(2, n, dtype=dtype, device="xpu")
    with pytest.raises(RuntimeError) as error:
        OPERATIONS[kind](x, (n,), None, None, 1e-5)
    assert str(error.value) == f"\"LayerNormKernelImpl\" not implemented for '{name}'"


# --- eps ------------------------------------------------------------------------------------------------------------


@kinds
@pytest.mark.parametrize("dtype, eps, seen", [
    ("float16", 1e-8, 0.0), ("float16", 1e-7, 2.0**-23), ("float16", 3e-5, 503 * 2.0**-24),
    ("float16", 70000.0, np.inf), ("float16", 1 + 2.0**-11 + 2.0**-40, 1.0),  # to float first, where it is a tie
    ("bfloat16", 1e-5, 168 * 2.0**-24), ("bfloat16", 1 + 2.0**-8 + 2.0**-40, 1.0), ("bfloat16", 1e-39, 11 * 2.0**-133),
    ("float32", 1e-5, float(np.float32(1e-5))), ("float64", 1e-5, float(np.float32(1e-5))),
    ("float64", 1e-50, 0.0),
])  # fmt: skip
def test_eps_is_rounded(kind, dtype, eps, seen):
    assert rounded_eps(dtype, eps) == seen
    x = np.zeros((1, 64), Arithmetic(dtype).numpy)
    x[0, 0] = 2.0**-8
    with np.errstate(all="ignore"):
        acc = accumulator(dtype)
        n, total, square = acc(64), acc(2.0**-8), acc(2.0**-16)
        mean, var = (total / n, (square - total * total / n) / n) if kind == "layer" else (acc(0), square / n)
        expected = Arithmetic(dtype).of(rsqrt(np.asarray(var + acc(seen))) * (x.astype(acc) - mean))
    assert_same_bits(call(kind, dtype, x, eps), expected)


@types
def test_a_constant_row_without_eps(dtype):
    """r is infinite where the variance is 0, also where rounding makes it negative: then eps is not added."""
    a, variances = Arithmetic(dtype), []
    for i in range(1, 40):
        x = np.full((1, 989), a.of(np.array(0.1 * i)), a.numpy)
        total, squares = (over_sub_groups(v) for v in item_sums(dtype, x))
        n = accumulator(dtype)(x.shape[1])
        variances.append(float(((squares - total * total / n) / n)[0]))
        for eps in (0.0, 1e-5):
            expected = reference("layer", dtype, x, eps)
            assert_same_bits(call("layer", dtype, x, eps), expected)
            if variances[-1] < 0 or (variances[-1] == 0 and eps == 0):
                assert not np.isfinite(expected).any()
    assert 0.0 in variances and min(variances) < 0


@kinds
@types
def test_rows_that_overflow(kind, dtype):
    g = np.random.default_rng(6)
    x = whole(g, dtype, 5, 128)
    x[0, 3] = np.inf
    x[1, 100] = np.nan
    x[2] = {"float16": 60000, "bfloat16": 2.0**100, "float32": 1e30, "float64": 1e300}[dtype]
    x[3] = {"float16": 2.0**-24, "bfloat16": 2.0**-130, "float32": 1e-39, "float64": 1e-310}[dtype]
    for eps in (0.0, 1e-5):
        result = call(kind, dtype, x, eps)
        expected = reference(kind, dtype, x, eps)
        assert_same_bits(result, expected)
        assert not np.isfinite(expected[1]).any() and np.isfinite(expected[4]).all()


# --- Frame ----------------------------------------------------------------------------------------------------------


@kinds
@types
def test_inputs_that_are_not_contiguous_are_copied(kind, dtype):
    g = np.random.default_rng(7)
    x, weight, bias = whole(g, dtype, 6, 4, 96), spread(g, dtype, 96), spread(g, dtype, 96)
    expected = reference(kind, dtype, x.reshape(24, 96), 0.1, weight, bias).reshape(x.shape)
    wide = torch.full((96, 2, 4, 6), float("nan"), dtype=DTYPES[dtype], device="xpu")
    input = wide[:, 1].permute(2, 1, 0)
    input.copy_(torch.from_numpy(x).to(DTYPES[dtype]))
    apart = [torch.from_numpy(one).to(DTYPES[dtype]).to("xpu").repeat_interleave(2)[::2] for one in (weight, bias)]
    assert not any(one.is_contiguous() for one in (input, *apart))
    before = wide.clone()
    leave_nan_behind(x.shape, DTYPES[dtype])
    result = OPERATIONS[kind](input, (96,), *apart, 0.1)
    assert result.is_contiguous() and result.data_ptr() != input.data_ptr()
    assert_same_bits(result, expected)
    assert torch.equal(wide.nan_to_num(), before.nan_to_num())


@kinds
def test_a_copy_is_aligned(kind):
    """The contiguous copy counts, not the address of a view that no load divides."""
    room = torch.ones(4096 * 2 + 1, dtype=torch.float32, device="xpu")
    x = room[1:].view(4096, 2).t()
    with orrery_host.record_launches() as launches:
        OPERATIONS[kind](x, (4096,), None, None, 1e-5)
    assert [one.kernel for one in launches] == ["fused_norm_kernel1"]


@kinds
@types
def test_launch(kind, dtype):
    for n in lengths(dtype):
        x = torch.ones(3, n, dtype=DTYPES[dtype], device="xpu")
        with orrery_host.record_launches() as launches:
            OPERATIONS[kind](x, (n,), None, None, 1e-5)
        (launch,) = launches
        vec, items = shape_of(dtype, n)
        one_moment = str(kind == "rms").lower()
        assert (launch.name, launch.kernel, launch.waited) == ("gridrun_kernel", "fused_norm_kernel1", False)
        assert launch.instance == f"{CPP[dtype]}, {CPP[dtype]}, {CPP[dtype]}, unsigned int, {vec}, {one_moment}"
        assert (launch.file, launch.function) == ("add_norm_fusion", "fused_norm_kernel1")
        assert (launch.global_size, launch.local_size) == ((3 * items,), (items,))
        elements = 1 if kind == "rms" else 2 * (items >> 5)
        assert (launch.sub_group_size, launch.local_memory) == (32, elements * np.dtype(accumulator(dtype)).itemsize)


# --- Residuals, 64-bit indexes, and the wrappers that no operation calls ---------------------------------------------


def launched(
    kind: str,
    dtype: str,
    x: np.ndarray,
    shape: tuple[int, int],
    wide: bool,
    residuals: tuple[np.ndarray, ...] = (),
    weight: np.ndarray | None = None,
    bias: np.ndarray | None = None,
) -> tuple[torch.Tensor, list]:
    """Rows by an instance of one's choice, in groups of one's choice; eps is 0.25."""
    first, second, *_ = (*(tensor(dtype, one) for one in residuals), None, None)
    output = between_nan(torch.full(x.shape, float("nan"), dtype=DTYPES[dtype]))
    more = first, second, tensor(dtype, weight), tensor(dtype, bias)
    vec, items = shape
    with orrery_host.record_launches() as launches:
        orrery_launch.launch_norm(kind == "rms", vec, wide, items, tensor(dtype, x), *more, output, 0.25)
    return output, launches


@pytest.mark.parametrize("wide", [False, True], ids=["32_bits", "64_bits"])
@pytest.mark.parametrize("residuals", [0, 1, 2])
@kinds
@pytest.mark.parametrize("dtype, vec", [(dtype, vec) for dtype, widest in WIDEST.items() for vec in (1, 2, 4, 8)
                                        if vec <= widest])  # fmt: skip
def test_every_instance_with_residuals(dtype, vec, kind, residuals, wide):
    g = np.random.default_rng(vec + residuals)
    for items, n in ((64, 37 * vec), (128, 128 * vec * (PER_ITEM[dtype] // vec)), (32, 32 * vec), (8, 8 * vec)):
        x, *adds = (spread(g, dtype, 3, n) for _ in range(1 + residuals))
        weight, bias = spread(g, dtype, n), spread(g, dtype, n)
        output, (launch,) = launched(kind, dtype, x, (vec, items), wide, tuple(adds), weight, bias)
        expected = reference(kind, dtype, x, 0.25, weight, bias, tuple(adds), shape=(vec, items))
        assert_same_bits(output, expected)
        index, one_moment = "unsigned long long" if wide else "unsigned int", str(kind == "rms").lower()
        assert launch.instance == f"{CPP[dtype]}, {CPP[dtype]}, {CPP[dtype]}, {index}, {vec}, {one_moment}"
        assert (launch.global_size, launch.local_size) == ((3 * items,), (items,))


@kinds
@types
def test_residuals_are_added_to_each_other_first_and_in_the_type(kind, dtype):
    """-1 + (1 + little) is 0 if the sum is rounded to the type, and -1 + 1 + little is not."""
    a, size = Arithmetic(dtype), (2, 96)
    x, one = np.full(size, -1, a.numpy), np.full(size, 1, a.numpy)
    little = np.full(size, {"float16": 2.0**-12, "bfloat16": 2.0**-9, "float32": 2.0**-25, "float64": 2.0**-54}[dtype])
    little = a.of(little)
    zeros = np.zeros(size, a.numpy)
    for adds in ((one, little), (little, one)):
        assert_same_bits(launched(kind, dtype, x, (1, 128), False, adds)[0], zeros)
    # One residual: what the type loses is lost before the sums.
    expected = launched(kind, dtype, one, (1, 128), False)[0]
    assert_same_bits(launched(kind, dtype, one, (1, 128), False, (little,))[0], numbers(expected))


@pytest.mark.skipif(
    SANITIZED or THREADS_SANITIZED or not orrery_launch.sub_groups_are_vectors, reason="it would take minutes"
)
def test_a_tensor_that_32_bits_cannot_index():
    """From 2^31 - 1 elements on; 4 GiB of it are never written."""
    if torch.xpu.mem_get_info()[0] < 12 << 30:
        pytest.skip("this needs 12 GiB of memory")
    x = torch.empty(131072, 16384, dtype=torch.float16, device="xpu")
    x[-1] = 2.0
    with orrery_host.record_launches() as launches:
        result = orrery_ops.fused_rms_norm(x, (16384,), None, None, 0.0)
    assert launches[0].instance == "c10::Half, c10::Half, c10::Half, unsigned long long, 8, true"
    assert (result[-1] == 1.0).all()
    with orrery_host.record_launches() as launches:  # a part of it, far behind in its storage, can be
        orrery_ops.fused_rms_norm(x[-4:], (16384,), None, None, 0.0)
    assert launches[0].instance == "c10::Half, c10::Half, c10::Half, unsigned int, 8, true"


@pytest.mark.parametrize("name, kind", [("add_layer_norm", "layer"), ("add_rms_norm", "rms")])
def test_the_wrappers_that_no_operation_calls(name, kind):
    g = np.random.default_rng(8)
    x, weight, bias = spread(g, "float32", 3, 96), spread(g, "float32", 96), spread(g, "float32", 96)
    arguments = tensor("float32", x), (96,), tensor("float32", weight), tensor("float32", bias), 0.1
    assert not hasattr(orrery_ops, name)
    with profile(activities=[ProfilerActivity.CPU], record_shapes=True) as profiler:
        result = getattr(orrery_launch, name)(*arguments)
    assert_same_bits(result, reference(kind, "float32", x, 0.1, weight, bias))
    scopes = [(e.name, e.input_shapes, e.sequence_nr) for e in profiler.events() if "norm" in e.name]
    launch = ("fused_norm_kernel1", [], -1)
    assert scopes == [(name, [[3, 96]], -1), launch]


# --- Other limits of the device -------------------------------------------------------------------------------------


def lengths_under_limit() -> list[tuple[str, int]]:
    """All lengths but those of two whole sub-groups and a part of a third, which has no place for its sums. Behind a
    single one, such a part's sums are left out."""
    cases = [(dtype, n) for dtype in CPP for n in lengths(dtype)]
    return [one for one in cases if shape_of(*one)[1] % 32 == 0 or shape_of(*one)[1] < 64]


def check_limit(counts: set[int]) -> None:
    """`counts`: how many sub-groups the groups are to have."""
    cases = lengths_under_limit()
    assert {shape_of(*one)[1] >> 5 for one in cases} >= counts
    for dtype, n in cases:
        for kind in OPERATIONS:
            check(kind, dtype, n)
    for dtype in CPP:
        for kind in OPERATIONS:
            test_a_row_beyond_the_limit_is_declined(kind, dtype, 1)
            for n in lengths(dtype):
                if (dtype, n) in cases:
                    x = torch.ones(1, n, dtype=DTYPES[dtype], device="xpu")
                    with orrery_host.record_launches() as launches:
                        OPERATIONS[kind](x, (n,), None, None, 1e-5)
                    assert launches[0].local_size == (shape_of(dtype, n)[1],)


# 16: groups without a whole sub-group, with loads of any width. 96 and 1280: numbers of sub-groups that are no power of
# two, also one and a half, and more than 32 of them.
@pytest.mark.parametrize("limit, counts", [(16, {0}), (96, {0, 1, 3}), (1280, {5, 10, 20, 40})])
def test_limit_of_the_device(limit, counts):
    here = str(Path(__file__).parent)
    path = os.pathsep.join([here, *filter(None, [os.environ.get("PYTHONPATH")])])
    done = subprocess.run(
        [sys.executable, "-c", f"import test_add_norm_fusion as m; assert m.W == {limit}; m.check_limit({counts})"],
        env={**os.environ, "ORRERY_HOST_MAX_WORK_GROUP_SIZE": str(limit), "PYTHONPATH": path},
        capture_output=True,
        text=True,
        timeout=300,
        check=False,
    )
    assert done.returncode == 0, done.stderr


def results() -> list[torch.Tensor]:
    out = []
    for i, (dtype, n) in enumerate([("float32", 576), ("float16", 4096), ("bfloat16", 99), ("float64", 2050)]):
        g = np.random.default_rng(20 + i)
        x, weight, bias = spread(g, dtype, 19, n), spread(g, dtype, n), spread(g, dtype, n)
        out += [call(kind, dtype, x, 1e-5, weight, bias) for kind in OPERATIONS]
    return out


def test_bits_do_not_depend_on_threads_or_schedule():
    assert_same_bits_in_any_order("test_add_norm_fusion", results)
