"""orrery.attention and the one-byte caches against float64, and what is refused."""

from __future__ import annotations

import pytest
import torch

import orrery

UNIT = {torch.float32: 2.0**-24, torch.float16: 2.0**-11, torch.bfloat16: 2.0**-8, torch.float64: 2.0**-24}


def reference(query, key, value, mask=None, causal=False):
    """In float64; the queries are the last rows."""
    query, key, value = query.double(), key.double(), value.double()
    share = query.shape[1] // key.shape[1]
    key, value = key.repeat_interleave(share, 1), value.repeat_interleave(share, 1)
    terms = query @ key.transpose(2, 3) / query.shape[3] ** 0.5
    rows, keys = terms.shape[2:]
    if mask is not None:
        terms = terms.masked_fill(~mask, float("-inf")) if mask.dtype == torch.bool else terms + mask.double()
    if causal:
        terms = terms.masked_fill(torch.ones(rows, keys).triu(keys - rows + 1).bool(), float("-inf"))
    return terms.softmax(3) @ value


def random(size, dtype=torch.float32, seed=0):
    return torch.randn(size, generator=torch.Generator().manual_seed(seed)).to(dtype)


def check(xpu, query, key, value, mask=None, causal=False):
    there = [x if x is None else x.to(xpu) for x in (query, key, value, mask)]
    y = orrery.attention(*there, causal)
    assert y.dtype == query.dtype and y.shape == query.shape and y.is_contiguous()
    # A term is a sum of up to 128 products, rounded in the query's type: 2 u on average, and 8 at most, times the
    # size of its partial sums, 128^0.5 / 128^0.5 after the scale. An error of a term is a relative one of its weight.
    torch.testing.assert_close(y.cpu().double(), reference(query, key, value, mask, causal), rtol=0,
                               atol=24 * UNIT[query.dtype] * value.abs().max().item())


@pytest.mark.parametrize("dtype", UNIT)
@pytest.mark.parametrize("size", [64, 96, 128])
def test_plain(xpu, dtype, size):
    for heads, key_heads, rows, keys in ((1, 1, 1, 1), (4, 2, 1, 33), (6, 2, 5, 19), (3, 3, 17, 40)):
        query = random((2, heads, rows, size), dtype, 1)
        key, value = random((2, key_heads, keys, size), dtype, 2), random((2, key_heads, keys, size), dtype, 3)
        check(xpu, query, key, value)
        check(xpu, query, key, value, causal=True)
        mask = torch.rand(rows, keys, generator=torch.Generator().manual_seed(4)) < 0.7
        mask[:, 0] = True
        check(xpu, query, key, value, mask)
        check(xpu, query, key, value, mask, causal=True)


def test_causal_with_as_many_queries_as_keys(xpu):
    for rows in (1, 2, 16, 37):
        for dtype in UNIT:
            check(xpu, *(random((1, 2, rows, 64), dtype, seed) for seed in (1, 2, 3)), causal=True)


@pytest.mark.parametrize("size", [(), (40,), (5, 40), (1, 5, 40), (4, 5, 40), (2, 1, 1, 40), (1, 4, 5, 1)])
def test_masks_of_every_size_and_type(xpu, size):
    query, key, value = random((2, 4, 5, 64), seed=1), random((2, 2, 40, 64), seed=2), random((2, 2, 40, 64), seed=3)
    for dtype in UNIT:
        check(xpu, query, key, value, random(size, dtype, 4))
    check(xpu, query, key, value, torch.ones(size, dtype=torch.bool))


def test_tensors_of_any_strides(xpu):
    joined = random((1, 7, 3, 4, 64)).to(xpu)  # [batch, rows, query key value, heads, size], as one product gives them
    query, key, value = (part.transpose(1, 2) for part in joined.unbind(2))
    expected = orrery.attention(query.contiguous(), key.contiguous(), value.contiguous(), causal=True)
    assert torch.equal(orrery.attention(query, key, value, causal=True), expected)
    cache = torch.full((1, 4, 50, 64), float("nan"), device=xpu)  # rows that are not attended to
    cache[:, :, :7] = key
    assert torch.equal(orrery.attention(query, cache[:, :, :7], value, causal=True), expected)
    spread = torch.stack((query, query), 4).flatten(3)[..., ::2]
    assert spread.stride(3) == 2 and torch.equal(orrery.attention(spread, key, value, causal=True), expected)


@pytest.mark.parametrize("dtype", UNIT)
def test_one_byte_caches(xpu, dtype):
    key, value = random((2, 2, 21, 96), dtype, 2).to(xpu), random((2, 2, 21, 96), dtype, 3).to(xpu)
    coded = [torch.full((2, 2, 21, 96), 255, dtype=torch.uint8, device=xpu) for _ in range(2)]
    orrery.quantize_key_value(key, value, *coded)
    back = [torch.full((2, 2, 21, 96), float("nan"), dtype=dtype, device=xpu) for _ in range(2)]
    orrery.dequantize_key_value(*coded, *back)
    for exact, near in zip((key, value), back):
        # Three bits of mantissa, decoded at the middle of a cell: off by up to a sixteenth, or by the smallest code.
        assert ((exact.double() - near.double()).abs() <= exact.abs().double() / 16 + 0.0021).all()
    for rows in (1, 5, 21):
        query = random((2, 4, rows, 96), dtype, 4).to(xpu)
        for causal in (False, True):
            y = orrery.attention(query, *coded, causal=causal)
            expected = reference(query.cpu(), back[0].cpu(), back[1].cpu(), causal=causal)
            # Products with a byte's value are in half, whatever the query's type.
            atol = 24 * max(UNIT[dtype], UNIT[torch.float16]) * 3.0
            torch.testing.assert_close(y.cpu().double(), expected, rtol=0, atol=atol)


def test_coding_into_part_of_a_cache(xpu):
    key, value = random((1, 2, 3, 64), seed=1).to(xpu), random((1, 2, 3, 64), seed=2).to(xpu)
    packed = [torch.empty(1, 2, 3, 64, dtype=torch.uint8, device=xpu) for _ in range(2)]
    orrery.quantize_key_value(key, value, *packed)
    caches = [torch.full((1, 2, 9, 64), 7, dtype=torch.uint8, device=xpu) for _ in range(2)]
    orrery.quantize_key_value(key.transpose(2, 3).contiguous().transpose(2, 3), value,
                              *(cache[:, :, 4:7] for cache in caches))
    for cache, expected in zip(caches, packed):
        assert torch.equal(cache[:, :, 4:7], expected)
        assert (cache[:, :, :4] == 7).all() and (cache[:, :, 7:] == 7).all()
    # Rows whose elements are not side by side.
    spread = [torch.full((1, 2, 3, 128), 7, dtype=torch.uint8, device=xpu) for _ in range(2)]
    orrery.quantize_key_value(key, value, *(x[..., ::2] for x in spread))
    for x, expected in zip(spread, packed):
        assert torch.equal(x[..., ::2], expected) and (x[..., 1::2] == 7).all()


def test_sizes_of_zero(xpu):
    key = random((1, 2, 3, 64)).to(xpu)
    for size in ((1, 2, 0, 64), (1, 0, 3, 64)):
        assert orrery.attention(torch.empty(size, device=xpu), key, key).shape == size
    none = torch.empty(0, 2, 3, 64, device=xpu)
    assert orrery.attention(none, none, none).shape == none.shape
    codes = [torch.empty(1, 2, 0, 64, dtype=torch.uint8, device=xpu) for _ in range(2)]
    orrery.quantize_key_value(key[:, :, :0], key[:, :, :0], *codes)


def refused(call, kind, text):
    with pytest.raises(kind) as caught:
        call()
    assert type(caught.value) is kind and str(caught.value) == text


def test_attention_that_does_not_fit(xpu):
    query, key = random((2, 4, 3, 64)).to(xpu), random((2, 2, 5, 64)).to(xpu)
    given = {"query": query, "key": key, "value": key}

    def run(causal=False, **changed):
        return lambda: orrery.attention(**(given | changed), causal=causal)

    refused(run(query=query.int()), TypeError, "query must be float32, float16, bfloat16 or float64, not int32")
    refused(run(query=query.cpu()), ValueError, "query must be on an xpu device, not on cpu")
    refused(run(query=query[0]), ValueError, "query must be [batch, heads, rows, head size], not [4, 3, 64]")
    refused(run(query=query[..., :32]), ValueError, "query's head size must be 64, 96 or 128, not 32")
    refused(run(key=key.half()), TypeError, "key must be float32 as query is, or uint8, not float16")
    refused(run(value=key.byte()), TypeError, "value must be float32 as key is, not uint8")
    refused(run(key=key.cpu()), ValueError, "key must be on xpu:0 as query is, not on cpu")
    refused(run(key=key[:1]), ValueError,
            "key must have query's batch and head size, [2, 4, 3, 64], not [1, 2, 5, 64]")
    refused(run(value=key[:, :, :4]), ValueError,
            "value must have key's heads and rows, [2, 2, 5, 64], not [2, 2, 4, 64]")
    three = random((2, 3, 5, 64)).to(xpu)
    refused(run(key=three, value=three), ValueError, "query's heads must be a multiple of key's, not 4 and 3")
    none = key[:, :0]
    refused(run(key=none, value=none), ValueError, "query's heads must be a multiple of key's, not 4 and 0")
    refused(run(key=key[:, :, :0], value=key[:, :, :0]), ValueError, "key must have at least one row")
    refused(run(key=key[:, :, :2], value=key[:, :, :2], causal=True), ValueError,
            "with causal, query must not have more rows than key, not 3 and 2")
    refused(run(mask=torch.zeros(3, 4, device=xpu)), ValueError,
            "mask must expand to [batch, heads, rows, keys], [2, 4, 3, 5], not [3, 4]")
    refused(run(mask=torch.zeros(1, 1, 1, 3, 5, device=xpu)), ValueError,
            "mask must expand to [batch, heads, rows, keys], [2, 4, 3, 5], not [1, 1, 1, 3, 5]")
    refused(run(mask=torch.zeros(3, 5)), ValueError, "mask must be on xpu:0 as query is, not on cpu")
    refused(run(mask=torch.zeros(3, 5, dtype=torch.int64, device=xpu)), TypeError,
            "mask must be bool, float32, float16, bfloat16 or float64, not int64")
    refused(run(key=None), TypeError, "key must be a tensor, not NoneType")


def test_caches_that_do_not_fit(xpu):
    key = random((1, 2, 3, 64)).to(xpu)
    codes = [torch.empty(1, 2, 3, 64, dtype=torch.uint8, device=xpu) for _ in range(2)]
    code = orrery.quantize_key_value
    refused(lambda: code(key.int(), key, *codes), TypeError,
            "key must be float32, float16, bfloat16 or float64, not int32")
    refused(lambda: code(key, key.half(), *codes), TypeError, "value must be float32 as key is, not float16")
    refused(lambda: code(key, key, codes[0], key), TypeError, "value_out must be uint8 as key_out is, not float32")
    refused(lambda: code(key, key, key, key), TypeError, "key_out must be uint8, not float32")
    refused(lambda: code(key, key, codes[0][:, :, :2], codes[1]), ValueError,
            "key_out must have key's size, [1, 2, 3, 64], not [1, 2, 2, 64]")
    refused(lambda: code(key, key, codes[0], codes[0]), ValueError,
            "key_out and value_out must not share memory, since both are written")
    one = codes[0][:, :1].expand(1, 2, 3, 64)
    refused(lambda: code(key, key, one, codes[1]), ValueError,
            "key_out must not be an expanded tensor, since it is written")
    refused(lambda: code(key.cpu(), key, *codes), ValueError, "key must be on an xpu device, not on cpu")
    refused(lambda: code(key, key, codes[0].cpu(), codes[1]), ValueError,
            "key_out must be on xpu:0 as key is, not on cpu")
    back = orrery.dequantize_key_value
    refused(lambda: back(key, key, key, key), TypeError, "key must be uint8, not float32")
    refused(lambda: back(*codes, *codes), TypeError,
            "key_out must be float32, float16, bfloat16 or float64, not uint8")
