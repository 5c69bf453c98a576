"""The activation quantizer and the integer dot products, part by part and as the machine's instructions do them."""

from __future__ import annotations

import numpy as np
import orrery_dispatch
import pytest
import torch

import block_reference as ref
import orrery_host
import orrery_ops
from linear_reference import DTYPES, differing
from test_super_block import blocks_of

C = np.uint32(0x3C010204).view(np.float32)


def probes() -> torch.Tensor:
    """256 rows of one q2_k block: row e has code 1 at element e alone, with scale 1."""
    rows = np.zeros((256, ref.BYTES["q2_k"]), np.uint8)
    for e in range(256):
        n, g, l = e // 128, e % 128 // 32, e % 32
        rows[e, 16 + 32 * n + l] = 1 << 2 * g
        rows[e, e // 16] = 1
    rows[:, 80:82] = np.array([1.0], np.float16).view(np.uint8)
    return torch.from_numpy(rows.ravel()).to("xpu")


def seen_codes(x: np.ndarray, dtype: str = "float32") -> np.ndarray:
    """Scale times code of each of 256 inputs, [8, 32]."""
    inputs = torch.from_numpy(x).to(DTYPES[dtype]).view(1, 256).to("xpu")
    y = orrery_ops.forward_new(inputs, probes(), 23, 1).cpu().float().numpy()
    return y.reshape(8, 32)


def seen_sum(x: np.ndarray) -> float:
    """Of the first block's inputs, when the others are 0: a row of entry 0 has -0.875 everywhere."""
    b = np.zeros(ref.BYTES["iq1_s"], np.uint8)
    b[:2] = np.array([1.0], np.float16).view(np.uint8)
    inputs = np.zeros((1, 256), np.float32)
    inputs[0, :32] = x
    y = orrery_ops.forward_new(torch.from_numpy(inputs).to("xpu"), torch.from_numpy(b).to("xpu"), 24, 1)
    return float(y.cpu()[0, 0]) / -0.875


def test_zeros() -> None:
    assert (seen_codes(np.zeros(256, np.float32)) == 0).all()
    assert seen_sum(np.zeros(32, np.float32)) == 0


def test_one_and_zeros() -> None:
    x = np.zeros(256, np.float32)
    x[37] = 1
    seen = seen_codes(x)
    assert seen[1, 5] == 127 * np.float32(np.float16(C)) and np.count_nonzero(seen) == 1
    assert seen_sum(x[32:64]) == 1


def test_halves_round_away_from_zero() -> None:
    """A largest input of 127 makes the step 1 exactly, and inputs are their own quotients."""
    largest = np.float32(127)
    assert largest * C == 1
    x = np.zeros(256, np.float32)
    x[:8] = [127, 0.5, -0.5, 1.5, 2.5, -2.5, 0.49999997, -126.5]
    np.testing.assert_array_equal(seen_codes(x)[0, :8], [127, 1, -1, 2, 3, -3, 0, -127])


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("scale", [1.0, 2.0**-10, 1000.0])
def test_codes_and_scales_of_random_inputs(dtype: str, scale: float) -> None:
    generator = np.random.default_rng(5)
    x = ref.Arithmetic(dtype).of(generator.standard_normal(256) * np.repeat(2.0 ** np.arange(-4, 4), 32) * scale / 8)
    code, d, _ = ref.quantized(x)
    assert np.abs(code).max() == 127
    expected = ref.Arithmetic(dtype).of(d[:, None] * code.astype(np.float32))  # the result is of the input's type
    np.testing.assert_array_equal(seen_codes(np.asarray(x), dtype), expected.astype(np.float32))


def test_the_scale_of_a_reader_is_coarser_than_the_codes() -> None:
    """A quotient between the two: the code is that of the float step."""
    x = np.zeros(256, np.float32)
    largest = np.float32(1.2345678)
    step, rounded = largest * C, np.float32(np.float16(largest * C))
    assert step != rounded
    between = np.float32((step + (rounded - step) / 2) * 63.5)
    x[:2] = largest, between
    code = ref.round_away(between / step)
    assert code == 63 and ref.round_away(between / rounded) == 64
    assert seen_codes(x)[0, 1] == rounded * code


def test_an_infinity_takes_its_rows_with_it() -> None:
    """The scale of its block is infinite, and infinity times the finite inputs' codes, 0, is not a number."""
    x = np.ones(256, np.float32)
    x[3] = np.inf
    assert np.isnan(seen_codes(x)).all()
    b = ref.case("iq1_s", "float32", 3, 256)
    inputs = torch.from_numpy(x).view(1, 256).to("xpu")
    got = orrery_ops.forward_new(inputs, torch.from_numpy(b[0][:150]).to("xpu"), 24, 1).cpu().numpy()[0]
    assert np.isnan(got).all() and np.isnan(ref.product("iq1_s", "float32", b[0], x, 3, 256)).all()


@pytest.mark.parametrize("lane", [0, 9, 17, 31])
def test_a_nan_does_not_hide_the_largest(lane: int) -> None:
    """fmax drops it, on whichever side it stands: the other codes of its block are made as if it were not there."""
    x = np.ones(256, np.float32)
    x[lane], x[1] = np.nan, 2
    code, d, _ = ref.quantized(x)
    assert d[0] == np.float32(np.float16(2 * C)) and code[0, 1] == 127
    others = np.arange(32) != lane
    np.testing.assert_array_equal(seen_codes(x)[0, others], d[0] * code[0, others].astype(np.float32))


@pytest.mark.parametrize("state", [64, 320, 4000])
@pytest.mark.parametrize("name", ["q2_k", "iq2_xxs", "iq1_s"])
def test_a_row_that_is_no_whole_number_of_groups_cannot_be_launched(name: str, state: int) -> None:
    weight = torch.zeros(64 * ref.BYTES[name], dtype=torch.uint8, device="xpu")
    with pytest.raises(RuntimeError) as caught, orrery_host.record_launches() as launches:
        orrery_ops.forward_new(torch.ones(1, state, device="xpu"), weight, ref.CODES[name], 1)
    assert type(caught.value) is RuntimeError and launches == []
    text = "orrery_ops: an input that is quantized first must have a multiple of 256 columns, not "
    assert str(caught.value) == text + str(state)


# --- Dot products of blocks -----------------------------------------------------------------------------------------


def activations(blocks: int, wild: bool) -> tuple[bytes, np.ndarray, np.ndarray, np.ndarray]:
    generator = np.random.default_rng(blocks)
    code = generator.integers(-127, 128, (8 * blocks, 32))
    code[: len(code) // 4] = generator.choice([-127, 127], (len(code) // 4, 32))  # the largest sums
    halves = generator.standard_normal((8 * blocks, 2)).astype(np.float16)
    if wild:
        halves = generator.integers(0, 65536, halves.shape).astype(np.uint16).view(np.float16)
    halves[:, 0] = np.abs(halves[:, 0])
    bytes_ = np.concatenate([halves.view(np.uint8), code.astype(np.int8).view(np.uint8)], 1)
    return bytes_.tobytes(), code, halves[:, 0].astype(np.float32), halves[:, 1].astype(np.float32)


@pytest.mark.parametrize("wild", [False, True])
@pytest.mark.parametrize("name", ref.DOTS)
def test_dots_part_by_part_and_at_once(name: str, wild: bool) -> None:
    count = 400
    blocks = blocks_of(name, count, wild)
    data, code, d8, s8 = activations(count, wild)
    parts = 16 if name == "q2_k" else 8
    d = ref.half(blocks, 80 if name == "q2_k" else 0)
    expected = np.zeros((count, parts), np.float32)
    with np.errstate(all="ignore"):
        for b in range(count):
            q8 = slice(8 * b, 8 * b + 8)
            for part in range(parts):
                one = ref.DOTS[name](blocks[b : b + 1], part, code[q8], d8[q8], s8[q8], d[b : b + 1])
                expected[b, part] = one[0]
    by_part, at_once = orrery_dispatch.block_dots(ref.CODES[name], blocks.tobytes(), data)
    assert differing(np.frombuffer(by_part, np.float32).reshape(expected.shape), expected) == 0
    if at_once:  # the machine has the instructions
        got = np.frombuffer(at_once, np.float32).reshape(expected.shape)
        zero = (got == 0) & (expected == 0)  # a zero's sign goes when it is added to a row's sum
        assert differing(np.where(zero, np.float32(0), got), np.where(zero, np.float32(0), expected)) == 0
