"""Attention over plain and one-byte caches, and the codec of the latter."""

from __future__ import annotations

from dataclasses import dataclass
from functools import partial
from typing import TYPE_CHECKING

import torch
import torch.nn.functional as F

from .measure import Call, elapsed, interleaved, type_name
from .report import Bar, Row
from .rounding import RoundedOperations

if TYPE_CHECKING:
    from .cases import Setting

# Largest distances of our results from PyTorch's, relative to their norm. A one-byte cache is compared with the values
# that its bytes stand for; with one query its products with the keys are rounded to half. A byte keeps three bits
# behind the leading one, so a value is off by up to 1/16.
_NEAR, _NEAR_BYTES, _NEAR_CODE = 1e-4, 3e-2, 5e-2


@dataclass(frozen=True)
class _Heads:
    query: int
    cached: int
    size: int

    def __str__(self) -> str:
        return f"{self.query} heads of {self.size}"

    def tensors(self, rows: int, keys: int) -> tuple[torch.Tensor, torch.Tensor, torch.Tensor]:
        """Query, key and value."""
        generator = torch.Generator().manual_seed(2)
        shapes = (self.query, rows), (self.cached, keys), (self.cached, keys)
        query, key, value = (torch.randn(1, heads, n, self.size, generator=generator) for heads, n in shapes)
        return query, key, value

    def repeated(self, cache: torch.Tensor) -> torch.Tensor:
        """One slice for each query head."""
        return cache.repeat_interleave(self.query // self.cached, dim=1)


# Of a 7B model, and of the runner's small one.
_LARGE, _SMALL = _Heads(32, 8, 128), _Heads(9, 3, 64)


def rows(setting: Setting) -> list[Row]:
    large = _one_query(setting, _LARGE, 2048, True, [Bar("bandwidth", 0.7), Bar("speed", 1.0)], 1.5)
    small = _one_query(setting, _SMALL, 256, False, [Bar("microseconds", 15.0)], 1.0)
    return large + small + _prompts(setting) + _codec(setting)


def _one_query(
    setting: Setting, heads: _Heads, keys: int, cold: bool, bars: list[Bar], byte_speed: float
) -> list[Row]:
    """A step of an answer. Bytes are those of key and value, each once, though several query heads read them."""
    query, key, value = heads.tensors(1, keys)
    calls: dict[str, Call] = {"torch": partial(F.scaled_dot_product_attention, query, key, value, enable_gqa=True)}
    name = f"1 over {keys} keys, {heads} float32" + ("" if cold else ", in cache")
    if setting.ops is not None:
        query_d, key_d, value_d = (tensor.to("xpu") for tensor in (query, key, value))
        calls["plain"] = partial(setting.ops.sdp, query_d, key_d, value_d, None)
        setting.check(f"sdp {name}", calls["plain"], calls["torch"](), _NEAR)
        codes = _encoded(setting, key_d, value_d)
        calls["bytes"] = partial(setting.ops.sdp_fp8, query_d, *codes, None)
        decoded = (tensor.cpu() for tensor in _decoded(setting, *codes, torch.float32))
        expected = F.scaled_dot_product_attention(query, *decoded, enable_gqa=True)
        setting.check(f"sdp_fp8 {name}", calls["bytes"], expected, _NEAR_BYTES)
    how = {"before": setting.flush} if cold else {"seconds": _after_its_own}
    times = interleaved(calls, setting.runs(60 if cold else 2000), **how)
    elements, plain = key.numel() + value.numel(), times.get("plain")
    fp8_bars = [Bar("speed", byte_speed)]
    return [
        Row(f"sdp {name}", plain, times["torch"], "torch sdpa, gqa", bytes=4 * elements, bars=bars),
        Row(f"sdp_fp8 {name}", times.get("bytes"), plain, "sdp", bytes=elements, bars=fp8_bars),
    ]


def _after_its_own(call: Call) -> float:
    """Seconds of a call behind a few others of its own, as in a model, where the threads that it needs are awake."""
    for _ in range(4):
        call()
    return elapsed(call)


def _prompts(setting: Setting) -> list[Row]:
    """Rows that attend to themselves and the rows before them, and the time of their products and sums alone."""
    operations = RoundedOperations(setting.threads, torch.float32)
    return [row for heads in (_SMALL, _LARGE) for n in (512, 2048) for row in _prompt(setting, operations, heads, n)]


def _prompt(setting: Setting, operations: RoundedOperations, heads: _Heads, n: int) -> list[Row]:
    query, key, value = heads.tensors(n, n)
    # Repeated outside the call: the peer would do it each time.
    peer = partial(F.scaled_dot_product_attention, query, heads.repeated(key), heads.repeated(value), is_causal=True)
    # For each row and key a product and a sum per element of the key, and as many of the value.
    pairs = heads.query * n * (n + 1) // 2
    calls: dict[str, Call] = {"torch": peer, "operations": partial(operations, 2 * heads.size * pairs)}
    name = f"sdp_causal {n} rows, {heads} float32"
    if setting.ops is not None:
        calls["ours"] = partial(setting.ops.sdp_causal, *(tensor.to("xpu") for tensor in (query, key, value)))
        setting.check(name, calls["ours"], peer(), _NEAR)
    times = interleaved(calls, setting.runs(16 if n < 1000 else 6), setting.flush)
    ours = times.get("ours")
    return [
        Row(name, ours, times["torch"], "torch sdpa, causal", bars=[Bar("speed", 0.5)]),
        Row(name, ours, times["operations"], "its rounded operations"),
    ]


def _codec(setting: Setting) -> list[Row]:
    return [row for dtype in (torch.float32, torch.float16) for row in _codec_of(setting, dtype)]


def _codec_of(setting: Setting, dtype: torch.dtype) -> list[Row]:
    """Both directions, against a copy that reads and writes as many bytes."""
    _, key, value = (tensor.to(dtype) for tensor in _LARGE.tensors(1, 2048))
    total = (key.numel() + value.numel()) * (1 + dtype.itemsize)
    source = torch.ones(total // 2, dtype=torch.uint8)
    calls: dict[str, Call] = {"copy": partial(torch.empty_like(source).copy_, source)}
    if setting.ops is not None:
        key_d, value_d = key.to("xpu"), value.to("xpu")
        codes = _encoded(setting, key_d, value_d)
        values = _decoded(setting, *codes, dtype)
        for one, original, what in zip(values, (key, value), ("keys", "values")):
            setting.check(f"one-byte {what}", one.clone, original.float(), _NEAR_CODE)
        calls["quantize"] = partial(setting.ops.quantize_key_value, key_d, value_d, *codes)
        calls["dequantize"] = partial(setting.ops.dequantize_key_value, *codes, *values)
    times = interleaved(calls, setting.runs(60), setting.flush)
    rate = total / times["copy"]
    shape = "x".join(map(str, key.shape))
    return [
        Row(f"{call}_key_value {shape} {type_name(dtype)}", times.get(call), times["copy"], "copy of as many bytes",
            bytes=total, byte_rate=rate, bars=[Bar("copy", 0.5)])
        for call in ("quantize", "dequantize")
    ]


def _encoded(setting: Setting, key: torch.Tensor, value: torch.Tensor) -> tuple[torch.Tensor, torch.Tensor]:
    codes = torch.empty_like(key, dtype=torch.uint8), torch.empty_like(value, dtype=torch.uint8)
    setting.ops.quantize_key_value(key, value, *codes)
    return codes


def _decoded(
    setting: Setting, key: torch.Tensor, value: torch.Tensor, dtype: torch.dtype
) -> tuple[torch.Tensor, torch.Tensor]:
    values = torch.empty_like(key, dtype=dtype), torch.empty_like(value, dtype=dtype)
    setting.ops.dequantize_key_value(key, value, *values)
    return values
