"""iq2_xxs and iq1_s: eight elements at a time are one entry of a published grid, 32 share a scale."""

from __future__ import annotations

from functools import cache

import torch

from orrery.optional import extras
from orrery.quantizers.common import half_bytes, halves, inverse


@cache
def _grid(name: str) -> torch.Tensor:
    """Entries [n, 8]; magnitudes 8, 25 and 43 of iq2_xxs, -1, 0 and 1 of iq1_s."""
    with extras():
        from gguf import quants

    kind = getattr(quants, name)
    kind.init_grid()
    return torch.from_numpy(kind.grid.reshape(-1, 8).copy())


@cache
def _grid_terms(name: str) -> torch.Tensor:
    """[16, n]: the entries' squares over the entries, so that one matrix product gives all squared errors."""
    grid = _grid(name)
    return torch.cat((grid.square(), grid), dim=1).T.contiguous()


def _search(name: str, target: torch.Tensor, weight: torch.Tensor, scale: torch.Tensor) -> torch.Tensor:
    """For groups [n, 8] the entry g with the least sum of weight * (scale * g - target)^2; scale is [n, 1].

    Over one group that sum is the product below times the scale, but for a part that does not depend on g.
    """
    return (torch.cat((scale * weight, -2 * weight * target), dim=1) @ _grid_terms(name)).argmin(1)


def _importance(x: torch.Tensor) -> torch.Tensor:
    """Large elements count more, but small ones are not lost: a group has few codes to spend."""
    square = x.square()
    return square + square.mean(1, keepdim=True)


def _refit(x: torch.Tensor, weight: torch.Tensor, value: torch.Tensor, d: torch.Tensor) -> torch.Tensor:
    """The half d [blocks, 1] for values d * value; the given one where it cannot be told."""
    best = (x * weight * value).sum(1, keepdim=True) * inverse((value.square() * weight).sum(1, keepdim=True))
    return torch.where(best == 0, d, best).half().float()


def _gain(x: torch.Tensor, weight: torch.Tensor, value: torch.Tensor) -> tuple[torch.Tensor, torch.Tensor]:
    """The best scale [n, 1] for values scale * value, and how much squared error it takes away."""
    product = (x * weight * value).sum(1, keepdim=True)
    scale = product * inverse((value.square() * weight).sum(1, keepdim=True))
    return scale, torch.where(scale > 0, product * scale, torch.zeros_like(scale))


_IQ2_TRIALS = (0.65, 0.75, 0.85, 0.95, 1.05, 1.2)


def encode_iq2_xxs(x: torch.Tensor) -> tuple[torch.Tensor, ...]:
    blocks = x.shape[0]
    grid = _grid("IQ2_XXS")
    weight = _importance(x).view(-1, 32)
    groups = x.reshape(-1, 8)
    # Seven signs are stored, the eighth makes their number even: the element that loses least takes the wrong one.
    negative = groups < 0
    odd = negative.sum(1) % 2 == 1
    weakest = (groups.abs() * weight.view(-1, 8)).argmin(1)
    negative[odd, weakest[odd]] ^= True
    target = torch.where(negative, -groups, groups).view(-1, 32)

    def nearest(scale: torch.Tensor) -> torch.Tensor:
        return _search("IQ2_XXS", target.view(-1, 8), weight.view(-1, 8), scale.repeat_interleave(4, 0))

    best = torch.zeros(blocks * 8, 1)
    best_gain = torch.zeros_like(best)
    top = target.amax(1, keepdim=True) / 43
    for trial in _IQ2_TRIALS:
        scale, gain = _gain(target, weight, grid.index_select(0, nearest(top * trial)).view(-1, 32))
        best = torch.where(gain > best_gain, scale, best)
        best_gain = torch.maximum(gain, best_gain)
    best = best.view(blocks, 8)
    d = (best.amax(1, keepdim=True) / (15.5 * 0.25)).half().float()
    steps = (best * inverse(d) * 4 - 0.5).round_().clamp_(0, 15)
    index = nearest(((steps + 0.5) * d * 0.25).view(-1, 1))
    value = grid.index_select(0, index).view(blocks, 8, 32) * ((steps + 0.5) * 0.25)[:, :, None]
    d = _refit(target.view(blocks, -1), weight.view(blocks, -1), value.view(blocks, -1), d)

    signs = (negative[:, :7].int() << torch.arange(7)).sum(1).view(-1, 4)
    words = (signs << torch.tensor([0, 7, 14, 21])).sum(1) + (steps.view(-1).long() << 28)
    indices = index.view(-1, 4).to(torch.uint8)
    quants = torch.cat((indices, words.view(-1, 1).view(torch.uint8)[:, :4]), dim=1)
    return (torch.cat((half_bytes(d), quants.view(blocks, 64)), dim=1),)


def decode_iq2_xxs(block: torch.Tensor) -> torch.Tensor:
    device = block.device
    quants = block[:, 2:].reshape(-1, 8)
    magnitudes = _grid("IQ2_XXS").to(device)[quants[:, :4].int()]
    words = quants[:, 4:].contiguous().view(torch.int32).long() & 0xFFFFFFFF
    signs = words >> torch.tensor([0, 7, 14, 21], device=device) & 127
    bits = signs[:, :, None] >> torch.arange(7, device=device) & 1
    bits = torch.cat((bits, bits.sum(2, keepdim=True) % 2), dim=2)
    scale = ((words >> 28).float().view(-1, 8) + 0.5) * halves(block[:, :2]) * 0.25
    return (torch.where(bits == 1, -magnitudes, magnitudes) * scale.view(-1, 1, 1)).view(-1, 256)


_IQ1_TRIALS = (0.45, 0.55, 0.65, 0.75, 0.9)


def encode_iq1_s(x: torch.Tensor) -> tuple[torch.Tensor, ...]:
    blocks = x.shape[0]
    grid = _grid("IQ1_S")
    weight = _importance(x).view(-1, 32)
    parts = x.reshape(-1, 32)
    # Scale and shift of a sub-block are chosen as if every pattern of -1, 0 and 1 were in the grid.
    best = torch.zeros(blocks * 8, 1)
    best_gain, shift = torch.zeros_like(best), torch.full_like(best, 0.125)
    top = parts.abs().amax(1, keepdim=True)
    for delta in (0.125, -0.125):
        for trial in _IQ1_TRIALS:
            value = (parts * inverse(top * trial) - delta).round_().clamp_(-1, 1) + delta
            scale, gain = _gain(parts, weight, value)
            best = torch.where(gain > best_gain, scale, best)
            shift = torch.where(gain > best_gain, torch.full_like(shift, delta), shift)
            best_gain = torch.maximum(gain, best_gain)
    best = best.view(blocks, 8)
    d = (best.amax(1, keepdim=True) / 15).half().float()
    steps = ((best * inverse(d) - 1) / 2).round_().clamp_(0, 7)
    odd = 2 * steps + 1
    scale = (odd * d).view(-1, 1)
    index = _search("IQ1_S", (parts - scale * shift).view(-1, 8), weight.view(-1, 8), scale.repeat_interleave(4, 0))
    value = (grid.index_select(0, index).view(-1, 32) + shift).view(blocks, 8, 32) * odd[:, :, None]
    d = _refit(x, weight.view(blocks, -1), value.view(blocks, -1), d)

    index = index.view(-1, 4)
    high = ((index >> 8) << torch.tensor([0, 3, 6, 9])).sum(1)
    high = high + (steps.view(-1).long() << 12) + ((shift.view(-1) < 0).long() << 15)
    low = (index & 255).to(torch.uint8).view(blocks, 32)
    return (torch.cat((half_bytes(d), low, high.view(-1, 1).view(torch.uint8)[:, :2].reshape(blocks, 16)), dim=1),)


def decode_iq1_s(block: torch.Tensor) -> torch.Tensor:
    device = block.device
    high = block[:, 34:].contiguous().view(torch.int16).long() & 0xFFFF
    top = high[:, :, None] >> torch.tensor([0, 3, 6, 9], device=device) & 7
    entries = _grid("IQ1_S").to(device)[block[:, 2:34].view(-1, 8, 4).long() | top << 8]
    scale = halves(block[:, :2]) * (2 * (high >> 12 & 7) + 1)
    shift = torch.where(high >> 15 == 1, -0.125, 0.125)
    return ((entries + shift[:, :, None, None]) * scale[:, :, None, None]).view(-1, 256)
