"""Normalization and rotary embedding of whole prompts."""

from __future__ import annotations

from typing import TYPE_CHECKING

import torch
import torch.nn.functional as F

from .measure import copy_rate, type_name
from .report import Bar, Row

if TYPE_CHECKING:
    from .cases import Setting

_SIZE = 4096
_PROMPT = 512
_HEADS, _HEAD = 32, 128
_TYPES = (torch.float32, torch.float16)
# Half's own rounding: one step of values up to 4, and for rotary of sines and cosines that PyTorch rounds to half.
_NEAR = {torch.float32: 1e-5, torch.float16: 2e-3}


def norms(setting: Setting) -> list[Row]:
    """fused_rms_norm and fused_layer_norm, one row and a prompt; in float the prompt also against a copy."""
    rate = copy_rate(torch.ones(_PROMPT, _SIZE), setting.runs(24), setting.flush)
    return [
        row
        for rows in (1, _PROMPT)
        for dtype in _TYPES
        for row in _norms_of(setting, rows, dtype, rate)
    ]


def _norms_of(setting: Setting, rows: int, dtype: torch.dtype, rate: float) -> list[Row]:
    g = torch.Generator().manual_seed(7)
    x, weight, bias = (torch.randn(shape, generator=g).to(dtype) for shape in ((rows, _SIZE), (_SIZE,), (_SIZE,)))
    x_d, weight_d, bias_d = (setting.on_device(t) for t in (x, weight, bias))
    shape, eps, bars = (_SIZE,), 1e-5, [Bar("speed", 1.0)]
    if rows == _PROMPT and dtype == torch.float32:
        bars.append(Bar("copy", 0.6))
    calls = {
        "rms_norm": (
            lambda: setting.ops.fused_rms_norm(x_d, shape, weight_d, None, eps),
            lambda: F.rms_norm(x, shape, weight, eps),
        ),
        "layer_norm": (
            lambda: setting.ops.fused_layer_norm(x_d, shape, weight_d, bias_d, eps),
            lambda: F.layer_norm(x, shape, weight, bias, eps),
        ),
    }
    made = []
    for kind, (ours, peer) in calls.items():
        name = f"fused_{kind} {rows}x{_SIZE} {type_name(dtype)}"
        setting.check(name, ours, peer().float(), _NEAR[dtype])
        times = setting.both(ours, peer, 60 if rows == 1 else 24)
        made.append(Row(name, *times, f"torch {kind}", bytes=2 * x.nbytes, byte_rate=rate, bars=bars))
    return made


def rotary(setting: Setting) -> list[Row]:
    """A prompt's rows, in the order of heads and in that of positions, against the usual PyTorch lines."""
    return [_rotary_of(setting, dtype, transposed) for dtype in _TYPES for transposed in (False, True)]


def _rotary_of(setting: Setting, dtype: torch.dtype, transposed: bool) -> Row:
    g = torch.Generator().manual_seed(8)
    order = (1, _PROMPT, _HEADS, _HEAD) if transposed else (1, _HEADS, _PROMPT, _HEAD)
    x = torch.randn(order, generator=g).to(dtype)
    x = x.transpose(1, 2) if transposed else x
    position = torch.arange(_PROMPT)[None]
    inverse = 10000.0 ** (-torch.arange(0, _HEAD, 2, dtype=torch.float32) / _HEAD)
    x_d, position_d = setting.on_device(x), setting.on_device(position)
    out = torch.empty_like(x_d)

    def ours() -> torch.Tensor:
        setting.ops.apply_rotary_embedding_half_q_or_k(x_d, position_d, out, False)
        return out

    def peer() -> torch.Tensor:
        angles = position[:, :, None] * inverse
        angles = torch.cat((angles, angles), dim=-1)[:, None]
        low, high = x.chunk(2, dim=-1)
        return x * angles.cos().to(dtype) + torch.cat((-high, low), dim=-1) * angles.sin().to(dtype)

    layout = ", transposed" if transposed else ""
    name = f"rotary 1x{_HEADS}x{_PROMPT}x{_HEAD} {type_name(dtype)}{layout}"
    # The frequencies are powers in float on both sides, and differ in their last bits.
    setting.check(name, ours, peer().float(), max(_NEAR[dtype], 1e-4))
    times = setting.both(ours, peer, 24)
    return Row(name, *times, "torch, eager", bytes=2 * x.nbytes, bars=[Bar("speed", 3.0)])
