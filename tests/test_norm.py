"""rms_norm: bit for bit against the order of additions in numpy."""

from __future__ import annotations

import numpy as np
import pytest
import torch
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

FLOAT, HALF, BFLOAT16 = torch.float32, torch.float16, torch.bfloat16


@np.errstate(all="ignore")
def reference(weight: torch.Tensor, input: torch.Tensor, eps: float) -> np.ndarray:
    weight, x = weight.cpu().numpy(), input.cpu().numpy()
    rows, hidden = x.shape
    w = weight.astype(np.float32).reshape(-1, 32)
    v = x.astype(np.float32).reshape(rows, -1, 32)
    partial = np.zeros((rows, 32), np.float32)
    for item, (first, last) in enumerate(split(hidden // 32)):
        acc = np.zeros((rows, 32), np.float32)
        for i in range(first, last):
            acc = acc + v[:, i] * v[:, i]
        partial[:, item] = fold(acc)
    mean = fold(partial) / np.float32(hidden)
    r = np.float32(1) / np.sqrt(mean + np.float32(eps))
    return ((w * v) * r[:, None, None]).reshape(rows, hidden).astype(x.dtype)


def case(seed: int, dtype: torch.dtype, rows: int, hidden: int) -> tuple[torch.Tensor, torch.Tensor]:
    g = np.random.default_rng(seed)
    return random(g, (hidden,), dtype).to("xpu"), random(g, (rows, hidden), dtype, 2.0).to("xpu")


def run(weight: torch.Tensor, input: torch.Tensor, eps: float) -> torch.Tensor:
    leave_nan_behind(tuple(input.shape), input.dtype)
    return orrery_ops.rms_norm(weight, input, eps)


@pytest.mark.parametrize("rows", [1, 3, 19])
@pytest.mark.parametrize("hidden", [32, 64, 96, 576, 992, 1024, 1056, 2080, 4096, 8160, 8192])
@pytest.mark.parametrize("dtype", [FLOAT, HALF])
@pytest.mark.parametrize("eps", [1e-5, 0.1])
def test_is_bit_exact(dtype, hidden, rows, eps):
    weight, input = case(rows + hidden, dtype, rows, hidden)
    before = input.clone()
    result = run(weight, input, eps)
    assert result.dtype == dtype and result.device.type == "xpu"
    assert_same_bits(result, reference(weight, input, eps))
    assert torch.equal(input, before)


@pytest.mark.parametrize("dtype", [FLOAT, HALF])
def test_is_the_root_mean_square(dtype):
    """A second opinion in float64; 4096 float squares summed 4 at a time and in a tree are good to 1e-6, and half
    rounds the result to 11 bits."""
    weight, input = case(1, dtype, 5, 4096)
    x = input.cpu().double()
    expected = weight.cpu().double() * x / (x.square().mean(1, keepdim=True) + 1e-5).sqrt()
    relative, absolute = (1e-6, 1e-8) if dtype == FLOAT else (2**-11 + 1e-6, 2**-24)
    result = run(weight, input, 1e-5).cpu().double()
    torch.testing.assert_close(result, expected, rtol=relative, atol=absolute)


@pytest.mark.parametrize("hidden", [32, 1056])
def test_bfloat16_goes_through_half(hidden):
    weight, input = case(2, BFLOAT16, 3, hidden)
    input[1, 5] = 1e5  # infinite in half
    input[2] = 1e-9  # zero in half
    result = run(weight, input, 1e-5)
    assert result.dtype == BFLOAT16
    half = torch.from_numpy(reference(weight.to(HALF), input.to(HALF), 1e-5)).to(BFLOAT16)
    torch.testing.assert_close(result.cpu(), half, rtol=0, atol=0, equal_nan=True)
    assert result[1, 5].isnan() and (result[1, :5] == 0).all()
    assert (result[2] == 0).all()
    assert not result[0].isnan().any()


@pytest.mark.parametrize("dtype", [FLOAT, HALF])
def test_row_of_zeros(dtype):
    weight, input = case(3, dtype, 3, 64)
    input[1] = 0
    without_eps, with_eps = run(weight, input, 0.0), run(weight, input, 1e-5)
    assert without_eps[1].isnan().all() and not without_eps[::2].isnan().any()
    assert (with_eps[1] == 0).all()
    assert_same_bits(without_eps, reference(weight, input, 0.0))


def test_large_squares_overflow():
    weight, input = case(4, FLOAT, 2, 64)
    input[0, 3] = 1e30
    result = run(weight, input, 1e-5)
    assert (result[0] == 0).all()
    assert_same_bits(result, reference(weight, input, 1e-5))


def test_rows_are_read_as_packed():
    weight, wide = case(5, FLOAT, 3, 128)
    weight = weight[:64]
    result = run(weight, wide[:, :64], 1e-5)
    assert_same_bits(result, reference(weight, torch.as_strided(wide, (3, 64), (64, 1)), 1e-5))


@pytest.mark.parametrize("hidden, rows", [(64, 0), (0, 3)])
def test_empty_sizes(hidden, rows):
    weight, input = case(6, FLOAT, rows, hidden)
    with orrery_host.record_launches() as launches:
        assert orrery_ops.rms_norm(weight, input, 1e-5).shape == (rows, hidden)
    (launch,) = [x for x in launches if x.kernel == "rms_norm_kernel"]
    assert (launch.name, launch.global_size) == ("rms norm", (rows, 32))


@pytest.mark.parametrize("dtype, cpp", [(FLOAT, "float"), (HALF, "c10::Half"), (BFLOAT16, "c10::Half")])
@pytest.mark.parametrize("hidden", [32, 8192])
def test_launch(dtype, cpp, hidden):
    weight, input = case(7, dtype, 3, hidden)
    with orrery_host.record_launches() as launches:
        orrery_ops.rms_norm(weight, input, 1e-5)
    (launch,) = launches
    assert (launch.name, launch.kernel, launch.instance) == ("rms norm", "rms_norm_kernel", f"{cpp}, 32, 32")
    assert (launch.file, launch.function) == ("norm", "rms_norm_kernel")
    assert (launch.global_size, launch.local_size) == ((3, 32), (1, 32))
    assert (launch.sub_group_size, launch.local_memory) == (1, 32896)
    assert not launch.waited


@pytest.mark.parametrize("hidden", [64, 33])  # the type comes before the size
@pytest.mark.parametrize("dtype", [torch.float64, torch.int32])
def test_unsupported_type(dtype, hidden):
    with pytest.raises(RuntimeError) as error:
        orrery_ops.rms_norm(*(torch.ones(shape, dtype=dtype, device="xpu") for shape in (hidden, (2, hidden))), 0.0)
    assert str(error.value) == "unsupported dtype, only fp32 and fp16 are supported"


def test_input_of_one_dimension():
    with pytest.raises(IndexError, match="Dimension out of range"):
        orrery_ops.rms_norm(torch.ones(64, device="xpu"), torch.ones(64, device="xpu"), 0.0)


@pytest.mark.parametrize(
    "expression, weight, input, weight_type",
    [
        ("input.scalar_type() == weight.scalar_type()", (3, 64), (2, 64), HALF),
        ("weight.dim() == 1", (1, 64), (2, 64, 1), FLOAT),
        ("input.dim() == 2", (63,), (2, 64, 1), FLOAT),
        ("weight.size(0) == input.size(1)", (63,), (2, 64), FLOAT),
        ("hidden_size % BS == 0", (8208,), (2, 8208), FLOAT),
        ("hidden_size % BS == 0", (33,), (2, 33), FLOAT),
        ("hidden_size * sizeof(float) <= 32 * 1024", (8224,), (2, 8224), FLOAT),
    ],
)
def test_assertions(expression, weight, input, weight_type):
    w, x = torch.ones(weight, dtype=weight_type, device="xpu"), torch.ones(input, device="xpu")
    assert_dies_with(expression, "norm", lambda: orrery_ops.rms_norm(w, x, 1e-5))


def results() -> list[torch.Tensor]:
    cases = [(FLOAT, 19, 576), (HALF, 7, 1056), (FLOAT, 1, 8192), (BFLOAT16, 5, 96)]
    return [run(*case(20 + i, *sizes), 1e-5) for i, sizes in enumerate(cases)]


def test_bits_do_not_depend_on_threads_or_schedule():
    assert_same_bits_in_any_order("test_norm", results)
