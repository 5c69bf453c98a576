"""The operators of `torch.ops.orrery` under shorter names, with a `QuantizedWeight` where they take bytes and sizes.

All check what they are given: TypeError for a wrong type, ValueError for wrong sizes or devices, one sentence each.
Only `linear` has a gradient; the others raise RuntimeError where one would be needed.
"""

from __future__ import annotations

import torch

import orrery_ops  # noqa: F401  registers torch.ops.orrery
from orrery.weight import QuantizedWeight

# The overloads themselves: a call through torch.ops' packet looks for one first.
_linear = torch.ops.orrery.linear.default
_rms_norm = torch.ops.orrery.rms_norm.default
_attention = torch.ops.orrery.attention.default
_rotary = torch.ops.orrery.rotary_.default
_quantize_key_value = torch.ops.orrery.quantize_key_value.default
_dequantize_key_value = torch.ops.orrery.dequantize_key_value.default


def linear(x: torch.Tensor, weight: QuantizedWeight, bias: torch.Tensor | None = None) -> torch.Tensor:
    """x W^T + bias, with gradients for x and the bias.

    x:      [..., columns], float32, float16, bfloat16 or float64 on xpu, of any strides
    weight: on the same device
    bias:   [rows] in x's type, or None

    Returns [..., rows] in x's type. Sums are made in that type, so with float16 they end at 65504. For several rows
    some kernels round the dequantized weights to float16 first, whatever the type.
    """
    if not isinstance(weight, QuantizedWeight):
        raise TypeError(f"weight must be a QuantizedWeight, not {type(weight).__name__}")
    return _linear(_tensor(x, "x"), weight.data, weight.code, weight.rows, weight.columns, bias)


def rms_norm(x: torch.Tensor, weight: torch.Tensor, eps: float = 1e-6) -> torch.Tensor:
    """x / sqrt(mean(x^2) + eps) * weight over the last dimension, in float32, or float64 for float64.

    x:      [..., n], float32, float16, bfloat16 or float64 on xpu
    weight: [n] in x's type
    """
    return _rms_norm(_tensor(x, "x"), _tensor(weight, "weight"), eps)


def attention(query: torch.Tensor, key: torch.Tensor, value: torch.Tensor, mask: torch.Tensor | None = None,
              causal: bool = False) -> torch.Tensor:
    """softmax(query key^T / sqrt(head size) + mask) value.

    query:  [batch, heads, rows, head size] on xpu, head size 64, 96 or 128. bfloat16 and float64 are computed in
            float32.
    key, value: [batch, key heads, keys, head size] in query's type, or both uint8 as `quantize_key_value` writes them.
            `heads` is a multiple of `key heads`; neighbouring query heads share one of key and value.
    mask:   a tensor that expands to [batch, heads, rows, keys]: numbers that are added, or bool, True where a key is
            seen. A row that sees no key is NaN.
    causal: each query sees the keys up to its own position. The queries are at the last positions of the keys: unlike
            in PyTorch's own function, the last query sees all keys even if there are fewer queries than keys.

    Returns [batch, heads, rows, head size] in query's type. No maximum is subtracted before the exponential, so the
    terms (scaled products plus mask) must stay below 88.
    """
    return _attention(_tensor(query, "query"), _tensor(key, "key"), _tensor(value, "value"), mask, causal)


def rotary_(query: torch.Tensor, key: torch.Tensor, positions: torch.Tensor, inv_freq: torch.Tensor,
            interleaved: bool = False) -> None:
    """Rotary position embedding of query and key, in place.

    query, key:  [batch, heads, rows, head size] on xpu, in one type, head size 64, 96 or 128; heads may differ. Rotated
                 in float32; in float16 only if both are float16 and so is inv_freq.
    positions:   int64 or int32 [rows] or [batch, rows]
    inv_freq:    [head size / 2], the angle per position of each pair, in radians
    interleaved: pairs are neighbours, elements 2 i and 2 i + 1; else element i is paired with i + head size / 2
    """
    _rotary(_tensor(query, "query"), _tensor(key, "key"), _tensor(positions, "positions"),
            _tensor(inv_freq, "inv_freq"), interleaved)


def quantize_key_value(key: torch.Tensor, value: torch.Tensor, key_out: torch.Tensor, value_out: torch.Tensor) -> None:
    """Keys and values to one byte per element, for `attention`.

    All [batch, heads, rows, head size] on xpu, head size 64, 96 or 128; key and value in one value type, the others
    uint8. Magnitudes are held between 0.0021 and 124 for keys, 0.00026 and 15.5 for values.
    """
    _quantize_key_value(_tensor(key, "key"), _tensor(value, "value"), _tensor(key_out, "key_out"),
                        _tensor(value_out, "value_out"))


def dequantize_key_value(key: torch.Tensor, value: torch.Tensor, key_out: torch.Tensor,
                         value_out: torch.Tensor) -> None:
    """The numbers that the bytes of `quantize_key_value` stand for, into key_out and value_out."""
    _dequantize_key_value(_tensor(key, "key"), _tensor(value, "value"), _tensor(key_out, "key_out"),
                          _tensor(value_out, "value_out"))


def _tensor(value: object, name: str) -> torch.Tensor:
    if not isinstance(value, torch.Tensor):
        raise TypeError(f"{name} must be a tensor, not {type(value).__name__}")
    return value
