"""orrery.rms_norm over rows of any length, and what is refused."""

from __future__ import annotations

import pytest
import torch

import orrery

# Squares are summed in float, up to 9000 of them by 32 and more lanes: errors in the root stay below 32 u. Then the
# result is rounded once.
UNIT = {torch.float32: 2.0**-24, torch.float16: 2.0**-11, torch.bfloat16: 2.0**-8, torch.float64: 2.0**-53}


def reference(x, weight, eps):
    x = x.double()
    return x / (x.square().mean(-1, keepdim=True) + eps).sqrt() * weight.double()


@pytest.mark.parametrize("dtype", UNIT)
@pytest.mark.parametrize("n", [1, 31, 32, 33, 576, 1000, 8192, 8224, 9001])
def test_rows_of_any_length(xpu, dtype, n):
    for size in ((n,), (3, n), (2, 1, 3, n)):
        x, weight = torch.randn(size).to(dtype), torch.randn(n).to(dtype)
        y = orrery.rms_norm(x.to(xpu), weight.to(xpu), 1e-5)
        assert y.dtype == dtype and y.shape == x.shape and y.is_contiguous()
        unit = 2 * UNIT[dtype] + 32 * (2.0**-53 if dtype == torch.float64 else 2.0**-24)
        torch.testing.assert_close(y.cpu().double(), reference(x, weight, 1e-5), rtol=unit, atol=1e-7)


def test_bfloat16_beyond_the_range_of_half(xpu):
    x, weight = (1e6 * torch.randn(2, 64)).bfloat16(), torch.ones(64).bfloat16()
    y = orrery.rms_norm(x.to(xpu), weight.to(xpu))
    torch.testing.assert_close(y.cpu().double(), reference(x, weight, 1e-6), rtol=2**-7, atol=0)


def test_strides_and_sizes_of_zero(xpu):
    x, weight = torch.randn(5, 4, 64).to(xpu), torch.randn(128).to(xpu)[::2]
    expected = orrery.rms_norm(x.transpose(0, 1).contiguous(), weight.contiguous())
    assert torch.equal(orrery.rms_norm(x.transpose(0, 1), weight), expected)
    assert orrery.rms_norm(torch.empty(3, 0, 64, device=xpu), weight).shape == (3, 0, 64)
    assert orrery.rms_norm(torch.empty(3, 0, device=xpu), torch.empty(0, device=xpu)).shape == (3, 0)


def test_what_does_not_fit(xpu):
    def refused(call, kind, text):
        with pytest.raises(kind) as caught:
            call()
        assert type(caught.value) is kind and str(caught.value) == text

    x, weight = torch.randn(3, 64, device=xpu), torch.randn(64, device=xpu)
    norm = orrery.rms_norm
    refused(lambda: norm(x.long(), weight), TypeError, "x must be float32, float16, bfloat16 or float64, not int64")
    refused(lambda: norm(x.cpu(), weight), ValueError, "x must be on an xpu device, not on cpu")
    refused(lambda: norm(x, weight.half()), TypeError, "weight must be float32 as x is, not float16")
    refused(lambda: norm(x, weight.cpu()), ValueError, "weight must be on xpu:0 as x is, not on cpu")
    refused(lambda: norm(x, weight[:32]), ValueError, "weight must be [64] for rows of 64 elements, not [32]")
    refused(lambda: norm(x[0, 0], weight), ValueError, "x must have at least one dimension")
    refused(lambda: norm(x, weight, -1.0), ValueError, "eps must be finite and not negative, not -1")
    refused(lambda: norm(x, weight, float("nan")), ValueError, "eps must be finite and not negative, not nan")
    refused(lambda: norm(x, [1.0]), TypeError, "weight must be a tensor, not list")
