"""bmm: bit for bit against sums in order, its launch without a record, and its failures."""

from __future__ import annotations

import os
import subprocess
import sys

import numpy as np
import pytest
import torch
from kernel_reference import assert_same_bits, assert_same_bits_in_any_order, random

import orrery_host
import orrery_ops

DIMENSIONS = "Input tensors must have 3 dimensions"
SIZES = "Input tensors dimensions do not match for batch multiplication"


@np.errstate(all="ignore")
def reference(a: torch.Tensor, b: torch.Tensor) -> np.ndarray:
    a, b = a.cpu().numpy(), b.cpu().numpy()
    c = np.zeros((a.shape[0], a.shape[1], b.shape[2]), np.float32)
    for k in range(a.shape[2]):
        c = c + a[:, :, k, None] * b[:, None, k, :]
    return c


def case(seed: int, batch: int, m: int, k: int, n: int) -> list[torch.Tensor]:
    g = np.random.default_rng(seed)
    a, b = random(g, (batch, m, k), torch.float32), random(g, (batch, k, n), torch.float32)
    return [a.to("xpu"), b.to("xpu"), torch.full((batch, m, n), float("nan"), device="xpu")]


@pytest.mark.parametrize("sizes", [(1, 1, 1, 1), (2, 3, 4, 5), (3, 19, 99, 7), (1, 5, 989, 3), (7, 1, 33, 11)])
def test_is_bit_exact(sizes):
    a, b, c = case(sum(sizes), *sizes)
    result = orrery_ops.bmm(a, b, c)
    assert result.data_ptr() == c.data_ptr()
    assert_same_bits(c, reference(a, b))


def test_zero_times_infinity_and_the_sign_of_zero():
    a, b, c = case(1, 1, 2, 2, 2)
    a[0, 0] = torch.tensor([-0.0, 0.0])
    b[0, 0] = torch.tensor([torch.inf, 1.0])
    orrery_ops.bmm(a, b, c)
    assert c[0, 0, 0].isnan() and not torch.signbit(c[0, 0, 1])
    assert_same_bits(c, reference(a, b))


def test_no_inner_elements_give_zeros():
    a, b, c = case(2, 2, 3, 0, 4)
    orrery_ops.bmm(a, b, c)
    assert_same_bits(c, np.zeros((2, 3, 4), np.float32))


def test_shape_of_the_result_is_not_checked():
    a, b, _ = case(3, 2, 3, 4, 5)
    c = torch.full((40,), float("nan"), device="xpu")
    assert orrery_ops.bmm(a, b, c).shape == (40,)
    assert_same_bits(c[:30].reshape(2, 3, 5), reference(a, b))
    assert c[30:].isnan().all()


@pytest.mark.parametrize("sizes", [(0, 3, 4, 5), (2, 0, 4, 5), (2, 3, 4, 0)])
def test_empty_sizes(sizes):
    a, b, c = case(4, *sizes)
    with orrery_host.record_launches() as launches:
        assert orrery_ops.bmm(a, b, c).numel() == 0
    (launch,) = launches
    assert launch.global_size == (sizes[0], sizes[1], sizes[3])


def test_launch():
    args = case(5, 2, 3, 4, 5)
    with orrery_host.record_launches() as launches:
        orrery_ops.bmm(*args)
    (launch,) = launches
    assert (launch.name, launch.kernel) == (None, "MatrixMultiplication")
    assert (launch.file, launch.function, launch.line, launch.column) == ("bmm_xpu_kernel", "bmm_xpu", 48, 5)
    assert (launch.global_size, launch.local_memory, launch.waited) == ((2, 3, 5), 0, False)
    assert set(launch.local_size) <= {1}


@pytest.mark.parametrize(
    "a, b, text",
    [
        ((3, 4), (2, 4, 5), DIMENSIONS),
        ((2, 3, 4), (4, 5), DIMENSIONS),
        ((2, 3, 4, 1), (2, 5, 6), DIMENSIONS),
        ((2, 3, 4), (2, 5, 6), SIZES),
        ((2, 3, 4), (1, 4, 6), SIZES),
    ],
)
@pytest.mark.parametrize("dtype", [torch.float32, torch.float16])
def test_failed_checks(a, b, text, dtype):
    a, b, c = (torch.zeros(shape, dtype=dtype, device="xpu") for shape in (a, b, (2, 3, 6)))
    with pytest.raises(RuntimeError) as error:
        orrery_ops.bmm(a, b, c)
    assert str(error.value) == text


@pytest.mark.parametrize("b, line", [("2, 5, 6", 11), ("5, 6", 10)])
def test_failed_checks_name_their_place(b, line):
    script = (
        "import torch, orrery_ops\n"
        f"a, b, c = (torch.zeros(s, device='xpu') for s in ((2, 3, 4), ({b}), (2, 3, 6)))\n"
        "orrery_ops.bmm(a, b, c)\n"
    )
    env = {**os.environ, "TORCH_SHOW_CPP_STACKTRACES": "1"}
    run = subprocess.run([sys.executable, "-c", script], env=env, capture_output=True, text=True, check=False)
    assert f"Exception raised from bmm_xpu at bmm_xpu_kernel:{line} " in run.stderr


@pytest.mark.parametrize("which", [0, 1, 2])
@pytest.mark.parametrize("dtype, name", [(torch.float16, "Half"), (torch.float64, "Double")])
def test_other_types_fail_at_the_pointer(which, dtype, name):
    args = case(6, 2, 3, 4, 5)
    args[which] = args[which].to(dtype)
    with pytest.raises(RuntimeError, match=f"^expected scalar type Float but found {name}"):
        orrery_ops.bmm(*args)


def results() -> list[torch.Tensor]:
    return [orrery_ops.bmm(*case(20 + i, *sizes)) for i, sizes in enumerate([(3, 19, 33, 7), (2, 64, 100, 65)])]


def test_bits_do_not_depend_on_threads_or_schedule():
    assert_same_bits_in_any_order("test_bmm_xpu_kernel", results)
