"""A small valid call of each of the 29 functions, for tests that go over all of them."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import torch

import orrery_host  # noqa: F401  (the device comes first)
import orrery_ops
from orrery.formats import FORMATS


def real(*sizes: int, dtype: torch.dtype = torch.float32) -> torch.Tensor:
    """Numbers around 1, all different."""
    return torch.linspace(0.5, 1.5, max(torch.Size(sizes).numel(), 1)).to(dtype)[: torch.Size(sizes).numel()].view(
        sizes
    ).to("xpu")


def codes(*sizes: int) -> torch.Tensor:
    """A cache of one byte per element."""
    return (torch.arange(torch.Size(sizes).numel()) % 64).to(torch.uint8).view(sizes).to("xpu")


def weight(format: str, rows: int, columns: int) -> torch.Tensor:
    """Bytes of which every pair is a half near 1, so that no scale is infinite."""
    count = FORMATS[format].size(rows, columns)
    return torch.tensor([0x11, 0x38], dtype=torch.uint8).repeat(count // 2 + 1)[:count].to("xpu")


def positions(*sizes: int) -> torch.Tensor:
    return torch.arange(torch.Size(sizes).numel()).view(sizes).to("xpu")


def cache(heads: int, length: int, head_size: int) -> torch.Tensor:
    """A cache of `length` rows with room for 4 more."""
    return torch.zeros(1, heads, length + 4, head_size, device="xpu")[:, :, :length]


def _projections(format: str, columns: int, weights: int, codes_of: int, biases: int = 0) -> list[Any]:
    return [
        real(1, columns),
        *(weight(format, 64, columns) for _ in range(weights)),
        *(real(64) for _ in range(biases)),
        positions(1, 1),
        *(cache(1, 3, 64) for _ in range(weights - 1)),
        *[FORMATS[format].code] * codes_of,
        3,
        64,
        10000.0,
    ]


def _attention() -> list[Any]:
    return [real(1, 2, 3, 64), real(1, 1, 3, 64), real(1, 1, 3, 64)]


def _coded_attention() -> list[Any]:
    return [real(1, 2, 3, 64), codes(1, 1, 3, 64), codes(1, 1, 3, 64)]


def _rotary_in_place() -> list[Any]:
    return [real(32), positions(1, 3), real(1, 2, 3, 64), real(1, 1, 3, 64)]


ARGUMENTS: dict[str, Callable[[], list[Any]]] = {
    "forward_new": lambda: [real(1, 64), weight("q4_0", 5, 64), 2, 0],
    "forward_qkv": lambda: _projections("q4_0", 64, weights=3, codes_of=2),
    "forward_qkv_bias": lambda: _projections("q4_0", 64, weights=3, codes_of=2, biases=3),
    "forward_qk": lambda: _projections("iq2_xxs", 256, weights=2, codes_of=1),
    "dequant": lambda: [real(1, 64), weight("q4_0", 5, 64), 2],
    "apply_rotary_embedding_half_q_and_k": lambda: [
        real(1, 2, 3, 64), real(1, 1, 3, 64), positions(1, 3), real(1, 2, 3, 64), real(1, 1, 3, 64), 10000.0
    ],
    "apply_rotary_embedding_half_q_or_k": lambda: [real(1, 2, 3, 64), positions(1, 3), real(1, 2, 3, 64), False],
    "apply_rotary_embedding_half_q_and_k_cache_freq": lambda: [
        real(1, 2, 3, 64), real(1, 1, 3, 64), real(1, 1, 3, 64), real(1, 1, 3, 64), real(1, 2, 3, 64), real(1, 1, 3, 64)
    ],
    "bmm": lambda: [real(2, 3, 4), real(2, 4, 5), real(2, 3, 5)],
    "fused_rms_norm": lambda: [real(2, 64), (64,), real(64), None, 1e-5],
    "fused_layer_norm": lambda: [real(2, 64), (64,), real(64), real(64), 1e-5],
    "mlp_forward_xpu": lambda: [real(1, 64), weight("q4_0", 8, 64), weight("q4_0", 8, 64), 1, 64, 8, 0, 2],
    "quantize_key_value": lambda: [real(1, 1, 3, 64), real(1, 1, 3, 64), codes(1, 1, 3, 64), codes(1, 1, 3, 64)],
    "dequantize_key_value": lambda: [codes(1, 1, 3, 64), codes(1, 1, 3, 64), real(1, 1, 3, 64), real(1, 1, 3, 64)],
    "query_key_fp8_matmul": lambda: [real(1, 2, 1, 64), codes(1, 1, 3, 64)],
    "attn_value_fp8_matmul": lambda: [real(1, 2, 1, 3), codes(1, 1, 3, 64)],
    "batch_forward": lambda: [real(2, 256), weight("q4_0", 32, 256), 2, 256, 32, 2, 3],
    "sdp": lambda: [*_attention(), None],
    "sdp_fp8": lambda: [*_coded_attention(), None],
    "sdp_causal": _attention,
    "sdp_fp8_causal": _coded_attention,
    "rms_norm": lambda: [real(64), real(2, 64), 1e-5],
    "rotary_half_inplaced": _rotary_in_place,
    "rotary_two_inplaced": _rotary_in_place,
    "rwkv_linear_attention_v4": lambda: [
        -real(32), real(32), real(1, 2, 32), real(1, 2, 32), real(1, 32), real(1, 32), real(1, 32)
    ],
    "rwkv_linear_attention_v5": lambda: [
        real(2, 64), real(2, 64), *(real(1, 2, 3, 64) for _ in range(3)), real(1, 2, 64, 64)
    ],
    "rwkv_time_shift": lambda: [real(1, 3, 64), real(1, 3, 64), real(2, 1, 64)],
    "dequantize_rows": lambda: [positions(1, 2), weight("q4_k", 3, 256), 27, 256],
    "get_moe_indexes": lambda: [torch.tensor([[1, 0], [1, 2]], dtype=torch.int32), 3],
}  # fmt: skip


def call(name: str, changes: dict[int, Any] | None = None) -> Any:
    """Calls a function with its valid arguments but for those at the given places."""
    values = ARGUMENTS[name]()
    for place, value in (changes or {}).items():
        values[place] = value
    return getattr(orrery_ops, name)(*values)
