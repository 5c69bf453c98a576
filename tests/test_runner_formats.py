"""Quantizers and decoders of the runner against the layouts' definition, written out element by element."""

import struct

import numpy as np
import pytest
import torch

from orrery import OrreryError, formats
from orrery.formats import FORMATS

SMALL = [name for name, fmt in FORMATS.items() if fmt.elements == 64]
LARGE = [name for name, fmt in FORMATS.items() if fmt.elements == 256]
CODEBOOK = ["nf4", "nf3", "fp8_e4m3", "fp4", "fp8_e5m2", "fp6"]
NF4 = ("BF800000 BF3239B1 BF066B30 BECA32A0 BE91A24D BE3D353F BDBA7871 00000000 "
       "3DA2FAFF 3E24CAE3 3E7C04DD 3EAD033A 3EE1A4B8 3F1007AB 3F3913B3 3F800000").split()
NF3 = "BF800000 BEF50EE3 BE5E5A6B 00000000 3E24CAE3 3EAD033A 3F1007AB 3F800000".split()
FP4 = (0.03125, 0.5, 1.0, 1.5, 2.0, 3.0, 4.0, 6.0)


def half(data, at):
    return struct.unpack_from("<e", data, at)[0]


def bits_as_half(bits):
    return struct.unpack("<e", struct.pack("<H", bits))[0]


def bits_as_float(text):
    return struct.unpack(">f", bytes.fromhex(text))[0]


def float32(x):
    return struct.unpack("<f", struct.pack("<f", x))[0]


def fp8_e4m3(code):
    m = code & 127
    value = bits_as_half(0x4000 | m) - 2.0 if m < 8 else bits_as_half((m << 7) + 0x2000)
    return -value if code & 128 else value


def fp6_half(data, blocks, block, j):
    """The unscaled value, by the words of the group of 16 elements."""
    group, within = divmod(j, 16)
    quarter, e = divmod(within, 4)
    top = struct.unpack_from("<I", data, 32 * blocks + 16 * block + 4 * group)[0]
    low = struct.unpack_from("<II", data, 32 * block + 8 * group)
    a = top << 2 * quarter
    b = low[quarter // 2] << 4 * (quarter % 2)
    word = (a & 0x80808080) | (((a & 0x40404040) | (b >> 2 & 0x3C3C3C3C)) >> 2)
    return bits_as_half((word >> 8 * (1, 3, 0, 2)[e] & 255) << 8 | 0x80)


def value(name, data, elements, e):
    """Element number e of a matrix, straight from the definition of its format."""
    (block, j), blocks = divmod(e, 64), elements // 64
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
    if name == "fp8_e4m3":
        return fp8_e4m3(data[e]) * struct.unpack_from("<f", data, elements + 4 * block)[0]
    if name == "fp8_e5m2":
        return bits_as_half(data[e] << 8 | 0x80)
    if name == "fp6":
        return fp6_half(data, blocks, block, j) * half(data, 48 * blocks + 2 * block)
    if name == "nf3":
        top = struct.unpack_from("<Q", data, 24 * block)[0] >> j & 1
        low = data[24 * block + 8 + j // 4] >> (6, 4, 2, 0)[j % 4] & 3
        return float32(bits_as_float(NF3[4 * top + low]) * half(data, 24 * blocks + 2 * block))
    byte = data[32 * block + j % 32]
    plane = 32 * blocks
    if name == "nf4":
        return float32(bits_as_float(NF4[byte & 15 if j >= 32 else byte >> 4]) * half(data, plane + 2 * block))
    q = byte >> (4 if j >= 32 else 0) & 15
    if name == "fp4":
        return (-1 if q & 8 else 1) * FP4[q & 7] * half(data, plane + 2 * block)
    if name == "q4_0":
        return (q - 8) * half(data, plane + 2 * block)
    return half(data, plane + 4 * block) * q + half(data, plane + 4 * block + 2)


@pytest.mark.parametrize("name", SMALL)
def test_decoder_follows_the_definition_for_random_bytes(name):
    fmt, rows, cols = FORMATS[name], 3, 192
    rng = np.random.default_rng(7)
    data = torch.from_numpy(rng.integers(0, 256, fmt.size(rows, cols), np.uint8))
    planes = fmt.planes(data)
    # Random bytes make wild scales; plain ones keep every product exact.
    plain = torch.tensor([0.5, -1.25], dtype=torch.half).view(torch.uint8)
    if name.startswith("q5"):
        planes[0][:, :4] = plain
    elif fmt.plane_bytes[-1] == 4 and name != "q4_1":
        planes[-1][:] = torch.tensor([-0.375]).view(torch.uint8)
    else:
        planes[-1][:] = plain[: fmt.plane_bytes[-1]]
    if name == "fp8_e5m2":  # These are no numbers.
        planes[0][(planes[0] & 0x7C) == 0x7C] ^= 0x40
    raw = bytes(data.tolist())
    expected = [value(name, raw, rows * cols, e) for e in range(rows * cols)]
    assert formats.dequantize(fmt, data, cols).view(-1).tolist() == expected


@pytest.mark.parametrize("name", LARGE)
def test_decoder_agrees_with_the_published_one(name):
    from gguf import GGMLQuantizationType
    from gguf.quants import dequantize

    fmt = FORMATS[name]
    rng = np.random.default_rng(7)
    data = rng.integers(0, 256, (99, fmt.block_bytes), np.uint8)
    # Plain halves: random ones are huge, or no numbers.
    for at in {"q2_k": (80, 82), "q6_k": (208,), "q4_k": (0, 2), "q5_k": (0, 2)}.get(name, (0,)):
        data[:, at : at + 2] = rng.normal(0, 0.1, (99, 1)).astype(np.float16).view(np.uint8)
    expected = torch.from_numpy(dequantize(data, GGMLQuantizationType[fmt.gguf_type]).copy())
    assert expected.isfinite().all() and expected.unique().numel() > 500
    assert torch.equal(formats.dequantize(fmt, torch.from_numpy(data).view(-1), 256), expected)


@pytest.mark.parametrize("name, code, elements, size", [
    ("q4_0", 2, 64, 34), ("q4_1", 3, 64, 36), ("q5_0", 6, 64, 44), ("q5_1", 7, 64, 44), ("q8_0", 8, 64, 68),
    ("nf4", 10, 64, 34), ("nf3", 11, 64, 26), ("fp8_e4m3", 15, 64, 68), ("fp4", 16, 64, 34), ("fp8_e5m2", 19, 64, 68),
    ("iq2_xxs", 21, 256, 66), ("q2_k", 23, 256, 84), ("iq1_s", 24, 256, 50), ("q6_k", 26, 256, 210),
    ("q4_k", 27, 256, 144), ("q5_k", 28, 256, 176), ("fp6", 29, 64, 50),
])
def test_table(name, code, elements, size):
    fmt = FORMATS[name]
    assert (fmt.code, fmt.elements, fmt.block_bytes, fmt.size(3, elements)) == (code, elements, size, 3 * size)
    assert len(FORMATS) == 17
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


def test_nf4_bytes_of_one_block():
    codes = torch.arange(64).remainder(16)
    matrix = torch.tensor([bits_as_float(b) for b in NF4])[codes].view(1, 64) * 0.5
    data = bytes(formats.quantize(FORMATS["nf4"], matrix).tolist())
    assert data == bytes(i % 16 * 17 for i in range(32)) + struct.pack("<e", 0.5)


def test_nf3_bytes_of_one_block():
    codes = torch.cat((torch.arange(4), torch.full((28,), 4), torch.full((32,), 7)))
    matrix = torch.tensor([bits_as_float(b) for b in NF3])[codes].view(1, 64)
    data = bytes(formats.quantize(FORMATS["nf3"], matrix).tolist())
    assert data == struct.pack("<Q", 0xFFFFFFFFFFFFFFF0) + b"\x1b" + bytes(7) + b"\xff" * 8 + struct.pack("<e", 1.0)


def test_fp8_e5m2_bytes_have_no_scale():
    matrix = torch.full((1, 64), 1.125)
    matrix[0, :5] = torch.tensor([-1.0, 0.0, 2.06, 2.07, 1e6])
    data = bytes(formats.quantize(FORMATS["fp8_e5m2"], matrix).tolist())
    # -1 lies between 0.9375 and 1.125; 2.0625 is the middle of 1.875 and 2.25.
    assert data[:6] == b"\xbb\x00\x3f\x40\x7b\x3c"
    assert struct.unpack_from("<f", data, 64) == (1.0,)


@pytest.mark.parametrize("name", FORMATS)
def test_zero_and_constant_blocks(name):
    fmt = FORMATS[name]
    size = fmt.elements
    matrix = torch.stack((torch.zeros(size), torch.full((size,), 0.75), torch.full((size,), -3.0)))
    back = formats.dequantize(fmt, formats.quantize(fmt, matrix), size)
    assert back.isfinite().all()
    if name == "fp8_e5m2":
        assert back[0].eq(2.0**-17).all()  # The code nearest to 0.
        assert torch.allclose(back[1:], matrix[1:], rtol=0.1, atol=0)
    elif name == "iq2_xxs":  # The grid has few entries without different magnitudes; its trials do not look for them.
        assert back[0].eq(0).all() and (back[1:] * matrix[1:]).gt(0).all()
        assert (back[1:] - matrix[1:]).square().mean(1).sqrt().lt(matrix[1:, 0].abs() / 2).all()
    else:
        assert back[0].eq(0).all()
        assert torch.allclose(back, matrix, rtol=2**-9, atol=0)


# Root mean square error over that of the data, for normally distributed blocks of 64. A uniform step of 2 a / 2^bits
# over [-a, a] has an error of step / sqrt(12), and the largest of 64 normal values lies near 2.6: 0.094 with 4 bits,
# 0.045 with 5, 0.0059 with 8. The best of several scales does a little better, weighing large elements more costs that.
# Sub-blocks of 16 and 32 have a smaller range. A float code with m bits of mantissa leaves about 2^-m / sqrt(27).
# No code of b bits comes below 2^-b: 0.24 and 0.34 for the grids.
@pytest.mark.parametrize("name, bound", [
    ("q4_0", 0.095), ("q4_1", 0.088), ("q5_0", 0.047), ("q5_1", 0.043), ("q8_0", 0.0061), ("nf4", 0.085),
    ("nf3", 0.184), ("fp8_e4m3", 0.0225), ("fp4", 0.102), ("fp8_e5m2", 0.0515), ("fp6", 0.0435), ("iq2_xxs", 0.350), ("q2_k", 0.274),
    ("iq1_s", 0.491), ("q6_k", 0.0179), ("q4_k", 0.0742), ("q5_k", 0.0371),
])
def test_round_trip_error(name, bound):
    fmt = FORMATS[name]
    matrix = torch.randn(384, 768, generator=torch.Generator().manual_seed(3)) * 0.05
    back = formats.dequantize(fmt, formats.quantize(fmt, matrix), 768)
    error = ((back - matrix).square().mean() / matrix.square().mean()).sqrt().item()
    assert bound * 0.9 < error < bound


@pytest.mark.parametrize("name", CODEBOOK)
def test_each_code_is_the_nearest_value(name):
    fmt = FORMATS[name]
    matrix = torch.randn(7, 64, generator=torch.Generator().manual_seed(9)) * torch.logspace(-2, 1, 7).view(7, 1)
    data = formats.quantize(fmt, matrix)
    scale = fmt.planes(data)[-1]
    scale = scale.contiguous().view(torch.float if fmt.plane_bytes[-1] == 4 else torch.half).double()
    codes = {"nf4": [bits_as_float(b) for b in NF4], "nf3": [bits_as_float(b) for b in NF3],
             "fp4": [s * v for v in FP4 for s in (1, -1)], "fp8_e4m3": [fp8_e4m3(c) for c in range(256)],
             "fp8_e5m2": [bits_as_half(c << 8 | 0x80) for c in range(256) if c & 0x7C != 0x7C],
             "fp6": [s * bits_as_half(c << 8 | 0x80) for c in range(32) for s in (1, -1)]}[name]
    possible = torch.tensor(codes, dtype=torch.double) * scale.view(7, 1, 1)
    least = (matrix.double()[:, :, None] - possible).abs().amin(2)
    distance = (matrix.double() - formats.dequantize(fmt, data, 64).double()).abs()
    # The number is rounded to a half before it is looked up, so one very near a middle may go to the other side.
    assert (distance <= least + 2**-10 * matrix.abs()).all()
    assert (distance <= least + 2**-22 * matrix.abs()).float().mean() > 0.99


def test_substitutes_are_the_nearest_that_are_not_worse():
    """On normal data: at least as many bits, at most the error, and no other such format has fewer bits."""
    matrix = torch.randn(256, 768, generator=torch.Generator().manual_seed(4))

    def error(fmt):
        return (formats.dequantize(fmt, formats.quantize(fmt, matrix), 768) - matrix).square().mean().item()

    errors = {fmt.name: error(fmt) for fmt in FORMATS.values()}
    for name in LARGE:
        substitute = FORMATS[FORMATS[name].substitute]
        assert errors[substitute.name] <= errors[name]
        better = [FORMATS[s].bits for s in SMALL if FORMATS[s].bits >= FORMATS[name].bits and errors[s] <= errors[name]]
        assert substitute.bits == min(better)


@pytest.mark.parametrize("name", FORMATS)
def test_rows_in_parts_make_the_same_bytes(name):
    fmt = FORMATS[name]
    cols = 3 * fmt.elements
    matrix = torch.randn(99, cols, generator=torch.Generator().manual_seed(5))
    parts = torch.full((fmt.size(99, cols),), 0xEE, dtype=torch.uint8)
    for first in (64, 0, 32, 96):
        formats.quantize_rows(fmt, matrix[first : first + 32], parts, first)
    whole = formats.quantize(fmt, matrix)
    assert torch.equal(parts, whole)
    assert torch.equal(formats.dequantize_rows(fmt, whole, 5, cols), formats.dequantize(fmt, whole, cols)[:5])


def test_quantizing_leaves_torch_its_threads():
    threads = torch.get_num_threads()
    try:
        torch.set_num_threads(3)
        formats.quantize(FORMATS["q4_0"], torch.ones(64, 1024))
        assert torch.get_num_threads() == 3
    finally:
        torch.set_num_threads(threads)


def test_rows_that_do_not_divide_into_blocks():
    with pytest.raises(OrreryError, match="^rows of 96 elements do not divide into blocks of 64$"):
        formats.quantize(FORMATS["q4_0"], torch.zeros(2, 96))
    with pytest.raises(OrreryError, match="^rows of 576 elements do not divide into blocks of 256$"):
        formats.quantize(FORMATS["q2_k"], torch.zeros(2, 576))


def test_unknown_format():
    with pytest.raises(OrreryError, match="^unknown format 'q3_k', the formats are q4_0, .*, iq1_s, .*, fp6$"):
        formats.find("q3_k")
