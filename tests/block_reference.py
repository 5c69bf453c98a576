"""The formats of 256 elements in numpy, from the bytes: values, products with one row in the kernels' order of additions.

Run as a program it checks every format and type on the device that ORRERY_HOST_DEVICE_NAME names and prints what it saw
as JSON: a device's class, which is the argument, is fixed when the module loads.
"""

from __future__ import annotations

import json
import sys
from pathlib import Path

import numpy as np
import torch

import orrery_host
import orrery_ops
from linear_reference import DTYPES, SLACK, Arithmetic, differing, fields_of, tree

CODES = {"iq2_xxs": 21, "q2_k": 23, "iq1_s": 24, "q6_k": 26, "q4_k": 27, "q5_k": 28}
BYTES = {"iq2_xxs": 66, "q2_k": 84, "iq1_s": 50, "q6_k": 210, "q4_k": 144, "q5_k": 176}
HALVES = {"iq2_xxs": [0], "q2_k": [80, 82], "iq1_s": [0], "q6_k": [208], "q4_k": [0, 2], "q5_k": [0, 2]}
SIZES = [(1, 256), (2, 512), (3, 768), (7, 1280), (19, 2304), (33, 1536)]
FEW_SIZES = [(2, 256), (5, 1280)]  # on the classes that launch the same instances
DATA = Path(__file__).resolve().parents[1] / "formats" / "data"
F = np.float32


def half(blocks: np.ndarray, at: int) -> np.ndarray:
    """The half at a byte of each block, as float."""
    return blocks[..., at : at + 2].copy().view(np.float16)[..., 0].astype(F)


def numbers(name: str) -> list[int]:
    return [int(line, 16) for line in (DATA / f"{name}.txt").read_text().split()]


def small_scales(blocks: np.ndarray) -> tuple[np.ndarray, np.ndarray]:
    """The eight 6-bit scales and minimums of q4_k and q5_k."""
    s = blocks[..., 4:16].astype(np.int64)
    scale, minimum = [], []
    for j in range(8):
        if j < 4:
            scale.append(s[..., j] & 63)
            minimum.append(s[..., j + 4] & 63)
        else:
            scale.append((s[..., j + 4] & 15) | ((s[..., j - 4] >> 2) & 48))
            minimum.append((s[..., j + 4] >> 4) | ((s[..., j] >> 2) & 48))
    return np.stack(scale, -1), np.stack(minimum, -1)


def codes(name: str, blocks: np.ndarray) -> np.ndarray:
    """The integer of every element, [..., 256]."""
    b = blocks.astype(np.int64)
    out = np.zeros((*blocks.shape[:-1], 256), np.int64)
    for e in range(256):
        n, g, l, p, h = e // 128, e % 128 // 32, e % 32, e // 64, e % 64 // 32
        if name == "q2_k":
            out[..., e] = (b[..., 16 + 32 * n + l] >> 2 * g) & 3
        elif name == "q4_k":
            out[..., e] = (b[..., 16 + 32 * p + l] >> 4 * h) & 15
        elif name == "q5_k":
            fifth = (b[..., 16 + l] >> (2 * p + h)) & 1
            out[..., e] = ((b[..., 48 + 32 * p + l] >> 4 * h) & 15) + 16 * fifth
        else:
            byte = b[..., 64 * n + 32 * (g & 1) + l]
            nibble = byte & 15 if g < 2 else byte >> 4
            out[..., e] = (nibble | (((b[..., 128 + 32 * n + l] >> 2 * g) & 3) << 4)) - 32
    return out


def group_words(blocks: np.ndarray, at: int, kind: type, count: int) -> np.ndarray:
    return blocks[..., at : at + count * np.dtype(kind).itemsize].copy().view(kind).astype(np.int64)


def grid_magnitudes() -> np.ndarray:
    return np.array([[(g >> 8 * j) & 255 for j in range(8)] for g in numbers("iq2xxs_grid")], np.int64)


def grid_digits() -> np.ndarray:
    entries = np.array(numbers("iq1s_grid"), np.int64)
    return np.stack([(entries >> (8 * (j % 4) + 4 * (j // 4))) & 15 for j in range(8)], -1)


def iq2_groups(blocks: np.ndarray) -> tuple[np.ndarray, np.ndarray, np.ndarray]:
    """Magnitudes and signs (1 or -1) of [..., ib, g, j], and the sub-blocks' 4-bit scales."""
    index = blocks[..., 2:66].reshape(*blocks.shape[:-1], 8, 8)[..., :4].astype(np.int64)
    a = group_words(blocks, 2, np.uint32, 16)[..., 1::2]
    seven = (a[..., None] >> (7 * np.arange(4))) & 127
    bits = (seven[..., None] >> np.arange(7)) & 1
    bits = np.concatenate([bits, bits.sum(-1, keepdims=True) % 2], -1)
    return grid_magnitudes()[index], 1 - 2 * bits, a >> 28


def iq1_groups(blocks: np.ndarray) -> tuple[np.ndarray, np.ndarray, np.ndarray]:
    """Values 0, 1, 2 of [..., ib, g, j], the sub-blocks' 2 sc + 1 and their delta."""
    high = group_words(blocks, 34, np.uint16, 8)
    low = blocks[..., 2:34].reshape(*blocks.shape[:-1], 8, 4).astype(np.int64)
    index = low | (((high[..., None] >> (3 * np.arange(4))) & 7) << 8)
    delta = np.where(high & 0x8000, F(-1.125), F(-0.875)).astype(F)
    return grid_digits()[index], 2 * ((high >> 12) & 7) + 1, delta


def values(name: str, blocks: np.ndarray) -> np.ndarray:
    """Every element as float, by the format's value rule."""
    with np.errstate(all="ignore"):
        if name == "iq2_xxs":
            magnitude, sign, ls = iq2_groups(blocks)
            db = ((ls.astype(F) + F(0.5)) * half(blocks, 0)[..., None]) * F(0.25)
            out = db[..., None, None] * magnitude.astype(F) * sign.astype(F)
            return out.reshape(*blocks.shape[:-1], 256)
        if name == "iq1_s":
            digit, scale, delta = iq1_groups(blocks)
            dl = half(blocks, 0)[..., None] * scale.astype(F)
            out = dl[..., None, None] * (delta[..., None, None] + digit.astype(F))
            return out.reshape(*blocks.shape[:-1], 256)
        q = codes(name, blocks).astype(F)
        if name == "q6_k":
            s = np.repeat(blocks[..., 192:208].view(np.int8).astype(F), 16, -1)
            return (half(blocks, 208)[..., None] * s) * q
        if name == "q2_k":
            s = np.repeat(blocks[..., :16], 16, -1)
            scale, minimum, d, dmin = s & 15, s >> 4, half(blocks, 80), half(blocks, 82)
        else:
            scale, minimum = (np.repeat(v, 32, -1) for v in small_scales(blocks))
            d, dmin = half(blocks, 0), half(blocks, 2)
        return (d[..., None] * scale.astype(F)) * q - dmin[..., None] * minimum.astype(F)


def paired_rows(name: str, dtype: str, blocks: np.ndarray, x: np.ndarray) -> np.ndarray:
    """q4_k and q5_k: 32 work-items per row, 16 of them per block; products in the type, sums of products in float."""
    a = Arithmetic(dtype)
    rows, nb = blocks.shape[:2]
    q = codes(name, blocks)
    scale, minimum = small_scales(blocks)
    d, dmin = half(blocks, 0), half(blocks, 2)
    span = 4 if name == "q4_k" else 2
    acc = np.zeros((rows, 32), F)
    for l in range(32):
        tid, ix = l % 16, l // 16
        im, ir, odd = int(tid > 7), tid % 4, tid // 4 % 2
        off = 2 * span * ir + span * odd
        for b in range(ix, nb, 2):
            t = [np.zeros(rows, F) for _ in range(5)]
            y = x[256 * b + 64 * im + off :]
            sub = [2 * im, 2 * im + 1, 2 * im + 4, 2 * im + 5]
            starts = [0, 32, 128, 160]
            for i in range(span):
                inner = None
                for s in range(4):
                    base = 64 * im + off + starts[s] + i
                    if name == "q4_k":
                        factor = 16 if s % 2 else 1
                        product = a.mul(y[starts[s] + i], a.of(factor * q[:, b, base]))
                        whole = y[starts[s] + i]
                    else:
                        near = a.mul(y[starts[s] + i], a.of(q[:, b, base]))
                        product = a.add(near, a.mul(y[starts[s] + i + 16], a.of(q[:, b, base + 16])))
                        whole = a.add(y[starts[s] + i], y[starts[s] + i + 16])
                    t[s] = t[s] + product.astype(F)
                    term = a.mul(whole, a.of(minimum[:, b, sub[s]]))
                    inner = term if inner is None else a.add(inner, term)
                t[4] = t[4] + inner.astype(F)
            part = [t[s] * scale[:, b, sub[s]].astype(F) for s in range(4)]
            if name == "q4_k":
                part[1], part[3] = part[1] * F(0.0625), part[3] * F(0.0625)
            total = ((part[0] + part[1]) + part[2]) + part[3]
            acc[:, l] = acc[:, l] + (total * d[:, b] - t[4] * dmin[:, b])
    return a.of(tree(Arithmetic("float32"), acc))


def q6_rows(dtype: str, blocks: np.ndarray, x: np.ndarray) -> np.ndarray:
    """q6_k: everything in float, 32 lanes a row."""
    rows, nb = blocks.shape[:2]
    q = codes("q6_k", blocks).astype(F)
    scale = blocks[..., 192:208].view(np.int8).astype(F)
    d = half(blocks, 208)
    x = x.astype(F)
    acc = np.zeros((rows, 32), F)
    for l in range(32):
        tid, ix = l % 16, l // 16
        im, ir = int(tid > 7), tid % 8
        for b in range(ix, nb, 2):
            total = None
            for i in range(4):
                e = 128 * im + 4 * ir + i
                p = [
                    ((x[256 * b + e + 32 * s] * d[:, b]) * scale[:, b, 8 * im + ir // 4 + 2 * s]) * q[:, b, e + 32 * s]
                    for s in range(4)
                ]
                four = ((p[0] + p[1]) + p[2]) + p[3]
                total = four if total is None else total + four
            acc[:, l] = acc[:, l] + total
    return Arithmetic(dtype).of(tree(Arithmetic("float32"), acc))


def round_away(v: np.ndarray) -> np.ndarray:
    """The nearest integer, halves away from zero."""
    return np.copysign(np.floor(np.abs(v.astype(np.float64)) + 0.5), v)


def quantized(x: np.ndarray) -> tuple[np.ndarray, np.ndarray, np.ndarray]:
    """q8_1: codes [blocks, 32], scales and sums as float; where a code is not defined it is what the system gives."""
    v = x.astype(F).reshape(-1, 32)
    with np.errstate(all="ignore"):
        amax = np.fmax.reduce(np.abs(v), -1)
        step = amax * np.uint32(0x3C010204).view(F)
        code = round_away(v / step[:, None])
        code = np.where(np.isnan(code) | (amax == 0)[:, None], 0, np.clip(code, -127, 127)).astype(np.int64)
        total = tree(Arithmetic("float32"), v)
        return code, step.astype(np.float16).astype(F), total.astype(np.float16).astype(F)


def dot_partials(name: str, sums: Arithmetic, blocks: np.ndarray, x: np.ndarray) -> np.ndarray:
    """[row, lane]: integer dots of codes with the quantized row, each narrowed to the type of `sums` and added in it."""
    rows, nb = blocks.shape[:2]
    code, d8, s8 = quantized(x)
    parts = 16 if name == "q2_k" else 8
    d = half(blocks, 80 if name == "q2_k" else 0)
    acc = np.zeros((rows, 32), sums.numpy)
    for l in range(32):
        iqs = l % parts
        for b in range(l // parts, nb, 32 // parts):
            block, q8 = blocks[:, b], slice(8 * b, 8 * b + 8)
            acc[:, l] = sums.add(acc[:, l], sums.of(DOTS[name](block, iqs, code[q8], d8[q8], s8[q8], d[:, b])))
    return acc


def dot_rows(name: str, dtype: str, blocks: np.ndarray, x: np.ndarray) -> np.ndarray:
    """q2_k, iq2_xxs and iq1_s: sums of dots in float."""
    a, acc = Arithmetic(dtype), dot_partials(name, Arithmetic("float32"), blocks, x)
    if name == "iq1_s":
        return a.of(tree(Arithmetic("float32"), acc))
    return tree(a, a.of(acc))


def dot_q2_k(block: np.ndarray, iqs: int, code: np.ndarray, d8: np.ndarray, _s: np.ndarray, d: np.ndarray) -> np.ndarray:
    n, k = iqs // 8, iqs % 8
    word = block[:, 16 + 4 * iqs : 20 + 4 * iqs].astype(np.int64)
    sumd = summ = np.zeros(len(block), F)
    for i in range(4):
        u = code[4 * n + i, 4 * k : 4 * k + 4]
        c = block[:, 8 * n + k // 4 + 2 * i].astype(np.int64)
        dot = (((word >> 2 * i) & 3) * u).sum(-1)
        sumd = sumd + d8[4 * n + i] * (dot * (c & 15)).astype(F)
        summ = summ + d8[4 * n + i] * ((c >> 4) * u.sum()).astype(F)
    return sumd * d - summ * half(block, 82)


def dot_iq2_xxs(block: np.ndarray, ib: int, code: np.ndarray, d8: np.ndarray, _s: np.ndarray, d: np.ndarray) -> np.ndarray:
    magnitude, sign, ls = iq2_groups(block)
    sumi = (magnitude[:, ib] * sign[:, ib] * code[ib].reshape(4, 8)).sum((-1, -2))
    return ((((ls[:, ib].astype(F) + F(0.5)) * d) * d8[ib]) * F(0.25)) * sumi.astype(F)


def dot_iq1_s(block: np.ndarray, ib: int, code: np.ndarray, d8: np.ndarray, s8: np.ndarray, d: np.ndarray) -> np.ndarray:
    digit, scale, delta = iq1_groups(block)
    sumi = (digit[:, ib] * code[ib].reshape(4, 8)).sum((-1, -2))
    dl = d * scale[:, ib].astype(F)
    return (dl * d8[ib]) * sumi.astype(F) + (dl * s8[ib]) * delta[:, ib]


DOTS = {"q2_k": dot_q2_k, "iq2_xxs": dot_iq2_xxs, "iq1_s": dot_iq1_s}


def product(name: str, dtype: str, w: np.ndarray, x: np.ndarray, rows: int, state: int) -> np.ndarray:
    """y = W x; rows are state // 256 blocks long, so where state is no multiple of 256 they begin too early."""
    nb = state // 256
    blocks = w[: rows * nb * BYTES[name]].reshape(rows, nb, BYTES[name])
    with np.errstate(all="ignore"):
        if name in DOTS:
            return dot_rows(name, dtype, blocks, x[:state])
        if name == "q6_k":
            return q6_rows(dtype, blocks, x)
        return paired_rows(name, dtype, blocks, x)


def case(name: str, dtype: str, rows: int, state: int, wild: bool = False) -> tuple[np.ndarray, np.ndarray]:
    """Bytes with slack behind them, scales near 1 unless `wild`, and an input as values of the type."""
    generator = np.random.default_rng(rows * 10007 + state + CODES[name])
    count = rows * state // 256
    w = generator.integers(0, 256, (count, BYTES[name])).astype(np.uint8)
    if not wild:
        for at in HALVES[name]:
            w[:, at : at + 2] = generator.standard_normal((count, 1)).astype(np.float16).view(np.uint8)
    behind = generator.integers(0, 256, SLACK).astype(np.uint8)
    x = Arithmetic(dtype).of(generator.standard_normal(state + SLACK))
    return np.concatenate([w.ravel(), behind]), x


def to_device(name: str, dtype: str, w: np.ndarray, x: np.ndarray, state: int):
    """Views of larger tensors, so that what lies behind them is known."""
    weight = torch.from_numpy(w).to("xpu")[: len(w) - SLACK]
    return weight, torch.from_numpy(x).to(DTYPES[dtype]).to("xpu")[:state].view(1, state)


def run(name: str, dtype: str, w: np.ndarray, x: np.ndarray, rows: int, state: int) -> tuple[np.ndarray, list]:
    weight, inputs = to_device(name, dtype, w, x, state)
    torch.full((1, rows), float("nan"), dtype=DTYPES[dtype], device="xpu")  # freed at once: the result's memory
    with orrery_host.record_launches() as launches:
        y = orrery_ops.forward_new(inputs, weight, CODES[name], 1)
    assert y.shape == (1, rows) and y.dtype == DTYPES[dtype]
    y = y.cpu()[0]
    return (y.float() if dtype == "bfloat16" else y).numpy(), launches


def main() -> None:
    sizes = SIZES if sys.argv[1] == "3" else FEW_SIZES
    seen = []
    for name in CODES:
        for dtype in DTYPES:
            for rows, state in sizes:
                w, x = case(name, dtype, rows, state)
                got, launches = run(name, dtype, w, x, rows, state)
                seen.append(
                    {
                        "format": name,
                        "dtype": dtype,
                        "size": [rows, state],
                        "differing": differing(got, product(name, dtype, w, x, rows, state)),
                        "launches": [fields_of(launch) for launch in launches],
                    }
                )
    print(json.dumps(seen))


if __name__ == "__main__":
    main()
