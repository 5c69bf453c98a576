"""The RWKV v5 block of the examples against the same block in float64, step by step where tokens depend on others."""

from __future__ import annotations

import pytest
import torch
import torch.nn.functional as F
from torch import Tensor

import orrery_host
from examples import rwkv
from examples.quantized import Matrix
from orrery.formats import FORMATS, dequantize

HIDDEN, HEADS, TOKENS = 256, 4, 512
CHUNKS = [1, 1, 7, 2, 63, 64, 65, 1, 131, 177]
# Float32 against float64: sums of up to 1024 terms, a few behind each other. Measured: 5e-7.
NEAR = 5e-6


def double(x: Tensor) -> Tensor:
    return x.cpu().double()


def product(x: Tensor, matrix: Matrix) -> Tensor:
    return x @ dequantize(FORMATS[matrix.format], matrix.data.cpu(), matrix.columns).double().T


def normalized(x: Tensor, norm: rwkv.Norm) -> Tensor:
    """Over the last dimension; scale and offset are [hidden], behind the heads if x has any."""
    x = x - x.mean(-1, keepdim=True)
    x = x / torch.sqrt((x * x).mean(-1, keepdim=True) + 1e-5)
    return x.reshape(*x.shape[:2], HIDDEN) * double(norm.weight) + double(norm.bias)


def mixed_inputs(x: Tensor, mix: Tensor) -> list[Tensor]:
    """Each token's shares in itself and its predecessor; that of the first is 0."""
    before = F.pad(x, (0, 0, 1, 0))[:, :-1]
    return [part * x + (1 - part) * before for part in double(mix)]


def time_mix(m: rwkv.TimeMix, x: Tensor) -> tuple[Tensor, Tensor]:
    """And the memory behind the last token."""
    inputs = mixed_inputs(x, m.mix)
    r, k, v, g = (product(*of) for of in zip(inputs, (m.receptance, m.key, m.value, m.gate)))
    memory = torch.zeros(x.shape[0], HEADS, 64, 64, dtype=torch.float64)
    steps = []
    for r_t, k_t, v_t in zip(*(part.unflatten(2, (HEADS, 64)).unbind(1) for part in (r, k, v))):
        present = k_t[..., :, None] * v_t[..., None, :]
        seen = memory + double(m.first)[..., None] * present
        steps.append((r_t[..., :, None] * seen).sum(-2))
        memory = present + double(m.decay)[..., None] * memory
    return product(normalized(torch.stack(steps, 1), m.norm) * g * torch.sigmoid(g), m.output), memory


def channel_mix(m: rwkv.ChannelMix, x: Tensor) -> Tensor:
    k, r = mixed_inputs(x, m.mix)
    return torch.sigmoid(product(r, m.receptance)) * product(product(k, m.key).clamp(min=0) ** 2, m.value)


@pytest.fixture(scope="module")
def case() -> tuple[rwkv.Block, Tensor, Tensor, dict[str, Tensor]]:
    """The block, two sequences, and in float64 the block's outputs and its state behind the last token."""
    block = rwkv.random_block(HIDDEN)
    tokens = torch.randn(2, TOKENS, HIDDEN, generator=torch.Generator().manual_seed(1))
    time_input = normalized(tokens.double(), block.time_norm)
    mixed, memory = time_mix(block.time_mix, time_input)
    x = tokens.double() + mixed
    channel_input = normalized(x, block.channel_norm)
    state = {"heads": memory, "time_input": time_input[:, -1], "channel_input": channel_input[:, -1]}
    return block, tokens.to("xpu"), x + channel_mix(block.channel_mix, channel_input), state


def distance(result: Tensor, expected: Tensor) -> float:
    return float((double(result) - expected).norm() / expected.norm())


@pytest.mark.parametrize("chunks", [CHUNKS, CHUNKS[::-1], [TOKENS]], ids=["uneven", "reversed", "whole"])
def test_512_steps_against_float64(case, chunks: list[int]) -> None:
    block, tokens, expected, after = case
    state = rwkv.State.empty(2, HIDDEN)
    result = torch.cat([block(chunk, state) for chunk in tokens.split(chunks, 1)], 1)
    assert distance(result, expected) < NEAR
    assert distance(result[:, -1], expected[:, -1]) < NEAR  # it depends on every state in between
    for name, value in after.items():
        assert distance(getattr(state, name), value) < NEAR


def test_a_block_runs_on_the_operations(case) -> None:
    block, tokens, _, _ = case
    with orrery_host.record_launches() as launches:
        block(tokens[:, :5], rwkv.State.empty(2, HIDDEN))
    kernels = [launch.kernel for launch in launches]
    assert kernels.count("rwkv_time_shift_kernel") == 2
    assert kernels.count("rwkv_linear_attention_kernel_v5") == 1
    assert sum("q6_k" in kernel for kernel in kernels) == 8


def test_the_program_runs(capsys) -> None:
    rwkv.main()
    assert "tokens/s" in capsys.readouterr().out
