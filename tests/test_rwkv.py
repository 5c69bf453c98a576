"""The RWKV operations: bit for bit against their recurrences in numpy, states carried from call to call."""

from __future__ import annotations

import re

import numpy as np
import pytest
import torch
from kernel_reference import (
    assert_dies_with,
    assert_same_bits,
    assert_same_bits_in_any_order,
    between_nan,
    leave_nan_behind,
)
from linear_reference import float32_of

import orrery_host
import orrery_ops

FLOAT, HALF = torch.float32, torch.float16
CPP = {FLOAT: "float", HALF: "c10::Half"}
UNSUPPORTED_TYPE = "unsupported dtype, only fp32 and fp16 are supported"

types = pytest.mark.parametrize("dtype", [FLOAT, HALF], ids=["float", "half"])


def exp(x: np.ndarray) -> np.ndarray:
    """The native exponential is the nearest float but for one argument in some million."""
    return float32_of(np.exp, x)


def random(g: np.random.Generator, dtype: torch.dtype, *shape: int, scale: float = 1.0, shift: float = 0.0):
    return torch.from_numpy((g.standard_normal(shape) * scale + shift).astype(np.float32)).to(dtype)


def bits_of(tensors) -> list[bytes]:
    return [one.cpu().contiguous().numpy().tobytes() for one in tensors]


# --- v4 -------------------------------------------------------------------------------------------------------------


@np.errstate(all="ignore")
def v4_reference(args: list[torch.Tensor]) -> tuple[np.ndarray, ...]:
    """Result and the three states."""
    decay, first, key, value, num, den, mx = (one.cpu().numpy().astype(np.float32) for one in args)
    result = np.zeros_like(key)
    for t in range(key.shape[1]):
        k, v = key[:, t], value[:, t]
        w = first + k
        m1 = np.fmax(mx, w)
        e1, e2 = exp(mx - m1), exp(w - m1)
        result[:, t] = (e1 * num + e2 * v) / (e1 * den + e2)
        w2 = mx + decay
        m2 = np.fmax(w2, k)
        e1, e2 = exp(w2 - m2), exp(k - m2)
        num, den, mx = e1 * num + e2 * v, e1 * den + e2, m2
    return result.astype(np.float16 if args[2].dtype == HALF else np.float32), num, den, mx


def v4_case(seed: int, dtype: torch.dtype, bsz: int, seq: int, hidden: int) -> list[torch.Tensor]:
    """As a stream leaves it in the middle: negative decays, a positive denominator."""
    g = np.random.default_rng(seed + hidden)
    decay, first = random(g, dtype, hidden, shift=-2.0), random(g, dtype, hidden)
    key, value = random(g, dtype, bsz, seq, hidden, scale=2.0), random(g, dtype, bsz, seq, hidden)
    num, mx = random(g, FLOAT, bsz, hidden), random(g, FLOAT, bsz, hidden, scale=2.0)
    den = random(g, FLOAT, bsz, hidden).abs() + 0.1
    return [between_nan(one) for one in (decay, first, key, value, num, den, mx)]


def v4(args: list[torch.Tensor]) -> torch.Tensor:
    leave_nan_behind(tuple(args[2].shape), args[2].dtype)
    return orrery_ops.rwkv_linear_attention_v4(*args)


def v4_check(args: list[torch.Tensor]) -> torch.Tensor:
    expected, inputs = v4_reference(args), bits_of(args[:4])
    result = v4(args)
    assert result.is_contiguous() and result.device.type == "xpu"
    assert_same_bits(result, expected[0])
    for state, want in zip(args[4:], expected[1:], strict=True):
        assert_same_bits(state, want)
    assert bits_of(args[:4]) == inputs
    return result


@types
@pytest.mark.parametrize("sizes", [(1, 1, 32), (2, 5, 64), (3, 19, 96), (1, 33, 576), (2, 111, 32)])
def test_v4_is_bit_exact(dtype, sizes):
    v4_check(v4_case(sum(sizes), dtype, *sizes))


@types
def test_v4_agrees_with_float64(dtype):
    """A second opinion without the guarding maximum. Each step adds less than 2^-21 to the relative error of a sum
    whose terms decay; half rounds the result to 11 bits and the keys before, which both ways get alike."""
    args = v4_case(1, dtype, 2, 50, 64)
    decay, first, key, value, num, den, mx = (one.cpu().double().numpy() for one in args)
    num, den = num * np.exp(mx), den * np.exp(mx)
    expected = np.zeros_like(key)
    for t in range(50):
        k, v = np.exp(key[:, t]), value[:, t]
        bonus = np.exp(first) * k
        expected[:, t] = (num + bonus * v) / (den + bonus)
        num, den = np.exp(decay) * num + k * v, np.exp(decay) * den + k
    result = v4(args).cpu().double().numpy()
    bound = 50 * 2**-21 * np.abs(value).max() + (0 if dtype == FLOAT else 2**-11 * np.abs(expected))
    assert (np.abs(result - expected) <= bound).all()
    states = [one.cpu().double().numpy() for one in args[4:]]
    np.testing.assert_allclose(states[0] * np.exp(states[2]), num, rtol=2**-14, atol=1e-5)
    np.testing.assert_allclose(states[1] * np.exp(states[2]), den, rtol=2**-14)


@types
def test_v4_start_of_a_stream(dtype):
    """Minus infinity as the maximum: the first result is the value itself, whatever finite state stands there."""
    args = v4_case(2, dtype, 2, 4, 32)
    args[6].fill_(-torch.inf)
    args[4].fill_(3.0)
    result = v4_check(args)
    assert torch.equal(result[:, 0], args[3][:, 0])
    assert args[6].isfinite().all()
    empty = v4_case(2, dtype, 2, 4, 32)
    empty[6].fill_(-torch.inf)
    empty[4].zero_()
    empty[5].zero_()
    v4_check(empty)


def test_v4_exponentials_of_0_are_1():
    """One of the two exponentials always is e^0; with equal terms both are, and every number is exact."""
    args = v4_case(3, FLOAT, 1, 1, 32)
    for one, number in zip(args, (0.0, 0.0, 2.0, 3.0, 5.0, 1.0, 2.0), strict=True):
        one.fill_(number)
    result = v4(args)
    assert (result == 4.0).all()  # (5 + 3) / (1 + 1)
    assert (args[4] == 8.0).all() and (args[5] == 2.0).all() and (args[6] == 2.0).all()


def test_v4_decay_and_first_are_taken_as_they_stand():
    """The first is of the result alone, the decay of the state alone."""
    base = v4_case(4, FLOAT, 1, 1, 32)
    other_first, other_decay = ([one.clone() for one in base] for _ in range(2))
    other_first[1] += 1.0
    other_decay[0] -= 1.0
    results = [v4(one) for one in (base, other_first, other_decay)]
    assert (results[0] != results[1]).all() and torch.equal(results[0], results[2])
    assert bits_of(base[4:]) == bits_of(other_first[4:])
    assert bits_of(base[4:]) != bits_of(other_decay[4:])


@types
def test_v4_in_chunks(dtype):
    """A call goes on where the last one has stopped, to the bit."""
    whole, parts = v4_case(5, dtype, 2, 29, 64), v4_case(5, dtype, 2, 29, 64)
    expected = v4_check(whole)
    results, start = [], 0
    for count in (1, 0, 7, 2, 16, 3):
        chunk = [one[:, start : start + count].contiguous() for one in parts[2:4]]
        results.append(v4([*parts[:2], *chunk, *parts[4:]]))
        start += count
    assert bits_of([torch.cat(results, 1)]) == bits_of([expected])
    assert bits_of(parts[4:]) == bits_of(whole[4:])


@types
def test_v4_without_steps(dtype):
    args = v4_case(6, dtype, 2, 0, 64)
    args[4][0, 0], args[6][1, 1], args[4][0, 1] = -0.0, -torch.inf, torch.nan
    before = bits_of(args[4:])
    with orrery_host.record_launches() as launches:
        result = v4(args)
    assert (result.shape, result.dtype) == ((2, 0, 64), dtype)
    assert bits_of(args[4:]) == before
    (launch,) = launches
    assert (launch.kernel, launch.global_size) == ("rwkv_linear_attention_kernel_v4", (2, 64))


@types
def test_v4_extreme_numbers(dtype):
    args = v4_case(7, dtype, 1, 6, 64)
    key, value = args[2], args[3]
    key[0, 1, 0], key[0, 2, 1], key[0, 3, 2] = torch.inf, -torch.inf, torch.nan
    value[0, 1, 3], value[0, 2, 4] = torch.inf, torch.nan
    key[0, :, 5], key[0, :, 6] = 60000.0, -60000.0
    args[6][0, 7], args[5][0, 8], args[6][0, 9] = torch.nan, 0.0, torch.inf
    args[0][10], args[1][11] = torch.nan, -torch.inf
    # A key that is no number leaves the maximum as it is, in the last step and in one before smaller keys.
    key[0, 5, 12], key[0, 4, 13], key[0, 5, 13] = torch.nan, torch.nan, -50.0
    # Two infinities of which neither is the larger: their distance is no number.
    key[0, 0, 14], args[6][0, 14] = -torch.inf, -torch.inf
    result = v4_check(args)
    assert result[0, 0, 14].isnan() and result[0, :, 15:].isfinite().all() and args[6][0, 12:].isfinite().all()


def test_v4_reads_as_packed():
    """Neither strides nor a size beyond the key's matter."""
    args = v4_case(8, FLOAT, 2, 4, 32)
    packed = [one.clone() for one in args]
    swapped = args[2].view(2, 32, 4).transpose(1, 2)
    assert swapped.shape == args[2].shape and not swapped.is_contiguous()
    result = orrery_ops.rwkv_linear_attention_v4(*args[:2], swapped, *args[3:])
    assert_same_bits(result, v4_reference(packed)[0])


@types
@pytest.mark.parametrize("sizes", [(3, 5, 96), (0, 5, 64), (2, 3, 0)])
def test_v4_launch(dtype, sizes):
    args = v4_case(9, dtype, *sizes)
    with orrery_host.record_launches() as launches:
        assert v4(args).shape == sizes
    (launch,) = launches
    assert (launch.name, launch.kernel) == ("gridrun_kernel", "rwkv_linear_attention_kernel_v4")
    assert launch.instance == f"{CPP[dtype]}, 32, 16"
    assert (launch.file, launch.function) == ("rwkv", "rwkv_linear_attention_kernel_v4")
    assert (launch.global_size, launch.local_size) == ((sizes[0], sizes[2]), (1, 32))
    assert (launch.sub_group_size, launch.local_memory, launch.waited) == (16, 0, False)


# --- v5 -------------------------------------------------------------------------------------------------------------


def rows_by_strides_of(key: torch.Tensor, other: torch.Tensor) -> np.ndarray:
    """What a tensor holds where the key's strides point to."""
    return torch.as_strided(other, key.shape, (*key.stride()[:3], 1), other.storage_offset()).cpu().numpy()


@np.errstate(all="ignore")
def v5_reference(args: list[torch.Tensor]) -> tuple[np.ndarray, np.ndarray]:
    """Result and state."""
    w, u = (one.cpu().numpy()[None, ..., None] for one in args[:2])  # [1, head, i, 1]
    receptance, key, value = (rows_by_strides_of(args[3], one) for one in args[2:5])
    s = args[5].cpu().numpy().copy()  # [batch, head, i, j]
    bsz, heads, seq, _ = key.shape
    result = np.zeros((bsz, seq, heads, 64), np.float32)
    for t in range(seq):
        v, acc = value[:, :, t], np.zeros((bsz, heads, 64), np.float32)
        for i in range(64):
            a = key[:, :, t, i, None] * v
            acc = acc + receptance[:, :, t, i, None] * (u[:, :, i] * a + s[:, :, i])
            s[:, :, i] = a + w[:, :, i] * s[:, :, i]
        result[:, t] = acc
    return result, s


def v5_case(seed: int, bsz: int, heads: int, seq: int, as_projected: bool = False) -> list[torch.Tensor]:
    """`as_projected`: [batch, position, head, element], as projections leave them."""
    g = np.random.default_rng(seed + 100 * heads + seq)
    w = torch.from_numpy(g.uniform(0.5, 1.0, (heads, 64)).astype(np.float32))
    rows = [random(g, FLOAT, bsz, heads, seq, 64) for _ in range(3)]
    if as_projected:
        rows = [between_nan(one.transpose(1, 2).contiguous()).transpose(1, 2) for one in rows]
    else:
        rows = [between_nan(one) for one in rows]
    u, state = random(g, FLOAT, heads, 64), random(g, FLOAT, bsz, heads, 64, 64)
    return [between_nan(w), between_nan(u), *rows, between_nan(state)]


def v5(args: list[torch.Tensor]) -> torch.Tensor:
    bsz, heads, seq, head_dim = args[3].shape
    leave_nan_behind((bsz, seq, heads, head_dim), FLOAT)
    return orrery_ops.rwkv_linear_attention_v5(*args)


def v5_check(args: list[torch.Tensor]) -> torch.Tensor:
    expected, state = v5_reference(args)
    inputs = bits_of(args[:5])
    result = v5(args)
    assert result.is_contiguous() and result.device.type == "xpu"
    assert_same_bits(result, expected)
    assert_same_bits(args[5], state)
    assert bits_of(args[:5]) == inputs
    return result


@pytest.mark.parametrize("as_projected", [False, True])
@pytest.mark.parametrize("sizes", [(1, 1, 1), (2, 3, 5), (1, 9, 33), (3, 1, 19), (1, 2, 99)])
def test_v5_is_bit_exact(sizes, as_projected):
    v5_check(v5_case(sum(sizes), *sizes, as_projected))


def test_v5_agrees_with_float64():
    """A second opinion as matrices. 64 terms of a sum and the steps of a state that halves at least every 60th keep
    the error below 2^-14 of the largest number."""
    args = v5_case(1, 2, 3, 40)
    w, u, r, k, v, state = (one.cpu().double() for one in args)
    expected = []
    for t in range(40):
        a = k[:, :, t, :, None] * v[:, :, t, None, :]
        expected.append(r[:, :, t, None, :] @ (u[..., None] * a + state))
        state = a + w[..., None] * state
    result = v5(args).cpu().double()
    expected = torch.stack([one[:, :, 0] for one in expected], 1)
    assert (result - expected).abs().max() < 2**-14 * expected.abs().max()
    assert (args[5].cpu().double() - state).abs().max() < 2**-14 * state.abs().max()


def test_v5_one_step_of_whole_numbers():
    """Exact whatever the order: what multiplies what, and the result's layout [batch, position, head, element]."""
    g = np.random.default_rng(2)
    args = v5_case(2, 2, 3, 1)
    for one in args:
        one.copy_(torch.from_numpy(g.integers(-3, 4, one.shape).astype(np.float32)))
    w, u, r, k, v, state = (one.cpu().clone() for one in args)
    a = k[:, :, 0, :, None] * v[:, :, 0, None, :]
    result = v5(args).cpu()
    assert result.shape == (2, 1, 3, 64)
    assert torch.equal(result[:, 0], torch.einsum("bhi,bhij->bhj", r[:, :, 0], u[..., None] * a + state))
    assert torch.equal(args[5].cpu(), a + w[..., None] * state)


@pytest.mark.parametrize("as_projected", [False, True])
def test_v5_in_chunks(as_projected):
    whole, parts = v5_case(3, 2, 3, 23, as_projected), v5_case(3, 2, 3, 23, as_projected)
    expected = v5_check(whole)
    results, start = [], 0
    for count in (1, 5, 0, 2, 12, 3):
        chunk = [one[:, :, start : start + count] for one in parts[2:5]]
        results.append(v5([*parts[:2], *chunk, parts[5]]))
        start += count
    assert bits_of([torch.cat(results, 1)]) == bits_of([expected])
    assert bits_of(parts[5:]) == bits_of(whole[5:])


def test_v5_strides_of_the_key_serve_all_three():
    args = v5_case(4, 2, 3, 5)
    # The key by positions first, the others contiguous: their rows are those at the key's places.
    args[3] = args[3].view(2, 5, 3, 64).transpose(1, 2)
    assert args[2].is_contiguous() and args[4].is_contiguous() and not args[3].is_contiguous()
    v5_check(args)
    # The other way round, one of each.
    args = v5_case(5, 2, 3, 5)
    args[2] = args[2].view(2, 5, 3, 64).transpose(1, 2)
    args[4] = args[4].view(3, 2, 5, 64).transpose(0, 1)
    v5_check(args)


def test_v5_rows_apart():
    """Slices of a projection of all three, 192 elements a head."""
    g = np.random.default_rng(6)
    together = between_nan(random(g, FLOAT, 2, 7, 3, 192))
    args = v5_case(6, 2, 3, 7)
    args[2:5] = [together[..., i : i + 64].transpose(1, 2) for i in (0, 64, 128)]
    v5_check(args)


def test_v5_without_steps():
    args = v5_case(7, 2, 3, 0)
    args[5][0, 0, 0, 0], args[5][1, 2, 63, 63], args[5][0, 1, 2, 3] = -0.0, torch.nan, torch.inf
    before = bits_of(args[5:])
    with orrery_host.record_launches() as launches:
        assert v5(args).shape == (2, 0, 3, 64)
    assert bits_of(args[5:]) == before
    (launch,) = launches
    assert launch.global_size == (2, 3, 64)


def test_v5_extreme_numbers():
    args = v5_case(8, 1, 3, 4)
    w, u, r, k, v, state = args
    k[0, 0, 1, 3], v[0, 0, 2, 5], r[0, 0, 2, 7] = torch.inf, torch.nan, 0.0
    state[0, 1], w[1, 4], u[1, 5] = 1e38, 3e38, -1e-45
    k[0, 2], v[0, 2] = 1e-25, 1e-15  # products below the normal numbers are kept
    v5_check(args)
    assert not args[5][0, 0].isfinite().all() and args[5][0, 2].isfinite().all()


@pytest.mark.parametrize("sizes", [(2, 3, 5), (0, 3, 5), (2, 0, 5)])
def test_v5_launch(sizes):
    bsz, heads, seq = sizes
    args = v5_case(9, *sizes)
    with orrery_host.record_launches() as launches:
        assert v5(args).shape == (bsz, seq, heads, 64)
    (launch,) = launches
    assert (launch.name, launch.kernel) == ("gridrun_kernel", "rwkv_linear_attention_kernel_v5")
    assert launch.instance == "64, 32, 16"
    assert (launch.file, launch.function) == ("rwkv", "rwkv_linear_attention_kernel_v5")
    assert (launch.global_size, launch.local_size) == ((bsz, heads, 64), (1, 1, 32))
    assert (launch.sub_group_size, launch.local_memory, launch.waited) == (16, 0, False)


# --- Time shift -----------------------------------------------------------------------------------------------------


@np.errstate(all="ignore")
def shift_reference(hidden: torch.Tensor, shifted: torch.Tensor, mix: torch.Tensor) -> np.ndarray:
    """Every operation in the tensors' type."""
    hidden, shifted, mix = (one.cpu().numpy() for one in (hidden, shifted, mix))
    rows = mix.reshape(-1, mix.shape[2])[: mix.shape[0], None, None]
    d = hidden - shifted
    return shifted + rows * d


def shift_case(seed: int, dtype: torch.dtype, bsz: int, seq: int, hidden: int, mixes: int, apart: int = 1):
    g = np.random.default_rng(seed + hidden)
    shapes = (bsz, seq, hidden), (bsz, seq, hidden), (mixes, apart, hidden)
    return [between_nan(random(g, dtype, *shape)) for shape in shapes]


def time_shift(args: list[torch.Tensor]) -> torch.Tensor:
    leave_nan_behind((args[2].shape[0], *args[0].shape), args[0].dtype)
    return orrery_ops.rwkv_time_shift(*args)


@types
@pytest.mark.parametrize("sizes", [(1, 1, 64, 1), (2, 5, 128, 3), (3, 19, 576, 5), (1, 99, 64, 4)])
def test_time_shift_is_bit_exact(dtype, sizes):
    args = shift_case(1, dtype, *sizes)
    inputs = bits_of(args)
    result = time_shift(args)
    assert result.is_contiguous() and result.device.type == "xpu"
    assert_same_bits(result, shift_reference(*args))
    assert bits_of(args) == inputs


@types
@pytest.mark.parametrize("apart", [0, 2, 3])
def test_mixes_are_rows_of_the_packed_data(dtype, apart):
    """Whatever the middle size: the first rows, at a pitch of hidden_size."""
    args = shift_case(2, dtype, 2, 3, 64, 5, apart)
    if apart == 0:
        args[2] = torch.empty(0, 0, 64, dtype=dtype, device="xpu")
        assert time_shift(args).shape == (0, 2, 3, 64)
    else:
        assert_same_bits(time_shift(args), shift_reference(*args))
        assert torch.equal(time_shift(args)[1], time_shift([*args[:2], args[2].view(-1, 1, 64)])[1])


def test_time_shift_in_half_rounds_each_operation():
    """Not the float computation rounded once."""
    args = shift_case(3, HALF, 2, 9, 64, 3)
    in_float = shift_reference(*(one.float() for one in args)).astype(np.float16)
    assert (time_shift(args).cpu().numpy() != in_float).mean() > 0.05


@types
def test_time_shift_of_extreme_numbers(dtype):
    args = shift_case(4, dtype, 1, 4, 64, 2)
    largest = torch.finfo(dtype).max
    args[0][0, 0, :4] = torch.tensor([torch.inf, torch.nan, largest, -0.0], dtype=dtype)
    args[1][0, 0, :4] = torch.tensor([torch.inf, 1.0, -largest, -0.0], dtype=dtype)
    args[0][0, 1], args[1][0, 1] = torch.finfo(dtype).tiny / 4, torch.finfo(dtype).tiny / 8
    args[2][0, 0, :8] = 0.0
    result = time_shift(args)
    assert_same_bits(result, shift_reference(*args))
    assert (result[:, 0, 1] != 0).any()


@types
@pytest.mark.parametrize("sizes", [(3, 5, 192, 2), (0, 5, 64, 2), (2, 0, 64, 1), (2, 3, 64, 0), (2, 3, 0, 2)])
def test_time_shift_launch(dtype, sizes):
    bsz, seq, hidden, mixes = sizes
    args = shift_case(5, dtype, *sizes)
    with orrery_host.record_launches() as launches:
        result = time_shift(args)
    assert (result.shape, result.dtype) == ((mixes, bsz, seq, hidden), dtype)
    (launch,) = launches
    assert (launch.name, launch.kernel) == ("gridrun_kernel", "rwkv_time_shift_kernel")
    assert launch.instance == f"{CPP[dtype]}, 64, 32"
    assert (launch.file, launch.function) == ("rwkv", "rwkv_time_shift_kernel")
    assert (launch.global_size, launch.local_size) == ((bsz, seq, hidden), (1, 1, 64))
    assert (launch.sub_group_size, launch.local_memory, launch.waited) == (32, 0, False)


# --- Failures -------------------------------------------------------------------------------------------------------

OPERATIONS = {
    "v4": (orrery_ops.rwkv_linear_attention_v4, lambda: v4_case(0, FLOAT, 2, 3, 64)),
    "v5": (orrery_ops.rwkv_linear_attention_v5, lambda: v5_case(0, 2, 3, 5)),
    "time shift": (orrery_ops.rwkv_time_shift, lambda: shift_case(0, FLOAT, 2, 3, 64, 2)),
}

V4_DIMS = ("time_decay.dim() == 1 && time_first.dim() == 1", "key.dim() == 3 && value.dim() == 3",
           "num_state.dim() == 2 && den_state.dim() == 2 && max_state.dim() == 2",
           "time_decay.scalar_type() == key.scalar_type() && time_first.scalar_type() == key.scalar_type()",
           "hidden_size % GS == 0")  # fmt: skip
V5_DIMS = ("time_decay.dim() == 2 && time_first.dim() == 2",
           "receptance.dim() == 4 && key.dim() == 4 && value.dim() == 4 && state.dim() == 4",
           "time_decay.is_contiguous() && time_first.is_contiguous() && state.is_contiguous()",
           "head_dim == 64")  # fmt: skip
SHIFT_DIMS = ("hidden.dim() == 3 && shifted.dim() == 3 && mix.dim() == 3",
              "hidden.size(2) == shifted.size(2) && hidden.size(2) == mix.size(2)",
              "hidden.is_contiguous() && shifted.is_contiguous() && mix.is_contiguous()",
              "hidden.scalar_type() == shifted.scalar_type() && hidden.scalar_type() == mix.scalar_type()",
              "hidden_size % GS == 0")  # fmt: skip


def more_dims(x: torch.Tensor) -> torch.Tensor:
    return x[None]


def apart(x: torch.Tensor) -> torch.Tensor:
    return x.repeat_interleave(2, -1)[..., ::2]


def half(x: torch.Tensor) -> torch.Tensor:
    return x.half()


def narrow(x: torch.Tensor) -> torch.Tensor:
    return x[..., :48].contiguous()


# Each with something wrong that a later test would refuse.
ASSERTIONS = [
    ("v4", V4_DIMS[0], {0: more_dims, 2: more_dims}),
    ("v4", V4_DIMS[0], {1: more_dims, 4: more_dims}),
    ("v4", V4_DIMS[1], {2: more_dims, 4: more_dims}),
    ("v4", V4_DIMS[1], {3: more_dims, 0: half}),
    *(("v4", V4_DIMS[2], {i: more_dims, 0: half}) for i in (4, 5, 6)),
    ("v4", V4_DIMS[3], {0: half, 2: narrow}),
    ("v4", V4_DIMS[3], {1: half, 4: half}),
    ("v4", V4_DIMS[3], {2: half}),
    ("v4", V4_DIMS[4], dict.fromkeys(range(7), narrow)),
    ("v5", V5_DIMS[0], {0: more_dims, 2: more_dims}),
    ("v5", V5_DIMS[0], {1: more_dims, 5: apart}),
    *(("v5", V5_DIMS[1], {i: more_dims, 0: apart}) for i in (2, 3, 4, 5)),
    *(("v5", V5_DIMS[2], {i: apart, 3: narrow}) for i in (0, 1, 5)),
    ("v5", V5_DIMS[3], dict.fromkeys((0, 1, 2, 3, 4), narrow)),
    ("v5", V5_DIMS[3], {2: apart, 3: narrow}),
    *(("time shift", SHIFT_DIMS[0], {0: narrow, i: more_dims}) for i in (0, 1, 2)),
    *(("time shift", SHIFT_DIMS[1], {(i + 1) % 3: apart, i: narrow}) for i in (0, 1, 2)),
    *(("time shift", SHIFT_DIMS[2], {(i + 1) % 3: half, i: apart}) for i in (0, 1, 2)),
    *(("time shift", SHIFT_DIMS[3], {i: half}) for i in (0, 1, 2)),
    ("time shift", SHIFT_DIMS[3], {0: lambda x: narrow(x).half(), 1: narrow, 2: narrow}),
    ("time shift", SHIFT_DIMS[4], dict.fromkeys(range(3), narrow)),
]  # fmt: skip


@pytest.mark.parametrize("operation, expression, changes", ASSERTIONS)
def test_assertions_in_order(operation, expression, changes):
    function, case = OPERATIONS[operation]
    args = [changes.get(i, lambda x: x)(x) for i, x in enumerate(case())]
    assert_dies_with(expression, "rwkv", lambda: function(*args))


@pytest.mark.parametrize("operation", ["v4", "time shift"])
@pytest.mark.parametrize("dtype", [torch.float64, torch.bfloat16, torch.int32])
@pytest.mark.parametrize("hidden", [64, 48])  # the type comes before the size
def test_unsupported_type(operation, dtype, hidden):
    function, case = OPERATIONS[operation]
    count = 4 if operation == "v4" else 3
    args = [one[..., :hidden].contiguous() for one in case()]
    args = [one.to(dtype) for one in args[:count]] + args[count:]
    with pytest.raises(RuntimeError) as error:
        function(*args)
    assert str(error.value) == UNSUPPORTED_TYPE


@pytest.mark.parametrize("state", [4, 5, 6])
@pytest.mark.parametrize("dtype, name", [(HALF, "Half"), (torch.float64, "Double")])
@pytest.mark.parametrize("hidden", [64, 48])  # the states' type comes before the size too
def test_v4_states_are_float(state, dtype, name, hidden):
    args = [one[..., :hidden].contiguous() for one in v4_case(0, HALF, 2, 3, 64)]
    args[state] = args[state].to(dtype)
    with pytest.raises(RuntimeError, match=f"^{re.escape(f'expected scalar type Float but found {name}')}$"):
        orrery_ops.rwkv_linear_attention_v4(*args)


@pytest.mark.parametrize("which", range(6))
@pytest.mark.parametrize("dtype, name", [(HALF, "Half"), (torch.float64, "Double"), (torch.bfloat16, "BFloat16")])
def test_v5_is_for_float_alone(which, dtype, name):
    args = v5_case(0, 1, 2, 3)
    args[which] = args[which].to(dtype)
    with pytest.raises(RuntimeError, match=f"^expected scalar type Float but found {name}$"):
        orrery_ops.rwkv_linear_attention_v5(*args)


def results() -> list[torch.Tensor]:
    out = []
    for dtype in (FLOAT, HALF):
        args = v4_case(20, dtype, 3, 9, 96)
        out += [v4(args), *args[4:], time_shift(shift_case(21, dtype, 3, 5, 128, 3))]
    args = v5_case(22, 2, 5, 9, as_projected=True)
    return [*out, v5(args), args[5]]


def test_bits_do_not_depend_on_threads_or_schedule():
    assert_same_bits_in_any_order("test_rwkv", results)
