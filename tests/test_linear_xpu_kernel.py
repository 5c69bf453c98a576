"""forward_new with one row: every format, type and device class to the bit; edges of formats and sizes; refusals."""

from __future__ import annotations

from functools import cache

import numpy as np
import pytest
import torch

import linear_reference as ref
import orrery_ops
from kernel_reference import assert_same_bits_in_any_order

NAMES = {"float32": "float", "float64": "double", "float16": "c10::Half", "bfloat16": "c10::BFloat16"}
KERNELS = {
    "q4_0": "qlinear_xpu_kernel_q4_0_2x16",
    "q4_1": "qlinear_xpu_kernel_q4_1_2x16",
    "q5_0": "qlinear_xpu_kernel_q5_0",
    "q5_1": "qlinear_xpu_kernel_q5_1",
    "q8_0": "qlinear_xpu_kernel_q8_0_2x8",
    "nf4": "qlinear_xpu_kernel_nf4_2x16",
    "nf3": "qlinear_xpu_kernel_nf3_2x16",
    "fp8_e4m3": "qlinear_xpu_kernel_fp8_e4m3_2x8",
    "fp4": "qlinear_xpu_kernel_fp4_2x16",
    "fp8_e5m2": "qlinear_xpu_kernel_fp8_e5m2_2x8",
    "fp6": "qlinear_xpu_kernel_fp6_2x16",
}
NATIVE_SHAPE = ref.SHAPE_OF_CLASS[3]  # the host's own name is of class 3

seen_on_class = cache(ref.seen_on_class)


@cache
def expected(name: str, dtype: str, rows: int, state: int, shape: tuple) -> np.ndarray:
    return ref.product(name, dtype, *ref.case(name, dtype, rows, state), rows, state, shape)


@pytest.mark.parametrize("dtype", ref.DTYPES)
@pytest.mark.parametrize("name", ref.CODES)
@pytest.mark.parametrize("device_class", ref.DEVICE_OF_CLASS)
def test_every_class_launches_its_instance_and_gives_the_bits(device_class: int, name: str, dtype: str) -> None:
    sub_group, group, _ = ref.SHAPE_OF_CLASS[device_class]
    shape = ref.SHAPE_OF_CLASS[device_class] if name == "q4_0" else (sub_group, group, 2)
    instance = f"{NAMES[dtype]}, {sub_group}, {group}" + (f", {shape[2]}" if name == "q4_0" else "")
    per_group = 1 if name in ("q5_0", "q5_1") else shape[2]
    cases = [c for c in ref.cases_of("row", device_class) if c[:2] == (name, dtype)]
    assert len(cases) >= len(ref.SHAPES) - 1
    for case in cases:
        seen = seen_on_class("row", device_class)[case]
        rows, state = case[2:4]
        assert ref.differing(ref.result_of(seen)[0], expected(name, dtype, rows, state, shape)) == 0, case
        assert (seen["kernel"], seen["instance"], seen["name"]) == (KERNELS[name], instance, "gridrun_kernel")
        assert seen["global"] == [-(-rows // per_group) * group] and seen["local"] == [group]
        assert seen["sub_group"] == sub_group and not seen["waited"]
        assert seen["local_memory"] == per_group * group * torch.empty(0, dtype=ref.DTYPES[dtype]).element_size()


@pytest.mark.parametrize("dtype", ref.DTYPES)
@pytest.mark.parametrize("name", ref.CODES)
def test_wild_scales_multiply_through(name: str, dtype: str) -> None:
    w, x = ref.case(name, dtype, 64, 576, wild=True)
    got, _ = ref.run(name, dtype, w, x, 64, 576)
    assert ref.differing(got[0], ref.product(name, dtype, w, x, 64, 576, NATIVE_SHAPE)) == 0


@pytest.mark.parametrize("name", ref.CODES)
def test_agrees_with_dense_algebra(name: str) -> None:
    """A float64 sum of 576 products is right to 576 * 2^-53 of the sum of their magnitudes; a wrong element or scale in
    place of another is off by more than a millionth of it."""
    w, x = ref.case(name, "float64", 40, 576)
    dense = dense_values(name, w, 40, 576)
    keep = np.isfinite(dense).all(1)
    got, _ = ref.run(name, "float64", w, x, 40, 576)
    assert keep.sum() > 5
    bound = 1e-13 * (np.abs(dense) @ np.abs(x[:576]))
    assert (np.abs(got[0] - dense @ x[:576]) <= bound)[keep].all()


def dense_values(name: str, w: np.ndarray, rows: int, state: int) -> np.ndarray:
    blocks = rows * state // 64
    if name in ref.SPLIT:
        layout = ref.SPLIT[name]
        quants = w[: blocks * layout.quant_bytes]
        plane = w[quants.size :][: layout.scale_bytes * blocks].copy()
        if layout.scale is None:
            scales = np.ones((blocks, 2))
        else:
            scales = plane.view(layout.scale).reshape(blocks, -1).astype(np.float64)
        d, m = scales[:, :1], scales[:, 1:] if name == "q4_1" else 0
        with np.errstate(invalid="ignore"):
            q = ref.VALUES[name].astype(np.float64)[dense_codes(name, quants, blocks)]
    else:
        whole = w[: 44 * blocks].reshape(blocks, 44)
        d, m = np.split(whole[:, :4].copy().view(np.float16), 2, axis=1)
        fifth = np.unpackbits(whole[:, 4:12], axis=1, bitorder="little")
        q = np.concatenate([whole[:, 12:] & 15, whole[:, 12:] >> 4], 1) + 16.0 * fifth
        q, m = (q - 16, 0) if name == "q5_0" else (q, m)
    with np.errstate(all="ignore"):
        return (q * np.asarray(d, np.float64) + np.asarray(m, np.float64)).reshape(rows, state)


def dense_codes(name: str, quants: np.ndarray, blocks: int) -> np.ndarray:
    """Codes of all elements, a block a row, by unpacking whole planes."""
    if name == "nf3":
        block = quants.reshape(blocks, 24)
        bits = np.unpackbits(block[:, 8:], axis=1).reshape(blocks, 64, 2)
        return 4 * np.unpackbits(block[:, :8], axis=1, bitorder="little") + 2 * bits[..., 0] + bits[..., 1]
    if name == "fp6":
        # Bytes of four words, in [block, sixteen, byte, bit]; a code's place in them is the quarter and a byte.
        low = np.unpackbits(quants[: 32 * blocks].reshape(blocks, 4, 2, 4, 1), axis=4)
        top = np.unpackbits(quants[32 * blocks :].reshape(blocks, 4, 4, 1), axis=3)
        codes = np.empty((blocks, 4, 4, 4), np.int64)
        for quarter in range(4):
            for e, byte in enumerate((1, 3, 0, 2)):
                sign, second = top[:, :, byte, 2 * quarter], top[:, :, byte, 2 * quarter + 1]
                nibble = np.packbits(low[:, :, quarter // 2, byte, 4 * (quarter % 2) :][..., :4], axis=2)[..., 0] >> 4
                codes[:, :, quarter, e] = sign * 128 + second * 16 + nibble
        return codes.reshape(blocks, 64)
    if ref.SPLIT[name].quant_bytes == 64:
        return quants.reshape(blocks, 64)
    halves = [quants.reshape(blocks, 32) & 15, quants.reshape(blocks, 32) >> 4]
    return np.concatenate(halves[::-1] if name == "nf4" else halves, 1)


def one_block(name: str, block: bytes, element: int, dtype: torch.dtype = torch.float32) -> float:
    """The value of one element of a block: the product with a unit row."""
    x = torch.zeros(1, 64, dtype=dtype)
    x[0, element] = 1
    weight = torch.frombuffer(bytearray(block), dtype=torch.uint8).to("xpu")
    return float(orrery_ops.forward_new(x.to("xpu"), weight, ref.CODES[name], 1).cpu()[0, 0])


def half(*values: float) -> bytes:
    return np.array(values, np.float16).tobytes()


def test_q4_0_nibbles() -> None:
    quants = bytearray([0x88] * 32)
    quants[3] = 0x2F
    block = bytes(quants) + half(0.5)
    assert one_block("q4_0", block, 3) == 0.5 * 7
    assert one_block("q4_0", block, 35) == 0.5 * -6
    assert one_block("q4_0", block, 4) == 0
    assert one_block("q4_0", bytes([0x00] * 32) + half(0.5), 17) == -4


def quants_of(name: str, code: int) -> bytes:
    """The quant bytes of a block whose elements all have one code."""
    if name == "nf3":
        return bytes([255 * (code >> 2)] * 8 + [(code & 3) * 0x55] * 16)
    if name == "fp6":
        return bytes([(code & 15) * 0x11] * 32 + [(code >> 7 << 1 | code >> 4 & 1) * 0x55] * 16)
    size = ref.SPLIT[name].quant_bytes
    return bytes([code if size == 64 else code * 17] * size)


def codes_of(name: str) -> list[int]:
    count = len(ref.VALUES[name])
    return [c for c in range(count) if name != "fp6" or c & 0x60 == 0]


def scale_bytes(name: str, d: float, m: float = 0) -> bytes:
    layout = ref.SPLIT[name]
    with np.errstate(over="ignore"):
        numbers = np.array([d, m], layout.scale or np.float32)
    return numbers.tobytes()[: layout.scale_bytes]


def value_in(name: str, dtype: str, code: int, d: float, m: float = 0) -> float:
    """A product of one term: T(value) * T(d), added to 0."""
    a, layout = ref.Arithmetic(dtype), ref.SPLIT[name]
    with np.errstate(all="ignore"):
        value = a.of(ref.VALUES[name][code])
        if layout.scale:
            value = a.mul(value, a.of(layout.scale(d)))
        if name == "q4_1":
            value = a.add(value, a.of(layout.scale(m)))
        return a.add(a.of(0), value).item()


@pytest.mark.parametrize("dtype", ref.DTYPES)
@pytest.mark.parametrize("name", ref.SPLIT)
def test_every_code_of_a_split_format(name: str, dtype: str) -> None:
    for i, code in enumerate(codes_of(name)):
        block = quants_of(name, code) + scale_bytes(name, -0.375, 0.5)
        for element in ((5 * i) % 64, (5 * i + 32) % 64):
            got = one_block(name, block, element, ref.DTYPES[dtype])
            np.testing.assert_array_equal(got, value_in(name, dtype, code, -0.375, 0.5), str((code, element)))


@pytest.mark.parametrize("element", range(64))
@pytest.mark.parametrize("name", ref.SPLIT)
def test_every_element_has_its_place(name: str, element: int) -> None:
    quants = np.random.default_rng(element).integers(0, 256, ref.SPLIT[name].quant_bytes).astype(np.uint8)
    if name == "fp8_e5m2":
        quants &= 0xBF  # no NaN
    code = int(dense_codes(name, quants, 1).ravel()[element])
    got = one_block(name, quants.tobytes() + scale_bytes(name, 2), element)
    assert got == value_in(name, "float32", code, 2)


WILD = [0.0, -0.0, 2.0**-24, -(2.0**-24), 65504.0, 1e-40, 3e38, np.inf, -np.inf, np.nan]


@pytest.mark.parametrize("dtype", ref.DTYPES)
@pytest.mark.parametrize("name", ref.SPLIT)
def test_scales_at_the_ends_of_their_range(name: str, dtype: str) -> None:
    codes = codes_of(name)
    x = ref.Arithmetic(dtype).of(np.random.default_rng(5).standard_normal(64 + ref.SLACK))
    for i, scale in enumerate(WILD):
        quants = quants_of(name, codes[(7 * i + 3) % len(codes)])
        w = np.frombuffer(quants + scale_bytes(name, scale) + bytes(ref.SLACK), np.uint8).copy()
        got, _ = ref.run(name, dtype, w, x, 1, 64)
        assert ref.differing(got[0], ref.product(name, dtype, w, x, 1, 64, NATIVE_SHAPE)) == 0, scale


@pytest.mark.parametrize("dtype", ref.DTYPES.values())
def test_every_code_of_q5(dtype: torch.dtype) -> None:
    for code in range(32):
        fifth = (2**64 - 1 if code > 15 else 0).to_bytes(8, "little")
        quants = bytes([(code & 15) * 17] * 32)
        assert one_block("q5_0", half(2, np.nan) + fifth + quants, 63, dtype) == 2 * (code - 16)
        assert one_block("q5_1", half(2, 0.5) + fifth + quants, 31, dtype) == 2 * code + 0.5


def test_nf4_has_the_high_nibble_first() -> None:
    block = bytes([0xF0] + [0x77] * 31) + half(0.5)
    assert one_block("nf4", block, 0) == 0.5
    assert one_block("nf4", block, 32) == -0.5


def test_nf3_bits() -> None:
    high = b"\xff" * 8 + b"\0" * 16 + half(2)
    assert [one_block("nf3", high, e) for e in range(4)] == [2 * np.float32(0.16093020141124725)] * 4
    low = b"\0" * 8 + b"\x1b" + b"\0" * 15 + half(1)
    assert [one_block("nf3", low, e) for e in range(4)] == list(ref.VALUES["nf3"][:4])


def test_fp4_has_no_zero() -> None:
    assert one_block("fp4", bytes([0x80] * 32) + half(1), 3) == 0.03125
    assert one_block("fp4", bytes([0x80] * 32) + half(1), 35) == -0.03125


def test_fp8_e4m3_small_and_large_codes() -> None:
    values = {0x00: 0, 0x80: 0, 0x08: 2**-6, 0x01: 2**-9, 0x81: -(2**-9), 0x7F: 480, 0x78: 256, 0xFF: -480}
    for code, value in values.items():
        assert one_block("fp8_e4m3", bytes([code] * 64) + np.float32(1).tobytes(), 5) == value


def test_fp8_e5m2_is_between_codes_and_ignores_its_scale() -> None:
    assert one_block("fp8_e5m2", bytes([0x3C] * 64) + np.float32(7).tobytes(), 5) == 1.125
    assert one_block("fp8_e5m2", bytes(64) + np.float32(np.nan).tobytes(), 5) == 2.0**-17
    assert np.isnan(one_block("fp8_e5m2", bytes([0x7C] * 64) + np.float32(1).tobytes(), 5))


def test_fp6_without_bits_is_not_zero() -> None:
    assert one_block("fp6", bytes(48) + half(1), 5) == 2.0**-17


def test_q5_0_top_element() -> None:
    quants = bytearray(32)
    quants[31] = 0xF0
    assert one_block("q5_0", half(2, np.nan) + (1 << 63).to_bytes(8, "little") + bytes(quants), 63) == 15 * 2


def test_q5_1_with_an_offset_of_minus_16_is_q5_0() -> None:
    tail = np.random.default_rng(3).integers(0, 256, 40).astype(np.uint8).tobytes()
    for element in range(64):
        assert one_block("q5_1", half(1, -16) + tail, element) == one_block("q5_0", half(1, 5) + tail, element)


def test_infinity_times_zero_is_not_a_number() -> None:
    assert np.isnan(one_block("q4_0", bytes([0x88] * 32) + half(np.inf), 0))


def test_a_half_row_overflows_inside_the_sum() -> None:
    x = torch.tensor([60000.0, -60000.0] * 32, dtype=torch.float16).view(1, 64).to("xpu")
    weight = torch.frombuffer(bytearray(bytes([0xFF] * 32) + half(0.001)), dtype=torch.uint8).to("xpu")
    assert not torch.isfinite(orrery_ops.forward_new(x, weight, 2, 1).cpu()).any()


def test_no_rows_is_an_empty_launch() -> None:
    w, x = ref.case("q4_0", "float32", 0, 64)
    got, launches = ref.run("q4_0", "float32", w, x, 0, 64)
    assert got.shape == (1, 0) and [launch.global_size for launch in launches] == [(0,)]


def test_a_remainder_of_bytes_is_dropped() -> None:
    weight = torch.zeros(35, dtype=torch.uint8, device="xpu")
    assert orrery_ops.forward_new(torch.ones(1, 64, device="xpu"), weight, 2, 1).shape == (1, 1)


@pytest.mark.parametrize(
    "n, code, state, text",
    [
        (1, 2, 1000, "%d must be a multiple of %d100016"),
        (1, 3, 72, "%d must be a multiple of %d7216"),
        (1, 8, 1004, "%d must be a multiple of %d10048"),
        (1, 10, 72, "%d must be a multiple of %d7216"),
        (1, 11, 8, "%d must be a multiple of %d816"),
        (1, 15, 100, "%d must be a multiple of %d1008"),
        (1, 16, 24, "%d must be a multiple of %d2416"),
        (1, 19, 68, "%d must be a multiple of %d688"),
        (1, 29, 120, "%d must be a multiple of %d12016"),
        (2, 2, 1000, "%d must be a multiple of %d100016"),
        (8, 2, 1000, "%d must be a multiple of %d100016"),
        (2, 3, 72, "%d must be a multiple of %d7216"),
        (2, 8, 1004, "%d must be a multiple of %d10048"),
        (2, 10, 8, "%d must be a multiple of %d816"),
        (2, 16, 24, "%d must be a multiple of %d2416"),
        (2, 19, 68, "%d must be a multiple of %d688"),
    ],
)
def test_a_row_that_is_no_whole_number_of_runs_is_refused(n: int, code: int, state: int, text: str) -> None:
    weight = torch.zeros(4096, dtype=torch.uint8, device="xpu")
    with pytest.raises(RuntimeError) as caught:
        orrery_ops.forward_new(torch.ones(n, state, device="xpu"), weight, code, 1)
    assert str(caught.value).splitlines()[0] == text


@pytest.mark.parametrize("n", [1, 2])
def test_an_integer_input_is_refused(n: int) -> None:
    weight = torch.zeros(34, dtype=torch.uint8, device="xpu")
    with pytest.raises(NotImplementedError) as caught:
        orrery_ops.forward_new(torch.ones(n, 64, dtype=torch.int32, device="xpu"), weight, 2, 1)
    assert str(caught.value).splitlines()[0] == "\"qlinear_forward_xpu\" not implemented for 'Int'"


def all_products() -> list[torch.Tensor]:
    results = []
    for name in ref.CODES:
        for dtype in ref.DTYPES:
            w, x = ref.case(name, dtype, 99, 576)
            weight, inputs = ref.to_device(name, dtype, w, x, 99, 576)
            results.append(orrery_ops.forward_new(inputs, weight, ref.CODES[name], 1))
    return results


def test_neither_schedule_nor_threads_show() -> None:
    assert_same_bits_in_any_order("test_linear_xpu_kernel", all_products)
