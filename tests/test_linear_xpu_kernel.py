"""forward_new with one row: every format, type and device class to the bit; the edges of formats and sizes; refusals."""

from __future__ import annotations

import json
import os
import subprocess
import sys
from functools import cache
from pathlib import Path

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
}
NATIVE_SHAPE = ref.SHAPE_OF_CLASS[3]  # the host's own name is of class 3


@cache
def seen_on(device_class: int) -> list[dict]:
    run = subprocess.run(
        [sys.executable, str(Path(ref.__file__)), str(device_class)],
        env={**os.environ, "ORRERY_HOST_DEVICE_NAME": ref.DEVICE_OF_CLASS[device_class]},
        capture_output=True,
        text=True,
        check=False,
    )
    assert run.returncode == 0, run.stderr
    return json.loads(run.stdout)


@pytest.mark.parametrize("dtype", ref.DTYPES)
@pytest.mark.parametrize("name", ref.CODES)
@pytest.mark.parametrize("device_class", ref.DEVICE_OF_CLASS)
def test_every_class_launches_its_instance_and_gives_the_bits(device_class: int, name: str, dtype: str) -> None:
    sub_group, group, rows = ref.SHAPE_OF_CLASS[device_class]
    instance = f"{NAMES[dtype]}, {sub_group}, {group}"
    if name == "q4_0":
        instance += f", {rows}"
    per_group = {"q4_0": rows, "q5_0": 1, "q5_1": 1}.get(name, 2)
    cases = [c for c in seen_on(device_class) if c["format"] == name and c["dtype"] == dtype]
    assert len(cases) >= len(ref.SHAPES) - 1
    for c in cases:
        assert c["differing"] == 0, c
        assert (c["kernel"], c["instance"], c["name"]) == (KERNELS[name], instance, "gridrun_kernel")
        assert c["global"] == -(-c["size"][0] // per_group) * group and c["local"] == group
        assert c["sub_group"] == sub_group and not c["waited"]
        assert c["local_memory"] == per_group * group * torch.empty(0, dtype=ref.DTYPES[dtype]).element_size()


@pytest.mark.parametrize("dtype", ref.DTYPES)
@pytest.mark.parametrize("name", ref.CODES)
def test_wild_scales_multiply_through(name: str, dtype: str) -> None:
    w, x = ref.case(name, dtype, 64, 576, wild=True)
    got, _ = ref.run(name, dtype, w, x, 64, 576)
    assert ref.differing(got, ref.product(name, dtype, w, x, 64, 576, NATIVE_SHAPE)) == 0


@pytest.mark.parametrize("name", ref.CODES)
def test_agrees_with_dense_algebra(name: str) -> None:
    """float64 sums of 576 products of numbers near 1 are right to about 576 * 2^-53; the wrong element or scale is
    off by more than 1e-3."""
    w, x = ref.case(name, "float64", 40, 576)
    w = w.copy()
    dense = dense_values(name, w, 40, 576)
    dense[~np.isfinite(dense)] = 0
    keep = np.isfinite(dense_values(name, w, 40, 576)).all(1) & (np.abs(dense).max(1) < 1e3)
    got, _ = ref.run(name, "float64", w, x, 40, 576)
    assert keep.sum() > 5
    np.testing.assert_allclose(got[keep], (dense @ x[:576])[keep], rtol=0, atol=1e-8)


def dense_values(name: str, w: np.ndarray, rows: int, state: int) -> np.ndarray:
    blocks = rows * state // 64
    if name in ref.QUANT_BYTES:
        quants = w[: blocks * ref.QUANT_BYTES[name]].reshape(blocks, -1)
        plane = w[quants.size :]
        if name == "q8_0":
            q, d, m = quants.view(np.int8).astype(float), plane[: 4 * blocks].copy().view(np.float32)[:, None], 0
        else:
            q = np.concatenate([quants & 15, quants >> 4], 1).astype(float)
            halves = plane[: ref.SCALE_BYTES[name] * blocks].copy().view(np.float16).reshape(blocks, -1)
            d, m = (halves[:, :1], halves[:, 1:]) if name == "q4_1" else (halves, 0)
            q -= 8 * (name == "q4_0")
    else:
        whole = w[: 44 * blocks].reshape(blocks, 44)
        d, m = np.split(whole[:, :4].copy().view(np.float16), 2, axis=1)
        fifth = np.unpackbits(whole[:, 4:12], axis=1, bitorder="little")
        q = np.concatenate([whole[:, 12:] & 15, whole[:, 12:] >> 4], 1) + 16.0 * fifth
        q, m = (q - 16, 0) if name == "q5_0" else (q, m)
    with np.errstate(all="ignore"):
        return (q * np.asarray(d, np.float64) + np.asarray(m, np.float64)).reshape(rows, state)


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


@pytest.mark.parametrize("dtype", ref.DTYPES.values())
def test_every_code_of_every_format(dtype: torch.dtype) -> None:
    for code in range(16):
        quants = bytes([code | (15 - code) << 4] * 32)
        assert one_block("q4_0", quants + half(2), 9, dtype) == 2 * (code - 8)
        assert one_block("q4_0", quants + half(2), 41, dtype) == 2 * (7 - code)
        assert one_block("q4_1", quants + half(2, 0.5), 9, dtype) == 2 * code + 0.5
    for code in range(32):
        fifth = (2**64 - 1 if code > 15 else 0).to_bytes(8, "little")
        quants = bytes([(code & 15) * 17] * 32)
        assert one_block("q5_0", half(2, np.nan) + fifth + quants, 63, dtype) == 2 * (code - 16)
        assert one_block("q5_1", half(2, 0.5) + fifth + quants, 31, dtype) == 2 * code + 0.5
    for code in range(256):
        block = bytes([code] * 64) + np.float32(0.5).tobytes()
        assert one_block("q8_0", block, code % 64, dtype) == 0.5 * np.int8(code if code < 128 else code - 256)


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
    assert got.shape == (0,) and [launch.global_size for launch in launches] == [(0,)]


def test_a_remainder_of_bytes_is_dropped() -> None:
    weight = torch.zeros(35, dtype=torch.uint8, device="xpu")
    assert orrery_ops.forward_new(torch.ones(1, 64, device="xpu"), weight, 2, 1).shape == (1, 1)


@pytest.mark.parametrize(
    "code, state, text",
    [
        (2, 1000, "%d must be a multiple of %d100016"),
        (3, 72, "%d must be a multiple of %d7216"),
        (8, 1004, "%d must be a multiple of %d10048"),
    ],
)
def test_a_row_that_is_no_whole_number_of_runs_is_refused(code: int, state: int, text: str) -> None:
    weight = torch.zeros(4096, dtype=torch.uint8, device="xpu")
    with pytest.raises(RuntimeError) as caught:
        orrery_ops.forward_new(torch.ones(1, state, device="xpu"), weight, code, 1)
    assert str(caught.value).splitlines()[0] == text


def test_an_integer_input_is_refused() -> None:
    weight = torch.zeros(34, dtype=torch.uint8, device="xpu")
    with pytest.raises(NotImplementedError) as caught:
        orrery_ops.forward_new(torch.ones(1, 64, dtype=torch.int32, device="xpu"), weight, 2, 1)
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
