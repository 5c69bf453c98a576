"""The bits that kernels of every family give for fixed inputs, which no instruction set may change.

Run as a program it prints a hash for each kernel as JSON, with the level of the operators: python tests/kernel_bits.py
"""

from __future__ import annotations

import hashlib
import json
from collections.abc import Callable, Iterator

import numpy as np
import torch

import orrery_ops
from dense_reference import CODES, DEQUANT, weight
from orrery_host import _instructions

FLOAT, HALF, BRAIN, BYTE = torch.float32, torch.float16, torch.bfloat16, torch.uint8
SMALL, STATE, ROWS = (FLOAT, HALF), 768, 64
BATCHED = ("q4_0", "q8_0", "fp4", "fp6", "fp8_e5m2")
PAIRED = ("q4_0", "q4_1", "q8_0", "nf4", "fp4")
ATTENTION = (("sdp", 1), ("sdp", 3), ("sdp_causal", 37), ("sdp_fp8", 1), ("sdp_fp8_causal", 37))
FUSED = ("q4_0", "fp4", "fp6", "fp8_e5m2")


def numbers(*shape: int, dtype: torch.dtype = FLOAT, seed: int = 0) -> torch.Tensor:
    """From -2 to 2 in steps of 1/64, exact in every type."""
    generator = np.random.default_rng([seed, *shape])
    return torch.from_numpy((generator.integers(-128, 129, shape) / 64).astype(np.float32)).to(dtype).to("xpu")


def codes(*shape: int, seed: int = 0) -> torch.Tensor:
    return torch.from_numpy(np.random.default_rng([seed, *shape]).integers(0, 256, shape).astype(np.uint8)).to("xpu")


def weights(name: str, rows: int = ROWS) -> torch.Tensor:
    w = weight(name, rows, STATE)
    if name == "fp8_e5m2":  # nothing above 2, or every sum would overflow
        w[: rows * STATE] &= 0xBF
    return torch.from_numpy(w).to("xpu")


def rows(name: str, n: int, dtype: torch.dtype) -> torch.Tensor:
    return orrery_ops.forward_new(numbers(n, STATE, dtype=dtype), weights(name, 37), CODES[name], 1)


def batch(name: str, dtype: torch.dtype) -> torch.Tensor:
    return orrery_ops.batch_forward(numbers(3, STATE, dtype=dtype), weights(name), 3, STATE, ROWS, CODES[name], 3)


def dequantized(name: str) -> torch.Tensor:
    return orrery_ops.dequant(torch.empty(0, STATE, dtype=HALF, device="xpu"), weights(name), CODES[name])


def gated(name: str, dtype: torch.dtype) -> torch.Tensor:
    w = weights(name)
    return orrery_ops.mlp_forward_xpu(numbers(1, STATE, dtype=dtype) / 16, w, w, 1, STATE, ROWS, 0, CODES[name])


def projections(name: str, dtype: torch.dtype) -> list[torch.Tensor]:
    w = weights(name)
    caches = [torch.zeros(1, 1, 5, 64, dtype=dtype, device="xpu")[:, :, :4] for _ in range(2)]
    position = torch.tensor([[3]], device="xpu")
    given = numbers(1, STATE, dtype=dtype) / 16
    code = CODES[name]
    return list(orrery_ops.forward_qkv(given, w, w, w, position, *caches, code, code, 3, 64, 10000.0))


def attention(operation: str, queries: int, size: int, dtype: torch.dtype) -> torch.Tensor:
    kept = [numbers(1, 2, 37, size, dtype=dtype, seed=s) for s in (1, 2)]
    if "fp8" in operation:
        kept = [codes(1, 2, 37, size, seed=s) & 0xBF for s in (1, 2)]
    mask = [] if "causal" in operation else [None]
    return getattr(orrery_ops, operation)(numbers(1, 4, queries, size, dtype=dtype), *kept, *mask)


def byte_cache(size: int) -> list[torch.Tensor]:
    made = [torch.zeros(1, 2, 19, size, dtype=BYTE, device="xpu") for _ in range(2)]
    orrery_ops.quantize_key_value(*(numbers(1, 2, 19, size, seed=s) for s in (1, 2)), *made)
    read = [torch.zeros(1, 2, 19, size, device="xpu") for _ in range(2)]
    orrery_ops.dequantize_key_value(*made, *read)
    scores = orrery_ops.query_key_fp8_matmul(numbers(1, 2, 1, size), made[0])
    return [*made, *read, scores, orrery_ops.attn_value_fp8_matmul(scores, made[1])]


def turned(operation: str, dtype: torch.dtype) -> list[torch.Tensor]:
    frequencies = 2.0 ** -torch.arange(0, 32, dtype=FLOAT).to(dtype).to("xpu")
    positions = torch.tensor([[0, 5, 900]], device="xpu")
    both = [numbers(1, heads, 3, 64, dtype=dtype) for heads in (4, 2)]
    getattr(orrery_ops, operation)(frequencies, positions, *both)
    return both


def turned_apart(dtype: torch.dtype) -> list[torch.Tensor]:
    both = [numbers(1, heads, 3, 64, dtype=dtype) for heads in (4, 2)]
    made = [torch.zeros_like(one) for one in both]
    positions = torch.tensor([[0, 5, 900]], device="xpu")
    orrery_ops.apply_rotary_embedding_half_q_and_k(*both, positions, *made, 500000.0)
    return made


def recurrence_4(dtype: torch.dtype) -> list[torch.Tensor]:
    states = [numbers(2, 64, seed=1), numbers(2, 64, seed=2).abs() + 1, numbers(2, 64, seed=3)]
    decay, first = numbers(64, dtype=dtype) - 2, numbers(64, dtype=dtype)
    given = [numbers(2, 5, 64, dtype=dtype, seed=s) for s in (1, 2)]
    return [orrery_ops.rwkv_linear_attention_v4(decay, first, *given, *states), *states]


def recurrence_5() -> list[torch.Tensor]:
    state = numbers(1, 2, 64, 64)
    given = [numbers(1, 2, 5, 64, seed=s) for s in (1, 2, 3)]
    return [orrery_ops.rwkv_linear_attention_v5(numbers(2, 64) / 4, numbers(2, 64), *given, state), state]


def time_shift(dtype: torch.dtype) -> torch.Tensor:
    shapes = (1, 5, 64), (1, 5, 64), (3, 1, 64)
    return orrery_ops.rwkv_time_shift(*(numbers(*shape, dtype=dtype, seed=s) for s, shape in enumerate(shapes)))


def rms_norm(dtype: torch.dtype) -> torch.Tensor:
    return orrery_ops.rms_norm(numbers(STATE, dtype=dtype), numbers(3, STATE, dtype=dtype), 1e-5)


def fused_norm(operation: str, dtype: torch.dtype) -> torch.Tensor:
    scale, offset = (numbers(576, dtype=dtype, seed=s) for s in (1, 2))
    return getattr(orrery_ops, operation)(numbers(3, 576, dtype=dtype), (576,), scale, offset, 1e-5)


def product() -> torch.Tensor:
    return orrery_ops.bmm(numbers(2, 3, 19), numbers(2, 19, 5), torch.zeros(2, 3, 5, device="xpu"))


def kernels() -> Iterator[tuple[str, Callable[[], torch.Tensor | list[torch.Tensor]]]]:
    for name in CODES:
        for dtype in (FLOAT, HALF, BRAIN):
            yield f"one row of {name}, {dtype}", lambda: rows(name, 1, dtype)
    for dtype in SMALL:
        for name in PAIRED:
            yield f"5 rows of {name}, {dtype}", lambda: rows(name, 5, dtype)
        for name in BATCHED:
            yield f"batch of {name}, {dtype}", lambda: batch(name, dtype)
        for name in FUSED:
            yield f"gated layer of {name}, {dtype}", lambda: gated(name, dtype)
            yield f"projections of {name}, {dtype}", lambda: projections(name, dtype)
        for size in (64, 128):
            for operation, queries in ATTENTION:
                yield f"{operation} of {queries} by {size}, {dtype}", lambda: attention(operation, queries, size, dtype)
        for operation in ("rotary_half_inplaced", "rotary_two_inplaced"):
            yield f"{operation}, {dtype}", lambda: turned(operation, dtype)
        yield f"rotary by strides, {dtype}", lambda: turned_apart(dtype)
        yield f"rwkv v4, {dtype}", lambda: recurrence_4(dtype)
        yield f"time shift, {dtype}", lambda: time_shift(dtype)
        yield f"rms_norm, {dtype}", lambda: rms_norm(dtype)
        for operation in ("fused_rms_norm", "fused_layer_norm"):
            yield f"{operation}, {dtype}", lambda: fused_norm(operation, dtype)
    for name in DEQUANT:
        yield f"dequant of {name}", lambda: dequantized(name)
    yield "byte cache", lambda: byte_cache(64)
    yield "rwkv v5", recurrence_5
    yield "bmm", product


def bits(made: torch.Tensor | list[torch.Tensor]) -> str:
    """A hash in which one NaN is as good as another."""
    digest = hashlib.sha256()
    for one in made if isinstance(made, list) else [made]:
        one = one.cpu().contiguous()
        array = (one.float() if one.dtype == BRAIN else one).numpy()
        if array.dtype != np.uint8:
            array = np.where(np.isnan(array), np.nan, array).astype(array.dtype)
        digest.update(array.tobytes())
    return digest.hexdigest()[:16]


def main() -> None:
    torch.set_num_threads(1)
    print(json.dumps({"level": _instructions.level(), "kernels": {name: bits(run()) for name, run in kernels()}}))


if __name__ == "__main__":
    main()
