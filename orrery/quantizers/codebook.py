"""nf4, nf3, fp4, fp6, fp8_e4m3 and fp8_e5m2: a code names a value, 64 elements share a scale."""

from __future__ import annotations

import math
from functools import cached_property

import torch

from orrery.quantizers.common import best_scale, half_bytes, halves, inverse, pack_nibbles, unpack_nibbles

NF4 = (-1.0, -0.6961928009986877, -0.5250730514526367, -0.39491748809814453, -0.28444138169288635, -0.18477343022823334,
       -0.09105003625154495, 0.0, 0.07958029955625534, 0.16093020141124725, 0.24611230194568634, 0.33791524171829224,
       0.44070982933044434, 0.5626170039176941, 0.7229568362236023, 1.0)
NF3 = (-1.0, -0.4786292016506195, -0.217141792178154, 0.0, 0.16093020141124725, 0.33791524171829224, 0.5626170039176941,
       1.0)
FP4_MAGNITUDES = (0.03125, 0.5, 1.0, 1.5, 2.0, 3.0, 4.0, 6.0)
FP4 = FP4_MAGNITUDES + tuple(-v for v in FP4_MAGNITUDES)


def _half_values(bits: torch.Tensor) -> tuple[float, ...]:
    return tuple(bits.to(torch.int16).view(torch.half).tolist())


def _signed(magnitudes: tuple[float, ...]) -> tuple[float, ...]:
    return magnitudes + tuple(-m for m in magnitudes)


# Five magnitude bits; the kernels' byte keeps the sign in bit 7, here the sign is bit 5, the first of the top two bits.
FP6 = _signed(_half_values((torch.arange(32) << 8) | 0x80))
# m below 8 is a subnormal, and the largest exponent holds numbers like any other.
FP8_E4M3 = _signed(tuple(m * 2.0**-9 if m < 8 else (8 + m % 8) / 8 * 2.0 ** (m // 8 - 7) for m in range(128)))
# A NaN where all exponent bits are set: 0x7C to 0x7F.
FP8_E5M2 = _signed(_half_values((torch.arange(128) << 8) | 0x80))


class Codebook:
    """Values by code, and the nearest value of a number.

    The nearest code is looked up by the number's bits as a half, in units that keep the values in the middle of the
    half's range: one gather, where a search among the values would take a step a bit. What lies within half a unit in
    the last place of a middle between two values may go to either.
    """

    def __init__(self, values: tuple[float, ...]) -> None:
        self.values = torch.tensor(values)
        self.top = max(v for v in values if math.isfinite(v))
        self._unit = 2.0 ** (12 - math.floor(math.log2(self.top)))

    @cached_property
    def _codes(self) -> torch.Tensor:
        """The nearest code to each half, by its bits as an unsigned number."""
        numbers = torch.arange(1 << 16).to(torch.int16).view(torch.half).double().nan_to_num() / self._unit
        codes = self.values.isfinite().nonzero().view(-1)
        ordered, order = self.values[codes].double().sort(stable=True)
        return codes[order[torch.bucketize(numbers, (ordered[1:] + ordered[:-1]) / 2, right=True)]].to(torch.uint8)

    @cached_property
    def _nearest(self) -> torch.Tensor:
        return self.values[self._codes.int()]

    def _look_up(self, table: torch.Tensor, y: torch.Tensor) -> torch.Tensor:
        bits = (y * self._unit).clamp_(-65504.0, 65504.0).half().view(torch.int16).int() & 0xFFFF
        # Six times as fast as table[bits].
        return table.index_select(0, bits.view(-1)).view(y.shape)

    def codes(self, y: torch.Tensor) -> torch.Tensor:
        """The codes of the nearest values."""
        return self._look_up(self._codes, y)

    def nearest(self, y: torch.Tensor) -> torch.Tensor:
        """The nearest values."""
        return self._look_up(self._nearest, y)

    def decode(self, codes: torch.Tensor) -> torch.Tensor:
        return self.values.to(codes.device).index_select(0, codes.reshape(-1).int()).view(codes.shape)


_nf4, _nf3, _fp4, _fp6, _e4m3, _e5m2 = (Codebook(v) for v in (NF4, NF3, FP4, FP6, FP8_E4M3, FP8_E5M2))

# Where a trial puts the block's extreme element, as parts of the largest value. The tables of nf4 and nf3 are not
# symmetric, so the other sign is tried too. Floating-point codes have one relative precision over many octaves: there
# the trials look for the place between two powers of two that suits the block.
_TABLE_ENDS = tuple(s * t for t in (0.88, 0.95, 1.0, 1.06, 1.15) for s in (1, -1))
_FLOAT_ENDS = (1.1, 1.0, 0.93, 0.86, 0.8, 0.74, 0.67, 0.6, 0.53)


def _scaled_codes(
    x: torch.Tensor, book: Codebook, ends: tuple[float, ...], scale_type: torch.dtype
) -> tuple[torch.Tensor, torch.Tensor]:
    """Codes and the scale d [blocks, 1], rounded to the type that the format keeps it in."""
    d = best_scale(x, x * x, [book.top * end for end in ends], book.nearest).to(scale_type).float()
    return book.codes(x * inverse(d)), d


def encode_nf4(x: torch.Tensor) -> tuple[torch.Tensor, ...]:
    q, d = _scaled_codes(x, _nf4, _TABLE_ENDS, torch.half)
    return pack_nibbles(q.roll(32, 1)), half_bytes(d)


def decode_nf4(quants: torch.Tensor, scales: torch.Tensor) -> torch.Tensor:
    return _nf4.decode(unpack_nibbles(quants).roll(32, 1)) * halves(scales)


def encode_nf3(x: torch.Tensor) -> tuple[torch.Tensor, ...]:
    q, d = _scaled_codes(x, _nf3, _TABLE_ENDS, torch.half)
    top = ((q >> 2).view(-1, 8, 8) << torch.arange(8, dtype=torch.uint8)).sum(2, dtype=torch.uint8)
    low = ((q & 3).view(-1, 16, 4) << torch.tensor([6, 4, 2, 0], dtype=torch.uint8)).sum(2, dtype=torch.uint8)
    return torch.cat((top, low), dim=1), half_bytes(d)


def decode_nf3(quants: torch.Tensor, scales: torch.Tensor) -> torch.Tensor:
    shifts = torch.arange(8, dtype=torch.uint8, device=quants.device)
    top = (quants[:, :8, None] >> shifts & 1).reshape(-1, 64)
    low = (quants[:, 8:, None] >> shifts[[6, 4, 2, 0]] & 3).reshape(-1, 64)
    return _nf3.decode(top << 2 | low) * halves(scales)


def encode_fp4(x: torch.Tensor) -> tuple[torch.Tensor, ...]:
    q, d = _scaled_codes(x, _fp4, _FLOAT_ENDS, torch.half)
    return pack_nibbles(q), half_bytes(d)


def decode_fp4(quants: torch.Tensor, scales: torch.Tensor) -> torch.Tensor:
    return _fp4.decode(unpack_nibbles(quants)) * halves(scales)


# fp6 keeps 16 elements in three words of four bytes. Quarter i has its elements' low four bits in word i / 2 of the low
# plane, in high nibbles where i is even and in low ones where it is odd, and the top two bits in the top plane's word,
# at bits 7 - 2 i and 6 - 2 i. Byte k of each word stands for the quarter's element number:
_FP6_ELEMENT = (2, 0, 3, 1)


def _fp6_quarters(codes: torch.Tensor) -> torch.Tensor:
    """Codes [blocks, 4 groups, 4 quarters, 4 bytes], the bytes in the order of the words."""
    return codes.view(-1, 4, 4, 4)[..., list(_FP6_ELEMENT)]


def encode_fp6(x: torch.Tensor) -> tuple[torch.Tensor, ...]:
    q, d = _scaled_codes(x, _fp6, _FLOAT_ENDS, torch.half)
    quarters = _fp6_quarters(q)
    top, low = quarters >> 4, quarters & 15
    tops = top[:, :, 0] << 6 | top[:, :, 1] << 4 | top[:, :, 2] << 2 | top[:, :, 3]
    lows = low[:, :, 0::2] << 4 | low[:, :, 1::2]
    return lows.reshape(-1, 32), tops.reshape(-1, 16), half_bytes(d)


def decode_fp6(lows: torch.Tensor, tops: torch.Tensor, scales: torch.Tensor) -> torch.Tensor:
    low_words, top_words = lows.view(-1, 4, 2, 4), tops.view(-1, 4, 4)
    low = torch.stack((low_words >> 4, low_words & 15), dim=3).view(-1, 4, 4, 4)
    top = torch.stack([top_words >> shift & 3 for shift in (6, 4, 2, 0)], dim=2)
    codes = torch.empty_like(low)
    codes[..., list(_FP6_ELEMENT)] = top << 4 | low
    return _fp6.decode(codes.view(-1, 64)) * halves(scales)


def encode_fp8_e4m3(x: torch.Tensor) -> tuple[torch.Tensor, ...]:
    q, d = _scaled_codes(x, _e4m3, _FLOAT_ENDS[1::2], torch.float)
    return q, d.view(torch.uint8)


def decode_fp8_e4m3(quants: torch.Tensor, scales: torch.Tensor) -> torch.Tensor:
    return _e4m3.decode(quants) * scales.contiguous().view(torch.float)


def encode_fp8_e5m2(x: torch.Tensor) -> tuple[torch.Tensor, ...]:
    """Most kernels ignore this format's scale plane, so codes stand for the weights themselves, with scales of 1."""
    return _e5m2.codes(x), torch.ones(x.shape[0], 1).view(torch.uint8)


def decode_fp8_e5m2(quants: torch.Tensor, scales: torch.Tensor) -> torch.Tensor:
    return _e5m2.decode(quants)
