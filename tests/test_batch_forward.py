"""batch_forward: every instance of the explicit-SIMD vector kernels bit for bit, and which calls reach them."""

from __future__ import annotations

from collections.abc import Callable
from itertools import product

import numpy as np
import pytest
import torch

import batch_reference as ref
import linear_reference
import orrery_dispatch as dispatch
import orrery_host
import orrery_ops
from dense_reference import CODES
from kernel_reference import assert_dies_with, assert_same_bits_in_any_order

CPP = {"float16": "c10::Half", "float32": "float"}
UNIT = {"q4_0": "int4", "q4_1": "int4", "q8_0": "int8", "fp4": "fp4", "fp6": "fp6", "fp8_e5m2": "fp8"}
UNSUPPORTED_TYPE = "unsupported dtype, only fp32 and fp16 are supported"


def assert_launch_fits(launch: dict, name: str, dtype: str, rows: int, n: int, device_class: int) -> None:
    slim = ref.is_slim(n, device_class)
    group = ref.group_of(name, n, device_class)
    kernel = f"vector_forward_kernel_{name}" + ("_slim" if slim else "")
    shape = (n, 4, group) if slim else (n % 8 or 8, 8, 4)
    assert (launch["kernel"], launch["name"]) == (kernel, "batch forward kernel")
    assert launch["instance"] == ", ".join([CPP[dtype], *map(str, shape)])
    assert ([*launch["global"]], [*launch["local"]], launch["sub_group"]) == ([rows], [group], 1)
    assert launch["local_memory"] == ref.local_memory_of(name, n, device_class)
    assert launch["waited"] == (name == "fp6" and not slim)
    assert (launch["file"], launch["function"]) == (f"batch/{UNIT[name]}", kernel)


def assert_product(
    name: str, dtype: str, rows: int, state: int, n: int, device_class: int, kind: str = "tame"
) -> tuple[np.ndarray, dict]:
    w, x = ref.case(name, dtype, rows, state, n, kind)
    got, (launch,) = ref.run(name, w, x, rows, state, device_class)
    want = ref.product(name, w, x, rows, state, device_class)
    assert linear_reference.differing(got, want) == 0, (rows, state, n, device_class, kind)
    launch = linear_reference.fields_of(launch)
    assert_launch_fits(launch, name, dtype, rows, n, device_class)
    return got, launch


formats = pytest.mark.parametrize("name", ref.FORMATS)
types = pytest.mark.parametrize("dtype", ref.TYPES)
families = pytest.mark.parametrize("device_class", [1, 4], ids=["general", "slim"])


@types
@formats
@families
@pytest.mark.parametrize("n", range(1, 9))
def test_every_instance_gives_the_bits(n: int, device_class: int, name: str, dtype: str) -> None:
    for rows, state in ((32, 256), (64, 768)):
        got, _ = assert_product(name, dtype, rows, state, n, device_class)
        assert np.isfinite(got).all() and np.abs(got).max() > 0


def test_there_are_192_instances() -> None:
    seen = set()
    for name, dtype, device_class, n in product(ref.FORMATS, ref.TYPES, (1, 4), range(1, 9)):
        w, x = ref.case(name, dtype, 32, 256, n)
        _, (launch,) = ref.run(name, w, x, 32, 256, device_class)
        seen.add((launch.kernel, launch.instance))
    assert len(seen) == 192


@types
@formats
@pytest.mark.parametrize("n", [9, 15, 16, 24, 31, 56, 63, 64])
def test_more_rows_than_eight(n: int, name: str, dtype: str) -> None:
    for device_class in (0, 1, 4):
        got, _ = assert_product(name, dtype, 32, 512, n, device_class)
        assert np.isfinite(got).all()


@types
@formats
@families
@pytest.mark.parametrize("kind", ["tiny", "wild"])
def test_odd_numbers_go_through_as_halves(kind: str, device_class: int, name: str, dtype: str) -> None:
    for n in (3, 8):
        got, _ = assert_product(name, dtype, 64, 512, n, device_class, kind)
        if kind == "tiny" and name != "fp8_e5m2":
            assert np.abs(got).max() < 2.0**-10
        assert kind == "tiny" or 0.02 < np.isfinite(got).mean() < 1


@formats
def test_floats_give_what_their_halves_give(name: str) -> None:
    for device_class, n in ((1, 5), (4, 5)):
        w, x = ref.case(name, "float32", 32, 512, n)
        wide, _ = ref.run(name, w, x, 32, 512, device_class)
        narrow, _ = ref.run(name, w, x.astype(np.float16), 32, 512, device_class)
        assert np.array_equal(wide, narrow.astype(np.float32))


@formats
@families
def test_a_row_that_ends_inside_a_block(device_class: int, name: str) -> None:
    """300 elements are one whole span and four whole blocks in a row, but the planes count all elements."""
    assert_product(name, "float16", 32, 300, 3, device_class)


@families
def test_groups_of_16_and_8_take_their_number_of_rows(device_class: int) -> None:
    assert_product("q8_0", "float32", 48, 256, 7, 0)
    assert_product("q4_0", "float32", 24, 256, 2, 4)
    assert_product("fp6", "float32", 8, 256, 2, 4)


@pytest.mark.parametrize("device_class", [-1, 3, 5, 7, 2**31 - 1])
def test_any_other_class_takes_groups_of_32(device_class: int) -> None:
    assert_product("q4_1", "float16", 32, 256, 2, device_class)


def test_no_fp4_code_is_zero() -> None:
    weight = torch.frombuffer(bytearray(bytes(32 * 256 // 2) + np.float16(2).tobytes() * 128), dtype=torch.uint8)
    x = torch.zeros(2, 256, dtype=torch.float16)
    x[0, 3] = x[1, 200] = 8
    for device_class in (1, 4):
        y = orrery_ops.batch_forward(x.to("xpu"), weight.to("xpu"), 2, 256, 32, CODES["fp4"], device_class)
        assert torch.equal(y.cpu(), torch.full((2, 32), 0.03125 * 2 * 8, dtype=torch.float16))


@pytest.mark.parametrize("name, value", [("fp8_e5m2", 2.0**-17), ("fp6", 2.0**-17)])
def test_code_zero_is_half_a_step_above_zero(name: str, value: float) -> None:
    size = 256 * 32 // 64 * (64 if name == "fp8_e5m2" else 48)
    scales = b"\xff" * 4 if name == "fp8_e5m2" else np.float16(1).tobytes()  # the former are not read
    weight = torch.frombuffer(bytearray(bytes(size) + scales * 128), dtype=torch.uint8)
    x = torch.zeros(3, 256)
    x[:, 0] = 1024
    for device_class in (1, 4):
        y = orrery_ops.batch_forward(x.to("xpu"), weight.to("xpu"), 3, 256, 32, CODES[name], device_class)
        assert torch.equal(y.cpu(), torch.full((3, 32), 1024 * value))


def of_ones(first: float, rest: float) -> torch.Tensor:
    x = torch.full((2, 512), rest, dtype=torch.float16)
    x[:, 0] = first
    return x.to("xpu")


def test_the_orders_of_the_two_kernels_differ() -> None:
    """2048 plus ones, all weights 1. The general kernel folds each span first: in the first one half of the ones by
    itself, which is 128, and so on. The slim one adds to the lane of 2048 one after another, which stays as it is."""
    weight = torch.frombuffer(bytearray(b"\x99" * (32 * 256) + np.float16(1).tobytes() * 256), dtype=torch.uint8)
    x = of_ones(2048, 1)
    values, halves = np.ones((32, 512), np.float16), x.cpu().numpy()
    found = []
    for device_class, order in ((1, ref.general), (4, ref.slim)):
        y = orrery_ops.batch_forward(x, weight.to("xpu"), 2, 512, 32, CODES["q4_0"], device_class).cpu().numpy()
        assert np.array_equal(y, order(values, halves))
        found.append(y[0, 0])
    assert found[0] != found[1]


# Errors and assertions.


def call(
    n: int = 2,
    state: int = 256,
    rows: int = 32,
    code: int = 2,
    device_class: int = 1,
    dtype: torch.dtype = torch.float32,
) -> torch.Tensor:
    x = torch.zeros(max(n, 0), state, dtype=dtype, device="xpu")
    weight = torch.zeros(rows * state // 64 * 68 + 68, dtype=torch.uint8, device="xpu")
    return orrery_ops.batch_forward(x, weight, n, state, rows, code, device_class)


def refused(**arguments: object) -> str:
    with orrery_host.record_launches() as launches:
        with pytest.raises(RuntimeError) as caught:
            call(**arguments)
    assert type(caught.value) is RuntimeError and not launches
    return str(caught.value)


@pytest.mark.parametrize("code", [-(2**31), -1, 0, 1, 4, 6, 7, 9, 10, 11, 15, 21, 22, 28, 30, 31, 2**31 - 1])
def test_formats_without_such_kernels(code: int) -> None:
    assert refused(code=code) == f"unsupported qtype: {code}"
    # Before anything else is looked at.
    assert refused(code=code, dtype=torch.float64, n=65, state=64) == f"unsupported qtype: {code}"


@pytest.mark.parametrize("dtype", [torch.float64, torch.bfloat16, torch.int32, torch.uint8])
def test_types_without_such_kernels(dtype: torch.dtype) -> None:
    for device_class in (0, 1, 4):
        assert refused(dtype=dtype, device_class=device_class) == UNSUPPORTED_TYPE
    assert refused(dtype=dtype, n=0, device_class=4) == UNSUPPORTED_TYPE
    assert refused(dtype=dtype, n=65, state=64) == UNSUPPORTED_TYPE


@formats
def test_no_row_for_the_slim_kernel(name: str) -> None:
    assert refused(n=0, code=CODES[name], device_class=4) == "unsupported batch size: 0"
    assert refused(n=0, code=CODES[name], device_class=4, state=64) == "unsupported batch size: 0"


def test_no_row_for_the_general_kernel() -> None:
    """The launch is submitted and recorded, and writes nothing."""
    for dtype in (torch.float16, torch.float32):
        with orrery_host.record_launches() as launches:
            y = call(n=0, dtype=dtype)
        assert y.shape == (0, 32) and y.dtype == dtype
        (launch,) = launches
        assert (launch.kernel, launch.global_size) == ("vector_forward_kernel_q4_0", (32,))


@families
def test_no_weight_row(device_class: int) -> None:
    with orrery_host.record_launches() as launches:
        assert call(rows=0, device_class=device_class).shape == (2, 0)
    assert [launch.global_size for launch in launches] == [(0,)]


def test_a_negative_number_of_rows_is_no_size() -> None:
    assert "negative dimension -1" in refused(n=-1)


@pytest.mark.parametrize(
    "expression, arguments",
    [
        ("nb % SBS == 0", dict(state=64)),
        ("nb % SBS == 0", dict(state=192, device_class=4)),
        ("nb % SBS == 0", dict(state=320, n=65, rows=33)),
        ("output_size % GS == 0", dict(rows=16)),
        ("output_size % GS == 0", dict(rows=24, device_class=0)),
        ("output_size % GS == 0", dict(rows=33, n=65)),
        ("output_size % GS == 0", dict(rows=12, device_class=4)),
        ("output_size % GS == 0", dict(rows=16, n=5, code=8, device_class=4)),
        ("input_size <= 64", dict(n=65)),
        ("input_size <= 64", dict(n=100, device_class=4, code=29)),
        ("input_size <= 64", dict(n=65, device_class=0, code=19)),
    ],
)
def test_sizes_that_end_the_process(expression: str, arguments: dict) -> None:
    assert_dies_with(expression, "batch_forward", lambda: call(**arguments))


# The dispatch.


@pytest.mark.parametrize("device_class", [0, 1, 2, 4])
def test_forward_new_comes_here(device_class: int) -> None:
    seen = linear_reference.run_on_class(device_class, ref.__file__, str(device_class))
    assert [tuple(one["case"]) for one in seen] == ref.cases_of(device_class)
    for one in seen:
        name, dtype, rows, _, n = one["case"]
        (launch,) = one["launches"]
        assert one["differing"] == 0, one["case"]
        assert_launch_fits(launch, name, dtype, rows, n, device_class)


@pytest.mark.parametrize("device_class", range(6))
def test_launches_are_those_that_the_dispatch_decided(device_class: int) -> None:
    for name, n in product(ref.FORMATS, (1, 2, 8, 9, 64)):
        way = dispatch.decide(CODES[name], "Half", n, 256, 32, 0, device_class)
        if way["family"] != "explicit_simd":
            continue
        w, x = ref.case(name, "float16", 32, 256, n)
        _, (launch,) = ref.run(name, w, x, 32, 256, device_class)
        assert (launch.kernel, launch.name, launch.waited) == (way["kernel"], way["record"], way["waits"])
        assert (launch.global_size, launch.local_size) == (way["global"], way["local"])


def all_products() -> list[torch.Tensor]:
    results = []
    for name, dtype, (device_class, n) in product(ref.FORMATS, ref.TYPES, ((0, 20), (1, 7), (4, 3), (4, 6))):
        w, x = ref.case(name, dtype, 160, 512, n)
        weight, inputs = ref.to_device(w, x)
        results.append(orrery_ops.batch_forward(inputs, weight, n, 512, 160, CODES[name], device_class))
    return results


def test_neither_schedule_nor_threads_show() -> None:
    assert_same_bits_in_any_order("test_batch_forward", all_products)
