"""The RWKV recurrences and the expert lists."""

from __future__ import annotations

import time
from functools import partial
from typing import TYPE_CHECKING

import numpy as np
import torch

from .measure import interleaved
from .report import Bar, Row
from .rounding import RoundedOperations

if TYPE_CHECKING:
    from .cases import Setting

_STEPS = 512
_CHANNELS = 2048  # of version 4
_HEADS, _HEAD = 32, 64  # of version 5
# What version 5 computes for each element of the state and each step: k v, u a, r (), w s; + s, acc +, a +.
_OPERATIONS = 7
# Seconds after which the device's workers sleep; awake they would share the processors with the peer's threads. So our
# time includes waking them.
_UNTIL_ASLEEP = 5e-3
_TOKENS, _TOP_K, _EXPERTS = 4096, 8, 64


def rwkv(setting: Setting) -> list[Row]:
    """512 steps: version 4 against PyTorch's operators in a loop over time, version 5 against as many rounded
    operations and nothing else."""
    return [_version_4(setting), _version_5(setting)]


def _version_4(setting: Setting) -> Row:
    g = torch.Generator().manual_seed(0)
    decay, first = -torch.rand(_CHANNELS, generator=g), torch.randn(_CHANNELS, generator=g)
    key, value = (torch.randn(1, _STEPS, _CHANNELS, generator=g) for _ in "kv")
    empty = [torch.zeros(1, _CHANNELS), torch.zeros(1, _CHANNELS), torch.full((1, _CHANNELS), -1e38)]

    def peer() -> torch.Tensor:
        num, den, mx = empty
        result = torch.empty_like(value)
        for t in range(_STEPS):
            k, v = key[:, t], value[:, t]
            top = torch.maximum(mx, k + first)
            old, new = torch.exp(mx - top), torch.exp(k + first - top)
            result[:, t] = (old * num + new * v) / (old * den + new)
            top = torch.maximum(mx + decay, k)
            old, new = torch.exp(mx + decay - top), torch.exp(k - top)
            num, den, mx = old * num + new * v, old * den + new, top
        return result

    inputs = [setting.on_device(t) for t in (decay, first, key, value)]
    state = [setting.on_device(t.clone()) for t in empty]

    def ours() -> torch.Tensor:
        return setting.ops.rwkv_linear_attention_v4(*inputs, *state)

    name = f"rwkv v4 {_CHANNELS} channels, {_STEPS} steps float32"
    setting.check(name, ours, peer(), 1e-5)
    times = setting.both(ours, peer, 16)
    return Row(name, *times, "torch, loop over time", bars=[Bar("speed", 5.0)])


def _version_5(setting: Setting) -> Row:
    g = torch.Generator().manual_seed(0)
    decay, first = torch.rand(_HEADS, _HEAD, generator=g), torch.randn(_HEADS, _HEAD, generator=g)
    receptance, key, value = (torch.randn(1, _HEADS, _STEPS, _HEAD, generator=g) for _ in "rkv")
    state = setting.on_device(torch.zeros(1, _HEADS, _HEAD, _HEAD))
    inputs = [setting.on_device(t) for t in (decay, first, receptance, key, value)]

    def ours() -> torch.Tensor:
        return setting.ops.rwkv_linear_attention_v5(*inputs, state)

    name = f"rwkv v5 {_HEADS} heads of {_HEAD}, {_STEPS} steps float32"
    setting.check(name, ours, _by_steps(decay, first, receptance, key, value), 1e-5)
    elements = _HEADS * _HEAD * _HEAD * _STEPS
    peer = partial(RoundedOperations(setting.threads, torch.float32), elements * _OPERATIONS // 2)
    calls = {"peer": peer} if setting.ops is None else {"ours": ours, "peer": peer}
    times = interleaved(calls, setting.runs(64), partial(time.sleep, _UNTIL_ASLEEP))
    return Row(name, times.get("ours"), times["peer"], "its rounded operations", bars=[Bar("speed", 0.4)])


def _by_steps(decay, first, receptance, key, value) -> torch.Tensor:
    """Version 5 from its definition, [1, steps, heads, elements]."""
    state = torch.zeros(1, _HEADS, _HEAD, _HEAD)
    steps = []
    for r, k, v in zip(receptance.unbind(2), key.unbind(2), value.unbind(2)):
        present = k[..., None] * v[..., None, :]
        steps.append((r[..., None] * (first[..., None] * present + state)).sum(-2))
        state = present + decay[..., None] * state
    return torch.stack(steps, 1)


def experts(setting: Setting) -> list[Row]:
    """The tokens and slots of each expert as lists, against the same lists from numpy's stable sort."""
    selected = torch.randint(_EXPERTS, (_TOKENS, _TOP_K), dtype=torch.int32, generator=torch.Generator().manual_seed(0))

    def ours() -> list[list[list[int]]]:
        return setting.ops.get_moe_indexes(selected, _EXPERTS)

    def peer() -> list[list[list[int]]]:
        flat = selected.numpy().ravel()
        order = np.argsort(flat, kind="stable")
        ends = np.cumsum(np.bincount(flat, minlength=_EXPERTS))[:-1]
        return [[part.tolist() for part in np.split(numbers, ends)] for numbers in (order % _TOP_K, order // _TOP_K)]

    if setting.ops is not None and ours() != peer():
        raise ArithmeticError("get_moe_indexes: the lists differ from those of a sort")
    times = setting.both(ours, peer, 200, cold=False)
    name = f"get_moe_indexes {_TOKENS} x {_TOP_K} of {_EXPERTS} experts"
    return [Row(name, *times, "numpy, stable argsort", bars=[Bar("speed", 1.0)])]
