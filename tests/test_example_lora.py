"""The LoRA of the examples on a part of the bundled model."""

from __future__ import annotations

import copy
import re

import torch
from torch import nn

from examples import lora
from orrery import quantize_
from orrery.nn import dequantize_


def test_a_term_of_low_rank_learns_beside_a_frozen_matrix(xpu) -> None:
    torch.manual_seed(0)
    model = quantize_(nn.Sequential(nn.Linear(128, 64), nn.Tanh(), nn.Linear(64, 32))).to(xpu)
    x, target = torch.randn(9, 128).to(xpu), torch.randn(9, 32).to(xpu)
    before, result = copy.deepcopy(model.state_dict()), model(x)
    learned = lora.add_lora(model, rank=4)
    assert [tuple(p.shape) for p in learned] == [(4, 128), (64, 4), (4, 64), (32, 4)]
    assert torch.equal(model(x), result)  # up is zero

    # One step against the same terms beside dense matrices of the same values.
    dense = dequantize_(copy.deepcopy(model)).requires_grad_(False)
    for layer in (dense[0], dense[2]):
        layer.down.requires_grad_(), layer.up.requires_grad_()
    for each in (model, dense):
        (each(x) - target).square().mean().backward()
    for ours, theirs in zip(learned, (p for p in dense.parameters() if p.requires_grad)):
        # Products over more than a few rows round the weights to half.
        torch.testing.assert_close(ours.grad, theirs.grad, rtol=1e-2, atol=1e-3 * theirs.grad.abs().max().item())
    for name, value in before.items():
        layer, _, field = name.partition(".")
        assert torch.equal(model.state_dict()[f"{layer}.base.{field}"], value)


def test_the_loss_falls_below_half_in_10_steps(xpu, capsys) -> None:
    """With 4 of the 30 layers: all of them take a minute."""
    lora.main(layers=4)
    losses = [float(loss) for loss in re.findall(r"loss (\S+)", capsys.readouterr().out)]
    assert len(losses) == 11
    assert losses[10] < losses[0] / 2
