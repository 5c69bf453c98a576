"""orrery.rotary_ in every type, and what is refused."""

from __future__ import annotations

import pytest
import torch

import orrery

# The angle is a float, of up to 500 radians here: 2^-24 of that. Then three roundings of a result of up to 4 units.
UNIT = {torch.float32: 2.0**-24, torch.float16: 2.0**-11, torch.bfloat16: 2.0**-8, torch.float64: 2.0**-24}


def frequencies(size):
    return 10000.0 ** (-torch.arange(size // 2) / (size // 2))


def reference(x, positions, interleaved):
    """In float64 from the same frequencies."""
    angle = positions.double()[..., None] * frequencies(x.shape[3]).double()
    angle = angle.expand(x.shape[0], x.shape[2], -1)[:, None]
    cos, sin = angle.cos(), angle.sin()
    x = x.double()
    first, second = (x[..., ::2], x[..., 1::2]) if interleaved else x.chunk(2, 3)
    turned = first * cos - second * sin, second * cos + first * sin
    return torch.stack(turned, 4).flatten(3) if interleaved else torch.cat(turned, 3)


@pytest.mark.parametrize("interleaved", [False, True])
@pytest.mark.parametrize("dtype", UNIT)
@pytest.mark.parametrize("size", [64, 96, 128])
def test_every_type(xpu, dtype, size, interleaved):
    query, key = torch.randn(2, 3, 5, size).to(dtype), torch.randn(2, 1, 5, size).to(dtype)
    for positions in (torch.arange(5) + 490, torch.randint(0, 500, (2, 5)), torch.arange(5).int()[None] - 2):
        q, k = query.to(xpu), key.to(xpu)
        assert orrery.rotary_(q, k, positions.to(xpu), frequencies(size).to(xpu), interleaved) is None
        for x, given in ((q, query), (k, key)):
            torch.testing.assert_close(x.cpu().double(), reference(given, positions, interleaved), rtol=UNIT[dtype],
                                       atol=5 * (500 * 2.0**-24 + 2.0**-22))


def test_half_frequencies_turn_in_half(xpu):
    query = torch.randn(1, 2, 3, 64).half()
    q, k = query.to(xpu), query[:, :1].to(xpu)
    orrery.rotary_(q, k, torch.arange(3).to(xpu), frequencies(64).half().to(xpu))
    torch.testing.assert_close(q.cpu().double(), reference(query, torch.arange(3), False), rtol=0, atol=2e-2)


def test_views_are_written_where_they_are(xpu):
    joined = torch.randn(1, 5, 6, 64).to(xpu)  # [batch, rows, heads, size]
    before = joined.clone()
    query, key = joined[:, :, :3].transpose(1, 2), joined[:, :, 3:5].transpose(1, 2)
    positions = torch.arange(5).to(xpu)
    orrery.rotary_(query, key, positions, frequencies(64).to(xpu))
    assert torch.equal(joined[:, :, 5], before[:, :, 5])
    for part, first, last in ((query, 0, 3), (key, 3, 5)):
        given = before[:, :, first:last].transpose(1, 2).cpu()
        torch.testing.assert_close(part.cpu().double(), reference(given, torch.arange(5), False), rtol=1e-6, atol=1e-5)


def test_sizes_of_zero(xpu):
    inverse = frequencies(64).to(xpu)
    none = torch.empty(2, 3, 0, 64, device=xpu)
    orrery.rotary_(none, none[:, :1].clone(), torch.empty(0, dtype=torch.int64, device=xpu), inverse)
    query = torch.randn(1, 2, 3, 64).to(xpu)
    expected, other = query.clone(), query.clone()
    orrery.rotary_(expected, other, torch.arange(3).to(xpu), inverse)
    orrery.rotary_(query, query.new_empty(1, 0, 3, 64), torch.arange(3).to(xpu), inverse)
    assert torch.equal(query, expected)


def test_what_does_not_fit(xpu):
    def refused(call, kind, text):
        with pytest.raises(kind) as caught:
            call()
        assert type(caught.value) is kind and str(caught.value) == text

    query, key = torch.randn(2, 4, 3, 64, device=xpu), torch.randn(2, 2, 3, 64, device=xpu)
    positions, inverse = torch.arange(3, device=xpu), frequencies(64).to(xpu)

    def run(q=query, k=key, p=positions, f=inverse):
        return lambda: orrery.rotary_(q, k, p, f)

    refused(run(q=query.int()), TypeError, "query must be float32, float16, bfloat16 or float64, not int32")
    refused(run(q=query.cpu()), ValueError, "query must be on an xpu device, not on cpu")
    refused(run(q=query[0]), ValueError, "query must be [batch, heads, rows, head size], not [4, 3, 64]")
    refused(run(q=query[..., :32]), ValueError, "query's head size must be 64, 96 or 128, not 32")
    refused(run(k=key.half()), TypeError, "key must be float32 as query is, not float16")
    refused(run(k=key[:, :, :2]), ValueError,
            "key must have query's batch, rows and head size, [2, 4, 3, 64], not [2, 2, 2, 64]")
    refused(run(p=positions.float()), TypeError, "positions must be int64 or int32, not float32")
    refused(run(p=positions.cpu()), ValueError, "positions must be on xpu:0 as query is, not on cpu")
    for wrong in (positions[:2], positions.expand(3, 3), positions[None, None]):
        refused(run(p=wrong), ValueError,
                f"positions must be [3] or [2, 3] for a query of [2, 4, 3, 64], not {list(wrong.shape)}")
    refused(run(f=inverse[:16]), ValueError, "inv_freq must be [32] for a head size of 64, not [16]")
    refused(run(f=inverse.long()), TypeError, "inv_freq must be float32, float16, bfloat16 or float64, not int64")
    refused(run(f=inverse.cpu()), ValueError, "inv_freq must be on xpu:0 as query is, not on cpu")
    refused(run(k=query), ValueError, "query and key must not share memory, since both are written")
    refused(run(k=query[:, :2]), ValueError, "query and key must not share memory, since both are written")
    refused(run(q=query[:, :1].expand(2, 4, 3, 64)), ValueError,
            "query must not be an expanded tensor, since it is written")
