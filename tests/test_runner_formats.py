"""Quantizers and decoders of the runner against the layouts' definition, written out element by element."""

import struct

import numpy as np
import pytest
import torch

from orrery import OrreryError, formats
from orrery.formats import FORMATS


def half(data, at):
    return struct.unpack_from("<e", data, at)[0]


def value(name, data, elements, e):
    """Element number e of a matrix, straight from the definition of its format."""
    block, j = divmod(e, 64)
    if name in ("q5_0", "q5_1"):
        start = 44 * block
        fifth = struct.unpack_from("<Q", data, start + 4)[0] >> j & 1
        nibble = data[start + 12 + j % 32] >> (4 if j >= 32 else 0) & 15
        q = nibble | fifth << 4
        if name == "q5_0":
            return (q - 16) * half(data, start)
        return half(data, start) * q + half(data, start + 2)
    if name == "q8_0":
        return struct.unpack_from("<b", data, e)[0] * struct.unpack_from("<f", data, elements + 4 * block)[0]
    q = data[32 * block + j % 32] >> (4 if j >= 32 else 0) & 15
    plane = elements // 64 * 32
    if name == "q4_0":
        return (q - 8) * half(data, plane + 2 * block)
    return half(data, plane + 4 * block) * q + half(data, plane + 4 * block + 2)


@pytest.mark.parametrize("name", FORMATS)
def test_decoder_follows_the_definition_for_random_bytes(name):
    fmt, rows, cols = FORMATS[name], 3, 192
    rng = np.random.default_rng(7)
    data = torch.from_numpy(rng.integers(0, 256, fmt.size(rows, cols), np.uint8))
    quants, scales = fmt.planes(data)
    # Random bytes make wild scales; plain ones keep every product exact.
    plain = torch.tensor([0.5, -1.25], dtype=torch.half).view(torch.uint8)
    if name.startswith("q5"):
        quants[:, :4] = plain
    elif name == "q8_0":
        scales[:] = torch.tensor([-0.375]).view(torch.uint8)
    else:
        scales[:] = plain[: fmt.scale_bytes]
    raw = bytes(data.tolist())
    expected = [value(name, raw, rows * cols, e) for e in range(rows * cols)]
    assert formats.dequantize(fmt, data, cols).view(-1).tolist() == expected


@pytest.mark.parametrize("name, code, elements, size", [
    ("q4_0", 2, 64, 34), ("q4_1", 3, 64, 36), ("q5_0", 6, 64, 44), ("q5_1", 7, 64, 44), ("q8_0", 8, 64, 68),
])
def test_table(name, code, elements, size):
    fmt = FORMATS[name]
    assert (fmt.code, fmt.block_bytes, fmt.size(3, elements)) == (code, size, 3 * size)
    row = next(line for line in formats.table().splitlines() if line.startswith(name))
    assert row.split()[:4] == [name, str(code), str(elements), str(size)]


def test_q4_0_bytes_of_two_rows():
    matrix = torch.zeros(2, 64)
    matrix[0, 0], matrix[0, 3], matrix[0, 35] = -8.0, 7.0, -6.0
    matrix[1, 63] = 16.0
    data = formats.quantize(FORMATS["q4_0"], matrix).tolist()
    assert len(data) == 68
    assert data[0] == 0x80 and data[3] == 0x2F and data[1] == 0x88
    assert half(bytes(data), 64) == 1.0
    # The lone element of row 1 may take any code that gives 16 back.
    assert ((data[63] >> 4) - 8) * half(bytes(data), 66) == pytest.approx(16, rel=2**-11)
    assert all(byte == 0x88 for byte in data[32:63])


def test_q4_1_bytes_of_one_block():
    matrix = torch.arange(64).remainder(16).float().view(1, 64) * 0.5 + 3
    data = bytes(formats.quantize(FORMATS["q4_1"], matrix).tolist())
    assert data[:32] == bytes(i % 16 * 17 for i in range(32))
    assert (half(data, 32), half(data, 34)) == (0.5, 3.0)


def test_q5_0_bytes_of_one_block():
    matrix = (torch.arange(64).remainder(32).float() - 16).view(1, 64) * 2
    data = bytes(formats.quantize(FORMATS["q5_0"], matrix).tolist())
    assert half(data, 0) == 2.0
    assert struct.unpack_from("<Q", data, 4)[0] == 0xFFFF0000FFFF0000
    assert data[12:] == bytes(i % 16 * 17 for i in range(32))


def test_q5_1_bytes_of_two_blocks():
    matrix = torch.arange(64).remainder(32).float().repeat(2).view(1, 128) * 0.25 - 1
    data = bytes(formats.quantize(FORMATS["q5_1"], matrix).tolist())
    block = struct.pack("<eeQ", 0.25, -1.0, 0xFFFF0000FFFF0000) + bytes(i % 16 * 17 for i in range(32))
    assert data == block * 2


def test_q8_0_bytes_of_two_rows():
    matrix = torch.zeros(2, 64)
    matrix[0, 5], matrix[0, 6], matrix[1, 63] = 127.0, -127.0, -254.0
    data = bytes(formats.quantize(FORMATS["q8_0"], matrix).tolist())
    assert len(data) == 136
    assert (data[5], data[6], data[127]) == (127, 0x81, 0x81)
    assert struct.unpack_from("<ff", data, 128) == (1.0, 2.0)


@pytest.mark.parametrize("name", FORMATS)
def test_zero_and_constant_blocks(name):
    fmt = FORMATS[name]
    matrix = torch.stack((torch.zeros(64), torch.full((64,), 0.75), torch.full((64,), -3.0)))
    back = formats.dequantize(fmt, formats.quantize(fmt, matrix), 64)
    assert back[0].eq(0).all()
    assert torch.allclose(back, matrix, rtol=2**-9, atol=0)


# Root mean square error over that of the data, for normally distributed blocks of 64. A uniform step of 2 a / 2^bits
# over [-a, a] has an error of step / sqrt(12), and the largest of 64 normal values lies near 2.6: 0.094 with 4 bits,
# 0.045 with 5, 0.0059 with 8. The best of several scales does a little better, weighing large elements more costs that.
@pytest.mark.parametrize("name, bound", [
    ("q4_0", 0.095), ("q4_1", 0.088), ("q5_0", 0.047), ("q5_1", 0.043), ("q8_0", 0.0061),
])
def test_round_trip_error(name, bound):
    fmt = FORMATS[name]
    matrix = torch.randn(512, 576, generator=torch.Generator().manual_seed(3)) * 0.05
    back = formats.dequantize(fmt, formats.quantize(fmt, matrix), 576)
    error = ((back - matrix).square().mean() / matrix.square().mean()).sqrt().item()
    assert bound * 0.8 < error < bound


@pytest.mark.parametrize("name", FORMATS)
def test_rows_in_parts_make_the_same_bytes(name):
    fmt = FORMATS[name]
    matrix = torch.randn(99, 192, generator=torch.Generator().manual_seed(5))
    parts = torch.full((fmt.size(99, 192),), 0xEE, dtype=torch.uint8)
    for first in (64, 0, 32, 96):
        formats.quantize_rows(fmt, matrix[first : first + 32], parts, first)
    assert torch.equal(parts, formats.quantize(fmt, matrix))


def test_rows_that_do_not_divide_into_blocks():
    with pytest.raises(OrreryError, match="^rows of 96 elements do not divide into blocks of 64$"):
        formats.quantize(FORMATS["q4_0"], torch.zeros(2, 96))


def test_unknown_format():
    with pytest.raises(OrreryError, match="^unknown format 'q3_k', the formats are q4_0, q4_1, q5_0, q5_1, q8_0$"):
        formats.find("q3_k")
