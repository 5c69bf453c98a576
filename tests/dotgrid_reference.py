"""Products on the matrix engine, in numpy: what they are where sums are exact, and between which bounds they lie elsewhere.

The order of the additions inside one operation of the engine is open, so a product is an interval. Rounding and adding are
monotonic, so its ends go through the narrowing of the slices' sums and their additions like any other value.

Run as a program it runs the cases of a device class on the device that ORRERY_HOST_DEVICE_NAME names and prints what it
saw as JSON.
"""

from __future__ import annotations

import json
import sys
from typing import NamedTuple

import numpy as np
import torch

import linear_reference as ref
import orrery_host
import orrery_ops

FORMATS = ("q4_0", "q8_0", "fp8_e4m3", "fp8_e5m2")
DTYPES = ("float16", "float32", "bfloat16")
NAMES = {"float16": "c10::Half", "float32": "float", "bfloat16": "c10::BFloat16"}
SCALE = {"q4_0": np.float16, "q8_0": np.float32, "fp8_e4m3": np.float32, "fp8_e5m2": np.float32}
CLASSES = (0, 1, 2)
STEPS, BLOCK, SLICES, TILE = 16, 64, 8, 8
# Codes of small numbers, all multiples of 1/16: whole numbers, or floating-point codes of exponents near 0.
TAME_CODES = {
    "q4_0": np.arange(256),
    "q8_0": np.r_[0:9, 248:256],
    "fp8_e4m3": np.r_[0x30:0x48, 0xB0:0xC8, 0x00, 0x80],
    "fp8_e5m2": np.r_[0x38:0x44, 0xB8:0xC4],
}


class Case(NamedTuple):
    """Bytes of a weight, and input rows as values of the type."""

    name: str
    dtype: str
    w: np.ndarray
    x: np.ndarray
    rows: int

    @property
    def tensors(self) -> tuple[torch.Tensor, torch.Tensor]:
        """Input and weight on the device; what lies behind them is NaN and 0xFF."""
        n, state = self.x.shape
        x = np.append(self.x.reshape(-1), np.full(1024, np.nan, np.float32))
        inputs = torch.from_numpy(x).to(ref.DTYPES[self.dtype]).to("xpu")[: n * state].view(n, state)
        weight = torch.from_numpy(np.append(self.w, np.full(4096, 255, np.uint8))).to("xpu")[: len(self.w)]
        return inputs, weight


def weight_of(name: str, codes: np.ndarray, scales: np.ndarray) -> np.ndarray:
    """The bytes of a weight from one code an element, [rows, state], and one scale a block, [rows, blocks]."""
    blocks = codes.astype(np.uint8).reshape(-1, BLOCK)
    quants = blocks[:, :32] | blocks[:, 32:] << 4 if name == "q4_0" else blocks
    return np.concatenate([quants.reshape(-1), scales.astype(SCALE[name]).reshape(-1).view(np.uint8)])


def values_of(name: str, w: np.ndarray, rows: int, state: int) -> tuple[np.ndarray, np.ndarray]:
    """Unscaled values [rows, blocks, 64] and scales [rows, blocks], as float32."""
    nb, f = state // BLOCK, ref.SPLIT[name]
    block = np.arange(rows * nb)[:, None]
    offset = rows * nb * f.quant_bytes
    code = ref.code_of(name, w, offset, np.broadcast_to(block, (rows * nb, BLOCK)), np.arange(BLOCK)[None, :])
    scales = w[offset : offset + rows * nb * f.scale_bytes].view(SCALE[name]).astype(np.float32)
    return ref.VALUES[name][code].reshape(rows, nb, BLOCK), scales.reshape(rows, nb)


def tame(name: str, dtype: str, n: int, state: int, rows: int, seed: int = 0) -> Case:
    """Whole numbers as inputs, tame codes, and powers of two as scales, so that no sum of floats is rounded."""
    generator = np.random.default_rng([n, state, rows, seed])
    codes = generator.choice(TAME_CODES[name], (rows, state)) & (15 if name == "q4_0" else 255)
    scales = generator.choice([-1.0, 0.5, 1.0, 2.0], (rows, state // BLOCK))
    x = generator.integers(-4, 5, (n, state)).astype(np.float32)
    return Case(name, dtype, weight_of(name, codes, scales), x, rows)


def wild(name: str, dtype: str, n: int, state: int, rows: int, seed: int = 0) -> Case:
    """Any number and any code that is no NaN."""
    generator = np.random.default_rng([n, state, rows, seed, 1])
    codes = generator.integers(0, 16 if name == "q4_0" else 256, (rows, state))
    if name == "fp8_e5m2":
        codes = np.where((codes & 0x7C) >= 0x60, codes & 0x8F, codes)  # sums of what is left fit into a half
    scales = generator.standard_normal((rows, state // BLOCK)) * 0.1
    x = ref.Arithmetic("bfloat16" if dtype == "bfloat16" else dtype).of(generator.standard_normal((n, state)))
    return Case(name, dtype, weight_of(name, codes, scales), x.astype(np.float32), rows)


def narrow(dtype: str, x: np.ndarray) -> np.ndarray:
    """To the operands' and partial sums' type, as float32: bfloat16 keeps to itself, the others to half."""
    kind = "bfloat16" if dtype == "bfloat16" else "float16"
    return ref.Arithmetic(kind).of(np.asarray(x, np.float32)).astype(np.float32)


def slice_bounds(nb: int) -> list[tuple[int, int]]:
    length = (nb + 7) >> 3
    return [(min(s * length, nb), min((s + 1) * length, nb)) for s in range(SLICES)]


def slice_sums(case: Case, exact: bool) -> tuple[np.ndarray, np.ndarray]:
    """The eight slices' sums [8, n, rows] in float64, and how far those in float may be away."""
    n, state = case.x.shape
    nb = state // BLOCK
    weights, scales = values_of(case.name, case.w, case.rows, state)
    inputs = narrow(case.dtype, case.x).reshape(n, nb, BLOCK)
    u = 2.0**-24 * (1 + 2.0**-20)  # the doubles here round too
    gamma = 16 * u / (1 - 16 * u)  # a sum of 17 terms in any order
    rounding = 0.0 if exact else 1.0
    sums, errors = np.zeros((SLICES, n, case.rows)), np.zeros((SLICES, n, case.rows))
    for s, (first, last) in enumerate(slice_bounds(nb)):
        total, error = sums[s], errors[s]
        for b in range(first, last):
            acc, e = np.zeros((n, case.rows)), np.zeros((n, case.rows))
            for q in range(0, BLOCK, STEPS):
                a, w = (t[:, b, q : q + STEPS].astype(np.float64) for t in (inputs, weights))
                size = np.abs(acc) + e + np.abs(a) @ np.abs(w).T
                acc = acc + a @ w.T
                e = e + rounding * ((gamma + 2.0**-45) * size)
            d = scales[:, b].astype(np.float64)
            product = acc * d
            e = e * np.abs(d) + rounding * (u * (np.abs(product) + e * np.abs(d)) + 2.0**-149)
            error += e + rounding * u * (np.abs(total) + error + np.abs(product) + e)
            total += product
    return sums, errors


def product(case: Case, exact: bool = False) -> tuple[np.ndarray, np.ndarray]:
    """The least and the greatest result, as float32; the same if `exact`, which says that no sum of floats is rounded."""
    with np.errstate(all="ignore"):
        sums, errors = slice_sums(case, exact)
        ends = []
        for end in (sums - errors, sums + errors):
            total = np.zeros(sums.shape[1:], np.float32)
            for part in narrow(case.dtype, end.astype(np.float32)):
                total = narrow(case.dtype, total + part)
            ends.append(total)
    return ends[0], ends[1]


def result_in(dtype: str, x: np.ndarray) -> np.ndarray:
    """Values as float32, rounded to the type's."""
    return ref.Arithmetic(dtype).of(x)


def fields_expected(dtype: str, n: int, rows: int, wide: bool) -> dict:
    columns, tail = (16 if wide else 8), n % 8 or 8
    narrow_type = "c10::BFloat16" if dtype == "bfloat16" else "c10::Half"
    return {
        "name": "gridrun_kernel",
        "kernel": "dotgrid_forward_kernel",
        "instance": f"{NAMES[dtype]}, {narrow_type}, float, {narrow_type}, {tail}, {columns}, 8",
        "global": (rows // columns * 8, (n + 7) // 8),
        "local": (8, 1),
        "sub_group": 1,
        "local_memory": 128 * columns,
        "waited": False,
        "function": "dotgrid_forward_kernel",
        "file": "dotgrid_xpu_kernel",
    }


# Format, type, input rows, elements and weight rows that the dispatch gives to the engine: half and float go there where
# the explicit-SIMD family does not take them.
def cases_of(device_class: int) -> list[tuple]:
    counts = {0: (2, 7, 8, 9, 16), 1: (7, 8, 9, 33, 64), 2: (7, 15, 64)}[device_class]
    sizes = ((64, 16), (576, 48), (1088, 32), (512, 16))
    cases = [(f, d, n, *size) for f in FORMATS for d in DTYPES for n in counts for size in sizes]
    few = [("fp8_e4m3", d, n, 576, 16) for d in DTYPES for n in (2, 3)]  # the format that starts at two rows
    return cases + [case for case in few if case not in cases]


def numbers(y: torch.Tensor) -> np.ndarray:
    return y.cpu().float().numpy()


def seen_in(name: str, dtype: str, n: int, state: int, rows: int) -> dict:
    inputs, weight = tame(name, dtype, n, state, rows).tensors
    torch.full((n, rows), float("nan"), dtype=ref.DTYPES[dtype], device="xpu")  # freed at once: the result's memory
    with orrery_host.record_launches() as launches:
        y = orrery_ops.forward_new(inputs, weight, ref.CODES[name], 1)
    assert y.shape == (n, rows) and y.dtype == ref.DTYPES[dtype] and len(launches) == 1
    return {"result": numbers(y).tobytes().hex(), **ref.fields_of(launches[0])}


if __name__ == "__main__":
    print(json.dumps([{"case": c, **seen_in(*c)} for c in cases_of(int(sys.argv[1]))]))
