"""What the checked operators cost above the functions of the module that they call, on tensors of a few elements."""

from __future__ import annotations

from typing import TYPE_CHECKING

import torch

import orrery

from .measure import Call, call_cost
from .report import Bar, Row

if TYPE_CHECKING:
    from .cases import Setting

_MOST = 5.0  # microseconds


def rows(setting: Setting) -> list[Row]:
    """A row's time is the difference of two calls' times, with gradient mode off."""
    if setting.ops is None:
        return []
    result = []
    for name, flat, checked in _calls(setting.ops):
        calls = {"flat": flat} | checked
        times = call_cost(calls, setting.runs(40), batch=500)
        for which in checked:
            bars = [Bar("microseconds", _MOST)] if which.startswith("torch.ops") else []
            result.append(Row(f"overhead: {which} above {name}", times[which] - times["flat"], bars=bars))
    return result


def _calls(ops) -> list[tuple[str, Call, dict[str, Call]]]:
    """Of each operation: the function's name, its call, and the calls of the operator and of its Python function."""
    op = torch.ops.orrery
    x, norm = torch.randn(1, 64).to("xpu"), torch.randn(64).to("xpu")
    weight = orrery.quantize(torch.randn(8, 64)).to("xpu")
    data, code = weight.data, weight.code
    query, key, cache = (torch.randn(1, 2, n, 64).to("xpu") for n in (1, 1, 4))
    inverse, position = torch.rand(32).to("xpu"), torch.zeros(1, 1, dtype=torch.int64).to("xpu")
    codes = [torch.empty(1, 2, 4, 64, dtype=torch.uint8).to("xpu") for _ in range(2)]
    return [
        (
            "forward_new",
            lambda: ops.forward_new(x, data, code, 1),
            {
                "torch.ops.orrery.linear": lambda: op.linear(x, data, code, 8, 64),
                "orrery.linear": lambda: orrery.linear(x, weight),
            },
        ),
        (
            "rms_norm",
            lambda: ops.rms_norm(norm, x, 1e-5),
            {
                "torch.ops.orrery.rms_norm": lambda: op.rms_norm(x, norm, 1e-5),
                "orrery.rms_norm": lambda: orrery.rms_norm(x, norm, 1e-5),
            },
        ),
        (
            "sdp",
            lambda: ops.sdp(query, cache, cache, None),
            {
                "torch.ops.orrery.attention": lambda: op.attention(query, cache, cache),
                "orrery.attention": lambda: orrery.attention(query, cache, cache),
            },
        ),
        (
            "rotary_half_inplaced",
            lambda: ops.rotary_half_inplaced(inverse, position, query, key),
            {
                "torch.ops.orrery.rotary_": lambda: op.rotary_(query, key, position, inverse),
                "orrery.rotary_": lambda: orrery.rotary_(query, key, position, inverse),
            },
        ),
        (
            "quantize_key_value",
            lambda: ops.quantize_key_value(cache, cache, *codes),
            {
                "torch.ops.orrery.quantize_key_value": lambda: op.quantize_key_value(cache, cache, *codes),
                "orrery.quantize_key_value": lambda: orrery.quantize_key_value(cache, cache, *codes),
            },
        ),
    ]
