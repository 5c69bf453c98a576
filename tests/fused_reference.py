"""The fused projections and the fused gated MLP in numpy, in the orders of additions of their kernels.

Run as a program it makes every case of a class on the device that ORRERY_HOST_DEVICE_NAME names and prints what it saw
as JSON: a device's class, which is the argument, is fixed when the module loads.
"""

from __future__ import annotations

import ctypes
import itertools
import json
import sys
from collections.abc import Callable
from dataclasses import dataclass, replace
from functools import cache

import numpy as np
import torch

import block_reference as block
import linear_reference as ref
import orrery_host
import orrery_ops
from linear_reference import DTYPES, SLACK, Arithmetic, Split, float32_of, numbers, tree

F, D = np.float32, np.float64
LAYOUT = {name: ref.SPLIT[name] for name in ("q4_0", "fp4", "fp6")} | {"fp8_e5m2": Split(64, np.float32, 4, 8)}
# Here a code of fp8_e5m2 is a half with nothing below it, and has its scale.
VALUES = {name: ref.VALUES[name] for name in LAYOUT} | {"fp8_e5m2": ref.halves_of(ref.BYTE << 8)}
FORMATS = (*LAYOUT, "iq2_xxs")
CPP = {"float32": "float", "float64": "double", "float16": "c10::Half", "bfloat16": "c10::BFloat16"}
CODES = ref.CODES | block.CODES
BYTES = {name: layout.quant_bytes + layout.scale_bytes for name, layout in LAYOUT.items()} | block.BYTES
ELEMENTS = {name: 64 if name in LAYOUT else 256 for name in BYTES}
# Sizes of scales that make values near 1.
SIZE = {"q4_0": 0.25, "fp4": 0.25, "fp6": 256, "fp8_e5m2": 0.5, "iq2_xxs": 1 / 32, "q2_k": 1 / 32}
# What a native function of float may be off, as a part of its value: half an ulp, since on the host they round
# once from double (includes/native.h); the last term is for the double.
NATIVE = 2.0**-24 + 2.0**-48
ROUNDING = 2.0**-24


def weight(name: str, rows: int, state: int, seed: int, size: float = 1.0) -> np.ndarray:
    """Random bytes with scales of ordinary size, and slack behind them."""
    generator = np.random.default_rng([seed, rows, state])
    count = rows * state // ELEMENTS[name]

    def scales(*shape: int) -> np.ndarray:
        return generator.standard_normal(shape) * SIZE[name] * size

    if name in LAYOUT:
        quants = generator.integers(0, 256, count * LAYOUT[name].quant_bytes).astype(np.uint8)
        if name == "fp8_e5m2":  # nothing above 2, or sums of halves would overflow
            quants &= 0xBF
        planes = [quants, scales(count).astype(LAYOUT[name].scale).view(np.uint8)]
    else:
        blocks = generator.integers(0, 256, (count, BYTES[name])).astype(np.uint8)
        for at in block.HALVES[name]:
            blocks[:, at : at + 2] = scales(count, 1).astype(np.float16).view(np.uint8)
        planes = [blocks.ravel()]
    return np.concatenate([*planes, generator.integers(0, 256, SLACK).astype(np.uint8)])


def inputs(dtype: str, state: int) -> np.ndarray:
    """One row, and slack behind it."""
    return Arithmetic(dtype).of(np.random.default_rng(state).standard_normal(state + SLACK))


def to_device(array: np.ndarray, dtype: str = "") -> torch.Tensor:
    """A view of a larger tensor, so that what lies behind it is known."""
    tensor = torch.from_numpy(array)
    return (tensor.to(DTYPES[dtype]) if dtype else tensor).to("xpu")[: len(array) - SLACK]


MARKS = bytes(range(1, 256)) * 2


def nan_for_result(shape: tuple[int, ...], dtype: str) -> Callable[[torch.Tensor], None]:
    """Frees a NaN tensor, whose memory becomes that of the next one of its size. What is returned asserts that a result
    lies there, and that what was behind it is still there."""
    room = torch.full(shape, float("nan"), dtype=DTYPES[dtype], device="xpu")
    marks = MARKS if room.nbytes else b""  # a tensor without elements has no memory
    at, behind = room.data_ptr(), room.data_ptr() + room.nbytes
    ctypes.memmove(behind, marks, len(marks))

    def check(result: torch.Tensor) -> None:
        assert result.data_ptr() == at and ctypes.string_at(behind, len(marks)) == marks

    return check


def run_sums(
    name: str, dtype: str, w: np.ndarray, x: np.ndarray, rows: int, first: np.ndarray, state: int
) -> np.ndarray:
    """Sums of rows that begin in the blocks `first`, [row, item], of a weight of `rows` rows."""
    layout = LAYOUT[name]
    offset = rows * state // 64 * layout.quant_bytes
    with np.errstate(all="ignore"):
        partials = ref.run_partials(name, dtype, w, x, offset, first, state, layout, VALUES[name])
        return tree(Arithmetic(dtype), partials)


def blocks_of(name: str, w: np.ndarray, rows: int, state: int) -> np.ndarray:
    return w[: rows * (state // 256) * BYTES[name]].reshape(rows, state // 256, BYTES[name])


# --- Projections ----------------------------------------------------------------------------------------------------


@dataclass(frozen=True)
class Projections:
    """A call of forward_qkv; of forward_qkv_bias with a bias, of forward_qk with two weights."""

    name: str
    dtype: str
    state: int = 576
    rows: tuple[int, ...] = (48, 16, 32)  # that the weights hold
    bias: bool = False
    head_size: int = 16
    position: int = 5
    # Makes theta 256^(-2/16) = 1/2, so that its powers and the angles are exact.
    rope_base: float = 256.0
    kv_seq_len: int = 2
    seq: int = 4  # of the caches
    vtype: int = 0  # 0: the value weight's own

    @property
    def formats(self) -> list[str]:
        """Of each weight; the value weight of iq2_xxs projections is q2_k."""
        return [self.name, self.name, "q2_k" if self.name == "iq2_xxs" else self.name][: len(self.rows)]

    @property
    def kernel(self) -> str:
        shape = {"q4_0": "_2x16", "fp4": "_2x16", "fp8_e5m2": "_2x8"}.get(self.name, "")
        return f"qlinear_xpu_kernel_{self.name}{shape}_" + ("qkv" if len(self.rows) == 3 else "qk")

    @cache
    def weights(self) -> list[np.ndarray]:
        """Three weights of the same size would still be different."""
        return [weight(f, r, self.state, 11 + p) for p, (f, r) in enumerate(zip(self.formats, self.rows, strict=True))]

    def biases(self) -> list[np.ndarray]:
        generator = np.random.default_rng(7)
        return [Arithmetic(self.dtype).of(generator.standard_normal(r) * 3) for r in self.rows]

    def counted_rows(self, p: int) -> int:
        """What the operation takes a projection's rows to be."""
        name = next(n for n, code in CODES.items() if code == self.vtype) if p == 2 and self.vtype else self.formats[p]
        w, size = self.weights()[p], BYTES.get(name) or ref.BLOCK_BYTES[name]
        return (len(w) - SLACK) // size * ELEMENTS.get(name, 64) // self.state

    def heads(self, p: int) -> int:
        """Of the query, which has whole ones only, or of a cache."""
        return (self.counted_rows(p) + (p > 0) * (self.head_size - 1)) // self.head_size

    def groups(self) -> int:
        return max(self.counted_rows(p) for p in range(len(self.rows))) // 2

    def room_shape(self, p: int) -> tuple[int, int, int]:
        """Of a cache's storage, wider than its rows and with room behind them; the two differ in their strides."""
        capacity = max(self.seq, self.kv_seq_len) + 3
        heads, size = self.heads(p), self.head_size
        return (heads, capacity, size + 3) if p == 1 else (capacity, heads, size + 5)


def by_heads(p: int, room):
    """[head, position, element] of a cache's storage, in numpy or torch."""
    return room if p == 1 else room.swapaxes(0, 1)


def shape_of_projections(name: str, device_class: int) -> tuple[int, int]:
    """Sub-group and work-group."""
    if name == "iq2_xxs":
        return 32, 32
    return (32, 64) if device_class == 0 or name == "fp6" else (16, 32)


def pair_sums(c: Projections, p: int, group_size: int) -> tuple[np.ndarray, ...]:
    """Head, number in the head, and the two sums of every pair of rows that a group makes."""
    half, rows, w, x = c.head_size // 2, c.counted_rows(p), c.weights()[p], inputs(c.dtype, c.state)
    head, i = np.divmod(np.arange(c.groups()), half)
    made = head * c.head_size + i + half < rows
    head, i = head[made], i[made]
    row = head * c.head_size + i
    if c.name == "iq2_xxs":
        a = Arithmetic(c.dtype)
        with np.errstate(all="ignore"):
            partials = block.dot_partials(c.formats[p], a, blocks_of(c.formats[p], w, rows, c.state), x[: c.state])
            sums = tree(a, partials)
        return head, i, sums[row], sums[row + half]
    first = (row[:, None] * c.state + LAYOUT[c.name].run * np.arange(group_size)) // 64
    both = np.concatenate([first, first + c.state // 64 * half])
    return head, i, *np.split(run_sums(c.name, c.dtype, w, x, rows, both, c.state), 2)


_powf = ctypes.CDLL(None).powf
_powf.restype, _powf.argtypes = ctypes.c_float, (ctypes.c_float, ctypes.c_float)


def angles(c: Projections, i: np.ndarray) -> np.ndarray:
    theta = _powf(c.rope_base, F(-2.0) / F(c.head_size))
    return (D(theta) ** i).astype(F) * F(c.position)


def rotated(c: Projections, i: np.ndarray, x1: np.ndarray, x2: np.ndarray) -> tuple[np.ndarray, np.ndarray]:
    """The pairs, turned; with the nearest floats for native functions."""
    a, angle = Arithmetic(c.dtype), angles(c, i)
    sn, cs = float32_of(np.sin, angle), float32_of(np.cos, angle)
    x1, x2 = x1.astype(F), x2.astype(F)
    with np.errstate(all="ignore"):
        return a.of(cs * x1 - sn * x2), a.of(cs * x2 + sn * x1)


def turn_bounds(c: Projections, i: np.ndarray, s1: np.ndarray, s2: np.ndarray) -> list[tuple[np.ndarray, np.ndarray]]:
    """The lowest and the highest of both results. pown is a native function, and its product with the position rounds;
    sine and cosine are native, and the two products and their sum round: as a part of the pair's length."""
    a, angle = Arithmetic(c.dtype), angles(c, i).astype(D)
    x1, x2 = s1.astype(F).astype(D), s2.astype(F).astype(D)
    off = (np.abs(x1) + np.abs(x2)) * (np.abs(angle) * (NATIVE + 2 * ROUNDING) + NATIVE + 3 * ROUNDING)
    turned = np.cos(angle) * x1 - np.sin(angle) * x2, np.cos(angle) * x2 + np.sin(angle) * x1
    return [(a.of(y - off), a.of(y + off)) for y in turned]


def projected(c: Projections, device_class: int) -> list[list[np.ndarray]]:
    """Of each projection head, number in the head and the two results of every pair that is written."""
    a, half = Arithmetic(c.dtype), c.head_size // 2
    out = []
    for p in range(len(c.rows)):
        head, i, s1, s2 = pair_sums(c, p, shape_of_projections(c.name, device_class)[1])
        if c.bias and c.name != "iq2_xxs":
            bias, row = c.biases()[p], head * c.head_size + i
            s1, s2 = a.add(s1, bias[row]), a.add(s2, bias[row + half])
        out.append([head, i, *((s1, s2) if p == 2 else rotated(c, i, s1, s2))])
    return out


def placed(c: Projections, pairs: list[list[np.ndarray]]) -> list[np.ndarray]:
    """The query and the caches' whole storage, NaN where nothing is written."""
    half, out = c.head_size // 2, []
    for p, (head, i, y1, y2) in enumerate(pairs):
        shape = (1, c.heads(0), 1, c.head_size) if p == 0 else c.room_shape(p)
        room = np.full(shape, np.nan, Arithmetic(c.dtype).numpy)
        row = room[0, :, 0] if p == 0 else by_heads(p, room)[:, c.kv_seq_len]
        row[head, i], row[head, i + half] = y1, y2
        out.append(room)
    return out


def launch_of_projections(c: Projections, device_class: int) -> dict:
    sub_group, group = shape_of_projections(c.name, device_class)
    arguments = [CPP[c.dtype], str(sub_group), str(group)]
    if c.name != "iq2_xxs":
        arguments.append("true" if c.bias else "false")
    return {
        "name": "gridrun_kernel",
        "kernel": c.kernel,
        "instance": ", ".join(arguments),
        "global": [c.groups() * group, len(c.rows)],
        "local": [group, 1],
        "sub_group": sub_group,
        "local_memory": 2 * group * DTYPES[c.dtype].itemsize,
        "waited": False,
        "function": c.kernel,
        "file": "linear_xpu_fused_qkv_kernel",
    }


@cache
def expected_projections(c: Projections, device_class: int) -> list[np.ndarray]:
    return placed(c, projected(c, device_class))


@dataclass
class Called:
    """Tensors of a call, what it returned and launched."""

    rooms: list[torch.Tensor]  # the caches' storage
    caches: list[torch.Tensor]
    results: list[torch.Tensor]
    launches: list

    def numbers(self) -> list[np.ndarray]:
        """The query and the caches' whole storage."""
        return [numbers(self.results[0]), *map(numbers, self.rooms)]


def caches_of(c: Projections) -> tuple[list[torch.Tensor], list[torch.Tensor]]:
    rooms, caches = [], []
    for p in range(1, len(c.rows)):
        room = torch.full(c.room_shape(p), float("nan"), dtype=DTYPES[c.dtype], device="xpu")
        rooms.append(room)
        caches.append(by_heads(p, room)[None, :, : c.seq, : c.head_size])
    return rooms, caches


def operands(c: Projections | Mlp) -> list[torch.Tensor]:
    """The input and the weights."""
    return [to_device(inputs(c.dtype, c.state), c.dtype).view(1, c.state), *map(to_device, c.weights())]


def call_projections(c: Projections, position_ids: torch.Tensor | None = None) -> Called:
    x, *weights = operands(c)
    biases = [torch.from_numpy(b).to(DTYPES[c.dtype]).to("xpu") for b in c.biases()] if c.bias else []
    rooms, caches = caches_of(c)
    if position_ids is None:
        position_ids = torch.tensor([[c.position]])
    codes = [CODES[c.name]] + ([c.vtype or CODES[c.formats[2]]] if len(c.rows) == 3 else [])
    operation = orrery_ops.forward_qk if len(c.rows) == 2 else orrery_ops.forward_qkv
    operation = orrery_ops.forward_qkv_bias if c.bias else operation
    numbers_after = (c.kv_seq_len, c.head_size, c.rope_base)
    position_ids = position_ids.to("xpu")
    check_place = nan_for_result((1, c.heads(0), 1, c.head_size), c.dtype)
    with orrery_host.record_launches() as launches:
        results = operation(x, *weights, *biases, position_ids, *caches, *codes, *numbers_after)
    check_place(results[0])
    return Called(rooms, caches, results, launches)


# --- The gated MLP --------------------------------------------------------------------------------------------------


@dataclass(frozen=True)
class Mlp:
    name: str
    dtype: str
    state: int = 576
    rows: int = 24
    act: int = 0
    gain: float = 1.0  # of the gate: 1 makes its sums a few units, where the activation bends

    @cache
    def weights(self) -> list[np.ndarray]:
        size = {"fp8_e5m2": 1.0, "iq2_xxs": 0.1}.get(self.name, 0.3)
        return [weight(self.name, self.rows, self.state, 21 + p, size * (1 if p else self.gain)) for p in range(2)]


def shape_of_mlp(name: str, device_class: int) -> tuple[int, int, int]:
    """Sub-group, work-group, and rows of each weight in a group."""
    if name == "iq2_xxs":
        return 32, 64, 2
    sub_group = 32 if device_class == 0 else 16
    return sub_group, 2 * sub_group, 8 if device_class == 5 and name in ("q4_0", "fp6") else 2


def served_rows(c: Mlp, device_class: int) -> int:
    per_group = shape_of_mlp(c.name, device_class)[2]
    return c.rows // per_group * per_group if c.name in ("q4_0", "fp4") else c.rows


def sums_of_mlp(c: Mlp, device_class: int) -> list[np.ndarray]:
    """Of the gate and of the other weight, in the type."""
    return _sums_of_mlp(replace(c, act=0), shape_of_mlp(c.name, device_class))


@cache
def _sums_of_mlp(c: Mlp, shape: tuple[int, int, int]) -> list[np.ndarray]:
    x, (_, group_size, per_group) = inputs(c.dtype, c.state), shape
    with np.errstate(all="ignore"):
        if c.name == "iq2_xxs":
            return [block.product(c.name, c.dtype, w, x, c.rows, c.state) for w in c.weights()]
        first = ref.first_blocks(c.rows, c.state, group_size, LAYOUT[c.name].run, per_group)
        return [run_sums(c.name, c.dtype, w, x, c.rows, first, c.state) for w in c.weights()]


def activated(dtype: str, act: int, g: np.ndarray, u: np.ndarray) -> tuple[np.ndarray, np.ndarray]:
    """The lowest and the highest result, from sums of the type. All is of float but in double the last product, which
    rounds less."""
    a = Arithmetic(dtype)
    g, u = g.astype(F).astype(D), u.astype(D)
    with np.errstate(all="ignore"):
        if act == 0:
            # exp overflows as a float. Its error, and one rounding of the sum, the product and the quotient.
            e = float32_of(np.exp, -g.astype(F)).astype(D)
            y = g * u / (1 + e)
            off = np.abs(y) * (2 * NATIVE + 3 * ROUNDING)
        else:
            c, k = np.array([0x3F4C422A, 0x3D372713], np.uint32).view(F).astype(D)
            cube = g**3
            z = c * g + k * cube
            t = np.tanh(z)
            y = 0.5 * g * (1 + t) * u
            # 1 + tanh has the absolute error of tanh: that of the function and that of its argument times its slope.
            z_off = np.abs(c * g) * 2 * ROUNDING + np.abs(k * cube) * (NATIVE + 2 * ROUNDING)
            t_off = np.abs(t) * NATIVE + (1 - t * t) * z_off
            off = np.abs(0.5 * g * u) * np.where(np.isfinite(t_off), t_off, 0) + np.abs(y) * 4 * ROUNDING
        off = np.where(np.isfinite(off), off, 0) + 2.0**-148  # subnormals
        if dtype == "float64":
            return y - off, y + off
        return a.of((y - off).astype(F)), a.of((y + off).astype(F))


def expected_mlp(c: Mlp, device_class: int) -> tuple[np.ndarray, np.ndarray]:
    """Bounds of all rows; NaN for those that are not written."""
    low, high = (np.full((1, c.rows), np.nan, Arithmetic(c.dtype).numpy) for _ in range(2))
    served = slice(0, served_rows(c, device_class))
    low[0, served], high[0, served] = activated(c.dtype, c.act, *(s[served] for s in sums_of_mlp(c, device_class)))
    return low, high


def launch_of_mlp(c: Mlp, device_class: int) -> dict:
    sub_group, group, per_group = shape_of_mlp(c.name, device_class)
    kernel = f"mlp_forward_{c.name}_kernel"
    arguments = [CPP[c.dtype], str(sub_group), str(group)] + ([str(per_group)] if c.name in ("q4_0", "fp6") else [])
    global_range, local_range = [c.rows // per_group * group], [group]
    if c.name == "iq2_xxs":
        arguments, global_range, local_range = arguments[:1], [(c.rows * 16 + 16) & ~31, 2], [32, 2]
    elif c.name in ("fp8_e5m2", "fp6"):
        global_range = [-(-c.rows // per_group) * group]
    elements = 128 if c.name == "iq2_xxs" else 2 * per_group * group
    return {
        "name": "gridrun_kernel",
        "kernel": kernel,
        "instance": ", ".join(arguments),
        "global": global_range,
        "local": local_range,
        "sub_group": sub_group,
        "local_memory": elements * DTYPES[c.dtype].itemsize,
        "waited": False,
        "function": kernel,
        "file": "mlp_xpu_kernel",
    }


def outside(got: np.ndarray, low: np.ndarray, high: np.ndarray) -> int:
    """How many numbers are not between their bounds; NaN is between NaN."""
    assert got.dtype == low.dtype and got.shape == low.shape
    nan = np.isnan(low) | np.isnan(high)
    with np.errstate(invalid="ignore"):
        return int((~np.where(nan, np.isnan(got), (low <= got) & (got <= high))).sum())


def call_mlp(c: Mlp) -> tuple[np.ndarray, list]:
    x, gate, up = operands(c)
    check_place = nan_for_result((1, c.rows), c.dtype)
    with orrery_host.record_launches() as launches:
        y = orrery_ops.mlp_forward_xpu(x, gate, up, 1, c.state, c.rows, c.act, CODES[c.name])
    assert y.shape == (1, c.rows) and y.dtype == DTYPES[c.dtype] and y.device.type == "xpu"
    check_place(y)
    return numbers(y), launches


# --- One class in a process of its own ------------------------------------------------------------------------------


def states_of(name: str) -> tuple[int, ...]:
    """Less than a block, a block, more than a pass of the largest group with a remainder."""
    return (256, 1280) if name == "iq2_xxs" else (16, 64, 1088)


def projections_of_instance(name: str, dtype: str, bias: bool) -> list[Projections]:
    return [Projections(name, dtype, state, bias=bias) for state in states_of(name)]


def forward_qk_cases(dtype: str) -> list[Projections]:
    return [Projections("iq2_xxs", dtype, state, rows=(48, 16)) for state in states_of("iq2_xxs")]


MLP_KINDS = ((0, 1.0), (1, 1.0), (0, 99.0))


def mlp_cases(name: str, dtype: str) -> list[Mlp]:
    """Gates near 0, and large ones, whose results show the sums to the bit."""
    return [Mlp(name, dtype, state, 24, act, gain) for state in states_of(name) for act, gain in MLP_KINDS]


def all_projections() -> list[Projections]:
    instances = itertools.product(FORMATS, DTYPES, (False, True))
    cases = [c for instance in instances for c in projections_of_instance(*instance)]
    return cases + [c for d in DTYPES for c in forward_qk_cases(d)]


def all_mlps(device_class: int) -> list[Mlp]:
    names = [n for n in FORMATS if n != "iq2_xxs" or device_class in (0, 5)]
    cases = [c for n, d in itertools.product(names, DTYPES) for c in mlp_cases(n, d)]
    if "iq2_xxs" in names:
        cases += [Mlp("iq2_xxs", d, 512, rows) for d, rows in itertools.product(DTYPES, (1, 2, 7, 19))]
    cases += [Mlp("q4_0", "float16", rows=rows) for rows in (7, 8, 15, 17)]
    return cases + [Mlp(n, "float32", state, 24) for n in ("q4_0", "fp6") for state in (80, 208)]


def hexadecimal(arrays: list[np.ndarray]) -> list[str]:
    return [a.tobytes().hex() for a in arrays]


def refusals_of_iq2_xxs() -> list[str]:
    """What mlp_forward_xpu says of an integer input, and of a row that cannot be quantized."""
    weight, texts = torch.zeros(132, dtype=torch.uint8, device="xpu"), []
    for dtype, state in ((torch.int32, 256), (torch.float32, 320)):
        x = torch.ones(1, state, dtype=dtype, device="xpu")
        try:
            orrery_ops.mlp_forward_xpu(x, weight, weight, 1, state, 2, 0, CODES["iq2_xxs"])
        except RuntimeError as error:
            texts.append(str(error).splitlines()[0])
    return texts


def main() -> None:
    seen = []
    for c in all_projections():
        called = call_projections(c)
        launches = [ref.fields_of(launch) for launch in called.launches]
        seen.append({"case": repr(c), "results": hexadecimal(called.numbers()), "launches": launches})
    for c in all_mlps(int(sys.argv[1])):
        y, launches = call_mlp(c)
        seen.append({"case": repr(c), "results": hexadecimal([y]), "launches": [ref.fields_of(l) for l in launches]})
    seen.append({"case": "refusals of iq2_xxs", "texts": refusals_of_iq2_xxs(), "launches": []})
    print(json.dumps(seen))


@cache
def output_on_class(device_class: int) -> list[dict] | AssertionError:
    """A process that dies is not started again for each of its tests."""
    try:
        return ref.run_on_class(device_class, __file__, str(device_class))
    except AssertionError as error:
        return error


@cache
def seen_on_class(device_class: int) -> dict[str, dict]:
    """By case, what a process on a device of that class saw."""
    output = output_on_class(device_class)
    if isinstance(output, AssertionError):
        raise output
    return {one["case"]: one for one in output}


def instances_seen(unit: str) -> set[tuple]:
    """What the processes of all classes launched from a source unit."""
    return {
        (launch["kernel"], launch["instance"])
        for device_class in ref.DEVICE_OF_CLASS
        for one in seen_on_class(device_class).values()
        for launch in one["launches"]
        if launch["file"] == unit
    }


def results_of(seen: dict, like: list[np.ndarray]) -> list[np.ndarray]:
    pairs = zip(seen["results"], like, strict=True)
    return [np.frombuffer(bytes.fromhex(text), a.dtype).reshape(a.shape) for text, a in pairs]


if __name__ == "__main__":
    main()
