"""A few input rows through the explicit-SIMD vector kernels, in numpy, every operation rounded to half.

Run as a program it makes products of every format on the device that ORRERY_HOST_DEVICE_NAME names and prints what it
saw as JSON: a device's class is fixed when the module loads, so each class needs a process of its own.
"""

from __future__ import annotations

import json
import sys

import numpy as np
import torch

import orrery_host
import orrery_ops
from dense_reference import BLOCK, CODES, SPLIT, WILD_FLOATS, WILD_HALVES, split_values
from linear_reference import DTYPES, Arithmetic, differing, fields_of, tree

FORMATS = ("q4_0", "q4_1", "q8_0", "fp4", "fp6", "fp8_e5m2")
TYPES = ("float16", "float32")
SPAN = 256
HALF = Arithmetic("float16")
KINDS = ("tame", "tiny", "wild")
WILD_INPUTS = np.array(
    [0.0, -0.0, 2.0**-24, -(2.0**-24), 2.0**-25, 3 * 2.0**-26, 65504, 65519, 65520, -65520, np.inf, -np.inf, np.nan,
     1e-40, 3.4e38, 2049, 2051], np.float32)  # fmt: skip


def leave_nan_behind(shape: tuple[int, int], dtype: torch.dtype) -> None:
    """Frees a NaN tensor of the result's size, so that a result not written in full shows it."""
    torch.full(shape, float("nan"), dtype=dtype, device="xpu")


def is_slim(n: int, device_class: int) -> bool:
    return n <= 8 and device_class == 4


def group_of(name: str, n: int, device_class: int) -> int:
    """Work-items of a group."""
    if not is_slim(n, device_class):
        return 16 if device_class == 0 else 32
    if name in ("q4_0", "q4_1"):
        return 8 if n <= 4 else 16
    return 8 if n <= 2 else 16 if n <= 4 else 32


def local_memory_of(name: str, n: int, device_class: int) -> int:
    if not is_slim(n, device_class):
        return 32768
    return 0 if name in ("q4_0", "q4_1") else 512 * n


def weight_rows(name: str, w: np.ndarray, rows: int, state: int) -> np.ndarray:
    """Half values of the spans of each row. Planes follow from the number of elements, rows from whole blocks."""
    with np.errstate(all="ignore"):
        blocks = split_values(name, HALF, w, rows * state // 64).astype(np.float16)
    per_row = state // 64
    return blocks[: rows * per_row].reshape(rows, per_row * 64)[:, : state // SPAN * SPAN]


def general(values: np.ndarray, x: np.ndarray) -> np.ndarray:
    """The products of each span folded to one number, the numbers one after another."""
    total = np.zeros((len(x), len(values)), np.float16)
    for c in range(0, values.shape[1], SPAN):
        total = total + tree(HALF, values[None, :, c : c + SPAN] * x[:, None, c : c + SPAN])
    return total


def slim(values: np.ndarray, x: np.ndarray) -> np.ndarray:
    """64 running sums over the whole row, folded once."""
    total = np.zeros((len(x), len(values), 64), np.float16)
    for c in range(0, values.shape[1], 64):
        total = total + values[None, :, c : c + 64] * x[:, None, c : c + 64]
    return tree(HALF, total)


def product(name: str, w: np.ndarray, x: np.ndarray, rows: int, state: int, device_class: int) -> np.ndarray:
    """x holds floats or halves; the result has their type."""
    with np.errstate(all="ignore"):
        values, halves = weight_rows(name, w, rows, state), x.astype(np.float16)
        order = slim if is_slim(len(x), device_class) else general
        return order(values, halves).astype(x.dtype)


def case(name: str, dtype: str, rows: int, state: int, n: int, kind: str = "tame") -> tuple[np.ndarray, np.ndarray]:
    """A weight's bytes and input rows: sums of ordinary size, sums of subnormals, or odd numbers among them."""
    generator = np.random.default_rng([rows, state, n, KINDS.index(kind), FORMATS.index(name)])
    blocks = rows * state // 64
    quants, scale, count = SPLIT[name]
    w = generator.integers(0, 256, blocks * BLOCK[name][1]).astype(np.uint8)
    w[: blocks * quants][:256] = np.arange(256)  # every byte
    scales = w[blocks * quants :][: blocks * np.dtype(scale).itemsize * count].view(scale)
    tiny = 2.0**-18 if name == "q8_0" else 2.0**-14
    scales[...] = generator.standard_normal(scales.shape) * (tiny if kind == "tiny" else 0.25)
    if name == "fp8_e5m2" and kind != "wild":  # nothing above 2, or every sum would overflow
        w[: blocks * quants] &= 0xBF
    x = (generator.standard_normal((n, state)) * (2.0**-6 if kind == "tiny" else 1)).astype(np.float32)
    if kind == "wild":
        odd = generator.random(scales.shape) < 0.04
        scales[odd] = generator.choice(WILD_HALVES if scale == np.float16 else WILD_FLOATS, int(odd.sum()))
        odd = generator.random(x.shape) < 0.002
        x[odd] = generator.choice(WILD_INPUTS, int(odd.sum()))
        if name == "fp8_e5m2":  # few of the codes above 2, and NaN
            tame = generator.random(blocks * quants) < 0.998
            w[: blocks * quants][tame] &= 0xBF
    with np.errstate(over="ignore"):
        return w, x.astype(dtype)


def to_device(w: np.ndarray, x: np.ndarray) -> tuple[torch.Tensor, torch.Tensor]:
    """Views of larger tensors: NaN behind the input, and bytes 0xFF, which are NaN as halves, behind the weight."""
    weight = torch.cat([torch.from_numpy(w), torch.full((4096,), 0xFF, dtype=torch.uint8)]).to("xpu")
    behind = torch.full((4, x.shape[1]), float("nan"), dtype=DTYPES[str(x.dtype)])
    return weight[: len(w)], torch.cat([torch.from_numpy(x), behind]).to("xpu")[: len(x)]


def run(name: str, w: np.ndarray, x: np.ndarray, rows: int, state: int, device_class: int) -> tuple[np.ndarray, list]:
    """batch_forward as a device of that class would be asked."""
    weight, inputs = to_device(w, x)
    leave_nan_behind((len(x), rows), inputs.dtype)
    with orrery_host.record_launches() as launches:
        y = orrery_ops.batch_forward(inputs, weight, len(x), state, rows, CODES[name], device_class)
    assert y.shape == (len(x), rows) and y.dtype == inputs.dtype and y.device == inputs.device
    return y.cpu().numpy(), launches


def cases_of(device_class: int) -> list[tuple[str, str, int, int, int]]:
    """Format, type, rows, elements and input rows that the dispatch of the class gives these kernels."""
    sizes = [(32, 256, n) for n in (2, 3, 8, 9)] + [(64, 512, n) for n in (5, 7, 16, 33)] + [(32, 768, 64)]
    cases = [(f, d, *s) for f in FORMATS for d in TYPES for s in sizes]
    if device_class in (1, 2):
        cases += [(f, d, 64, 512, 1) for f in ("q8_0", "fp4") for d in TYPES]
    return cases


def seen_in(name: str, dtype: str, rows: int, state: int, n: int, device_class: int) -> dict:
    w, x = case(name, dtype, rows, state, n)
    weight, inputs = to_device(w, x)
    leave_nan_behind((n, rows), inputs.dtype)
    with orrery_host.record_launches() as launches:
        y = orrery_ops.forward_new(inputs, weight, CODES[name], 0)
    bad = differing(y.cpu().numpy(), product(name, w, x, rows, state, device_class))
    return {
        "case": [name, dtype, rows, state, n],
        "differing": bad,
        "launches": [fields_of(launch) for launch in launches],
    }


def main() -> None:
    device_class = int(sys.argv[1])
    print(json.dumps([seen_in(*one, device_class) for one in cases_of(device_class)]))


if __name__ == "__main__":
    main()
