"""The mixture-of-experts layer of the examples against every expert on every token, in float64."""

from __future__ import annotations

import pytest
import torch
from torch import Tensor

import orrery_ops
from examples import experts
from examples.quantized import Matrix
from orrery.formats import FORMATS, dequantize

HIDDEN = 256
# Float32 against float64 over products of 512 terms. Measured: 5e-7.
NEAR = 5e-6


def product(x: Tensor, matrix: Matrix) -> Tensor:
    return x @ dequantize(FORMATS[matrix.format], matrix.data.cpu(), matrix.columns).double().T


def dense(layer: experts.ExpertLayer, x: Tensor) -> Tensor:
    """Every expert's result of every token, times its share, which is 0 where the router did not pick the expert."""
    odds = torch.softmax(x.double() @ layer.router.cpu().double().T, 1)
    picked = odds >= odds.sort(1, descending=True).values[:, layer.top_k - 1 : layer.top_k]
    share = odds * picked / (odds * picked).sum(1, keepdim=True)
    result = torch.zeros(len(x), HIDDEN, dtype=torch.float64)
    for number, expert in enumerate(layer.experts):
        gate, up = product(x.double(), expert.gate), product(x.double(), expert.up)
        result += share[:, number, None] * product(gate * torch.sigmoid(gate) * up, expert.down)
    return result


@pytest.mark.parametrize("tokens, count, top_k", [(1, 8, 2), (2, 8, 1), (19, 8, 2), (99, 5, 3), (30, 64, 8)])
def test_layer_against_the_dense_computation(tokens: int, count: int, top_k: int) -> None:
    layer = experts.random_layer(HIDDEN, 512 if count < 64 else 256, count, top_k, seed=tokens)
    x = torch.randn(tokens, HIDDEN, generator=torch.Generator().manual_seed(tokens))
    expected = dense(layer, x)
    result = layer(x.to("xpu")).cpu().double()
    assert (result - expected).norm() / expected.norm() < NEAR
    assert ((result - expected).norm(dim=1) / expected.norm(dim=1)).max() < 4 * NEAR


def test_an_expert_sees_only_its_tokens(monkeypatch) -> None:
    """And one without tokens is not run."""
    layer = experts.random_layer(HIDDEN, 256, 8, 2)
    x = torch.randn(3, HIDDEN, generator=torch.Generator().manual_seed(0)).to("xpu")
    counts = torch.bincount(layer.route(x)[1].flatten().cpu(), minlength=8).tolist()
    assert 0 in counts
    seen = []
    forward = orrery_ops.forward_new
    monkeypatch.setattr(orrery_ops, "forward_new", lambda rows, *rest: seen.append(len(rows)) or forward(rows, *rest))
    layer(x)
    assert seen == [n for n in counts if n for _ in range(3)]


def test_no_tokens() -> None:
    assert experts.random_layer(HIDDEN, 256, 2, 1)(torch.empty(0, HIDDEN, device="xpu")).shape == (0, HIDDEN)


def test_the_program_runs(capsys) -> None:
    experts.main()
    assert "tokens of each expert" in capsys.readouterr().out
