"""The one-byte code of keys and values, and the products with caches in it: bit for bit against numpy."""

from __future__ import annotations

import gc
import os
import re
import subprocess
import sys

import attention_reference as reference
import numpy as np
import pytest
import torch
from attention_reference import (
    CPP,
    FLOAT,
    HALF,
    HEAD_DIMS,
    KEY,
    UNSUPPORTED_HEAD_DIM,
    UNSUPPORTED_TYPE,
    VALUE,
    zeros,
)
from guard_page import assert_reads_nothing_behind
from kernel_reference import (
    assert_dies_with,
    assert_same_bits,
    assert_same_bits_in_any_order,
    leave_nan_behind,
    random,
)

import orrery_host
import orrery_ops

BYTE = torch.uint8
SPOILT = {FLOAT: float("nan"), HALF: float("nan"), BYTE: 0xEE}
EVERY_TYPE = pytest.mark.parametrize("dtype", [FLOAT, HALF], ids=["float", "half"])
EVERY_HEAD_DIM = pytest.mark.parametrize("head_dim", HEAD_DIMS)
SMALLEST = {"key": 0.0020751953125, "value": 0.0002593994140625}
LARGEST = {"key": 124.0, "value": 15.5}


# --- the codec --------------------------------------------------------------------------------------------------------


def apart(x: torch.Tensor, pad: int) -> tuple[torch.Tensor, torch.Tensor]:
    """Storage [batch, row, head, element + pad] on the device, filled as SPOILT says, and x in it as [batch, head, row,
    element]."""
    bsz, heads, rows, head_dim = x.shape
    storage = torch.full((bsz, rows, heads, head_dim + pad), SPOILT[x.dtype], dtype=x.dtype, device="xpu")
    view = storage[..., :head_dim].transpose(1, 2)
    view.copy_(x)
    return storage, view


def empty_apart(shape: tuple[int, ...], dtype: torch.dtype, pad: int) -> tuple[torch.Tensor, torch.Tensor]:
    return apart(torch.full(shape, SPOILT[dtype], dtype=dtype), pad)


def is_spoilt(x: torch.Tensor) -> bool:
    return bool((x.isnan() if x.dtype.is_floating_point else x == SPOILT[x.dtype]).all())


def convert(operation: str, key: torch.Tensor, value: torch.Tensor, to: torch.dtype) -> tuple[np.ndarray, np.ndarray]:
    """Key and value through an operation; every one of the four tensors has strides of its own."""
    shape, head_dim = tuple(key.shape), key.shape[3]
    rooms = [apart(key, 3), apart(value, 5), empty_apart(shape, to, 7), empty_apart(shape, to, 9)]
    before = [storage.cpu() for storage, _ in rooms[:2]]
    assert getattr(orrery_ops, operation)(*(view for _, view in rooms)) is None
    for (storage, _), old in zip(rooms[:2], before, strict=True):
        assert storage.cpu().view(BYTE).equal(old.view(BYTE))
    for storage, _ in rooms[2:]:
        assert is_spoilt(storage[..., head_dim:])
    return tuple(view.cpu().numpy() for _, view in rooms[2:])


def quantize(key: torch.Tensor, value: torch.Tensor) -> tuple[np.ndarray, np.ndarray]:
    return convert("quantize_key_value", key, value, BYTE)


def dequantize(key: torch.Tensor, value: torch.Tensor, to: torch.dtype) -> tuple[np.ndarray, np.ndarray]:
    return convert("dequantize_key_value", key, value, to)


def in_rows(x: np.ndarray, head_dim: int) -> torch.Tensor:
    """All of x in a tensor [2, 3, n, head_dim], from its beginning again at the end."""
    rows = -(-len(x) // (6 * head_dim))
    return torch.from_numpy(np.resize(x, (2, 3, rows, head_dim)))


def assert_encoded(x: torch.Tensor) -> None:
    """The same numbers as keys and as values. A NaN becomes some byte."""
    number = ~np.isnan(x.numpy())
    for code, found in zip((KEY, VALUE), quantize(x, x), strict=True):
        np.testing.assert_array_equal(found[number], code.encode(x.numpy())[number])


def one(stream: str, x: float, dtype: torch.dtype = FLOAT) -> int:
    """The byte of one number."""
    key, value = quantize(*[torch.full((1, 1, 1, 64), x, dtype=dtype)] * 2)
    (byte,) = set((key if stream == "key" else value).flatten().tolist())
    return byte


@EVERY_TYPE
@EVERY_HEAD_DIM
def test_every_half_is_encoded(dtype, head_dim):
    halves = np.arange(65536).astype(np.uint16).view(np.float16)
    assert_encoded(in_rows(halves, head_dim).to(dtype))


@EVERY_TYPE
@EVERY_HEAD_DIM
def test_every_byte_is_decoded(dtype, head_dim):
    codes = in_rows(np.arange(256).astype(np.uint8), head_dim)
    for code, found in zip((KEY, VALUE), dequantize(codes, codes.flip(3), dtype), strict=True):
        expected = code.decode(codes.numpy() if code is KEY else codes.flip(3).numpy())
        assert_same_bits(torch.from_numpy(found), expected.astype(found.dtype))
        assert np.isfinite(found).all() and (found != 0).all()


@EVERY_TYPE
@EVERY_HEAD_DIM
def test_a_decoded_number_has_its_code(dtype, head_dim):
    codes = in_rows(np.arange(256).astype(np.uint8), head_dim)
    key, value = (torch.from_numpy(x) for x in dequantize(codes, codes.flip(3), dtype))
    key, value = quantize(key, value)
    np.testing.assert_array_equal(key, codes.numpy())
    np.testing.assert_array_equal(value, codes.flip(3).numpy())


@EVERY_HEAD_DIM
def test_floats_are_first_rounded_to_half(head_dim):
    """Random bits, and numbers around those at which the half or the code changes."""
    g = np.random.default_rng(head_dim)
    with np.errstate(all="ignore"):
        edges = np.arange(65536).astype(np.uint16).view(np.float16).astype(np.float32)
        edges = np.concatenate([edges[np.isfinite(edges)][::64], np.float32([65504, 65519.996, 65520, 1e6, 3.4e38])])
        between = edges + np.spacing(edges.astype(np.float16)).astype(np.float32) / 2  # ties
        near = [np.nextafter(x, np.float32(side)) for x in (edges, between) for side in (-np.inf, np.inf)]
    tiny = np.float32([0, 1e-45, 1e-40, 1.1754942e-38, 2**-25, 2**-24, 5.9e-8, np.inf])
    patterns = g.integers(0, 1 << 32, 4096, dtype=np.uint32).view(np.float32)
    x = np.concatenate([patterns, edges, between, *near, tiny])
    assert_encoded(in_rows(np.concatenate([x, -x]), head_dim))


@EVERY_TYPE
@EVERY_HEAD_DIM
def test_code_is_the_nearest_but_for_the_edges(dtype, head_dim):
    """A second opinion. A cell has an eighth of a power of two, and decoding gives its middle: within the range no
    number is off by more than a sixteenth of the power of two below it."""
    g = np.random.default_rng(1)
    x = torch.from_numpy(np.exp2(g.uniform(-8, 3, (1, 2, 40, head_dim))) * g.choice([-1, 1], (1, 2, 40, head_dim)))
    x = x.to(HALF).to(dtype)
    codes = quantize(x, x)
    for found in dequantize(*(torch.from_numpy(c) for c in codes), dtype):
        power = np.exp2(np.floor(np.log2(np.abs(x.double().numpy()))))
        assert (np.abs(found.astype(np.float64) - x.double().numpy()) <= power / 16).all()


@EVERY_TYPE
@pytest.mark.parametrize("stream, code", [("key", KEY), ("value", VALUE)])
def test_zeros_and_what_is_beyond_the_range(stream, code, dtype):
    """The sign is kept, of zeros too; their magnitude is the smallest."""
    for x in (0.0, 1e-8, SMALLEST[stream] * 0.99):
        assert (one(stream, x, dtype), one(stream, -x, dtype)) == (0x00, 0x80)
    for x in (LARGEST[stream] * 1.01, 65504.0, float("inf")):
        assert (one(stream, x, dtype), one(stream, -x, dtype)) == (0x7F, 0xFF)
    ends = torch.tensor([0x00, 0x80, 0x7F, 0xFF], dtype=BYTE).repeat(16)[None, None, None]
    found = dequantize(ends, ends, dtype)[stream == "value"]
    expected = [SMALLEST[stream], -SMALLEST[stream], LARGEST[stream], -LARGEST[stream]]
    assert found[0, 0, 0, :4].tolist() == expected


def test_a_float_beyond_half_is_clamped():
    for stream in ("key", "value"):
        assert (one(stream, 1e30), one(stream, -1e30)) == (0x7F, 0xFF)
        assert (one(stream, 3.4e38), one(stream, 65519.996)) == (0x7F, 0x7F)


@EVERY_TYPE
def test_a_cell_from_its_lower_edge_to_the_next(dtype):
    """1.0 to 1.125 has the midpoint 1.0625; as bytes of a key 15 * 8 - 48, of a value 15 * 8 - 24."""
    for stream, byte in (("key", 72), ("value", 96)):
        assert [one(stream, x, dtype) for x in (0.9995, 1.0, 1.001, 1.0625, 1.124, 1.125)] == [byte - 1] + [
            byte
        ] * 4 + [byte + 1]
        assert one(stream, -1.0625, dtype) == byte | 0x80
    codes = torch.full((1, 1, 1, 64), 72, dtype=BYTE)
    key, _ = dequantize(codes, codes, dtype)
    assert (key == 1.0625).all()


def test_a_float_may_round_up_into_the_next_cell():
    assert one("key", float(np.nextafter(np.float32(1), np.float32(0)))) == 72
    assert one("key", 1 - 2**-11) == 71


@EVERY_TYPE
def test_the_same_byte_is_eight_times_larger_as_a_key(dtype):
    codes = in_rows(np.arange(256).astype(np.uint8), 64)
    key, value = dequantize(codes, codes, dtype)
    np.testing.assert_array_equal(key, value * 8)


@EVERY_TYPE
@EVERY_HEAD_DIM
def test_key_and_value_go_to_their_own_outputs(dtype, head_dim):
    g = np.random.default_rng(2)
    key, value = (random(g, (2, 5, 7, head_dim), dtype, 20.0) for _ in range(2))
    key_codes, value_codes = quantize(key, value)
    np.testing.assert_array_equal(key_codes, KEY.encode(key.numpy()))
    np.testing.assert_array_equal(value_codes, VALUE.encode(value.numpy()))


@EVERY_TYPE
def test_nan_does_no_harm(dtype):
    x = random(np.random.default_rng(3), (1, 2, 3, 64), dtype)
    x[0, 1, 1, 5:9] = torch.nan
    assert_encoded(x)


def test_rows_of_a_cache_one_at_a_time():
    """As a runner appends them: the next row of a contiguous cache."""
    g = np.random.default_rng(4)
    key, value = (random(g, (1, 3, 5, 64), FLOAT) for _ in range(2))
    key_cache, value_cache = (torch.full((1, 3, 9, 64), 0xEE, dtype=BYTE, device="xpu") for _ in range(2))
    for t in range(5):
        rows = [x[:, :, t : t + 1].to("xpu") for x in (key, value)]
        orrery_ops.quantize_key_value(*rows, key_cache[:, :, t : t + 1], value_cache[:, :, t : t + 1])
    for cache, x, code in ((key_cache, key, KEY), (value_cache, value, VALUE)):
        np.testing.assert_array_equal(cache[:, :, :5].cpu().numpy(), code.encode(x.numpy()))
        assert is_spoilt(cache[:, :, 5:])


def test_the_codec_reads_nothing_behind_a_row():
    g = np.random.default_rng(5)
    for dtype in (FLOAT, HALF):
        for head_dim in HEAD_DIMS:
            x = random(g, (1, 1, 3, head_dim), dtype)
            assert_reads_nothing_behind([x, x], lambda k, v: torch.stack(through("quantize_key_value", k, v, BYTE)))
            code = torch.from_numpy(KEY.encode(x.numpy()))

            def decode(k, v, dtype=dtype):
                return torch.stack(through("dequantize_key_value", k, v, dtype))

            assert_reads_nothing_behind([code, code], decode)


def through(operation: str, key: torch.Tensor, value: torch.Tensor, to: torch.dtype) -> list[torch.Tensor]:
    out = [torch.zeros(x.shape, dtype=to, device="xpu") for x in (key, value)]
    getattr(orrery_ops, operation)(key, value, *out)
    return out


def test_a_byte_cache_takes_a_quarter_of_a_float_one():
    shape = (1, 3, 2048, 64)

    def bytes_of(dtype: torch.dtype) -> int:
        gc.collect()  # so that nothing else is freed meanwhile
        before = torch.xpu.memory_allocated()
        cache = [torch.empty(shape, dtype=dtype, device="xpu") for _ in range(60)]
        taken = torch.xpu.memory_allocated() - before
        del cache
        return taken

    assert bytes_of(FLOAT) == 4 * bytes_of(BYTE) == 60 * 4 * 3 * 2048 * 64


CODEC = {"quantize_key_value": "quantize kv cache", "dequantize_key_value": "dequantize kv cache"}
EVERY_CODEC = pytest.mark.parametrize("operation", CODEC)


def codec_arguments(operation: str, dtype: torch.dtype, shape: tuple[int, ...]) -> list[torch.Tensor]:
    codes, numbers = [zeros(*shape, dtype=BYTE)] * 2, [zeros(*shape, dtype=dtype)] * 2
    return numbers + codes if operation == "quantize_key_value" else codes + numbers


@EVERY_CODEC
@EVERY_TYPE
@EVERY_HEAD_DIM
def test_codec_launch(operation, dtype, head_dim):
    with orrery_host.record_launches() as launches:
        getattr(orrery_ops, operation)(*codec_arguments(operation, dtype, (2, 5, 7, head_dim)))
    (launch,) = launches
    assert (launch.name, launch.kernel) == (CODEC[operation], operation + "_kernel")
    assert launch.instance == f"{CPP[dtype]}, {head_dim}"
    assert (launch.file, launch.function, launch.line, launch.column) == ("utils", "submit_kernel", 12, 29)
    assert (launch.global_size, launch.local_size) == ((2, 5, 7), (1, 1, 1))
    assert (launch.sub_group_size, launch.local_memory, launch.waited) == (1, 0, False)


@EVERY_CODEC
@EVERY_TYPE
@pytest.mark.parametrize("shape", [(0, 2, 3, 64), (2, 0, 3, 64), (2, 3, 0, 64)])
def test_codec_of_nothing_is_recorded(operation, dtype, shape):
    with orrery_host.record_launches() as launches:
        getattr(orrery_ops, operation)(*codec_arguments(operation, dtype, shape))
    (launch,) = launches
    assert (launch.name, launch.global_size) == (CODEC[operation], shape[:3])


@EVERY_CODEC
@pytest.mark.parametrize("head_dim", [0, 32, 80, 256])
@pytest.mark.parametrize("dtype", [FLOAT, torch.float64])  # the head size comes before the type
def test_codec_of_an_unsupported_head_dim(operation, dtype, head_dim):
    with pytest.raises(RuntimeError) as error:
        getattr(orrery_ops, operation)(*codec_arguments(operation, dtype, (1, 2, 3, head_dim)))
    assert str(error.value) == UNSUPPORTED_HEAD_DIM


@EVERY_CODEC
@EVERY_HEAD_DIM
@pytest.mark.parametrize("dtype", [torch.float64, torch.bfloat16, BYTE])
def test_codec_of_an_unsupported_type(operation, dtype, head_dim):
    with pytest.raises(RuntimeError) as error:
        getattr(orrery_ops, operation)(*codec_arguments(operation, dtype, (1, 2, 3, head_dim)))
    assert str(error.value) == UNSUPPORTED_TYPE


@EVERY_CODEC
@EVERY_TYPE
@EVERY_HEAD_DIM
@pytest.mark.parametrize("place", [0, 1])
@pytest.mark.parametrize("other", [torch.int8, torch.bool, FLOAT])
def test_codes_of_another_type(operation, dtype, head_dim, place, other):
    args = codec_arguments(operation, dtype, (1, 2, 3, head_dim))
    args[place + 2 * (operation == "quantize_key_value")] = zeros(1, 2, 3, head_dim, dtype=other)
    with pytest.raises(RuntimeError, match="scalar type"):
        getattr(orrery_ops, operation)(*args)


@EVERY_CODEC
@pytest.mark.parametrize(
    "dimension, expression",
    [
        (0, "value.size(0) == bsz && key_output.size(0) == bsz && value_output.size(0) == bsz"),
        (1, "value.size(1) == num_heads && key_output.size(1) == num_heads && value_output.size(1) == num_heads"),
        (2, "value.size(2) == seq_len && key_output.size(2) == seq_len && value_output.size(2) == seq_len"),
        (3, "value.size(3) == head_dim && key_output.size(3) == head_dim && value_output.size(3) == head_dim"),
    ],
)
@pytest.mark.parametrize("place", [1, 2, 3])
def test_codec_assertions(operation, dimension, expression, place):
    """A tensor that is wrong in this and all later dimensions: the first in order speaks, and before the head size."""
    shape = [2, 3, 4, 80]
    args = codec_arguments(operation, FLOAT, tuple(shape))
    for d in range(dimension, 4):
        shape[d] += 1
    args[place] = zeros(*shape, dtype=args[place].dtype)
    assert_dies_with(expression, "kv", lambda: getattr(orrery_ops, operation)(*args))


@pytest.mark.parametrize(
    "operation, expression, place",
    [
        ("quantize_key_value", "key.scalar_type() == value.scalar_type()", 0),
        ("quantize_key_value", "key.scalar_type() == value.scalar_type()", 1),
        ("dequantize_key_value", "key_output.scalar_type() == value_output.scalar_type()", 2),
        ("dequantize_key_value", "key_output.scalar_type() == value_output.scalar_type()", 3),
    ],
)
def test_codec_asserts_equal_types_first(operation, expression, place):
    args = codec_arguments(operation, FLOAT, (1, 2, 3, 64))
    args[place] = zeros(2, 3, 4, 65, dtype=HALF)
    assert_dies_with(expression, "kv", lambda: getattr(orrery_ops, operation)(*args))


# --- products with the caches -----------------------------------------------------------------------------------------

MATMULS = {"query_key_fp8_matmul": "query key fp8 matmul", "attn_value_fp8_matmul": "attn value fp8 matmul"}
EVERY_MATMUL = pytest.mark.parametrize("operation", MATMULS)
LENGTHS = [0, 1, 15, 16, 17, 31, 32, 33, 77]


def case(
    operation: str, seed: int, dtype: torch.dtype, bsz: int, heads: tuple[int, int], length: int, head_dim: int
) -> list[torch.Tensor]:
    """Query or weights, and their cache."""
    g = np.random.default_rng(seed)
    key, value = reference.byte_caches(g, (bsz, heads[1], length, head_dim))
    if operation == "query_key_fp8_matmul":
        return [reference.queries(g, (bsz, heads[0], 1, head_dim), dtype), key]
    return [reference.queries(g, (bsz, heads[0], 1, length), dtype), value]


def run(operation: str, x: torch.Tensor, cache: torch.Tensor) -> torch.Tensor:
    width = cache.shape[2] if operation == "query_key_fp8_matmul" else cache.shape[3]
    leave_nan_behind((*x.shape[:3], width), x.dtype)
    return getattr(orrery_ops, operation)(x, cache)


def check(operation: str, x: torch.Tensor, cache: torch.Tensor) -> np.ndarray:
    """The result, after comparison with the reference."""
    result = run(operation, x, cache)
    assert result.is_contiguous() and result.device.type == "xpu"
    assert_same_bits(result, getattr(reference, operation)(x, cache))
    return result.cpu().numpy()


@EVERY_MATMUL
@EVERY_TYPE
@EVERY_HEAD_DIM
@pytest.mark.parametrize("length", LENGTHS)
def test_matmul_is_bit_exact(operation, dtype, head_dim, length):
    check(operation, *case(operation, length + head_dim, dtype, 2, (6, 2), length, head_dim))


@EVERY_MATMUL
@EVERY_TYPE
@EVERY_HEAD_DIM
def test_matmul_over_1000_keys(operation, dtype, head_dim):
    check(operation, *case(operation, head_dim, dtype, 1, (3, 1), 1000, head_dim))


@EVERY_MATMUL
@pytest.mark.parametrize("heads", [(1, 1), (9, 3), (5, 5), (8, 1), (32, 8)])
def test_matmul_heads(operation, heads):
    check(operation, *case(operation, 6, FLOAT, 2, heads, 45, 64))


@EVERY_MATMUL
@EVERY_TYPE
def test_matmul_in_half_overflows(operation, dtype):
    """124 * 60000 is beyond half: products and sums are infinite, also of floats that could hold them."""
    x, cache = case(operation, 7, dtype, 1, (2, 1), 35, 64)
    cache[..., :32], cache[..., 32:] = 0x7F, 0x7E
    x.fill_(60000.0)
    assert (check(operation, x, cache) == np.inf).all()
    cache[..., 3, 5] = 0xFF
    assert np.isnan(check(operation, x, cache)).any()
    x.fill_(500.0)  # finite products, infinite sums
    assert np.isinf(check(operation, x, cache)).any()


@EVERY_MATMUL
def test_matmul_rounds_floats_to_half(operation):
    """To infinity above 65504, to zero below 2^-25."""
    x, cache = case(operation, 8, FLOAT, 2, (2, 1), 35, 96)
    x[0, 0, 0, 3] = 1e5
    x[0, 1], x[1, 0], x[1, 1] = 1e-9, 1 + 2**-12, -(2**-20)
    found = check(operation, x, cache)
    assert not np.isfinite(found[0, 0]).all()
    assert (found[0, 1] == 0).all()
    ones = x.clone()
    ones[1, 0] = 1.0
    np.testing.assert_array_equal(run(operation, ones, cache)[1, 0].cpu().numpy(), found[1, 0])


@EVERY_TYPE
def test_query_key_has_no_scale(dtype):
    """One lane of the query is 1: the decoded keys, but for the zeros of the other lanes."""
    query, key = case("query_key_fp8_matmul", 9, dtype, 1, (1, 1), 40, 64)
    query.zero_()
    query[..., 7] = 1
    found = check("query_key_fp8_matmul", query, key)
    np.testing.assert_array_equal(found[0, 0, 0], KEY.decode(key[0, 0, :, 7].cpu().numpy()).astype(found.dtype))


@EVERY_TYPE
def test_weights_are_taken_as_they_stand(dtype):
    """One weight is -2: twice its value row, with the other sign."""
    attn, value = case("attn_value_fp8_matmul", 10, dtype, 1, (1, 1), 40, 64)
    attn.zero_()
    attn[..., 33] = -2
    found = check("attn_value_fp8_matmul", attn, value)
    np.testing.assert_array_equal(found[0, 0, 0], -2 * VALUE.decode(value[0, 0, 33].cpu().numpy()).astype(found.dtype))


@EVERY_TYPE
def test_no_keys(dtype):
    query, key = case("query_key_fp8_matmul", 11, dtype, 1, (2, 1), 0, 64)
    assert run("query_key_fp8_matmul", query, key).shape == (1, 2, 1, 0)
    attn, value = case("attn_value_fp8_matmul", 11, dtype, 1, (2, 1), 0, 64)
    result = run("attn_value_fp8_matmul", attn, value)
    assert result.shape == (1, 2, 1, 64) and (result == 0).all() and not result.signbit().any()


@EVERY_MATMUL
def test_row_stride_of_a_cache_is_ignored(operation):
    g = np.random.default_rng(12)
    wide = torch.from_numpy(g.integers(0, 256, (2, 2, 40, 96), dtype=np.uint8)).to("xpu")
    x = random(g, (2, 4, 1, 64 if operation == "query_key_fp8_matmul" else 40), FLOAT).to("xpu")
    packed = torch.as_strided(wide, (2, 2, 40, 64), (2 * 40 * 96, 40 * 96, 64, 1))
    assert_same_bits(run(operation, x, wide[..., :64]), getattr(reference, operation)(x, packed))


@EVERY_MATMUL
@EVERY_TYPE
def test_every_byte_in_a_matmul(operation, dtype):
    """256 rows; a row has one byte, so that the query or the weights pick it."""
    cache = torch.arange(256, dtype=BYTE)[None, None, :, None].repeat(1, 1, 1, 64).to("xpu")
    g = np.random.default_rng(13)
    x = random(g, (1, 3, 1, 64 if operation == "query_key_fp8_matmul" else 256), dtype, 0.1).to("xpu")
    check(operation, x, cache)


@EVERY_MATMUL
def test_matmul_reads_nothing_behind_its_rows(operation):
    g = np.random.default_rng(14)
    for dtype in (FLOAT, HALF):
        for head_dim in HEAD_DIMS:
            for length in (1, 18, 33):
                codes = torch.from_numpy(g.integers(0, 256, (1, 1, length, head_dim), dtype=np.uint8))
                width = head_dim if operation == "query_key_fp8_matmul" else length
                x = random(g, (1, 1, 1, width), dtype)
                assert_reads_nothing_behind([x, codes], getattr(orrery_ops, operation))


def test_the_two_products_make_attention():
    """A second opinion: with the softmax between them they are float64 attention over the decoded caches. Half sums of
    77 terms, the largest weight near 0.5 and values below 4, are off by less than 0.02."""
    query, key = case("query_key_fp8_matmul", 15, FLOAT, 2, (4, 2), 77, 64)
    _, value = case("attn_value_fp8_matmul", 15, FLOAT, 2, (4, 2), 77, 64)
    logits = run("query_key_fp8_matmul", query, key)
    found = run("attn_value_fp8_matmul", torch.softmax(logits / 8, -1), value).cpu().double()
    k, v = (torch.from_numpy(c.decode(x.cpu().numpy())) for c, x in ((KEY, key), (VALUE, value)))
    k, v = (x.double().repeat_interleave(2, dim=1) for x in (k, v))
    expected = torch.softmax(query.cpu().double() @ k.transpose(2, 3) / 8, -1) @ v
    assert (found - expected).abs().max() < 0.02


def matmul_launch(operation: str, bsz: int, heads: int, length: int, head_dim: int) -> tuple:
    """Global range, local range, local memory."""
    if operation == "query_key_fp8_matmul":
        return (bsz, heads, -(-length // 16)), (1, 1, 1), 0
    return (bsz, heads, 32), (1, 1, 32), head_dim * 64


@EVERY_MATMUL
@EVERY_TYPE
@EVERY_HEAD_DIM
@pytest.mark.parametrize("length", [1, 16, 33])
def test_matmul_launch(operation, dtype, head_dim, length):
    args = case(operation, 16, dtype, 2, (6, 3), length, head_dim)
    with orrery_host.record_launches() as launches:
        getattr(orrery_ops, operation)(*args)
    (launch,) = launches
    assert (launch.name, launch.kernel) == (MATMULS[operation], operation + "_kernel")
    assert launch.instance == f"{CPP[dtype]}, {16 if operation == 'query_key_fp8_matmul' else 32}, {head_dim}"
    assert (launch.file, launch.function, launch.line, launch.column) == ("utils", "submit_kernel", 12, 29)
    ranges = (launch.global_size, launch.local_size, launch.local_memory)
    assert ranges == matmul_launch(operation, 2, 6, length, head_dim)
    assert (launch.sub_group_size, launch.waited) == (1, False)


@EVERY_MATMUL
@pytest.mark.parametrize("bsz, heads, length", [(0, 4, 5), (2, 0, 5), (2, 4, 0)])
def test_matmul_of_nothing_is_recorded(operation, bsz, heads, length):
    args = case(operation, 17, FLOAT, bsz, (heads, 2), length, 64)
    with orrery_host.record_launches() as launches:
        getattr(orrery_ops, operation)(*args)
    (launch,) = [x for x in launches if x.kernel == operation + "_kernel"]
    assert (launch.name, launch.global_size) == (
        MATMULS[operation],
        matmul_launch(operation, bsz, heads, length, 64)[0],
    )


def matmul_arguments(operation: str, head_dim: int, dtype: torch.dtype = FLOAT) -> list[torch.Tensor]:
    width = head_dim if operation == "query_key_fp8_matmul" else 9
    return [zeros(1, 4, 1, width, dtype=dtype), zeros(1, 2, 9, head_dim, dtype=BYTE)]


@EVERY_MATMUL
@pytest.mark.parametrize("head_dim", [0, 32, 80, 256])
@pytest.mark.parametrize("dtype", [FLOAT, torch.float64])
def test_matmul_of_an_unsupported_head_dim(operation, dtype, head_dim):
    with pytest.raises(RuntimeError) as error:
        getattr(orrery_ops, operation)(*matmul_arguments(operation, head_dim, dtype))
    assert str(error.value) == UNSUPPORTED_HEAD_DIM


@EVERY_MATMUL
@EVERY_HEAD_DIM
@pytest.mark.parametrize("dtype", [torch.float64, torch.bfloat16, BYTE])
def test_matmul_of_an_unsupported_type(operation, dtype, head_dim):
    with pytest.raises(RuntimeError) as error:
        getattr(orrery_ops, operation)(*matmul_arguments(operation, head_dim, dtype))
    assert str(error.value) == UNSUPPORTED_TYPE


@EVERY_MATMUL
@EVERY_HEAD_DIM
@EVERY_TYPE
@pytest.mark.parametrize("other", [torch.int8, torch.bool, FLOAT, HALF])
def test_matmul_with_a_cache_of_another_type(operation, dtype, head_dim, other):
    x, cache = matmul_arguments(operation, head_dim, dtype)
    with pytest.raises(RuntimeError, match="scalar type"):
        getattr(orrery_ops, operation)(x, cache.to(other))


@pytest.mark.parametrize(
    "operation, expression, x, cache",
    [
        ("query_key_fp8_matmul", "query.size(0) == key.size(0)", (2, 5, 2, 65), (1, 2, 9, 64)),
        ("query_key_fp8_matmul", "query.size(3) == key.size(3)", (1, 5, 2, 65), (1, 2, 9, 64)),
        ("query_key_fp8_matmul", "num_heads % num_kv_heads == 0", (1, 5, 2, 64), (1, 2, 9, 64)),
        ("query_key_fp8_matmul", "num_heads % num_kv_heads == 0", (1, 4, 1, 64), (1, 0, 9, 64)),
        ("query_key_fp8_matmul", "input_size == 1", (1, 4, 2, 80), (1, 2, 9, 80)),
        ("query_key_fp8_matmul", "input_size == 1", (1, 4, 0, 64), (1, 2, 9, 64)),
        ("attn_value_fp8_matmul", "attn.size(0) == value.size(0)", (2, 5, 2, 8), (1, 2, 9, 64)),
        ("attn_value_fp8_matmul", "attn.size(3) == value.size(2)", (1, 5, 2, 8), (1, 2, 9, 64)),
        ("attn_value_fp8_matmul", "num_heads % num_kv_heads == 0", (1, 5, 2, 9), (1, 2, 9, 64)),
        ("attn_value_fp8_matmul", "num_heads % num_kv_heads == 0", (1, 4, 1, 9), (1, 0, 9, 64)),
        ("attn_value_fp8_matmul", "input_size == 1", (1, 4, 2, 9), (1, 2, 9, 80)),
        ("attn_value_fp8_matmul", "input_size == 1", (1, 4, 0, 9), (1, 2, 9, 64)),
    ],
)
def test_matmul_assertions(operation, expression, x, cache):
    """The first in order speaks, and before the head size and the types."""
    for dtype in (FLOAT, torch.float64):
        args = [zeros(*x, dtype=dtype), zeros(*cache, dtype=FLOAT)]
        assert_dies_with(expression, "kv", lambda args=args: getattr(orrery_ops, operation)(*args))


@pytest.mark.parametrize("operation", [*CODEC, *MATMULS])
def test_arguments_without_four_dimensions(operation):
    args = codec_arguments(operation, FLOAT, (4, 3, 64)) if operation in CODEC else [zeros(1, 4, 64)] * 2
    with pytest.raises(IndexError, match=re.escape("Dimension out of range")):
        getattr(orrery_ops, operation)(*args)


# --- all four ---------------------------------------------------------------------------------------------------------


def test_launches_go_to_the_device_of_the_arguments():
    script = """
import orrery_host, orrery_ops, torch
numbers = torch.ones(1, 2, 3, 64, device="xpu:1")
codes = [torch.zeros(1, 2, 3, 64, dtype=torch.uint8, device="xpu:1") for _ in range(2)]
decoded = [torch.zeros_like(numbers) for _ in range(2)]
with orrery_host.record_launches() as launches:
    orrery_ops.quantize_key_value(numbers, numbers, *codes)
    orrery_ops.dequantize_key_value(*codes, *decoded)
    results = [
        orrery_ops.query_key_fp8_matmul(numbers[:, :, :1], codes[0]),
        orrery_ops.attn_value_fp8_matmul(numbers[:, :, :1, :3], codes[1]),
        orrery_ops.sdp_fp8(numbers, *codes, None),
        orrery_ops.sdp_fp8_causal(numbers, *codes),
        orrery_ops.sdp_causal(numbers, numbers, numbers),
    ]
assert [launch.device for launch in launches if launch.name] == [1] * 7, launches
assert all(x.device == numbers.device for x in results)
"""
    done = subprocess.run(
        [sys.executable, "-c", script],
        env={**os.environ, "ORRERY_HOST_DEVICES": "2"},
        capture_output=True,
        text=True,
        timeout=120,
    )
    assert done.returncode == 0, done.stderr


def results() -> list[torch.Tensor]:
    out = []
    g = np.random.default_rng(20)
    for dtype, head_dim in ((FLOAT, 64), (HALF, 96), (FLOAT, 128)):
        key, value = (random(g, (2, 3, 19, head_dim), dtype).to("xpu") for _ in range(2))
        codes = through("quantize_key_value", key, value, BYTE)
        out += [*codes, *through("dequantize_key_value", *codes, dtype)]
        for operation in MATMULS:
            for length in (5, 77, 300):
                out.append(run(operation, *case(operation, 21, dtype, 2, (6, 3), length, head_dim)))
    return out


def test_bits_do_not_depend_on_threads_or_schedule():
    assert_same_bits_in_any_order("test_kv", results)
