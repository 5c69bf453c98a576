"""The formats of 256 elements: values against the rule and against gguf's, products with one row to the bit."""

from __future__ import annotations

import ctypes
from functools import cache

import gguf
import numpy as np
import orrery_dispatch
import pytest
import torch

import block_reference as ref
import orrery_ops
from kernel_reference import assert_same_bits_in_any_order
from linear_reference import DEVICE_OF_CLASS, DTYPES, SLACK, differing, run_on_class

DIRECT = ("q4_k", "q5_k", "q6_k")
C_TYPES = {"float32": "float", "float64": "double", "float16": "c10::Half", "bfloat16": "c10::BFloat16"}
GGUF_TYPE = {name: gguf.GGMLQuantizationType[name.upper()] for name in ref.CODES}
SUFFIX = {"q2_k": "_q8_1", "iq2_xxs": "_q8_1", "iq1_s": "_q8_1"}


def blocks_of(name: str, count: int, wild: bool = False) -> np.ndarray:
    """Random blocks, with any halves at all if `wild`: infinities, NaN, subnormals."""
    w, _ = ref.case(name, "float32", count, 256, wild)
    return w[: count * ref.BYTES[name]].reshape(count, -1)


def native_values(name: str, blocks: np.ndarray) -> tuple[np.ndarray, np.ndarray]:
    """By the system's value rule and by its vector reader."""
    rule, reader = orrery_dispatch.block_values(ref.CODES[name], np.ascontiguousarray(blocks).tobytes())
    return tuple(np.frombuffer(v, np.float32).reshape(-1, 256) for v in (rule, reader))


@pytest.mark.parametrize("wild", [False, True])
@pytest.mark.parametrize("name", ref.CODES)
def test_values_by_rule_and_by_reader(name: str, wild: bool) -> None:
    blocks = blocks_of(name, 3000, wild)
    if wild:
        exponents = blocks[:, ref.HALVES[name][0] + 1] & 0x7C
        assert (exponents == 0x7C).any() and (exponents == 0).any()
    expected = ref.values(name, blocks)
    for values in native_values(name, blocks):
        assert differing(values, expected) == 0


@pytest.mark.parametrize("name", ref.CODES)
def test_values_are_those_of_gguf(name: str) -> None:
    blocks = blocks_of(name, 500)
    expected = gguf.quants.dequantize(blocks, GGUF_TYPE[name])
    assert expected.shape == (500, 256) and np.isfinite(expected).all()
    rule, reader = native_values(name, blocks)
    np.testing.assert_array_equal(rule, expected)
    np.testing.assert_array_equal(reader, expected)


def block(name: str, **fields: object) -> np.ndarray:
    """A block of zeros with some bytes set: at_N=value or at_N=bytes; d and dmin as halves."""
    b = np.zeros(ref.BYTES[name], np.uint8)
    for at, value in zip(ref.HALVES[name], (fields.pop("d", 1.0), fields.pop("dmin", 0.0))):
        b[at : at + 2] = np.array([value], np.float16).view(np.uint8)
    for key, value in fields.items():
        at = int(key.removeprefix("at_"))
        data = np.frombuffer(value, np.uint8) if isinstance(value, bytes) else np.array([value], np.uint8)
        b[at : at + len(data)] = data
    return b


def values_of(name: str, b: np.ndarray) -> np.ndarray:
    rule, reader = native_values(name, b[None])
    np.testing.assert_array_equal(rule, reader)
    return rule[0]


def test_q2_k_minimums_alone() -> None:
    assert (values_of("q2_k", block("q2_k", at_0=bytes([0x10] * 16), d=3.0, dmin=0.5)) == -0.5).all()


def test_q2_k_sub_blocks_have_16_elements() -> None:
    b = block("q2_k", at_0=bytes(range(16)), at_16=bytes([0b01010101] * 64))
    np.testing.assert_array_equal(values_of("q2_k", b), np.repeat(np.arange(16.0), 16))


def test_q4_k_scales_without_minimums() -> None:
    b = block("q4_k", at_4=bytes([1, 2, 3, 4, 0, 0, 0, 0, 5, 6, 7, 8]), at_16=bytes([0x11] * 128), d=0.5)
    np.testing.assert_array_equal(values_of("q4_k", b), 0.5 * np.repeat(np.arange(1.0, 9.0), 32))


def test_q4_k_top_bits_of_a_scale_extend_the_one_four_behind() -> None:
    values = values_of("q4_k", block("q4_k", at_4=0xC1, at_16=bytes([0x11] * 128)))
    assert values[0] == 1 and values[128] == 48 and values[32] == 0
    values = values_of("q4_k", block("q4_k", at_8=0xC1, dmin=1.0))
    assert values[0] == -1 and values[128] == -48


@pytest.mark.parametrize("element, bit", [(0, 0), (32, 1), (64, 2), (96, 3), (255, 7)])
def test_q5_k_fifth_bits(element: int, bit: int) -> None:
    fields = {"at_4": bytes([1] * 12), f"at_{16 + element % 32}": 1 << bit}
    values = values_of("q5_k", block("q5_k", **fields))
    assert values[element] == 16 and np.count_nonzero(values) == 1


def test_q6_k_without_code_bits() -> None:
    values = values_of("q6_k", block("q6_k", at_192=bytes([2] * 15 + [0xFF]), d=0.5))
    assert (values[:240] == -32).all() and (values[240:] == 16).all()  # 0xFF is -1


@pytest.mark.parametrize("name", ref.CODES)
def test_every_code(name: str) -> None:
    if name in ("q4_k", "q5_k"):
        scales = bytes([1] * 8 + [0] * 4)
        for code in range(32 if name == "q5_k" else 16):
            fields = {"at_4": scales, "dmin": 0.25, f"at_{ref.BYTES[name] - 128}": bytes([(code & 15) * 17] * 128)}
            if code > 15:
                fields["at_16"] = bytes([0xFF] * 32)
            assert (values_of(name, block(name, **fields))[:128] == code - 0.25).all()
    elif name == "q6_k":
        for code in range(64):
            fields = {"at_0": bytes([(code & 15) * 17] * 128), "at_128": bytes([(code >> 4) * 0x55] * 64)}
            assert (values_of(name, block(name, at_192=bytes([1] * 16), **fields)) == code - 32).all()
    elif name == "q2_k":
        for code in range(4):
            b = block(name, at_0=bytes([0x21] * 16), at_16=bytes([code * 0x55] * 64), dmin=0.5)
            assert (values_of(name, b) == code - 1).all()


# --- Products with one row ------------------------------------------------------------------------------------------


@cache
def seen_on(device_class: int) -> list[dict]:
    return run_on_class(device_class, ref.__file__, str(device_class))


def expected_launch(name: str, dtype: str, rows: int) -> dict:
    size = torch.empty(0, dtype=DTYPES[dtype]).element_size()
    shapes = {  # global, local, sub-group, local memory
        "q4_k": ([(rows + 1) // 2 * 32], [32], 8, 256),
        "q5_k": ([(rows + 1) // 2 * 32], [32], 8, 256),
        "q6_k": ([rows * 32], [32], 32, 0),
        "q2_k": ([rows * 32], [32], 32, 32 * size),
        "iq1_s": ([rows * 32], [32], 32, 0),
        "iq2_xxs": ([(rows * 16 + 16) // 32 * 32, 2], [32, 2], 32, 64 * size),
    }
    over, local, sub_group, memory = shapes[name]
    function = f"qlinear_xpu_kernel_{name}{SUFFIX.get(name, '')}"
    return {
        "kernel": function,
        "instance": C_TYPES[dtype],
        "name": "gridrun_kernel",
        "global": over,
        "local": local,
        "sub_group": sub_group,
        "local_memory": memory,
        "waited": name in SUFFIX,
        "function": function,
        "file": "linear_xpu_kernel",
    }


@pytest.mark.parametrize("name", ref.CODES)
@pytest.mark.parametrize("device_class", DEVICE_OF_CLASS)
def test_every_class_gives_the_bits_with_the_same_launch(device_class: int, name: str) -> None:
    cases = [c for c in seen_on(device_class) if c["format"] == name]
    assert len(cases) == len(ref.SIZES if device_class == 3 else ref.FEW_SIZES) * len(DTYPES)
    for c in cases:
        rows, state = c["size"]
        assert c["differing"] == 0, c
        assert c["launches"][-1] == expected_launch(name, c["dtype"], rows)
        if name in SUFFIX:
            quantizer, _ = c["launches"]
            assert quantizer["kernel"] == quantizer["function"] == "quantize_xpu_kernel_q8_1"
            assert quantizer["global"] == [state] and quantizer["local"] == [256] and quantizer["sub_group"] == 32
            assert quantizer["name"] == "gridrun_kernel" and not quantizer["waited"]
        else:
            assert len(c["launches"]) == 1


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("name", ref.CODES)
def test_wild_scales_multiply_through(name: str, dtype: str) -> None:
    w, x = ref.case(name, dtype, 65, 1280, wild=True)
    got, _ = ref.run(name, dtype, w, x, 65, 1280)
    expected = ref.product(name, dtype, w, x, 65, 1280)
    assert np.isnan(expected).any() and np.isfinite(expected).any()
    assert differing(got, expected) == 0


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("name", ref.CODES)
def test_subnormal_scales_and_inputs(name: str, dtype: str) -> None:
    w, x = ref.case(name, dtype, 9, 768)
    blocks = w[: 27 * ref.BYTES[name]].reshape(27, -1)
    for at in ref.HALVES[name]:
        blocks[:, at + 1] &= 0x83
    smallest = {"float32": 2.0**-140, "float64": 2.0**-1060, "float16": 2.0**-18, "bfloat16": 2.0**-130}[dtype]
    if name not in SUFFIX:  # codes made with a scale that rounds to 0 are not defined
        x = (x * smallest).astype(x.dtype)
        x = ref.Arithmetic(dtype).of(x)
        assert (x[:768] != 0).any()
    got, _ = ref.run(name, dtype, w, x, 9, 768)
    assert differing(got, ref.product(name, dtype, w, x, 9, 768)) == 0


@pytest.mark.parametrize("name", ref.CODES)
def test_agrees_with_dense_algebra(name: str) -> None:
    """In float over 1280 products the error is below 1280 * 2^-24 of the sum of their sizes; with quantized activations
    each is off by at most half a step of 1/127 of its block's largest input, and a scale by 2^-11."""
    w, x = ref.case(name, "float32", 40, 1280)
    dense = ref.values(name, w[: 200 * ref.BYTES[name]].reshape(200, -1)).reshape(40, 1280).astype(np.float64)
    got, _ = ref.run(name, "float32", w, x, 40, 1280)
    exact, size = dense @ x[:1280], np.abs(dense) @ np.abs(x[:1280])
    tolerance = 1280 * 2.0**-24 * size
    if name in SUFFIX:
        step = np.repeat(np.abs(x[:1280]).reshape(-1, 32).max(1), 32) / 127
        tolerance = np.abs(dense) @ (0.5 * step + 2.0**-11 * np.abs(x[:1280])) + 2.0**-11 * 32 * 40 * np.abs(dense).max(1)
    np.testing.assert_array_less(np.abs(got - exact), tolerance)
    assert (tolerance < np.abs(exact).max()).all()


@pytest.mark.parametrize("rows", [1, 2, 3])
@pytest.mark.parametrize("name", ref.CODES)
def test_bytes_behind_the_weight_stay_out(name: str, rows: int) -> None:
    """A row of one block: half of the work-items have nothing, and with an odd number of rows the second row of the last
    group lies behind the weight."""
    results = []
    for behind in (0, 255):
        w, x = ref.case(name, "float32", rows, 256)
        w[-SLACK:] = behind
        got, _ = ref.run(name, "float32", w, x, rows, 256)
        assert differing(got, ref.product(name, "float32", w, x, rows, 256)) == 0
        results.append(got)
    assert differing(*results) == 0


@pytest.mark.parametrize("rows", [1, 3])
@pytest.mark.parametrize("name", ref.CODES)
def test_nothing_is_written_behind_the_result(name: str, rows: int) -> None:
    """The device's memory is the host's, so what lies there can be read."""
    w, x = ref.case(name, "float32", rows, 512)
    weight, inputs = ref.to_device(name, "float32", w, x, 512)
    torch.full((128,), float("nan"), device="xpu")  # freed at once: the memory of the result and of what follows it
    y = orrery_ops.forward_new(inputs, weight, ref.CODES[name], 1)
    assert y.shape == (1, rows) and torch.isfinite(y.cpu()).all()
    assert np.isnan((ctypes.c_float * 2).from_address(y.data_ptr() + 4 * rows)).all()


@pytest.mark.parametrize("name", DIRECT)
def test_a_row_that_is_no_whole_number_of_blocks_is_cut(name: str) -> None:
    """Rows are then state // 256 blocks apart, so all but the first begin too early."""
    w, x = ref.case(name, "float32", 8, 320)
    rows = 8
    assert (len(w) - SLACK) // ref.BYTES[name] * 256 // 320 == rows
    got, _ = ref.run(name, "float32", w, x, rows, 320)
    assert differing(got, ref.product(name, "float32", w, x, rows, 320)) == 0


@pytest.mark.parametrize("name", ref.CODES)
def test_no_rows_is_an_empty_launch(name: str) -> None:
    w, x = ref.case(name, "float32", 0, 256)
    got, launches = ref.run(name, "float32", w, x, 0, 256)
    assert got.shape == (0,) and launches[-1].global_size[0] == 0


@pytest.mark.parametrize("name", ref.CODES)
def test_an_integer_input_is_refused(name: str) -> None:
    weight = torch.zeros(ref.BYTES[name], dtype=torch.uint8, device="xpu")
    with pytest.raises(NotImplementedError) as caught:
        orrery_ops.forward_new(torch.ones(1, 256, dtype=torch.int32, device="xpu"), weight, ref.CODES[name], 1)
    assert str(caught.value).splitlines()[0] == "\"qlinear_forward_xpu\" not implemented for 'Int'"


def all_products() -> list[torch.Tensor]:
    results = []
    for name in ref.CODES:
        for dtype in DTYPES:
            w, x = ref.case(name, dtype, 71, 1280)
            weight, inputs = ref.to_device(name, dtype, w, x, 1280)
            results.append(orrery_ops.forward_new(inputs, weight, ref.CODES[name], 1))
    return results


def test_neither_schedule_nor_threads_show() -> None:
    assert_same_bits_in_any_order("test_super_block", all_products)


# --- Dense values ---------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("dtype", ["float32", "float64"])
@pytest.mark.parametrize("name", ref.CODES)
def test_a_unit_matrix_brings_out_the_values(name: str, dtype: str) -> None:
    """The way over the dense weight: each product has one term that is not zero."""
    blocks = blocks_of(name, 12)
    weight = torch.from_numpy(blocks.ravel()).to("xpu")
    unit = torch.eye(512, dtype=DTYPES[dtype], device="xpu")
    y = orrery_ops.forward_new(unit, weight, ref.CODES[name], 512).cpu().numpy()
    np.testing.assert_array_equal(y.T, ref.values(name, blocks).reshape(6, 512))


@pytest.mark.parametrize("name", ["q2_k", "q4_k"])
def test_selected_rows(name: str) -> None:
    blocks = blocks_of(name, 21, wild=True)
    picked = np.array([[6, 0, 6], [3, 5, 1]])
    weight, index = torch.from_numpy(blocks.ravel()).to("xpu"), torch.from_numpy(picked).to("xpu")
    torch.full((2, 3, 768), float("nan"), device="xpu")  # freed at once: the result's memory
    rows = orrery_ops.dequantize_rows(index, weight, ref.CODES[name], 768).cpu().numpy()
    expected = ref.values(name, blocks).reshape(7, 768)[picked]
    assert differing(rows, np.ascontiguousarray(expected)) == 0


def test_rows_that_end_inside_a_block_share_it() -> None:
    """Three rows of 320 are three whole blocks; what is left of them stays as it was."""
    blocks = blocks_of("iq2_xxs", 4)
    x, weight = torch.ones(1, 320, device="xpu"), torch.from_numpy(blocks.ravel()).to("xpu")
    torch.full((3, 320), float("nan"), device="xpu")  # freed at once: the result's memory
    dense = orrery_ops.dequant(x, weight, 21).cpu().numpy().ravel()
    np.testing.assert_array_equal(dense[:768], ref.values("iq2_xxs", blocks).ravel()[:768])
    assert dense.shape == (960,) and np.isnan(dense[768:]).all()


@pytest.mark.parametrize("name", ["q2_k", "q4_k"])
def test_selected_rows_that_end_inside_a_block(name: str) -> None:
    """One block a row, written one behind the other."""
    blocks = blocks_of(name, 9)
    weight, index = torch.from_numpy(blocks.ravel()).to("xpu"), torch.tensor([[7, 2]], device="xpu")
    torch.full((1, 2, 320), float("nan"), device="xpu")  # freed at once: the result's memory
    rows = orrery_ops.dequantize_rows(index, weight, ref.CODES[name], 320)
    assert rows.shape == (1, 2, 320)
    rows = rows.cpu().numpy().ravel()
    np.testing.assert_array_equal(rows[:512].reshape(2, 256), ref.values(name, blocks)[[7, 2]])
    assert np.isnan(rows[512:]).all()
