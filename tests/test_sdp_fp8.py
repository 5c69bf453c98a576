"""sdp_fp8 and sdp_fp8_causal: bit for bit against the order of additions in numpy, over every byte of the caches."""

from __future__ import annotations

import gc
import re

import attention_reference as reference
import numpy as np
import pytest
import torch
from attention_reference import (
    ELEMENTS,
    FLOAT,
    HALF,
    HEADS,
    HEAD_DIMS,
    KEY,
    LENGTHS,
    ROWS,
    SIZES,
    UNSUPPORTED_HEAD_DIM,
    UNSUPPORTED_TYPE,
    VALUE,
    Shape,
    check_launch,
    zeros,
)
from guard_page import assert_reads_nothing_behind
from kernel_reference import (
    assert_dies_with,
    assert_same_bits,
    assert_same_bits_in_any_order,
    fold,
    leave_nan_behind,
    random,
    split,
)

import orrery_host
import orrery_ops

BYTE = torch.uint8
NAMES = {"sdp_fp8": "sdp fp8", "sdp_fp8_causal": "sdp fp8 causal"}
EVERY = pytest.mark.parametrize("operation", NAMES)
EVERY_TYPE = pytest.mark.parametrize("dtype", [FLOAT, HALF], ids=["float", "half"])
EVERY_MASK = pytest.mark.parametrize("mask_dtype", [None, FLOAT, HALF], ids=["unmasked", "float_mask", "half_mask"])
EVERY_HEAD_DIM = pytest.mark.parametrize("head_dim", HEAD_DIMS)


def case(
    seed: int, dtype: torch.dtype, mask_dtype: torch.dtype | None, shape: Shape, kv_heads: int, context: int,
    mask_heads: int | None = None,
) -> list[torch.Tensor | None]:  # fmt: skip
    """Query, caches and mask on the device, none of them contiguous."""
    g = np.random.default_rng(seed)
    bsz, heads, rows, head_dim = shape
    query = reference.queries(g, shape, dtype)
    caches = reference.byte_caches(g, (bsz, kv_heads, context, head_dim))
    if mask_dtype is None:
        return [query, *caches, None]
    return [query, *caches, reference.mask(g, (bsz, mask_heads or heads, rows, context), mask_dtype)]


def causal_case(seed: int, dtype: torch.dtype, shape: Shape, kv_heads: int) -> list[torch.Tensor]:
    return case(seed, dtype, None, shape, kv_heads, shape[2])[:3]


def run(operation: str, query: torch.Tensor, *others: torch.Tensor | None) -> torch.Tensor:
    leave_nan_behind(tuple(query.shape), query.dtype)
    return getattr(orrery_ops, operation)(query, *others)


def check(operation: str, *args: torch.Tensor | None) -> torch.Tensor:
    """The result, after comparison with the reference."""
    result = run(operation, *args)
    assert result.is_contiguous() and result.device.type == "xpu"
    assert_same_bits(result, getattr(reference, operation)(*args))
    return result


@EVERY_TYPE
@EVERY_MASK
@EVERY_HEAD_DIM
@pytest.mark.parametrize("context", [0, 1, 15, 16, 17, 31, 32, 33, 77])
def test_is_bit_exact(dtype, mask_dtype, head_dim, context):
    check("sdp_fp8", *case(context + head_dim, dtype, mask_dtype, (2, 4, 2, head_dim), 2, context))


@EVERY_TYPE
@EVERY_MASK
@EVERY_HEAD_DIM
def test_1000_keys(dtype, mask_dtype, head_dim):
    check("sdp_fp8", *case(head_dim, dtype, mask_dtype, (1, 2, 1, head_dim), 1, 1000))


@EVERY_TYPE
@EVERY_HEAD_DIM
@pytest.mark.parametrize("rows", [1, 15, 16, 17, 31, 32, 33, 77])
def test_causal_is_bit_exact(dtype, head_dim, rows):
    check("sdp_fp8_causal", *causal_case(rows + head_dim, dtype, (2, 4, rows, head_dim), 2))


@EVERY_TYPE
def test_1000_causal_rows(dtype):
    check("sdp_fp8_causal", *causal_case(1, dtype, (1, 1, 1000, 64), 1))


@pytest.mark.parametrize("heads, kv_heads", [(1, 1), (9, 3), (5, 5), (8, 1)])
@pytest.mark.parametrize("rows", [1, 7])
def test_heads_and_rows(heads, kv_heads, rows):
    check("sdp_fp8", *case(heads + rows, FLOAT, FLOAT, (1, heads, rows, 64), kv_heads, 45))
    check("sdp_fp8_causal", *causal_case(heads + rows, FLOAT, (2, heads, rows + 16, 64), kv_heads))


@EVERY_TYPE
@EVERY_HEAD_DIM
def test_every_byte(dtype, head_dim):
    """As key and as value, small enough queries for no exponential to overflow."""
    g = np.random.default_rng(2)
    query = random(g, (1, 2, 1, head_dim), dtype, 2**-6).to("xpu")
    key, value = (torch.from_numpy(g.permuted(np.resize(np.arange(256), (1, 1, head_dim, 256)), axis=3)) for _ in "kv")
    key, value = (x.to(BYTE).transpose(2, 3).contiguous().to("xpu") for x in (key, value))  # [1, 1, 256, head_dim]
    assert check("sdp_fp8", query, key, value, None).isfinite().all()
    query = random(g, (1, 1, 256, head_dim), dtype, 2**-6).to("xpu")
    assert check("sdp_fp8_causal", query, key, value).isfinite().all()


@EVERY_TYPE
@EVERY_HEAD_DIM
def test_keys_and_values_have_codes_of_their_own(dtype, head_dim):
    """The same bytes in both caches."""
    query, key, _, _ = case(3, dtype, None, (1, 2, 1, head_dim), 1, 40)
    check("sdp_fp8", query, key, key, None)
    query, key, _ = causal_case(3, dtype, (1, 2, 40, head_dim), 1)
    check("sdp_fp8_causal", query, key, key)


@EVERY_TYPE
@pytest.mark.parametrize("mask_dtype", [FLOAT, HALF])
def test_mask_with_one_head_serves_all(dtype, mask_dtype):
    query, key, value, mask = case(5, dtype, mask_dtype, (2, 6, 3, 96), 2, 77, mask_heads=1)
    result = check("sdp_fp8", query, key, value, mask)
    assert torch.equal(result, run("sdp_fp8", query, key, value, mask.repeat(1, 6, 1, 1)))


@EVERY_TYPE
@pytest.mark.parametrize("lowest", [-torch.inf, -1e4])
def test_fully_masked_row_is_nan(dtype, lowest):
    query, key, value, mask = case(6, dtype, FLOAT, (1, 2, 3, 64), 1, 50)
    mask[0, 1, 2] = lowest
    result = check("sdp_fp8", query, key, value, mask)
    assert result[0, 1, 2].isnan().all()
    assert not result[0, 0].isnan().any() and not result[0, 1, :2].isnan().any()


@EVERY_TYPE
def test_no_context_is_nan(dtype):
    assert run("sdp_fp8", *case(7, dtype, None, (1, 2, 2, 64), 1, 0)).isnan().all()


def test_large_logits_overflow():
    query, key, value, mask = case(8, FLOAT, FLOAT, (1, 3, 1, 64), 1, 40)
    mask.zero_()
    mask[0, 0, 0, 3] = 200.0  # above 88.7: the exponential is infinite
    mask[0, 1, 0, :] = 88.0  # each one finite, their sum is not
    mask[0, 2, 0, :] = -95.0  # subnormal exponentials are kept
    result = check("sdp_fp8", query, key, value, mask)
    assert result[0, 0].isnan().all()
    assert result[0, 2].isfinite().all()


@EVERY_TYPE
def test_large_queries_overflow_in_half_only(dtype):
    """A key of 124 times a query of 600 is beyond half. The float kernel multiplies in half too, unless it is causal:
    there the second lane takes the product back."""
    query = torch.zeros(1, 1, 3, 64, dtype=dtype, device="xpu")
    query[..., 0], query[..., 1] = 600.0, -600.0
    key, value = (torch.full((1, 1, 3, 64), 0x7F, dtype=BYTE, device="xpu") for _ in range(2))
    assert check("sdp_fp8", query, key, value, None).isnan().all()
    causal = check("sdp_fp8_causal", query, key, value)
    assert ((causal / 15.5 - 1).abs() < 2**-21).all() if dtype == FLOAT else causal.isnan().all()


def test_float_queries_are_rounded_to_half_unless_causal():
    query, key, value, _ = case(9, FLOAT, None, (1, 2, 17, 64), 1, 17)
    rounded = query.half().float()
    assert torch.equal(check("sdp_fp8", query, key, value, None), run("sdp_fp8", rounded, key, value, None))
    assert not torch.equal(check("sdp_fp8_causal", query, key, value), run("sdp_fp8_causal", rounded, key, value))


def test_a_float_query_beyond_half_is_infinite():
    query, key, value, _ = case(10, FLOAT, None, (1, 2, 1, 64), 1, 20)
    query[0, 0, 0, 5] = 1e5
    assert check("sdp_fp8", query, key, value, None)[0, 0].isnan().all()


@EVERY_TYPE
@EVERY_HEAD_DIM
def test_caches_of_zeros_are_small_numbers(dtype, head_dim):
    """Every key is 0.0020751953125 in all lanes and every value 0.0002593994140625: so is the result, whatever the
    weights, but for the roundings of the sums: 40 of the weights, 40 of the products."""
    query = random(np.random.default_rng(11), (1, 2, 40, head_dim), dtype, 4.0).to("xpu")
    numbers = zeros(1, 1, 40, head_dim, dtype=dtype)
    key, value = (torch.full((1, 1, 40, head_dim), 0xEE, dtype=BYTE, device="xpu") for _ in range(2))
    orrery_ops.quantize_key_value(numbers, numbers, key, value)
    rounding = 80 * 2**-24 if dtype == FLOAT else 2**-11
    for args in (("sdp_fp8", query, key, value, None), ("sdp_fp8_causal", query, key, value)):
        result = check(*args).cpu().double()
        assert ((result / 0.0002593994140625 - 1).abs() <= rounding).all()
    product = run("sdp_fp8", query, key, value.add(128).to(BYTE), None)  # negative zeros
    assert (product < 0).all()


@EVERY_TYPE
def test_a_causal_row_reads_no_later_one(dtype):
    query, key, value = causal_case(12, dtype, (1, 2, 45, 64), 1)
    before = run("sdp_fp8_causal", query, key, value)
    query[:, :, 22:] = torch.nan
    key[:, :, 22:], value[:, :, 22:] = 0x7F, 0xFF
    after = run("sdp_fp8_causal", query, key, value)
    assert torch.equal(after[:, :, :22], before[:, :, :22])
    assert after[:, :, 22:].isnan().all()


@EVERY_TYPE
@EVERY_HEAD_DIM
def test_a_causal_row_alone_is_its_own_value(dtype, head_dim):
    query, key, value = causal_case(13, dtype, (2, 3, 1, head_dim), 3)
    query.zero_()
    decoded = VALUE.decode(value.cpu().numpy())
    np.testing.assert_array_equal(check("sdp_fp8_causal", query, key, value).cpu().numpy(), decoded)


@pytest.mark.parametrize("context", [17, 77])
@EVERY_TYPE
def test_exact_weights(dtype, context):
    """A query of zeros and a mask that makes every exponential a power of two: the result depends on no device's
    exponential."""
    g = np.random.default_rng(context)
    logits = reference.exact_logits()
    powers = g.choice(list(logits), context)
    assert len(set(powers)) > 6
    _, key, value, mask = case(14, dtype, FLOAT, (1, 1, 1, 64), 1, context)
    query = zeros(1, 1, 1, 64, dtype=dtype)
    mask[0, 0, 0] = torch.tensor([logits[p] for p in powers])
    rows, weights = VALUE.decode(value.cpu().numpy())[0, 0].astype(np.float32), np.ldexp(np.float32(1), powers)
    acc, total = np.zeros((64, 32), np.float32), np.zeros(32, np.float32)
    for item, (first, last) in enumerate(split(context)):
        for t in range(first, last):
            acc[:, item], total[item] = acc[:, item] + rows[t] * weights[t], total[item] + weights[t]
    expected = (fold(acc) / fold(total)).astype(query.cpu().numpy().dtype)
    assert_same_bits(run("sdp_fp8", query, key, value, mask), expected[None, None, None])


def test_the_causal_shift_holds_large_logits_down():
    """Of 40 rows it is 7.4: of logits of 91 even 31 exponentials have a finite sum, one of 97 is infinite."""
    _, key, value = causal_case(15, FLOAT, (1, 1, 40, 64), 1)
    query = zeros(1, 1, 40, 64)
    key[..., 0] = 72  # 1.0625
    for logit, finite in ((91.0, True), (97.0, False)):
        query[..., 30, 0] = logit * 8 / 1.0625
        result = check("sdp_fp8_causal", query, key, value)[0, 0]
        assert result[30].isfinite().all() if finite else result[30].isnan().all()
        assert result[:30].isfinite().all() and result[31:].isfinite().all()


@EVERY
def test_row_stride_of_the_caches_is_ignored(operation):
    g = np.random.default_rng(16)
    query = random(g, (1, 2, 21, 64), FLOAT).to("xpu")
    wide = [torch.from_numpy(code.encode(g.standard_normal((1, 2, 21, 96)))).to("xpu") for code in (KEY, VALUE)]
    others = [None] if operation == "sdp_fp8" else []
    result = run(operation, query, *(x[..., :64] for x in wide), *others)
    packed = [torch.as_strided(x, (1, 2, 21, 64), (2 * 21 * 96, 21 * 96, 64, 1)) for x in wide]
    assert_same_bits(result, getattr(reference, operation)(query, *packed))


@EVERY
@EVERY_TYPE
@EVERY_HEAD_DIM
@pytest.mark.parametrize("rows", [1, 18])
def test_nothing_behind_the_last_row_is_read(operation, dtype, head_dim, rows):
    g = np.random.default_rng(17)
    query = random(g, (1, 1, rows, head_dim), dtype)
    caches = [torch.from_numpy(code.encode(g.standard_normal(tuple(query.shape)))) for code in (KEY, VALUE)]
    masks = [random(g, (1, 1, rows, rows), HALF)] if operation == "sdp_fp8" else []
    assert_reads_nothing_behind([query, *caches, *masks], getattr(orrery_ops, operation))


@EVERY
def test_is_attention_over_the_decoded_caches(operation):
    """A second opinion in float64. The float dot products of the causal kernel are off by less than 1e-5 in the result.
    The others are rounded to half once per product and at each of the 7 levels of the tree, so a logit is off by less
    than d = 8 * 2^-11 * sum |q k| / sqrt(128) and a result by less than (exp(2 d) - 1) * max |v|."""
    query, key, value, _ = case(18, FLOAT, None, (2, 4, 50, 128), 2, 50)
    query.copy_(query.half() * 0.25)
    q = query.cpu().double()
    k, v = (torch.from_numpy(c.decode(x.cpu().numpy())) for c, x in ((KEY, key), (VALUE, value)))
    k, v = (x.double().repeat_interleave(2, dim=1) for x in (k, v))
    logits = q @ k.transpose(2, 3) / 128**0.5
    if operation == "sdp_fp8":
        off = 8 * 2**-11 * (q.abs() @ k.abs().transpose(2, 3)).max() / 128**0.5
        bound, others = torch.expm1(2 * off) * v.abs().max(), [None]
        assert bound < 0.1
    else:
        bound, others = 1e-5, []
        logits = logits + torch.full((50, 50), -torch.inf, dtype=torch.float64).triu(1)
    found = run(operation, query, key, value, *others).cpu().double()
    assert (found - torch.softmax(logits, -1) @ v).abs().max() < bound


def test_no_decoded_cache_is_kept():
    """A call takes memory for its result and for nothing else."""
    query, key, value, _ = case(19, FLOAT, None, (1, 8, 64, 128), 2, 64)
    for operation, others in (("sdp_fp8", [None]), ("sdp_fp8_causal", [])):
        gc.collect()
        torch.xpu.reset_peak_memory_stats()
        before = torch.xpu.memory_allocated()
        result = getattr(orrery_ops, operation)(query, key, value, *others)
        assert torch.xpu.max_memory_allocated() - before == result.nbytes
        del result


@EVERY
@EVERY_TYPE
@pytest.mark.parametrize("shape, kv_heads", [((0, 2, 3, 64), 1), ((2, 2, 0, 64), 1), ((2, 0, 3, 64), 2)])
def test_empty_sizes_launch_nothing_but_are_recorded(operation, dtype, shape, kv_heads):
    args = case(20, dtype, None, shape, kv_heads, shape[2])
    with orrery_host.record_launches() as launches:
        assert run(operation, *(args if operation == "sdp_fp8" else args[:3])).shape == shape
    (launch,) = [x for x in launches if x.kernel == operation + "_kernel"]
    last = shape[2] * 32 if operation == "sdp_fp8" else -(-shape[2] // 16) * 16
    assert (launch.name, launch.global_size) == (NAMES[operation], (*shape[:2], last))


@EVERY_TYPE
@EVERY_MASK
@EVERY_HEAD_DIM
def test_launch(dtype, mask_dtype, head_dim):
    args = case(21, dtype, mask_dtype, (2, 4, 3, head_dim), 2, 9)
    with orrery_host.record_launches() as launches:
        orrery_ops.sdp_fp8(*args)
    (launch,) = launches
    check_launch(launch, "sdp fp8", [dtype, mask_dtype], head_dim, 32, (2, 4, 96), (head_dim + 1) * 128)


@EVERY_TYPE
@EVERY_HEAD_DIM
@pytest.mark.parametrize("rows, padded", [(1, 16), (16, 16), (17, 32)])
def test_causal_launch(dtype, head_dim, rows, padded):
    args = causal_case(22, dtype, (2, 4, rows, head_dim), 2)
    with orrery_host.record_launches() as launches:
        orrery_ops.sdp_fp8_causal(*args)
    (launch,) = launches
    check_launch(launch, "sdp fp8 causal", [dtype], head_dim, 16, (2, 4, padded), 2 * 16 * head_dim * dtype.itemsize)


def arguments(
    operation: str, shapes: dict[str, tuple[int, ...]], types: dict[str, torch.dtype]
) -> list[torch.Tensor | None]:
    """Zeros; a mask for sdp_fp8 if it has a shape."""
    kinds = {"query": FLOAT, "key": BYTE, "value": BYTE, "mask": FLOAT} | types
    args = [zeros(*shapes[name], dtype=kinds[name]) if name in shapes else None for name in kinds]
    return args if operation == "sdp_fp8" else args[:3]


def failure(operation: str, head_dim: int, **types: torch.dtype) -> str:
    """The text of the RuntimeError of a call with these types, and with a mask if its type is among them."""
    shapes = dict.fromkeys(("query", "key", "value"), (1, 2, 4, head_dim))
    if "mask" in types:
        shapes["mask"] = (1, 2, 4, 4)
    with pytest.raises(RuntimeError) as error:
        getattr(orrery_ops, operation)(*arguments(operation, shapes, types))
    return str(error.value)


@EVERY
@pytest.mark.parametrize("head_dim", [0, 32, 80, 256])
@pytest.mark.parametrize("dtype", [FLOAT, torch.float64])
def test_unsupported_head_dim(operation, dtype, head_dim):
    assert failure(operation, head_dim, query=dtype, key=FLOAT) == UNSUPPORTED_HEAD_DIM


@EVERY
@EVERY_HEAD_DIM
@pytest.mark.parametrize("dtype", [torch.float64, torch.bfloat16, BYTE])
def test_unsupported_type(operation, dtype, head_dim):
    assert failure(operation, head_dim, query=dtype, key=FLOAT) == UNSUPPORTED_TYPE


@EVERY_HEAD_DIM
@pytest.mark.parametrize("dtype", [FLOAT, HALF])
@pytest.mark.parametrize("mask_dtype", [torch.bfloat16, torch.float64, torch.bool])
def test_unsupported_mask(dtype, mask_dtype, head_dim):
    assert failure("sdp_fp8", head_dim, query=dtype, mask=mask_dtype) == UNSUPPORTED_TYPE


@EVERY
@EVERY_TYPE
@EVERY_HEAD_DIM
@pytest.mark.parametrize("place", ["key", "value"])
@pytest.mark.parametrize("other", [torch.int8, torch.bool, FLOAT, HALF])
def test_cache_of_another_type(operation, dtype, head_dim, place, other):
    """Types of query, key and value need not agree; a cache is made of bytes."""
    assert "scalar type" in failure(operation, head_dim, query=dtype, **{place: other})
    if operation == "sdp_fp8":
        assert "scalar type" in failure(operation, head_dim, query=dtype, mask=HALF, **{place: other})




@EVERY
@pytest.mark.parametrize(
    "expression, change",
    [
        (SIZES, {"key": (2, 2, 9, 96)}),
        (SIZES, {"value": (2, 2, 8, 64)}),
        (SIZES, {"query": (2, 3, 9, 65)}),  # the first in order speaks
        (ELEMENTS, {"query": (1, 5, 9, 96)}),
        (ELEMENTS, {"value": (1, 3, 8, 96)}),
        (HEADS, {"query": (1, 5, 9, 64), "value": (1, 2, 8, 64)}),
        (HEADS, {"value": (1, 4, 8, 64)}),
        (HEADS, {"key": (1, 0, 9, 64), "value": (1, 0, 9, 64)}),
        (LENGTHS, {"value": (1, 2, 8, 64), "mask": (2, 4, 9, 9)}),
    ],
)
def test_assertions(operation, expression, change):
    """They come before what is wrong with the types."""
    shapes = {"query": (1, 4, 9, 64), "key": (1, 2, 9, 64), "value": (1, 2, 9, 64)} | change
    args = arguments(operation, shapes, {"query": torch.float64, "key": FLOAT})
    assert_dies_with(expression, "sdp", lambda: getattr(orrery_ops, operation)(*args))


@pytest.mark.parametrize(
    "expression, mask",
    [
        ("mask->size(0) == bsz", (2, 3, 3, 8)),
        ("mask->size(1) == num_heads || mask->size(1) == 1", (1, 2, 3, 8)),
        ("mask->size(2) == input_size", (1, 4, 3, 8)),
        ("mask->size(3) == context_length", (1, 1, 2, 8)),
        ("mask->size(3) == context_length", (1, 4, 2, 10)),
    ],
)
@pytest.mark.parametrize("head_dim", [64, 80])
def test_mask_assertions(expression, mask, head_dim):
    shapes = {"query": (1, 4, 2, head_dim), "key": (1, 2, 9, head_dim), "value": (1, 2, 9, head_dim), "mask": mask}
    args = arguments("sdp_fp8", shapes, {"mask": torch.bfloat16})
    assert_dies_with(expression, "sdp", lambda: orrery_ops.sdp_fp8(*args))


@pytest.mark.parametrize(
    "change",
    [
        {"query": (2, 3, 8, 65)},
        {"key": (1, 2, 10, 64), "value": (1, 2, 10, 64)},
    ],
)
def test_causal_asserts_equal_lengths_first(change):
    shapes = {"query": (1, 4, 9, 64), "key": (1, 2, 9, 64), "value": (1, 2, 9, 64)} | change
    args = arguments("sdp_fp8_causal", shapes, {})
    assert_dies_with(ROWS, "sdp", lambda: orrery_ops.sdp_fp8_causal(*args))


@EVERY
def test_arguments_without_four_dimensions(operation):
    shapes = {"query": (1, 4, 9), "key": (1, 2, 9, 64), "value": (1, 2, 9, 64)}
    with pytest.raises(IndexError, match=re.escape("Dimension out of range")):
        getattr(orrery_ops, operation)(*arguments(operation, shapes, {}))


def results() -> list[torch.Tensor]:
    sizes = [(FLOAT, None, 64, 99), (HALF, None, 96, 33), (FLOAT, HALF, 128, 111), (HALF, FLOAT, 64, 5)]
    plain = [
        run("sdp_fp8", *case(30 + i, dtype, mask_dtype, (2, 6, 3, head_dim), 3, context))
        for i, (dtype, mask_dtype, head_dim, context) in enumerate(sizes)
    ]
    causal = [
        run("sdp_fp8_causal", *causal_case(40 + i, dtype, (2, 6, rows, head_dim), 3))
        for i, (dtype, head_dim, rows) in enumerate([(FLOAT, 64, 77), (HALF, 96, 33), (FLOAT, 128, 35), (HALF, 64, 90)])
    ]
    return plain + causal


def test_bits_do_not_depend_on_threads_or_schedule():
    assert_same_bits_in_any_order("test_sdp_fp8", results)
