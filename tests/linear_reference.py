"""y = W x from the bytes, in the kernels' order of additions, in numpy.

Run as a program it runs every format, type and shape on the device that ORRERY_HOST_DEVICE_NAME names and prints what
it saw as JSON: a device's class is fixed when the module loads, so each class needs a process of its own.
"""

from __future__ import annotations

import json
import os
import subprocess
import sys
from collections.abc import Callable
from dataclasses import dataclass

import numpy as np
import torch

import orrery_host
import orrery_ops

CODES = {
    "q4_0": 2,
    "q4_1": 3,
    "q5_0": 6,
    "q5_1": 7,
    "q8_0": 8,
    "nf4": 10,
    "nf3": 11,
    "fp8_e4m3": 15,
    "fp4": 16,
    "fp8_e5m2": 19,
    "fp6": 29,
}
DTYPES = {"float32": torch.float32, "float64": torch.float64, "float16": torch.float16, "bfloat16": torch.bfloat16}
SHAPES = [(1, 64), (2, 64), (3, 1088), (7, 576), (19, 192), (33, 1536), (99, 320), (5, 80), (3, 2064)]
SLACK = 4096  # bytes and elements behind a tensor that a kernel may read

# Sub-group, work-group and rows per group by device class; the last only for q4_0.
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


def float32_of(function: Callable[[np.ndarray], np.ndarray], x: np.ndarray) -> np.ndarray:
    """A function of float32 to the nearest float32, which is what the host's native functions give: they compute in
    double, and two doubles an ulp apart round to different floats once in 2^28 arguments."""
    return function(x.astype(np.float64)).astype(np.float32)


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


NF4 = np.array(
    "BF800000 BF3239B1 BF066B30 BECA32A0 BE91A24D BE3D353F BDBA7871 00000000 "
    "3DA2FAFF 3E24CAE3 3E7C04DD 3EAD033A 3EE1A4B8 3F1007AB 3F3913B3 3F800000".split()
)
NF3 = np.array("BF800000 BEF50EE3 BE5E5A6B 00000000 3E24CAE3 3EAD033A 3F1007AB 3F800000".split())
FP4 = np.array([0.03125, 0.5, 1, 1.5, 2, 3, 4, 6], np.float32)


def floats_of_hex(digits: np.ndarray) -> np.ndarray:
    return np.array([int(d, 16) for d in digits], np.uint32).view(np.float32)


def halves_of(bits: np.ndarray) -> np.ndarray:
    with np.errstate(invalid="ignore"):
        return bits.astype(np.uint16).view(np.float16).astype(np.float32)


def e4m3_values() -> np.ndarray:
    code = np.arange(256)
    exponent, mantissa = code >> 3 & 15, code & 7
    magnitude = np.where(exponent == 0, mantissa * 2.0**-9, (8 + mantissa) * 2.0 ** (exponent - 10.0))
    return np.where(code < 128, magnitude, -magnitude).astype(np.float32)


BYTE = np.arange(256)
# The unscaled value of every code; for fp6 a code is a sign, two zeros, five bits.
VALUES = {
    "q4_0": np.arange(16, dtype=np.float32) - 8,
    "q4_1": np.arange(16, dtype=np.float32),
    "q8_0": np.arange(256).astype(np.uint8).view(np.int8).astype(np.float32),
    "nf4": floats_of_hex(NF4),
    "nf3": floats_of_hex(NF3),
    "fp4": np.concatenate([FP4, -FP4]),
    "fp6": halves_of(BYTE << 8 | 0x80),
    "fp8_e4m3": e4m3_values(),
    "fp8_e5m2": halves_of(BYTE << 8 | 0x80),
}


@dataclass(frozen=True)
class Split:
    """A split format: a block's bytes in each plane, and the elements that a work-item takes in a pass."""

    quant_bytes: int
    scale: type | None  # the type of a scale, if it is read
    scale_bytes: int = 2
    run: int = 16


SPLIT = {
    "q4_0": Split(32, np.float16),
    "q4_1": Split(32, np.float16, 4),
    "nf4": Split(32, np.float16),
    "fp4": Split(32, np.float16),
    "nf3": Split(24, np.float16),
    "fp6": Split(48, np.float16),
    "q8_0": Split(64, np.float32, 4, 8),
    "fp8_e4m3": Split(64, np.float32, 4, 8),
    "fp8_e5m2": Split(64, None, 4, 8),
}
BLOCK_BYTES = {n: s.quant_bytes + s.scale_bytes for n, s in SPLIT.items()} | {"q5_0": 44, "q5_1": 44}


def code_of(name: str, w: np.ndarray, offset: int, block: np.ndarray, e: np.ndarray) -> np.ndarray:
    """The code of element e of a block, by the layout of the format; `offset` is where the scale plane begins."""
    if name == "nf3":
        top = w[24 * block + e // 8].astype(np.int64) >> (e % 8) & 1
        return top * 4 + (w[24 * block + 8 + e // 4] >> (6 - 2 * (e % 4)) & 3)
    if name == "fp6":
        sixteen, quarter = e // 16, e % 16 // 4
        a = at(w, offset // 48 * 32 + 16 * block + 4 * sixteen, np.uint32)
        b0 = at(w, 32 * block + 8 * sixteen, np.uint32)
        b1 = at(w, 32 * block + 8 * sixteen + 4, np.uint32)
        a = a << (2 * quarter).astype(np.uint32)
        b = np.select([quarter == 0, quarter == 1, quarter == 2], [b0, b0 << np.uint32(4), b1], b1 << np.uint32(4))
        low = (a & np.uint32(0x40404040)) | (b >> np.uint32(2) & np.uint32(0x3C3C3C3C))
        v = (a & np.uint32(0x80808080)) | (low >> np.uint32(2))
        byte = np.array([1, 3, 0, 2])[e % 4]
        return (v >> (8 * byte).astype(np.uint32) & np.uint32(0xFF)).astype(np.int64)
    if SPLIT[name].quant_bytes == 64:
        return w[64 * block + e].astype(np.int64)
    high = (e >= 32) != (name == "nf4")
    return w[32 * block + e % 32].astype(np.int64) >> np.where(high, 4, 0) & 15


def element_of_run(name: str, o: np.ndarray, k: int) -> np.ndarray:
    """Which element of its block the k-th term of a run is that begins at position o."""
    if name == "fp6":
        return o + k // 4 * 4 + (2, 3, 0, 1)[k % 4]
    if SPLIT[name].quant_bytes == 32:
        return o // 2 + k // 2 + 32 * (k % 2)
    return o + k


# The sum of a run's inputs, for q4_1: one after another in the single-row kernel, two at a time in those of pairs.
def inputs_in_order(a: Arithmetic, inputs: list[np.ndarray]) -> np.ndarray:
    total = inputs[0]
    for x in inputs[1:]:
        total = a.add(total, x)
    return total


def inputs_by_twos(a: Arithmetic, inputs: list[np.ndarray]) -> np.ndarray:
    return inputs_in_order(a, [a.add(x, y) for x, y in zip(inputs[::2], inputs[1::2], strict=True)])


def first_blocks(rows: int, state: int, group_size: int, run: int, per_group: int) -> np.ndarray:
    """[row, item]: the block in which a work-item begins. Only a group's first row is placed by its elements; the others
    follow a whole number of blocks apart."""
    row, item = np.arange(rows)[:, None], np.arange(group_size)[None, :]
    return (per_group * (row // per_group) * state + run * item) // 64 + row % per_group * (state // 64)


def run_partials(
    name: str,
    dtype: str,
    w: np.ndarray,
    x: np.ndarray,
    offset: int,
    first: np.ndarray,
    state: int,
    layout: Split,
    values: np.ndarray,
    sum_inputs: Callable[[Arithmetic, list[np.ndarray]], np.ndarray] = inputs_in_order,
) -> np.ndarray:
    """[row, item]: what a work-item that begins in block `first` has summed up when its passes are over. It takes a run
    of the row in a pass; the scale stands once on a run's sum. `offset` is where the scale plane begins."""
    a, group_size = Arithmetic(dtype), first.shape[1]
    chunk = group_size * layout.run
    item = np.arange(group_size)[None, :]
    values = a.of(values)
    o = layout.run * item % 64
    acc = np.zeros(first.shape, a.numpy)
    for t in range(state // chunk + 1):
        active = t < state // chunk + (state // layout.run % group_size > item)
        block = first + t * (chunk // 64)
        start = t * chunk + layout.run * item - o
        s, inputs = None, []
        for k in range(layout.run):
            e = element_of_run(name, o, k)
            inputs.append(np.broadcast_to(x[np.minimum(start + e, len(x) - 1)], block.shape))
            term = a.mul(inputs[-1], values[code_of(name, w, offset, block, np.broadcast_to(e, block.shape))])
            s = term if s is None else a.add(s, term)
        scale = offset + layout.scale_bytes * block
        scaled = a.mul(s, a.of(at(w, scale, layout.scale))) if layout.scale else s
        if name == "q4_1":
            scaled = a.add(scaled, a.mul(sum_inputs(a, inputs), a.of(at(w, scale + 2, layout.scale))))
        acc = np.where(active, a.add(acc, scaled), acc)
    return acc


def run_product(
    name: str,
    dtype: str,
    w: np.ndarray,
    x: np.ndarray,
    rows: int,
    state: int,
    shape: tuple,
    sum_inputs: Callable[[Arithmetic, list[np.ndarray]], np.ndarray] = inputs_in_order,
) -> np.ndarray:
    """Split formats."""
    layout = SPLIT[name]
    offset = rows * state // 64 * layout.quant_bytes
    first = first_blocks(rows, state, shape[1], layout.run, shape[2] if name == "q4_0" else 2)
    partials = run_partials(name, dtype, w, x, offset, first, state, layout, VALUES[name], sum_inputs)
    return tree(Arithmetic(dtype), partials)


def block_product(
    name: str, dtype: str, w: np.ndarray, x: np.ndarray, rows: int, state: int, shape: tuple
) -> np.ndarray:
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
        return (run_product if name in SPLIT else block_product)(name, dtype, w, x, rows, state, shape)


def weight_bytes(name: str, rows: int, state: int) -> int:
    return -(-rows * state // 64) * BLOCK_BYTES[name]


def scales_of_tame_size(name: str, w: np.ndarray, rows: int, state: int, generator: np.random.Generator) -> None:
    """Replaces a few random bytes' worth of scales, which would be wild, by numbers near 1; two in a hundred stay."""
    if name in SPLIT:
        start = rows * state // 64 * SPLIT[name].quant_bytes
        kind = np.float32 if SPLIT[name].run == 8 else np.float16
        plane = w[start : start + (len(w) - start) // 4 * 4].view(kind)
        tame = generator.standard_normal(plane.shape).astype(kind)
        plane[...] = np.where(generator.random(plane.shape) < 0.02, plane, tame)
    else:
        whole = w[: len(w) // 44 * 44].reshape(-1, 44)
        whole[:, :4] = generator.standard_normal((len(whole), 2)).astype(np.float16).view(np.uint8)


def no_nan_codes(name: str, w: np.ndarray) -> None:
    """All but one in a thousand of the codes that are NaN become numbers, or no sum would be one."""
    if name == "fp8_e5m2":
        nan = (w & 0x7C) == 0x7C
        keep = np.random.default_rng(len(w)).random(w.shape) < 0.001
        w[nan & ~keep] &= 0x83 | 0x3C


def case(
    name: str, dtype: str, rows: int, state: int, wild: bool = False, n: int = 1
) -> tuple[np.ndarray, np.ndarray]:
    """Bytes with slack behind them, and n input rows with slack behind them as values of the type."""
    generator = np.random.default_rng(rows * 10007 + state)
    w = generator.integers(0, 256, weight_bytes(name, rows, state) + SLACK).astype(np.uint8)
    if not wild:
        scales_of_tame_size(name, w, rows, state, generator)
        no_nan_codes(name, w)
    x = Arithmetic(dtype).of(generator.standard_normal(n * state + SLACK))
    return w, x


def to_device(name: str, dtype: str, w: np.ndarray, x: np.ndarray, rows: int, state: int, n: int = 1):
    """Views of larger tensors, so that what lies behind them is known."""
    weight = torch.from_numpy(w).to("xpu")[: weight_bytes(name, rows, state)]
    inputs = torch.from_numpy(x).to(DTYPES[dtype]).to("xpu")[: n * state].view(n, state)
    return weight, inputs


def run(
    name: str, dtype: str, w: np.ndarray, x: np.ndarray, rows: int, state: int, n: int = 1
) -> tuple[np.ndarray, list]:
    weight, inputs = to_device(name, dtype, w, x, rows, state, n)
    torch.full((n, rows), float("nan"), dtype=DTYPES[dtype], device="xpu")  # freed at once: the result's memory
    with orrery_host.record_launches() as launches:
        y = orrery_ops.forward_new(inputs, weight, CODES[name], 1)
    assert y.shape == (n, rows) and y.dtype == DTYPES[dtype]
    return numbers(y), launches


def numbers(tensor: torch.Tensor) -> np.ndarray:
    """Its values; those of bfloat16 as float32."""
    tensor = tensor.cpu()
    return (tensor.float() if tensor.dtype == torch.bfloat16 else tensor).numpy()


def differing(got: np.ndarray, expected: np.ndarray) -> int:
    """How many values differ in their bits; one NaN is as good as another."""
    assert got.dtype == expected.dtype and got.shape == expected.shape
    kind = {2: np.uint16, 4: np.uint32, 8: np.uint64}[got.dtype.itemsize]
    return int(((got.view(kind) != expected.view(kind)) & ~(np.isnan(got) & np.isnan(expected))).sum())


# Input rows of the kernels for pairs, by format: the fewest and the most that the dispatch gives one, and odd numbers.
PAIRED = {
    "q4_0": (2, 3, 7, 8, 20),
    "q4_1": (2, 5, 20),
    "q8_0": (2, 7),
    "nf4": (3, 14),
    "fp4": (2, 7),
    "fp8_e5m2": (2, 7),
}
PAIR_SHAPES = [(1, 64), (2, 192), (3, 1088), (7, 320), (5, 80)]


def is_whole(name: str, rows: int, state: int) -> bool:
    """Whether the number of rows follows from the bytes."""
    return weight_bytes(name, rows, state) // BLOCK_BYTES[name] * 64 // state == rows


def cases_of(family: str, device_class: int) -> list[tuple]:
    """Format, type, rows, elements and input rows."""
    if family == "row":
        return [(f, d, *s, 1) for f in CODES for d in DTYPES for s in SHAPES if is_whole(f, *s)]
    # Class 0 takes no pairs in two formats.
    formats = [f for f in PAIRED if device_class != 0 or f not in ("q4_0", "fp4")]
    return [(f, d, *s, n) for f in formats for d in DTYPES for s in PAIR_SHAPES for n in PAIRED[f] if is_whole(f, *s)]


def fields_of(launch: orrery_host.Launch) -> dict:
    """What a test may ask of a launch in another process."""
    return {
        "name": launch.name,
        "kernel": launch.kernel,
        "instance": launch.instance,
        "global": launch.global_size,
        "local": launch.local_size,
        "sub_group": launch.sub_group_size,
        "local_memory": launch.local_memory,
        "waited": launch.waited,
        "function": launch.function,
        "file": launch.file,
    }


def seen_in(name: str, dtype: str, rows: int, state: int, n: int) -> dict:
    """What a product gave and launched."""
    got, (launch,) = run(name, dtype, *case(name, dtype, rows, state, n=n), rows, state, n)
    return {"result": got.tobytes().hex(), **fields_of(launch)}


def main() -> None:
    family, device_class = sys.argv[1], int(sys.argv[2])
    print(json.dumps([{"case": c, **seen_in(*c)} for c in cases_of(family, device_class)]))


def environment_of_class(device_class: int) -> dict[str, str]:
    """That of a process whose device is of that class."""
    return {**os.environ, "ORRERY_HOST_DEVICE_NAME": DEVICE_OF_CLASS[device_class]}


def run_on_class(device_class: int, script: str, *arguments: str) -> list[dict]:
    """The JSON that a script prints in a process whose device is of that class."""
    process = subprocess.run(
        [sys.executable, script, *arguments],
        env=environment_of_class(device_class),
        capture_output=True,
        text=True,
        check=False,
    )
    assert process.returncode == 0, process.stderr
    return json.loads(process.stdout)


def seen_on_class(family: str, device_class: int) -> dict[tuple, dict]:
    """By case, what a process on a device of that class saw."""
    seen = run_on_class(device_class, __file__, family, str(device_class))
    return {tuple(one["case"]): one for one in seen}


def result_of(seen: dict) -> np.ndarray:
    _, dtype, rows, _, n = seen["case"]
    return np.frombuffer(bytes.fromhex(seen["result"]), Arithmetic(dtype).numpy).reshape(n, rows)


if __name__ == "__main__":
    main()
