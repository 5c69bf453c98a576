"""torch.ops.orrery.linear and dequantize: every format, type and odd size, gradients, and what is refused."""

from __future__ import annotations

import math

import pytest
import torch

import orrery
from host.device_process import check_python
from orrery.formats import FORMATS

TYPES = (torch.float32, torch.float16, torch.bfloat16, torch.float64)
ROWS, OUTPUTS = (1, 2, 3, 7, 9, 65), (1, 2, 3, 5, 63, 64, 97)
COLUMNS = {64: (64, 100, 192, 257, 576), 256: (256, 576, 768)}  # by the elements of a block
UNIT = {torch.float32: 2.0**-24, torch.float16: 2.0**-11, torch.bfloat16: 2.0**-8, torch.float64: 2.0**-53}
# With float32 some kernels for several rows dequantize to half, or sum in half.
IN_HALF = ("q4_0", "q4_1", "q8_0", "fp4", "fp8_e5m2", "fp6")
# The values of these are exact as floats; others are rounded to float32 by QuantizedWeight.dequantize, and some
# kernels compute in float what is added in float64.
EXACT = ("q4_0", "q4_1", "q5_0", "q5_1", "fp4", "fp6", "fp8_e5m2")
# One row goes through codes of 8 bits, in blocks of 32: each element is off by up to 1 / 254 of the block's largest.
CODED_INPUT = ("iq2_xxs", "q2_k", "iq1_s")
op = torch.ops.orrery


def weight_of(name, rows, columns, seed=0):
    generator = torch.Generator().manual_seed(seed)
    return orrery.quantize(torch.randn(rows, columns, generator=generator), name)


def bound(name, dtype, x, dense):
    """Largest error of each result, in float64.

    About 60 roundings lie between a product and its sum, each of a partial sum of about the size s of the whole one,
    sqrt(sum (x w)^2). They add up like a random walk, to 60^0.5 u s / 3^0.5 = 4.5 u s on average; the largest of some
    thousand results is 5 times that. Formats with an offset cancel sums three times as large: 64 u s. For the code of
    the input, the error of an element is even in +- amax / 254, so one result's is 0.0023 amax |w| on average.
    """
    in_half = x.shape[0] > 1 and (name in IN_HALF and dtype == torch.float32 or name == "fp6")
    unit = max(UNIT[dtype], UNIT[torch.float16] if in_half else 0)
    terms = (x.square() @ dense.square().T).sqrt()
    error = 64 * unit * terms
    if name not in EXACT:
        error = error + 32 * UNIT[torch.float32] * terms
    if name in CODED_INPUT and x.shape[0] == 1:
        error = error + 5 * 0.0023 * x.abs().max() * dense.norm(dim=1)
    return error + 1e-12


@pytest.mark.parametrize("name", FORMATS)
def test_every_type_and_size(xpu, name):
    generator = torch.Generator().manual_seed(1)
    for columns in COLUMNS[FORMATS[name].elements]:
        inputs = torch.randn(max(ROWS), columns, generator=generator, dtype=torch.float64)
        for outputs in OUTPUTS:
            weight = weight_of(name, outputs, columns)
            dense, there = weight.dequantize(torch.float64), weight.to(xpu)
            for dtype in TYPES:
                x_d = inputs.to(dtype).to(xpu)
                for rows in ROWS:
                    x = inputs[:rows].to(dtype).double()
                    y = orrery.linear(x_d[:rows], there)
                    assert y.dtype == dtype and y.shape == (rows, outputs) and y.is_contiguous()
                    error = (y.cpu().double() - x @ dense.T).abs()
                    assert (error <= bound(weight.format, dtype, x, dense)).all(), (columns, outputs, dtype, rows)


def test_leading_dimensions_and_strides(xpu):
    weight = weight_of("q8_0", 5, 100).to(xpu)
    bias = torch.randn(5).to(xpu)
    x = torch.randn(3, 2, 4, 100).to(xpu)
    expected = orrery.linear(x.view(24, 100), weight) + bias
    torch.testing.assert_close(orrery.linear(x, weight, bias), expected.view(3, 2, 4, 5), rtol=0, atol=0)
    turned = x.permute(2, 0, 1, 3)
    assert torch.equal(orrery.linear(turned, weight, bias), expected.view(3, 2, 4, 5).permute(2, 0, 1, 3))
    spread = torch.randn(24, 200).to(xpu)[:, ::2]
    assert torch.equal(orrery.linear(spread, weight), orrery.linear(spread.contiguous(), weight))
    one = orrery.linear(x[0, 0, 0], weight)
    assert one.shape == (5,) and torch.equal(one, orrery.linear(x[0, 0, :1], weight)[0])
    for size in ((0, 100), (2, 0, 100), (0, 3, 100)):
        empty = orrery.linear(torch.empty(size, device=xpu), weight, bias)
        assert empty.shape == (*size[:-1], 5)


def test_a_bias_is_added_in_each_type(xpu):
    weight = weight_of("nf4", 7, 64).to(xpu)
    for dtype in TYPES:
        x, bias = torch.randn(3, 64).to(dtype).to(xpu), torch.randn(7).to(dtype).to(xpu)
        assert torch.equal(orrery.linear(x, weight, bias), orrery.linear(x, weight) + bias)


@pytest.mark.parametrize("name", FORMATS)
def test_dequantize(xpu, name):
    for rows, columns in ((1, 64), (3, 100), (5, 257), (64, 576)):
        weight = weight_of(name, rows, columns)
        there = weight.to(xpu)
        exact = weight.dequantize()
        for dtype in TYPES:
            dense = op.dequantize(there.data, weight.code, rows, columns, dtype)
            assert dense.dtype == dtype and dense.shape == (rows, columns) and dense.is_contiguous()
            # A value is one product and at most two sums of rounded factors.
            unit = 4 * max(UNIT[dtype], UNIT[torch.float16] if weight.format == "fp6" else UNIT[torch.float32])
            scale = exact.abs().amax().item()
            assert (dense.cpu().double() - exact).abs().max() <= 2 * unit * scale, (rows, columns, dtype)
        assert op.dequantize(there.data, weight.code, rows, columns).dtype == torch.float32


@pytest.mark.parametrize("number", [0, 1, 4])
def test_other_classes_of_devices(number):
    """A process each, since an assertion of a kernel would end it."""
    check_python(
        f"""
        from orrery import device_class
        device_class.choose({number})
        import sys
        sys.path.insert(0, "tests")
        import torch, orrery, test_checked_linear as tests
        generator = torch.Generator().manual_seed(2)
        for name in tests.FORMATS:
            for outputs, columns in ((1, 64), (3, 100), (97, 192), (64, 256), (5, 576), (32, 512)):
                weight = tests.weight_of(name, outputs, columns)
                dense, there = weight.dequantize(torch.float64), weight.to("xpu")
                for dtype in tests.TYPES:
                    for rows in (1, 2, 3, 8, 17, 65):
                        x = torch.randn(rows, columns, generator=generator).to(dtype)
                        y = orrery.linear(x.to("xpu"), there).cpu().double()
                        error = (y - x.double() @ dense.T).abs()
                        limit = tests.bound(weight.format, torch.float16 if dtype == torch.float32 else dtype,
                                            x.double(), dense)
                        assert (error <= limit).all(), (name, outputs, columns, dtype, rows, (error / limit).max())
        """
    )


# ---- Gradients ----


@pytest.mark.parametrize("name", FORMATS)
def test_the_gradient_is_that_of_the_dequantized_weight(xpu, name):
    weight = weight_of(name, 9, 100).to(xpu)
    dense = weight.dequantize(torch.float64).cpu()
    x = torch.randn(2, 3, 100, dtype=torch.float64).to(xpu).requires_grad_()
    bias = torch.randn(9, dtype=torch.float64).to(xpu).requires_grad_()
    back = torch.randn(2, 3, 9, dtype=torch.float64)
    orrery.linear(x, weight, bias).backward(back.to(xpu))
    # fp6 is dequantized in float, its values rounded to half.
    tolerance = 1e-2 if weight.format == "fp6" else 1e-5
    torch.testing.assert_close(x.grad.cpu(), back @ dense, rtol=tolerance, atol=tolerance)
    torch.testing.assert_close(bias.grad.cpu(), back.sum((0, 1)))


@pytest.mark.parametrize("size", [(100,), (1, 100), (3, 100), (0, 100)])
def test_gradients_of_other_sizes(xpu, size):
    weight = weight_of("q4_0", 5, 100).to(xpu)
    dense = weight.dequantize()
    for dtype in (torch.float32, torch.float16, torch.bfloat16):
        x = torch.randn(size).to(dtype).to(xpu).requires_grad_()
        orrery.linear(x, weight).sum().backward()
        expected = dense.sum(0).expand(size)
        assert x.grad.dtype == dtype and x.grad.shape == torch.Size(size)
        torch.testing.assert_close(x.grad.float(), expected, rtol=0, atol=32 * UNIT[dtype] * 5)


def test_gradcheck(xpu):
    weight = weight_of("q8_0", 3, 64).to(xpu)
    x = torch.randn(2, 64, dtype=torch.float64, device=xpu, requires_grad=True)
    bias = torch.randn(3, dtype=torch.float64, device=xpu, requires_grad=True)
    assert torch.autograd.gradcheck(lambda x, b: orrery.linear(x, weight, b), (x, bias), eps=1e-4, atol=1e-6)
    assert torch.autograd.gradgradcheck(lambda x, b: orrery.linear(x, weight, b), (x, bias), eps=1e-4, atol=1e-6)


def test_only_what_needs_a_gradient_gets_one(xpu):
    weight = weight_of("q4_0", 3, 64).to(xpu)
    x, bias = torch.randn(2, 64).to(xpu), torch.randn(3).to(xpu)
    assert not orrery.linear(x, weight, bias).requires_grad
    with torch.no_grad():
        assert not orrery.linear(x.requires_grad_(), weight).requires_grad
    x = x.detach()
    orrery.linear(x, weight, bias.requires_grad_()).sum().backward()
    assert x.grad is None and torch.equal(bias.grad, torch.full((3,), 2.0, device=xpu))


# ---- What is refused ----


def refused(call, kind, text):
    with pytest.raises(kind) as caught:
        call()
    assert type(caught.value) is kind and str(caught.value) == text


def test_arguments_that_do_not_fit(xpu):
    weight = weight_of("q4_0", 3, 64)
    there = weight.to(xpu)
    x = torch.randn(2, 64, device=xpu)
    data, code = there.data, weight.code

    def linear(x=x, data=data, code=code, rows=3, columns=64, bias=None):
        return lambda: op.linear(x, data, code, rows, columns, bias)

    refused(linear(x=x.int()), TypeError, "x must be float32, float16, bfloat16 or float64, not int32")
    refused(linear(x=x.cpu()), ValueError, "x must be on an xpu device, not on cpu")
    refused(linear(data=weight.data), ValueError, "weight must be on an xpu device, not on cpu")
    refused(linear(x=x[:, :60]), ValueError, "x must be [..., 64] for a weight of 64 columns, not [2, 60]")
    refused(linear(x=x[0, 0]), ValueError, "x must be [..., 64] for a weight of 64 columns, not []")
    refused(linear(data=data[:-1]), ValueError,
            "weight must be [272] for 3 rows and 64 columns, not [271]")
    refused(linear(data=data.repeat(2)[::2]), ValueError,
            "weight must be contiguous")
    refused(linear(data=data.view(8, 34)), ValueError,
            "weight must be [272] for 3 rows and 64 columns, not [8, 34]")
    refused(linear(data=data.view(torch.int8)), TypeError, "weight must be uint8, not int8")
    refused(linear(code=9), ValueError, "qtype must be the code of a weight format, not 9")
    refused(linear(code=-1), ValueError, "qtype must be the code of a weight format, not -1")
    refused(linear(code=30), ValueError, "qtype must be the code of a weight format, not 30")
    refused(linear(rows=0), ValueError, "a weight has at least one row and one column, not [0, 64]")
    refused(linear(columns=2**31), ValueError, f"a weight has fewer than 2**31 rows and columns, not [3, {2**31}]")
    refused(linear(rows=2**20, columns=2**20), ValueError,
            "a weight in q4_0 has fewer than 2**31 elements, not 1048576 x 1048576")
    bias = torch.randn(3, device=xpu)
    refused(linear(bias=bias.half()), TypeError, "bias must be float32 as x is, not float16")
    refused(linear(bias=bias.cpu()), ValueError, "bias must be on xpu:0 as x is, not on cpu")
    refused(linear(bias=bias[:2]), ValueError, "bias must be [3] for a weight of 3 rows, not [2]")
    refused(lambda: op.dequantize(data, code, 3, 64, torch.int32), TypeError,
            "dtype must be float32, float16, bfloat16 or float64, not int32")
    refused(lambda: op.dequantize(weight.data, code, 3, 64), ValueError, "weight must be on an xpu device, not on cpu")
    refused(lambda: orrery.linear(x, data), TypeError, "weight must be a QuantizedWeight, not Tensor")
    refused(lambda: orrery.linear([1.0], there), TypeError, "x must be a tensor, not list")


def test_other_devices_are_told_apart():
    check_python(
        """
        import torch, orrery
        weight = orrery.quantize(torch.randn(3, 64))
        x = torch.randn(2, 64, device="xpu:1")
        try:
            orrery.linear(x, weight.to("xpu:0"))
        except ValueError as error:
            assert str(error) == "weight must be on xpu:1 as x is, not on xpu:0", error
        assert orrery.linear(x, weight.to("xpu:1")).device == x.device
        """,
        ORRERY_HOST_DEVICES="2",
    )


def test_a_dense_result_is_not_a_view_of_padding(xpu):
    weight = weight_of("q4_0", 3, 64).to(xpu)
    y = orrery.linear(torch.randn(4, 64, device=xpu), weight)
    assert y.untyped_storage().nbytes() == y.numel() * 4 and math.prod(y.shape) == 12
