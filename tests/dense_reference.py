"""Dense values of every weight format, in numpy, from the bytes and by the formats' value rules.

Run as a program it checks formats, types and sizes on the device that ORRERY_HOST_DEVICE_NAME names and prints what it
saw as JSON: a device's class is fixed when the module loads, so each class needs a process of its own.
"""

from __future__ import annotations

import json
import os
import sys
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

import numpy as np
import torch

import orrery_host
import orrery_ops
from linear_reference import DTYPES, Arithmetic, differing, numbers

CODES = {
    "q4_0": 2, "q4_1": 3, "q5_0": 6, "q5_1": 7, "q8_0": 8, "nf4": 10, "nf3": 11, "fp8_e4m3": 15, "fp4": 16,
    "fp8_e5m2": 19, "iq2_xxs": 21, "q2_k": 23, "iq1_s": 24, "q6_k": 26, "q4_k": 27, "q5_k": 28, "fp6": 29,
}  # fmt: skip
BLOCK = {
    "q4_0": (64, 34), "q4_1": (64, 36), "q5_0": (64, 44), "q5_1": (64, 44), "q8_0": (64, 68), "nf4": (64, 34),
    "nf3": (64, 26), "fp8_e4m3": (64, 68), "fp4": (64, 34), "fp8_e5m2": (64, 68), "iq2_xxs": (256, 66),
    "q2_k": (256, 84), "iq1_s": (256, 50), "q6_k": (256, 210), "q4_k": (256, 144), "q5_k": (256, 176), "fp6": (64, 50),
}  # fmt: skip
SPLIT = {  # quant bytes of a block, the scales' type, scales of a block
    "q4_0": (32, np.float16, 1), "q4_1": (32, np.float16, 2), "q8_0": (64, np.float32, 1), "nf4": (32, np.float16, 1),
    "nf3": (24, np.float16, 1), "fp8_e4m3": (64, np.float32, 1), "fp4": (32, np.float16, 1),
    "fp8_e5m2": (64, np.float32, 1), "fp6": (48, np.float16, 1),
}  # fmt: skip
HALVES = {  # byte positions of the halves in a block that keeps all bytes together
    "q5_0": (0, 2), "q5_1": (0, 2), "iq2_xxs": (0,), "iq1_s": (0,), "q2_k": (80, 82), "q4_k": (0, 2), "q5_k": (0, 2),
    "q6_k": (208,),
}  # fmt: skip
EXPLICIT = {"q4_0": 8, "q4_1": 8, "q8_0": 4, "fp4": 8, "fp6": 8, "fp8_e5m2": 4}  # blocks a work-item
DEQUANT = ("q4_0", "q4_1", "q8_0", "nf4", "fp8_e4m3", "fp4", "fp8_e5m2", "iq2_xxs")  # served by the operation
TILED = ("q4_0", "q8_0", "fp8_e5m2")

NF4 = np.array(
    [-1.0, -0.6961928009986877, -0.5250730514526367, -0.39491748809814453, -0.28444138169288635, -0.18477343022823334,
     -0.09105003625154495, 0.0, 0.07958029955625534, 0.16093020141124725, 0.24611230194568634, 0.33791524171829224,
     0.44070982933044434, 0.5626170039176941, 0.7229568362236023, 1.0], np.float32)  # fmt: skip
NF3 = np.array(
    [-1.0, -0.4786292016506195, -0.217141792178154, 0.0, 0.16093020141124725, 0.33791524171829224, 0.5626170039176941,
     1.0], np.float32)  # fmt: skip
FP4 = np.array([0.03125, 0.5, 1, 1.5, 2, 3, 4, 6], np.float32)
FP4 = np.concatenate([FP4, -FP4])

DATA = Path(__file__).resolve().parent.parent / "formats" / "data"


def grid(name: str) -> np.ndarray:
    return np.array([int(line, 16) for line in (DATA / name).read_text().split()], np.uint64)


def nibbles(quants: np.ndarray, high_first: bool = False) -> np.ndarray:
    """Elements 0 to 63 of blocks of 32 bytes."""
    halves = [quants & 15, quants >> 4]
    return np.concatenate(halves[::-1] if high_first else halves, axis=1).astype(np.int64)


def fp8_e4m3_numbers() -> np.ndarray:
    code = np.arange(256)
    exponent, mantissa = code >> 3 & 15, code & 7
    magnitude = np.where(exponent == 0, mantissa * 2.0**-9, (1 + mantissa / 8) * 2.0 ** (exponent - 7))
    return np.where(code > 127, -magnitude, magnitude).astype(np.float32)


def fp6_codes(low: np.ndarray, top: np.ndarray) -> np.ndarray:
    """The upper byte of each element's half, by word and quarter as the format has them."""
    words, tops = low.copy().view(np.uint32), top.copy().view(np.uint32)
    code = np.zeros((len(low), 64), np.uint32)
    for group in range(4):
        for i in range(4):
            a = tops[:, group] << np.uint32(2 * i)
            b = words[:, 2 * group + i // 2] << np.uint32(4 * (i % 2))
            shifted = (a & 0x40404040) | (b >> np.uint32(2) & 0x3C3C3C3C)
            v = (a & 0x80808080) | (shifted >> np.uint32(2))
            for element, byte in enumerate((1, 3, 0, 2)):
                code[:, 16 * group + 4 * i + element] = v >> np.uint32(8 * byte) & 0xFF
    return code


def half_of_bits(bits: np.ndarray) -> np.ndarray:
    return bits.astype(np.uint16).view(np.float16)


def split_values(name: str, a: Arithmetic, w: np.ndarray, blocks: int) -> np.ndarray:
    size, kind, count = SPLIT[name]
    quants = w[: blocks * size].reshape(blocks, size)
    end = blocks * (size + np.dtype(kind).itemsize * count)
    scales = w[blocks * size : end].copy().view(kind).reshape(blocks, count)
    d = a.of(scales[:, :1])
    if name == "q4_0":
        return a.mul(d, a.of(nibbles(quants) - 8))
    if name == "q4_1":
        return a.add(a.mul(d, a.of(nibbles(quants))), a.of(scales[:, 1:]))
    if name == "q8_0":
        return a.mul(d, a.of(quants.view(np.int8)))
    if name == "nf4":
        return a.mul(d, a.of(NF4[nibbles(quants, high_first=True)]))
    if name == "fp4":
        return a.mul(d, a.of(FP4[nibbles(quants)]))
    if name == "fp8_e4m3":
        return a.mul(a.of(fp8_e4m3_numbers()[quants]), d)
    if name == "fp8_e5m2":
        half = half_of_bits(quants.astype(np.uint16) << 8 | 0x80)
        return half if a.dtype == "float16" else a.of(half)
    if name == "fp6":
        whole = w[: blocks * size]
        low, top = whole[: 32 * blocks].reshape(blocks, 32), whole[32 * blocks :].reshape(blocks, 16)
        return a.mul(a.of(half_of_bits(fp6_codes(low, top) << 8 | 0x80)), d)
    assert name == "nf3"
    top = np.unpackbits(quants[:, :8], axis=1, bitorder="little").astype(np.int64)
    low = np.repeat(quants[:, 8:], 4, axis=1) >> np.tile([6, 4, 2, 0], 16) & 3
    return a.of(NF3[4 * top + low] * scales[:, :1].astype(np.float32))


def q5_values(name: str, a: Arithmetic, block: np.ndarray) -> np.ndarray:
    q = nibbles(block[:, 12:]) + 16 * np.unpackbits(block[:, 4:12], axis=1, bitorder="little").astype(np.int64)
    d, m = np.split(block[:, :4].copy().view(np.float16), 2, axis=1)
    if name == "q5_1":
        return a.add(a.mul(a.of(d), a.of(q)), a.of(m))
    scale = a.of(d).astype(np.float32) if a.dtype == "bfloat16" else d.astype(np.float32)
    return a.of((q.astype(np.float32) + np.float32(-16)) * scale)


def packed_scales(bytes12: np.ndarray) -> tuple[np.ndarray, np.ndarray]:
    """The eight 6-bit scales and minimums of q4_k and q5_k."""
    s = bytes12.astype(np.int64)
    scale, minimum = np.zeros((len(s), 8), np.int64), np.zeros((len(s), 8), np.int64)
    for j in range(8):
        if j < 4:
            scale[:, j], minimum[:, j] = s[:, j] & 63, s[:, j + 4] & 63
        else:
            scale[:, j] = s[:, j + 4] & 15 | s[:, j - 4] >> 2 & 48
            minimum[:, j] = s[:, j + 4] >> 4 | s[:, j] >> 2 & 48
    return scale, minimum


def block_values(name: str, block: np.ndarray) -> np.ndarray:
    """Values of formats of 256 elements, in float."""
    f = np.float32
    e = np.arange(256)
    half = {at: block[:, at : at + 2].copy().view(np.float16).astype(f) for at in HALVES[name]}
    if name == "q2_k":
        n, g, line = e // 128, e % 128 // 32, e % 32
        q = block[:, 16 + 32 * n + line] >> (2 * g) & 3
        s = block[:, 8 * n + line // 16 + 2 * g]
        return (half[80] * (s & 15).astype(f)) * q.astype(f) - half[82] * (s >> 4).astype(f)
    if name == "q6_k":
        n, g, line = e // 128, e % 128 // 32, e % 32
        nibble = block[:, 64 * n + 32 * (g & 1) + line] >> (4 * (g // 2)) & 15
        q = (nibble.astype(np.int64) | (block[:, 128 + 32 * n + line].astype(np.int64) >> 2 * g & 3) << 4) - 32
        s = block[:, 192:208].copy().view(np.int8)[:, 8 * n + line // 16 + 2 * g]
        return (half[208] * s.astype(f)) * q.astype(f)
    if name in ("q4_k", "q5_k"):
        p, h, line = e // 64, e % 64 // 32, e % 32
        scale, minimum = packed_scales(block[:, 4:16])
        start = 16 if name == "q4_k" else 48
        q = (block[:, start + 32 * p + line] >> (4 * h) & 15).astype(np.int64)
        if name == "q5_k":
            q += 16 * (block[:, 16 + line].astype(np.int64) >> (2 * p + h) & 1)
        j = 2 * p + h
        return (half[0] * scale[:, j].astype(f)) * q.astype(f) - half[2] * minimum[:, j].astype(f)
    ib, g, j = e // 32, e % 32 // 8, e % 8
    words = block[:, 2:66].astype(np.int64)
    if name == "iq2_xxs":
        a = sum(words[:, 8 * ib + 4 + k] << (8 * k) for k in range(4))
        db = ((a >> 28 & 15).astype(f) + f(0.5)) * half[0] * f(0.25)
        magnitude = grid("iq2xxs_grid.txt")[words[:, 8 * ib + g]] >> (8 * j).astype(np.uint64) & np.uint64(0xFF)
        sign = a >> 7 * g & 127
        parity = sum(sign >> k & 1 for k in range(7)) & 1
        value = db * magnitude.astype(f)
        return np.where((sign | parity << 7) >> j & 1, -value, value)
    assert name == "iq1_s"
    qh = block[:, 34 + 2 * ib].astype(np.int64) | block[:, 35 + 2 * ib].astype(np.int64) << 8
    entry = grid("iq1s_grid.txt")[words[:, 4 * ib + g] | (qh >> 3 * g & 7) << 8].astype(np.int64)
    v = entry >> (8 * (j % 4) + 4 * (j // 4)) & 15
    dl = half[0] * (2 * (qh >> 12 & 7) + 1).astype(f)
    return dl * (np.where(qh >> 15 & 1, f(-1.125), f(-0.875)) + v.astype(f))


def values(name: str, dtype: str, w: np.ndarray, rows: int, state: int) -> np.ndarray:
    """The dense matrix in the type, bfloat16 as float32."""
    a = Arithmetic(dtype)
    elements, size = BLOCK[name]
    blocks = rows * state // elements
    with np.errstate(all="ignore"):
        if name in SPLIT:
            dense = split_values(name, a, w, blocks)
        else:
            block = w[: blocks * size].reshape(blocks, size)
            dense = q5_values(name, a, block) if elements == 64 else a.of(block_values(name, block))
    return dense.reshape(rows, state)


def explicit_values(name: str, dtype: str, w: np.ndarray, rows: int, state: int) -> np.ndarray:
    """What the explicit-SIMD kernels give: halves, widened."""
    return values(name, "float16", w, rows, state).astype(Arithmetic(dtype).numpy)


WILD_HALVES = np.array(
    [0x0000, 0x8000, 0x0001, 0x8001, 0x03FF, 0x0400, 0x7BFF, 0xFBFF, 0x7C00, 0xFC00, 0x7E01, 0xFD55, 0x3C00, 0x1401],
    np.uint16,
).view(np.float16)
WILD_FLOATS = np.array(
    [0x00000000, 0x80000000, 0x00000001, 0x807FFFFF, 0x00800000, 0x7F7FFFFF, 0xFF7FFFFF, 0x7F800000, 0xFF800000,
     0x7FC00000, 0x7F900001, 0x477FEFFF, 0x477FF000, 0x33000000, 0x33000001, 0x387FE000, 0x3F801000, 0x3F803000],
    np.uint32,
).view(np.float32)  # fmt: skip


def weight(name: str, rows: int, state: int, wild: bool = False) -> np.ndarray:
    """Random bytes in which every byte value occurs, with scales near 1, or all the odd ones among them."""
    generator = np.random.default_rng(1000 * rows + state)
    elements, size = BLOCK[name]
    blocks = rows * state // elements
    w = generator.integers(0, 256, blocks * size).astype(np.uint8)
    if name in SPLIT:
        quants, kind, count = SPLIT[name]
        w[: min(256, blocks * quants)] = np.arange(min(256, blocks * quants))
        plane = w[blocks * quants :].view(kind)
        put_scales(plane, generator, wild)
    else:
        block = w.reshape(blocks, size)
        for at in HALVES[name]:
            scales = np.zeros(blocks, np.float16)
            put_scales(scales, generator, wild)
            block[:, at : at + 2] = scales.view(np.uint8).reshape(blocks, 2)
    return w


def put_scales(scales: np.ndarray, generator: np.random.Generator, wild: bool) -> None:
    tame = generator.standard_normal(scales.shape).astype(scales.dtype)
    odd = generator.choice(WILD_HALVES if scales.dtype == np.float16 else WILD_FLOATS, scales.shape)
    scales[...] = np.where(generator.random(scales.shape) < 0.7, odd, tame) if wild else tame


def to_device(array: np.ndarray, dtype: str = "") -> torch.Tensor:
    tensor = torch.from_numpy(array)
    return (tensor.to(DTYPES[dtype]) if dtype else tensor).to("xpu")


def dequant(name: str, dtype: str, w: np.ndarray, state: int) -> torch.Tensor:
    rows = len(w) // BLOCK[name][1] * BLOCK[name][0] // state
    torch.full((rows, state), float("nan"), dtype=DTYPES[dtype], device="xpu")  # freed at once: the result's memory
    return orrery_ops.dequant(torch.empty(0, state, dtype=DTYPES[dtype], device="xpu"), to_device(w), CODES[name])


def dense_scratch(
    name: str, dtype: str, w: np.ndarray, rows: int, state: int, n: int
) -> tuple[torch.Tensor, torch.Tensor, np.ndarray, list]:
    """Input, result, and the dense weight that forward_new made on the way. It is freed last and lies where the next
    tensor of its size comes to lie; where it will lie is filled with NaN before."""
    x = torch.randn(n, state, generator=torch.Generator().manual_seed(n)).to(DTYPES[dtype]).to("xpu")
    weight_there = to_device(w)
    place = torch.full((rows, state), float("nan"), dtype=DTYPES[dtype], device="xpu").data_ptr()
    with orrery_host.record_launches() as launches:
        y = orrery_ops.forward_new(x, weight_there, CODES[name], 1)
    dense = torch.empty((rows, state), dtype=DTYPES[dtype], device="xpu")
    assert dense.data_ptr() == place
    return x, y, numbers(dense), launches


@contextmanager
def variables(**values: str) -> Iterator[None]:
    before = {name: os.environ.get(name) for name in values}
    os.environ.update(values)
    try:
        yield
    finally:
        for name, value in before.items():
            if value is None:
                del os.environ[name]
            else:
                os.environ[name] = value


def as_dict(launch: orrery_host.Launch) -> dict:
    return {
        "name": launch.name,
        "kernel": launch.kernel,
        "instance": launch.instance,
        "global": launch.global_size[0],
        "local": launch.local_size[0],
        "sub_group": launch.sub_group_size,
        "waited": launch.waited,
        "memory": launch.local_memory,
        "file": launch.file,
    }


# Rows that neither the vector kernels nor the matrix engine take; a multiple of 8 blocks for the explicit-SIMD ones.
SHAPES = {64: ((8, 64), (8, 128), (24, 192), (8, 320), (8, 512), (8, 576), (8, 1088), (3, 2048))}
SHAPES[256] = ((3, 256), (1, 512), (5, 768))
TILES = ((23, 192), (23, 128), (7, 1024), (9, 512))
TILE_SIZES = (1, 5, 23, 100)


def seen_dequant() -> Iterator[dict]:
    for name in DEQUANT:
        for dtype in DTYPES:
            for rows, state in SHAPES[BLOCK[name][0]]:
                w = weight(name, rows, state, wild=True)
                with orrery_host.record_launches() as launches:
                    got = numbers(dequant(name, dtype, w, state))
                bad = differing(got, values(name, dtype, w, rows, state))
                yield {"what": "dequant", "format": name, "dtype": dtype, "size": [rows, state], "differing": bad,
                       "launches": [as_dict(launch) for launch in launches]}  # fmt: skip


def seen_whole() -> Iterator[dict]:
    for name in CODES:
        for dtype in DTYPES:
            if name == "fp6" and dtype not in ("float32", "float16"):
                continue
            for rows, state in SHAPES[BLOCK[name][0]]:
                w = weight(name, rows, state, wild=True)
                x, y, got, launches = dense_scratch(name, dtype, w, rows, state, 70)
                explicit = name in EXPLICIT and dtype in ("float32", "float16")
                want = (explicit_values if explicit else values)(name, dtype, w, rows, state)
                same = torch.equal(y.nan_to_num(), torch.nn.functional.linear(x, to_device(got, dtype)).nan_to_num())
                yield {"what": "whole", "format": name, "dtype": dtype, "size": [rows, state],
                       "differing": differing(got, want), "product": same and list(y.shape) == [70, rows],
                       "launches": [as_dict(launch) for launch in launches]}  # fmt: skip


def seen_tiles(device_class: int) -> Iterator[dict]:
    for name in TILED if device_class == 1 else TILED[:1]:
        for dtype in DTYPES:
            for rows, state in TILES:
                w = weight(name, rows, state)
                if name == "fp8_e5m2":  # no NaN in the product
                    w[w & 0x7C == 0x7C] ^= 4
                one = torch.eye(state, dtype=DTYPES[dtype], device="xpu")
                want = values(name, dtype, w, rows, state)
                for size in TILE_SIZES:
                    torch.full((state, rows), float("nan"), dtype=DTYPES[dtype], device="xpu")
                    with variables(TILE_THRESHOLD="6", TILE_SIZE=str(size), KELPIE_LLM_LOW_MEM="1"):
                        with orrery_host.record_launches() as launches:
                            y = orrery_ops.forward_new(one, to_device(w), CODES[name], 129)
                    bad = int((numbers(y) != want.T).sum())
                    yield {"what": "tile", "format": name, "dtype": dtype, "size": [rows, state], "differing": bad,
                           "tile": size, "launches": [as_dict(launch) for launch in launches]}  # fmt: skip


def main() -> None:
    print(json.dumps([*seen_dequant(), *seen_whole(), *seen_tiles(int(sys.argv[1]))]))


if __name__ == "__main__":
    main()
