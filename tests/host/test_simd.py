"""Every operation of simd<T, N> against numpy, for every element type and width in use.

Half and bfloat16 results are compared bit for bit: numpy rounds half by itself, bfloat16 is rounded here by the integer
rule. Nothing in this file has a tolerance but the native functions.
"""

from __future__ import annotations

import numpy as np
import pytest
from sycl_settings import native

FLOAT_WIDTHS = [1, 4, 8, 16, 32, 48, 64, 96, 128, 256]
INTEGER_WIDTHS = [1, 8, 16, 32, 64]
STORAGE = {
    "half": np.float16,
    "bfloat16": np.uint16,
    "float": np.float32,
    "double": np.float64,
    "int8": np.int8,
    "uint8": np.uint8,
    "int32": np.int32,
    "uint32": np.uint32,
    "int64": np.int64,
}
FLOATS = ["half", "bfloat16", "float", "double"]
INTEGERS = ["int8", "uint8", "int32", "uint32", "int64"]
FLOAT_CASES = [(t, n) for t in FLOATS for n in FLOAT_WIDTHS]
CASES = FLOAT_CASES + [(t, n) for t in INTEGERS for n in INTEGER_WIDTHS]
MASKED_CASES = [(t, n) for t, n in CASES if n <= 64]

every_case = pytest.mark.parametrize("name, width", CASES)
float_case = pytest.mark.parametrize("name, width", FLOAT_CASES)
integer_case = pytest.mark.parametrize("name, width", [c for c in CASES if c[0] in INTEGERS])
masked_case = pytest.mark.parametrize("name, width", MASKED_CASES)


def bfloat16_bits(values):
    """Nearest bfloat16, ties to even, by the bits of the float32; every NaN is 0x7FC0."""
    bits = np.ascontiguousarray(values, np.float32).view(np.uint32).astype(np.uint64)
    upper, lower = bits >> 16, bits & 0xFFFF
    up = (lower > 0x8000) | ((lower == 0x8000) & (upper & 1 == 1))
    return np.where(np.isnan(values), 0x7FC0, upper + up).astype(np.uint16)


def bfloat16_values(bits):
    return (np.asarray(bits).astype(np.uint32) << 16).view(np.float32)


def values_of(name, stored):
    """Numbers that numpy computes with: float32 for bfloat16, the type itself otherwise."""
    return bfloat16_values(stored) if name == "bfloat16" else stored


def stored(name, values):
    """Values rounded to the type."""
    if name == "bfloat16":
        return bfloat16_bits(np.asarray(values, np.float32))
    with np.errstate(over="ignore"):
        return np.asarray(values).astype(STORAGE[name])


def sample(name, count, seed=0):
    """Random values of the type, every class of a floating-point number among them."""
    rng = np.random.default_rng([seed, count])
    if name in INTEGERS:
        info = np.iinfo(STORAGE[name])
        return rng.integers(info.min, info.max, count, STORAGE[name], endpoint=True)
    with np.errstate(all="ignore"):
        near = stored(name, rng.standard_normal(count).astype(np.float32) * np.float32(4))
        dtype = np.uint16 if name in ("half", "bfloat16") else {"float": np.uint32, "double": np.uint64}[name]
        any_bits = rng.integers(0, np.iinfo(dtype).max, count, dtype, endpoint=True).view(STORAGE[name])
        special = stored(name, np.array([0.0, -0.0, np.inf, -np.inf, np.nan, 1.0, -1.0, 1e-40, 6e-8], np.float32))
    out = np.where(rng.random(count) < 0.5, near, any_bits)
    at = rng.random(count) < 0.2
    out[at] = rng.choice(special, at.sum())
    return out


def equal(name, actual, expected, any_nan=False):
    """The same bits; a NaN for a NaN, and 0x7FC0 for bfloat16 unless any_nan."""
    assert actual.dtype == expected.dtype and actual.shape == expected.shape
    bits = np.dtype(f"u{actual.dtype.itemsize}")
    same = actual.view(bits) == expected.view(bits)
    if name in FLOATS and (name != "bfloat16" or any_nan):
        same |= np.isnan(values_of(name, actual)) & np.isnan(values_of(name, expected))
    bad = np.flatnonzero(~same)
    assert bad.size == 0, (bad[:4], actual.ravel()[bad[:4]], expected.ravel()[bad[:4]])


def blank(name, count):
    out = np.empty(count, STORAGE[name])
    out.view(np.uint8)[:] = 0xA5
    return out


def run(operation, name, width, out, **arguments):
    if "a" in arguments and "count" not in arguments:
        arguments["count"] = max(1, len(out) // width)
    native.simd_run(operation, name, width, out, **arguments)
    return out


# --- memory ---------------------------------------------------------------------------------------------------------


@every_case
def test_load_and_store(name, width):
    a = sample(name, 7 * width)
    equal(name, run("copy", name, width, blank(name, a.size), a=a), a, any_nan=True)
    reverse = a.reshape(7, width)[:, ::-1].ravel()
    equal(name, run("lanes", name, width, blank(name, a.size), a=a), np.ascontiguousarray(reverse), any_nan=True)


@every_case
def test_load_and_store_at_any_address(name, width):
    a = sample(name, width)
    size = a.itemsize
    for shift in (1, 3):
        source = np.zeros(a.nbytes + size, np.uint8)
        source[shift % size if size > 1 else 0 :][: a.nbytes] = a.view(np.uint8)
        out = run("copy", name, width, blank(name, width), a=source[shift % size if size > 1 else 0 :], count=1)
        equal(name, out, a, any_nan=True)


@every_case
def test_broadcast_keeps_the_sign_of_zero(name, width):
    a = sample(name, 9)
    if name in FLOATS:
        a[:2] = stored(name, np.array([-0.0, 0.0], np.float32))
    out = run("broadcast", name, width, blank(name, 9 * width), a=a)
    equal(name, out, np.repeat(a, width), any_nan=True)


@every_case
def test_default_is_zero_and_iota_counts(name, width):
    zero = run("zero", name, width, blank(name, width), count=1)
    assert not zero.view(np.uint8).any()
    equal(name, run("iota", name, width, blank(name, width), count=1), stored(name, np.arange(width)))


MASKS = [0, 1, 2, 0x5555555555555555, 0x8000000000000001, 0xF0F0, 0xFFFFFFFF, 2**64 - 1, 0x123456789ABCDEF]


@masked_case
@pytest.mark.parametrize("mask", MASKS)
def test_masks_in_memory_and_select(name, width, mask):
    mask &= 2**width - 1
    on = np.array([(mask >> i) & 1 for i in range(width)] * 3, bool)
    a, b = sample(name, 3 * width), sample(name, 3 * width, 1)
    zero = np.zeros(1, STORAGE[name])
    out = run("load_masked", name, width, blank(name, a.size), a=a, mask=mask)
    equal(name, out, np.where(on, a, zero), any_nan=True)
    out = run("store_masked", name, width, b.copy(), a=a, mask=mask)
    equal(name, out, np.where(on, a, b), any_nan=True)
    out = run("select", name, width, blank(name, a.size), a=a, b=b, mask=mask)
    equal(name, out, np.where(on, a, b), any_nan=True)
    out = run("select_less", name, width, blank(name, a.size), a=a, b=b)
    less = values_of(name, a) < values_of(name, b)
    equal(name, out, np.where(less, b, a), any_nan=True)
    index = np.random.default_rng(mask).permutation(width).astype(np.int32)
    out = run("gather_masked", name, width, blank(name, width), a=a, index=index, mask=mask, count=1)
    equal(name, out, np.where(on[:width], a[index], zero), any_nan=True)
    expected = b[:width].copy()
    expected[index[on[:width]]] = a[:width][on[:width]]
    out = run("scatter_masked", name, width, b[:width].copy(), a=a, index=index, mask=mask)
    equal(name, out, expected, any_nan=True)


@every_case
@pytest.mark.parametrize("stride", [1, 2, 7])
def test_strides(name, width, stride):
    a = sample(name, width * stride)
    out = run("load_strided", name, width, blank(name, width), a=a, argument=stride, count=1)
    equal(name, out, np.ascontiguousarray(a[::stride]), any_nan=True)
    before = sample(name, width * stride, 1)
    expected = before.copy()
    expected[::stride] = a[:width]
    out = run("store_strided", name, width, before, a=a, argument=stride, count=1)
    equal(name, out, expected, any_nan=True)


@every_case
def test_gather_scatter_and_shuffle(name, width):
    rng = np.random.default_rng(width)
    a = sample(name, width * 5)
    index = rng.integers(0, a.size, width, np.int32)
    out = run("gather", name, width, blank(name, width), a=a, index=index, count=1)
    equal(name, out, a[index], any_nan=True)
    order = rng.permutation(width).astype(np.int32)
    expected = a[:width].copy()
    expected[order] = a[:width]
    out = run("scatter", name, width, blank(name, width), a=a, index=order)
    equal(name, out, expected, any_nan=True)
    any_lane = rng.integers(0, width, width, np.int32)
    out = run("shuffle", name, width, blank(name, width), a=a, index=any_lane)
    equal(name, out, a[any_lane], any_nan=True)
    out = run("shuffle_reversed", name, width, blank(name, width), a=a)
    equal(name, out, a[:width][::-1].copy(), any_nan=True)


@pytest.mark.parametrize("name, width", [c for c in CASES if c[1] >= 4])
def test_slices_and_pairs(name, width):
    a, b, half, quarter = sample(name, width), sample(name, width, 1), width // 2, width // 4
    out = run("slice", name, width, blank(name, 2 * half + quarter), a=a, count=1)
    equal(name, out, np.concatenate([a[half:], a[:half], a[1 : 1 + quarter]]), any_nan=True)
    expected = a.copy()
    expected[half:] = b[:half]
    expected[1 : 1 + quarter] = b[half : half + quarter]
    equal(name, run("set_slice", name, width, blank(name, width), a=a, b=b), expected, any_nan=True)
    out = run("split_pairs", name, width, blank(name, width), a=a)
    equal(name, out, np.concatenate([a[::2], a[1::2]]), any_nan=True)
    out = run("join_pairs", name, width, blank(name, width), a=a)
    equal(name, out, np.stack([a[:half], a[half:]], 1).ravel(), any_nan=True)


@pytest.mark.parametrize("name, width", [c for c in CASES if c[1] in (1, 4, 8, 16, 32)])
def test_shifted_lanes(name, width):
    a = sample(name, 3 * width)
    for delta in {0, 1, width // 2, width - 1}:
        out = run("shift_lanes", name, width, blank(name, a.size), a=a, argument=delta).reshape(3, width)
        equal(name, out[:, : width - delta].ravel(), a.reshape(3, width)[:, delta:].ravel(), any_nan=True)


@pytest.mark.parametrize("k", [1, 2])
@pytest.mark.parametrize("width", [1, 8, 16, 32])
@pytest.mark.parametrize("offset", [0, 1, 2, 3, 5])
def test_words_of_runs(k, width, offset):
    data = np.random.default_rng(offset).integers(0, 256, 4 * k * width + offset, np.uint8)
    out = np.zeros((k, width), np.uint32)
    native.simd_load_words(k, width, data, offset, out)
    np.testing.assert_array_equal(out, np.frombuffer(data[offset:].tobytes(), "<u4").reshape(width, k).T)


@pytest.mark.parametrize("width", [16, 32])
@pytest.mark.parametrize("offset", [0, 3])
def test_words_that_four_lanes_share(width, offset):
    """Six words for four lanes: an own one behind the first two, or half of one of those."""
    data = np.random.default_rng(offset).integers(0, 256, 8 * width + offset, np.uint8)
    groups = np.frombuffer(data[offset:].tobytes(), "<u4")[: width // 4 * 6].reshape(-1, 6)
    for k, expected in [(3, groups[:, 2:]), (4, groups[:, [0, 0, 1, 1]])]:
        out = np.zeros(width, np.uint32)
        native.simd_load_words(k, width, data, offset, out)
        np.testing.assert_array_equal(out, expected.ravel())


@pytest.mark.parametrize("name, width", [c for c in FLOAT_CASES if c[1] in (1, 4, 8, 16, 32)])
@pytest.mark.parametrize(
    "share, of", [(1, "half"), (2, "half"), (4, "half"), (16, "half"), (32, "half"), (2, "float"), (8, "float")]
)
@pytest.mark.parametrize("offset", [0, 1])
def test_values_that_lanes_share(name, width, share, of, offset):
    few = sample(of, max(1, width // share), 5)
    data = np.zeros(few.nbytes + offset, np.uint8)
    data[offset:] = few.view(np.uint8)
    out = run(f"load_shared {share} {of}", name, width, blank(name, width), a=data, argument=offset, count=1)
    with np.errstate(all="ignore"):
        expected = stored(name, few.astype(np.float32) if name != "double" else few.astype(np.float64))
    equal(name, out, np.repeat(expected, share)[:width], any_nan=True)


# --- arithmetic -----------------------------------------------------------------------------------------------------


OPERATIONS = {"add": np.add, "subtract": np.subtract, "multiply": np.multiply, "divide": np.divide}
ASSIGNED = {"add_to": np.add, "subtract_from": np.subtract, "multiply_by": np.multiply}


@float_case
def test_arithmetic_rounds_each_operation(name, width):
    a, b = sample(name, 64 * width), sample(name, 64 * width, 1)
    x, y = values_of(name, a), values_of(name, b)
    with np.errstate(all="ignore"):
        for operation, f in {**OPERATIONS, **(ASSIGNED if width <= 16 else {})}.items():
            equal(name, run(operation, name, width, blank(name, a.size), a=a, b=b), stored(name, f(x, y)))
        product = values_of(name, stored(name, x * y))
        out = run("multiply_add", name, width, blank(name, a.size), a=a, b=b)
        equal(name, out, stored(name, product + x))
        out = run("sqrt", name, width, blank(name, a.size), a=a)
        equal(name, out, stored(name, np.sqrt(x)))
    equal(name, run("negate", name, width, blank(name, a.size), a=a), stored(name, -x), any_nan=True)


@pytest.mark.parametrize("name", FLOATS)
def test_multiply_add_is_not_fused(name):
    bits = {"half": 11, "bfloat16": 8, "float": 24, "double": 53}[name]
    x = 1 + 2.0 ** (1 - bits)  # x * x + -x * x differs from 0 only if the product is not rounded
    a = stored(name, np.full(16, x))
    square = values_of(name, stored(name, values_of(name, a) ** 2))
    out = run("multiply_add", name, 16, blank(name, 16), a=a, b=a)
    equal(name, out, stored(name, square + values_of(name, a)))


@integer_case
def test_integer_arithmetic(name, width):
    if name.startswith("u"):  # wraps
        a, b = sample(name, 16 * width), sample(name, 16 * width, 1)
    else:
        rng = np.random.default_rng(width)
        a, b = (rng.integers(-8, 8, 16 * width, STORAGE[name], endpoint=True) for _ in range(2))
    b[b == 0] = 1
    for operation, f in {**OPERATIONS, **(ASSIGNED if width <= 16 else {})}.items():
        if operation == "divide":
            expected = (np.abs(a) // np.abs(b) * np.sign(a) * np.sign(b)).astype(a.dtype)
        else:
            expected = f(a, b)
        equal(name, run(operation, name, width, blank(name, a.size), a=a, b=b), expected)
    equal(name, run("negate", name, width, blank(name, a.size), a=a), (0 - a).astype(a.dtype))


@integer_case
def test_bits(name, width):
    a, b = sample(name, 16 * width), sample(name, 16 * width, 1)
    for operation, f in {"and": np.bitwise_and, "or": np.bitwise_or, "xor": np.bitwise_xor}.items():
        equal(name, run(operation, name, width, blank(name, a.size), a=a, b=b), f(a, b))
    for shift in (0, 1, 7, *((31,) if a.itemsize >= 4 else ())):
        out = run("shift_right", name, width, blank(name, a.size), a=a, argument=shift)
        equal(name, out, a >> STORAGE[name](shift))
        out = run("shift_left", name, width, blank(name, a.size), a=a, argument=shift)
        equal(name, out, a << STORAGE[name](shift))


@masked_case
def test_comparisons(name, width):
    a, b = sample(name, 50 * width), sample(name, 50 * width, 1)
    b[::3] = a[::3]
    x, y = values_of(name, a).reshape(50, width), values_of(name, b).reshape(50, width)
    weights = np.uint64(1) << np.arange(width, dtype=np.uint64)
    for operation, f in {"less": np.less, "equal": np.equal}.items():
        out = np.zeros(50, np.uint64)
        native.simd_run(operation, name, width, out, a=a, b=b, count=50)
        np.testing.assert_array_equal(out, (f(x, y) * weights).sum(1, dtype=np.uint64))


@pytest.mark.parametrize("width", [1, 8, 48, 64])
def test_masks(width):
    every = 2**width - 1
    for count in (-5, 0, 1, width - 1, width, width + 1, 10**12):
        for a, b in [(0, every), (0x1234567890ABCDEF & every, 0xF0F0F0F0F0F0F0F0 & every), (every, every)]:
            first = 2 ** max(0, min(count, width)) - 1
            expected = [every, first, a & b, a | b, every & ~a, a, int(a != 0), int(a == every)]
            assert native.simd_masks(width, count, a, b) == expected


# --- folds, tables --------------------------------------------------------------------------------------------------


def halving_tree(name, rows):
    """Rounded at each level; 96 lanes first become 32."""
    if rows.shape[1] == 96:
        pair = values_of(name, stored(name, rows[:, :32] + rows[:, 32:64]))
        rows = values_of(name, stored(name, pair + rows[:, 64:]))
    while rows.shape[1] > 1:
        half = rows.shape[1] // 2
        rows = values_of(name, stored(name, rows[:, :half] + rows[:, half:]))
    return stored(name, rows[:, 0])


@pytest.mark.parametrize("name, width", [c for c in FLOAT_CASES if c[1] != 48])
def test_fold(name, width):
    rng = np.random.default_rng(width)
    a = stored(name, rng.standard_normal(40 * width).astype(np.float32) * np.float32(100))
    out = blank(name, 40)
    native.simd_run("fold", name, width, out, a=a, count=40)
    equal(name, out, halving_tree(name, values_of(name, a).reshape(40, width)))


@pytest.mark.parametrize("name, width", [c for c in FLOAT_CASES if c[1] <= 32])
def test_fold_of_each_row(name, width):
    rng = np.random.default_rng(width)
    a = stored(name, rng.standard_normal(3 * width * width).astype(np.float32) * np.float32(100))
    out = run("fold_each", name, width, blank(name, 3 * width), a=a, count=3)
    equal(name, out, halving_tree(name, values_of(name, a).reshape(3 * width, width)))


@pytest.mark.parametrize("name, width", [c for c in FLOAT_CASES if c[1] <= 16])
def test_fold_of_neighbours_of_each_row(name, width):
    rng = np.random.default_rng(width)
    a = stored(name, rng.standard_normal(6 * width * width).astype(np.float32) * np.float32(100))
    out = run("fold_neighbours_each", name, width, blank(name, 3 * width), a=a, count=3)
    rows = values_of(name, a).reshape(3 * width, 2 * width)
    while rows.shape[1] > 1:
        rows = values_of(name, stored(name, rows[:, ::2] + rows[:, 1::2]))
    equal(name, out, stored(name, rows[:, 0]))


@pytest.mark.parametrize("name, width", [c for c in FLOAT_CASES if c[1] <= 32])
def test_load_as_registers_hold_it(name, width):
    a = sample(name, 5 * width)
    held = {"double": np.float64, "half": native.register_type_of_half}.get(name, np.float32)
    values = np.ascontiguousarray(values_of(name, a).astype(held))
    out = run("load_register_values", name, width, blank(name, a.size), a=values, count=5)
    equal(name, out, a, any_nan=True)
    registers = np.zeros_like(values)
    run("store_register_values", name, width, registers, a=a)
    np.testing.assert_array_equal(registers, values)


@pytest.mark.parametrize("name", ["int32", "uint32", "int64"])
def test_fold_of_integers(name):
    a = np.arange(64, dtype=STORAGE[name])
    assert run("fold", name, 64, blank(name, 1), a=a, count=1)[0] == 64 * 63 // 2


@float_case
def test_table_of_16_ignores_upper_bits(name, width):
    rng = np.random.default_rng(width)
    table = sample(name, 16, 9)
    code = rng.integers(0, 2**32, 5 * width, np.uint32)
    code[:width] = np.arange(width) % 16
    out = run("lookup", name, width, blank(name, 5 * width), a=code, b=table)
    equal(name, out, table[code & 15], any_nan=True)


# --- conversions ----------------------------------------------------------------------------------------------------


def convertible(source, target, count):
    """Values of `source` that `target` can take: to an integer only what lies in its range."""
    a = sample(source, count)
    x = values_of(source, a)
    if target in INTEGERS:
        info = np.iinfo(STORAGE[target])
        if source in FLOATS:
            low, high = max(info.min, -(2.0**31)), min(info.max, 2.0**31)
            a = stored(source, np.random.default_rng(count).uniform(low, high, count))
            if source == "half":
                a = np.clip(a, np.float16(max(info.min, -60000)), np.float16(min(info.max, 60000)))
            a = np.where(np.trunc(values_of(source, a).astype(np.float64)) > info.max, stored(source, 1.0), a)
            a = np.where(np.trunc(values_of(source, a).astype(np.float64)) < info.min, stored(source, 1.0), a)
        x = values_of(source, a)
    return a, x


@pytest.mark.parametrize("source", STORAGE)
@pytest.mark.parametrize("target", STORAGE)
@pytest.mark.parametrize("width", [1, 16, 32])
def test_convert(source, target, width):
    a, x = convertible(source, target, 32 * width)
    with np.errstate(all="ignore"):
        if target == source:
            expected = a
        elif target in ("half", "bfloat16"):  # through float
            expected = stored(target, x.astype(np.float32))
        else:
            expected = x.astype(STORAGE[target])
    same = target == source
    out = run(f"convert to {target}", source, width, blank(target, a.size), a=a, count=32)
    equal(target, out, expected, any_nan=same)
    if width == 1:
        out = run(f"to {target}", source, 1, blank(target, a.size), a=a)
        equal(target, out, expected, any_nan=same)


PAIRS = [("float", "int32"), ("int32", "uint32"), ("uint32", "float"), ("double", "int64"), ("int8", "uint8")]
SHORTER = [("int64", "uint32"), ("uint32", "uint8"), ("double", "float"), ("float", "int8")]  # more lanes


@pytest.mark.parametrize(
    "source, target, width",
    [(a, b, n) for x, y in PAIRS for a, b in [(x, y), (y, x)] for n in (1, 16, 32)]
    + [(a, b, n) for a, b in SHORTER for n in (16, 32)],
)
def test_bit_cast(source, target, width):
    a = sample(source, 4 * width)
    lanes = a.nbytes // np.dtype(STORAGE[target]).itemsize
    out = run(f"bit_cast to {target}", source, width, blank(target, lanes), a=a, count=4)
    np.testing.assert_array_equal(out.view(np.uint8), a.view(np.uint8))


ALL_16_BITS = np.arange(65536, dtype=np.uint16)


@pytest.mark.parametrize("width", [1, 4, 8, 16, 32, 64])
@pytest.mark.parametrize("name", ["half", "bfloat16"])
def test_every_pattern_there_and_back(name, width):
    a = ALL_16_BITS.view(STORAGE[name])
    equal(name, run("copy", name, width, blank(name, a.size), a=a), a, any_nan=True)
    zero = stored(name, np.zeros(a.size, np.float32))
    out = run("subtract", name, width, blank(name, a.size), a=a, b=zero)
    nan = np.isnan(values_of(name, a))
    equal(name, out, np.where(nan, stored(name, np.float32(np.nan)), a))


@pytest.mark.parametrize("width", [1, 16, 32])
@pytest.mark.parametrize("name", ["half", "bfloat16"])
def test_every_pattern_to_float_and_back(name, width):
    a = ALL_16_BITS.view(STORAGE[name])
    wide = run("convert to float", name, width, blank("float", a.size), a=a)
    with np.errstate(all="ignore"):
        equal("float", wide, values_of(name, a).astype(np.float32))
    back = run(f"convert to {name}", "float", width, blank(name, a.size), a=wide)
    nan = np.isnan(values_of(name, a))
    equal(name, back, np.where(nan, stored(name, np.float32(np.nan)), a))


@pytest.mark.parametrize("width", [1, 16, 32])
@pytest.mark.parametrize("name, infinity", [("half", 0x7C00), ("bfloat16", 0x7F80)])
def test_rounding_at_every_midpoint(name, infinity, width):
    """Below a midpoint goes down, above goes up, the midpoint to the even neighbour; past the largest is infinity."""
    low = np.arange(infinity, dtype=np.uint16)
    high = low + np.uint16(1)
    ends = []
    for bits in (low, high):
        x = values_of(name, bits.view(STORAGE[name])).astype(np.float64)
        step = {"half": 2.0**16, "bfloat16": 2.0**128}[name]
        ends.append(np.where(bits == infinity, step, x))
    middle = ((ends[0] + ends[1]) / 2).astype(np.float32)
    below, above = np.nextafter(middle, np.float32(0)), np.nextafter(middle, np.float32(np.inf))
    even = np.where(low % 2 == 0, low, high)
    x = np.concatenate([below, middle, above])
    expected = np.concatenate([low, even, high])
    x, expected = np.concatenate([x, -x]), np.concatenate([expected, expected | np.uint16(0x8000)])
    pad = -x.size % width
    x, expected = np.pad(x, (0, pad)), np.pad(expected, (0, pad))
    out = run(f"convert to {name}", "float", width, blank(name, x.size), a=x)
    np.testing.assert_array_equal(out.view(np.uint16), expected)


# --- native functions -----------------------------------------------------------------------------------------------


def ulps(actual, exact):
    """Distance in units of the last place of the exact value's float32."""
    spacing = np.spacing(np.maximum(np.abs(exact), np.float64(np.finfo(np.float32).tiny)).astype(np.float32))
    return np.abs(actual.astype(np.float64) - exact) / spacing


def native_values(name, x, width):
    out = np.full(x.size, np.nan, np.float32)
    native.simd_native(name, width, x, out)
    return out


@pytest.mark.parametrize("width", [1, 8, 16, 32, 128])
@pytest.mark.parametrize("name", ["exp2", "sin", "cos"])
def test_native_functions(name, width):
    """Within 0.51 units of the last place: polynomials in double, rounded once."""
    rng = np.random.default_rng(2)
    span = 126 if name == "exp2" else 3000
    x = np.concatenate([rng.uniform(-span, span, 120000), rng.uniform(-2, 2, 8000)]).astype(np.float32)
    out = native_values(name, x, width)
    assert ulps(out, getattr(np, name)(x.astype(np.float64))).max() < 0.51
    np.testing.assert_array_equal(out, native_values(name, x, 1))


POWERS = {"cube": 3.0, "pow_2.5": 2.5, "pown_31": 31.0, "pown_-2": -2.0}


@pytest.mark.parametrize("width", [1, 2, 16])
@pytest.mark.parametrize("name", ["exp", "tanh", *POWERS])
def test_native_exponential_tangent_and_powers(name, width):
    """As above, small arguments too; and the same bits in every lane as alone."""
    rng = np.random.default_rng(3)
    span = {"exp": 87, "tanh": 12, "pown_31": 15}.get(name, 1000)
    small = rng.uniform(-1, 1, 4096) * 2.0 ** rng.integers(-100 if name == "tanh" else -20, 0, 4096)
    x = np.concatenate([rng.uniform(-span, span, 60000), small]).astype(np.float32)
    x = np.abs(x) if name == "pow_2.5" else x
    wide = x.astype(np.float64)
    exact = wide ** POWERS[name] if name in POWERS else getattr(np, name)(wide)
    out = native_values(name, x, width)
    assert ulps(out, exact).max() < 0.51
    np.testing.assert_array_equal(out, native_values(name, x, 1))


@pytest.mark.parametrize("width", [1, 2, 16])
def test_native_exponential_tangent_and_cube_at_the_ends(width):
    x = np.array([-np.inf, -3e38, -150, -100, -0.0, 0, 1e-45, 20, 89, 3e38, np.inf, np.nan, 1, 2, 3, 4], np.float32)
    with np.errstate(over="ignore"):
        for name, exact in (("exp", np.exp), ("tanh", np.tanh), ("cube", lambda v: v**3)):
            out, expected = native_values(name, x, width), exact(x.astype(np.float64)).astype(np.float32)
            equal("float", out, expected)
            np.testing.assert_array_equal(np.signbit(out[:-5]), np.signbit(expected[:-5]))


@pytest.mark.parametrize("name", ["sin", "cos"])
def test_native_sine_beside_a_wide_angle(name):
    x = np.random.default_rng(4).uniform(-3000, 3000, 1 << 16).astype(np.float32)
    x[::16] = 1e9
    np.testing.assert_array_equal(native_values(name, x, 16), native_values(name, x, 1))


@pytest.mark.parametrize("width", [0, 1, 16])
def test_native_exp2_at_the_ends(width):
    x = np.array([-np.inf, -1e30, -200, -149, -140, -0.0, 0, 127, 128, 1e30, np.inf, np.nan, 1, 2, 3, 4], np.float32)
    expected = np.array([0, 0, 0, 2.0**-149, 2.0**-140, 1, 1, 2.0**127, np.inf, np.inf, np.inf, np.nan, 2, 4, 8, 16])
    equal("float", native_values("exp2", x, width), expected.astype(np.float32))


@pytest.mark.parametrize("width", [1, 16])
def test_native_sine_of_wide_angles_and_no_numbers(width):
    x = np.array([1e8, -3e10, 1e20, np.inf, -np.inf, np.nan, 0.0, -0.0] * 2, np.float32)
    with np.errstate(invalid="ignore"):
        for name in ("sin", "cos"):
            expected = getattr(np, name)(x.astype(np.float64)).astype(np.float32)
            equal("float", native_values(name, x, width), expected)


def test_scalar_square_roots():
    x = np.array([4.0, 2.0, 0.25, 1e-30, 3e38], np.float32)
    equal("float", native_values("sqrt", x, 0), np.sqrt(x))
    equal("float", native_values("rsqrt", x, 0), (1 / np.sqrt(x.astype(np.float64))).astype(np.float32))


def test_reciprocal_square_root_in_double():
    x = np.concatenate([np.random.default_rng(1).uniform(1e-9, 1e9, 500), [0.0, np.inf, 0.25, 4.0]])
    out = run("rsqrt", "double", 1, blank("double", x.size), a=x)
    with np.errstate(divide="ignore"):
        equal("double", out, 1 / np.sqrt(x))
