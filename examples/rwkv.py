"""A block of an RWKV v5 model: time-mix and channel-mix, with random weights.

What the block remembers of the tokens before is in its State, so a sequence can be fed in chunks of any lengths:

    python -m examples.rwkv
"""

from __future__ import annotations

import time
from dataclasses import dataclass

import torch
import torch.nn.functional as F

import orrery_host  # noqa: F401  registers the device if no installed package has done so
import orrery_ops

from .quantized import Matrix

HEAD = 64  # elements of a head; the recurrence is built for this size


@dataclass
class State:
    """What a block remembers: the last token's normalized input of both mixes, and a matrix per head."""

    time_input: torch.Tensor  # [batch, hidden]
    channel_input: torch.Tensor  # the same
    heads: torch.Tensor  # [batch, heads, HEAD, HEAD], updated in place

    @classmethod
    def empty(cls, batch: int, hidden: int) -> "State":
        """Before the first token."""
        zeros = torch.zeros(batch, hidden, device="xpu")
        return cls(zeros, zeros, torch.zeros(batch, hidden // HEAD, HEAD, HEAD, device="xpu"))


@dataclass(frozen=True)
class Norm:
    """Scale and offset of a normalization, [hidden]."""

    weight: torch.Tensor
    bias: torch.Tensor

    def over_hidden(self, x: torch.Tensor) -> torch.Tensor:
        return F.layer_norm(x, self.weight.shape, self.weight, self.bias)

    def over_heads(self, x: torch.Tensor) -> torch.Tensor:
        """Each head of x [batch, tokens, heads, HEAD] on its own, as rows [batch, tokens, hidden]."""
        rows = x.flatten(2).flatten(0, 1)
        return F.group_norm(rows, x.shape[2], self.weight, self.bias).unflatten(0, x.shape[:2])


@dataclass(frozen=True)
class TimeMix:
    """Attention with a decaying memory in place of keys and values of all tokens."""

    mix: torch.Tensor  # [4, 1, hidden]: shares of the present token in receptance, key, value and gate
    decay: torch.Tensor  # [heads, HEAD], what a step keeps of each row of the memory, between 0 and 1
    first: torch.Tensor  # [heads, HEAD], weight of the present token beside the memory
    receptance: Matrix
    key: Matrix
    value: Matrix
    gate: Matrix
    output: Matrix
    norm: Norm

    def __call__(self, x: torch.Tensor, before: torch.Tensor, heads: torch.Tensor) -> torch.Tensor:
        inputs = orrery_ops.rwkv_time_shift(x, _shifted(x, before), self.mix)
        matrices = (self.receptance, self.key, self.value, self.gate)
        receptance, key, value, gate = (matrix(part) for matrix, part in zip(matrices, inputs))
        # Views [batch, heads, tokens, HEAD] with the same strides: the operation takes those of the keys for all three.
        views = (x.unflatten(2, (-1, HEAD)).transpose(1, 2) for x in (receptance, key, value))
        mixed = orrery_ops.rwkv_linear_attention_v5(self.decay, self.first, *views, heads)
        return self.output(self.norm.over_heads(mixed) * F.silu(gate))


@dataclass(frozen=True)
class ChannelMix:
    """The block's feed-forward layer."""

    mix: torch.Tensor  # [2, 1, hidden]: shares of the present token in key and receptance
    key: Matrix
    value: Matrix
    receptance: Matrix

    def __call__(self, x: torch.Tensor, before: torch.Tensor) -> torch.Tensor:
        key, receptance = orrery_ops.rwkv_time_shift(x, _shifted(x, before), self.mix)
        return torch.sigmoid(self.receptance(receptance)) * self.value(F.relu(self.key(key)) ** 2)


@dataclass(frozen=True)
class Block:
    """Both mixes, each behind a normalization and added to its input."""

    time_norm: Norm
    time_mix: TimeMix
    channel_norm: Norm
    channel_mix: ChannelMix

    def __call__(self, x: torch.Tensor, state: State) -> torch.Tensor:
        """The next tokens' outputs, [batch, tokens, hidden] of at least one token; the state moves on behind them."""
        time_input = self.time_norm.over_hidden(x)
        x = x + self.time_mix(time_input, state.time_input, state.heads)
        channel_input = self.channel_norm.over_hidden(x)
        x = x + self.channel_mix(channel_input, state.channel_input)
        state.time_input, state.channel_input = time_input[:, -1], channel_input[:, -1]
        return x


def _shifted(x: torch.Tensor, before: torch.Tensor) -> torch.Tensor:
    """Each token's predecessor: `before` is that of the first."""
    return torch.cat((before[:, None], x[:, :-1]), 1)


def random_block(hidden: int = 256, inner: int = 1024, format: str = "q6_k", seed: int = 0) -> Block:
    """A block of hidden / HEAD heads with random weights."""
    generator = torch.Generator().manual_seed(seed)

    def uniform(*shape: int) -> torch.Tensor:
        return torch.rand(*shape, generator=generator).to("xpu")

    def norm() -> Norm:
        return Norm(0.5 + uniform(hidden), uniform(hidden) - 0.5)

    def matrix(rows: int, columns: int) -> Matrix:
        return Matrix.random(rows, columns, format, generator)

    heads = hidden // HEAD
    square = [matrix(hidden, hidden) for _ in range(5)]
    # From rows that forget within a few steps to rows that remember some thousand.
    decay = torch.exp(-torch.exp(8 * uniform(heads, HEAD) - 8))
    return Block(
        norm(),
        TimeMix(uniform(4, 1, hidden), decay, uniform(heads, HEAD), *square, norm()),
        norm(),
        ChannelMix(uniform(2, 1, hidden), matrix(inner, hidden), matrix(hidden, inner), matrix(hidden, hidden)),
    )


def main() -> None:
    block, tokens = random_block(), torch.randn(1, 512, 256).to("xpu")
    whole, parts = State.empty(1, 256), State.empty(1, 256)
    expected = block(tokens, whole)
    start = time.perf_counter()
    result = torch.cat([block(chunk, parts) for chunk in tokens.split([1, 7, 100, 404], 1)], 1)
    seconds = time.perf_counter() - start
    distance = float((result - expected).norm() / expected.norm())
    print(f"512 tokens in 4 chunks: {512 / seconds:.0f} tokens/s, {distance:.1g} away from those in one chunk")


if __name__ == "__main__":
    main()
