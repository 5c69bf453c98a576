"""forward_qkv, forward_qkv_bias, forward_qk: every instance to the bit, edges of heads, caches, positions; refusals."""

from __future__ import annotations

from dataclasses import replace

import numpy as np
import pytest
import torch

import dense_reference as dense
import fused_reference as fused
import linear_reference as ref
import orrery_host
import orrery_ops
from fused_reference import Projections
from kernel_reference import assert_dies_with, assert_same_bits_in_any_order

HOST_CLASS = 3  # that of the host's own name
UNIT = "linear_xpu_fused_qkv_kernel"
QUANTIZER = "quantize_xpu_kernel_q8_1"
RUN = {"q4_0": 16, "fp4": 16, "fp6": 16, "fp8_e5m2": 8}

classes = pytest.mark.parametrize("device_class", ref.DEVICE_OF_CLASS)
formats = pytest.mark.parametrize("name", fused.FORMATS)
split_formats = pytest.mark.parametrize("name", fused.LAYOUT)
types = pytest.mark.parametrize("dtype", ref.DTYPES)
biases = pytest.mark.parametrize("bias", [False, True], ids=["plain", "bias"])


def state_of(name: str) -> int:
    return 512 if name == "iq2_xxs" else 576


def different(got: list[np.ndarray], want: list[np.ndarray]) -> list[int]:
    return [ref.differing(g, w) for g, w in zip(got, want, strict=True)]


def assert_bits(c: Projections, **more) -> fused.Called:
    called = fused.call_projections(c, **more)
    want = fused.expected_projections(c, HOST_CLASS)
    assert different(called.numbers(), want) == [0] * len(want), c
    return called


# --- Instances ------------------------------------------------------------------------------------------------------


def assert_seen(c: Projections, device_class: int) -> None:
    seen, want = fused.seen_on_class(device_class)[repr(c)], fused.expected_projections(c, device_class)
    assert different(fused.results_of(seen, want), want) == [0] * len(want), c
    assert all(np.isfinite(w).any() for w in want)
    *before, launch = seen["launches"]
    assert launch == fused.launch_of_projections(c, device_class)
    assert [one["kernel"] for one in before] == ([QUANTIZER] if c.name == "iq2_xxs" else [])


@biases
@types
@formats
@classes
def test_every_class_launches_its_instance_and_gives_the_bits(
    device_class: int, name: str, dtype: str, bias: bool
) -> None:
    for c in fused.projections_of_instance(name, dtype, bias):
        assert_seen(c, device_class)


@types
@classes
def test_two_projections_on_every_class(device_class: int, dtype: str) -> None:
    for c in fused.forward_qk_cases(dtype):
        assert_seen(c, device_class)


def test_there_are_64_instances() -> None:
    assert len(fused.instances_seen(UNIT)) == 64


# --- A second opinion -----------------------------------------------------------------------------------------------


def in_float64(c: Projections) -> list[np.ndarray]:
    """[head, element] of each projection by dense algebra, a pair turned as a complex number."""
    x, half, out = fused.inputs(c.dtype, c.state)[: c.state], c.head_size // 2, []
    for p, (name, w) in enumerate(zip(c.formats, c.weights(), strict=True)):
        y = dense_values(name, w, c.rows[p], c.state) @ x
        y = (y + c.biases()[p] if c.bias else y).reshape(-1, 2, half)
        angle = c.position * c.rope_base ** (-2.0 * np.arange(half) / c.head_size) * (p < 2)
        turned = (y[:, 0] + 1j * y[:, 1]) * np.exp(1j * angle)
        out.append(np.concatenate([turned.real, turned.imag], 1))
    return out


def dense_values(name: str, w: np.ndarray, rows: int, state: int) -> np.ndarray:
    if name != "fp8_e5m2":
        return dense.values(name, "float64", w, rows, state)
    blocks = rows * state // 64
    scales = w[64 * blocks : 68 * blocks].copy().view(np.float32)
    codes = dense.half_of_bits(w[: 64 * blocks].astype(np.uint16) << 8).astype(np.float64)
    return (codes.reshape(blocks, 64) * scales[:, None]).reshape(rows, state)


@pytest.mark.parametrize("name", fused.LAYOUT)
def test_agrees_with_dense_algebra(name: str) -> None:
    """A float sum of 576 products is right to 576 * 2^-24 of the sum of their magnitudes, here below 600; an angle to
    2^-22 of its size, here below 8. A wrong element, pair or sign is off by more than 1."""
    c = Projections(name, "float32", rows=(192, 64, 128), head_size=64, bias=True, position=7, rope_base=10000.0)
    query, *rooms = fused.call_projections(c).numbers()
    rows = [query[0, :, 0], *(fused.by_heads(p, room)[:, c.kv_seq_len, :64] for p, room in enumerate(rooms, 1))]
    for got, want in zip(rows, in_float64(c), strict=True):
        assert np.abs(got - want).max() < 0.02 < 1 < np.abs(want).mean()


# --- Heads ----------------------------------------------------------------------------------------------------------


@formats
@pytest.mark.parametrize(
    "rows",
    [(144, 48, 48), (48, 48, 48), (16, 48, 32), (32, 16, 96), (40, 24, 16), (16, 8, 6)],
    ids=["grouped", "alike", "most keys", "most values", "unfinished heads", "no whole half"],
)
def test_heads_of_query_key_and_value(rows: tuple[int, int, int], name: str) -> None:
    """Pairs whose second row is beyond the projection's are not made; the largest projection sizes the launch."""
    c = Projections(name, "float32", state_of(name), rows)
    called = assert_bits(c)
    assert called.launches[-1].global_size[0] == max(rows) // 2 * fused.shape_of_projections(name, HOST_CLASS)[1]


@formats
@pytest.mark.parametrize("head_size", [2, 6, 64, 128])
def test_head_sizes(head_size: int, name: str) -> None:
    """With a base of 1 theta is 1 and every pair turns by the position."""
    rows = (3 * head_size, head_size, 2 * head_size)
    assert_bits(Projections(name, "float32", state_of(name), rows, head_size=head_size, rope_base=1.0, position=3))
    at_start = Projections(name, "float16", state_of(name), rows, head_size=head_size, position=0, rope_base=10000.0)
    assert_bits(at_start)


def test_the_last_element_of_an_odd_head_is_not_written() -> None:
    c = Projections("q4_0", "float32", rows=(20, 10, 10), head_size=5, position=0)
    query, key, value = assert_bits(c).numbers()
    assert np.isfinite(query[0, :, 0, :4]).any() and np.isnan(query[..., 4]).all()
    assert np.isfinite(key[0, 2, :4]).all() and np.isnan(key[..., 4:]).all() and np.isnan(value[..., 4:]).all()


def test_weights_without_rows() -> None:
    c = Projections("q4_0", "float32", rows=(0, 0, 0))
    called = fused.call_projections(c)
    assert called.results[0].shape == (1, 0, 1, 16)
    assert [launch.global_size for launch in called.launches] == [(0, 3)]


def test_a_remainder_of_bytes_is_dropped() -> None:
    c = Projections("q4_0", "float32")
    weights = [torch.from_numpy(w).to("xpu")[: len(w) - ref.SLACK + 33] for w in c.weights()]
    (x, *_), (rooms, caches) = fused.operands(c), fused.caches_of(c)
    results = orrery_ops.forward_qkv(x, *weights, torch.tensor([5], device="xpu"), *caches, 2, 2, 2, 16, 256.0)
    got = [ref.numbers(results[0]), *map(ref.numbers, rooms)]
    assert different(got, fused.expected_projections(c, HOST_CLASS)) == [0, 0, 0]


# --- Caches ---------------------------------------------------------------------------------------------------------


@formats
@pytest.mark.parametrize("kv_seq_len", [0, 1, 4, 9])
def test_the_row_of_the_caches_that_is_written(kv_seq_len: int, name: str) -> None:
    assert_bits(Projections(name, "float16", state_of(name), kv_seq_len=kv_seq_len))


@formats
@pytest.mark.parametrize("kv_seq_len", [0, 4, 9])
def test_the_caches_come_back_longer_by_one(kv_seq_len: int, name: str) -> None:
    called = fused.call_projections(Projections(name, "float32", state_of(name), kv_seq_len=kv_seq_len, seq=4))
    assert type(called.results) is list and len(called.results) == 3
    assert_grown(called)


def assert_grown(called: fused.Called) -> None:
    for before, after in zip(called.caches, called.results[1:], strict=True):
        assert after.shape == (1, before.size(1), before.size(2) + 1, before.size(3))
        assert after.stride() == before.stride() and after.data_ptr() == before.data_ptr()
        assert after.untyped_storage().data_ptr() == before.untyped_storage().data_ptr()
        assert after.dtype == before.dtype and after.device == before.device


def test_a_cache_that_starts_inside_its_storage() -> None:
    c = Projections("fp4", "float32", rows=(48, 16, 16))
    room = torch.full((2, 3, 8, 16), float("nan"), device="xpu")
    cache_k, cache_v = room[:1, 1:2, 2:6], room[1:, 2:, 1:5]
    rest = [torch.tensor([5], device="xpu"), cache_k, cache_v, 16, 16, 3, 16, 256.0]
    _, key, value = orrery_ops.forward_qkv(*fused.operands(c), *rest)
    assert (key.shape, value.shape) == ((1, 1, 5, 16), (1, 1, 5, 16))
    assert (key.storage_offset(), value.storage_offset()) == (cache_k.storage_offset(), cache_v.storage_offset())
    _, key_room, value_room = fused.expected_projections(c, HOST_CLASS)
    want = np.full((2, 3, 8, 16), np.nan, np.float32)
    want[0, 1, 2 + 3] = key_room[0, c.kv_seq_len, :16]
    want[1, 2, 1 + 3] = value_room[c.kv_seq_len, 0, :16]
    assert ref.differing(ref.numbers(room), want) == 0


def test_step_after_step() -> None:
    """What one call returns is the next one's cache; earlier rows stay."""
    c = Projections("q4_0", "float16", seq=0)
    rooms, caches = fused.caches_of(replace(c, kv_seq_len=5))
    operands = fused.operands(c)
    for step in range(5):
        position = torch.tensor([[step]], device="xpu")
        _, *caches = orrery_ops.forward_qkv(*operands, position, *caches, 2, 2, step, 16, 256.0)
    assert [cache.size(2) for cache in caches] == [5, 5]
    for p, room in enumerate(rooms, 1):
        for step in range(5):
            want = fused.expected_projections(replace(c, position=step, kv_seq_len=step), HOST_CLASS)[p]
            got = fused.by_heads(p, ref.numbers(room))[:, step]
            assert ref.differing(got, fused.by_heads(p, want)[:, step]) == 0


@types
def test_the_query_has_the_input_s_options(dtype: str) -> None:
    query = fused.call_projections(Projections("fp6", dtype)).results[0]
    assert query.shape == (1, 3, 1, 16) and query.is_contiguous()
    assert query.dtype == ref.DTYPES[dtype] and query.device.type == "xpu"


# --- Positions ------------------------------------------------------------------------------------------------------


@formats
@pytest.mark.parametrize("position", [0, 1, 1000, -3, 2**24 - 1, 2**40 + 12345])
def test_positions(position: int, name: str) -> None:
    """With a theta of 1/2 the angles are exact, or rounded once where a position is no float."""
    assert_bits(Projections(name, "float32", state_of(name), position=position))


def test_a_position_beyond_float_acts_as_its_float() -> None:
    a, b = (fused.call_projections(Projections("q4_0", "float32", position=2**24 + i)).numbers() for i in (0, 1))
    assert different(a, b) == [0, 0, 0]


@pytest.mark.parametrize("shape", [(3,), (1, 3), (3, 1)])
def test_only_the_first_position_counts(shape: tuple[int, ...]) -> None:
    c = Projections("q4_0", "float32", position=5)
    assert_bits(c, position_ids=torch.tensor([5, 900, -7]).view(shape))
    moved = fused.call_projections(c, position_ids=torch.tensor([6, 5, 5]).view(shape)).numbers()
    counts = different(moved, fused.expected_projections(c, HOST_CLASS))
    assert counts[0] > 30 and counts[1] > 10 and counts[2] == 0


@types
@split_formats
def test_values_are_never_turned(name: str, dtype: str) -> None:
    """Also where all three weights are the same."""
    c = Projections(name, dtype, rows=(32, 32, 32))
    (x, weight, *_), code = fused.operands(c), fused.CODES[name]
    seen = []
    for position in (0, 77):
        caches = [torch.full((1, 2, 1, 16), float("nan"), dtype=ref.DTYPES[dtype], device="xpu") for _ in "kv"]
        ids, views = torch.tensor([position], device="xpu"), [cache[:, :, :0] for cache in caches]
        seen.append(orrery_ops.forward_qkv(x, *[weight] * 3, ids, *views, code, code, 0, 16, 256.0))
    query, key, value = (y.view(2, 16) for y in seen[0])
    straight = value.float().to(value.dtype)  # as a pair goes through the turn
    assert torch.equal(query, straight) and torch.equal(key, straight)
    query, key, turned_value = (y.view(2, 16) for y in seen[1])
    assert torch.equal(turned_value, value) and torch.equal(query, key)
    assert (query != straight).float().mean() > 0.9


@types
@pytest.mark.parametrize("head_size, rope_base", [(64, 10000.0), (128, 10000.0), (96, 500000.0), (10, 1.7)])
def test_other_bases(head_size: int, rope_base: float, dtype: str) -> None:
    """Between bounds; the first pair's angle is the position itself."""
    for position in (1, 63, 4097):
        rows = (2 * head_size, head_size, head_size)
        c = Projections("q4_0", dtype, 64, rows, head_size=head_size, position=position, rope_base=rope_base)
        query, key, _ = fused.call_projections(c).numbers()
        nearest = fused.projected(c, HOST_CLASS)
        for p, row in enumerate([query[0, :, 0], fused.by_heads(1, key)[:, c.kv_seq_len]]):
            head, i, *sums = fused.pair_sums(c, p, fused.shape_of_projections(c.name, HOST_CLASS)[1])
            got = row[head, i], row[head, i + head_size // 2]
            for y, (low, high), best in zip(got, fused.turn_bounds(c, i, *sums), nearest[p][2:], strict=True):
                assert fused.outside(y, low, high) == 0, (c, p)
                assert ref.differing(y[i == 0], best[i == 0]) == 0, (c, p)


def test_double_turns_as_floats() -> None:
    """The sums are narrowed first; their digits beyond a float's do not come back."""
    query, key, value = assert_bits(Projections("q4_0", "float64", position=0)).numbers()
    row = key[:, 2, :16]
    assert (row == row.astype(np.float32)).all() and (query == query.astype(np.float32)).all()
    assert (value[2, :, :16] != value[2, :, :16].astype(np.float32)).mean() > 0.9


# --- Formats --------------------------------------------------------------------------------------------------------


def value_row(name: str, dtype: str, quants: bytes, scale: float, x: np.ndarray) -> np.ndarray:
    """The two values of a head of 2 whose value rows are one block each; both rows have these quants and this scale."""
    layout = fused.LAYOUT[name]
    planes = [quants[:32] * 2, quants[32:] * 2] if name == "fp6" else [quants * 2]
    w = np.frombuffer(b"".join(planes) + np.array([scale, scale], layout.scale).tobytes(), np.uint8).copy()
    weight, kind = torch.from_numpy(w).to("xpu"), ref.DTYPES[dtype]
    inputs = torch.from_numpy(x).to(kind).to("xpu")[:64].view(1, 64)
    caches = [torch.full((1, 1, 1, 2), float("nan"), dtype=kind, device="xpu") for _ in "kv"]
    ids, code = torch.tensor([0], device="xpu"), fused.CODES[name]
    orrery_ops.forward_qkv(inputs, weight, weight, weight, ids, *(c[:, :, :0] for c in caches), code, code, 0, 2)
    return ref.numbers(caches[1])[0, 0, 0]


def codes_of(name: str) -> list[int]:
    return [c for c in range(len(fused.VALUES[name])) if name != "fp6" or c & 0x60 == 0]


def quants_of(name: str, code: int) -> bytes:
    """The quant bytes of a block whose elements all have one code."""
    if name == "fp6":
        return bytes([(code & 15) * 0x11] * 32 + [(code >> 7 << 1 | code >> 4 & 1) * 0x55] * 16)
    return bytes([code] * 64) if name == "fp8_e5m2" else bytes([code * 17] * 32)


@types
@split_formats
def test_every_code(name: str, dtype: str) -> None:
    a = ref.Arithmetic(dtype)
    for i, code in enumerate(codes_of(name)):
        x = np.zeros(64, np.float32)
        x[(5 * i) % 64] = 1
        with np.errstate(all="ignore"):
            value = a.mul(a.of(fused.VALUES[name][code]), a.of(fused.LAYOUT[name].scale(-0.375)))
            if not np.isfinite(value):
                value = np.nan  # 0 times it, for the other elements
            want = np.full(2, a.add(a.of(0), a.of(value)))
        assert ref.differing(value_row(name, dtype, quants_of(name, code), -0.375, x), want) == 0, code


@split_formats
def test_every_element_has_its_place(name: str) -> None:
    generator = np.random.default_rng(1)
    quants = generator.integers(0, 256, fused.LAYOUT[name].quant_bytes).astype(np.uint8)
    if name == "fp8_e5m2":
        quants &= 0xBF
    tensor = quants.tobytes() + np.array([2], fused.LAYOUT[name].scale).tobytes()
    values = dense_values(name, np.frombuffer(tensor, np.uint8), 1, 64)[0]
    for element in range(64):
        x = np.zeros(64, np.float32)
        x[element] = 1
        got = value_row(name, "float32", quants.tobytes(), 2, x)
        assert (got == values[element]).all(), element


def test_fp8_e5m2_has_its_scale_and_no_bit_below_the_code() -> None:
    one = np.eye(1, 64, 3, np.float32)[0]
    assert value_row("fp8_e5m2", "float32", bytes([0x3C] * 64), 7, one).tolist() == [7, 7]
    assert value_row("fp8_e5m2", "float32", bytes(64), 7, one).tolist() == [0, 0]
    assert np.isposinf(value_row("fp8_e5m2", "float32", bytes([0x7C] * 64), 7, np.ones(64, np.float32))).all()
    assert np.isnan(value_row("fp8_e5m2", "float32", bytes([0x7D] * 64), 7, one)).all()
    # 1 + 2^-12 is no half: the scale is narrowed to the type.
    assert value_row("fp8_e5m2", "float16", bytes([0x3C] * 64), 1 + 2**-12, one).tolist() == [1, 1]
    assert value_row("fp8_e5m2", "float32", bytes([0x3C] * 64), 1 + 2**-12, one).tolist() == [1 + 2**-12] * 2


def test_fp4_has_no_zero() -> None:
    one = np.eye(1, 64, 40, np.float32)[0]
    assert value_row("fp4", "float32", bytes(32), 1, one).tolist() == [0.03125] * 2
    assert value_row("fp4", "float32", bytes([0x80] * 32), 1, one).tolist() == [-0.03125] * 2


@types
@split_formats
def test_wild_scales_multiply_through(name: str, dtype: str) -> None:
    x = ref.Arithmetic(dtype).of(np.random.default_rng(5).standard_normal(64 + ref.SLACK))
    layout = fused.LAYOUT[name]
    for i, scale in enumerate([0.0, -0.0, 2.0**-24, 65504.0, 1e-40, 3e38, np.inf, -np.inf, np.nan]):
        code = codes_of(name)[(7 * i + 3) % len(codes_of(name))]
        with np.errstate(over="ignore"):
            stored = layout.scale(scale)
        quants = quants_of(name, code)
        w = np.frombuffer(quants + stored.tobytes() + bytes(ref.SLACK), np.uint8).copy()
        first = layout.run * np.arange(fused.shape_of_projections(name, HOST_CLASS)[1])[None, :] // 64
        want = np.repeat(fused.run_sums(name, dtype, w, x, 1, first, 64), 2)
        assert ref.differing(value_row(name, dtype, quants, stored, x), want) == 0, scale


@types
def test_a_bias_of_iq2_xxs_is_dropped(dtype: str) -> None:
    plain, biased = (fused.call_projections(Projections("iq2_xxs", dtype, 512, bias=b)) for b in (False, True))
    assert different(plain.numbers(), biased.numbers()) == [0, 0, 0]
    assert plain.launches[-1].instance == biased.launches[-1].instance


@pytest.mark.parametrize("vtype", ["q5_k", "q6_k", "q4_k"])
def test_the_value_weight_of_iq2_xxs_is_q2_k_whatever_its_code_says(vtype: str) -> None:
    c = Projections("iq2_xxs", "float32", 512, (48, 16, 80), vtype=fused.CODES[vtype])
    assert 16 < c.counted_rows(2) < 80
    assert_bits(c)


@pytest.mark.parametrize("name, vtype", [("q4_0", "q8_0"), ("q4_0", "q5_1"), ("fp4", "q4_k"), ("fp6", "fp8_e4m3")])
def test_the_value_s_code_only_counts_its_rows(name: str, vtype: str) -> None:
    """The scale plane is looked for where it would be with that number of rows."""
    c = Projections(name, "float32", 256, (48, 16, 64), vtype=fused.CODES[vtype])
    assert 16 < c.counted_rows(2) < 64
    assert_bits(c)


def test_two_projections_are_the_first_two_of_three() -> None:
    for dtype in ref.DTYPES:
        three = fused.call_projections(Projections("iq2_xxs", dtype, 512))
        two = fused.call_projections(Projections("iq2_xxs", dtype, 512, rows=(48, 16)))
        assert type(two.results) is list and len(two.results) == 2
        assert_grown(two)
        assert different(two.numbers(), three.numbers()[:2]) == [0, 0]
        assert two.launches[-1].global_size == (24 * 32, 2)


def test_a_row_that_is_no_block_of_64_begins_in_its_block() -> None:
    """Nothing refuses it; the second row of a pair is then counted from the first one's block."""
    for name in fused.LAYOUT:
        for state in (16, 80, 208):
            assert_bits(Projections(name, "float32", state, rows=(64, 64, 64), head_size=32, position=0))


# --- How it is called -----------------------------------------------------------------------------------------------


def arguments(dtype: torch.dtype = torch.float32, state: int = 64, code: int = 2) -> list:
    """Of forward_qkv, with weights of 32 rows."""
    name = next((n for n in fused.FORMATS if fused.CODES[n] == code), "q4_0")
    weight = torch.zeros(32 * state // fused.ELEMENTS[name] * fused.BYTES[name], dtype=torch.uint8, device="xpu")
    caches = [torch.zeros(1, 2, 3, 16, dtype=dtype, device="xpu")[:, :, :2] for _ in "kv"]
    x = torch.ones(1, state, dtype=dtype, device="xpu")
    ids = torch.zeros(1, dtype=torch.int64, device="xpu")
    return [x, weight, weight, weight, ids, *caches, code, code, 2, 16, 10000.0]


NAMES = ["input", "weight_q", "weight_k", "weight_v", "position_ids", "cache_k", "cache_v"]
NAMES += ["src_0_qtype", "src_0_vtype", "kv_seq_len", "head_size", "rope_base"]


def test_the_base_is_10000_unless_given() -> None:
    c = Projections("q4_0", "float32", rope_base=10000.0, position=3)
    want = fused.call_projections(c).numbers()
    for by_name in (False, True):
        rooms, caches = fused.caches_of(c)
        values = [*fused.operands(c), torch.tensor([3], device="xpu"), *caches, 2, 2, 2, 16]
        if by_name:
            query, _, _ = orrery_ops.forward_qkv(**dict(zip(NAMES, values)))
        else:
            query, _, _ = orrery_ops.forward_qkv(*values)
        assert different([ref.numbers(query), *map(ref.numbers, rooms)], want) == [0, 0, 0]


def with_bias(values: list) -> list:
    return [*values[:4], *(torch.zeros(16, device="xpu") for _ in "qkv"), *values[4:]]


def without_value(values: list) -> list:
    return [*values[:3], values[4], values[5], values[7], *values[9:]]


OPERATIONS = {
    "forward_qkv": lambda values: orrery_ops.forward_qkv(*values),
    "forward_qkv_bias": lambda values: orrery_ops.forward_qkv_bias(*with_bias(values)),
    "forward_qk": lambda values: orrery_ops.forward_qk(*without_value(values)),
}
operations = pytest.mark.parametrize("operation", OPERATIONS)


def refused(operation: str, values: list, error: type = RuntimeError) -> str:
    """The first line of the message; nothing but a quantizer was launched and no cache was written."""
    before = [cache.clone() for cache in values[5:7]]
    with pytest.raises(error) as caught, orrery_host.record_launches() as launches:
        OPERATIONS[operation](values)
    assert type(caught.value) is error and {launch.kernel for launch in launches} <= {QUANTIZER}
    assert all(torch.equal(now, then) for now, then in zip(values[5:7], before, strict=True))
    return str(caught.value).splitlines()[0]


@pytest.mark.parametrize("batch", [0, 2, 5])
@operations
def test_another_number_of_rows_than_one_ends_the_process(operation: str, batch: int) -> None:
    """Before anything else is looked at."""
    for code in (21, 3):
        values = arguments(code=code)
        values[0] = torch.ones(batch, 64, device="xpu")
        assert_dies_with("batch_size == 1", UNIT, lambda: OPERATIONS[operation](values))


@pytest.mark.parametrize("operation", ["forward_qkv", "forward_qkv_bias"])
@split_formats
def test_a_row_that_is_no_whole_number_of_runs_is_refused(name: str, operation: str) -> None:
    run = RUN[name]
    for state in (run // 2, 1024 + run // 2, 1000 if run == 16 else 1004):
        text = refused(operation, arguments(state=state, code=fused.CODES[name]))
        assert text == f"%d must be a multiple of %d{state}{run}"


OTHER_TYPES = {torch.int64: "Long", torch.int32: "Int", torch.uint8: "Byte", torch.bool: "Bool"}


@pytest.mark.parametrize("dtype", OTHER_TYPES)
@pytest.mark.parametrize("operation", ["forward_qkv", "forward_qkv_bias"])
@split_formats
def test_a_type_without_arithmetic_is_refused(name: str, operation: str, dtype: torch.dtype) -> None:
    kernel = Projections(name, "float32").kernel
    text = refused(operation, arguments(dtype, code=fused.CODES[name]), NotImplementedError)
    assert text == f"\"{kernel}\" not implemented for '{OTHER_TYPES[dtype]}'"
    # The row is tested before the type.
    assert refused(operation, arguments(dtype, 1004, fused.CODES[name])).startswith("%d must be a multiple of %d1004")


@pytest.mark.parametrize("state", [64, 320, 4000])
@operations
def test_a_row_that_cannot_be_quantized_is_refused(operation: str, state: int) -> None:
    text = "orrery_ops: an input that is quantized first must have a multiple of 256 columns, not "
    assert refused(operation, arguments(state=state, code=21)) == text + str(state)


@pytest.mark.parametrize("dtype", OTHER_TYPES)
@operations
def test_a_type_that_cannot_be_quantized_is_refused(operation: str, dtype: torch.dtype) -> None:
    text = f"\"qlinear_forward_xpu\" not implemented for '{OTHER_TYPES[dtype]}'"
    assert refused(operation, arguments(dtype, 256, 21), NotImplementedError) == text


WITHOUT_READER = (-1, 0, 1, 4, 5, 9, 12, 20, 22, 25, 30, 12345)


@operations
def test_a_format_without_a_kernel_is_named(operation: str) -> None:
    served = fused.FORMATS if operation != "forward_qk" else ("iq2_xxs",)
    others = [name for name in fused.CODES if name not in served]
    assert len(others) == 17 - len(served)
    for name in others:
        text = refused(operation, arguments(state=256, code=fused.CODES[name]))
        assert text == f"orrery_ops: {operation} has no kernel for {name}"
    for code in WITHOUT_READER:
        assert refused(operation, arguments(state=256, code=code)) == f"unsupported qtype: {code}"


@pytest.mark.parametrize("operation", ["forward_qkv", "forward_qkv_bias"])
def test_the_value_s_code_has_to_have_sizes(operation: str) -> None:
    values = arguments()
    for code in WITHOUT_READER:
        values[8] = code
        if code not in (9, 22, 25):
            assert refused(operation, values) == f"unsupported qtype: {code}"


@operations
def test_rows_without_columns_are_refused(operation: str) -> None:
    values = arguments(code=21)
    values[0] = torch.ones(1, 0, device="xpu")
    assert refused(operation, values) == "orrery_ops: input must have at least one column"


@pytest.mark.parametrize("head_size", [1, 0, -16, 2**31])
@operations
def test_heads_without_halves_are_refused(operation: str, head_size: int) -> None:
    values = arguments(state=256, code=21)
    values[10] = head_size
    assert refused(operation, values) == f"orrery_ops: head_size must be from 2 to 2147483647, not {head_size}"


@operations
def test_a_cache_of_another_number_of_dimensions_is_refused(operation: str) -> None:
    values = arguments(state=256, code=21)
    values[5] = values[5][0]
    assert refused(operation, values) == "orrery_ops: a cache must have 4 dimensions, not 3"


@operations
def test_a_cache_or_positions_of_another_type_are_refused(operation: str) -> None:
    halves = arguments(torch.float16, 256, 21)
    for place in (5, 6)[: 1 if operation == "forward_qk" else 2]:
        values = arguments(state=256, code=21)
        values[place] = halves[place]
        assert refused(operation, values).startswith("expected scalar type Float but found Half")
    values = arguments(state=256, code=21)
    values[4] = values[4].int()
    assert refused(operation, values).startswith("expected scalar type Long but found Int")


def test_a_bias_of_another_type_is_refused() -> None:
    assert refused("forward_qkv_bias", arguments(torch.float64)).startswith(
        "expected scalar type Double but found Float"
    )


def results() -> list[torch.Tensor]:
    out = []
    for c in fused.all_projections():
        if c.state in (1088, 1280):
            called = fused.call_projections(c)
            out += [called.results[0], *called.rooms]
    return out


def test_neither_schedule_nor_threads_show() -> None:
    assert_same_bits_in_any_order("test_fused_qkv", results)
