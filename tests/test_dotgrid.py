"""forward_new on the matrix engine: every instance and every code, to the bit where sums of floats are exact, else between
rigorous bounds."""

from __future__ import annotations

import ctypes
import itertools
import subprocess
import sys
from functools import cache

import numpy as np
import pytest
import torch

import dotgrid_reference as dot
import linear_reference as ref
import orrery_host
import orrery_launch
import torch_threads
from kernel_reference import assert_dies_with, assert_same_bits_in_any_order, leave_nan_behind

WIDE = {False: 1, True: 0}  # the device class with 8 and with 16 columns
STATES = (64, 448, 512, 576, 1088)  # 1, 7, 8, 9 and 17 blocks


def run(case: dot.Case, wide: bool = False) -> np.ndarray:
    """The product, into memory of NaN; what lies behind it stays as it is."""
    inputs, weight = case.tensors
    marks = bytes(range(1, 256)) * 32
    room = torch.full((len(case.x), case.rows), float("nan"), dtype=ref.DTYPES[case.dtype], device="xpu")
    at, behind = room.data_ptr(), room.data_ptr() + room.nbytes
    ctypes.memmove(behind, marks, len(marks))
    del room  # its memory becomes the result's
    y = orrery_launch.dotgrid_forward(inputs, weight, ref.CODES[case.name], case.rows, WIDE[wide])
    assert y.shape == (len(case.x), case.rows) and y.dtype == ref.DTYPES[case.dtype]
    assert y.data_ptr() == at and ctypes.string_at(behind, len(marks)) == marks
    return dot.numbers(y)


def assert_exact(case: dot.Case, wide: bool = False) -> None:
    low, high = dot.product(case, exact=True)
    assert np.array_equal(low, high, equal_nan=True)
    assert ref.differing(run(case, wide), low) == 0


@pytest.mark.parametrize("tail", range(1, 9))
@pytest.mark.parametrize("wide", WIDE)
@pytest.mark.parametrize("dtype", dot.DTYPES)
def test_every_instance_gives_the_bits_where_sums_are_exact(dtype: str, wide: bool, tail: int) -> None:
    for name, state, tiles in itertools.product(dot.FORMATS, STATES, (1, 3)):
        assert_exact(dot.tame(name, dtype, 8 * (tiles - 1) + tail, state, 48), wide)


@pytest.mark.parametrize("tail", range(1, 9))
@pytest.mark.parametrize("wide", WIDE)
@pytest.mark.parametrize("dtype", dot.DTYPES)
def test_every_instance_keeps_within_the_bounds_of_any_order(dtype: str, wide: bool, tail: int) -> None:
    decided = 0
    for name in dot.FORMATS:
        case = dot.wild(name, dtype, 8 + tail, 1088, 32)
        got, (low, high) = run(case, wide), dot.product(case)
        assert np.isfinite(low).all() and np.isfinite(high).all()
        assert ((low <= got) & (got <= high)).all()
        decided += np.mean(low == high) / len(dot.FORMATS)
    assert decided > 0.9  # bounds that most results meet exactly


@pytest.mark.parametrize("threads", [1, 2, 3])
@pytest.mark.parametrize("n", [1, 9, 64, 72, 85])  # up to eleven tiles
@pytest.mark.parametrize("rows", [16, 80, 144, 528])
def test_any_number_of_groups_is_shared_out(rows: int, n: int, threads: int) -> None:
    with torch_threads.threads(threads):
        for wide in WIDE:
            assert_exact(dot.tame("q4_0", "float32", n, 576, rows), wide)


@pytest.mark.parametrize("n", [1, 8, 9, 64])
@pytest.mark.parametrize("wide", WIDE)
@pytest.mark.parametrize("dtype", dot.DTYPES)
def test_the_launch_has_its_ranges_and_its_instance(dtype: str, wide: bool, n: int) -> None:
    inputs, weight = dot.tame("q4_0", dtype, n, 64, 32).tensors
    with orrery_host.record_launches() as launches:
        orrery_launch.dotgrid_forward(inputs, weight, 2, 32, WIDE[wide])
    assert [ref.fields_of(launch) for launch in launches] == [dot.fields_expected(dtype, n, 32, wide)]


@cache
def seen_on_class(device_class: int) -> dict[tuple, dict]:
    seen = ref.run_on_class(device_class, dot.__file__, str(device_class))
    return {tuple(one["case"]): one for one in seen}


@pytest.mark.parametrize("dtype", dot.DTYPES)
@pytest.mark.parametrize("name", dot.FORMATS)
@pytest.mark.parametrize("device_class", dot.CLASSES)
def test_the_classes_come_here(device_class: int, name: str, dtype: str) -> None:
    cases = [c for c in dot.cases_of(device_class) if c[:2] == (name, dtype)]
    assert len(cases) >= 12
    for case in cases:
        n, state, rows = case[2:]
        seen = seen_on_class(device_class)[case]
        want = dot.fields_expected(dtype, n, rows, device_class == 0)
        assert {k: tuple(seen[k]) if isinstance(seen[k], list) else seen[k] for k in want} == want
        got = np.frombuffer(bytes.fromhex(seen["result"]), np.float32).reshape(n, rows)
        assert ref.differing(got, dot.product(dot.tame(*case), exact=True)[0]) == 0, case


# --- Codes ----------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("wide", WIDE)
@pytest.mark.parametrize("dtype", dot.DTYPES)
@pytest.mark.parametrize("name", dot.FORMATS)
def test_every_code_has_its_value(name: str, dtype: str, wide: bool) -> None:
    """Input row k is 1 at element k, so that result [k, j] is the value of element k of weight row j."""
    values = ref.VALUES[name]
    finite, nan = np.flatnonzero(np.isfinite(values)), np.flatnonzero(np.isnan(values))
    codes = np.random.default_rng(0).permutation(np.resize(finite, 1024)).reshape(16, 64)
    ones = np.ones((16, 1))
    eye = np.eye(64, dtype=np.float32)
    got = run(dot.Case(name, dtype, dot.weight_of(name, codes, ones), eye, 16), wide)
    assert np.array_equal(got, values[codes].T)
    # A NaN spreads over its column, since 0 times it is NaN.
    assert len(nan) == (8 if name == "fp8_e5m2" else 0)
    if len(nan):
        codes[: len(nan), 5] = nan
        got = run(dot.Case(name, dtype, dot.weight_of(name, codes, ones), eye, 16), wide)
        assert np.isnan(got[:, :8]).all() and np.array_equal(got[:, 8:], values[codes[8:]].T)


@pytest.mark.parametrize("dtype", dot.DTYPES)
def test_codes_of_note(dtype: str) -> None:
    def value(name: str, code: int) -> float:
        codes = np.zeros((8, 64), np.int64)
        codes[:, 3] = code
        x = np.zeros((8, 64), np.float32)
        x[:, 3] = 1
        return float(run(dot.Case(name, dtype, dot.weight_of(name, codes, np.ones((8, 1))), x, 8))[0, 0])

    assert value("fp8_e4m3", 0x07) == 7 / 512 and value("fp8_e4m3", 0x08) == 2.0**-6
    assert value("fp8_e4m3", 0x7F) == 480 and value("fp8_e4m3", 0xFF) == -480
    assert value("fp8_e4m3", 0x00) == value("fp8_e4m3", 0x80) == 0
    assert value("fp8_e5m2", 0x3C) == 1.125 and value("fp8_e5m2", 0x00) == 2.0**-17
    assert np.isnan(value("fp8_e5m2", 0x7C))
    assert value("q8_0", 0x80) == -128 and value("q4_0", 0) == -8 and value("q4_0", 8) == 0


# --- Slices ---------------------------------------------------------------------------------------------------------


def block_sums(dtype: str, sums: list[float], wide: bool = False) -> float:
    """What comes of blocks that give these numbers."""
    state = 64 * len(sums)
    codes = np.zeros((16, state), np.int64)
    codes[:, ::64] = 1
    scales = np.tile(np.array(sums, np.float32), (16, 1))
    x = np.zeros((3, state), np.float32)
    x[:, ::64] = 1
    case = dot.Case("q8_0", dtype, dot.weight_of("q8_0", codes, scales), x, 16)
    got = run(case, wide)
    assert (got == got[0, 0]).all() or np.isnan(got).all()
    return float(got[0, 0])


@pytest.mark.parametrize("wide", WIDE)
def test_slices_are_narrowed_and_added_in_order(wide: bool) -> None:
    # Halves from 2048 on are even numbers: 1 is lost beside 2048, but not ahead of it.
    for dtype in ("float16", "float32"):
        assert block_sums(dtype, [2048, 1, 1, -2048, 0, 0, 0, 0], wide) == 0
        assert block_sums(dtype, [1, 1, 2048, -2048, 0, 0, 0, 0], wide) == 2
        assert block_sums(dtype, [0, 0, 0, 0, 1, 2048, 1, -2048], wide) == 0  # 2049 is halfway, and 2048 even
        assert block_sums(dtype, [2049, 0, 0, -2048, 0, 0, 0, 1], wide) == 1  # the sum of a slice is rounded
    assert block_sums("bfloat16", [256, 1, 1, -256, 0, 0, 0, 0], wide) == 0
    assert block_sums("bfloat16", [1, 1, 256, -256, 0, 0, 0, 0], wide) == 2


@pytest.mark.parametrize("wide", WIDE)
def test_nine_blocks_make_slices_of_two(wide: bool) -> None:
    # Inside a slice 2049 - 1 is 2048. A slice of 2049 alone is narrowed to 2048, and 2047 is left.
    assert block_sums("float16", [2049, -1, 0, 0, 0, 0, 0, 0, 0], wide) == 2048
    assert block_sums("float16", [0, 2049, -1, 0, 0, 0, 0, 0, 0], wide) == 2047
    assert block_sums("float16", [0, 0, 0, 0, 0, 0, 2049, -1, 0], wide) == 2048
    assert block_sums("float16", [0, 0, 0, 0, 0, 0, 2048, 1, 1], wide) == 2048  # 2049 is narrowed, then 1 added
    assert block_sums("float16", [0, 0, 0, 0, 0, 0, 0, 1, 2049], wide) == 2048


def test_a_partial_sum_beyond_half_is_infinite() -> None:
    for dtype in ("float16", "float32"):
        assert block_sums(dtype, [70000, 0, 0, 0, 0, 0, 0, 0]) == np.inf
        assert block_sums(dtype, [40000, 40000, -40000, 0, 0, 0, 0, 0]) == np.inf
        assert np.isnan(block_sums(dtype, [70000, -70000, 0, 0, 0, 0, 0, 0]))
        assert block_sums(dtype, [70000, -69000, 0, 0, 0, 0, 0, 0, 0]) == 1000  # in one slice
    assert block_sums("bfloat16", [65536, 0, 0, 0, 0, 0, 0, 0]) == 65536


def test_float_inputs_are_narrowed_to_half() -> None:
    codes, x = np.zeros((8, 64), np.int64), np.zeros((8, 64), np.float32)
    codes[:, 0], x[:, 0] = 1, [2049, 1 + 2**-11, 65520, -65520, 2.0**-25, 65519, 1.5, -0.0]
    y = run(dot.Case("q8_0", "float32", dot.weight_of("q8_0", codes, np.ones((8, 1))), x, 8))
    assert np.array_equal(y[:, 0], np.array([2048, 1, np.inf, -np.inf, 0, 65504, 1.5, 0], np.float32), equal_nan=True)


# --- What is told, refused, or left alone ---------------------------------------------------------------------------


@pytest.mark.parametrize("code", [3, 6, 10, 16, 27, 29, 1])
def test_another_format_gives_zeros(code: int) -> None:
    inputs, weight = dot.tame("q8_0", "float16", 9, 576, 16).tensors
    leave_nan_behind((9, 16), torch.float16)
    y = orrery_launch.dotgrid_forward(inputs, weight, code, 16, 1)
    assert torch.equal(y.cpu(), torch.zeros(9, 16, dtype=torch.float16))


def test_a_weight_at_an_odd_address() -> None:
    for name in dot.FORMATS:
        case = dot.tame(name, "float16", 9, 576, 16)
        inputs, weight = case.tensors
        moved = torch.zeros(len(case.w) + 3, dtype=torch.uint8, device="xpu")[3:]
        moved.copy_(weight)
        y = orrery_launch.dotgrid_forward(inputs, moved, ref.CODES[name], 16, 1)
        assert ref.differing(dot.numbers(y), dot.product(case, exact=True)[0]) == 0


def test_no_weight_rows_make_an_empty_launch() -> None:
    inputs = torch.zeros(9, 64, device="xpu")
    with orrery_host.record_launches() as launches:
        y = orrery_launch.dotgrid_forward(inputs, torch.zeros(0, dtype=torch.uint8, device="xpu"), 2, 0, 1)
    assert y.shape == (9, 0)
    assert [launch.global_size for launch in launches] == [(0, 2)]


@pytest.mark.parametrize("dtype", ["float64", "int64", "uint8", "bool"])
def test_another_type_ends_the_process(dtype: str) -> None:
    script = (
        "import torch, orrery_host, orrery_ops\n"
        f"x = torch.zeros(8, 64, dtype=torch.{dtype}, device='xpu')\n"
        "w = torch.zeros(16 * 34, dtype=torch.uint8, device='xpu')\n"
        "try: orrery_ops.forward_new(x, w, 2, 0)\n"
        "finally: print('came back')\n"
    )
    environment = ref.environment_of_class(1)
    done = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True, env=environment, timeout=120)
    assert (done.returncode, done.stdout, done.stderr) == (2, "", "unsupported dtype\n")


@pytest.mark.parametrize(
    "rows, state, wide, expression",
    [(12, 64, False, "output_size % N == 0"), (8, 64, True, "output_size % N == 0"),
     (16, 96, False, "state_size % QK == 0"), (16, 32, True, "state_size % QK == 0"),
     (12, 96, False, "output_size % N == 0")],
)  # fmt: skip
def test_sizes_that_no_tile_divides_end_the_process(rows: int, state: int, wide: bool, expression: str) -> None:
    inputs = torch.zeros(8, state, device="xpu")
    weight = torch.zeros(4096, dtype=torch.uint8, device="xpu")

    def call() -> None:
        orrery_launch.dotgrid_forward(inputs, weight, 2, rows, WIDE[wide])

    assert_dies_with(expression, "dotgrid_xpu_kernel", call)


def all_products() -> list[torch.Tensor]:
    results = []
    for name, dtype, wide, n in itertools.product(dot.FORMATS, dot.DTYPES, WIDE, (3, 64)):
        inputs, weight = dot.wild(name, dtype, n, 576, 96).tensors
        results.append(orrery_launch.dotgrid_forward(inputs, weight, ref.CODES[name], 96, WIDE[wide]))
    return results


def test_neither_schedule_nor_threads_show() -> None:
    assert_same_bits_in_any_order("test_dotgrid", all_products)
