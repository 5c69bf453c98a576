"""forward_new with a few rows: kernels that take input rows by pairs, to the bit in every format, type and class."""

from __future__ import annotations

from functools import cache
from itertools import product

import numpy as np
import pytest
import torch

import linear_reference as ref
import orrery_dispatch as dispatch
import orrery_host
import orrery_launch
import orrery_ops
from kernel_reference import assert_same_bits_in_any_order
from test_linear_xpu_kernel import NAMES, half

TYPE_NAMES = {"float32": "Float", "float64": "Double", "float16": "Half", "bfloat16": "BFloat16"}

# The format of each kernel, and the sub-groups that it is built for.
KERNELS = {
    "qlinear_xpu_kernel_q4_0_2x16_batch": ("q4_0", (16, 32)),
    "qlinear_xpu_kernel_q4_0_2x16_by_batch": ("q4_0", (16, 32)),
    "qlinear_xpu_kernel_q4_1_2x16_batch": ("q4_1", (16, 32)),
    "qlinear_xpu_kernel_nf4_2x16_batch": ("nf4", (16, 32)),
    "qlinear_xpu_kernel_fp4_2x16_batch": ("fp4", (16, 32)),
    "qlinear_xpu_kernel_fp8_e5m2_2x8_batch": ("fp8_e5m2", (16, 32)),
    "qlinear_xpu_kernel_q8_0_2x8_batch": ("q8_0", (16,)),
}
# They leave the last row of an odd number of weight rows alone.
DROPPING = tuple(f"qlinear_xpu_kernel_{name}_2x16_batch" for name in ("q4_0", "q4_1", "nf4"))
# No device class uses them: class 0, whose sub-groups have 32 lanes, takes other kernels.
UNREACHED = {(kernel, 32) for kernel in KERNELS if KERNELS[kernel][0] in ("q4_0", "fp4")}

seen_on_class = cache(ref.seen_on_class)


def kernel_of(name: str, n: int) -> str:
    run = ref.SPLIT[name].run
    by = "_by" if name == "q4_0" and n <= 7 else ""
    return f"qlinear_xpu_kernel_{name}_2x{run}{by}_batch"


def sub_group_of(name: str, device_class: int) -> int:
    return 32 if device_class == 0 and name != "q8_0" else 16


def pairs_product(
    kernel: str, sub_group: int, dtype: str, w: np.ndarray, x: np.ndarray, rows: int, state: int, n: int
) -> np.ndarray:
    """One input row after another; NaN where a kernel writes nothing."""
    name, shape = KERNELS[kernel][0], (sub_group, 2 * sub_group, 2)
    inputs = [x[k * state :] for k in range(n)]
    with np.errstate(all="ignore"):
        y = np.stack([ref.run_product(name, dtype, w, i, rows, state, shape, ref.inputs_by_twos) for i in inputs])
    if rows % 2 and kernel in DROPPING:
        y[:, -1] = np.nan
    return y


@cache
def expected(kernel: str, sub_group: int, dtype: str, rows: int, state: int, n: int) -> np.ndarray:
    case = ref.case(KERNELS[kernel][0], dtype, rows, state, n=n)
    return pairs_product(kernel, sub_group, dtype, *case, rows, state, n)


def assert_launch_fits(launch: dict, kernel: str, sub_group: int, dtype: str, rows: int, n: int) -> None:
    group = 2 * sub_group
    groups = rows // 2 if kernel in DROPPING else (rows + 1) // 2
    assert (launch["kernel"], launch["name"]) == (kernel, "gridrun_kernel")
    assert launch["instance"] == f"{NAMES[dtype]}, {sub_group}, {group}"
    assert [*launch["global"]] == [groups * group, (n + 1) // 2] and [*launch["local"]] == [group, 1]
    assert launch["sub_group"] == sub_group and not launch["waited"]
    assert launch["local_memory"] == 2 * 2 * group * torch.empty(0, dtype=ref.DTYPES[dtype]).element_size()


@pytest.mark.parametrize("dtype", ref.DTYPES)
@pytest.mark.parametrize("name", ref.PAIRED)
@pytest.mark.parametrize("device_class", ref.DEVICE_OF_CLASS)
def test_every_class_launches_its_instance_and_gives_the_bits(device_class: int, name: str, dtype: str) -> None:
    sub_group = sub_group_of(name, device_class)
    cases = [c for c in ref.cases_of("row_pairs", device_class) if c[:2] == (name, dtype)]
    assert cases or (device_class == 0 and name in ("q4_0", "fp4"))
    for case in cases:
        seen = seen_on_class("row_pairs", device_class)[case]
        rows, state, n = case[2:]
        kernel = kernel_of(name, n)
        want = expected(kernel, sub_group, dtype, rows, state, n)
        assert ref.differing(ref.result_of(seen), want) == 0, case
        assert_launch_fits(seen, kernel, sub_group, dtype, rows, n)


@pytest.mark.parametrize("dtype", TYPE_NAMES)
def test_the_classes_reach_all_instances_but_three(dtype: str) -> None:
    found = set()
    names, sizes = sorted({name for name, _ in KERNELS.values()}), ((3, 80), (7, 320), (32, 256), (16, 4096))
    for name, device_class, n, size in product(names, ref.DEVICE_OF_CLASS, range(2, 70), sizes):
        rows, state = size
        way = dispatch.decide(ref.CODES[name], TYPE_NAMES[dtype], n, state, rows, 1, device_class)
        if way["family"] == "row_pairs":
            assert way["work_group"] == 2 * way["sub_group"]
            found.add((way["kernel"], way["sub_group"]))
    built = {(kernel, sub_group) for kernel, (_, sub_groups) in KERNELS.items() for sub_group in sub_groups}
    assert len(UNREACHED) == 3 and found == built - UNREACHED


@pytest.mark.parametrize("dtype", ref.DTYPES)
@pytest.mark.parametrize("kernel, sub_group", sorted(UNREACHED))
def test_instances_that_no_class_reaches_give_the_bits(kernel: str, sub_group: int, dtype: str) -> None:
    name = KERNELS[kernel][0]
    for (rows, state), n in product(ref.PAIR_SHAPES, (1, *ref.PAIRED[name])):
        w, x = ref.case(name, dtype, rows, state, n=n)
        weight, inputs = ref.to_device(name, dtype, w, x, rows, state, n)
        y = torch.full((n, rows), float("nan"), dtype=ref.DTYPES[dtype], device="xpu")
        offset = dispatch.scale_offset(ref.CODES[name], rows, state)
        addresses = weight.data_ptr(), offset, inputs.data_ptr(), y.data_ptr()
        with orrery_host.record_launches() as launches:
            kept = kernel not in DROPPING
            orrery_launch.launch_pairs(kernel, sub_group, TYPE_NAMES[dtype], *addresses, n, state, rows, kept)
        (launch,) = launches
        assert_launch_fits(ref.fields_of(launch), kernel, sub_group, dtype, rows, n)
        want = expected(kernel, sub_group, dtype, rows, state, n)
        assert ref.differing(ref.numbers(y), want) == 0, (rows, state, n)


@pytest.mark.parametrize("dtype", ref.DTYPES)
@pytest.mark.parametrize("name", ref.PAIRED)
def test_wild_scales_multiply_through(name: str, dtype: str) -> None:
    w, x = ref.case(name, dtype, 20, 576, wild=True, n=3)
    got, _ = ref.run(name, dtype, w, x, 20, 576, 3)
    assert ref.differing(got, pairs_product(kernel_of(name, 3), 16, dtype, w, x, 20, 576, 3)) == 0


@pytest.mark.parametrize("name", ref.PAIRED)
def test_what_lies_behind_an_odd_number_of_input_rows_does_not_show(name: str) -> None:
    w, x = ref.case(name, "float16", 6, 320, n=3)
    with_nan = x.copy()
    with_nan[3 * 320 :] = np.nan
    got, _ = ref.run(name, "float16", w, with_nan, 6, 320, 3)
    assert ref.differing(got, pairs_product(kernel_of(name, 3), 16, "float16", w, x, 6, 320, 3)) == 0


def test_the_two_kernels_of_q4_0_differ_in_the_last_of_an_odd_number_of_rows() -> None:
    w, x = ref.case("q4_0", "float32", 5, 64, n=8)
    kept, _ = ref.run("q4_0", "float32", w, x, 5, 64, 7)
    assert np.isfinite(kept).all()
    dropped, _ = ref.run("q4_0", "float32", w, x, 5, 64, 8)
    assert np.isnan(dropped[:, 4]).all() and np.isfinite(dropped[:, :4]).all()


def test_the_offset_counts_inputs_by_twos() -> None:
    """In half 2048 + 1 + 1 is 2048 one after another, as in the single-row kernel, and 2050 by twos."""
    x = torch.zeros(3, 64, dtype=torch.float16)
    x[:, 0] = 2048
    x[:, 1] = x[:, 33] = 1
    weight = torch.frombuffer(bytearray(bytes(64) + half(1, 1) * 2), dtype=torch.uint8).to("xpu")
    y = orrery_ops.forward_new(x.to("xpu"), weight, ref.CODES["q4_1"], 1).cpu()
    assert torch.equal(y, torch.full((3, 2), 2050, dtype=torch.float16))
    alone = orrery_ops.forward_new(x[:1].to("xpu"), weight, ref.CODES["q4_1"], 1).cpu()
    assert torch.equal(alone, torch.full((1, 2), 2048, dtype=torch.float16))


def test_inputs_that_cancel_leave_no_offset() -> None:
    x = torch.zeros(3, 64, dtype=torch.float16)
    x[:, :8] = torch.tensor([2048, 1, 0.25, 3, 1023, 0.5, 77, 1])
    x[:, 32:40] = -x[:, :8]
    weight = torch.frombuffer(bytearray(bytes(64) + half(1, 5) * 2), dtype=torch.uint8).to("xpu")
    y = orrery_ops.forward_new(x.to("xpu"), weight, ref.CODES["q4_1"], 1).cpu()
    assert torch.equal(y, torch.zeros(3, 2, dtype=torch.float16))


def all_products() -> list[torch.Tensor]:
    results = []
    for name in ref.PAIRED:
        for dtype in ref.DTYPES:
            w, x = ref.case(name, dtype, 98, 576, n=5)
            weight, inputs = ref.to_device(name, dtype, w, x, 98, 576, 5)
            results.append(orrery_ops.forward_new(inputs, weight, ref.CODES[name], 1))
    return results


def test_neither_schedule_nor_threads_show() -> None:
    assert_same_bits_in_any_order("test_row_pairs", all_products)
