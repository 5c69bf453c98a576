"""y = W x for one row, from the bytes and in the order of additions of the kernels, in numpy.

Run as a program it checks every format, type and shape on the device that ORRERY_HOST_DEVICE_NAME names and prints what
it saw as JSON: a device's class is fixed when the module loads, so each class needs a process of its own.
"""

from __future__ import annotations

import json
import sys
from dataclasses import dataclass

import numpy as np
import torch

import orrery_host
import orrery_ops

CODES = {"q4_0": 2, "q4_1": 3, "q5_0": 6, "q5_1": 7, "q8_0": 8}
QUANT_BYTES = {"q4_0": 32, "q4_1": 32, "q8_0": 64}
SCALE_BYTES = {"q4_0": 2, "q4_1": 4, "q8_0": 4}
BLOCK_BYTES = {"q4_0": 34, "q4_1": 36, "q5_0": 44, "q5_1": 44, "q8_0": 68}
DTYPES = {"float32": torch.float32, "float64": torch.float64, "float16": torch.float16, "bfloat16": torch.bfloat16}
SHAPES = [(1, 64), (2, 64), (3, 1088), (7, 576), (19, 192), (33, 1536), (99, 320), (5, 80), (3, 2064)]
SLACK = 4096  # bytes and elements behind a tensor that a kernel may read

# Sub-group, work-group and rows a group by device class; the last only for q4_0.
SHAPE_OF_CLASS = {c: (16, 32, 8 if c == 5 else 2) for c in range(1, 6)} | {0: (32, 64, 2)}
DEVICE_OF_CLASS = {
    0: "Rack Compute Card Apex",
    1: "Pike(TM) A12",
    2: "Rack Compute Card Span",
    3: "Some Other Card",
    4: "Pike(TM) 12",
    5: "Vela 9",
}


def round_bfloat16(x: np.ndarray) -> np.ndarray:
    """float32 to the nearest bfloat16, ties to even, as float32; a NaN is 0x7FC0."""
    bits = np.ascontiguousarray(x, np.float32).view(np.uint32)
    rounded = (bits + np.uint32(0x7FFF) + ((bits >> np.uint32(16)) & np.uint32(1))) & np.uint32(0xFFFF0000)
    return np.where(np.isnan(x), np.uint32(0x7FC00000), rounded).astype(np.uint32).view(np.float32)


@dataclass(frozen=True)
class Arithmetic:
    """Numbers of one type in numpy; every operation rounds to the type."""

    dtype: str

    @property
    def numpy(self) -> type:
        return np.float32 if self.dtype == "bfloat16" else getattr(np, self.dtype)

    def of(self, x: np.ndarray) -> np.ndarray:
        x = np.asarray(x)
        return round_bfloat16(x.astype(np.float32)) if self.dtype == "bfloat16" else x.astype(self.numpy)

    def add(self, a: np.ndarray, b: np.ndarray) -> np.ndarray:
        return self.of(a + b)

    def mul(self, a: np.ndarray, b: np.ndarray) -> np.ndarray:
        return self.of(a * b)


def at(data: np.ndarray, position: np.ndarray, kind: type) -> np.ndarray:
    """Little-endian values of `kind` that start at byte positions of any alignment."""
    size = np.dtype(kind).itemsize
    return data[position[..., None] + np.arange(size)].copy().view(kind)[..., 0]


def tree(a: Arithmetic, partial: np.ndarray) -> np.ndarray:
    """The work-items' values by pairs at distance half the group first; the last axis holds the group."""
    while partial.shape[-1] > 1:
        half = partial.shape[-1] // 2
        partial = a.add(partial[..., :half], partial[..., half:])
    return partial[..., 0]


def run_product(name: str, dtype: str, w: np.ndarray, x: np.ndarray, rows: int, state: int, shape: tuple) -> np.ndarray:
    """q4_0, q4_1 and q8_0: a work-item takes a run of the row, the scale stands once on a run's sum."""
    _, group_size, per_group = shape if name == "q4_0" else (*shape[:2], 2)
    a = Arithmetic(dtype)
    run = 8 if name == "q8_0" else 16
    chunk = group_size * run
    offset = rows * state // 64 * QUANT_BYTES[name]
    row = np.arange(rows)[:, None]
    item = np.arange(group_size)[None, :]
    acc = np.zeros((rows, group_size), a.numpy)
    for t in range(state // chunk + 1):
        active = t < state // chunk + (state // run % group_size > item)
        first = (per_group * (row // per_group) * state + run * item) // 64
        block = first + t * (chunk // 64) + row % per_group * (state // 64)
        c = t * chunk + run * item
        o = run * item % 64
        scale = offset + SCALE_BYTES[name] * block
        s = s2 = None
        for k in range(run):
            if name == "q8_0":
                position, element = 64 * block + o + k, c + k
                q = at(w, position, np.int8).astype(np.float32)
            else:
                position, element = 32 * block + o // 2 + k // 2, c - o + o // 2 + k // 2 + 32 * (k % 2)
                q = (w[position].astype(np.int32) >> (4 * (k % 2)) & 15).astype(np.float32)
                q = q - 8 if name == "q4_0" else q
            inputs = np.broadcast_to(x[np.minimum(element, len(x) - 1)], block.shape)
            term = a.mul(inputs, a.of(q))
            s = term if s is None else a.add(s, term)
            s2 = inputs if s2 is None else a.add(s2, inputs)
        kind = np.float32 if name == "q8_0" else np.float16
        scaled = a.mul(s, a.of(at(w, scale, kind)))
        if name == "q4_1":
            scaled = a.add(scaled, a.mul(s2, a.of(at(w, scale + 2, kind))))
        acc = np.where(active, a.add(acc, scaled), acc)
    return tree(a, acc)


def block_product(name: str, dtype: str, w: np.ndarray, x: np.ndarray, rows: int, state: int, shape: tuple) -> np.ndarray:
    """q5_0 and q5_1: a work-item takes one byte of a block, elements j and j + 32; no guard at the row's end."""
    group_size = shape[1]
    a = Arithmetic(dtype)
    row = np.arange(rows)[:, None]
    item = np.arange(group_size)[None, :]
    j = item % 32
    block = (row * state + 2 * item) // 64
    e1 = (2 * item) // 64 * 64 + j
    acc = np.zeros((rows, group_size), a.numpy)
    counter, limit, step = 0, state // (64 if group_size == 64 else 32), group_size // 32
    while counter < limit:
        base = 44 * block
        qh = at(w, base + 4, np.uint64)
        byte = w[base + 12 + j].astype(np.int64)
        products = []
        for code, element, bit in ((byte & 15, e1, j), (byte >> 4, e1 + 32, j + 32)):
            q = code + ((qh >> bit.astype(np.uint64)) & np.uint64(1)).astype(np.int64) * 16
            d = at(w, base, np.float16)
            if name == "q5_0":
                scale = a.of(d).astype(np.float32) if dtype == "bfloat16" else d.astype(np.float32)
                value = a.of((q.astype(np.float32) - np.float32(16)) * scale)
            else:
                value = a.add(a.mul(a.of(d), a.of(q)), a.of(at(w, base + 2, np.float16)))
            products.append(a.mul(value, np.broadcast_to(x[element], value.shape)))
        acc = a.add(acc, a.add(*products))
        block, e1, counter = block + step, e1 + 64 * step, counter + 2
    return tree(a, acc)


def product(name: str, dtype: str, w: np.ndarray, x: np.ndarray, rows: int, state: int, shape: tuple) -> np.ndarray:
    with np.errstate(all="ignore"):
        return (run_product if name in QUANT_BYTES else block_product)(name, dtype, w, x, rows, state, shape)


def weight_bytes(name: str, rows: int, state: int) -> int:
    return -(-rows * state // 64) * BLOCK_BYTES[name]


def scales_of_tame_size(name: str, w: np.ndarray, rows: int, state: int, generator: np.random.Generator) -> None:
    """Replaces a few random bytes' worth of scales, which would be wild, by numbers near 1; two in a hundred stay."""
    if name in QUANT_BYTES:
        start = rows * state // 64 * QUANT_BYTES[name]
        kind = np.float32 if name == "q8_0" else np.float16
        plane = w[start : start + (len(w) - start) // 4 * 4].view(kind)
        tame = generator.standard_normal(plane.shape).astype(kind)
        plane[...] = np.where(generator.random(plane.shape) < 0.02, plane, tame)
    else:
        whole = w[: len(w) // 44 * 44].reshape(-1, 44)
        whole[:, :4] = generator.standard_normal((len(whole), 2)).astype(np.float16).view(np.uint8)


def case(name: str, dtype: str, rows: int, state: int, wild: bool = False) -> tuple[np.ndarray, np.ndarray]:
    """Bytes with slack behind them, and an input with slack behind it as values of the type."""
    generator = np.random.default_rng(rows * 10007 + state)
    w = generator.integers(0, 256, weight_bytes(name, rows, state) + SLACK).astype(np.uint8)
    if not wild:
        scales_of_tame_size(name, w, rows, state, generator)
    x = Arithmetic(dtype).of(generator.standard_normal(state + SLACK))
    return w, x


def to_device(name: str, dtype: str, w: np.ndarray, x: np.ndarray, rows: int, state: int):
    """Views of larger tensors, so that what lies behind them is known."""
    weight = torch.from_numpy(w).to("xpu")[: weight_bytes(name, rows, state)]
    inputs = torch.from_numpy(x).to(DTYPES[dtype]).to("xpu")[:state].view(1, state)
    return weight, inputs


def run(name: str, dtype: str, w: np.ndarray, x: np.ndarray, rows: int, state: int) -> tuple[np.ndarray, list]:
    weight, inputs = to_device(name, dtype, w, x, rows, state)
    torch.full((1, rows), float("nan"), dtype=DTYPES[dtype], device="xpu")  # freed at once: the result's memory
    with orrery_host.record_launches() as launches:
        y = orrery_ops.forward_new(inputs, weight, CODES[name], 1)
    assert y.shape == (1, rows) and y.dtype == DTYPES[dtype]
    y = y.cpu()[0]
    return (y.float() if dtype == "bfloat16" else y).numpy(), launches


def differing(got: np.ndarray, expected: np.ndarray) -> int:
    """How many values differ in their bits; one NaN is as good as another."""
    assert got.dtype == expected.dtype and got.shape == expected.shape
    kind = {2: np.uint16, 4: np.uint32, 8: np.uint64}[got.dtype.itemsize]
    return int(((got.view(kind) != expected.view(kind)) & ~(np.isnan(got) & np.isnan(expected))).sum())


def main() -> None:
    device_class = int(sys.argv[1])
    shape = SHAPE_OF_CLASS[device_class]
    seen = []
    for name in CODES:
        for dtype in DTYPES:
            for rows, state in SHAPES:
                if state % 64 and weight_bytes(name, rows, state) // BLOCK_BYTES[name] * 64 // state != rows:
                    continue
                w, x = case(name, dtype, rows, state)
                got, launches = run(name, dtype, w, x, rows, state)
                (launch,) = launches
                seen.append(
                    {
                        "format": name,
                        "dtype": dtype,
                        "size": [rows, state],
                        "differing": differing(got, product(name, dtype, w, x, rows, state, shape)),
                        "kernel": launch.kernel,
                        "instance": launch.instance,
                        "name": launch.name,
                        "global": launch.global_size[0],
                        "local": launch.local_size[0],
                        "sub_group": launch.sub_group_size,
                        "local_memory": launch.local_memory,
                        "waited": launch.waited,
                    }
                )
    print(json.dumps(seen))


if __name__ == "__main__":
    main()
