"""A mixture-of-experts layer: a router picks for each token the experts whose gated layers it runs through.

    python -m examples.experts
"""

from __future__ import annotations

import time
from dataclasses import dataclass
from typing import Sequence

import torch
import torch.nn.functional as F

import orrery_host  # noqa: F401  registers the device if no installed package has done so
import orrery_ops

from .quantized import Matrix


@dataclass(frozen=True)
class Expert:
    """A gated layer."""

    gate: Matrix
    up: Matrix
    down: Matrix

    def __call__(self, x: torch.Tensor) -> torch.Tensor:
        return self.down(F.silu(self.gate(x)) * self.up(x))


@dataclass(frozen=True)
class ExpertLayer:
    """Each token runs through `top_k` experts; their results are added, weighted by the router's probabilities."""

    router: torch.Tensor  # [experts, hidden]
    experts: Sequence[Expert]
    top_k: int

    def route(self, x: torch.Tensor) -> tuple[torch.Tensor, torch.Tensor]:
        """For each row its experts' weights, which sum to 1, and their numbers, both [tokens, top_k]."""
        weights, selected = torch.topk(F.softmax(F.linear(x, self.router), 1), self.top_k)
        return weights / weights.sum(1, keepdim=True), selected

    def __call__(self, x: torch.Tensor) -> torch.Tensor:
        """Of rows [tokens, hidden]."""
        weights, selected = self.route(x)
        # The lists are made on the CPU, which waits here for the router.
        slots_of, tokens_of = orrery_ops.get_moe_indexes(selected.to("cpu", torch.int32), len(self.experts))
        result = torch.zeros_like(x)
        for expert, slots, tokens in zip(self.experts, slots_of, tokens_of):
            if tokens:
                rows = torch.tensor(tokens, device=x.device)
                share = weights[rows, torch.tensor(slots, device=x.device)]
                result.index_add_(0, rows, expert(x[rows]) * share[:, None])
        return result


def random_layer(
    hidden: int = 256, inner: int = 512, experts: int = 8, top_k: int = 2, format: str = "q4_k", seed: int = 0
) -> ExpertLayer:
    generator = torch.Generator().manual_seed(seed)

    def matrix(rows: int, columns: int) -> Matrix:
        return Matrix.random(rows, columns, format, generator)

    router = torch.randn(experts, hidden, generator=generator).to("xpu") / hidden**0.5
    return ExpertLayer(
        router,
        [Expert(matrix(inner, hidden), matrix(inner, hidden), matrix(hidden, inner)) for _ in range(experts)],
        top_k,
    )


def main() -> None:
    layer, tokens = random_layer(), torch.randn(64, 256).to("xpu")
    counts = torch.bincount(layer.route(tokens)[1].flatten().cpu(), minlength=len(layer.experts)).tolist()
    start = time.perf_counter()
    layer(tokens)
    print(f"64 tokens in {time.perf_counter() - start:.3f} s; tokens of each expert: {counts}")


if __name__ == "__main__":
    main()
