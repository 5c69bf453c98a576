"""The benchmark cases: each returns rows that compare our operators with a peer."""

from __future__ import annotations

from dataclasses import dataclass
from functools import partial
from math import gcd
from pathlib import Path
from statistics import median
from types import ModuleType
from typing import Callable

import torch
import torch.nn.functional as F

from orrery import formats as weight_formats
from orrery.formats import FORMATS, Format, quantize

from . import attention as attention_kernels
from . import decode
from . import engine as matrix_engine
from . import overhead as checked_overhead
from . import recurrence, sequence, token_parts
from .measure import Call, Flush, call_cost, copy_rate, interleaved, type_name
from .report import Bar, Row
from .rounding import RoundedOperations

# Largest distance of our result from the float32 product, relative to its norm, so that no wrong result is timed. Half
# and bfloat16 round every partial sum of up to 4096 terms.
_NEAR = {torch.float32: 1e-4, torch.float16: 3e-2, torch.bfloat16: 2e-1}
# These quantize a single input row to 8 bits first.
_CODED = ("iq2_xxs", "q2_k", "iq1_s")
_NEAR_CODED = 2e-2
# With several rows the dense weight may be rounded to half.
_NEAR_DENSE = 1e-3

_SIZE = 4096  # rows and columns of a large weight

# Targets of one row in float, as fractions of the read bandwidth.
_BANDWIDTH = {
    **dict.fromkeys(("q4_0", "q4_1", "q8_0", "nf4", "fp4", "fp8_e4m3", "fp8_e5m2", "fp6"), 0.65),
    **dict.fromkeys(("q4_k", "q6_k"), 0.35),
    **dict.fromkeys(_CODED, 0.25),
}


@dataclass
class Setting:
    """What all cases share. `ops` is None if only the peers are measured."""

    ops: ModuleType | None
    threads: int
    quick: bool
    flush: Flush
    model: Path | None
    load: int = 0  # number of busy loops

    def runs(self, full: int) -> int:
        return max(3, full // 8) if self.quick else full

    def both(self, ours: Call, peer: Call | None, runs: int, cold: bool = True) -> tuple[float | None, float | None]:
        calls = {}
        if self.ops is not None:
            calls["ours"] = ours
        if peer is not None:
            calls["peer"] = peer
        times = interleaved(calls, self.runs(runs), self.flush if cold else lambda: None)
        return times.get("ours"), times.get("peer")

    def on_device(self, tensor: torch.Tensor) -> torch.Tensor:
        return tensor.to("xpu") if self.ops is not None else tensor

    def check(self, name: str, ours: Call, reference: torch.Tensor, limit: float) -> None:
        if self.ops is None:
            return
        result = ours().cpu().float()
        distance = float((result - reference).norm() / reference.norm())
        if not distance <= limit:
            raise ArithmeticError(f"{name}: the result is {distance:.2g} away from the reference, {limit:g} is allowed")


def random_weight(fmt: Format, rows: int, columns: int) -> tuple[torch.Tensor, torch.Tensor]:
    """The bytes of a random matrix and its float32 values. Repeats up to 64 rows, since quantizing is slow."""
    some = gcd(rows, 64)
    part = quantize(fmt, torch.randn(some, columns, generator=torch.Generator().manual_seed(0)) * 0.03)
    data = torch.cat([plane.repeat(rows // some, 1).view(-1) for plane in fmt.planes(part)])
    return data, weight_formats.dequantize(fmt, part, columns).repeat(rows // some, 1)


def _square(format_name: str, n: int = 1) -> tuple[Format, torch.Tensor, torch.Tensor, torch.Tensor]:
    """A format, a weight in it of _SIZE rows and columns, the same as floats, and n input rows."""
    fmt = FORMATS[format_name]
    return fmt, *random_weight(fmt, _SIZE, _SIZE), torch.randn(n, _SIZE, generator=torch.Generator().manual_seed(1))


def _linear_row(
    setting: Setting, format_name: str, dtype: torch.dtype, bars: list[Bar], n: int = 1, runs: int = 40
) -> Row:
    fmt, weight, dense, x = _square(format_name, n)
    x = x.to(dtype)
    name = f"forward_new {format_name} {_SIZE}x{_SIZE} {type_name(dtype)}" + (f", {n} rows" if n > 1 else "")
    device_x, device_weight = setting.on_device(x), setting.on_device(weight)

    def ours() -> torch.Tensor:
        return setting.ops.forward_new(device_x, device_weight, fmt.code, n)

    near = _NEAR[dtype]
    if format_name in _CODED and n == 1:
        near = max(near, _NEAR_CODED)
    setting.check(name, ours, x.float() @ dense.T, max(near, _NEAR_DENSE) if n > 1 else near)
    peer_weight = dense.to(dtype)
    times = setting.both(ours, lambda: F.linear(x, peer_weight), runs)
    return Row(name, *times, f"torch linear {type_name(dtype)}", bytes=weight.numel(), bars=bars)


def linear(setting: Setting) -> list[Row]:
    """One input row with q4_0, in the shape of a 7B model's projection."""
    bars = [Bar("bandwidth", _BANDWIDTH["q4_0"]), Bar("speed", 5.0)]
    return [_linear_row(setting, "q4_0", torch.float32, bars, runs=60)]


def formats(setting: Setting) -> list[Row]:
    """The other formats in float."""
    return [
        _linear_row(setting, name, torch.float32, [Bar("bandwidth", _BANDWIDTH[name])] if name in _BANDWIDTH else [])
        for name in FORMATS
        if name != "q4_0"
    ]


def types(setting: Setting) -> list[Row]:
    """A few formats in the other value types, each against PyTorch's product in the same type."""
    bars = {("q4_0", torch.float16): [Bar("speed", 1.0)], ("q8_0", torch.float16): [Bar("speed", 1.0)]}
    return [
        _linear_row(setting, name, dtype, bars.get((name, dtype), []), runs=24)
        for name in ("q4_0", "q8_0", "fp8_e5m2", "q6_k")
        for dtype in (torch.float16, torch.bfloat16)
    ]


def halves(setting: Setting) -> list[Row]:
    """One input row in half against the same in float; a target where the machine computes in half."""
    if setting.ops is None:
        return []
    from orrery_host._built_for import LEVELS
    from orrery_host._instructions import level

    bars = [Bar("speed", 1.0)] if "AVX512FP16" in LEVELS[level()] else []
    return [_half_row(setting, name, bars) for name in ("q4_0", "q8_0", "nf4", "fp4", "fp8_e4m3", "fp8_e5m2", "fp6")]


def _half_row(setting: Setting, format_name: str, bars: list[Bar]) -> Row:
    fmt, weight, dense, x = _square(format_name)
    device_weight = setting.on_device(weight)
    calls = {
        dtype: partial(setting.ops.forward_new, setting.on_device(x.to(dtype)), device_weight, fmt.code, 1)
        for dtype in (torch.float16, torch.float32)
    }
    name = f"forward_new {format_name} {_SIZE}x{_SIZE} float16"
    setting.check(name, calls[torch.float16], x @ dense.T, _NEAR[torch.float16])
    times = interleaved(calls, setting.runs(40), setting.flush)
    return Row(name, *times.values(), "the same in float32", bytes=weight.numel(), bars=bars)


def engine(setting: Setting) -> list[Row]:
    """A few input rows on the matrix engine."""
    return matrix_engine.in_own_process(setting.threads, setting.quick) if setting.ops is not None else []


# Input rows: the smallest batch, the limits of the kernels for pairs of rows, and two that use the dense weight.
_BATCHES = {"q4_0": (2, 7, 20, 32, 512), "q8_0": (2, 7, 32), "nf4": (2, 32), "q4_k": (2, 32, 512)}


def batches(setting: Setting) -> list[Row]:
    """Several input rows at once, in float."""
    return [
        _linear_row(setting, name, torch.float32, [Bar("peer time", 1.3)] if n >= 32 else [], n, 6 if n > 32 else 16)
        for name, counts in _BATCHES.items()
        for n in counts
    ]


def vectors(setting: Setting) -> list[Row]:
    """A few input rows with the explicit-SIMD kernels of q4_0, against as many rounded operations and nothing else: one
    product and one sum for each weight and row."""
    operations = RoundedOperations(setting.threads)
    return [
        _vector_row(setting, operations, n, dtype, device_class)
        for device_class, counts in ((1, (2, 8, 32)), (4, (2, 8)))
        for n in counts
        for dtype in (torch.float32, torch.float16)
    ]


def _vector_row(
    setting: Setting, operations: RoundedOperations, n: int, dtype: torch.dtype, device_class: int
) -> Row:
    fmt, weight, dense, x = _square("q4_0", n)
    x = x.to(dtype)
    device_x, device_weight = setting.on_device(x), setting.on_device(weight)

    def ours() -> torch.Tensor:
        return setting.ops.batch_forward(device_x, device_weight, n, _SIZE, _SIZE, fmt.code, device_class)

    name = f"batch_forward q4_0 {_SIZE}x{_SIZE} {type_name(dtype)}, {n} rows, class {device_class}"
    setting.check(name, ours, x.float() @ dense.T, _NEAR[torch.float16])
    times = setting.both(ours, partial(operations, n * _SIZE * _SIZE), 16)
    return Row(name, *times, "its rounded operations", bytes=weight.numel(), bars=[Bar("speed", 0.6)])


def dequantize(setting: Setting) -> list[Row]:
    """A weight to floats: the kernel in a product of several rows, and the operation, against a copy of equal size."""
    rate = copy_rate(torch.ones(_SIZE, _SIZE), setting.runs(24), setting.flush)
    rows = []
    for name in FORMATS:
        _, weight, dense, _ = _square(name)
        seconds = _dequantizing_kernel(setting, name, weight) if setting.ops is not None else None
        total = weight.numel() + dense.nbytes
        rows.append(Row(f"dequantize {name} 4096x4096 float32", seconds, total / rate, "copy of as many bytes",
                        bytes=total, byte_rate=rate, bars=[Bar("copy", 0.3)]))
    fmt, weight, dense, _ = _square("q4_0")
    x_d, weight_d = setting.on_device(torch.empty(1, _SIZE)), setting.on_device(weight)

    def ours() -> torch.Tensor:
        return setting.ops.dequant(x_d, weight_d, fmt.code)

    setting.check("dequant q4_0", ours, dense, _NEAR_DENSE)
    seconds, _ = setting.both(ours, None, 16)
    total = weight.numel() + dense.nbytes
    rows.append(Row("dequant q4_0 4096x4096 float32", seconds, total / rate, "copy of as many bytes", bytes=total,
                    byte_rate=rate, bars=[Bar("copy", 0.3)]))
    return rows


def _dequantizing_kernel(setting: Setting, name: str, weight: torch.Tensor) -> float:
    """Median seconds of the dequantizing kernel inside a product with 32 input rows."""
    import orrery_host

    x, weight = setting.on_device(torch.zeros(32, _SIZE)), setting.on_device(weight)
    seconds = []
    for _ in range(setting.runs(16) + 1):
        setting.flush()
        with orrery_host.record_launches() as launches:
            setting.ops.forward_new(x, weight, FORMATS[name].code, 32)
        seconds.append(sum(launch.seconds for launch in launches if "dequantize" in launch.kernel))
    if not all(seconds):
        raise RuntimeError(f"no dequantizing kernel ran for {name}")
    return median(seconds[1:])


def small(setting: Setting) -> list[Row]:
    """Small matrices, compared with the byte rate of a 4096 x 4096 one that is measured alternately with them."""
    fmt = FORMATS["q4_0"]
    shapes = [(4096, 4096), (1536, 576), (576, 1536)]
    calls: dict[tuple[str, int], Call] = {}
    for rows, columns in shapes:
        weight, dense = random_weight(fmt, rows, columns)
        x = torch.randn(1, columns)
        if setting.ops is not None:
            ours = partial(setting.ops.forward_new, setting.on_device(x), setting.on_device(weight), fmt.code, 0)
            setting.check(f"forward_new q4_0 {rows}x{columns}", ours, x @ dense.T, _NEAR[torch.float32])
            calls["ours", rows] = ours
        calls["peer", rows] = partial(F.linear, x, dense)
    times = interleaved(calls, setting.runs(100), setting.flush)
    large = times.get(("ours", 4096))
    return [
        Row(
            f"forward_new q4_0 {rows}x{columns} float32",
            times.get(("ours", rows)),
            times.get(("peer", rows)),
            "torch linear float32",
            bytes=fmt.size(rows, columns),
            byte_rate=fmt.size(4096, 4096) / large if large else None,
            bars=[Bar("byte time", 1.8)],
        )
        for rows, columns in shapes[1:]
    ]


def fused(setting: Setting) -> list[Row]:
    """The kernels of a decoding step's projections and of its gated product, each held to the kernel of one product with
    the same rows."""
    return _projections(setting) + _gated(setting) if setting.ops is not None else []


def _projections(setting: Setting) -> list[Row]:
    """576 to 576 + 192 + 192: nine query heads and three of keys and values, at position 0, where nothing turns."""
    fmt, state, rows = FORMATS["q4_0"], 576, (576, 192, 192)
    weights, dense = zip(*(random_weight(fmt, count, state) for count in rows))
    x = torch.randn(1, state, generator=torch.Generator().manual_seed(4))
    caches = [setting.on_device(torch.zeros(1, 3, 2, 64))[:, :, :1] for _ in "kv"]
    device_x, position = setting.on_device(x), setting.on_device(torch.tensor([[0]]))
    device_weights = [setting.on_device(weight) for weight in weights]

    def ours() -> list[torch.Tensor]:
        return setting.ops.forward_qkv(device_x, *device_weights, position, *caches, fmt.code, fmt.code, 0, 64, 10000.0)

    def result() -> torch.Tensor:
        query, key, value = ours()
        return torch.cat([query.flatten(), key[:, :, 0].flatten(), value[:, :, 0].flatten()])

    name = "forward_qkv q4_0 576 to 576+192+192 float32, kernel"
    setting.check(name, result, (x @ torch.cat(dense).T).flatten(), _NEAR[torch.float32])
    return _beside_one_product(setting, name, ours, sum(rows), x)


def _gated(setting: Setting) -> list[Row]:
    """The two products of a gated layer with their activation, 576 to 1536."""
    fmt, state, rows = FORMATS["q4_0"], 576, 1536
    gate, dense_gate = random_weight(fmt, rows, state)
    up, dense_up = random_weight(fmt, rows, state)
    x = torch.randn(1, state, generator=torch.Generator().manual_seed(5))
    device_x, device_gate, device_up = (setting.on_device(t) for t in (x, gate, up))

    def ours() -> torch.Tensor:
        return setting.ops.mlp_forward_xpu(device_x, device_gate, device_up, 1, state, rows, 0, fmt.code)

    name = "mlp_forward_xpu q4_0 576 to 1536 float32, kernel"
    setting.check(name, ours, F.silu(x @ dense_gate.T) * (x @ dense_up.T), _NEAR[torch.float32])
    return _beside_one_product(setting, name, ours, 2 * rows, x)


def _beside_one_product(setting: Setting, name: str, ours: Call, rows: int, x: torch.Tensor) -> list[Row]:
    fmt, state = FORMATS["q4_0"], x.size(1)
    weight, device_x = setting.on_device(random_weight(fmt, rows, state)[0]), setting.on_device(x)

    def peer() -> torch.Tensor:
        return setting.ops.forward_new(device_x, weight, fmt.code, 0)

    calls, peer_name = {"ours": ours, "peer": peer}, f"forward_new {rows}x{state}, kernel"
    cold = interleaved(calls, setting.runs(60), setting.flush, kernel_seconds)
    warm = interleaved(calls, setting.runs(2000), seconds=kernel_seconds)
    size, bars = fmt.size(rows, state), [Bar("peer time", 1.15)]
    return [
        Row(name, cold["ours"], cold["peer"], peer_name, bytes=size, bars=bars),
        Row(f"{name}, in cache", warm["ours"], warm["peer"], peer_name, bytes=size, bars=bars),
    ]


def kernel_seconds(call: Call) -> float:
    """Those of the launches of a call."""
    import orrery_host

    with orrery_host.record_launches() as launches:
        call()
    return sum(launch.seconds for launch in launches)


def empty(setting: Setting) -> list[Row]:
    """From the Python call to its return, with no work inside and everything in cache."""
    x, no_rows, nothing = torch.randn(1, 64), torch.empty(0, 64), torch.empty(0, dtype=torch.uint8)
    row, norm_weight = torch.empty(0, 64), torch.ones(64)
    frequencies, positions = torch.ones(32), torch.empty(1, 0, dtype=torch.int64)
    query, key = torch.empty(1, 9, 0, 64), torch.empty(1, 3, 0, 64)
    d = setting.on_device
    x_d, nothing_d, row_d, norm_d = d(x), d(nothing), d(row), d(norm_weight)
    rotary = [d(frequencies), d(positions), d(query), d(key)]
    ops = setting.ops
    cases: list[tuple[str, Call, Call | None, str]] = [
        (
            "forward_new, no output",
            lambda: ops.forward_new(x_d, nothing_d, FORMATS["q4_0"].code, 0),
            lambda: F.linear(x, no_rows),
            "torch linear, no output",
        ),
        (
            "rms_norm, no rows",
            lambda: ops.rms_norm(norm_d, row_d, 1e-5),
            lambda: F.rms_norm(row, (64,), norm_weight, 1e-5),
            "torch rms_norm, no rows",
        ),
        ("rotary_half_inplaced, no rows", lambda: ops.rotary_half_inplaced(*rotary), None, ""),
    ]
    rows = []
    for name, ours, peer, peer_name in cases:
        calls = {"ours": ours} if ops is not None else {}
        if peer is not None:
            calls["peer"] = peer
        times = call_cost(calls, setting.runs(40))
        rows.append(
            Row(f"empty: {name}", times.get("ours"), times.get("peer"), peer_name, bars=[Bar("microseconds", 8.0)])
        )
    return rows


def overhead(setting: Setting) -> list[Row]:
    """The checked operators' calls, less those of the functions that they call."""
    return checked_overhead.rows(setting)


def attention(setting: Setting) -> list[Row]:
    """One query over plain and one-byte caches, a prompt, and the codec of the one-byte caches."""
    return attention_kernels.rows(setting)


def norm(setting: Setting) -> list[Row]:
    """rms_norm of one row of 4096."""
    generator = torch.Generator().manual_seed(3)
    x, weight = torch.randn(1, 4096, generator=generator), torch.randn(4096, generator=generator)
    x_d, weight_d = setting.on_device(x), setting.on_device(weight)

    def ours() -> torch.Tensor:
        return setting.ops.rms_norm(weight_d, x_d, 1e-5)

    def peer() -> torch.Tensor:
        return F.rms_norm(x, (4096,), weight, 1e-5)

    setting.check("rms_norm", ours, peer(), 1e-4)
    cold = setting.both(ours, peer, 200)
    warm = setting.both(ours, peer, 2000, cold=False)
    return [
        Row("rms_norm 1x4096 float32", *cold, "torch rms_norm", bars=[Bar("speed", 1.0)]),
        Row("rms_norm 1x4096 float32, in cache", *warm, "torch rms_norm"),
    ]


def rotary(setting: Setting) -> list[Row]:
    """In place one position, 32 query and 8 key heads of 128; then whole prompts. Against the usual PyTorch lines."""
    inverse = 10000.0 ** (-torch.arange(64, dtype=torch.float32) / 64)
    position = torch.tensor([[7]])
    q, k = torch.randn(1, 32, 1, 128), torch.randn(1, 8, 1, 128)
    inverse_d, position_d, q_d, k_d = (setting.on_device(t) for t in (inverse, position, q, k))

    def ours() -> None:
        setting.ops.rotary_half_inplaced(inverse_d, position_d, q_d, k_d)

    def turned(t: torch.Tensor, cos: torch.Tensor, sin: torch.Tensor) -> torch.Tensor:
        low, high = t.chunk(2, dim=-1)
        return t * cos + torch.cat((-high, low), dim=-1) * sin

    def peer() -> tuple[torch.Tensor, torch.Tensor]:
        angles = position[:, None, :, None] * inverse
        angles = torch.cat((angles, angles), dim=-1)
        cos, sin = angles.cos(), angles.sin()
        return turned(q, cos, sin), turned(k, cos, sin)

    if setting.ops is not None:
        expected, _ = peer()
        probe, probe_key = setting.on_device(q), setting.on_device(k)
        setting.ops.rotary_half_inplaced(inverse_d, position_d, probe, probe_key)
        setting.check("rotary_half_inplaced", lambda: probe, expected, 1e-4)
    times = setting.both(ours, peer, 200)
    return [Row("rotary_half_inplaced 32+8 heads of 128", *times, "torch, eager")] + sequence.rotary(setting)


def bmm(setting: Setting) -> list[Row]:
    """Nine heads' scores over 2048 keys as a batched product."""
    a, b = torch.randn(9, 1, 64), torch.randn(9, 64, 2048)
    a_d, b_d, c_d = (setting.on_device(t) for t in (a, b, torch.empty(9, 1, 2048)))

    def ours() -> torch.Tensor:
        return setting.ops.bmm(a_d, b_d, c_d)

    setting.check("bmm", ours, torch.bmm(a, b), 1e-4)
    times = setting.both(ours, lambda: torch.bmm(a, b), 60)
    return [Row("bmm 9 x 1x64 x 64x2048 float32", *times, "torch bmm", bytes=b.numel() * 4)]


def model(setting: Setting) -> list[Row]:
    """Tokens per second of the real model, ours and llama.cpp's alternately: of a prompt, and of an answer."""
    return decode.rows(setting.ops is not None, setting.threads, setting.quick, setting.model)


def token(setting: Setting) -> list[Row]:
    """The parts of a token of the real model, with all threads and with one."""
    if setting.ops is None:
        return []
    return token_parts.rows(setting.ops, setting.threads, setting.runs(200), setting.model)


def threads(setting: Setting) -> list[Row]:
    """The gain from a second thread, alone on the machine and beside busy loops that compete for processors."""
    if setting.ops is None:
        return []
    rows = [_product_by_threads(setting)]
    return rows + decode.crowded_rows(setting.threads, (setting.load,) if setting.load else (1, 2), setting.quick, setting.model)


def _product_by_threads(setting: Setting) -> Row:
    data, _ = random_weight(FORMATS["q4_0"], 4096, 4096)
    weight, x = data.to("xpu"), torch.randn(1, 4096).to("xpu")

    def product(count: int) -> None:
        torch.set_num_threads(count)  # less than a microsecond
        setting.ops.forward_new(x, weight, FORMATS["q4_0"].code, 1)

    seconds = interleaved({count: partial(product, count) for count in (1, setting.threads)}, setting.runs(256))
    torch.set_num_threads(setting.threads)
    name = f"q4_0 4096x4096, {setting.threads} threads"
    return Row(name, seconds[setting.threads], seconds[1], "1 thread", bars=[Bar("speed", 1.7)])


CASES: dict[str, Callable[[Setting], list[Row]]] = {
    "linear": linear,
    "formats": formats,
    "types": types,
    "halves": halves,
    "batches": batches,
    "engine": engine,
    "vectors": vectors,
    "dequantize": dequantize,
    "small": small,
    "fused": fused,
    "empty": empty,
    "overhead": overhead,
    "attention": attention,
    "norm": norm,
    "norms": sequence.norms,
    "rotary": rotary,
    "bmm": bmm,
    "rwkv": recurrence.rwkv,
    "experts": recurrence.experts,
    "model": model,
    "token": token,
    "threads": threads,
}
# Cases that start and stop the busy loops themselves, since they also measure without.
OWN_LOAD = ("threads",)
