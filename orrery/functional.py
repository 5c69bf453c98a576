"""Checked operations on `xpu` tensors."""

from __future__ import annotations

import torch

import orrery_ops
from orrery.weight import QuantizedWeight


def linear(x: torch.Tensor, weight: QuantizedWeight, bias: torch.Tensor | None = None) -> torch.Tensor:
    """x W^T + bias, of x [..., columns]: [..., rows] in x's type, which is float32, float16, bfloat16 or float64.

    Several input rows through fp6 are computed in float32 where x is bfloat16 or float64.
    """
    rows, columns = weight.stored
    y = x.reshape(-1, weight.columns)
    y = torch.nn.functional.pad(y, (0, columns - weight.columns)).contiguous()
    if weight.format == "fp6" and x.dtype not in (torch.float16, torch.float32):
        y = y.float()
    if y.shape[0]:
        y = orrery_ops.forward_new(y, weight.data, weight.code, y.shape[0])[:, : weight.rows]
    else:
        y = y.new_empty(0, weight.rows)
    y = y.reshape(*x.shape[:-1], weight.rows).to(x.dtype)
    return y if bias is None else y + bias


def rms_norm(x: torch.Tensor, weight: torch.Tensor, eps: float = 1e-6) -> torch.Tensor:
    """x / sqrt(mean(x^2) + eps) * weight over the last dimension of x [..., n]; weight [n] of x's type."""
    return orrery_ops.rms_norm(weight, x.reshape(-1, x.shape[-1]).contiguous(), eps).view(x.shape)


def attention(query: torch.Tensor, key: torch.Tensor, value: torch.Tensor, mask: torch.Tensor | None = None,
              causal: bool = False) -> torch.Tensor:
    """softmax(query key^T / sqrt(head size) + mask) value, [batch, heads, rows, head size]."""
    given, query = query, query if query.dtype == torch.float16 else query.float()
    if key.dtype != torch.uint8:
        key, value = key.to(query.dtype), value.to(query.dtype)
    rows, keys = query.shape[2], key.shape[2]
    if causal and rows > 1:
        hidden = torch.full((rows, keys), float("-inf"), dtype=torch.float32, device="cpu").triu(keys - rows + 1)
        hidden = hidden.view(1, 1, rows, keys).to(query.device)
        mask = hidden if mask is None else mask + hidden
    if mask is not None:
        mask = mask.expand(query.shape[0], -1, rows, keys).contiguous()
    run = orrery_ops.sdp_fp8 if key.dtype == torch.uint8 else orrery_ops.sdp
    return run(query.contiguous(), key.contiguous(), value.contiguous(), mask).to(given.dtype)


def rotary_(query: torch.Tensor, key: torch.Tensor, positions: torch.Tensor, inv_freq: torch.Tensor,
            interleaved: bool = False) -> None:
    """Rotary position embedding of query and key [batch, heads, rows, head size], in place."""
    turned = [t.float().contiguous() for t in (query, key)]
    positions = positions.expand(query.shape[0], query.shape[2]).contiguous()
    run = orrery_ops.rotary_two_inplaced if interleaved else orrery_ops.rotary_half_inplaced
    run(inv_freq.float(), positions, *turned)
    for to, result in zip((query, key), turned):
        to.copy_(result)


def quantize_key_value(key: torch.Tensor, value: torch.Tensor, key_out: torch.Tensor, value_out: torch.Tensor) -> None:
    """Keys and values [batch, heads, rows, head size] to one byte per element."""
    orrery_ops.quantize_key_value(key, value, key_out, value_out)


def dequantize_key_value(key: torch.Tensor, value: torch.Tensor, key_out: torch.Tensor, value_out: torch.Tensor) -> None:
    """The numbers that one-byte keys and values stand for."""
    orrery_ops.dequantize_key_value(key, value, key_out, value_out)
