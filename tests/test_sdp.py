"""sdp: bit for bit against the order of additions in numpy, for all types, masks and head sizes."""

from __future__ import annotations

import re
from typing import Any

import attention_reference
import numpy as np
import pytest
import torch
from attention_reference import (
    ELEMENTS,
    FLOAT,
    HALF,
    HEADS,
    LENGTHS,
    SIZES,
    TYPES,
    UNSUPPORTED_HEAD_DIM,
    UNSUPPORTED_TYPE,
    Shape,
    check_launch,
    zeros,
)
from attention_reference import sdp as reference
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

def case(
    seed: int, dtype: torch.dtype, mask_dtype: torch.dtype | None, shape: Shape, kv_heads: int, context: int,
    mask_heads: int | None = None,
) -> list[torch.Tensor | None]:  # fmt: skip
    """Query, key, value and mask on the device, none of them contiguous."""
    g = np.random.default_rng(seed)
    bsz, heads, rows, head_dim = shape
    query = attention_reference.queries(g, shape, dtype)
    caches = attention_reference.caches(g, (bsz, kv_heads, context, head_dim), dtype)
    if mask_dtype is None:
        return [query, *caches, None]
    return [query, *caches, attention_reference.mask(g, (bsz, mask_heads or heads, rows, context), mask_dtype)]


def run(query: Any, key: Any, value: Any, mask: Any = None) -> torch.Tensor:
    leave_nan_behind(tuple(query.shape), query.dtype)
    return orrery_ops.sdp(query, key, value, mask)


@pytest.mark.parametrize("context", [0, 1, 31, 32, 33, 99, 111, 989])
@pytest.mark.parametrize("head_dim", [64, 96, 128])
@pytest.mark.parametrize("mask_dtype", [None, FLOAT, HALF], ids=["unmasked", "float_mask", "half_mask"])
@pytest.mark.parametrize("dtype", [FLOAT, HALF], ids=["float", "half"])
def test_is_bit_exact(dtype, mask_dtype, head_dim, context):
    shape = (1, 3, 1, head_dim) if context > 500 else (2, 6, 2, head_dim)
    args = case(context + head_dim, dtype, mask_dtype, shape, 1 if context > 500 else 2, context)
    result = run(*args)
    assert result.is_contiguous() and result.device.type == "xpu"
    assert_same_bits(result, reference(*args))


@pytest.mark.parametrize("heads, kv_heads", [(1, 1), (9, 3), (5, 5), (8, 1), (32, 8)])
@pytest.mark.parametrize("rows", [1, 7])
def test_heads_and_rows(heads, kv_heads, rows):
    args = case(heads + rows, FLOAT, FLOAT, (1, heads, rows, 64), kv_heads, 45)
    assert_same_bits(run(*args), reference(*args))


@pytest.mark.parametrize("dtype", [FLOAT, HALF])
@pytest.mark.parametrize("mask_dtype", [FLOAT, HALF])
def test_mask_with_one_head_serves_all(dtype, mask_dtype):
    query, key, value, mask = case(5, dtype, mask_dtype, (2, 6, 3, 96), 2, 77, mask_heads=1)
    result = run(query, key, value, mask)
    assert_same_bits(result, reference(query, key, value, mask))
    assert torch.equal(result, run(query, key, value, mask.repeat(1, 6, 1, 1)))


@pytest.mark.parametrize("dtype", [FLOAT, HALF])
@pytest.mark.parametrize("lowest", [-torch.inf, -1e4])
def test_fully_masked_row_is_nan(dtype, lowest):
    query, key, value, mask = case(6, dtype, FLOAT, (1, 2, 3, 64), 1, 50)
    mask[0, 1, 2] = lowest
    result = run(query, key, value, mask)
    assert result[0, 1, 2].isnan().all()
    assert not result[0, 0].isnan().any() and not result[0, 1, :2].isnan().any()
    assert_same_bits(result, reference(query, key, value, mask))


def test_no_context_is_nan():
    query, key, value, _ = case(7, FLOAT, None, (1, 2, 2, 64), 1, 0)
    assert run(query, key, value).isnan().all()


def test_large_logits_overflow():
    query, key, value, mask = case(8, FLOAT, FLOAT, (1, 3, 1, 64), 1, 40)
    mask.zero_()
    mask[0, 0, 0, 3] = 200.0  # above 88.7: the exponential is infinite
    mask[0, 1, 0, :] = 88.0  # each one finite, their sum is not
    mask[0, 2, 0, :] = -95.0  # subnormal exponentials are kept
    result = run(query, key, value, mask)
    assert_same_bits(result, reference(query, key, value, mask))
    assert result[0, 0].isnan().all()
    assert result[0, 2].isfinite().all()


def test_half_products_overflow():
    query, key, value, _ = case(9, HALF, None, (1, 2, 1, 64), 1, 35)
    key[0, 0, 4] = 60000.0
    result = run(query, key, value)
    assert_same_bits(result, reference(query, key, value))


def test_row_stride_of_key_is_ignored():
    g = np.random.default_rng(10)
    query = random(g, (1, 2, 1, 64), FLOAT).to("xpu")
    key, value = (random(g, (1, 2, 40, 96), FLOAT).to("xpu") for _ in range(2))
    result = run(query, key[..., :64], value[..., :64])
    packed = [torch.as_strided(x, (1, 2, 40, 64), (2 * 40 * 96, 40 * 96, 64, 1)) for x in (key, value)]
    assert_same_bits(result, reference(query, *packed))


@pytest.mark.parametrize("context", [1, 18, 33])
@pytest.mark.parametrize("mask_dtype", [None, FLOAT, HALF])
@pytest.mark.parametrize("dtype", [FLOAT, HALF])
def test_nothing_behind_the_last_row_is_read(dtype, mask_dtype, context):
    g = np.random.default_rng(17)
    args = [random(g, (1, 1, rows, 96), dtype) for rows in (2, context, context)]
    mask = None if mask_dtype is None else random(g, (1, 1, 2, context), mask_dtype)
    assert_reads_nothing_behind([*args, mask], orrery_ops.sdp)


def test_weights_are_a_softmax():
    """A second opinion: float64 attention. Float sums of 500 terms are off by less than 1e-5."""
    query, key, value, mask = case(11, FLOAT, FLOAT, (2, 4, 3, 128), 2, 500)
    q, k, v, m = (x.cpu().double() for x in (query, key, value, mask))
    k, v = (x.repeat_interleave(2, dim=1) for x in (k, v))
    expected = torch.softmax(q @ k.transpose(2, 3) / 128**0.5 + m, -1) @ v
    assert (run(query, key, value, mask).cpu() - expected).abs().max() < 1e-5


@pytest.mark.parametrize("shape, kv_heads", [((0, 2, 3, 64), 1), ((2, 2, 0, 64), 1), ((2, 0, 3, 64), 2)])
@pytest.mark.parametrize("mask_dtype", [None, HALF])
def test_empty_sizes_launch_nothing_but_are_recorded(shape, kv_heads, mask_dtype):
    args = case(12, FLOAT, mask_dtype, shape, kv_heads, 9)
    with orrery_host.record_launches() as launches:
        assert run(*args).shape == shape
    (launch,) = [x for x in launches if x.kernel == "sdp_kernel"]
    assert launch.name == "sdp"
    assert launch.global_size == (shape[0], shape[1], shape[2] * 32)


@pytest.mark.parametrize("head_dim", [64, 96, 128])
@pytest.mark.parametrize("dtype", [FLOAT, HALF])
@pytest.mark.parametrize("mask_dtype", [None, FLOAT, HALF])
def test_launch(dtype, mask_dtype, head_dim):
    args = case(13, dtype, mask_dtype, (2, 4, 3, head_dim), 2, 9)
    with orrery_host.record_launches() as launches:
        orrery_ops.sdp(*args)
    (launch,) = launches
    check_launch(launch, "sdp", [dtype, mask_dtype], head_dim, 32, (2, 4, 96), (head_dim + 1) * 128)


@pytest.mark.parametrize("head_dim", [0, 32, 80, 256])
@pytest.mark.parametrize("dtype", [FLOAT, torch.float64])
def test_unsupported_head_dim(head_dim, dtype):
    args = [zeros(1, 2, 1, head_dim, dtype=dtype), *[zeros(1, 2, 4, head_dim, dtype=dtype)] * 2]
    with pytest.raises(RuntimeError) as error:
        orrery_ops.sdp(*args, None)
    assert str(error.value) == UNSUPPORTED_HEAD_DIM


@pytest.mark.parametrize(
    "dtype, mask_dtype",
    [
        (torch.float64, None),
        (torch.bfloat16, None),
        (torch.bfloat16, FLOAT),
        (FLOAT, torch.bfloat16),
        (HALF, torch.bool),
    ],
)
@pytest.mark.parametrize("head_dim", [64, 96, 128])
def test_unsupported_type(dtype, mask_dtype, head_dim):
    mask = None if mask_dtype is None else zeros(1, 2, 1, 4, dtype=mask_dtype)
    args = [zeros(1, 2, 1, head_dim, dtype=dtype), *[zeros(1, 2, 4, head_dim, dtype=dtype)] * 2, mask]
    with pytest.raises(RuntimeError) as error:
        orrery_ops.sdp(*args)
    assert str(error.value) == UNSUPPORTED_TYPE




@pytest.mark.parametrize(
    "expression, change",
    [
        (SIZES, {"key": (2, 2, 9, 64)}),
        (SIZES, {"value": (2, 2, 9, 64)}),
        (SIZES, {"query": (2, 3, 2, 65)}),  # the first in order speaks
        (ELEMENTS, {"query": (1, 4, 2, 96)}),
        (ELEMENTS, {"value": (1, 3, 9, 96)}),
        (HEADS, {"query": (1, 5, 2, 64)}),
        (HEADS, {"value": (1, 4, 8, 64)}),
        (HEADS, {"key": (1, 0, 9, 64), "value": (1, 0, 9, 64)}),
        (LENGTHS, {"value": (1, 2, 8, 64)}),
        (TYPES, {"key_type": HALF}),
        (TYPES, {"value_type": HALF, "mask": (2, 4, 2, 9)}),
        ("mask->size(0) == bsz", {"mask": (2, 3, 2, 9)}),
        ("mask->size(1) == num_heads || mask->size(1) == 1", {"mask": (1, 2, 1, 9)}),
        ("mask->size(2) == input_size", {"mask": (1, 4, 1, 8)}),
        ("mask->size(3) == context_length", {"mask": (1, 1, 2, 8)}),
        ("mask->size(3) == context_length", {"mask": (1, 4, 2, 10), "mask_type": torch.bfloat16}),
    ],
)
def test_assertions(expression, change):
    shapes = {"query": (1, 4, 2, 64), "key": (1, 2, 9, 64), "value": (1, 2, 9, 64), "mask": (1, 4, 2, 9)}
    args = [zeros(*change.get(k, shape), dtype=change.get(k + "_type", FLOAT)) for k, shape in shapes.items()]
    assert_dies_with(expression, "sdp", lambda: orrery_ops.sdp(*args))


def test_arguments_without_four_dimensions():
    with pytest.raises(IndexError, match=re.escape("Dimension out of range")):
        orrery_ops.sdp(zeros(1, 4, 64), zeros(1, 2, 9, 64), zeros(1, 2, 9, 64), None)


def results() -> list[torch.Tensor]:
    return [
        run(*case(20 + i, dtype, mask_dtype, (2, 6, 3, head_dim), 3, context))
        for i, (dtype, mask_dtype, head_dim, context) in enumerate(
            [(FLOAT, None, 64, 99), (HALF, None, 96, 33), (FLOAT, HALF, 128, 111), (HALF, FLOAT, 64, 5)]
        )
    ]


def test_bits_do_not_depend_on_threads_or_schedule():
    assert_same_bits_in_any_order("test_sdp", results)
