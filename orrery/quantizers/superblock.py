"""q2_k, q4_k, q5_k and q6_k: 256 elements in sub-blocks, whose small scales share one or two halves."""

from __future__ import annotations

import torch

from orrery.quantizers.common import best_range, best_scale, half_bytes, halves, inverse


def _refined(x: torch.Tensor, value: torch.Tensor, d: torch.Tensor) -> torch.Tensor:
    """The half d [blocks, 1] for values d * value that are nearest to x; the given d where all values are 0."""
    best = (x * value).sum(1, keepdim=True) * inverse(value.square().sum(1, keepdim=True))
    return torch.where(best == 0, d, best).half().float()


def _shared(small: torch.Tensor, high: int) -> tuple[torch.Tensor, torch.Tensor]:
    """Small scales [blocks, n], none negative, as integers up to `high` times one half a block."""
    d = (small.amax(1, keepdim=True) / high).half().float()
    return (small * inverse(d)).round_().clamp_(0, high), d


def _range_codes(
    x: torch.Tensor, size: int, high: int, highest_scale: int, trials: tuple[float, ...]
) -> tuple[torch.Tensor, torch.Tensor, torch.Tensor, torch.Tensor, torch.Tensor]:
    """Codes of sub-blocks of `size` elements, their integer scales and minimums, and the halves d and dmin.

    An element is d * scale * code - dmin * minimum.
    """
    blocks = x.shape[0]
    parts = x.reshape(-1, size)
    scale, offset = best_range(parts, high, trials, highest_offset=0.0)
    scales, d = _shared(scale.view(blocks, -1), highest_scale)
    minimums, dmin = _shared(-offset.view(blocks, -1), highest_scale)
    step, bottom = (d * scales).view(-1, 1), (dmin * minimums).view(-1, 1)
    codes = ((parts + bottom) * inverse(step)).round_().clamp_(0, high)
    # With all integers fixed, both halves are a least-squares problem of two unknowns.
    up = (scales.view(-1, 1) * codes).view(blocks, -1)
    down = minimums.repeat_interleave(size, 1)
    uu, dd, ud = (up * up).sum(1, True), (down * down).sum(1, True), (up * down).sum(1, True)
    xu, xd = (x * up).sum(1, True), (x * down).sum(1, True)
    determinant = uu * dd - ud * ud
    usable = determinant > 1e-6 * uu * dd
    d = torch.where(usable, (xu * dd - xd * ud) / determinant, d).half().float()
    dmin = torch.where(usable, (xu * ud - xd * uu) / determinant, dmin).half().float()
    return codes, scales.to(torch.uint8), minimums.to(torch.uint8), d, dmin


def encode_q2_k(x: torch.Tensor) -> tuple[torch.Tensor, ...]:
    codes, scales, minimums, d, dmin = _range_codes(x, 16, 3, 15, (2.0, 2.5, 3.0, 3.5, 4.0, 4.5))
    quarters = codes.to(torch.uint8).view(-1, 2, 4, 32)
    qs = quarters[:, :, 0] | quarters[:, :, 1] << 2 | quarters[:, :, 2] << 4 | quarters[:, :, 3] << 6
    return (torch.cat((scales | minimums << 4, qs.reshape(-1, 64), half_bytes(d, dmin)), dim=1),)


def decode_q2_k(block: torch.Tensor) -> torch.Tensor:
    d, dmin = halves(block[:, 80:84]).split(1, dim=1)
    scales = block[:, :16]
    codes = torch.stack([block[:, 16:80].view(-1, 2, 32) >> shift & 3 for shift in (0, 2, 4, 6)], dim=2)
    step, bottom = d * (scales & 15), dmin * (scales >> 4)
    return (step[:, :, None] * codes.reshape(-1, 16, 16) - bottom[:, :, None]).view(-1, 256)


def _packed_scales(scales: torch.Tensor, minimums: torch.Tensor) -> torch.Tensor:
    """Twelve bytes of eight scales and eight minimums of six bits."""
    first = scales[:, :4] | scales[:, 4:] >> 4 << 6
    second = minimums[:, :4] | minimums[:, 4:] >> 4 << 6
    return torch.cat((first, second, scales[:, 4:] & 15 | minimums[:, 4:] << 4), dim=1)


def _unpacked_scales(data: torch.Tensor) -> tuple[torch.Tensor, torch.Tensor]:
    first, second, third = data.split(4, dim=1)
    scales = torch.cat((first & 63, third & 15 | first >> 6 << 4), dim=1)
    minimums = torch.cat((second & 63, third >> 4 | second >> 6 << 4), dim=1)
    return scales, minimums


def _pairs(nibbles: torch.Tensor) -> torch.Tensor:
    """Nibbles [blocks, 256] in bytes: 32 elements in low nibbles, the next 32 in high ones."""
    parts = nibbles.view(-1, 4, 2, 32)
    return (parts[:, :, 0] | parts[:, :, 1] << 4).reshape(-1, 128)


def _unpaired(qs: torch.Tensor) -> torch.Tensor:
    parts = qs.view(-1, 4, 32)
    return torch.stack((parts & 15, parts >> 4), dim=2).view(-1, 256)


def _ranged(codes: torch.Tensor, header: torch.Tensor) -> torch.Tensor:
    """Values from codes and the 16 bytes of halves and packed scales."""
    d, dmin = halves(header[:, :4]).split(1, dim=1)
    scales, minimums = _unpacked_scales(header[:, 4:])
    step, bottom = d * scales, dmin * minimums
    return (step[:, :, None] * codes.reshape(-1, 8, 32) - bottom[:, :, None]).view(-1, 256)


_TRIALS_4 = (13.5, 14.2, 15.0, 15.6, 16.2)
_TRIALS_5 = (29.5, 30.2, 31.0, 31.6)


def encode_q4_k(x: torch.Tensor) -> tuple[torch.Tensor, ...]:
    codes, scales, minimums, d, dmin = _range_codes(x, 32, 15, 63, _TRIALS_4)
    return (torch.cat((half_bytes(d, dmin), _packed_scales(scales, minimums), _pairs(codes.to(torch.uint8))), dim=1),)


def decode_q4_k(block: torch.Tensor) -> torch.Tensor:
    return _ranged(_unpaired(block[:, 16:]), block[:, :16])


def encode_q5_k(x: torch.Tensor) -> tuple[torch.Tensor, ...]:
    codes, scales, minimums, d, dmin = _range_codes(x, 32, 31, 63, _TRIALS_5)
    q = codes.to(torch.uint8).view(-1, 256)
    # Bit s of byte l is the fifth bit of element 32 s + l.
    shifts = torch.arange(8, dtype=torch.uint8).view(8, 1)
    qh = ((q.view(-1, 8, 32) >> 4) << shifts).sum(1, dtype=torch.uint8)
    return (torch.cat((half_bytes(d, dmin), _packed_scales(scales, minimums), qh, _pairs(q & 15)), dim=1),)


def decode_q5_k(block: torch.Tensor) -> torch.Tensor:
    shifts = torch.arange(8, dtype=torch.uint8, device=block.device).view(8, 1)
    fifth = (block[:, None, 16:48] >> shifts & 1).reshape(-1, 256)
    return _ranged(_unpaired(block[:, 48:]) | fifth << 4, block[:, :16])


def encode_q6_k(x: torch.Tensor) -> tuple[torch.Tensor, ...]:
    blocks = x.shape[0]
    parts = x.reshape(-1, 16)
    ends = (-33.0, -32.0, -31.3, -30.6, 31.0)
    scale = best_scale(parts, parts * parts, ends, lambda y: y.round_().clamp_(-32, 31)).view(blocks, 16)
    extreme = scale.gather(1, scale.abs().argmax(1, keepdim=True))
    d = (extreme / -128).half().float()
    scales = (scale * inverse(d)).round_().clamp_(-128, 127)
    codes = (parts * inverse((d * scales).view(-1, 1))).round_().clamp_(-32, 31)
    d = _refined(x, (scales.view(-1, 1) * codes).view(blocks, 256), d)
    q = (codes + 32).to(torch.uint8).view(-1, 2, 4, 32)
    ql = torch.stack([q[:, :, g] & 15 | (q[:, :, g + 2] & 15) << 4 for g in (0, 1)], dim=2)
    qh = q[:, :, 0] >> 4 | q[:, :, 1] >> 4 << 2 | q[:, :, 2] >> 4 << 4 | q[:, :, 3] >> 4 << 6
    signed = scales.to(torch.int8).view(torch.uint8)
    return (torch.cat((ql.view(-1, 128), qh.reshape(-1, 64), signed, half_bytes(d)), dim=1),)


def decode_q6_k(block: torch.Tensor) -> torch.Tensor:
    ql, qh = block[:, :128].view(-1, 2, 2, 32), block[:, 128:192].view(-1, 2, 32)
    scales = block[:, 192:208].contiguous().view(torch.int8).float()
    nibbles = torch.stack((ql[:, :, 0] & 15, ql[:, :, 1] & 15, ql[:, :, 0] >> 4, ql[:, :, 1] >> 4), dim=2)
    tops = torch.stack([qh >> shift & 3 for shift in (0, 2, 4, 6)], dim=2)
    codes = (nibbles | tops << 4).view(-1, 16, 16).float() - 32
    return ((halves(block[:, 208:210]) * scales)[:, :, None] * codes).view(-1, 256)
