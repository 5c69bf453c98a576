"""dequant, dequantize_rows and the explicit-SIMD dequantizers: values to the bit, launches, and what is left alone."""

from __future__ import annotations

import itertools

import numpy as np
import pytest
import torch

import dense_reference as ref
import orrery_host
import orrery_ops
from kernel_reference import assert_dies_with, assert_same_bits_in_any_order
from linear_reference import DTYPES, differing
from test_linear_dense import suffix_of


def weight_of(*blocks: bytes) -> torch.Tensor:
    return torch.frombuffer(bytearray(b"".join(blocks)), dtype=torch.uint8).to("xpu")


def half(*values: float) -> bytes:
    return np.array(values, np.float16).tobytes()


def empty(state: int, dtype: torch.dtype = torch.float32) -> torch.Tensor:
    return torch.empty(0, state, dtype=dtype, device="xpu")


# --- dequant: the ordinary kernels ----------------------------------------------------------------------------------


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("name", ref.DEQUANT)
def test_wild_scales_and_all_codes_are_exact(name: str, dtype: str) -> None:
    rows, state = (64, 256) if ref.BLOCK[name][0] == 64 else (99, 512)
    w = ref.weight(name, rows, state, wild=True)
    got = ref.dequant(name, dtype, w, state)
    assert got.shape == (rows, state) and got.dtype == DTYPES[dtype] and got.device.type == "xpu"
    assert differing(ref.numbers(got), ref.values(name, dtype, w, rows, state)) == 0


@pytest.mark.parametrize("route", ["dequant", "forward_new"])
def test_halves_of_fp8_e5m2_keep_the_bits_of_every_code(route: str) -> None:
    w = np.concatenate([np.arange(256), np.zeros(4 * 4)]).astype(np.uint8)
    want = np.arange(256).astype(np.uint16) << 8 | 0x80
    if route == "dequant":
        got = ref.numbers(ref.dequant("fp8_e5m2", "float16", w, 64))
    else:
        _, _, got, (launch,) = ref.dense_scratch("fp8_e5m2", "float16", w, 4, 64, 70)
        assert launch.kernel == "dequantize_fp8_e5m2_kernel"
    assert (got.reshape(-1).view(np.uint16) == want).all()


def test_a_bfloat16_nan_has_one_pattern() -> None:
    w = np.concatenate([np.full(64, 0x7E), np.zeros(4)]).astype(np.uint8)
    bits = ref.dequant("fp8_e5m2", "bfloat16", w, 64).cpu().view(torch.int16)
    assert (bits == 0x7FC0).all()


def test_values_by_hand() -> None:
    quants = bytearray([0x88] * 32)
    quants[3] = 0x2F
    row = orrery_ops.dequant(empty(64), weight_of(bytes(quants), half(0.5)), 2).cpu()[0]
    assert (row[3], row[35], row[4]) == (0.5 * 7, 0.5 * -6, 0)
    row = orrery_ops.dequant(empty(64), weight_of(bytes([0xF0] + [0x77] * 31), half(2)), 10).cpu()[0]
    assert (row[0], row[32], row[1]) == (2, -2, 0)  # the high nibble is the first element
    row = orrery_ops.dequant(empty(64), weight_of(bytes([0x80] * 32), half(2)), 16).cpu()[0]
    assert (row[0], row[32]) == (0.0625, -0.0625)  # no code is zero
    codes = bytes([0x00, 0x80, 0x08, 0x01, 0x7F, 0x78, 0xFF] + [0] * 57)
    row = orrery_ops.dequant(empty(64), weight_of(codes, np.float32(1).tobytes()), 15).cpu()[0]
    assert row[:7].tolist() == [0, 0, 2.0**-6, 2.0**-9, 480, 256, -480] and torch.signbit(row[1])
    codes = bytes([0x00, 0x3C, 0x7C] + [0] * 61)
    row = orrery_ops.dequant(empty(64), weight_of(codes, np.float32(5).tobytes()), 19).cpu()[0]
    assert row[:2].tolist() == [2.0**-17, 1.125] and row[2].isnan()
    codes = bytes([0x80, 0xFF] + [1] * 62)
    row = orrery_ops.dequant(empty(64), weight_of(codes, np.float32(0.5).tobytes()), 8).cpu()[0]
    assert row[:3].tolist() == [-64, -0.5, 0.5]


def test_infinity_times_zero_is_not_a_number() -> None:
    assert orrery_ops.dequant(empty(64), weight_of(bytes([0x88] * 32), half(np.inf)), 2).cpu().isnan().all()


@pytest.mark.parametrize("code", [6, 7, 9, 11, *range(22, 30)])
@pytest.mark.parametrize("dtype", [torch.float32, torch.float16, torch.int32])
def test_other_codes_launch_nothing(code: int, dtype: torch.dtype) -> None:
    elements, size = {9: (32, 36), 22: (256, 74), 25: (256, 56)}.get(code) or next(
        ref.BLOCK[name] for name in ref.CODES if ref.CODES[name] == code
    )
    weight = torch.zeros(size * 3 + 1, dtype=torch.uint8, device="xpu")
    with orrery_host.record_launches() as launches:
        got = orrery_ops.dequant(empty(elements, dtype), weight, code)
    assert (got.shape, got.dtype, got.device.type, launches) == ((3, elements), dtype, "xpu", [])


@pytest.mark.parametrize("code", [-1, 0, 1, 4, 5, 12, 13, 14, 17, 18, 20, 30, 1 << 20])
def test_a_code_without_sizes_is_refused(code: int) -> None:
    with pytest.raises(RuntimeError, match=f"^unsupported qtype: {code}$"):
        orrery_ops.dequant(empty(64), weight_of(bytes(34)), code)


def refused(*arguments: object) -> str:
    with pytest.raises(RuntimeError) as caught:
        orrery_ops.dequant(*arguments)
    return str(caught.value).splitlines()[0]


@pytest.mark.parametrize("name", ref.DEQUANT)
def test_refusals(name: str) -> None:
    weight, code = weight_of(bytes(4096)), ref.CODES[name]
    assert refused(empty(0), weight, code) == "orrery_ops: input must have at least one column"
    # The type is tested before the row.
    assert refused(empty(100, torch.int64), weight, code) == "\"qlinear_forward_xpu\" not implemented for 'Long'"
    for state in (32, 96, 1000):
        assert refused(empty(state), weight, code) == f"%d must be a multiple of 64{state}"


def test_only_type_and_columns_of_the_input_matter() -> None:
    w = torch.from_numpy(ref.weight("q8_0", 8, 128)).to("xpu")
    first = orrery_ops.dequant(torch.zeros(5, 128, 2, dtype=torch.float64, device="xpu"), w, 8)
    assert first.shape == (8, 128) and torch.equal(first, orrery_ops.dequant(empty(128, torch.float64), w, 8))


def test_a_remainder_of_bytes_is_dropped() -> None:
    assert orrery_ops.dequant(empty(64), weight_of(bytes(35)), 2).shape == (1, 64)
    with orrery_host.record_launches() as launches:
        assert orrery_ops.dequant(empty(128), weight_of(bytes(34)), 2).shape == (0, 128)
    assert [launch.global_size for launch in launches] == [(0,)]


@pytest.mark.parametrize("name", ref.DEQUANT)
def test_launches_of_dequant(name: str) -> None:
    for state, dtype in itertools.product((64, 128, 192, 256, 512, 1024, 2048), ("float32", "bfloat16")):
        if state % ref.BLOCK[name][0]:
            continue
        with orrery_host.record_launches() as launches:
            ref.dequant(name, dtype, ref.weight(name, 3, state), state)
        (launch,) = launches
        if name == "iq2_xxs":
            suffix, groups, items = "", 3 * state // 256, 32
        else:
            suffix, items = suffix_of(name, 3, state)
            groups = 3
        assert launch.kernel == f"qlinear_xpu_dequantize_kernel_{name}{suffix}"
        assert (launch.name, launch.file, launch.waited) == ("gridrun_kernel", "linear_xpu_kernel", True)
        assert (launch.global_size, launch.local_size) == ((groups * items,), (items,))
        assert launch.local_memory == 0
        if name != "iq2_xxs":
            instance = {"float32": "float", "bfloat16": "c10::BFloat16"}[dtype] + ", 16"
            assert (launch.instance, launch.sub_group_size) == (instance, 16)


# --- dequantize_<format>: the explicit-SIMD kernels, seen through forward_new -----------------------------------------


@pytest.mark.parametrize("dtype", ["float32", "float16"])
@pytest.mark.parametrize("name", ref.EXPLICIT)
def test_explicit_kernels_round_in_half(name: str, dtype: str) -> None:
    rows, state = 72, 192  # 216 blocks: every byte value, a whole number of work-items
    w = ref.weight(name, rows, state, wild=True)
    _, _, got, (launch,) = ref.dense_scratch(name, dtype, w, rows, state, 70)
    want = ref.explicit_values(name, dtype, w, rows, state)
    assert differing(got, want) == 0
    if dtype == "float32" and name in ("q4_0", "q4_1", "q8_0", "fp4"):
        assert differing(got, ref.values(name, dtype, w, rows, state)) > 0  # the other route computes in float
    record = {"q4_1": "dequantize q4_0", "fp8_e5m2": "dequantize fp8 e5m2"}.get(name, f"dequantize {name}")
    blocks = ref.EXPLICIT[name]
    type_name = {"float32": "float", "float16": "c10::Half"}[dtype]
    assert (launch.kernel, launch.instance) == (f"dequantize_{name}_kernel", f"{type_name}, {blocks}")
    assert (launch.name, launch.file, launch.function) == (record, "dequantize", f"dequantize_{name}")
    assert (launch.global_size, launch.local_size) == ((rows * state // 64 // blocks,), (1,))
    assert (launch.sub_group_size, launch.local_memory, launch.waited) == (1, 0, name == "fp6")


@pytest.mark.parametrize("name, rows", [(n, r) for n, s in ref.EXPLICIT.items() for r in (1, s - 1, s + 1, 3 * s - 2)])
def test_a_part_of_a_work_item_ends_the_process(name: str, rows: int) -> None:
    weight = torch.zeros(rows * ref.BLOCK[name][1], dtype=torch.uint8, device="xpu")
    x = torch.zeros(70, 64, device="xpu")
    assert_dies_with("nb % SBS == 0", "dequantize", lambda: orrery_ops.forward_new(x, weight, ref.CODES[name], 1))


def test_the_explicit_route_asks_for_nothing_else() -> None:
    """A row may end inside a block, as long as the blocks of all rows fill the work-items."""
    w = ref.weight("q4_0", 1, 64 * 96)
    x, y, got, _ = ref.dense_scratch("q4_0", "float32", w, 64, 96, 70)
    assert differing(got, ref.explicit_values("q4_0", "float32", w, 1, 64 * 96).reshape(64, 96)) == 0
    assert y.shape == (70, 64)


# --- dequantize_rows ------------------------------------------------------------------------------------------------


def rows_of(name: str, index: torch.Tensor, weight: np.ndarray, size: int) -> torch.Tensor:
    torch.full((*index.shape, size), float("nan"), device="xpu")  # freed at once: the result's memory
    return orrery_ops.dequantize_rows(index.to("xpu"), torch.from_numpy(weight).to("xpu"), ref.CODES[name], size)


@pytest.mark.parametrize("name", ["q2_k", "q4_k"])
@pytest.mark.parametrize("size", [256, 768])
def test_chosen_rows(name: str, size: int) -> None:
    w = ref.weight(name, 11, size, wild=True)
    index = torch.tensor([[10, 0, 3], [3, 3, 9]])
    with orrery_host.record_launches() as launches:
        got = rows_of(name, index, w, size)
    assert got.shape == (2, 3, size) and got.dtype == torch.float32
    want = ref.values(name, "float32", w, 11, size)[index.numpy()]
    assert differing(ref.numbers(got), want) == 0
    (launch,) = launches
    items = 64 if name == "q2_k" else 32
    assert (launch.kernel, launch.name) == (f"xpu_dequantize_rows_kernel_{name}", "gridrun_kernel")
    assert (launch.global_size, launch.local_size) == ((6 * size // 256 * items,), (items,))
    assert not launch.waited


@pytest.mark.parametrize("name", ["q2_k", "q4_k"])
def test_a_row_of_320_has_one_block(name: str) -> None:
    w = ref.weight(name, 5, 256)
    got = ref.numbers(rows_of(name, torch.tensor([[4, 1], [0, 4]]), w, 320)).reshape(-1)
    want = ref.values(name, "float32", w, 5, 256)[[4, 1, 0, 4]].reshape(-1)
    assert differing(got[: 4 * 256], want) == 0 and np.isnan(got[4 * 256 :]).all()


@pytest.mark.parametrize("code", [2, 11, 21, 22, 24, 26, 28, 29, 0, -1, 30, 1000])
def test_rows_of_other_codes_launch_nothing(code: int) -> None:
    index = torch.zeros(2, 3, dtype=torch.int64, device="xpu")
    with orrery_host.record_launches() as launches:
        got = orrery_ops.dequantize_rows(index, weight_of(bytes(600)), code, 100)
    assert (got.shape, got.dtype, got.device.type, launches) == ((2, 3, 100), torch.float32, "xpu", [])


@pytest.mark.parametrize("code", [23, 27])
def test_refused_rows(code: int) -> None:
    index = torch.zeros(1, 1, dtype=torch.int64, device="xpu")
    with pytest.raises(RuntimeError) as caught:
        orrery_ops.dequantize_rows(index, weight_of(bytes(600)), code, 100)
    assert str(caught.value).splitlines()[0] == "%d must be a multiple of 64100"
    with pytest.raises(RuntimeError, match="expected scalar type Long but found Int"):
        orrery_ops.dequantize_rows(index.int(), weight_of(bytes(600)), code, 256)


def test_no_rows_is_an_empty_launch() -> None:
    with orrery_host.record_launches() as launches:
        got = orrery_ops.dequantize_rows(
            torch.zeros(0, 3, dtype=torch.int64, device="xpu"), weight_of(bytes(144)), 27, 256
        )
    assert got.shape == (0, 3, 256) and [launch.global_size for launch in launches] == [(0,)]


# --- order ----------------------------------------------------------------------------------------------------------


def all_dense() -> list[torch.Tensor]:
    results = []
    for dtype in DTYPES:
        for name in ref.DEQUANT:
            results.append(ref.dequant(name, dtype, ref.weight(name, 48, 768), 768))
        for name in ref.CODES:
            if name == "fp6" and dtype in ("float64", "bfloat16"):
                continue
            dense = ref.dense_scratch(name, dtype, ref.weight(name, 48, 768), 48, 768, 70)[2]
            results.append(torch.from_numpy(dense))
    index = torch.tensor([[7, 1, 40]])
    results += [rows_of(name, index, ref.weight(name, 48, 768), 768) for name in ("q2_k", "q4_k")]
    return results


def test_neither_schedule_nor_threads_show() -> None:
    assert_same_bits_in_any_order("test_dequantize", all_dense)
