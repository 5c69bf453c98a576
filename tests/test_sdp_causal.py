"""sdp_causal: bit for bit against the order of additions in numpy, for all types and head sizes."""

from __future__ import annotations

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
    LENGTHS,
    ROWS,
    SIZES,
    TYPES,
    UNSUPPORTED_HEAD_DIM,
    UNSUPPORTED_TYPE,
    Shape,
    check_launch,
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


def case(seed: int, dtype: torch.dtype, shape: Shape, kv_heads: int) -> list[torch.Tensor]:
    g = np.random.default_rng(seed)
    bsz, _, rows, head_dim = shape
    return [reference.queries(g, shape, dtype), *reference.caches(g, (bsz, kv_heads, rows, head_dim), dtype)]


def run(query: torch.Tensor, key: torch.Tensor, value: torch.Tensor) -> torch.Tensor:
    leave_nan_behind(tuple(query.shape), query.dtype)
    return orrery_ops.sdp_causal(query, key, value)


@pytest.mark.parametrize("rows", [1, 15, 16, 17, 31, 32, 33, 77])
@pytest.mark.parametrize("head_dim", HEAD_DIMS)
@pytest.mark.parametrize("dtype", [FLOAT, HALF], ids=["float", "half"])
def test_is_bit_exact(dtype, head_dim, rows):
    args = case(rows + head_dim, dtype, (2, 4, rows, head_dim), 2)
    result = run(*args)
    assert result.is_contiguous() and result.device.type == "xpu"
    assert_same_bits(result, reference.sdp_causal(*args))


@pytest.mark.parametrize("dtype", [FLOAT, HALF], ids=["float", "half"])
def test_1000_rows(dtype):
    args = case(1, dtype, (1, 1, 1000, 64), 1)
    assert_same_bits(run(*args), reference.sdp_causal(*args))


@pytest.mark.parametrize("heads, kv_heads", [(1, 1), (9, 3), (5, 5), (8, 1)])
def test_heads(heads, kv_heads):
    args = case(heads, FLOAT, (2, heads, 19, 64), kv_heads)
    assert_same_bits(run(*args), reference.sdp_causal(*args))


@pytest.mark.parametrize("dtype", [FLOAT, HALF])
def test_a_row_reads_no_later_one(dtype):
    query, key, value = case(2, dtype, (1, 2, 45, 64), 1)
    before = run(query, key, value)
    for x in (query, key, value):
        x[:, :, 22:] = torch.nan
    after = run(query, key, value)
    assert torch.equal(after[:, :, :22], before[:, :, :22])
    assert after[:, :, 22:].isnan().all()


@pytest.mark.parametrize("rows", [1, 18])
@pytest.mark.parametrize("head_dim", HEAD_DIMS)
@pytest.mark.parametrize("dtype", [FLOAT, HALF])
def test_nothing_behind_the_last_row_is_read(dtype, head_dim, rows):
    """The rows of the last tile that do not exist are copies of the last one."""
    g = np.random.default_rng(3)
    assert_reads_nothing_behind([random(g, (1, 1, rows, head_dim), dtype) for _ in range(3)], orrery_ops.sdp_causal)


@pytest.mark.parametrize("dtype", [FLOAT, HALF])
@pytest.mark.parametrize("head_dim", HEAD_DIMS)
def test_a_row_alone_is_its_own_value(dtype, head_dim):
    """The shift is 0 and the exponential of the one logit cancels, but for a rounding of the product and one of the
    quotient."""
    query, key, value = case(5, dtype, (2, 3, 1, head_dim), 3)
    result = run(query, key, value)
    assert_same_bits(result, reference.sdp_causal(query, key, value))
    rounding = 2**-22 if dtype == FLOAT else 2**-10
    torch.testing.assert_close(result, value, rtol=rounding, atol=0)
    query.zero_()
    assert torch.equal(run(query, key, value), value)


def test_first_row_is_its_own_value():
    """As above, with a shift: the same for all rows."""
    query, key, value = case(6, FLOAT, (1, 2, 40, 64), 2)
    torch.testing.assert_close(run(query, key, value)[:, :, 0], value[:, :, 0], rtol=2**-22, atol=0)


def along_one_lane(logits: list[float], head_dim: int, dtype: torch.dtype) -> tuple[torch.Tensor, torch.Tensor]:
    """Query and key of one head whose product with every key t is logits[t] in the first lane, 0 in the others."""
    query, key = (zeros(1, 1, len(logits), head_dim, dtype=dtype) for _ in range(2))
    query[..., 0] = 1
    key[0, 0, :, 0] = torch.tensor(logits, dtype=dtype)
    return query, key


@pytest.mark.parametrize("rows", [17, 33, 40])
def test_exact_weights(rows):
    """With exponentials that are powers of two, the result depends on no device's exponential: only on the shift and
    the order of additions."""
    g = np.random.default_rng(rows)
    logits = reference.exact_logits(reference.log_bias(rows), reference.scale(64))
    powers = g.choice(list(logits), rows)
    assert len(set(powers)) > 6
    query, key = along_one_lane([logits[p] for p in powers], 64, FLOAT)
    value = random(g, (1, 1, rows, 64), FLOAT)
    weights = np.ldexp(np.float32(1), powers)
    acc, total, expected = np.zeros(64, np.float32), np.float32(0), []
    for row, e in zip(value[0, 0].numpy(), weights, strict=True):
        acc, total = acc + row * e, total + e
        expected.append(acc / total)
    assert_same_bits(run(query, key, value.to("xpu")), np.stack(expected)[None, None])


@pytest.mark.parametrize("dtype", [FLOAT, HALF])
def test_the_shift_holds_large_logits_down(dtype):
    """Of 40 rows it is 7.4: a logit of 94 has a finite exponential, one of 97 an infinite one."""
    value = random(np.random.default_rng(7), (1, 1, 40, 64), dtype).to("xpu")
    for logit, finite in ((94.0, True), (97.0, False)):
        query, key = along_one_lane([0.0] * 30 + [logit * 8] + [0.0] * 9, 64, dtype)
        result = run(query, key, value)
        assert_same_bits(result, reference.sdp_causal(query, key, value))
        assert result[:, :, :30].isfinite().all()
        assert result[:, :, 30:].isfinite().all() if finite else result[:, :, 30:].isnan().all()


@pytest.mark.parametrize("dtype", [FLOAT, HALF])
def test_small_logits_underflow(dtype):
    """With the shift of 7.4: -95 is a subnormal exponential, which is kept; -100 is 0, and a row of those is 0 / 0."""
    value = random(np.random.default_rng(8), (1, 1, 40, 64), dtype).to("xpu")
    query, key = along_one_lane([-100.0 * 8] * 20 + [-95.0 * 8] + [-100.0 * 8] * 19, 64, dtype)
    result = run(query, key, value)
    assert_same_bits(result, reference.sdp_causal(query, key, value))
    assert result[:, :, :20].isnan().all() and result[:, :, 20:].isfinite().all()


def test_half_products_overflow():
    query, key, value = case(9, HALF, (1, 2, 35, 64), 1)
    key[0, 0, 4] = 60000.0
    assert_same_bits(run(query, key, value), reference.sdp_causal(query, key, value))


def test_row_stride_of_key_and_value_is_ignored():
    g = np.random.default_rng(10)
    query = random(g, (1, 2, 21, 64), FLOAT).to("xpu")
    key, value = (random(g, (1, 2, 21, 96), FLOAT).to("xpu") for _ in range(2))
    result = run(query, key[..., :64], value[..., :64])
    packed = [torch.as_strided(x, (1, 2, 21, 64), (2 * 21 * 96, 21 * 96, 64, 1)) for x in (key, value)]
    assert_same_bits(result, reference.sdp_causal(query, *packed))


@pytest.mark.parametrize("rows, head_dim", [(200, 128), (45, 96)])
def test_weights_are_a_softmax(rows, head_dim):
    """A second opinion: float64 attention. Float sums of 200 terms are off by less than 1e-5."""
    query, key, value = case(11, FLOAT, (2, 2, rows, head_dim), 1)
    q, k, v = (x.cpu().double() for x in (query, key, value))
    k, v = (x.repeat_interleave(2, dim=1) for x in (k, v))
    later = torch.full((rows, rows), -torch.inf, dtype=torch.float64).triu(1)
    expected = torch.softmax(q @ k.transpose(2, 3) / head_dim**0.5 + later, -1) @ v
    assert (run(query, key, value).cpu() - expected).abs().max() < 1e-5


@pytest.mark.parametrize("shape, kv_heads", [((0, 2, 3, 64), 1), ((2, 2, 0, 64), 1), ((2, 0, 3, 64), 2)])
@pytest.mark.parametrize("dtype", [FLOAT, HALF])
def test_empty_sizes_launch_nothing_but_are_recorded(shape, kv_heads, dtype):
    args = case(12, dtype, shape, kv_heads)
    with orrery_host.record_launches() as launches:
        assert run(*args).shape == shape
    (launch,) = [x for x in launches if x.kernel == "sdp_causal_kernel"]
    assert launch.name == "sdp causal"
    assert launch.global_size == (shape[0], shape[1], 16 if shape[2] else 0)


@pytest.mark.parametrize("rows, padded", [(1, 16), (16, 16), (17, 32)])
@pytest.mark.parametrize("head_dim", HEAD_DIMS)
@pytest.mark.parametrize("dtype", [FLOAT, HALF])
def test_launch(dtype, head_dim, rows, padded):
    args = case(13, dtype, (2, 4, rows, head_dim), 2)
    with orrery_host.record_launches() as launches:
        orrery_ops.sdp_causal(*args)
    (launch,) = launches
    check_launch(launch, "sdp causal", [dtype], head_dim, 16, (2, 4, padded), 2 * 16 * head_dim * dtype.itemsize)


@pytest.mark.parametrize("head_dim", [0, 32, 80, 256])
@pytest.mark.parametrize("dtype", [FLOAT, torch.float64])  # the head size comes before the type
def test_unsupported_head_dim(head_dim, dtype):
    with pytest.raises(RuntimeError) as error:
        orrery_ops.sdp_causal(*[zeros(1, 2, 4, head_dim, dtype=dtype)] * 3)
    assert str(error.value) == UNSUPPORTED_HEAD_DIM


@pytest.mark.parametrize("dtype", [torch.float64, torch.bfloat16, torch.uint8])
@pytest.mark.parametrize("head_dim", HEAD_DIMS)
def test_unsupported_type(dtype, head_dim):
    with pytest.raises(RuntimeError) as error:
        orrery_ops.sdp_causal(*[zeros(1, 2, 4, head_dim, dtype=dtype)] * 3)
    assert str(error.value) == UNSUPPORTED_TYPE




@pytest.mark.parametrize(
    "expression, change",
    [
        (ROWS, {"query": (2, 3, 8, 65)}),  # the first in order speaks
        (ROWS, {"key": (1, 2, 10, 64), "value": (1, 2, 10, 64)}),
        (SIZES, {"key": (2, 2, 9, 96)}),
        (SIZES, {"value": (2, 2, 8, 64)}),
        (ELEMENTS, {"query": (1, 5, 9, 96)}),
        (ELEMENTS, {"value": (1, 3, 8, 96)}),
        (HEADS, {"query": (1, 5, 9, 64), "value": (1, 2, 8, 64)}),
        (HEADS, {"value": (1, 4, 8, 64)}),
        (HEADS, {"key": (1, 0, 9, 64), "value": (1, 0, 9, 64)}),
        (LENGTHS, {"value": (1, 2, 8, 64), "value_type": HALF}),
        (TYPES, {"key_type": HALF}),
        (TYPES, {"value_type": HALF}),
        (TYPES, {"query": (1, 4, 9, 80), "key": (1, 2, 9, 80), "value": (1, 2, 9, 80), "query_type": torch.float64}),
    ],
)
def test_assertions(expression, change):
    shapes = {"query": (1, 4, 9, 64), "key": (1, 2, 9, 64), "value": (1, 2, 9, 64)}
    args = [zeros(*change.get(k, shape), dtype=change.get(k + "_type", FLOAT)) for k, shape in shapes.items()]
    assert_dies_with(expression, "sdp", lambda: orrery_ops.sdp_causal(*args))


def test_arguments_without_four_dimensions():
    with pytest.raises(IndexError, match=re.escape("Dimension out of range")):
        orrery_ops.sdp_causal(zeros(1, 4, 9), zeros(1, 2, 9, 64), zeros(1, 2, 9, 64))


def results() -> list[torch.Tensor]:
    """Rows that do not fill the last tile, and heads behind them that a stray store would reach."""
    sizes = [(FLOAT, 64, 77), (HALF, 96, 33), (FLOAT, 128, 35), (HALF, 64, 90)]
    return [run(*case(20 + i, dtype, (2, 6, rows, hd), 3)) for i, (dtype, hd, rows) in enumerate(sizes)]


def test_bits_do_not_depend_on_threads_or_schedule():
    assert_same_bits_in_any_order("test_sdp_causal", results)
