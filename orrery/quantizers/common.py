"""What the quantizers share: nibbles, halves, and the searches for a block's scale."""

from __future__ import annotations

from collections.abc import Callable, Iterable

import torch

Nearest = Callable[[torch.Tensor], torch.Tensor]


def half_bytes(*columns: torch.Tensor) -> torch.Tensor:
    """Bytes [blocks, 2 * columns] of one half a block and column."""
    return torch.stack([c.reshape(-1).half() for c in columns], dim=1).view(torch.uint8)


def halves(data: torch.Tensor) -> torch.Tensor:
    """The halves in these bytes, as floats."""
    return data.contiguous().view(torch.half).float()


def pack_nibbles(q: torch.Tensor) -> torch.Tensor:
    """The first half of the codes in the low nibbles, the second in the high ones."""
    low, high = (q.to(torch.uint8) & 15).chunk(2, dim=1)
    return low | (high << 4)


def unpack_nibbles(quants: torch.Tensor) -> torch.Tensor:
    return torch.cat((quants & 15, quants >> 4), dim=1)


def inverse(d: torch.Tensor) -> torch.Tensor:
    """1 / d, and 0 for 0."""
    return torch.where(d == 0, torch.zeros_like(d), 1 / d)


def best_scale(x: torch.Tensor, importance: torch.Tensor, ends: Iterable[float], nearest: Nearest) -> torch.Tensor:
    """The scale d [blocks, 1] for which d * nearest(x / d) comes close to x.

    A trial puts the element of largest magnitude on one of `ends`. For its codes the best d is known in closed form;
    the trial that leaves the smallest squared error, each counted by `importance`, wins.
    """
    extreme = x.gather(1, x.abs().argmax(1, keepdim=True))
    inverse_extreme = inverse(extreme)
    best_gain = torch.zeros_like(extreme)
    best = torch.zeros_like(extreme)
    weighted_x = x * importance
    for end in ends:
        value = nearest(x * (end * inverse_extreme))
        product = (value * weighted_x).sum(1, keepdim=True)
        d = product * inverse((value.square() * importance).sum(1, keepdim=True))
        gain = product * d
        best = torch.where(gain > best_gain, d, best)
        best_gain = torch.maximum(gain, best_gain)
    return best


def best_range(x: torch.Tensor, high: int, trials: Iterable[float],
               highest_offset: float = float("inf")) -> tuple[torch.Tensor, torch.Tensor]:
    """d and m, [blocks, 1] each, for values d * code + m with codes in [0, high] and m at most `highest_offset`.

    Trials widen and narrow the range between smallest and largest element; least squares gives d and m for the codes
    of each trial, and the smallest squared error wins.
    """
    smallest = x.amin(1, keepdim=True).clamp_(max=highest_offset)
    spread_x = x.amax(1, keepdim=True) - smallest
    mean_x = x.mean(1, keepdim=True)
    centered = x - mean_x
    best_d = (spread_x / high).half().float()
    best_m = smallest.half().float()
    q = ((x - best_m) * inverse(best_d)).round_().clamp_(0, high)
    best_error = (q * best_d + best_m - x).square_().sum(1, keepdim=True)
    middle = smallest + spread_x / 2
    for steps in trials:
        q = ((x - middle) * inverse(spread_x / steps) + high / 2).round_().clamp_(0, high)
        mean_q = q.mean(1, keepdim=True)
        spread = q - mean_q
        d = (spread * centered).sum(1, keepdim=True) * inverse(spread.square().sum(1, keepdim=True))
        m = mean_x - d * mean_q
        if highest_offset != float("inf"):
            # Held at the bound, the line has one free parameter left.
            through = ((x - highest_offset) * q).sum(1, keepdim=True) * inverse(q.square().sum(1, keepdim=True))
            d = torch.where(m > highest_offset, through, d)
            m = m.clamp(max=highest_offset)
        d, m = d.half().float(), m.half().float()
        error = (q * d + m - x).square_().sum(1, keepdim=True)
        better = error < best_error
        best_d, best_m = torch.where(better, d, best_d), torch.where(better, m, best_m)
        best_error = torch.minimum(error, best_error)
    return best_d, best_m
